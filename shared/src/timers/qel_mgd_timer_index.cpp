// The index beside many siblings: searching, and runs that split, merge and go.
//
// A run that is full splits in half, but one that grows at the end of the order stays full and gets a new
// neighbour. A run that has shrunk to a quarter joins a neighbour if both together fill no more than half.
// Each of these happens once in some tens of insertions or removals, and only then is the directory searched
// for a run. Invariant, locks: see the header. Restart: nothing stays.
#include "timers/qel_mgd_timer_index.hpp"

#include <qel/mem.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "core/qel_owned.hpp"

namespace qel::mgd {
namespace {

constexpr std::uint32_t kFirstEntries = 8;
constexpr std::uint32_t kShortDirectory = 64;
constexpr std::uint32_t kRunsAtHand = 8;
constexpr std::uint32_t kFillOnMaking = Run::kCapacity * 3 / 4;

constexpr std::size_t kLine = 64;
constexpr std::uint64_t kAllSlots = (std::uint64_t{1} << Run::kCapacity) - 1;

Run*& run_of(Node& node) {
    void*& place = is_leaf(node) ? leaf_of(node).place : parent_of(node).place;
    return reinterpret_cast<Run*&>(place);
}
Run* run_of(const Node& node) {
    return run_of(const_cast<Node&>(node));
}
std::uint32_t& slot_of(Node& node) {
    return node.reserved;
}

// What expires is the first of its run.
std::uint32_t rank_of(const Run& run, const Node& node) {
    if (run.order[0] == node.reserved) return 0;
    const void* found = std::memchr(run.order, static_cast<int>(node.reserved), run.count);
    return static_cast<std::uint32_t>(static_cast<const std::uint8_t*>(found) - run.order);
}

// How many keys of the run aren't above 'key', an exact one. All of them are asked, without a jump: the sign
// of a difference is the answer.
std::uint32_t count_up_to(const Run& run, std::int64_t key) {
    std::uint64_t count = 0;
    for (std::int64_t other : run.keys) count += static_cast<std::uint64_t>(other - (key + 1)) >> 63;
    return static_cast<std::uint32_t>(count);
}

// Has one of a run's arrays brought from memory, all at once.
template <class Item>
void expect_lines(const Item (&items)[Run::kCapacity]) {
    for (std::size_t i = 0; i < Run::kCapacity; i += kLine / sizeof(Item)) __builtin_prefetch(items + i);
}

void put(Run& run, std::uint32_t rank, std::int64_t key, Node& node) {
    const auto slot = static_cast<std::uint32_t>(std::countr_zero(run.free_slots));
    run.free_slots &= run.free_slots - 1;
    if (rank < run.count) std::memmove(run.order + rank + 1, run.order + rank, run.count - rank);
    run.order[rank] = static_cast<std::uint8_t>(slot);
    run.keys[slot] = key;
    run.nodes[slot] = &node;
    ++run.count;
    run_of(node) = &run;
    slot_of(node) = slot;
}

// The first one's rank is closed by two moves of fixed size in place of a call.
void close_rank(Run& run, std::uint32_t rank) {
    if (rank != 0) {
        std::memmove(run.order + rank, run.order + rank + 1, run.count - rank);
        return;
    }
    std::uint8_t others[Run::kCapacity - 1];
    std::memcpy(others, run.order + 1, sizeof others);
    std::memcpy(run.order, others, sizeof others);
}

void take(Run& run, std::uint32_t rank) {
    const std::uint32_t slot = run.order[rank];
    --run.count;
    close_rank(run, rank);
    run.free_slots |= std::uint64_t{1} << slot;
    run.keys[slot] = kHighestKey;
}

// Moves what 'from' holds from 'rank' on to the end of 'to'.
void move_tail(Run& from, std::uint32_t rank, Run& to) {
    for (std::uint32_t at = rank; at < from.count; ++at)
        put(to, to.count, from.keys[from.order[at]], from.at(at));
    while (from.count > rank) take(from, from.count - 1);
}

}  // namespace

Index* Index::make(const Parent& parent) {
    Unique<Index*, Index::free> index{allocate_zeroed<Index>(QEL_MEM_TIMER).release()};
    if (!index || !index.get()->add_run(0, kLowestKey)) return nullptr;
    for (Node* node = parent.first_child; node != nullptr; node = node->next) {
        Slot slot = index.get()->end();
        const std::int64_t key = key_of(node->exptime);
        if (slot.rank == kFillOnMaking && !index.get()->split(slot, key)) return nullptr;
        put(*slot.run, slot.rank, key, *node);
    }
    return index.release();
}

void Index::free(Index* index) {
    for (std::uint32_t i = index->begin_; i < index->end_; ++i) qel_named_free(index->entries_[i].run);
    qel_named_free(index->entries_);
    qel_named_free(index);
}

// ---- Places

// So few runs stay in the processor's cache while their parent is in use; asking for them is in vain.
bool Index::is_at_hand() const {
    return end_ - begin_ <= kRunsAtHand;
}

// The last run that may hold 'key', as a number in the directory. Each step is an addition and not a jump,
// since nobody could foretell it.
std::uint32_t Index::entry_for(std::int64_t key) const {
    const Entry* base = entries_ + begin_;
    std::uint32_t count = end_ - begin_;
    // A short directory is brought as a whole, a long one as the search gets there.
    if (!is_at_hand())
        for (std::uint32_t i = 0; i < std::min(count, kShortDirectory); i += kLine / sizeof *base)
            __builtin_prefetch(base + i);
    while (count > 1) {
        const std::uint32_t half = count / 2;
        base += half & (std::uint32_t{0} - static_cast<std::uint32_t>(base[half].floor <= key));
        count -= half;
    }
    return static_cast<std::uint32_t>(base - entries_);
}

std::uint32_t Index::entry_of(const Run& run) const {
    std::uint32_t entry = entry_for(run.floor);
    while (entries_[entry].run != &run) --entry;
    return entry;
}

Slot Index::find(std::int64_t key) const {
    Run* run = entries_[entry_for(key)].run;
    if (!is_at_hand()) expect_lines(run->nodes);
    const Slot slot{run, count_up_to(*run, key)};
    if (slot.rank > 0) __builtin_prefetch(&run->at(slot.rank - 1));
    if (slot.rank < run->count) __builtin_prefetch(&run->at(slot.rank));
    return slot;
}

Slot Index::end() const {
    Run* run = entries_[end_ - 1].run;
    return {run, run->count};
}

// The two neighbours are in one run or in two adjacent ones; in these, the key tells which has it in its
// range.
Slot Index::between_siblings(const Node& node) const {
    const std::int64_t key = key_of(node.exptime);
    const bool is_first = node.parent->first_child == &node;
    if (!is_first) {
        Run* run = run_of(*node.prev);
        const std::uint32_t rank = rank_of(*run, *node.prev) + 1;
        if (rank < run->count || key <= run->ceiling) return {run, rank};
    }
    return {run_of(*node.next), 0};
}

void Index::expect_removal(const Node& node) const {
    if (is_at_hand()) return;
    const Run* run = run_of(node);
    __builtin_prefetch(run);
    __builtin_prefetch(run->keys + node.reserved);
}

void Index::expect_insertion(std::int64_t key) const {
    if (is_at_hand()) return;
    const Run* run = entries_[entry_for(key)].run;
    __builtin_prefetch(run);
    expect_lines(run->keys);
    expect_lines(run->nodes);
}

// ---- Changes

bool Index::insert(Slot slot, Node& node) {
    const std::int64_t key = key_of(node.exptime);
    if (slot.run->count == Run::kCapacity && !split(slot, key)) return false;
    put(*slot.run, slot.rank, key, node);
    return true;
}

void Index::remove(Node& node) {
    Run& run = *run_of(node);
    take(run, rank_of(run, node));
    if (run.count == 0)
        drop_run(entry_of(run));
    else if (run.count == Run::kCapacity / 4)
        merge_if_small(run);
}

bool Index::rekey(Node& node) {
    Run& run = *run_of(node);
    const std::int64_t key = key_of(node.exptime);
    if (run.floor <= key && key <= run.ceiling) {
        run.keys[slot_of(node)] = key;
        return true;
    }
    take(run, rank_of(run, node));
    if (run.count == 0) drop_run(entry_of(run));
    return insert(between_siblings(node), node);
}

// ---- Runs

// Room for one more entry behind the last.
bool Index::make_room() {
    if (end_ < capacity_) return true;
    const std::uint32_t count = end_ - begin_;
    if (begin_ > capacity_ / 2) {
        std::memmove(entries_, entries_ + begin_, count * sizeof *entries_);
    } else {
        const std::uint32_t capacity = std::max(capacity_ * 2, kFirstEntries);
        Owned<Entry> larger = allocate_zeroed<Entry>(QEL_MEM_TIMER, capacity);
        if (!larger) return false;
        if (count != 0) std::memcpy(larger.get(), entries_ + begin_, count * sizeof *entries_);
        qel_named_free(entries_);
        entries_ = larger.release();
        capacity_ = capacity;
    }
    begin_ = 0;
    end_ = count;
    return true;
}

// Adds an empty run that takes the range of the 'offset'th run's predecessor from 'floor' on.
bool Index::add_run(std::uint32_t offset, std::int64_t floor) {
    Owned<Run> run = allocate_zeroed<Run>(QEL_MEM_TIMER);
    if (!run || !make_room()) return false;
    Entry* entry = entries_ + begin_ + offset;
    std::memmove(entry + 1, entry, (end_ - begin_ - offset) * sizeof *entry);
    ++end_;
    run->free_slots = kAllSlots;
    std::fill_n(run->keys, Run::kCapacity, kHighestKey);
    run->floor = floor;
    run->ceiling = kHighestKey;
    if (offset > 0) run->ceiling = std::exchange(entry[-1].run->ceiling, floor);
    *entry = {floor, run.release()};
    return true;
}

// Makes room in a run that is to hold no more, and moves 'slot' along with its place.
bool Index::split(Slot& slot, std::int64_t key) {
    Run& left = *slot.run;
    const bool grows_at_end = slot.rank == left.count && left.ceiling == kHighestKey;
    const std::uint32_t kept = grows_at_end ? left.count : left.count / 2;
    const std::uint32_t entry = entry_of(left);
    const std::uint32_t offset = entry - begin_ + 1;
    if (!add_run(offset, grows_at_end ? key : left.keys[left.order[kept]])) return false;
    Run& right = *entries_[begin_ + offset].run;
    move_tail(left, kept, right);
    if (slot.rank > kept || grows_at_end) slot = {&right, slot.rank - kept};
    return true;
}

// Frees an empty run and gives its range to the one in front of it, or else to the one behind.
void Index::drop_run(std::uint32_t entry) {
    Owned<Run> run{entries_[entry].run};
    if (entry != begin_) {
        entries_[entry - 1].run->ceiling = run->ceiling;
        std::memmove(entries_ + entry, entries_ + entry + 1, (--end_ - entry) * sizeof *entries_);
        return;
    }
    if (++begin_ != end_) entries_[begin_].floor = entries_[begin_].run->floor = kLowestKey;
}

void Index::merge_if_small(Run& run) {
    const std::uint32_t entry = entry_of(run);
    for (std::uint32_t left : {entry, entry - 1}) {
        if (left + 1 == begin_ || left + 1 == end_) continue;
        Run& first = *entries_[left].run;
        Run& second = *entries_[left + 1].run;
        if (first.count + second.count > Run::kCapacity / 2) continue;
        move_tail(second, 0, first);
        drop_run(left + 1);
        return;
    }
}

// ---- For tests

bool Index::repeats(const Parent& parent) const {
    const Node* node = parent.first_child;
    std::int64_t edge = kLowestKey;
    for (std::uint32_t i = begin_; i < end_; ++i) {
        const Run& run = *entries_[i].run;
        if (run.count == 0 || run.floor != edge || run.floor != entries_[i].floor) return false;
        std::int64_t lowest = run.floor;
        for (std::uint32_t rank = 0; rank < run.count; ++rank, node = node->next) {
            if (node != &run.at(rank) || run_of(*node) != &run || node->reserved != run.order[rank])
                return false;
            const std::int64_t key = run.keys[node->reserved];
            if (key != key_of(node->exptime) || key < lowest || key > run.ceiling) return false;
            lowest = key;
        }
        edge = run.ceiling;
    }
    return node == nullptr && edge == kHighestKey;
}

}  // namespace qel::mgd
