/** @file
 * Memory: named allocation, and pools of small objects of one size.
 *
 * Named memory is the C library's heap with the name of the asking subsystem on each call:
 *
 *     struct route* r = qel_named_calloc_(1, sizeof *r, qel_tag_e_get_string(QEL_MEM_RTG), 0);
 *     ...
 *     qel_named_free(r);
 *
 * A chunk pool hands out elements of one size from blocks of many, faster than the heap. It may grow block by
 * block, zero each element, and count references:
 *
 *     uint32_t size = sizeof(struct job);
 *     qel_mem_chunk* pool = qel_mem_chunk_create(size, 32, QEL_MEM_CHUNK_DYNAMIC, 0, 0, "jobs");
 *     struct job* j = qel_mem_chunk_malloc(pool);
 *     ...
 *     qel_mem_chunk_free(pool, j);
 *     qel_mem_chunk_destroy(pool);
 *
 * Threads: named memory is safe on any thread. So is a pool, unless QEL_MEM_CHUNK_NO_SYNC took its mutex
 * away: then the caller lets one thread at a time into it. Nobody may be inside a pool that is being
 * destroyed.
 */
#ifndef QEL_MEM_H
#define QEL_MEM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Who asks for memory. qel_tag_e_get_string() gives the name, which equals the constant's. */
typedef enum qel_tag_e {
    QEL_MEM_BASE = 0,    /**< chunk pools */
    QEL_MEM_UTILS = 1,   /**< error codes, parameters, containers */
    QEL_MEM_QDM = 2,     /**< dispatcher */
    QEL_MEM_QDT = 3,     /**< debug trace */
    QEL_MEM_TIMER = 4,   /**< timers */
    QEL_MEM_IPC = 5,     /**< messaging */
    QEL_MEM_INTF = 6,    /**< interface service */
    QEL_MEM_PAK = 7,     /**< packets */
    QEL_MEM_VRF = 8,     /**< VRF service */
    QEL_MEM_ADDR = 9,    /**< addresses */
    QEL_MEM_THREAD = 10, /**< threads */
    QEL_MEM_HA = 11,     /**< high availability */
    QEL_MEM_TEST = 12,   /**< tests */
    QEL_MEM_RTG = 13,    /**< routing service */
    QEL_MEM_ASYNC = 14,  /**< asynchronous operations */
    QEL_MEM_PLC = 15     /**< policy service */
} qel_tag_e;

/* Pool flags of qel_mem_chunk_create(). */

/** The pool grows by a sibling block when it runs out; a sibling that is wholly free again goes. */
#define QEL_MEM_CHUNK_DYNAMIC 0x001u
/** A block's elements are an allocation of their own. Set by the pool itself for an alignment over 4. */
#define QEL_MEM_CHUNK_INDEPENDENT 0x002u
/** Each element knows its block, so that freeing takes no search. Set unless NO_FAST_FREE is given. */
#define QEL_MEM_CHUNK_FAST_FREE 0x010u
/** Each element has a reference count: 1 when handed out, see qel_mem_chunk_lock(). */
#define QEL_MEM_CHUNK_LOCKABLE 0x020u
/** Each element has the magic word 0x15a3c78b in its header, and a freed one is filled with 0x0d. */
#define QEL_MEM_CHUNK_DEBUGGABLE 0x040u
/** Elements don't know their block: 8 bytes less each, and freeing searches the blocks. */
#define QEL_MEM_CHUNK_NO_FAST_FREE 0x080u
/** Each element is handed out zeroed. */
#define QEL_MEM_CHUNK_ZERO 0x100u
/** The pool locks its mutex in each operation. Set unless NO_SYNC is given. */
#define QEL_MEM_CHUNK_SYNC 0x200u
/** No mutex: the caller serialises. */
#define QEL_MEM_CHUNK_NO_SYNC 0x400u
/** Siblings that are wholly free stay. A pool that has grown can then not be destroyed any more. */
#define QEL_MEM_CHUNK_KEEP 0x800u

/** A pool. */
typedef struct qel_mem_chunk qel_mem_chunk;

/** Allocates 'size' bytes, as malloc(3). 'tag_name' names the asking subsystem and isn't stored; 'reserved'
 * is 0. Returns the memory, which the caller gives back with qel_named_free(), or null when there is none. */
QEL_API void* qel_named_malloc_(uint64_t size, const char* tag_name, uint32_t reserved);

/** Allocates 'count' times 'size' zeroed bytes, as calloc(3). Otherwise like qel_named_malloc_(); also null
 * when the product is beyond 64 bits. */
QEL_API void* qel_named_calloc_(uint64_t count, uint64_t size, const char* tag_name, uint32_t reserved);

/** Resizes 'memory' to 'size' bytes, as realloc(3), moving it if need be. A null 'memory' allocates; a 'size'
 * of 0 frees and returns null. When there is no memory the result is null and the old memory stays as it was.
 */
QEL_API void* qel_named_realloc(void* memory, uint64_t size);

/** Gives named memory back. A null 'memory' is allowed. */
QEL_API void qel_named_free(void* memory);

/** Starts named memory, for which there is nothing to do on this platform. Returns 0. */
QEL_API int _qel_named_init(void);
/** Ends named memory, for which there is nothing to do on this platform. Returns 0. */
QEL_API int _qel_named_uninit(void);

/** Gives the static name of a qel_tag_e, or null for a 'tag' of 16 or more. */
QEL_API const char* qel_tag_e_get_string(uint32_t tag);

/** Makes a pool and its first block.
 *
 * 'element_size' is in bytes; elements are at least 16. Each block has 'block_capacity' elements, aligned to
 * 'alignment' bytes and never to less than 8. 'flags' are QEL_MEM_CHUNK_*, 'reserved' is 0. 'name' is copied;
 * null counts as "unknown".
 *
 * Returns the pool, which the caller ends with qel_mem_chunk_destroy(); null when memory is short, when a
 * block would not fit into 64 bits, or for a dynamic pool with elements over 65,536 bytes. */
QEL_API qel_mem_chunk* qel_mem_chunk_create(uint32_t element_size, uint32_t block_capacity, uint32_t flags,
                                            uint32_t reserved, uint32_t alignment, const char* name);

/** Destroys a pool whose elements are all back. Returns 1; 0 for a null 'pool', and for one with elements out
 * or with siblings kept by QEL_MEM_CHUNK_KEEP, which stays as it was. */
QEL_API int qel_mem_chunk_destroy(qel_mem_chunk* pool);

/** Returns 1 if qel_mem_chunk_destroy() would destroy the pool: its first block is wholly free and has no
 * sibling. Returns 0 otherwise and for null. */
QEL_API int qel_mem_chunk_is_destroyable(qel_mem_chunk* pool);

/** Hands out an element, with a reference count of 1 in a lockable pool. Its bytes are zero with
 * QEL_MEM_CHUNK_ZERO and anything otherwise. The element is the caller's until qel_mem_chunk_free().
 *
 * Returns the element; null for a null 'pool', when a pool that isn't dynamic has run out, and when memory is
 * short. */
QEL_API void* qel_mem_chunk_malloc(qel_mem_chunk* pool);

/** Takes a reference off 'element' and, with the last one, takes the element back into 'pool'.
 *
 * In a pool with fast free 'element' must be an address that some such pool handed out.
 *
 * Returns 1 if the element is back or still referenced; 0 for null arguments, an element that isn't this
 * pool's and one that is free already, all of which change nothing. */
QEL_API int qel_mem_chunk_free(qel_mem_chunk* pool, void* element);

/** Adds a reference to an element that the caller holds one on. Returns 1; 0 if the pool is not lockable, for
 * null arguments, and for an element that isn't this pool's or is free. */
QEL_API int qel_mem_chunk_lock(qel_mem_chunk* pool, void* element);

/** Gives the element's number of references: 0 when it is free, 0xffffffff if the pool is not lockable, for
 * null arguments and for an element that isn't this pool's. */
QEL_API uint32_t qel_mem_chunk_refcount(qel_mem_chunk* pool, void* element);

QEL_END_DECLS

#endif
