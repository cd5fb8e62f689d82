/** @file
 * Shared segments: named memory between processes, opened plainly or by a protocol that initialises it once,
 * and locks to put into it.
 *
 * A safe segment begins with a header of 12 bytes. Any number of processes may open one name at once: one of
 * them runs the initialiser, the others wait for its end. 'addr' is 4 modulo 8 then: a table of 8-byte fields
 * leaves 4 bytes in front of them.
 *
 *     static int fill(qel_shm_info* info, void* context) {
 *         return qel_init_shared_mutex(&((struct table*)info->addr)->mutex);
 *     }
 *     ...
 *     qel_shm_info info;
 *     uint32_t size = sizeof(struct table);
 *     int error = qel_shm_safe_open("element.table", QEL_SHM_CREATE, size, 1, fill, NULL, 0, &info);
 *     ...
 *     qel_shm_close(&info);
 *
 * Names: up to 127 characters. One that begins with a slash stands as it is; to any other the parameter
 * "qel.shm.root" is put in front. Every user may open a segment: its mode is 0777, whatever the umask.
 *
 * Memory: a segment's memory is reserved when it is made, so a full file system is ENOSPC here and not a
 * SIGBUS later. The parameter "qel.shm.prealloc" (1) switches that off with 0. New segments are zeroed.
 * Segments outlive processes; only qel_shm_unlink() and a failing maker remove a name.
 *
 * Threads: every call may run on any thread of any process. Results are plain errno values, 0 for success;
 * outputs are written on success only. Besides those told, a call gives what the system gives for opening or
 * mapping (EACCES, EMFILE, ENOMEM, ENOSPC ...), and EAGAIN if others make and remove the name all the time.
 */
#ifndef QEL_SHM_H
#define QEL_SHM_H

#include <pthread.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Flags of qel_shm_safe_open(). */
#define QEL_SHM_CREATE 0x1u     /**< make the segment if it doesn't exist */
#define QEL_SHM_EXACT_SIZE 0x2u /**< refuse a segment of another size */
#define QEL_SHM_EXCLUSIVE 0x4u  /**< refuse a segment that exists */

/** Bytes of a safe segment's header. */
#define QEL_SHM_SAFE_HEADER_SIZE 12u

/** A mapped segment. The record is the caller's, who passes it to qel_shm_close(). */
typedef struct qel_shm_info {
    uint32_t hdr_size; /**< bytes of header in front of 'addr': 12 for a safe segment, 0 for a plain one */
    void* addr;        /**< the user's first byte; null when closed */
    uint32_t size;     /**< the user's bytes from 'addr' on */
} qel_shm_info;

/** Fills a fresh safe segment. 'info' is as the opener will see it; 'context' is the opener's.
 *
 * Runs on the opening thread, with the segment to itself and no lock held. Any result but 0 makes the opening
 * fail with it; so does ending the thread. */
typedef int (*qel_shm_initializer)(qel_shm_info* info, void* context);

/** Writes the object name that belongs to 'name' into 'out', which has room for 'size' bytes.
 *
 * Returns 0; EINVAL for null; ENAMETOOLONG if it doesn't fit. */
QEL_API int qel_shm_path_append(char* out, const char* name, size_t size);

/** Maps a segment without a header; one of 'size' bytes is made if the name is absent and 'size' isn't 0.
 *
 * '*existed' becomes 0 for exactly one of those who race for an absent name. A segment of size 0 is one that
 * its maker has still to size: it is looked at 10 times, 100 ms apart.
 *
 * Returns 0; EINVAL for null, for a segment of another size than a 'size' that isn't 0, for one that stays
 * unsized or has 4 GiB or more; ENAMETOOLONG; ENOENT for an absent name and 'size' 0. */
QEL_API int qel_shm_open(const char* name, uint32_t size, qel_shm_info* info, uint8_t* existed);

/** Maps a safe segment of 'size' bytes behind its header, making and initialising it as 'flags' allow.
 *
 * 'version' is any number; all openers must agree on it. 'initializer' may be null. 'wait' limits the polls
 * of 1 ms for a segment whose initialisation hasn't ended, 0 means no limit: if the initialising process has
 * died, that is for ever. A segment that nobody began to initialise within a second is initialised by an
 * opener that has QEL_SHM_CREATE, an initialiser and the segment's size.
 *
 * Returns 0; EINVAL for null, flags without a size, a size that leaves no room for the header in 32 bits, a
 * segment of less than 12 bytes, of another size with QEL_SHM_EXACT_SIZE, or with no state that this protocol
 * knows; ENAMETOOLONG; ENOENT for an absent name without QEL_SHM_CREATE; EEXIST for an existing one with
 * QEL_SHM_EXCLUSIVE; EFAULT for a segment whose initialisation failed or whose version is another; ETIMEDOUT
 * when 'wait' is used up; or what the initialiser gave, and then the name is removed again. */
QEL_API int qel_shm_safe_open(const char* name, uint32_t flags, uint32_t size, uint32_t version,
                              qel_shm_initializer initializer, void* init_context, uint32_t wait,
                              qel_shm_info* info);

/** Unmaps a segment, header included, and nulls 'addr'. Null or a closed segment does nothing. The name
 * stays. */
QEL_API void qel_shm_close(qel_shm_info* info);

/** Removes a name; who has the segment mapped keeps it.
 *
 * Returns 0; EINVAL for null; ENAMETOOLONG; ENOENT and what else the removal gives. */
QEL_API int qel_shm_unlink(const char* name);

/** Safe segments aren't resized: returns ENOSYS. */
QEL_API int qel_shm_safe_resize(qel_shm_info* info, uint32_t size, uint32_t flags);

/** Initialises a mutex in shared memory, once, by the process that makes the memory.
 *
 * Process-shared is its only attribute: it isn't robust, so a process that dies holding it leaves it held.
 * Returns 0; EINVAL for null; or the error of the failing pthread call. */
QEL_API int qel_init_shared_mutex(pthread_mutex_t* mutex);

/** The same for a condition variable. */
QEL_API int qel_init_shared_condvar(pthread_cond_t* condvar);

/** To be called for a mutex whenever the memory that holds it is set up or attached to. Does nothing on
 * Linux; returns 0. */
QEL_API int qel_revive_and_monitor_mutex(pthread_mutex_t* mutex);

QEL_END_DECLS

#endif
