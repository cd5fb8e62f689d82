// Blocks of a buffer for one entry: reserved by a writer, filled, committed.
#pragma once

#include <cstdint>

#include "trace/qel_trace_buffer.hpp"

namespace qel {

struct Reservation {
    Cursor at;          // first block, and the lap
    ControlEntry held;  // what its control entry holds until the commit
};

// The run of a buffer in one-shot mode is at its end.
inline constexpr int kOneShotEnd = -4;

// Makes the caller the owner of 'blocks' (1 to 16) consecutive blocks. Returns 0, kOneShotEnd, or EFAULT when
// there are none to be had.
int reserve_blocks(const BufferSegment& segment, std::uint32_t blocks, Reservation& out);

// Shows the entry to readers and counts it.
void commit_blocks(const BufferSegment& segment, const Reservation& reservation);

}  // namespace qel
