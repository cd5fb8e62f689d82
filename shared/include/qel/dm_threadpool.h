/** @file
 * Thread pools: threads that serve a dispatcher on their own, and keep their number right.
 *
 *     qel_dm_handle dm;
 *     qel_dm_create(&dm, "main loop", 0);
 *     qel_dm_threadpool_create(dm, 0, NULL, NULL);
 *     ...
 *     qel_dm_destroy(&dm);
 *
 * Each thread of a pool repeats wait and dispatch (qel/dm.h). One that leaves the wait with an event, and
 * finds fewer than 'min_wait' threads still waiting, starts another before it runs the event; one that comes
 * back from a handler and finds 'max_wait' threads waiting ends. So a slow handler doesn't hold up the
 * others, until 'max_threads' handlers run at the same time.
 *
 * A dispatcher has one pool at most. It is there until qel_dm_destroy(), which waits for its threads, and so
 * for the handlers that they run; a handler on a pool thread may call it as well and doesn't wait for itself.
 *
 * A handler may end its thread. The pool does without it and starts another if too few are left waiting. A
 * wait handler that fails or ends its thread is not replaced before another thread leaves the wait.
 *
 * Parameters (qel/ppm.h), read whenever a pool is made:
 *
 *     qel.dm.threads.min_wait      2     the limits that an attribute of 0 stands for
 *     qel.dm.threads.max_wait      4
 *     qel.dm.threads.max           10
 *     qel.dm.threads.enforce.max   0     if not 0, no limit of a pool is above it
 *
 * Threads: both calls may be made from any thread, also from inside a handler.
 */
#ifndef QEL_DM_THREADPOOL_H
#define QEL_DM_THREADPOOL_H

#include <qel/dm.h>
#include <qel/thread.h>

QEL_BEGIN_DECLS

/** Flag of qel_dm_threadpool_create(): the calling thread joins the pool. */
#define QEL_DM_THREADPOOL_JOIN 0x1u

/** What a pool is made with. A limit of 0 stands for its parameter; the greatest is 32,767. */
typedef struct qel_dm_threadpool_attr {
    uint16_t min_wait;    /**< least number of waiting threads */
    uint16_t max_wait;    /**< greatest number of waiting threads; raised to 'min_wait' */
    uint16_t max_threads; /**< greatest number of threads; raised to 'max_wait' */
    /** The wait step: 0, and the thread goes on to the dispatch step; anything else ends it. Null stands for
     * qel_dm_wait(), which a handler of your own must reach for the pool to end with its dispatcher. */
    int (*wait_handler)(qel_dm_handle dm);
    /** The dispatch step; its result is not looked at. Null stands for qel_dm_dispatch(). */
    int (*dispatch_handler)(qel_dm_handle dm);
} qel_dm_threadpool_attr;

/**
 * Fills the three limits from the parameters and clears the handlers.
 *
 * Returns 0, or EINVAL for null.
 */
QEL_API int qel_dm_threadpool_attr_init(qel_dm_threadpool_attr* attr);

/**
 * Makes the dispatcher's pool and starts its first threads: 'min_wait' of them, and one more if 'max_wait' is
 * greater.
 *
 * With QEL_DM_THREADPOOL_JOIN in 'flags' the calling thread is one of them. On success the call then doesn't
 * return: the thread is detached, so nobody can join it any more, serves, and ends with the pool by
 * qel_thread_exit().
 *
 * A null 'attr' stands for one of zeros. 'thread_attr', or null, applies to all threads that the pool starts,
 * now and later, save that they are always detached and a stack of the caller's is not shared among them. It
 * is copied. Threads carry the dispatcher's name, by pointer, until they have ended; that may be shortly
 * after qel_dm_destroy() returned. A creation hook (qel_thread_set_create_fn()) is called for the first
 * threads with the dispatcher locked, so it must not use that.
 *
 * Returns 0; EINVAL, also for 'thread_attr' that isn't initialised; EBUSY if there is a pool already; ENOMEM;
 * EAGAIN if a thread could not be started. After a failure no thread is left and a pool may be made again.
 */
QEL_API int qel_dm_threadpool_create(qel_dm_handle dm, uint32_t flags, const qel_dm_threadpool_attr* attr,
                                     const qel_thread_attr* thread_attr);

QEL_END_DECLS

#endif
