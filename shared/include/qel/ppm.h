#ifndef QEL_PPM_H
#define QEL_PPM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

QEL_API int qel_ppm_get_integer(const char* key, uint32_t fallback, uint32_t* out);
QEL_API int qel_ppm_get_string(const char* key, const char* fallback, const char** out);
QEL_API int qel_ppm_set_integer(const char* key, uint32_t value);
QEL_API int qel_ppm_set_string(const char* key, const char* value);
QEL_API void qel_ppm_remove(const char* key);
QEL_API void qel_ppm_destroy(void);

QEL_END_DECLS

#endif
