#ifndef QEL_BASE_H
#define QEL_BASE_H

#include <qel/types.h>

QEL_BEGIN_DECLS

QEL_API void qel_random_set_seed(uint32_t seed);
QEL_API uint32_t qel_random_uint32(void);
QEL_API uint32_t qel_random_bounded_uint32(uint32_t low, uint32_t high);
QEL_API uint32_t qel_get_version_id(void);
QEL_API const char* qel_get_version(void);
QEL_API char* sstrncpy(char* destination, const char* source, size_t size);
QEL_API uint32_t qel_round32bit(uint32_t size);
QEL_API uint32_t qel_round64bit(uint32_t size);
QEL_API void* qel_cast_const(const void* pointer);
QEL_API int qel_cli_printf(const char* format, ...) QEL_PRINTF(1, 2);
QEL_API void qel_check_not_interrupt_path(void);

#define QEL_MD5_DIGEST_SIZE 16

typedef struct qel_md5_ctx {
    uint32_t state[4];
    uint64_t bit_count;
    uint8_t buffer[64];
} qel_md5_ctx;

QEL_API int qel_md5_init(qel_md5_ctx* context);
QEL_API void qel_md5_update(qel_md5_ctx* context, const void* data, size_t size);
QEL_API void qel_md5_finish(qel_md5_ctx* context, uint8_t digest[QEL_MD5_DIGEST_SIZE]);

QEL_END_DECLS

#endif
