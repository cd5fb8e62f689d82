// The gate of a buffer handle: who may use the mapping, and how a thread replaces it.
//
//   enter ... leave                            every writer and every operation on the buffer
//   enter, shut, replace, reopen, leave        the one who replaces the mapping; the others are out
//
// All is private to the process. Entering costs one addition to a counter that few other threads touch;
// whoever shuts the gate pays by looking at all counters.
#pragma once

#include <atomic>
#include <cstdint>

#include "trace/qel_trace_buffer.hpp"

namespace qel {

// The answer of a gate that another thread has shut, or that is shut for good.
inline constexpr int kGateBusy = -1;

// This thread's slot in every gate, from 1; 0 until its first entry.
inline constinit thread_local std::uint32_t gate_slot = 0;
std::uint32_t assign_gate_slot();

inline std::atomic<std::uint32_t>& inside_counter(qel_dt_buffer& buffer) {
    std::uint32_t slot = gate_slot != 0 ? gate_slot : assign_gate_slot();
    return buffer.gate.slots[slot % Gate::kSlots].inside;
}

inline void gate_leave(qel_dt_buffer& buffer) {
    inside_counter(buffer).fetch_sub(1, std::memory_order_release);
}

// For a thread inside that found the segment stale: maps the one that replaced it. On failure the thread is
// outside.
int gate_remap(qel_dt_buffer& buffer);

// 0 and the thread is inside; kGateBusy; or the error of a remap.
inline int gate_enter(qel_dt_buffer& buffer) {
    // The addition and the look at the state are sequentially consistent, as are the swap and the looks at
    // the counters in gate_shut(): one of the two sees the other.
    inside_counter(buffer).fetch_add(1);
    if (buffer.gate.state.load() != GateState::open) [[unlikely]] {
        gate_leave(buffer);
        return kGateBusy;
    }
    std::atomic_ref<std::uint32_t> flags{buffer.segment.header->flags};
    if ((flags.load(std::memory_order_acquire) & kFlagStale) != 0) [[unlikely]]
        return gate_remap(buffer);
    return 0;
}

// For a thread inside: keeps others from entering and waits until they have left. kGateBusy if another thread
// is about it; ETIME, with the gate open again, if somebody stays for 5 seconds.
int gate_shut(qel_dt_buffer& buffer);

// For the thread that shut the gate: puts 'fresh' in the place of the handle's segment and closes the old
// one. ENOMEM if the window can't follow; then nothing has changed.
int gate_replace_segment(qel_dt_buffer& buffer, const BufferSegment& fresh);

// For the thread that shut the gate: lets others in again. EINTR if the gate was not shut any more.
int gate_reopen(qel_dt_buffer& buffer);

// Waits until the gate is dead or nobody but the caller is inside, and shuts it for good.
void gate_close(qel_dt_buffer& buffer);

// A stay inside, for the length of a scope.
class Inside {
  public:
    explicit Inside(qel_dt_buffer& buffer) : buffer_(buffer), error_(gate_enter(buffer)) {}
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
    ~Inside() {
        if (error_ == 0) gate_leave(buffer_);
    }
    // As gate_enter().
    int error() const { return error_; }

  private:
    qel_dt_buffer& buffer_;
    int error_;
};

}  // namespace qel
