// The signal end point for the rest of messaging, and what its three files share: qel_sep.cpp is the record
// as everybody uses it, qel_sep_owner.cpp the owner's thread, qel_sep_poll.cpp the owner's look for more.
#pragma once

#include <qel/sep.h>

#include <atomic>
#include <cstddef>

#include "ipc/qel_ipc.hpp"
#include "shm/qel_shared_lock.hpp"

namespace qel {

static_assert(sizeof(qel_sep_record) == 96 && offsetof(qel_sep_record, sep_mutex) == 8 &&
              offsetof(qel_sep_record, sep_cond) == 48);
static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free);

// --- for the files of messaging ---

// The handler begins: wake-ups from now on queue another job. Also to be called once after qel_sep_init(), so
// that the first wake-up knows of a handler that tells.
void sep_handler_begins(qel_sep& local);
// The bits that arrived since the last look, cleared; 0 for none. With the channel's lock held, as the record
// must stay mapped; by the two below the handler then looks for more without it.
std::uint32_t sep_next_signals(qel_sep& local, qel_sep_record& record);
// After bits came and were handled, and no more were there: whether to look again for a while, so that an
// owner in the middle of a conversation is found awake. The caller lets its lock go and calls
// sep_look_again(); the record stays mapped until that returns, as sep_stop() waits for it.
bool sep_begin_look(qel_sep& local);
// Looks for some tens of microseconds, at times for some hundreds; true when bits came, which
// sep_next_signals() gives.
bool sep_look_again(qel_sep& local, qel_sep_record& record);
// By a process that opens the channel, for each owner whose bell its former life may have rung last: who dies
// between giving sep_mutex back and waking the next leaves the owner's thread waiting for a free mutex.
void sep_wake_stranded(qel_sep_record& record);
// qel_sep_destroy(), and whether the thread has ended. If it has not, it may still sleep in the record, so
// the record's mapping must stay.
bool sep_stop(qel_sep& local);
// Ends the thread of a former owner that lives and will not be heard of again, so that it takes none of the
// new owner's wake-ups. Before qel_sep_init(); waits for a tenth of a second at most.
void sep_evict(qel_sep_record& record);

// --- between the three files ---

// In sep_flags, and never a signal: the owner is awake and looks again, so nobody needs to wake it.
inline constexpr std::uint32_t kOwnerAwake = 0x80000000;

// What the condvar thread knows of the owner's handler. An owner that never says that its handler begins gets
// a job for each wake-up.
enum class HandlerState : std::uint32_t {
    untold,   // of an owner that doesn't tell
    begun,    // a job began, or none was queued yet since then
    talking,  // it began and found signals
    queued    // a job is queued and has not begun
};

// The library's words in a local part.
struct SepWords {
    std::uint32_t generation;  // of the thread that may touch the local part; 0 for none; under sep_lock
    HandlerState handler;      // atomic
    // Atomic:
    std::uint16_t lookers;  // threads in sep_look_again()
    std::uint16_t looks_to_skip;
    std::uint16_t looks_backed_off;  // skipped after the next look in vain, at least
    std::uint16_t spins_in_vain;     // in a row
    std::uint16_t long_looks_done;   // in a row that found something, but late
    std::uint16_t reserved[3];
};
static_assert(sizeof(SepWords) == sizeof(qel_sep::reserved));

inline SepWords& words_of(qel_sep& local) {
    return reinterpret_cast<SepWords&>(local.reserved);
}
inline SharedMutex& mutex_of(qel_sep_record& record) {
    return reinterpret_cast<SharedMutex&>(record.sep_mutex);
}
inline Mutex& lock_of(qel_sep& local) {
    return reinterpret_cast<Mutex&>(local.sep_lock);
}
inline std::atomic_ref<std::uint32_t> flags_of(qel_sep_record& record) {
    return std::atomic_ref{record.sep_flags};
}
inline std::atomic_ref<std::uint32_t> state_of(qel_sep_record& record) {
    return std::atomic_ref{record.sep_state};
}
inline std::atomic_ref<std::uint16_t> lookers_of(qel_sep& local) {
    return std::atomic_ref{words_of(local).lookers};
}
inline std::atomic_ref<HandlerState> handler_of(qel_sep& local) {
    return std::atomic_ref{words_of(local).handler};
}

// Fetches and clears the bits, and the owner's mark with them.
std::uint32_t take_signals(qel_sep_record& record);
// Wakes the thread that sleeps in the record, if one does. sep_mutex is held. EINVAL for a condition variable
// in which the call would not return.
int ring_bell_locked(qel_sep_record& record);

}  // namespace qel
