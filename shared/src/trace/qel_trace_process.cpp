// The trace's handles of this process, and what a fork does to them.
//
// The child of a fork has one thread, but copies of counters into which threads of the parent counted
// themselves, and perhaps a gate that one of them had shut. The child's handler counts nobody inside and
// opens such a gate: segment and window only change together under the list lock, which the fork handlers
// hold, so the handle is whole; if its segment is stale the next entry maps the new one.
//
// Locks: the list lock; nothing but a change of mappings happens under it.
#include "trace/qel_trace_process.hpp"

#include <pthread.h>
#include <unistd.h>

#include "trace/qel_trace_point.hpp"

namespace qel {

namespace {

constinit Mutex list_mutex;
constinit qel_dt_buffer* open_buffers QEL_GUARDED_BY(list_mutex) = nullptr;
constinit bool fork_watched QEL_GUARDED_BY(list_mutex) = false;

void reset_gate(qel_dt_buffer& buffer) {
    for (Gate::Slot& slot : buffer.gate.slots) slot.inside.store(0);
    GateState expected = GateState::shut;
    if (buffer.gate.state.compare_exchange_strong(expected, GateState::open))
        buffer.level_word.store(window_level_word(buffer.window));
}

void before_fork() QEL_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<void>(list_mutex.lock());  // A lock that fails leaves a fork as it is without handlers.
}

void in_parent() QEL_NO_THREAD_SAFETY_ANALYSIS {
    static_cast<void>(list_mutex.unlock());
}

void in_child() QEL_NO_THREAD_SAFETY_ANALYSIS {
    process_id.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
    for (qel_dt_buffer* buffer = open_buffers; buffer != nullptr; buffer = buffer->next_open)
        reset_gate(*buffer);
    point_list_reset_lock();
    static_cast<void>(list_mutex.unlock());
}

int watch_forks_locked() QEL_REQUIRES(list_mutex) {
    if (fork_watched) return 0;
    if (int error = pthread_atfork(before_fork, in_parent, in_child); error != 0) return error;
    fork_watched = true;
    process_id.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
    return 0;
}

}  // namespace

Mutex& process_list_mutex() {
    return list_mutex;
}

int process_list_add(qel_dt_buffer& buffer) {
    Locked lock{list_mutex};
    if (int error = watch_forks_locked(); error != 0) return error;
    buffer.next_open = open_buffers;
    open_buffers = &buffer;
    return 0;
}

void process_list_remove(qel_dt_buffer& buffer) {
    Locked lock{list_mutex};
    qel_dt_buffer** link = &open_buffers;
    while (*link != nullptr && *link != &buffer) link = &(*link)->next_open;
    if (*link != nullptr) *link = buffer.next_open;
}

}  // namespace qel
