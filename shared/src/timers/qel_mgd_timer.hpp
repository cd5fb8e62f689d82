// Managed timer trees inside: what the files qel_mgd_timer*.cpp offer each other.
//
// qel_mgd_timer_tree.cpp      the exported calls on trees
// qel_mgd_timer_node.cpp      the exported calls on parents and leaves
// qel_mgd_timer_order.cpp     siblings in the order of their expiry, and what that means for their parents
// qel_mgd_timer_index.cpp     an index beside the siblings of a parent that has many
// qel_mgd_timer_dispatch.cpp  the dispatcher: attaching, arming its timer, expiry
//
// A function that ends in _locked needs the tree's mutex.
#pragma once

#include <qel/mgd_timer.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "core/qel_lock.hpp"
#include "time/qel_time.hpp"
#include "trace/qel_report.hpp"

namespace qel::mgd {

using Node = qel_mgd_timer;
using Parent = qel_mgd_timer_parent;
using Leaf = qel_mgd_timer_leaf;
using Tree = qel_mgd_timer_tree;

// Applications read these, and each kind of node is reached by the address of its common part.
static_assert(sizeof(Node) == 48 && offsetof(Node, exptime) == 24 && offsetof(Node, type) == 40 &&
              offsetof(Node, init_mark) == 42 && offsetof(Node, flags) == 43);
static_assert(offsetof(Parent, node) == 0 && offsetof(Parent, first_child) == 48 &&
              offsetof(Parent, tree) == 56);
static_assert(offsetof(Leaf, node) == 0 && offsetof(Leaf, tree) == 48 && offsetof(Leaf, context) == 56);
static_assert(offsetof(Tree, root) == 0 && std::is_standard_layout_v<Tree>);

inline bool is_leaf(const Node& node) {
    return (node.flags & QEL_MGD_TIMER_LEAF) != 0;
}
inline bool is_root(const Node& node) {
    return (node.flags & QEL_MGD_TIMER_TREE) != 0;
}
inline bool is_initialised(const Node& node) {
    return node.init_mark == QEL_MGD_TIMER_INITIALIZED;
}
inline bool is_linked(const Node& node) {
    return node.prev != nullptr && node.parent != nullptr;
}
inline Leaf& leaf_of(Node& node) {
    return reinterpret_cast<Leaf&>(node);
}
inline Parent& parent_of(Node& node) {
    return reinterpret_cast<Parent&>(node);
}
inline Tree* tree_of(Node& node) {
    return is_leaf(node) ? leaf_of(node).tree : parent_of(node).tree;
}
template <class Kind>
Node* node_at(Kind* object) {
    return reinterpret_cast<Node*>(object);
}

// Has a node brought from memory, which lies on two lines of the cache: both at once. Null is harmless.
inline void expect_node(const Node* node) {
    constexpr std::uintptr_t line = 64;
    __builtin_prefetch(node);
    __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(node) + line));
}

inline bool is_due(const Node& node, const timespec& now) {
    return is_running(node.exptime) && order(now, node.exptime) >= 0;
}

// The time left until 'expiry', zero once it has come.
inline timespec time_left(const timespec& expiry, const timespec& now) {
    timespec left = subtract(expiry, now);
    return left.tv_sec < 0 ? timespec{} : left;
}

struct ReportedLockFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
};
using Locked = BasicLocked<ReportedLockFailures>;

// The tree's mutex stands in a C struct; the guards know it as what it is inside of theirs.
static_assert(sizeof(Mutex) == sizeof(pthread_mutex_t) && std::is_standard_layout_v<Mutex>);
inline Mutex& mutex_of(Tree& tree) {
    return reinterpret_cast<Mutex&>(tree.mutex);
}

// The mutex of a node's tree, held for a scope; nothing for a node or tree that is null or not initialised.
class Held {
  public:
    explicit Held(Node* node) : tree_(usable_tree(node)) {
        if (tree_ == nullptr) return;
        lock_.emplace(mutex_of(*tree_));
        if (lock_->error() != 0) tree_ = nullptr;
    }
    template <class Kind>
    explicit Held(Kind* object) : Held(node_at(object)) {}

    explicit operator bool() const { return tree_ != nullptr; }
    Tree& tree() const { return *tree_; }

  private:
    static Tree* usable_tree(Node* node) {
        if (node == nullptr || !is_initialised(*node)) return nullptr;
        Tree* tree = tree_of(*node);
        return tree != nullptr && is_initialised(tree->root.node) ? tree : nullptr;
    }

    Tree* tree_;
    std::optional<Locked> lock_;
};

// ---- qel_mgd_timer_tree.cpp

// The family's trace buffer, made on first need; null while it can't be made.
qel_dt_buffer_handle event_buffer();
// Makes the family's trace buffer and debug flags, once per process.
void make_debug_resources();

// ---- qel_mgd_timer_node.cpp

// Stops all leaves below 'parent'.
void stop_all_locked(Parent& parent);

// ---- qel_mgd_timer_order.cpp

// Makes 'node' run until 'expiry'. True if that reached the root, whose expiry may have changed then.
bool set_expiry_locked(Node& node, const timespec& expiry);
// Stops 'node', and its parents as far as they have no other running child.
void delink_locked(Node& node);
// The earliest leaf below, or null.
Leaf* first_leaf_locked(Parent& parent);

// ---- qel_mgd_timer_dispatch.cpp

// Brings the dispatcher timer in line with the tree's expiry. 'now' is a reading of the monotonic clock that
// the caller has anyway, or null.
void adjust_locked(Tree& tree, const timespec* now);
int detach(Tree& tree);

}  // namespace qel::mgd
