// The timer wheel's inside: its record, and what the files qel_tw*.cpp offer each other.
//
// qel_tw.cpp           wheels: making, destroying, the handler table
// qel_tw_timer.cpp     the exported calls on timers
// qel_tw_slots.cpp     where a timer waits, how it comes down, and the tick that fires it
// qel_tw_dispatch.cpp  ticks from a dispatcher
//
// A function that ends in _locked needs the wheel's mutex; run_tick() lets it go around handlers.
#pragma once

#include <qel/tw.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "containers/qel_idm_family.hpp"
#include "core/qel_lock.hpp"
#include "dispatch/qel_dm_report.hpp"

namespace qel::tw {

// What a timer and the head of a slot begin with. A list is a ring through its head; the links of a timer on
// no list are null. 'next' is written atomically, so that anybody may ask whether a timer runs.
struct [[gnu::may_alias]] Link {
    Link* next;
    Link* prev;
};
static_assert(std::is_standard_layout_v<qel_tw_timer> && sizeof(qel_tw_timer_basic) == 24);
static_assert(offsetof(qel_tw_timer_basic, next) == offsetof(Link, next) &&
              offsetof(qel_tw_timer_basic, prev) == offsetof(Link, prev) &&
              offsetof(qel_tw_timer, basic) == 0);

struct Row {
    qel_tw_basic_handler handler;  // null in an empty row
    std::uint8_t type;             // 0 in an empty row
};

}  // namespace qel::tw

struct qel_tw_wheel {
    static constexpr std::uint32_t kInitialised = 0x1;
    static constexpr std::uint32_t kBasic = 0x10;
    static constexpr std::uint32_t kCallback = 0x20;
    static constexpr std::uint32_t kCatchUp = 0x80;

    std::uint32_t levels;
    std::uint32_t size;  // slots a level
    std::uint32_t bits;  // log2 of 'size'
    std::uint32_t slot_mask;
    std::uint32_t granularity;  // ms
    std::uint32_t granularity_bits;
    std::uint32_t max_types;
    std::uint32_t type_mask;
    std::uint32_t time_shift;
    std::uint32_t flags QEL_GUARDED_BY(mutex);  // all but kInitialised stay as they were made
    std::uint32_t tick_mask;
    std::uint32_t current_tick QEL_GUARDED_BY(mutex);
    qel::tw::Link* wheels;  // slot s of level l is wheels[l * size + s]; they follow the record
    qel::Mutex mutex;

    qel::tw::Link due QEL_GUARDED_BY(mutex);  // taken from their slot by a tick, not yet fired
    qel_tw_basic_handler global_handler;
    qel::tw::Row* type_table QEL_GUARDED_BY(mutex);
    std::uint32_t id;  // in 'wheels' of qel_tw.cpp

    std::uint32_t attachment QEL_GUARDED_BY(mutex);  // counts attaches and detaches
    qel_dm_handle dispatcher QEL_GUARDED_BY(mutex);  // 0 while detached
    qel_dm_timer dm_timer QEL_GUARDED_BY(mutex);
    std::int64_t period_ns QEL_GUARDED_BY(mutex);     // what 'dm_timer' was last set to
    std::int64_t last_tick_ns QEL_GUARDED_BY(mutex);  // and when, by the monotonic clock
};

namespace qel::tw {

using Wheel = qel_tw_wheel;

struct ReportedLockFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
};
using Locked = BasicLocked<ReportedLockFailures>;

// The wheel whose tick the calling thread runs, the innermost one; else null.
inline constinit thread_local Wheel* ticking_here = nullptr;

// ---- qel_tw.cpp

extern FamilyPool wheels;

bool is_alive_locked(const Wheel& wheel) QEL_REQUIRES(wheel.mutex);
// The handler of a basic timer, or null.
qel_tw_basic_handler basic_handler_locked(const Wheel& wheel, const qel_tw_timer_basic& timer)
    QEL_REQUIRES(wheel.mutex);
// Refuses a wheel of another mode and one that is destroyed: 0 or EINVAL.
int check_mode_locked(const Wheel& wheel, std::uint32_t mode) QEL_REQUIRES(wheel.mutex);

// ---- qel_tw_slots.cpp

// Puts a timer that is on no list where it fires 'delay_ms' from now.
void place_locked(Wheel& wheel, qel_tw_timer_basic& timer, std::uint32_t delay_ms) QEL_REQUIRES(wheel.mutex);
std::uint32_t remaining_locked(const Wheel& wheel, const qel_tw_timer_basic& timer) QEL_REQUIRES(wheel.mutex);
void empty_all_slots_locked(Wheel& wheel) QEL_REQUIRES(wheel.mutex);

// Who ticks: an application, or a dispatcher for as long as the attachment lasts.
struct Ticker {
    bool driven = false;
    std::uint32_t attachment = 0;
};
bool may_tick_locked(const Wheel& wheel, const Ticker& ticker) QEL_REQUIRES(wheel.mutex);
// One tick with all its handlers, for a caller that retains the wheel. False when the ticker may not tick any
// more.
bool run_tick(Wheel& wheel, const Ticker& ticker);

// ---- qel_tw_dispatch.cpp

// 0, or ENOENT if the wheel isn't attached.
int detach_locked(Wheel& wheel) QEL_REQUIRES(wheel.mutex);

// ---- Lists

inline Link& link_of(qel_tw_timer_basic& timer) {
    return reinterpret_cast<Link&>(timer);
}
inline qel_tw_timer_basic& timer_of(Link& link) {
    return reinterpret_cast<qel_tw_timer_basic&>(link);
}

inline void set_next(Link& link, Link* next) {
    std::atomic_ref{link.next}.store(next, std::memory_order_relaxed);
}
inline bool is_linked(const qel_tw_timer_basic& timer) {
    Link& link = link_of(const_cast<qel_tw_timer_basic&>(timer));
    return std::atomic_ref{link.next}.load(std::memory_order_relaxed) != nullptr;
}

inline void make_empty(Link& head) {
    head = {&head, &head};
}
inline bool is_empty(const Link& head) {
    return head.next == &head;
}

inline void append(Link& link, Link& head) {
    Link* last = head.prev;
    link.prev = last;
    set_next(link, &head);
    set_next(*last, &link);
    head.prev = &link;
}

inline void take_off(Link& link) {
    set_next(*link.prev, link.next);
    link.next->prev = link.prev;
    link.prev = nullptr;
    set_next(link, nullptr);
}

inline void stop_locked(qel_tw_timer_basic& timer) {
    if (is_linked(timer)) take_off(link_of(timer));
}

// Appends all of 'from', in their order, and leaves it empty.
inline void append_all(Link& from, Link& head) {
    if (is_empty(from)) return;
    from.next->prev = head.prev;
    set_next(*head.prev, from.next);
    set_next(*from.prev, &head);
    head.prev = from.prev;
    make_empty(from);
}

}  // namespace qel::tw
