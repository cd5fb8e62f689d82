// Chunk pools: elements of one size, handed out from blocks of many.
//
// A block keeps the addresses of its free elements on a stack. A pool is a list of blocks: the first one,
// which lies behind the pool's head in one allocation and stays as long as the pool; then the siblings with
// room; then the exhausted siblings. So a free element is found by looking at two blocks at most, and a block
// changes its place only when it runs out or stops being out. One wholly free sibling is kept off the list as
// a spare, so that a load around a block's edge doesn't go to the heap each time.
//
// Invariant: in the list no exhausted sibling is ahead of one with room, and first_exhausted is the foremost
// exhausted one. Every word of 'free' equals the depth of that block's stack.
// Locks: mutex guards the lists, stacks and counters (a pool without it is serialised by its caller). It is
// the innermost lock. Preparing, zeroing and poisoning an element happens outside it: the element is nobody
// else's then. Reference counts are atomic and take no lock.
#include "core/qel_mem_chunk.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"

namespace {

using qel::Owned;

constexpr uint32_t kFreeMagic = 0xef4321cd;   // first word of every free element
constexpr uint32_t kDebugMagic = 0x15a3c78b;  // header word of every element of a debuggable pool
constexpr int kPoisonByte = 0x0d;
constexpr uint32_t kPoisonStart = 16;  // the words in front stay readable: magic and links
constexpr uint32_t kPoisonEnd = 272;
constexpr uint32_t kMinElementSize = 16;
constexpr uint32_t kMinAlignment = 8;  // keeps counts and block pointers of the header in place, too
constexpr uint32_t kMaxPackedAlignment = 4;
constexpr uint32_t kMaxDynamicElementSize = 65536;
constexpr uint32_t kNoCount = 0xffffffff;
constexpr std::string_view kNamePrefix = "Hdr+Elem_of_CHUNK:";

// How the elements of a pool lie in their area. An element's header ends at its data address and holds, going
// down from there:
//
//     block pointer   8 bytes   with fast free
//     count           4 bytes   with references, at fastfree_offset + 4
//     magic           4 bytes   when debuggable, 8 below the field above it
struct Layout {
    uint32_t data_size = 0;     // as asked for; what is zeroed and poisoned
    uint32_t element_size = 0;  // at least kMinElementSize
    uint32_t alignment = 0;     // of data addresses
    uint32_t overhead = 0;      // bytes of header
    uint32_t block_capacity = 0;
    uint32_t fastfree_offset = 0;  // distances from the data address down to each field
    uint32_t refcount_offset = 0;
    uint32_t debug_offset = 0;
    uint64_t stride = 0;     // from element to element
    uint64_t area_size = 0;  // room for block_capacity elements, wherever the area starts
};

// Heads its elements. The free stack follows it in memory: block_capacity addresses, the first 'free' of them
// used. In a pool that isn't independent the element area follows the stack.
struct Block {
    Block* next = nullptr;
    Block* prev = nullptr;
    qel_mem_chunk* head = nullptr;
    Block* tail = nullptr;    // of the first block: the last of the list; of a sibling: the first block
    uint32_t free = 0;        // depth of the stack
    uint32_t total = 0;       // elements that this block holds
    uint16_t is_sibling = 0;  // 0 for the first block
    std::byte* data_start = nullptr;
    std::byte* data_end = nullptr;

    std::byte** stack() { return reinterpret_cast<std::byte**>(this + 1); }
    bool holds(const std::byte* element) const { return element >= data_start && element < data_end; }
    bool has_on_stack(const std::byte* element) {
        std::span addresses{stack(), free};
        return std::find(addresses.begin(), addresses.end(), element) != addresses.end();
    }
};
static_assert(sizeof(Block) == 64 && alignof(Block) == 8);

// What dropping a reference found.
enum class Reference { none, shared, last };

}  // namespace

// The head of a pool.
struct qel_mem_chunk {
    Block* first;
    Block* first_exhausted QEL_GUARDED_BY(mutex);  // or null
    Block* spare QEL_GUARDED_BY(mutex);            // a wholly free sibling off the list, or null
    uint32_t flags;
    int32_t in_use QEL_GUARDED_BY(mutex);  // elements handed out
    int32_t in_use_high QEL_GUARDED_BY(mutex);
    int32_t free_total QEL_GUARDED_BY(mutex);  // free elements of the blocks on the list
    uint32_t alloc_count QEL_GUARDED_BY(mutex);
    uint32_t free_count QEL_GUARDED_BY(mutex);
    uint32_t siblings_created QEL_GUARDED_BY(mutex);
    uint32_t siblings_destroyed QEL_GUARDED_BY(mutex);
    bool retired QEL_GUARDED_BY(mutex);  // goes with its last element
    qel::Mutex mutex;                    // set up with QEL_MEM_CHUNK_SYNC only
    Layout layout;
    char* name;              // with the prefix; the pool's own
    const char* short_name;  // the same without

    bool is(uint32_t flag) const { return (flags & flag) != 0; }

    void* take_locked() QEL_REQUIRES(mutex);
    bool put_back_locked(Block& block, std::byte* element) QEL_REQUIRES(mutex);
    bool is_destroyable_locked() const QEL_REQUIRES(mutex);

    Block* owner_of(std::byte* element);
    std::atomic_ref<uint32_t> count_of(std::byte* element) const;
    Reference drop_reference(std::byte* element) const;
    void prepare(std::byte* element) const;
    void poison(std::byte* element) const;

    void populate(Block& block, std::byte* area);
    void destroy();

  private:
    Block* grow_locked() QEL_REQUIRES(mutex);
    void shrink_locked(Block& sibling) QEL_REQUIRES(mutex);
    void insert_behind_locked(Block& place, Block& sibling) QEL_REQUIRES(mutex);
    void unlink_locked(Block& sibling) QEL_REQUIRES(mutex);
    void ran_out_locked(Block& sibling) QEL_REQUIRES(mutex);
    void has_room_again_locked(Block& sibling) QEL_REQUIRES(mutex);

    Block* search_owner(const std::byte* element);
    void free_block(Block& sibling) const;
};

namespace {

// Locks the pool if it has a mutex; otherwise the caller's word stands for it.
class QEL_SCOPED_CAPABILITY PoolLocked {
  public:
    explicit PoolLocked(qel_mem_chunk& pool) QEL_ACQUIRE(pool.mutex)
        : mutex_(pool.is(QEL_MEM_CHUNK_SYNC) ? &pool.mutex : nullptr) {
        lock();
    }
    PoolLocked(const PoolLocked&) = delete;
    PoolLocked& operator=(const PoolLocked&) = delete;
    ~PoolLocked() QEL_RELEASE() { unlock(); }

  private:
    // Below the trace a lock that fails has nowhere to be reported.
    void lock() QEL_NO_THREAD_SAFETY_ANALYSIS {
        if (mutex_ != nullptr) static_cast<void>(mutex_->lock());
    }
    void unlock() QEL_NO_THREAD_SAFETY_ANALYSIS {
        if (mutex_ != nullptr) static_cast<void>(mutex_->unlock());
    }

    qel::Mutex* mutex_;
};

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

// Fills in the element header's offsets and size.
constexpr void plan_header(Layout& layout, uint32_t flags) {
    if ((flags & QEL_MEM_CHUNK_FAST_FREE) != 0) layout.fastfree_offset = layout.overhead += 8;
    if ((flags & QEL_MEM_CHUNK_LOCKABLE) != 0) layout.refcount_offset = layout.overhead += 4;
    if ((flags & QEL_MEM_CHUNK_DEBUGGABLE) != 0) layout.debug_offset = layout.overhead += 8;
}

// Nothing when a block would not fit into the address space.
constexpr std::optional<Layout> plan(uint32_t size, uint32_t capacity, uint32_t flags, uint32_t alignment) {
    Layout layout{
        .data_size = size, .element_size = std::max(size, kMinElementSize), .block_capacity = capacity};
    uint64_t step = std::lcm(uint64_t{std::max(alignment, kMinAlignment)}, uint64_t{kMinAlignment});
    plan_header(layout, flags);
    layout.stride = round_up(uint64_t{layout.element_size} + layout.overhead, step);
    layout.alignment = static_cast<uint32_t>(step);
    if (layout.alignment != step) return std::nullopt;
    if (__builtin_mul_overflow(layout.stride, capacity, &layout.area_size)) return std::nullopt;
    // The area may start anywhere, so the first data address can lie up to a step less a byte late.
    if (__builtin_add_overflow(layout.area_size, step - 1, &layout.area_size)) return std::nullopt;
    return layout;
}

constexpr uint64_t header_size(const Layout& layout) {
    return sizeof(Block) + uint64_t{layout.block_capacity} * sizeof(std::byte*);
}

Owned<std::byte> allocate(uint64_t size) {
    return Owned{static_cast<std::byte*>(qel_named_malloc_(size, qel_tag_e_get_string(QEL_MEM_BASE), 0))};
}

// The memory of one block. 'area' is empty where the elements are part of 'base'.
struct BlockMemory {
    Owned<std::byte> base;
    Owned<std::byte> area;
};

// Memory for a block behind 'front' bytes, or an empty base.
BlockMemory allocate_block(const Layout& layout, uint32_t flags, uint64_t front) {
    uint64_t base_size = front + header_size(layout);
    bool independent = (flags & QEL_MEM_CHUNK_INDEPENDENT) != 0;
    if (!independent && __builtin_add_overflow(base_size, layout.area_size, &base_size)) return {};
    BlockMemory memory{.base = allocate(base_size), .area = {}};
    if (!memory.base || !independent) return memory;
    memory.area = allocate(layout.area_size);
    if (!memory.area) memory.base.reset();
    return memory;
}

Owned<char> make_name(const char* given) {
    std::string_view name = given != nullptr ? given : "unknown";
    Owned<char> text = qel::allocate_zeroed<char>(QEL_MEM_BASE, kNamePrefix.size() + name.size() + 1);
    if (text) std::ranges::copy(name, std::ranges::copy(kNamePrefix, text.get()).out);
    return text;
}

uint32_t load_word(const std::byte* from) {
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

void store_word(std::byte* to, uint32_t word) {
    std::memcpy(to, &word, sizeof word);
}

Block* stored_block(const std::byte* element) {
    Block* block;
    std::memcpy(&block, element - sizeof block, sizeof block);
    return block;
}

int free_element(qel_mem_chunk& pool, std::byte* element) {
    Block* block = pool.owner_of(element);
    if (block == nullptr) return 0;
    if (pool.is(QEL_MEM_CHUNK_LOCKABLE)) {
        Reference dropped = pool.drop_reference(element);
        if (dropped != Reference::last) return dropped == Reference::shared;
    }
    if (pool.is(QEL_MEM_CHUNK_DEBUGGABLE)) pool.poison(element);
    bool abandoned;
    {
        PoolLocked lock{pool};
        if (!pool.put_back_locked(*block, element)) return 0;
        abandoned = pool.retired && pool.in_use == 0;
    }
    if (abandoned) pool.destroy();
    return 1;
}

}  // namespace

qel_mem_chunk* qel_mem_chunk_create(uint32_t element_size, uint32_t block_capacity, uint32_t flags, uint32_t,
                                    uint32_t alignment, const char* name) {
    if ((flags & QEL_MEM_CHUNK_DYNAMIC) != 0 && element_size > kMaxDynamicElementSize) return nullptr;
    flags = stored_flags(flags, alignment);
    std::optional<Layout> layout = plan(element_size, block_capacity, flags, alignment);
    if (!layout) return nullptr;
    Owned<char> full_name = make_name(name);
    if (!full_name) return nullptr;
    BlockMemory memory = allocate_block(*layout, flags, sizeof(qel_mem_chunk));
    if (!memory.base) return nullptr;

    std::memset(memory.base.get(), 0, sizeof(qel_mem_chunk) + sizeof(Block));
    auto* pool = reinterpret_cast<qel_mem_chunk*>(memory.base.get());
    if ((flags & QEL_MEM_CHUNK_SYNC) != 0 && pool->mutex.init() != 0) return nullptr;
    pool->flags = flags;
    pool->layout = *layout;
    pool->name = full_name.release();
    pool->short_name = pool->name + kNamePrefix.size();
    pool->first = reinterpret_cast<Block*>(pool + 1);
    pool->first->tail = pool->first;
    pool->populate(*pool->first, memory.area.release());
    static_cast<void>(memory.base.release());  // the pool is its own memory now
    return pool;
}

int qel_mem_chunk_destroy(qel_mem_chunk* pool) {
    if (!qel_mem_chunk_is_destroyable(pool)) return 0;
    pool->destroy();
    return 1;
}

int qel_mem_chunk_is_destroyable(qel_mem_chunk* pool) {
    if (pool == nullptr) return 0;
    PoolLocked lock{*pool};
    return pool->is_destroyable_locked();
}

void* qel_mem_chunk_malloc(qel_mem_chunk* pool) {
    if (pool == nullptr) return nullptr;
    std::byte* element;
    {
        PoolLocked lock{*pool};
        element = static_cast<std::byte*>(pool->take_locked());
    }
    if (element != nullptr) pool->prepare(element);
    return element;
}

int qel_mem_chunk_free(qel_mem_chunk* pool, void* element) {
    if (pool == nullptr || element == nullptr) return 0;
    return free_element(*pool, static_cast<std::byte*>(element));
}

int qel_mem_chunk_lock(qel_mem_chunk* pool, void* address) {
    auto* element = static_cast<std::byte*>(address);
    if (pool == nullptr || element == nullptr || !pool->is(QEL_MEM_CHUNK_LOCKABLE)) return 0;
    if (pool->owner_of(element) == nullptr) return 0;
    std::atomic_ref<uint32_t> count = pool->count_of(element);
    uint32_t seen = count.load(std::memory_order_relaxed);
    do {
        if (seen == 0 || seen == kNoCount - 1) return 0;
    } while (!count.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed));
    return 1;
}

uint32_t qel_mem_chunk_refcount(qel_mem_chunk* pool, void* address) {
    auto* element = static_cast<std::byte*>(address);
    if (pool == nullptr || element == nullptr || !pool->is(QEL_MEM_CHUNK_LOCKABLE)) return kNoCount;
    if (pool->owner_of(element) == nullptr) return kNoCount;
    return pool->count_of(element).load();
}

int qel::chunk_free_to_owner(void* address) {
    if (address == nullptr) return 0;
    auto* element = static_cast<std::byte*>(address);
    return free_element(*stored_block(element)->head, element);
}

void qel::chunk_retire(qel_mem_chunk* pool) {
    if (pool == nullptr) return;
    bool abandoned;
    {
        PoolLocked lock{*pool};
        pool->retired = true;
        abandoned = pool->in_use == 0;
    }
    if (abandoned) pool->destroy();
}

void* qel_mem_chunk::take_locked() {
    Block* block = first->free > 0 ? first : first->next;
    if (block == nullptr || block->free == 0) block = grow_locked();
    if (block == nullptr) return nullptr;
    std::byte* element = block->stack()[--block->free];
    if (block->free == 0 && block->is_sibling) ran_out_locked(*block);
    in_use_high = std::max(in_use_high, ++in_use);
    --free_total;
    ++alloc_count;
    return element;
}

// False for an element that is free already.
bool qel_mem_chunk::put_back_locked(Block& block, std::byte* element) {
    if (block.free == block.total) return false;
    // Users may have left the magic in the element by chance, so the stack has the last word.
    if (load_word(element) == kFreeMagic && block.has_on_stack(element)) return false;
    store_word(element, kFreeMagic);
    if (block.free == 0 && block.is_sibling) has_room_again_locked(block);
    block.stack()[block.free++] = element;
    ++free_total;
    --in_use;
    ++free_count;
    if (block.free == block.total && block.is_sibling && !is(QEL_MEM_CHUNK_KEEP)) shrink_locked(block);
    return true;
}

bool qel_mem_chunk::is_destroyable_locked() const {
    return first->free == first->total && first->next == nullptr;
}

// A sibling with all elements free, at its place behind the first block; null when the pool can't grow.
Block* qel_mem_chunk::grow_locked() {
    if (!is(QEL_MEM_CHUNK_DYNAMIC) || layout.block_capacity == 0) return nullptr;
    Block* sibling = std::exchange(spare, nullptr);
    if (sibling == nullptr) {
        BlockMemory memory = allocate_block(layout, flags, 0);
        if (!memory.base) return nullptr;
        sibling = reinterpret_cast<Block*>(memory.base.release());
        *sibling = Block{.tail = first, .is_sibling = 1};
        populate(*sibling, memory.area.release());
    }
    insert_behind_locked(*first, *sibling);
    free_total += static_cast<int32_t>(sibling->total);
    ++siblings_created;
    return sibling;
}

// Takes a wholly free sibling off the list.
void qel_mem_chunk::shrink_locked(Block& sibling) {
    unlink_locked(sibling);
    free_total -= static_cast<int32_t>(sibling.total);
    ++siblings_destroyed;
    if (spare == nullptr)
        spare = &sibling;
    else
        free_block(sibling);
}

void qel_mem_chunk::insert_behind_locked(Block& place, Block& sibling) {
    sibling.prev = &place;
    sibling.next = place.next;
    place.next = &sibling;
    if (sibling.next != nullptr)
        sibling.next->prev = &sibling;
    else
        first->tail = &sibling;
}

void qel_mem_chunk::unlink_locked(Block& sibling) {
    sibling.prev->next = sibling.next;
    if (sibling.next != nullptr)
        sibling.next->prev = sibling.prev;
    else
        first->tail = sibling.prev;
}

// Moves a sibling that gave its last element behind all others.
void qel_mem_chunk::ran_out_locked(Block& sibling) {
    if (first_exhausted == nullptr) first_exhausted = &sibling;
    if (&sibling == first->tail) return;
    unlink_locked(sibling);
    insert_behind_locked(*first->tail, sibling);
}

// Moves an exhausted sibling that gets an element back behind the last one with room.
void qel_mem_chunk::has_room_again_locked(Block& sibling) {
    if (&sibling == first_exhausted) {
        first_exhausted = sibling.next;
        return;
    }
    unlink_locked(sibling);
    insert_behind_locked(*first_exhausted->prev, sibling);
}

// The block of this pool that 'element' lies in, or null. The element is the caller's, so its block stays.
Block* qel_mem_chunk::owner_of(std::byte* element) {
    if (!is(QEL_MEM_CHUNK_FAST_FREE)) return search_owner(element);
    Block* block = stored_block(element);
    if (!is(QEL_MEM_CHUNK_INDEPENDENT)) {
        // Elements lie behind their block. A foreign address tells some other place, which is not to be read.
        uint64_t distance = reinterpret_cast<uintptr_t>(element) - reinterpret_cast<uintptr_t>(block);
        if (distance - header_size(layout) >= layout.area_size) return nullptr;
    }
    if (block == nullptr || block->head != this || !block->holds(element)) return nullptr;
    return block;
}

Block* qel_mem_chunk::search_owner(const std::byte* element) {
    PoolLocked lock{*this};
    Block* block = first;
    while (block != nullptr && !block->holds(element)) block = block->next;
    if (block == nullptr) return nullptr;
    uint64_t first_data =
        round_up(reinterpret_cast<uintptr_t>(block->data_start) + layout.overhead, layout.alignment);
    return (reinterpret_cast<uintptr_t>(element) - first_data) % layout.stride == 0 ? block : nullptr;
}

std::atomic_ref<uint32_t> qel_mem_chunk::count_of(std::byte* element) const {
    return std::atomic_ref{*reinterpret_cast<uint32_t*>(element - layout.refcount_offset)};
}

Reference qel_mem_chunk::drop_reference(std::byte* element) const {
    std::atomic_ref<uint32_t> count = count_of(element);
    uint32_t seen = count.load(std::memory_order_relaxed);
    do {
        if (seen == 0) return Reference::none;
        // R1, A1: what other holders did to the element is done before the last one frees it.
    } while (
        !count.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel, std::memory_order_relaxed));
    return seen == 1 ? Reference::last : Reference::shared;
}

void qel_mem_chunk::prepare(std::byte* element) const {
    // Without the magic a later free knows at once that the element is out.
    store_word(element, 0);
    if (is(QEL_MEM_CHUNK_LOCKABLE)) count_of(element).store(1, std::memory_order_relaxed);
    if (is(QEL_MEM_CHUNK_ZERO)) std::memset(element, 0, layout.data_size);
}

void qel_mem_chunk::poison(std::byte* element) const {
    uint32_t end = std::min(layout.data_size, kPoisonEnd);
    if (end > kPoisonStart) std::memset(element + kPoisonStart, kPoisonByte, end - kPoisonStart);
}

// Puts all elements of a new block, none of them handed out yet, on its stack.
void qel_mem_chunk::populate(Block& block, std::byte* area) {
    block.head = this;
    block.data_start = area != nullptr ? area : reinterpret_cast<std::byte*>(&block) + header_size(layout);
    block.data_end = block.data_start + layout.area_size;
    uint64_t cursor = reinterpret_cast<uintptr_t>(block.data_start);
    for (; block.free < layout.block_capacity; ++block.free) {
        uint64_t address = round_up(cursor + layout.overhead, layout.alignment);
        auto* element = reinterpret_cast<std::byte*>(address);
        cursor = address + layout.element_size;
        store_word(element, kFreeMagic);
        std::memset(element + 8, 0, 8);
        if (is(QEL_MEM_CHUNK_DEBUGGABLE)) store_word(element - layout.debug_offset, kDebugMagic);
        if (is(QEL_MEM_CHUNK_LOCKABLE)) store_word(element - layout.refcount_offset, 0);
        Block* owner = &block;
        if (is(QEL_MEM_CHUNK_FAST_FREE)) std::memcpy(element - sizeof owner, &owner, sizeof owner);
        block.stack()[block.free] = element;
    }
    block.total = block.free;
}

void qel_mem_chunk::free_block(Block& sibling) const {
    if (is(QEL_MEM_CHUNK_INDEPENDENT)) qel_named_free(sibling.data_start);
    qel_named_free(&sibling);
}

// The last act: nobody else knows the pool any more.
void qel_mem_chunk::destroy() QEL_NO_THREAD_SAFETY_ANALYSIS {
    for (Block* sibling = first->next; sibling != nullptr;)
        free_block(*std::exchange(sibling, sibling->next));
    if (spare != nullptr) free_block(*spare);
    if (is(QEL_MEM_CHUNK_SYNC)) static_cast<void>(mutex.destroy());
    qel_named_free(name);
    if (is(QEL_MEM_CHUNK_INDEPENDENT)) qel_named_free(first->data_start);
    qel_named_free(this);
}
