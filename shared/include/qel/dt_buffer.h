#ifndef QEL_DT_BUFFER_H
#define QEL_DT_BUFFER_H

#include <qel/types.h>

QEL_BEGIN_DECLS

#define QEL_DT_NAME_SIZE 128

/* Values of a call site's trace point word before and beside an index in the shared list. */
#define QEL_DT_TP_UNREGISTERED 0xffffffffu
#define QEL_DT_TP_UNUSABLE 0xfffffffeu

/* Levels: those of the system log. */
#define QEL_DT_LEVEL_ERROR 3u
#define QEL_DT_LEVEL_WARNING 4u
#define QEL_DT_LEVEL_INFO 6u
#define QEL_DT_LEVEL_DEBUG 7u

typedef struct qel_dt_buffer* qel_dt_buffer_handle;

typedef struct qel_dt_buffer_attr {
    char name[QEL_DT_NAME_SIZE];
    uint32_t reserved;
    uint32_t original_size;
    uint32_t size;
    uint32_t dropped;
    uint64_t count;
    uint8_t paused;
    uint8_t one_shot;
    uint8_t one_shot_full;
    uint64_t clear_seconds;
    uint64_t clear_nanoseconds;
} qel_dt_buffer_attr;

#define QEL_DT_TP_MAX_ARGUMENTS 16
#define QEL_DT_TP_FORMAT_SIZE 128

typedef struct qel_dt_tp_entry {
    uint32_t length;
    uint8_t fixed_size;
    uint8_t argument_count;
    uint8_t reserved;
    uint8_t extended;
    uint32_t types[2];
    char format[QEL_DT_TP_FORMAT_SIZE];
} qel_dt_tp_entry;

#define QEL_DT_TP_CAPACITY 5000

typedef struct qel_dt_tp_list {
    uint32_t version;
    uint32_t count;
    uint32_t capacity;
    qel_dt_tp_entry entries[QEL_DT_TP_CAPACITY];
} qel_dt_tp_list;

typedef int (*qel_dt_buffer_names_callback)(const char (*names)[QEL_DT_NAME_SIZE], size_t count,
                                            void* context);

QEL_API int qel_dt_buffer_init(qel_dt_buffer_handle* out, const char* name, uint32_t reserved, uint32_t size);
QEL_API int qel_dt_buffer_open(qel_dt_buffer_handle* out, const char* name);
QEL_API int qel_dt_buffer_close(qel_dt_buffer_handle* buffer);
QEL_API int qel_dt_buffer_destroy(qel_dt_buffer_handle* buffer);
QEL_API int qel_dt_buffer_resize(qel_dt_buffer_handle buffer, uint32_t reserved, uint32_t size);
QEL_API int qel_dt_buffer_get_names(qel_dt_buffer_names_callback callback, void* context);
QEL_API int qel_dt_buffer_set_level(qel_dt_buffer_handle buffer, uint32_t level);
QEL_API int qel_dt_buffer_get_level(qel_dt_buffer_handle buffer, uint32_t* level);
QEL_API int qel_dt_buffer_pause(qel_dt_buffer_handle buffer);
QEL_API int qel_dt_buffer_unpause(qel_dt_buffer_handle buffer);
QEL_API int qel_dt_buffer_set_one_shot_mode(qel_dt_buffer_handle buffer);
QEL_API int qel_dt_buffer_unset_one_shot_mode(qel_dt_buffer_handle buffer);
QEL_API int qel_dt_buffer_clear(qel_dt_buffer_handle buffer);
QEL_API int qel_dt_buffer_get_attr(qel_dt_buffer_handle buffer, qel_dt_buffer_attr* out);

QEL_API int qel_dt_tp_list_open(void);
QEL_API int qel_dt_tp_list_close(void);
QEL_API const qel_dt_tp_list* qel_dt_tp_list_get(void);
QEL_API int qel_dt_init_tp(const char* format, uint32_t least_args, qel_dt_tp_entry* record,
                           uint32_t extended);

QEL_END_DECLS

#endif
