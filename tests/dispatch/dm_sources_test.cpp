#include "dm_support.hpp"

#include <qel/thread.h>

#include <algorithm>
#include <random>

using namespace qel_test;

namespace {

struct Seen {
    int count = 0;
    std::uint32_t conditions = 0;
};

void see(qel_dm_handle, std::uint32_t, std::uint32_t conditions, void* context) {
    auto& seen = *static_cast<Seen*>(context);
    ++seen.count;
    seen.conditions = conditions;
}

// True when the dispatcher has no event now.
bool is_quiet(qel_dm_handle handle) {
    return qel_dm_xdispatch(handle, nullptr, nullptr) == EAGAIN;
}

// Gives the calling thread a context for 'handle', as a first wait does.
void make_context(qel_dm_handle handle) {
    Function nothing = [] {};
    ASSERT_EQ(execute(handle, nothing), 0);
    ASSERT_EQ(qel_dm_wait(handle), 0);
    ASSERT_EQ(qel_dm_dispatch(handle), 0);
}

}  // namespace

TEST(Descriptors, are_one_shot_and_renewed_by_registration) {
    TestDispatcher dispatcher;
    Pipe pipe;
    Seen first, second;
    auto add = [&](Seen& seen) {
        return qel_dm_fd_register(dispatcher.handle, pipe.reader(), QEL_DM_READABLE, see, &seen);
    };
    make_context(dispatcher.handle);
    ASSERT_EQ(add(first), 0);
    EXPECT_TRUE(is_quiet(dispatcher.handle));
    pipe.feed();
    dispatcher.serve_once();
    EXPECT_TRUE(is_quiet(dispatcher.handle));
    EXPECT_EQ(first.count, 1);
    ASSERT_EQ(add(second), 0);
    dispatcher.serve_once();
    EXPECT_EQ(first.count, 1);
    EXPECT_EQ(second.count, 1);
    // Hang-up is told to everybody, asked for or not.
    ASSERT_EQ(add(second), 0);
    pipe.drain();
    close(pipe.ends[1]);
    dispatcher.serve_once();
    EXPECT_EQ(second.conditions, QEL_DM_HANGUP);
    pipe.ends[1] = open("/dev/null", O_WRONLY | O_CLOEXEC);
}

TEST(Descriptors, arguments_out_of_range_are_refused) {
    TestDispatcher dispatcher;
    Pipe pipe;
    const qel_dm_handle handle = dispatcher.handle;
    EXPECT_EQ(qel_dm_fd_register(handle, 65536, QEL_DM_READABLE, see, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_fd_register(handle, 65535, QEL_DM_READABLE, see, nullptr), EBADF);
    EXPECT_EQ(qel_dm_fd_register(handle, pipe.reader(), 16, see, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_fd_register(0, pipe.reader(), QEL_DM_READABLE, see, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_fd_register(handle, pipe.reader(), 0, see, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_io_register(handle, static_cast<std::uint16_t>(pipe.reader()), 1, nullptr, nullptr),
              EINVAL);
    // Whatever descriptor the application names, it can't take over the dispatcher's wake-up.
    for (std::uint32_t fd = 3; fd < 64; ++fd) {
        if (fd == pipe.reader() || fd == pipe.writer()) continue;
        qel_dm_fd_register(handle, fd, QEL_DM_READABLE, see, nullptr);
        qel_dm_fd_register(handle, fd, 0, nullptr, nullptr);
    }
    make_context(handle);
}

TEST(Descriptors, event_of_a_removed_registration_is_dropped) {
    TestDispatcher dispatcher;
    Pipe pipe;
    Seen old, renewed;
    ASSERT_EQ(qel_dm_fd_register(dispatcher.handle, pipe.reader(), QEL_DM_READABLE, see, &old), 0);
    pipe.feed();
    ASSERT_EQ(qel_dm_wait(dispatcher.handle), 0);
    ASSERT_EQ(qel_dm_fd_register(dispatcher.handle, pipe.reader(), 0, nullptr, nullptr), 0);
    auto io = [](qel_dm_handle handle, std::uint16_t fd, std::uint32_t conditions, void* context) {
        see(handle, fd, conditions, context);
    };
    ASSERT_EQ(qel_dm_io_register(dispatcher.handle, static_cast<std::uint16_t>(pipe.reader()),
                                 QEL_DM_READABLE, io, &renewed),
              0);
    ASSERT_EQ(qel_dm_dispatch(dispatcher.handle), 0);
    EXPECT_EQ(old.count + renewed.count, 0);
    dispatcher.serve_once();
    EXPECT_EQ(renewed.count, 1);
    EXPECT_EQ(renewed.conditions, QEL_DM_READABLE);
}

TEST(Descriptors, number_reused_after_a_silent_close_works) {
    TestDispatcher dispatcher;
    Pipe fresh;
    Seen seen;
    auto add = [&](std::uint32_t fd) {
        return qel_dm_fd_register(dispatcher.handle, fd, QEL_DM_READABLE, see, &seen);
    };
    auto remove = [&](std::uint32_t fd) {
        return qel_dm_fd_register(dispatcher.handle, fd, 0, nullptr, nullptr);
    };
    auto reuse = [](int file, std::uint32_t fd) {
        ASSERT_EQ(dup3(file, static_cast<int>(fd), O_CLOEXEC), static_cast<int>(fd));
    };
    std::uint32_t number = 0;
    {
        Pipe closed;
        number = closed.reader();
        ASSERT_EQ(add(number), 0);
    }
    reuse(fresh.ends[0], number);
    ASSERT_EQ(add(number), 0);
    fresh.feed();
    dispatcher.serve_once();
    EXPECT_EQ(seen.count, 1);
    // Closed before its removal, then the same file again: the kernel has not forgotten it.
    close(static_cast<int>(number));
    EXPECT_EQ(remove(number), 0);
    reuse(fresh.ends[0], number);
    ASSERT_EQ(add(number), 0);
    dispatcher.serve_once();
    EXPECT_EQ(seen.count, 2);
    close(static_cast<int>(number));
}

namespace {

struct SharedPipe {
    static constexpr int kEvents = 20'000;
    Pipe pipe;
    std::atomic<int> inside{0}, events{0}, overlaps{0};
};

void pass_byte_on(qel_dm_handle handle, std::uint32_t fd, std::uint32_t conditions, void* context) {
    auto& shared = *static_cast<SharedPipe*>(context);
    shared.overlaps += shared.inside.fetch_add(1) != 0;
    EXPECT_TRUE(shared.pipe.drain());
    shared.pipe.feed();
    --shared.inside;
    if (++shared.events < SharedPipe::kEvents) {
        EXPECT_EQ(qel_dm_fd_register(handle, fd, conditions, pass_byte_on, context), 0);
    }
}

}  // namespace

TEST(Descriptors, four_threads_run_one_handler_per_event) {
    TestDispatcher dispatcher;
    SharedPipe shared;
    Servers servers{dispatcher.handle, 4};
    ASSERT_EQ(
        qel_dm_fd_register(dispatcher.handle, shared.pipe.reader(), QEL_DM_READABLE, pass_byte_on, &shared),
        0);
    shared.pipe.feed();
    EXPECT_TRUE(eventually([&] { return shared.events.load() == SharedPipe::kEvents; }, 60s));
    EXPECT_EQ(shared.overlaps.load(), 0);
    ASSERT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
    EXPECT_EQ(shared.events.load(), SharedPipe::kEvents);
}

namespace {

timespec microseconds(long count) {
    return {count / 1'000'000, count % 1'000'000 * 1'000};
}

using Clock = std::chrono::steady_clock;

// A timer that notes its number, the time and the thread when it fires.
struct Firing {
    std::vector<int>* order;
    int number;
    Clock::time_point at;
};

void note_firing(qel_dm_handle, qel_dm_timer, void* context) {
    auto& firing = *static_cast<Firing*>(context);
    firing.at = Clock::now();
    firing.order->push_back(firing.number);
}

}  // namespace

TEST(Timers, ten_thousand_fire_in_order_and_equal_times_in_start_order) {
    constexpr int kTimers = 10'000;
    TestDispatcher dispatcher;
    std::vector<int> order;
    std::vector<qel_dm_timer> timers(kTimers);
    std::vector<Firing> firings;
    for (int i = 0; i < kTimers; ++i) firings.push_back({&order, i, {}});
    std::minstd_rand random{7};
    std::vector<std::pair<long, int>> expected;
    // A delay below zero means now, so that those timers differ in their starts only.
    for (int i = 0; i < kTimers; ++i) {
        auto& timer = timers[static_cast<std::size_t>(i)];
        ASSERT_EQ(qel_dm_timer_register(dispatcher.handle, &timer, note_firing,
                                        &firings[static_cast<std::size_t>(i)]),
                  0);
        long step = static_cast<long>(random() % 50);
        timespec delay = microseconds(step * 10'000);
        if (step == 0) delay = {-1, 0};
        ASSERT_EQ(qel_dm_timer_settime(dispatcher.handle, timer, &delay), 0);
        if (i % 3 == 0) {
            ASSERT_EQ(qel_dm_timer_settime(dispatcher.handle, timer, nullptr), 0);
        }
        if (i % 5 == 0) {
            ASSERT_EQ(qel_dm_timer_register(dispatcher.handle, &timer, nullptr, nullptr), 0);
        }
        if (i % 3 != 0 && i % 5 != 0) expected.emplace_back(step, i);
    }
    while (order.size() < expected.size()) dispatcher.serve_once();
    // Starts 10 ms apart in delay may close up by the time that starting all of them took, so compare within
    // one delay: there the order is that of the starts.
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<std::vector<int>> wanted(50), got(50);
    std::vector<long> step_of(kTimers);
    for (auto [step, i] : expected) {
        wanted[static_cast<std::size_t>(step)].push_back(i);
        step_of[static_cast<std::size_t>(i)] = step;
    }
    for (int i : order) got[static_cast<std::size_t>(step_of[static_cast<std::size_t>(i)])].push_back(i);
    EXPECT_EQ(got, wanted);
    EXPECT_TRUE(is_quiet(dispatcher.handle));
}

TEST(Timers, start_stop_and_tell_the_time_left) {
    TestDispatcher dispatcher, other;
    const qel_dm_handle handle = dispatcher.handle;
    qel_dm_timer timer = nullptr;
    timespec left{}, hour{3600, 0}, far{INT64_MAX / 2, 0}, soon = microseconds(150);
    std::vector<int> order;
    Firing firing{&order, 1, {}};
    EXPECT_EQ(qel_dm_timer_register(handle, &timer, nullptr, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_timer_settime(handle, nullptr, &hour), EINVAL);
    ASSERT_EQ(qel_dm_timer_register(handle, &timer, note_firing, &firing), 0);
    EXPECT_EQ(qel_dm_timer_settime(other.handle, timer, &hour), EINVAL);
    EXPECT_EQ(qel_dm_timer_gettime(handle, timer, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_timer_gettime(handle, timer, &left), 1);
    for (const timespec* delay : {&far, &hour}) {
        ASSERT_EQ(qel_dm_timer_settime(handle, timer, delay), 0);
        EXPECT_EQ(qel_dm_timer_gettime(handle, timer, &left), 0);
        EXPECT_GE(left.tv_sec, delay->tv_sec - 10);
    }
    make_context(handle);
    EXPECT_TRUE(is_quiet(handle));
    // Within 200 microseconds of its time a timer is due.
    ASSERT_EQ(qel_dm_timer_settime(handle, timer, &soon), 0);
    EXPECT_TRUE(is_quiet(handle));
    EXPECT_EQ(order.size(), 1u);
    EXPECT_EQ(qel_dm_timer_gettime(handle, timer, &left), 1);
    // Stopped or freed between the wait that picked it and the dispatch.
    for (bool free : {false, true}) {
        ASSERT_EQ(qel_dm_timer_settime(handle, timer, &soon), 0);
        ASSERT_EQ(qel_dm_wait(handle), 0);
        ASSERT_EQ(free ? qel_dm_timer_register(handle, &timer, nullptr, nullptr)
                       : qel_dm_timer_settime(handle, timer, nullptr),
                  0);
        EXPECT_EQ(qel_dm_dispatch(handle), 0);
        EXPECT_EQ(order.size(), 1u);
    }
    EXPECT_EQ(timer, nullptr);
}

// Waiters share the timing: one of them always waits for the first timer, however the first timer changes and
// whichever thread leaves.
TEST(Timers, first_timer_is_never_left_untimed) {
    TestDispatcher dispatcher;
    const qel_dm_handle handle = dispatcher.handle;
    std::atomic<int> fired{0};
    std::atomic<int> blocked{0}, released{0};
    auto count = [](qel_dm_handle, qel_dm_timer, void* context) {
        ++*static_cast<std::atomic<int>*>(context);
    };
    Function block = [&] {
        int round = ++blocked;
        EXPECT_TRUE(eventually([&] { return released.load() >= round; }));
    };
    Function nothing = [] {};
    qel_dm_timer timer = nullptr;
    timespec hour{3600, 0}, short_delay = microseconds(2'000);
    ASSERT_EQ(qel_dm_timer_register(handle, &timer, count, &fired), 0);
    Servers servers{handle, 3};
    for (int round = 1; round <= 200; ++round) {
        ASSERT_EQ(qel_dm_timer_settime(handle, timer, round % 2 == 0 ? &hour : &short_delay), 0);
        ASSERT_EQ(execute(handle, block), 0);
        ASSERT_EQ(execute(handle, nothing), 0);
        EXPECT_TRUE(eventually([&] { return blocked.load() == round; }));
        if (round % 2 == 0) {
            ASSERT_EQ(qel_dm_timer_settime(handle, timer, &short_delay), 0);
        }
        ASSERT_TRUE(eventually([&] { return fired.load() == round; })) << "round " << round;
        released = round;
    }
    ASSERT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
}

TEST(Messages, one_handler_call_reads_all_that_were_sent) {
    TestDispatcher dispatcher;
    const qel_dm_handle handle = dispatcher.handle;
    std::vector<std::uint32_t> read;
    auto receive_all = [](qel_dm_handle dm, void* context, std::uint64_t) {
        std::uint32_t type = 0, arg = 0;
        void* message = nullptr;
        while (qel_dm_message_receive(dm, &type, &arg, &message) == 0) {
            EXPECT_EQ(message, context);
            static_cast<std::vector<std::uint32_t>*>(context)->push_back(type * 10 + arg);
        }
    };
    EXPECT_EQ(qel_dm_message_send(handle, 1, 1, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_message_deregister(handle, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_message_register(handle, nullptr, nullptr), EINVAL);
    ASSERT_EQ(qel_dm_message_register(handle, receive_all, &read), 0);
    EXPECT_EQ(qel_dm_message_register(handle, receive_all, &read), EBUSY);
    EXPECT_EQ(qel_dm_message_xd_register(handle), EBUSY);
    EXPECT_EQ(qel_dm_message_receive(handle, nullptr, nullptr, nullptr), EAGAIN);
    for (std::uint32_t i = 1; i <= 3; ++i) ASSERT_EQ(qel_dm_message_send(handle, i, i + 1, &read), 0);
    dispatcher.serve_once();
    EXPECT_THAT(read, testing::ElementsAre(12, 23, 34));
    EXPECT_TRUE(is_quiet(handle));
    EXPECT_EQ(qel_dm_disconnect_register(handle, nullptr, nullptr), EOPNOTSUPP);
    EXPECT_EQ(qel_dm_disconnect_deregister(handle, nullptr, nullptr), EOPNOTSUPP);
}

TEST(Messages, explicit_dispatch_gives_the_type_and_deregistration_cleans_up) {
    TestDispatcher dispatcher;
    const qel_dm_handle handle = dispatcher.handle;
    std::uint32_t event = 0, type = 0;
    static int cleaned;
    cleaned = 0;
    ASSERT_EQ(qel_dm_message_xd_register(handle), 0);
    for (std::uint32_t i : {9u, 8u, 7u}) ASSERT_EQ(qel_dm_message_send(handle, i, 0, &cleaned), 0);
    ASSERT_EQ(qel_dm_wait(handle), 0);
    EXPECT_EQ(qel_dm_xdispatch(handle, &event, &type), 0);
    EXPECT_EQ(event, 1u);
    EXPECT_EQ(type, 9u);
    ASSERT_EQ(qel_dm_message_receive(handle, nullptr, nullptr, nullptr), 0);
    // The queue is opened again, and used, while the old messages are cleaned up: the new one is announced,
    // and spared.
    auto clean_up = [](qel_dm_handle dm, std::uint32_t, std::uint32_t, void* message) {
        ++*static_cast<int*>(message);
        if (qel_dm_message_xd_register(dm) == 0) {
            EXPECT_EQ(qel_dm_message_send(dm, 5, 0, message), 0);
        }
    };
    ASSERT_EQ(qel_dm_message_deregister(handle, clean_up), 0);
    EXPECT_EQ(cleaned, 2);
    EXPECT_EQ(qel_dm_xdispatch(handle, nullptr, &type), 0);
    EXPECT_EQ(type, 5u);
    ASSERT_EQ(qel_dm_message_deregister(handle, nullptr), 0);
    EXPECT_EQ(qel_dm_message_receive(handle, nullptr, nullptr, nullptr), EAGAIN);
    EXPECT_EQ(qel_dm_message_send(handle, 1, 1, nullptr), EINVAL);
}
