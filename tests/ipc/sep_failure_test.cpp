// Signal end points, from inside: wake-ups between processes, killed owners, stops under load.
#include "dispatch/dm_support.hpp"
#include "support/failing.hpp"

#include <qel/shm.h>
#include <qel/thread.h>

#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>

#include "ipc/qel_sep.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

using namespace qel_test;

namespace {

// Two end points and what their owners play with.
struct Table {
    qel_sep_record records[2];
    std::atomic<std::uint32_t> ball;
    std::atomic<std::uint32_t> jobs;
};

qel::Mapping open_table() {
    qel::Mapping mapping;
    std::uint8_t existed = 0;
    EXPECT_EQ(qel_shm_open("bells", sizeof(Table), mapping.out(), &existed), 0);
    return mapping;
}

// The owner's side of the process; handlers find it here.
Table* table = nullptr;
qel_sep local;
qel_sep_record* own = nullptr;
qel_sep_record* peer = nullptr;
qel_dm_handle dispatcher = 0;
std::atomic<bool> finished{false};

void take(qel_dm_handle, std::uint64_t, std::uint64_t) {
    ++table->jobs;
    qel_sep_get_signals(own);
}

// Waits a random moment and passes the ball on when it is this side's; 'number' is 0 or 1, and the ball's
// lowest bit says whose it is.
void play(std::uint64_t number) {
    thread_local unsigned seed = static_cast<unsigned>(getpid());
    std::uint32_t ball = table->ball.load(std::memory_order_relaxed);
    if (ball % 2 != number || ball == 0) return;
    for (int i = rand_r(&seed) % 64 == 0 ? rand_r(&seed) % 4000 : rand_r(&seed) % 40; i > 0; --i)
        qel::shm_platform::pause_spinning();
    if (ball == 1) finished = true;
    table->ball.store(ball - 1, std::memory_order_relaxed);
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
}

// As messaging does: tells that it begins, and looks again.
void talk(qel_dm_handle, std::uint64_t number, std::uint64_t) {
    qel::sep_handler_begins(local);
    do {
        while (qel::sep_next_signals(local, *own) != 0) play(number);
    } while (qel::sep_begin_look(local) && qel::sep_look_again(local, *own));
}
// As an application may.
void answer(qel_dm_handle, std::uint64_t number, std::uint64_t) {
    qel_sep_get_signals(own);
    play(number);
}

QEL_ROLE(player) {
    qel::Mapping mapping = open_table();
    table = static_cast<Table*>(mapping.info().addr);
    if (qel_dm_create(&dispatcher, nullptr, QEL_DM_PRIVATE) != 0 || qel_sep_init_once(&local) != 0) return 1;
    qel_sep_handler handler = args[0] == "talk" ? talk : answer;
    if (qel_sep_init(1, &local, &own, &table->records[1], dispatcher, handler, 1) != 0) return 2;
    peer = &table->records[0];
    say("ready");
    return serve(dispatcher);
}

// Dies where it has given the mutex back and not yet woken the owner's thread, which waits for it.
QEL_ROLE(ringer_that_dies) {
    qel::Mapping mapping = open_table();
    qel_sep_record& record = static_cast<Table*>(mapping.info().addr)->records[0];
    auto& mutex = record.sep_mutex.__data;
    pthread_mutex_lock(&record.sep_mutex);
    record.sep_flags = QEL_SEP_INPUT;
    pthread_cond_signal(&record.sep_cond);
    if (!eventually([&] { return __atomic_load_n(&mutex.__lock, __ATOMIC_RELAXED) == 2; })) return 1;
    mutex.__owner = 0;
    --mutex.__nusers;
    __atomic_store_n(&mutex.__lock, 0, __ATOMIC_RELEASE);
    say("dead");
    return serve(0);
}

class SignalEndPoint : public testing::Test {
  protected:
    void SetUp() override {
        table = static_cast<Table*>(mapping_.info().addr);
        std::memset(static_cast<void*>(table), 0, sizeof *table);
        for (qel_sep_record& record : table->records) ASSERT_EQ(qel_sep_shm_init_once(&record), 0);
        ASSERT_EQ(qel_sep_init_once(&local), 0);
        finished = false;
    }
    void TearDown() override { EXPECT_EQ(qel_shm_unlink("bells"), 0); }
    static int start(qel_sep_handler handler, qel_dm_handle dm) {
        return qel_sep_init(0, &local, &own, &table->records[0], dm, handler, 0);
    }

    qel::Mapping mapping_ = open_table();
};

class PingPong : public SignalEndPoint, public testing::WithParamInterface<const char*> {};

// QEL_SEP_ROUNDS=1000000 for the long run.
TEST_P(PingPong, loses_no_wake_up) {
    const char* wanted = std::getenv("QEL_SEP_ROUNDS");
    std::uint32_t rounds = wanted == nullptr ? 4000 : static_cast<std::uint32_t>(std::atoi(wanted));
    TestDispatcher own_dispatcher;
    Servers servers{own_dispatcher.handle, 2};
    Child player{"player", {GetParam()}};
    ASSERT_EQ(player.read_line(), "ready");
    ASSERT_EQ(qel_sep_open(&local, &peer, &table->records[1]), 0);
    ASSERT_EQ(start(std::string(GetParam()) == "talk" ? talk : answer, own_dispatcher.handle), 0);
    table->ball = rounds * 2 + 1;
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    EXPECT_TRUE(eventually([] { return table->ball == 0; }, wanted == nullptr ? 60s : 600s)) << table->ball;
    EXPECT_TRUE(qel::sep_stop(local));
    qel_sep_close(&local, &peer);
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    EXPECT_EQ(qel_dm_destroy(&own_dispatcher.handle), 0);
}
INSTANTIATE_TEST_SUITE_P(, PingPong, testing::Values("talk", "answer"));

TEST_F(SignalEndPoint, burst_makes_one_job_and_an_end_drops_signals) {
    EXPECT_EQ(qel_sep_open(&local, &peer, &table->records[0]), EAGAIN);
    peer = &table->records[0];
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    EXPECT_EQ(table->records[0].sep_flags, 0u);
    TestDispatcher unserved;
    ASSERT_EQ(start(take, unserved.handle), 0);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(qel_sep_signal(&peer, 1u << i % 16), 0);
    unserved.serve_once();
    EXPECT_EQ(table->jobs, 1u);
    EXPECT_EQ(table->records[0].sep_flags, 0u);
    EXPECT_TRUE(qel::sep_stop(local));
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    EXPECT_EQ(table->records[0].sep_flags, 0u);
    EXPECT_EQ(table->records[0].sep_state, QEL_SEP_STATE_NONE);
}

bool sleeps(qel_sep_record& record) {
    return eventually([&] { return std::atomic_ref{record.sep_cond.__data.__wrefs}.load() > 8; });
}

// Killed in its sleep, or woken from it and not yet running, or while it looked for more: wherever it holds
// no lock.
TEST_F(SignalEndPoint, killed_owner_hangs_nobody_and_comes_back) {
    peer = &table->records[1];
    for (int round = 0; round < 12; ++round) {
        Child owner{"player", {"answer"}};
        ASSERT_EQ(owner.read_line(), "ready");
        ASSERT_TRUE(sleeps(*peer));
        EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
        ASSERT_TRUE(eventually([] { return peer->sep_flags == 0; }) && sleeps(*peer));
        kill(owner.pid(), SIGSTOP);
        ASSERT_EQ(waitpid(owner.pid(), nullptr, WUNTRACED), owner.pid());
        for (int i = 0; i < round % 4; ++i) {
            EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
            EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
            if (i != 0) peer->sep_flags = qel::kOwnerAwake;
        }
        owner.kill();
        auto before = std::chrono::steady_clock::now();
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_EP_UPDATE), 0);
            if (i == 2) qel_sep_get_signals(peer);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    }
}

TEST_F(SignalEndPoint, owner_stranded_by_a_death_is_found_at_the_next_open) {
    TestDispatcher dm;
    Servers servers{dm.handle, 1};
    ASSERT_EQ(start(take, dm.handle), 0);
    peer = &table->records[0];
    ASSERT_TRUE(sleeps(*peer));
    Child ringer{"ringer_that_dies"};
    ASSERT_EQ(ringer.read_line(), "dead");
    ringer.kill();
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_EP_UPDATE), 0);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(table->jobs, 0u) << "the death was not where it should be";
    qel::sep_wake_stranded(*peer);
    EXPECT_TRUE(eventually([] { return table->jobs > 0; }));
    EXPECT_TRUE(qel::sep_stop(local));
    EXPECT_EQ(qel_dm_destroy(&dm.handle), 0);
}

std::atomic<bool> may_return{false};
std::atomic<int> calls{0};
void linger(qel_dm_handle, std::uint64_t, std::uint64_t) {
    qel_sep_get_signals(own);
    ++calls;
    while (!may_return) std::this_thread::yield();
}

// Without a dispatcher; the first handler doesn't return, so its thread outlives the stop and must not touch
// the owner that starts next.
TEST_F(SignalEndPoint, stop_is_bounded_under_signals_and_with_a_stuck_handler) {
    const int threads = thread_count();
    std::atomic<bool> enough{false};
    std::vector<std::thread> hammers;
    qel_sep_record* places[2] = {&table->records[0], &table->records[0]};
    for (qel_sep_record*& place : places)
        hammers.emplace_back([&] {
            while (!enough) EXPECT_EQ(qel_sep_signal(&place, QEL_SEP_INPUT), 0);
        });
    for (bool stuck : {true, false}) {
        may_return = !stuck;
        calls = 0;
        ASSERT_EQ(start(linger, 0), 0);
        EXPECT_TRUE(eventually([] { return calls > 0; }));
        auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(qel::sep_stop(local), !stuck);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
        EXPECT_EQ(table->records[0].sep_state, QEL_SEP_STATE_NONE);
        may_return = true;
    }
    enough = true;
    for (std::thread& hammer : hammers) hammer.join();
    // Fewer if a thread of an earlier test was still ending at the beginning.
    EXPECT_TRUE(eventually([&] { return thread_count() <= threads; }));
}

// A failed start leaves nothing, and a job that could not be queued is queued later without another signal.
TEST_F(SignalEndPoint, failures_of_memory_and_dispatcher_pass) {
    int error = 0;
    EXPECT_GT(fail_each_allocation([&] {
                  error = start(take, 0);
                  if (error == 0) qel_sep_destroy(&local);
                  EXPECT_TRUE(error == 0 || error == ENOMEM) << error;
                  EXPECT_EQ(table->records[0].sep_state, QEL_SEP_STATE_NONE);
              }),
              0);
    static std::atomic<int> refusals{0};
    TestDispatcher served;
    ASSERT_EQ(start(take, served.handle), 0);
    qel::allocation_hook.store([] { return ++refusals < 0; });
    while (qel_dm_execute(
               served.handle, [](qel_dm_handle, std::uint64_t, std::uint64_t) {}, 0, 0) == 0) {
    }
    int before = refusals;
    peer = &table->records[0];
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    EXPECT_TRUE(eventually([&] { return refusals > before + 3; }));
    qel::allocation_hook.store(nullptr);
    while (table->jobs == 0) served.serve_once();
    EXPECT_EQ(table->jobs, 1u);
    EXPECT_TRUE(qel::sep_stop(local));
}

// Words that a peer wrote over are refused, not followed; and an owner hears what it was made deaf to.
TEST_F(SignalEndPoint, scribbled_words_are_errors_or_heal) {
    TestDispatcher unserved;
    ASSERT_EQ(start(take, unserved.handle), 0);
    peer = &table->records[0];
    ASSERT_TRUE(sleeps(*peer));
    pthread_cond_t kept = table->records[0].sep_cond;
    table->records[0].sep_cond.__data.__g_refs[0] = 7;
    table->records[0].sep_cond.__data.__g_refs[1] = 7;
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), EINVAL);
    table->records[0].sep_cond = kept;
    table->records[0].sep_mutex.__data.__kind |= 0x20;
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_LOW_WATER), EINVAL);
    table->records[0].sep_mutex.__data.__kind &= ~0x20;
    TestDispatcher served;
    EXPECT_TRUE(qel::sep_stop(local));
    ASSERT_EQ(start(take, served.handle), 0);
    ASSERT_TRUE(sleeps(*peer));
    table->jobs = 0;
    std::atomic_ref{table->records[0].sep_flags}.store(qel::kOwnerAwake);
    EXPECT_EQ(qel_sep_signal(&peer, QEL_SEP_INPUT), 0);
    while (table->jobs == 0) served.serve_once();
    EXPECT_EQ(table->records[0].sep_flags, 0u);
    EXPECT_TRUE(qel::sep_stop(local));
}

}  // namespace
