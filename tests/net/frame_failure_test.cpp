// The frame of network services with a family of the test's own: results and jobs on their way to clients
// that wait, are called back, lose their dispatcher, or go.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <array>
#include <thread>

#include "containers/qel_idm_family.hpp"
#include "net/qel_net_frame.hpp"

using namespace qel_test;
using namespace qel;
using namespace qel::net;

namespace {

constexpr std::uint32_t kOpcode = 7;

// Counts in place of a line.
template <int>
struct CountedLine {
    static inline std::atomic<int> count = 0;
    template <class... Values>
    static void say(Values...) {
        ++count;
    }
};

struct TestClient {
    std::uint32_t handle;
    qel_dm_handle qdm;
    ClientJobs jobs;
    std::atomic<bool> closing;
};

void free_client(void* client) {
    qel_named_free(client);
}
constinit FamilyPool clients{{"test clients", nullptr, 16, free_client}};

struct TestFamily {
    using Client = TestClient;
    static constexpr qel_tag_e kTag = QEL_MEM_INTF;
    static Retained<Client> retain(std::uint32_t handle) { return clients.retain<Client>(handle); }
    static ClientJobs& jobs_of(Client& client) { return client.jobs; }
    static std::atomic<bool>& closing(Client& client) { return client.closing; }
    static cerrno withdraw(std::uint32_t handle) {
        return qel_idm_release_and_withdraw_id(clients.handle(), handle);
    }
    static bool stops(const Client& client) { return client.closing; }
    static void run(Client&, Job& job) { ++*reinterpret_cast<std::atomic<int>*>(job.words[0]); }
    static void drop(Job& job) { --*reinterpret_cast<std::atomic<int>*>(job.words[0]); }
    static void after_sync(Operation*) {}
    static void say_ended(Operation&) {}
    static void say_async_starting(Operation&) {}
    static void say_sync_starting(Operation&) {}
    static void say_submit_failed(std::uint32_t, const qel_async_future&, cerrno) {}
    static void say_gone(const qel_async_future&, cerrno) {}
    using NoClient = CountedLine<0>;
    using Drained = CountedLine<1>;
    using AlreadyProvided = CountedLine<2>;
    using NoOperation = CountedLine<3>;
    using WrongOpcode = CountedLine<4>;
    using NoResultYet = CountedLine<5>;
    using Discarded = CountedLine<6>;
    using Dispatching = CountedLine<7>;
    using Dropped = CountedLine<8>;
    using NoMemoryForJob = CountedLine<9>;
};
using TestFrame = Frame<TestFamily>;

std::atomic<int> called;
std::vector<std::uint32_t> called_in_order;
void call_back(const qel_async_future* future) {
    called_in_order.push_back(future->user_id);
    ++called;
}
// By operation: a callback that has begun may end after its client has.
std::array<std::atomic<int>, 10000> calls_of;
void count_call(const qel_async_future* future) {
    ++calls_of[future->user_id];
}

struct FrameTest : testing::Test {
    FrameTest() {
        EXPECT_EQ(qel_async_impl_init(0), 0u);
        EXPECT_TRUE(clients.make());
        EXPECT_EQ(qel_dm_create(&qdm, "clients", QEL_DM_PRIVATE), 0);
        called = 0;
        called_in_order.clear();
    }
    ~FrameTest() override {
        EXPECT_EQ(operations(), 0u);
        std::uint32_t bound = 0;
        EXPECT_EQ(qel_idm_get_count(clients.handle(), &bound), 0u);
        EXPECT_EQ(bound, 0u);
        qel_async_impl_fini();
        if (qdm != 0) qel_dm_destroy(&qdm);
    }
    static std::uint32_t operations() {
        qel_async_stats stats{};
        EXPECT_EQ(qel_async_get_stats(&stats), 0u);
        return stats.in_use;
    }
    static std::uint32_t bind(qel_dm_handle dispatcher) {
        auto client = allocate_zeroed<TestClient>(QEL_MEM_INTF);
        client->qdm = dispatcher;
        EXPECT_EQ(qel_idm_get_id(clients.handle(), client.get(), &client->handle), 0u);
        return client.release()->handle;
    }
    static cerrno unbind(std::uint32_t client) {
        return TestFrame::unbind(client, [](TestClient&) {});
    }
    // An operation that some shim has in its hands.
    static qel_async_future start(std::uint32_t client, qel_async_callback callback,
                                  std::uint32_t number = 0) {
        qel_async_req request;
        qel_async_req_init(&request);
        request.callback = callback;
        request.user_id = number;
        qel_async_future future{};
        Retained<TestClient> bound = TestFamily::retain(client);
        EXPECT_TRUE(bound);
        auto accept = [](Operation&) { return 0u; };
        const Order order{client, bound->qdm, nullptr, kOpcode, &request, &future};
        EXPECT_EQ(TestFrame::start(*bound, order, accept, true, accept, nullptr, nullptr), 0u);
        return future;
    }
    static cerrno report(const qel_async_future& future, cerrno status) {
        Guarded operation{future.op_id};
        if (operation.error() != 0) return operation.error();
        return TestFrame::provide(*operation, [&](Operation& locked) { locked.op_status = status; });
    }
    static cerrno fetch(const qel_async_future& future, cerrno& status, std::uint32_t opcode = kOpcode) {
        Operation* operation = nullptr;
        if (cerrno error = TestFrame::get_result_pre(future, opcode, &operation); error != 0) return error;
        status = operation->op_status;
        qel_async_impl_withdrawn_ctx(operation);
        return 0;
    }
    // Runs all that is queued up to now.
    void dispatch_all() const {
        bool last = false;
        auto end = [](qel_dm_handle, std::uint64_t flag, std::uint64_t) {
            *reinterpret_cast<bool*>(flag) = true;
        };
        EXPECT_EQ(qel_dm_execute(qdm, end, reinterpret_cast<std::uint64_t>(&last), 0), 0);
        while (!last && qel_dm_wait(qdm) == 0) qel_dm_dispatch(qdm);
    }
    qel_dm_handle qdm = 0;
};

}  // namespace

TEST_F(FrameTest, fetches_in_time_by_the_right_kind_once) {
    const std::uint32_t client = bind(0);
    const qel_async_future future = start(client, nullptr);
    cerrno status = 1;
    EXPECT_EQ(fetch(future, status), 0x4000000bu);
    EXPECT_EQ(fetch(future, status, kOpcode + 1), 0xa000002au);
    EXPECT_EQ(report(future, 5), 0u);
    EXPECT_EQ(report(future, 6), 0xa0000072u);
    EXPECT_EQ(qel_async_wait(&future), 0u);
    EXPECT_EQ(fetch(future, status, kOpcode + 1), 0xa000002au);
    EXPECT_EQ(fetch(future, status), 0u);
    EXPECT_EQ(status, 5u) << "the first report stands";
    EXPECT_EQ(fetch(future, status), 0xa0000002u);
    EXPECT_EQ(report(future, 5), 0xa0000002u);
    EXPECT_EQ(unbind(client), 0u);
    EXPECT_EQ(unbind(client), 0xa0000016u);
}

TEST_F(FrameTest, calls_back_here_without_a_dispatcher_and_in_order_with_one) {
    const std::uint32_t here = bind(0), there = bind(qdm);
    cerrno status = 0;
    qel_async_future future = start(here, call_back, 1);
    EXPECT_EQ(report(future, 0), 0u);
    EXPECT_EQ(called, 1);
    EXPECT_EQ(fetch(future, status), 0u);

    const int dispatched = TestFamily::Dispatching::count;
    std::vector<qel_async_future> futures;
    for (std::uint32_t i = 2; i < 12; ++i) futures.push_back(start(there, call_back, i));
    for (const qel_async_future& one : futures) EXPECT_EQ(report(one, 0), 0u);
    EXPECT_EQ(called, 1);
    EXPECT_EQ(TestFamily::Dispatching::count, dispatched + 1) << "one job of the dispatcher for all";
    dispatch_all();
    EXPECT_THAT(called_in_order, testing::ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
    for (const qel_async_future& one : futures) EXPECT_EQ(fetch(one, status), 0u);
    EXPECT_EQ(unbind(here), 0u);
    EXPECT_EQ(unbind(there), 0u);
}

TEST_F(FrameTest, goes_on_when_a_callback_ends_its_thread) {
    const std::uint32_t client = bind(qdm);
    auto end_first = [](const qel_async_future*) {
        if (++called == 1) pthread_exit(nullptr);
    };
    std::array<qel_async_future, 3> futures;
    for (qel_async_future& future : futures) future = start(client, end_first);
    for (const qel_async_future& future : futures) EXPECT_EQ(report(future, 0), 0u);
    std::thread([this] { dispatch_all(); }).join();
    EXPECT_EQ(called, 1);
    dispatch_all();
    EXPECT_EQ(called, 3);
    EXPECT_EQ(unbind(client), 0u);
}

TEST_F(FrameTest, loses_queued_results_with_their_client) {
    const std::uint32_t client = bind(qdm);
    std::atomic<int> own = 1;
    for (int i = 0; i < 5; ++i) EXPECT_EQ(report(start(client, call_back), 0), 0u);
    auto job = allocate_zeroed<Job>(QEL_MEM_INTF);
    job->type = 1;
    job->words[0] = reinterpret_cast<std::uint64_t>(&own);
    EXPECT_EQ(TestFrame::submit(client, qdm, *job.release()), 0u);
    const qel_async_future outstanding = start(client, call_back), waited = start(client, nullptr);
    EXPECT_EQ(operations(), 7u);
    EXPECT_EQ(unbind(client), 0u);
    EXPECT_EQ(own, 0) << "the family drops its own jobs";
    EXPECT_EQ(report(outstanding, 0), 0xa0000002u);
    EXPECT_EQ(qel_async_wait(&waited), 0u);
    cerrno status = 0;
    EXPECT_EQ(fetch(waited, status), 0u);
    dispatch_all();
    EXPECT_EQ(called, 0);
    Job late{};
    EXPECT_EQ(TestFrame::submit(client, qdm, late), 0xa0000016u);
}

TEST_F(FrameTest, leaves_the_next_operation_of_an_id_alone) {
    const std::uint32_t client = bind(qdm), other = bind(0);
    const qel_async_future fetched = start(client, call_back);
    EXPECT_EQ(report(fetched, 0), 0u);
    cerrno status = 0;
    EXPECT_EQ(fetch(fetched, status), 0u) << "before its callback";
    qel_async_future heir{};
    while ((heir = start(other, nullptr)).op_id != fetched.op_id) {
        EXPECT_EQ(report(heir, 0), 0u);
        EXPECT_EQ(fetch(heir, status), 0u);
    }
    EXPECT_EQ(unbind(client), 0u);
    EXPECT_EQ(report(heir, 0), 0u);
    EXPECT_EQ(fetch(heir, status), 0u);
    EXPECT_EQ(unbind(other), 0u);
}

TEST_F(FrameTest, ends_an_operation_whose_result_cannot_be_told) {
    const std::uint32_t client = bind(qdm);
    qel_async_future future = start(client, call_back);
    Operation* operation = nullptr;
    {
        Guarded guard{future.op_id};
        operation = &*guard;
        allocation_hook.store(allow_allocation);
        allocations_left = 0;
        EXPECT_EQ(TestFrame::provide(*operation, [](Operation&) {}), 0xa000000cu);
        allocation_hook.store(nullptr);
        allocations_left = -1;
    }
    EXPECT_EQ(operations(), 0u);

    future = start(client, call_back);
    EXPECT_EQ(report(start(client, call_back), 0), 0u);  // waits in the queue
    EXPECT_EQ(qel_dm_destroy(&qdm), 0);
    EXPECT_EQ(report(future, 0), 0xa0000016u) << "nobody would ever empty the queue";
    EXPECT_EQ(operations(), 1u);
    EXPECT_EQ(unbind(client), 0u);
    EXPECT_EQ(called, 0);
}

TEST_F(FrameTest, start_ends_what_no_handler_takes) {
    const std::uint32_t client = bind(0);
    qel_async_req request;
    qel_async_req_init(&request);
    Retained<TestClient> bound = TestFamily::retain(client);
    cerrno prepared = 0;
    auto begin = [&](bool has_async, cerrno answer) {
        qel_async_future future{};
        const Order order{client, 0, nullptr, kOpcode, &request, &future};
        auto prepare = [&](Operation&) {
            EXPECT_EQ(report(future, 0), 0xa0000002u) << "meant for an earlier one of the ID";
            return prepared;
        };
        const cerrno error = TestFrame::start(
            *bound, order, prepare, has_async, [&](Operation&) { return answer; }, nullptr, nullptr);
        EXPECT_EQ(operations(), 0u);
        return error;
    };
    EXPECT_EQ(begin(true, 0xa0000005), 0xa0000005u);
    EXPECT_EQ(begin(false, 0), 0xa000005fu);
    prepared = 0xa000000c;
    EXPECT_EQ(begin(true, 0), 0xa000000cu);
    prepared = 0;
    EXPECT_EQ(unbind(client), 0u);
    EXPECT_EQ(begin(true, 0), 0xa0000016u) << "nobody would end it any more";
}

// Shims report each operation from two threads at once, also late, while its client fetches or goes: one
// report is the first, nobody is called twice, and nothing is left.
TEST_F(FrameTest, survives_reports_against_unbinds) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kRounds = 1000;
#else
    constexpr int kRounds = static_cast<int>(calls_of.size());
#endif
    std::thread dispatcher([handle = qdm] {
        while (qel_dm_wait(handle) == 0) qel_dm_dispatch(handle);
    });
    for (int round = 0; round < kRounds; ++round) {
        const std::uint32_t client = bind(round % 2 == 0 ? qdm : 0);
        const qel_async_future future =
            start(client, round % 5 == 0 ? nullptr : count_call, static_cast<std::uint32_t>(round));
        std::atomic<int> firsts = 0;
        auto shim = [&] { firsts += report(future, 0) == 0; };
        std::thread one(shim), two(shim);
        std::thread second([&] { unbind(client); });
        if (round % 3 == 0) unbind(client);
        one.join();
        two.join();
        second.join();
        EXPECT_LE(firsts, 1);
        cerrno status = 0;
        static_cast<void>(fetch(future, status));  // there is nothing, or a waiter's
        ASSERT_EQ(operations(), 0u) << round;
    }
    EXPECT_EQ(qel_dm_destroy(&qdm), 0);
    dispatcher.join();
    for (const std::atomic<int>& calls : calls_of) EXPECT_LE(calls, 1);
}
