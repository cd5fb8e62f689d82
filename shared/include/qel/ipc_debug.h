/** @file
 * Looking at channels: statistics and dumps of one's own, and dumps and levels of any other by its name.
 *
 * All that a channel is lies in shared memory, so a process that isn't part of it can look at it, whether its
 * participants live or not:
 *
 *     qel_ipc_debug(QEL_IPC_DEBUG_DUMP, "element.keys", 2);
 *     qel_ipc_debug(QEL_IPC_DEBUG_TRACE_LEVEL, "element.keys", 1);
 *
 * Dumps go to standard output. A dump level of 0 shows the flow control, 1 the end points and the messages on
 * their rings too, 2 also the first 16 bytes of each message's data, 3 the free messages as well.
 *
 * Threads: every call may run on any thread. A dump takes the channel's locks. One that isn't had within 2
 * seconds, because a process died holding it, is told with its holder, and the dump goes on without it. */
#ifndef QEL_IPC_DEBUG_H
#define QEL_IPC_DEBUG_H

#include <qel/ipc_ctx.h>

QEL_BEGIN_DECLS

/** What a channel's ledger says of the caller's end point, at one moment. */
typedef struct qel_ipc_stats {
    uint16_t total_msg;        /**< messages of the channel */
    uint16_t ofp_pool;         /**< overflow messages that the server asked for */
    uint16_t ofp_quota;        /**< overflow messages that there are */
    uint16_t prod_count;       /**< end points that share the messages */
    uint16_t quota;            /**< messages of each of them */
    uint32_t ofp_used;         /**< overflow messages that are out */
    uint8_t restricted;        /**< own end point: 1 while its flow is off */
    uint16_t hw;               /**< messages out at which flow goes off */
    uint16_t lw;               /**< messages out at which flow comes back */
    uint32_t alloc;            /**< own end point: messages out */
    uint32_t reserved_credits; /**< own end point: messages that it may still take of its quota */
    uint64_t sent;             /**< own end point: messages sent since it was first opened */
    uint64_t received;         /**< own end point: messages received since then */
} qel_ipc_stats;

/** Commands of qel_ipc_debug(). */
#define QEL_IPC_DEBUG_SHOW_TRACE 0u  /**< print the error and trace buffers of messaging */
#define QEL_IPC_DEBUG_RESET_TRACE 1u /**< remove them */
#define QEL_IPC_DEBUG_DUMP 2u        /**< print a channel; the argument is the level, as above */
#define QEL_IPC_DEBUG_TRACE_LEVEL 3u /**< set its trace level to the argument's low 2 bits */
#define QEL_IPC_DEBUG_AUDIT_LEVEL                                                                            \
    4u /**< set its audit level likewise, and core_dump to the argument's bit 7 */

/** Gives the statistics of the caller's end point, all of one moment. Returns 0; 0xa0000016 for null or a bad
 * handle. */
QEL_API cerrno qel_ipc_get_stats(qel_ipc_handle ipc, qel_ipc_stats* out);

/** Prints the caller's channel: flow control, and with a 'level' above 0 the end points, as told above. A bad
 * handle is reported to the error buffer and prints nothing. */
QEL_API void qel_ipc_dump(qel_ipc_handle ipc, uint32_t level);

/** Prints ">>> [EP#n] text" with the own end point and then the flow control. For a caller that has locked
 * 'ctx'; null does nothing. */
QEL_API void qel_ipc_fc_dump(const char* text, qel_ipc_ctx* ctx);

/** Runs a command on the channel 'name', which the caller need not have opened.
 *
 * QEL_IPC_DEBUG_SHOW_TRACE and QEL_IPC_DEBUG_RESET_TRACE need no name: the machine has one pair of buffers,
 * "qel_ipc_errors" and "qel_ipc_traces". An argument of 1 picks the errors, 2 the traces, any other both.
 * Where messaging has no error buffer of its own, the common one, "qel.gen.buffer.errors", is shown; it is
 * never removed. Processes that have a removed buffer open go on writing to it unseen.
 *
 * Trace levels: 0 none; 1 sending, receiving, allocating; 2 also signals; 3 also the entries of allocations.
 * An audit level that isn't 0 has the ledger checked at each change; core_dump adds a line when that fails.
 * All processes of the channel follow at once.
 *
 * Returns 0; 0xa000005f for an unknown command; 0xa0000016 for a null name, or a segment that is no channel,
 * whose magic is then printed; 0xa0000002 for a name that can't be attached to; or the error of a buffer that
 * can't be shown or removed, as a fatal code: 0xa0000002 when there are no traces to show. */
QEL_API cerrno qel_ipc_debug(uint32_t command, const char* name, uint32_t argument);

/** Does nothing; kept for those who link it. */
QEL_API void qel_ipc_wb_test(uint32_t first, uint32_t second);

QEL_END_DECLS

#endif
