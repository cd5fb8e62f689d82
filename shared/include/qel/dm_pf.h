/** @file
 * The platform layer of the dispatcher: the steps of its loop, which reach the kernel's event queue and the
 * wake-up pipe.
 *
 * They are exported for tools and for loops built on them; applications use qel/dm.h. Every call takes the
 * instance record itself: the caller holds a reference on it and, where "locked" is said, its mutex, once.
 * EINVAL stands for a null argument.
 */
#ifndef QEL_DM_PF_H
#define QEL_DM_PF_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** The record of a dispatcher, private to the library. */
typedef struct qel_dm_instance qel_dm_instance;
/** What a serving thread has in hand, private to the library. */
typedef struct qel_dm_thread_context qel_dm_thread_context;

/** Opens the event queue and the pipe of a new instance. Returns 0; EOPNOTSUPP for a native
 * event manager; an errno. */
QEL_API int qel_dm_pf_init(qel_dm_instance* instance, void* native);

/** Locked: the wait step, which lets the mutex go while it blocks. Returns 0, with the event in
 * 'tc'; an errno. */
QEL_API int qel_dm_pf_wait(qel_dm_instance* instance, qel_dm_thread_context* tc);

/** The same; with 'blocking' 0 it returns 0 without an event when there is none. */
QEL_API int qel_dm_pf_wait_blocking(qel_dm_instance* instance, qel_dm_thread_context* tc, int blocking);

/** Not locked: runs the event in 'tc', if any. Returns 0. */
QEL_API int qel_dm_pf_dispatch(qel_dm_instance* instance, qel_dm_thread_context* tc);

/** Returns 1 if 'tc' holds an event, else 0. */
QEL_API int qel_dm_pf_event_available(const qel_dm_thread_context* tc);

/** Locked: wakes a waiting thread if 'needed' says so and none is on its way. Returns 0; an errno. */
QEL_API int qel_dm_pf_sched_handler(qel_dm_instance* instance, int needed);

/** Locked, at destruction: wakes the first waiting thread. Returns 0; an errno. */
QEL_API int qel_dm_pf_stop_threads(qel_dm_instance* instance);

/** Locked, at destruction, by a thread that leaves the wait step: wakes the next one, and the destroyer. */
QEL_API void qel_dm_pf_wait_destroy_postamble(qel_dm_instance* instance, qel_dm_thread_context* tc);

/** Frees the timers and closes the descriptors of an instance that nobody else uses. */
QEL_API void qel_dm_pf_cleanup(qel_dm_instance* instance);

QEL_END_DECLS

#endif
