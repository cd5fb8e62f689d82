/** @file
 * Process parameters: one dictionary per process from a text key to an integer or a short string.
 *
 * The library reads each of its tunable values here, with a default at the point of use, so a key that nobody
 * stored means the default that is built in. An application stores a key to override one:
 *
 *     qel_ppm_set_string("qel.shm.root", "/router1.");        before the first shared-memory object is made
 *     qel_ppm_set_integer("qel.qdm.max.instances", 64);
 *
 * So does the optional start-up file "/tmp/qeltest-ppm.conf", read once per process, by the first call of
 * this family that isn't refused and isn't qel_ppm_destroy. It holds lines "key = value"; a line "[name]"
 * limits those that follow to the process whose environment variable QELTEST_PROC is that name, a line "[]"
 * ends the limit, "#" begins a comment. A value that strtol() reads whole in base 0 is an integer, anything
 * else a string. A file that is absent or isn't a regular file is no file; nothing is told about it.
 *
 * Keys keep their first 62 characters, strings their first 31; longer ones are cut, on lookups too. A key
 * holds one value, and one that holds the other kind reads as absent.
 *
 * Threads: every call may run on any thread at any time. They take one lock of the family's own, and call
 * nothing under it that reports or traces: the trace and the shared segments read parameters while they are
 * being made.
 *
 * Keys that the library reads (%s is the name of a trace buffer):
 *
 *     qel.shm.root                 string, empty   prefix of shared-memory names that don't begin with "/"
 *     qel.shm.prealloc             1               reserve the memory of a segment when it is created
 *     qel.trace.level.%s           4               first trace level of that buffer, 0 to 7
 *     qel.trace.kbytes.%s          unset           size of that buffer, in units of 1024 bytes
 *     qel.gen.buffer.errors.size   327680          size of the common error buffer, in bytes
 *     qel.qdm.max.instances        32              the most dispatchers of a process
 *     qel.time.buffer.events.size  32768           size of the timer wheels' event buffer, in bytes
 *     qel.time.clock-change-check-interval-sec
 *                                  61              seconds between looks at the real-time clock
 */
#ifndef QEL_PPM_H
#define QEL_PPM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Gives the integer that 'key' holds, or 'fallback' when it holds none.
 *
 * Returns 0, also for a key that isn't there; EINVAL for a null 'key' or 'out'. */
QEL_API int qel_ppm_get_integer(const char* key, uint32_t fallback, uint32_t* out);

/** Gives the string that 'key' holds, or the pointer 'fallback' (which may be null) when it holds none.
 *
 * The string is the dictionary's own: it stays until the key is set to another value, removed or destroyed.
 * Setting the same value again leaves it alone.
 *
 * Returns 0, also for a key that isn't there; EINVAL for a null 'key' or 'out'. */
QEL_API int qel_ppm_get_string(const char* key, const char* fallback, const char** out);

/** Stores an integer, in place of whatever the key held. Returns 0; EINVAL for a null 'key'; ENOMEM, and then
 * nothing has changed. */
QEL_API int qel_ppm_set_integer(const char* key, uint32_t value);

/** Stores a copy of 'value', in place of whatever the key held. Returns 0; EINVAL for a null 'key' or
 * 'value'; ENOMEM, and then nothing has changed. */
QEL_API int qel_ppm_set_string(const char* key, const char* value);

/** Takes a key out. A null key or one that isn't there is nothing to do. */
QEL_API void qel_ppm_remove(const char* key);

/** Takes all keys out and frees the dictionary. Later calls begin with an empty one: a start-up file that has
 * been read is not read again. */
QEL_API void qel_ppm_destroy(void);

QEL_END_DECLS

#endif
