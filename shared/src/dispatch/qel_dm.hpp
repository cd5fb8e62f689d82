// The dispatcher's inside: its record, and what the files qel_dm*.cpp offer each other.
//
// qel_dm.cpp         instances: handles, life cycle, the default handle
// qel_dm_loop.cpp    the wait step and the dispatch step, and the context of each serving thread
// qel_dm_jobs.cpp    local jobs and the wake-up of waiting threads
// qel_dm_fd.cpp      descriptors          qel_dm_timer.cpp    timers (qel_dm_timer_heap.*: their order)
// qel_dm_message.cpp the message queue    qel_dm_pf.cpp       the exported platform layer
// qel_dm_lnx.cpp     the kernel's calls  qel_dm_threadpool.cpp    the pool of threads
//
// A function that ends in _locked needs the instance's mutex; none of them runs a handler.
#pragma once

#include <qel/dm.h>
#include <qel/dm_pf.h>
#include <qel/hash.h>
#include <qel/mem.h>
#include <qel/ptimer.h>
#include <qel/queue.h>
#include <qel/thread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "containers/qel_dqueue.hpp"
#include "containers/qel_idm.hpp"
#include "core/qel_lock.hpp"
#include "dispatch/qel_dm_lnx.hpp"
#include "dispatch/qel_dm_report.hpp"
#include "dispatch/qel_dm_timer_heap.hpp"

namespace qel::dm {
struct Descriptor;
}

// What a serving thread knows of itself; kept under the thread-local key 'qdm_key'. Only its thread touches
// it.
struct qel_dm_thread_context {
    qel_dm_handle handle;  // the dispatcher that this thread last waited on
    std::uint32_t xd_event;
    std::uint32_t xd_event_id;
    std::uint32_t event;  // a PickedKind
    qel::dm::platform::Event epoll_event;
};
static_assert(sizeof(qel_dm_thread_context) == 32);

struct qel_dm_instance {
    static constexpr std::uint16_t kPrivate = 0x1;
    static constexpr std::uint16_t kDestroyPending = 0x8000;

    qel_dm_instance* next;  // in the list of instances, under the list's lock
    const char* name;       // the creator's string or a literal
    std::uint16_t flags;    // written under 'mutex'; also read without it, see destroy_pending()
    std::uint16_t fd_generation QEL_GUARDED_BY(mutex);
    std::uint32_t handle;
    std::int32_t waiters QEL_GUARDED_BY(mutex);  // threads that destruction must wait for
    qel_hashset* fds QEL_GUARDED_BY(mutex);
    qel::dm::Descriptor** fds_by_number QEL_GUARDED_BY(mutex);  // the set's elements, null for the others
    std::uint32_t fd_numbers QEL_GUARDED_BY(mutex);             // length of that array

    // The thread pool: min_wait 0 means that there is none.
    qel_thread_attr* thread_attr QEL_GUARDED_BY(mutex);
    std::int16_t min_wait QEL_GUARDED_BY(mutex);
    std::int16_t max_wait QEL_GUARDED_BY(mutex);
    std::int16_t max_threads QEL_GUARDED_BY(mutex);
    std::int16_t waiting QEL_GUARDED_BY(mutex);
    std::int16_t threads QEL_GUARDED_BY(mutex);
    bool pool_aborting QEL_GUARDED_BY(mutex);  // a creation failed and joins what it started
    int (*wait_handler)(qel_dm_handle) QEL_GUARDED_BY(mutex);
    int (*dispatch_handler)(qel_dm_handle) QEL_GUARDED_BY(mutex);

    // Jobs are queued in 'jobs' and taken from 'batch'; see qel_dm_jobs.cpp. In each the newest lies behind
    // the anchor, the oldest ahead of it.
    qel_dqueue jobs QEL_GUARDED_BY(mutex);
    qel_dqueue spare_jobs QEL_GUARDED_BY(mutex);
    std::uint32_t spare_count QEL_GUARDED_BY(mutex);
    std::uint32_t job_count QEL_GUARDED_BY(mutex);
    std::uint64_t jobs_queued QEL_GUARDED_BY(mutex);
    qel::Mutex batch_mutex;
    qel_dqueue batch QEL_GUARDED_BY(batch_mutex);
    qel_dqueue* batch_end QEL_GUARDED_BY(batch_mutex);  // the job taken last; the anchor before the first
    qel_dqueue done_jobs QEL_GUARDED_BY(batch_mutex);
    std::uint32_t done_count QEL_GUARDED_BY(batch_mutex);  // in 'done_jobs' and 'batch'
    bool batch_holds_jobs;                                 // written under 'batch_mutex'
    std::uint32_t jobs_since_poll;  // jobs taken since the kernel was last asked; approximate

    qel_dqueue messages QEL_GUARDED_BY(mutex);
    std::uint32_t message_registered QEL_GUARDED_BY(mutex);
    qel_dm_message_handler message_handler QEL_GUARDED_BY(mutex);  // null: explicit dispatch
    void* message_ctx QEL_GUARDED_BY(mutex);

    qel::Mutex mutex;
    pthread_cond_t cond;  // destruction waits on it for 'waiters' and 'threads'
    qel_mem_chunk* pool;  // jobs, messages, descriptor records and timers

    int epoll_fd;
    int pipe_read_fd;
    int pipe_write_fd;
    bool pipe_holds_byte QEL_GUARDED_BY(mutex);
    bool wake_in_flight QEL_GUARDED_BY(mutex);  // see qel_dm_jobs.cpp

    qel_dqueue idle_timers QEL_GUARDED_BY(mutex);
    qel_dqueue expired_timers QEL_GUARDED_BY(mutex);
    qel::dm::TimerHeap running_timers QEL_GUARDED_BY(mutex);
    std::uint32_t timer_count QEL_GUARDED_BY(mutex);  // in all three
    qel_dm_timer timed_wait_timer QEL_GUARDED_BY(mutex);
    const qel_dm_thread_context* timing_thread QEL_GUARDED_BY(mutex);  // who waits for timed_wait_timer

    // True from the start of qel_dm_destroy() on. An early test without the mutex must be repeated under it.
    bool destroy_pending() {
        return (std::atomic_ref{flags}.load(std::memory_order_relaxed) & kDestroyPending) != 0;
    }
    // Without the mutex, for runners of jobs; see share_batch().
    bool someone_waits() QEL_NO_THREAD_SAFETY_ANALYSIS {
        return std::atomic_ref{waiters}.load(std::memory_order_relaxed) != 0;
    }
};

namespace qel::dm {

using Dispatcher = qel_dm_instance;
using Context = qel_dm_thread_context;
using Locked = BasicLocked<ReportedLockFailures>;

constexpr std::uint32_t kPoolElementSize = 64;

// A dispatcher reached through its handle, for the length of a call. Inside a handler the dispatch that runs
// it holds a reference already, so none is taken: threads that serve one dispatcher would otherwise pass the
// line with its count to and fro.
class Retained {
  public:
    Retained() = default;
    explicit Retained(Dispatcher& served) : object_(&served) {}
    explicit Retained(qel::Retained<Dispatcher> reference)
        : reference_(std::move(reference)), object_(reference_.get()) {}

    explicit operator bool() const { return object_ != nullptr; }
    Dispatcher* operator->() const { return object_; }
    Dispatcher& operator*() const { return *object_; }

  private:
    qel::Retained<Dispatcher> reference_;
    Dispatcher* object_ = nullptr;
};

// Which event a thread has in hand between its wait and its dispatch.
enum PickedKind : std::uint32_t { kNothing = 0, kDescriptor = 1, kTimer = 2 };

// Runs 'body' without the mutex that a caller further up holds, and takes it again on every way out.
template <class Body>
decltype(auto) while_unlocked(Dispatcher& dispatcher, Body&& body) QEL_NO_THREAD_SAFETY_ANALYSIS {
    struct Relock {
        Mutex& mutex;
        explicit Relock(Mutex& held) : mutex(held) {
            if (int error = mutex.unlock(); error != 0) ReportedLockFailures::unlock_failed(error);
        }
        ~Relock() {
            if (int error = mutex.lock(); error != 0) ReportedLockFailures::lock_failed(error);
        }
    } relock{dispatcher.mutex};
    return body();
}

// ---- qel_dm.cpp

extern qel_dt_buffer_handle event_buffer;  // "qel.dm.buffer.events"; null while it can't be made

// The dispatcher behind 'handle', retained; nothing for 0, a stale or a foreign handle.
Retained retain(qel_dm_handle handle);
// The same, but 0 means the default dispatcher.
Retained retain_or_default(qel_dm_handle handle);

// An element of the dispatcher's chunk pool as a zeroed T, or null.
template <class T>
T* allocate(Dispatcher& dispatcher) {
    static_assert(sizeof(T) <= kPoolElementSize);
    return static_cast<T*>(qel_mem_chunk_malloc(dispatcher.pool));
}
void give_back(Dispatcher& dispatcher, void* element);

// Frees all elements of a queue.
void give_back_all(Dispatcher& dispatcher, qel_dqueue& queue);

template <class T>
T* oldest(const qel_dqueue& queue) {
    return dqueue_is_initial(queue) ? nullptr : reinterpret_cast<T*>(queue.prev);
}

// Counts in 'waiters', which runners of jobs read without the mutex.
inline void add_waiters_locked(Dispatcher& dispatcher, std::int32_t change) QEL_REQUIRES(dispatcher.mutex) {
    std::atomic_ref{dispatcher.waiters}.store(dispatcher.waiters + change, std::memory_order_relaxed);
}

// ---- qel_dm_loop.cpp

// The dispatcher whose handler the calling thread runs, or whose pool it belongs to, the innermost one; else
// null.
inline constinit thread_local Dispatcher* served_here = nullptr;

// Marks the calling thread as one that serves the dispatcher and holds a reference to it meanwhile. A handler
// may serve another one.
class ServedHere {
  public:
    explicit ServedHere(Dispatcher& dispatcher) : outer_(std::exchange(served_here, &dispatcher)) {}
    ServedHere(const ServedHere&) = delete;
    ServedHere& operator=(const ServedHere&) = delete;
    ~ServedHere() { served_here = outer_; }

  private:
    Dispatcher* outer_;
};

// Makes the key of the thread contexts; 0 or the system's error. Call under the list's lock.
int make_context_key();
// The calling thread's context, or null if it never waited.
Context* own_context();
// One wait step, counted in 'waiters'. Gives EINVAL when destruction is pending before or after it.
int wait_for_event(Dispatcher& dispatcher, Context& context, bool blocking);
int wait_step_locked(Dispatcher& dispatcher, Context& context, bool blocking) QEL_REQUIRES(dispatcher.mutex);
void dispatch_step(Dispatcher& dispatcher, Context& context);
// During destruction: hands the wake-up on to the next waiting thread.
void pass_wake_on_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);

// ---- qel_dm_jobs.cpp

enum class Wake : std::uint8_t { none, write, arm };

// Says which wake-up the caller has to deliver, after it let the mutex go or before, so that a thread in the
// wait step comes out of it.
[[nodiscard]] Wake claim_wake_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
// Carries out a claimed wake-up: 0 or an errno. Needs no lock, since a claim has one owner.
int deliver_wake(Dispatcher& dispatcher, Wake wake);
// Both at once, with no job: a waiting thread computes its time-out afresh. 0 or an errno, which is reported.
int try_wake_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
// The same for those who can do no more than what the report does.
inline void wake_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    static_cast<void>(try_wake_locked(dispatcher));
}

// Queues a job under the caller's lock: 0, EINVAL during destruction, ENOMEM, or the wake-up's errno.
int execute_locked(Dispatcher& dispatcher, qel_dm_job job, std::uint64_t data, std::uint64_t modifier)
    QEL_REQUIRES(dispatcher.mutex);
// The handler behind the pipe: runs what is queued, in order.
void run_jobs(Dispatcher& dispatcher, Context& context);
// True while a thread that enters the wait step finds jobs to run.
bool has_jobs_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
// True while a thread that takes the last job of the batch leaves others behind it, which were queued with a
// wake-up in flight and so have none of their own: who leaves the wait step wakes the next thread for them.
bool both_queues_hold_jobs_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
bool job_limit_reached(Dispatcher& dispatcher);
void free_jobs(Dispatcher& dispatcher) QEL_NO_THREAD_SAFETY_ANALYSIS;

// ---- qel_dm_fd.cpp

int make_descriptor_set(Dispatcher& dispatcher) QEL_NO_THREAD_SAFETY_ANALYSIS;
void free_descriptor_set(Dispatcher& dispatcher) QEL_NO_THREAD_SAFETY_ANALYSIS;
void dispatch_descriptor(Dispatcher& dispatcher, const platform::Event& event);
// Enables a descriptor whose event was picked and will not be dispatched.
void rearm_descriptor_locked(Dispatcher& dispatcher, const platform::Event& event)
    QEL_REQUIRES(dispatcher.mutex);

// ---- qel_dm_timer.cpp

// If the first timer is due: moves it to the expired ones and gives true. Otherwise 'timeout_ms' becomes the
// time until it is, rounded up, or -1 without timers.
bool take_due_timer_locked(Dispatcher& dispatcher, int& timeout_ms) QEL_REQUIRES(dispatcher.mutex);
// True when the calling thread must wait for the first timer: there is one, and nobody does so already.
bool first_timer_untimed_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
void dispatch_timer(Dispatcher& dispatcher);
// Makes one expired timer due again, for a thread that picked it and will not dispatch it.
void return_expired_timer_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);
void free_timers(Dispatcher& dispatcher) QEL_NO_THREAD_SAFETY_ANALYSIS;

// ---- qel_dm_threadpool.cpp

// Counts the calling thread out of the dispatcher's pool, if it is one of its threads: it is about to wait
// until none is left.
void leave_pool_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex);

}  // namespace qel::dm
