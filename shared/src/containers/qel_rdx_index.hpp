// Index of the radix tree: ways past the nodes at the top of it. See qel_rdx_index.cpp.
#pragma once

#include <qel/mem.h>
#include <qel/rdx.h>

#include <cstdint>

namespace qel::rdx {

struct IndexTable;

// What leads to a place: all keys that share their first bits, as many as the place's depth, and the nodes of
// that depth or deeper with such keys. It is nothing for a place without nodes, or the top one of the nodes,
// or a table that tells the place's keys by their next bits.
class Lead {
  public:
    Lead() = default;
    explicit Lead(qel_rdx_node* node) : word_(reinterpret_cast<std::uintptr_t>(node)) {}
    explicit Lead(IndexTable* table) : word_(reinterpret_cast<std::uintptr_t>(table) | kIsTable) {}

    bool is_nothing() const { return word_ == 0; }
    bool is_table() const { return (word_ & kIsTable) != 0; }
    qel_rdx_node* node() const { return reinterpret_cast<qel_rdx_node*>(word_); }
    IndexTable* table() const { return reinterpret_cast<IndexTable*>(word_ - kIsTable); }

  private:
    static constexpr std::uintptr_t kIsTable = 1;  // tables and nodes are aligned, so the bit is free
    std::uintptr_t word_;
};

struct IndexSlot {
    Lead below;  // to the slot's place
    qel_rdx_node*
        cover;  // the longest entry around the place, from the depth of the slot's table on; or null
};

inline constexpr std::uint32_t kIndexBits = 4;  // that a table tells keys by

struct IndexTable {
    IndexSlot slots[1 << kIndexBits];
    qel_rdx_node* top;   // the top node of the table's own place; never null
    std::uint32_t used;  // slots that lead to something

    // The slot for a key with these first 32 bits in a table of this depth.
    IndexSlot& slot_of(std::uint32_t depth, std::uint32_t first_of_key) {
        return slots[first_of_key << depth >> (32 - kIndexBits)];
    }
};

struct Index {
    Lead whole;             // to the place of depth 0: the whole tree
    qel_mem_chunk* tables;  // where tables come from; null until the first
};

// Each is told of a change that is complete in the nodes, save index_unlinking(), which comes ahead of it;
// 'next' will be where 'node' is, or null.
void index_linked(Index& index, qel_rdx_node& node);
void index_unlinking(Index& index, qel_rdx_node& node, qel_rdx_node* next);
void index_entered(Index& index, qel_rdx_node& node);
void index_withdrawn(Index& index, qel_rdx_node& node);

// Gives back what the index of a tree with nothing but its root has.
void close_index(Index& index);

}  // namespace qel::rdx
