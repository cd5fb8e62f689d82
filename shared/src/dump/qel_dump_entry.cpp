// Entries out of a buffer: from the live mapping, or through a private copy of it.
//
// Writers take blocks while they are read. An entry is copied between two looks at the control words of all
// its blocks, and one that changed is left out; a copy of the buffer is made the same way, block by block. So
// what a reader gets is what one writer committed, whole.
//
// Invariant: a view's number of blocks is the one that was checked when its segment was attached. Locks: none
// against writers. Threads: a copy belongs to one. Restart: the writers need not live.
#include <cerrno>
#include <cstring>

#include "dump/qel_dump.hpp"

namespace qel::dump {
namespace {

// Reads what writers may be writing. Whether it came out whole shows afterwards, so the race is no fault.
#if defined(__SANITIZE_THREAD__)
[[gnu::no_sanitize("thread")]] void copy_shared(void* to, const void* from, std::size_t size) {
    auto* target = static_cast<volatile char*>(to);
    for (std::size_t i = 0; i < size; ++i) target[i] = static_cast<const volatile char*>(from)[i];
}
#else
void copy_shared(void* to, const void* from, std::size_t size) {
    std::memcpy(to, from, size);
}
#endif

// An entry has its word at its first block; the others are free until a writer takes one of them.
bool stands(const View& view, std::uint32_t block, ControlEntry control) {
    if (!same(control_at(view, block), control)) return false;
    for (std::uint32_t other = 1; other < control.blocks; ++other)
        if (control_at(view, block + other).state != BlockState::free) return false;
    return true;
}

std::byte* payload_at(const View& view, std::uint32_t block) {
    return view.payload + std::size_t{block} * kBlockSize;
}

}  // namespace

Cursor cursor_of(const View& view) {
    const Cursor cursor = Cursor::unpack(std::atomic_ref{view.header->next}.load(std::memory_order_acquire));
    return cursor.index < view.blocks ? cursor : Cursor{0, cursor.stamp};
}

Range whole_lap(const View& view) {
    const Cursor cursor = cursor_of(view);
    return {cursor.index, view.blocks, (cursor.stamp - 1) % Cursor::kStamps};
}

bool copy_entry(const View& view, std::uint32_t block, ControlEntry control, Entry& out) {
    if (control.state != BlockState::used || control.blocks == 0 || control.blocks > kMaxEntryBlocks ||
        control.blocks > view.blocks - block || !stands(view, block, control))
        return false;
    copy_shared(&out, payload_at(view, block), std::size_t{control.blocks} * kBlockSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    return stands(view, block, control) && out.header.length <= kMaxArgumentBytes &&
           blocks_of_entry(out.header.length) == control.blocks;
}

bool after_clear(const View& view, const PayloadHeader& entry) {
    const std::uint32_t seconds = load(view.header->clear_seconds);
    if (entry.seconds != seconds) return entry.seconds > seconds;
    return entry.nanoseconds > load(view.header->clear_nanoseconds);
}

// Behind as many bytes as the header of a segment has, so that pairs of words are aligned as in one.
int Copy::take(const View& live) {
    constexpr std::size_t head = 12;
    const std::size_t control_size = std::size_t{live.blocks} * sizeof(ControlEntry);
    const std::size_t payload_size = std::size_t{live.blocks} * kBlockSize;
    memory_ =
        allocate_zeroed<std::byte>(QEL_MEM_QDT, head + sizeof(BufferHeader) + control_size + payload_size);
    if (!memory_) return ENOMEM;
    std::byte* start = memory_.get() + head;
    view_ = {reinterpret_cast<BufferHeader*>(start),
             reinterpret_cast<ControlEntry*>(start + sizeof(BufferHeader)),
             start + sizeof(BufferHeader) + control_size, live.blocks};
    refresh(live, whole_lap(live));
    return 0;
}

void Copy::refresh(const View& live, Range range) {
    copy_shared(view_.header, live.header, sizeof *view_.header);
    std::atomic_thread_fence(std::memory_order_acquire);
    disturbed_ = false;
    const std::uint32_t to_the_end = std::min(range.length, view_.blocks - range.start);
    copy_blocks(live, range.start, to_the_end);
    copy_blocks(live, 0, range.length - to_the_end);
}

void Copy::drop() {
    memory_.reset();
    view_ = {};
}

// A block that changed meanwhile is noted as reserved, with which no entry stands.
void Copy::copy_blocks(const View& live, std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t block = first; block < first + count; ++block)
        view_.control[block] = control_at(live, block);
    copy_shared(payload_at(view_, first), payload_at(live, first), std::size_t{count} * kBlockSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    for (std::uint32_t block = first; block < first + count; ++block) {
        if (same(control_at(live, block), view_.control[block])) continue;
        view_.control[block] = {0, BlockState::reserved, 1};
        disturbed_ = true;
    }
}

qel_dt_entry_info info_of(const Entry& entry, const char* buffer) {
    qel_dt_entry_info info{};
    info.seconds = entry.header.seconds;
    info.nanoseconds = entry.header.nanoseconds;
    info.process_id = entry.header.process_id;
    info.sequence = entry.header.sequence;
    std::memcpy(info.buffer_name, buffer, strnlen(buffer, sizeof info.buffer_name - 1));
    return info;
}

}  // namespace qel::dump
