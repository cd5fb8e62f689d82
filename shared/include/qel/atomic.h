#ifndef QEL_ATOMIC_H
#define QEL_ATOMIC_H

#include <qel/types.h>

QEL_BEGIN_DECLS

QEL_API int qel_atomic_cas(uint32_t* word, uint32_t old_value, uint32_t new_value);
QEL_API int qel_atomic_cas_vptr(void** word, void* old_value, void* new_value);
QEL_API void qel_atomic_add(uint32_t* word, uint32_t value);
QEL_API void qel_atomic_add_mb(uint32_t* word, uint32_t value);
QEL_API uint32_t qel_atomic_add_and_fetch(uint32_t* word, uint32_t value);
QEL_API uint32_t qel_atomic_add_and_fetch_mb(uint32_t* word, uint32_t value);
QEL_API void qel_atomic_sub(uint32_t* word, uint32_t value);
QEL_API void qel_atomic_sub_mb(uint32_t* word, uint32_t value);
QEL_API uint32_t qel_atomic_sub_and_fetch(uint32_t* word, uint32_t value);
QEL_API uint32_t qel_atomic_sub_and_fetch_mb(uint32_t* word, uint32_t value);
QEL_API void qel_atomic_incr(uint32_t* word);
QEL_API void qel_atomic_incr_mb(uint32_t* word);
QEL_API uint32_t qel_atomic_incr_and_fetch(uint32_t* word);
QEL_API uint32_t qel_atomic_incr_and_fetch_mb(uint32_t* word);
QEL_API void qel_atomic_decr(uint32_t* word);
QEL_API void qel_atomic_decr_mb(uint32_t* word);
QEL_API uint32_t qel_atomic_decr_and_fetch(uint32_t* word);
QEL_API uint32_t qel_atomic_decr_and_fetch_mb(uint32_t* word);
QEL_API void qel_atomic_lock(uint32_t* word);
QEL_API void qel_atomic_unlock(uint32_t* word);

QEL_END_DECLS

#endif
