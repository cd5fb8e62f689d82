// What a ring's owner does when it goes or comes back: freeze, recover, reclaim.
//
// A client that closes freezes its ring and drains it. A process that restarts recovers its ring: a death
// inside consume may have left a count one short or a state behind, and the indices tell the truth. Then it
// reclaims: messages that it held Allocated are found by a scan of the area, Consumed ones at rel_idx. What
// was Produced stays, and is delivered to the owner: that is the replay.
//
// Invariant: qel_ring.cpp tells it; after ring_recover() it holds to the last.
// Locks: ring_prod while a ring is frozen, recovered or scanned; ring_free where slots are released.
// Threads: the ring's one consumer. Restart: this is it.
#include <qel/base.h>

#include <algorithm>
#include <cerrno>

#include "ipc/qel_ipc.hpp"
#include "ipc/qel_ring_words.hpp"

namespace qel {
namespace {

// The length of a region that begins at 'from' and ends at 'to', both below the ring's size. 'stored' is its
// count, exact or one short. Where the indices are equal the count tells an empty region from a full one, and
// with one slot alone, where that is open too, its message does.
std::uint32_t region_length(const qel_ring& ring, std::uint32_t from, std::uint32_t to, std::uint32_t stored,
                            MessageState state) {
    std::uint32_t length = slots_between(ring, from, to);
    if (length != 0 || stored + 1 < ring.size) return length;
    const qel_ring_msg* first = message_in(ring, from);
    return first != nullptr && stands_in(ring, from, *first, state) ? ring.size : 0;
}

// Marks a message in the consumed region that a death left Produced; false for one that doesn't belong there.
bool finish_consumed(const qel_ring& ring, std::uint32_t slot, qel_ring_msg& message) {
    if (stands_in(ring, slot, message, MessageState::consumed)) return true;
    if (!stands_in(ring, slot, message, MessageState::produced)) return false;
    set_state(message, MessageState::consumed);
    return true;
}

void finish_all_consumed(const qel_ring& ring, std::uint32_t from, std::uint32_t count) {
    for (std::uint32_t slot = from; count > 0; --count, slot = next_slot(ring, slot)) {
        qel_ring_msg* message = message_in(ring, slot);
        // What doesn't belong there is passed over again when the region is reclaimed.
        if (message != nullptr) static_cast<void>(finish_consumed(ring, slot, *message));
    }
}

void restore_counts_locked(qel_ring& ring) {
    RingHeader& header = *ring.hdr;
    std::uint32_t rel = peek(header.rel_idx);
    std::uint32_t cons = peek(header.cons_idx);
    std::uint32_t prod = peek(header.prod_idx);
    if (rel >= ring.size || cons >= ring.size || prod >= ring.size) return;
    std::uint32_t produced = region_length(ring, cons, prod, peek(header.prod_count), MessageState::produced);
    std::uint32_t consumed = region_length(ring, rel, cons, peek(header.cons_count), MessageState::consumed);
    consumed = std::min(consumed, ring.size - produced);
    poke(header.prod_count, produced, std::memory_order_release);  // R1
    poke(header.cons_count, consumed);
    finish_all_consumed(ring, rel, consumed);
}

// A message that was released on this ring and didn't get to the pool.
bool is_stranded(const qel_ring& ring, const qel_ring_msg& message) {
    return state_of(message) == MessageState::free && peek(message.ring) == ring.num;
}

void collect_stranded(qel_ring& ring) {
    qel_ring& pool = *ring.alloc_ring;
    for (std::uint32_t number = 0; number < pool.size; ++number) {
        qel_ring_msg& message = *message_at(pool, number);
        if (!is_stranded(ring, message)) continue;
        RingLocked lock{pool.hdr->ring_free};
        // Only a scribbled pool refuses it, and then there is nowhere to put it.
        if (is_stranded(ring, message)) static_cast<void>(put_in_pool_locked(pool, message, number));
    }
}

void unconsume_newest_locked(qel_ring& ring, std::uint32_t slot) {
    RingHeader& header = *ring.hdr;
    poke(header.cons_idx, slot);
    if (qel_ring_msg* message = message_in(ring, slot); message != nullptr)
        set_state(*message, MessageState::produced);
    std::atomic_ref{header.prod_count}.fetch_add(1, std::memory_order_acq_rel);
    std::atomic_ref{header.cons_count}.fetch_sub(1, std::memory_order_acq_rel);
}

bool is_own_allocated(const qel_ring& ring, const qel_ring_msg& message) {
    return state_of(message) == MessageState::allocated && peek(message.alloc_ring) == ring.num;
}

// The next own message from where the last search ended, and once round: a whole reclaim is linear. Under
// ring_prod, so that no message is on its way to this ring.
qel_ring_msg* find_own_allocated(qel_ring& ring) {
    RingLocked lock{ring.hdr->ring_prod};
    const qel_ring& pool = *ring.alloc_ring;
    for (std::uint32_t looked = 0; looked < pool.size; ++looked) {
        if (ring.reclaim_from >= pool.size) ring.reclaim_from = 0;
        qel_ring_msg* message = message_at(pool, ring.reclaim_from);
        if (is_own_allocated(ring, *message)) return message;
        ++ring.reclaim_from;
    }
    ring.reclaim_from = 0;
    return nullptr;
}

// The message at rel_idx. Entries that name none are passed over: whatever was written there, the pool of
// ring 0 keeps as many slots as it counts.
qel_ring_msg* find_oldest_consumed(qel_ring& ring) {
    RingLocked lock{ring.hdr->ring_free};
    RingHeader& header = *ring.hdr;
    for (std::uint32_t left = ring.size; left > 0 && peek(header.cons_count) != 0; --left) {
        std::uint32_t slot = peek(header.rel_idx);
        if (slot >= ring.size) return nullptr;
        qel_ring_msg* message = message_in(ring, slot);
        if (message != nullptr && finish_consumed(ring, slot, *message)) return message;
        if (drop_oldest_locked(ring, slot) != 0) return nullptr;
    }
    return nullptr;
}

}  // namespace

void ring_recover(qel_ring& ring) {
    {
        RingLocked lock{ring.hdr->ring_prod};
        restore_counts_locked(ring);
    }
    if (ring.num != 0) collect_stranded(ring);
}

std::uint32_t ring_count_charged(const qel_ring& alloc_ring, std::uint32_t ring_num) {
    std::uint32_t charged = 0;
    for (std::uint32_t number = 0; number < alloc_ring.size; ++number) {
        const qel_ring_msg& message = *message_at(alloc_ring, number);
        charged += state_of(message) != MessageState::free && peek(message.alloc_ring) == ring_num;
    }
    return charged;
}

}  // namespace qel

using namespace qel;

cerrno qel_ring_freeze(qel_ring* ring) {
    qel_check_not_interrupt_path();
    if (ring == nullptr) return fatal(EINVAL);
    RingHeader& header = *ring->hdr;
    RingLocked lock{header.ring_prod};
    poke(header.frozen, std::uint16_t{1});
    std::uint32_t left = std::min<std::uint32_t>(peek(header.cons_count), ring->size);
    std::uint32_t slot = peek(header.cons_idx);
    if (slot >= ring->size) return fatal(EINVAL);
    for (; left > 0; --left) {
        slot = slot_before(*ring, slot);
        unconsume_newest_locked(*ring, slot);
    }
    return 0;
}

cerrno qel_ring_msg_reclaim_alloc(qel_ring* ring, qel_ring_msg** out) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || out == nullptr) return fatal(EINVAL);
    qel_ring_msg* message = find_own_allocated(*ring);
    if (message == nullptr) return try_again(EAGAIN);
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d open_reclaim: alloced ring=%d msgh=0x%x ring_index=%d alloc_ring=%d", own_pid(),
              peek(message->ring), peek(message->handle), peek(message->ring_index),
              peek(message->alloc_ring));
    *out = message;
    return 0;
}

cerrno qel_ring_msg_reclaim_consumed(qel_ring* ring, qel_ring_msg** out) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || out == nullptr) return fatal(EINVAL);
    qel_ring_msg* message = find_oldest_consumed(*ring);
    if (message == nullptr) return try_again(EAGAIN);
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d open_reclaim: consumed ring=%d msgh=0x%x ring_index=%d alloc_ring=%d", own_pid(),
              peek(message->ring), peek(message->handle), peek(message->ring_index),
              peek(message->alloc_ring));
    *out = message;
    return 0;
}
