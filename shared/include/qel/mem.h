#ifndef QEL_MEM_H
#define QEL_MEM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef enum qel_tag_e {
    QEL_MEM_BASE = 0,
    QEL_MEM_UTILS = 1,
    QEL_MEM_QDM = 2,
    QEL_MEM_QDT = 3,
    QEL_MEM_TIMER = 4,
    QEL_MEM_IPC = 5,
    QEL_MEM_INTF = 6,
    QEL_MEM_PAK = 7,
    QEL_MEM_VRF = 8,
    QEL_MEM_ADDR = 9,
    QEL_MEM_THREAD = 10,
    QEL_MEM_HA = 11,
    QEL_MEM_TEST = 12,
    QEL_MEM_RTG = 13,
    QEL_MEM_ASYNC = 14,
    QEL_MEM_PLC = 15
} qel_tag_e;

/* Pool flags of qel_mem_chunk_create. */
#define QEL_MEM_CHUNK_DYNAMIC 0x001u
#define QEL_MEM_CHUNK_INDEPENDENT 0x002u
#define QEL_MEM_CHUNK_FAST_FREE 0x010u
#define QEL_MEM_CHUNK_LOCKABLE 0x020u
#define QEL_MEM_CHUNK_DEBUGGABLE 0x040u
#define QEL_MEM_CHUNK_NO_FAST_FREE 0x080u
#define QEL_MEM_CHUNK_ZERO 0x100u
#define QEL_MEM_CHUNK_SYNC 0x200u
#define QEL_MEM_CHUNK_NO_SYNC 0x400u
#define QEL_MEM_CHUNK_KEEP 0x800u

typedef struct qel_mem_chunk qel_mem_chunk;

QEL_API void* qel_named_malloc_(uint64_t size, const char* tag_name, uint32_t reserved);
QEL_API void* qel_named_calloc_(uint64_t count, uint64_t size, const char* tag_name, uint32_t reserved);
QEL_API void* qel_named_realloc(void* memory, uint64_t size);
QEL_API void qel_named_free(void* memory);
QEL_API int _qel_named_init(void);
QEL_API int _qel_named_uninit(void);
QEL_API const char* qel_tag_e_get_string(uint32_t tag);

QEL_API qel_mem_chunk* qel_mem_chunk_create(uint32_t element_size, uint32_t block_capacity, uint32_t flags,
                                            uint32_t reserved, uint32_t alignment, const char* name);
QEL_API int qel_mem_chunk_destroy(qel_mem_chunk* pool);
QEL_API int qel_mem_chunk_is_destroyable(qel_mem_chunk* pool);
QEL_API void* qel_mem_chunk_malloc(qel_mem_chunk* pool);
QEL_API int qel_mem_chunk_free(qel_mem_chunk* pool, void* element);
QEL_API int qel_mem_chunk_lock(qel_mem_chunk* pool, void* element);
QEL_API uint32_t qel_mem_chunk_refcount(qel_mem_chunk* pool, void* element);

QEL_END_DECLS

#endif
