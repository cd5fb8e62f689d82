// Neighbours in the radix tree, in pre-order: a node, what is left below it, what is right below it.
//
// One descent finds where a prefix stands between the nodes; from there the order is followed, past the nodes
// that have no entry.
// Locks and threads: nothing here changes the tree, so any number of threads may ask at once.
#include <cerrno>

#include "containers/qel_rdx.hpp"
#include "core/qel_codes.hpp"

namespace qel::rdx {
namespace {

// How a node stands to the prefix that was asked for.
enum class Stand {
    all_ahead,   // it and everything below it come ahead of the prefix
    all_behind,  // they come behind
    at,          // it is the prefix's own node
    above,       // it comes ahead, what is below it behind
};

struct Place {
    Node* node;
    Stand stand;
};

// The first node behind everything below 'node', or null.
Node* behind_subtree(Node* node) {
    for (; node->parent != nullptr; node = node->parent)
        if (node->parent->left == node && node->parent->right != nullptr) return node->parent->right;
    return nullptr;
}

Node* next_of(Node* node) {
    if (node->left != nullptr) return node->left;
    return node->right != nullptr ? node->right : behind_subtree(node);
}

// The last node at or below 'node'.
Node* last_below(Node* node) {
    while (node->right != nullptr || node->left != nullptr)
        node = node->right != nullptr ? node->right : node->left;
    return node;
}

Node* previous_of(Node* node) {
    Node* parent = node->parent;
    if (parent == nullptr || parent->left == node || parent->left == nullptr) return parent;
    return last_below(parent->left);
}

Place place_of(const Tree& tree, Key key, std::uint32_t length) {
    Meeting met = meet(tree, key, length);
    if (met.parts(length))
        return {met.node, key_testbit(key, met.agreed) ? Stand::all_ahead : Stand::all_behind};
    if (met.node->bit > length) return {met.node, Stand::all_behind};
    if (met.node->bit == length) return {met.node, Stand::at};
    return {met.node, key_testbit(key, met.node->bit) ? Stand::all_ahead : Stand::above};
}

Node* next_of(Place place) {
    if (place.stand == Stand::all_behind) return place.node;
    return place.stand == Stand::all_ahead ? behind_subtree(place.node) : next_of(place.node);
}

Node* previous_of(Place place) {
    if (place.stand == Stand::above) return place.node;
    return place.stand == Stand::all_ahead ? last_below(place.node) : previous_of(place.node);
}

// The first node from 'node' on, in steps, that has an entry, or null.
Node* entry_from(Node* node, Node* (*step)(Node*)) {
    while (node != nullptr && !is_entry(*node)) node = step(node);
    return node;
}

// Where a neighbour goes to.
struct Out {
    const std::uint8_t** key;
    std::uint32_t* length;
    void** user_data;

    bool is_whole() const { return key != nullptr && length != nullptr && user_data != nullptr; }
    cerrno store(const Node* node, cerrno none) const {
        if (node == nullptr) return none;
        *key = node->info->key;
        *length = node->bit;
        *user_data = node->user_data;
        return 0;
    }
};

}  // namespace
}  // namespace qel::rdx

cerrno qel_rdx_first_node(qel_rdx_tree* tree, const uint8_t** out_key, uint32_t* out_length,
                          void** user_data) {
    qel::rdx::Out out{out_key, out_length, user_data};
    if (tree == nullptr || !out.is_whole()) return qel::fatal(EINVAL);
    return out.store(qel::rdx::entry_from(tree->root, qel::rdx::next_of), qel::fatal(EINVAL));
}

cerrno qel_rdx_last_node(qel_rdx_tree* tree, const uint8_t** out_key, uint32_t* out_length,
                         void** user_data) {
    qel::rdx::Out out{out_key, out_length, user_data};
    if (tree == nullptr || !out.is_whole()) return qel::fatal(EPIPE);
    qel_rdx_node* last = qel::rdx::last_below(tree->root);
    return out.store(qel::rdx::entry_from(last, qel::rdx::previous_of), qel::fatal(EEXIST));
}

cerrno qel_rdx_key_next_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                             const uint8_t** out_key, uint32_t* out_length, void** user_data) {
    qel::rdx::Out out{out_key, out_length, user_data};
    if (!qel::rdx::is_valid(tree, key, prefix_len) || !out.is_whole()) return qel::fatal(EINVAL);
    qel::rdx::Place place = qel::rdx::place_of(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    return out.store(qel::rdx::entry_from(next_of(place), qel::rdx::next_of), qel::fatal(EINVAL));
}

cerrno qel_rdx_next_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, const uint8_t** out_key,
                         uint32_t* out_length, void** user_data) {
    return qel_rdx_key_next_node(tree, key, prefix_len, out_key, out_length, user_data);
}

cerrno qel_rdx_key_previous_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                 const uint8_t** out_key, uint32_t* out_length, void** user_data) {
    qel::rdx::Out out{out_key, out_length, user_data};
    if (!qel::rdx::is_valid(tree, key, prefix_len) || !out.is_whole()) return qel::fatal(EINVAL);
    qel::rdx::Place place = qel::rdx::place_of(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    return out.store(qel::rdx::entry_from(previous_of(place), qel::rdx::previous_of), qel::fatal(EINVAL));
}

cerrno qel_rdx_previous_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                             const uint8_t** out_key, uint32_t* out_length, void** user_data) {
    return qel_rdx_key_previous_node(tree, key, prefix_len, out_key, out_length, user_data);
}
