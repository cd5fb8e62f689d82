// The order of siblings, and the rule that a node expires when its first child does.
//
// Children are a list in the order of their expiry: 'next' ends in null, and the first child's 'prev' is the
// last. A node that starts goes behind its equals, so that among equal times first come is first served. Few
// siblings are searched one by one from the nearer end; beside many lies an index (qel_mgd_timer_index.hpp).
// A change moves on to the parent only if it touched the first child, and ends at the first ancestor where it
// didn't, or at the root.
//
// Invariant, whenever the mutex is free: a node runs if and only if it is linked (the root: if it has a
// child), siblings ascend, and a parent's expiry is its first child's. Locks: the tree's mutex, held by the
// callers. Threads: any. Restart: nothing stays.
#include <utility>

#include "timers/qel_mgd_timer.hpp"
#include "timers/qel_mgd_timer_index.hpp"

namespace qel::mgd {
namespace {

// With how many children an index is made, and with how few it goes.
constexpr std::uint32_t kIndexFrom = 32;
constexpr std::uint32_t kIndexDownTo = 8;

Index* index_of(const Parent& parent) {
    return static_cast<Index*>(parent.index);
}

// ---- The index, which is there or not

void drop_index(Parent& parent, std::uint32_t try_again_from) {
    Index::free(index_of(parent));
    parent.index = nullptr;
    parent.index_from = try_again_from;
}

void make_index(Parent& parent) {
    parent.index = Index::make(parent);
    if (parent.index == nullptr) parent.index_from = parent.child_count * 2;
}

// Tells a parent that is out of memory for its index apart from one that has too few children for it.
bool wants_index(const Parent& parent) {
    return parent.child_count > kIndexFrom && parent.child_count >= parent.index_from;
}

// What an index that failed leaves: the list, in order.
void give_up_index(Parent& parent) {
    drop_index(parent, parent.child_count * 2);
}

// ---- The list

void link_in_front_of(Parent& parent, Node& node, Node* next) {
    if (parent.first_child == nullptr) {
        node.next = nullptr;
        node.prev = parent.first_child = &node;
        return;
    }
    Node*& back_link = next != nullptr ? next->prev : parent.first_child->prev;
    node.next = next;
    node.prev = std::exchange(back_link, &node);
    if (next == parent.first_child)
        parent.first_child = &node;
    else
        node.prev->next = &node;
}

// Between two siblings, which are written and not read: nothing waits for them to come from memory.
void link_between(Node& prev, Node& node, Node& next) {
    node.prev = &prev;
    node.next = &next;
    prev.next = next.prev = &node;
}

void unlink_from_list(Parent& parent, Node& node) {
    if (parent.first_child == &node)
        parent.first_child = node.next;
    else
        node.prev->next = node.next;
    if (node.next != nullptr)
        node.next->prev = node.prev;
    else if (parent.first_child != nullptr)
        parent.first_child->prev = node.prev;
    node.next = node.prev = nullptr;
}

// The first sibling that expires after 'expiry', or null: walks from the end that is nearer in time.
Node* walk_to_later(const Parent& parent, const timespec& expiry) {
    Node* first = parent.first_child;
    Node* last = first->prev;
    if (order(subtract(expiry, first->exptime), subtract(last->exptime, expiry)) < 0) {
        while (first != nullptr && order(first->exptime, expiry) <= 0) first = first->next;
        return first;
    }
    Node* later = nullptr;
    for (; order(last->exptime, expiry) > 0; last = last->prev) {
        later = last;
        if (last == first) break;
    }
    return later;
}

// ---- Both

// The index comes first, while the neighbours in the list are on their way from memory. Among expiries that
// share a key only the list knows the place.
bool link_by_index(Parent& parent, Node& node) {
    Index& index = *index_of(parent);
    const std::int64_t key = key_of(node.exptime);
    if (is_exact(key)) {
        const Slot slot = index.find(key);
        if (slot.is_inside()) {
            link_between(slot.run->at(slot.rank - 1), node, slot.run->at(slot.rank));
            return index.insert(slot, node);
        }
        Node* next = slot.next();
        const bool inserted = index.insert(slot, node);
        link_in_front_of(parent, node, next);
        return inserted;
    }
    link_in_front_of(parent, node, walk_to_later(parent, node.exptime));
    return index.insert(index.between_siblings(node), node);
}

void link_indexed(Parent& parent, Node& node) {
    if (!link_by_index(parent, node)) give_up_index(parent);
}

void link_unindexed(Parent& parent, Node& node) {
    const bool is_last =
        parent.first_child == nullptr || order(parent.first_child->prev->exptime, node.exptime) <= 0;
    link_in_front_of(parent, node, is_last ? nullptr : walk_to_later(parent, node.exptime));
    if (wants_index(parent)) make_index(parent);
}

void link(Parent& parent, Node& node) {
    ++parent.child_count;
    parent.index != nullptr ? link_indexed(parent, node) : link_unindexed(parent, node);
}

void unlink(Parent& parent, Node& node) {
    --parent.child_count;
    if (parent.index == nullptr)
        parent.index_from = parent.child_count > kIndexDownTo ? parent.index_from : 0;
    else if (parent.child_count < kIndexDownTo)
        drop_index(parent, 0);
    else
        index_of(parent)->remove(node);
    unlink_from_list(parent, node);
}

// Nearly all the time of a change among very many leaves is spent waiting for memory. This asks at once for
// what will be needed in turn.
void expect_unlink(const Parent& parent, const Node& node) {
    __builtin_prefetch(node.prev);
    __builtin_prefetch(node.next);
    if (parent.index != nullptr) index_of(parent)->expect_removal(node);
}

// ---- One node among its siblings

// True if a running node may expire at 'expiry' and stay where it is.
bool stays_in_place(const Parent& parent, const Node& node, const timespec& expiry) {
    if (parent.first_child == &node) return node.next == nullptr || order(expiry, node.next->exptime) < 0;
    if (order(node.exptime, expiry) == 0) return true;
    return order(node.prev->exptime, expiry) < 0 &&
           (node.next == nullptr || order(expiry, node.next->exptime) <= 0);
}

void place(Parent& parent, Node& node, const timespec& expiry) {
    if (!is_linked(node)) {
        node.exptime = expiry;
        link(parent, node);
        return;
    }
    expect_unlink(parent, node);
    if (parent.index != nullptr) index_of(parent)->expect_insertion(key_of(expiry));
    if (stays_in_place(parent, node, expiry)) {
        node.exptime = expiry;
        if (parent.index != nullptr && !index_of(parent)->rekey(node)) give_up_index(parent);
    } else {
        unlink(parent, node);
        node.exptime = expiry;
        link(parent, node);
    }
}

bool may_expire(const Node& node, const timespec& expiry) {
    if (!is_running(expiry))
        return failed<"MTMR1", "QEL-MTMR-ERROR: node (%p) given an expiration time that is not running">(
            false, &node);
    if (!is_running(node.exptime) && node.prev != nullptr)
        return failed<"MTMR2", "QEL-MTMR-ERROR: broken timer (%p) is linked but not running">(false, &node);
    if (node.parent != nullptr && is_leaf(node.parent->node))
        return failed<"MTMR3", "QEL-MTMR-ERROR: broken timer (%p) parent is a leaf">(false, &node);
    return true;
}

}  // namespace

bool set_expiry_locked(Node& start, const timespec& start_expiry) {
    Node* node = &start;
    timespec expiry = start_expiry;
    while (may_expire(*node, expiry)) {
        if (is_root(*node)) {
            node->exptime = expiry;
            return true;
        }
        Parent& parent = *node->parent;
        const bool was_first = parent.first_child == node;
        place(parent, *node, expiry);
        if (!was_first && parent.first_child != node) return false;
        node = &parent.node;
        expiry = parent.first_child->exptime;
    }
    return false;
}

void delink_locked(Node& start) {
    Node* node = &start;
    while (is_linked(*node)) {
        Parent& parent = *node->parent;
        const bool was_first = parent.first_child == node;
        expect_unlink(parent, *node);
        unlink(parent, *node);
        node->exptime = {};
        if (!was_first) return;
        node = &parent.node;
        if (parent.first_child != nullptr) {
            expect_node(parent.first_child->next);
            static_cast<void>(set_expiry_locked(*node, parent.first_child->exptime));  // Its callers adjust.
            return;
        }
    }
    node->exptime = {};
}

Leaf* first_leaf_locked(Parent& parent) {
    Node* node = parent.first_child;
    while (node != nullptr && !is_leaf(*node)) node = parent_of(*node).first_child;
    return node != nullptr ? &leaf_of(*node) : nullptr;
}

}  // namespace qel::mgd
