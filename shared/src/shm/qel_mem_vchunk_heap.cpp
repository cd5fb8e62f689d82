// The buddy heap in a block of memory.
//
// The memory behind the header is cut into root blocks of 2^i units, in descending order of size. A chunk is
// a root block or half of a chunk; the free chunks of 2^i units hang in ring i, the most recent first. 'span'
// counts the units from a chunk to the end of its root block: its bit of value 'units' says whether the chunk
// is an upper half (set) or a lower one.
//
// Invariant, whenever the lock is free, and what vchunk_check() checks:
//   1. The chunks, each with the magic and its units, follow one another without gap from the header to the
//      last whole unit, and fill root blocks of which only the first chunk has the mark.
//   2. A chunk is either in use or in the ring of its order; two buddies are never both free.
//   3. A ring has as many chunks as its count says, linked both ways, and its tail is the oldest.
//   4. The bytes used and the overhead are 1368 and what the chunks in use add: their units, and 24 each.
//
// Another process may write anything here at any time. So every link is looked at before it is followed (in
// the heap, on a unit's boundary, with the magic, and its neighbour pointing back), and no loop follows links
// but one bounded by the orders.
//
// Locks: the heap's own, held by the caller. Restart: a process that dies in here leaves the lock held.
#include "shm/qel_mem_vchunk_heap.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>

namespace qel {
namespace {

constexpr std::uint32_t kHeaderSize = sizeof(VchunkHeader);
constexpr std::uint32_t kLargestUnit = 32768;
constexpr std::uint32_t kVersion = 1;

std::byte* base_of(const VchunkHeap& heap) {
    return reinterpret_cast<std::byte*>(heap.header);
}

std::uint32_t load(const std::uint32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

std::uint32_t list_offset(std::uint32_t order) {
    return static_cast<std::uint32_t>(offsetof(VchunkHeapHeader, lists) + order * sizeof(VchunkFreeList));
}

// A chunk's place: behind the header, on a unit's boundary, whole.
VchunkHeader* chunk_at(const VchunkHeap& heap, std::uint64_t offset) {
    if (offset < kVchunkOverhead || offset + heap.unit > heap.capacity) return nullptr;
    if ((offset - kVchunkOverhead) % heap.unit != 0) return nullptr;
    auto* chunk = reinterpret_cast<VchunkHeader*>(base_of(heap) + offset);
    return load(chunk->magic) == kVchunkMagic ? chunk : nullptr;
}

std::uint32_t offset_of(const VchunkHeap& heap, const VchunkHeader* chunk) {
    return vchunk_handle(heap, chunk) - kHeaderSize;
}

// Where a link of the ring of 'order' leads: to its head, or to a chunk.
VchunkHeader* node_at(const VchunkHeap& heap, std::uint32_t offset, std::uint32_t order) {
    return offset == list_offset(order) ? &heap.header->lists[order].ring : chunk_at(heap, offset);
}

// A power of two of units that ends within the heap; its order, or kVchunkOrders.
std::uint32_t order_of(const VchunkHeap& heap, const VchunkHeader* chunk, std::uint32_t units) {
    if (!std::has_single_bit(units)) return kVchunkOrders;
    auto order = static_cast<std::uint32_t>(std::countr_zero(units));
    std::uint64_t end = offset_of(heap, chunk) + std::uint64_t{units} * heap.unit;
    return order <= heap.max_order && end <= heap.capacity ? order : kVchunkOrders;
}

void push(VchunkHeap& heap, std::uint32_t order, VchunkHeader* chunk) {
    VchunkFreeList& list = heap.header->lists[order];
    VchunkHeader* first = node_at(heap, load(list.ring.next), order);
    if (first == nullptr) return;  // A spoilt ring takes no more.
    std::uint32_t offset = offset_of(heap, chunk);
    chunk->next = list.ring.next;
    chunk->prev = list_offset(order);
    first->prev = offset;
    list.ring.next = offset;
    if (list.count++ == 0) list.tail = offset;
}

// False for a chunk whose neighbours don't point at it.
bool unlink(VchunkHeap& heap, std::uint32_t order, VchunkHeader* chunk) {
    VchunkFreeList& list = heap.header->lists[order];
    std::uint32_t offset = offset_of(heap, chunk);
    std::uint32_t before = load(chunk->prev), behind = load(chunk->next);
    VchunkHeader* prev = node_at(heap, before, order);
    VchunkHeader* next = node_at(heap, behind, order);
    if (prev == nullptr || next == nullptr || load(prev->next) != offset || load(next->prev) != offset)
        return false;
    prev->next = behind;
    next->prev = before;
    if (list.tail == offset) list.tail = before;
    if (--list.count == 0) list.tail = 0;
    return true;
}

// The first chunk of the ring of 'order', taken off it; null when the ring is empty or spoilt.
VchunkHeader* pop(VchunkHeap& heap, std::uint32_t order) {
    VchunkHeader* chunk = chunk_at(heap, load(heap.header->lists[order].ring.next));
    if (chunk == nullptr || (load(chunk->state) & kVchunkInUse) != 0) return nullptr;
    if (order_of(heap, chunk, load(chunk->units)) != order || !unlink(heap, order, chunk)) return nullptr;
    return chunk;
}

// Halves the chunk until it is of 'order'; the upper halves become free.
void split(VchunkHeap& heap, VchunkHeader* chunk, std::uint32_t from, std::uint32_t order) {
    while (from > order) {
        std::uint32_t units = 1u << --from;
        std::uint64_t upper_offset = offset_of(heap, chunk) + std::uint64_t{units} * heap.unit;
        auto* upper = reinterpret_cast<VchunkHeader*>(base_of(heap) + upper_offset);
        *upper = {kVchunkMagic, 0, 0, units, load(chunk->span) - units, 0};
        chunk->units = units;
        push(heap, from, upper);
    }
}

// The free buddy of a chunk, taken off its ring; null if the chunk is a root block, or its buddy isn't free
// or whole.
VchunkHeader* take_buddy(VchunkHeap& heap, VchunkHeader* chunk, std::uint32_t order) {
    std::uint32_t units = 1u << order, span = load(chunk->span);
    std::uint64_t offset = offset_of(heap, chunk), distance = std::uint64_t{units} * heap.unit;
    bool is_upper = (units & span) != 0;
    if (is_upper && (load(chunk->state) & kVchunkRoot) != 0) return nullptr;
    if (is_upper && offset < distance) return nullptr;
    VchunkHeader* buddy = chunk_at(heap, is_upper ? offset - distance : offset + distance);
    if (buddy == nullptr || (load(buddy->state) & kVchunkInUse) != 0) return nullptr;
    if (!is_upper && (load(buddy->state) & kVchunkRoot) != 0) return nullptr;
    if (load(buddy->span) != (is_upper ? span + units : span - units)) return nullptr;
    if (load(buddy->units) != units || !unlink(heap, order, buddy)) return nullptr;
    return buddy;
}

void make_lists(VchunkHeapHeader& header) {
    for (std::uint32_t order = 0; order < kVchunkOrders; ++order) {
        std::uint32_t self = list_offset(order);
        header.lists[order].ring = {kVchunkMagic, self, self, 1u << order, 0, 0};
    }
}

// The units in a descending series of root blocks.
void carve(VchunkHeap& heap, std::uint32_t units) {
    std::uint32_t offset = kVchunkOverhead;
    for (std::uint32_t order = heap.max_order + 1; order-- > 0;) {
        std::uint32_t size = 1u << order;
        if ((units & size) == 0) continue;
        auto* chunk = reinterpret_cast<VchunkHeader*>(base_of(heap) + offset);
        *chunk = {kVchunkMagic, 0, 0, size, size, kVchunkRoot};
        push(heap, order, chunk);
        offset += size * heap.unit;
    }
}

}  // namespace

std::uint32_t vchunk_unit(std::uint32_t min_size) {
    std::uint32_t unit = std::bit_ceil(min_size + kHeaderSize);
    return unit <= kLargestUnit ? unit : 0;
}

int vchunk_format(VchunkHeap& heap, VchunkType type, std::uint32_t heap_size) {
    VchunkHeapHeader& header = *heap.header;
    bool passes_through = (heap.flags & QEL_MEM_VCHUNK_PASS_THROUGH) != 0;
    header.version = kVersion;
    header.type = type;
    header.flags = heap.flags;
    header.mem_heap_capacity = heap.capacity;
    header.mem_heap_used = header.mem_heap_overhead = kVchunkOverhead;
    int error =
        type == VchunkType::shared ? header.lock.init() : pthread_mutex_init(header.lock.native(), nullptr);
    if (error != 0) return error;
    if (type == VchunkType::shared) static_cast<void>(qel_revive_and_monitor_mutex(header.lock.native()));
    header.min_chunk_size = heap.unit;
    make_lists(header);
    std::uint32_t units = (heap_size - kVchunkOverhead) / heap.unit;
    if (units == 0) return ENOMEM;
    heap.max_order = static_cast<std::uint32_t>(std::bit_width(units)) - 1;
    header.max_order = heap.max_order;
    header.magic = kVchunkMagic;
    if (!passes_through) carve(heap, units);
    return 0;
}

VchunkHeader* vchunk_allocate(VchunkHeap& heap, std::uint32_t size) {
    VchunkHeapHeader& header = *heap.header;
    if (load(header.magic) != kVchunkMagic || (load(header.flags) & kVchunkNoAllocation) != 0 || size == 0)
        return nullptr;
    std::uint64_t units = (std::uint64_t{size} + kHeaderSize + heap.unit - 1) / heap.unit;
    auto wanted = static_cast<std::uint32_t>(std::bit_width(units - 1));
    VchunkHeader* chunk = nullptr;
    std::uint32_t order = wanted;
    for (; order <= heap.max_order && chunk == nullptr; ++order) chunk = pop(heap, order);
    if (chunk == nullptr) return nullptr;
    chunk->state |= kVchunkInUse;
    split(heap, chunk, order - 1, wanted);
    ++header.lists[wanted].alloced;
    header.mem_heap_used += (1u << wanted) * heap.unit;
    header.mem_heap_overhead += kHeaderSize;
    return chunk;
}

int vchunk_release(VchunkHeap& heap, std::uint32_t handle) {
    VchunkHeapHeader& header = *heap.header;
    VchunkHeader* chunk = vchunk_header(heap, handle);
    if (load(header.magic) != kVchunkMagic || chunk == nullptr || (load(chunk->state) & kVchunkInUse) == 0)
        return EINVAL;
    std::uint32_t order = order_of(heap, chunk, load(chunk->units));
    if (order == kVchunkOrders) return EINVAL;
    chunk->state &= ~kVchunkInUse;
    header.mem_heap_used -= (1u << order) * heap.unit;
    header.mem_heap_overhead -= kHeaderSize;
    ++header.lists[order].freed;
    while (order < heap.max_order) {
        VchunkHeader* buddy = take_buddy(heap, chunk, order);
        if (buddy == nullptr) break;
        VchunkHeader* upper = std::max(chunk, buddy);
        upper->magic = 0;
        chunk = std::min(chunk, buddy);
        chunk->units = 1u << ++order;
    }
    push(heap, order, chunk);
    return 0;
}

VchunkHeader* vchunk_header(const VchunkHeap& heap, std::uint32_t handle) {
    return handle < kHeaderSize ? nullptr : chunk_at(heap, handle - kHeaderSize);
}

std::uint32_t vchunk_room(const VchunkHeap& heap, std::uint32_t handle) {
    const VchunkHeader* chunk = vchunk_header(heap, handle);
    if (chunk == nullptr || (load(chunk->state) & kVchunkInUse) == 0) return 0;
    std::uint32_t order = order_of(heap, chunk, load(chunk->units));
    return order == kVchunkOrders ? 0 : (heap.unit << order) - kHeaderSize;
}

// --- Checking ---

namespace {

struct Census {
    std::uint32_t free[kVchunkOrders]{};
    std::uint32_t used = kVchunkOverhead;
    std::uint32_t overhead = kVchunkOverhead;
};

// The chunks of the root block of 2^order units at 'start'.
const char* check_root(const VchunkHeap& heap, std::uint32_t start, std::uint32_t order, Census& census) {
    for (std::uint32_t at = 0; at < 1u << order;) {
        const VchunkHeader* chunk = chunk_at(heap, start + std::uint64_t{at} * heap.unit);
        if (chunk == nullptr) return "no chunk where the one before ends";
        std::uint32_t units = load(chunk->units), size_order = order_of(heap, chunk, units);
        if (size_order > order || at % units != 0) return "a chunk's units";
        if (load(chunk->span) != (1u << order) - at) return "a chunk's span";
        if (((load(chunk->state) & kVchunkRoot) != 0) != (at == 0)) return "a chunk's root mark";
        bool is_free = (load(chunk->state) & kVchunkInUse) == 0, is_upper = (at & units) != 0;
        const VchunkHeader* lower =
            is_upper ? chunk_at(heap, start + std::uint64_t{at - units} * heap.unit) : nullptr;
        bool buddy_is_free =
            lower != nullptr && load(lower->units) == units && (load(lower->state) & kVchunkInUse) == 0;
        if (is_free && buddy_is_free) return "two buddies that are free";
        if (is_free) ++census.free[size_order];
        census.used += is_free ? 0 : units * heap.unit;
        census.overhead += is_free ? 0 : kHeaderSize;
        at += units;
    }
    return nullptr;
}

const char* check_ring(const VchunkHeap& heap, std::uint32_t order, std::uint32_t free_chunks) {
    const VchunkFreeList& list = heap.header->lists[order];
    if (load(list.count) != free_chunks) return "the number of free chunks of an order";
    std::uint32_t last = list_offset(order);
    for (std::uint32_t seen = 0; seen <= free_chunks; ++seen) {
        std::uint32_t at = load(node_at(heap, last, order)->next);
        const VchunkHeader* node = node_at(heap, at, order);
        if (node == nullptr || load(node->prev) != last) return "a free chunk's link";
        bool is_head = at == list_offset(order);
        if (is_head != (seen == free_chunks)) return "the end of a ring of free chunks";
        if (is_head) break;
        bool is_free = (load(node->state) & kVchunkInUse) == 0;
        if (!is_free || order_of(heap, node, load(node->units)) != order) return "a chunk in a ring";
        last = at;
    }
    return load(list.tail) == (free_chunks == 0 ? 0 : last) ? nullptr : "the tail of a ring";
}

}  // namespace

const char* vchunk_check(const VchunkHeap& heap) {
    Census census;
    std::uint32_t units = (heap.capacity - kVchunkOverhead) / heap.unit, start = kVchunkOverhead;
    for (std::uint32_t order = heap.max_order + 1; order-- > 0;) {
        if ((units >> order & 1) == 0) continue;
        if (const char* fault = check_root(heap, start, order, census); fault != nullptr) return fault;
        start += heap.unit << order;
    }
    for (std::uint32_t order = 0; order <= heap.max_order; ++order)
        if (const char* fault = check_ring(heap, order, census.free[order]); fault != nullptr) return fault;
    if (census.used != load(heap.header->mem_heap_used)) return "the bytes in use";
    return census.overhead == load(heap.header->mem_heap_overhead) ? nullptr : "the bytes of overhead";
}

}  // namespace qel
