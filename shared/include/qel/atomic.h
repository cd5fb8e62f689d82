/** @file
 * Atomic operations on 32-bit words, which may lie in memory shared between processes.
 *
 *     static uint32_t users;
 *     if (qel_atomic_incr_and_fetch(&users) == 1) open_the_shop();
 *
 *     static uint32_t gate;
 *     qel_atomic_lock(&gate);
 *     ... a few instructions, no call that may block ...
 *     qel_atomic_unlock(&gate);
 *
 * Every operation has full ordering. The forms with _mb do the same and put a full memory fence behind it.
 * Sums and differences wrap modulo 2^32.
 *
 * Threads: all calls may run at the same time on the same word, in any number of threads and processes. A
 * word must be valid and naturally aligned; these calls don't check it.
 */
#ifndef QEL_ATOMIC_H
#define QEL_ATOMIC_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Stores 'new_value' if the word holds 'old_value'. Returns 1 if it did, 0 if the word held another value.
 */
QEL_API int qel_atomic_cas(uint32_t* word, uint32_t old_value, uint32_t new_value);
/** The same on a pointer. */
QEL_API int qel_atomic_cas_vptr(void** word, void* old_value, void* new_value);

/** Adds 'value' to the word. */
QEL_API void qel_atomic_add(uint32_t* word, uint32_t value);
/** The same with the fence behind it. */
QEL_API void qel_atomic_add_mb(uint32_t* word, uint32_t value);
/** Adds 'value' to the word and returns the new value. */
QEL_API uint32_t qel_atomic_add_and_fetch(uint32_t* word, uint32_t value);
/** The same with the fence behind it. */
QEL_API uint32_t qel_atomic_add_and_fetch_mb(uint32_t* word, uint32_t value);

/** Subtracts 'value' from the word. */
QEL_API void qel_atomic_sub(uint32_t* word, uint32_t value);
/** The same with the fence behind it. */
QEL_API void qel_atomic_sub_mb(uint32_t* word, uint32_t value);
/** Subtracts 'value' from the word and returns the new value. */
QEL_API uint32_t qel_atomic_sub_and_fetch(uint32_t* word, uint32_t value);
/** The same with the fence behind it. */
QEL_API uint32_t qel_atomic_sub_and_fetch_mb(uint32_t* word, uint32_t value);

/** Adds 1 to the word. */
QEL_API void qel_atomic_incr(uint32_t* word);
/** The same with the fence behind it. */
QEL_API void qel_atomic_incr_mb(uint32_t* word);
/** Adds 1 to the word and returns the new value. */
QEL_API uint32_t qel_atomic_incr_and_fetch(uint32_t* word);
/** The same with the fence behind it. */
QEL_API uint32_t qel_atomic_incr_and_fetch_mb(uint32_t* word);

/** Subtracts 1 from the word. */
QEL_API void qel_atomic_decr(uint32_t* word);
/** The same with the fence behind it. */
QEL_API void qel_atomic_decr_mb(uint32_t* word);
/** Subtracts 1 from the word and returns the new value. */
QEL_API uint32_t qel_atomic_decr_and_fetch(uint32_t* word);
/** The same with the fence behind it. */
QEL_API uint32_t qel_atomic_decr_and_fetch_mb(uint32_t* word);

/** Takes the spin lock in 'word', which starts as 0: waits until the word is 0 and makes it 1. The lock is
 * not recursive, and a holder that dies leaves it held. */
QEL_API void qel_atomic_lock(uint32_t* word);
/** Lets the spin lock go: waits until the word is 1 and makes it 0. Unlocking what nobody holds waits for
 * ever, so unlock only what you hold. */
QEL_API void qel_atomic_unlock(uint32_t* word);

QEL_END_DECLS

#endif
