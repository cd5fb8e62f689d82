#ifndef QEL_SHM_H
#define QEL_SHM_H

#include <pthread.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/* Flags of qel_shm_safe_open. */
#define QEL_SHM_CREATE 0x1u
#define QEL_SHM_EXACT_SIZE 0x2u
#define QEL_SHM_EXCLUSIVE 0x4u

#define QEL_SHM_SAFE_HEADER_SIZE 12u

typedef struct qel_shm_info {
    uint32_t hdr_size;
    void* addr;
    uint32_t size;
} qel_shm_info;

typedef int (*qel_shm_initializer)(qel_shm_info* info, void* context);

QEL_API int qel_shm_path_append(char* out, const char* name, size_t size);
QEL_API int qel_shm_open(const char* name, uint32_t size, qel_shm_info* info, uint8_t* existed);
QEL_API int qel_shm_safe_open(const char* name, uint32_t flags, uint32_t size, uint32_t version,
                              qel_shm_initializer initializer, void* init_context, uint32_t wait,
                              qel_shm_info* info);
QEL_API void qel_shm_close(qel_shm_info* info);
QEL_API int qel_shm_unlink(const char* name);
QEL_API int qel_shm_safe_resize(qel_shm_info* info, uint32_t size, uint32_t flags);
QEL_API int qel_init_shared_mutex(pthread_mutex_t* mutex);
QEL_API int qel_init_shared_condvar(pthread_cond_t* condvar);
QEL_API int qel_revive_and_monitor_mutex(pthread_mutex_t* mutex);

QEL_END_DECLS

#endif
