// The handle of a trace buffer: one per open of a buffer in a process.
//
// The mapping changes only while the gate is shut and nobody else is inside (qel_trace_gate.hpp), so a thread
// inside uses 'segment' without more ado. 'level_word' may be read by anyone at any time: it points into a
// window, a second mapping of the header's page at an address that stays the same for the life of the handle,
// or, while the gate is shut, at a constant that lets every level pass.
#pragma once

#include <qel/dt_buffer.h>
#include <qel/shm.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "trace/qel_trace_format.hpp"

namespace qel {

// A mapped and checked buffer. 'blocks' is the number that was checked on attaching; the header's may change
// later.
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
    struct alignas(8) Slot {
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
    qel::BufferSegment segment;  // guarded by the gate
    void* window;                // the header's page, mapped once more
    qel_dt_buffer* next_open;    // list of the process's handles, under its own mutex
    char name[QEL_DT_NAME_SIZE + 1];
    qel::Gate gate;
};
