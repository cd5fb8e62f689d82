/** @file
 * Threads: a thin layer over POSIX threads that adds a name, portable attributes and hooks.
 *
 *     pthread_t worker;
 *     qel_thread_attr attr;
 *     qel_thread_attr_init(&attr);
 *     qel_thread_attr_setstacksize(&attr, 50);
 *     int error = qel_thread_create(&worker, &attr, serve, context, "worker", 0);
 *     qel_thread_attr_destroy(&attr);
 *
 * A thread that the library starts carries a record with its name; a thread from elsewhere gets one by
 * qel_thread_adopt(). Names are kept by pointer and must outlive the thread.
 *
 * Threads: every call may be made from any thread. An attribute record belongs to one thread at a time. The
 * two hooks are set before threads are created. Results are plain errno numbers; a null pointer where one is
 * needed, and an attribute record that isn't initialised, give EINVAL everywhere.
 */
#ifndef QEL_THREAD_H
#define QEL_THREAD_H

#include <pthread.h>
#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

#define QEL_THREAD_JOINABLE 0u /**< detach state: pthread_join() takes the result */
#define QEL_THREAD_DETACHED 1u /**< detach state: the thread's resources go when it ends */

/** Scheduling mode: the system's own. */
#define QEL_THREAD_PREEMPTIVE 0
/** Scheduling mode of platforms with cooperative threads; not supported here. */
#define QEL_THREAD_NON_PREEMPTIVE (-1)

/** Attributes of a thread to be created. The record is the caller's; use the calls below to change it. */
typedef struct qel_thread_attr {
    uint32_t stack_percent;      /**< of the default stack size, 100 at first */
    uint32_t detach_state;       /**< QEL_THREAD_JOINABLE or QEL_THREAD_DETACHED */
    uint32_t priority;           /**< class 0 to 3 */
    uint64_t default_stack_size; /**< bytes: the system's default, or 128 KiB if it tells none */
    int32_t sched_mode;          /**< QEL_THREAD_PREEMPTIVE */
    pthread_attr_t* attr;        /**< the system's object, on the heap; null once destroyed */
} qel_thread_attr;

/** What a thread runs; its result is what pthread_join() gives. */
typedef void* (*qel_thread_entry)(void* arg);

/**
 * Replaces pthread_create() in qel_thread_create(). The hook must make a thread that calls
 * thread_start_kludge with 'record', store its ID at 'out' and return 0; or return an errno number and make
 * none. 'attr' may be null.
 */
typedef int (*qel_thread_create_fn)(pthread_t* out, const char* name, const qel_thread_attr* attr,
                                    void* record);

/** Called on a thread that ends itself by qel_thread_exit(), with its value, just before it ends. */
typedef void (*qel_thread_exit_fn)(void* value);

/** The start function of every thread, qel_thread_start(), for creation hooks. */
extern QEL_API void* (*thread_start_kludge)(void* record);

/**
 * Fills 'attr' with the defaults and allocates its heap part.
 *
 * Returns 0; EINVAL; ENOMEM; or what pthread_attr_init() gives. After a failure there is nothing to destroy.
 */
QEL_API int qel_thread_attr_init(qel_thread_attr* attr);

/** Frees the heap part. Threads made with the record aren't affected. Returns 0; EINVAL, also the second
 * time. */
QEL_API int qel_thread_attr_destroy(qel_thread_attr* attr);

/** Chooses QEL_THREAD_JOINABLE or QEL_THREAD_DETACHED. Returns 0; EINVAL for another state. */
QEL_API int qel_thread_attr_setdetachstate(qel_thread_attr* attr, uint32_t state);

/** Gives the detach state. Returns 0; EINVAL. */
QEL_API int qel_thread_attr_getdetachstate(const qel_thread_attr* attr, uint32_t* state);

/**
 * Sets the stack to 'percent' (1 to 499) of the default size, plus 1 KiB, rounded down to a multiple of 1
 * KiB.
 *
 * Returns 0; EINVAL for another percentage, or when the system finds the stack too small (below
 * PTHREAD_STACK_MIN of limits.h); the record is unchanged then.
 */
QEL_API int qel_thread_attr_setstacksize(qel_thread_attr* attr, uint32_t percent);

/** Gives the stack size in bytes. Returns 0; EINVAL. */
QEL_API int qel_thread_attr_getstacksize(const qel_thread_attr* attr, size_t* size);

/**
 * Chooses a priority class: 0 the creator's priority, 1 the least of the present scheduling policy, 2 the
 * middle of its range, 3 two below the greatest (the greatest, if the range is shorter).
 *
 * Classes 1 to 3 fix the present policy and priority in the record, so that a new thread doesn't inherit
 * them. An unknown class is stored, too.
 *
 * Returns 0; EINVAL for an unknown class; or what pthread_attr_setschedparam() gives.
 */
QEL_API int qel_thread_attr_setsched_priority(qel_thread_attr* attr, uint32_t priority);

/** Gives the priority class as it was last asked for. Returns 0; EINVAL. */
QEL_API int qel_thread_attr_getsched_priority(const qel_thread_attr* attr, uint32_t* priority);

/**
 * Stores QEL_THREAD_PREEMPTIVE or QEL_THREAD_NON_PREEMPTIVE.
 *
 * Returns 0; EOPNOTSUPP for QEL_THREAD_NON_PREEMPTIVE, which is stored but has no effect; EINVAL for another
 * mode.
 */
QEL_API int qel_thread_attr_setsched_mode(qel_thread_attr* attr, int32_t mode);

/** Gives the scheduling mode. Returns 0; EINVAL. */
QEL_API int qel_thread_attr_getsched_mode(const qel_thread_attr* attr, int32_t* mode);

/**
 * Starts a thread that runs entry(arg) under 'name'.
 *
 * 'attr' may be null for the defaults and may be destroyed after the call. A null 'name' becomes
 * "qel_thread"; another is kept by pointer and must outlive the thread. The kernel shows its first 15
 * characters. 'flags' is kept in the thread's record and has no meaning here.
 *
 * Returns 0 with the thread's ID at 'out'; EINVAL; ENOMEM; or the errno number of pthread_create() or of the
 * creation hook, and then no thread and no record are left.
 */
QEL_API int qel_thread_create(pthread_t* out, const qel_thread_attr* attr, qel_thread_entry entry, void* arg,
                              const char* name, uint32_t flags);

/**
 * Gives the calling thread a record with 'name' (kept by pointer; null becomes "qel_thread") and 'mode'. A
 * thread that has a record gets the new name and mode. The thread's name in the kernel stays.
 *
 * Returns 0; EOPNOTSUPP for QEL_THREAD_NON_PREEMPTIVE; ENOMEM; EFAULT when the system has no thread-local key
 * left.
 */
QEL_API int qel_thread_adopt(const char* name, int32_t mode);

/** Lets a thread's resources go when it ends. Returns what pthread_detach() gives. */
QEL_API int qel_thread_detach(pthread_t thread);

/**
 * Ends the calling thread with 'value': calls the exit hook, if any, then pthread_exit(). Doesn't return; the
 * stack is unwound, so that clean-up handlers and destructors on it run.
 */
QEL_API void qel_thread_exit(void* value);

/**
 * What a thread made by a creation hook must run, on the 'record' that the hook was given; reached through
 * thread_start_kludge. Names the thread in the kernel, takes the record over and returns what the entry
 * function returns. A thread that can't take the record ends by qel_thread_exit(NULL).
 */
QEL_API void* qel_thread_start(void* record);

/** Gives the calling thread's name, and "" for a thread that was neither started by the library nor adopted.
 */
QEL_API const char* qel_thread_get_name(void);

/** Gives the process number, getpid(). */
QEL_API uint32_t qel_thread_get_pid(void);

/**
 * Gives the user plus system time that was spent by this process (who 0, RUSAGE_SELF) or by its ended and
 * awaited children (who 0xffffffff, RUSAGE_CHILDREN; sys/resource.h).
 *
 * Returns 0; EINVAL for a null 'out'; EOPNOTSUPP for another 'who'; EAGAIN when the system gave a negative
 * time.
 */
QEL_API int qel_thread_get_cputime(uint32_t who, struct timespec* out);

/** Replaces the way threads are created; null restores pthread_create(). To be called before threads are
 * created. */
QEL_API void qel_thread_set_create_fn(qel_thread_create_fn function);

/** Sets what qel_thread_exit() calls first, or nothing for null. To be called before threads are created. */
QEL_API void qel_thread_set_exit_fn(qel_thread_exit_fn function);

/** pthread_cond_wait(). Returns what that gives; EINVAL for null. */
QEL_API int qel_thread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);

/** pthread_cond_timedwait() up to the absolute time 'deadline'. Returns what that gives; EINVAL for null. */
QEL_API int qel_thread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const struct timespec* deadline);

/** The library calls this before each wait that blocks. Does nothing where threads are preempted. */
QEL_API void qel_thread_before_deschedule(void);

/** The library calls this after each wait that blocked. Does nothing where threads are preempted. */
QEL_API void qel_thread_after_reschedule(void);

/** Offers the processor to another cooperative thread; does nothing here. */
QEL_API void qel_thread_yield(void);

/** Offers the processor if the thread's time is up; does nothing here. Returns 0. */
QEL_API int qel_thread_check_and_suspend(void);

/** Returns 1: the calling thread may give up the processor. */
QEL_API int qel_thread_may_yield(void);

/** Returns 0: the calling thread is preempted. */
QEL_API int qel_thread_is_non_preemptive(void);

QEL_END_DECLS

#endif
