// Reserving blocks without a lock.
//
// A writer reads the cursor `next`, looks at the control entries of the blocks from there on, marks the first
// one reserved, and moves the cursor past its blocks. The blocks are the writer's when, and only if, that
// last swap works:
//
//     read cursor -> snapshot -> cursor unchanged? -> mark first -> move cursor -> free others -> own
//                       |             |                  |             |              |
//                a reserved one       no                lost          lost        one lost
//                       v             v                  v             v              v
//                move past it       again              again         take the mark off, again
//
// Two writers never own a block. In one lap the swap of the cursor hands each block out once. A writer still
// at work since an earlier lap put its mark before it moved the cursor, so whoever comes there a lap later
// sees the mark and stays clear of all its blocks, provided that no cursor ever comes to lie inside them.
// That is why
// - a lost swap of the cursor takes the mark off again: the window may be another's by now;
// - the cursor is moved to the end of the reserved entry, wherever in the window that begins, and of all
//   reserved entries that begin inside it: a slow writer's mark, about to be taken off, may cover the
//   beginning of a live one.
// A mark that will be taken off has done harm already: others passed over all its blocks, and may have
// overwritten the end of an old entry that begins among them. So the others are freed also then, each by a
// swap from the snapshot, which spares whatever has come there since; or a reader would find that entry torn.
// The second look at the cursor keeps a slow writer from marking, and so wiping out, an entry that was
// committed at the cursor's place a moment ago. tests/trace/model/reserve.pml searches all interleavings of
// this very sequence.
//
// Threads: any, in any process. Restart: marks of the dead stay; their blocks are passed over at each lap.
#include "trace/qel_trace_reserve.hpp"

#include <algorithm>
#include <array>
#include <cerrno>

namespace qel {

namespace {

constexpr std::uint32_t kPassLimit = 49999;
// As far as overlapping marks are followed; only a hostile peer makes more.
constexpr std::uint32_t kOverlapLimit = 16 * kMaxEntryBlocks;

using Word = std::atomic_ref<std::uint32_t>;
using Control = std::atomic_ref<ControlEntry>;

void raise_to(std::uint32_t& high_mark, std::uint32_t value) {
    Word mark{high_mark};
    std::uint32_t seen = mark.load(std::memory_order_relaxed);
    while (seen < value && !mark.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

void add_to(std::uint32_t& counter, std::uint32_t value) {
    if (value != 0) Word{counter}.fetch_add(value, std::memory_order_relaxed);
}

ControlEntry changed(ControlEntry entry, BlockState state, std::uint32_t blocks) {
    return {static_cast<std::uint16_t>(entry.sequence + 1), state, static_cast<std::uint8_t>(blocks)};
}

class Reserver {
  public:
    Reserver(const BufferSegment& segment, std::uint32_t wanted)
        : header_(*segment.header), control_(segment.control), total_(segment.blocks), wanted_(wanted) {}

    int run(Reservation& out);

  private:
    enum class Pass { again, done, one_shot_end };

    Pass pass();
    bool one_shot_ends_here() const;
    bool window_is_free();
    std::uint32_t end_of_reserved(std::uint32_t index) const;
    void pass_over(std::uint32_t offset);
    bool cursor_moved() const { return Word{header_.next}.load(std::memory_order_relaxed) != cursor_.pack(); }
    bool advance(Cursor to);
    bool advance_to_index(std::uint32_t index);
    bool mark_first();
    bool free_others();
    Pass roll_back();
    void count_statistics();
    Control control(std::uint32_t index) const { return Control{control_[index]}; }

    BufferHeader& header_;
    ControlEntry* control_;
    const std::uint32_t total_;
    const std::uint32_t wanted_;

    Cursor cursor_{};
    std::array<ControlEntry, kMaxEntryBlocks> window_;  // as far as wanted_; written before it is read
    ControlEntry held_{};
    std::uint32_t passes_ = 0;
    std::uint32_t retries_ = 0;
    std::uint32_t lost_swaps_ = 0;
    std::uint32_t rollbacks_ = 0;
    std::uint32_t reserved_run_ = 0;  // blocks passed over in a row, every one of them reserved
};

int Reserver::run(Reservation& out) {
    Pass result = Pass::again;
    while (result == Pass::again && passes_ < kPassLimit && reserved_run_ < total_) {
        ++passes_;
        result = pass();
    }
    count_statistics();
    if (result == Pass::one_shot_end) return kOneShotEnd;
    if (result == Pass::again) {
        add_to(header_.excessive_retries, 1);
        return EFAULT;
    }
    out = {cursor_, held_};
    return 0;
}

Reserver::Pass Reserver::pass() {
    cursor_ = Cursor::unpack(Word{header_.next}.load(std::memory_order_acquire));  // A1
    if (one_shot_ends_here()) return Pass::one_shot_end;
    if (cursor_.index + wanted_ > total_) {
        advance(cursor_.next_lap());
        return Pass::again;
    }
    if (!window_is_free() || cursor_moved() || !mark_first()) return Pass::again;
    bool moved = advance_to_index(cursor_.index + wanted_);
    // The others are freed in any case, see the top.
    bool freed = free_others();
    return moved && freed ? Pass::done : roll_back();
}

bool Reserver::one_shot_ends_here() const {
    if ((Word{header_.flags}.load(std::memory_order_relaxed) & kFlagOneShot) == 0) return false;
    Cursor mark = Cursor::unpack(Word{header_.one_shot_mark}.load(std::memory_order_relaxed));
    return mark.index <= cursor_.index && cursor_.in_later_lap_than(mark);
}

// Takes the snapshot. If one of the blocks is reserved, moves the cursor past it instead.
bool Reserver::window_is_free() {
    for (std::uint32_t offset = 0; offset < wanted_; ++offset) {
        window_[offset] = control(cursor_.index + offset).load(std::memory_order_acquire);  // A2
        if (window_[offset].state != BlockState::reserved) continue;
        pass_over(offset);
        return false;
    }
    reserved_run_ = 0;
    return true;
}

// The end of the reserved entry at 'index' and of those that begin inside it.
std::uint32_t Reserver::end_of_reserved(std::uint32_t index) const {
    std::uint32_t end = index + 1;
    const std::uint32_t limit = std::min(total_, index + kOverlapLimit);
    for (std::uint32_t at = index; at < end && at < limit; ++at) {
        ControlEntry entry = control(at).load(std::memory_order_acquire);
        if (entry.state == BlockState::reserved)
            end = std::max(end, at + std::max<std::uint32_t>(1, entry.blocks));
    }
    return std::min(end, total_);
}

void Reserver::pass_over(std::uint32_t offset) {
    const std::uint32_t end = end_of_reserved(cursor_.index + offset);
    ++retries_;
    if (offset != 0) {
        reserved_run_ = 0;
        advance_to_index(end);
    } else if (advance_to_index(end)) {
        reserved_run_ += end - cursor_.index;
    }
}

bool Reserver::advance(Cursor to) {
    std::uint32_t expected = cursor_.pack();
    // R1: who reads the new cursor at A1 sees our mark at A2.
    if (!Word{header_.next}.compare_exchange_strong(expected, to.pack(), std::memory_order_acq_rel))
        return false;
    if (to.stamp != cursor_.stamp) add_to(header_.wraps, 1);
    return true;
}

bool Reserver::advance_to_index(std::uint32_t index) {
    return advance(index < total_ ? Cursor{index, cursor_.stamp} : cursor_.next_lap());
}

bool Reserver::mark_first() {
    held_ = changed(window_[0], BlockState::reserved, wanted_);
    if (control(cursor_.index).compare_exchange_strong(window_[0], held_, std::memory_order_acq_rel))
        return true;
    ++lost_swaps_;
    return false;
}

// True if every one was as in the snapshot.
bool Reserver::free_others() {
    bool all = true;
    for (std::uint32_t offset = 1; offset < wanted_; ++offset) {
        ControlEntry freed = changed(window_[offset], BlockState::free, 1);
        all &= control(cursor_.index + offset)
                   .compare_exchange_strong(window_[offset], freed, std::memory_order_acq_rel);
    }
    return all;
}

// Nobody else changes an entry that we have marked.
Reserver::Pass Reserver::roll_back() {
    control(cursor_.index).store({held_.sequence, BlockState::free, 1}, std::memory_order_release);
    ++rollbacks_;
    return Pass::again;
}

void Reserver::count_statistics() {
    add_to(header_.reserve_retries, retries_);
    add_to(header_.rollbacks, rollbacks_);
    raise_to(header_.lock_free_retries_high, passes_);
    raise_to(header_.reserve_cas_failures_high, lost_swaps_);
}

}  // namespace

int reserve_blocks(const BufferSegment& segment, std::uint32_t blocks, Reservation& out) {
    return Reserver{segment, blocks}.run(out);
}

void commit_blocks(const BufferSegment& segment, const Reservation& reservation) {
    ControlEntry held = reservation.held;
    ControlEntry used = changed(held, BlockState::used, held.blocks);
    Control control{segment.control[reservation.at.index]};
    // Releases the payload to readers, and to the writer who takes the blocks a lap later (A2).
    if (!control.compare_exchange_strong(held, used, std::memory_order_acq_rel))
        add_to(segment.header->commit_cas_failures, 1);
    __atomic_fetch_add(&word_pair(segment.header->count)->value, 1, __ATOMIC_RELAXED);
}

}  // namespace qel
