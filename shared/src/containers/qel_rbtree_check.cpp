// Red-black tree: the checks of the whole tree.
//
// Each check is a row: its text, and a function that tells whether it fails. The rows apply to the sentinel,
// to the root, to the links of every node, then to every node in order, to the summary of all, and to the
// free list. The first pass over the nodes enters a child only after its parent link was found right, so
// that the second can trust the links; a list is followed no further than its count. So a broken tree gives
// a text and never a hang.
//
// Locks and threads: none; a check only reads, but for 'last_error'. See qel/rbtree.h.
#include <qel/base.h>

#include <array>
#include <span>

#include "containers/qel_rbtree.hpp"

namespace qel {
namespace {

// A node with what its checks compare it to.
struct Look {
    const qel_rbtree& tree;
    const RbNode& node;
    const RbNode* before = nullptr;  // the neighbours in order by the tree's links, or null
    const RbNode* behind = nullptr;
};

struct Check {
    const char* text;
    bool (*fails)(const Look&);
};

bool less(const qel_rbtree& tree, std::uint64_t left, std::uint64_t right) {
    return with_order(tree, [&](auto order) { return order.less(left, right); });
}
std::uint64_t expected_summary(const Look& look) {
    return with_order(look.tree, [&](auto order) { return summary_of(look.node, order); });
}
bool minimum_differs(const Look& look) {
    return look.tree.interval != 0 && low_end(look.node.summary) != low_end(expected_summary(look));
}
bool maximum_differs(const Look& look) {
    const std::uint64_t expected = expected_summary(look);
    if (look.tree.interval != 0) return high_end(look.node.summary) != high_end(expected);
    return less(look.tree, look.node.summary, expected) || less(look.tree, expected, look.node.summary);
}
bool is_leaf(const RbNode& node) {
    return node.left == nil() && node.right == nil();
}
bool has_null_link(const RbNode& node) {
    return node.parent == nullptr || node.left == nullptr || node.right == nullptr ||
           node.free_next == nullptr;
}

constexpr std::array kSentinelChecks{
    Check{"Right pointer invalid", [](const Look& look) { return look.node.right != nil(); }},
    Check{"Left pointer invalid", [](const Look& look) { return look.node.left != nil(); }},
    Check{"Parent pointer invalid", [](const Look& look) { return look.node.parent != nil(); }},
    Check{"FreeList pointer invalid", [](const Look& look) { return look.node.free_next != nil(); }},
    Check{"Key value invalid", [](const Look& look) { return look.node.key != 0; }},
    Check{"Key summary value invalid", [](const Look& look) { return look.node.summary != 0; }},
    Check{"Color is invalid", [](const Look& look) { return look.node.color != kBlack; }},
};
constexpr std::array kRootChecks{
    Check{"Tree empty but root not NIL",
          [](const Look& look) { return look.tree.active == 0 && &look.node != nil(); }},
    Check{"Root size differs from active count",
          [](const Look& look) { return look.node.size != look.tree.active; }},
    Check{"Root node has non-NIL parent", [](const Look& look) { return look.node.parent != nil(); }},
    Check{"Color is invalid", [](const Look& look) { return look.node.color != kBlack; }},
};
constexpr std::array kLinkChecks{
    Check{"Pointer is NULL", [](const Look& look) { return has_null_link(look.node); }},
    Check{"Left child has bad parent ptr",
          [](const Look& look) { return look.node.left != nil() && look.node.left->parent != &look.node; }},
    Check{"Right child has bad parent ptr",
          [](const Look& look) { return look.node.right != nil() && look.node.right->parent != &look.node; }},
    Check{"Node is not a sibling of the parent",
          [](const Look& look) {
              const RbNode& parent = *look.node.parent;
              return &parent != nil() && (parent.left == &look.node) == (parent.right == &look.node);
          }},
};
constexpr std::array kNodeChecks{
    Check{"Node has an invalid size (less than 1)", [](const Look& look) { return look.node.size < 1; }},
    Check{"Leaf node has child(ren)",
          [](const Look& look) { return look.node.size == 1 && !is_leaf(look.node); }},
    Check{
        "Size value is wrong",
        [](const Look& look) { return look.node.size != 1 + look.node.left->size + look.node.right->size; }},
    Check{"Parent size is wrong",
          [](const Look& look) {
              return look.node.parent != nil() && look.node.parent->size <= look.node.size;
          }},
    Check{"Node has an invalid freelist pointer",
          [](const Look& look) { return look.node.free_next != nil(); }},
    Check{"Color is invalid", [](const Look& look) { return look.node.color > kBlack; }},
    Check{"Left child has larger key",
          [](const Look& look) {
              return look.node.left != nil() && less(look.tree, look.node.key, look.node.left->key);
          }},
    Check{"Right child has smaller key",
          [](const Look& look) {
              return look.node.right != nil() && less(look.tree, look.node.right->key, look.node.key);
          }},
    Check{"Left child min subkey differs",
          [](const Look& look) { return look.node.left != nil() && minimum_differs(look); }},
    Check{"Min subkey not equal to low key", minimum_differs},
    Check{"Right child max subkey differs",
          [](const Look& look) { return look.node.right != nil() && maximum_differs(look); }},
    Check{"Max subkey not equal to high key", maximum_differs},
    Check{"Red node and red child (violates #3)",
          [](const Look& look) {
              return look.node.color == kRed &&
                     (look.node.left->color == kRed || look.node.right->color == kRed);
          }},
    Check{"Red node and red parent (violates #3)",
          [](const Look& look) { return look.node.color == kRed && look.node.parent->color == kRed; }},
    Check{"Previous link of next node doesn't point to us",
          [](const Look& look) {
              return look.behind == nullptr ? look.node.next != nullptr : look.behind->prev != &look.node;
          }},
    Check{"Next link of previous node doesn't point to us",
          [](const Look& look) {
              return look.before == nullptr ? look.node.prev != nullptr : look.before->next != &look.node;
          }},
    Check{"Nodes are out of order",
          [](const Look& look) {
              return look.before != nullptr && less(look.tree, look.node.key, look.before->key);
          }},
};
// Of the root, between the lowest node and the highest.
constexpr std::array kEndChecks{
    Check{"Smallest key is not root min subkey",
          [](const Look& look) {
              return look.tree.interval != 0 && low_end(look.before->key) != low_end(look.node.summary);
          }},
    Check{"Largest key is not root max subkey",
          [](const Look& look) {
              return look.tree.interval == 0 && less(look.tree, look.behind->key, look.node.summary);
          }},
};
constexpr std::array kFreeListChecks{
    Check{"Free list empty but not NIL",
          [](const Look& look) { return look.tree.free == 0 && &look.node != nil(); }},
};
constexpr std::array kFreeNodeChecks{
    Check{"Pointer is NULL", [](const Look& look) { return has_null_link(look.node); }},
    Check{"Non-nil links for free node",
          [](const Look& look) { return !is_leaf(look.node) || look.node.parent != nil(); }},
};
constexpr const char* kFreeCountFault = "Free node count wrong";

const char* first_failed(std::span<const Check> checks, const Look& look) {
    for (const Check& check : checks)
        if (check.fails(look)) return check.text;
    return nullptr;
}

const char* fault_of_links(const qel_rbtree& tree) {
    for (const RbNode* node = tree.root; node != nullptr; node = next_in_preorder(tree.root, node, nullptr))
        if (const char* fault = first_failed(kLinkChecks, {tree, *node})) return fault;
    return nullptr;
}

// The node behind 'node' by the tree's links, or null.
const RbNode* successor_by_links(const RbNode* node) {
    if (node->right != nil()) return lowest_below(node->right);
    while (node->parent != nil() && node == node->parent->right) node = node->parent;
    return node->parent == nil() ? nullptr : node->parent;
}

const char* fault_of_nodes(const qel_rbtree& tree) {
    if (const char* fault = fault_of_links(tree)) return fault;
    const RbNode* lowest = lowest_below(tree.root);
    const RbNode* before = nullptr;
    for (const RbNode* node = lowest; node != nullptr;) {
        const RbNode* behind = successor_by_links(node);
        if (const char* fault = first_failed(kNodeChecks, {tree, *node, before, behind})) return fault;
        before = node;
        node = behind;
    }
    return first_failed(kEndChecks, {tree, *tree.root, lowest, before});
}

const char* fault_of_free_list(const qel_rbtree& tree) {
    if (const char* fault = first_failed(kFreeListChecks, {tree, *tree.free_list})) return fault;
    std::uint32_t count = 0;
    const RbNode* node = tree.free_list;
    for (; node != nil() && count < free_nodes(tree); ++count) {
        if (const char* fault = first_failed(kFreeNodeChecks, {tree, *node})) return fault;
        node = node->free_next;
    }
    return count == free_nodes(tree) && tree.free == told(count) && node == nil() ? nullptr : kFreeCountFault;
}

}  // namespace

const RbNode* next_in_preorder(const RbNode* top, const RbNode* node, std::uint32_t* depth) {
    auto enters = [&](const RbNode* parent, const RbNode* child) {
        return child != nullptr && child != nil() && child != top && child->parent == parent;
    };
    auto go_down = [&](const RbNode* child) {
        if (depth != nullptr) ++*depth;
        return child;
    };
    if (enters(node, node->left)) return go_down(node->left);
    if (enters(node, node->right)) return go_down(node->right);
    for (; node != top; node = node->parent) {
        const RbNode* parent = node->parent;
        if (node != parent->right && enters(parent, parent->right)) return parent->right;
        if (depth != nullptr) --*depth;
    }
    return nullptr;
}

const char* first_fault(const qel_rbtree& tree) {
    if (const char* fault = first_failed(kSentinelChecks, {tree, rb_nil})) return fault;
    if (tree.root == nullptr || tree.free_list == nullptr) return "Pointer is NULL";
    if (const char* fault = first_failed(kRootChecks, {tree, *tree.root})) return fault;
    if (tree.root != nil())
        if (const char* fault = fault_of_nodes(tree)) return fault;
    return fault_of_free_list(tree);
}

}  // namespace qel

using namespace qel;

int qel_rbtree_valid(qel_rbtree* tree, uint32_t level, const char* caller) {
    if (tree == nullptr) return 0;
    const char* fault = first_fault(*tree);
    if (fault == nullptr) return 1;
    tree->last_error = fault;
    if (level != 0)
        (void)qel_cli_printf("\n%s: %s: %s\n", tree->full_name, caller == nullptr ? "" : caller, fault);
    return 0;
}
