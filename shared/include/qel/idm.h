#ifndef QEL_IDM_H
#define QEL_IDM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/* What a module keeps in its pool variable while it has no pool. No pool ever has this handle. */
#define QEL_IDM_NO_POOL 65535u

typedef void (*qel_idm_destructor)(void* context, void* destructor_context);

QEL_API cerrno qel_idm_pool_create(const char* name, uint32_t max_ids, int no_randomize, uint32_t* handle);
QEL_API cerrno qel_idm_pool_create_by_slots(const char* name, uint32_t num_slots, uint32_t slot_size,
                                            int no_randomize, uint32_t* handle);
QEL_API void qel_idm_pool_destroy(uint32_t* handle);
QEL_API cerrno qel_idm_set_destructor(uint32_t pool, qel_idm_destructor destructor, void* destructor_context);
QEL_API cerrno qel_idm_get_id(uint32_t pool, void* context, uint32_t* id);
QEL_API cerrno qel_idm_reserve_id(uint32_t pool, uint32_t id, void* context);
QEL_API cerrno qel_idm_id_to_ctx(uint32_t pool, uint32_t id, void** context);
QEL_API void* qel_idm_lookup_and_retain_id(uint32_t pool, uint32_t id);
QEL_API void* qel_idm_lookup_and_retain_any_id(uint32_t pool, uint32_t id);
QEL_API void* qel_idm_lookup_next_and_retain(uint32_t pool, uint32_t previous_id, uint32_t* next_id);
QEL_API void* qel_idm_get_next_id(uint32_t pool, uint32_t previous_id, uint32_t* next_id);
QEL_API cerrno qel_idm_release_id(uint32_t pool, uint32_t id);
QEL_API cerrno qel_idm_delete_id(uint32_t pool, const uint32_t* id);
QEL_API cerrno qel_idm_release_and_withdraw_id(uint32_t pool, uint32_t id);
QEL_API cerrno qel_idm_get_count(uint32_t pool, uint32_t* count);
QEL_API cerrno qel_idm_get_id_refcount(uint32_t pool, uint32_t id, uint32_t* count);
QEL_API cerrno qel_idm_is_id_withdrawn(uint32_t pool, uint32_t id, uint8_t* withdrawn);
QEL_API cerrno qel_idm_id_to_index(uint32_t pool, uint32_t id, uint32_t* index);
QEL_API cerrno qel_idm_index_to_id(uint32_t pool, uint32_t index, uint32_t* id);

QEL_END_DECLS

#endif
