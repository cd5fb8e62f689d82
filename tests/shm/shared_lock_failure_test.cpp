// The guard of mutexes in shared memory, from inside: waiters and holders that are killed.
#include "support/support.hpp"

#include <qel/shm.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

#include "shm/qel_mem_safe_shm.hpp"
#include "shm/qel_shared_lock.hpp"

using namespace qel_test;
using qel::LongWait;
using qel::SharedMutex;

namespace {

struct Table {
    SharedMutex mutex;
    std::atomic<int> holder;
};

// Remembers what it is told; a long wait ends the waiting thread.
struct RecordedFailures {
    static inline int lock_error = 0;
    static inline LongWait wait{};
    static void lock_failed(int error) { lock_error = error; }
    static void unlock_failed(int) { ADD_FAILURE() << "an unlock failed"; }
    static void waited_long(const LongWait& told) {
        wait = told;
        pthread_exit(nullptr);
    }
};
using SharedLocked = qel::BasicSharedLocked<RecordedFailures>;

class SharedLock : public testing::Test {
  protected:
    void SetUp() override {
        std::uint8_t existed = 1;
        ASSERT_EQ(qel_shm_open("lock", sizeof(Table), mapping_.out(), &existed), 0);
        ASSERT_EQ(table().mutex.init(), 0);
    }
    void TearDown() override { EXPECT_EQ(qel_shm_unlink("lock"), 0); }
    Table& table() { return *reinterpret_cast<Table*>(mapping_.bytes().data()); }

    // A process that takes the mutex, tells so, and gives it back or keeps it until it is killed.
    pid_t start_locker(bool keep) {
        pid_t child = fork();
        if (child != 0) return child;
        {
            SharedLocked locked{table().mutex};
            table().holder = getpid();
            while (keep) pause();
        }
        _exit(0);
    }

    qel::Mapping mapping_;
};

// A locker sleeps nowhere but in its wait for the mutex.
bool sleeps(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    return std::getline(stat, line) && line.find(") S ") != std::string::npos;
}

void kill_and_reap(pid_t process) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

}  // namespace

TEST_F(SharedLock, waiter_whose_wake_up_died_with_another_finds_the_mutex_free) {
    ASSERT_EQ(pthread_mutex_trylock(table().mutex.native()), 0);
    pid_t waiter = start_locker(false);
    ASSERT_TRUE(eventually([&] { return sleeps(waiter); }));
    // What remains of an unlock when the waiter that it woke is killed: a free mutex, and no wake-up to come.
    __atomic_store_n(&table().mutex.native()->__data.__lock, 0, __ATOMIC_RELEASE);
    EXPECT_TRUE(eventually([&] { return table().holder == waiter; }));
    kill_and_reap(waiter);
}

TEST_F(SharedLock, long_wait_is_told_once_with_its_dead_holder) {
    pid_t holder = start_locker(true);
    ASSERT_TRUE(eventually([&] { return table().holder == holder; }));
    kill_and_reap(holder);
    std::thread{[&] {
        SharedLocked locked{table().mutex};
        ADD_FAILURE() << "the dead have let go";
    }}.join();
    EXPECT_EQ(RecordedFailures::wait.seconds, 2u);
    EXPECT_EQ(RecordedFailures::wait.holder, static_cast<std::uint32_t>(holder));
    EXPECT_EQ(RecordedFailures::wait.holder_lives, 0u);
}

TEST_F(SharedLock, guard_lets_go_and_refuses_junk) {
    {
        SharedLocked locked{table().mutex};
        ASSERT_EQ(locked.error(), 0);
        locked.while_unlocked([&] {
            pid_t other = start_locker(false);
            EXPECT_EQ(waitpid(other, nullptr, 0), other);
            EXPECT_EQ(table().holder, other);
        });
        EXPECT_EQ(pthread_mutex_trylock(table().mutex.native()), EBUSY);
    }
    // All the kinds that the C library knows, of which some would end the process, and one that it doesn't.
    for (int kind : {1, 2, 16, 32, 64, 127}) {
        std::memset(static_cast<void*>(&table().mutex), 0, sizeof(SharedMutex));
        table().mutex.native()->__data.__kind = 128 | kind;
        RecordedFailures::lock_error = 0;
        SharedLocked locked{table().mutex};
        EXPECT_EQ(locked.error(), EINVAL) << kind;
        EXPECT_EQ(RecordedFailures::lock_error, EINVAL) << kind;
    }

    EXPECT_EQ(qel_init_shared_condvar(nullptr), EINVAL);
    EXPECT_EQ(qel_revive_and_monitor_mutex(table().mutex.native()), 0);
}
