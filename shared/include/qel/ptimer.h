#ifndef QEL_PTIMER_H
#define QEL_PTIMER_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef struct timespec qel_ptimer;

#define QEL_PTIMER_EQ 1u
#define QEL_PTIMER_NE 2u
#define QEL_PTIMER_GT 3u
#define QEL_PTIMER_GE 4u
#define QEL_PTIMER_LT 5u
#define QEL_PTIMER_LE 6u

QEL_API void qel_ptimer_get_time(struct timespec* out);
QEL_API void qel_ptimer_start(qel_ptimer* timer, const struct timespec* delay);
QEL_API void qel_ptimer_start_jitter(qel_ptimer* timer, const struct timespec* delay, uint32_t percent,
                                     uint32_t type);
QEL_API void qel_ptimer_update(qel_ptimer* timer, const struct timespec* delay);
QEL_API void qel_ptimer_update_jitter(qel_ptimer* timer, const struct timespec* delay, uint32_t percent);
QEL_API void qel_ptimer_update_jitter_with_type(qel_ptimer* timer, const struct timespec* delay,
                                                uint32_t percent, uint32_t type);
QEL_API void qel_ptimer_stop(qel_ptimer* timer);
QEL_API int qel_ptimer_running(const qel_ptimer* timer);
QEL_API int qel_ptimer_awake(const qel_ptimer* timer);
QEL_API int qel_ptimer_running_and_awake(const qel_ptimer* timer);
QEL_API int qel_ptimer_running_and_sleeping(const qel_ptimer* timer);
QEL_API void qel_ptimer_left_sleeping(struct timespec* out, const qel_ptimer* timer);
QEL_API void qel_ptimer_elapsed_time(struct timespec* out, const qel_ptimer* start);
QEL_API int qel_ptimer_in_interval(const qel_ptimer* start, const struct timespec* length);
QEL_API void qel_ptimer_diff_timespec(struct timespec* out, const struct timespec* a,
                                      const struct timespec* b);
QEL_API void qel_ptimer_add_timespec(struct timespec* out, const struct timespec* a,
                                     const struct timespec* b);
QEL_API void qel_ptimer_add_delta(struct timespec* out, const struct timespec* a, const struct timespec* b);
QEL_API int qel_ptimer_compare(const qel_ptimer* a, uint32_t op, const qel_ptimer* b);
QEL_API const qel_ptimer* qel_ptimer_soonest(const qel_ptimer* a, const qel_ptimer* b);
QEL_API void qel_ptimer_copy_timestamp(const qel_ptimer* source, qel_ptimer* destination);
QEL_API void qel_ptimer_normalize_timespec(struct timespec* value);

QEL_END_DECLS

#endif
