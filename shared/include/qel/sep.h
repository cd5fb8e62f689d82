/** @file
 * Signal end points: doorbells in shared memory, with bits that say why they ring.
 *
 * A signal end point is a record in a shared segment, with one owner. Any process that has the segment mapped
 * sets bits in it; the first bit wakes the owner's thread, which queues the owner's handler on a dispatcher,
 * and the handler takes all bits at once. Bits are set, not counted: ten signals may come as one wake-up, so
 * a handler drains what the bits stand for.
 *
 *     qel_sep_record* record = ...;                  // in a shared segment
 *     qel_sep_shm_init_once(record);                 // by the process that makes the segment
 *
 *     static qel_sep sep;                            // the owner
 *     static qel_sep_record* own;
 *     qel_sep_init_once(&sep);
 *     qel_sep_init(1, &sep, &own, record, dm, handler, 7);
 *     ...
 *     void handler(qel_dm_handle dm, uint64_t number, uint64_t modifier) {
 *         uint32_t bits = qel_sep_get_signals(own);  // may be 0
 *         if (bits & QEL_SEP_INPUT) drain(number);   // number is 7
 *     }
 *
 *     static qel_sep_record* peer;                   // a sender
 *     if (qel_sep_open(&my_sep, &peer, record) == 0) qel_sep_signal(&peer, QEL_SEP_INPUT);
 *
 * A signal may be lost on purpose: to an owner that isn't running, and when an owner restarts. Whoever builds
 * on this looks at its own data when it starts. Bits of a dead owner stay set, and its senders go on without
 * error.
 *
 * Threads: qel_sep_signal() and qel_sep_get_signals() may be called from any thread of any process. The other
 * calls on one local part, or on one place, are made by one thread at a time. A process that dies inside a
 * record's mutex leaves it held. Results are plain errno numbers where the call gives int.
 */
#ifndef QEL_SEP_H
#define QEL_SEP_H

#include <pthread.h>

#include <qel/dm.h>

QEL_BEGIN_DECLS

#define QEL_SEP_INPUT 0x0001u      /**< a message is in your ring */
#define QEL_SEP_LOW_WATER 0x0100u  /**< your own flow is open again */
#define QEL_SEP_FLOW_CHECK 0x1000u /**< look at your flow-control state */
#define QEL_SEP_FLOW_RELAY 0x2000u /**< tell all clients to look at their flow-control state */
#define QEL_SEP_EP_UPDATE 0x4000u  /**< look at the end-point table */
#define QEL_SEP_DESTROYED 0x8000u  /**< the channel is going away */

#define QEL_SEP_STATE_NONE 0u          /**< state: no owner */
#define QEL_SEP_STATE_RUNNING 0xaaaau  /**< state: signals are taken; also that of a dead owner */
#define QEL_SEP_STATE_STOPPING 0xbbbbu /**< state: the owner's thread is to end */

/** Signal record, 96 bytes of shared memory, the same for all processes on it. */
typedef struct qel_sep_record {
    uint32_t sep_state; /**< QEL_SEP_STATE_* */
    uint32_t sep_flags; /**< pending bits; the top bit is the library's: the owner looks again by itself */
    pthread_mutex_t sep_mutex; /**< process-shared; held by the owner's thread except while it sleeps */
    pthread_cond_t sep_cond;   /**< process-shared; the owner's thread sleeps in it */
} qel_sep_record;

/** Run on a wake-up: a job of the dispatcher, with the owner's number as its 'data'. */
typedef qel_dm_job qel_sep_handler;

/** The owner's side, in process memory. The fields are written by qel_sep_init_once() and qel_sep_init(). */
typedef struct qel_sep {
    uint16_t sep_ep;             /**< the end point's number, for traces */
    qel_dm_handle sep_dm;        /**< the dispatcher of the handler; 0 for the owner's thread itself */
    pthread_mutex_t sep_lock;    /**< guards sep_running */
    pthread_cond_t sep_done;     /**< signalled when the owner's thread ends */
    uint16_t sep_running;        /**< 1 while the owner's thread lives */
    qel_sep_handler sep_handler; /**< what a wake-up runs */
    uint32_t sep_ipc;            /**< the number that the handler gets */
    qel_sep_record** sep_shm;    /**< the place that points to the record; null when stopped */
    uint32_t reserved[6];        /**< the library's */
} qel_sep;

/**
 * Makes a signal record in fresh shared memory: no owner, no bits, mutex and condition variable initialised.
 * By the process that creates the memory, once.
 *
 * Returns 0; 0xa0000016 for null; or 0xa0000000 with the errno of the initialisation that failed.
 */
QEL_API cerrno qel_sep_shm_init_once(qel_sep_record* record);

/**
 * Makes a local part, which is the caller's and must outlive the owner's thread. Not to be called again while
 * that may live.
 *
 * Returns 0; 0xa0000016 for null; or 0xa0000000 with the errno of the initialisation that failed.
 */
QEL_API cerrno qel_sep_init_once(qel_sep* local);

/**
 * Starts the owner's side: clears what a former owner left in 'record', starts the thread "QEL IPC Condvar
 * Thread" and opens the record for signals.
 *
 * From then on each wake-up runs handler(dm, ipc, 0) as a job of 'dm', or, with 'dm' 0, handler(0, ipc, 0) on
 * the thread itself. The handler takes the bits with qel_sep_get_signals() and must accept finding none.
 * '*place' is set to 'record', and 'place' is kept: it must stay valid until qel_sep_destroy(). 'ep' is shown
 * in traces. Signals from before the call are dropped.
 *
 * Returns 0; EINVAL for null and for a record whose mutex is none; ENOMEM; or what qel_thread_create() gives.
 * After a failure nothing runs.
 */
QEL_API int qel_sep_init(uint16_t ep, qel_sep* local, qel_sep_record** place, qel_sep_record* record,
                         qel_dm_handle dm, qel_sep_handler handler, uint32_t ipc);

/**
 * Stops the owner's side: signals are dropped from now on, and the thread ends. A handler that is queued or
 * running isn't waited for.
 *
 * Takes 5 ms, and a second at most for a thread that doesn't end, for instance as its handler doesn't return;
 * then the record's memory must stay mapped. Waits without end only for a holder of the record's mutex. Does
 * nothing for null or a part that isn't running.
 */
QEL_API void qel_sep_destroy(qel_sep* local);

/**
 * Attaches as a sender: sets '*place' to 'record'. 'local' is the caller's own part, for traces.
 *
 * Returns 0; EAGAIN while the owner isn't running, and then '*place' stays; EINVAL for null.
 */
QEL_API int qel_sep_open(qel_sep* local, qel_sep_record** place, qel_sep_record* record);

/** Detaches a sender: '*place' becomes null. The record isn't touched, and 'local' isn't used. */
QEL_API void qel_sep_close(qel_sep* local, qel_sep_record** place);

/**
 * Sets 'bits' (QEL_SEP_*) in the record at '*place', and wakes its owner if no bits were pending.
 *
 * Bits that are all pending already cost no lock and no system call. What the caller wrote to shared memory
 * before is visible to the owner that takes the bits.
 *
 * Returns 0, also when '*place' is null and when the owner isn't running, and then the bits are dropped;
 * EINVAL for a record whose mutex or condition variable is none; or what pthread_cond_signal() gives.
 */
QEL_API int qel_sep_signal(qel_sep_record** place, uint32_t bits);

/** Fetches and clears the pending bits of 'record'; 0 for none and for null. */
QEL_API uint32_t qel_sep_get_signals(qel_sep_record* record);

QEL_END_DECLS

#endif
