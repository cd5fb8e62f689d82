// What the files of the red-black tree share: the sentinel, the record behind a tree, and the orders of keys.
//
// Links that lead nowhere hold the sentinel, in place of null, so that the balancing reads the colour of a
// child that isn't there. Nothing ever writes to it: where an algorithm would note the sentinel's parent, the
// parent is in a local. So trees have nothing in common that changes, and each may have a lock of its own.
#pragma once

#include <qel/rbtree.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "core/qel_prefetch.hpp"

namespace qel {

using RbNode = qel_rbtree_node;

constexpr std::uint32_t kRed = 0;
constexpr std::uint32_t kBlack = 1;
constexpr std::uint32_t kMaxNodes = UINT16_MAX;  // of the counter 'active'

static_assert(offsetof(RbNode, next) == 32 && offsetof(RbNode, key) == 48 && offsetof(RbNode, size) == 64 &&
              offsetof(RbNode, refs) == 72 && sizeof(RbNode) == 80);
static_assert(offsetof(qel_rbtree, active) == 24 && offsetof(qel_rbtree, key_searches) == 40 &&
              offsetof(qel_rbtree, print_key) == 64 && offsetof(qel_rbtree, key_max) == 80 &&
              offsetof(qel_rbtree, debug) == 128 && sizeof(qel_rbtree) == 136);

// The sentinel: black, size 0, all links to itself.
[[gnu::visibility("hidden")]] extern constinit RbNode rb_nil;

inline RbNode* nil() {
    return &rb_nil;
}

// A running qel_rbtree_for_each_node() that protects, on its stack.
struct RbWalk {
    RbNode* next;   // the node to visit next, or null; a deletion of just that one moves it on
    RbWalk* outer;  // the walk in whose function this one runs
};

// The record that qel_rbtree_create() allocates; 'full_name' lies behind it.
struct RbTree : qel_rbtree {
    RbWalk* walks;             // the innermost running walk
    std::uint32_t free_nodes;  // on the free list; 'free' tells as many of them as it can
    std::uint8_t debug_byte;   // where 'debug' points unless the application points it elsewhere
};

inline RbTree& inner(qel_rbtree* tree) {
    return *static_cast<RbTree*>(tree);
}
inline std::uint32_t free_nodes(const qel_rbtree& tree) {
    return static_cast<const RbTree&>(tree).free_nodes;
}
constexpr std::uint16_t told(std::uint32_t free_nodes) {
    return static_cast<std::uint16_t>(std::min<std::uint32_t>(free_nodes, UINT16_MAX));
}
inline void count_free(RbTree& tree, std::uint32_t change) {
    tree.free_nodes += change;
    tree.free = told(tree.free_nodes);
}

// Bits 31..16 and 15..0 of an interval, of which a key and a summary are made.
constexpr std::uint16_t low_end(std::uint64_t interval) {
    return static_cast<std::uint16_t>(interval >> 16);
}
constexpr std::uint16_t high_end(std::uint64_t interval) {
    return static_cast<std::uint16_t>(interval);
}
constexpr std::uint64_t make_interval(std::uint16_t low, std::uint16_t high) {
    return std::uint64_t{low} << 16 | high;
}
constexpr bool overlap(std::uint64_t left, std::uint64_t right) {
    return high_end(left) >= low_end(right) && high_end(right) >= low_end(left);
}

// The three orders of keys. fold() takes a key, or the summary of a subtree, into a summary; may_hold() tells
// whether a summary could change when a key leaves its subtree.
struct ByLow32 {
    static bool less(std::uint64_t left, std::uint64_t right) {
        return static_cast<std::uint32_t>(left) < static_cast<std::uint32_t>(right);
    }
    static std::uint64_t fold(std::uint64_t summary, std::uint64_t other) {
        return less(summary, other) ? other : summary;
    }
    static bool may_hold(std::uint64_t summary, std::uint64_t key) { return !less(key, summary); }
};

struct ByLowEnd {
    static bool less(std::uint64_t left, std::uint64_t right) { return low_end(left) < low_end(right); }
    static std::uint64_t fold(std::uint64_t summary, std::uint64_t other) {
        return make_interval(std::min(low_end(summary), low_end(other)),
                             std::max(high_end(summary), high_end(other)));
    }
    static bool may_hold(std::uint64_t summary, std::uint64_t key) {
        return low_end(summary) == low_end(key) || high_end(summary) == high_end(key);
    }
};

struct ByFunctions {
    qel_rbtree_key_compare compare;
    qel_rbtree_key_max max;

    bool less(std::uint64_t left, std::uint64_t right) const { return compare(left, right) < 0; }
    std::uint64_t fold(std::uint64_t summary, std::uint64_t other) const {
        std::uint64_t largest = summary;
        max(&largest, summary, other);
        return largest;
    }
    static bool may_hold(std::uint64_t, std::uint64_t) { return true; }
};

// Runs 'work' with the order of whole keys, as searches use it.
template <class Work>
auto with_key_order(const qel_rbtree& tree, Work work) {
    if (tree.key32 != 0) return work(ByLow32{});
    return work(ByFunctions{tree.key_compare, tree.key_max});
}
// Runs 'work' with the order in which the nodes lie.
template <class Work>
auto with_order(const qel_rbtree& tree, Work work) {
    if (tree.interval != 0) return work(ByLowEnd{});
    return with_key_order(tree, work);
}

// The summary that the node's key and the summaries of its children make.
template <class Order>
std::uint64_t summary_of(const RbNode& node, Order order) {
    std::uint64_t summary = node.key;
    if (node.left != nil()) summary = order.fold(summary, node.left->summary);
    if (node.right != nil()) summary = order.fold(summary, node.right->summary);
    return summary;
}

// The child to go on to. The links are indexed, as a choice between them would be compiled to a jump that
// nobody can predict; both children are asked for before the comparison.
static_assert(offsetof(RbNode, right) == offsetof(RbNode, left) + sizeof(RbNode*));
inline RbNode* child_at(const RbNode& node, bool right) {
    return (&node.left)[right];
}
inline void want_children(const RbNode& node) {
    want_to_read(node.left);
    want_to_read(node.right);
}

inline RbNode* lowest_below(RbNode* node) {
    while (node->left != nil()) node = node->left;
    return node;
}

// Makes 'node' what a deleted one is: off the tree and off every list. Key and protection stay.
inline void clear_links(RbNode& node) {
    node.parent = node.left = node.right = node.free_next = nil();
    node.next = node.prev = nullptr;
    node.summary = 0;
    node.size = 0;
}

// The next node in pre-order of the subtree 'top', or null. Enters a child only if the child names its parent
// and isn't 'top', so a walk ends even where links are broken. 'depth', if not null, follows the level.
const RbNode* next_in_preorder(const RbNode* top, const RbNode* node, std::uint32_t* depth);

// The checks of qel_rbtree_valid(): the text of the first that fails, or null. Writes nothing.
const char* first_fault(const qel_rbtree& tree);

}  // namespace qel
