/** @file
 * Hash set, hash map and the general hash of a byte string.
 *
 * A `qel_hashset` chains elements that the caller owns: an element embeds a `qel_hash_link`, the caller
 * supplies the hash and the match. It allocates nothing for an element; its array of buckets follows the
 * count through a fixed table of primes. A `qel_hashmap` pairs keys with values on top of it and keeps its
 * own tuples.
 *
 *      struct route { uint32_t prefix; qel_hash_link link; };
 *      static uint32_t route_hash(const void* route, void* context);
 *      static bool route_match(const void* probe, const void* route, void* context);
 *
 *      qel_hashset* routes;
 *      int32_t at = offsetof(struct route, link);
 *      int error = qel_hashset_create(&routes, NULL, at, route_hash, route_match, NULL);
 *      qel_hashset_insert(routes, route);
 *      struct route probe = { .prefix = wanted };
 *      struct route* found = qel_hashset_get(routes, &probe);
 *
 * Order: iteration goes through the buckets in ascending index and through a chain from its head. A new
 * element heads its chain, so of several with one hash the newest comes first - until the next resize. A
 * resize walks the old array in iteration order and puts each element at the head of its new chain, which
 * turns elements of one hash round; the next one turns them back. Who needs the newest of several equal keys
 * keeps one key once.
 *
 * Size: a set begins with 13 buckets and goes to the next prime when its count passes 85 per cent of the
 * size, to the previous one when it falls below 20 per cent, one step or more; 13 and 85,210,757 are the
 * ends. A resize that finds no memory leaves the set as it is, with longer chains, and the next insertion or
 * removal tries again.
 *
 * Threads: there are no locks in here. The caller makes sure that one thread at a time uses a set or map;
 * different ones are independent. The hash and match functions run inside the calls and must return. A
 * handler of an iteration may end its thread.
 */
#ifndef QEL_HASH_H
#define QEL_HASH_H

#include <stdbool.h>

#include <qel/mem.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

/** Returns the hash of 'size' bytes: Jenkins's one-at-a-time with each byte taken as signed. 0 for null
 * 'bytes' and for a size of 0 or less. */
QEL_API uint32_t qel_hash_calculate(const void* bytes, int32_t size);

/** The link inside an element. The set writes it at insertion and doesn't clear it at removal. */
typedef struct qel_hash_link {
    struct qel_hash_link** pprev; /**< the word that points to this link: the bucket, or the 'next' before */
    struct qel_hash_link* next;   /**< the next link down the chain, or null */
} qel_hash_link;

/** Attributes of a table. They have no effect. */
typedef struct qel_hash_attr {
    uint32_t size; /**< not looked at */
} qel_hash_attr;

struct qel_hashset;
struct qel_hashmap;

/** Gives the hash of an element, or of a probe. 'context' is the one given at creation. */
typedef uint32_t (*qel_hashset_hash)(const void* element, void* context);
/** Tells whether 'element' is what 'probe' asks for. */
typedef bool (*qel_hashset_match)(const void* probe, const void* element, void* context);
/** Visits one element; the result is ignored. 'context' is the one given to the iteration. */
typedef int (*qel_hashset_handler)(struct qel_hashset* set, void* element, void* context);

/** A set, made by qel_hashset_create() only: more of it, private to the library, follows. All fields are for
 * reading. */
typedef struct qel_hashset {
    qel_hash_link** buckets; /**< 'size' chain heads */
    int32_t link_offset;     /**< bytes from the start of an element to its link */
    uint32_t size;           /**< buckets */
    int32_t count;           /**< elements */
    int32_t iterating;       /**< depth of running iterations; not 0: no resize */
    int32_t low_water;       /**< a count below shrinks the set */
    int32_t high_water;      /**< a count above grows it */
    qel_hashset_hash hash;   /**< as given at creation */
    qel_hashset_match match; /**< as given at creation */
    void* context;           /**< handed to both */
} qel_hashset;

/** Does nothing, as attributes have no effect. Returns 0. */
QEL_API int qel_hash_attr_init(qel_hash_attr* attr);
/** Does nothing: sizes follow the count. */
QEL_API void qel_hash_attr_sethashtable(qel_hash_attr* attr, uint32_t size);

/** Makes an empty set and stores it in 'out'. 'attr' is ignored. 'hash' and 'match' get 'context'.
 * Returns 0; EINVAL for a null 'out', 'hash' or 'match'; ENOMEM. 'out' is written on success only. */
QEL_API int qel_hashset_create(qel_hashset** out, const qel_hash_attr* attr, int32_t link_offset,
                               qel_hashset_hash hash, qel_hashset_match match, void* context);

/** Frees the set and nulls the pointer; elements are not touched. Not for use inside an iteration of the same
 * set. Does nothing for a null pointer or set. */
QEL_API void qel_hashset_free(qel_hashset** set);

/** Adds 'element' at the head of its chain. Duplicates are not looked for; an element that is in the set
 * already is the caller's error. Does nothing for a null argument. */
QEL_API void qel_hashset_insert(qel_hashset* set, void* element);

/** Takes away 'element', which must be in the set. Neither hash nor match is called for it. Does nothing for
 * a null argument. */
QEL_API void qel_hashset_remove(qel_hashset* set, void* element);

/** Returns the first element in the chain of 'probe' for which match(probe, element) holds, or null. The
 * probe need only be good enough for the two functions. Null for a null argument. */
QEL_API void* qel_hashset_get(qel_hashset* set, const void* probe);

/** Returns the next element down the chain for which match('element', it) holds, or null: walks duplicates.
 */
QEL_API void* qel_hashset_get_next(qel_hashset* set, void* element);

/** Returns the first element in iteration order; null for a null or empty set. */
QEL_API void* qel_hashset_first(qel_hashset* set);

/** Returns the element behind 'element' in iteration order; null at the end and for a null argument. A change
 * of the set may resize it and so begin another order; use qel_hashset_iterate() to change it on the way. */
QEL_API void* qel_hashset_next(qel_hashset* set, void* element);

/** Returns the number of elements; 0 for a null set. */
QEL_API size_t qel_hashset_size(const qel_hashset* set);

/** Calls 'handler' for every element in iteration order. The handler may remove any element, free the one it
 * was given, insert some (which it may or may not meet) and iterate again; the set resizes when the outermost
 * iteration ends, so an element that is freed leaves the set first. Does nothing for a null set or handler.
 */
QEL_API void qel_hashset_iterate(qel_hashset* set, qel_hashset_handler handler, void* context);

/** A key with its value, kept by the map. What both refer to stays the caller's. */
typedef struct qel_hashmap_tuple {
    qel_hash_link link; /**< the set's */
    void* key;          /**< not to be changed while in the map */
    void* value;        /**< the caller's to change */
} qel_hashmap_tuple;

/** Gives the hash of a key. 'context' is the one given at creation. */
typedef uint32_t (*qel_hashmap_key_hash)(const void* key, void* context);
/** Tells whether two keys are equal. 'context' is the one given at creation. */
typedef bool (*qel_hashmap_key_match)(const void* left, const void* right, void* context);
/** Visits one tuple; the result is ignored. 'context' is the one given to the iteration. */
typedef int (*qel_hashmap_handler)(struct qel_hashmap* map, qel_hashmap_tuple* tuple, void* context);

/** A map. All fields are for reading. */
typedef struct qel_hashmap {
    qel_mem_chunk* tuples;           /**< the pool of its tuples */
    qel_hashset* set;                /**< the tuples by key */
    qel_hashmap_key_hash key_hash;   /**< as given at creation */
    qel_hashmap_key_match key_match; /**< as given at creation */
    void* key_context;               /**< handed to both */
} qel_hashmap;

/** Makes an empty map and stores it in 'out'. 'attr' is ignored.
 * Returns 0; EINVAL for a null 'out', 'key_hash' or 'key_match'; ENOMEM. 'out' is written on success only.
 */
QEL_API int qel_hashmap_create(qel_hashmap** out, const qel_hash_attr* attr, qel_hashmap_key_hash key_hash,
                               qel_hashmap_key_match key_match, void* key_context);

/** Frees the map with the tuples in it and nulls the pointer; keys and values are not touched. Does nothing
 * for a null pointer or map. */
QEL_API void qel_hashmap_free(qel_hashmap** map);

/** Adds a tuple of 'key' and 'value' without looking for the key: a second one goes in beside the first and
 * is the one that qel_hashmap_get() finds, until the next resize (see Order). A key of 0 goes in, but can't
 * be looked up. Returns the tuple, which the map owns; null for a null map and when memory is short. */
QEL_API qel_hashmap_tuple* qel_hashmap_insert(qel_hashmap* map, void* key, void* value);

/** Returns the tuple of 'key'; null for a null map, a key of 0 and a key that isn't there. */
QEL_API qel_hashmap_tuple* qel_hashmap_get(qel_hashmap* map, const void* key);
/** Returns the value of 'key'; null as for qel_hashmap_get(), and for a value of null. */
QEL_API void* qel_hashmap_get_value(qel_hashmap* map, const void* key);

/** Returns the next tuple of the key that 'tuple' has, or null; with a null 'tuple' as qel_hashmap_get() for
 * 'key'. */
QEL_API qel_hashmap_tuple* qel_hashmap_get_next(qel_hashmap* map, const void* key, qel_hashmap_tuple* tuple);

/** Returns the tuple's key; null for a null tuple. */
QEL_API void* qel_hashmap_key(const qel_hashmap_tuple* tuple);
/** Returns the tuple's value; null for a null tuple. */
QEL_API void* qel_hashmap_value(const qel_hashmap_tuple* tuple);

/** Takes 'tuple' out of the map, which must hold it, and frees it.
 * Returns 0; ENOENT for a null tuple; EINVAL for a null map. */
QEL_API int qel_hashmap_remove_tuple(qel_hashmap* map, qel_hashmap_tuple* tuple);

/** Takes away the tuple that qel_hashmap_get() would find.
 * Returns 0; EINVAL for a null map or a key of 0; ENOENT when there is none. */
QEL_API int qel_hashmap_remove(qel_hashmap* map, const void* key);

/** Returns the number of tuples; 0 for a null map. */
QEL_API size_t qel_hashmap_size(const qel_hashmap* map);
/** Returns the first tuple in iteration order; null for a null or empty map. */
QEL_API qel_hashmap_tuple* qel_hashmap_first(qel_hashmap* map);
/** Returns the tuple behind 'tuple' in iteration order, as qel_hashset_next(). */
QEL_API qel_hashmap_tuple* qel_hashmap_next(qel_hashmap* map, qel_hashmap_tuple* tuple);
/** Calls 'handler' for every tuple, with the freedoms of qel_hashset_iterate(): it may remove tuples and
 * insert some. Does nothing for a null map or handler. */
QEL_API void qel_hashmap_iterate(qel_hashmap* map, qel_hashmap_handler handler, void* context);

QEL_END_DECLS

#endif
