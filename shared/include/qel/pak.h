/** @file
 * Packets: a datagram in one block of memory, with room in front of it and bounds that every call keeps.
 *
 * A packet has a datagram of 1 to 65,535 bytes, head room for headers to come, and four places in it that
 * have names: the datagram's begin, the network header, the transport header and the application's data. A
 * position counts in bytes from one of these.
 *
 *      qel_pak* pak = NULL;
 *      uint16_t port = 0;
 *      qel_pak_from_buf_lnx(frame, length, &pak);
 *      qel_pak_set_offset(pak, QEL_PAK_NETWORK, 14);
 *      qel_pak_set_offset(pak, QEL_PAK_TRANSPORT, 34);
 *      qel_pak_uint16_get(pak, QEL_PAK_TRANSPORT, 2, &port);   // in host order
 *      qel_pak_add_head(pak, 4);                               // a tag in front, nothing is copied
 *      qel_pak_return_buffer(&pak);
 *
 * qel/pak_ctx.h hangs data of the application's on packets, queues them and prints them.
 *
 * Ownership: a packet is its maker's until that gives it back with qel_pak_return_buffer(). Threads: a packet
 * has one user at a time, and no lock; different packets are independent.
 *
 * Results: 0xa0000016, with a report, for a null packet or pointer, an offset name beyond
 * ::QEL_PAK_APPLICATION, a position outside the datagram, and where a call says so. Output arguments are
 * written on success only, unless a call says other.
 */
#ifndef QEL_PAK_H
#define QEL_PAK_H

#include <qel/cerrno.h>
#include <qel/types.h>

#include <sys/uio.h>

QEL_BEGIN_DECLS

/** A packet. */
typedef struct qel_pak qel_pak;

/** The places that have names. All are the datagram's begin in a new packet. */
typedef enum qel_pak_offset {
    QEL_PAK_DATAGRAM = 0,   /**< the first byte; moved by head room only */
    QEL_PAK_NETWORK = 1,    /**< the network header */
    QEL_PAK_TRANSPORT = 2,  /**< the transport header */
    QEL_PAK_APPLICATION = 3 /**< the application's data */
} qel_pak_offset;

/** Head room of a packet without parameters, in bytes. */
#define QEL_PAK_DEFAULT_ENCAP 96u
/** The most head room that parameters may ask for, in bytes. */
#define QEL_PAK_MAX_ENCAP 512u
/** The largest datagram, in bytes. */
#define QEL_PAK_MAX_SIZE 65535u
/** The pairs of a vector are fewer than this. */
#define QEL_PAK_MAX_PAIRS 1024u

/** What qel_pak_params_register_lnx() takes. */
typedef struct qel_pak_params {
    void* (*alloc_cb)(size_t size); /**< gives 'size' zeroed bytes, aligned as malloc's, or null; or null */
    void (*free_cb)(void* memory);  /**< takes them back; required with 'alloc_cb' */
    uint16_t encap;                 /**< head room in bytes, at most ::QEL_PAK_MAX_ENCAP */
} qel_pak_params;

/** How much is traced to "qel.pak.buffer.events": 0 nothing, 1 what changes packets, above 1 also reads and
 * accesses to fields. The application sets it. */
extern QEL_API int qel_pak_trace_level;

/* --- Making and giving back */

/** Makes a packet whose datagram is 'size' bytes of zeros, not 0 bytes. There is room in front of it and none
 * behind. Of a size over ::QEL_PAK_MAX_SIZE the packet's size has the low 16 bits, and the rest is room
 * behind. Returns 0; 0xa0000016; 0xa000000c without memory. */
QEL_API cerrno qel_pak_alloc(size_t size, qel_pak** pak);
/** The same as qel_pak_alloc(). */
QEL_API cerrno qel_pak_get_buffer(size_t size, qel_pak** pak);

/** Makes a packet with a copy of the 'length' bytes at 'buffer', 1 to ::QEL_PAK_MAX_SIZE.
 * Returns 0; 0xa0000016; 0xa000000c. */
QEL_API cerrno qel_pak_from_buf_lnx(const void* buffer, size_t length, qel_pak** pak);

/** Makes a copy of a packet: its datagram, named offsets, protocol number and interfaces, with head room as
 * a new packet has it; not its priority and contexts. Returns 0; 0xa0000016, also for a packet of size 0;
 * 0xa000000c. */
QEL_API cerrno qel_pak_duplicate(const qel_pak* pak, qel_pak** copy);
/** The same as qel_pak_duplicate(). */
QEL_API cerrno qel_pak_clone(const qel_pak* pak, qel_pak** copy);

/** Frees '*pak' with its contexts and sets it to null. Returns 0; 0xa0000016; 0xa0000010 for a packet on a
 * queue, which stays as it is. */
QEL_API cerrno qel_pak_return_buffer(qel_pak** pak);

/** Sets where the memory of packets comes from and their head room, once in a process; packets that were made
 * before go back to where they came from. The record is copied. Callable from any thread.
 * Returns 0; 0xa0000016 for an 'alloc_cb' without a 'free_cb' and too large an 'encap'; 0xa0000010 for a
 * second call; 0xa000000c. */
QEL_API cerrno qel_pak_params_register_lnx(const qel_pak_params* params);

/* --- Size: nothing is copied, and the bytes that come in are what the room holds */

/** Grows the datagram by 'bytes' at its front; the other named offsets stay at their bytes.
 * Returns 0; 0xa0000016; 0xa000000c when the head room or ::QEL_PAK_MAX_SIZE doesn't allow it. */
QEL_API cerrno qel_pak_add_head(qel_pak* pak, size_t bytes);
/** Shrinks the datagram by 'bytes' at its front, at most its size. Named offsets before the new begin move to
 * it. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_trim_head(qel_pak* pak, size_t bytes);
/** Grows the datagram by 'bytes' at its back. Returns 0; 0xa0000016; 0xa000000c when the buffer or
 * ::QEL_PAK_MAX_SIZE doesn't allow it. */
QEL_API cerrno qel_pak_add_tail(qel_pak* pak, size_t bytes);
/** Shrinks the datagram by 'bytes' at its back, at most its size. Named offsets behind the new last byte move
 * to the begin. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_trim_tail(qel_pak* pak, size_t bytes);

/** Gives the datagram's size in bytes. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_get_datagram_size(const qel_pak* pak, size_t* size);

/** Gives the datagram's address and size, until the packet changes its size or is given back.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_get_data_ptr_lnx(qel_pak* pak, void** data, size_t* size);

/* --- Named offsets */

/** Gives how many bytes behind the datagram's begin the offset 'name' lies. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_get_offset(const qel_pak* pak, uint32_t name, size_t* position);
/** Puts the offset 'name', not the datagram's, 'position' bytes behind the datagram's begin, inside it.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_set_offset(qel_pak* pak, uint32_t name, size_t position);
/** Moves the offset 'name', not the datagram's, by 'distance' bytes, to a place inside the datagram.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_adjust_offset(qel_pak* pak, uint32_t name, int64_t distance);

/* --- Bytes. A length beyond the datagram's end is cut there, and the count tells how many bytes moved. */

/** Copies 'length' bytes from 'source' into the packet, 'position' bytes behind the offset 'name'.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_write(qel_pak* pak, uint32_t name, size_t position, const void* source, size_t length,
                             size_t* written);
/** Copies 'length' bytes out to 'destination'. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_read(const qel_pak* pak, uint32_t name, size_t position, void* destination,
                            size_t length, size_t* read);

/** Copies in what 'count' pairs, 1 to 1,023, of base and length (sys/uio.h) name, one behind the other. Pairs
 * of length 0 are skipped. Returns 0; 0xa0000016, also for a pair without a base, with what came before it
 * copied and counted. */
QEL_API cerrno qel_pak_writev(qel_pak* pak, uint32_t name, size_t position, const struct iovec* pairs,
                              size_t count, size_t* written);
/** Copies out to the places that the pairs name. Otherwise like qel_pak_writev(). */
QEL_API cerrno qel_pak_readv(const qel_pak* pak, uint32_t name, size_t position, const struct iovec* pairs,
                             size_t count, size_t* read);

/** Reads a byte. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_uint8_get(const qel_pak* pak, uint32_t name, size_t position, uint8_t* value);
/** Reads a number in network byte order. Returns 0; 0xa0000016, also when the datagram ends in it. */
QEL_API cerrno qel_pak_uint16_get(const qel_pak* pak, uint32_t name, size_t position, uint16_t* value);
/** As qel_pak_uint16_get(). */
QEL_API cerrno qel_pak_uint32_get(const qel_pak* pak, uint32_t name, size_t position, uint32_t* value);
/** As qel_pak_uint16_get(). */
QEL_API cerrno qel_pak_uint64_get(const qel_pak* pak, uint32_t name, size_t position, uint64_t* value);
/** Writes a byte. Returns 0; 0xa0000016. */
QEL_API cerrno qel_pak_uint8_put(qel_pak* pak, uint32_t name, size_t position, uint8_t value);
/** Writes a number in network byte order. Returns 0; 0xa0000016, also when the datagram ends in it: its first
 * bytes are written then. */
QEL_API cerrno qel_pak_uint16_put(qel_pak* pak, uint32_t name, size_t position, uint16_t value);
/** As qel_pak_uint16_put(). */
QEL_API cerrno qel_pak_uint32_put(qel_pak* pak, uint32_t name, size_t position, uint32_t value);
/** As qel_pak_uint16_put(). */
QEL_API cerrno qel_pak_uint64_put(qel_pak* pak, uint32_t name, size_t position, uint64_t value);

/* --- The Internet checksum (RFC 1071) */

/** Gives the one's-complement sum of 'length' bytes as 16-bit words in host order, the last odd byte with a
 * zero behind it; 0 for null. A checksum is the complement of this sum; stored into a packet as it is in
 * memory, its bytes come out right on any machine. It is no cyclic code, whatever its name says. */
QEL_API uint16_t qel_pak_crc(const void* data, size_t length);

/** Gives the qel_pak_crc() of 'length' bytes of the packet. Returns 0, and leaves 'sum' alone when the
 * datagram ends before the range does; 0xa0000016. */
QEL_API cerrno qel_pak_checksum(const qel_pak* pak, uint32_t name, size_t position, size_t length,
                                uint16_t* sum);

/** Does qel_pak_writev(), then gives the qel_pak_crc() of what was written. 'written' is 0 on a failure of
 * the arguments. Returns as qel_pak_writev(). */
QEL_API cerrno qel_pak_writev_and_checksum(qel_pak* pak, uint32_t name, size_t position,
                                           const struct iovec* pairs, size_t count, uint16_t* sum,
                                           size_t* written);

/* --- Fields, which the library keeps and doesn't interpret. They are 0 in a new packet. Each returns 0, or
 * 0xa0000016 for null. */

/** The interface of arrival, a handle of qel/if.h. */
QEL_API cerrno qel_pak_get_if_input(const qel_pak* pak, uint64_t* ifh);
/** Sets the interface of arrival. */
QEL_API cerrno qel_pak_set_if_input(qel_pak* pak, uint64_t ifh);
/** The interface of departure, a handle of qel/if.h. */
QEL_API cerrno qel_pak_get_if_output(const qel_pak* pak, uint64_t* ifh);
/** Sets the interface of departure. */
QEL_API cerrno qel_pak_set_if_output(qel_pak* pak, uint64_t ifh);
/** The application's protocol number. */
QEL_API cerrno qel_pak_get_proto_id(const qel_pak* pak, uint32_t* proto_id);
/** Sets the protocol number. */
QEL_API cerrno qel_pak_set_proto_id(qel_pak* pak, uint32_t proto_id);
/** The application's priority. */
QEL_API cerrno qel_pak_get_priority(const qel_pak* pak, uint32_t* priority);
/** Sets the priority. */
QEL_API cerrno qel_pak_set_priority(qel_pak* pak, uint32_t priority);

QEL_END_DECLS

#endif
