// A chunk pool's blocks: planning, allocating and populating them.
//
// A block is one allocation: its record, its free stack, its elements; or two when the pool is independent,
// the elements being the second one. The area has room for all elements wherever it starts, so the alignment
// never costs one. Elements are aligned to 8 bytes at least, which keeps the block pointer and the count in
// their headers aligned, too.
#include "core/qel_mem_chunk_block.hpp"

#include <numeric>

namespace qel {

namespace {

constexpr uint32_t kMinElementSize = 16;
constexpr uint32_t kMinAlignment = 8;
constexpr uint32_t kMaxPackedAlignment = 4;

constexpr uint64_t round_up(uint64_t value, uint64_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

constexpr uint32_t stored_flags(uint32_t asked, uint32_t alignment) {
    uint32_t flags = asked & ~(QEL_MEM_CHUNK_NO_SYNC | QEL_MEM_CHUNK_NO_FAST_FREE);
    if ((asked & QEL_MEM_CHUNK_NO_SYNC) == 0) flags |= QEL_MEM_CHUNK_SYNC;
    if ((asked & QEL_MEM_CHUNK_NO_FAST_FREE) == 0) flags |= QEL_MEM_CHUNK_FAST_FREE;
    if (alignment > kMaxPackedAlignment) flags |= QEL_MEM_CHUNK_INDEPENDENT;
    return flags;
}

void plan_header(ChunkLayout& layout) {
    if (layout.is(QEL_MEM_CHUNK_FAST_FREE)) layout.fastfree_offset = layout.overhead += 8;
    if (layout.is(QEL_MEM_CHUNK_LOCKABLE)) layout.refcount_offset = layout.overhead += 4;
    if (layout.is(QEL_MEM_CHUNK_DEBUGGABLE)) layout.debug_offset = layout.overhead += 8;
}

Owned<std::byte> allocate(uint64_t size) {
    return Owned{static_cast<std::byte*>(qel_named_malloc_(size, qel_tag_e_get_string(QEL_MEM_BASE), 0))};
}

}  // namespace

std::optional<ChunkLayout> plan_chunk(uint32_t size, uint32_t capacity, uint32_t flags, uint32_t alignment) {
    ChunkLayout layout{.flags = stored_flags(flags, alignment),
                       .data_size = size,
                       .element_size = std::max(size, kMinElementSize),
                       .block_capacity = capacity};
    uint64_t step = std::lcm(uint64_t{std::max(alignment, kMinAlignment)}, uint64_t{kMinAlignment});
    layout.alignment = static_cast<uint32_t>(step);
    if (layout.alignment != step) return std::nullopt;
    plan_header(layout);
    layout.stride = round_up(uint64_t{layout.element_size} + layout.overhead, step);
    layout.header_size = sizeof(ChunkBlock) + uint64_t{capacity} * sizeof(std::byte*);
    if (__builtin_mul_overflow(layout.stride, capacity, &layout.area_size)) return std::nullopt;
    // The area may start anywhere, so the first data address can lie up to a step less a byte late.
    if (__builtin_add_overflow(layout.area_size, step - 1, &layout.area_size)) return std::nullopt;
    return layout;
}

BlockMemory allocate_block(const ChunkLayout& layout, uint64_t front) {
    uint64_t base_size = front + layout.header_size;
    bool independent = layout.is(QEL_MEM_CHUNK_INDEPENDENT);
    if (!independent && __builtin_add_overflow(base_size, layout.area_size, &base_size)) return {};
    BlockMemory memory{.base = allocate(base_size), .area = {}};
    if (!memory.base || !independent) return memory;
    memory.area = allocate(layout.area_size);
    if (!memory.area) memory.base.reset();
    return memory;
}

std::byte* ChunkBlock::first_element(const ChunkLayout& layout) const {
    uint64_t start = reinterpret_cast<uintptr_t>(data_start);
    return data_start + (round_up(start + layout.overhead, layout.alignment) - start);
}

void populate(ChunkBlock& block, const ChunkLayout& layout, std::byte* area) {
    block.data_start = area != nullptr ? area : reinterpret_cast<std::byte*>(&block) + layout.header_size;
    block.data_end = block.data_start + layout.area_size;
    block.free = block.total = layout.block_capacity;
    ChunkBlock* owner = &block;
    std::byte* element = block.first_element(layout);
    for (std::byte*& place : std::span{block.stack(), block.total}) {
        store_word(element, kFreeMagic);
        std::memset(element + 8, 0, 8);
        if (layout.is(QEL_MEM_CHUNK_DEBUGGABLE)) store_word(element - layout.debug_offset, kDebugMagic);
        if (layout.is(QEL_MEM_CHUNK_LOCKABLE)) store_word(element - layout.refcount_offset, 0);
        if (layout.is(QEL_MEM_CHUNK_FAST_FREE)) std::memcpy(element - sizeof owner, &owner, sizeof owner);
        place = element;
        element += layout.stride;
    }
}

void free_block(ChunkBlock& sibling, const ChunkLayout& layout) {
    if (layout.is(QEL_MEM_CHUNK_INDEPENDENT)) qel_named_free(sibling.data_start);
    qel_named_free(&sibling);
}

}  // namespace qel
