// An index beside the siblings of a parent that has many: where a new expiry belongs among them, without a
// walk.
//
//    directory    | floor run | floor run | floor run |        sorted by floor
//                        |          |           |
//    run            keys | ...      ...         ...            up to kCapacity siblings, in their order
//                  nodes | ...
//
// The siblings in their told order are the truth; the index repeats that order in runs of neighbours, with
// their expiries side by side. Finding a place is one binary search in the directory and one in a run; a node
// knows its run, so leaving it takes no search among equals. The directory is filled from the back and
// emptied from the front without moving, as timers do that expire in the order of their starts.
//
// Invariant: keys ascend within a run and lie between its floor and its ceiling, both included; the ceiling
// of a run is the floor of the next; no run is empty. The first floor and the last ceiling are the ends of
// the range. Locks: the tree's mutex. When memory is short, insert() fails, the caller drops the index and
// walks the list.
#pragma once

#include <cstdint>
#include <limits>

#include "timers/qel_mgd_timer.hpp"

namespace qel::mgd {

// An expiry in nanoseconds, held within 64 bits.
constexpr std::int64_t key_of(const timespec& expiry) {
    std::int64_t key = 0;
    if (!__builtin_mul_overflow(expiry.tv_sec, kNanosecondsPerSecond, &key))
        return saturating_add(key, expiry.tv_nsec);
    return expiry.tv_sec < 0 ? std::numeric_limits<std::int64_t>::min()
                             : std::numeric_limits<std::int64_t>::max();
}

// Expiries beyond 292 years share one key, so their order isn't that of their keys.
constexpr bool is_exact(std::int64_t key) {
    return key != std::numeric_limits<std::int64_t>::min() && key != std::numeric_limits<std::int64_t>::max();
}

struct Run {
    static constexpr std::uint32_t kCapacity = 60;

    std::int64_t floor;
    std::int64_t ceiling;
    std::uint32_t count;
    std::int64_t keys[kCapacity];
    Node* nodes[kCapacity];
};

// A place in the order: in front of what is at 'position' of 'run' now, or at the run's end.
struct Slot {
    Run* run;
    std::uint32_t position;

    // The sibling behind the place, or null.
    Node* next() const {
        return position < run->count ? run->nodes[position] : run->nodes[run->count - 1]->next;
    }
};

class Index {
  public:
    // An index of the children that 'parent' has, one at least; null when memory is short.
    static Index* make(const Parent& parent);
    static void free(Index* index);

    // Where a node of this key goes: behind all that aren't above it. For exact keys.
    Slot find(std::int64_t key) const;
    Slot end() const;
    // Where a node belongs that is linked among its siblings and isn't in the index.
    Slot between_siblings(const Node& node) const;

    // False when memory is short; the index is of no use then.
    [[nodiscard]] bool insert(Slot slot, Node& node);
    // 'node' has its key still.
    void remove(Node& node);
    // Replaces the key of a node whose changed expiry leaves it in its place; false when memory is short.
    [[nodiscard]] bool rekey(Node& node, const timespec& old_expiry);

    // For tests: whether this is exactly the list of the parent's children, and the invariant holds.
    bool repeats(const Parent& parent) const;

  private:
    struct Entry {
        std::int64_t floor;
        Run* run;
    };

    std::uint32_t entry_for(std::int64_t key) const;
    std::uint32_t entry_of(const Run& run) const;
    bool make_room();
    bool add_run(std::uint32_t entry, std::int64_t floor);
    bool split(Slot& slot, std::int64_t key);
    void drop_run(std::uint32_t entry);
    void merge_if_small(Run& run);

    Entry* entries_;  // those from begin_ to end_ are in use
    std::uint32_t begin_;
    std::uint32_t end_;
    std::uint32_t capacity_;
};

}  // namespace qel::mgd
