/** @file
 * Being told when the system's real-time clock has been changed.
 *
 * The kernel's clock may be set at any time, by an operator or by NTP at start-up. Whoever keeps real times
 * registers a handler, which runs on the dispatcher of its choice after each change of a second or more:
 *
 *     static void clock_changed(uint64_t id, qel_dm_handle dm, void* calendar) { reload(calendar); }
 *
 *     uint64_t id;
 *     qel_time_clock_change_register(&id, dm, clock_changed, calendar);
 *
 * The clock is looked at once in an interval, by one timer for all registrations, on the dispatcher of the
 * oldest. The parameter "qel.time.clock-change-check-interval-sec" (61; below 2 counts as 2), read each time
 * that the timer is set, is its length in seconds. A dispatcher that is late is no change of the clock.
 *
 * When the dispatcher that has the timer is destroyed, the timer moves to another one with the next
 * registration or deregistration; what changed in the meantime is told then. So deregister first.
 *
 * Threads: both calls may be made from any thread and from inside any handler. Handlers run without a lock.
 */
#ifndef QEL_CLOCK_CHANGE_H
#define QEL_CLOCK_CHANGE_H

#include <qel/dm.h>

QEL_BEGIN_DECLS

/** The clock was changed. Runs as a job of 'dm', the dispatcher of the registration 'id'. */
typedef void (*qel_time_clock_change_handler)(uint64_t id, qel_dm_handle dm, void* context);

/**
 * Registers a handler. 'id' receives the number of the registration; the first one of a process is 0, and
 * none comes twice. 'context' is handed through.
 *
 * Returns 0; EINVAL for a null 'id' or 'handler' and for a 'dm' that isn't a dispatcher; ENOMEM; an error of
 * qel_dm_timer_register() or qel_dm_timer_settime(). */
QEL_API int qel_time_clock_change_register(uint64_t* id, qel_dm_handle dm,
                                           qel_time_clock_change_handler handler, void* context);

/** Ends a registration; an unknown 'id' is nothing to do. No call of its handler begins any more, but one
 * that has begun on another thread may still run. */
QEL_API void qel_time_clock_change_deregister(uint64_t id);

QEL_END_DECLS

#endif
