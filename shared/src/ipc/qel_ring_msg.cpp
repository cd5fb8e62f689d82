// The way of a message: allocate, produce, consume, release, and from ring to ring.
//
//     Free --alloc--> Allocated --produce--> Produced --consume--> Consumed --release--> Free
//       ^                 |  ^                   ^                   | | |
//       +-- free pool ----+  +----- realloc -----(-------------------+ | |
//                                                +------- move --------+ +-- freeze (qel_ring_recovery.cpp)
//
// Allocating, releasing and realloc run under ring_free, producing under ring_prod, consuming under nothing:
// prod_count hands a message over (R1, A1). A step that spans two rings holds both mutexes, so that no other
// process sees, and no death leaves, a message between its places.
//
// Invariant: qel_ring.cpp tells it. Words of the segment are bounded before they are used; a step that finds
// one out of bounds changes nothing and gives EINVAL.
// Locks: ring_free before ring_prod; of two ring_free, that of ring 0 last. Nothing is reported inside.
// Threads: any; one consumer for each ring. Restart: see ring_recover().
#include <qel/base.h>

#include <cerrno>

#include "ipc/qel_ring_words.hpp"

namespace qel {
namespace {

constexpr cerrno kBadArgument = fatal(EINVAL);
// A word of the segment is out of bounds: somebody has scribbled.
constexpr cerrno kBrokenSegment = fatal(EINVAL);

// A message that a caller handed in: its number, if it lies in the pool's area.
class GivenMessage {
  public:
    GivenMessage(const qel_ring* ring, const qel_ring_msg* message) {
        if (ring == nullptr || message == nullptr) return;
        number_ = ring_message_number(*ring, *message);
        known_ = number_ < ring->alloc_ring->size;
    }
    explicit operator bool() const { return known_; }
    std::uint32_t number() const { return number_; }

  private:
    std::uint32_t number_ = 0;
    bool known_ = false;
};

cerrno take_from_pool_locked(qel_ring& pool, std::uint16_t ring_num, qel_ring_msg*& out) {
    RingHeader& header = *pool.hdr;
    std::uint32_t count = peek(header.free_count);
    if (count == 0) return fatal(ENOSPC);
    std::uint32_t slot = peek(header.free_idx);
    if (slot >= pool.size) return kBrokenSegment;
    std::uint32_t number = peek(pool.index[slot]);
    qel_ring_msg* message = message_at(pool, number);
    if (message == nullptr || state_of(*message) != MessageState::free) return kBrokenSegment;
    poke(header.free_count, count - 1);
    poke(header.free_idx, next_slot(pool, slot));
    std::uint32_t serial = peek(header.serial) + 1;
    poke(header.serial, serial);
    poke(message->handle, serial << 16 | number);
    poke(message->ring, ring_num);
    // Before the state, so that the reclaim of another ring never takes the message for its own.
    poke(message->alloc_ring, ring_num);
    set_state(*message, MessageState::allocated);
    out = message;
    return 0;
}

// The counts are read in this order: a message moves from prod_count to cons_count, and in the other order
// one on its way could be missed in both. With one slot alone it still can, so the slot's own message is
// asked.
bool is_full(const qel_ring& ring, std::uint32_t slot) {
    const RingHeader& header = *ring.hdr;
    if (ring.num == 0) return false;
    // A3: pairs with R3, so a slot is written anew only after its release has read it.
    if (slot != peek(header.rel_idx, std::memory_order_acquire)) return false;
    if (peek(header.prod_count, std::memory_order_acquire) != 0 || peek(header.cons_count) != 0) return true;
    const qel_ring_msg* only = ring.size == 1 ? message_in(ring, slot) : nullptr;
    return only != nullptr && (stands_in(ring, slot, *only, MessageState::produced) ||
                               stands_in(ring, slot, *only, MessageState::consumed));
}

// Whether the ring takes one more message, and the slot for it. ring_prod is held.
cerrno find_room_locked(const qel_ring& ring, std::uint32_t& slot) {
    if (peek(ring.hdr->frozen) != 0) return fatal(EPIPE);
    slot = peek(ring.hdr->prod_idx);
    if (slot >= ring.size) return kBrokenSegment;
    return is_full(ring, slot) ? fatal(ENOSPC) : 0;
}

void enter_slot(qel_ring& ring, std::uint32_t slot, qel_ring_msg& message, std::uint32_t number) {
    poke(ring.index[slot], static_cast<std::uint16_t>(number));
    poke(message.ring_index, static_cast<std::uint16_t>(slot));
}

void append_locked(qel_ring& ring, std::uint32_t slot, qel_ring_msg& message, std::uint32_t number) {
    enter_slot(ring, slot, message, number);
    poke(message.ring, ring.num);
    set_state(message, MessageState::produced);
    poke(ring.hdr->prod_idx, next_slot(ring, slot));
    // R1: publishes slot and message; A1 in claim_one() sees them. Last, since consumers look at it alone.
    std::atomic_ref{ring.hdr->prod_count}.fetch_add(1, std::memory_order_release);
}

cerrno produce_locked(qel_ring& ring, qel_ring_msg& message, std::uint32_t number) {
    std::uint32_t slot = 0;
    if (cerrno error = find_room_locked(ring, slot); error != 0) return error;
    if (state_of(message) != MessageState::allocated) return kBadArgument;
    append_locked(ring, slot, message, number);
    return 0;
}

// Moves what another slot holds into 'slot'.
void copy_entry(qel_ring& ring, std::uint32_t from, std::uint32_t slot) {
    std::uint32_t number = peek(ring.index[from]);
    if (qel_ring_msg* message = message_at(*ring.alloc_ring, number); message != nullptr)
        enter_slot(ring, slot, *message, number);
}

// The newest entry becomes the oldest: all between move up by one slot. ring_prod is held.
void move_newest_to_head_locked(qel_ring& ring, qel_ring_msg& message, std::uint32_t number) {
    std::uint32_t head = peek(ring.hdr->cons_idx);
    if (head >= ring.size) return;
    std::uint32_t slot = peek(message.ring_index);
    for (std::uint32_t left = ring.size; slot != head && slot < ring.size && left > 0; --left) {
        std::uint32_t before = slot_before(ring, slot);
        copy_entry(ring, before, slot);
        slot = before;
    }
    if (slot == head) enter_slot(ring, head, message, number);
}

// Takes one of the messages that are counted, if there is one.
cerrno claim_one(qel_ring& ring) {
    std::atomic_ref count{ring.hdr->prod_count};
    std::uint32_t seen = count.load(std::memory_order_acquire);
    while (seen != 0 && seen <= ring.size)  // A1
        if (count.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel, std::memory_order_acquire))
            return 0;
    return seen == 0 ? try_again(EAGAIN) : kBrokenSegment;
}

// Steps cons_idx over the slot to consume; false if it is no slot.
bool claim_slot(qel_ring& ring, std::uint32_t& slot) {
    std::atomic_ref index{ring.hdr->cons_idx};
    slot = index.load(std::memory_order_relaxed);
    while (slot < ring.size)
        if (index.compare_exchange_weak(slot, next_slot(ring, slot), std::memory_order_acq_rel,
                                        std::memory_order_relaxed))
            return true;
    return false;
}

// The steps are in the order that ring_recover() counts on. Null if the slot names no message.
cerrno consume_one(qel_ring& ring, qel_ring_msg*& message) {
    if (cerrno error = claim_one(ring); error != 0) return error;
    std::uint32_t slot = 0;
    if (!claim_slot(ring, slot)) return kBrokenSegment;
    message = message_in(ring, slot);
    std::atomic_ref{ring.hdr->cons_count}.fetch_add(1, std::memory_order_acq_rel);
    if (message != nullptr) set_state(*message, MessageState::consumed);
    return 0;
}

// What consuming will touch, and its caller after that: the header, the message and its payload's beginning.
void ask_for_next(const qel_ring& ring) {
    want_to_write(&ring.hdr->prod_count);
    want_to_write(&ring.hdr->cons_count);
    std::uint32_t slot = peek(ring.hdr->cons_idx);
    const qel_ring_msg* message = slot < ring.size ? message_in(ring, slot) : nullptr;
    if (message == nullptr) return;
    want_to_write(message);
    want_to_read(message + 1);
    want_to_read(message + 2);
}

// Slots that name no message are passed over, so that who drains a ring gets all that there is.
cerrno consume(qel_ring& ring, qel_ring_msg*& out) {
    if (peek(ring.hdr->prod_count) == 0) return try_again(EAGAIN);
    ask_for_next(ring);
    qel_ring_msg* message = nullptr;
    for (std::uint32_t left = ring.size; message == nullptr; --left) {
        if (left == 0) return kBrokenSegment;
        if (cerrno error = consume_one(ring, message); error != 0) return error;
    }
    out = message;
    return 0;
}

// Where a consumed message stands, and the slot that is released in its place.
struct ConsumedPlace {
    std::uint32_t slot;
    std::uint32_t oldest;
};

// False for a message that isn't Consumed on this ring. ring_free is held.
bool find_consumed_locked(const qel_ring& ring, const qel_ring_msg& message, std::uint32_t number,
                          ConsumedPlace& place) {
    place = {peek(message.ring_index), peek(ring.hdr->rel_idx)};
    return place.slot < ring.size && place.oldest < ring.size && peek(ring.hdr->cons_count) != 0 &&
           stands_in(ring, place.slot, message, MessageState::consumed) &&
           peek(ring.index[place.slot]) == number;
}

void retire_oldest_locked(qel_ring& ring, std::uint32_t oldest) {
    std::atomic_ref{ring.hdr->cons_count}.fetch_sub(1, std::memory_order_acq_rel);
    // R3: the slot has been read; A3 in is_full() may write it.
    poke(ring.hdr->rel_idx, next_slot(ring, oldest), std::memory_order_release);
}

// The message's slot becomes free, in ring 0 as the newest of the pool. The state is the caller's to set.
void release_slot_locked(qel_ring& ring, qel_ring_msg& message, std::uint32_t number,
                         const ConsumedPlace& place) {
    if (place.slot != place.oldest) {
        copy_entry(ring, place.oldest, place.slot);
        enter_slot(ring, place.oldest, message, number);
    }
    retire_oldest_locked(ring, place.oldest);
    if (ring.num == 0) poke(ring.hdr->free_count, peek(ring.hdr->free_count) + 1);
}

// The message's slot becomes free without the message. In ring 0 the free region must stay as large as it is,
// so its oldest entry moves into the slot, and the gap grows by one.
cerrno leave_slot_locked(qel_ring& ring, const ConsumedPlace& place) {
    RingHeader& header = *ring.hdr;
    std::uint32_t free = peek(header.free_idx);
    if (free >= ring.size) return kBrokenSegment;
    if (place.slot != place.oldest) copy_entry(ring, place.oldest, place.slot);
    if (ring.num == 0) {
        if (free != place.oldest) copy_entry(ring, free, place.oldest);
        poke(header.free_idx, next_slot(ring, free));
    }
    retire_oldest_locked(ring, place.oldest);
    return 0;
}

cerrno release(qel_ring& ring, qel_ring_msg& message, std::uint32_t number) {
    RingLocked lock{ring.hdr->ring_free};
    ConsumedPlace place;
    if (!find_consumed_locked(ring, message, number, place)) return kBadArgument;
    set_state(message, MessageState::free);
    release_slot_locked(ring, message, number, place);
    return 0;
}

cerrno put_in_pool(qel_ring& pool, qel_ring_msg& message, std::uint32_t number) {
    RingLocked lock{pool.hdr->ring_free};
    return put_in_pool_locked(pool, message, number);
}

cerrno release_to_pool(qel_ring& ring, qel_ring_msg& message, std::uint32_t number) {
    RingLocked lock{ring.hdr->ring_free};
    ConsumedPlace place;
    if (!find_consumed_locked(ring, message, number, place)) return kBadArgument;
    RingLocked pool_lock{ring.alloc_ring->hdr->ring_free};
    // Not Allocated on the way: a reclaim of the ring that allocated it would take it.
    set_state(message, MessageState::free);
    release_slot_locked(ring, message, number, place);
    return put_in_pool_locked(*ring.alloc_ring, message, number);
}

}  // namespace

cerrno put_in_pool_locked(qel_ring& pool, qel_ring_msg& message, std::uint32_t number) {
    RingHeader& header = *pool.hdr;
    std::uint32_t slot = peek(header.free_idx);
    std::uint32_t count = peek(header.free_count);
    if (slot >= pool.size || count >= pool.size) return kBrokenSegment;
    if (!is_on_no_ring(message)) return kBadArgument;
    slot = slot_before(pool, slot);
    poke(message.ring, std::uint16_t{0});
    set_state(message, MessageState::free);
    enter_slot(pool, slot, message, number);
    poke(header.free_idx, slot);
    poke(header.free_count, count + 1);
    return 0;
}

cerrno drop_oldest_locked(qel_ring& ring, std::uint32_t oldest) {
    return leave_slot_locked(ring, {oldest, oldest});
}

std::span<std::byte> ring_payload(const qel_ring& ring, qel_ring_msg& message) {
    return {reinterpret_cast<std::byte*>(&message + 1), ring.alloc_ring->msg_size};
}

std::uint32_t ring_message_number(const qel_ring& ring, const qel_ring_msg& message) {
    const qel_ring& pool = *ring.alloc_ring;
    auto offset = reinterpret_cast<std::uintptr_t>(&message) - reinterpret_cast<std::uintptr_t>(pool.msgs);
    if (offset >= std::uint64_t{pool.size} * pool.stride) return pool.size;
    // In 32 bits, in which a segment's size fits: that division is the quick one.
    std::uint32_t number = static_cast<std::uint32_t>(offset) / pool.stride;
    return number * pool.stride == offset ? number : pool.size;
}

cerrno ring_move(qel_ring& own, qel_ring& destination, qel_ring_msg& message) {
    GivenMessage given{&own, &message};
    if (!given || destination.alloc_ring != own.alloc_ring) return kBadArgument;
    want_to_write(&destination.hdr->prod_count);
    RingLocked own_lock{own.hdr->ring_free};
    ConsumedPlace place;
    if (!find_consumed_locked(own, message, given.number(), place)) return kBadArgument;
    RingLocked destination_lock{destination.hdr->ring_prod};
    std::uint32_t slot = 0;
    if (cerrno error = find_room_locked(destination, slot); error != 0) return error;
    if (cerrno error = leave_slot_locked(own, place); error != 0) return error;
    append_locked(destination, slot, message, given.number());
    return 0;
}

cerrno ring_give_back(qel_ring& own, qel_ring_msg& message) {
    GivenMessage given{&own, &message};
    if (!given) return kBadArgument;
    if (state_of(message) != MessageState::consumed)
        return put_in_pool(*own.alloc_ring, message, given.number());
    return own.num == 0 ? release(own, message, given.number())
                        : release_to_pool(own, message, given.number());
}

}  // namespace qel

using namespace qel;

cerrno qel_ring_msg_alloc(qel_ring* ring, qel_ring_msg** out) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || out == nullptr) return kBadArgument;
    qel_ring& pool = *ring->alloc_ring;
    want_to_write(&pool.hdr->serial);
    RingLocked lock{pool.hdr->ring_free};
    return take_from_pool_locked(pool, ring->num, *out);
}

cerrno qel_ring_msg_produce(qel_ring* ring, qel_ring_msg* message) {
    qel_check_not_interrupt_path();
    GivenMessage given{ring, message};
    if (!given) return kBadArgument;
    RingLocked lock{ring->hdr->ring_prod};
    return produce_locked(*ring, *message, given.number());
}

cerrno qel_ring_msg_produce_at_head(qel_ring* ring, qel_ring_msg* message) {
    qel_check_not_interrupt_path();
    GivenMessage given{ring, message};
    if (!given) return kBadArgument;
    RingLocked lock{ring->hdr->ring_prod};
    cerrno error = produce_locked(*ring, *message, given.number());
    if (error == 0) move_newest_to_head_locked(*ring, *message, given.number());
    return error;
}

cerrno qel_ring_msg_consume(qel_ring* ring, qel_ring_msg** out) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || out == nullptr) return kBadArgument;
    return consume(*ring, *out);
}

cerrno qel_ring_msg_realloc(qel_ring* ring, qel_ring_msg* message) {
    qel_check_not_interrupt_path();
    GivenMessage given{ring, message};
    if (!given) return kBadArgument;
    RingLocked lock{ring->hdr->ring_free};
    ConsumedPlace place;
    if (!find_consumed_locked(*ring, *message, given.number(), place)) return kBadArgument;
    if (cerrno error = leave_slot_locked(*ring, place); error != 0) return error;
    set_state(*message, MessageState::allocated);
    return 0;
}

cerrno qel_ring_msg_free(qel_ring* ring, qel_ring_msg* message) {
    qel_check_not_interrupt_path();
    GivenMessage given{ring, message};
    if (!given) return kBadArgument;
    if (state_of(*message) == MessageState::allocated)
        return put_in_pool(*ring->alloc_ring, *message, given.number());
    return release(*ring, *message, given.number());
}

cerrno qel_ring_msg_add_to_free_pool(qel_ring* ring, qel_ring_msg* message) {
    qel_check_not_interrupt_path();
    GivenMessage given{ring, message};
    if (!given || ring->num != 0) return kBadArgument;
    return put_in_pool(*ring, *message, given.number());
}

cerrno qel_ring_msg_handle_to_addr(qel_ring* ring, uint32_t handle, qel_ring_msg** out) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || out == nullptr) return kBadArgument;
    std::uint32_t number = handle & 0xffff;
    qel_ring_msg* message = number < ring->size ? message_at(*ring->alloc_ring, number) : nullptr;
    if (message == nullptr || state_of(*message) == MessageState::free || peek(message->handle) != handle)
        return kBadArgument;
    *out = message;
    return 0;
}
