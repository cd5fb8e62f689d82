/** @file
 * Time: clocks, a sleep, conversions, texts, jitter.
 *
 * A time or a delay is a struct timespec of signed 64-bit seconds and nanoseconds. Operands may have any
 * number of nanoseconds, also negative; results have 0 to 999,999,999 of them, so a negative time has
 * negative seconds only.
 *
 *     struct timespec now;
 *     char text[QEL_TIME_SYSTEM_DEFAULT_SIZE];
 *     qel_time_get_timespec_realtime(&now);
 *     qel_time_format_system_default(&now, QEL_TIME_ZONE_LOCAL, text);
 *
 * Threads: every call may run on any thread. None keeps a pointer that it is given. Results of type int are
 * plain errno values, 0 for success, unless told otherwise; outputs are written on success only. */
#ifndef QEL_TIME_H
#define QEL_TIME_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/** An NTP time stamp (RFC 5905, section 6): seconds since 1900-01-01 and a binary fraction of a second. */
typedef struct qel_ntp_ts {
    uint32_t seconds;  /**< since 1900-01-01, modulo 2^32 */
    uint32_t fraction; /**< in units of 2^-32 second */
} qel_ntp_ts;

#define QEL_TIME_ZONE_UTC 1u   /**< zone of the formatting calls: UTC */
#define QEL_TIME_ZONE_LOCAL 2u /**< zone of the formatting calls: that of TZ (tzset(3)) */

/** The most bytes, the NUL included, that qel_time_format_system_default() writes. */
#define QEL_TIME_SYSTEM_DEFAULT_SIZE 28

/** Reads the monotonic clock (CLOCK_MONOTONIC) into 'out'. Returns 0; EINVAL for null. */
QEL_API int qel_time_get_timespec(struct timespec* out);

/** Reads the real-time clock (CLOCK_REALTIME) into 'out', with a pending shift of clock_set_time() added.
 * Returns 0; EINVAL for null. */
QEL_API int qel_time_get_timespec_realtime(struct timespec* out);

/** The same as qel_time_get_timespec_realtime(). */
QEL_API int qel_get_time(struct timespec* out);

/** Adds 'seconds' to the next reading of the real-time clock in this process, and to that one only.
 *
 * The reading may be any thread's, and one that the library makes for itself, as for a trace entry, counts. A
 * second shift replaces one that is still pending. The system's clock is not touched. */
QEL_API void clock_set_time(uint32_t seconds);

/** Gives the real time at which the system started: real-time clock minus monotonic clock.
 *
 * Computed on the first call and the same for the life of the process, whatever the clock is set to later.
 * Returns 0; EINVAL for null. */
QEL_API int qel_time_get_boot_timespec(struct timespec* out);

/** Milliseconds since the system started, by the monotonic clock. */
QEL_API uint64_t qel_time_get_boot_time(void);

/** Milliseconds since midnight UT, the time stamp of ICMP (RFC 792). */
QEL_API uint32_t qel_time_get_icmp_time(void);

/** Gives the seconds that local time is east of UTC at present, a negative number as its two's complement.
 *
 * Returns 0; EINVAL for null; EFAULT if the system can't tell the local time. */
QEL_API int qel_time_get_tzone_offset(uint32_t* out);

/** Sleeps for 'milliseconds', through signals; 0 does nothing. A cancellation point. */
QEL_API void qel_time_sleep(uint32_t milliseconds);

/** Converts to milliseconds, rounded to the nearest, half up: 1.5 ms gives 2. Returns 0; EINVAL for null. */
QEL_API int qel_time_timespec_to_msec64(const struct timespec* time, uint64_t* out);

/** The same into 32 bits. Returns 0; EINVAL for null; EFAULT for a time that 32 bits can't hold. */
QEL_API int qel_time_timespec_to_msec(const struct timespec* time, uint32_t* out);

/** qel_time_timespec_to_msec() with the value as its result; 0 for null or a value that doesn't fit. */
QEL_API uint32_t qel_timespec_to_msec(const struct timespec* time);

/** qel_time_timespec_to_msec64() with the value as its result; 0 for null. */
QEL_API uint64_t qel_timespec_to_msec64(const struct timespec* time);

/** Converts milliseconds to a timespec. Returns 0; EINVAL for null. */
QEL_API int qel_time_msec_to_timespec(uint32_t milliseconds, struct timespec* out);

/** Converts milliseconds to a timespec. Returns 0; EINVAL for null and for 2^31 seconds (0x1f400000000) or
 * more. */
QEL_API int qel_time_msec64_to_timespec(uint64_t milliseconds, struct timespec* out);

/** Converts a time since 1970 to an NTP time stamp, modulo the era of 2^32 seconds. Returns 0; EINVAL for
 * null. */
QEL_API int qel_time_timespec_to_ntp_ts(const struct timespec* time, qel_ntp_ts* out);

/** Converts an NTP time stamp of the era that began in 1900 to a time since 1970; before 1970 it is negative.
 *
 * The fraction counts in steps of 1/65536 second. Returns 0; EINVAL for null. */
QEL_API int qel_time_ntp_ts_to_timespec(const qel_ntp_ts* stamp, struct timespec* out);

/** Gives the absolute difference of two times. Returns 0; EINVAL for null. */
QEL_API int qel_time_diff(const struct timespec* a, const struct timespec* b, struct timespec* out);

/** Writes a duration as a short text: "3y12w", "2w3d", "1d01h" or "23:59:59", by its largest unit.
 *
 * Years have 365 days. 'size' is the room at 'buffer' in bytes. Gives the length of the whole text as
 * snprintf does, so a result of 'size' or more tells that the text was cut; 0 for a null 'buffer' that has a
 * size. */
QEL_API int qel_time_msec64_to_string(uint64_t milliseconds, char* buffer, size_t size);

/** Writes a time in local time by a format of strftime. 'reserved' is not used.
 *
 * 'size' is the room at 'buffer' in bytes. Gives the length of the text; 0, and an empty text where there is
 * a buffer, on any failure: null, no room, a time that the calendar can't hold. */
QEL_API size_t qel_time_format_timespec(const struct timespec* time, const char* format, uint32_t reserved,
                                        char* buffer, size_t size);

/** The same in 'zone', QEL_TIME_ZONE_UTC or QEL_TIME_ZONE_LOCAL; any other zone is a failure. */
QEL_API size_t qel_time_format_timespec2(const struct timespec* time, const char* format, uint32_t zone,
                                         char* buffer, size_t size);

/** Writes a time as "Thu Jan 01 00:00:00.000 UTC".
 *
 * 'buffer' has room for QEL_TIME_SYSTEM_DEFAULT_SIZE bytes. Milliseconds are cut down. A zone name of more
 * than three letters is left out, and a date longer than the C locale's leaves the text empty. Gives the
 * length of the text, 0 for null or an unknown zone. */
QEL_API size_t qel_time_format_system_default(const struct timespec* time, uint32_t zone, char* buffer);

/** How qel_time_calculate_jitter() changes a delay d by a random part r of its range. */
#define QEL_TIME_JITTER_SUBTRACT 1u /**< d - r */
#define QEL_TIME_JITTER_CENTERED 2u /**< d + r - range / 2 */
#define QEL_TIME_JITTER_ADD 3u      /**< d + r */

/** Changes 'delay' in place by a random part of 'percent' of it, as 'type' says.
 *
 * The random part is below the range, 'percent' of the delay in whole milliseconds. The result is in whole
 * milliseconds. Nothing changes for a percent of 100 or more, a range of 1 ms or less, a negative delay or
 * null; an unknown type only cuts to milliseconds. Uses qel_random_uint32(), so it is no source of secrets.
 */
QEL_API void qel_time_calculate_jitter(struct timespec* delay, uint32_t percent, uint32_t type);

QEL_END_DECLS

#endif
