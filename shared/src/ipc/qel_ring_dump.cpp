// The dump of a ring: what it holds, slot by slot, on standard output.
//
// The words and control blocks are copied under the ring's mutexes and printed after, so that a slow terminal
// holds nobody up. A mutex that a dead process holds is waited for, for two seconds, and done without. A
// message's data is shown where the caller's function finds it.
//
// Invariant: nothing of the segment is changed, and what is out of bounds is printed as such.
// Locks: ring_free, then ring_prod, while copying. Threads: any.
// Restart: rings of the dead are what dumps are for.
#include <qel/base.h>
#include <qel/mem.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "core/qel_owned.hpp"
#include "ipc/qel_dump_lock.hpp"
#include "ipc/qel_ring_words.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kShownBytes = 16;
constexpr std::uint32_t kDataLevel = 2;
constexpr std::uint32_t kFreeLevel = 3;
// What a dump tells of the sizes, whatever the context holds beside.
constexpr int kToldContextSize = 64;

constexpr std::array<const char*, 4> kStateNames{"Free", "Allocated", "Produced", "Consumed"};

struct TypeName {
    std::uint16_t type;
    const char* name;
};
constexpr std::array<TypeName, 4> kTypeNames{{{QEL_RING_MSG_ASYNC_REQUEST, "AsyncReq"},
                                              {QEL_RING_MSG_SYNC_REQUEST, "SyncReq"},
                                              {QEL_RING_MSG_REPLY, "Reply"},
                                              {QEL_RING_MSG_SYNC_REPLY, "Sync Reply"}}};

const char* state_name(std::uint32_t state) {
    if (state < kStateNames.size()) return kStateNames[state];
    std::printf("*** invalid state=%d\n", static_cast<int>(state));
    return "???";
}

const char* type_name(std::uint16_t type) {
    auto found = std::find_if(kTypeNames.begin(), kTypeNames.end(),
                              [type](const TypeName& row) { return row.type == type; });
    if (found != kTypeNames.end()) return found->name;
    std::printf("*** invalid type=%d\n", type);
    return "???";
}

struct SlotCopy {
    std::uint32_t number;
    qel_ring_msg message;
};

qel_ring_msg copy_message(const qel_ring_msg& message) {
    qel_ring_msg copy{};
    copy.state = peek(message.state);
    copy.handle = peek(message.handle);
    copy.alloc_ring = peek(message.alloc_ring);
    copy.type = peek(message.type);
    copy.data_len = peek(message.data_len);
    return copy;
}

// The slots from 'from' up to 'to' as they were. 'count' tells an empty slice from a whole circle.
class Slice {
  public:
    Slice(const qel_ring& ring, bool wanted) {
        if (wanted) slots_ = allocate_zeroed<SlotCopy>(QEL_MEM_IPC, ring.size);
    }
    void copy(const qel_ring& ring, std::uint32_t from, std::uint32_t to, std::uint32_t count) {
        from_ = from;
        to_ = to;
        if (from >= ring.size || to >= ring.size || !slots_) return;
        length_ = slots_between(ring, from, to);
        if (length_ == 0 && count != 0) length_ = ring.size;
        std::uint32_t slot = from;
        for (std::uint32_t i = 0; i < length_; ++i, slot = next_slot(ring, slot)) {
            SlotCopy& copy = slots_.get()[i];
            copy.number = peek(ring.index[slot]);
            if (const qel_ring_msg* message = message_at(*ring.alloc_ring, copy.number); message != nullptr)
                copy.message = copy_message(*message);
        }
    }
    template <class Show>
    void print(const qel_ring& ring, Show&& show) const {
        if (from_ >= ring.size)
            std::printf("*** invalid from index=%d ring_size=%d\n", static_cast<int>(from_), ring.size);
        else if (to_ >= ring.size)
            std::printf("*** invalid to index=%d ring_size=%d\n", static_cast<int>(to_), ring.size);
        else if (!slots_)
            std::printf("*** no memory for the slots\n");
        std::uint32_t slot = from_;
        for (std::uint32_t i = 0; i < length_; ++i, slot = next_slot(ring, slot)) show(slot, slots_.get()[i]);
    }

  private:
    Owned<SlotCopy> slots_;
    std::uint32_t from_ = 0;
    std::uint32_t to_ = 0;
    std::uint32_t length_ = 0;
};

// The header's words of one moment.
struct Words {
    std::uint32_t prod_idx, prod_count, cons_idx, cons_count, rel_idx, free_idx, free_count;
};

Words read_words(const RingHeader& header) {
    return {peek(header.prod_idx), peek(header.prod_count), peek(header.cons_idx),  peek(header.cons_count),
            peek(header.rel_idx),  peek(header.free_idx),   peek(header.free_count)};
}

// What a dump was asked for, and what it copied.
class RingDump {
  public:
    RingDump(qel_ring& ring, std::uint32_t level, qel_ring_dump_fn function, void* context)
        : ring_(ring), level_(level), function_(function), context_(context), held_(ring, true),
          free_(ring, shows_free()) {}
    void copy();
    void print() const;

  private:
    bool shows_free() const { return level_ >= kFreeLevel && ring_.num == 0; }
    void print_sizes() const;
    void print_slot(std::uint32_t slot, const SlotCopy& copy) const;
    void print_data(std::uint32_t number) const;

    qel_ring& ring_;
    std::uint32_t level_;
    qel_ring_dump_fn function_;
    void* context_;
    Slice held_;
    Slice free_;
    Words words_{};
    std::optional<MissedLock> missed_free_;
    std::optional<MissedLock> missed_prod_;
};

void RingDump::copy() {
    RingHeader& header = *ring_.hdr;
    DumpLocked free_lock{header.ring_free, "ring_free"};
    DumpLocked prod_lock{header.ring_prod, "ring_prod"};
    missed_free_ = free_lock.missed();
    missed_prod_ = prod_lock.missed();
    words_ = read_words(header);
    held_.copy(ring_, words_.rel_idx, words_.prod_idx, words_.cons_count | words_.prod_count);
    if (shows_free()) free_.copy(ring_, words_.free_idx, words_.rel_idx, words_.free_count);
}

void RingDump::print_sizes() const {
    std::printf("     ring in-process context size=%d\n", kToldContextSize);
    std::printf("     ring shm context size=%d\n", static_cast<int>(sizeof(RingHeader)));
    std::printf("     ring msg shm control block size=%d\n", static_cast<int>(sizeof(qel_ring_msg)));
}

void RingDump::print_data(std::uint32_t number) const {
    if (function_ == nullptr) {
        std::printf("*** invalid ptr for calculating buffer address");
        return;
    }
    void* address = nullptr;
    std::uint32_t length = 0;
    function_(&ring_, message_at(*ring_.alloc_ring, number), context_, &address, &length);
    if (address == nullptr) return;
    auto* bytes = static_cast<const unsigned char*>(address);
    for (std::uint32_t i = 0; i < std::min(length, kShownBytes); ++i) std::printf("%02x ", bytes[i]);
}

void RingDump::print_slot(std::uint32_t slot, const SlotCopy& copy) const {
    if (copy.number >= ring_.alloc_ring->size) {
        std::printf("*** invalid message number=%u in slot %u\n", copy.number, slot);
        return;
    }
    const qel_ring_msg& message = copy.message;
    const char* state = state_name(message.state);
    const char* type = type_name(message.type);
    std::printf("%03d: owner=%d, H=%x S=%s T=%s L=%d ", static_cast<int>(slot), message.alloc_ring,
                message.handle, state, type, static_cast<int>(message.data_len));
    if (level_ >= kDataLevel) print_data(copy.number);
    std::printf("\n");
}

void RingDump::print() const {
    auto show = [this](std::uint32_t slot, const SlotCopy& copy) { print_slot(slot, copy); };
    tell_if_missed(missed_free_);
    tell_if_missed(missed_prod_);
    if (ring_.num == 0) print_sizes();
    std::printf("     F=%d (%d), P=%d (%d), C=%d (%d), R=%d\n", static_cast<int>(words_.free_idx),
                static_cast<int>(words_.free_count), static_cast<int>(words_.prod_idx),
                static_cast<int>(words_.prod_count), static_cast<int>(words_.cons_idx),
                static_cast<int>(words_.cons_count), static_cast<int>(words_.rel_idx));
    std::printf("---- CONSUMED and PRODUCED messages (oldest to newest)\n");
    held_.print(ring_, show);
    if (!shows_free()) return;
    std::printf("---- FREE messages (oldest to newest)\n");
    free_.print(ring_, show);
}

}  // namespace
}  // namespace qel

using namespace qel;

void qel_ring_dump(qel_ring* ring, uint32_t level, qel_ring_dump_fn function, void* context) {
    qel_check_not_interrupt_path();
    if (ring == nullptr) return;
    RingDump dump{*ring, level, function, context};
    dump.copy();
    dump.print();
}
