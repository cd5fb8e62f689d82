// Red-black tree: printing a subtree, with what is wrong in it.
//
// One line a node, each below its parent and indented by its depth. A node that can't belong where it is
// found gets a line of its own, and nothing below it is entered, so that a print of a broken tree ends.
// Locks and threads: none; see qel/rbtree.h.
#include <qel/base.h>

#include <array>

#include "containers/qel_rbtree.hpp"

namespace qel {
namespace {

using KeyText = std::array<char, QEL_RBTREE_KEY_TEXT_SIZE>;

const char* key_text(const qel_rbtree& tree, const RbNode& node, KeyText& text) {
    const char* printed = tree.print_key(text.data(), node.key);
    return printed == nullptr ? "" : printed;
}

bool out_of_order(const qel_rbtree& tree, const RbNode& parent, const RbNode& child) {
    return with_order(tree, [&](auto order) {
        return &child == parent.left ? order.less(parent.key, child.key) : order.less(child.key, parent.key);
    });
}

void print_node(const qel_rbtree& tree, const RbNode& node, std::uint32_t depth) {
    KeyText text{};
    (void)qel_cli_printf("\n%*s%s %s, size %u, refs %u", static_cast<int>(std::min(depth, 64u)) * 2, "",
                         node.color == kRed ? "red" : "black", key_text(tree, node, text), node.size,
                         static_cast<unsigned>(node.refs));
}

void print_child_faults(const qel_rbtree& tree, const RbNode& parent, const RbNode* child) {
    if (child == nil() || child == nullptr) return;
    KeyText text{};
    if (child == tree.root) {
        (void)qel_cli_printf("\n%s: Tree FAULT! Head node found within tree", tree.full_name);
    } else if (child->size == 0) {
        (void)qel_cli_printf("\n%s: Tree FAULT! deleted node found=%s", tree.full_name,
                             key_text(tree, *child, text));
    } else if (out_of_order(tree, parent, *child)) {
        (void)qel_cli_printf("\n%s: Tree FAULT! invalid key found node=%s", tree.full_name,
                             key_text(tree, *child, text));
    }
}

}  // namespace
}  // namespace qel

using namespace qel;

void qel_rbtree_print(const qel_rbtree_node* node, uint32_t depth, const qel_rbtree* tree) {
    if (tree == nullptr || node == nullptr || node == nil()) return;
    std::uint32_t level = depth;
    for (const RbNode* at = node; at != nullptr; at = next_in_preorder(node, at, &level)) {
        print_node(*tree, *at, level);
        print_child_faults(*tree, *at, at->left);
        print_child_faults(*tree, *at, at->right);
    }
    (void)qel_cli_printf("\n");
}
