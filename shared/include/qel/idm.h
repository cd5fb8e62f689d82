/** @file
 * ID manager: 32-bit IDs that stand for objects, with a check value and a count of references.
 *
 *     qel_idm_pool_create("sessions", 1000, 0, &pool);
 *     qel_idm_set_destructor(pool, free_session, NULL);
 *     qel_idm_get_id(pool, session, &id);               // the creator's reference
 *
 *     session = qel_idm_lookup_and_retain_id(pool, id); // in each call: find, work, release
 *     if (session == NULL) return EINVAL;
 *     ...
 *     qel_idm_release_id(pool, id);
 *
 *     qel_idm_lookup_and_retain_id(pool, id);           // deleting: no lookup finds it from the withdraw
 *     qel_idm_release_and_withdraw_id(pool, id);        // on; calls in flight finish, and the last
 *     qel_idm_release_id(pool, id);                     // release runs the destructor
 *
 * IDs and pool handles are opaque; no ID is 0. In a random pool a released ID is refused until its entry has
 * had 256 lives. In a sequential pool IDs count up from 1 while the first block of entries lasts, and a
 * released ID names its entry's next object.
 *
 * Threads: every call may be made from any thread, also from a destructor, which runs with no lock held on
 * the thread that released last. Lookups that retain, and releases but the last, take no lock. The one duty
 * of the caller: no call works on a pool while it is being destroyed.
 *
 * Results are 0 or a composite code (qel/cerrno.h); 0xa0000016 for a bad pool handle, a null argument that is
 * needed, ID 0, and an ID outside the pool's geometry. Calls that give a pointer give null for any failure.
 */
#ifndef QEL_IDM_H
#define QEL_IDM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** What a module keeps in its pool variable while it has no pool. No pool ever has this handle. */
#define QEL_IDM_NO_POOL 65535u

/** Called once for each object, when the last reference to its ID has gone. May call back into the pool. */
typedef void (*qel_idm_destructor)(void* context, void* destructor_context);

/**
 * Makes a pool of at most 'max_ids' IDs (1 to 2^24), in slots of about 4 x sqrt(max_ids) entries that are
 * allocated when needed. 'name' is copied. 'no_randomize' 1 makes a sequential pool, anything else a random
 * one.
 *
 * Returns 0; 0xa0000016, also when memory is short or 127 pools exist.
 */
QEL_API cerrno qel_idm_pool_create(const char* name, uint32_t max_ids, int no_randomize, uint32_t* handle);

/** The same with a geometry of one's own: 1 to 256 slots of 1 to 65,536 entries. */
QEL_API cerrno qel_idm_pool_create_by_slots(const char* name, uint32_t num_slots, uint32_t slot_size,
                                            int no_randomize, uint32_t* handle);

/**
 * Destroys the pool and writes 0 into its handle; does nothing for null or a bad handle. No destructor is
 * called: the objects of IDs in use are the caller's to free before.
 */
QEL_API void qel_idm_pool_destroy(uint32_t* handle);

/** Sets or replaces the pool's destructor. Returns 0; 0xa0000016. */
QEL_API cerrno qel_idm_set_destructor(uint32_t pool, qel_idm_destructor destructor, void* destructor_context);

/**
 * Assigns a free ID to 'context' (not null), with one reference. Released entries are reused last.
 *
 * Returns 0; 0xa0000002 when as many IDs as the pool may hold are in use, or its destruction has begun;
 * 0xa000001c when no entry is left or memory is short; 0xa0000016.
 */
QEL_API cerrno qel_idm_get_id(uint32_t pool, void* context, uint32_t* id);

/**
 * Assigns exactly 'id' to 'context', with one reference; may exceed the pool's 'max_ids'. Searches the free
 * entries. In a sequential pool 'id' is within 1..0x1000000.
 *
 * Returns 0; 0xa0000011 when its entry isn't free; 0xa000000e when memory is short; 0xa0000016.
 */
QEL_API cerrno qel_idm_reserve_id(uint32_t pool, uint32_t id, void* context);

/**
 * Gives the ID's object without a reference, so that only the caller's knowledge keeps it alive; a withdrawn
 * ID is found, too. The output is null after any failure.
 *
 * Returns 0; 0xa0000002 for an ID that is not in use; 0xa0000016.
 */
QEL_API cerrno qel_idm_id_to_ctx(uint32_t pool, uint32_t id, void** context);

/**
 * Gives the ID's object with one more reference, which the caller releases; null for an ID that is not in use
 * or is withdrawn, and for one with 2^32 - 1 references.
 */
QEL_API void* qel_idm_lookup_and_retain_id(uint32_t pool, uint32_t id);

/** The same, but a withdrawn ID is found, too. */
QEL_API void* qel_idm_lookup_and_retain_any_id(uint32_t pool, uint32_t id);

/**
 * Gives the object of the next ID after 'previous_id' (0 to start) that is in use and not withdrawn, with one
 * more reference. The walk ascends by entry, whatever became of the previous ID. Null at the end; 'next_id'
 * is written only with an object.
 */
QEL_API void* qel_idm_lookup_next_and_retain(uint32_t pool, uint32_t previous_id, uint32_t* next_id);

/** The same walk without a reference, for sequential pools only. At the end 'next_id' becomes 0. */
QEL_API void* qel_idm_get_next_id(uint32_t pool, uint32_t previous_id, uint32_t* next_id);

/**
 * Drops one reference; the last one frees the ID and runs the destructor.
 *
 * Returns 0, also for an ID that is not in use, which changes nothing; 0xa0000016.
 */
QEL_API cerrno qel_idm_release_id(uint32_t pool, uint32_t id);

/** qel_idm_release_id() of the ID at 'id', which is left as it is. */
QEL_API cerrno qel_idm_delete_id(uint32_t pool, const uint32_t* id);

/**
 * Drops one reference and, if others are left, withdraws the ID: it is no longer found by lookups and walks.
 *
 * Returns 0; 0xa0000010 when it was withdrawn already (the reference is dropped all the same); 0xa0000016.
 */
QEL_API cerrno qel_idm_release_and_withdraw_id(uint32_t pool, uint32_t id);

/** Gives the number of IDs in use, withdrawn ones included. A snapshot. Returns 0; 0xa0000016. */
QEL_API cerrno qel_idm_get_count(uint32_t pool, uint32_t* count);

/** Gives the ID's count of references. A snapshot. Returns 0; 0xa0000002 when not in use; 0xa0000016. */
QEL_API cerrno qel_idm_get_id_refcount(uint32_t pool, uint32_t id, uint32_t* count);

/** Gives 1 if the ID is withdrawn, else 0. A snapshot. Returns 0; 0xa0000002 when not in use; 0xa0000016. */
QEL_API cerrno qel_idm_is_id_withdrawn(uint32_t pool, uint32_t id, uint8_t* withdrawn);

/** Gives the number of the ID's entry in the pool. Returns 0; 0xa0000002 when not in use; 0xa0000016. */
QEL_API cerrno qel_idm_id_to_index(uint32_t pool, uint32_t id, uint32_t* index);

/** Gives the ID of the entry 'index', in use or not; for sequential pools only. Returns 0; 0xa0000016. */
QEL_API cerrno qel_idm_index_to_id(uint32_t pool, uint32_t index, uint32_t* id);

QEL_END_DECLS

#endif
