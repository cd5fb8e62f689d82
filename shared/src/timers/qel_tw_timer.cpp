// The calls on timers: check, lock, and leave the work to the slots.
//
// A start reads no clock: the wheel's tick counter is its time. Starting afresh and stopping unlink a timer
// without knowing its slot.
//
// Invariant: 'next' of a timer is null exactly while it is on no list. Locks: the wheel's mutex. A stop that
// isn't told its wheel takes the mutex of the one whose handler calls it, since other threads may start
// timers while handlers run; outside handlers the caller answers for it. Threads: any. Restart: nothing
// stays.
#include <qel/time.h>

#include <algorithm>
#include <limits>

#include "time/qel_time.hpp"
#include "timers/qel_tw.hpp"

namespace qel::tw {
namespace {

int start_basic(Wheel& wheel, qel_tw_timer_basic& timer, std::uint32_t delay_ms) {
    Locked lock{wheel.mutex};
    if (int error = check_mode_locked(wheel, Wheel::kBasic); error != 0) return error;
    stop_locked(timer);
    place_locked(wheel, timer, delay_ms);
    return 0;
}

int start_callback(Wheel& wheel, qel_tw_timer& timer, std::uint32_t delay_ms, qel_tw_handler handler,
                   void* context) {
    Locked lock{wheel.mutex};
    if (int error = check_mode_locked(wheel, Wheel::kCallback); error != 0) return error;
    stop_locked(timer.basic);
    timer.handler = handler;
    timer.context = context;
    place_locked(wheel, timer.basic, delay_ms);
    return 0;
}

int stop(qel_tw_timer_basic& timer) {
    if (ticking_here == nullptr) {
        stop_locked(timer);
        return 0;
    }
    Locked lock{ticking_here->mutex};
    stop_locked(timer);
    return 0;
}

int stop_under_lock(Wheel& wheel, qel_tw_timer_basic& timer) {
    Locked lock{wheel.mutex};
    stop_locked(timer);
    return 0;
}

std::uint32_t remaining(Wheel& wheel, const qel_tw_timer_basic& timer) {
    Locked lock{wheel.mutex};
    return is_linked(timer) ? remaining_locked(wheel, timer) : 0;
}

// Jitter finer than a tick would be lost in rounding.
std::uint32_t with_jitter(const Wheel& wheel, std::uint32_t delay_ms, std::uint32_t percent) {
    if (wheel.granularity >= std::uint64_t{delay_ms} * percent / 100) return delay_ms;
    return qel_tw_calculate_jitter(delay_ms, percent, QEL_TIME_JITTER_ADD);
}

}  // namespace
}  // namespace qel::tw

using namespace qel;
using namespace qel::tw;
using qel::dm::bad_argument;

QEL_API int qel_tw_timer_basic_start(qel_tw wheel, qel_tw_timer_basic* timer, std::uint32_t delay_ms) {
    if (wheel == nullptr || timer == nullptr) return bad_argument<"TW20">("timer");
    return start_basic(*wheel, *timer, delay_ms);
}

QEL_API int qel_tw_timer_start(qel_tw wheel, qel_tw_timer* timer, std::uint32_t delay_ms,
                               qel_tw_handler handler, void* context) {
    if (wheel == nullptr || timer == nullptr || handler == nullptr) return bad_argument<"TW21">("timer");
    return start_callback(*wheel, *timer, delay_ms, handler, context);
}

QEL_API int qel_tw_timer_basic_start_jittered(qel_tw wheel, qel_tw_timer_basic* timer, std::uint32_t delay_ms,
                                              std::uint32_t percent) {
    if (wheel == nullptr || timer == nullptr) return bad_argument<"TW22">("timer");
    return start_basic(*wheel, *timer, with_jitter(*wheel, delay_ms, percent));
}

QEL_API int qel_tw_timer_start_jittered(qel_tw wheel, qel_tw_timer* timer, std::uint32_t delay_ms,
                                        std::uint32_t percent, qel_tw_handler handler, void* context) {
    if (wheel == nullptr || timer == nullptr || handler == nullptr) return bad_argument<"TW23">("timer");
    return start_callback(*wheel, *timer, with_jitter(*wheel, delay_ms, percent), handler, context);
}

QEL_API int qel_tw_timer_basic_stop(qel_tw_timer_basic* timer) {
    return timer != nullptr ? stop(*timer) : bad_argument<"TW24">("timer");
}

QEL_API int qel_tw_timer_stop(qel_tw_timer* timer) {
    return timer != nullptr ? stop(timer->basic) : bad_argument<"TW25">("timer");
}

QEL_API int qel_tw_timer_basic_stop_r(qel_tw wheel, qel_tw_timer_basic* timer) {
    if (wheel == nullptr || timer == nullptr) return bad_argument<"TW26">("timer");
    return stop_under_lock(*wheel, *timer);
}

QEL_API int qel_tw_timer_stop_r(qel_tw wheel, qel_tw_timer* timer) {
    if (wheel == nullptr || timer == nullptr) return bad_argument<"TW27">("timer");
    return stop_under_lock(*wheel, timer->basic);
}

QEL_API int qel_tw_timer_basic_running(const qel_tw_timer_basic* timer) {
    return timer != nullptr && is_linked(*timer);
}

QEL_API int qel_tw_timer_running(const qel_tw_timer* timer) {
    return timer != nullptr && is_linked(timer->basic);
}

QEL_API std::uint32_t qel_tw_timer_basic_remaining(qel_tw wheel, const qel_tw_timer_basic* timer) {
    return wheel != nullptr && timer != nullptr ? remaining(*wheel, *timer) : 0;
}

QEL_API std::uint32_t qel_tw_timer_remaining(qel_tw wheel, const qel_tw_timer* timer) {
    return wheel != nullptr && timer != nullptr ? remaining(*wheel, timer->basic) : 0;
}

QEL_API std::uint8_t qel_tw_timer_basic_get_type(qel_tw wheel, const qel_tw_timer_basic* timer) {
    if (wheel == nullptr || timer == nullptr) return 0;
    tw::Locked lock{wheel->mutex};
    return static_cast<std::uint8_t>(timer->time & wheel->type_mask);
}

QEL_API int qel_tw_timer_basic_set_type(qel_tw wheel, qel_tw_timer_basic* timer, std::uint8_t type) {
    if (wheel == nullptr || timer == nullptr) return bad_argument<"TW28">("timer");
    tw::Locked lock{wheel->mutex};
    if (int error = check_mode_locked(*wheel, Wheel::kBasic); error != 0) return error;
    if (type > wheel->type_mask) return bad_argument<"TW29">("type");
    timer->time = (timer->time & ~wheel->type_mask) | type;
    return 0;
}

QEL_API std::uint32_t qel_tw_calculate_jitter(std::uint32_t delay_ms, std::uint32_t percent,
                                              std::uint32_t type) {
    timespec delay = from_milliseconds(delay_ms);
    qel_time_calculate_jitter(&delay, percent, type);
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(std::min(qel_timespec_to_msec64(&delay), kMost));
}
