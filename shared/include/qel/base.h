/** @file
 * Base utilities: random numbers, the version, a safe string copy, size rounding and the MD5 digest.
 *
 *     char name[16];
 *     sstrncpy(name, from_the_wire, sizeof name);
 *
 *     qel_md5_ctx digest;
 *     uint8_t out[QEL_MD5_DIGEST_SIZE];
 *     qel_md5_init(&digest);
 *     qel_md5_update(&digest, data, size);
 *     qel_md5_finish(&digest, out);
 *
 * Threads: every call is safe on any thread; a digest context belongs to one thread at a time. The random
 * numbers are those of the C library, so all threads share one sequence.
 */
#ifndef QEL_BASE_H
#define QEL_BASE_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Starts the process's random sequence anew from 'seed', by srand(3). */
QEL_API void qel_random_set_seed(uint32_t seed);

/** Gives the next random number, 0 to RAND_MAX (2^31 - 1), by rand(3). Not for secrets. */
QEL_API uint32_t qel_random_uint32(void);

/** Gives a random number from 'low' up to, but without, 'high'. It comes from one rand(3), so it is never
 * 2^31 or more above 'low'. 'high' must be above 'low'; when it isn't, the result is 'low'. */
QEL_API uint32_t qel_random_bounded_uint32(uint32_t low, uint32_t high);

/** Gives the version as a number, a byte for each of its four parts: 0xa0000. */
QEL_API uint32_t qel_get_version_id(void);

/** Gives the version as a text, "0.10.0.0". The text is static. */
QEL_API const char* qel_get_version(void);

/** Copies 'source' to 'destination', cut to 'size' - 1 characters, and always ends it with a NUL. A 'size' of
 * 0 writes nothing; a null 'source' counts as an empty text. The buffers must not overlap.
 *
 * Returns 'destination'. */
QEL_API char* sstrncpy(char* destination, const char* source, size_t size);

/** Gives 'size' rounded up to a multiple of 4. A size within 3 of 2^32 wraps to 0. */
QEL_API uint32_t qel_round32bit(uint32_t size);

/** Gives 'size' rounded up to a multiple of 8. A size within 7 of 2^32 wraps to 0. */
QEL_API uint32_t qel_round64bit(uint32_t size);

/** Gives 'pointer' less its const, for C interfaces that never write through it. */
QEL_API void* qel_cast_const(const void* pointer);

/** Prints to standard output. Returns what vprintf(3) does: the characters printed, or a negative value. */
QEL_API int qel_cli_printf(const char* format, ...) QEL_PRINTF(1, 2);

/** The library calls this first in its calls that must not run in an interrupt. Does nothing on Linux. */
QEL_API void qel_check_not_interrupt_path(void);

/** Bytes of an MD5 digest (RFC 1321). */
#define QEL_MD5_DIGEST_SIZE 16

/** An MD5 digest in the making. The caller's memory; holds no resource and may be copied or dropped. */
typedef struct qel_md5_ctx {
    uint32_t state[4];  /**< the four chaining words A, B, C, D */
    uint64_t bit_count; /**< bits digested so far */
    uint8_t buffer[64]; /**< the block that isn't full yet */
} qel_md5_ctx;

/** Begins a digest. Returns 0; EINVAL for a null 'context'. */
QEL_API int qel_md5_init(qel_md5_ctx* context);

/** Digests 'size' bytes more; a message may come in any number of pieces. A null argument does nothing. */
QEL_API void qel_md5_update(qel_md5_ctx* context, const void* data, size_t size);

/** Ends the digest, writes its 16 bytes and clears the context. A null argument does nothing. */
QEL_API void qel_md5_finish(qel_md5_ctx* context, uint8_t digest[QEL_MD5_DIGEST_SIZE]);

QEL_END_DECLS

#endif
