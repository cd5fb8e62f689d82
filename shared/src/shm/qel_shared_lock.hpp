// Mutexes in shared memory, and the one guard by which every one of them is taken.
//
// The mutexes are plain process-shared ones, not robust: a process that dies holding one leaves it held. But
// a waiter may be stranded although the mutex is free: the wake-up goes to one waiter, and if that is killed
// before it takes the mutex, the others sleep on. So nobody sleeps without end: a lock is a try, and then
// waits of 50 ms growing to 1 s, each of which looks at the mutex afresh.
//
// A wait that has become long is handed to the guard's policy once, with what is known of the holder. The
// policy reports it, as the trace stands above this layer:
//
//     struct RingLockFailures : SilentSharedLockFailures {
//         static void waited_long(const LongWait& wait) {
//             report<"RING1", "ERROR: %s: waited %u s for a shared lock, held by %u, alive %u">(
//                 wait.seconds, wait.holder, wait.holder_lives);
//         }
//     };
//     using RingLocked = BasicSharedLocked<RingLockFailures>;
#pragma once

#include <qel/shm.h>

#include <cerrno>
#include <cstdint>
#include <type_traits>

#include "core/qel_lock.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel {

// 'holder' is the thread ID in the lock word, in the holder's PID namespace; 0 for nobody.
struct LongWait {
    std::uint32_t seconds;
    std::uint32_t holder;
    std::uint32_t holder_lives;
};
using LongWaitHandler = void (*)(const LongWait& wait);

// A pthread_mutex_t in a segment's record. Whoever makes the segment initialises it, once.
class QEL_CAPABILITY("mutex") SharedMutex {
  public:
    int init() { return qel_init_shared_mutex(native()); }
    // 0, or the errno of a mutex that can't be taken. Waits for a holder without end: nothing tells a dead
    // one from a slow one.
    int lock(LongWaitHandler waited_long) QEL_ACQUIRE();
    // The same for those who only look: ETIMEDOUT when it could not be had within 'milliseconds'.
    int lock_for(std::uint32_t milliseconds) QEL_TRY_ACQUIRE(0);
    // Who has it now, as far as the lock word tells.
    LongWait describe(std::uint32_t waited_seconds) const;
    // EINVAL, and it stays held, for one that was written over meanwhile: the C library would follow links.
    int unlock() QEL_RELEASE() {
        return shm_platform::is_plain(native_) ? pthread_mutex_unlock(native()) : EINVAL;
    }
    // By the holder: the unlock wakes a waiter, also one whose waker died between giving the mutex back and
    // waking.
    void expect_waiter() QEL_REQUIRES(this) { shm_platform::expect_waiter(native_); }
    // For a wait on a condition variable by the thread that holds the mutex.
    pthread_mutex_t* native() { return shm_platform::native(native_); }

  private:
    shm_platform::PlacedMutex native_;
};
static_assert(sizeof(SharedMutex) == sizeof(pthread_mutex_t) && std::is_standard_layout_v<SharedMutex>);

// For the layers below the trace: a failure has nowhere to be reported.
struct SilentSharedLockFailures : SilentLockFailures {
    static void waited_long(const LongWait&) {}
};

// The guard of those who only look, and go on without a mutex that its holder doesn't give: a dump of what
// the dead have left.
class BriefSharedLocked {
  public:
    BriefSharedLocked(SharedMutex& mutex, std::uint32_t milliseconds)
        : mutex_(mutex), error_(mutex.lock_for(milliseconds)) {}
    BriefSharedLocked(const BriefSharedLocked&) = delete;
    BriefSharedLocked& operator=(const BriefSharedLocked&) = delete;
    ~BriefSharedLocked() QEL_NO_THREAD_SAFETY_ANALYSIS {
        if (error_ == 0) static_cast<void>(mutex_.unlock());  // Fails for a mutex that isn't held only.
    }
    // 0, or why the mutex isn't held.
    int error() const { return error_; }

  private:
    SharedMutex& mutex_;
    int error_;
};

template <class Failures>
using BasicSharedLocked = BasicLocked<Failures, SharedMutex>;

}  // namespace qel
