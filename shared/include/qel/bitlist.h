/** @file
 * Bit lists: `qel_bitlist`, a set of integers of a fixed range, such as VLANs or ports, one bit each.
 *
 * The range begins at `base`, and all values are the caller's numbers: value v is bit v - `base`. There is
 * set algebra, a cursor that goes from set bit to set bit, and a text form such as 1,3-5,9.
 *
 *     qel_bitlist* vlans = qel_bitlist_alloc(4094, 1, 0);              // the values 1 to 4094
 *     qel_bitlist_from_string(vlans, "1,3-5,9");
 *     for (uint32_t v = qel_bitlist_find_first(vlans); v != QEL_BITLIST_NONE;
 *          v = qel_bitlist_find_bit(vlans, false)) ...
 *     char text[16];                                                   // the text in pieces
 *     for (uint32_t v = qel_bitlist_find_first(vlans); v != QEL_BITLIST_NONE;
 *          v = qel_bitlist_find_bit(vlans, false)) {
 *         if (qel_bitlist_to_string(vlans, sizeof(text), v, text) != 0 || *text == 0) break;
 *         puts(text);
 *     }
 *     qel_bitlist_free(vlans);
 *
 * A list can also lie in the caller's memory:
 *
 *     uint32_t memory[QEL_BITLIST_WORDS(64)];
 *     qel_bitlist_clearall_d((qel_bitlist*)memory, 64, 0);
 *
 * Threads: there are no locks in here. Calls that take a const list may run side by side; whoever else uses a
 * list, be it only with the cursor, must have it alone. */
#ifndef QEL_BITLIST_H
#define QEL_BITLIST_H

#include <qel/types.h>
#include <stdbool.h>

QEL_BEGIN_DECLS

/** What stands for a value where there is none. */
#define QEL_BITLIST_NONE 0xffffffffu

/** The 32-bit words that a list of 'size' bits takes in the caller's memory, header and data. */
#define QEL_BITLIST_WORDS(size) (5u + (size) / 32u + ((size) % 32u != 0u))

/** A list's header. The data follow it at once, `words` values of 32 bits: value v is bit (v - `base`) % 32,
 * counted from the least significant, of word (v - `base`) / 32. The fields are for reading. */
typedef struct qel_bitlist {
    uint32_t words;       /**< data words, `size` / 32 rounded up */
    uint32_t size;        /**< bits */
    uint32_t base;        /**< the value of bit 0 */
    uint32_t cursor_word; /**< word of the last bit found; `words` or more: none follows, but 0xffffffff with
                               bit 31, which is just before bit 0 */
    uint32_t cursor_bit;  /**< bit of the last bit found, 0 to 31 */
} qel_bitlist;

/** Fills in the header of a list of 'size' bits in the caller's memory of #QEL_BITLIST_WORDS words, with the
 * cursor on bit 0. The data aren't touched: qel_bitlist_clearall_d() does both. 'size' + 'base' should stay
 * below 2^32, else values wrap around. Returns 0; 0xa0000016 for a null list. */
QEL_API cerrno qel_bitlist_init(qel_bitlist* list, uint32_t size, uint32_t base);

/** Makes a list of 'size' bits for the values from 'base' on, all clear. 'flags' is ignored.
 * Returns the list, which qel_bitlist_free() gives back; null for a 'size' of 0, a 'size' + 'base' of 2^32 or
 * more, and without memory. */
QEL_API qel_bitlist* qel_bitlist_alloc(uint32_t size, uint32_t base, uint32_t flags);

/** Clears the header of a list from qel_bitlist_alloc() or qel_bitlist_clone() and frees it. Does nothing for
 * a null list. */
QEL_API void qel_bitlist_free(qel_bitlist* list);

/** Makes 'destination' the same as 'source': bits, `base` and cursor.
 * Returns 0; 0xa0000016 for a null list and for lists of different size. */
QEL_API cerrno qel_bitlist_copy(const qel_bitlist* source, qel_bitlist* destination);

/** Makes a list of the size and `base` of 'source' with the cursor on bit 0, and with its bits unless
 * 'copy_bits' is 0. The list is the caller's, for qel_bitlist_free().
 * Returns 0; 0xa0000016 for a null argument, a 'source' that qel_bitlist_alloc() couldn't have made, and
 * without memory. 'out' is written on success only. */
QEL_API cerrno qel_bitlist_clone(const qel_bitlist* source, uint8_t copy_bits, qel_bitlist** out);

/** Returns the size in bits; 0xffffffff for a null list. */
QEL_API uint32_t qel_bitlist_size(const qel_bitlist* list);

/** Returns the number of set bits, with those past `size` that qel_bitlist_not() sets; 0xffffffff for a null
 * list. */
QEL_API uint32_t qel_bitlist_count(const qel_bitlist* list);

/** Returns 1 when `size`, `base` and all data words match, else 0; 0 for a null list. */
QEL_API int qel_bitlist_equal(const qel_bitlist* a, const qel_bitlist* b);

/** Puts 'value' into the set. Returns 0; 0xa0000016 for a null list and a value out of range. */
QEL_API cerrno qel_bitlist_set(qel_bitlist* list, uint32_t value);
/** Takes 'value' out of the set. Returns 0; 0xa0000016 for a null list and a value out of range. */
QEL_API cerrno qel_bitlist_clear(qel_bitlist* list, uint32_t value);
/** Returns 1 when 'value' is in the set, else 0; 0 for a null list and a value out of range. */
QEL_API int qel_bitlist_get(const qel_bitlist* list, uint32_t value);
/** Returns 1 when the 'offset', a value less `base`, is below `size`, else 0; 0 for a null list. */
QEL_API int qel_bitlist_valid(const qel_bitlist* list, uint32_t offset);

/** Sets all bits; those past `size` in the last word become clear. Returns 0; 0xa0000016 for a null list. */
QEL_API cerrno qel_bitlist_setall(qel_bitlist* list);
/** Clears all bits. Returns 0; 0xa0000016 for a null list. */
QEL_API cerrno qel_bitlist_clearall(qel_bitlist* list);

/** As qel_bitlist_init(), then sets all bits. Returns 0; 0xa0000016 for a null list and a 'size' of 0. */
QEL_API cerrno qel_bitlist_setall_d(qel_bitlist* list, uint32_t size, uint32_t base);
/** As qel_bitlist_init(), then clears all bits. Returns 0; 0xa0000016 for a null list and a 'size' of 0. */
QEL_API cerrno qel_bitlist_clearall_d(qel_bitlist* list, uint32_t size, uint32_t base);

/** Returns 1 when any bit is set, those past `size` counted, else 0; 0 for a null list. */
QEL_API int qel_bitlist_anybit_set(const qel_bitlist* list);

/** Makes 'result' the intersection of 'a' and 'b', bit by bit; their `base` isn't compared. 'result' may be
 * either of them and keeps its header then; else its header becomes that of 'a', cursor included.
 * Returns 0; 0xa0000016 for a null list and when the three are not of one size. */
QEL_API cerrno qel_bitlist_and(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result);
/** Makes 'result' the union of 'a' and 'b'; otherwise as qel_bitlist_and(). */
QEL_API cerrno qel_bitlist_or(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result);
/** Makes 'result' what is in one of 'a' and 'b' only; otherwise as qel_bitlist_and(). */
QEL_API cerrno qel_bitlist_xor(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result);

/** Makes 'result' what isn't in 'a', with headers as in qel_bitlist_and(). Whole words are inverted: bits
 * past `size` in the last word become set. They are counted and compared, but never found. Returns 0;
 * 0xa0000016 for a null list and lists of different size. */
QEL_API cerrno qel_bitlist_not(const qel_bitlist* a, qel_bitlist* result);

/** Finds a set bit and puts the cursor on it: the lowest one when 'from_start' is true, else the first behind
 * the cursor. Returns its value; #QEL_BITLIST_NONE for a null list and when there is none: then the cursor
 * stays, but for bits past `size`, which put it behind the last word. */
QEL_API uint32_t qel_bitlist_find_bit(qel_bitlist* list, bool from_start);

/** As qel_bitlist_find_bit() from the start. */
QEL_API uint32_t qel_bitlist_find_first(qel_bitlist* list);

/** Puts the cursor on 'value', set or not, and finds the next set bit as qel_bitlist_find_bit(). A 'value' of
 * 0 stands for `base`. Returns the value found; #QEL_BITLIST_NONE for a null list, a value out of range,
 * which leaves the cursor, and when none follows. */
QEL_API uint32_t qel_bitlist_find_after(qel_bitlist* list, uint32_t value);

/** Writes the set from the value 'start' on as text of decimal numbers to 'buffer', which has room for 'size'
 * bytes, the closing 0 included: 1,3-5,9. A 'size' of 1 counts as 2, so 'buffer' has at least two bytes.
 *
 * When an entry doesn't fit the text ends before it, or with the low value of a run whose high one doesn't
 * fit. The cursor is then just before the first value not written, and otherwise on the last one written: in
 * either case qel_bitlist_find_bit(list, false) gives the 'start' of the next call, or says that there is
 * none. An empty text with a result of 0 means that 'buffer' is too short for a single value.
 *
 * Returns 0; 0xa0000016 for a null argument, a 'size' of 0, a 'start' below `base` or more than `size` above
 * it, and when no bit is set from 'start' on; 0xffffffff for a 'start' of `base` + `size`. Every failure but
 * the first two leaves an empty text. */
QEL_API uint32_t qel_bitlist_to_string(qel_bitlist* list, uint32_t size, uint32_t start, char* buffer);

/** Sets the bits that 'text' names: decimal numbers and ranges low-high, separated by commas, without spaces.
 * Bits that are set stay so. An empty text names none.
 * Returns 0; 0xa0000016 for a null argument, and at the first thing that isn't right: a number out of the
 * list's range, a range without a high end above its low one, another character, a comma at the end. What
 * was named before that is set. */
QEL_API cerrno qel_bitlist_from_string(qel_bitlist* list, const char* text);

/** Prints the values above `base` to standard output in hexadecimal, as "0x1,0x3-0x5,0x9". `base` itself
 * isn't shown; no newline follows. Does nothing for a null list. */
QEL_API void qel_bitlist_dump(qel_bitlist* list);

QEL_END_DECLS

#endif
