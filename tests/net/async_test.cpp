// Asynchronous operations: their life from start to fetch, against unbinds, late reports, stops and threads.
#include "support/support.hpp"

#include <qel/async.h>
#include <qel/dt.h>
#include <qel/dt_dump.h>
#include <qel/mem.h>
#include <qel/netinfra.h>

#include <atomic>
#include <thread>

using namespace qel_test;

namespace {

constexpr cerrno kNone = 0xa0000002;

std::atomic<int> freed;

void count_freed(qel_async_ctx*, void* argument) {
    EXPECT_EQ(argument, &freed);
    ++freed;
}

// The frame for the length of a test; nothing of it is left behind.
struct AsyncTest : testing::Test {
    AsyncTest() {
        freed = 0;
        EXPECT_EQ(qel_async_impl_init(0), 0u);
    }
    ~AsyncTest() override {
        qel_async_impl_fini();
        EXPECT_EQ(freed, started);
    }
    qel_async_ctx* start(qel_async_future& future, qel_async_callback callback = nullptr) {
        qel_async_req request;
        EXPECT_EQ(qel_async_req_init(&request), 0u);
        request.callback = callback;
        request.user_id = 7;
        request.cookie = 0x1234567890;
        qel_async_ctx* operation = nullptr;
        if (qel_async_impl_create_ctx(101, &request, &future, &operation) != 0) return nullptr;
        operation->destructor = count_freed;
        operation->destructor_arg = &freed;
        operation->op_status = 55;
        ++started;
        return operation;
    }
    static uint32_t in_use() {
        qel_async_stats stats{};
        EXPECT_EQ(qel_async_get_stats(&stats), 0u);
        EXPECT_EQ(stats.max_ops, 512u);
        return stats.in_use;
    }
    int started = 0;
};

// What a service does when a shim reports: once, under the lock.
cerrno provide(uint32_t op_id, cerrno status) {
    qel_async_ctx* operation = nullptr;
    if (cerrno error = qel_async_impl_op_guard(op_id, &operation); error != 0) return error;
    EXPECT_EQ(qel_async_impl_lock_op(operation), 0);
    const bool first = operation->state == 0;
    if (first) {
        operation->op_status = status;
        operation->state = 1;
        qel_async_impl_signal_op(operation);
    }
    EXPECT_EQ(qel_async_impl_unlock_op(operation), 0);
    EXPECT_EQ(qel_async_impl_op_yield(operation), 0u);
    return first ? 0 : 0xa0000072;
}

// What a service's fetch does, past its checks.
cerrno fetch(const qel_async_future& future, cerrno& status) {
    qel_async_ctx* operation = nullptr;
    if (cerrno error = qel_async_impl_retain_and_lock_ctx(future.op_id, &operation); error != 0) return error;
    status = operation->op_status;
    qel_async_impl_withdrawn_ctx(operation);
    return 0;
}

void ignore(const qel_async_future*) {}

int is_of_client(const qel_async_ctx* operation, void* client) {
    return operation->client_handle == *static_cast<uint32_t*>(client);
}

}  // namespace

TEST(Async, answers_before_its_start_and_refuses_nulls) {
    qel_async_stats stats{9, 9};
    EXPECT_EQ(qel_async_get_stats(&stats), 0u);
    EXPECT_EQ(stats.max_ops, 512u);
    EXPECT_EQ(stats.in_use, 0u);
    EXPECT_EQ(qel_async_get_stats(nullptr), 0xa0000016);
    EXPECT_EQ(qel_async_req_init(nullptr), 0xa0000016);
    EXPECT_EQ(qel_async_wait(nullptr), 0xa0000016);
    EXPECT_EQ(qel_async_impl_get_qdm(), 0u);
    qel_async_future future{1, 0, 0, 0};
    EXPECT_EQ(qel_async_wait(&future), kNone);
    EXPECT_EQ(qel_async_impl_op_guard(1, nullptr), 0xa0000016);
    qel_async_impl_drain_ops();
    qel_async_impl_fini();
}

TEST_F(AsyncTest, hands_the_result_to_a_waiter_once) {
    const int threads = thread_count();
    EXPECT_EQ(qel_async_impl_init(0), 0u);
    EXPECT_LE(thread_count(), threads);
    EXPECT_NE(qel_async_impl_get_qdm(), 0u);

    qel_async_future future;
    qel_async_ctx* operation = start(future);
    EXPECT_EQ(future.opcode, 101u);
    EXPECT_EQ(future.user_id, 7u);
    EXPECT_EQ(future.cookie, 0x1234567890u);
    static std::atomic<bool> postamble_ran;
    postamble_ran = false;
    auto work = [](qel_async_ctx* done, void* argument) {
        EXPECT_EQ(done->native_sync, 1);
        const qel_async_future own{done->op_id, done->opcode, 0, 0};
        EXPECT_EQ(qel_async_wait(&own), 0xa0000023) << "nobody else would bring it";
        EXPECT_EQ(provide(done->op_id, *static_cast<cerrno*>(argument)), 0u);
        EXPECT_EQ(provide(done->op_id, 1), 0xa0000072);
    };
    cerrno status = 42;
    EXPECT_EQ(qel_async_impl_submit(
                  operation, [](qel_async_ctx*) { postamble_ran = true; }, work, &status),
              0u);
    EXPECT_EQ(qel_async_wait(&future), 0u);
    EXPECT_EQ(qel_async_wait(&future), 0u) << "a result that is there is waited for at once";
    cerrno fetched = 0;
    EXPECT_EQ(fetch(future, fetched), 0u);
    EXPECT_EQ(fetched, 42u);
    EXPECT_EQ(fetch(future, fetched), kNone);
    EXPECT_EQ(qel_async_wait(&future), kNone);
    EXPECT_TRUE(eventually([] { return in_use() == 0 && postamble_ran; }));
}

TEST_F(AsyncTest, refuses_to_wait_for_a_callback_and_drops_a_discarded_job) {
    qel_async_future future;
    qel_async_ctx* operation = start(future, ignore);
    EXPECT_EQ(qel_async_wait(&future), 0xa0000001);
    static std::atomic<int> gate, ran;
    gate = ran = 0;
    qel_async_future blocker_future;
    qel_async_ctx* blocker = start(blocker_future);
    auto block = [](qel_async_ctx*, void*) { eventually([] { return gate == 1; }); };
    EXPECT_EQ(qel_async_impl_submit(blocker, nullptr, block, nullptr), 0u);
    EXPECT_EQ(qel_async_impl_submit(
                  operation, nullptr, [](qel_async_ctx*, void*) { ++ran; }, nullptr),
              0u);
    EXPECT_EQ(qel_async_impl_discard_ctx(operation), 0u);
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(provide(future.op_id, 0), kNone);
    qel_async_future heir;  // another operation under the ID that the job has
    while ((operation = start(heir)) != nullptr && heir.op_id != future.op_id)
        EXPECT_EQ(qel_async_impl_discard_ctx(operation), 0u);
    gate = 1;
    EXPECT_EQ(provide(blocker_future.op_id, 0), 0u);
    cerrno status = 0;
    EXPECT_EQ(fetch(blocker_future, status), 0u);
    EXPECT_TRUE(eventually([] { return in_use() == 1; })) << "the heir";
    qel_async_ctx* last = start(blocker_future);
    EXPECT_EQ(qel_async_impl_submit(
                  last, nullptr, [](qel_async_ctx*, void*) { gate = 2; }, nullptr),
              0u);
    EXPECT_TRUE(eventually([] { return gate == 2; }));
    EXPECT_EQ(fetch(blocker_future, status), 0u);
    EXPECT_EQ(fetch(heir, status), 0u);
    EXPECT_TRUE(eventually([] { return in_use() == 0; }));
    EXPECT_EQ(ran, 0);
}

TEST_F(AsyncTest, holds_512_and_takes_another_when_one_has_ended) {
    std::vector<qel_async_future> futures(512);
    std::vector<uint32_t> ids;
    for (qel_async_future& future : futures) {
        ASSERT_NE(start(future), nullptr);
        ids.push_back(future.op_id);
    }
    std::ranges::sort(ids);
    EXPECT_EQ(std::ranges::unique(ids).size(), 0u);
    qel_async_future one_more;
    EXPECT_EQ(start(one_more), nullptr);
    cerrno status = 0;
    EXPECT_EQ(fetch(futures[100], status), 0u);
    EXPECT_NE(start(one_more), nullptr);
    EXPECT_EQ(in_use(), 512u);
}

TEST_F(AsyncTest, ends_the_operations_of_an_unbound_client) {
    qel_async_future waited, called, other;
    start(waited)->client_handle = 5;
    start(called, ignore)->client_handle = 5;
    start(other)->client_handle = 6;
    std::atomic<cerrno> result = 1;
    std::thread waiter([&] { result = qel_async_wait(&waited); });
    uint32_t client = 5;
    qel_async_impl_walk_and_cleanup(is_of_client, &client);
    waiter.join();
    EXPECT_EQ(result, 0u);
    cerrno status = 0;
    EXPECT_EQ(fetch(waited, status), 0u);
    EXPECT_EQ(status, 55u) << "the status stays as it was";
    EXPECT_EQ(provide(called.op_id, 0), kNone);
    EXPECT_EQ(in_use(), 1u);
}

TEST_F(AsyncTest, drains_for_four_seconds_then_names_and_ends_what_remains) {
    qel_async_impl_drain_ops();
    qel_async_future future;
    start(future);
    std::atomic<cerrno> result = 1;
    std::thread waiter([&] { result = qel_async_wait(&future); });
    const auto begin = std::chrono::steady_clock::now();
    qel_async_impl_drain_ops();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 4s);
    qel_async_impl_fini();
    waiter.join();
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(freed, 1);
    std::vector<std::string> events;
    auto collect = [](const char* text, size_t size, void* context) {
        static_cast<std::vector<std::string>*>(context)->emplace_back(text, size);
    };
    EXPECT_EQ(qel_dt_buffer_get_by_line("qel.async.buffer.events", 0, collect, &events), 0);
    char remains[64];
    std::snprintf(remains, sizeof remains, "ADEVENT999: OP ID 0x%x remains", future.op_id);
    EXPECT_THAT(events, testing::Contains(testing::HasSubstr(remains)));
    EXPECT_THAT(events,
                testing::Contains(testing::HasSubstr("async drained after 0 retries every 10ms, 0 ")));
    EXPECT_THAT(events,
                testing::Contains(testing::HasSubstr("async drained after 400 retries every 10ms, 1 ")));
    EXPECT_EQ(qel_async_impl_init(0), 0u);
    EXPECT_EQ(in_use(), 0u);
}

TEST_F(AsyncTest, a_stop_waits_for_no_reference_for_good) {
    qel_async_future future, other;
    start(future);
    qel_async_ctx* held = nullptr;
    ASSERT_EQ(qel_async_impl_op_guard(future.op_id, &held), 0u);
    static std::atomic<cerrno> waited, stopped;
    waited = 1;
    auto wait_in_handler = [](qel_async_ctx*, void* unanswered) {
        stopped = qel_netinfra_fini();
        qel_async_impl_fini();
        waited = qel_async_wait(static_cast<qel_async_future*>(unanswered));
    };
    EXPECT_EQ(qel_async_impl_submit(start(other), nullptr, wait_in_handler, &future), 0u);
    std::thread stopper(qel_async_impl_fini);
    auto is_refused = [] {
        qel_async_req request;
        qel_async_req_init(&request);
        qel_async_future ended;
        qel_async_ctx* gone = nullptr;  // by the stop, perhaps before this is written
        return qel_async_impl_create_ctx(101, &request, &ended, &gone) != 0;
    };
    EXPECT_TRUE(eventually(is_refused)) << "a frame that stops takes no more";
    stopper.join();
    EXPECT_EQ(waited, 0u);
    EXPECT_EQ(stopped, 0xa0000023u);

    EXPECT_EQ(qel_async_impl_init(0), 0u);
    start(other);
    EXPECT_EQ(other.op_id, future.op_id) << "else the next line proves nothing";
    EXPECT_EQ(qel_async_impl_op_yield(held), kNone) << "the reference is none to the new pool";
    EXPECT_EQ(in_use(), 1u);
    held->destructor(held, held->destructor_arg);
    qel_named_free(held);
}

TEST_F(AsyncTest, threads_that_end_leave_their_operation) {
    qel_async_future future;
    qel_async_ctx* operation = start(future);
    std::atomic<bool> begun = false;
    std::thread waiter([&] {
        begun = true;
        qel_async_wait(&future);
    });
    EXPECT_TRUE(eventually([&] { return begun.load(); }));
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(pthread_cancel(waiter.native_handle()), 0);
    waiter.join();
    auto end_thread = [](qel_async_ctx* ended, void*) {
        EXPECT_EQ(provide(ended->op_id, 3), 0u);
        pthread_exit(nullptr);
    };
    EXPECT_EQ(qel_async_impl_submit(operation, nullptr, end_thread, nullptr), 0u);
    EXPECT_EQ(qel_async_wait(&future), 0u);
    cerrno status = 0;
    EXPECT_EQ(fetch(future, status), 0u);
    EXPECT_TRUE(eventually([] { return in_use() == 0; }));
}

// Whatever the order, one context is freed a round, and no other operation is touched.
TEST_F(AsyncTest, survives_fetches_reports_and_unbinds_at_once) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kRounds = 2000;
#else
    constexpr int kRounds = 10000;
#endif
    qel_async_future bystander;
    start(bystander)->client_handle = 1;
    for (int round = 0; round < kRounds; ++round) {
        qel_async_future future;
        start(future, round % 2 == 0 ? nullptr : ignore)->client_handle = 5;
        std::atomic<int> fetches = 0;
        auto fetch_it = [&] {
            cerrno status = 0;
            fetches += fetch(future, status) == 0;
        };
        std::thread other([&] {
            if (round % 3 == 0) fetch_it();
            if (round % 3 == 1) provide(future.op_id, 0);
            uint32_t client = 5;
            if (round % 3 == 2) qel_async_impl_walk_and_cleanup(is_of_client, &client);
        });
        fetch_it();
        other.join();
        EXPECT_LE(fetches, 1);
        EXPECT_EQ(freed, round + 1);
    }
    EXPECT_EQ(in_use(), 1u);
}
