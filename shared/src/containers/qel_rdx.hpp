// The radix tree's inside: what its files share. See qel_rdx_node.cpp for who refers to which record.
#pragma once

#include <qel/mem.h>
#include <qel/rdx.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "containers/qel_rdx_index.hpp"
#include "containers/qel_rdx_key.hpp"

// The allocation record: where a tree's nodes come from and who is told of records that go.
struct qel_rdx_aux {
    qel_mem_chunk* pool;
    void* (*take_node)(qel_mem_chunk* pool);
    int (*free_node)(qel_mem_chunk* pool, void* node);
    qel_rdx_aux_destructor aux_destructor;
    qel::rdx::Index index;
};

namespace qel::rdx {

using Tree = qel_rdx_tree;
using Node = qel_rdx_node;
using Record = qel_rdx_info;
using Aux = qel_rdx_aux;

static_assert(sizeof(Record) == 40 && offsetof(Record, refcount) == 16 && offsetof(Record, key) == 24);
static_assert(sizeof(Node) == 64 && offsetof(Node, info) == 24 && offsetof(Node, flags) == 40);
static_assert(offsetof(Node, bit) == 44 && offsetof(Node, walkers) == 48 && offsetof(Node, user_data) == 56);

inline bool is_entry(const Node& node) {
    return (node.flags & QEL_RDX_NODE_ENTRY) != 0;
}
inline bool is_root(const Node& node) {
    return (node.flags & QEL_RDX_NODE_ROOT) != 0;
}
inline Node* child(const Node& node, bool side) {
    return side ? node.right : node.left;
}
inline Node*& link(Node& node, bool side) {
    return side ? node.right : node.left;
}
inline bool is_valid(const Tree* tree, const std::uint8_t* key, std::uint32_t length) {
    return tree != nullptr && key != nullptr && length <= tree->keylen;
}
inline Key given_key(const Tree& tree, const std::uint8_t* bytes) {
    return load_key(bytes, tree.key_bytes);
}

// A record, and behind it its key in room for the longest.
struct KeyedRecord {
    Record record;
    std::uint8_t key[kMaxKeyBytes];
};
static_assert(offsetof(KeyedRecord, key) == sizeof(Record));

// The same as record.key, without a look into the record.
inline const std::uint8_t* key_behind(const Record& record) {
    return reinterpret_cast<const KeyedRecord&>(record).key;
}
// A bit of those that the node stands for.
inline bool node_testbit(const Node& node, std::uint32_t index) {
    if (index < kFirstBits) return (node.first_key_bits >> (~index & 31) & 1) != 0;
    return key_testbit(stored_key(key_behind(*node.info)), index);
}
// The index of the first bit in which the node's bits differ from the key; any behind them if they don't.
inline std::uint32_t agreement(const Node& node, Key key) {
    std::uint32_t difference = node.first_key_bits ^ first_bits(key);
    if (difference != 0 || node.bit <= kFirstBits)
        return static_cast<std::uint32_t>(std::countl_zero(difference));
    return key_bitdiff(stored_key(key_behind(*node.info)), key);
}
// False if the node's bits differ from the key's within the first word.
inline bool agrees_at_first(const Node& node, std::uint32_t first_of_key) {
    std::uint64_t difference = node.first_key_bits ^ first_of_key;
    return difference >> (kFirstBits - std::min(node.bit, kFirstBits)) == 0;
}

// Where the way down to a prefix begins: at the narrowest place around it that the index tells.
struct Start {
    Node* below;  // the place's top node, null without any
    Node* node;   // the same, or else the top node of the narrowest place that has one
    Node* cover;  // the longest entry around the place; or null
};
inline Start start_of(const Tree& tree, Key key, std::uint32_t length) {
    Start start{tree.root, tree.root, nullptr};
    Lead lead = tree.aux->index.whole;
    for (std::uint32_t depth = 0; lead.is_table(); depth += kIndexBits) {
        IndexTable& table = *lead.table();
        if (depth + kIndexBits > length) return {table.top, table.top, start.cover};
        const IndexSlot& slot = table.slot_of(depth, first_bits(key));
        if (slot.cover != nullptr) start.cover = slot.cover;
        lead = slot.below;
        if (lead.is_nothing()) return {nullptr, table.top, start.cover};
    }
    return {lead.node(), lead.node(), start.cover};
}

// Where a prefix meets the tree: 'node' is the first on its way that doesn't lead on, since
//   1. they part: 'agreed' is less than both lengths, and the bit of that index differs; or
//   2. it is the prefix's own node; or
//   3. it is longer than the prefix and inside it; or
//   4. it is shorter, and has no child on the prefix's side.
struct Meeting {
    Node* node;
    std::uint32_t agreed;

    bool parts(std::uint32_t length) const { return agreed < std::min(node->bit, length); }
    bool is_exact(std::uint32_t length) const { return node->bit == length && agreed == length; }
    bool has_entry(std::uint32_t length) const { return is_exact(length) && is_entry(*node); }
};
Meeting meet(const Tree& tree, Key key, std::uint32_t length);

// Records that nothing refers to any more. They go, and the application is told, when the change that left
// them is complete.
class Departed {
  public:
    explicit Departed(Aux& aux) : aux_(aux) {}
    Departed(const Departed&) = delete;
    Departed& operator=(const Departed&) = delete;
    ~Departed() noexcept(false);

    // Takes one reference off. A null 'record' is allowed.
    void release(Record* record) {
        if (record == nullptr || --record->refcount != 0) return;
        record->next = first_;
        first_ = record;
    }

  private:
    Aux& aux_;
    Record* first_ = nullptr;
};

// A new node off the tree, or null without memory.
Node* make_node(const Tree& tree, Key key, std::uint32_t bit);
void free_node(Node* node);

// Puts 'next', which may be null, where 'node' is.
void replace_node(Node& node, Node* next);

// Makes 'record' the node's entry, in place of one that it has, and what the nodes above go by.
void enter(Node& node, Record* record, void* user_data, Departed& departed);

// Takes the entry off its node, and the node and its like away where nothing needs them any more.
void withdraw(Node& node, Departed& departed);

// Takes away a node without need, or marks it for the last walk in it, and goes on with its parent.
void settle(Node* node, Departed& departed);

}  // namespace qel::rdx
