/** @file
 * Watched objects: state that tells a dispatcher when it turns interesting.
 *
 * A watched boolean signals when it goes from false to true, a watched queue when items arrive and the
 * consumer has seen it empty. The signal is a job on the dispatcher that watches: it calls a handler, or
 * leaves an event for explicit dispatch.
 *
 *     struct packet { void* link; ... };                  // an item begins with its link, 0 when off
 *
 *     static void drain(qel_dm_watched_queue queue, void* context) {
 *         void* item;
 *         while (qel_dm_watched_queue_dequeue(queue, &item) == 0) consume(item);
 *     }
 *
 *     qel_dm_watched_queue_attr attr = {.locked = 1};
 *     qel_dm_watched_queue_create("packets", 0, &attr, &queue);
 *     qel_dm_watched_queue_register(dm, queue, drain, NULL);
 *     qel_dm_watched_queue_enqueue(queue, &packet);       // any thread
 *
 * One dispatcher watches an object at a time. A job that is still queued when its registration ends does
 * nothing, and one whose object has been destroyed touches nothing. Handlers run on the dispatcher's threads,
 * with no lock held, and may make any call on their object, its destruction included; one that runs while its
 * registration ends finishes.
 *
 * Threads: a boolean's _set(), _get(), _get_id() and _set_id() may be called from any thread; its creation,
 * registrations and destruction are serialised against its use by the application. A queue with 'locked' may
 * be used from any thread; without, the application sees to it that one thread at a time uses it, and the
 * dispatcher's job is one of those users.
 *
 * Results are plain errno numbers. EINVAL stands for a null argument, for an object that was destroyed, for a
 * handle that is stale or foreign, and for a dispatcher that doesn't exist or is being destroyed; the single
 * calls repeat it only where they add to that.
 */
#ifndef QEL_DM_WATCHED_H
#define QEL_DM_WATCHED_H

#include <qel/dm.h>

QEL_BEGIN_DECLS

/** A watched boolean; null is none. */
typedef struct qel_dm_watched_boolean_record* qel_dm_watched_boolean;

/** The boolean became true. */
typedef void (*qel_dm_watched_boolean_handler)(qel_dm_watched_boolean boolean, void* context);

/**
 * Makes a boolean, false, that no dispatcher watches.
 *
 * 'name' may be null; it is kept by pointer and must outlive the boolean. 'event_id' is the ID that explicit
 * dispatch gives. Returns 0 with '*out' set; EINVAL; ENOMEM, also when 2^20 booleans exist.
 */
QEL_API int qel_dm_watched_boolean_create(const char* name, uint32_t event_id, qel_dm_watched_boolean* out);

/** Ends a boolean and its registration, and clears the caller's variable. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_boolean_destroy(qel_dm_watched_boolean* boolean);

/**
 * Stores 'value' (0 is false). If that makes the boolean true, the dispatcher that watches it is signalled.
 *
 * Returns 0; EINVAL, also when the signal could not be queued. The value is stored all the same; the signal
 * stays due, and the next call with a true value tries again.
 */
QEL_API int qel_dm_watched_boolean_set(qel_dm_watched_boolean boolean, uint8_t value);

/** Gives the value as it was stored, unless 'out' is null. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_boolean_get(qel_dm_watched_boolean boolean, uint8_t* out);

/**
 * Lets 'dm' watch the boolean: each time that it becomes true 'handler' is called on a thread of 'dm'. If it
 * is true already, that is the first time.
 *
 * Returns 0; EBUSY if 'dm' watches it already; EINVAL, also if another dispatcher does, or if the first
 * signal could not be queued. After a failure nothing has changed.
 */
QEL_API int qel_dm_watched_boolean_register(qel_dm_handle dm, qel_dm_watched_boolean boolean,
                                            qel_dm_watched_boolean_handler handler, void* context);

/** The same for explicit dispatch: the event is QEL_DM_XD_WATCHED_BOOLEAN, its ID the boolean's. */
QEL_API int qel_dm_watched_boolean_xd_register(qel_dm_handle dm, qel_dm_watched_boolean boolean);

/** As qel_dm_watched_boolean_register(), but the registration ends when the first call of 'handler' does. */
QEL_API int qel_dm_watched_boolean_register_oneshot(qel_dm_handle dm, qel_dm_watched_boolean boolean,
                                                    qel_dm_watched_boolean_handler handler, void* context);

/** As qel_dm_watched_boolean_xd_register(), for one event. */
QEL_API int qel_dm_watched_boolean_xd_register_oneshot(qel_dm_handle dm, qel_dm_watched_boolean boolean);

/** Ends the registration. 'dm' may be gone. Returns 0; EINVAL, also if 'dm' isn't the one that watches. */
QEL_API int qel_dm_watched_boolean_deregister(qel_dm_handle dm, qel_dm_watched_boolean boolean);

/** Returns the name as its creator gave it; null for a null or destroyed boolean. */
QEL_API const char* qel_dm_watched_boolean_get_name(qel_dm_watched_boolean boolean);

/** Gives the event ID. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_boolean_get_id(qel_dm_watched_boolean boolean, uint32_t* out);

/** Changes the event ID, also for signals that are queued. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_boolean_set_id(qel_dm_watched_boolean boolean, uint32_t event_id);

/**
 * A watched queue; 0 is none.
 *
 * Its items are those of a qel_queue (qel/queue.h): structures of the application whose first word is the
 * link, 0 while the item is off every queue. The queue neither copies nor frees them.
 */
typedef uint32_t qel_dm_watched_queue;

/** Items wait. The handler dequeues until there are none: only then will the next item signal again. */
typedef void (*qel_dm_watched_queue_handler)(qel_dm_watched_queue queue, void* context);

/** How a queue is made; all zeros are the defaults. */
typedef struct qel_dm_watched_queue_attr {
    uint32_t max_size; /**< items; 0: no limit */
    uint8_t locked;    /**< 1: the queue has a mutex of its own and may be used from any thread */
} qel_dm_watched_queue_attr;

/** Sets the defaults. Returns 0, or EINVAL for null. */
QEL_API int qel_dm_watched_queue_attr_init(qel_dm_watched_queue_attr* attr);

/**
 * Makes an empty queue that no dispatcher watches.
 *
 * 'name' may be null; it is kept by pointer and must outlive the queue. 'event_id' is the ID that explicit
 * dispatch gives. 'attr' is read during the call; null stands for the defaults. The parameter
 * "qel.qdm.wq.max.instances" (64), read at the first call, bounds the number of queues.
 *
 * Returns 0 with '*out' set; EINVAL; ENOMEM for want of memory or of a free handle; or an error of
 * pthread_mutex_init().
 */
QEL_API int qel_dm_watched_queue_create(const char* name, uint32_t event_id,
                                        const qel_dm_watched_queue_attr* attr, qel_dm_watched_queue* out);

/**
 * Ends a queue and its registration, and clears the caller's variable.
 *
 * If the consumer still owes its items a visit, that is if there are some and a signal for them was given,
 * the queue lives on for it: a signal that is queued is delivered, and qel_dm_watched_queue_dequeue() and the
 * calls that read work until the last item is out. Otherwise the handle is stale at once. The items are the
 * application's in any case.
 *
 * Returns 0; EINVAL, also when another thread is destroying it, or its mutex can't be taken.
 */
QEL_API int qel_dm_watched_queue_destroy(qel_dm_watched_queue* queue);

/**
 * Lets 'dm' watch the queue: 'handler' is called on a thread of 'dm' when an item arrives and the consumer
 * has seen the queue empty. If items wait already, that is signalled at once.
 *
 * Returns 0; EBUSY if 'dm' watches it already; EINVAL, also if another dispatcher does; or the error of
 * qel_dm_execute() for the first signal. After a failure nothing has changed.
 */
QEL_API int qel_dm_watched_queue_register(qel_dm_handle dm, qel_dm_watched_queue queue,
                                          qel_dm_watched_queue_handler handler, void* context);

/** The same for explicit dispatch: the event is QEL_DM_XD_WATCHED_QUEUE, its ID the queue's at the signal. */
QEL_API int qel_dm_watched_queue_xd_register(qel_dm_handle dm, qel_dm_watched_queue queue);

/** Ends the registration. 'dm' may be gone. Returns 0; EINVAL, also if 'dm' isn't the one that watches. */
QEL_API int qel_dm_watched_queue_deregister(qel_dm_handle dm, qel_dm_watched_queue queue);

/**
 * Appends 'item', and signals if the consumer has seen the queue empty since the last signal.
 *
 * Returns 0; EINVAL, also for a full queue and for an item that is on a queue; or the error of
 * qel_dm_execute(), and then the item is off the queue again.
 */
QEL_API int qel_dm_watched_queue_enqueue(qel_dm_watched_queue queue, void* item);

/**
 * Takes the first item, with its link cleared.
 *
 * Returns 0 with '*out' set; EAGAIN if there is none, and from then on the next item signals; EINVAL, which
 * is also what a consumer gets after the last item of a destroyed queue.
 */
QEL_API int qel_dm_watched_queue_dequeue(qel_dm_watched_queue queue, void** out);

/** Gives the first item and leaves it there. Returns 0 with '*out' set; EAGAIN if there is none; EINVAL. */
QEL_API int qel_dm_watched_queue_peek_head(qel_dm_watched_queue queue, void** out);

/** Returns the number of items; 0 for a bad handle. */
QEL_API uint32_t qel_dm_watched_queue_get_size(qel_dm_watched_queue queue);

/** Gives the event ID. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_queue_get_id(qel_dm_watched_queue queue, uint32_t* out);

/** Changes the event ID for signals to come. Returns 0, or EINVAL. */
QEL_API int qel_dm_watched_queue_set_id(qel_dm_watched_queue queue, uint32_t event_id);

/** Returns the name as its creator gave it; null for a bad handle. */
QEL_API const char* qel_dm_watched_queue_get_name(qel_dm_watched_queue queue);

/**
 * Returns 1 if there are no items, and from then on the next one signals; else 0, and the next one doesn't. 1
 * for a bad handle. It is the consumer's call: it may stop here instead of at EAGAIN.
 */
QEL_API int qel_dm_watched_queue_empty(qel_dm_watched_queue queue);

/** Returns 1 if the queue has a limit and has reached it, else 0; 0 for a bad handle. */
QEL_API int qel_dm_watched_queue_full(qel_dm_watched_queue queue);

QEL_END_DECLS

#endif
