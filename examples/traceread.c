/* traceread: shows a trace buffer, also when its writers are long gone.
 *
 * usage: traceread [--root PREFIX] BUFFER [COUNT]
 *
 * Prints what the buffer says of itself and its last COUNT entries (20), oldest first, as text.
 *
 * An entry holds no text: it holds the number of a trace point and the raw arguments. The texts lie, once
 * each, in the machine's list of trace points. So this program maps both segments and puts text and arguments
 * together. It only reads; writers may go on meanwhile. What it reads was written by others: each number is
 * checked before use.
 */
#include <inttypes.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel/qel.h>

/* The buffer's segment: a header, an array of control words, an array of blocks. */
#define SEGMENT_MAGIC 0xba5eba11u
#define OFFSET_BLOCKS 136        /* number of blocks */
#define OFFSET_CLEAR_SECONDS 216 /* time of the last clear; entries older than that don't count */
#define OFFSET_CLEAR_NANOSECONDS 220
#define OFFSET_CONTROL 224
#define BLOCK_SIZE 64u
#define MIN_BLOCKS 128u
#define MAX_BLOCKS 0x100000u

/* A control word: sequence in bits 0 to 15, state in 16 to 23, number of blocks of the entry in 24 to 31. */
#define STATE_USED 2u
#define MAX_ENTRY_BLOCKS 16u

struct entry {
    uint16_t length; /* of 'data' */
    uint16_t stamp;
    uint32_t sequence;
    uint32_t process_id;
    uint32_t trace_point;
    uint32_t seconds;
    uint32_t nanoseconds;
    uint8_t data[MAX_ENTRY_BLOCKS * BLOCK_SIZE - 24]; /* the numeric arguments, then the others */
};
_Static_assert(sizeof(struct entry) == MAX_ENTRY_BLOCKS * BLOCK_SIZE, "as in the segment");

/* Type codes of arguments. */
enum {
    WORD32 = 1,
    WORD64 = 2,
    STRING = 3,
    IPV4_POINTER = 4,
    IPV6_POINTER = 5,
    MAC_POINTER = 6,
    IPV4_VALUE = 7
};

/* Where an entry lies, for sorting. */
struct place {
    uint32_t sequence;
    uint32_t block;
};

struct buffer {
    const uint8_t* base;
    uint32_t blocks; /* checked: they all lie in the segment */
};

static void must(int error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "traceread: %s: %s\n", what, cerr_strerror((uint32_t)error));
    exit(1);
}

static uint32_t word_at(const struct buffer* buffer, size_t offset) {
    return __atomic_load_n((const uint32_t*)(const void*)(buffer->base + offset), __ATOMIC_ACQUIRE);
}

/* ---- Text. ---- */

/* The arguments of an entry: numbers are taken from the first part, all else from the second. */
struct arguments {
    const uint8_t* number;
    const uint8_t* other;
    const uint8_t* end;
};

static uint64_t take_number(struct arguments* args, size_t size) {
    uint64_t value = 0;
    if ((size_t)(args->end - args->number) < size) return 0;
    memcpy(&value, args->number, size); /* little-endian: the low bytes come first */
    args->number += size;
    return value;
}

static void print_bytes(const uint8_t* bytes, size_t count, const char* format, const char* between) {
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) fputs(between, stdout);
        printf(format, bytes[i]);
    }
}

/* A text may hold what a terminal would obey. */
static void print_character(char c) {
    putchar((unsigned char)c < ' ' || c == 0x7f ? '?' : c);
}

static void print_string(const uint8_t* text) {
    for (; *text != '\0'; ++text) print_character((char)*text);
}

static void print_other(struct arguments* args, uint32_t type) {
    const size_t left = (size_t)(args->end - args->other);
    const uint8_t* nul = memchr(args->other, '\0', left);
    const size_t size = type == STRING         ? (nul != NULL ? (size_t)(nul - args->other) + 1 : left + 1)
                        : type == MAC_POINTER  ? 6
                        : type == IPV6_POINTER ? 16
                                               : 4;
    if (size > left) return;
    if (type == STRING) print_string(args->other);
    if (type == MAC_POINTER) print_bytes(args->other, 6, "%02x", ":");
    if (type == IPV4_POINTER) print_bytes(args->other, 4, "%u", ".");
    if (type == IPV6_POINTER) print_bytes(args->other, 16, "%02x", "");
    args->other += size;
}

/* Prints the next argument the way that the letter of its conversion asks for. */
static void print_argument(struct arguments* args, uint32_t type, char letter) {
    if (type >= STRING && type <= MAC_POINTER) {
        print_other(args, type);
        return;
    }
    const uint64_t value = take_number(args, type == WORD64 ? 8 : 4);
    if (type == IPV4_VALUE)
        print_bytes((const uint8_t*)&value, 4, "%u", ".");
    else if (letter == 'd' || letter == 'i')
        printf("%" PRId64, type == WORD64 ? (int64_t)value : (int32_t)value);
    else
        printf(letter == 'u' ? "%" PRIu64 : letter == 'o' ? "%" PRIo64 : "0x%" PRIx64, value);
}

static bool usable(const qel_dt_tp_entry* point, const struct entry* entry) {
    return point->length > 0 && point->length <= QEL_DT_TP_FORMAT_SIZE &&
           point->argument_count <= QEL_DT_TP_MAX_ARGUMENTS && point->reserved == 0 &&
           point->fixed_size <= entry->length;
}

static void print_text(const qel_dt_tp_entry* point, const struct entry* entry) {
    struct arguments args = {entry->data, entry->data + point->fixed_size, entry->data + entry->length};
    const char* end = point->format + strnlen(point->format, sizeof point->format);
    uint32_t index = 0;
    for (const char* at = point->format; at < end; ++at) {
        if (*at != '%' || at[1] == '%') {
            print_character(*at);
            at += *at == '%';
            continue;
        }
        at += strcspn(at, "diouxXsp");
        if (at >= end || index == point->argument_count) return;
        const uint32_t type = point->types[index / 8] >> 4 * (index % 8) & 15;
        print_argument(&args, type, *at);
        if (type >= IPV4_POINTER && at[1] == '{') at += strcspn(at, "}");
        ++index;
    }
}

static void print_entry(const struct entry* entry, const qel_dt_tp_list* points) {
    char time[QEL_TIME_SYSTEM_DEFAULT_SIZE] = "";
    const struct timespec stamp = {entry->seconds, entry->nanoseconds};
    qel_time_format_system_default(&stamp, QEL_TIME_ZONE_LOCAL, time);
    printf("%8u  %s  pid %-7u  ", entry->sequence, time, entry->process_id);
    if (entry->trace_point < QEL_DT_TP_CAPACITY) {
        qel_dt_tp_entry point = points->entries[entry->trace_point];
        point.format[sizeof point.format - 1] = '\0';
        if (usable(&point, entry)) print_text(&point, entry);
    }
    putchar('\n');
}

/* ---- Entries. ---- */

/* Copies the entry at 'block'; false if there is none, or if a writer took the blocks meanwhile. */
static bool copy_entry(const struct buffer* buffer, uint32_t block, struct entry* entry) {
    const size_t control_at = OFFSET_CONTROL + 4 * (size_t)block;
    const uint32_t control = word_at(buffer, control_at);
    const uint32_t count = control >> 24;
    if ((control >> 16 & 0xff) != STATE_USED || count == 0 || count > MAX_ENTRY_BLOCKS) return false;
    if (count > buffer->blocks - block) return false;
    const size_t at = OFFSET_CONTROL + 4 * (size_t)buffer->blocks + BLOCK_SIZE * (size_t)block;
    memcpy(entry, buffer->base + at, count * BLOCK_SIZE);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return word_at(buffer, control_at) == control && entry->length <= count * BLOCK_SIZE - 24;
}

static bool since_clear(const struct buffer* buffer, const struct entry* entry) {
    const uint32_t seconds = word_at(buffer, OFFSET_CLEAR_SECONDS);
    if (entry->seconds != seconds) return entry->seconds > seconds;
    return entry->nanoseconds >= word_at(buffer, OFFSET_CLEAR_NANOSECONDS);
}

static int by_sequence(const void* a, const void* b) {
    const struct place* first = a;
    const struct place* second = b;
    return (first->sequence > second->sequence) - (first->sequence < second->sequence);
}

static void print_entries(const struct buffer* buffer, size_t wanted) {
    struct place* places = calloc(buffer->blocks, sizeof *places);
    must(places == NULL ? 12 : 0, "memory");
    struct entry entry;
    size_t found = 0;
    for (uint32_t block = 0; block < buffer->blocks; ++block)
        if (copy_entry(buffer, block, &entry) && since_clear(buffer, &entry))
            places[found++] = (struct place){entry.sequence, block};
    qsort(places, found, sizeof *places, by_sequence);
    must(qel_dt_tp_list_open(), "list of trace points");
    for (size_t i = found > wanted ? found - wanted : 0; i < found; ++i)
        if (copy_entry(buffer, places[i].block, &entry)) print_entry(&entry, qel_dt_tp_list_get());
    qel_dt_tp_list_close();
    free(places);
}

/* Maps the buffer's segment and holds its number of blocks against its size. */
static struct buffer map_buffer(const char* name, qel_shm_info* segment) {
    char segment_name[QEL_DT_NAME_SIZE];
    snprintf(segment_name, sizeof segment_name, "%s.qdt", name);
    must(qel_shm_safe_open(segment_name, 0, 0, SEGMENT_MAGIC, NULL, NULL, 100, segment), name);
    struct buffer buffer = {segment->addr, 0};
    if (segment->size >= OFFSET_CONTROL) buffer.blocks = word_at(&buffer, OFFSET_BLOCKS);
    const bool plausible = buffer.blocks >= MIN_BLOCKS && buffer.blocks <= MAX_BLOCKS;
    const bool fits = plausible && OFFSET_CONTROL + (4 + BLOCK_SIZE) * (size_t)buffer.blocks <= segment->size;
    must(fits ? 0 : 14, name);
    return buffer;
}

static void print_attributes(const char* name) {
    qel_dt_buffer_handle handle = NULL;
    qel_dt_buffer_attr attr;
    char cleared[QEL_TIME_SYSTEM_DEFAULT_SIZE] = "";
    must(qel_dt_buffer_open(&handle, name), name);
    must(qel_dt_buffer_get_attr(handle, &attr), name);
    const struct timespec clear = {(time_t)attr.clear_seconds, (long)attr.clear_nanoseconds};
    qel_time_format_system_default(&clear, QEL_TIME_ZONE_LOCAL, cleared);
    printf("buffer %s: %u bytes, %" PRIu64 " entries since %s, %u dropped\n", attr.name, attr.size,
           attr.count, cleared, attr.dropped);
    qel_dt_buffer_close(&handle);
}

int main(int argc, char** argv) {
    int at = 1;
    if (argc > 2 && strcmp(argv[1], "--root") == 0) {
        must(qel_ppm_set_string("qel.shm.root", argv[2]), "root");
        at = 3;
    }
    if (at >= argc) return fprintf(stderr, "usage: traceread [--root PREFIX] BUFFER [COUNT]\n"), 2;
    qel_shm_info segment;
    print_attributes(argv[at]);
    const struct buffer buffer = map_buffer(argv[at], &segment);
    print_entries(&buffer, at + 1 < argc ? strtoul(argv[at + 1], NULL, 10) : 20);
    qel_shm_close(&segment);
    return 0;
}
