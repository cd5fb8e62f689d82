// Hash map: keys and values in tuples of a private pool, found by a hash set.
//
// A tuple begins with its link, and the set's hash and match unpack the keys for the caller's functions. A
// lookup asks the set with a tuple on the stack that has nothing but the key. A pool with tuples out can't be
// destroyed, so freeing a map returns them first.
//
// Invariant: the pool's tuples that are out are those in the set.
// Locks and threads: none; the caller of each map holds its own lock, which is why the pool has no mutex.
#include "containers/qel_hashset.hpp"

#include <cerrno>

#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kTuplesPerBlock = 64;
constexpr std::uint32_t kTupleFlags = QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_FAST_FREE | QEL_MEM_CHUNK_NO_SYNC;
static_assert(sizeof(qel_hashmap_tuple) == 32 && kTupleFlags == 0x411);

void destroy_pool(qel_mem_chunk* pool) {
    static_cast<void>(qel_mem_chunk_destroy(pool));  // Every tuple is back, or none was ever taken.
}
using TuplePool = Unique<qel_mem_chunk*, destroy_pool>;

std::uint32_t hash_tuple(const void* tuple, void* context) {
    const auto* map = static_cast<qel_hashmap*>(context);
    return map->key_hash(static_cast<const qel_hashmap_tuple*>(tuple)->key, map->key_context);
}

bool match_tuples(const void* probe, const void* tuple, void* context) {
    const auto* map = static_cast<qel_hashmap*>(context);
    return map->key_match(static_cast<const qel_hashmap_tuple*>(probe)->key,
                          static_cast<const qel_hashmap_tuple*>(tuple)->key, map->key_context);
}

// What an iteration of the set needs to call the map's handler.
struct MapVisit {
    qel_hashmap* map;
    qel_hashmap_handler handler;
    void* context;
};

int visit_tuple(qel_hashset*, void* tuple, void* context) {
    const auto* visit = static_cast<MapVisit*>(context);
    return visit->handler(visit->map, static_cast<qel_hashmap_tuple*>(tuple), visit->context);
}

int free_tuple(qel_hashset*, void* tuple, void* pool) {
    return qel_mem_chunk_free(static_cast<qel_mem_chunk*>(pool), tuple);
}

}  // namespace
}  // namespace qel

using namespace qel;

int qel_hashmap_create(qel_hashmap** out, const qel_hash_attr*, qel_hashmap_key_hash key_hash,
                       qel_hashmap_key_match key_match, void* key_context) {
    if (out == nullptr || key_hash == nullptr || key_match == nullptr) return EINVAL;
    Owned<qel_hashmap> map = allocate_zeroed<qel_hashmap>(QEL_MEM_UTILS);
    if (!map) return ENOMEM;
    TuplePool tuples{qel_mem_chunk_create(sizeof(qel_hashmap_tuple), kTuplesPerBlock, kTupleFlags, 0, 4,
                                          "qel hashmap tuples")};
    if (!tuples) return ENOMEM;
    int error = qel_hashset_create(&map->set, nullptr, 0, hash_tuple, match_tuples, map.get());
    if (error != 0) return error;
    map->tuples = tuples.release();
    map->key_hash = key_hash;
    map->key_match = key_match;
    map->key_context = key_context;
    *out = map.release();
    return 0;
}

void qel_hashmap_free(qel_hashmap** map) {
    if (map == nullptr || *map == nullptr) return;
    Owned<qel_hashmap> owned{*map};
    *map = nullptr;
    visit_all(*inner(owned->set), free_tuple, owned->tuples);
    qel_hashset_free(&owned->set);
    destroy_pool(owned->tuples);
}

qel_hashmap_tuple* qel_hashmap_insert(qel_hashmap* map, void* key, void* value) {
    if (map == nullptr) return nullptr;
    auto* tuple = static_cast<qel_hashmap_tuple*>(qel_mem_chunk_malloc(map->tuples));
    if (tuple == nullptr) return nullptr;
    tuple->key = key;
    tuple->value = value;
    qel_hashset_insert(map->set, tuple);
    return tuple;
}

qel_hashmap_tuple* qel_hashmap_get(qel_hashmap* map, const void* key) {
    if (map == nullptr || key == nullptr) return nullptr;
    const qel_hashmap_tuple probe{{}, const_cast<void*>(key), nullptr};
    return static_cast<qel_hashmap_tuple*>(qel_hashset_get(map->set, &probe));
}

void* qel_hashmap_get_value(qel_hashmap* map, const void* key) {
    return qel_hashmap_value(qel_hashmap_get(map, key));
}

qel_hashmap_tuple* qel_hashmap_get_next(qel_hashmap* map, const void* key, qel_hashmap_tuple* tuple) {
    if (map == nullptr) return nullptr;
    if (tuple == nullptr) return qel_hashmap_get(map, key);
    return static_cast<qel_hashmap_tuple*>(qel_hashset_get_next(map->set, tuple));
}

void* qel_hashmap_key(const qel_hashmap_tuple* tuple) {
    return tuple == nullptr ? nullptr : tuple->key;
}

void* qel_hashmap_value(const qel_hashmap_tuple* tuple) {
    return tuple == nullptr ? nullptr : tuple->value;
}

int qel_hashmap_remove_tuple(qel_hashmap* map, qel_hashmap_tuple* tuple) {
    if (tuple == nullptr) return ENOENT;
    if (map == nullptr) return EINVAL;
    qel_hashset_remove(map->set, tuple);
    static_cast<void>(qel_mem_chunk_free(map->tuples, tuple));  // It came from this pool.
    return 0;
}

int qel_hashmap_remove(qel_hashmap* map, const void* key) {
    if (map == nullptr || key == nullptr) return EINVAL;
    return qel_hashmap_remove_tuple(map, qel_hashmap_get(map, key));
}

size_t qel_hashmap_size(const qel_hashmap* map) {
    return map == nullptr ? 0 : qel_hashset_size(map->set);
}

qel_hashmap_tuple* qel_hashmap_first(qel_hashmap* map) {
    return map == nullptr ? nullptr : static_cast<qel_hashmap_tuple*>(qel_hashset_first(map->set));
}

qel_hashmap_tuple* qel_hashmap_next(qel_hashmap* map, qel_hashmap_tuple* tuple) {
    return map == nullptr ? nullptr : static_cast<qel_hashmap_tuple*>(qel_hashset_next(map->set, tuple));
}

void qel_hashmap_iterate(qel_hashmap* map, qel_hashmap_handler handler, void* context) {
    if (map == nullptr || handler == nullptr) return;
    MapVisit visit{map, handler, context};
    qel_hashset_iterate(map->set, visit_tuple, &visit);
}
