/** @file
 * The log path of the debug trace: one call that feeds a trace buffer, a debug flag, or both.
 *
 * A trace buffer (qel/dt_buffer.h) records in shared memory, cheaply, and outlives the process. A flag is a
 * named switch in a tree; what is logged on it is printed on its ttys (named outputs) through one callback of
 * the process, either all of it or what a filter of the tty matches.
 *
 *     static const uint32_t types = QEL_DT_FILTER_STRING;
 *     qel_dt_flag *daemon, *links;
 *     qel_dt_flag_init(&daemon, "daemon", NULL, NULL, 0);
 *     qel_dt_flag_init(&links, "links", daemon, &types, 0);
 *     qel_dt_flag_set_filter(links, 1, QEL_DT_FILTER_STRING, (uint64_t)(uintptr_t)"eth0", "console");
 *
 *     static uint32_t this_tp = QEL_DT_TP_UNREGISTERED;
 *     _qel_dt_log_filter_adv(links, buffer, 0, 0, QEL_DT_FILTER_STRING, (uint64_t)(uintptr_t)name, &this_tp,
 *                            "%s is up, mtu %u", name, mtu);
 *
 * Trace point. Each call site owns a static word 'this_tp' that starts as QEL_DT_TP_UNREGISTERED. The first
 * entry that it writes into a buffer registers the format and makes the word the format's index in the
 * machine's shared list; QEL_DT_TP_UNUSABLE marks a site whose format can't be used.
 *
 * Formats are printf's. What a buffer can hold of them is told at qel_dt_init_tp(); a flag alone takes all of
 * them.
 *
 * Filters. A flag supports a set of filter types. A logged line carries a type and a value, or type 0 and
 * none; a tty's filter matches if type and value are equal. A value is a number, or the address of a string;
 * a filter keeps a copy of the string, and its first 128 characters count. A type that is a union of several
 * bits compares all 64 bits of the value as a number.
 *
 * Names. A flag's first 64 characters and a tty's first 127 count. A null or empty tty name means the first
 * tty that the flag has, and the unnamed default output where a flag without one gets a new tty.
 *
 * Threads. All calls may run in any thread. The debug lock of the process serialises the changes of flags and
 * the printing; a log call on a flag without ttys takes no lock, nor does writing into a buffer. Nobody may
 * use a flag while it or a flag above it is destroyed.
 *
 * Results are 0 or an errno number. Calls on flags, and log calls on a flag that would print, give EDEADLK
 * when they come from inside the log callback.
 */
#ifndef QEL_DT_H
#define QEL_DT_H

#include <stdarg.h>

#include <qel/dt_buffer.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

/** Option of a flag: enabling and filters of its parent don't descend into it; disabling does. */
#define QEL_DT_FLAG_INDEPENDENT 0x1u

#define QEL_DT_FILTER_UINT32 0x01u /**< filter type: a number of which the low 32 bits count */
#define QEL_DT_FILTER_UINT64 0x02u /**< filter type: a number of 64 bits */
#define QEL_DT_FILTER_STRING 0x10u /**< filter type: the address of a string */

/** A flag; made by qel_dt_flag_init(). */
typedef struct qel_dt_flag qel_dt_flag;

/** Prints one line on the tty 'tty' ("" is the default output) and returns 0, or an errno number, which ends
 * the log call and is its result. Runs with the debug lock held, on the logging thread: it must not work on
 * flags nor log on one. 'tty', 'format' and 'args' are good during the call only. */
typedef int (*qel_dt_log_callback)(void* context, const char* tty, const char* format, va_list args);

/** The library's common error buffer, "qel.gen.buffer.errors", or null before the first report. Every family
 * reports its failures there. The library makes it, with the size in bytes of the parameter
 * "qel.gen.buffer.errors.size" (default 327,680). */
extern QEL_API qel_dt_buffer_handle qel_gen_error_buffer;

/** Makes a flag, without ttys, below 'parent', or a root if 'parent' is null. A root only groups: what is
 * logged on it is refused.
 *
 * 'supported_filters' points at a mask of the filter types that the flag takes, null for none. 'options' is 0
 * or QEL_DT_FLAG_INDEPENDENT. The caller owns the flag and gives it back by destroying it or a flag above it.
 *
 * Returns 0; EINVAL for a null 'out', a null or empty name, other options or a parent that isn't alive;
 * EOPNOTSUPP for a mask with any of the bits 0x6c; EEXIST if the parent has a child of that name; ENOMEM,
 * with a null '*out'; in the other failures '*out' stays as it was. */
QEL_API int qel_dt_flag_init(qel_dt_flag** out, const char* name, qel_dt_flag* parent,
                             const uint32_t* supported_filters, uint32_t options);

/** Destroys the flag and all flags below it, the lowest first, and clears '*flag'.
 *
 * Returns 0; EINVAL for a null pointer or a flag that isn't alive. */
QEL_API int qel_dt_flag_destroy(qel_dt_flag** flag);

/** Prints all that is logged on the flag, and on the flags below that aren't independent, on 'tty'; takes the
 * place of the tty's filters.
 *
 * Returns 0; EINVAL for a flag that isn't alive; ENOMEM, when the flags that the change hadn't reached are as
 * before. */
QEL_API int qel_dt_flag_enable(qel_dt_flag* flag, const char* tty);

/** Removes the tty with all that was asked of it from the flag and from all flags below, the independent ones
 * too.
 *
 * Returns 0, also if there is no such tty; EINVAL for a flag that isn't alive. */
QEL_API int qel_dt_flag_disable(qel_dt_flag* flag, const char* tty);

/** Returns 1 if the flag has a tty, 0 if it has none or isn't alive. Takes no lock. */
QEL_API int qel_dt_flag_enabled(const qel_dt_flag* flag);

/** With 'on', makes the filter the only one of the tty, which is made if needed; nothing changes on a tty
 * that prints all. Without, removes that filter from the tty, and the tty with its last filter.
 *
 * The change goes on to the children that aren't independent and support the type, and from these further
 * down.
 *
 * Returns 0; EINVAL for a flag that isn't alive or supports no bit of the type, or a string of address 0;
 * ENOMEM, when the flags that the change hadn't reached are as before. */
QEL_API int qel_dt_flag_set_filter(qel_dt_flag* flag, int on, uint32_t type, uint64_t value, const char* tty);

/** Adds one more filter to the tty, of which any may match. Else as qel_dt_flag_set_filter() with 'on'. */
QEL_API int qel_dt_flag_set_filter_or(qel_dt_flag* flag, uint32_t type, uint64_t value, const char* tty);

/** Prints the flag, its ttys and their filters on standard output. Returns 0; EINVAL for a null flag. A
 * record that isn't a live flag is shown as such, without its ttys. */
QEL_API int qel_dt_flag_print_state(const qel_dt_flag* flag);

/** Makes 'function' the log callback of the process, to be called with 'context'. Takes no lock: set it while
 * nothing logs. Returns 0; EINVAL for a null function. */
QEL_API int qel_dt_register_log_callback(qel_dt_log_callback function, void* context);

/** Puts the default back: a line of at most 160 characters, headed by the local time, for the system log at
 * priority LOG_DEBUG (syslog.h). Returns 0. */
QEL_API int qel_dt_deregister_log_callback(void);

/** Returns 1 if an entry of 'level' (QEL_DT_LEVEL_*) would enter the buffer: 'level' isn't above the
 * buffer's. 0 for a null buffer, and if its replacement can't be mapped. A few loads, no lock; every level
 * passes while the buffer is being remapped. */
QEL_API int qel_dt_trace_enabled(qel_dt_buffer_handle buffer, uint32_t level);

/** Logs: writes the entry into 'buffer' if that isn't null, then prints it on 'flag' if that isn't null and
 * nothing failed.
 *
 * 'least_args' is the least number of arguments that the format must have. The reserved word is ignored.
 * 'filter_type' and 'filter_value' tell what the line is about (0 and 0 for nothing), for the filters of the
 * flag's ttys. 'tp' is the site's trace point word; only a log call without a buffer may do without.
 *
 * Returns 0, also with neither buffer nor flag; of the buffer E2BIG for a format of more than 16 or less than
 * 'least_args' conversions or arguments of more than 1,000 bytes, EINVAL for a format that a buffer can't
 * hold and ever after such a failure, ENOSPC with a full list of trace points, EFAULT for a damaged or
 * crowded buffer; of the flag EINVAL for one that isn't alive, is a root, or doesn't support the type (or a
 * type with bit 0x40), and what the log callback gave if that isn't 0. */
QEL_API int _qel_dt_log_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                   uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                   uint32_t* tp, const char* format, ...);

/** The same for an entry of a level: with a null 'flag' it returns 0 and does nothing unless the level
 * passes. A flag makes the entry enter the buffer at any level. */
QEL_API int _qel_dt_log_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                    uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                    uint32_t* tp, uint32_t level, const char* format, ...);

/** _qel_dt_log_filter_adv() for callers that hold an argument list, which stays usable for va_end() only. */
QEL_API int _qel_dt_vlog_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                    uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                    uint32_t* tp, const char* format, va_list args);

/** _qel_dt_log_filter_adv2() for callers that hold an argument list, which stays usable for va_end() only. */
QEL_API int _qel_dt_vlog_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                     uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                     uint32_t* tp, uint32_t level, const char* format, va_list args);

/** The flag's half of a log call. Returns as told there; EINVAL also for a null flag or format. */
QEL_API int _qel_dt_vlog_debug(qel_dt_flag* flag, uint32_t filter_type, uint64_t filter_value,
                               const char* format, va_list args);

QEL_END_DECLS

#endif
