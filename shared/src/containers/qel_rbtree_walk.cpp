// Red-black tree: walks in order, protection, and the list of deleted nodes.
//
// A deleted node isn't freed but goes to the tree's free list, from which it is reused or given back to the
// allocator, unless somebody protects it. A walk that protects notes itself on the tree: a deletion of the
// node to visit next then moves the walk on to the one behind. So its function may delete any node, and no
// deleted node is visited. The function may also end its thread: the guard then takes the walk off the tree.
// Any other walk only reads.
//
// Along the list each node would be waited for alone. So a walk asks for a small subtree ahead of it, level
// by level: the nodes of a level come from memory together.
//
// Invariant: 'free' nodes lie on the free list, each with a size of 0. Locks and threads: none; see
// qel/rbtree.h.
#include "containers/qel_rbtree.hpp"

#include <array>

#include "core/qel_owned.hpp"
#include "core/qel_prefetch.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kAhead = 64;  // nodes asked for at once

// What of a node is asked for: its links and key, or also its size, which is in the next cache line.
enum class Part { links, all };

// Asks for the subtree 'top' of at most kAhead nodes and gives their number. Whether a child is there enters
// no branch: a wrong guess would wait for its node.
template <Part part>
std::uint32_t fetch_subtree(const RbNode* top) {
    std::array<const RbNode*, 2 * kAhead + 1> nodes{top};
    std::uint32_t count = 1;
    auto add = [&](const RbNode* node) {
        want_to_read(node);
        if (part == Part::all) want_to_read(&node->size);
        nodes[count] = node;
        count += node != nil();
    };
    for (std::uint32_t i = 0; i < std::min(top->size, count); ++i) {
        add(nodes[i]->left);
        add(nodes[i]->right);
    }
    return count;
}

// Asks for the lowest small subtree below 'node'. Gives the number of nodes asked for.
template <Part part>
std::uint32_t fetch_ahead(const RbNode* node) {
    while (node->size > kAhead) node = node->left;
    return node == nil() ? 0 : fetch_subtree<part>(node);
}

class InOrder {
  public:
    InOrder(RbTree& tree, bool protect)
        : tree_(tree), walk_{qel_rbtree_first_node(&tree), tree.walks}, protect_(protect) {
        if (protect_) tree_.walks = &walk_;
        fetched_ = fetch_ahead<Part::links>(tree_.root);
    }
    InOrder(const InOrder&) = delete;
    InOrder& operator=(const InOrder&) = delete;
    ~InOrder() {
        if (protect_) tree_.walks = walk_.outer;
        hold(false);
    }

    // The node to visit now, or null. This one and the one behind are protected until the next step.
    RbNode* step() {
        hold(false);
        current_ = walk_.next;
        if (current_ == nullptr) return nullptr;
        if (fetched_-- == 0) fetched_ = fetch_ahead<Part::links>(current_->right);
        walk_.next = current_->next;
        successor_ = walk_.next;
        hold(true);
        return current_;
    }

  private:
    void hold(bool on) {
        if (!protect_) return;
        (void)qel_rbtree_node_protect(current_, on);  // both are null at the ends
        (void)qel_rbtree_node_protect(successor_, on);
    }

    RbTree& tree_;
    RbWalk walk_;
    RbNode* current_ = nullptr;
    RbNode* successor_ = nullptr;
    std::uint32_t fetched_ = 0;  // nodes to visit until the next fetch
    const bool protect_;
};

// Walks while 'visit' says so; true at the end of the tree.
template <class Visit>
bool walk_in_order(qel_rbtree& tree, bool protect, Visit visit) {
    InOrder walk{inner(&tree), protect};
    while (RbNode* node = walk.step())
        if (!visit(node)) return false;
    return true;
}

// The link that holds the first unprotected free node from 'link' on, or the sentinel at the list's end.
RbNode** unprotected_from(RbNode** link) {
    while (*link != nil() && (*link)->refs != 0) link = &(*link)->free_next;
    return link;
}

// Takes the node that 'link' holds off the free list.
RbNode* take_free(RbTree& tree, RbNode** link) {
    RbNode* node = *link;
    *link = node->free_next;
    node->free_next = nil();
    count_free(tree, UINT32_MAX);
    return node;
}

}  // namespace
}  // namespace qel

using namespace qel;

qel_rbtree_node* qel_rbtree_first_node(qel_rbtree* tree) {
    if (tree == nullptr || tree->root == nil()) return nullptr;
    (void)fetch_ahead<Part::all>(tree->root);
    return lowest_below(tree->root);
}

qel_rbtree_node* qel_rbtree_next_node(qel_rbtree_node* node) {
    if (node == nullptr) return nullptr;
    // A node of more than kAhead comes right ahead of each small subtree in order.
    if (node->size > kAhead) [[unlikely]]
        (void)fetch_ahead<Part::all>(node->right);
    return node->next;
}

int qel_rbtree_for_each_node(qel_rbtree_visit function, void* context, qel_rbtree* tree, bool protect) {
    if (function == nullptr || tree == nullptr) return 0;
    return walk_in_order(*tree, protect, [&](RbNode* node) {
        (void)function(node, context);  // this walk goes to the end whatever the function says
        return true;
    });
}

int qel_rbtree_for_each_node_til_false(qel_rbtree_visit function, void* context, qel_rbtree* tree, uint32_t,
                                       bool protect) {
    if (function == nullptr || tree == nullptr) return 0;
    return walk_in_order(*tree, protect, [&](RbNode* node) { return function(node, context); });
}

bool qel_rbtree_node_protect(qel_rbtree_node* node, bool on) {
    if (node == nullptr) return false;
    if (on && node->refs < UINT16_MAX) ++node->refs;
    if (!on && node->refs > 0) --node->refs;
    return node->refs != 0;
}

bool qel_rbtree_node_protected(const qel_rbtree_node* node) {
    return node != nullptr && node->refs != 0;
}

qel_rbtree_node* qel_rbtree_get_free_node(qel_rbtree* tree) {
    if (tree == nullptr) return nullptr;
    RbNode** link = unprotected_from(&tree->free_list);
    return *link == nil() ? nullptr : take_free(inner(tree), link);
}

void qel_rbtree_trim_free_list(qel_rbtree* tree) {
    if (tree == nullptr) return;
    RbNode** link = unprotected_from(&tree->free_list);
    for (; *link != nil(); link = unprotected_from(link)) {
        qel_named_free(take_free(inner(tree), link));
        ++tree->released;
    }
}

uint32_t qel_rbtree_free_node_count(const qel_rbtree* tree) {
    return tree == nullptr ? 0 : free_nodes(*tree);
}

uint32_t qel_rbtree_released_node_count(const qel_rbtree* tree) {
    if (tree == nullptr) return 0;
    std::uint32_t count = 0;
    for (const RbNode* node = tree->free_list; node != nil(); node = node->free_next)
        count += node->refs == 0;
    return count;
}

bool qel_rbtree_node_deleted(const qel_rbtree* tree, const qel_rbtree_node* node) {
    if (tree == nullptr || node == nullptr) return false;
    const RbNode* free_node = tree->free_list;
    for (std::uint32_t step = 0; step < free_nodes(*tree) && free_node != nil(); ++step) {
        if (free_node == node) return true;
        free_node = free_node->free_next;
    }
    return false;
}
