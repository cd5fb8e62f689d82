// The owner's side of a signal end point: the thread that sleeps in the record and passes each wake-up on.
//
// The thread holds sep_mutex except while it sleeps or queues a job, and runs no application code unless the
// owner has no dispatcher. A wake-up that finds signals queues the handler as a job, unless one is queued
// that has not begun; a job that can't be queued is tried again after timed sleeps, since senders that find
// bits set wake nobody. Once a second it looks at the bits unasked.
//
// The thread can outlive the owner's side, which stops within bounds: then its generation is no longer that
// of the local part, and it touches nothing more. sep_stop() says so to those who would unmap the record.
//
// Invariant: nobody sleeps in sep_cond but the thread, and signals come under sep_mutex only, so the thread
// and the starting owner may write it anew: sleepers that were killed leave it unusable. Locks: sep_mutex,
// then the dispatcher's; sep_lock guards sep_running and the generation, and is a leaf. Restart: state, bits
// and condition variable of a dead owner are cleared when it starts again.
#include <qel/thread.h>
#include <qel/time.h>

#include <algorithm>
#include <cerrno>

#include "ipc/qel_sep.hpp"
#include "ipc/qel_sep_lnx.hpp"
#include "time/qel_time.hpp"

namespace qel {
namespace {

constexpr const char* kThreadName = "QEL IPC Condvar Thread";
constexpr std::uint32_t kSettleMs = 5;
constexpr int kStopRounds = 10;
constexpr std::uint32_t kStopRoundMs = 100;
constexpr std::uint32_t kFirstRetryMs = 1;
constexpr std::uint32_t kUnaskedLookMs = 1000;
constexpr std::uint32_t kLongestRetryMs = 100;

constinit std::atomic<std::uint32_t> last_generation{0};

// The thread's own copy of what it works for.
struct Watch {
    qel_sep* local;
    qel_sep_record* record;
    std::uint32_t generation;
    std::uint32_t ipc;
    qel_dm_handle dm;
    qel_sep_handler handler;
    std::uint16_t ep;
};

void trace_step(std::uint16_t ep, const char* text, std::uint32_t value) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [SIG%d] %s 0x%x", own_pid(), ep, text, value);
}

bool is_current(const Watch& watch) {
    return std::atomic_ref{words_of(*watch.local).generation}.load() == watch.generation;
}

bool has_signals(const Watch& watch) {
    return (flags_of(*watch.record).load() & ~kOwnerAwake) != 0;
}

// Queues the handler as a job of one that tells when it begins; marked before, as it may begin at once.
int queue_telling(const Watch& watch) {
    HandlerState queued = HandlerState::queued;
    handler_of(*watch.local).store(queued);
    int error = qel_dm_execute(watch.dm, watch.handler, watch.ipc, 0);
    if (error != 0) handler_of(*watch.local).compare_exchange_strong(queued, HandlerState::begun);
    return error;
}

// What a look at the signals led to.
struct Passed {
    int error;
    bool deaf;  // bells rang unheard meanwhile: look again before sleeping
};

// Passes a wake-up on. One that dies holding sep_mutex blocks its next life, so the queueing is done without
// it; but a handler that doesn't tell leaves nothing to see of bells that rang meanwhile.
Passed pass_on(const Watch& watch, SharedLocked& lock) {
    HandlerState before = handler_of(*watch.local).load();
    if (before == HandlerState::queued || !has_signals(watch)) return {0, false};
    if (before == HandlerState::untold) return {qel_dm_execute(watch.dm, watch.handler, watch.ipc, 0), false};
    int error = lock.while_unlocked([&] { return queue_telling(watch); });
    return {lock.error() != 0 ? lock.error() : error, true};
}

// The pause before the next try of a job that could not be queued.
std::uint32_t pause_after(int error, std::uint32_t before_ms) {
    if (before_ms == 0) ipc_error(kThreadName, "qel_dm_execute failed", fatal(error));
    return std::clamp(before_ms * 2, kFirstRetryMs, kLongestRetryMs);
}

// Sleeps until a bell; not without end, since bits may have come with no bell: when somebody wrote the
// owner's mark there, or set them past a mutex that seemed to be a dead one's.
int sleep_locked(qel_sep_record& record, std::uint32_t limit_ms) {
    timespec deadline = condition_deadline(limit_ms == 0 ? kUnaskedLookMs : limit_ms);
    qel_thread_before_deschedule();
    int error = qel_thread_cond_timedwait(&record.sep_cond, mutex_of(record).native(), &deadline);
    qel_thread_after_reschedule();
    return error == ETIMEDOUT ? 0 : error;
}

// A wake-up for nothing may come from words that were written over, and would come again and again. Whoever
// took the end point over from this live process may sleep in it by now.
void renew_condition(qel_sep_record& record) {
    if (sep_platform::has_sleeper(record.sep_cond)) return;
    static_cast<void>(qel_init_shared_condvar(&record.sep_cond));  // A failure leaves it as it was.
}

enum class Woken { by_signals, to_end };

bool must_end(const Watch& watch) {
    return !is_current(watch) || state_of(*watch.record).load() == QEL_SEP_STATE_STOPPING;
}

// Passes wake-ups on to the dispatcher until the thread must end; without a dispatcher, until there are
// signals.
Woken watch_locked(const Watch& watch, SharedLocked& lock) {
    std::uint32_t pause_ms = 0;
    while (!must_end(watch)) {
        if (watch.dm == 0 && has_signals(watch)) return Woken::by_signals;
        Passed passed = watch.dm == 0 ? Passed{} : pass_on(watch, lock);
        if (lock.error() != 0) return Woken::to_end;
        if (passed.error == 0 && passed.deaf) continue;
        pause_ms = passed.error == 0 ? 0 : pause_after(passed.error, pause_ms);
        if (int error = sleep_locked(*watch.record, pause_ms); error != 0) {
            ipc_error(kThreadName, "qel_thread_cond_wait failed", fatal(error));
            return Woken::to_end;
        }
        if (!has_signals(watch)) renew_condition(*watch.record);
    }
    return Woken::to_end;
}

Woken watch_record(const Watch& watch, std::uint32_t& state) {
    SharedLocked lock{mutex_of(*watch.record)};
    if (lock.error() != 0) return Woken::to_end;
    Woken woken = watch_locked(watch, lock);
    if (is_current(watch)) state = state_of(*watch.record).load();
    return woken;
}

void report_end(const Watch& watch) {
    Locked lock{lock_of(*watch.local)};
    if (!is_current(watch)) return;
    watch.local->sep_running = 0;
    pthread_cond_signal(&watch.local->sep_done);
}

void* run_condvar_thread(void* opaque) {
    Owned<Watch> watch{static_cast<Watch*>(opaque)};
    static_cast<void>(qel_thread_detach(pthread_self()));  // Fails for a thread that is detached only.
    Undo end{[&] { report_end(*watch); }};                 // Also when a handler ends the thread.
    std::uint32_t state = 0;
    while (is_current(*watch) && watch_record(*watch, state) == Woken::by_signals)
        watch->handler(0, watch->ipc, 0);
    trace_step(watch->ep, "CVT: exited loop st=", state);
    return nullptr;
}

// What a former owner has left, cleared.
struct Leftover {
    int error;
    std::uint32_t state;
    std::uint32_t flags;
};

Leftover clear_record(qel_sep_record& record) {
    SharedLocked lock{mutex_of(record)};
    if (lock.error() != 0) return {lock.error(), 0, 0};
    std::uint32_t flags = take_signals(record);
    std::uint32_t state = state_of(record).exchange(QEL_SEP_STATE_NONE);
    return {qel_init_shared_condvar(&record.sep_cond), state, flags};
}

int start_thread(qel_sep& local, qel_sep_record& record) {
    Owned<Watch> watch = allocate_zeroed<Watch>(QEL_MEM_IPC);
    if (!watch) return ENOMEM;
    *watch = {&local,        &record,      words_of(local).generation,
              local.sep_ipc, local.sep_dm, local.sep_handler,
              local.sep_ep};
    pthread_t thread;
    int error = qel_thread_create(&thread, nullptr, run_condvar_thread, watch.get(), kThreadName, 0);
    if (error == 0) static_cast<void>(watch.release());  // The thread's.
    return error;
}

int open_for_signals(qel_sep_record& record) {
    SharedLocked lock{mutex_of(record)};
    if (lock.error() == 0) state_of(record).store(QEL_SEP_STATE_RUNNING);
    return lock.error();
}

// A thread that outlived an earlier generation may look at the words meanwhile.
void begin_generation(qel_sep& local) {
    SepWords& words = words_of(local);
    Locked lock{lock_of(local)};
    handler_of(local).store(HandlerState::untold);
    for (std::uint16_t* word :
         {&words.looks_to_skip, &words.looks_backed_off, &words.spins_in_vain, &words.long_looks_done})
        std::atomic_ref{*word}.store(0, std::memory_order_relaxed);
    std::uint32_t generation = ++last_generation;
    std::atomic_ref{words.generation}.store(generation == 0 ? ++last_generation : generation);
    local.sep_running = 1;
}

void end_generation(qel_sep& local) {
    Locked lock{lock_of(local)};
    std::atomic_ref{words_of(local).generation}.store(0);
    local.sep_running = 0;
}

void tell_to_stop(qel_sep& local, qel_sep_record& record) {
    trace_step(local.sep_ep, "SEP_DESTROY: signaling CVT", state_of(record).load());
    SharedLocked lock{mutex_of(record)};
    std::uint32_t running = QEL_SEP_STATE_RUNNING;
    if (!state_of(record).compare_exchange_strong(running, QEL_SEP_STATE_STOPPING)) return;
    // A bell that can't be rung shows as a thread that doesn't end.
    if (lock.error() == 0) static_cast<void>(ring_bell_locked(record));
}

bool await_end(qel_sep& local) {
    Locked lock{lock_of(local)};
    for (int round = 0; round < kStopRounds && local.sep_running != 0; ++round) {
        trace_step(local.sep_ep, "SEP_DESTROY: waiting for CVT to signal me", local.sep_running);
        timespec deadline = add(monotonic_now(), from_milliseconds(kStopRoundMs));
        static_cast<void>(qel_thread_cond_timedwait(&local.sep_done, lock_of(local).native(), &deadline));
    }
    return local.sep_running == 0;
}

bool has_ended(qel_sep& local) {
    Locked lock{lock_of(local)};
    return local.sep_running == 0;
}

// Handlers that look for more leave within microseconds, if they run at all.
bool await_lookers(qel_sep& local) {
    for (std::uint32_t waited = 0; lookers_of(local).load() != 0 && waited < kStopRounds * kStopRoundMs;
         ++waited)
        qel_time_sleep(1);
    return lookers_of(local).load() == 0;
}

// On the monotonic clock, so that a set clock doesn't stretch a stop.
int init_done_condition(pthread_cond_t& condition) {
    pthread_condattr_t attributes;
    if (int error = pthread_condattr_init(&attributes); error != 0) return error;
    Undo end{[&] { static_cast<void>(pthread_condattr_destroy(&attributes)); }};
    if (int error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC); error != 0) return error;
    return pthread_cond_init(&condition, &attributes);
}

int init_local(qel_sep& local) {
    local = {};
    int error = lock_of(local).init();
    return error != 0 ? error : init_done_condition(local.sep_done);
}

}  // namespace

bool sep_stop(qel_sep& local) {
    qel_sep_record* record = local.sep_shm == nullptr ? nullptr : *local.sep_shm;
    if (record != nullptr) {
        tell_to_stop(local, *record);
        qel_time_sleep(kSettleMs);
    }
    bool ended = record == nullptr ? has_ended(local) : await_end(local);
    end_generation(local);
    bool left = await_lookers(local);
    if (record != nullptr) {
        // Not the state of an owner that took the record over meanwhile.
        std::uint32_t stopping = QEL_SEP_STATE_STOPPING;
        state_of(*record).compare_exchange_strong(stopping, QEL_SEP_STATE_NONE);
    }
    local.sep_shm = nullptr;
    return ended && left;
}

void sep_evict(qel_sep_record& record) {
    {
        SharedLocked lock{mutex_of(record)};
        std::uint32_t running = QEL_SEP_STATE_RUNNING;
        if (!state_of(record).compare_exchange_strong(running, QEL_SEP_STATE_STOPPING)) return;
        // A bell that can't be rung shows as a sleeper that stays.
        if (lock.error() == 0) static_cast<void>(ring_bell_locked(record));
    }
    qel_time_sleep(kSettleMs);
    for (std::uint32_t waited = 0; waited < kStopRoundMs && sep_platform::has_sleeper(record.sep_cond);
         ++waited)
        qel_time_sleep(1);
}

}  // namespace qel

using namespace qel;

cerrno qel_sep_init_once(qel_sep* local) {
    if (local == nullptr) return fatal(EINVAL);
    int error = init_local(*local);
    return error == 0 ? 0 : fatal(error);
}

int qel_sep_init(std::uint16_t ep, qel_sep* local, qel_sep_record** place, qel_sep_record* record,
                 qel_dm_handle dm, qel_sep_handler handler, std::uint32_t ipc) {
    if (local == nullptr || place == nullptr || record == nullptr || handler == nullptr) return EINVAL;
    Leftover left = clear_record(*record);
    if (left.error != 0) return left.error;
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (left.state != QEL_SEP_STATE_NONE)
        ipc_trace(tp, "pid: %d %s: epid:%d, flags=0x%x", own_pid(), __func__, ep, left.flags);
    *place = record;
    local->sep_ep = ep;
    local->sep_dm = dm;
    local->sep_handler = handler;
    local->sep_ipc = ipc;
    local->sep_shm = place;
    begin_generation(*local);
    if (int error = start_thread(*local, *record); error != 0) {
        end_generation(*local);
        local->sep_shm = nullptr;
        return errno_of(ipc_error(__func__, "qel_thread_create condvar thread failed", fatal(error)));
    }
    int error = open_for_signals(*record);
    if (error != 0) static_cast<void>(sep_stop(*local));
    return error;
}

void qel_sep_destroy(qel_sep* local) {
    if (local != nullptr) static_cast<void>(sep_stop(*local));
}
