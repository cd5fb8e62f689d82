/** @file
 * Dumps: what lies in trace buffers as text again, of one buffer or merged by time, also after a crash.
 *
 *     static void print(const char* text, size_t length, void* context) {
 *         fprintf(context, "%.*s\n", (int)length, text);
 *     }
 *
 *     const char* names[] = {"my.events", "qel.gen.buffer.errors"};
 *     qel_dt_mst_handle merged;
 *     if (qel_dt_buffer_mst_init(names, 2, NULL, print, stdout, &merged) == 0) {
 *         while (running) {
 *             sleep(1);
 *             qel_dt_buffer_mst_next(merged);   // only what is new
 *         }
 *         qel_dt_buffer_mst_destroy(merged);
 *     }
 *
 * A dump reads beside the writers and stops none. It reads the live buffer, in which writers overtake it, or
 * a copy of the moment; merged dumps always read copies. An entry that a writer overwrites meanwhile is left
 * out, never given in pieces.
 *
 * A text is what printf(3) makes of the log call, without a newline of its own. Addresses are in the usual
 * notation, MAC addresses as "0011.2233.4455". In place of an entry whose format is not to be had any more
 * stands "Message lost: %s tp_id: %d" with the reason and the index of the format.
 *
 * Threads: a handle may be used by one thread at a time; functions called back run on the thread of the call
 * and must not use the handle that calls them. Results are errno numbers, 0 for success, unless told. */
#ifndef QEL_DT_DUMP_H
#define QEL_DT_DUMP_H

#include <stdbool.h>
#include <stddef.h>

#include <qel/dt_buffer.h>

QEL_BEGIN_DECLS

#define QEL_DT_DUMP_NONE 0u  /**< output type: entries are only counted */
#define QEL_DT_DUMP_TEXT 1u  /**< output type: a ::qel_dt_dump_text */
#define QEL_DT_DUMP_ENTRY 2u /**< output type: a ::qel_dt_dump_entry */

/** What is known of an entry beside its text. */
typedef struct qel_dt_entry_info {
    uint64_t seconds;                   /**< real time, since 1970 */
    uint64_t nanoseconds;               /**< the rest of that time */
    uint32_t process_id;                /**< of the writer */
    uint32_t sequence;                  /**< number in its buffer */
    char buffer_name[QEL_DT_NAME_SIZE]; /**< the buffer */
    uint32_t lost; /**< 1 when the text tells that entries in front of this one were lost, 0 for an entry */
} qel_dt_entry_info;

/** Gets a text of 'length' bytes, valid during the call: the prefix of qel_dt_pfx_format_default() and the
 * message. "..some messages lost.." tells that entries in front of the next one were overwritten. */
typedef void (*qel_dt_dump_text)(const char* text, size_t length, void* context);
/** Gets an entry and its message of 'length' bytes, both valid during the call. */
typedef void (*qel_dt_dump_entry)(const qel_dt_entry_info* info, const char* text, size_t length,
                                  void* context);

/** Where a dump gives its entries. */
typedef struct qel_dt_dump_config {
    uint64_t type;          /**< QEL_DT_DUMP_NONE, QEL_DT_DUMP_TEXT or QEL_DT_DUMP_ENTRY */
    void (*function)(void); /**< a ::qel_dt_dump_text or ::qel_dt_dump_entry, by 'type', or null */
} qel_dt_dump_config;

/** What a merged dump gives at most. */
typedef struct qel_dt_dump_limits {
    uint32_t max_entries; /**< the last so many of each read; 0 for all */
    uint8_t report_lost;  /**< 1 to be told when entries were overwritten between two reads */
} qel_dt_dump_limits;

/** The dump of one buffer. */
typedef struct qel_dt_dump* qel_dt_dump_handle;
/** A merged dump of several buffers. */
typedef struct qel_dt_mst* qel_dt_mst_handle;

/** Opens the buffer 'name' for dumps; with 'copy' they read a copy made now, else the live buffer. The caller
 * owns the handle. Returns 0; EINVAL for a null or empty name or a null 'out'; ENOMEM; ENOENT if the buffer
 * can't be opened; EAGAIN if a copy can't be made because the buffer is just being replaced. */
QEL_API int qel_dt_init_buffer_dump_handle(const char* name, bool copy, qel_dt_dump_config config,
                                           qel_dt_dump_handle* out);

/** Gives the handle back; null is fine. */
QEL_API void qel_dt_destroy_buffer_dump_handle(qel_dt_dump_handle dump);

/** Gives all entries since the last clear, oldest first, to 'callback' or, if that is null, to the function
 * of the handle's configuration; with neither they are only counted.
 *
 * Returns the number of entries; -EBADMSG (-74) if the buffer is corrupt; -EINVAL for a null handle; -EAGAIN
 * if the live buffer is just being replaced. */
QEL_API int qel_dt_dump_buffer(qel_dt_dump_handle dump, qel_dt_dump_text callback, void* context);

/** Prints all entries of the buffer 'name' to standard output, a line each, and then their number. What a
 * terminal would take for a command is printed as "?". */
QEL_API void qel_dt_buffer_dump_console(const char* name);

/** Gives each entry of the buffer 'name' as text to 'callback'. 'reserved' is ignored. Returns 0; EINVAL for
 * a null name or callback; otherwise as qel_dt_init_buffer_dump_handle() and, as positive numbers,
 * qel_dt_dump_buffer(). */
QEL_API int qel_dt_buffer_get_by_line(const char* name, uint32_t reserved, qel_dt_dump_text callback,
                                      void* context);

/** Prints the header of the buffer 'name': sizes, counters, modes, level. */
QEL_API void qel_dt_dump_stats(const char* name);

/** Prints header, counters and every block of the buffer 'name', with what is wrong with them, as pieces of
 * text to 'callback' or, if that is null, to standard output. Of a copy with 'copy'. Returns the number of
 * entries; 0xffffffff if the buffer can't be read. */
QEL_API uint32_t qel_dt_dump_file(const char* name, qel_dt_dump_text callback, void* context, bool copy);

/** Opens a merged dump of 'count' buffers and gives their entries in the order of time; of equal times in the
 * order of their numbers.
 *
 * 'limits' may be null for all entries and no word of losses; a null 'callback' takes the entries as read.
 * An entry that its writer hasn't finished is left out. The handle in 'out' is the caller's and gives what is
 * new later on; with a null 'out' the dump is over.
 *
 * Returns 0; EINVAL for a null list, a count below 1, a null or empty name, one with "/" or over 128
 * characters; ENOMEM; ENOENT if a buffer can't be opened; EBADMSG for a corrupt one. On failure nothing is
 * given, and 'out' is not written. */
QEL_API int qel_dt_buffer_mst_init(const char* const* names, int count, const qel_dt_dump_limits* limits,
                                   qel_dt_dump_text callback, void* context, qel_dt_mst_handle* out);

/** The same with a function that gets each entry's time, number and buffer. */
QEL_API int qel_dt_buffer_mst_init_pfx(const char* const* names, int count, const qel_dt_dump_limits* limits,
                                       qel_dt_dump_entry callback, void* context, qel_dt_mst_handle* out);

/** Gives what was written to all the buffers since the last read, in order. An entry that its writer hasn't
 * finished comes with the next read, and so do those behind it in its buffer. A buffer that is just being
 * replaced is left out this time.
 *
 * Returns 0; EINVAL for null; ENOMEM; EBADMSG for a corrupt buffer; the error of attaching to a buffer that
 * was replaced. The other buffers' entries are given nevertheless, save without memory. */
QEL_API int qel_dt_buffer_mst_next(qel_dt_mst_handle merged);

/** Ends a merged dump. Returns 0; EINVAL for null. */
QEL_API int qel_dt_buffer_mst_destroy(qel_dt_mst_handle merged);

/** Writes the prefix of texts, "[09/13/26 09:12:33.123 UTC 1f 4711] ": local time, zone, number in
 * hexadecimal digits, process. It has at most 50 bytes and is ended by a NUL, within 'size' bytes. Returns
 * the bytes written, without the NUL; -EINVAL for a null 'buffer' or 'info'; -EOVERFLOW for a 'size' above
 * 0x7fffffff. */
QEL_API int64_t qel_dt_pfx_format_default(char* buffer, size_t size, const qel_dt_entry_info* info);

/** Prints the machine's whole list of trace points, and how long its formats are. */
QEL_API void qel_dt_tp_list_dump(void);

/** Prints bytes, 16 a line, as hexadecimal digits and characters; with 'show_offsets' each line begins with
 * its offset. Null prints nothing. */
QEL_API void qel_dt_byte_dump(bool show_offsets, const void* data, size_t length);

QEL_END_DECLS

#endif
