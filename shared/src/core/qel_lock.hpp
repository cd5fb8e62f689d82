// Mutexes, their guards, and the words by which clang's -Wthread-safety checks them (for GCC they are empty).
//
// A lock or unlock that fails is reported through the guard's 'Failures' policy and the call goes on: a
// family names its policy once (using Locked = BasicLocked<...>), the layers below the trace use the silent
// one.
//
// Handlers may end their thread. A guard on such a stack is destroyed by the unwinding, so the mutex is let
// go; and a body run by while_unlocked() takes the mutex back on every way out, so that the guard's own
// unlock stays right.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define QEL_CAPABILITY(name) __attribute__((capability(name)))
#define QEL_SCOPED_CAPABILITY __attribute__((scoped_lockable))
#define QEL_GUARDED_BY(mutex) __attribute__((guarded_by(mutex)))
#define QEL_PT_GUARDED_BY(mutex) __attribute__((pt_guarded_by(mutex)))
#define QEL_REQUIRES(...) __attribute__((requires_capability(__VA_ARGS__)))
#define QEL_EXCLUDES(...) __attribute__((locks_excluded(__VA_ARGS__)))
#define QEL_ACQUIRE(...) __attribute__((acquire_capability(__VA_ARGS__)))
#define QEL_TRY_ACQUIRE(...) __attribute__((try_acquire_capability(__VA_ARGS__)))
#define QEL_RELEASE(...) __attribute__((release_capability(__VA_ARGS__)))
#define QEL_NO_THREAD_SAFETY_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define QEL_CAPABILITY(name)
#define QEL_SCOPED_CAPABILITY
#define QEL_GUARDED_BY(mutex)
#define QEL_PT_GUARDED_BY(mutex)
#define QEL_REQUIRES(...)
#define QEL_EXCLUDES(...)
#define QEL_ACQUIRE(...)
#define QEL_TRY_ACQUIRE(...)
#define QEL_RELEASE(...)
#define QEL_NO_THREAD_SAFETY_ANALYSIS
#endif

namespace qel {

// A process-private mutex. A static one is constinit; one in an allocated record is set up with init().
class QEL_CAPABILITY("mutex") Mutex {
  public:
    int init() { return pthread_mutex_init(&native_, nullptr); }
    int destroy() { return pthread_mutex_destroy(&native_); }
    int lock() QEL_ACQUIRE() { return pthread_mutex_lock(&native_); }
    int unlock() QEL_RELEASE() { return pthread_mutex_unlock(&native_); }
    pthread_mutex_t* native() { return &native_; }

  private:
    pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

// For the layers below the trace: a lock that fails has nowhere to be reported.
struct SilentLockFailures {
    static void lock_failed(int) {}
    static void unlock_failed(int) {}
};

// The guard of a mutex, private or, see shm/qel_shared_lock.hpp, shared. One that could not be taken is not
// given back: that would free another's lock.
template <class Failures, class Lockable = Mutex>
class QEL_SCOPED_CAPABILITY BasicLocked {
  public:
    explicit BasicLocked(Lockable& mutex) QEL_ACQUIRE(mutex) : mutex_(mutex) { lock(); }
    BasicLocked(const BasicLocked&) = delete;
    BasicLocked& operator=(const BasicLocked&) = delete;
    ~BasicLocked() QEL_RELEASE() { unlock(); }

    // For callers that must not go on without the mutex: 0, or why it isn't held.
    int error() const { return error_; }

    // Runs 'body' with the mutex free and takes it again, also when the body ends the thread. The state that
    // the mutex guards may have changed: test it again on the next line.
    template <class Body>
    decltype(auto) while_unlocked(Body&& body) QEL_NO_THREAD_SAFETY_ANALYSIS {
        struct Relock {
            BasicLocked& guard;
            ~Relock() { guard.lock(); }
        };
        unlock();
        Relock relock{*this};
        return body();
    }

  private:
    void lock() QEL_NO_THREAD_SAFETY_ANALYSIS {
        if constexpr (requires { &Failures::waited_long; })
            error_ = mutex_.lock(Failures::waited_long);
        else
            error_ = mutex_.lock();
        if (error_ != 0) Failures::lock_failed(error_);
    }
    void unlock() QEL_NO_THREAD_SAFETY_ANALYSIS {
        if (error_ != 0) return;
        if (int error = mutex_.unlock(); error != 0) Failures::unlock_failed(error);
    }

    Lockable& mutex_;
    int error_ = 0;
};

using Locked = BasicLocked<SilentLockFailures>;

}  // namespace qel
