#ifndef QEL_TIME_H
#define QEL_TIME_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef struct qel_ntp_ts {
    uint32_t seconds;
    uint32_t fraction;
} qel_ntp_ts;

#define QEL_TIME_ZONE_UTC 1u
#define QEL_TIME_ZONE_LOCAL 2u

/* The most bytes, the NUL included, that qel_time_format_system_default writes. */
#define QEL_TIME_SYSTEM_DEFAULT_SIZE 28

QEL_API int qel_time_get_timespec(struct timespec* out);
QEL_API int qel_time_get_timespec_realtime(struct timespec* out);
QEL_API int qel_get_time(struct timespec* out);
QEL_API void clock_set_time(uint32_t seconds);
QEL_API int qel_time_get_boot_timespec(struct timespec* out);
QEL_API uint64_t qel_time_get_boot_time(void);
QEL_API uint32_t qel_time_get_icmp_time(void);
QEL_API int qel_time_get_tzone_offset(uint32_t* out);
QEL_API void qel_time_sleep(uint32_t milliseconds);

QEL_API int qel_time_timespec_to_msec64(const struct timespec* time, uint64_t* out);
QEL_API int qel_time_timespec_to_msec(const struct timespec* time, uint32_t* out);
QEL_API uint32_t qel_timespec_to_msec(const struct timespec* time);
QEL_API uint64_t qel_timespec_to_msec64(const struct timespec* time);
QEL_API int qel_time_msec_to_timespec(uint32_t milliseconds, struct timespec* out);
QEL_API int qel_time_msec64_to_timespec(uint64_t milliseconds, struct timespec* out);
QEL_API int qel_time_timespec_to_ntp_ts(const struct timespec* time, qel_ntp_ts* out);
QEL_API int qel_time_ntp_ts_to_timespec(const qel_ntp_ts* stamp, struct timespec* out);
QEL_API int qel_time_diff(const struct timespec* a, const struct timespec* b, struct timespec* out);
QEL_API int qel_time_msec64_to_string(uint64_t milliseconds, char* buffer, size_t size);

QEL_API size_t qel_time_format_timespec(const struct timespec* time, const char* format, uint32_t reserved,
                                        char* buffer, size_t size);
QEL_API size_t qel_time_format_timespec2(const struct timespec* time, const char* format, uint32_t zone,
                                         char* buffer, size_t size);
QEL_API size_t qel_time_format_system_default(const struct timespec* time, uint32_t zone, char* buffer);

#define QEL_TIME_JITTER_SUBTRACT 1u
#define QEL_TIME_JITTER_CENTERED 2u
#define QEL_TIME_JITTER_ADD 3u

QEL_API void qel_time_calculate_jitter(struct timespec* delay, uint32_t percent, uint32_t type);

QEL_END_DECLS

#endif
