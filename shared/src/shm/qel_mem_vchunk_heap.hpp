// The buddy heap in a block of memory, whoever maps it: its format, and what is done under its lock.
//
// All links are offsets from the heap's base. A segment gives a base 12 bytes into the mapping, so nothing in
// the format is aligned to more than 4 bytes, and the addresses handed out lie 4 modulo 8 there.
#pragma once

#include <qel/mem_vchunk.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "shm/qel_shared_lock.hpp"

namespace qel {

inline constexpr std::uint32_t kVchunkMagic = 0xfeedbacc;
inline constexpr std::uint32_t kVchunkOrders = 32;

enum class VchunkType : std::uint32_t { shared = 1, process = 2 };

// In front of the bytes of each chunk.
struct VchunkHeader {
    std::uint32_t magic;  // cleared when the chunk merges into its lower buddy
    std::uint32_t prev;
    std::uint32_t next;
    std::uint32_t units;  // a power of two
    std::uint32_t span;   // units from here to the end of the root block
    std::uint32_t state;  // kVchunkInUse, kVchunkRoot
};
static_assert(sizeof(VchunkHeader) == 24 && offsetof(VchunkHeader, prev) == 4 &&
              offsetof(VchunkHeader, next) == 8 && offsetof(VchunkHeader, units) == 12 &&
              offsetof(VchunkHeader, span) == 16 && offsetof(VchunkHeader, state) == 20);
inline constexpr std::uint32_t kVchunkInUse = 1;
inline constexpr std::uint32_t kVchunkRoot = 2;

// The head of the ring of free chunks of one order; its first words are those of a chunk.
struct VchunkFreeList {
    VchunkHeader ring;
    std::uint32_t count;
    std::uint32_t alloced;
    std::uint32_t freed;
    std::uint32_t tail;  // the oldest chunk, 0 for none
};
static_assert(sizeof(VchunkFreeList) == 40 && offsetof(VchunkFreeList, count) == 24 &&
              offsetof(VchunkFreeList, alloced) == 28 && offsetof(VchunkFreeList, freed) == 32 &&
              offsetof(VchunkFreeList, tail) == 36);

struct VchunkHeapHeader {
    std::uint32_t magic;
    std::uint32_t version;
    VchunkType type;
    std::uint32_t reserved_12;
    SharedMutex lock;
    std::uint32_t min_chunk_size;
    std::uint32_t mem_heap_capacity;
    std::uint32_t flags;
    std::uint32_t mem_heap_used;
    std::uint32_t mem_heap_overhead;
    std::uint32_t max_order;
    std::uint32_t reserved_80;
    VchunkFreeList lists[kVchunkOrders];
    std::uint32_t reserved_1364;
};
static_assert(sizeof(VchunkHeapHeader) == 1368 && alignof(VchunkHeapHeader) == 4 &&
              std::is_standard_layout_v<VchunkHeapHeader> && offsetof(VchunkHeapHeader, lock) == 16 &&
              offsetof(VchunkHeapHeader, min_chunk_size) == 56 &&
              offsetof(VchunkHeapHeader, mem_heap_capacity) == 60 &&
              offsetof(VchunkHeapHeader, flags) == 64 && offsetof(VchunkHeapHeader, mem_heap_used) == 68 &&
              offsetof(VchunkHeapHeader, mem_heap_overhead) == 72 &&
              offsetof(VchunkHeapHeader, max_order) == 76 && offsetof(VchunkHeapHeader, lists) == 84);
inline constexpr std::uint32_t kVchunkOverhead = sizeof(VchunkHeapHeader);
inline constexpr std::uint32_t kVchunkNoAllocation = 0x10000;  // bit of 'flags'

// A heap as this process knows it. The sizes were checked against the memory once and are not read from there
// again, so whatever lies in the heap, no call reaches outside of it.
struct VchunkHeap {
    VchunkHeapHeader* header = nullptr;
    std::uint32_t capacity = 0;  // bytes
    std::uint32_t unit = 0;      // bytes, a power of two
    std::uint32_t max_order = 0;
    std::uint32_t flags = 0;
};

// The unit that holds 'min_size' bytes and a chunk's header; 0 if there is none.
std::uint32_t vchunk_unit(std::uint32_t min_size);

// Lays out a heap in zeroed memory: header, lock, and 'heap_size' bytes cut into root blocks, unless it
// passes through. Gives 'heap.max_order'. 0; ENOMEM for less than a unit; or the errno of the lock.
int vchunk_format(VchunkHeap& heap, VchunkType type, std::uint32_t heap_size);

// All of these are called with the heap's lock held.
VchunkHeader* vchunk_allocate(VchunkHeap& heap, std::uint32_t size);
int vchunk_release(VchunkHeap& heap, std::uint32_t handle);  // 0, or EINVAL for what is no chunk in use

// The bytes of a chunk in use, 0 for any other number. Needs no lock for a chunk of the caller's own.
std::uint32_t vchunk_room(const VchunkHeap& heap, std::uint32_t handle);

// The header of the chunk whose bytes begin at 'handle', if it has the magic; null otherwise.
VchunkHeader* vchunk_header(const VchunkHeap& heap, std::uint32_t handle);
inline std::uint32_t vchunk_handle(const VchunkHeap& heap, const VchunkHeader* chunk) {
    auto distance =
        reinterpret_cast<const std::byte*>(chunk) - reinterpret_cast<const std::byte*>(heap.header);
    return static_cast<std::uint32_t>(distance) + static_cast<std::uint32_t>(sizeof(VchunkHeader));
}

// The heap's invariant, stated in the file. Null, or what is broken. The lock is held, or nobody else works
// on the heap.
const char* vchunk_check(const VchunkHeap& heap);

}  // namespace qel
