// What the files of the ring share: words that other processes write at any time, the one way from a number
// to a message, and the guard of a ring's mutexes.
//
// A word is read once, then checked, then used: below ring_size for an index, below the pool's size for a
// message number. qel_ring.cpp tells the invariant that the words keep.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/qel_codes.hpp"
#include "core/qel_prefetch.hpp"
#include "ipc/qel_ring.hpp"

namespace qel {

// A report of a lock that fails or is waited for; the calls go on.
struct RingLockFailures : SilentSharedLockFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
    static void waited_long(const LongWait& wait);
};
using RingLocked = BasicSharedLocked<RingLockFailures>;

template <class Word>
Word peek(const Word& word, std::memory_order order = std::memory_order_relaxed) {
    return std::atomic_ref{const_cast<Word&>(word)}.load(order);
}
template <class Word>
void poke(Word& word, std::type_identity_t<Word> value, std::memory_order order = std::memory_order_relaxed) {
    std::atomic_ref{word}.store(value, order);
}

// Null for a number that no message of the pool has.
inline qel_ring_msg* message_at(const qel_ring& pool, std::uint32_t number) {
    if (number >= pool.size) return nullptr;
    return reinterpret_cast<qel_ring_msg*>(pool.msgs + std::size_t{number} * pool.stride);
}
// The message in a slot, which is below the ring's size.
inline qel_ring_msg* message_in(const qel_ring& ring, std::uint32_t slot) {
    return message_at(*ring.alloc_ring, peek(ring.index[slot]));
}

// A2: pairs with R2, so who finds a state sees the ring numbers that go with it.
inline MessageState state_of(const qel_ring_msg& message) {
    return static_cast<MessageState>(peek(message.state, std::memory_order_acquire));
}
// R2: after all that a message is in this state; A2 in state_of().
inline void set_state(qel_ring_msg& message, MessageState state) {
    poke(message.state, static_cast<std::uint32_t>(state), std::memory_order_release);
}

inline std::uint32_t next_slot(const qel_ring& ring, std::uint32_t slot) {
    return slot + 1 >= ring.size ? 0 : slot + 1;
}
inline std::uint32_t slot_before(const qel_ring& ring, std::uint32_t slot) {
    return slot == 0 ? ring.size - 1u : slot - 1;
}
// How many slots lie from 'from' up to 'to', both below the ring's size. 0 may also stand for all of them.
inline std::uint32_t slots_between(const qel_ring& ring, std::uint32_t from, std::uint32_t to) {
    return to >= from ? to - from : to + ring.size - from;
}

// Whether the message says that it lies in this slot, in this state.
inline bool stands_in(const qel_ring& ring, std::uint32_t slot, const qel_ring_msg& message,
                      MessageState state) {
    return state_of(message) == state && peek(message.ring) == ring.num && peek(message.ring_index) == slot;
}

// Puts a message that is on no ring into the pool; ring_free of ring 0 is held.
cerrno put_in_pool_locked(qel_ring& pool, qel_ring_msg& message, std::uint32_t number);
// Releases the oldest consumed slot whatever it holds, and no message with it; ring_free is held.
cerrno drop_oldest_locked(qel_ring& ring, std::uint32_t oldest);
// Whether a message is on no ring and not in the pool either.
inline bool is_on_no_ring(const qel_ring_msg& message) {
    MessageState state = state_of(message);
    return state == MessageState::allocated || (state == MessageState::free && peek(message.ring) != 0);
}

}  // namespace qel
