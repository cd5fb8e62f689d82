/** @file
 * Asynchronous operations: the form in which every network service offers requests that take time.
 *
 * A request goes in with a record and gives a future back at once. The result comes later: as a callback on
 * the client's dispatcher, or for a client that sleeps in qel_async_wait(). Either way the client then takes
 * it with the service's own `*_get_result` call, once.
 *
 *     qel_async_req request;
 *     qel_async_future future;
 *     qel_async_req_init(&request);
 *     request.user_id = 7;                              // comes back in the future
 *     if (qel_if_cfg_async(..., &request, &future) != 0) return;      // any call that ends in _async
 *     qel_async_wait(&future);                          // or set request.callback, and don't wait
 *     qel_if_cfg_get_result(..., &future, ...);
 *
 * At most 512 operations are outstanding in a process, those of all services together.
 *
 * The calls qel_async_impl_*() are for services and shims: an operation's context lies behind an ID from a
 * pool, so a stale future, or a shim's late report, finds nothing instead of freed memory. A context lives as
 * long as its ID has a reference: the operation's own, until it is fetched or discarded, and one for each
 * thread that works on it.
 *
 * Threads: any thread may make any call, save those that wait: qel_async_wait(), qel_async_impl_drain_ops()
 * and qel_async_impl_fini() must not run on the thread that is to produce the result. Shims' synchronous
 * handlers run one after the other on a thread of the library, "QEL Sync QDM": one that blocks holds all of
 * them up, and the stop of the services too.
 *
 * Results are composite codes (qel/cerrno.h), 0 for success, unless told. */
#ifndef QEL_ASYNC_H
#define QEL_ASYNC_H

#include <pthread.h>

#include <qel/cerrno.h>
#include <qel/dm.h>

QEL_BEGIN_DECLS

/** What marks a record that its init call has filled; all services and shims use this one. */
#define QEL_ASYNC_MAGIC 0x8F3C8765u

/** The most operations of a process at a time. */
#define QEL_ASYNC_MAX_OPS 512u

/** What a client knows an operation by. Written by the call that starts it; the client's memory. */
typedef struct qel_async_future {
    uint32_t op_id;   /**< the operation, never 0 */
    uint32_t opcode;  /**< what it does, a number of the service */
    uint32_t user_id; /**< from the request */
    uintptr_t cookie; /**< from the request */
} qel_async_future;

/** Tells that the operation of 'future', which is valid during the call, has a result to be fetched. */
typedef void (*qel_async_callback)(const qel_async_future* future);

/** A request. Read only during the call that starts the operation. */
typedef struct qel_async_req {
    uint32_t magic;              /**< QEL_ASYNC_MAGIC after qel_async_req_init() */
    qel_async_callback callback; /**< how the result is told; null for a client that waits or polls */
    uint32_t user_id;            /**< the client's own word, handed back in the future */
    uintptr_t cookie;            /**< the client's own word, handed back in the future */
} qel_async_req;

/** Counts of qel_async_get_stats(). */
typedef struct qel_async_stats {
    uint32_t max_ops; /**< QEL_ASYNC_MAX_OPS */
    uint32_t in_use;  /**< operations outstanding now */
} qel_async_stats;

/** Zeroes 'request' and marks it. Returns 0; 0xa0000016 for null. */
QEL_API cerrno qel_async_req_init(qel_async_req* request);

/** Sleeps until the operation has a result, or its client was unbound. The result is still to be fetched.
 *
 * Returns 0; 0xa0000016 for null; 0xa0000002 if the operation is unknown, fetched or discarded; 0xa0000001
 * for one with a callback; 0xa0000023 in a synchronous handler, for one whose own handler would come next on
 * that thread. */
QEL_API cerrno qel_async_wait(const qel_async_future* future);

/** Fills '*stats'; before the start 'in_use' is 0. Returns 0; 0xa0000016 for null; the pool's error. */
QEL_API cerrno qel_async_get_stats(qel_async_stats* stats);

/** See there. */
typedef struct qel_async_ctx qel_async_ctx;

/** Does the work of a synchronous operation, with the argument of qel_async_impl_submit(). */
typedef void (*qel_async_handler)(qel_async_ctx* operation, void* argument);
/** Runs behind a ::qel_async_handler on the same operation. */
typedef void (*qel_async_postamble)(qel_async_ctx* operation);
/** Gives back what a service hung on an operation, when its context is freed. */
typedef void (*qel_async_destructor)(qel_async_ctx* operation, void* argument);
/** Returns not 0 for operations that qel_async_impl_walk_and_cleanup() is to end. */
typedef int (*qel_async_match)(const qel_async_ctx* operation, void* argument);

/** The context of an operation. 'lock' guards 'state', the status words and the counts of guards; what is
 * set before the operation is given to a shim is read without it. */
struct qel_async_ctx {
    uint32_t state;                /**< 0 while the result is outstanding, then 1 */
    uint8_t native_sync;           /**< 1 when a synchronous handler runs the operation */
    uint8_t ended;                 /**< 1 when somebody has taken on to drop the operation's own reference */
    uint8_t begun;                 /**< 1 when it is complete and goes to a shim, which may answer */
    uint8_t start;                 /**< the library's own: which start of the frame it belongs to */
    uint32_t op_id;                /**< as in the future */
    uint32_t opcode;               /**< as in the future */
    qel_async_callback callback;   /**< from the request */
    uint32_t user_id;              /**< from the request */
    uint32_t serial;               /**< the library's own: another one for each operation of an ID */
    uintptr_t cookie;              /**< from the request */
    qel_async_postamble postamble; /**< of qel_async_impl_submit(), or null */
    qel_async_handler handler;     /**< of qel_async_impl_submit() */
    qel_async_destructor destructor; /**< the service's, or null */
    pthread_mutex_t lock;            /**< see above */
    pthread_cond_t cond;             /**< what qel_async_wait() sleeps on */
    qel_dm_handle client_qdm;        /**< where the callback runs; 0 for the thread that reports */
    uint32_t client_handle;          /**< the client */
    uint32_t sub_handle;             /**< the service's second handle, 0 where there is none */
    uint32_t client_guards;          /**< references to the client that a shim holds through the operation */
    uint32_t sub_guards;             /**< the same for 'sub_handle' */
    cerrno op_status;                /**< what the shim said */
    cerrno internal_status;          /**< what went wrong around it; 0 if the shim could do its work */
    const void* shim;                /**< the record of the shim that serves the operation */
    uint64_t service[7];             /**< arguments and results, laid out by each service */
    void* destructor_arg;            /**< the second argument of 'destructor' */
};

/** Starts the frame; qel_netinfra_init() does. 'reserved' is not used. Returns 0, also when it runs; the
 * error of a dispatcher, with the bits of 0xa0000000, or of the ID pool. */
QEL_API cerrno qel_async_impl_init(uint32_t reserved);

/** The dispatcher "QEL Async QDM", on which shims may run their own work; 0 while the frame is stopped. */
QEL_API qel_dm_handle qel_async_impl_get_qdm(void);

/** Makes the operation 'opcode' of 'request', and fills 'future'. The caller completes the context and gives
 * it to a shim, or ends it with qel_async_impl_discard_ctx().
 *
 * Returns 0; 0xa0000016 for null; 0xa000000c; the pool's code when 512 operations are outstanding or the
 * frame is stopped. */
QEL_API cerrno qel_async_impl_create_ctx(uint32_t opcode, const qel_async_req* request,
                                         qel_async_future* future, qel_async_ctx** out);

/** Queues handler(operation, argument), and then 'postamble' if it isn't null, for "QEL Sync QDM". Neither
 * runs when the operation is gone by then. Returns 0; the dispatcher's error with the bits of 0xa0000000. */
QEL_API cerrno qel_async_impl_submit(qel_async_ctx* operation, qel_async_postamble postamble,
                                     qel_async_handler handler, void* argument);

/** Gives the operation with a reference for the thread that will work on it, to be given back with
 * qel_async_impl_op_yield(). Returns 0; 0xa0000002 for a stale ID; 0xa0000016 for null. */
QEL_API cerrno qel_async_impl_op_guard(uint32_t op_id, qel_async_ctx** out);
/** Gives the reference of qel_async_impl_op_guard() back, which may free the operation. Returns 0; the ID
 * manager's error. */
QEL_API cerrno qel_async_impl_op_yield(qel_async_ctx* operation);

/** Locks the operation. Returns an errno, 0 for success. */
QEL_API int qel_async_impl_lock_op(qel_async_ctx* operation);
/** Unlocks the operation. Returns an errno, 0 for success. */
QEL_API int qel_async_impl_unlock_op(qel_async_ctx* operation);
/** Wakes the waiter of an operation, which is locked. */
QEL_API void qel_async_impl_signal_op(qel_async_ctx* operation);

/** Gives the operation with a reference, locked. Returns 0; 0xa0000002 for one that is stale or fetched;
 * 0xa0000016 for null. */
QEL_API cerrno qel_async_impl_retain_and_lock_ctx(uint32_t op_id, qel_async_ctx** out);
/** Undoes qel_async_impl_retain_and_lock_ctx(). Returns 0; the ID manager's error. */
QEL_API cerrno qel_async_impl_release_and_unlock_ctx(qel_async_ctx* operation);

/** Ends an operation that the caller has retained and locked, which is unlocked and released: nobody finds
 * it any more, and it is freed when the last thread has left it. */
QEL_API void qel_async_impl_withdrawn_ctx(qel_async_ctx* operation);
/** Ends an operation that nobody will ask about; it must not be locked. Its own reference goes, so the
 * caller must hold another, or be the one that made it and not have given it to a shim. Returns 0; 0xa0000010
 * if it has been ended before. */
QEL_API cerrno qel_async_impl_discard_ctx(qel_async_ctx* operation);

/** Ends each operation for which 'match' returns not 0: wakes its waiter, who still fetches it, or discards
 * it if it has a callback. */
QEL_API void qel_async_impl_walk_and_cleanup(qel_async_match match, void* argument);

/** Waits until no operation is outstanding, 4 s at most, and traces those that remain. */
QEL_API void qel_async_impl_drain_ops(void);

/** Stops the frame; qel_netinfra_fini() does. Operations that are outstanding end, and their waiters wake. In
 * a synchronous handler, which it would wait for, it does nothing and reports that. */
QEL_API void qel_async_impl_fini(void);

QEL_END_DECLS

#endif
