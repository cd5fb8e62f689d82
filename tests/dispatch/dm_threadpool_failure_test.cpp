// Thread pools, with a look at their counters inside.
#include "dm_support.hpp"
#include "support/failing.hpp"

#include <qel/dm_threadpool.h>
#include <qel/ppm.h>

#include "dispatch/qel_dm.hpp"

using namespace qel_test;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kDestroys = 100;
#else
constexpr int kDestroys = 1000;
#endif

struct Pool {
    int min_wait, max_wait, max_threads, waiting, threads;
    bool operator==(const Pool&) const = default;
};

Pool look(qel_dm_handle handle) {
    qel::dm::Retained dispatcher = qel::dm::retain(handle);
    if (!dispatcher) return {};
    qel::dm::Locked lock{dispatcher->mutex};
    return {dispatcher->min_wait, dispatcher->max_wait, dispatcher->max_threads, dispatcher->waiting,
            dispatcher->threads};
}

qel_dm_threadpool_attr limits(int min_wait, int max_wait, int max_threads) {
    return {static_cast<std::uint16_t>(min_wait), static_cast<std::uint16_t>(max_wait),
            static_cast<std::uint16_t>(max_threads), nullptr, nullptr};
}

// Which of this thread's creations the hook refuses; -1 for none.
thread_local int creations_left = -1;
int refuse_one_creation(pthread_t* out, const char*, const qel_thread_attr* attr, void* record) {
    if (creations_left-- == 0) return EAGAIN;
    return pthread_create(out, attr != nullptr ? attr->attr : nullptr, thread_start_kludge, record);
}

qel_dm_handle current = 0;

// For a thread that nobody joins: the pool detaches it.
void* join_pool(void* attr) {
    EXPECT_EQ(qel_dm_threadpool_create(current, QEL_DM_THREADPOOL_JOIN,
                                       static_cast<qel_dm_threadpool_attr*>(attr), nullptr),
              0);
    ADD_FAILURE() << "a caller that joined came back";
    return attr;
}

struct ThreadPool : testing::Test {
    const int threads_before = thread_count();
    static inline std::atomic<int> exits{0};
    static void SetUpTestSuite() {
        qel_thread_set_create_fn(refuse_one_creation);
        qel_thread_set_exit_fn([](void*) { ++exits; });
        std::thread{[] {}}.join();  // A sanitizer starts a thread of its own beside the first one.
    }
    ~ThreadPool() override { EXPECT_TRUE(all_ended()) << thread_count(); }
    bool all_ended() const {
        return eventually([this] { return thread_count() <= threads_before; });
    }
};

}  // namespace

TEST_F(ThreadPool, limits_are_completed_cut_and_put_in_order) {
    struct Row {
        qel_dm_threadpool_attr asked;
        std::uint32_t enforced;
        Pool expected;
    };
    for (const Row& row :
         {Row{limits(0, 0, 0), 0, {2, 4, 10, 3, 3}}, Row{limits(3, 3, 8), 0, {3, 3, 8, 3, 3}},
          Row{limits(4, 2, 1), 0, {4, 4, 4, 4, 4}}, Row{limits(1, 3, 2), 0, {1, 3, 3, 2, 2}},
          Row{limits(2, 4, 10), 3, {2, 3, 3, 3, 3}}, Row{limits(0, 7, 9), 3, {2, 3, 3, 3, 3}},
          Row{limits(1, 1, 65535), 65535, {1, 1, 32767, 1, 1}}}) {
        TestDispatcher dispatcher;
        qel_ppm_set_integer("qel.dm.threads.enforce.max", row.enforced);
        ASSERT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, &row.asked, nullptr), 0);
        EXPECT_TRUE(look(dispatcher.handle) == row.expected);
        EXPECT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, nullptr, nullptr), EBUSY);
        EXPECT_TRUE(look(dispatcher.handle) == row.expected);
    }
    qel_dm_threadpool_attr attr = limits(9, 9, 9);
    qel_ppm_set_integer("qel.dm.threads.max", 100'000);
    EXPECT_EQ(qel_dm_threadpool_attr_init(&attr), 0);
    EXPECT_EQ(attr.min_wait + attr.max_wait, 2 + 4);
    EXPECT_EQ(attr.max_threads, 32767);
    qel_ppm_destroy();
    EXPECT_EQ(qel_dm_threadpool_attr_init(nullptr), EINVAL);
    EXPECT_EQ(qel_dm_threadpool_create(0xdead, 0, nullptr, nullptr), EINVAL);
}

// Slow handlers bring up every thread and no more, quick ones churn; no job is lost, and quiet shrinks it
// again.
TEST_F(ThreadPool, grows_to_its_maximum_under_load_and_falls_back) {
    std::atomic<bool> open{false}, done{false};
    std::atomic<int> inside{0}, run{0};
    Function slow = [&] { ++inside, open.wait(false), ++run; };
    Function quick = [&] { ++run; };
    TestDispatcher dispatcher;
    const qel_dm_handle handle = dispatcher.handle;
    qel_dm_threadpool_attr attr = limits(1, 2, 6);
    ASSERT_EQ(qel_dm_threadpool_create(handle, 0, &attr, nullptr), 0);
    std::thread watcher{[&] {
        while (!done) {
            Pool pool = look(handle);
            EXPECT_LE(0, pool.waiting);
            EXPECT_LE(pool.waiting, std::min(pool.threads, pool.max_wait));
            EXPECT_LE(pool.threads, pool.max_threads);
        }
    }};
    for (int i = 0; i < 20; ++i) EXPECT_EQ(execute(handle, slow), 0);
    EXPECT_TRUE(eventually([&] { return inside == 6; }));
    EXPECT_EQ(look(handle).threads, 6);
    open = true;
    open.notify_all();
    for (int i = 1; i <= 2000; ++i) {
        EXPECT_EQ(execute(handle, quick), 0);
        if (i % 100 == 0) {
            EXPECT_TRUE(eventually([&] { return run == 20 + i; })) << run << " of " << 20 + i;
        }
    }
    EXPECT_TRUE(eventually([&] {
        Pool pool = look(handle);
        return pool.threads == pool.waiting && pool.waiting >= 1;
    }));
    done = true;
    watcher.join();
}

// From outside, from a handler on a pool thread, and with a caller that joined the pool.
TEST_F(ThreadPool, destroy_under_load_leaves_no_thread) {
    std::atomic<bool> destroyed{false};
    exits = 0;
    for (int round = 0; round < kDestroys && !HasFailure(); ++round) {
        ASSERT_EQ(qel_dm_create(&current, "round", QEL_DM_PRIVATE), 0);
        const qel_dm_handle handle = current;
        qel_dm_threadpool_attr attr = limits(1 + round % 2, 3, 5);
        if (round % 3 == 0) {
            pthread_t caller;
            ASSERT_EQ(qel_thread_create(&caller, nullptr, join_pool, &attr, "caller", 0), 0);
            ASSERT_TRUE(eventually([&] { return look(handle).threads >= 2; }));
        } else {
            ASSERT_EQ(qel_dm_threadpool_create(handle, 0, &attr, nullptr), 0);
        }
        Function repeat = [&] { static_cast<void>(execute(handle, repeat)); };
        for (int i = 0; i < 4; ++i) EXPECT_EQ(execute(handle, repeat), 0);
        if (round % 2 == 0) {
            EXPECT_EQ(qel_dm_destroy(&current), 0);
        } else {
            destroyed = false;
            Function destroy = [&] {
                EXPECT_EQ(qel_dm_destroy(&current), 0);
                destroyed = true;
            };
            EXPECT_EQ(execute(handle, destroy), 0);
            EXPECT_TRUE(eventually([&] { return destroyed.load(); }));
            EXPECT_TRUE(all_ended());
        }
        EXPECT_EQ(qel_dm_execute(handle, run_function, 0, 0), EINVAL);
    }
    EXPECT_TRUE(all_ended());
    EXPECT_GE(exits, 2 * kDestroys);
}

// Each creation of a thread and each allocation fails in turn; two creators at a time get one pool.
TEST_F(ThreadPool, failed_creation_leaves_no_thread_and_may_be_repeated) {
    qel_dm_threadpool_attr attr = limits(2, 4, 10);
    qel_thread_attr detached;
    ASSERT_EQ(qel_thread_attr_init(&detached), 0);
    ASSERT_EQ(qel_thread_attr_setdetachstate(&detached, QEL_THREAD_DETACHED), 0);
    TestDispatcher dispatcher;
    for (int failing = 0; failing < 3; ++failing)
        for (std::uint32_t flags : {0u, QEL_DM_THREADPOOL_JOIN}) {
            creations_left = std::min(failing, flags != 0 ? 1 : 2);
            EXPECT_EQ(qel_dm_threadpool_create(dispatcher.handle, flags, &attr, &detached), EAGAIN);
            EXPECT_TRUE(look(dispatcher.handle) == Pool{});
        }
    int failures = fail_each_allocation([&] {
        qel_dm_handle own = 0;
        if (qel_dm_create(&own, nullptr, QEL_DM_PRIVATE) != 0) return;
        int error = qel_dm_threadpool_create(own, 0, &attr, &detached);
        EXPECT_TRUE(allocation_failed ? error == ENOMEM || error == EAGAIN : error == 0) << error;
        EXPECT_EQ(qel_dm_destroy(&own), 0);
    });
    EXPECT_GT(failures, 6);
    for (int round = 0; round < kDestroys / 10; ++round) {
        TestDispatcher own;
        std::thread other{[&] {
            while (qel_dm_threadpool_create(own.handle, 0, &attr, nullptr) == EBUSY) {
            }
        }};
        creations_left = 2;
        int error = qel_dm_threadpool_create(own.handle, 0, &attr, nullptr);
        EXPECT_TRUE(error == EAGAIN || error == EBUSY) << error;
        other.join();
        EXPECT_EQ(look(own.handle).threads, 3);
    }
    creations_left = -1;
    EXPECT_EQ(qel_thread_attr_destroy(&detached), 0);
    EXPECT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, &attr, &detached), EINVAL);
    EXPECT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, &attr, nullptr), 0);
}

// The record is gone when the later threads start.
TEST_F(ThreadPool, later_threads_have_the_attributes_too) {
    std::atomic<int> alike{0};
    qel_thread_attr wanted;
    std::size_t size = 0;
    cpu_set_t processor;
    CPU_ZERO(&processor);
    CPU_SET(sched_getcpu(), &processor);
    ASSERT_EQ(qel_thread_attr_init(&wanted), 0);
    ASSERT_EQ(qel_thread_attr_setstacksize(&wanted, 150), 0);
    ASSERT_EQ(qel_thread_attr_getstacksize(&wanted, &size), 0);
    ASSERT_EQ(pthread_attr_setaffinity_np(wanted.attr, sizeof processor, &processor), 0);
    Function compare = [&] {
        pthread_attr_t own;
        std::size_t own_size = 0;
        cpu_set_t own_processor;
        pthread_getattr_np(pthread_self(), &own);
        pthread_attr_getstacksize(&own, &own_size);
        pthread_attr_destroy(&own);
        pthread_getaffinity_np(pthread_self(), sizeof own_processor, &own_processor);
        alike += own_size >= size && CPU_EQUAL(&own_processor, &processor);
        eventually([&] { return alike == 3; });
    };
    TestDispatcher dispatcher;
    qel_dm_threadpool_attr attr = limits(1, 1, 3);
    ASSERT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, &attr, &wanted), 0);
    ASSERT_EQ(qel_thread_attr_destroy(&wanted), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(execute(dispatcher.handle, compare), 0);
    EXPECT_TRUE(eventually([&] { return alike == 3; })) << alike;
}

TEST_F(ThreadPool, threads_that_a_handler_ends_are_counted_out_and_replaced) {
    std::atomic<int> run{0};
    Function end = [&] {
        int number = run++;
        if (number % 3 == 0) pthread_exit(nullptr);
        if (number % 3 == 1) qel_thread_exit(nullptr);
        pthread_cancel(pthread_self());
        pthread_testcancel();
    };
    TestDispatcher dispatcher;
    qel_dm_threadpool_attr attr = limits(1, 1, 1);
    ASSERT_EQ(qel_dm_threadpool_create(dispatcher.handle, 0, &attr, nullptr), 0);
    for (int i = 0; i < 30; ++i) EXPECT_EQ(execute(dispatcher.handle, end), 0);
    EXPECT_TRUE(eventually([&] { return run == 30 && look(dispatcher.handle).waiting == 1; })) << run;
    EXPECT_EQ(look(dispatcher.handle).threads, 1);
    for (auto wait_handler :
         {+[](qel_dm_handle) -> int { pthread_exit(nullptr); }, +[](qel_dm_handle) { return ETIMEDOUT; }}) {
        TestDispatcher short_lived;
        attr.wait_handler = wait_handler;
        ASSERT_EQ(qel_dm_threadpool_create(short_lived.handle, 0, &attr, nullptr), 0);
        EXPECT_TRUE(eventually([&] { return look(short_lived.handle).threads == 0; }));
        EXPECT_EQ(look(short_lived.handle).waiting, 0);
    }
}
