// Timers as event sources.
//
//            settime                 due                  dispatch
//   idle ---------------> running --------> expired --------------------> idle, and its handler runs
//     ^                      |                 |
//     +----- stop -----------+-----------------+        settime takes any of them back to running
//
// Which of the three a timer is in stands in its 'place'. Running timers lie in a heap, the others in queues.
// A thread that picked an expired timer takes the one at the front when it comes to dispatch; another thread
// may have taken or stopped its own in the meantime, and then there may be none.
//
// Invariant: a timer is in exactly one of the three; the heap has room for all timers of the dispatcher.
// Locks: 'mutex'. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

#include <algorithm>
#include <limits>

#include "time/qel_time.hpp"

namespace qel::dm {
namespace {

constexpr std::int64_t kDueWithinNs = 200'000;
constexpr std::int64_t kNsPerMs = 1'000'000;

std::int64_t now_ns() {
    return to_nanoseconds(monotonic_now());
}

int round_up_to_ms(std::int64_t left_ns) {
    std::int64_t ms = left_ns / kNsPerMs + (left_ns % kNsPerMs != 0 ? 1 : 0);
    return static_cast<int>(std::min<std::int64_t>(ms, std::numeric_limits<int>::max()));
}

bool is_running(const qel_dm_timer_record& timer) {
    return timer.place < TimerHeap::kExpired;
}

// A timer of another dispatcher, or one that was freed and not yet reused.
bool is_foreign(const Dispatcher& dispatcher, const qel_dm_timer_record* timer) {
    return timer == nullptr || timer->owner != dispatcher.handle;
}

// Nobody waits for this timer from now on.
void stop_timing_locked(Dispatcher& dispatcher, qel_dm_timer timer) QEL_REQUIRES(dispatcher.mutex) {
    if (dispatcher.timed_wait_timer != timer) return;
    dispatcher.timed_wait_timer = nullptr;
    dispatcher.timing_thread = nullptr;
}

// Takes a timer off whatever it is in.
void take_off_locked(Dispatcher& dispatcher, qel_dm_timer timer) QEL_REQUIRES(dispatcher.mutex) {
    if (is_running(*timer))
        dispatcher.running_timers.remove(timer);
    else
        dqueue_remove(timer->link);
    stop_timing_locked(dispatcher, timer);
}

void make_idle_locked(Dispatcher& dispatcher, qel_dm_timer timer) QEL_REQUIRES(dispatcher.mutex) {
    qel_ptimer_stop(&timer->expiry);
    timer->place = TimerHeap::kIdle;
    dqueue_insert(timer->link, dispatcher.idle_timers);
}

// Starts or restarts a timer. One that is now the first needs a thread that waits for it.
void run_until_locked(Dispatcher& dispatcher, qel_dm_timer timer, const qel_ptimer& expiry)
    QEL_REQUIRES(dispatcher.mutex) {
    stop_timing_locked(dispatcher, timer);
    timer->expiry = expiry;
    if (is_running(*timer)) {
        dispatcher.running_timers.move(timer);
    } else {
        dqueue_remove(timer->link);
        dispatcher.running_timers.insert(timer);
    }
    if (dispatcher.running_timers.first() == timer) wake_locked(dispatcher);
}

int add_timer_locked(Dispatcher& dispatcher, qel_dm_timer* out, qel_dm_timer_handler handler, void* context)
    QEL_REQUIRES(dispatcher.mutex) {
    if (!dispatcher.running_timers.reserve(dispatcher.timer_count + 1)) return no_memory<"QDM504">();
    auto* timer = allocate<qel_dm_timer_record>(dispatcher);
    if (timer == nullptr) return no_memory<"QDM505">();
    timer->handler = handler;
    timer->context = context;
    timer->owner = dispatcher.handle;
    make_idle_locked(dispatcher, timer);
    ++dispatcher.timer_count;
    *out = timer;
    return 0;
}

int remove_timer_locked(Dispatcher& dispatcher, qel_dm_timer* variable) QEL_REQUIRES(dispatcher.mutex) {
    qel_dm_timer timer = *variable;
    if (is_foreign(dispatcher, timer)) return bad_argument<"QDM503">("timer");
    take_off_locked(dispatcher, timer);
    timer->owner = 0;
    give_back(dispatcher, timer);
    --dispatcher.timer_count;
    *variable = nullptr;
    return 0;
}

}  // namespace

bool first_timer_untimed_locked(Dispatcher& dispatcher) {
    return !dispatcher.running_timers.empty() &&
           dispatcher.timed_wait_timer != dispatcher.running_timers.first();
}

bool take_due_timer_locked(Dispatcher& dispatcher, int& timeout_ms) {
    TimerHeap& running = dispatcher.running_timers;
    if (running.empty()) return false;
    std::int64_t left_ns = running.first_expiry_ns() - now_ns();
    if (left_ns > kDueWithinNs) {
        timeout_ms = round_up_to_ms(left_ns);
        return false;
    }
    qel_dm_timer timer = running.first();
    take_off_locked(dispatcher, timer);
    timer->place = TimerHeap::kExpired;
    dqueue_insert(timer->link, dispatcher.expired_timers);
    return true;
}

void return_expired_timer_locked(Dispatcher& dispatcher) {
    if (dqueue_is_initial(dispatcher.expired_timers)) return;
    auto* timer = reinterpret_cast<qel_dm_timer>(dispatcher.expired_timers.next);
    take_off_locked(dispatcher, timer);
    dispatcher.running_timers.insert(timer);
}

void dispatch_timer(Dispatcher& dispatcher) {
    qel_dm_timer timer = nullptr;
    qel_dm_timer_handler handler = nullptr;
    void* context = nullptr;
    {
        Locked lock{dispatcher.mutex};
        if (dispatcher.destroy_pending() || dqueue_is_initial(dispatcher.expired_timers)) return;
        timer = reinterpret_cast<qel_dm_timer>(dispatcher.expired_timers.next);
        take_off_locked(dispatcher, timer);
        make_idle_locked(dispatcher, timer);
        handler = timer->handler;
        context = timer->context;
    }
    handler(dispatcher.handle, timer, context);
}

void free_timers(Dispatcher& dispatcher) {
    while (qel_dm_timer timer = dispatcher.running_timers.first()) {
        dispatcher.running_timers.remove(timer);
        give_back(dispatcher, timer);
    }
    give_back_all(dispatcher, dispatcher.idle_timers);
    give_back_all(dispatcher, dispatcher.expired_timers);
    dispatcher.running_timers.free();
    dispatcher.timer_count = 0;
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_timer_register(qel_dm_handle handle, qel_dm_timer* timer, qel_dm_timer_handler handler,
                                  void* context) {
    qel_check_not_interrupt_path();
    if (timer == nullptr) return bad_argument<"QDM500">("timer");
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM501">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM502", "%s destroy pending %s">(EINVAL, instance.name);
    return handler != nullptr ? add_timer_locked(instance, timer, handler, context)
                              : remove_timer_locked(instance, timer);
}

QEL_API int qel_dm_timer_settime(qel_dm_handle handle, qel_dm_timer timer, const timespec* delay) {
    qel_check_not_interrupt_path();
    // The clock is read before the mutex is taken, so that nobody waits for the reading.
    const qel_ptimer expiry = delay != nullptr ? expiry_after(*delay) : qel_ptimer{};
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM506">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM507", "%s destroy pending %s">(EINVAL, instance.name);
    if (is_foreign(instance, timer)) return bad_argument<"QDM508">("timer");
    if (delay != nullptr) {
        run_until_locked(instance, timer, expiry);
        return 0;
    }
    take_off_locked(instance, timer);
    make_idle_locked(instance, timer);
    return 0;
}

QEL_API int qel_dm_timer_gettime(qel_dm_handle handle, qel_dm_timer timer, timespec* left) {
    qel_check_not_interrupt_path();
    if (left == nullptr) return bad_argument<"QDM509">("left");
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM510">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM511", "%s destroy pending %s">(EINVAL, instance.name);
    if (is_foreign(instance, timer)) return bad_argument<"QDM512">("timer");
    if (!qel_ptimer_running(&timer->expiry)) return 1;
    qel_ptimer_left_sleeping(left, &timer->expiry);
    return 0;
}
