// An index beside the siblings of a parent that has many: where a new expiry belongs among them, without a
// walk.
//
//    directory    | floor run | floor run | floor run |        sorted by floor
//                        |          |           |
//    run           order | slots of the siblings, by rank
//                   keys | one a slot
//                  nodes | one a slot
//
// The siblings in their told order are the truth; the index repeats that order in runs of neighbours. Finding
// a place is a binary search in the directory and a count in a run of the keys that aren't above, which waits
// for memory once. A node keeps its run and slot, so leaving it moves nothing but ranks, a byte each. The
// directory is filled from the back and emptied from the front without moving, as timers do that expire in
// the order of their starts.
//
// Invariant: keys ascend by rank within a run and lie between its floor and its ceiling, both included; the
// ceiling of a run is the floor of the next; no run is empty. The first floor and the last ceiling are the
// ends of the range; a free slot has the last key. Locks: the tree's mutex. When memory is short, insert()
// fails, the caller drops the index and walks the list.
#pragma once

#include <cstdint>

#include "timers/qel_mgd_timer.hpp"

namespace qel::mgd {

// The ends of the range of keys: differences within it fit 64 bits.
constexpr std::int64_t kHighestKey = std::int64_t{1} << 62;
constexpr std::int64_t kLowestKey = -kHighestKey;

// An expiry in nanoseconds, held within the range of keys.
constexpr std::int64_t key_of(const timespec& expiry) {
    if (expiry.tv_sec >= kHighestKey / kNanosecondsPerSecond) return kHighestKey;
    if (expiry.tv_sec <= kLowestKey / kNanosecondsPerSecond) return kLowestKey;
    return expiry.tv_sec * kNanosecondsPerSecond + expiry.tv_nsec;
}

// Expiries beyond 146 years share one key, so their order isn't that of their keys.
constexpr bool is_exact(std::int64_t key) {
    return key != kLowestKey && key != kHighestKey;
}

struct Run {
    static constexpr std::uint32_t kCapacity = 32;

    std::uint8_t order[kCapacity];  // the slot of each rank
    std::uint64_t free_slots;       // a bit each
    std::uint32_t count;
    std::int64_t floor;
    std::int64_t ceiling;
    std::int64_t keys[kCapacity];
    Node* nodes[kCapacity];

    Node& at(std::uint32_t rank) const { return *nodes[order[rank]]; }
};
static_assert(offsetof(Run, keys) == 64);

// A place in the order: in front of what has 'rank' in 'run' now, or at the run's end.
struct Slot {
    Run* run;
    std::uint32_t rank;

    bool is_inside() const { return rank > 0 && rank < run->count; }
    // The sibling behind the place, or null.
    Node* next() const { return rank < run->count ? &run->at(rank) : run->at(run->count - 1).next; }
};

class Index {
  public:
    // An index of the children that 'parent' has, one at least; null when memory is short.
    static Index* make(const Parent& parent);
    static void free(Index* index);

    // Have what remove(), and what find() and insert() need, brought from memory.
    void expect_removal(const Node& node) const;
    void expect_insertion(std::int64_t key) const;
    // Where a node of this key goes: behind all that aren't above it. For exact keys.
    Slot find(std::int64_t key) const;
    Slot end() const;
    // Where a node belongs that is linked among its siblings and isn't in the index.
    Slot between_siblings(const Node& node) const;

    // False when memory is short; the index is of no use then.
    [[nodiscard]] bool insert(Slot slot, Node& node);
    void remove(Node& node);
    // Replaces the key of a node whose changed expiry leaves it in its place; false when memory is short.
    [[nodiscard]] bool rekey(Node& node);

    // For tests: whether this is exactly the list of the parent's children, and the invariant holds.
    bool repeats(const Parent& parent) const;

  private:
    struct Entry {
        std::int64_t floor;
        Run* run;
    };

    bool is_at_hand() const;
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
