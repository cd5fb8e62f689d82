// Changes of the radix tree: insertion, update, deletion.
//
// One descent finds where the prefix meets the tree. Everything that the change needs is made before the tree
// is touched, so a lack of memory loses nothing. Record and key are one allocation.
// Locks and threads: none; the caller has the tree alone.
#include <cerrno>

#include "containers/qel_rdx.hpp"
#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"
#include "core/qel_prefetch.hpp"

namespace qel::rdx {
namespace {

Owned<Record> make_record(const Tree& tree, const std::uint8_t* key, std::uint32_t length) {
    Owned<KeyedRecord> made = allocate_zeroed<KeyedRecord>(QEL_MEM_UTILS);
    if (!made) return Owned<Record>{};
    std::memcpy(made->key, key, tree.key_bytes);
    made->record.key = made->key;
    made->record.prefix_len = length;
    return Owned<Record>{&made.release()->record};
}

// Hangs 'below' under 'node'.
void attach(Node& node, Node& below, bool side) {
    link(node, side) = &below;
    below.parent = &node;
}

// Puts 'above' in the node's place, the node under it, and lets it borrow the node's record.
void put_above(const Tree& tree, Node& above, Node& node, bool side) {
    replace_node(node, &above);
    attach(above, node, side);
    above.info = node.info;
    ++above.info->refcount;
    index_linked(tree.aux->index, above);
}

void put_below(const Tree& tree, Node& leaf, Node& node, bool side) {
    attach(node, leaf, side);
    index_linked(tree.aux->index, leaf);
}

// A leaf beside the node that was met, and the glue above both.
Node* fork(const Tree& tree, Meeting met, Key key, std::uint32_t length) {
    Node* glue = make_node(tree, key, met.agreed);
    Node* leaf = make_node(tree, key, length);
    if (glue == nullptr || leaf == nullptr) {
        free_node(glue);
        free_node(leaf);
        return nullptr;
    }
    bool side = key_testbit(key, met.agreed);
    put_above(tree, *glue, *met.node, !side);
    put_below(tree, *leaf, *glue, side);
    return leaf;
}

// The node of the prefix, made if need be; null without memory.
Node* place_for(const Tree& tree, Meeting met, Key key, std::uint32_t length) {
    if (met.parts(length)) return fork(tree, met, key, length);
    if (met.node->bit == length) return met.node;
    Node* made = make_node(tree, key, length);
    if (made == nullptr) return nullptr;
    if (met.node->bit > length)
        put_above(tree, *made, *met.node, node_testbit(*met.node, length));
    else
        put_below(tree, *made, *met.node, key_testbit(key, met.node->bit));
    return made;
}

cerrno insert_at(Tree& tree, Meeting met, const std::uint8_t* bytes, std::uint32_t length, void* user_data) {
    want_to_write(met.node->info);
    want_to_write(met.node->parent);
    Owned<Record> record = make_record(tree, bytes, length);
    if (!record) return fatal(ENOMEM);
    Node* node = place_for(tree, met, given_key(tree, bytes), length);
    if (node == nullptr) return fatal(ENOMEM);
    Departed departed{*tree.aux};
    enter(*node, record.release(), user_data, departed);
    return 0;
}

}  // namespace

Meeting meet(const Tree& tree, Key key, std::uint32_t length) {
    Node* const top = start_of(tree, key, length).node;
    Node* node = top;
    while (node->bit < length && agrees_at_first(*node, first_bits(key))) {
        Node* next = child(*node, key_testbit(key, node->bit));
        if (next == nullptr) break;
        node = next;
    }
    std::uint32_t agreed = std::min({agreement(*node, key), node->bit, length});
    // The way down looked at the first word only: the keys may have parted further up.
    while (node != top && node->parent->bit > agreed) node = node->parent;
    return {node, agreed};
}

}  // namespace qel::rdx

cerrno qel_rdx_insert(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || user_data == nullptr) return qel::fatal(EINVAL);
    qel::rdx::Meeting met = meet(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    if (met.has_entry(prefix_len)) return qel::fatal(EEXIST);
    return qel::rdx::insert_at(*tree, met, key, prefix_len, user_data);
}

cerrno qel_rdx_update(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data,
                      uint32_t flag, void** old_user_data) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || user_data == nullptr || old_user_data == nullptr)
        return qel::fatal(EINVAL);
    *old_user_data = nullptr;
    qel::rdx::Meeting met = meet(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    void* old = met.has_entry(prefix_len) ? met.node->user_data : nullptr;
    if (old == nullptr && flag != 1) return qel::fatal(EINVAL);
    cerrno error = qel::rdx::insert_at(*tree, met, key, prefix_len, user_data);
    if (error == 0) *old_user_data = old;
    return error;
}

cerrno qel_rdx_delete(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void** old_user_data) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || old_user_data == nullptr) return qel::fatal(EINVAL);
    *old_user_data = nullptr;
    qel::rdx::Meeting met = meet(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    if (!met.has_entry(prefix_len)) return qel::fatal(EINVAL);
    *old_user_data = met.node->user_data;
    qel::rdx::Departed departed{*tree->aux};
    withdraw(*met.node, departed);
    return 0;
}
