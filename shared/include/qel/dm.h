/** @file
 * The dispatch manager: the event loop of a process.
 *
 * A dispatcher picks events and runs their handlers on threads that the application lends it. Events are
 * jobs queued from any thread, descriptors that became ready, timers that ran out, and messages. Each thread
 * repeats two steps: wait, which blocks until the thread owns exactly one event, and dispatch, which runs
 * that event's handler with no lock held. With several threads handlers run side by side; with one they run
 * one after the other, and jobs in the order in which they were queued.
 *
 *     static void hello(qel_dm_handle dm, uint64_t data, uint64_t modifier) { puts("hello"); }
 *
 *     qel_dm_handle dm;
 *     if (qel_dm_create(&dm, "main loop", 0) != 0) return 1;
 *     qel_dm_execute(dm, hello, 0, 0);
 *     while (qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
 *
 * Threads: every call may be made from any thread and from inside any handler, unless it says otherwise. A
 * thread waits and dispatches on one dispatcher at a time. A handler may end its thread. A child of fork()
 * shares the kernel's side of its parent's dispatchers and must neither use nor destroy them.
 *
 * Results are plain errno numbers. EINVAL stands for a null argument, for a handle that is stale or foreign,
 * and for a dispatcher whose destruction has begun; the single calls repeat it only where they add to that.
 */
#ifndef QEL_DM_H
#define QEL_DM_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/** A dispatcher; 0 is none. */
typedef uint64_t qel_dm_handle;

/** Creation flag: never the default dispatcher. */
#define QEL_DM_PRIVATE 0x1u

/** A job. 'data' and 'modifier' come from qel_dm_execute() untouched. */
typedef void (*qel_dm_job)(qel_dm_handle dm, uint64_t data, uint64_t modifier);

/**
 * Makes a dispatcher. It starts no thread.
 *
 * 'name' is kept by pointer and must outlive the dispatcher; null stands for "PRIVATE QDM" or "PUBLIC QDM".
 * The parameter "qel.qdm.max.instances" (32), read at the first call, bounds their number.
 *
 * Returns 0; EINVAL; ENOMEM for want of memory or of a free handle; EMFILE, ENFILE or another error of
 * epoll_create(), pipe() or the thread library. '*out' is 0 after a failure.
 */
QEL_API int qel_dm_create(qel_dm_handle* out, const char* name, uint32_t flags);

/** The same on top of an event manager of the platform, which Linux has not: EOPNOTSUPP unless it is null. */
QEL_API int qel_dm_create_from_native_dm(qel_dm_handle* out, const char* name, uint32_t flags, void* native);

/**
 * Ends a dispatcher, and clears the caller's variable.
 *
 * From now on its calls give EINVAL. Threads in qel_dm_wait() come out of it, and this call returns when the
 * last one has; handlers that run finish on their own and may even be the caller. Handlers on threads of a
 * pool (qel/dm_threadpool.h) are waited for, all but the caller. Jobs and messages that are still queued are
 * dropped, the application's descriptors stay open. It waits for a running qel_dm_message_deregister() too,
 * so a clean-up handler must not call it for its own dispatcher.
 *
 * Returns 0, or EINVAL, also when another thread is destroying it already.
 */
QEL_API int qel_dm_destroy(qel_dm_handle* dm);

/**
 * Blocks until the calling thread owns an event; the thread's next qel_dm_dispatch() runs it. An event that
 * the thread still had in hand, and one whose thread ends, goes back to be picked again.
 *
 * Returns 0; EINVAL, also when the dispatcher is destroyed meanwhile; ENOMEM at a thread's first wait; an
 * error of epoll_wait().
 */
QEL_API int qel_dm_wait(qel_dm_handle dm);

/**
 * Runs the handler of the event that the calling thread's last qel_dm_wait() picked. One call may run many
 * jobs.
 *
 * Returns 0; EINVAL; ENOENT if the thread's last wait was on another dispatcher, or it never waited;
 * EOPNOTSUPP if the handler called qel_dm_xd_set(): such events are for qel_dm_xdispatch().
 */
QEL_API int qel_dm_dispatch(qel_dm_handle dm);

/**
 * Explicit dispatch: like qel_dm_dispatch(), but picks an event itself, without blocking, if the thread has
 * none in hand, and passes on what the handler set with qel_dm_xd_set().
 *
 * Returns 0 with the outputs set, each of which may be null; EAGAIN if there is nothing for the caller,
 * though a handler may have run; EINVAL; ENOENT as qel_dm_dispatch(); an error of epoll_wait().
 */
QEL_API int qel_dm_xdispatch(qel_dm_handle dm, uint32_t* event, uint32_t* event_id);

/* The library's own events of explicit dispatch. Applications take numbers of their own above these. */
#define QEL_DM_XD_MESSAGE 1u         /**< messages wait; the ID is the oldest one's type */
#define QEL_DM_XD_WATCHED_BOOLEAN 2u /**< a watched boolean became true; its ID */
#define QEL_DM_XD_WATCHED_QUEUE 3u   /**< a watched queue has items; its ID */
#define QEL_DM_XD_TIMER_TREE 4u      /**< a leaf of a managed timer tree has expired; the tree's ID */

/** From a handler: leaves an event (not 0) and its ID for the explicit dispatch that runs it. */
QEL_API void qel_dm_xd_set(uint32_t event, uint32_t event_id);

/**
 * Queues 'job' to run once.
 *
 * Jobs start in the order queued; several threads may run several at a time.
 *
 * Returns 0; EINVAL; ENOMEM; or the errno of a wake-up that failed, and then the job is not queued.
 */
QEL_API int qel_dm_execute(qel_dm_handle dm, qel_dm_job job, uint64_t data, uint64_t modifier);

/** The default dispatcher, the oldest one that isn't private, or 0. */
QEL_API qel_dm_handle qel_dm_get_handle(void);

/** 'dm' itself if it is a dispatcher, else 0. */
QEL_API qel_dm_handle qel_dm_is_handle(qel_dm_handle dm);

/** The dispatcher's name, or "Invalid QDM". The string is the creator's. */
QEL_API const char* qel_dm_get_name(qel_dm_handle dm);

/** The event manager of the platform behind a dispatcher: null on Linux. */
QEL_API void* qel_dm_get_native_evm(qel_dm_handle dm);

/** Turns the output of qdm_debug_print_() on or off, for the whole process. */
QEL_API void qdm_debug_enable(int on);

/** printf(), while debug output is on. */
QEL_API void qdm_debug_print_(const char* format, ...) QEL_PRINTF(1, 2);

/*
 * Event sources. In all calls from here on the handle 0 stands for the default dispatcher.
 */

#define QEL_DM_READABLE 0x1u /**< EPOLLIN */
#define QEL_DM_WRITABLE 0x2u /**< EPOLLOUT */
#define QEL_DM_HANGUP 0x4u   /**< EPOLLHUP: told without being asked for, and not to be asked for alone */
#define QEL_DM_URGENT 0x8u   /**< EPOLLPRI */

/** A descriptor's event; 'conditions' says what it is ready for. */
typedef void (*qel_dm_fd_handler)(qel_dm_handle dm, uint32_t fd, uint32_t conditions, void* context);
/** The same for qel_dm_io_register(), with a descriptor of 16 bits. */
typedef void (*qel_dm_io_handler)(qel_dm_handle dm, uint16_t fd, uint32_t conditions, void* context);

/**
 * Asks for one event of a descriptor. Registering it again changes conditions, handler and context, and asks
 * for one event more: a handler that wants further events registers its descriptor again.
 *
 * With conditions 0 or a null handler the registration is removed; an event of it that a thread has picked
 * but not dispatched is dropped. The descriptor stays the caller's; remove it before closing it.
 *
 * Returns 0; EINVAL, also for an 'fd' over 65,535, for conditions over 15, for the removal of what isn't
 * registered, and for the dispatcher's own descriptors; ENOMEM; EBADF, EPERM or another error of epoll_ctl().
 */
QEL_API int qel_dm_fd_register(qel_dm_handle dm, uint32_t fd, uint32_t conditions, qel_dm_fd_handler handler,
                               void* context);

/** The same for a handler that takes 16 bits of descriptor. A descriptor has one handler, of either kind. */
QEL_API int qel_dm_io_register(qel_dm_handle dm, uint16_t fd, uint32_t conditions, qel_dm_io_handler handler,
                               void* context);

/** A timer; it belongs to one dispatcher and is freed with it. */
typedef struct qel_dm_timer_record* qel_dm_timer;

/** A timer that ran out. It is stopped; the handler may start it again, or free it. */
typedef void (*qel_dm_timer_handler)(qel_dm_handle dm, qel_dm_timer timer, void* context);

/**
 * With a handler: makes a stopped timer and stores it in '*timer'. With a null handler: stops and frees the
 * timer in '*timer' and clears the variable; its handler may still be running on another thread.
 *
 * Returns 0; EINVAL, also for a timer of another dispatcher; ENOMEM.
 */
QEL_API int qel_dm_timer_register(qel_dm_handle dm, qel_dm_timer* timer, qel_dm_timer_handler handler,
                                  void* context);

/**
 * Starts a timer to run out once, 'delay' from now (at once, if that is negative), or starts it afresh if it
 * runs; a null delay stops it. It fires up to 200 microseconds early. Timers fire in the order of their
 * times, and of their starts where those are equal.
 *
 * Returns 0, or EINVAL, also for a timer of another dispatcher.
 */
QEL_API int qel_dm_timer_settime(qel_dm_handle dm, qel_dm_timer timer, const struct timespec* delay);

/** The time until a timer runs out: 0 with '*left' set, 1 if it isn't running, or EINVAL. */
QEL_API int qel_dm_timer_gettime(qel_dm_handle dm, qel_dm_timer timer, struct timespec* left);

/**
 * Messages wait. The handler is called once when a message comes to an empty queue, so it has to receive
 * until there is nothing left; 'reserved' is 0.
 */
typedef void (*qel_dm_message_handler)(qel_dm_handle dm, void* context, uint64_t reserved);

/** Disposes of a message that nobody received. */
typedef void (*qel_dm_message_cleanup)(qel_dm_handle dm, uint32_t type, uint32_t arg, void* message);

/** Opens the dispatcher's message queue. Returns 0; EINVAL; EBUSY if it is open. */
QEL_API int qel_dm_message_register(qel_dm_handle dm, qel_dm_message_handler handler, void* context);

/**
 * Opens the queue for explicit dispatch: qel_dm_xdispatch() then gives the event 1 with the type of the
 * oldest message as ID. Returns 0; EINVAL; EBUSY if it is open.
 */
QEL_API int qel_dm_message_xd_register(qel_dm_handle dm);

/**
 * Closes the queue, and gives each message left in it to 'cleanup', on this thread, unless that is null.
 * Returns 0, or EINVAL, also if the queue isn't open.
 */
QEL_API int qel_dm_message_deregister(qel_dm_handle dm, qel_dm_message_cleanup cleanup);

/**
 * Sends a message. 'message' is handed through; what it points at passes to the receiver.
 * Returns 0; EINVAL, also if the queue isn't open; ENOMEM, or the errno of a wake-up that failed, and then
 * the message is not sent.
 */
QEL_API int qel_dm_message_send(qel_dm_handle dm, uint32_t type, uint32_t arg, void* message);

/** Takes the oldest message; each output may be null. Returns 0; EAGAIN if there is none; EINVAL. */
QEL_API int qel_dm_message_receive(qel_dm_handle dm, uint32_t* type, uint32_t* arg, void** message);

/** Events of this kind don't exist on Linux. Returns EOPNOTSUPP. */
QEL_API int qel_dm_disconnect_register(qel_dm_handle dm, void* handler, void* context);
/** Events of this kind don't exist on Linux. Returns EOPNOTSUPP. */
QEL_API int qel_dm_disconnect_deregister(qel_dm_handle dm, void* handler, void* context);

QEL_END_DECLS

#endif
