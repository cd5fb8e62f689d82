/** @file
 * Beside packets: data of modules on them, queues of them, and their text.
 *
 * A module that wants to keep something with each packet registers a type of context once, and sets and gets
 * its value of a packet; the values go with the packet.
 *
 *      uint32_t id = 0;
 *      size_t length = sizeof verdict;
 *      qel_pak_ctx_register("firewall", sizeof(struct verdict), &id);
 *      qel_pak_ctx_set(id, pak, &verdict, sizeof verdict);
 *      qel_pak_queue_enqueue(&queue, pak);                   // a qel_queue, see qel/queue.h
 *      pak = qel_pak_queue_dequeue(&queue);
 *      qel_pak_ctx_get(id, pak, &verdict, &length);
 *
 * Queues of packets are changed with the calls here and not with those of qel/queue.h, so that a packet that
 * is on a queue isn't given back or put on another.
 *
 * Threads: types are registered and unregistered on any thread; a type is unregistered when nobody uses it
 * any more. Values follow their packet, which has one user at a time. A queue has one user at a time.
 */
#ifndef QEL_PAK_CTX_H
#define QEL_PAK_CTX_H

#include <qel/pak.h>
#include <qel/queue.h>

#include <stdbool.h>

QEL_BEGIN_DECLS

/* --- Contexts */

/** How many types of contexts there may be at a time. */
#define QEL_PAK_MAX_CTX 32u
/** The ID of no type. */
#define QEL_PAK_NO_CTX UINT32_MAX

/** Registers a type of contexts whose values have up to 'size' bytes, not 0. 'name' is kept and not copied.
 * The ID is a serial number in its upper and an index in its lower 16 bits; it is never 0.
 * Returns 0; 0xa0000016 for null and 0; 0xa000000c, with ::QEL_PAK_NO_CTX as the ID, when there are
 * ::QEL_PAK_MAX_CTX types. */
QEL_API cerrno qel_pak_ctx_register(const char* name, size_t size, uint32_t* id);
/** Ends a type. Values stay on their packets until these are given back, and are not got any more.
 * Returns 0; 0xa0000016 for an ID that is none of a type's. */
QEL_API cerrno qel_pak_ctx_unregister(uint32_t id);
/** Returns the index of the type 'id', 0 to 31; -1 when there is none of this ID. */
QEL_API int qel_pak_ctx_is_valid_ctx_id(uint32_t id);
/** Returns the ID itself, which has the index in its low 16 bits; nothing is checked. */
QEL_API uint32_t qel_pak_ctx_id_to_index(uint32_t id);

/** Gives the packet a copy of 'length' bytes, 1 to the type's size, as its value; a former one is
 * overwritten. Returns 0; 0xa0000016 for null, an unknown 'id' and another length; 0xa000000c; 0xa000000e
 * when the packet doesn't take it. */
QEL_API cerrno qel_pak_ctx_set(uint32_t id, qel_pak* pak, const void* value, size_t length);
/** Copies the packet's value out. '*length' is the room at 'buffer', and then the value's length.
 * Returns 0; 0xa0000016 for null, an unknown 'id' and too little room; 0xa0000002 without a value. */
QEL_API cerrno qel_pak_ctx_get(uint32_t id, const qel_pak* pak, void* buffer, size_t* length);
/** Returns whether the packet has a value of this type, whether the type is still registered or not. */
QEL_API bool qel_pak_ctx_exist(uint32_t id, const qel_pak* pak);
/** Removes and frees the packet's value. Returns 0; 0xa0000016 for null and without a value. */
QEL_API cerrno qel_pak_ctx_destroy(uint32_t id, qel_pak* pak);

/* --- Queues */

/** Appends a packet. Returns 0; 0xa0000016 for null and a packet that is on a queue. */
QEL_API cerrno qel_pak_queue_enqueue(qel_queue* queue, qel_pak* pak);
/** Puts a packet at the head. Results as for qel_pak_queue_enqueue(). */
QEL_API cerrno qel_pak_queue_enqueue_head(qel_queue* queue, qel_pak* pak);
/** Puts a packet behind 'previous', which is on the queue. Returns 0; 0xa0000016 as before, and for a
 * 'previous' that is on none. */
QEL_API cerrno qel_pak_queue_insert(qel_queue* queue, qel_pak* pak, qel_pak* previous);
/** Takes the first packet off. Returns it; null for a null or empty queue. */
QEL_API qel_pak* qel_pak_queue_dequeue(qel_queue* queue);
/** Returns the packet behind 'pak' on its queue; null for the last one and for null. */
QEL_API qel_pak* qel_pak_queue_get_next(const qel_pak* pak);

/* --- Text */

/** Print the header: offsets, protocol number, interfaces, priority. Takes 312 bytes of the buffer. */
#define QEL_PAK_DUMP_HEADER 0x1u
/** Leave room for contexts, 512 bytes. Nothing is printed for them. */
#define QEL_PAK_DUMP_CTX 0x2u
/** Print bytes in hexadecimal, 16 a line. Takes twice ('length' + 30) bytes of the buffer. */
#define QEL_PAK_DUMP_DATA 0x4u
/** The most bytes of data. */
#define QEL_PAK_DUMP_MAX_LENGTH 256u

/** What to print. */
typedef struct qel_pak_dump_req {
    uint32_t flags;       /**< QEL_PAK_DUMP_* */
    uint32_t offset_name; /**< of ::qel_pak_offset: where the data begins */
    uint64_t position;    /**< bytes behind it */
    uint64_t length;      /**< bytes of data, 1 to ::QEL_PAK_DUMP_MAX_LENGTH */
} qel_pak_dump_req;

/** Prints a packet into 'buffer', of 'size' bytes, and sets 'length' to the text's length with its ending
 * zero. Returns 0; 0xa0000016 for null, a length out of range, and a position outside the datagram;
 * 0xa000001c for a buffer that is smaller than the sum of what the flags take; 0xa000000e if the text came
 * out longer. */
QEL_API cerrno qel_pak_dump(const qel_pak* pak, char* buffer, size_t size, const qel_pak_dump_req* request,
                            size_t* length);

QEL_END_DECLS

#endif
