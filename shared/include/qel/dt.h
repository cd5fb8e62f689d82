#ifndef QEL_DT_H
#define QEL_DT_H

#include <stdarg.h>

#include <qel/dt_buffer.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

#define QEL_DT_FLAG_INDEPENDENT 0x1u

#define QEL_DT_FILTER_UINT32 0x01u
#define QEL_DT_FILTER_UINT64 0x02u
#define QEL_DT_FILTER_STRING 0x10u

typedef struct qel_dt_flag qel_dt_flag;

typedef int (*qel_dt_log_callback)(void* context, const char* tty, const char* format, va_list args);

extern QEL_API qel_dt_buffer_handle qel_gen_error_buffer;

QEL_API int qel_dt_flag_init(qel_dt_flag** out, const char* name, qel_dt_flag* parent,
                             const uint32_t* supported_filters, uint32_t options);
QEL_API int qel_dt_flag_destroy(qel_dt_flag** flag);
QEL_API int qel_dt_flag_enable(qel_dt_flag* flag, const char* tty);
QEL_API int qel_dt_flag_disable(qel_dt_flag* flag, const char* tty);
QEL_API int qel_dt_flag_enabled(const qel_dt_flag* flag);
QEL_API int qel_dt_flag_set_filter(qel_dt_flag* flag, int on, uint32_t type, uint64_t value, const char* tty);
QEL_API int qel_dt_flag_set_filter_or(qel_dt_flag* flag, uint32_t type, uint64_t value, const char* tty);
QEL_API int qel_dt_flag_print_state(const qel_dt_flag* flag);
QEL_API int qel_dt_register_log_callback(qel_dt_log_callback function, void* context);
QEL_API int qel_dt_deregister_log_callback(void);
QEL_API int qel_dt_trace_enabled(qel_dt_buffer_handle buffer, uint32_t level);

QEL_API int _qel_dt_log_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                   uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                   uint32_t* tp, const char* format, ...);
QEL_API int _qel_dt_log_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                    uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                    uint32_t* tp, uint32_t level, const char* format, ...);
QEL_API int _qel_dt_vlog_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                    uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                    uint32_t* tp, const char* format, va_list args);
QEL_API int _qel_dt_vlog_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                                     uint32_t reserved, uint32_t filter_type, uint64_t filter_value,
                                     uint32_t* tp, uint32_t level, const char* format, va_list args);
QEL_API int _qel_dt_vlog_debug(qel_dt_flag* flag, uint32_t filter_type, uint64_t filter_value,
                               const char* format, va_list args);

QEL_END_DECLS

#endif
