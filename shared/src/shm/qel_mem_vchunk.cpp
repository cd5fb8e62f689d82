// Pools of this process: which heaps it has open, and the calls on them.
//
// A pool is an entry of a table: a heap in a segment, shared with others, or one in memory of the process.
// Its handle carries the entry's index and a serial, so that a stale one is refused.
//
// The public opens take the beginning of a pool's name for its name, and a pool that is open for the heap of
// that name. Messaging's opens want the whole name, and the heap that has it now: a channel made anew has
// another heap than contexts on the old one, which this process may still hold.
//
// Invariant: an entry with a handle has a heap whose sizes were checked against the memory that is mapped; or
// none, if a close unmapped it and could not remove its name: such an entry serves no call, and the next open
// of the name takes it over.
// Locks: vchunk_pool_array_mutex guards the table while heaps are opened and closed; a heap's own lock all
// that lies in it. A lookup takes neither: closing a pool that another thread still uses is the application's
// error. Restart: a shared heap outlives its processes, chunks included. A death under its lock leaves that
// held.
#include "shm/qel_mem_vchunk.hpp"

#include <qel/mem.h>
#include <qel/shm.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "shm/qel_mem_safe_shm_object.hpp"
#include "shm/qel_mem_vchunk_heap.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kPools = 32;
constexpr std::uint32_t kIndexMask = 0xffff;
constexpr std::size_t kPoolNameSize = 128;  // as long as that of a segment, which is removed by it
constexpr std::uint32_t kAttachPolls = 1000;
constexpr std::uint32_t kDumpLockMs = 2000;

struct PoolEntry {
    VchunkType type;
    char name[kPoolNameSize];
    std::uint32_t handle;  // 0 for a free entry
    std::uint32_t open_count;
    qel_shm_info shm;                 // of a shared heap; unmapped by hand, as threads may run at the exit
    shm_platform::Identity identity;  // of its segment
    void* local_base;                 // of a heap of the process
    VchunkHeap heap;                  // without a header once it is unmapped
};
static_assert(std::is_trivially_destructible_v<PoolEntry>);

constinit Mutex vchunk_pool_array_mutex;
constinit PoolEntry qel_vchunk_pool_array[kPools] QEL_GUARDED_BY(vchunk_pool_array_mutex){};
constinit std::uint16_t vcp_serial QEL_GUARDED_BY(vchunk_pool_array_mutex) = 0;

using HeapLocked = BasicSharedLocked<SilentSharedLockFailures>;

// What the caller of a creation asked for.
struct HeapRequest {
    VchunkType type;
    const char* name;
    std::uint32_t unit;
    std::uint32_t heap_size;
    std::uint32_t flags;
};

enum class NameMatch { whole, beginning };

// The entry that has this handle, with a heap or without.
PoolEntry* find_entry(qel_mem_vchunk_pool pool) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (pool == 0 || (pool & kIndexMask) >= kPools) return nullptr;
    PoolEntry& entry = qel_vchunk_pool_array[pool & kIndexMask];
    return std::atomic_ref{entry.handle}.load(std::memory_order_acquire) == pool ? &entry : nullptr;  // P1
}

bool passes_through(const PoolEntry& entry) {
    return (entry.heap.flags & QEL_MEM_VCHUNK_PASS_THROUGH) != 0;
}

PoolEntry* find_pool(qel_mem_vchunk_pool pool) {
    PoolEntry* entry = find_entry(pool);
    return entry != nullptr && entry->heap.header != nullptr ? entry : nullptr;
}

// 'body' under the heap's lock, or 'otherwise' if the pool is unknown, its lock can't be had or its memory is
// no heap.
template <class Result, class Body>
Result with_heap(qel_mem_vchunk_pool pool, Result otherwise, Body body) {
    PoolEntry* entry = find_pool(pool);
    if (entry == nullptr) return otherwise;
    HeapLocked lock{entry->heap.header->lock};
    if (lock.error() != 0 || entry->heap.header->magic != kVchunkMagic) return otherwise;
    return body(*entry);
}

void* bytes_of(VchunkHeader* chunk) {
    return chunk + 1;
}

void* allocate(PoolEntry& entry, std::uint32_t size) {
    if (!passes_through(entry)) {
        VchunkHeader* chunk = vchunk_allocate(entry.heap, size);
        return chunk != nullptr ? bytes_of(chunk) : nullptr;
    }
    if ((entry.heap.header->flags & kVchunkNoAllocation) != 0) return nullptr;
    bool zeroed = (entry.heap.flags & QEL_MEM_VCHUNK_ZERO) != 0;
    const char* tag = qel_tag_e_get_string(QEL_MEM_BASE);
    return zeroed ? qel_named_calloc_(1, size, tag, 0) : qel_named_malloc_(size, tag, 0);
}

bool zeroes_chunks(const PoolEntry& entry) {
    return entry.type == VchunkType::process && entry.heap.flags == QEL_MEM_VCHUNK_ZERO;
}

// The handle of an address, 0 for one outside of the heap.
qel_mem_vchunk_handle handle_of(const VchunkHeap& heap, const void* chunk) {
    auto base = reinterpret_cast<std::uintptr_t>(heap.header),
         address = reinterpret_cast<std::uintptr_t>(chunk);
    if (address < base || address - base >= heap.capacity) return 0;
    return static_cast<qel_mem_vchunk_handle>(address - base);
}

// The sizes of a heap that exists, checked against what is mapped.
int adopt_heap(VchunkHeap& heap, std::uint32_t mapped) {
    const VchunkHeapHeader& header = *heap.header;
    if (mapped < kVchunkOverhead || header.magic != kVchunkMagic || header.type != VchunkType::shared)
        return EFAULT;
    heap.capacity = header.mem_heap_capacity;
    heap.unit = header.min_chunk_size;
    heap.flags = header.flags & QEL_MEM_VCHUNK_ZERO;  // no shared heap passes through
    if (heap.capacity > mapped || heap.capacity <= kVchunkOverhead || !std::has_single_bit(heap.unit))
        return EFAULT;
    std::uint32_t units = (heap.capacity - kVchunkOverhead) / heap.unit;
    if (units == 0 || heap.unit < sizeof(VchunkHeader)) return EFAULT;
    heap.max_order = static_cast<std::uint32_t>(std::bit_width(units)) - 1;
    return 0;
}

int format_segment(qel_shm_info* info, void* context) {
    auto& heap = *static_cast<VchunkHeap*>(context);
    heap.header = static_cast<VchunkHeapHeader*>(info->addr);
    return vchunk_format(heap, VchunkType::shared, heap.capacity);
}

// Which segment has the name now; nothing if there is none.
shm_platform::Identity segment_of(const char* name) {
    ShmPath path;
    Fd object;
    shm_platform::Status status;
    if (build_path(name, path) == 0 && shm_platform::open_object(path.text, object) == 0 &&
        shm_platform::inspect(object, status) == 0)
        return status.identity;
    return {};
}

// Maps the segment, checks what lies in it, and makes it the entry's.
template <class Open>
int enter_segment(const char* name, PoolEntry& entry, Open open) {
    Mapping mapping;
    if (int error = open(mapping.out()); error != 0) return error;
    VchunkHeap heap;
    heap.header = static_cast<VchunkHeapHeader*>(mapping.info().addr);
    if (int error = adopt_heap(heap, mapping.info().size); error != 0) return error;
    entry.heap = heap;
    entry.shm = mapping.release();
    entry.identity = segment_of(name);
    return 0;
}

int open_shared(const HeapRequest& request, PoolEntry& entry) {
    VchunkHeap fresh{nullptr, request.heap_size, request.unit, 0, request.flags};
    int error = enter_segment(request.name, entry, [&](qel_shm_info* out) {
        return qel_shm_safe_open(request.name, QEL_SHM_CREATE | QEL_SHM_EXACT_SIZE, request.heap_size,
                                 kVchunkMagic, format_segment, &fresh, 0, out);
    });
    if (error == 0 && entry.heap.unit != request.unit) error = EINVAL;
    return error;
}

int attach_shared(const HeapRequest& request, PoolEntry& entry) {
    return enter_segment(request.name, entry, [&](qel_shm_info* out) {
        return qel_shm_safe_open(request.name, 0, 0, kVchunkMagic, nullptr, nullptr, kAttachPolls, out);
    });
}

int open_local(const HeapRequest& request, PoolEntry& entry) {
    std::uint32_t size = request.flags == QEL_MEM_VCHUNK_PASS_THROUGH ? kVchunkOverhead : request.heap_size;
    Owned<std::byte> memory = allocate_zeroed<std::byte>(QEL_MEM_BASE, size);
    if (!memory) return ENOMEM;
    bool passes_through = (request.flags & QEL_MEM_VCHUNK_PASS_THROUGH) != 0;
    std::uint32_t capacity = passes_through ? kVchunkOverhead : request.heap_size;
    entry.heap = {reinterpret_cast<VchunkHeapHeader*>(memory.get()), capacity, request.unit, 0,
                  request.flags};
    if (int error = vchunk_format(entry.heap, VchunkType::process, request.heap_size); error != 0)
        return error;
    entry.local_base = memory.release();
    return 0;
}

bool has_name(const PoolEntry& entry, std::string_view name, NameMatch match) {
    if (entry.handle == 0) return false;
    std::string_view own = entry.name;
    return match == NameMatch::whole ? own == name : own.starts_with(name);
}

PoolEntry* find_by_name_locked(std::string_view name, NameMatch match) QEL_REQUIRES(vchunk_pool_array_mutex) {
    for (PoolEntry& entry : qel_vchunk_pool_array)
        if (has_name(entry, name, match)) return &entry;
    return nullptr;
}

// The pool of the very heap that has the name now.
PoolEntry* find_current_locked(const char* name) QEL_REQUIRES(vchunk_pool_array_mutex) {
    shm_platform::Identity now = segment_of(name);
    for (PoolEntry& entry : qel_vchunk_pool_array)
        if (has_name(entry, name, NameMatch::whole) && entry.heap.header != nullptr &&
            entry.type == VchunkType::shared && now.inode != 0 && entry.identity == now)
            return &entry;
    return nullptr;
}

// The pool of a public open: also one by the beginning of its name.
PoolEntry* find_public_locked(const char* name) QEL_REQUIRES(vchunk_pool_array_mutex) {
    PoolEntry* entry = find_by_name_locked(name, NameMatch::whole);
    return entry != nullptr ? entry : find_by_name_locked(name, NameMatch::beginning);
}

PoolEntry* find_free_locked() QEL_REQUIRES(vchunk_pool_array_mutex) {
    for (PoolEntry& entry : qel_vchunk_pool_array)
        if (entry.handle == 0) return &entry;
    return nullptr;
}

int join_locked(const HeapRequest& request, PoolEntry& entry) {
    std::uint32_t magic = entry.heap.header->magic;
    if (magic != kVchunkMagic) return magic == 0 ? EINVAL : EFAULT;
    if (entry.heap.unit != request.unit) return EINVAL;
    return entry.type == request.type ? 0 : EFAULT;
}

// Lets go of the heap's memory. A segment's lock is not destroyed: others may be using it.
void drop_heap_locked(PoolEntry& entry) QEL_REQUIRES(vchunk_pool_array_mutex) {
    entry.heap = {};
    qel_shm_close(&entry.shm);
    qel_named_free(std::exchange(entry.local_base, nullptr));
}

void clear_locked(PoolEntry& entry) QEL_REQUIRES(vchunk_pool_array_mutex) {
    std::atomic_ref{entry.handle}.store(0, std::memory_order_release);
    drop_heap_locked(entry);
    entry.name[0] = '\0';
    entry.open_count = 0;
}

// The heap in an entry that has none, opened by 'open', under a handle of its own.
template <class Open>
int fill_locked(const HeapRequest& request, PoolEntry& entry, Open open)
    QEL_REQUIRES(vchunk_pool_array_mutex) {
    clear_locked(entry);
    entry.type = request.type;
    std::snprintf(entry.name, sizeof entry.name, "%s", request.name);
    if (int error = open(request, entry); error != 0) {
        clear_locked(entry);
        return error;
    }
    if (++vcp_serial == 0) ++vcp_serial;
    auto index = static_cast<std::uint32_t>(&entry - qel_vchunk_pool_array);
    // P1: who finds the handle sees the heap.
    std::atomic_ref{entry.handle}.store(std::uint32_t{vcp_serial} << 16 | index, std::memory_order_release);
    return 0;
}

// One more open of 'entry', or of a free one if that is null; 'open' makes the heap where there is none.
template <class Open>
int open_locked(const HeapRequest& request, PoolEntry* entry, qel_mem_vchunk_pool& pool, Open open)
    QEL_REQUIRES(vchunk_pool_array_mutex) {
    if (entry == nullptr) entry = find_free_locked();
    if (entry == nullptr) return ENOMEM;
    bool has_heap = entry->heap.header != nullptr;
    int error = has_heap ? join_locked(request, *entry) : fill_locked(request, *entry, open);
    if (error != 0) return error;
    ++entry->open_count;
    pool = entry->handle;
    return 0;
}

int plan(HeapRequest& request, std::uint16_t min_size) {
    request.unit = vchunk_unit(min_size);
    bool sound = request.name != nullptr && *request.name != '\0' && request.heap_size > kVchunkOverhead;
    return sound && request.unit != 0 ? 0 : EINVAL;
}

int create(HeapRequest request, std::uint16_t min_size, qel_mem_vchunk_pool* pool) {
    if (pool == nullptr) return EINVAL;
    if (int error = plan(request, min_size); error != 0) return error;
    Locked lock{vchunk_pool_array_mutex};
    auto open = request.type == VchunkType::shared ? open_shared : open_local;
    return open_locked(request, find_public_locked(request.name), *pool, open);
}

// EBUSY while chunks are out, and the pool serves on.
int refuse_with_chunks_out(PoolEntry& entry) {
    HeapLocked lock{entry.heap.header->lock};
    return entry.heap.header->mem_heap_used > kVchunkOverhead ? EBUSY : 0;
}

// An entry whose segment's name can't be removed stays, without a heap.
int give_back_locked(PoolEntry& entry) QEL_REQUIRES(vchunk_pool_array_mutex) {
    if (entry.type == VchunkType::shared) {
        drop_heap_locked(entry);
        if (int error = qel_shm_unlink(entry.name); error != 0) return error;
    } else {
        static_cast<void>(pthread_mutex_destroy(entry.heap.header->lock.native()));  // Nobody holds it.
        std::memset(entry.local_base, 0, entry.heap.capacity);
    }
    clear_locked(entry);
    return 0;
}

// What a dump prints, copied so that nothing is printed under the lock.
struct HeapFigures {
    std::uint32_t used;
    std::uint32_t overhead;
    VchunkFreeList lists[kVchunkOrders];
};

HeapFigures copy_figures(VchunkHeapHeader& header) {
    BriefSharedLocked lock{header.lock, kDumpLockMs};
    if (lock.error() != 0) {
        LongWait wait = header.lock.describe(kDumpLockMs / 1000);
        std::printf("lock not taken, holder=%u alive=%u\n", wait.holder, wait.holder_lives);
    }
    HeapFigures figures{header.mem_heap_used, header.mem_heap_overhead, {}};
    std::memcpy(figures.lists, header.lists, sizeof figures.lists);
    return figures;
}

}  // namespace

void* vchunk_take(qel_mem_vchunk_pool pool, std::uint32_t size, std::uint32_t& place) {
    return with_heap<void*>(pool, nullptr, [&](PoolEntry& entry) -> void* {
        if (passes_through(entry)) return nullptr;
        VchunkHeader* chunk = vchunk_allocate(entry.heap, size);
        if (chunk == nullptr) return nullptr;
        std::atomic_ref{place}.store(vchunk_handle(entry.heap, chunk), std::memory_order_relaxed);
        return bytes_of(chunk);
    });
}

int vchunk_drop(qel_mem_vchunk_pool pool, std::uint32_t& place) {
    return with_heap(pool, EINVAL, [&](PoolEntry& entry) {
        std::uint32_t handle = std::atomic_ref{place}.exchange(0, std::memory_order_relaxed);
        return passes_through(entry) ? EINVAL : vchunk_release(entry.heap, handle);
    });
}

std::span<std::byte> vchunk_bytes(qel_mem_vchunk_pool pool, qel_mem_vchunk_handle chunk, std::uint32_t size) {
    PoolEntry* entry = find_pool(pool);
    if (entry == nullptr || passes_through(*entry)) return {};
    std::uint32_t room = vchunk_room(entry->heap, chunk);
    if (room == 0 || room < size) return {};
    return {reinterpret_cast<std::byte*>(entry->heap.header) + chunk, size};
}

int vchunk_shm_open(const char* name, std::uint16_t min_size, std::uint32_t heap_size,
                    qel_mem_vchunk_pool& pool) {
    HeapRequest request{VchunkType::shared, name, 0, heap_size, 0};
    if (int error = plan(request, min_size); error != 0) return error;
    Locked lock{vchunk_pool_array_mutex};
    return open_locked(request, find_current_locked(name), pool, open_shared);
}

int vchunk_attach(const char* name, qel_mem_vchunk_pool& pool) {
    Locked lock{vchunk_pool_array_mutex};
    PoolEntry* entry = find_current_locked(name);
    HeapRequest request{VchunkType::shared, name, entry != nullptr ? entry->heap.unit : 0, 0, 0};
    return open_locked(request, entry, pool, attach_shared);
}

void vchunk_detach(qel_mem_vchunk_pool& pool) {
    Locked lock{vchunk_pool_array_mutex};
    PoolEntry* entry = find_entry(std::exchange(pool, 0));
    if (entry != nullptr && --entry->open_count == 0) clear_locked(*entry);
}

const char* vchunk_check(qel_mem_vchunk_pool pool) {
    constexpr const char* kNoHeap = "no heap, or none that can be locked";
    return with_heap<const char*>(pool, kNoHeap, [](PoolEntry& entry) {
        return passes_through(entry) ? nullptr : vchunk_check(entry.heap);
    });
}

}  // namespace qel

using namespace qel;

int qel_mem_vchunk_create(const char* name, uint16_t min_size, uint32_t heap_size, uint32_t flags,
                          qel_mem_vchunk_pool* pool) {
    constexpr std::uint32_t kKnown = QEL_MEM_VCHUNK_ZERO | QEL_MEM_VCHUNK_PASS_THROUGH;
    if ((flags & ~kKnown) != 0) return EINVAL;
    return create({VchunkType::process, name, 0, heap_size, flags}, min_size, pool);
}

int qel_mem_vchunk_shm_create(const char* name, uint16_t min_size, uint32_t heap_size, uint32_t flags,
                              qel_mem_vchunk_pool* pool) {
    if ((flags & ~QEL_MEM_VCHUNK_ZERO) != 0) return EINVAL;
    return create({VchunkType::shared, name, 0, heap_size, flags}, min_size, pool);
}

int qel_mem_vchunk_close(qel_mem_vchunk_pool* pool) {
    if (pool == nullptr || (*pool & kIndexMask) >= kPools) return EINVAL;
    Locked lock{vchunk_pool_array_mutex};
    PoolEntry* entry = find_entry(*pool);
    if (entry == nullptr) return EPERM;
    if (entry->heap.header == nullptr) return EFAULT;
    if (entry->open_count >= 2) {
        --entry->open_count;
        return 0;
    }
    int error = refuse_with_chunks_out(*entry);
    if (error == 0) error = give_back_locked(*entry);
    if (error == 0) *pool = 0;
    return error;
}

int qel_mem_vchunk_destroy(const char* name) {
    return qel_shm_unlink(name);
}

void* qel_mem_vchunk_malloc(qel_mem_vchunk_pool pool, uint32_t size) {
    if (size == 0) return nullptr;
    void* chunk = with_heap<void*>(pool, nullptr, [&](PoolEntry& entry) { return allocate(entry, size); });
    if (chunk == nullptr) return nullptr;
    const PoolEntry& entry = *find_pool(pool);
    // The chunk is the caller's by now, and nobody waits for this.
    if (zeroes_chunks(entry)) std::memset(chunk, 0, vchunk_room(entry.heap, handle_of(entry.heap, chunk)));
    return chunk;
}

int qel_mem_vchunk_free(qel_mem_vchunk_pool pool, void* chunk) {
    if (chunk == nullptr) return EINVAL;
    return with_heap(pool, EINVAL, [&](PoolEntry& entry) {
        if (!passes_through(entry)) return vchunk_release(entry.heap, handle_of(entry.heap, chunk));
        qel_named_free(chunk);
        return 0;
    });
}

qel_mem_vchunk_handle qel_mem_vchunk_addr_to_handle(qel_mem_vchunk_pool pool, const void* chunk) {
    return with_heap<qel_mem_vchunk_handle>(pool, 0, [&](PoolEntry& entry) -> qel_mem_vchunk_handle {
        qel_mem_vchunk_handle handle = handle_of(entry.heap, chunk);
        return vchunk_header(entry.heap, handle) != nullptr ? handle : 0;
    });
}

void* qel_mem_vchunk_handle_to_addr(qel_mem_vchunk_pool pool, qel_mem_vchunk_handle chunk) {
    return with_heap<void*>(pool, nullptr, [&](PoolEntry& entry) -> void* {
        VchunkHeader* header = passes_through(entry) ? nullptr : vchunk_header(entry.heap, chunk);
        return header != nullptr ? bytes_of(header) : nullptr;
    });
}

int qel_mem_vchunk_iszero(qel_mem_vchunk_pool pool) {
    if (pool == 0) return 1;
    if ((pool & kIndexMask) >= kPools) return EINVAL;
    Locked lock{vchunk_pool_array_mutex};
    return qel_vchunk_pool_array[pool & kIndexMask].handle != 0 ? EINVAL : 0;
}

void qel_mem_vchunk_dump(qel_mem_vchunk_pool pool) {
    PoolEntry* entry = find_pool(pool);
    if (entry == nullptr) return;
    const VchunkHeap& heap = entry->heap;
    const HeapFigures figures = copy_figures(*heap.header);
    std::printf("min_chunk_size=%u\tmax_chunk_size=%u\tmem_heap_capacity=%u\tmem_heap_used=%u\tmem_heap_"
                "overhead=%u\t\n",
                heap.unit, 1u << heap.max_order, heap.capacity, figures.used, figures.overhead);
    std::printf("%15s%15s%15s%15s%15s\n", "Element size", "Alloced", "Freed", "Used", "Free list");
    for (std::uint32_t order = 0; order <= heap.max_order; ++order) {
        VchunkFreeList list = passes_through(*entry) ? VchunkFreeList{} : figures.lists[order];
        std::printf("%15u%15u%15u%15u%15u\n", heap.unit << order, list.alloced, list.freed,
                    list.alloced - list.freed, list.count);
    }
}
