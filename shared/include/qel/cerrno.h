#ifndef QEL_CERRNO_H
#define QEL_CERRNO_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/* Severities, bits 31 to 29 of a code. */
#define QEL_CERRNO_INFORMATIONAL 0x20000000u
#define QEL_CERRNO_WARNING 0x40000000u
#define QEL_CERRNO_TRY_AGAIN 0x80000000u
#define QEL_CERRNO_FATAL 0xa0000000u
#define QEL_CERRNO_NO_RESOURCE 0xc0000000u
#define QEL_CERRNO_SEVERITY_MASK 0xe0000000u

#define QEL_CERRNO_NODE_MAGIC 0xabcdef00u

typedef struct qel_cerrno_code {
    uint32_t code;
    const char* text;
} qel_cerrno_code;

typedef struct qel_cerrno_info {
    const char* name;
    uint32_t subsystem;
    uint32_t count;
    const qel_cerrno_code* codes;
    uint32_t major;
    uint32_t minor;
} qel_cerrno_info;

typedef struct qel_cerrno_node {
    uint32_t magic;
    struct qel_cerrno_node* next;
    const qel_cerrno_info* info;
} qel_cerrno_node;

typedef struct qel_cerrno_strings {
    uint32_t decoded;
    const char* severity;
    const char* subsystem;
    const char* code;
    const char* err;
} qel_cerrno_strings;

typedef struct qel_cerrno_thread {
    char* text;
    uint32_t capacity;
    char subsystem[50];
    char err[50];
    char code[250];
    qel_cerrno_strings strings;
} qel_cerrno_thread;

typedef struct qel_cerrno_map_info {
    const char* name;
    uint32_t count;
    const void* codes;
    const void* codes_end;
} qel_cerrno_map_info;

extern QEL_API qel_cerrno_node* qel_cerrno_root;

QEL_API void __register_cerrno(qel_cerrno_node* node);
QEL_API cerrno qel_cerrno_validate_info(const qel_cerrno_info* info);
QEL_API cerrno cerr_getstrings(uint32_t code, qel_cerrno_strings** out);
QEL_API const char* cerr_strerror(uint32_t code);
QEL_API qel_cerrno_thread* cerr_threadspecific(void);
QEL_API char* strerror_pd(int errnum, char* buffer, size_t size);

QEL_API cerrno qel_cerrno_init(void);
QEL_API qel_cerrno_map_info* qel_get_cerrno_info(uint32_t subsystem);

QEL_END_DECLS

#endif
