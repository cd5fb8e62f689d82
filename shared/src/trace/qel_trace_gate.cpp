// The gate: a counter of threads inside, spread over slots, and a state that shuts it.
//
// A thread first counts itself in and then looks at the state; whoever shuts the gate first changes the state
// and then looks at the counters. So either the thread sees the gate shut and steps back, or it is seen and
// waited for. A slot that was seen empty after the gate was shut holds only threads that are stepping back,
// so the slots can be awaited one by one.
//
// Invariant: while the gate is shut, the thread that shut it is the only one that uses the segment.
// Locks: the process's list lock is held for the moment in which segment and window change, so that a fork
// never copies a handle with one of each. Restart: nothing of a gate is in the segment.
#include "trace/qel_trace_gate.hpp"

#include <sched.h>

#include <cerrno>
#include <utility>

#include "time/qel_time.hpp"
#include "trace/qel_trace_lnx.hpp"
#include "trace/qel_trace_process.hpp"

namespace qel {

namespace {

constexpr timespec kShutLimit{5, 0};
// How long a name may be away in the middle of somebody's resize.
constexpr timespec kNameGapLimit{0, 50 * kNanosecondsPerMillisecond};

constexpr WordPair kEveryLevelPasses{QEL_DT_LEVEL_DEBUG};
static_assert(std::bit_cast<LevelAndFlags>(kEveryLevelPasses).level == QEL_DT_LEVEL_DEBUG);

constinit std::atomic<std::uint32_t> slots_assigned{0};

bool only_caller_inside(qel_dt_buffer& buffer) {
    for (Gate::Slot& slot : buffer.gate.slots) {
        std::uint32_t own = &slot.inside == &inside_counter(buffer) ? 1 : 0;
        if (slot.inside.load() > own) return false;
    }
    return true;
}

bool await_others(qel_dt_buffer& buffer) {
    const timespec limit = add(monotonic_now(), kShutLimit);
    while (!only_caller_inside(buffer)) {
        if (order(monotonic_now(), limit) >= 0) return false;
        sched_yield();
    }
    return true;
}

// The end of a remap that failed: entries are dropped from now on.
void gate_kill(qel_dt_buffer& buffer) {
    segment_close(buffer.segment);
    buffer.gate.state.store(GateState::dead);
}

// The segment that a name leads to now. The next resize may be under way already, between its two names.
int attach_successor(const char* name, BufferSegment& out) {
    const timespec limit = add(monotonic_now(), kNameGapLimit);
    for (;;) {
        int error = segment_attach(name, kCreationLimitMs, out);
        if (error != ENOENT || order(monotonic_now(), limit) >= 0) return error;
        sched_yield();
    }
}

int remap_shut(qel_dt_buffer& buffer) {
    BufferSegment fresh{};
    int error = attach_successor(buffer.name, fresh);
    if (error == 0) error = gate_replace_segment(buffer, fresh);
    if (error == 0) return gate_reopen(buffer);
    segment_close(fresh);
    gate_kill(buffer);
    return error;
}

// One attempt to be alone inside; kGateBusy if another thread is about to replace the segment.
int enter_and_shut(qel_dt_buffer& buffer) {
    int error = gate_enter(buffer);
    if (error != 0) return error;
    error = gate_shut(buffer);
    if (error == kGateBusy) gate_leave(buffer);
    return error;
}

}  // namespace

std::uint32_t assign_gate_slot() {
    gate_slot = slots_assigned.fetch_add(1, std::memory_order_relaxed) % Gate::kSlots + 1;
    return gate_slot;
}

int gate_shut(qel_dt_buffer& buffer) {
    GateState expected = GateState::open;
    if (!buffer.gate.state.compare_exchange_strong(expected, GateState::shut)) return kGateBusy;
    buffer.level_word.store(&kEveryLevelPasses, std::memory_order_release);
    if (await_others(buffer)) return 0;
    // The swap can only fail after a fork, which opens the gates of the child.
    static_cast<void>(gate_reopen(buffer));
    return ETIME;
}

int gate_replace_segment(qel_dt_buffer& buffer, const BufferSegment& fresh) {
    BufferSegment old{};
    {
        Locked lock{process_list_mutex()};
        if (!trace_window_move(buffer.window, segment_page(fresh))) return ENOMEM;
        old = std::exchange(buffer.segment, fresh);
    }
    segment_close(old);
    return 0;
}

int gate_reopen(qel_dt_buffer& buffer) {
    buffer.level_word.store(window_level_word(buffer.window), std::memory_order_release);
    GateState expected = GateState::shut;
    return buffer.gate.state.compare_exchange_strong(expected, GateState::open) ? 0 : EINTR;
}

int gate_remap(qel_dt_buffer& buffer) {
    int error = gate_shut(buffer);
    if (error == 0) error = remap_shut(buffer);
    if (error != 0) gate_leave(buffer);
    return error;
}

void gate_close(qel_dt_buffer& buffer) {
    while (buffer.gate.state.load() != GateState::dead && enter_and_shut(buffer) == kGateBusy) sched_yield();
}

}  // namespace qel
