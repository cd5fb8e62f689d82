// The handle of a trace buffer: one per open of a buffer in a process.
//
// The mapping changes only while the gate is shut and nobody else is inside (qel_trace_gate.hpp), so a thread
// inside uses 'segment' without more ado. 'level_word' may be read by anyone at any time: it points into the
// window, a second mapping of the header's page at an address that stays the same for the life of the handle,
// or, while the gate is shut, at a constant that lets every level pass.
#pragma once

#include <qel/dt_buffer.h>
#include <qel/shm.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "trace/qel_trace_format.hpp"

namespace qel {

// A mapped and checked buffer. 'blocks' is the number that was checked on attaching; the header's is not used
// again.
struct BufferSegment {
    qel_shm_info info;
    BufferHeader* header;
    ControlEntry* control;
    std::byte* payload;
    std::uint32_t blocks;
};

// Dead: a remap failed, so there is no segment; entries are dropped, and only closing lets the handle go.
enum class GateState : std::uint32_t { open = 0, shut = 1, dead = 2 };

// The threads inside, counted in slots that lie in cache lines of their own; a thread sticks to one slot.
struct Gate {
    struct Slot {
        std::atomic<std::uint32_t> inside;
        std::byte apart[60];
    };
    static constexpr std::size_t kSlots = 16;

    std::atomic<GateState> state;
    std::array<Slot, kSlots> slots;
};

}  // namespace qel

struct qel_dt_buffer {
    std::atomic<const qel::WordPair*> level_word;
    qel::BufferSegment segment;  // changed by the one who shut the gate, under the process's list lock
    void* window;
    qel_dt_buffer* next_open;  // the process's list of handles, guarded by its lock
    char name[QEL_DT_NAME_SIZE];
    qel::Gate gate;
};

namespace qel {

// What a new segment starts with.
struct BufferSettings {
    std::uint32_t blocks;
    std::uint32_t size;
    std::uint32_t original_size;
    std::uint32_t level;
    std::uint32_t flags;
};

// The number of blocks of a buffer of 'size' bytes, at least 128; 0 if they are too many.
std::uint32_t blocks_for(std::uint64_t size);

// Open the segment of the buffer 'name' with the QEL_SHM_ flags 'flags', creating it from 'settings' if they
// allow that and it is absent; or attach to the one that is there, waiting 'wait_ms' at most (ETIMEDOUT) for
// a creator that hasn't finished it. A segment that fails the check gives EBADF.
inline constexpr std::uint32_t kNoLimit = 0;
// For who keeps others out meanwhile, or must not be held up: the creator may have died.
inline constexpr std::uint32_t kCreationLimitMs = 1000;
int segment_open(const char* name, std::uint32_t flags, const BufferSettings& settings, BufferSegment& out);
int segment_attach(const char* name, std::uint32_t wait_ms, BufferSegment& out);
void segment_close(BufferSegment& segment);

// As qel_dt_buffer_open(), waiting at most 'wait_ms' for a creator that hasn't finished the buffer.
int buffer_open(const char* name, std::uint32_t wait_ms, qel_dt_buffer_handle* out);
int segment_unlink(const char* name);

// True if the header still is what was checked when 'segment' was attached.
bool segment_sound(const BufferSegment& segment);

// The page that a handle's window shows.
inline void* segment_page(const BufferSegment& segment) {
    return static_cast<std::byte*>(segment.info.addr) - segment.info.hdr_size;
}

}  // namespace qel
