// IDs: assigning, resolving, retaining, releasing, withdrawing, walking.
//
// An ID names an entry and, in a random pool, one of 256 lives of that entry. Retain and release are one
// compare-and-swap on the entry's state word each: it tests that the entry is in use, in the ID's life and
// not withdrawn, and counts, in one step. The release that counts to 0 takes the entry out of use in that
// same step, so from then on nobody finds it; only afterwards does it take the lock, to queue the entry for
// its next life.
//
// Invariant: an entry's object pointer is written only under the pool's lock, and neither while anyone holds
// a reference nor between a look at the state and at the pointer under one lock. Locks: a pool's 'lock' for
// assignment, for the end of the last release, and for lookups that take no reference. The destructor runs
// after it is let go, on the thread that released last, and may end that thread. Threads: any. Orders: R3 to
// A3 hands an object to who looks it up, R4 to A4 the work of all holders to who destroys it.
#include "containers/qel_idm.hpp"

#include <qel/base.h>

#include <cerrno>

#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"

using namespace qel;
using namespace qel::idm;

namespace {

enum class ReleaseMode : std::uint32_t { drop = 3, drop_and_withdraw = 4 };

// --- From an ID to its entry

// Where an ID leads, and what the entry there must show to be named by it. No entry for an ID outside the
// pool's geometry, in a slot without entries, or of no pool.
struct Place {
    Pool* pool = nullptr;
    Entry* entry = nullptr;
    Demand demand{};

    explicit operator bool() const { return entry != nullptr; }
};

Entry* block_of(const Pool& pool, std::uint32_t slot) {
    return pool.slots[slot].load(std::memory_order_acquire);  // A1: sees the entries that R1 publishes
}

// Inlined, since the calls around it are little longer than it.
[[gnu::always_inline]] inline Place find_place(std::uint32_t handle, std::uint32_t id) {
    Pool* pool = find_pool(handle);
    IdParts parts = split(id);
    if (pool == nullptr || id == kNoId) return {};
    if (parts.slot >= pool->num_slots || parts.position >= pool->slot_size) return {};
    Entry* block = block_of(*pool, parts.slot);
    if (block == nullptr) return {};
    return {pool, block + parts.position, pool->marks.in_life(parts.gen)};
}

std::uint64_t state_word(const Entry& entry) {
    return entry.state.load(std::memory_order_relaxed);
}

// Gives the state of the entry as long as the ID names it: a snapshot, which may be past on return.
cerrno read_state(const Place& place, EntryState* state) {
    if (!place) return fatal(EINVAL);
    std::uint64_t word = state_word(*place.entry);
    if (!place.demand.met_by(word)) return fatal(ENOENT);
    *state = unpack(word);
    return 0;
}

// --- References

// Takes one more reference as long as the entry's state meets 'demand'. The count doesn't wrap: an ID with
// all references taken can't be retained.
[[gnu::always_inline]] inline bool take_reference(Entry& entry, Demand demand) {
    std::uint64_t word = state_word(entry);
    std::uint64_t next = 0;
    do {
        if (!demand.met_by(word) || __builtin_add_overflow(word, kOneReference, &next)) return false;
    } while (!entry.state.compare_exchange_weak(word, next,
                                                std::memory_order_acquire,  // A3
                                                std::memory_order_relaxed));
    return true;
}

// Finds what 'id' names and takes a reference; 'also_withdrawn' finds what lookups no longer find, too.
[[gnu::always_inline]] inline Held hold(std::uint32_t handle, std::uint32_t id, bool also_withdrawn) {
    Place place = find_place(handle, id);
    if (!place) return {};
    Demand demand = also_withdrawn ? place.demand : place.demand.and_not_withdrawn();
    return take_reference(*place.entry, demand) ? Held{place.pool, place.entry} : Held{};
}

void* object_of(const Held& held) {
    return held.entry == nullptr ? nullptr : held.entry->ctx;
}

// What is left to do once an ID is gone: the object to destroy, and how.
struct Remains {
    void* ctx;
    qel_idm_destructor destructor;
    void* destructor_ctx;
};

// Queues an entry that the caller took out of use for its next life.
Remains bury(Pool& pool, Entry& entry) {
    Locked lock{pool.lock};
    pool.in_use.store(pool.in_use.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    Remains remains{std::exchange(entry.ctx, nullptr), pool.destructor, pool.destructor_ctx};
    qel_queue_enqueue(&pool.free_queue, &entry);
    return remains;
}

// Out of line, so that a release that isn't the last one saves no registers for this.
[[gnu::noinline]] cerrno end_life_in_release(Pool& pool, Entry& entry) {
    end_life(pool, entry);
    return 0;
}

// What a release makes of a state.
std::uint64_t released(const Pool& pool, std::uint64_t word, ReleaseMode mode) {
    bool withdraw = mode == ReleaseMode::drop_and_withdraw && !is_last_reference(word);
    return pool.marks.after_release(word) | (withdraw ? kWithdrawnMark : 0);
}

[[gnu::always_inline]] inline cerrno delete_id_internal(std::uint32_t handle, std::uint32_t id,
                                                        ReleaseMode mode) {
    Place place = find_place(handle, id);
    if (!place) return fatal(EINVAL);
    std::uint64_t word = state_word(*place.entry);
    do {
        if (!place.demand.met_by(word)) return 0;
    } while (!place.entry->state.compare_exchange_weak(word, released(*place.pool, word, mode),
                                                       std::memory_order_acq_rel,  // R4, A4
                                                       std::memory_order_relaxed));
    if (is_last_reference(word)) return end_life_in_release(*place.pool, *place.entry);
    bool again = mode == ReleaseMode::drop_and_withdraw && (word & kWithdrawnMark) != 0;
    return again ? fatal(EBUSY) : 0;
}

// --- Assignment

std::uint8_t first_generation(const Pool& pool) {
    return pool.marks.sequential() ? 0 : static_cast<std::uint8_t>(qel_random_bounded_uint32(1, 99999));
}

// A block for 'slot' whose entries get their generation from 'next_generation'; null without memory.
template <class Generation>
Entry* make_block(Pool& pool, std::uint32_t slot, Generation next_generation) {
    Entry* block = allocate_zeroed<Entry>(QEL_MEM_UTILS, pool.slot_size).release();
    if (block == nullptr) return nullptr;
    for (std::uint32_t position = 0; position < pool.slot_size; ++position) {
        EntryState state{.gen = next_generation(), .slot = static_cast<std::uint8_t>(slot)};
        block[position].state.store(pack(state), std::memory_order_relaxed);
    }
    pool.slots[slot].store(block, std::memory_order_release);  // R1: publishes the states; A1 in block_of()
    return block;
}

// Queues a block's entries in their order, all but 'left_out'.
void queue_block_locked(Pool& pool, Entry* block, const Entry* left_out) QEL_REQUIRES(pool.lock) {
    for (Entry* entry = block; entry != block + pool.slot_size; ++entry)
        if (entry != left_out) qel_queue_enqueue(&pool.free_queue, entry);
}

bool add_block_locked(Pool& pool) QEL_REQUIRES(pool.lock) {
    std::uint32_t slot = 0;
    while (slot < pool.num_slots && block_of(pool, slot) != nullptr) ++slot;
    if (slot == pool.num_slots) return false;
    Entry* block = make_block(pool, slot, [&] { return first_generation(pool); });
    if (block == nullptr) return false;
    queue_block_locked(pool, block, nullptr);
    return true;
}

Entry* take_free_locked(Pool& pool) QEL_REQUIRES(pool.lock) {
    void* entry = qel_queue_dequeue(&pool.free_queue);
    if (entry == nullptr && add_block_locked(pool)) entry = qel_queue_dequeue(&pool.free_queue);
    return static_cast<Entry*>(entry);
}

std::uint32_t id_of(const Pool& pool, const Entry& entry) {
    EntryState state = unpack(state_word(entry));
    auto position = static_cast<std::uint32_t>(&entry - block_of(pool, state.slot));
    return compose_id(pool.marks.sequential() ? 0 : state.gen, state.slot, position);
}

// Brings a free entry, off the queue, into use with generation 'gen'.
void assign_locked(Pool& pool, Entry& entry, std::uint8_t gen, void* context) QEL_REQUIRES(pool.lock) {
    EntryState state{.gen = gen, .slot = unpack(state_word(entry)).slot, .refcount = 1};
    entry.ctx = context;
    pool.in_use.store(pool.in_use.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    entry.state.store(pack(state) | pool.marks.in_use,
                      std::memory_order_release);  // R3: shows the object; A3 in take_reference()
}

// Passes over the one life whose ID would be 0.
void skip_life_locked(Pool& pool, Entry& entry) QEL_REQUIRES(pool.lock) {
    entry.state.store(pool.marks.after_life(state_word(entry)), std::memory_order_relaxed);
    qel_queue_enqueue(&pool.free_queue, &entry);
}

// Takes the entry at a reserved place off the free queue, making its block if need be.
cerrno claim_locked(Pool& pool, const IdParts& parts, Entry** claimed) QEL_REQUIRES(pool.lock) {
    if (Entry* block = block_of(pool, parts.slot); block != nullptr) {
        *claimed = block + parts.position;
        if (pool.marks.in_any_life().met_by(state_word(**claimed))) return fatal(EEXIST);
        return qel_queue_unqueue(&pool.free_queue, *claimed) == nullptr ? fatal(EEXIST) : 0;
    }
    Entry* block = make_block(pool, parts.slot, [&] { return parts.gen; });
    if (block == nullptr) return fatal(EFAULT);
    *claimed = block + parts.position;
    queue_block_locked(pool, block, *claimed);
    return 0;
}

bool may_reserve(const Pool& pool, std::uint32_t id, const IdParts& parts) {
    if (id == kNoId || parts.slot >= pool.num_slots || parts.position >= pool.slot_size) return false;
    return !pool.marks.sequential() || parts.gen == 0;
}

// --- Walks

// The first entry after the place of 'previous_id', in order of slot and position, that 'accept' takes.
template <class Accept>
Entry* next_entry(const Pool& pool, std::uint32_t previous_id, Accept accept) {
    IdParts start = previous_id == kNoId ? IdParts{} : split(previous_id);
    std::uint32_t position = previous_id == kNoId ? 0 : start.position + 1;
    for (std::uint32_t slot = start.slot; slot < pool.num_slots; ++slot, position = 0) {
        Entry* block = block_of(pool, slot);
        if (block == nullptr) continue;
        for (; position < pool.slot_size; ++position)
            if (accept(block[position])) return &block[position];
    }
    return nullptr;
}

}  // namespace

Held qel::idm::retain(std::uint32_t handle, std::uint32_t id) {
    return hold(handle, id, false);
}

Held qel::idm::retain_any(std::uint32_t handle, std::uint32_t id) {
    return hold(handle, id, true);
}

Held qel::idm::retain_next(std::uint32_t handle, std::uint32_t previous_id, std::uint32_t* next_id) {
    Pool* pool = find_pool(handle);
    if (pool == nullptr || next_id == nullptr) return {};
    Demand live = pool->marks.in_any_life().and_not_withdrawn();
    Entry* next = next_entry(*pool, previous_id, [=](Entry& entry) { return take_reference(entry, live); });
    if (next == nullptr) return {};
    *next_id = id_of(*pool, *next);
    return {pool, next};
}

void qel::idm::end_life(Pool& pool, Entry& entry) {
    Remains remains = bury(pool, entry);
    if (remains.destructor != nullptr) remains.destructor(remains.ctx, remains.destructor_ctx);
}

cerrno qel_idm_get_id(uint32_t handle, void* context, uint32_t* id) {
    Pool* pool = find_pool(handle);
    if (pool == nullptr || context == nullptr || id == nullptr) return fatal(EINVAL);
    Locked lock{pool->lock};
    if (!pool->active || pool->in_use.load(std::memory_order_relaxed) == pool->max_ids) return fatal(ENOENT);
    Entry* entry = take_free_locked(*pool);
    if (entry == nullptr) return fatal(ENOSPC);
    std::uint32_t fresh_id = id_of(*pool, *entry);
    if (fresh_id == kNoId) {
        skip_life_locked(*pool, *entry);
        return fatal(ENOSPC);
    }
    *id = fresh_id;  // before others can find the object, which may be where this is written
    assign_locked(*pool, *entry, split(fresh_id).gen, context);
    return 0;
}

cerrno qel_idm_reserve_id(uint32_t handle, uint32_t id, void* context) {
    Pool* pool = find_pool(handle);
    if (pool == nullptr || context == nullptr) return fatal(EINVAL);
    IdParts parts = split(id);
    Locked lock{pool->lock};
    if (!pool->active || !may_reserve(*pool, id, parts)) return fatal(EINVAL);
    Entry* entry = nullptr;
    if (cerrno error = claim_locked(*pool, parts, &entry); error != 0) return error;
    assign_locked(*pool, *entry, parts.gen, context);
    return 0;
}

cerrno qel_idm_id_to_ctx(uint32_t handle, uint32_t id, void** context) {
    if (context == nullptr) return fatal(EINVAL);
    *context = nullptr;
    Place place = find_place(handle, id);
    if (!place) return fatal(EINVAL);
    // Even if the last release runs now, the pointer stays until it gets the lock.
    Locked lock{place.pool->lock};
    if (!place.demand.met_by(state_word(*place.entry))) return fatal(ENOENT);
    *context = place.entry->ctx;
    return 0;
}

void* qel_idm_lookup_and_retain_id(uint32_t handle, uint32_t id) {
    return object_of(hold(handle, id, false));
}

void* qel_idm_lookup_and_retain_any_id(uint32_t handle, uint32_t id) {
    return object_of(hold(handle, id, true));
}

void* qel_idm_lookup_next_and_retain(uint32_t handle, uint32_t previous_id, uint32_t* next_id) {
    return object_of(idm::retain_next(handle, previous_id, next_id));
}

void* qel_idm_get_next_id(uint32_t handle, uint32_t previous_id, uint32_t* next_id) {
    Pool* pool = find_pool(handle);
    if (pool == nullptr || next_id == nullptr || !pool->marks.sequential()) return nullptr;
    Demand live = pool->marks.in_any_life().and_not_withdrawn();
    Locked lock{pool->lock};
    Entry* next =
        next_entry(*pool, previous_id, [=](Entry& entry) { return live.met_by(state_word(entry)); });
    *next_id = next == nullptr ? kNoId : id_of(*pool, *next);
    return next == nullptr ? nullptr : next->ctx;
}

cerrno qel_idm_release_id(uint32_t handle, uint32_t id) {
    return delete_id_internal(handle, id, ReleaseMode::drop);
}

cerrno qel_idm_delete_id(uint32_t handle, const uint32_t* id) {
    return id == nullptr ? fatal(EINVAL) : qel_idm_release_id(handle, *id);
}

cerrno qel_idm_release_and_withdraw_id(uint32_t handle, uint32_t id) {
    return delete_id_internal(handle, id, ReleaseMode::drop_and_withdraw);
}

cerrno qel_idm_get_id_refcount(uint32_t handle, uint32_t id, uint32_t* count) {
    EntryState state;
    if (count == nullptr) return fatal(EINVAL);
    if (cerrno error = read_state(find_place(handle, id), &state); error != 0) return error;
    *count = state.refcount;
    return 0;
}

cerrno qel_idm_is_id_withdrawn(uint32_t handle, uint32_t id, uint8_t* withdrawn) {
    EntryState state;
    if (withdrawn == nullptr) return fatal(EINVAL);
    if (cerrno error = read_state(find_place(handle, id), &state); error != 0) return error;
    *withdrawn = (state.flags & kWithdrawn) != 0;
    return 0;
}

cerrno qel_idm_id_to_index(uint32_t handle, uint32_t id, uint32_t* index) {
    EntryState state;
    if (index == nullptr) return fatal(EINVAL);
    Place place = find_place(handle, id);
    if (cerrno error = read_state(place, &state); error != 0) return error;
    *index = split(id).slot * place.pool->slot_size + split(id).position;
    return 0;
}

cerrno qel_idm_index_to_id(uint32_t handle, uint32_t index, uint32_t* id) {
    const Pool* pool = find_pool(handle);
    if (pool == nullptr || id == nullptr || !pool->marks.sequential()) return fatal(EINVAL);
    if (index / pool->slot_size >= pool->num_slots) return fatal(EINVAL);
    *id = compose_id(0, index / pool->slot_size, index % pool->slot_size);
    return 0;
}
