// A chunk pool's blocks: how elements, their headers and the free stack lie in memory.
//
// The pool's locking, lists and counters are qel_mem_chunk.cpp's; a block here is what one thread holds
// alone.
#pragma once

#include <qel/mem.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>

#include "core/qel_owned.hpp"

namespace qel {

inline constexpr uint32_t kFreeMagic = 0xef4321cd;   // first word of every free element
inline constexpr uint32_t kDebugMagic = 0x15a3c78b;  // header word of every element of a debuggable pool

// How the elements of a pool lie in their area. An element's header ends at its data address and holds, going
// down from there:
//
//     block pointer   8 bytes   with fast free
//     count           4 bytes   with references
//     magic           4 bytes   when debuggable, 8 below the field above it
struct ChunkLayout {
    uint32_t flags = 0;         // QEL_MEM_CHUNK_*, without the two that only take something away
    uint32_t data_size = 0;     // as asked for; what is zeroed and poisoned
    uint32_t element_size = 0;  // at least 16
    uint32_t alignment = 0;     // of data addresses
    uint32_t overhead = 0;      // bytes of header
    uint32_t block_capacity = 0;
    uint32_t fastfree_offset = 0;  // distances from the data address down to each field
    uint32_t refcount_offset = 0;
    uint32_t debug_offset = 0;
    uint64_t stride = 0;       // from element to element
    uint64_t header_size = 0;  // of a block and its stack
    uint64_t area_size = 0;    // room for block_capacity elements, wherever the area starts

    bool is(uint32_t any_of) const { return (flags & any_of) != 0; }
};

// Heads its elements. The free stack follows it in memory: block_capacity addresses, the first 'free' of them
// used. In a pool that isn't independent the element area follows the stack.
struct ChunkBlock {
    ChunkBlock* next = nullptr;
    ChunkBlock* prev = nullptr;
    qel_mem_chunk* head = nullptr;
    ChunkBlock* tail = nullptr;  // of the first block: the last of the list; of a sibling: the first block
    uint32_t free = 0;           // depth of the stack
    uint32_t total = 0;          // elements that this block holds
    uint16_t is_sibling = 0;     // 0 for the first block
    std::byte* data_start = nullptr;
    std::byte* data_end = nullptr;

    std::byte** stack() { return reinterpret_cast<std::byte**>(this + 1); }
    bool holds(const std::byte* element) const { return element >= data_start && element < data_end; }
    bool has_on_stack(const std::byte* element) {
        std::span addresses{stack(), free};
        return std::find(addresses.begin(), addresses.end(), element) != addresses.end();
    }
    std::byte* first_element(const ChunkLayout& layout) const;
};
static_assert(sizeof(ChunkBlock) == 64 && alignof(ChunkBlock) == 8);

// The layout of a pool's blocks, with the flags as stored. Nothing when a block would not fit into the
// address space.
std::optional<ChunkLayout> plan_chunk(uint32_t size, uint32_t capacity, uint32_t flags, uint32_t alignment);

// The memory of one block. 'area' is empty where the elements are part of 'base'.
struct BlockMemory {
    Owned<std::byte> base;
    Owned<std::byte> area;
};

// Memory for a block behind 'front' bytes, or an empty base.
BlockMemory allocate_block(const ChunkLayout& layout, uint64_t front);
// Puts all elements of a new block, whose area is 'area' or follows its stack if that is null, on its stack.
void populate(ChunkBlock& block, const ChunkLayout& layout, std::byte* area);
void free_block(ChunkBlock& sibling, const ChunkLayout& layout);

inline uint32_t load_word(const std::byte* from) {
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

inline void store_word(std::byte* to, uint32_t word) {
    std::memcpy(to, &word, sizeof word);
}

// The block that an element's header tells, in a pool with fast free.
inline ChunkBlock* stored_block(const std::byte* element) {
    ChunkBlock* block;
    std::memcpy(&block, element - sizeof block, sizeof block);
    return block;
}

}  // namespace qel
