// Rings: opening, formatting, closing, and the invariant that all other files of the ring keep.
//
// A segment holds the header, the index array, and in ring 0 the message area. Whoever makes the segment
// formats it and writes ring_size last (R4); who finds it still without a size waits for a second (A4).
//
// The circle, in slot order:
//
//     rel_idx ........ cons_idx ........ prod_idx ............ free_idx ........ rel_idx
//         | consumed       | produced       | gap (ring 0)         | free (ring 0)   |
//
// Invariant: a message stands in exactly one place. Free and with ring 0: in ring 0's free region. Allocated:
// in none. Produced or Consumed: in the region of that name of the ring that it names, in the slot that it
// names. The counts are the sizes of the regions. Consuming takes no mutex, so a death there may leave
// prod_count or cons_count one short, or the newest consumed message Produced; and a message released on a
// ring but 0 is Free, and still names that ring, until it is put into the pool. ring_recover() puts both
// right. All other steps are taken under a ring's mutex.
//
// Locks: ring_free, and inside it ring_prod; the ring_free of ring 0 inside that of another ring.
// Threads: any; one consumer for each ring. Restart: everything here outlives the process.
#include <qel/base.h>
#include <qel/mem.h>
#include <qel/shm.h>
#include <qel/time.h>

#include <cerrno>
#include <limits>
#include <new>

#include "core/qel_owned.hpp"
#include "ipc/qel_ipc.hpp"
#include "ipc/qel_ring_words.hpp"
#include "trace/qel_report.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kFormatPolls = 1000;
constexpr std::uint32_t kPollMs = 1;

constexpr std::uint64_t round8(std::uint64_t size) {
    return (size + 7) & ~std::uint64_t{7};
}

// What the caller of qel_ring_open() asked for.
struct RingShape {
    std::uint16_t num;
    std::uint16_t size;
    std::uint16_t msg_size;

    std::uint32_t stride() const {
        return static_cast<std::uint32_t>(round8(sizeof(qel_ring_msg) + msg_size));
    }
    std::uint64_t area_offset() const {
        return sizeof(RingHeader) + round8(sizeof(std::uint16_t) * std::uint64_t{size});
    }
    std::uint64_t segment_size() const {
        return area_offset() + (num == 0 ? std::uint64_t{size} * stride() : 0);
    }
};

void dispose_of(qel_ring* ring) {
    ring->~qel_ring();
    qel_named_free(ring);
}
using OwnedRing = Unique<qel_ring*, dispose_of>;

OwnedRing make_context(const RingShape& shape) {
    void* memory = qel_named_calloc_(1, sizeof(qel_ring), qel_tag_e_get_string(QEL_MEM_IPC), 0);
    if (memory == nullptr) return OwnedRing{};
    auto* ring = new (memory) qel_ring{};
    ring->stride = shape.stride();
    ring->num = shape.num;
    ring->size = shape.size;
    ring->msg_size = shape.msg_size;
    return OwnedRing{ring};
}

void point_into_segment(qel_ring& ring, const RingShape& shape, qel_ring* alloc_ring) {
    std::byte* start = ring.shm.bytes().data();
    ring.alloc_ring = alloc_ring != nullptr ? alloc_ring : &ring;
    ring.hdr = reinterpret_cast<RingHeader*>(start);
    ring.index = reinterpret_cast<std::uint16_t*>(start + sizeof(RingHeader));
    ring.msgs = shape.num == 0 ? start + shape.area_offset() : nullptr;
}

// Every message into its own slot of the pool. A new segment is zeroed, so its state and ring are right.
void fill_pool(qel_ring& ring) {
    for (std::uint32_t number = 0; number < ring.size; ++number) {
        poke(ring.index[number], static_cast<std::uint16_t>(number));
        poke(message_at(ring, number)->ring_index, static_cast<std::uint16_t>(number));
    }
    poke(ring.hdr->free_count, ring.size);
}

int format(qel_ring& ring) {
    RingHeader& header = *ring.hdr;
    poke(header.ring_num, ring.num);
    poke(header.msg_size, ring.msg_size);
    if (int error = header.ring_free.init(); error != 0) return error;
    if (int error = header.ring_prod.init(); error != 0) return error;
    if (ring.num == 0) fill_pool(ring);
    poke(header.ring_size, ring.size, std::memory_order_release);  // R4: with all that was written before
    return 0;
}

cerrno expect_format(const qel_ring& ring) {
    const RingHeader& header = *ring.hdr;
    std::uint16_t size = 0;
    for (std::uint32_t polls = 0; polls < kFormatPolls; ++polls) {
        size = peek(header.ring_size, std::memory_order_acquire);  // A4
        if (size != 0) break;
        qel_time_sleep(kPollMs);
    }
    bool same =
        size == ring.size && peek(header.ring_num) == ring.num && peek(header.msg_size) == ring.msg_size;
    return same ? 0 : fatal(EEXIST);
}

cerrno composed(int error) {
    return error == EAGAIN ? try_again(error) : fatal(error);
}

cerrno format_or_remove(const char* name, qel_ring& ring) {
    int error = format(ring);
    if (error == 0) return 0;
    static_cast<void>(qel_shm_unlink(name));  // Made above, and nobody can use it.
    return ipc_error("qel_ring_open", "init ring mutex", fatal(error));
}

void revive_mutexes(qel_ring& ring) {
    if (int error = qel_revive_and_monitor_mutex(ring.hdr->ring_free.native()); error != 0)
        ipc_error("qel_ring_open", "revive ring_free mutex", fatal(error));
    if (int error = qel_revive_and_monitor_mutex(ring.hdr->ring_prod.native()); error != 0)
        ipc_error("qel_ring_open", "revive ring_prod mutex", fatal(error));
}

enum class Missing { make, refuse };

int map_segment(const char* name, std::uint32_t size, Missing missing, Mapping& out, std::uint8_t& existed) {
    if (missing == Missing::make) return qel_shm_open(name, size, out.out(), &existed);
    if (int error = qel_shm_open(name, 0, out.out(), &existed); error != 0) return error;
    return out.info().size == size ? 0 : EINVAL;
}

cerrno attach(const char* name, const RingShape& shape, Missing missing, qel_ring* alloc_ring,
              qel_ring& ring) {
    std::uint8_t existed = 0;
    auto size = static_cast<std::uint32_t>(shape.segment_size());
    if (int error = map_segment(name, size, missing, ring.shm, existed); error != 0)
        return ipc_error("qel_ring_open", "ring open failed", composed(error));
    point_into_segment(ring, shape, alloc_ring);
    if (cerrno error = existed != 0 ? expect_format(ring) : format_or_remove(name, ring); error != 0)
        return error;
    revive_mutexes(ring);
    return 0;
}

cerrno open_ring(const char* name, const RingShape& shape, Missing missing, qel_ring* alloc_ring,
                 qel_ring** out) {
    if (name == nullptr || out == nullptr || shape.size == 0) return fatal(EINVAL);
    if ((shape.num == 0) != (alloc_ring == nullptr)) return fatal(EINVAL);
    if (alloc_ring != nullptr && alloc_ring->num != 0) return fatal(EINVAL);
    if (shape.segment_size() > std::numeric_limits<std::uint32_t>::max()) return fatal(EINVAL);
    OwnedRing ring = make_context(shape);
    if (!ring) return ipc_error("qel_ring_open", "no memory for the ring's context", fatal(ENOMEM));
    if (cerrno error = attach(name, shape, missing, alloc_ring, *ring.get()); error != 0) return error;
    *out = ring.release();
    return 0;
}

// Whether the regions that begin at 'from' and are 'count' slots long end at 'to'.
bool spans(const qel_ring& ring, std::uint32_t from, std::uint32_t to, std::uint32_t count) {
    return count <= ring.size && slots_between(ring, from, to) == count % ring.size;
}

// The header as it was at one look.
struct Regions {
    explicit Regions(const RingHeader& header)
        : rel(peek(header.rel_idx)), cons(peek(header.cons_idx)), prod(peek(header.prod_idx)),
          free(peek(header.free_idx)), consumed(peek(header.cons_count)), produced(peek(header.prod_count)),
          pooled(peek(header.free_count)) {}
    std::uint32_t rel, cons, prod, free;
    std::uint32_t consumed, produced, pooled;
};

bool all_stand(const qel_ring& ring, std::uint32_t from, std::uint32_t count, MessageState state) {
    for (std::uint32_t slot = from; count > 0; --count, slot = next_slot(ring, slot)) {
        const qel_ring_msg* message = message_in(ring, slot);
        if (message == nullptr || !stands_in(ring, slot, *message, state)) return false;
    }
    return true;
}

const char* check_regions(const qel_ring& ring, const Regions& at) {
    if (!spans(ring, at.rel, at.cons, at.consumed)) return "cons_count isn't the consumed region";
    if (!spans(ring, at.cons, at.prod, at.produced)) return "prod_count isn't the produced region";
    if (at.consumed + at.produced + at.pooled > ring.size) return "the regions overlap";
    if (!all_stand(ring, at.rel, at.consumed, MessageState::consumed)) return "a consumed slot";
    if (!all_stand(ring, at.cons, at.produced, MessageState::produced)) return "a produced slot";
    if (ring.num != 0) return nullptr;
    if (!spans(ring, at.free, at.rel, at.pooled)) return "free_count isn't the free region";
    return all_stand(ring, at.free, at.pooled, MessageState::free) ? nullptr : "a free slot";
}

// No message claims a place on this ring beyond those that the regions hold.
const char* check_claims(const qel_ring& ring, const Regions& at) {
    std::uint32_t claims = 0;
    for (std::uint32_t number = 0; number < ring.alloc_ring->size; ++number) {
        const qel_ring_msg& message = *message_at(*ring.alloc_ring, number);
        MessageState state = state_of(message);
        if (state > MessageState::consumed) return "a message's state";
        bool on_ring = state == MessageState::produced || state == MessageState::consumed;
        claims +=
            peek(message.ring) == ring.num && (on_ring || (ring.num == 0 && state == MessageState::free));
    }
    return claims == at.consumed + at.produced + at.pooled ? nullptr : "a message stands nowhere";
}

}  // namespace

cerrno ring_attach(const char* name, std::uint16_t ring_num, std::uint16_t ring_size, std::uint16_t msg_size,
                   qel_ring* alloc_ring, qel_ring** out) {
    return open_ring(name, {ring_num, ring_size, msg_size}, Missing::refuse, alloc_ring, out);
}

void RingLockFailures::lock_failed(int error) {
    report<"QRING1", "%s lock of a ring failed rc=%d">(error);
}

void RingLockFailures::unlock_failed(int error) {
    report<"QRING2", "%s unlock of a ring failed rc=%d">(error);
}

void RingLockFailures::waited_long(const LongWait& wait) {
    report<"QRING3", "%s waited %u s for a lock of a ring, held by thread %u, alive %u">(
        wait.seconds, wait.holder, wait.holder_lives);
}

const char* ring_check(const qel_ring& ring, bool quiet) {
    const RingHeader& header = *ring.hdr;
    if (peek(header.ring_num) != ring.num || peek(header.ring_size) != ring.size ||
        peek(header.msg_size) != ring.msg_size)
        return "the sizes in the header";
    Regions at{header};
    for (std::uint32_t index : {at.rel, at.cons, at.prod, at.free})
        if (index >= ring.size) return "an index";
    for (std::uint32_t count : {at.consumed, at.produced, at.pooled})
        if (count > ring.size) return "a count";
    if (!quiet) return nullptr;
    const char* broken = check_regions(ring, at);
    return broken != nullptr ? broken : check_claims(ring, at);
}

}  // namespace qel

using namespace qel;

cerrno qel_ring_open(const char* name, uint16_t ring_num, uint16_t ring_size, uint16_t msg_size,
                     qel_ring* alloc_ring, qel_ring** out) {
    qel_check_not_interrupt_path();
    return open_ring(name, {ring_num, ring_size, msg_size}, Missing::make, alloc_ring, out);
}

cerrno qel_ring_close(qel_ring** ring) {
    qel_check_not_interrupt_path();
    if (ring == nullptr || *ring == nullptr) return fatal(EINVAL);
    dispose_of(std::exchange(*ring, nullptr));
    return 0;
}

cerrno qel_ring_destroy(const char* name) {
    qel_check_not_interrupt_path();
    int error = qel_shm_unlink(name);
    return error == 0 ? 0 : composed(error);
}

uint32_t qel_ring_get_size(const qel_ring* ring) {
    return ring != nullptr ? ring->size : 0;
}

uint32_t qel_ring_get_num(const qel_ring* ring) {
    return ring != nullptr ? ring->num : 0;
}

uint32_t qel_ring_get_free_count(const qel_ring* ring) {
    return ring != nullptr ? peek(ring->hdr->free_count) : 0;
}

uint32_t qel_ring_get_produced_count(const qel_ring* ring) {
    // A1: who sees a message counted and consumes it sees it whole.
    return ring != nullptr ? peek(ring->hdr->prod_count, std::memory_order_acquire) : 0;
}

uint32_t qel_ring_get_consumed_count(const qel_ring* ring) {
    return ring != nullptr ? peek(ring->hdr->cons_count) : 0;
}
