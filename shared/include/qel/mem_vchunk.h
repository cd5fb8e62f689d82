/** @file
 * Variable chunk heap: a buddy allocator that can lie in a shared segment, for memory handed between
 * processes.
 *
 * All links inside a heap are offsets, so processes map it at whatever address they like. A chunk travels as
 * its handle, a number of 32 bits, which each process turns into an address of its own.
 *
 *     qel_mem_vchunk_pool pool;
 *     qel_mem_vchunk_shm_create("element.tables", 104, 1 << 20, 0, &pool);    // in every process
 *     char* bytes = qel_mem_vchunk_malloc(pool, 1000);
 *     uint32_t number = qel_mem_vchunk_addr_to_handle(pool, bytes);           // tell it to another process
 *     ...
 *     char* same = qel_mem_vchunk_handle_to_addr(pool, number);               // over there
 *     qel_mem_vchunk_free(pool, same);
 *
 * A heap is divided into units: the smallest power of two that holds 'min_size' bytes and the 24 bytes of
 * bookkeeping in front of each chunk, at most 32,768. A chunk takes a power of two of units, so with
 * 'min_size' 40 a request of 40 bytes takes 64 and one of 41 takes 128. 1,368 bytes of the heap are its
 * header.
 *
 * Alignment: in a shared heap the addresses handed out are 4 modulo 8, since a segment's header of 12 bytes
 * lies in front of the heap. Copy wider values in and out (memcpy), or begin your record with a 32-bit word.
 *
 * Trust: others can write into a shared heap. Its sizes are kept by each process from the time it opened the
 * heap, and every link is checked before it is followed: a spoilt heap refuses, and never leads outside of
 * itself.
 *
 * Threads: every call may be made from any thread of any process, save that nobody may use a pool while it is
 * closed for the last time. A process that dies inside a call may leave the heap locked: the others wait.
 *
 * Results are plain errno numbers where not told otherwise.
 */
#ifndef QEL_MEM_VCHUNK_H
#define QEL_MEM_VCHUNK_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** A pool: a heap that this process has open. The index is in bits 15-0 (0 to 31), a serial in bits 31-16; 0
 * is none. */
typedef uint32_t qel_mem_vchunk_pool;
/** A chunk: the offset of its bytes from the heap's base, the same in every process; 0 is none. */
typedef uint32_t qel_mem_vchunk_handle;

/** Zero a chunk's bytes when it is allocated. Shared heaps don't. */
#define QEL_MEM_VCHUNK_ZERO 0x1u
/** No heap at all: hand each call through to named memory. Such chunks have no handles. */
#define QEL_MEM_VCHUNK_PASS_THROUGH 0x2u

/**
 * Makes a heap of 'heap_size' bytes in memory of this process, or opens the pool of that name once more. A
 * name that is the beginning of an open pool's name stands for that pool.
 *
 * Returns 0 with '*pool' set; EINVAL for null, an empty name, other flags, a 'heap_size' of 1,368 or less, a
 * 'min_size' over 32,744, and for an open pool of another unit; EFAULT for an open pool of the other kind, or
 * spoilt; ENOMEM, also if there are 32 pools or not one unit fits.
 */
QEL_API int qel_mem_vchunk_create(const char* name, uint16_t min_size, uint32_t heap_size, uint32_t flags,
                                  qel_mem_vchunk_pool* pool);

/**
 * The same in a safe segment called 'name' (qel/shm.h): the first process lays the heap out, the others wait
 * for it. All give the same sizes. QEL_MEM_VCHUNK_ZERO is accepted and ignored.
 *
 * Returns as qel_mem_vchunk_create(); EFAULT also for a segment that holds no heap; and what
 * qel_shm_safe_open() gives.
 */
QEL_API int qel_mem_vchunk_shm_create(const char* name, uint16_t min_size, uint32_t heap_size, uint32_t flags,
                                      qel_mem_vchunk_pool* pool);

/**
 * Takes back one open. With the last one of this process the heap goes, and '*pool' becomes 0: memory is
 * zeroed and freed; a segment is unmapped and its name removed, whoever else has it mapped.
 *
 * Returns 0; EINVAL for null or an index above 31; EPERM for 0 and a stale handle; EBUSY while chunks are
 * out, and the pool stays as it is and serves on; or the error of the removal, ENOENT if another process was
 * the first to close: the heap is unmapped, and the pool stays without one. EFAULT for such a pool, whose
 * name may be opened again.
 */
QEL_API int qel_mem_vchunk_close(qel_mem_vchunk_pool* pool);

/** Removes the name of a shared heap: qel_shm_unlink(). */
QEL_API int qel_mem_vchunk_destroy(const char* name);

/** Gives a chunk of 'size' bytes, or null for size 0, an unknown pool, or for want of memory. */
QEL_API void* qel_mem_vchunk_malloc(qel_mem_vchunk_pool pool, uint32_t size);

/** Gives a chunk back, by whichever process. Returns 0; EINVAL for null, an unknown pool, and what is no
 * chunk in use. */
QEL_API int qel_mem_vchunk_free(qel_mem_vchunk_pool pool, void* chunk);

/** The handle of a chunk, or 0 if the address isn't a chunk's of this heap. */
QEL_API qel_mem_vchunk_handle qel_mem_vchunk_addr_to_handle(qel_mem_vchunk_pool pool, const void* chunk);

/** The address of a chunk in this process, or null for a number that is none. A chunk that was freed and has
 * not merged with its neighbour still counts as one. */
QEL_API void* qel_mem_vchunk_handle_to_addr(qel_mem_vchunk_pool pool, qel_mem_vchunk_handle chunk);

/** Returns 1 for the handle 0; EINVAL for an index above 31 and for one whose place is taken; 0 for one whose
 * place is free. */
QEL_API int qel_mem_vchunk_iszero(qel_mem_vchunk_pool pool);

/** Prints the heap's figures on standard output, with a line for each size of chunk. */
QEL_API void qel_mem_vchunk_dump(qel_mem_vchunk_pool pool);

QEL_END_DECLS

#endif
