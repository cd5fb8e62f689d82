// Nodes of the radix tree: how they come, go, and share records.
//
// A node with an entry holds its record. One without (glue, where two keys part) borrows the record of an
// entry below, so as to have a key; the keys of all entries below agree in the node's bits. Each holds a
// reference.
//
// Invariant: the holders of a record are a way up from its entry, behind which there is only glue. So what
// takes a record off a node goes on with the nodes above that hold it, and ends at the first that doesn't:
// mostly a step or two, and nothing holds a record that was left below.
// Walks: a node with walkers stays, if need be without an entry and with the deleted entry's record as its
// key, until the last walk leaves it.
#include <utility>

#include "containers/qel_rdx.hpp"
#include "core/qel_owned.hpp"

namespace qel::rdx {
namespace {

void hold(Node& node, Record* record, Departed& departed) {
    if (record != nullptr) ++record->refcount;
    departed.release(std::exchange(node.info, record));
}

// Puts 'record' where the node's own is: there, and in the glue above that borrows it.
void exchange(Node* node, Record* record, Departed& departed) {
    const Record* old = node->info;
    do {
        hold(*node, record, departed);
        node = node->parent;
    } while (node != nullptr && !is_entry(*node) && node->info == old);
}

// A record for a node that stays without an entry to borrow, or null.
Record* record_below(const Node& node) {
    const Node* below = node.left != nullptr ? node.left : node.right;
    return below != nullptr ? below->info : nullptr;
}

}  // namespace

Departed::~Departed() noexcept(false) {
    while (first_ != nullptr) {
        Owned<Record> record{std::exchange(first_, first_->next)};
        record->next = nullptr;
        aux_.aux_destructor(record.get(), &aux_);
    }
}

Node* make_node(const Tree& tree, Key key, std::uint32_t bit) {
    auto* node = static_cast<Node*>(tree.aux->take_node(tree.aux->pool));
    if (node == nullptr) return nullptr;
    node->aux = tree.aux;
    node->bit = bit;
    node->first_key_bits = first_bits(key);
    return node;
}

void free_node(Node* node) {
    if (node != nullptr) static_cast<void>(node->aux->free_node(node->aux->pool, node));  // 1: it is ours
}

void replace_node(Node& node, Node* next) {
    link(*node.parent, node.parent->right == &node) = next;
    if (next != nullptr) next->parent = node.parent;
}

void enter(Node& node, Record* record, void* user_data, Departed& departed) {
    if (is_entry(node)) node.info->node = nullptr;
    record->node = &node;
    exchange(&node, record, departed);
    node.flags = (node.flags | QEL_RDX_NODE_ENTRY) & ~QEL_RDX_NODE_DELETE_PENDING;
    node.user_data = user_data;
    index_entered(node.aux->index, node);
}

void withdraw(Node& node, Departed& departed) {
    node.info->node = nullptr;
    node.flags &= ~QEL_RDX_NODE_ENTRY;
    node.user_data = nullptr;
    index_withdrawn(node.aux->index, node);
    settle(&node, departed);
}

void settle(Node* node, Departed& departed) {
    const Record* gone = node->info;
    while (!is_entry(*node)) {
        if (is_root(*node) || (node->left != nullptr && node->right != nullptr)) {
            if (node->info == gone) exchange(node, record_below(*node), departed);
            return;
        }
        if (node->walkers > 0) {
            node->flags |= QEL_RDX_NODE_DELETE_PENDING;
            return;
        }
        Node* parent = node->parent;
        Node* next = node->left != nullptr ? node->left : node->right;
        index_unlinking(node->aux->index, *node, next);
        replace_node(*node, next);
        departed.release(node->info);
        free_node(node);
        node = parent;
    }
}

}  // namespace qel::rdx
