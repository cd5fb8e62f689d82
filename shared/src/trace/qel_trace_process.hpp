// What the trace keeps per process: its number, and the list of its buffer handles, so that a fork can set
// them right.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/qel_lock.hpp"
#include "trace/qel_trace_buffer.hpp"

namespace qel {

// The process's number, valid while a handle is open.
inline constinit std::atomic<std::uint32_t> process_id{0};

// Guards the list, and each handle's segment and window while they change together.
Mutex& process_list_mutex();

// Enters a complete handle in the list. The first one installs the fork handlers: ENOMEM if that fails.
int process_list_add(qel_dt_buffer& buffer);
void process_list_remove(qel_dt_buffer& buffer);

// Where the level and the flags lie in a handle's window.
inline const WordPair* window_level_word(void* window) {
    constexpr std::size_t offset = QEL_SHM_SAFE_HEADER_SIZE + offsetof(BufferHeader, level);
    return reinterpret_cast<const WordPair*>(static_cast<std::byte*>(window) + offset);
}

}  // namespace qel
