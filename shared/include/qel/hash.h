#ifndef QEL_HASH_H
#define QEL_HASH_H

#include <stdbool.h>

#include <qel/mem.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

QEL_API uint32_t qel_hash_calculate(const void* bytes, int32_t size);

typedef struct qel_hash_link {
    struct qel_hash_link** pprev;
    struct qel_hash_link* next;
} qel_hash_link;

typedef struct qel_hash_attr {
    uint32_t size;
} qel_hash_attr;

struct qel_hashset;
struct qel_hashmap;

typedef uint32_t (*qel_hashset_hash)(const void* element, void* context);
typedef bool (*qel_hashset_match)(const void* probe, const void* element, void* context);
typedef int (*qel_hashset_handler)(struct qel_hashset* set, void* element, void* context);

typedef struct qel_hashset {
    qel_hash_link** buckets;
    int32_t link_offset;
    uint32_t size;
    int32_t count;
    int32_t iterating;
    int32_t low_water;
    int32_t high_water;
    qel_hashset_hash hash;
    qel_hashset_match match;
    void* context;
} qel_hashset;

QEL_API int qel_hash_attr_init(qel_hash_attr* attr);
QEL_API void qel_hash_attr_sethashtable(qel_hash_attr* attr, uint32_t size);

QEL_API int qel_hashset_create(qel_hashset** out, const qel_hash_attr* attr, int32_t link_offset,
                               qel_hashset_hash hash, qel_hashset_match match, void* context);
QEL_API void qel_hashset_free(qel_hashset** set);
QEL_API void qel_hashset_insert(qel_hashset* set, void* element);
QEL_API void qel_hashset_remove(qel_hashset* set, void* element);
QEL_API void* qel_hashset_get(qel_hashset* set, const void* probe);
QEL_API void* qel_hashset_get_next(qel_hashset* set, void* element);
QEL_API void* qel_hashset_first(qel_hashset* set);
QEL_API void* qel_hashset_next(qel_hashset* set, void* element);
QEL_API size_t qel_hashset_size(const qel_hashset* set);
QEL_API void qel_hashset_iterate(qel_hashset* set, qel_hashset_handler handler, void* context);

typedef struct qel_hashmap_tuple {
    qel_hash_link link;
    void* key;
    void* value;
} qel_hashmap_tuple;

typedef uint32_t (*qel_hashmap_key_hash)(const void* key, void* context);
typedef bool (*qel_hashmap_key_match)(const void* left, const void* right, void* context);
typedef int (*qel_hashmap_handler)(struct qel_hashmap* map, qel_hashmap_tuple* tuple, void* context);

typedef struct qel_hashmap {
    qel_mem_chunk* tuples;
    qel_hashset* set;
    qel_hashmap_key_hash key_hash;
    qel_hashmap_key_match key_match;
    void* key_context;
} qel_hashmap;

QEL_API int qel_hashmap_create(qel_hashmap** out, const qel_hash_attr* attr, qel_hashmap_key_hash key_hash,
                               qel_hashmap_key_match key_match, void* key_context);
QEL_API void qel_hashmap_free(qel_hashmap** map);
QEL_API qel_hashmap_tuple* qel_hashmap_insert(qel_hashmap* map, void* key, void* value);
QEL_API qel_hashmap_tuple* qel_hashmap_get(qel_hashmap* map, const void* key);
QEL_API void* qel_hashmap_get_value(qel_hashmap* map, const void* key);
QEL_API qel_hashmap_tuple* qel_hashmap_get_next(qel_hashmap* map, const void* key, qel_hashmap_tuple* tuple);
QEL_API void* qel_hashmap_key(const qel_hashmap_tuple* tuple);
QEL_API void* qel_hashmap_value(const qel_hashmap_tuple* tuple);
QEL_API int qel_hashmap_remove_tuple(qel_hashmap* map, qel_hashmap_tuple* tuple);
QEL_API int qel_hashmap_remove(qel_hashmap* map, const void* key);
QEL_API size_t qel_hashmap_size(const qel_hashmap* map);
QEL_API qel_hashmap_tuple* qel_hashmap_first(qel_hashmap* map);
QEL_API qel_hashmap_tuple* qel_hashmap_next(qel_hashmap* map, qel_hashmap_tuple* tuple);
QEL_API void qel_hashmap_iterate(qel_hashmap* map, qel_hashmap_handler handler, void* context);

QEL_END_DECLS

#endif
