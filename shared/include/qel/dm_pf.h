/* The platform layer of the dispatcher: the calls that touch the kernel's event queue and the wake-up pipe.
 *
 * They are exported for tools and for pool loops; applications use qel/dm.h. Every call takes the instance
 * record itself, and the caller vouches for it. */
#ifndef QEL_DM_PF_H
#define QEL_DM_PF_H

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef struct qel_dm_instance qel_dm_instance;
typedef struct qel_dm_thread_context qel_dm_thread_context;

QEL_API int qel_dm_pf_init(qel_dm_instance* instance, void* native);
QEL_API int qel_dm_pf_wait(qel_dm_instance* instance, qel_dm_thread_context* tc);
QEL_API int qel_dm_pf_wait_blocking(qel_dm_instance* instance, qel_dm_thread_context* tc, int blocking);
QEL_API int qel_dm_pf_dispatch(qel_dm_instance* instance, qel_dm_thread_context* tc);
QEL_API int qel_dm_pf_event_available(const qel_dm_thread_context* tc);
QEL_API int qel_dm_pf_sched_handler(qel_dm_instance* instance, int needed);
QEL_API int qel_dm_pf_stop_threads(qel_dm_instance* instance);
QEL_API void qel_dm_pf_wait_destroy_postamble(qel_dm_instance* instance, qel_dm_thread_context* tc);
QEL_API void qel_dm_pf_cleanup(qel_dm_instance* instance);

QEL_END_DECLS

#endif
