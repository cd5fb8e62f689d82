/** @file
 * Trace buffers: circular logs in shared memory that outlive their writers.
 *
 * A buffer has a name and is one segment; any thread of any process that opened it may write at any time,
 * without a lock. An entry stores no text: a format goes once into a list that the whole machine shares, and
 * an entry holds its index there, a time stamp and the raw arguments. A reader formats them later, also after
 * a crash.
 *
 *     qel_dt_buffer_handle buffer = NULL;
 *     static uint32_t this_tp = QEL_DT_TP_UNREGISTERED;
 *
 *     qel_dt_buffer_init(&buffer, "my.events", 0, 65536);
 *     if (qel_dt_trace_enabled(buffer, QEL_DT_LEVEL_DEBUG))
 *         _qel_dt_log_filter_adv(NULL, buffer, 0, 0, 0, 0, &this_tp, "link %d is %s", index, state);
 *     qel_dt_buffer_close(&buffer);
 *
 * Threads: all calls may run side by side on one handle, but closing and destroying, which must be the last
 * use of it. A fork leaves both processes with usable handles. Results are errno numbers; 0 is success.
 *
 * Operations that change a buffer run one at a time in the whole machine; a second one gets EAGAIN. If a
 * process dies in the middle of one, the later ones get EAGAIN too, while entries are written as before. */
#ifndef QEL_DT_BUFFER_H
#define QEL_DT_BUFFER_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Bytes of a buffer's name in records, the NUL included. */
#define QEL_DT_NAME_SIZE 128

#define QEL_DT_TP_UNREGISTERED 0xffffffffu /**< trace point of a site that hasn't logged yet */
#define QEL_DT_TP_UNUSABLE 0xfffffffeu     /**< trace point of a site whose format was refused */

#define QEL_DT_LEVEL_ERROR 3u   /**< level, as LOG_ERR of syslog.h */
#define QEL_DT_LEVEL_WARNING 4u /**< level, as LOG_WARNING */
#define QEL_DT_LEVEL_INFO 6u    /**< level, as LOG_INFO */
#define QEL_DT_LEVEL_DEBUG 7u   /**< level, as LOG_DEBUG */

/** An open buffer of this process. */
typedef struct qel_dt_buffer* qel_dt_buffer_handle;

/** What a buffer is and holds. Sizes are the bytes that were asked for, not those of the segment. */
typedef struct qel_dt_buffer_attr {
    char name[QEL_DT_NAME_SIZE]; /**< as given at creation */
    uint32_t reserved;           /**< 0 */
    uint32_t original_size;      /**< bytes when the buffer was made */
    uint32_t size;               /**< bytes now */
    uint32_t dropped;            /**< entries lost to failures since the last clear */
    uint64_t count;              /**< entries since the last clear */
    uint8_t paused;              /**< 1 while writers drop their entries */
    uint8_t one_shot;            /**< 1 in one-shot mode */
    uint8_t one_shot_full;       /**< 1 when one-shot mode has stopped the buffer */
    uint64_t clear_seconds;      /**< real time of the last clear, or of the making */
    uint64_t clear_nanoseconds;  /**< the rest of that time */
} qel_dt_buffer_attr;

#define QEL_DT_TP_MAX_ARGUMENTS 16 /**< the most arguments of a format */
#define QEL_DT_TP_FORMAT_SIZE 128  /**< bytes of a format, the NUL included */

/** A format of the shared list. Version 2 of a persistent format.
 *
 * 'types' has 4 bits an argument, the first one lowest: 1 integer, 2 64-bit integer or pointer, 3 string, 4
 * pointer to an IPv4 address, 5 to an IPv6 address, 6 to a MAC address, 7 IPv4 address by value. */
typedef struct qel_dt_tp_entry {
    uint32_t length;                    /**< strlen of 'format'; 0 marks a free place */
    uint8_t fixed_size;                 /**< bytes that the numbers take in an entry */
    uint8_t argument_count;             /**< 0 to QEL_DT_TP_MAX_ARGUMENTS */
    uint8_t reserved;                   /**< 0 */
    uint8_t extended;                   /**< the 'extended' of qel_dt_init_tp() */
    uint32_t types[2];                  /**< see above */
    char format[QEL_DT_TP_FORMAT_SIZE]; /**< the text, ended by NUL */
} qel_dt_tp_entry;

#define QEL_DT_TP_CAPACITY 5000 /**< the most formats of a machine */

/** The shared list of formats, as it lies in the segment "qel_trace.tpl". */
typedef struct qel_dt_tp_list {
    uint32_t version;                            /**< 2 */
    uint32_t count;                              /**< entries in use */
    uint32_t capacity;                           /**< QEL_DT_TP_CAPACITY */
    qel_dt_tp_entry entries[QEL_DT_TP_CAPACITY]; /**< by index */
} qel_dt_tp_list;

/** Gets all names at once; they are valid during the call only. Its result is that of
 * qel_dt_buffer_get_names(). */
typedef int (*qel_dt_buffer_names_callback)(const char (*names)[QEL_DT_NAME_SIZE], size_t count,
                                            void* context);

/** Creates the buffer 'name', or attaches to it if it exists, and gives a handle.
 *
 * 'size' is in bytes and counts for a new buffer only; it is rounded up to blocks of 64 bytes, at least 128
 * of them. The parameter "qel.trace.kbytes.<name>" replaces it, and "qel.trace.level.<name>" (0 to 7, else 4)
 * sets the first level. 'reserved' is not used. The caller owns the handle.
 *
 * Returns 0; EINVAL for a null argument, a name with "/" or over 128 characters, a size of 0 or of more than
 * 0x100000 blocks; ENAMETOOLONG if the name with the root and ".qdt" takes more than 127 characters; ENOMEM;
 * EBADF for an existing segment that is no sound buffer; ENOSPC with 900 buffers there already; otherwise as
 * qel_shm_safe_open(). */
QEL_API int qel_dt_buffer_init(qel_dt_buffer_handle* out, const char* name, uint32_t reserved, uint32_t size);
/** Attaches to the buffer 'name'. Returns as qel_dt_buffer_init(), and ENOENT if there is none. */
QEL_API int qel_dt_buffer_open(qel_dt_buffer_handle* out, const char* name);
/** Gives the handle back and nulls it; the buffer stays. Waits for a remap in another thread. Returns 0;
 * EINVAL for null. */
QEL_API int qel_dt_buffer_close(qel_dt_buffer_handle* buffer);
/** Gives the handle back, nulls it, and removes the buffer's name. Processes that have the buffer open go on
 * writing to it unseen. Returns 0, also if the segment was gone; EINVAL for null; else the errno of the
 * removal. */
QEL_API int qel_dt_buffer_destroy(qel_dt_buffer_handle* buffer);
/** Replaces the buffer by an empty one of 'size' bytes; level and modes stay. Every other process moves over
 * at its next entry. 'reserved' not 0 allows a size of 0.
 *
 * Returns 0, also if the buffer has this size; EINVAL for a null handle, a size of 0, or more than 0x100000
 * blocks; EAGAIN; EFAULT for a corrupt buffer; ETIME if a thread stays inside for 5 seconds; EEXIST if
 * somebody made the buffer anew in the middle, and the handle has gone over to theirs; else the error of
 * removing or creating the segment, and the handle goes on with the old one. */
QEL_API int qel_dt_buffer_resize(qel_dt_buffer_handle buffer, uint32_t reserved, uint32_t size);
/** Calls 'callback' once with the names of all buffers of the machine and gives its result. Returns
 * EINVAL for a null callback; ENOENT if no buffer was ever made; ENOMEM. */
QEL_API int qel_dt_buffer_get_names(qel_dt_buffer_names_callback callback, void* context);
/** Sets the level, 3 to 7, up to which qel_dt_trace_enabled() lets entries pass; for all processes, at once.
 * Returns 0, also if nothing was done because the buffer is being replaced; EINVAL for null; EPERM (1) for
 * another level. */
QEL_API int qel_dt_buffer_set_level(qel_dt_buffer_handle buffer, uint32_t level);
/** Gives the level. Returns 0, also if '*out' was not written because the buffer is being replaced; EINVAL
 * for null. */
QEL_API int qel_dt_buffer_get_level(qel_dt_buffer_handle buffer, uint32_t* level);
/** Makes all writers drop their entries, in all processes. Returns 0; EINVAL for null; EAGAIN; EFAULT for a
 * corrupt buffer. */
QEL_API int qel_dt_buffer_pause(qel_dt_buffer_handle buffer);
/** Ends the pause. Returns as qel_dt_buffer_pause(). */
QEL_API int qel_dt_buffer_unpause(qel_dt_buffer_handle buffer);
/** Clears the buffer and makes it stop before it overwrites what is written from now, or from a later clear,
 * on. Returns 0; EINVAL for null; EAGAIN; EFAULT for a corrupt buffer. */
QEL_API int qel_dt_buffer_set_one_shot_mode(qel_dt_buffer_handle buffer);
/** Lets the buffer overwrite its oldest entries again. Returns as qel_dt_buffer_set_one_shot_mode(). */
QEL_API int qel_dt_buffer_unset_one_shot_mode(qel_dt_buffer_handle buffer);
/** Forgets all entries: readers pass over those before the clear. Returns 0; EINVAL for null; EAGAIN;
 * EFAULT for a corrupt buffer. */
QEL_API int qel_dt_buffer_clear(qel_dt_buffer_handle buffer);
/** Fills '*out'. Returns 0; EINVAL for null; EAGAIN; EFAULT for a corrupt buffer. */
QEL_API int qel_dt_buffer_get_attr(qel_dt_buffer_handle buffer, qel_dt_buffer_attr* out);

/** Maps the shared list of formats for this process, or counts one more user of the mapping. Every open
 * buffer is a user too. Returns 0; EBADF for another version; otherwise as qel_shm_safe_open(). */
QEL_API int qel_dt_tp_list_open(void);
/** Undoes one qel_dt_tp_list_open(). Returns 0; EINVAL without an open. */
QEL_API int qel_dt_tp_list_close(void);
/** The mapped list, null if it isn't mapped. Other processes add to it, so read its entries with suspicion.
 */
QEL_API const qel_dt_tp_list* qel_dt_tp_list_get(void);
/** Parses 'format' into '*record', entering it nowhere. Beside printf's integers, "%s" and "%p" it takes the
 * tags of addresses: "%p{ipv4}", "%p{ipv6}" and "%p{mac}" store what the pointer points at, "%u{ipv4}" and
 * "%i{ipv4}" an address by value; with 'extended', "%P" is an IPv6 pointer, "%e" a MAC pointer, "%i" an IPv4
 * address by value. A format over 127 characters is cut and ends in "<truncated>".
 *
 * Returns 0; EINVAL for null, an empty text or a conversion that the trace can't hold (floating point, "*",
 * "$", "%n", "%c"); E2BIG for more than 16 arguments or fewer than 'least_args'. */
QEL_API int qel_dt_init_tp(const char* format, uint32_t least_args, qel_dt_tp_entry* record,
                           uint32_t extended);

QEL_END_DECLS

#endif
