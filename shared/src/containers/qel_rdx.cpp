// Radix tree: a binary trie in which a node stands only where keys part or an entry is.
//
// This file has the attributes and the tree itself. The others: qel_rdx_key.hpp keys as numbers,
// qel_rdx_node.cpp nodes and the records that they share, qel_rdx_index.cpp ways past the nodes at the top,
// qel_rdx_update.cpp changes, qel_rdx_search.cpp lookups, qel_rdx_order.cpp neighbours, qel_rdx_walk.cpp
// walks.
//
// Invariant: a node's 'bit' is above its parent's; each node but the root has an entry, two children, or
// a walk in it. So the tree has under two nodes an entry.
// Locks and threads: none; the caller of each tree holds its own lock.
#include "containers/qel_rdx.hpp"

#include <algorithm>
#include <cerrno>
#include <span>
#include <string_view>

#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"

namespace qel::rdx {
namespace {

constexpr std::uint32_t kDefaultKeyBits = 32;
constexpr std::uint32_t kMinChunkSize = 64;
constexpr std::uint32_t kPoolFlags = QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_FAST_FREE | QEL_MEM_CHUNK_ZERO;
constexpr std::uint32_t kNodeAlignment = 8;

void destroy_nothing(Record*, Aux*) {}

void set_keylen(qel_rdx_attr& attr, std::uint32_t keylen) {
    attr.keylen = keylen;
    attr.key_bytes = static_cast<std::uint8_t>(keylen / 8);
}

// Fills 'name' with the text, cut or followed by zeros.
void set_name(std::span<char> name, std::string_view text) {
    std::ranges::fill(name, '\0');
    std::ranges::copy(text.substr(0, name.size()), name.begin());
}

// The text in at most 'size' characters.
std::string_view text_in(const char* characters, std::size_t size) {
    return {characters, strnlen(characters, size)};
}

qel_rdx_attr default_attributes(std::string_view pool_name) {
    qel_rdx_attr attr{};
    attr.aux_destructor = destroy_nothing;
    attr.chunk_size = kMinChunkSize;
    set_keylen(attr, kDefaultKeyBits);
    set_name(attr.chunk_name, pool_name);
    return attr;
}

bool is_usable(const qel_rdx_attr& attr) {
    return attr.keylen > 0 && attr.keylen <= kMaxKeyBits && attr.keylen % 8 == 0 &&
           attr.chunk_size >= kMinChunkSize;
}

void close_aux(Aux* aux) {
    close_index(aux->index);
    static_cast<void>(qel_mem_chunk_destroy(aux->pool));  // 1: all nodes are back
    qel_named_free(aux);
}
using OwnedAux = Unique<Aux*, close_aux>;

OwnedAux make_aux(const qel_rdx_attr& attr) {
    char name[QEL_RDX_CHUNK_NAME_SIZE + 1] = {};
    set_name(std::span{name}.first(QEL_RDX_CHUNK_NAME_SIZE),
             text_in(attr.chunk_name, sizeof attr.chunk_name));
    Owned<Aux> aux = allocate_zeroed<Aux>(QEL_MEM_UTILS);
    if (!aux) return OwnedAux{};
    aux->pool = qel_mem_chunk_create(sizeof(Node), attr.chunk_size, kPoolFlags, 0, kNodeAlignment, name);
    if (aux->pool == nullptr) return OwnedAux{};
    aux->take_node = qel_mem_chunk_malloc;
    aux->free_node = qel_mem_chunk_free;
    aux->aux_destructor = attr.aux_destructor != nullptr ? attr.aux_destructor : destroy_nothing;
    return OwnedAux{aux.release()};
}

bool is_empty(const Tree& tree) {
    const Node& root = *tree.root;
    return root.left == nullptr && root.right == nullptr && !is_entry(root) && root.walkers == 0;
}

}  // namespace
}  // namespace qel::rdx

cerrno qel_rdx_tree_attr_init(qel_rdx_attr* attr) {
    if (attr == nullptr) return qel::fatal(EINVAL);
    *attr = qel::rdx::default_attributes("QEL_RTREE");
    return 0;
}

cerrno qel_rdx_tree_attr_user_init(qel_rdx_attr* attr, uint32_t keylen, qel_rdx_aux_destructor aux_destructor,
                                   uint32_t chunk_size, const char* chunk_name, uint32_t name_length) {
    if (attr == nullptr) return qel::fatal(EINVAL);
    qel_rdx_attr made = qel::rdx::default_attributes("");
    if (aux_destructor != nullptr) made.aux_destructor = aux_destructor;
    bool refused = (keylen != 0 && qel_rdx_tree_attr_set_keylen(&made, keylen) != 0) ||
                   qel_rdx_tree_attr_set_chunk_size(&made, chunk_size) != 0 ||
                   qel_rdx_tree_attr_set_chunk_name(&made, chunk_name, name_length) != 0;
    if (refused) return qel::fatal(EINVAL);
    *attr = made;
    return 0;
}

cerrno qel_rdx_tree_attr_set_keylen(qel_rdx_attr* attr, uint32_t keylen) {
    if (attr == nullptr || keylen % 8 != 0) return qel::fatal(EINVAL);
    qel::rdx::set_keylen(*attr, keylen);
    return 0;
}

cerrno qel_rdx_tree_attr_get_keylen(const qel_rdx_attr* attr, uint32_t* keylen) {
    if (attr == nullptr || keylen == nullptr) return qel::fatal(EINVAL);
    *keylen = attr->keylen;
    return 0;
}

cerrno qel_rdx_tree_attr_set_aux_destructor(qel_rdx_attr* attr, qel_rdx_aux_destructor aux_destructor) {
    if (attr == nullptr || aux_destructor == nullptr) return qel::fatal(EINVAL);
    attr->aux_destructor = aux_destructor;
    return 0;
}

cerrno qel_rdx_tree_attr_set_chunk_size(qel_rdx_attr* attr, uint32_t chunk_size) {
    if (attr == nullptr || chunk_size < qel::rdx::kMinChunkSize) return qel::fatal(EINVAL);
    attr->chunk_size = chunk_size;
    return 0;
}

cerrno qel_rdx_tree_attr_get_chunk_size(const qel_rdx_attr* attr, uint32_t* chunk_size) {
    if (attr == nullptr || chunk_size == nullptr) return qel::fatal(EINVAL);
    *chunk_size = attr->chunk_size;
    return 0;
}

cerrno qel_rdx_tree_attr_set_chunk_name(qel_rdx_attr* attr, const char* name, uint32_t length) {
    if (attr == nullptr || name == nullptr || length - 1 >= sizeof attr->chunk_name)
        return qel::fatal(EINVAL);
    qel::rdx::set_name(attr->chunk_name, qel::rdx::text_in(name, length));
    return 0;
}

cerrno qel_rdx_tree_attr_get_chunk_name(const qel_rdx_attr* attr, char* name, uint32_t length) {
    if (attr == nullptr || name == nullptr || length - 1 >= sizeof attr->chunk_name)
        return qel::fatal(EINVAL);
    qel::rdx::set_name({name, length}, qel::rdx::text_in(attr->chunk_name, sizeof attr->chunk_name));
    return 0;
}

cerrno qel_rdx_tree_create(qel_rdx_tree** tree, const qel_rdx_attr* attr) {
    if (tree == nullptr) return qel::fatal(EINVAL);
    qel_rdx_attr wanted = attr != nullptr ? *attr : qel::rdx::default_attributes("QEL RTREE");
    if (!qel::rdx::is_usable(wanted)) return qel::fatal(EINVAL);
    qel::Owned<qel_rdx_tree> made = qel::allocate_zeroed<qel_rdx_tree>(QEL_MEM_UTILS);
    qel::rdx::OwnedAux aux = qel::rdx::make_aux(wanted);
    if (!made || !aux) return qel::fatal(ENOMEM);
    made->aux = aux.get();
    made->root = qel::rdx::make_node(*made, {}, 0);
    if (made->root == nullptr) return qel::fatal(ENOMEM);
    made->root->flags = QEL_RDX_NODE_ROOT;
    index_linked(aux.get()->index, *made->root);
    made->keylen = wanted.keylen;
    made->key_bytes = static_cast<uint8_t>(wanted.keylen / 8);
    made->aux_destructor = aux.get()->aux_destructor;
    made->chunk_size = wanted.chunk_size;
    std::ranges::copy(wanted.chunk_name, made->chunk_name);
    static_cast<void>(aux.release());  // the tree's now
    *tree = made.release();
    return 0;
}

cerrno qel_rdx_tree_destroy(qel_rdx_tree* tree) {
    if (tree == nullptr || !qel::rdx::is_empty(*tree)) return qel::fatal(EINVAL);
    qel::rdx::free_node(tree->root);
    qel::rdx::close_aux(tree->aux);
    qel_named_free(tree);
    return 0;
}

const uint8_t* rdx_get_key(const qel_rdx_info* info) {
    return info != nullptr ? info->key : nullptr;
}

const uint8_t* rdx_get_key_prefixlen(const qel_rdx_info* info, uint32_t* length) {
    if (info == nullptr || length == nullptr) return nullptr;
    *length = info->prefix_len;
    return info->key;
}

void* rdx_get_user_data(const qel_rdx_info* info) {
    return info != nullptr && info->node != nullptr ? info->node->user_data : nullptr;
}
