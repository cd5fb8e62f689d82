// Chunk pools: elements of one size, handed out from blocks of many.
//
// A pool is a list of blocks: the first one, which lies behind the pool's head in one allocation and stays as
// long as the pool; then the siblings with room; then the exhausted siblings. Elements come from one block at
// a time, the source, whose stack's bounds stand in the head: nearly every operation moves one address there
// and looks at no list. One wholly free sibling may stay, so that a load around a block's edge doesn't go to
// the heap each time.
//
// Invariant: save the source, no exhausted sibling is ahead of one with room, and first_exhausted is the
// foremost of those behind. Every block's 'free' is the depth of its stack, the source's from
// note_depth_locked() on. Locks: mutex guards lists, stacks and counters (a pool without it is serialised by
// its caller). It is the innermost lock. Zeroing and poisoning happen outside it, as the element is nobody
// else's then; reference counts are atomic and take no lock.
#include "core/qel_mem_chunk.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "core/qel_lock.hpp"
#include "core/qel_mem_chunk_block.hpp"
#include "core/qel_owned.hpp"

namespace {

using qel::BlockMemory;
using qel::ChunkBlock;
using qel::ChunkLayout;
using qel::kFreeMagic;
using qel::load_word;
using qel::Owned;
using qel::store_word;
using qel::stored_block;

constexpr int kPoisonByte = 0x0d;
constexpr uint32_t kPoisonStart = 16;  // the words in front stay readable: magic and links
constexpr uint32_t kPoisonEnd = 272;
constexpr uint32_t kMaxDynamicElementSize = 65536;
constexpr uint32_t kNoCount = 0xffffffff;
constexpr std::string_view kNamePrefix = "Hdr+Elem_of_CHUNK:";

// What dropping a reference found.
enum class Reference { none, shared, last };

}  // namespace

// The head of a pool. What each operation touches stands first.
struct qel_mem_chunk {
    ChunkBlock* source QEL_GUARDED_BY(mutex);  // gives the next element; null when all blocks are exhausted
    std::byte** top QEL_GUARDED_BY(mutex);     // end of the source's stack; its 'free' is stale meanwhile
    std::byte** bottom QEL_GUARDED_BY(mutex);  // start of the source's stack
    std::byte** limit QEL_GUARDED_BY(mutex);   // where putting one more element on it takes more than that
    uintptr_t source_start QEL_GUARDED_BY(mutex);  // the source's elements, in a pool with fast free
    uint64_t source_size QEL_GUARDED_BY(mutex);    // 0 in others
    uint32_t flags;                                // a copy of the layout's
    uint32_t alloc_count QEL_GUARDED_BY(mutex);
    uint32_t free_count QEL_GUARDED_BY(mutex);
    uint32_t in_use_high QEL_GUARDED_BY(mutex);
    bool retired QEL_GUARDED_BY(mutex);  // goes with its last element
    qel::Mutex mutex;                    // set up with QEL_MEM_CHUNK_SYNC only
    ChunkBlock* first;
    ChunkBlock* first_exhausted QEL_GUARDED_BY(mutex);  // or null
    ChunkBlock* idle QEL_GUARDED_BY(mutex);  // the latest sibling that became wholly free and stayed, or null
    uint32_t listed_total QEL_GUARDED_BY(mutex);  // elements of the blocks on the list
    uint32_t siblings_created QEL_GUARDED_BY(mutex);
    uint32_t siblings_destroyed QEL_GUARDED_BY(mutex);
    ChunkLayout layout;
    char* name;              // with the prefix; the pool's own
    const char* short_name;  // the same without

    bool is(uint32_t any_of) const { return (flags & any_of) != 0; }

    std::byte* take_locked() QEL_REQUIRES(mutex);
    bool put_back_locked(std::byte* element) QEL_REQUIRES(mutex);
    // Elements handed out: the counters wrap, their distance doesn't.
    uint32_t in_use_locked() const QEL_REQUIRES(mutex) { return alloc_count - free_count; }
    bool is_destroyable_locked() const QEL_REQUIRES(mutex);
    bool is_abandoned_locked() const QEL_REQUIRES(mutex) { return in_use_locked() == 0 && retired; }
    ChunkBlock* owner_locked(const std::byte* element) const QEL_REQUIRES(mutex);

    std::atomic_ref<uint32_t> count_of(std::byte* element) const;
    Reference drop_reference(std::byte* element) const;
    void poison(std::byte* element) const;

    void open();
    void destroy();

  private:
    [[gnu::noinline]] bool next_source_locked() QEL_REQUIRES(mutex);
    [[gnu::noinline]] bool put_back_elsewhere_locked(std::byte* element) QEL_REQUIRES(mutex);
    bool is_in_source_locked(const std::byte* element) const QEL_REQUIRES(mutex) {
        return reinterpret_cast<uintptr_t>(element) - source_start < source_size;
    }
    void set_source_locked(ChunkBlock* block) QEL_REQUIRES(mutex);
    void note_depth_locked() QEL_REQUIRES(mutex);
    ChunkBlock* foremost_with_room_locked() const QEL_REQUIRES(mutex);
    ChunkBlock* grow_locked() QEL_REQUIRES(mutex);
    void ran_out_locked(ChunkBlock& sibling) QEL_REQUIRES(mutex);
    void has_room_again_locked(ChunkBlock& block) QEL_REQUIRES(mutex);
    void is_wholly_free_locked(ChunkBlock& sibling) QEL_REQUIRES(mutex);
    void insert_behind_locked(ChunkBlock& place, ChunkBlock& sibling) QEL_REQUIRES(mutex);
    void unlink_locked(ChunkBlock& sibling) QEL_REQUIRES(mutex);

    ChunkBlock* told_owner(const std::byte* element) const;
    ChunkBlock* searched_owner_locked(const std::byte* element) const QEL_REQUIRES(mutex);
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

Owned<char> make_name(const char* given) {
    std::string_view name = given != nullptr ? given : "unknown";
    Owned<char> text = qel::allocate_zeroed<char>(QEL_MEM_BASE, kNamePrefix.size() + name.size() + 1);
    if (text) std::ranges::copy(name, std::ranges::copy(kNamePrefix, text.get()).out);
    return text;
}

// What an operation has to do beyond moving an address.
constexpr uint32_t kMoreToTake = QEL_MEM_CHUNK_SYNC | QEL_MEM_CHUNK_LOCKABLE | QEL_MEM_CHUNK_ZERO;
constexpr uint32_t kMoreToFree = QEL_MEM_CHUNK_SYNC | QEL_MEM_CHUNK_LOCKABLE | QEL_MEM_CHUNK_DEBUGGABLE;

[[gnu::noinline]] std::byte* take_synced(qel_mem_chunk& pool) {
    qel::Locked lock{pool.mutex};
    return pool.take_locked();
}

[[gnu::noinline]] int free_synced(qel_mem_chunk& pool, std::byte* element) {
    bool abandoned;
    {
        qel::Locked lock{pool.mutex};
        if (!pool.put_back_locked(element)) return 0;
        abandoned = pool.is_abandoned_locked();
    }
    if (abandoned) [[unlikely]]
        pool.destroy();
    return 1;
}

[[gnu::noinline]] std::byte* take_with_more(qel_mem_chunk& pool) {
    std::byte* element;
    {
        PoolLocked lock{pool};
        element = pool.take_locked();
    }
    if (element == nullptr) return nullptr;
    if (pool.is(QEL_MEM_CHUNK_LOCKABLE)) pool.count_of(element).store(1, std::memory_order_relaxed);
    if (pool.is(QEL_MEM_CHUNK_ZERO)) std::memset(element, 0, pool.layout.data_size);
    return element;
}

// True if 'element' is one of the pool's. It is the caller's, so its block stays.
bool is_of_pool(qel_mem_chunk& pool, const std::byte* element) {
    PoolLocked lock{pool};
    return pool.owner_locked(element) != nullptr;
}

[[gnu::noinline]] int free_with_more(qel_mem_chunk& pool, std::byte* element) {
    if (pool.is(QEL_MEM_CHUNK_LOCKABLE | QEL_MEM_CHUNK_DEBUGGABLE) && !is_of_pool(pool, element)) return 0;
    if (pool.is(QEL_MEM_CHUNK_LOCKABLE)) {
        Reference dropped = pool.drop_reference(element);
        if (dropped != Reference::last) return dropped == Reference::shared;
    }
    if (pool.is(QEL_MEM_CHUNK_DEBUGGABLE)) pool.poison(element);
    bool abandoned;
    {
        PoolLocked lock{pool};
        if (!pool.put_back_locked(element)) return 0;
        abandoned = pool.is_abandoned_locked();
    }
    if (abandoned) pool.destroy();
    return 1;
}

}  // namespace

qel_mem_chunk* qel_mem_chunk_create(uint32_t element_size, uint32_t block_capacity, uint32_t flags, uint32_t,
                                    uint32_t alignment, const char* name) {
    if ((flags & QEL_MEM_CHUNK_DYNAMIC) != 0 && element_size > kMaxDynamicElementSize) return nullptr;
    std::optional<ChunkLayout> layout = qel::plan_chunk(element_size, block_capacity, flags, alignment);
    if (!layout) return nullptr;
    Owned<char> full_name = make_name(name);
    if (!full_name) return nullptr;
    BlockMemory memory = qel::allocate_block(*layout, sizeof(qel_mem_chunk));
    if (!memory.base) return nullptr;

    std::memset(memory.base.get(), 0, sizeof(qel_mem_chunk));
    auto* pool = reinterpret_cast<qel_mem_chunk*>(memory.base.get());
    if (layout->is(QEL_MEM_CHUNK_SYNC) && pool->mutex.init() != 0) return nullptr;
    pool->flags = layout->flags;
    pool->layout = *layout;
    pool->name = full_name.release();
    pool->short_name = pool->name + kNamePrefix.size();
    pool->first = reinterpret_cast<ChunkBlock*>(pool + 1);
    *pool->first = ChunkBlock{.head = pool, .tail = pool->first};
    qel::populate(*pool->first, *layout, memory.area.release());
    pool->open();
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

// Without more to do the caller serialises, which the analysis can't see.
void* qel_mem_chunk_malloc(qel_mem_chunk* pool) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (pool == nullptr) return nullptr;
    uint32_t more = pool->flags & kMoreToTake;
    if (more == QEL_MEM_CHUNK_SYNC) return take_synced(*pool);
    if (more != 0) return take_with_more(*pool);
    return pool->take_locked();
}

int qel_mem_chunk_free(qel_mem_chunk* pool, void* address) QEL_NO_THREAD_SAFETY_ANALYSIS {
    auto* element = static_cast<std::byte*>(address);
    if (pool == nullptr || element == nullptr) return 0;
    uint32_t more = pool->flags & kMoreToFree;
    if (more == QEL_MEM_CHUNK_SYNC) return free_synced(*pool, element);
    if (more != 0) return free_with_more(*pool, element);
    if (!pool->put_back_locked(element)) return 0;
    if (pool->is_abandoned_locked()) pool->destroy();
    return 1;
}

int qel_mem_chunk_lock(qel_mem_chunk* pool, void* address) {
    auto* element = static_cast<std::byte*>(address);
    if (pool == nullptr || element == nullptr || !pool->is(QEL_MEM_CHUNK_LOCKABLE)) return 0;
    if (!is_of_pool(*pool, element)) return 0;
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
    if (!is_of_pool(*pool, element)) return kNoCount;
    return pool->count_of(element).load();
}

int qel::chunk_free_to_owner(void* address) {
    if (address == nullptr) return 0;
    auto* element = static_cast<std::byte*>(address);
    return qel_mem_chunk_free(stored_block(element)->head, element);
}

void qel::chunk_retire(qel_mem_chunk* pool) {
    if (pool == nullptr) return;
    bool abandoned;
    {
        PoolLocked lock{*pool};
        pool->retired = true;
        abandoned = pool->is_abandoned_locked();
    }
    if (abandoned) pool->destroy();
}

[[gnu::always_inline]] inline std::byte* qel_mem_chunk::take_locked() {
    if (top == bottom) [[unlikely]]
        if (!next_source_locked()) return nullptr;
    std::byte* element = *--top;
    ++alloc_count;
    if (in_use_locked() > in_use_high) [[unlikely]]
        in_use_high = in_use_locked();
    // Without the magic a later free knows at once that the element is out.
    store_word(element, 0);
    return element;
}

// False for an element that isn't this pool's or is free already.
[[gnu::always_inline]] inline bool qel_mem_chunk::put_back_locked(std::byte* element) {
    if (top == limit || !is_in_source_locked(element) || stored_block(element) != source ||
        load_word(element) == kFreeMagic) [[unlikely]]
        return put_back_elsewhere_locked(element);
    *top++ = element;
    store_word(element, kFreeMagic);
    ++free_count;
    return true;
}

// What put_back_locked() does, whatever the block and wherever its depth stands.
bool qel_mem_chunk::put_back_elsewhere_locked(std::byte* element) {
    ChunkBlock* block = owner_locked(element);
    note_depth_locked();
    if (block == nullptr || block->free == block->total) return false;
    // Users may have left the magic in the element by chance, so the stack has the last word.
    if (load_word(element) == kFreeMagic && block->has_on_stack(element)) return false;
    store_word(element, kFreeMagic);
    block->stack()[block->free++] = element;
    ++free_count;
    bool full = block->free == block->total;
    bool changes_list = full || block->free == 1;
    if (block->free == 1) has_room_again_locked(*block);
    if (full && block->is_sibling && !is(QEL_MEM_CHUNK_KEEP)) is_wholly_free_locked(*block);
    // The source stands as it did, unless the list has changed or the element went onto the source's stack.
    if (changes_list || block == source) set_source_locked(source);
    return true;
}

// Once all elements are back, only an idle sibling or kept ones are left.
bool qel_mem_chunk::is_destroyable_locked() const {
    return in_use_locked() == 0 && (first->next == nullptr || !is(QEL_MEM_CHUNK_KEEP));
}

void qel_mem_chunk::set_source_locked(ChunkBlock* block) {
    source = block;
    top = bottom = limit = nullptr;
    source_start = source_size = 0;
    if (block == nullptr) return;
    bottom = block->stack();
    top = bottom + block->free;
    // The last element of a sibling may make it go.
    bool stays = !block->is_sibling || block == idle || is(QEL_MEM_CHUNK_KEEP);
    limit = bottom + block->total - (stays ? 0 : 1);
    if (!is(QEL_MEM_CHUNK_FAST_FREE)) return;
    source_start = reinterpret_cast<uintptr_t>(block->data_start);
    source_size = layout.area_size;
}

// Writes the source's depth back into the block.
void qel_mem_chunk::note_depth_locked() {
    if (source != nullptr) source->free = static_cast<uint32_t>(top - bottom);
}

// Gives up the exhausted source for a block with room, growing the pool if there is none.
bool qel_mem_chunk::next_source_locked() {
    note_depth_locked();
    if (source != nullptr && source->is_sibling) ran_out_locked(*source);
    ChunkBlock* block = foremost_with_room_locked();
    if (block == nullptr) block = grow_locked();
    set_source_locked(block);
    return block != nullptr;
}

ChunkBlock* qel_mem_chunk::foremost_with_room_locked() const {
    ChunkBlock* foremost = first->free > 0 ? first : first->next;
    return foremost != nullptr && foremost->free > 0 ? foremost : nullptr;
}

// A sibling with all elements free, behind the first block; null when the pool can't grow.
ChunkBlock* qel_mem_chunk::grow_locked() {
    if (!is(QEL_MEM_CHUNK_DYNAMIC) || layout.block_capacity == 0) return nullptr;
    BlockMemory memory = qel::allocate_block(layout, 0);
    if (!memory.base) return nullptr;
    auto* sibling = reinterpret_cast<ChunkBlock*>(memory.base.release());
    *sibling = ChunkBlock{.head = this, .tail = first, .is_sibling = 1};
    qel::populate(*sibling, layout, memory.area.release());
    insert_behind_locked(*first, *sibling);
    listed_total += sibling->total;
    ++siblings_created;
    return sibling;
}

// Lets one wholly free sibling stay, so that a load around a block's edge doesn't go to the heap each time.
// The source is never the one that goes.
void qel_mem_chunk::is_wholly_free_locked(ChunkBlock& sibling) {
    ChunkBlock* other = std::exchange(idle, &sibling);
    if (other == nullptr || other == &sibling || other->free < other->total) return;
    if (&sibling != source) std::swap(idle, other);
    unlink_locked(*other);
    listed_total -= other->total;
    ++siblings_destroyed;
    qel::free_block(*other, layout);
}

// The block of this pool that 'element' lies in, or null.
ChunkBlock* qel_mem_chunk::owner_locked(const std::byte* element) const {
    return is(QEL_MEM_CHUNK_FAST_FREE) ? told_owner(element) : searched_owner_locked(element);
}

// The block that the element's header tells, if it is one of this pool.
ChunkBlock* qel_mem_chunk::told_owner(const std::byte* element) const {
    ChunkBlock* block = stored_block(element);
    if (!is(QEL_MEM_CHUNK_INDEPENDENT)) {
        // Elements lie behind their block. A foreign address tells some other place, which is not to be read.
        uint64_t distance = reinterpret_cast<uintptr_t>(element) - reinterpret_cast<uintptr_t>(block);
        if (distance - layout.header_size >= layout.area_size) return nullptr;
    }
    if (block == nullptr || block->head != this || !block->holds(element)) return nullptr;
    return block;
}

ChunkBlock* qel_mem_chunk::searched_owner_locked(const std::byte* element) const {
    ChunkBlock* block = first;
    while (block != nullptr && !block->holds(element)) block = block->next;
    if (block == nullptr) return nullptr;
    uint64_t distance = static_cast<uint64_t>(element - block->first_element(layout));
    return distance % layout.stride == 0 ? block : nullptr;
}

void qel_mem_chunk::insert_behind_locked(ChunkBlock& place, ChunkBlock& sibling) {
    sibling.prev = &place;
    sibling.next = place.next;
    place.next = &sibling;
    if (sibling.next != nullptr)
        sibling.next->prev = &sibling;
    else
        first->tail = &sibling;
}

void qel_mem_chunk::unlink_locked(ChunkBlock& sibling) {
    sibling.prev->next = sibling.next;
    if (sibling.next != nullptr)
        sibling.next->prev = sibling.prev;
    else
        first->tail = sibling.prev;
}

// Moves a sibling that gave its last element behind all others.
void qel_mem_chunk::ran_out_locked(ChunkBlock& sibling) {
    if (first_exhausted == nullptr) first_exhausted = &sibling;
    if (&sibling == first->tail) return;
    unlink_locked(sibling);
    insert_behind_locked(*first->tail, sibling);
}

// Moves a block that was exhausted behind the last one with room. An exhausted source hasn't left its place.
void qel_mem_chunk::has_room_again_locked(ChunkBlock& block) {
    if (&block == source) return;
    if (&block == first_exhausted) {
        first_exhausted = block.next;
    } else if (block.is_sibling) {
        unlink_locked(block);
        insert_behind_locked(*first_exhausted->prev, block);
    }
    if (source != nullptr && block.is_sibling) return;
    if (source != nullptr && source->free == 0) ran_out_locked(*source);
    source = &block;
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

void qel_mem_chunk::poison(std::byte* element) const {
    uint32_t end = std::min(layout.data_size, kPoisonEnd);
    if (end > kPoisonStart) std::memset(element + kPoisonStart, kPoisonByte, end - kPoisonStart);
}

// The first act: nobody else knows the pool yet.
void qel_mem_chunk::open() QEL_NO_THREAD_SAFETY_ANALYSIS {
    listed_total = first->total;
    set_source_locked(first);
}

// The last act: nobody else knows the pool any more.
void qel_mem_chunk::destroy() QEL_NO_THREAD_SAFETY_ANALYSIS {
    for (ChunkBlock* sibling = first->next; sibling != nullptr;)
        qel::free_block(*std::exchange(sibling, sibling->next), layout);
    if (is(QEL_MEM_CHUNK_SYNC)) static_cast<void>(mutex.destroy());
    qel_named_free(name);
    if (is(QEL_MEM_CHUNK_INDEPENDENT)) qel_named_free(first->data_start);
    qel_named_free(this);
}
