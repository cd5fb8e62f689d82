/** @file
 * Types that every family shares: the export mark, result codes and printf checking. */
#ifndef QEL_TYPES_H
#define QEL_TYPES_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
/** Marks what the library exports. */
#define QEL_API __attribute__((visibility("default")))
/** Lets the compiler check a format against its arguments; both are counted from 1. */
#define QEL_PRINTF(format_index, first_index) __attribute__((format(printf, format_index, first_index)))
#else
#define QEL_API
#define QEL_PRINTF(format_index, first_index)
#endif

#ifdef __cplusplus
/** Opens the part of a header that has C linkage. */
#define QEL_BEGIN_DECLS extern "C" {
/** Closes what QEL_BEGIN_DECLS opened. */
#define QEL_END_DECLS }
#else
#define QEL_BEGIN_DECLS
#define QEL_END_DECLS
#endif

/** A result code: 0, a plain errno number, or a composite of severity, subsystem, code and errno
 * (qel/cerrno.h). */
typedef uint32_t cerrno;

#endif
