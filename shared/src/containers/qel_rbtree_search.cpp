// Red-black tree: searches by key and by interval.
//
// A search for a key stops at the first match on its way down. Among equal keys it then prefers a neighbour
// in order, if that is below the match on a side whose child has the key, too; the in-order list has it one
// load away. The two bounds go down to the end, so they find the first and the last of equal keys.
//
// An interval search needs one way down: if nothing on the left overlaps although something there reaches
// the query's low end, that something begins behind the query, and so does all on the right.
//
// Locks and threads: none; searches write the tree's counters, see qel/rbtree.h.
#include "containers/qel_rbtree.hpp"

namespace qel {
namespace {

void count(std::uint32_t& searches, std::uint32_t& nodes, std::uint32_t& most, std::uint16_t& max_depth,
           std::uint32_t visited) {
    ++searches;
    nodes += visited;
    most = std::max(most, visited);
    max_depth = static_cast<std::uint16_t>(
        std::min(std::max<std::uint32_t>(max_depth, visited), std::uint32_t{UINT16_MAX}));
}

// The node to give for a match, see the file's head.
template <class Order>
RbNode* preferred(RbNode* match, std::uint64_t key, Order order) {
    auto has_key = [&](const RbNode* node) {
        return node != nil() && !order.less(node->key, key) && !order.less(key, node->key);
    };
    if (has_key(match->left)) return match->prev;
    if (has_key(match->right)) return match->next;
    return match;
}

template <class Order>
RbNode* search(RbNode* node, std::uint64_t key, Order order, std::uint32_t& visited) {
    while (node != nil()) {
        ++visited;
        want_children(*node);
        const bool above = order.less(key, node->key);
        if (!above && !order.less(node->key, key)) [[unlikely]]
            return preferred(node, key, order);
        node = child_at(*node, !above);
    }
    return nullptr;
}

RbNode* search_interval(RbNode* node, std::uint64_t query, std::uint32_t& visited) {
    while (node != nil()) {
        ++visited;
        if (overlap(node->key, query)) return node;
        if (!overlap(node->summary, query)) return nullptr;
        const bool left_reaches = node->left != nil() && high_end(node->left->summary) >= low_end(query);
        node = left_reaches ? node->left : node->right;
    }
    return nullptr;
}

template <class Order>
RbNode* first_not_below(RbNode* node, std::uint64_t key, Order order) {
    RbNode* found = nullptr;
    while (node != nil()) {
        const bool below = order.less(node->key, key);
        if (!below) found = node;
        node = child_at(*node, below);
    }
    return found;
}

template <class Order>
RbNode* last_not_above(RbNode* node, std::uint64_t key, Order order) {
    RbNode* found = nullptr;
    while (node != nil()) {
        const bool above = order.less(key, node->key);
        if (!above) found = node;
        node = child_at(*node, !above);
    }
    return found;
}

}  // namespace
}  // namespace qel

using namespace qel;

qel_rbtree_node* qel_rbtree_search(qel_rbtree* tree, uint64_t key) {
    if (tree == nullptr) return nullptr;
    std::uint32_t visited = 0;
    RbNode* found =
        with_key_order(*tree, [&](auto order) { return search(tree->root, key, order, visited); });
    count(tree->key_searches, tree->key_nodes, tree->key_max_nodes, tree->max_depth, visited);
    return found;
}

qel_rbtree_node* qel_rbtree_int_search(qel_rbtree* tree, uint64_t interval) {
    if (tree == nullptr) return nullptr;
    std::uint32_t visited = 0;
    RbNode* found = search_interval(tree->root, interval, visited);
    count(tree->int_searches, tree->int_nodes, tree->int_max, tree->max_depth, visited);
    return found;
}

qel_rbtree_node* qel_rbtree_lexi_node(qel_rbtree* tree, uint64_t key) {
    if (tree == nullptr) return nullptr;
    return with_key_order(*tree, [&](auto order) { return first_not_below(tree->root, key, order); });
}

qel_rbtree_node* qel_rbtree_best_node(qel_rbtree* tree, uint64_t key) {
    if (tree == nullptr) return nullptr;
    return with_key_order(*tree, [&](auto order) { return last_not_above(tree->root, key, order); });
}
