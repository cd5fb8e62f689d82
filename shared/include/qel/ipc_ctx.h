/** @file
 * Messaging from inside: calls on a locked channel, for those who extend or test it.
 *
 *     qel_ipc_ctx* ctx = qel_lock_ipc_from_handle(ipc);
 *     if (ctx == NULL) return EINVAL;
 *     qel_ipc_signal_clients(ctx, QEL_SEP_FLOW_CHECK);
 *     qel_ipc_unlock(ctx);
 *
 * Locks, outer first: the context's, the channel's shm_mutex, its fc_lock. Each call says which it needs its
 * caller to hold; where nothing is said, the context's. Applications use qel/ipc.h.
 */
#ifndef QEL_IPC_CTX_H
#define QEL_IPC_CTX_H

#include <qel/ipc.h>
#include <qel/mem_vchunk.h>
#include <qel/queue.h>
#include <qel/ring.h>

QEL_BEGIN_DECLS

typedef struct qel_ipc_ctx qel_ipc_ctx; /**< a channel as this process has opened it */
typedef struct qel_ipc_hdr qel_ipc_hdr; /**< a channel's control block, in shared memory */

/** A thread's list of connection events. */
typedef struct qel_ipc_ep_hdl_list {
    qel_dqueue head;    /**< of the entries, oldest first */
    qel_dqueue* cursor; /**< the entry taken last; 'head' before the first */
} qel_ipc_ep_hdl_list;

/** Locks the channel behind a handle, waiting for other callers. Returns it; null for a handle that is none,
 * or none any more when the lock was got. Give it to qel_ipc_unlock(), on the same thread. */
QEL_API qel_ipc_ctx* qel_lock_ipc_from_handle(qel_ipc_handle ipc);

/** Gives the lock back. Null does nothing. */
QEL_API void qel_ipc_unlock(qel_ipc_ctx* ctx);

/**
 * Opens end point number 'ep' for this process, end point 0 first: its doorbell, its ring, its handle. One
 * that is open is attached to anew if its owner has come back since. The caller holds the channel's
 * shm_mutex.
 *
 * Returns 0; 0xa0000016 for null, a number of 32 or more, or a channel whose sizes are out of range;
 * 0xa0000020 for an end point that isn't open, or beyond the channel's; 0xa0000070 for one whose owner is
 * down; 0x8000000b for one whose owner isn't listening; 0xa000000c without memory; or what qel_ring_open()
 * gave.
 */
QEL_API cerrno qel_ipc_open_ep(qel_ipc_ctx* ctx, uint32_t ep);

/** Opens the ring of end point number 'ep' of the channel, by its name and sizes; 'alloc_ring' is ring 0, or
 * null to open that. Returns what qel_ring_open() does, and 0xa0000016 also for null, a number of 32 or more
 * and sizes out of range. No lock is needed; close the ring with qel_ring_close(). */
QEL_API cerrno qel_ipc_open_ring(const qel_ipc_hdr* hdr, uint32_t ep, qel_ring* alloc_ring, qel_ring** ring);

/** Opens the heap of the channel 'name', making it if need be, for chunks from 'msg_size' + 1 bytes on;
 * 'size' is the heap's in bytes. Returns an errno: that of the heap, and EINVAL also for null or a 'msg_size'
 * above 4,096. No lock is needed. */
QEL_API int qel_ipc_init_large_data_heap(const char* name, uint32_t msg_size, uint32_t size,
                                         qel_mem_vchunk_pool* heap);

/** Returns the calling thread's list, made at first use and freed with the thread; null without memory. No
 * lock is needed. */
QEL_API qel_ipc_ep_hdl_list* qel_ipc_threadspecific(void);

/** Empties the calling thread's list. Null does nothing. No lock is needed. */
QEL_API void qel_ipc_free_all_ep_hdl(qel_ipc_ep_hdl_list* list);

/** Signals 'bits' (QEL_SEP_, qel/sep.h) to each client that this process has open and that has caught up.
 * Null does nothing. */
QEL_API void qel_ipc_signal_clients(qel_ipc_ctx* ctx, uint32_t bits);

/** Queues a call of the own handler with 'events' on the channel's dispatcher. Returns 0; 0xa0000016 for
 * null; or the errno of qel_dm_execute() under fatal severity. */
QEL_API cerrno qel_ipc_send_local_event(qel_ipc_ctx* ctx, uint32_t events);

/** Makes the flags and the trace buffer of messaging, as far as that isn't done; opens do so. What can't be
 * made is reported and left out. No lock is needed. */
QEL_API void qel_ipc_init_tracing(void);

/**
 * Sends as qel_ipc_async_send() does, with 'type' QEL_RING_MSG_ASYNC_REQUEST or QEL_RING_MSG_SYNC_REQUEST, on
 * a channel that the caller has locked. Returns what that call does.
 */
QEL_API cerrno qel_ipc_async_transport(qel_ipc_ctx* ctx, uint16_t type, const qel_ipc_send_attr* attr,
                                       qel_ipc_msg msg);

/** Frees a message as qel_ipc_msg_free() does, on a locked channel, but doesn't count it off those that the
 * application holds. Returns what that call does. */
QEL_API cerrno qel_ipc_msg_dispose(qel_ipc_ctx* ctx, qel_ipc_msg* msg);

/** Releases all synchronous senders of this process that wait for end point number 'ep', with 0xa0000020. The
 * channel is locked. One whose reply has come keeps it. */
QEL_API void qel_ipc_sync_hash_unblock_free(qel_ipc_ctx* ctx, uint32_t ep);

/** Shares the channel's messages out among its producers; to be called when one joins or leaves. The caller
 * holds the channel's fc_lock. */
QEL_API void qel_ipc_fc_recalc(qel_ipc_ctx* ctx);

/** Computes the water marks in messages from the header's percentages of 'base'. They never coincide, unless
 * 'base' is 0. The caller holds the channel's fc_lock. */
QEL_API void qel_ipc_fc_init_hlw(qel_ipc_hdr* hdr, uint32_t base);

/**
 * Charges one message to the own end point. Takes the channel's fc_lock. May post QEL_IPC_EVENT_FLOW_OFF.
 *
 * Returns 0; 0xa000000c when neither a credit nor overflow is left, and then nothing is charged; 0xa0000016
 * for null.
 */
QEL_API cerrno qel_ipc_fc_sub_credit(qel_ipc_ctx* ctx);

/**
 * Returns the credit of a message that end point number 'ep' allocated; tells who may send again. Takes the
 * channel's fc_lock, and shm_mutex for a peer that isn't open yet unless the channel is closing.
 *
 * A credit beyond what is charged means that the accounts in shared memory can't be trusted: the process is
 * aborted, with both locks released.
 */
QEL_API void qel_ipc_fc_add_credit(qel_ipc_ctx* ctx, uint32_t ep);

/** Looks whether the own end point has passed a water mark unnoticed, and moves its mark. Returns
 * QEL_IPC_EVENT_FLOW_ON, QEL_IPC_EVENT_FLOW_OFF or 0. The caller holds the channel's fc_lock. */
QEL_API uint32_t qel_ipc_fc_get_flags(qel_ipc_ctx* ctx);

QEL_END_DECLS

#endif
