// The index beside many siblings: searching, and runs that split, merge and go.
//
// A run that is full splits in half, but one that grows at the end of the order stays full and gets a new
// neighbour. A run that has shrunk to a quarter joins a neighbour if both together fill no more than half.
// Each of these happens once in some tens of insertions or removals, and only then is the directory searched
// for a run. Invariant, locks: see the header. Restart: nothing stays.
#include "timers/qel_mgd_timer_index.hpp"

#include <qel/mem.h>

#include <algorithm>
#include <cstring>

#include "core/qel_owned.hpp"

namespace qel::mgd {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr std::uint32_t kFirstEntries = 8;
constexpr std::uint32_t kFillOnMaking = Run::kCapacity * 3 / 4;

// How many of 'count' ascending items, one at least, satisfy 'is_before', which holds for a first part of
// them. Each step is an addition and not a jump, since nobody could foretell it.
template <class Item, class IsBefore>
std::uint32_t count_before(const Item* items, std::uint32_t count, IsBefore is_before) {
    const Item* base = items;
    while (count > 1) {
        const std::uint32_t half = count / 2;
        base += is_before(base[half - 1]) ? half : 0;
        count -= half;
    }
    return static_cast<std::uint32_t>(base - items) + (is_before(*base) ? 1 : 0);
}

Run*& run_of(Node& node) {
    void*& place = is_leaf(node) ? leaf_of(node).place : parent_of(node).place;
    return reinterpret_cast<Run*&>(place);
}
Run* run_of(const Node& node) {
    return run_of(const_cast<Node&>(node));
}

std::uint32_t position_in(const Run& run, const Node& node, std::int64_t key) {
    std::uint32_t at = count_before(run.keys, run.count, [key](std::int64_t other) { return other < key; });
    while (run.nodes[at] != &node) ++at;
    return at;
}

void put(Run& run, std::uint32_t position, std::int64_t key, Node& node) {
    const std::uint32_t behind = run.count - position;
    std::memmove(run.keys + position + 1, run.keys + position, behind * sizeof *run.keys);
    std::memmove(run.nodes + position + 1, run.nodes + position, behind * sizeof *run.nodes);
    run.keys[position] = key;
    run.nodes[position] = &node;
    run_of(node) = &run;
    ++run.count;
}

void take(Run& run, std::uint32_t position) {
    const std::uint32_t behind = --run.count - position;
    std::memmove(run.keys + position, run.keys + position + 1, behind * sizeof *run.keys);
    std::memmove(run.nodes + position, run.nodes + position + 1, behind * sizeof *run.nodes);
}

// Moves what 'from' holds from 'position' on to the end of 'to'.
void move_tail(Run& from, std::uint32_t position, Run& to) {
    const std::uint32_t moved = from.count - position;
    std::memcpy(to.keys + to.count, from.keys + position, moved * sizeof *to.keys);
    std::memcpy(to.nodes + to.count, from.nodes + position, moved * sizeof *to.nodes);
    for (std::uint32_t i = 0; i < moved; ++i) run_of(*to.nodes[to.count + i]) = &to;
    to.count += moved;
    from.count = position;
}

}  // namespace

Index* Index::make(const Parent& parent) {
    Unique<Index*, Index::free> index{allocate_zeroed<Index>(QEL_MEM_TIMER).release()};
    if (!index || !index.get()->add_run(0, kLowest)) return nullptr;
    for (Node* node = parent.first_child; node != nullptr; node = node->next) {
        Slot slot = index.get()->end();
        const std::int64_t key = key_of(node->exptime);
        if (slot.position == kFillOnMaking && !index.get()->split(slot, key)) return nullptr;
        put(*slot.run, slot.position, key, *node);
    }
    return index.release();
}

void Index::free(Index* index) {
    for (std::uint32_t i = index->begin_; i < index->end_; ++i) qel_named_free(index->entries_[i].run);
    qel_named_free(index->entries_);
    qel_named_free(index);
}

// ---- Places

// The last run that may hold 'key', as a number in the directory.
std::uint32_t Index::entry_for(std::int64_t key) const {
    const Entry* first = entries_ + begin_;
    return begin_ - 1 +
           count_before(first, end_ - begin_, [key](const Entry& entry) { return entry.floor <= key; });
}

std::uint32_t Index::entry_of(const Run& run) const {
    std::uint32_t entry = entry_for(run.floor);
    while (entries_[entry].run != &run) --entry;
    return entry;
}

Slot Index::find(std::int64_t key) const {
    Run* run = entries_[entry_for(key)].run;
    return {run, count_before(run->keys, run->count, [key](std::int64_t other) { return other <= key; })};
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
        const bool ends_run = run->nodes[run->count - 1] == node.prev;
        if (!ends_run || key <= run->ceiling)
            return {run, position_in(*run, *node.prev, key_of(node.prev->exptime)) + 1};
    }
    return {run_of(*node.next), 0};
}

// ---- Changes

bool Index::insert(Slot slot, Node& node) {
    const std::int64_t key = key_of(node.exptime);
    if (slot.run->count == Run::kCapacity && !split(slot, key)) return false;
    put(*slot.run, slot.position, key, node);
    return true;
}

void Index::remove(Node& node) {
    Run& run = *run_of(node);
    take(run, position_in(run, node, key_of(node.exptime)));
    if (run.count == 0)
        drop_run(entry_of(run));
    else if (run.count == Run::kCapacity / 4)
        merge_if_small(run);
}

bool Index::rekey(Node& node, const timespec& old_expiry) {
    Run& run = *run_of(node);
    const std::int64_t key = key_of(node.exptime);
    const std::uint32_t position = position_in(run, node, key_of(old_expiry));
    if (run.floor <= key && key <= run.ceiling) {
        run.keys[position] = key;
        return true;
    }
    take(run, position);
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
    run->floor = floor;
    run->ceiling = kHighest;
    if (offset > 0) run->ceiling = std::exchange(entry[-1].run->ceiling, floor);
    *entry = {floor, run.release()};
    return true;
}

// Makes room in a run that is to hold no more, and moves 'slot' along with its place.
bool Index::split(Slot& slot, std::int64_t key) {
    Run& left = *slot.run;
    const bool grows_at_end = slot.position == left.count && left.ceiling == kHighest;
    const std::uint32_t kept = grows_at_end ? left.count : left.count / 2;
    const std::uint32_t entry = entry_of(left);
    const std::uint32_t offset = entry - begin_ + 1;
    if (!add_run(offset, grows_at_end ? key : left.keys[kept])) return false;
    Run& right = *entries_[begin_ + offset].run;
    move_tail(left, kept, right);
    if (slot.position > kept || grows_at_end) slot = {&right, slot.position - kept};
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
    if (++begin_ != end_) entries_[begin_].floor = entries_[begin_].run->floor = kLowest;
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
    std::int64_t edge = kLowest;
    for (std::uint32_t i = begin_; i < end_; ++i) {
        const Run& run = *entries_[i].run;
        if (run.count == 0 || run.floor != edge || run.floor != entries_[i].floor) return false;
        std::int64_t lowest = run.floor;
        for (std::uint32_t at = 0; at < run.count; ++at, node = node->next) {
            if (node != run.nodes[at] || run_of(*node) != &run || key_of(node->exptime) != run.keys[at])
                return false;
            if (run.keys[at] < lowest || run.keys[at] > run.ceiling) return false;
            lowest = run.keys[at];
        }
        edge = run.ceiling;
    }
    return node == nullptr && edge == kHighest;
}

}  // namespace qel::mgd
