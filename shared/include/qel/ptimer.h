/** @file
 * Passive timers: an expiry time that never fires by itself; its owner asks whether it has run out.
 *
 * A timer holds a time of the monotonic clock. All zeros is "not running", so a zeroed timer is a stopped
 * one, and a result that would be exact zero is moved by one nanosecond where it could be taken for that.
 *
 *     struct timespec period = {1, 0};
 *     qel_ptimer timer;
 *     qel_ptimer_start(&timer, &period);
 *     ...
 *     if (qel_ptimer_running_and_awake(&timer)) {
 *         qel_ptimer_update(&timer, &period);   // the next period, without drift
 *         poll_the_links();
 *     }
 *
 * Threads: every call may run on any thread; a timer is plain memory of its owner, who guards it. Operands
 * may have any number of nanoseconds. Null operands do nothing, and predicates give 0 for them; predicates
 * give 1 or 0. */
#ifndef QEL_PTIMER_H
#define QEL_PTIMER_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/** A timer: the time at which it expires, or zeros. */
typedef struct timespec qel_ptimer;

/* Operators of qel_ptimer_compare(). */
#define QEL_PTIMER_EQ 1u /**< equal */
#define QEL_PTIMER_NE 2u /**< not equal */
#define QEL_PTIMER_GT 3u /**< later */
#define QEL_PTIMER_GE 4u /**< later or equal */
#define QEL_PTIMER_LT 5u /**< earlier */
#define QEL_PTIMER_LE 6u /**< earlier or equal */

/** Reads the clock that timers go by, the monotonic one. */
QEL_API void qel_ptimer_get_time(struct timespec* out);

/** Starts 'timer' to expire 'delay' from now; a delay of 0 or less expires at once, and still is running. */
QEL_API void qel_ptimer_start(qel_ptimer* timer, const struct timespec* delay);

/** The same with the delay changed by qel_time_calculate_jitter(). 'delay' itself stays. */
QEL_API void qel_ptimer_start_jitter(qel_ptimer* timer, const struct timespec* delay, uint32_t percent,
                                     uint32_t type);

/** Moves the expiry on by 'delay', whatever the clock says: the next period of a timer that doesn't drift.
 *
 * A negative delay changes nothing. */
QEL_API void qel_ptimer_update(qel_ptimer* timer, const struct timespec* delay);

/** The same with the delay shortened at random, jitter type QEL_TIME_JITTER_SUBTRACT. */
QEL_API void qel_ptimer_update_jitter(qel_ptimer* timer, const struct timespec* delay, uint32_t percent);

/** The same with a jitter type. */
QEL_API void qel_ptimer_update_jitter_with_type(qel_ptimer* timer, const struct timespec* delay,
                                                uint32_t percent, uint32_t type);

/** Stops 'timer': all zeros. */
QEL_API void qel_ptimer_stop(qel_ptimer* timer);

/** Tells whether 'timer' is running, expired or not. */
QEL_API int qel_ptimer_running(const qel_ptimer* timer);

/** Tells whether the expiry has come. True of a stopped timer as well. */
QEL_API int qel_ptimer_awake(const qel_ptimer* timer);

/** Tells whether 'timer' is running and has expired. */
QEL_API int qel_ptimer_running_and_awake(const qel_ptimer* timer);

/** Tells whether 'timer' is running and has not expired. */
QEL_API int qel_ptimer_running_and_sleeping(const qel_ptimer* timer);

/** Gives the time that is left until 'timer' expires, zero once it has. */
QEL_API void qel_ptimer_left_sleeping(struct timespec* out, const qel_ptimer* timer);

/** Gives the time since 'start', at least one nanosecond if the clock stands still. */
QEL_API void qel_ptimer_elapsed_time(struct timespec* out, const qel_ptimer* start);

/** Tells whether now is between 'start' and 'start' + 'length', both included. */
QEL_API int qel_ptimer_in_interval(const qel_ptimer* start, const struct timespec* length);

/** Gives 'b' - 'a'; a difference of zero is moved by one nanosecond. 'out' may be an operand. */
QEL_API void qel_ptimer_diff_timespec(struct timespec* out, const struct timespec* a,
                                      const struct timespec* b);

/** Gives 'a' + 'b'; a sum of zero stays zero. 'out' may be an operand. */
QEL_API void qel_ptimer_add_timespec(struct timespec* out, const struct timespec* a,
                                     const struct timespec* b);

/** Gives 'a' + 'b'; a sum of zero is moved by one nanosecond. 'out' may be an operand. */
QEL_API void qel_ptimer_add_delta(struct timespec* out, const struct timespec* a, const struct timespec* b);

/** Tells whether 'a' and 'b' stand in the relation 'op', one of QEL_PTIMER_EQ to QEL_PTIMER_LE; 0 for any
 * other. */
QEL_API int qel_ptimer_compare(const qel_ptimer* a, uint32_t op, const qel_ptimer* b);

/** Gives the one of two timers that runs and expires first: 'a' if 'b' isn't running or on equal times, 'b'
 * if 'a' isn't running. */
QEL_API const qel_ptimer* qel_ptimer_soonest(const qel_ptimer* a, const qel_ptimer* b);

/** Copies a timer as it is. */
QEL_API void qel_ptimer_copy_timestamp(const qel_ptimer* source, qel_ptimer* destination);

/** Brings the nanoseconds of 'value' into 0 to 999,999,999 and keeps the time. */
QEL_API void qel_ptimer_normalize_timespec(struct timespec* value);

QEL_END_DECLS

#endif
