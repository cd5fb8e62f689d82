// AVL trees: going through them, in order, from node to node, and at their end.
//
// A walk keeps the nodes whose right side is still to come on its own stack. The steps to the next and the
// previous node begin at the root, since a node doesn't know its parent: the last node on the way down that
// lies on the wanted side is the result, unless the subtree of an equal node has a nearer one. Both
// directions are one piece of code, with -1 for down and left, 1 for up and right.
//
// Locks and threads: none; the caller of each tree holds its own lock. Restart: nothing stays.
#include <array>

#include "containers/qel_avl.hpp"

namespace qel::avl {
namespace {

template <int side>
Node* child(const Node& node) {
    return side < 0 ? node.left : node.right;
}

// The last node of the subtree 'node' toward 'side', or null for an empty one.
template <int side>
Node* outermost(Node* node) {
    while (node != nullptr && child<side>(*node) != nullptr) node = child<side>(*node);
    return node;
}

// The node nearest to 'current' by key at 'side'.
template <int side>
Node* neighbour(const qel_avl& tree, const Node& current) {
    constexpr int kOnThisSide = side > 0 ? QEL_AVL_AFTER : QEL_AVL_BEFORE;
    Node* candidate = nullptr;
    for (Node* node = tree.root; node != nullptr;) {
        want_children(*node);
        const int order = tree.compare(node, &current);
        if (is_equal(order)) {
            Node* nearer = outermost<-side>(child<side>(*node));
            return nearer != nullptr ? nearer : candidate;
        }
        if (order == kOnThisSide) candidate = node;
        node = way_on(*node, order);
    }
    return candidate;
}

// As neighbour(), without a comparison where the node's own subtree has the result.
template <int side>
Node* neighbour_from(const qel_avl& tree, const Node& current) {
    Node* inner = child<side>(current);
    if (qel_avl_is_threaded(&current) && inner != nullptr) return outermost<-side>(inner);
    return neighbour<side>(tree, current);
}

int walk(Node* node, qel_avl_walk function, void* context) {
    std::array<Node*, kMaxHeight> waiting;
    std::size_t count = 0;
    while (node != nullptr || count > 0) {
        for (; node != nullptr; node = node->left) {
            want_to_read(node->right);
            waiting[count++] = node;
        }
        Node* visited = waiting[--count];
        node = visited->right;
        if (int result = function(visited, context); result != 0) return result;
    }
    return 0;
}

// Calls 'function' for all nodes, children first, and nulls each link when its node is gone; so what a node
// still has below it is what the path has to go into.
void destroy(qel_avl& tree, qel_avl_destroy function, void* context) {
    std::array<Node**, kMaxHeight + 1> links{&tree.root};
    std::size_t level = 0;
    while (tree.root != nullptr) {
        Node*& link = *links[level];
        if (link->left != nullptr || link->right != nullptr) {
            links[++level] = link->left != nullptr ? &link->left : &link->right;
            continue;
        }
        function(link, context);
        link = nullptr;
        if (level > 0) --level;
    }
}

}  // namespace
}  // namespace qel::avl

using namespace qel;
using namespace qel::avl;

cerrno qel_avl_tree_destroy(qel_avl* tree, qel_avl_destroy function, void* context) {
    if (tree == nullptr || function == nullptr) return fatal(EINVAL);
    destroy(*tree, function, context);
    tree->size = 0;
    return 0;
}

int qel_avl_tree_walk(qel_avl* tree, qel_avl_walk function, void* context) {
    if (tree == nullptr) return bad_argument<"AVL4">("tree");
    if (function == nullptr) return bad_argument<"AVL5">("proc");
    return walk(tree->root, function, context);
}

int qel_avl_subtree_walk(qel_avl* tree, qel_avl_node* node, qel_avl_walk function, void* context) {
    if (tree == nullptr) return bad_argument<"AVL6">("tree");
    if (node == nullptr) return bad_argument<"AVL7">("node");
    if (function == nullptr) return bad_argument<"AVL8">("proc");
    return walk(node, function, context);
}

qel_avl_node* qel_avl_get_first(qel_avl* tree) {
    if (tree == nullptr) return bad_argument<"AVL12">("tree");
    if (tree->root == nullptr) return bad_argument<"AVL13">("tree->root");
    return outermost<-1>(tree->root);
}

qel_avl_node* qel_avl_get_next(qel_avl* tree, const qel_avl_node* current) {
    if (tree == nullptr) return bad_argument<"AVL17">("tree");
    if (current == nullptr) return bad_argument<"AVL18">("current");
    if (tree->root == nullptr) return bad_argument<"AVL19">("tree->root");
    return neighbour<1>(*tree, *current);
}

qel_avl_node* qel_avl_get_prev(qel_avl* tree, const qel_avl_node* element) {
    if (tree == nullptr) return bad_argument<"AVL14">("tree");
    if (tree->root == nullptr) return bad_argument<"AVL15">("tree->root");
    if (element == nullptr) return bad_argument<"AVL16">("element");
    return neighbour<-1>(*tree, *element);
}

qel_avl_node* qel_avl_get_next_from_node(qel_avl* tree, const qel_avl_node* current) {
    if (tree == nullptr) return bad_argument<"AVL32">("tree");
    if (current == nullptr) return bad_argument<"AVL33">("current");
    if (tree->root == nullptr) return bad_argument<"AVL34">("tree->root");
    return neighbour_from<1>(*tree, *current);
}

qel_avl_node* qel_avl_get_prev_from_node(qel_avl* tree, const qel_avl_node* element) {
    if (tree == nullptr) return bad_argument<"AVL29">("tree");
    if (tree->root == nullptr) return bad_argument<"AVL30">("tree->root");
    if (element == nullptr) return bad_argument<"AVL31">("element");
    return neighbour_from<-1>(*tree, *element);
}
