/** @file
 * Timer wheels: very many timers at one granularity, started and stopped at a fixed cost.
 *
 * A wheel counts ticks of 'granularity' milliseconds and keeps each timer in a slot of its expiry tick: near
 * ones in the lowest level, one slot a tick, far ones in coarser levels from which they come down as their
 * time approaches. Ticks come from a dispatcher, or from qel_tw_tick(). The caller owns the timers and never
 * moves or frees one that runs.
 *
 *     struct session { qel_tw_timer hold; ... };
 *     static void expired(qel_tw wheel, qel_tw_timer* timer, void* session) { ... }
 *
 *     qel_tw wheel = NULL;
 *     if (qel_tw_init_wheel(&wheel, 8, 60000, 0, QEL_TW_MODE_CALLBACK, NULL, 1) != 0) return 1;
 *     qel_tw_attach_qdm(wheel, dm);
 *     qel_tw_timer_start(wheel, &session->hold, 30000, expired, session);
 *
 * A wheel has one of two modes. In QEL_TW_MODE_CALLBACK each timer brings handler and context. In
 * QEL_TW_MODE_BASIC timers are small: one global handler takes all of them, or a timer's type, kept in the
 * low bits of its 'time', selects the handler from a table. Timers start out zeroed.
 *
 * A timer fires at the present tick plus its delay in ticks, rounded up: not early by rounding, and up to one
 * granularity before the delay is over, because the present tick began in the past. A delay of 0 fires when
 * the wheel comes back to the present slot, that is one tick for each slot of the lowest level later. Timers
 * of one tick fire in the order in which they came into its slot of the lowest level; those that were started
 * in the same tick so fire in the order of their starts.
 *
 * Threads: every call but qel_tw_timer_stop() and qel_tw_timer_basic_stop() may be made from any thread and
 * from inside any handler. Handlers run without a lock, with their timer stopped: they may start and stop any
 * timer, tick, attach, detach or destroy the wheel, and end their thread, which loses no other timer. Where
 * several threads tick, handlers run side by side. A handler that a thread has begun to call when another one
 * stops its timer, detaches or destroys still runs. Nobody may be inside a call on a wheel that another
 * thread destroys, but those whose handler the wheel runs.
 *
 * Results are plain errno numbers. EINVAL stands for a null argument and, but for the stops, for a wheel of
 * the other mode where the mode matters, and for one that was destroyed by the handler that asks; the single
 * calls repeat it only where they add to that. */
#ifndef QEL_TW_H
#define QEL_TW_H

#include <qel/dm.h>

QEL_BEGIN_DECLS

#define QEL_TW_MODE_CALLBACK 0u /**< each timer has a handler and a context */
#define QEL_TW_MODE_BASIC 1u    /**< timers have a type, or nothing but their time */

/** A wheel; null is none. */
typedef struct qel_tw_wheel* qel_tw;

/** A timer of a basic wheel. The library's to write, but for 'time' of a stopped timer, see
 * qel_tw_timer_basic_set_type(). */
typedef struct qel_tw_timer_basic {
    struct qel_tw_timer_basic* next; /**< null when the timer isn't running */
    struct qel_tw_timer_basic* prev; /**< null when the timer isn't running */
    uint32_t time;                   /**< expiry tick << log2(granularity), the type in the low bits */
} qel_tw_timer_basic;

/** A timer of a callback wheel. */
typedef struct qel_tw_timer qel_tw_timer;

/** A timer of a basic wheel that ran out. */
typedef void (*qel_tw_basic_handler)(qel_tw_timer_basic* timer);
/** A timer of a callback wheel that ran out. */
typedef void (*qel_tw_handler)(qel_tw wheel, qel_tw_timer* timer, void* context);

/** A timer of a callback wheel, as memory. */
struct qel_tw_timer {
    qel_tw_timer_basic basic; /**< what it has in common with the basic form */
    qel_tw_handler handler;   /**< stored by the start */
    void* context;            /**< stored by the start, handed to the handler */
};

/** A row of the table that qel_tw_load_table() reads. */
typedef struct qel_tw_type_row {
    uint8_t type;                 /**< 0 ends the table */
    qel_tw_basic_handler handler; /**< for timers of that type; null for none */
} qel_tw_type_row;

/**
 * Makes a wheel.
 *
 * 'granularity' is the length of a tick in ms, a power of two. 'longest_delay', in ms, sets the size: the
 * power of two from 64 to 2048 slots a level that is above longest_delay / granularity, where there is one.
 * Longer delays are allowed. 'max_types' is for the basic mode: rows of the table, 1 to 'granularity'.
 * 'global_handler' is for the basic mode too, or null. With 'catch_up' a late dispatcher makes up for missed
 * ticks; without it time on the wheel falls behind.
 *
 * Returns 0; EINVAL for a null 'out', for '*out' that isn't null and for the numbers named above; ENOMEM,
 * also when 65,536 wheels exist; an error of the mutex. */
QEL_API int qel_tw_init_wheel(qel_tw* out, uint32_t granularity, uint32_t longest_delay, uint32_t max_types,
                              uint32_t mode, qel_tw_basic_handler global_handler, int catch_up);

/** Detaches and frees a wheel and clears the caller's variable. Timers that still run are stopped. Returns 0
 * or EINVAL. */
QEL_API int qel_tw_destroy_wheel(qel_tw* wheel);

/**
 * Lets a dispatcher tick the wheel, or with 'dm' 0 ends that. Ticks of a dispatcher that is destroyed end; a
 * wheel so left behind can be detached, and can be attached to another one.
 *
 * After a detach a driven tick calls no further handler; timers that were due wait for the next tick.
 *
 * Returns 0; EINVAL; EBUSY if it is attached; ENOENT for a detach when it isn't; ENOMEM. */
QEL_API int qel_tw_attach_qdm(qel_tw wheel, qel_dm_handle dm);

/** One tick: calls the handlers of all timers that run out with it. Returns 0 or EINVAL. */
QEL_API int qel_tw_tick(qel_tw wheel);

/** The wheel's granularity in ms; 0 for null. */
QEL_API uint32_t qel_tw_granularity(qel_tw wheel);

/**
 * Puts a handler into the row of 'type' of a basic wheel's table; null empties the row. A table must have
 * been loaded. Type t has row (t - 1) modulo the wheel's max_types.
 *
 * Returns 0; EINVAL, also for type 0, without a table and with a global handler; EEXIST if another type has
 * the row. */
QEL_API int qel_tw_set_handler(qel_tw wheel, uint8_t type, qel_tw_basic_handler handler);

/** The handler of 'type', 1 to max_types - 1; null for null, other types, an empty row, and a wheel with a
 * global handler or without a table, as a callback wheel is. */
QEL_API qel_tw_basic_handler qel_tw_get_handler(qel_tw wheel, uint8_t type);

/**
 * Makes the table of a basic wheel, in place of one that it has, from rows that end with type 0. Of these at
 * most max_types are stored; a row whose type is max_types or more is skipped. 'table' is not kept.
 *
 * Returns 0; EINVAL, also with a global handler; ENOMEM. */
QEL_API int qel_tw_load_table(qel_tw wheel, const qel_tw_type_row* table);

/** Starts a timer, or starts it afresh if it runs on this wheel; it keeps its type. Returns 0 or EINVAL. */
QEL_API int qel_tw_timer_basic_start(qel_tw wheel, qel_tw_timer_basic* timer, uint32_t delay_ms);
/** The same on a callback wheel. Returns 0 or EINVAL. */
QEL_API int qel_tw_timer_start(qel_tw wheel, qel_tw_timer* timer, uint32_t delay_ms, qel_tw_handler handler,
                               void* context);

/** Starts a timer with up to 'percent' of the delay added at random, if that many are more than the
 * granularity; see QEL_TIME_JITTER_ADD. Returns 0 or EINVAL. */
QEL_API int qel_tw_timer_basic_start_jittered(qel_tw wheel, qel_tw_timer_basic* timer, uint32_t delay_ms,
                                              uint32_t percent);
/** The same on a callback wheel. Returns 0 or EINVAL. */
QEL_API int qel_tw_timer_start_jittered(qel_tw wheel, qel_tw_timer* timer, uint32_t delay_ms,
                                        uint32_t percent, qel_tw_handler handler, void* context);

/**
 * Stops a timer, running or not. For the thread that ticks the wheel: inside handlers of this wheel it is
 * always allowed; elsewhere only while no other thread uses the wheel, since it then takes no lock.
 * Returns 0 or EINVAL. */
QEL_API int qel_tw_timer_basic_stop(qel_tw_timer_basic* timer);
/** The same for a timer of a callback wheel. */
QEL_API int qel_tw_timer_stop(qel_tw_timer* timer);

/** Stops a timer, running or not, from any thread. Returns 0, also on a wheel that is destroyed, which has
 * stopped its timers; EINVAL for null. */
QEL_API int qel_tw_timer_basic_stop_r(qel_tw wheel, qel_tw_timer_basic* timer);
/** The same for a timer of a callback wheel. */
QEL_API int qel_tw_timer_stop_r(qel_tw wheel, qel_tw_timer* timer);

/** 1 if the timer runs; 0 if it doesn't, in its own handler and for null. A snapshot. */
QEL_API int qel_tw_timer_basic_running(const qel_tw_timer_basic* timer);
/** The same for a timer of a callback wheel. */
QEL_API int qel_tw_timer_running(const qel_tw_timer* timer);

/** The ms from the present tick to the timer's, modulo 2^32, so 0 for one that was started with 0; 0 if it
 * doesn't run and for null. */
QEL_API uint32_t qel_tw_timer_basic_remaining(qel_tw wheel, const qel_tw_timer_basic* timer);
/** The same for a timer of a callback wheel. */
QEL_API uint32_t qel_tw_timer_remaining(qel_tw wheel, const qel_tw_timer* timer);

/** The timer's type; 0 for null and on a callback wheel. */
QEL_API uint8_t qel_tw_timer_basic_get_type(qel_tw wheel, const qel_tw_timer_basic* timer);
/** Sets the type of a timer, running or not; 0 is none. Returns 0; EINVAL, also for a type that is the
 * granularity or more, which the low bits of 'time' can't hold. */
QEL_API int qel_tw_timer_basic_set_type(qel_tw wheel, qel_tw_timer_basic* timer, uint8_t type);

/** Gives a delay changed by qel_time_calculate_jitter(); 'type' is a QEL_TIME_JITTER_*. A result beyond 32
 * bits becomes the highest delay. */
QEL_API uint32_t qel_tw_calculate_jitter(uint32_t delay_ms, uint32_t percent, uint32_t type);

QEL_END_DECLS

#endif
