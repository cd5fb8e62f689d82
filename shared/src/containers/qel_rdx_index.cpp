// Index of the radix tree: where the way to a node is long, tables stand in for its upper part. Each tells 16
// places apart by four bits of the key, so that a lookup doesn't go from node to node there.
//
// Tables stand at depths 0, 4, 8 ... 28, each below a table for the wider place around it. A slot leads to
// the place's top node or to the next table, and has the longest entry around the place. So a lookup follows
// slots, keeps the last cover, and goes on from the node at the end. A table comes when a new node is far
// below the top of its place, and goes when it has nothing to tell apart any more.
//
// Invariant: slots say what the nodes are, at all times between the tree's changes. A change looks at one
// slot of each table on the node's way and, for an entry, at the 16 of one table at most. A table that no
// memory is there for is missing, and nothing else is: the way leads over more nodes then.
// Locks and threads: those of the tree; lookups only read.
#include "containers/qel_rdx_index.hpp"

#include <cstddef>
#include <span>

#include "containers/qel_rdx.hpp"

namespace qel::rdx {
namespace {

constexpr std::uint32_t kFar = 4;  // nodes on a way through one place that are too many
constexpr std::uint32_t kTablesPerChunk = 8;
constexpr std::uint32_t kSlotAlignment = 16;

static_assert(sizeof(IndexSlot) == kSlotAlignment, "no slot lies across two cache lines");
static_assert(kFirstBits % kIndexBits == 0);

IndexSlot& slot_of(IndexTable& table, std::uint32_t depth, const Node& node) {
    return table.slot_of(depth, node.first_key_bits);
}

// The slots of a table of this depth whose places a node of the table's own place is around.
std::span<IndexSlot> slots_inside(IndexTable& table, std::uint32_t depth, const Node& node) {
    std::size_t count = std::size_t{1} << (depth + kIndexBits - node.bit);
    std::size_t first = node.first_key_bits << depth >> (kFirstBits - kIndexBits);
    return std::span{table.slots}.subspan(first & ~(count - 1), count);
}

void cover(IndexTable& table, std::uint32_t depth, Node& node) {
    for (IndexSlot& slot : slots_inside(table, depth, node))
        if (slot.cover == nullptr || slot.cover->bit < node.bit) slot.cover = &node;
}

bool is_top(const Node& node, std::uint32_t depth) {
    return node.parent == nullptr || node.parent->bit < depth;
}

bool is_far(const Node* node, std::uint32_t depth) {
    std::uint32_t steps = 0;
    while (steps < kFar && node != nullptr && node->bit >= depth) {
        node = node->parent;
        ++steps;
    }
    return steps == kFar;
}

// Enters the nodes from 'node' down to the tops of the table's slots.
void fill(IndexTable& table, std::uint32_t depth, Node* node) {
    if (node == nullptr) return;
    if (node->bit >= depth + kIndexBits) {
        slot_of(table, depth, *node).below = Lead{node};
        ++table.used;
        return;
    }
    if (is_entry(*node)) cover(table, depth, *node);
    fill(table, depth, node->left);
    fill(table, depth, node->right);
}

void make_table(Index& index, Lead& lead, std::uint32_t depth) {
    if (index.tables == nullptr)
        index.tables =
            qel_mem_chunk_create(sizeof(IndexTable), kTablesPerChunk,
                                 QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_NO_SYNC | QEL_MEM_CHUNK_ZERO, 0,
                                 kSlotAlignment, "QEL RTREE index");
    auto* table = static_cast<IndexTable*>(qel_mem_chunk_malloc(index.tables));
    if (table == nullptr) return;
    table->top = lead.node();
    fill(*table, depth, table->top);
    lead = Lead{table};
}

// True while the table tells nodes apart, or is on the way to one that does.
bool is_of_use(const IndexTable& table) {
    if (table.used > 1) return true;
    for (const IndexSlot& slot : table.slots)
        if (slot.below.is_table()) return true;
    return false;
}

// Takes the node out of a place that it is in.
void take_out(Index& index, Lead& lead, std::uint32_t depth, const Node& node, Node* next) {
    if (!lead.is_table()) {
        if (lead.node() == &node) lead = Lead{next};
        return;
    }
    IndexTable& table = *lead.table();
    if (table.top == &node) table.top = next;
    if (node.bit >= depth + kIndexBits) {
        Lead& below = slot_of(table, depth, node).below;
        take_out(index, below, depth + kIndexBits, node, next);
        if (below.is_nothing()) --table.used;
    }
    if (is_of_use(table)) return;
    lead = Lead{table.top};
    static_cast<void>(qel_mem_chunk_free(index.tables, &table));  // 1: it is ours
}

// The table of the depth that the node stands at, if it is there.
struct Found {
    IndexTable* table;
    std::uint32_t depth;
};
Found table_for(const Index& index, const Node& node) {
    std::uint32_t depth = 0;
    Lead lead = index.whole;
    for (; lead.is_table() && node.bit >= depth + kIndexBits; depth += kIndexBits)
        lead = slot_of(*lead.table(), depth, node).below;
    return {lead.is_table() ? lead.table() : nullptr, depth};
}

// The next entry above the node, if it is of the table's depth or deeper.
Node* cover_above(const Node& node, std::uint32_t depth) {
    Node* above = node.parent;
    while (above != nullptr && above->bit >= depth && !is_entry(*above)) above = above->parent;
    return above != nullptr && above->bit >= depth ? above : nullptr;
}

}  // namespace

void index_linked(Index& index, Node& node) {
    Lead* lead = &index.whole;
    std::uint32_t depth = 0;
    for (; lead->is_table(); depth += kIndexBits) {
        IndexTable& table = *lead->table();
        if (is_top(node, depth)) table.top = &node;
        if (node.bit < depth + kIndexBits) return;
        lead = &slot_of(table, depth, node).below;
        if (lead->is_nothing()) ++table.used;
    }
    if (is_top(node, depth)) *lead = Lead{&node};
    if (depth < kFirstBits && is_far(&node, depth)) make_table(index, *lead, depth);
}

void index_unlinking(Index& index, Node& node, Node* next) {
    take_out(index, index.whole, 0, node, next);
}

void index_entered(Index& index, Node& node) {
    if (Found found = table_for(index, node); found.table != nullptr) cover(*found.table, found.depth, node);
}

void index_withdrawn(Index& index, Node& node) {
    Found found = table_for(index, node);
    if (found.table == nullptr) return;
    Node* above = cover_above(node, found.depth);
    for (IndexSlot& slot : slots_inside(*found.table, found.depth, node))
        if (slot.cover == &node) slot.cover = above;
}

void close_index(Index& index) {
    if (index.tables != nullptr) static_cast<void>(qel_mem_chunk_destroy(index.tables));  // 1: all are back
}

}  // namespace qel::rdx
