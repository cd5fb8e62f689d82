/** @file
 * Result codes of the library: composing, publishing and decoding them.
 *
 * A cerrno is one 32-bit word. 0 is success; a value of at most 0x1ff is a plain errno number; any other is
 *
 *     bits 31..29 severity | 28 zero | 27..15 subsystem | 14..9 code of that subsystem | 8..0 errno
 *
 * Most of the library gives a severity and an errno only, such as 0xa0000016: fatal, EINVAL. A component with
 * codes of its own describes them in a table that it registers while it is loaded:
 *
 *     static const qel_cerrno_code codes[] = {{1, "No such line card"}, {2, "Line card is busy"}};
 *     static const qel_cerrno_info info = {"Chassis", 100, 2, codes, 1, 0};
 *     static qel_cerrno_node node = {QEL_CERRNO_NODE_MAGIC, NULL, &info};
 *     __attribute__((constructor)) static void load(void) { __register_cerrno(&node); }
 *
 * and prints whatever any call gave with
 *
 *     fprintf(stderr, "%s\n", cerr_strerror(result));
 *
 * The tables of all processes lie in shared memory (objects "cerr_map_hdr" and "cerr_map.<subsystem>.<major>.
 * <minor>" below the parameter "qel.shm.root"), so a process can print a code whose component it never
 * linked. They are published by qel_cerrno_init, or by the first decoding of such a code in a process, and
 * outlive their publishers; a table of a newer version takes an older one's place.
 *
 * Threads: tables are registered before the process has threads. All other calls may run on any thread at any
 * time, and each thread decodes into texts of its own. The first decoding in a process may sleep for up to a
 * second while another process prepares the maps.
 */
#ifndef QEL_CERRNO_H
#define QEL_CERRNO_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Severity (bits 31 to 29 of a code): the call did its work, and there is something to know. */
#define QEL_CERRNO_INFORMATIONAL 0x20000000u
/** Severity: the call did not do its work and the caller can go on: a result not there yet, an object already
 * there. */
#define QEL_CERRNO_WARNING 0x40000000u
/** Severity: a passing shortage; the same call can succeed later. */
#define QEL_CERRNO_TRY_AGAIN 0x80000000u
/** Severity: the call failed. */
#define QEL_CERRNO_FATAL 0xa0000000u
/** Severity: memory, a descriptor or another resource is missing. */
#define QEL_CERRNO_NO_RESOURCE 0xc0000000u
/** The bits of a code that hold its severity. */
#define QEL_CERRNO_SEVERITY_MASK 0xe0000000u

/** First word of a table's node. */
#define QEL_CERRNO_NODE_MAGIC 0xabcdef00u

/** One row of a component's table. */
typedef struct qel_cerrno_code {
    uint32_t code;    /**< 0 to 63 */
    const char* text; /**< not empty; a decoder shows its first 249 characters */
} qel_cerrno_code;

/** A component's table. It belongs to the component and is used in place. */
typedef struct qel_cerrno_info {
    const char* name;   /**< not empty; 63 characters are published, a decoder shows 49 */
    uint32_t subsystem; /**< 0 to 8191; 2 is the library's own. Codes of subsystem 0 aren't looked up */
    uint32_t count;     /**< rows, at least one */
    const qel_cerrno_code* codes; /**< the first row with a number is the one that counts */
    uint32_t major;               /**< the version, published in 16 bits each, not 0.0 */
    uint32_t minor;               /**< see 'major' */
} qel_cerrno_info;

/** What registers a table. It stays with the list for the life of the process. */
typedef struct qel_cerrno_node {
    uint32_t magic;               /**< QEL_CERRNO_NODE_MAGIC */
    struct qel_cerrno_node* next; /**< written by __register_cerrno */
    const qel_cerrno_info* info;  /**< the component's table */
} qel_cerrno_node;

/** The texts of a code. Texts that a code doesn't have are null. */
typedef struct qel_cerrno_strings {
    uint32_t decoded;      /**< 1 once this thread has decoded a composite; it stays 1 */
    const char* severity;  /**< "warning", "fatal" ... */
    const char* subsystem; /**< the component's name */
    const char* code;      /**< the text of the component's code */
    const char* err;       /**< the system's text of the errno */
} qel_cerrno_strings;

/** What a thread decodes into; the library's to write. */
typedef struct qel_cerrno_thread {
    char* text;         /**< where cerr_strerror builds its sentence: named memory of 'capacity' bytes */
    uint32_t capacity;  /**< bytes at 'text' */
    char subsystem[50]; /**< what strings.subsystem points at */
    char err[50];       /**< what strings.err points at */
    char code[250];     /**< what strings.code points at */
    qel_cerrno_strings strings; /**< what cerr_getstrings gives */
} qel_cerrno_thread;

/** A table that is published in shared memory. */
typedef struct qel_cerrno_map_info {
    const char* name;      /**< the component's name */
    uint32_t count;        /**< rows at 'codes' */
    const void* codes;     /**< packed rows without alignment: uint32_t code, text, NUL */
    const void* codes_end; /**< nothing from here on may be read */
} qel_cerrno_map_info;

/** The registered tables, newest first. Written by __register_cerrno. */
extern QEL_API qel_cerrno_node* qel_cerrno_root;

/** Puts a table's node at the head of qel_cerrno_root. Called from a load-time constructor, before the
 * process has threads: it takes no lock. A null node and one that is on the list already change nothing. */
QEL_API void __register_cerrno(qel_cerrno_node* node);

/** Tests a table by the rules of its record. Returns 0, or 0xa0010216 (QEL Cerrno Infra: invalid args). */
QEL_API cerrno qel_cerrno_validate_info(const qel_cerrno_info* info);

/** Gives the texts of 'code', which belong to the calling thread and stay until its next decoding.
 *
 * Of a plain errno only 'err' is set. A composite whose table isn't to be had reads "Unknown Subsystem(%d)"
 * and "Unknown Code(%d)" with its numbers, and that is no failure.
 *
 * Returns 0; 0xa0010216 for a null 'out', and for a composite without a subsystem, then with '*out' set to
 * the default texts; 0xc001060c without memory for the thread's record; 0xc0010c00 with an errno when the
 * decoders' lock can't be taken, then with '*out' set to the default texts. */
QEL_API cerrno cerr_getstrings(uint32_t code, qel_cerrno_strings** out);

/** Gives a sentence that tells 'code', in the calling thread's memory, valid until its next decoding and not
 * to be handed to another thread. Never null.
 *
 * A composite with a code of its own reads "'subsystem' detected the 'severity' condition 'code text': errno
 * text", without the last part when its errno is 0. Everything else reads as the system's text of its errno.
 * Without memory it is "Unable to decode cerrno". */
QEL_API const char* cerr_strerror(uint32_t code);

/** Gives the calling thread's record, made on first use and freed when the thread ends; null without memory.
 */
QEL_API qel_cerrno_thread* cerr_threadspecific(void);

/** Writes the system's text of 'errnum', or "Unknown Error(%d)" when it has none or the text doesn't fit.
 * 'size' is in bytes and includes the NUL; a null buffer or a size of 0 writes nothing. Returns 'buffer'. */
QEL_API char* strerror_pd(int errnum, char* buffer, size_t size);

/** Opens the maps and publishes every registered table that is newer than what is published. Callable again
 * and again.
 *
 * Returns 0; 0xc0010a00 with an errno when a map can't be opened; 0xa0010816 when a map is corrupt, or
 * another process took its first use away in that moment; 0xa0010416 for a node without its magic; 0xa0010216
 * for a table against the rules; 0xc0010c00 with an errno when a lock can't be had: ETIMEDOUT after two
 * seconds for the one in the maps, which a process that died may have left taken. A table in error ends the
 * publication: those behind it on the list are not published. */
QEL_API cerrno qel_cerrno_init(void);

/** Gives the published table of 'subsystem' in a record that the caller frees with qel_named_free; null when
 * there is none, its map is corrupt, or memory is short. Opens the maps as qel_cerrno_init does if the
 * process hasn't yet.
 *
 * 'name' and 'codes' point into the mapping, which any later decoding of another subsystem may take away:
 * they are for a caller that keeps its other threads from decoding. cerr_getstrings has no such limit. */
QEL_API qel_cerrno_map_info* qel_get_cerrno_info(uint32_t subsystem);

QEL_END_DECLS

#endif
