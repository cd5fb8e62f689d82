// Requests that change interfaces, and the ways in which a shim may answer: at once, late, twice, never,
// after its client has gone, and while the services stop.
#include "net/if_support.hpp"

#include <condition_variable>
#include <deque>
#include <random>
#include <thread>

using namespace qel_test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 500;
#else
constexpr int kRounds = 10000;
#endif
constexpr cerrno kNoOption = kNotThere, kWrongKind = 0xa000002a, kTold = 0xa0000072;

struct Started {
    FakeShim shim{0, false};
    Started() {
        shim.registration.handlers.cfg_sync = [](const Info*, qel_if_cfg_res_attr* result) {
            for (std::uint64_t i = 0; i < result->num_requests; ++i)
                for (std::uint64_t j = 0; j < result->requests[i].num_attrs; ++j)
                    result->results[i][j].word[0] = 10 * i + j;
            return static_cast<cerrno>(result->option);
        };
        shim.registration.handlers.cfg_query_sync = [](const Info*, qel_if_cfg_query_res_attr* result) {
            result->results[0].attrs[1].word[1] = 77;
            result->results[0].word += 1;
            return cerrno{0};
        };
        shim.registration.handlers.cfg_intf_sync = [](const Info*, qel_if_cfg_interface_res_attr* result) {
            result->results[0].word[0] = result->interface_requests[0].pair[0];
            return cerrno{0};
        };
    }
    void start() {
        shim.enroll();
        EXPECT_EQ(qel_netinfra_init(0), 0u);
    }
    ~Started() {
        // A synchronous handler's thread may still be letting go.
        EXPECT_TRUE(eventually([] { return in_use() == 0; }));
        qel_netinfra_fini();
    }
    static std::uint32_t in_use() {
        qel_async_stats stats{};
        qel_async_get_stats(&stats);
        return stats.in_use;
    }
};

// A set of two requests, of one and two attributes, and the place for its result.
struct Change {
    explicit Change(std::uint32_t option = 0) {
        qel_if_cfg_req_attr_init(&set);
        for (qel_if_cfg_req& one : requests) qel_if_cfg_req_init(&one);
        requests[0].num_attrs = 1;
        requests[1].num_attrs = 2;
        set.num_requests = 2;
        set.option = option;
        set.requests = requests;
        qel_async_req_init(&request);
    }
    cerrno start(std::uint32_t app) { return qel_if_cfg_async(app, &set, &request, &future); }
    cerrno fetch() { return qel_if_cfg_get_result(&future, &status, &result); }

    qel_if_cfg_req requests[2];
    qel_if_cfg_req_attr set;
    qel_async_req request;
    qel_async_future future{};
    qel_if_cfg_attr_result first[1]{}, second[2]{};
    qel_if_cfg_attr_result* places[2] = {first, second};
    qel_if_cfg_res_attr result{0, 0, nullptr, places};
    cerrno status = 1;
};

TEST(IfCfg, arguments_are_checked_in_their_order) {
    Started services;
    Change change;
    services.shim.enroll();
    IfClient plain, client{false, QEL_IF_OPTION_BIND_CFG};
    EXPECT_EQ(change.start(client.app), kUnmarked) << "not started";
    ASSERT_EQ(qel_netinfra_init(0), 0u);
    EXPECT_EQ(qel_if_cfg_async(client.app ^ 0x1000000, nullptr, nullptr, nullptr), kInvalid);
    EXPECT_EQ(qel_if_cfg_async(plain.app, nullptr, nullptr, nullptr), kNoOption);
    EXPECT_EQ(qel_if_cfg_async(client.app, nullptr, &change.request, &change.future), kInvalid);
    change.set.num_requests = 0;
    EXPECT_EQ(change.start(client.app), kInvalid);
    change.set.magic = 0;
    EXPECT_EQ(change.start(client.app), kUnmarked) << "before the count";
    Change third;
    third.requests[1].magic = 0;
    EXPECT_EQ(third.start(client.app), kUnmarked);
    third.requests[1].magic = QEL_IF_MAGIC;
    third.requests[1].num_attrs = UINT64_MAX / 16;
    EXPECT_EQ(third.start(client.app), 0xa000000cu);
    third.requests[1].num_attrs = 2;
    third.request.magic = 0;
    EXPECT_EQ(third.start(client.app), 0u) << "a zeroed request does";
    EXPECT_EQ(qel_async_wait(&third.future), 0u);
    EXPECT_EQ(third.fetch(), 0u);
}

TEST(IfCfg, results_are_copied_into_the_client_s_arrays) {
    Started services;
    services.start();
    IfClient client{false, QEL_IF_OPTION_BIND_CFG};
    Change change;
    ASSERT_EQ(change.start(client.app), 0u);
    ASSERT_EQ(qel_async_wait(&change.future), 0u);
    qel_if_cfg_query_res_attr wrong{};
    EXPECT_EQ(qel_if_cfg_query_get_result(&change.future, &change.status, &wrong), kWrongKind);
    EXPECT_EQ(change.fetch(), 0u);
    EXPECT_EQ(change.status, 0u);
    EXPECT_EQ(change.second[1].word[0], 11u);
    EXPECT_EQ(change.result.num_requests, 2u);
    EXPECT_EQ(change.fetch(), kNotThere);

    Change refused{0xa0000009};
    ASSERT_EQ(refused.start(client.app), 0u);
    ASSERT_EQ(qel_async_wait(&refused.future), 0u);
    EXPECT_EQ(refused.fetch(), 0u);
    EXPECT_EQ(refused.status, 0xa0000009u);

    Change without_place;
    without_place.places[1] = nullptr;
    ASSERT_EQ(without_place.start(client.app), 0u);
    ASSERT_EQ(qel_async_wait(&without_place.future), 0u);
    EXPECT_EQ(without_place.fetch(), kInvalid);
    EXPECT_EQ(without_place.fetch(), kNotThere);

    Change grown;
    ASSERT_EQ(grown.start(client.app), 0u);
    ASSERT_EQ(qel_async_wait(&grown.future), 0u);
    grown.requests[1].num_attrs = 1000;
    EXPECT_EQ(grown.fetch(), 0u) << "the count of the start holds";
}

// A question with an answer of two attributes.
struct Question {
    Question() {
        qel_if_cfg_query_req_init(&question);
        question.num_attrs = 2;
        question.last = 5;
        qel_if_cfg_query_req_attr_init(&set);
        set.num_requests = 1;
        set.requests = &question;
        qel_async_req_init(&request);
    }
    cerrno start(std::uint32_t app) { return qel_if_cfg_query_async(app, &set, &request, &future); }
    cerrno fetch() { return qel_if_cfg_query_get_result(&future, &status, &result); }

    qel_if_cfg_query_req question;
    qel_if_cfg_query_req_attr set;
    qel_async_req request;
    qel_async_future future{};
    qel_if_cfg_attr_result attrs[2]{};
    qel_if_cfg_answer answer{attrs, 0};
    qel_if_cfg_query_res_attr result{0, nullptr, &answer};
    cerrno status = 1;
};

TEST(IfCfg, queries_and_interfaces_go_the_same_way) {
    Started services;
    services.start();
    IfClient client{false, QEL_IF_OPTION_BIND_CFG};
    Question any;
    cerrno status = 1;
    ASSERT_EQ(any.start(client.app), 0u);
    EXPECT_EQ(any.future.opcode, QEL_IF_OPCODE_CFG_QUERY);
    ASSERT_EQ(qel_async_wait(&any.future), 0u);
    EXPECT_EQ(any.fetch(), 0u);
    EXPECT_EQ(any.status, 0u);
    EXPECT_EQ(any.attrs[1].word[1], 77u);
    EXPECT_EQ(any.answer.word, 6u);

    qel_if_cfg_intf_req wanted;
    qel_if_cfg_intf_req_init(&wanted);
    EXPECT_FALSE(qel_if_shim_cfg_intf_req_is_valid(&wanted));
    wanted.pair[0] = 12;
    EXPECT_TRUE(qel_if_shim_cfg_intf_req_is_valid(&wanted));
    qel_if_cfg_interface_req_attr interfaces;
    qel_if_cfg_interface_req_attr_init(&interfaces);
    interfaces.num_requests = 1;
    interfaces.interface_requests = &wanted;
    ASSERT_EQ(qel_if_cfg_interface_async(client.app, &interfaces, &any.request, &any.future), 0u);
    ASSERT_EQ(qel_async_wait(&any.future), 0u);
    qel_if_cfg_interface_res_attr made{0, 0, nullptr, any.attrs};
    EXPECT_EQ(qel_if_cfg_interface_get_result(&any.future, &status, &made), 0u);
    EXPECT_EQ(any.attrs[0].word[0], 12u);
}

TEST(IfCfg, the_default_shim_supports_none) {
    ASSERT_EQ(qel_netinfra_init(0), 0u);
    {
        IfClient client{false, QEL_IF_OPTION_BIND_CFG};
        Change change;
        ASSERT_EQ(change.start(client.app), 0u);
        ASSERT_EQ(qel_async_wait(&change.future), 0u);
        change.first[0].word[0] = 5;
        EXPECT_EQ(change.fetch(), 0u);
        EXPECT_EQ(change.status, kUnsupported);
        EXPECT_EQ(change.first[0].word[0], 5u);
        EXPECT_EQ(Question{}.start(client.app), kUnsupported);
    }
    EXPECT_TRUE(eventually([] { return Started::in_use() == 0; }));
    EXPECT_EQ(qel_netinfra_fini(), 0u);
}

// --- A shim that answers from threads of its own

// Operations that the shim has taken and not answered.
class Desk {
  public:
    void put(std::uint32_t op_id) {
        std::lock_guard lock{mutex_};
        waiting_.push_back(op_id);
        came_.notify_all();
    }
    // 0 when the desk is closed.
    std::uint32_t take() {
        std::unique_lock lock{mutex_};
        came_.wait(lock, [&] { return closed_ || !waiting_.empty(); });
        if (waiting_.empty()) return 0;
        const std::uint32_t op_id = waiting_.front();
        waiting_.pop_front();
        return op_id;
    }
    void close() {
        std::lock_guard lock{mutex_};
        closed_ = true;
        came_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable came_;
    std::deque<std::uint32_t> waiting_;
    bool closed_ = false;
};
Desk* desk;

cerrno take_async(const qel_if_shim_client*, qel_if_cfg_res_attr*, std::uint32_t op_id) {
    desk->put(op_id);
    return 0;
}

cerrno answer(std::uint32_t op_id, cerrno status = 0) {
    qel_async_ctx* operation = nullptr;
    if (cerrno error = qel_if_shim_op_guard(op_id, &operation); error != 0) return error;
    const cerrno error = qel_if_shim_report_cfg_result(operation, status);
    EXPECT_EQ(qel_if_shim_op_yield(operation), 0u);
    return error;
}

std::atomic<int> called;
void count_call(const qel_async_future*) {
    ++called;
}

struct AsyncServices : Started {
    Desk mine;
    AsyncServices() {
        desk = &mine;
        shim.registration.handlers.cfg_async = take_async;
        start();
        called = 0;
    }
};

TEST(IfCfg, of_several_reports_the_first_stands) {
    AsyncServices services;
    IfClient client{true, QEL_IF_OPTION_BIND_CFG};
    Change change;
    ASSERT_EQ(change.start(client.app), 0u);
    EXPECT_EQ(change.fetch(), kNotYet);
    const std::uint32_t op_id = desk->take();
    std::atomic<int> firsts = 0, repeats = 0;
    std::atomic<cerrno> stands = 0;
    std::vector<std::thread> threads;
    for (cerrno i = 1; i <= 4; ++i)
        threads.emplace_back([&, i] {
            const cerrno error = answer(op_id, i);
            if (error == 0) stands = i;
            firsts += error == 0;
            repeats += error == kTold;
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(firsts, 1);
    EXPECT_EQ(repeats, 3);
    EXPECT_EQ(change.fetch(), 0u);
    EXPECT_EQ(change.status, stands);
    EXPECT_EQ(answer(op_id), kNotThere) << "fetched";

    change.request.callback = count_call;
    ASSERT_EQ(change.start(client.app), 0u);
    EXPECT_EQ(answer(desk->take()), 0u);
    EXPECT_EQ(called, 0);
    client.dispatch_all();
    EXPECT_EQ(called, 1);
    EXPECT_EQ(change.fetch(), 0u);
}

TEST(IfCfg, an_answer_after_the_client_s_end_finds_nothing) {
    AsyncServices services;
    for (qel_async_callback callback : {qel_async_callback{nullptr}, qel_async_callback{count_call}}) {
        IfClient client{true, QEL_IF_OPTION_BIND_CFG};
        Change waiting, queued;
        waiting.request.callback = queued.request.callback = callback;
        ASSERT_EQ(waiting.start(client.app), 0u);
        ASSERT_EQ(queued.start(client.app), 0u);
        const std::uint32_t late = desk->take();
        EXPECT_EQ(answer(desk->take()), 0u);
        std::thread sleeper([&] {
            if (callback == nullptr) {
                EXPECT_EQ(qel_async_wait(&waiting.future), 0u);
            }
        });
        EXPECT_EQ(qel_if_destroy(&client.app), 0u);
        sleeper.join();
        const cerrno error = answer(late);
        EXPECT_TRUE(callback == nullptr ? error != 0 : error == kNotThere) << error;
        client.dispatch_all();
        EXPECT_EQ(called, 0);
        EXPECT_EQ(waiting.fetch(), callback == nullptr ? 0u : kNotThere);
        EXPECT_EQ(waiting.status, callback == nullptr ? kNotThere : 1u) << "no work was done";
        EXPECT_EQ(queued.fetch(), callback == nullptr ? 0u : kNotThere);
    }
}

TEST(IfCfg, a_binding_that_is_lost_ends_operations) {
    AsyncServices services;
    IfClient client{false, QEL_IF_OPTION_BIND_CFG};
    Change change;
    change.request.callback = count_call;
    ASSERT_EQ(change.start(client.app), 0u);
    qel_if_shim_bind_status lost;
    qel_if_shim_bind_status_init(&lost);
    lost.app = client.app;
    lost.status = 1;
    EXPECT_EQ(qel_if_shim_report_bind_status(&lost), 0u);
    EXPECT_EQ(answer(desk->take()), kNotThere);
    EXPECT_EQ(called, 0);
}

// Answers what comes to the desk: at once, twice, late or never.
void answer_at_random(unsigned seed) {
    std::minstd_rand dice{seed};
    std::vector<std::uint32_t> kept;
    while (const std::uint32_t op_id = desk->take()) {
        const auto chance = dice() % 8;
        if (chance == 1) kept.push_back(op_id);
        if (chance > 1) answer(op_id);
        if (chance > 6) answer(op_id);
        if (kept.size() <= 8) continue;
        for (std::uint32_t late : kept) answer(late);
        kept.clear();
    }
}

// One operation, whose client ends while it is fetched or waited for, or before.
template <class Operation>
void run_round(qel_if_bind_attr attr, bool waits, bool fetches_meanwhile) {
    std::uint32_t app = 0;
    ASSERT_EQ(qel_if_bind(&app, "round", &attr), 0u);
    Operation operation;
    if (!waits) operation.request.callback = count_call;
    ASSERT_EQ(operation.start(app), 0u);
    std::thread fetcher;
    if (fetches_meanwhile)
        fetcher = std::thread([&] {
            if (waits) qel_async_wait(&operation.future);
            operation.fetch();
        });
    EXPECT_EQ(qel_if_destroy(&app), 0u);
    if (fetches_meanwhile) fetcher.join();
    if (waits) operation.fetch();
}

// Of asynchronous and synchronous handlers, with and without a dispatcher, called back and waited for.
TEST(IfCfg, unbinds_meet_every_kind_of_operation) {
    AsyncServices services;
    std::vector<std::thread> shims;
    for (unsigned seed = 1; seed <= 4; ++seed) shims.emplace_back(answer_at_random, seed);
    IfClient dispatcher{true};
    std::atomic<bool> stop = false;
    std::thread runner([&] {
        while (!stop && qel_dm_wait(dispatcher.dm) == 0) qel_dm_dispatch(dispatcher.dm);
    });
    std::uint32_t scope = 0;
    qel_if_bind_attr attr;
    qel_if_bind_attr_init(&attr);
    attr.scope = &scope;
    attr.options = QEL_IF_OPTION_BIND_CFG;
    for (int kind = 0; kind < 8; ++kind) {
        attr.qdm = (kind & 1) != 0 ? dispatcher.dm : 0;
        const bool waits = (kind & 2) != 0;
        for (int round = 0; round < kRounds; ++round)
            (kind & 4) != 0 ? run_round<Question>(attr, waits, round % 2 == 0)
                            : run_round<Change>(attr, waits, round % 2 == 0);
    }
    desk->close();
    for (std::thread& shim : shims) shim.join();
    stop = true;
    qel_dm_execute(
        dispatcher.dm, [](qel_dm_handle, std::uint64_t, std::uint64_t) {}, 0, 0);
    runner.join();
}

TEST(IfCfg, a_stop_ends_what_is_never_answered) {
    std::thread sleeper;
    Change change;
    AsyncServices services;
    {
        IfClient client{false, QEL_IF_OPTION_BIND_CFG};
        ASSERT_EQ(change.start(client.app), 0u);
        std::atomic<bool> answered = false;
        std::thread late([&] {
            const std::uint32_t op_id = desk->take();
            while (qel_netinfra_is_init() != 0) std::this_thread::yield();
            EXPECT_EQ(answer(op_id), kNotThere);
        });
        sleeper = std::thread([&] { qel_async_wait(&change.future); });
        EXPECT_EQ(qel_netinfra_fini(), 0u);
        sleeper.join();
        late.join();
        EXPECT_EQ(change.start(client.app), kUnmarked);
    }
}

TEST(IfCfg, helpers_of_shims) {
    const std::string text(201, 'x');
    EXPECT_EQ(qel_if_shim_cfg_description_is_valid(nullptr, 0), 0u);
    EXPECT_EQ(qel_if_shim_cfg_description_is_valid(nullptr, 3), kInvalid);
    EXPECT_EQ(qel_if_shim_cfg_description_is_valid(text.c_str(), 201), 0xa000001cu);
    EXPECT_EQ(qel_if_shim_cfg_description_is_valid(text.c_str() + 1, 200), 0u);
    EXPECT_EQ(qel_if_shim_cfg_description_is_valid("abc", 2), kInvalid);
    char mask[16];
    for (auto [length, expected] :
         {std::pair{24u, "255.255.255.0"}, {32u, "255.255.255.255"}, {0u, "0.0.0.0"}, {1u, "128.0.0.0"}}) {
        EXPECT_EQ(qel_if_shim_prefixlen2mask(length, mask, sizeof(mask)), 0u);
        EXPECT_STREQ(mask, expected);
    }
    EXPECT_EQ(qel_if_shim_prefixlen2mask(33, mask, sizeof(mask)), kInvalid);
    EXPECT_EQ(qel_if_shim_prefixlen2mask(24, mask, 13), 0xa000000eu);
}

}  // namespace
