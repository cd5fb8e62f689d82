// What the log path asks of a trace buffer: the level, and writing one entry.
#pragma once

#include <qel/dt_buffer.h>

#include <bit>
#include <cstdarg>
#include <cstdint>

#include "trace/qel_trace_buffer.hpp"

namespace qel {

// Writes one entry, registering 'format' first if '*tp' is QEL_DT_TP_UNREGISTERED; a format that can't be
// used turns '*tp' into QEL_DT_TP_UNUSABLE. No lock, no allocation, no system call once the format is
// registered.
//
// Returns 0, also when the entry is dropped because the buffer is paused, full or being remapped; E2BIG when
// the arguments take more than 1,000 bytes or the format more than 16 or less than 'least_args'; EINVAL for a
// null address, a bad format or an unusable '*tp'; EFAULT when no blocks are to be had; ENOSPC with a full
// list.
int trace_write(qel_dt_buffer_handle buffer, std::uint32_t least_args, std::uint32_t* tp, const char* format,
                va_list args);

// trace_passes() for a buffer whose segment has been replaced: maps the new one first.
bool stale_trace_passes(qel_dt_buffer_handle buffer, std::uint32_t level);

// True if 'level' is not above that of 'buffer', which is not null: two loads, no lock. During a remap every
// level passes, and none if the remap fails on this very call.
inline bool trace_passes(qel_dt_buffer_handle buffer, std::uint32_t level) {
    const WordPair* word = buffer->level_word.load(std::memory_order_acquire);
    auto now = std::bit_cast<LevelAndFlags>(__atomic_load_n(&word->value, __ATOMIC_RELAXED));
    if ((now.flags & kFlagStale) != 0) [[unlikely]]
        return stale_trace_passes(buffer, level);
    return level <= now.level;
}

}  // namespace qel
