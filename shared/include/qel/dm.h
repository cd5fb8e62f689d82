#ifndef QEL_DM_H
#define QEL_DM_H

#include <time.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef uint64_t qel_dm_handle;

#define QEL_DM_PRIVATE 0x1u

typedef void (*qel_dm_job)(qel_dm_handle dm, uint64_t data, uint64_t modifier);

QEL_API int qel_dm_create(qel_dm_handle* out, const char* name, uint32_t flags);
QEL_API int qel_dm_create_from_native_dm(qel_dm_handle* out, const char* name, uint32_t flags, void* native);
QEL_API int qel_dm_destroy(qel_dm_handle* dm);
QEL_API int qel_dm_wait(qel_dm_handle dm);
QEL_API int qel_dm_dispatch(qel_dm_handle dm);
QEL_API int qel_dm_xdispatch(qel_dm_handle dm, uint32_t* event, uint32_t* event_id);
QEL_API void qel_dm_xd_set(uint32_t event, uint32_t event_id);
QEL_API int qel_dm_execute(qel_dm_handle dm, qel_dm_job job, uint64_t data, uint64_t modifier);
QEL_API qel_dm_handle qel_dm_get_handle(void);
QEL_API qel_dm_handle qel_dm_is_handle(qel_dm_handle dm);
QEL_API const char* qel_dm_get_name(qel_dm_handle dm);
QEL_API void* qel_dm_get_native_evm(qel_dm_handle dm);
QEL_API void qdm_debug_enable(int on);
QEL_API void qdm_debug_print_(const char* format, ...) QEL_PRINTF(1, 2);

/* Event sources. */

#define QEL_DM_READABLE 0x1u
#define QEL_DM_WRITABLE 0x2u
#define QEL_DM_HANGUP 0x4u
#define QEL_DM_URGENT 0x8u

typedef void (*qel_dm_fd_handler)(qel_dm_handle dm, uint32_t fd, uint32_t conditions, void* context);
typedef void (*qel_dm_io_handler)(qel_dm_handle dm, uint16_t fd, uint32_t conditions, void* context);

QEL_API int qel_dm_fd_register(qel_dm_handle dm, uint32_t fd, uint32_t conditions, qel_dm_fd_handler handler,
                               void* context);
QEL_API int qel_dm_io_register(qel_dm_handle dm, uint16_t fd, uint32_t conditions, qel_dm_io_handler handler,
                               void* context);

typedef struct qel_dm_timer_record* qel_dm_timer;
typedef void (*qel_dm_timer_handler)(qel_dm_handle dm, qel_dm_timer timer, void* context);

QEL_API int qel_dm_timer_register(qel_dm_handle dm, qel_dm_timer* timer, qel_dm_timer_handler handler,
                                  void* context);
QEL_API int qel_dm_timer_settime(qel_dm_handle dm, qel_dm_timer timer, const struct timespec* delay);
QEL_API int qel_dm_timer_gettime(qel_dm_handle dm, qel_dm_timer timer, struct timespec* left);

typedef void (*qel_dm_message_handler)(qel_dm_handle dm, void* context, uint64_t reserved);
typedef void (*qel_dm_message_cleanup)(qel_dm_handle dm, uint32_t type, uint32_t arg, void* message);

QEL_API int qel_dm_message_register(qel_dm_handle dm, qel_dm_message_handler handler, void* context);
QEL_API int qel_dm_message_xd_register(qel_dm_handle dm);
QEL_API int qel_dm_message_deregister(qel_dm_handle dm, qel_dm_message_cleanup cleanup);
QEL_API int qel_dm_message_send(qel_dm_handle dm, uint32_t type, uint32_t arg, void* message);
QEL_API int qel_dm_message_receive(qel_dm_handle dm, uint32_t* type, uint32_t* arg, void** message);

QEL_API int qel_dm_disconnect_register(qel_dm_handle dm, void* handler, void* context);
QEL_API int qel_dm_disconnect_deregister(qel_dm_handle dm, void* handler, void* context);

QEL_END_DECLS

#endif
