/** @file
 * Message rings: queues of message numbers in named shared segments.
 *
 * A ring moves 16-bit message numbers, not data. The ring numbered 0 owns a pool of messages, which lie still
 * in its segment; every other ring borrows them. To send a message is to put its number on the receiver's
 * ring: no payload moves. All of it outlives the processes, and one that returns reclaims what it held.
 *
 *     qel_ring *pool, *mine;
 *     qel_ring_msg* message;
 *     qel_ring_open("element.0", 0, 128, 64, NULL, &pool);
 *     qel_ring_open("element.1", 1, 128, 64, pool, &mine);
 *
 *     if (qel_ring_msg_alloc(mine, &message) == 0) {             // the sender, who owns ring 1
 *         memcpy(message + 1, "hello", 6);                       // the payload follows the control block
 *         qel_ring_msg_produce(pool, message);
 *     }
 *     while (qel_ring_msg_consume(pool, &message) == 0) {        // the receiver, who owns ring 0
 *         puts((const char*)(message + 1));
 *         qel_ring_msg_free(pool, message);
 *     }
 *
 * The states of a message, and the calls between them:
 *
 *     Free      --qel_ring_msg_alloc-->             Allocated
 *     Allocated --qel_ring_msg_produce-->           Produced
 *     Produced  --qel_ring_msg_consume-->           Consumed
 *     Consumed  --qel_ring_freeze-->                Produced
 *     Consumed  --qel_ring_msg_realloc-->           Allocated
 *     Consumed  --qel_ring_msg_free-->              Free; of a ring but 0: on no ring, until it is added to
 *     Allocated --qel_ring_msg_add_to_free_pool-->  Free        the pool
 *
 * Threads: any thread of any process may allocate, produce and release. Each ring has one consumer at a time:
 * qel_ring_msg_consume(), qel_ring_freeze() and the reclaim calls of one ring never run side by side. A
 * message belongs to whoever holds it in its state. A ring's context is the opener's, and must outlive the
 * calls on it; that of ring 0 must outlive the contexts that borrow from it. A process that dies inside one
 * of the ring's two mutexes leaves it held.
 *
 * Results are cerrno values, 0 for success; outputs are written on success only. Every call gives 0xa0000016
 * for null, for a message that isn't one of the pool's, and for a segment whose words are out of bounds, and
 * then changes nothing.
 */
#ifndef QEL_RING_H
#define QEL_RING_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** A ring as this process has opened it. */
typedef struct qel_ring qel_ring;

/** States of a message, in its 'state'. */
#define QEL_RING_MSG_FREE 0u      /**< in the free pool of ring 0 */
#define QEL_RING_MSG_ALLOCATED 1u /**< held by a process, on no ring */
#define QEL_RING_MSG_PRODUCED 2u  /**< on a ring, waiting */
#define QEL_RING_MSG_CONSUMED 3u  /**< on a ring, being handled */

/** Types of a message, in its 'type'; a ring only shows them. */
#define QEL_RING_MSG_ASYNC_REQUEST 0u   /**< asynchronous request */
#define QEL_RING_MSG_SYNC_REQUEST 1u    /**< synchronous request */
#define QEL_RING_MSG_REPLY 2u           /**< reply */
#define QEL_RING_MSG_SYNC_REPLY 0x8002u /**< reply to a synchronous request, until a waiter claims it */

/** Control block of a message, in shared memory; 'msg_size' bytes of payload follow it. The first five fields
 * are the ring's and are not written by others; the rest is whatever those who use the rings make of it. */
typedef struct qel_ring_msg {
    uint32_t state;       /**< QEL_RING_MSG_FREE and so on */
    uint32_t handle;      /**< low 16 bits: the message's number; above: serial of the allocation */
    uint16_t ring;        /**< the ring that it last was on, or that allocated it; 0 when free */
    uint16_t ring_index;  /**< slot in that ring's index array */
    uint16_t alloc_ring;  /**< the ring through which it was allocated */
    uint16_t type;        /**< QEL_RING_MSG_ASYNC_REQUEST and so on */
    uint64_t context;     /**< the application's word */
    uint32_t data_handle; /**< 0 for data in the payload, or the chunk of the request's data */
    uint32_t data_len;    /**< bytes of the request's data */
    uint64_t reply_buf;   /**< chunk of the reply's data, or an address in the replier's process */
    uint32_t reply_len;   /**< bytes of the reply's data */
    uint32_t status;      /**< status of the reply */
} qel_ring_msg;

/** Tells a dump where a message's data lies: '*address' null for nowhere, '*length' in bytes. 'context' is
 * the dump's caller's. Runs on the dumping thread, with no mutex of the ring held. */
typedef void (*qel_ring_dump_fn)(qel_ring* ring, qel_ring_msg* message, void* context, void** address,
                                 uint32_t* length);

/** Opens the ring that lies in segment 'name', making it if the name is absent.
 *
 * 'ring_size' is the number of its slots, from 1, and for 'ring_num' 0 also the number of messages;
 * 'msg_size' their payload bytes. 'alloc_ring' is the open ring 0 whose messages it borrows, null for ring 0
 * itself. A segment that its maker hasn't formatted yet is waited for, for a second.
 *
 * Returns 0; 0xa0000016 also for sizes of more than 4 GiB in all and for an existing segment of another size;
 * 0xa0000011 for an existing ring with another number or other sizes, or one that stays unformatted, which is
 * left unchanged; 0xa000000c without memory for the context; 0x8000000b when opening the segment gave EAGAIN,
 * and other errors of qel_shm_open() with severity fatal. */
QEL_API cerrno qel_ring_open(const char* name, uint16_t ring_num, uint16_t ring_size, uint16_t msg_size,
                             qel_ring* alloc_ring, qel_ring** out);

/** Closes '*ring' and nulls it: the segment is unmapped, its name and messages stay. Returns 0. */
QEL_API cerrno qel_ring_close(qel_ring** ring);

/** Removes the name of a ring's segment; who has it open keeps it.
 *
 * Returns 0; 0x8000000b for EAGAIN, other errors of qel_shm_unlink() with severity fatal. */
QEL_API cerrno qel_ring_destroy(const char* name);

/** Takes a message from the pool, charged to 'ring' in its 'alloc_ring'. Its payload and the fields from
 * 'type' on are as the last user left them.
 *
 * Returns 0; 0xa000001c if none is free. */
QEL_API cerrno qel_ring_msg_alloc(qel_ring* ring, qel_ring_msg** out);

/** Appends an Allocated message to those that wait on 'ring'. It then belongs to the ring's consumer.
 *
 * Returns 0; 0xa0000020 if the ring is frozen; 0xa000001c if it is full, which ring 0 never is; 0xa0000016
 * for a message in another state. On failure the message stays the caller's. */
QEL_API cerrno qel_ring_msg_produce(qel_ring* ring, qel_ring_msg* message);

/** The same, but the message becomes the next to be consumed. Not to be run beside the ring's consumer, and
 * slow: all that wait move up by one slot. */
QEL_API cerrno qel_ring_msg_produce_at_head(qel_ring* ring, qel_ring_msg* message);

/** Takes the oldest message that waits on 'ring'. Takes no mutex.
 *
 * Returns 0; 0x8000000b if none waits. */
QEL_API cerrno qel_ring_msg_consume(qel_ring* ring, qel_ring_msg** out);

/** Takes a message Consumed on 'ring' off it and back to Allocated, past the pool, so that it can be produced
 * elsewhere.
 *
 * Returns 0; 0xa0000016 for a message that isn't Consumed on this ring. */
QEL_API cerrno qel_ring_msg_realloc(qel_ring* ring, qel_ring_msg* message);

/** Releases the slot of a message that is Consumed on 'ring', in any order. On ring 0 the message is in the
 * pool again; from another ring it is then to be given to qel_ring_msg_add_to_free_pool(). A message that is
 * Allocated goes to the pool.
 *
 * Returns 0; 0xa0000016 for a message that is neither. */
QEL_API cerrno qel_ring_msg_free(qel_ring* ring, qel_ring_msg* message);

/** Puts a message that is on no ring into the pool. 'ring' is ring 0.
 *
 * Returns 0; 0xa0000016 for another ring, a message on a ring, and one that is in the pool. */
QEL_API cerrno qel_ring_msg_add_to_free_pool(qel_ring* ring, qel_ring_msg* message);

/** Refuses producing on 'ring' from now on, for good, and turns what is Consumed on it back into Produced, in
 * its order and before what waits, so that its consumer can drain all of it. Returns 0. */
QEL_API cerrno qel_ring_freeze(qel_ring* ring);

/** Finds a message that is Allocated through 'ring': what the ring's owner held when it died. The message is
 * to be disposed of before the next call. A whole round over the pool's messages is linear.
 *
 * Returns 0; 0x8000000b if there is none. */
QEL_API cerrno qel_ring_msg_reclaim_alloc(qel_ring* ring, qel_ring_msg** out);

/** The same for the oldest message that is Consumed on 'ring'. */
QEL_API cerrno qel_ring_msg_reclaim_consumed(qel_ring* ring, qel_ring_msg** out);

/** Finds the message with this 'handle', which is the message's own field.
 *
 * Returns 0; 0xa0000016 for a number beyond the ring's size, a handle that isn't the message's any more, and
 * a message that is Free. */
QEL_API cerrno qel_ring_msg_handle_to_addr(qel_ring* ring, uint32_t handle, qel_ring_msg** out);

/** The slots of 'ring'; 0 for null, as for all that follow. */
QEL_API uint32_t qel_ring_get_size(const qel_ring* ring);
/** The number of 'ring'. */
QEL_API uint32_t qel_ring_get_num(const qel_ring* ring);
/** Messages in the pool, for ring 0; read without a mutex, like the other counts. */
QEL_API uint32_t qel_ring_get_free_count(const qel_ring* ring);
/** Messages that wait on 'ring'. */
QEL_API uint32_t qel_ring_get_produced_count(const qel_ring* ring);
/** Messages consumed on 'ring' and not yet released. */
QEL_API uint32_t qel_ring_get_consumed_count(const qel_ring* ring);

/** Prints 'ring' to standard output: indices and counts, and its messages. 'level' above 1 adds up to 16
 * bytes of each message's data, which 'function' finds; above 2 the free messages of ring 0. A mutex that
 * isn't got within 2 seconds is told and done without. */
QEL_API void qel_ring_dump(qel_ring* ring, uint32_t level, qel_ring_dump_fn function, void* context);

QEL_END_DECLS

#endif
