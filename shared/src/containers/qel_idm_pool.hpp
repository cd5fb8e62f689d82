// The records of the ID manager: the table of pools, and the entries that IDs name.
//
//     idm_pool[127] --slots--> [ 0 | 1 | 2 | ... ]      one pointer a slot, null until the slot is needed
//                                |   |
//                                v   v
//                               [ entries ]             a block of slot_size entries
//
// Blocks appear while the pool lives and go only when it is destroyed, so an ID resolves without a lock. All
// that decides whether an ID is good lies in the entry's state word, beside its count of references: one
// compare-and-swap tests and counts.
#pragma once

#include <qel/idm.h>
#include <qel/queue.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "core/qel_lock.hpp"

namespace qel::idm {

// An entry's second word, taken apart.
//
//             get_id, reserve_id                        the last release
//     free ---------------------> in use -------------------------------------> leaving ------> free
//     (on the free queue)         (refcount >= 1; may get withdrawn)          (the releaser's)
//
// Entering use is a store under the pool's lock. All changes in use, and the step out of it, are
// compare-and-swaps by any thread. In between the entry is on no queue and not in use: it belongs to the
// thread that is about to queue it.
struct EntryState {
    std::uint8_t gen = 0;    // random pool: part of the ID. Sequential pool: bit 7 is the in-use mark
    std::uint8_t slot = 0;   // never changes
    std::uint8_t flags = 0;  // kInUse (random pools only), kWithdrawn
    std::uint8_t reserved = 0;
    std::uint32_t refcount = 0;
};
// The count is the upper half, so that its overflow is that of the packed word.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(EntryState) == sizeof(std::uint64_t) && offsetof(EntryState, refcount) == 4);

inline constexpr std::uint8_t kInUse = 1;
inline constexpr std::uint8_t kWithdrawn = 2;
inline constexpr std::uint8_t kSequentialInUse = 0x80;
inline constexpr std::uint32_t kMaxReferences = 0xffffffff;

// On the packed word one more reference is an addition and a withdrawal is an OR.
inline constexpr auto kOneReference = std::bit_cast<std::uint64_t>(EntryState{.refcount = 1});
inline constexpr auto kAllReferences = std::bit_cast<std::uint64_t>(EntryState{.refcount = kMaxReferences});
inline constexpr auto kNextLife = std::bit_cast<std::uint64_t>(EntryState{.gen = 1});
inline constexpr auto kWithdrawnMark = std::bit_cast<std::uint64_t>(EntryState{.flags = kWithdrawn});

constexpr EntryState unpack(std::uint64_t word) {
    return std::bit_cast<EntryState>(word);
}
constexpr std::uint64_t pack(EntryState state) {
    return std::bit_cast<std::uint64_t>(state);
}

constexpr bool is_last_reference(std::uint64_t word) {
    return unpack(word).refcount == 1;
}

// What a state word must show. Bits outside 'mask' don't matter.
struct Demand {
    std::uint64_t mask;
    std::uint64_t wanted;

    bool met_by(std::uint64_t word) const { return (word & mask) == wanted; }
    Demand and_not_withdrawn() const { return {mask | kWithdrawnMark, wanted}; }
};

// How the entries of a pool show that they are in use, and in which life.
struct LifeMarks {
    std::uint64_t in_use;
    std::uint64_t mask;  // 'in_use' and, in a random pool, the generation

    bool sequential() const { return mask == in_use; }
    Demand in_any_life() const { return {in_use, in_use}; }
    // The in-use mark is demanded in every pool: a free entry has the generation of its next life already.
    Demand in_life(std::uint8_t gen) const { return {mask, (pack({.gen = gen}) & mask) | in_use}; }
    // What the last release makes of a state: out of use and, in a random pool, ready for the next life. The
    // withdrawn mark stays until the next assignment.
    std::uint64_t after_life(std::uint64_t word) const {
        return (word & ~(mask | kAllReferences)) | ((word + kNextLife) & mask & ~in_use);
    }
    std::uint64_t after_release(std::uint64_t word) const {
        return is_last_reference(word) ? after_life(word) : word - kOneReference;
    }
};
inline constexpr LifeMarks kRandomMarks{pack({.flags = kInUse}), pack({.gen = 0xff, .flags = kInUse})};
inline constexpr LifeMarks kSequentialMarks{pack({.gen = kSequentialInUse}), pack({.gen = kSequentialInUse})};

struct Entry {
    // The object while in use, else the free queue's link. Written under the pool's lock by who assigns or
    // queues the entry; read under that lock, or with a reference in hand.
    void* ctx;
    std::atomic<std::uint64_t> state;
};
static_assert(sizeof(Entry) == 16 && offsetof(Entry, state) == 8);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

using Block = std::atomic<Entry*>;

// What a lookup reads stands together in a cache line that assignments and last releases don't write to, nor
// to the line that is fetched along with it.
struct Pool {
    Block* slots;  // non-null marks the place in the table as taken; guarded by idm_pool_mutex and 'handle'
    char* name;    // for a reader of a core file
    std::uint32_t num_slots;
    std::uint32_t slot_size;
    std::uint32_t max_ids;  // what qel_idm_get_id() stops at
    // Opens and closes the place to calls. Written last when a pool is made and first when it is destroyed.
    std::atomic<std::uint32_t> handle{QEL_IDM_NO_POOL};
    LifeMarks marks;

    alignas(128) Mutex lock;
    bool active QEL_GUARDED_BY(lock);
    qel_idm_destructor destructor QEL_GUARDED_BY(lock);
    void* destructor_ctx QEL_GUARDED_BY(lock);
    std::atomic<std::uint32_t> in_use;  // written under 'lock', read without; withdrawn IDs count
    qel_queue free_queue QEL_GUARDED_BY(lock);
};

inline constexpr std::uint32_t kPoolPlaces = 128;
inline constexpr std::uint32_t kMaxSlots = 256;
inline constexpr std::uint32_t kMaxSlotSize = 65536;

extern Mutex idm_pool_mutex;
extern Pool idm_pool[kPoolPlaces];

// The living pool that 'handle' names, or null.
inline Pool* find_pool(std::uint32_t handle) {
    std::uint32_t index = handle & 0xffff;
    if (index >= kPoolPlaces) return nullptr;
    Pool& pool = idm_pool[index];
    // A2: sees the geometry that R2 in open_pool_locked() publishes.
    return pool.handle.load(std::memory_order_acquire) == handle ? &pool : nullptr;
}

// An ID taken apart. Slot and position are within 8 and 16 bits, but may lie outside a pool's geometry.
struct IdParts {
    std::uint8_t gen;
    std::uint32_t slot;
    std::uint32_t position;
};

inline constexpr std::uint32_t kNoId = 0;

constexpr IdParts split(std::uint32_t id) {
    std::uint32_t raw = id - 1;
    return {static_cast<std::uint8_t>(raw >> 24), raw >> 16 & 0xff, raw & 0xffff};
}
constexpr std::uint32_t compose_id(std::uint8_t gen, std::uint32_t slot, std::uint32_t position) {
    return (std::uint32_t{gen} << 24 | slot << 16 | position) + 1;
}
static_assert(compose_id(0, 0, 0) == 1 && compose_id(0xff, 0xff, 0xffff) == kNoId);

}  // namespace qel::idm
