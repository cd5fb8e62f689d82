// Bit lists: their memory, single bits, and the cursor.
//
// A list is one block: five words of header, then the data words. Values are turned into offsets by taking
// 'base' away in 32 bits, so a value below 'base' becomes an offset past every size.
//
// Invariant: bits past 'size' in the last word are clear, unless qel_bitlist_not() set them; nothing that is
// looked for is found there. The cursor is the caller's to write, so it is checked before its use.
// Locks and threads: none; the caller of each list holds its own lock.
#include "containers/qel_bitlist.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"

namespace qel {
namespace {

static_assert(sizeof(qel_bitlist) == 20 && QEL_BITLIST_WORDS(33) == 7);
static_assert(bitlist_word_count(0xffffffff) == 0x8000000);

constexpr std::size_t block_size(std::uint32_t size) {
    return sizeof(qel_bitlist) + std::size_t{bitlist_word_count(size)} * sizeof(std::uint32_t);
}

bool in_range(const qel_bitlist* list, std::uint32_t value) {
    return list != nullptr && value - list->base < list->size;
}

// The word with the bit of 'value', which is in range.
std::uint32_t& word_of(qel_bitlist& list, std::uint32_t value) {
    return bitlist_words(list)[(value - list.base) / kWordBits];
}
constexpr std::uint32_t bit_of(const qel_bitlist& list, std::uint32_t value) {
    return 1u << (value - list.base) % kWordBits;
}

// The offset behind the cursor. Behind bit 31 of word 0xffffffff it is 0.
std::uint64_t behind_cursor(const qel_bitlist& list) {
    constexpr std::uint64_t wrap = std::uint64_t{kWordBits} << 32;
    const std::uint32_t bit = std::min(list.cursor_bit, kWordBits - 1);
    return (std::uint64_t{list.cursor_word} * kWordBits + bit + 1) % wrap;
}

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_bitlist_init(qel_bitlist* list, uint32_t size, uint32_t base) {
    if (list == nullptr) return fatal(EINVAL);
    *list = {bitlist_word_count(size), size, base, 0, 0};
    return 0;
}

qel_bitlist* qel_bitlist_alloc(uint32_t size, uint32_t base, uint32_t) {
    if (size == 0 || size > UINT32_MAX - base) return nullptr;
    void* block = qel_named_calloc_(1, block_size(size), qel_tag_e_get_string(QEL_MEM_UTILS), 0);
    auto* list = static_cast<qel_bitlist*>(block);
    static_cast<void>(qel_bitlist_init(list, size, base));  // refuses nothing but the null list
    return list;
}

void qel_bitlist_free(qel_bitlist* list) {
    if (list == nullptr) return;
    *list = {};
    qel_named_free(list);
}

cerrno qel_bitlist_copy(const qel_bitlist* source, qel_bitlist* destination) {
    if (source == nullptr || destination == nullptr || source->size != destination->size)
        return fatal(EINVAL);
    if (source != destination) std::memcpy(destination, source, block_size(source->size));
    return 0;
}

cerrno qel_bitlist_clone(const qel_bitlist* source, uint8_t copy_bits, qel_bitlist** out) {
    if (source == nullptr || out == nullptr) return fatal(EINVAL);
    qel_bitlist* clone = qel_bitlist_alloc(source->size, source->base, 0);
    if (clone == nullptr) return fatal(EINVAL);
    if (copy_bits != 0) std::ranges::copy(bitlist_words(*source), bitlist_words(*clone).begin());
    *out = clone;
    return 0;
}

uint32_t qel_bitlist_size(const qel_bitlist* list) {
    return list == nullptr ? UINT32_MAX : list->size;
}

cerrno qel_bitlist_set(qel_bitlist* list, uint32_t value) {
    if (!in_range(list, value)) return fatal(EINVAL);
    word_of(*list, value) |= bit_of(*list, value);
    return 0;
}

cerrno qel_bitlist_clear(qel_bitlist* list, uint32_t value) {
    if (!in_range(list, value)) return fatal(EINVAL);
    word_of(*list, value) &= ~bit_of(*list, value);
    return 0;
}

int qel_bitlist_get(const qel_bitlist* list, uint32_t value) {
    if (!in_range(list, value)) return 0;
    return (bitlist_words(*list)[(value - list->base) / kWordBits] & bit_of(*list, value)) != 0;
}

int qel_bitlist_valid(const qel_bitlist* list, uint32_t offset) {
    return list != nullptr && offset < list->size;
}

cerrno qel_bitlist_setall(qel_bitlist* list) {
    if (list == nullptr) return fatal(EINVAL);
    const std::span words = bitlist_words(*list);
    std::ranges::fill(words, ~0u);
    if (list->size % kWordBits != 0) words.back() = ~(~0u << list->size % kWordBits);
    return 0;
}

cerrno qel_bitlist_clearall(qel_bitlist* list) {
    if (list == nullptr) return fatal(EINVAL);
    std::ranges::fill(bitlist_words(*list), 0u);
    return 0;
}

cerrno qel_bitlist_setall_d(qel_bitlist* list, uint32_t size, uint32_t base) {
    if (size == 0 || qel_bitlist_init(list, size, base) != 0) return fatal(EINVAL);
    return qel_bitlist_setall(list);
}

cerrno qel_bitlist_clearall_d(qel_bitlist* list, uint32_t size, uint32_t base) {
    if (size == 0 || qel_bitlist_init(list, size, base) != 0) return fatal(EINVAL);
    return qel_bitlist_clearall(list);
}

uint32_t qel_bitlist_find_bit(qel_bitlist* list, bool from_start) {
    if (list == nullptr) return QEL_BITLIST_NONE;
    const std::uint64_t from = from_start ? 0 : behind_cursor(*list);
    const std::uint64_t found = bitlist_search<Bit::set>(*list, from);
    const auto word = static_cast<std::uint32_t>(found / kWordBits);
    if (word >= bitlist_word_count(list->size)) return QEL_BITLIST_NONE;
    list->cursor_word = word;
    list->cursor_bit = static_cast<std::uint32_t>(found % kWordBits);
    if (found < list->size) return list->base + static_cast<std::uint32_t>(found);
    list->cursor_word = bitlist_word_count(list->size);
    return QEL_BITLIST_NONE;
}

uint32_t qel_bitlist_find_first(qel_bitlist* list) {
    return qel_bitlist_find_bit(list, true);
}

uint32_t qel_bitlist_find_after(qel_bitlist* list, uint32_t value) {
    if (list != nullptr && value == 0) value = list->base;
    if (!in_range(list, value)) return QEL_BITLIST_NONE;
    list->cursor_word = (value - list->base) / kWordBits;
    list->cursor_bit = (value - list->base) % kWordBits;
    return qel_bitlist_find_bit(list, false);
}
