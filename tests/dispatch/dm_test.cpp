#include "dm_support.hpp"

#include <qel/thread.h>

#include <pthread.h>

using namespace qel_test;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Appends its data to the vector that 'modifier' points at.
void append(qel_dm_handle, std::uint64_t data, std::uint64_t modifier) {
    reinterpret_cast<std::vector<std::uint64_t>*>(modifier)->push_back(data);
}

int append_job(qel_dm_handle handle, std::uint64_t value, std::vector<std::uint64_t>& out) {
    return qel_dm_execute(handle, append, value, reinterpret_cast<std::uint64_t>(&out));
}

void do_nothing(qel_dm_handle, std::uint64_t, std::uint64_t) {}

}  // namespace

TEST(Dispatcher, refuses_null_stale_and_foreign_handles) {
    EXPECT_EQ(qel_dm_create(nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(qel_dm_destroy(nullptr), EINVAL);
    qel_dm_handle made = 7;
    int native = 0;
    EXPECT_EQ(qel_dm_create_from_native_dm(&made, nullptr, 0, &native), EOPNOTSUPP);
    EXPECT_EQ(made, 0u);
    ASSERT_EQ(qel_dm_create(&made, nullptr, 0), 0);
    qel_dm_handle stale = made;
    ASSERT_EQ(qel_dm_destroy(&made), 0);
    EXPECT_EQ(made, 0u);
    for (qel_dm_handle bad : {qel_dm_handle{0}, stale, stale | qel_dm_handle{1} << 32, ~qel_dm_handle{0}}) {
        qel_dm_handle copy = bad;
        EXPECT_EQ(qel_dm_wait(bad), EINVAL);
        EXPECT_EQ(qel_dm_dispatch(bad), EINVAL);
        EXPECT_EQ(qel_dm_xdispatch(bad, nullptr, nullptr), EINVAL);
        EXPECT_EQ(qel_dm_execute(bad, do_nothing, 0, 0), EINVAL);
        EXPECT_EQ(qel_dm_destroy(&copy), EINVAL);
        EXPECT_EQ(qel_dm_is_handle(bad), 0u);
        EXPECT_STREQ(qel_dm_get_name(bad), "Invalid QDM");
    }
}

TEST(Dispatcher, default_is_the_oldest_public_one) {
    qel_dm_handle hidden = 0, first = 0, second = 0;
    EXPECT_EQ(qel_dm_get_handle(), 0u);
    ASSERT_EQ(qel_dm_create(&hidden, nullptr, QEL_DM_PRIVATE), 0);
    EXPECT_EQ(qel_dm_get_handle(), 0u);
    ASSERT_EQ(qel_dm_create(&first, nullptr, 0), 0);
    ASSERT_EQ(qel_dm_create(&second, "second", 0), 0);
    EXPECT_EQ(qel_dm_get_handle(), first);
    EXPECT_STREQ(qel_dm_get_name(hidden), "PRIVATE QDM");
    EXPECT_STREQ(qel_dm_get_name(first), "PUBLIC QDM");
    EXPECT_STREQ(qel_dm_get_name(second), "second");
    EXPECT_EQ(qel_dm_is_handle(second), second);
    ASSERT_EQ(qel_dm_destroy(&first), 0);
    EXPECT_EQ(qel_dm_get_handle(), second);
    ASSERT_EQ(qel_dm_destroy(&second), 0);
    ASSERT_EQ(qel_dm_destroy(&hidden), 0);
    EXPECT_EQ(qel_dm_get_handle(), 0u);
}

TEST(Dispatcher, dispatch_needs_a_wait_on_the_same_dispatcher) {
    TestDispatcher waited, other;
    std::vector<std::uint64_t> ran;
    EXPECT_EQ(qel_dm_execute(waited.handle, nullptr, 0, 0), EINVAL);
    EXPECT_EQ(qel_dm_dispatch(waited.handle), ENOENT);
    EXPECT_EQ(append_job(waited.handle, 1, ran), 0);
    EXPECT_EQ(qel_dm_wait(waited.handle), 0);
    EXPECT_EQ(qel_dm_dispatch(other.handle), ENOENT);
    EXPECT_EQ(qel_dm_xdispatch(other.handle, nullptr, nullptr), ENOENT);
    EXPECT_EQ(qel_dm_dispatch(waited.handle), 0);
    EXPECT_THAT(ran, testing::ElementsAre(1));
}

// A thread's event is not lost when the thread ends, or waits again, without dispatching it.
TEST(Dispatcher, event_in_hand_goes_to_the_next_waiter) {
    TestDispatcher dispatcher;
    std::vector<std::uint64_t> ran;
    Pipe pipe;
    auto count = [](qel_dm_handle, std::uint32_t, std::uint32_t, void* context) {
        ++*static_cast<int*>(context);
    };
    int read_events = 0;
    ASSERT_EQ(qel_dm_fd_register(dispatcher.handle, pipe.reader(), QEL_DM_READABLE, count, &read_events), 0);
    pipe.feed();
    std::thread([&] { EXPECT_EQ(qel_dm_wait(dispatcher.handle), 0); }).join();
    EXPECT_EQ(qel_dm_wait(dispatcher.handle), 0);
    dispatcher.serve_once();
    EXPECT_EQ(read_events, 1);
    ASSERT_EQ(append_job(dispatcher.handle, 1, ran), 0);
    std::thread([&] { EXPECT_EQ(qel_dm_wait(dispatcher.handle), 0); }).join();
    dispatcher.serve_once();
    EXPECT_THAT(ran, testing::ElementsAre(1));
}

TEST(Dispatcher, explicit_dispatch_reports_what_handlers_set) {
    TestDispatcher dispatcher;
    Function set = [] { qel_dm_xd_set(5, 77); };
    Function plain = [] {};
    std::uint32_t event = 0, id = 0;
    ASSERT_EQ(execute(dispatcher.handle, set), 0);
    ASSERT_EQ(execute(dispatcher.handle, plain), 0);
    ASSERT_EQ(qel_dm_wait(dispatcher.handle), 0);
    EXPECT_EQ(qel_dm_xdispatch(dispatcher.handle, &event, &id), 0);
    EXPECT_EQ(event, 5u);
    EXPECT_EQ(id, 77u);
    // The job behind the explicit one was left for the next call, which has nothing to tell.
    EXPECT_EQ(qel_dm_xdispatch(dispatcher.handle, &event, &id), EAGAIN);
    EXPECT_EQ(qel_dm_xdispatch(dispatcher.handle, nullptr, nullptr), EAGAIN);
    ASSERT_EQ(execute(dispatcher.handle, set), 0);
    ASSERT_EQ(qel_dm_wait(dispatcher.handle), 0);
    EXPECT_EQ(qel_dm_dispatch(dispatcher.handle), EOPNOTSUPP);
}

TEST(Dispatcher, million_jobs_of_four_producers_run_once_and_in_order) {
    constexpr std::uint64_t kProducers = 4, kJobs = kSanitized ? 25'000 : 250'000;
    TestDispatcher dispatcher;
    struct Progress {
        std::uint64_t next[kProducers]{};
        std::uint64_t total = 0, misplaced = 0;
    } progress;
    auto check = [](qel_dm_handle, std::uint64_t data, std::uint64_t modifier) {
        auto& at = *reinterpret_cast<Progress*>(modifier);
        at.misplaced += at.next[data >> 32]++ != (data & 0xffffffff);
        ++at.total;
    };
    std::vector<std::thread> producers;
    for (std::uint64_t p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (std::uint64_t i = 0; i < kJobs; ++i)
                EXPECT_EQ(qel_dm_execute(dispatcher.handle, check, p << 32 | i,
                                         reinterpret_cast<std::uint64_t>(&progress)),
                          0);
        });
    while (progress.total < kProducers * kJobs) dispatcher.serve_once();
    for (std::thread& producer : producers) producer.join();
    EXPECT_EQ(progress.misplaced, 0u);
    EXPECT_EQ(progress.total, kProducers * kJobs);
}

TEST(Dispatcher, blocked_job_leaves_the_next_one_to_another_thread) {
    for (int round = 0; round < 200; ++round) {
        TestDispatcher dispatcher;
        std::atomic<bool> second_ran{false}, first_ended{false};
        Function first = [&] {
            EXPECT_TRUE(eventually([&] { return second_ran.load(); }));
            first_ended = true;
        };
        Function second = [&] { second_ran = true; };
        Servers servers{dispatcher.handle, 2};
        ASSERT_EQ(execute(dispatcher.handle, first), 0);
        ASSERT_EQ(execute(dispatcher.handle, second), 0);
        EXPECT_TRUE(eventually([&] { return first_ended.load(); }));
        ASSERT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
    }
}

TEST(Dispatcher, self_queuing_job_starves_neither_descriptors_nor_timers) {
    TestDispatcher dispatcher;
    Pipe pipe;
    int seen = 0;
    auto note = [](qel_dm_handle, std::uint32_t, std::uint32_t, void* context) {
        *static_cast<int*>(context) |= 1;
    };
    auto tick = [](qel_dm_handle, qel_dm_timer, void* context) { *static_cast<int*>(context) |= 2; };
    qel_dm_timer timer = nullptr;
    timespec delay{0, 1'000'000};
    ASSERT_EQ(qel_dm_fd_register(dispatcher.handle, pipe.reader(), QEL_DM_READABLE, note, &seen), 0);
    ASSERT_EQ(qel_dm_timer_register(dispatcher.handle, &timer, tick, &seen), 0);
    ASSERT_EQ(qel_dm_timer_settime(dispatcher.handle, timer, &delay), 0);
    pipe.feed();
    auto again = [](qel_dm_handle handle, std::uint64_t data, std::uint64_t modifier) {
        if (*reinterpret_cast<int*>(data) == 3) return;
        auto self = reinterpret_cast<qel_dm_job>(modifier);
        EXPECT_EQ(qel_dm_execute(handle, self, data, modifier), 0);
    };
    qel_dm_job job = again;
    ASSERT_EQ(qel_dm_execute(dispatcher.handle, job, reinterpret_cast<std::uint64_t>(&seen),
                             reinterpret_cast<std::uint64_t>(job)),
              0);
    for (int i = 0; i < 1'000'000 && seen != 3; ++i) dispatcher.serve_once();
    EXPECT_EQ(seen, 3);
}

namespace {

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_handle_no_return();
#else
void __asan_handle_no_return() {}
#endif

const std::vector<Function> kEndings{
    [] { pthread_exit(nullptr); },
    [] { qel_thread_exit(nullptr); },
    [] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    },
};

}  // namespace

TEST(Dispatcher, handler_that_ends_its_thread_leaves_the_next_job_to_others) {
    for (const Function& ending : kEndings) {
        TestDispatcher dispatcher;
        bool ran = false;
        Function end = [&] {
            __asan_handle_no_return();
            ending();
        };
        Function after = [&] { ran = true; };
        ASSERT_EQ(execute(dispatcher.handle, end), 0);
        ASSERT_EQ(execute(dispatcher.handle, after), 0);
        std::thread([&] { serve(dispatcher.handle); }).join();
        dispatcher.serve_once();
        EXPECT_TRUE(ran);
    }
}

TEST(Dispatcher, thread_cancelled_while_it_waits_takes_nothing_along) {
    if (kSanitized) GTEST_SKIP() << "the tools lose track of a stack that is unwound inside a blocking call";
    for (int round = 0; round < 500; ++round) {
        TestDispatcher dispatcher;
        qel_dm_handle handle = dispatcher.handle;
        Pipe pipe;
        std::atomic<bool> ran{false}, readable{false};
        Function after = [&] { ran = true; };
        auto note = [](qel_dm_handle, std::uint32_t, std::uint32_t, void* context) {
            *static_cast<std::atomic<bool>*>(context) = true;
        };
        auto entry = [](void* served) -> void* {
            serve(*static_cast<qel_dm_handle*>(served));
            return nullptr;
        };
        ASSERT_EQ(qel_dm_fd_register(handle, pipe.reader(), QEL_DM_READABLE, note, &readable), 0);
        pthread_t waiting{};
        ASSERT_EQ(pthread_create(&waiting, nullptr, entry, &handle), 0);
        Servers beside{handle, 1};
        pipe.feed();
        ASSERT_EQ(pthread_cancel(waiting), 0);
        ASSERT_EQ(execute(handle, after), 0);
        EXPECT_TRUE(eventually([&] { return ran.load() && readable.load(); }));
        ASSERT_EQ(pthread_join(waiting, nullptr), 0);
        ASSERT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
    }
}

TEST(Dispatcher, destroy_returns_whatever_its_threads_are_doing) {
    // The tools take milliseconds to start and end a thread.
    constexpr int kRounds = kSanitized ? 1'000 : 10'000;
    for (int round = 0; round < kRounds; ++round) {
        TestDispatcher dispatcher;
        const qel_dm_handle handle = dispatcher.handle;
        std::atomic<int> queued{0};
        Servers servers{handle, 2};
        std::thread holder([&] { static_cast<void>(qel_dm_wait(handle)); });  // takes an event and keeps it
        std::thread producer([&] {
            for (; qel_dm_execute(handle, do_nothing, 0, 0) == 0; ++queued) std::this_thread::yield();
            EXPECT_EQ(qel_dm_execute(handle, do_nothing, 0, 0), EINVAL);
        });
        while (queued.load() == 0) std::this_thread::yield();
        EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
        EXPECT_EQ(qel_dm_wait(handle), EINVAL);
        producer.join();
        holder.join();
    }
}

TEST(Dispatcher, destroy_from_its_own_handler_ends_the_loop) {
    TestDispatcher dispatcher;
    qel_dm_handle handle = dispatcher.handle;
    Function end = [&] {
        EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
        qel_dm_handle again = handle;
        EXPECT_EQ(qel_dm_destroy(&again), EINVAL);
        EXPECT_EQ(qel_dm_execute(handle, do_nothing, 0, 0), EINVAL);
    };
    ASSERT_EQ(execute(handle, end), 0);
    EXPECT_EQ(serve(handle), EINVAL);
}

TEST(Dispatcher, ten_thousand_lives_under_load_leave_nothing_behind) {
    auto life = [] {
        TestDispatcher dispatcher;
        Pipe pipe;
        qel_dm_timer timer = nullptr;
        timespec soon{0, 300'000};
        auto tick = [](qel_dm_handle, qel_dm_timer, void*) {};
        ASSERT_EQ(qel_dm_timer_register(dispatcher.handle, &timer, tick, nullptr), 0);
        ASSERT_EQ(qel_dm_timer_settime(dispatcher.handle, timer, &soon), 0);
        ASSERT_EQ(qel_dm_fd_register(
                      dispatcher.handle, pipe.reader(), QEL_DM_READABLE,
                      [](qel_dm_handle, std::uint32_t, std::uint32_t, void*) {}, nullptr),
                  0);
        for (int i = 0; i < 40; ++i) ASSERT_EQ(qel_dm_execute(dispatcher.handle, do_nothing, 0, 0), 0);
        pipe.feed();
        dispatcher.serve_once();
    };
    life();
    const int descriptors = open_descriptors(), threads = thread_count(),
              mappings = mapping_count("/dev/shm");
    const std::size_t objects = shm_objects().size();
    std::vector<std::thread> makers;
    for (int i = 0; i < 4; ++i)
        makers.emplace_back([&] {
            for (int n = 0; n < 2'500; ++n) life();
        });
    for (std::thread& maker : makers) maker.join();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(eventually([&] { return thread_count() <= threads; }));
    EXPECT_EQ(mapping_count("/dev/shm"), mappings);
    EXPECT_EQ(shm_objects().size(), objects);
}
