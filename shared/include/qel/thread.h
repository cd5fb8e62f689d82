#ifndef QEL_THREAD_H
#define QEL_THREAD_H

#include <pthread.h>
#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

#define QEL_THREAD_JOINABLE 0u
#define QEL_THREAD_DETACHED 1u

#define QEL_THREAD_PREEMPTIVE 0
#define QEL_THREAD_NON_PREEMPTIVE (-1)

typedef struct qel_thread_attr {
    uint32_t stack_percent;
    uint32_t detach_state;
    uint32_t priority;
    uint64_t default_stack_size;
    int32_t sched_mode;
    pthread_attr_t* attr;
} qel_thread_attr;

typedef void* (*qel_thread_entry)(void* arg);
typedef int (*qel_thread_create_fn)(pthread_t* out, const char* name, const qel_thread_attr* attr,
                                    void* record);
typedef void (*qel_thread_exit_fn)(void* value);

extern QEL_API void* (*thread_start_kludge)(void* record);

QEL_API int qel_thread_attr_init(qel_thread_attr* attr);
QEL_API int qel_thread_attr_destroy(qel_thread_attr* attr);
QEL_API int qel_thread_attr_setdetachstate(qel_thread_attr* attr, uint32_t state);
QEL_API int qel_thread_attr_getdetachstate(const qel_thread_attr* attr, uint32_t* state);
QEL_API int qel_thread_attr_setstacksize(qel_thread_attr* attr, uint32_t percent);
QEL_API int qel_thread_attr_getstacksize(const qel_thread_attr* attr, size_t* size);
QEL_API int qel_thread_attr_setsched_priority(qel_thread_attr* attr, uint32_t priority);
QEL_API int qel_thread_attr_getsched_priority(const qel_thread_attr* attr, uint32_t* priority);
QEL_API int qel_thread_attr_setsched_mode(qel_thread_attr* attr, int32_t mode);
QEL_API int qel_thread_attr_getsched_mode(const qel_thread_attr* attr, int32_t* mode);

QEL_API int qel_thread_create(pthread_t* out, const qel_thread_attr* attr, qel_thread_entry entry, void* arg,
                              const char* name, uint32_t flags);
QEL_API int qel_thread_adopt(const char* name, int32_t mode);
QEL_API int qel_thread_detach(pthread_t thread);
QEL_API void qel_thread_exit(void* value);
QEL_API void* qel_thread_start(void* record);
QEL_API const char* qel_thread_get_name(void);
QEL_API uint32_t qel_thread_get_pid(void);
QEL_API int qel_thread_get_cputime(uint32_t who, struct timespec* out);
QEL_API void qel_thread_set_create_fn(qel_thread_create_fn function);
QEL_API void qel_thread_set_exit_fn(qel_thread_exit_fn function);

QEL_API int qel_thread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
QEL_API int qel_thread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      const struct timespec* deadline);
QEL_API void qel_thread_before_deschedule(void);
QEL_API void qel_thread_after_reschedule(void);
QEL_API void qel_thread_yield(void);
QEL_API int qel_thread_check_and_suspend(void);
QEL_API int qel_thread_may_yield(void);
QEL_API int qel_thread_is_non_preemptive(void);

QEL_END_DECLS

#endif
