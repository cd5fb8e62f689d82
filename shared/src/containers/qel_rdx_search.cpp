// Lookups in the radix tree: the exact entry, and the longest one that covers a prefix.
//
// The way down for the longest match follows the key's bits, looks at nodes only and notes the last entry.
// What the first 32 bits say ends it early; what lies behind them is compared once, at the end: the keys of
// all nodes above are prefixes of that entry's, so one difference tells for all of them which cover the key.
// Locks and threads: lookups change nothing, so any number of threads may search at once.
#include <cerrno>

#include "containers/qel_rdx.hpp"
#include "core/qel_codes.hpp"

namespace qel::rdx {
namespace {

// The last entry on the key's way down that agrees in the first word, or null.
const Node* last_on_way(const Tree& tree, Key key, std::uint32_t length) {
    Start start = start_of(tree, key, length);
    const Node* node = start.below;
    const Node* last = start.cover;
    std::uint32_t first_of_key = first_bits(key);
    while (node != nullptr && node->bit <= length && agrees_at_first(*node, first_of_key)) {
        if (is_entry(*node)) last = node;
        node = child(*node, key_testbit(key, node->bit));
    }
    return last;
}

// The longest entry that covers the prefix, or null.
const Node* longest_match(const Tree& tree, Key key, std::uint32_t length) {
    const Node* node = last_on_way(tree, key, length);
    if (node == nullptr || node->bit <= kFirstBits) return node;
    std::uint32_t agreed = agreement(*node, key);
    while (node->bit > agreed || (!is_entry(*node) && !is_root(*node))) node = node->parent;
    return is_entry(*node) ? node : nullptr;
}

const Node* exact_match(const Tree& tree, Key key, std::uint32_t length) {
    const Node* node = start_of(tree, key, length).below;
    while (node != nullptr && node->bit < length) node = child(*node, key_testbit(key, node->bit));
    if (node == nullptr || node->bit != length || !is_entry(*node)) return nullptr;
    return agreement(*node, key) >= length ? node : nullptr;
}

}  // namespace
}  // namespace qel::rdx

cerrno qel_rdx_search_exact(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void** user_data) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || user_data == nullptr) return qel::fatal(EINVAL);
    const qel_rdx_node* node = qel::rdx::exact_match(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    if (node == nullptr) return qel::fatal(EINVAL);
    *user_data = node->user_data;
    return 0;
}

cerrno qel_rdx_search(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, const uint8_t** out_key,
                      uint32_t* out_length, void** user_data) {
    if (!qel::rdx::is_valid(tree, key, prefix_len)) return qel::fatal(EINVAL);
    if (out_key == nullptr || out_length == nullptr || user_data == nullptr) return qel::fatal(EINVAL);
    const qel_rdx_node* node = qel::rdx::longest_match(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    if (node == nullptr) return qel::fatal(EINVAL);
    *out_key = qel::rdx::key_behind(*node->info);
    *out_length = node->bit;
    *user_data = node->user_data;
    return 0;
}

cerrno qel_rdx_get_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len) {
    void* user_data;
    return qel_rdx_search_exact(tree, key, prefix_len, &user_data);
}
