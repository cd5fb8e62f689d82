// The clock-change watch: tells registered handlers that the real-time clock has been set.
//
// The kernel's clock is polled. A dispatcher timer runs once in an interval, and what the real-time clock
// shows then is held against what it was to show. A timer that is late is told from a clock that was changed
// by the monotonic clock, which nobody sets. Each handler runs as a job of its own dispatcher, which carries
// the number of the registration and looks it up when it runs.
//
// One timer serves all registrations, on the dispatcher of the oldest. When that registration or that
// dispatcher goes, the timer moves to the oldest whose dispatcher lives; the clock is looked at before, so
// that a change isn't lost with the old appointment.
//
// Invariant: while some registration's dispatcher lives, the timer is set, unless the dispatcher that has it
// was destroyed after the last call, or memory was short. Locks: clock_change_mutex, then a dispatcher's. A
// timer that was picked and then moved carries the old number of its move and does nothing. Threads: any.
// Restart: nothing stays.
#include <qel/clock_change.h>
#include <qel/ppm.h>

#include <algorithm>
#include <cerrno>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "dispatch/qel_dm_report.hpp"
#include "time/qel_time.hpp"

namespace qel::clock_change {
namespace {

struct ReportedLockFailures {
    static void lock_failed(int error) { report<"CLK1", "%s mutex lock rc=%d">(error); }
    static void unlock_failed(int error) { report<"CLK2", "%s mutex unlock rc=%d">(error); }
};
using Locked = BasicLocked<ReportedLockFailures>;

constexpr const char* kIntervalKey = "qel.time.clock-change-check-interval-sec";
constexpr std::uint32_t kDefaultIntervalSeconds = 61;
constexpr std::uint32_t kMinIntervalSeconds = 2;

struct Registration {
    Registration* next;  // an older one
    std::uint64_t id;
    qel_dm_handle dispatcher;
    qel_time_clock_change_handler handler;
    void* context;
};

// When the timer is to run out, by both clocks.
struct Appointment {
    timespec real;
    timespec monotonic;
};

constinit Mutex clock_change_mutex;
constinit Registration* newest QEL_GUARDED_BY(clock_change_mutex) = nullptr;
constinit std::uint64_t next_id QEL_GUARDED_BY(clock_change_mutex) = 0;

constinit qel_dm_timer timer QEL_GUARDED_BY(clock_change_mutex) = nullptr;    // null while nothing is watched
constinit Registration* keeper QEL_GUARDED_BY(clock_change_mutex) = nullptr;  // whose dispatcher has it
constinit std::uint64_t moves QEL_GUARDED_BY(clock_change_mutex) = 0;
constinit Appointment appointment QEL_GUARDED_BY(clock_change_mutex){};  // zero without registrations

bool is_alive(const Registration& registration) {
    return qel_dm_is_handle(registration.dispatcher) != 0;
}

Registration* find_locked(std::uint64_t id) QEL_REQUIRES(clock_change_mutex) {
    Registration* at = newest;
    while (at != nullptr && at->id != id) at = at->next;
    return at;
}

Registration* oldest_alive_locked() QEL_REQUIRES(clock_change_mutex) {
    Registration* oldest = nullptr;
    for (Registration* at = newest; at != nullptr; at = at->next)
        if (is_alive(*at)) oldest = at;
    return oldest;
}

// ---- Telling

void tell(qel_dm_handle, std::uint64_t id, std::uint64_t) {
    Registration found{};
    {
        Locked lock{clock_change_mutex};
        const Registration* registration = find_locked(id);
        if (registration == nullptr) return;
        found = *registration;
    }
    found.handler(found.id, found.dispatcher, found.context);
}

// How far the real-time clock is from where the monotonic clock says that it should be.
timespec deviation_locked() QEL_REQUIRES(clock_change_mutex) {
    const timespec lateness = subtract(monotonic_now(), appointment.monotonic);
    const timespec expected = add(appointment.real, lateness);
    const timespec real = realtime_now();
    return order(real, expected) > 0 ? subtract(real, expected) : subtract(expected, real);
}

void tell_if_changed_locked() QEL_REQUIRES(clock_change_mutex) {
    if (!is_running(appointment.monotonic) || deviation_locked().tv_sec == 0) return;
    for (const Registration* at = newest; at != nullptr; at = at->next)
        if (int error = qel_dm_execute(at->dispatcher, tell, at->id, 0); error != 0)
            report<"CLK3", "%s clock change not told to id=%lu rc=%d">(at->id, error);
    // Told once, also when the timer can't be set again.
    appointment = {realtime_now(), monotonic_now()};
}

// ---- Watching

bool is_watched_locked() QEL_REQUIRES(clock_change_mutex) {
    return keeper != nullptr && is_alive(*keeper);
}

void unwatch_locked() QEL_REQUIRES(clock_change_mutex) {
    // A destroyed dispatcher has freed the timer.
    if (is_watched_locked())
        static_cast<void>(qel_dm_timer_register(keeper->dispatcher, &timer, nullptr, nullptr));
    timer = nullptr;
    keeper = nullptr;
    ++moves;
}

int arm_locked() QEL_REQUIRES(clock_change_mutex) {
    std::uint32_t seconds = kDefaultIntervalSeconds;
    static_cast<void>(qel_ppm_get_integer(kIntervalKey, kDefaultIntervalSeconds, &seconds));
    const timespec interval{std::max(seconds, kMinIntervalSeconds), 0};
    if (int error = qel_dm_timer_settime(keeper->dispatcher, timer, &interval); error != 0) {
        unwatch_locked();
        return error;
    }
    appointment = {add(realtime_now(), interval), add(monotonic_now(), interval)};
    return 0;
}

void timer_expired(qel_dm_handle, qel_dm_timer, void* move) {
    Locked lock{clock_change_mutex};
    if (reinterpret_cast<std::uintptr_t>(move) != moves) return;
    tell_if_changed_locked();
    static_cast<void>(arm_locked());  // It fails when the dispatcher is being destroyed.
}

// Gives the timer to the oldest registration whose dispatcher lives, if there is one.
int watch_locked() QEL_REQUIRES(clock_change_mutex) {
    unwatch_locked();
    Registration* oldest = oldest_alive_locked();
    if (oldest == nullptr) return 0;
    void* const move = reinterpret_cast<void*>(moves);
    if (int error = qel_dm_timer_register(oldest->dispatcher, &timer, timer_expired, move); error != 0)
        return error;
    keeper = oldest;
    return arm_locked();
}

// ---- The list

int add_locked(Owned<Registration>& registration) QEL_REQUIRES(clock_change_mutex) {
    const bool watched = is_watched_locked();
    if (!watched) tell_if_changed_locked();  // Before the newcomer, which it doesn't concern.
    registration->next = newest;
    registration->id = next_id;
    newest = registration.get();
    if (int error = watched ? 0 : watch_locked(); error != 0) {
        newest = registration->next;
        return error;
    }
    ++next_id;
    static_cast<void>(registration.release());  // The list's now.
    return 0;
}

Registration* remove_locked(std::uint64_t id) QEL_REQUIRES(clock_change_mutex) {
    Registration** place = &newest;
    while (*place != nullptr && (*place)->id != id) place = &(*place)->next;
    Registration* removed = *place;
    if (removed == nullptr) return nullptr;
    *place = removed->next;
    if (removed == keeper) unwatch_locked();
    return removed;
}

}  // namespace
}  // namespace qel::clock_change

using namespace qel;
using namespace qel::clock_change;
using qel::dm::bad_argument;

QEL_API int qel_time_clock_change_register(std::uint64_t* id, qel_dm_handle dm,
                                           qel_time_clock_change_handler handler, void* context) {
    if (id == nullptr) return bad_argument<"CLK4">("id");
    if (qel_dm_is_handle(dm) == 0) return bad_argument<"CLK5">("qdm");
    if (handler == nullptr) return bad_argument<"CLK6">("handler");
    Owned<Registration> registration = allocate_zeroed<Registration>(QEL_MEM_TIMER);
    if (!registration) return dm::no_memory<"CLK7">();
    *registration = {nullptr, 0, dm, handler, context};
    clock_change::Locked lock{clock_change_mutex};
    Registration& added = *registration;
    if (int error = add_locked(registration); error != 0) return error;
    *id = added.id;
    return 0;
}

QEL_API void qel_time_clock_change_deregister(std::uint64_t id) {
    Owned<Registration> removed;
    clock_change::Locked lock{clock_change_mutex};
    removed.reset(remove_locked(id));
    if (newest == nullptr) appointment = {};
    if (!removed || is_watched_locked()) return;
    tell_if_changed_locked();
    // Where it fails for want of memory, the next call tries again.
    static_cast<void>(watch_locked());
}
