// Ticks from a dispatcher: a timer of it runs out once a period, ticks the wheel, and is set again.
//
// The time from one setting of the timer to the next is held against what it was set to. A dispatcher may be
// early by a part of a millisecond; that is added to the next period, so that the wheel never runs ahead of
// the clock. One that is late is caught up with, if the wheel was made so: by whole ticks at once, and by a
// shorter period for the rest and for the time that the handlers took.
//
// Invariant: while attached, the timer is set or its expiry is being handled; a handler that ends its thread
// leaves it set. Locks: the wheel's mutex, then the dispatcher's. Threads: the dispatcher's; attach and
// detach on any. A timer that was picked before its wheel was detached or destroyed carries the wheel's
// number and the number of the attachment, finds either gone and does nothing. Restart: nothing stays.
#include <algorithm>
#include <cerrno>

#include "time/qel_time.hpp"
#include "timers/qel_tw.hpp"

namespace qel::tw {
namespace {

std::int64_t now_ns() {
    timespec now = monotonic_now();
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

std::int64_t granularity_ns(const Wheel& wheel) {
    return wheel.granularity * kNanosecondsPerMillisecond;
}

// What a dispatcher timer carries: the wheel's number below the attachment's.
void* token_locked(const Wheel& wheel) QEL_REQUIRES(wheel.mutex) {
    return reinterpret_cast<void*>(std::uintptr_t{wheel.attachment} << 32 | wheel.id);
}

int set_timer_locked(Wheel& wheel, std::int64_t now, std::int64_t period_ns) QEL_REQUIRES(wheel.mutex) {
    wheel.last_tick_ns = now;
    wheel.period_ns = period_ns;
    const timespec period = normalized({0, period_ns});
    return qel_dm_timer_settime(wheel.dispatcher, wheel.dm_timer, &period);
}

// How far an expiry is from its time: ticks to make up for, and the rest, which is negative for an early one.
struct Lateness {
    std::int64_t extra_ticks;
    std::int64_t rest_ns;
};

Lateness lateness_locked(const Wheel& wheel, std::int64_t now) QEL_REQUIRES(wheel.mutex) {
    const std::int64_t late = now - wheel.last_tick_ns - wheel.period_ns;
    if (late <= 0) return {0, late};
    if ((wheel.flags & Wheel::kCatchUp) == 0) return {0, 0};
    return {late / granularity_ns(wheel), late % granularity_ns(wheel)};
}

// Sets the timer after the ticks of an expiry that began at 'began'.
void rearm_locked(Wheel& wheel, std::int64_t began, std::int64_t rest_ns) QEL_REQUIRES(wheel.mutex) {
    const std::int64_t now = now_ns();
    const bool catch_up = (wheel.flags & Wheel::kCatchUp) != 0;
    const std::int64_t behind = rest_ns + (catch_up ? now - began : 0);
    const std::int64_t period = std::max<std::int64_t>(granularity_ns(wheel) - behind, 0);
    if (behind > granularity_ns(wheel))
        report<"TW40",
               "TW Wheel drift is greater than the granularity of the wheel. wheel=%p attached to QDM %s">(
            &wheel, qel_dm_get_name(wheel.dispatcher));
    // It fails when the dispatcher is being destroyed, which reports it.
    static_cast<void>(set_timer_locked(wheel, now, period));
}

// Sets the timer for the next period at the end of an expiry, also when a handler ends its thread in it.
class Rearm {
  public:
    Rearm(Wheel& wheel, const Ticker& ticker, std::int64_t began, std::int64_t rest_ns)
        : wheel_(wheel), ticker_(ticker), began_(began), rest_ns_(rest_ns) {}
    Rearm(const Rearm&) = delete;
    Rearm& operator=(const Rearm&) = delete;
    // Waking the dispatcher's threads is a cancellation point.
    ~Rearm() noexcept(false) {
        Locked lock{wheel_.mutex};
        if (may_tick_locked(wheel_, ticker_)) rearm_locked(wheel_, began_, rest_ns_);
    }

  private:
    Wheel& wheel_;
    const Ticker& ticker_;
    std::int64_t began_;
    std::int64_t rest_ns_;
};

void drive(Wheel& wheel, const Ticker& ticker) {
    const std::int64_t began = now_ns();
    Lateness late{};
    {
        Locked lock{wheel.mutex};
        if (!may_tick_locked(wheel, ticker)) return;
        late = lateness_locked(wheel, began);
    }
    Rearm rearm{wheel, ticker, began, late.rest_ns};
    for (std::int64_t i = 0; i <= late.extra_ticks; ++i)
        if (!run_tick(wheel, ticker)) return;
}

void timer_expired(qel_dm_handle, qel_dm_timer, void* context) {
    const auto token = reinterpret_cast<std::uintptr_t>(context);
    Retained<Wheel> wheel = wheels.retain<Wheel>(token & 0xffffffff);
    if (wheel) drive(*wheel, {true, static_cast<std::uint32_t>(token >> 32)});
}

int attach_locked(Wheel& wheel, qel_dm_handle dm) QEL_REQUIRES(wheel.mutex) {
    if (qel_dm_is_handle(wheel.dispatcher) != 0) return failed<"TW41", "TW qdm already attached">(EBUSY);
    static_cast<void>(detach_locked(wheel));  // From a dispatcher that was destroyed, if any.
    ++wheel.attachment;
    if (int error = qel_dm_timer_register(dm, &wheel.dm_timer, timer_expired, token_locked(wheel));
        error != 0)
        return error;
    wheel.dispatcher = dm;
    if (int error = set_timer_locked(wheel, now_ns(), granularity_ns(wheel)); error != 0) {
        static_cast<void>(detach_locked(wheel));  // The wheel was attached just now.
        return error;
    }
    return 0;
}

}  // namespace

int detach_locked(Wheel& wheel) {
    if (wheel.dispatcher == 0) return ENOENT;
    // A destroyed dispatcher has freed the timer.
    if (qel_dm_is_handle(wheel.dispatcher) != 0)
        static_cast<void>(qel_dm_timer_register(wheel.dispatcher, &wheel.dm_timer, nullptr, nullptr));
    wheel.dispatcher = 0;
    wheel.dm_timer = nullptr;
    ++wheel.attachment;
    return 0;
}

}  // namespace qel::tw

using namespace qel;
using namespace qel::tw;

QEL_API int qel_tw_attach_qdm(qel_tw wheel, qel_dm_handle dm) {
    if (wheel == nullptr) return dm::bad_argument<"TW42">("wheel");
    tw::Locked lock{wheel->mutex};
    if (!is_alive_locked(*wheel)) return dm::bad_argument<"TW43">("wheel");
    if (dm != 0) return attach_locked(*wheel, dm);
    int error = detach_locked(*wheel);
    return error == 0 ? 0 : failed<"TW44", "TW no qdm to detach">(error);
}
