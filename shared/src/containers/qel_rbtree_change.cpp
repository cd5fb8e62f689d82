// Red-black tree: insertion, deletion, and the rotations that keep the balance.
//
// Every node keeps the size and the summary of its subtree and its place in the in-order list. An insertion
// brings both up to date on its way down. A deletion takes one off each size on the way up, which also shows
// whether the node is this tree's at all, before anything else changes; summaries are made anew only as far
// up as they could have come from a key that left. The list makes the successor of a node one load away.
//
// Left and right are one piece of code with the side as a parameter. No step writes to the sentinel.
//
// Invariant: the root is black, no red node has a red child, and every way down passes equally many black
// ones. Locks and threads: none; see qel/rbtree.h. With 'debug' on, all checks run before and after a change.
#include "containers/qel_rbtree.hpp"

#include <utility>

namespace qel {
namespace {

enum class Side : bool { left, right };

constexpr Side across(Side side) {
    return side == Side::left ? Side::right : Side::left;
}

template <Side side>
RbNode*& child(RbNode* node) {
    return side == Side::left ? node->left : node->right;
}

template <class Order>
void refresh(RbNode& node, Order order) {
    node.size = 1 + node.left->size + node.right->size;
    node.summary = summary_of(node, order);
}

void set_parent(RbNode* node, RbNode* parent) {
    if (node != nil()) node->parent = parent;
}

// Makes 'heir', which may be the sentinel, the child of its parent that 'node' was.
void put_in_place_of(RbTree& tree, const RbNode* node, RbNode* heir) {
    RbNode* parent = node->parent;
    set_parent(heir, parent);
    if (parent == nil())
        tree.root = heir;
    else if (parent->left == node)
        parent->left = heir;
    else
        parent->right = heir;
}

// Turns 'upper' down to 'side': its other child rises into its place. The subtree as a whole stays the same,
// and so do the size and summary at its top.
template <Side side, class Order>
void rotate(RbTree& tree, RbNode* upper, Order order) {
    RbNode* riser = child<across(side)>(upper);
    RbNode* between = child<side>(riser);
    put_in_place_of(tree, upper, riser);
    child<across(side)>(upper) = between;
    set_parent(between, upper);
    child<side>(riser) = upper;
    upper->parent = riser;
    riser->size = upper->size;
    riser->summary = upper->summary;
    refresh(*upper, order);
    ++tree.rotations;
}

// Mends one red node below a red parent, which is the child of its own parent at 'side'. Gives the node at
// which the trouble may go on.
template <Side side, class Order>
RbNode* mend_red(RbTree& tree, RbNode* node, Order order) {
    RbNode* parent = node->parent;
    RbNode* grandparent = parent->parent;
    RbNode* uncle = child<across(side)>(grandparent);
    if (uncle->color == kRed) {
        parent->color = uncle->color = kBlack;
        grandparent->color = kRed;
        return grandparent;
    }
    if (node == child<across(side)>(parent)) {
        rotate<side>(tree, parent, order);
        std::swap(node, parent);
    }
    parent->color = kBlack;
    grandparent->color = kRed;
    rotate<across(side)>(tree, grandparent, order);
    return node;
}

template <class Order>
void insert_fixup(RbTree& tree, RbNode* node, Order order) {
    while (node->parent->color == kRed) {
        const RbNode* parent = node->parent;
        node = parent == parent->parent->left ? mend_red<Side::left>(tree, node, order)
                                              : mend_red<Side::right>(tree, node, order);
    }
    tree.root->color = kBlack;
}

// A place in the tree at which a black node is missing. 'node' may be the sentinel, which doesn't know its
// parent.
struct Deficit {
    RbNode* node;
    RbNode* parent;
};

constexpr Deficit one_level_up(RbNode* parent) {
    return {parent, parent->parent};
}

// One step of the deletion's repair for a deficit at the child of 'parent' at 'side'.
template <Side side, class Order>
Deficit mend_deficit(RbTree& tree, RbNode* parent, Order order) {
    RbNode* sibling = child<across(side)>(parent);
    if (sibling->color == kRed) {
        sibling->color = kBlack;
        parent->color = kRed;
        rotate<side>(tree, parent, order);
        sibling = child<across(side)>(parent);
    }
    if (sibling == nil()) return one_level_up(parent);
    if (sibling->left->color == kBlack && sibling->right->color == kBlack) {
        sibling->color = kRed;
        return one_level_up(parent);
    }
    if (child<across(side)>(sibling)->color == kBlack) {
        child<side>(sibling)->color = kBlack;
        sibling->color = kRed;
        rotate<across(side)>(tree, sibling, order);
        sibling = child<across(side)>(parent);
    }
    sibling->color = parent->color;
    parent->color = child<across(side)>(sibling)->color = kBlack;
    rotate<side>(tree, parent, order);
    return {tree.root, nil()};
}

template <class Order>
void delete_fixup(RbTree& tree, Deficit at, Order order) {
    while (at.node != tree.root && at.parent != nil() && at.node->color == kBlack)
        at = at.node == at.parent->left ? mend_deficit<Side::left>(tree, at.parent, order)
                                        : mend_deficit<Side::right>(tree, at.parent, order);
    if (at.node->color == kRed) at.node->color = kBlack;  // the sentinel is black already
}

void join(RbNode* before, RbNode* after) {
    if (before != nullptr) before->next = after;
    if (after != nullptr) after->prev = before;
}

// Where a new node goes.
struct Place {
    RbNode* parent;
    bool goes_left;
};

// Goes down to the place of a new node, with the new key in all sizes and summaries passed. Stops at 'node'
// itself if that is in the way.
template <class Order>
Place descend(RbTree& tree, const RbNode* node, std::uint64_t key, Order order) {
    Place place{nil(), false};
    for (RbNode* current = tree.root; current != nil();) {
        place.parent = current;
        if (current == node) break;
        want_children(*current);
        ++current->size;
        if (const std::uint64_t summary = order.fold(current->summary, key); summary != current->summary)
            current->summary = summary;
        place.goes_left = order.less(key, current->key);
        current = child_at(*current, !place.goes_left);
    }
    return place;
}

// As a left child a node lies directly before its parent in order, as a right one directly behind.
void link(RbTree& tree, RbNode* node, Place place) {
    RbNode* parent = place.parent;
    node->parent = parent;
    if (parent == nil()) {
        tree.root = node;
    } else if (place.goes_left) {
        parent->left = node;
        join(parent->prev, node);
        join(node, parent);
    } else {
        parent->right = node;
        join(node, parent->next);
        join(parent, node);
    }
}

template <class Order>
RbNode* insert(RbTree& tree, RbNode* node, std::uint64_t key, Order order) {
    const Place place = descend(tree, node, key, order);
    if (place.parent == node) {
        // It's in already, so the counts above were raised for nothing.
        for (RbNode* above = node->parent; above != nil(); above = above->parent) refresh(*above, order);
        return node;
    }
    clear_links(*node);
    node->key = node->summary = key;
    node->size = 1;
    node->color = kRed;
    node->refs = 0;
    link(tree, node, place);
    insert_fixup(tree, node, order);
    ++tree.active;
    ++tree.inserted;
    return node;
}

// Adds 'change' to all sizes from 'node' up. Gives the top, or the sentinel when there is none.
RbNode* resize_upward(RbNode* node, std::uint32_t change) {
    RbNode* top = nil();
    for (; node != nil(); node = node->parent) {
        node->size += change;
        top = node;
    }
    return top;
}

// Takes the departed 'key' out of the summaries from 'node' up to below 'end', as far as it can be in them.
template <class Order>
void forget_key(RbNode* node, const RbNode* end, std::uint64_t key, Order order) {
    for (; node != end && order.may_hold(node->summary, key); node = node->parent) refresh(*node, order);
}

// Lets 'heir', which has left its own place, take the place and looks of 'node'.
void take_over(RbTree& tree, RbNode* node, RbNode* heir) {
    put_in_place_of(tree, node, heir);
    heir->left = node->left;
    heir->right = node->right;
    set_parent(heir->left, heir);
    set_parent(heir->right, heir);
    heir->color = node->color;
}

// Takes 'node' out of tree and list. 'leaver' is the one whose place is closed up: 'node', or its successor,
// which then takes the node's place. Sizes are right already.
template <class Order>
void unlink(RbTree& tree, RbNode* node, RbNode* leaver, Order order) {
    join(node->prev, node->next);
    RbNode* heir = leaver->left != nil() ? leaver->left : leaver->right;
    RbNode* parent = leaver->parent;
    const std::uint32_t lost_color = leaver->color;
    put_in_place_of(tree, leaver, heir);
    if (leaver != node) {
        if (parent == node) parent = leaver;
        take_over(tree, node, leaver);
        forget_key(parent, leaver, leaver->key, order);
        refresh(*leaver, order);
        ++tree.splices;
    }
    forget_key(leaver == node ? parent : leaver->parent, nil(), node->key, order);
    if (lost_color == kBlack) delete_fixup(tree, {heir, parent}, order);
}

void push_on_free_list(RbTree& tree, RbNode* node) {
    clear_links(*node);
    node->free_next = tree.free_list;
    tree.free_list = node;
    --tree.active;
    ++tree.deleted;
    count_free(tree, 1);
}

template <class Order>
RbNode* remove(RbTree& tree, RbNode* node, Order order) {
    if (node->prev != nullptr) want_to_write(node->prev);
    if (node->next != nullptr) want_to_write(node->next);
    const bool two_children = node->left != nil() && node->right != nil();
    RbNode* leaver = two_children ? node->next : node;
    RbNode* top = resize_upward(leaver->parent, UINT32_MAX);
    if ((top == nil() ? leaver : top) != tree.root) {
        (void)resize_upward(leaver->parent, 1);  // the node is another tree's
        return nullptr;
    }
    for (RbWalk* walk = tree.walks; walk != nullptr; walk = walk->outer)
        if (walk->next == node) walk->next = node->next;
    unlink(tree, node, leaver, order);
    push_on_free_list(tree, node);
    return node;
}

void check_if_debugging(qel_rbtree& tree, const char* change) {
    if (tree.debug != nullptr && *tree.debug != 0) [[unlikely]]
        (void)qel_rbtree_valid(&tree, 0, change);  // the text stays in 'last_error'
}

RbNode* checked_insert(qel_rbtree* tree, RbNode* node, std::uint64_t key, bool interval) {
    if (tree == nullptr || node == nullptr || node == nil() || tree->active == kMaxNodes) return nullptr;
    check_if_debugging(*tree, "before insertion");
    tree->interval = interval;
    RbNode* inserted = with_order(*tree, [&](auto order) { return insert(inner(tree), node, key, order); });
    check_if_debugging(*tree, "after insertion");
    return inserted;
}

}  // namespace
}  // namespace qel

using namespace qel;

qel_rbtree_node* qel_rbtree_insert(uint64_t key, qel_rbtree* tree, qel_rbtree_node* node) {
    return checked_insert(tree, node, key, false);
}

qel_rbtree_node* qel_rbtree_int_insert(uint16_t low, uint16_t high, qel_rbtree* tree, qel_rbtree_node* node) {
    return checked_insert(tree, node, make_interval(low, high == 0 ? low : high), true);
}

qel_rbtree_node* qel_rbtree_delete(qel_rbtree* tree, qel_rbtree_node* node) {
    if (tree == nullptr || node == nullptr || node->size == 0) return nullptr;
    check_if_debugging(*tree, "before deletion");
    RbNode* deleted = with_order(*tree, [&](auto order) { return remove(inner(tree), node, order); });
    check_if_debugging(*tree, "after deletion");
    return deleted;
}

void qel_rbtree_deleteFixup(qel_rbtree* tree, qel_rbtree_node* node) {
    if (tree == nullptr || node == nullptr) return;
    with_order(*tree, [&](auto order) { delete_fixup(inner(tree), {node, node->parent}, order); });
}
