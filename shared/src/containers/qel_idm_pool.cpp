// ID pools: the process-wide table, and the making, sizing and ending of pools.
//
// A pool takes a place in the table; its handle is the place's index with a serial number above it, so that
// the handle of an earlier pool at the same place fails. A pool of N IDs has about sqrt(N) / 4 slots of 4 x
// sqrt(N) entries: small while empty, and never with more slots than an ID's 8 bits can tell apart.
//
// Invariant: a place whose 'handle' is QEL_IDM_NO_POOL is unreachable for every call but the creation of a
// pool. Locks: idm_pool_mutex guards the table, then a pool's 'lock' its entries. Threads: any; that no call
// works on a pool that is being destroyed is the caller's to see to.
#include "containers/qel_idm_pool.hpp"

#include <qel/base.h>

#include <cerrno>
#include <cstring>

#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"

namespace qel::idm {

constinit Mutex idm_pool_mutex;
constinit Pool idm_pool[kPoolPlaces]{};

namespace {

// The newest pool's serial, never 0 once a pool was made.
constinit std::uint16_t idm_serial QEL_GUARDED_BY(idm_pool_mutex) = 0;

constexpr std::uint32_t kMaxIds = kMaxSlots * kMaxSlotSize;

struct Geometry {
    std::uint32_t num_slots;
    std::uint32_t slot_size;
    std::uint32_t max_ids;
};

constexpr std::uint32_t ceiling_of_quotient(std::uint32_t dividend, std::uint32_t divisor) {
    return (dividend + divisor - 1) / divisor;
}

constexpr std::uint32_t idm_sqrt(std::uint32_t n) {
    std::uint32_t root = (n + 1) / 2;
    std::uint32_t previous = 1;
    while (root > previous + 1 || previous > root + 1) {
        previous = root;
        root = (n / root + root) / 2;
    }
    while (std::uint64_t{root} * root > n) --root;
    return root;
}

constexpr Geometry size_for(std::uint32_t max_ids) {
    std::uint32_t even_root = (idm_sqrt(max_ids) + 1) & ~1u;
    std::uint32_t slot_size = 4 * even_root;
    if (ceiling_of_quotient(max_ids, slot_size) > kMaxSlots)
        slot_size = ceiling_of_quotient(max_ids, kMaxSlots);
    return {ceiling_of_quotient(max_ids, slot_size), slot_size, max_ids};
}
static_assert(size_for(1).num_slots == 1 && size_for(1).slot_size == 8);
static_assert(size_for(512).num_slots == 6 && size_for(512).slot_size == 88);
static_assert(size_for(1000).num_slots == 8 && size_for(1000).slot_size == 128);
static_assert(size_for(kMaxIds).num_slots == kMaxSlots && size_for(kMaxIds).slot_size == kMaxSlotSize);

Owned<char> copy_of(const char* text) {
    std::size_t size = std::strlen(text) + 1;
    Owned<char> copy = allocate_zeroed<char>(QEL_MEM_UTILS, size);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

// The index of a free place, found from a random start on; 0, which is never given out, when there is none.
std::uint32_t free_place_locked() QEL_REQUIRES(idm_pool_mutex) {
    std::uint32_t start = qel_random_bounded_uint32(1, 99999);
    for (std::uint32_t step = 0; step < kPoolPlaces; ++step) {
        std::uint32_t index = (start + step) % kPoolPlaces;
        if (index != 0 && idm_pool[index].slots == nullptr) return index;
    }
    return 0;
}

std::uint32_t next_serial_locked() QEL_REQUIRES(idm_pool_mutex) {
    if (++idm_serial == 0) ++idm_serial;
    return idm_serial;
}

// Fills the place and gives the pool's handle.
std::uint32_t open_pool_locked(std::uint32_t index, const Geometry& geometry, bool sequential,
                               Owned<Block> slots, Owned<char> name) QEL_REQUIRES(idm_pool_mutex) {
    Pool& pool = idm_pool[index];
    Locked lock{pool.lock};
    qel_queue_init(&pool.free_queue, 0);
    pool.slots = slots.release();
    pool.name = name.release();
    pool.num_slots = geometry.num_slots;
    pool.slot_size = geometry.slot_size;
    pool.max_ids = geometry.max_ids;
    pool.marks = sequential ? kSequentialMarks : kRandomMarks;
    pool.in_use.store(0, std::memory_order_relaxed);
    pool.destructor = nullptr;
    pool.destructor_ctx = nullptr;
    pool.active = true;
    std::uint32_t handle = next_serial_locked() << 16 | index;
    pool.handle.store(handle,
                      std::memory_order_release);  // R2: publishes all of the above; A2 in find_pool()
    return handle;
}

cerrno create_pool(const char* name, const Geometry& geometry, bool sequential, std::uint32_t* handle) {
    Owned<Block> slots = allocate_zeroed<Block>(QEL_MEM_UTILS, geometry.num_slots);
    Owned<char> name_copy = copy_of(name);
    if (!slots || !name_copy) return fatal(EINVAL);
    Locked lock{idm_pool_mutex};
    std::uint32_t index = free_place_locked();
    if (index == 0) return fatal(EINVAL);
    *handle = open_pool_locked(index, geometry, sequential, std::move(slots), std::move(name_copy));
    return 0;
}

void free_memory_locked(Pool& pool) QEL_REQUIRES(idm_pool_mutex, pool.lock) {
    for (std::uint32_t slot = 0; slot < pool.num_slots; ++slot)
        qel_named_free(pool.slots[slot].load(std::memory_order_relaxed));
    qel_named_free(std::exchange(pool.slots, nullptr));
    qel_named_free(std::exchange(pool.name, nullptr));
    pool.num_slots = 0;
    pool.slot_size = 0;
}

bool is_name(const char* name) {
    return name != nullptr && *name != '\0';
}

}  // namespace
}  // namespace qel::idm

using namespace qel;
using namespace qel::idm;

cerrno qel_idm_pool_create(const char* name, uint32_t max_ids, int no_randomize, uint32_t* handle) {
    if (!is_name(name) || handle == nullptr || max_ids == 0 || max_ids > kMaxIds) return fatal(EINVAL);
    return create_pool(name, size_for(max_ids), no_randomize == 1, handle);
}

cerrno qel_idm_pool_create_by_slots(const char* name, uint32_t num_slots, uint32_t slot_size,
                                    int no_randomize, uint32_t* handle) {
    if (!is_name(name) || handle == nullptr || num_slots == 0 || slot_size == 0) return fatal(EINVAL);
    if (num_slots > kMaxSlots || slot_size > kMaxSlotSize) return fatal(EINVAL);
    return create_pool(name, {num_slots, slot_size, num_slots * slot_size}, no_randomize == 1, handle);
}

void qel_idm_pool_destroy(uint32_t* handle) {
    if (handle == nullptr) return;
    Locked table_lock{idm_pool_mutex};
    Pool* pool = find_pool(*handle);
    if (pool == nullptr) return;
    Locked lock{pool->lock};
    pool->handle.store(QEL_IDM_NO_POOL, std::memory_order_relaxed);
    pool->active = false;
    qel_queue_init(&pool->free_queue, 0);
    free_memory_locked(*pool);
    *handle = 0;
}

cerrno qel_idm_set_destructor(uint32_t handle, qel_idm_destructor destructor, void* destructor_context) {
    Pool* pool = find_pool(handle);
    if (pool == nullptr || destructor == nullptr) return fatal(EINVAL);
    Locked lock{pool->lock};
    if (!pool->active) return fatal(EINVAL);
    pool->destructor = destructor;
    pool->destructor_ctx = destructor_context;
    return 0;
}

cerrno qel_idm_get_count(uint32_t handle, uint32_t* count) {
    const Pool* pool = find_pool(handle);
    if (pool == nullptr || count == nullptr) return fatal(EINVAL);
    *count = pool->in_use.load(std::memory_order_relaxed);
    return 0;
}
