// The loop: the wait step picks one event for the calling thread, the dispatch step runs its handler.
//
// Events are picked in this order: a due timer, queued jobs, and what the kernel says. Jobs are announced by
// the pipe's event, which a thread takes without the kernel when it finds jobs on entering. One of the
// waiting threads waits for the first timer, the others without a time-out; who leaves sees to it that
// someone does.
//
// Invariant, whenever 'mutex' is free: with a running timer and threads in the wait step, one of them waits
// no longer than the first timer, or a wake-up is in flight. Locks: 'mutex', let go around the kernel's wait
// and every handler. Threads: any number serve one instance. A handler may end its thread: guards count it
// out, free the lock and pass on what it would have done. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

#include "core/qel_owned.hpp"

namespace qel::dm {
namespace {

constinit std::atomic<pthread_key_t> qdm_key{0xffffffff};

// What the key holds for the calling thread, one load away; the key is there for its destructor.
constinit thread_local Context* own = nullptr;

bool is_pipe_event(const Context& context) {
    return context.event == kDescriptor && context.epoll_event.source == platform::kPipe;
}

// The event that 'context' holds will not be dispatched: gives it to whoever comes next.
void hand_back_locked(Dispatcher& dispatcher, Context& context) QEL_REQUIRES(dispatcher.mutex) {
    std::uint32_t kind = std::exchange(context.event, kNothing);
    if (kind == kTimer) return_expired_timer_locked(dispatcher);
    if (kind == kDescriptor && context.epoll_event.source == platform::kUserDescriptor)
        rearm_descriptor_locked(dispatcher, context.epoll_event);
    else
        wake_locked(dispatcher);
}

void hand_back(Context& context) {
    Retained dispatcher = retain(context.handle);
    if (!dispatcher) return;
    Dispatcher& instance = *dispatcher;
    Locked lock{instance.mutex};
    hand_back_locked(instance, context);
}

void end_context(void* record) {
    Owned<Context> context{static_cast<Context*>(record)};
    own = nullptr;
    if (context->event != kNothing) hand_back(*context);
}

// The calling thread's context, made on first need; null when memory is short.
Context* own_or_new_context() {
    if (Context* context = own_context(); context != nullptr) return context;
    Owned<Context> context = allocate_zeroed<Context>(QEL_MEM_QDM);
    if (!context || pthread_setspecific(qdm_key.load(std::memory_order_relaxed), context.get()) != 0)
        return nullptr;
    own = context.release();
    return own;
}

void release_timing_locked(Dispatcher& dispatcher, const Context& context) QEL_REQUIRES(dispatcher.mutex) {
    if (dispatcher.timing_thread != &context) return;
    dispatcher.timing_thread = nullptr;
    dispatcher.timed_wait_timer = nullptr;
}

// The thread ended inside the kernel's wait: an event that it picked there is anybody's again.
void return_picked_locked(Dispatcher& dispatcher, const platform::Event& picked)
    QEL_REQUIRES(dispatcher.mutex) {
    if (picked.source == platform::kUserDescriptor && picked.flags != 0)
        rearm_descriptor_locked(dispatcher, picked);
    if (picked.source == platform::kPipe) dispatcher.wake_in_flight = false;
}

// Counts the thread into 'waiters' for the length of a wait step. Ends under the mutex.
class WaitScope {
  public:
    WaitScope(Dispatcher& dispatcher, const Context& context) QEL_REQUIRES(dispatcher.mutex)
        : dispatcher_(dispatcher), context_(context) {
        add_waiters_locked(dispatcher, 1);
    }
    ~WaitScope() noexcept(false) QEL_NO_THREAD_SAFETY_ANALYSIS {
        add_waiters_locked(dispatcher_, -1);
        release_timing_locked(dispatcher_, context_);
        if (!returned_) return_picked_locked(dispatcher_, context_.epoll_event);
        if (dispatcher_.destroy_pending()) {
            pass_wake_on_locked(dispatcher_);
        } else if (!returned_ || first_timer_untimed_locked(dispatcher_) ||
                   both_queues_hold_jobs_locked(dispatcher_)) {
            wake_locked(dispatcher_);
        }
    }
    int returned(int result) {
        returned_ = true;
        return result;
    }

  private:
    Dispatcher& dispatcher_;
    const Context& context_;
    bool returned_ = false;
};

// True if the thread can take the queued jobs as its event without asking the kernel.
bool take_jobs_locked(Dispatcher& dispatcher, Context& context) QEL_REQUIRES(dispatcher.mutex) {
    if (!has_jobs_locked(dispatcher) || dispatcher.wake_in_flight) return false;
    if (job_limit_reached(dispatcher)) {
        wake_locked(dispatcher);
        return false;
    }
    context.epoll_event = {0, 0, platform::kPipe};
    return true;
}

// Makes the calling thread the one that waits for the first timer, or gives -1 when nobody has to.
int claim_timing_locked(Dispatcher& dispatcher, const Context& context, int timeout_ms)
    QEL_REQUIRES(dispatcher.mutex) {
    if (first_timer_untimed_locked(dispatcher)) {
        dispatcher.timed_wait_timer = dispatcher.running_timers.first();
        dispatcher.timing_thread = &context;
        return timeout_ms;
    }
    event<"QDM20", "thread doing non-timed blocking wait, qdm=%p">(event_buffer, QEL_DT_LEVEL_INFO,
                                                                   &dispatcher);
    return -1;
}

// Asks the kernel for one event with the mutex let go: 1, 0 when time is up, or -errno.
int poll_locked(Dispatcher& dispatcher, Context& context, int timeout_ms) QEL_REQUIRES(dispatcher.mutex) {
    int count = while_unlocked(dispatcher, [&] {
        qel_thread_before_deschedule();
        int result = platform::wait(dispatcher.epoll_fd, context.epoll_event, timeout_ms);
        qel_thread_after_reschedule();
        if (result != -EINTR) return result;
        report<"QDM27", "QDM epoll_wait interrupted qdm=%p %s">(&dispatcher);
        return 0;  // Like a time-out: the rest of the time is computed afresh, however many signals come.
    });
    std::atomic_ref{dispatcher.jobs_since_poll}.store(0, std::memory_order_relaxed);
    if (count == 1 && context.epoll_event.source == platform::kPipe) dispatcher.wake_in_flight = false;
    return count;
}

// A wake-up that brought no job: some waiter had to compute its time-out afresh.
bool is_bare_wake_locked(Dispatcher& dispatcher, const Context& context) QEL_REQUIRES(dispatcher.mutex) {
    return context.epoll_event.source == platform::kPipe && !has_jobs_locked(dispatcher);
}

// One round of a wait step. 'done' tells whether the step ends with the result.
struct Round {
    bool done;
    int result;
};

Round wait_round_locked(Dispatcher& dispatcher, Context& context, bool blocking)
    QEL_REQUIRES(dispatcher.mutex) {
    int timeout_ms = -1;
    if (take_due_timer_locked(dispatcher, timeout_ms)) {
        context.event = kTimer;
        return {true, 0};
    }
    if (take_jobs_locked(dispatcher, context)) {
        context.event = kDescriptor;
        return {true, 0};
    }
    timeout_ms = blocking ? claim_timing_locked(dispatcher, context, timeout_ms) : 0;
    int count = poll_locked(dispatcher, context, timeout_ms);
    release_timing_locked(dispatcher, context);
    if (count < 0) return {true, -count};
    if (count == 0) return {!blocking, 0};
    if (blocking && is_bare_wake_locked(dispatcher, context)) return {false, 0};
    context.event = kDescriptor;
    return {true, 0};
}

// The frame of the two dispatch calls: the instance and the context that belongs to it.
struct Serving {
    Retained dispatcher;
    Context* context = nullptr;
    int error = 0;
};

template <FixedText Label, FixedText MismatchLabel>
Serving begin_dispatch(qel_dm_handle handle) {
    Retained dispatcher = retain(handle);
    if (!dispatcher || dispatcher->destroy_pending()) return {{}, nullptr, bad_argument<Label>("qdm")};
    Context* context = own_context();
    if (context == nullptr || context->handle != handle)
        return {
            {}, nullptr, failed<MismatchLabel, "QDM QDM dm_dispatch thread mismatch tc=%p">(ENOENT, context)};
    context->xd_event = 0;
    return {std::move(dispatcher), context, 0};
}

}  // namespace

int make_context_key() {
    if (qdm_key.load(std::memory_order_relaxed) != 0xffffffff) return 0;
    pthread_key_t key = 0;
    if (int error = pthread_key_create(&key, end_context); error != 0) return error;
    qdm_key.store(key, std::memory_order_relaxed);
    return 0;
}

Context* own_context() {
    return own;
}

int wait_step_locked(Dispatcher& dispatcher, Context& context, bool blocking) {
    for (;;) {
        context.event = kNothing;
        context.epoll_event = {};
        Round round = wait_round_locked(dispatcher, context, blocking);
        if (round.done || dispatcher.destroy_pending()) return round.result;
    }
}

int wait_for_event(Dispatcher& dispatcher, Context& context, bool blocking) {
    Locked lock{dispatcher.mutex};
    if (dispatcher.destroy_pending()) return EINVAL;
    WaitScope scope{dispatcher, context};
    int result = scope.returned(wait_step_locked(dispatcher, context, blocking));
    if (!dispatcher.destroy_pending()) return result;
    context.event = kNothing;
    return EINVAL;
}

void pass_wake_on_locked(Dispatcher& dispatcher) {
    wake_locked(dispatcher);
    pthread_cond_broadcast(&dispatcher.cond);
}

void dispatch_step(Dispatcher& dispatcher, Context& context) {
    ServedHere served{dispatcher};
    bool jobs = is_pipe_event(context);
    // Cleared first: the handler may end this thread, or serve an inner loop on it.
    switch (std::exchange(context.event, kNothing)) {
    case kTimer:
        return dispatch_timer(dispatcher);
    case kDescriptor:
        return jobs ? run_jobs(dispatcher, context) : dispatch_descriptor(dispatcher, context.epoll_event);
    default:
        return;
    }
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_wait(qel_dm_handle handle) {
    qel_check_not_interrupt_path();
    dm::Retained dispatcher = retain(handle);
    if (!dispatcher) return bad_argument<"QDM21">("qdm");
    Context* context = own_or_new_context();
    if (context == nullptr) return no_memory<"QDM22">();
    if (context->event != kNothing) hand_back(*context);
    context->handle = handle;
    return wait_for_event(*dispatcher, *context, true);
}

QEL_API int qel_dm_dispatch(qel_dm_handle handle) {
    qel_check_not_interrupt_path();
    Serving serving = begin_dispatch<"QDM23", "QDM24">(handle);
    if (serving.error != 0) return serving.error;
    dispatch_step(*serving.dispatcher, *serving.context);
    return serving.context->xd_event != 0 ? EOPNOTSUPP : 0;
}

QEL_API int qel_dm_xdispatch(qel_dm_handle handle, std::uint32_t* out_event, std::uint32_t* out_id) {
    qel_check_not_interrupt_path();
    Serving serving = begin_dispatch<"QDM25", "QDM26">(handle);
    if (serving.error != 0) return serving.error;
    Context& context = *serving.context;
    if (context.event == kNothing)
        if (int error = wait_for_event(*serving.dispatcher, context, false); error != 0) return error;
    dispatch_step(*serving.dispatcher, context);
    if (context.xd_event == 0) return EAGAIN;
    if (out_event != nullptr) *out_event = context.xd_event;
    if (out_id != nullptr) *out_id = context.xd_event_id;
    return 0;
}

QEL_API void qel_dm_xd_set(std::uint32_t xd_event, std::uint32_t id) {
    Context* context = own_context();
    if (context == nullptr) return;
    context->xd_event = xd_event;
    context->xd_event_id = id;
}
