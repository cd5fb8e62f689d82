// Bit lists as sets: intersection, union, difference, complement, counting and comparison.
//
// All of it runs over the data words in blocks of 16 bytes and over what is left word by word. A block is
// loaded whole before it is stored, so a result may be one of the inputs. Counting takes the processor's own
// instruction where it has one.
//
// Bits past 'size' in the last word take part: they are clear in all lists, but for a complement's.
// Locks and threads: none; the caller of each list holds its own lock.
#include <bit>
#include <cerrno>
#include <cstring>

#include "containers/qel_bitlist.hpp"
#include "core/qel_codes.hpp"

namespace qel {
namespace {

using Word = std::uint32_t;
using Words = std::span<const Word>;
using Block = Word __attribute__((vector_size(16)));
constexpr std::size_t kBlockWords = sizeof(Block) / sizeof(Word);

// result[i] = operation(a[i], b[i]) for all words of lists of one size.
template <class Operation>
void combine(Words a, Words b, std::span<Word> result, Operation operation) {
    std::size_t i = 0;
    for (; i + kBlockWords <= a.size(); i += kBlockWords) {
        Block left, right;
        std::memcpy(&left, &a[i], sizeof left);
        std::memcpy(&right, &b[i], sizeof right);
        operation(left, right);
        std::memcpy(&result[i], &left, sizeof left);
    }
    for (; i < a.size(); ++i) {
        Word left = a[i];
        operation(left, b[i]);
        result[i] = left;
    }
}

template <class Operation>
cerrno combine_lists(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result, Operation operation) {
    if (a == nullptr || b == nullptr || result == nullptr) return fatal(EINVAL);
    if (a->size != b->size || a->size != result->size) return fatal(EINVAL);
    if (result != a && result != b) *result = *a;
    combine(bitlist_words(*a), bitlist_words(*b), bitlist_words(*result), operation);
    return 0;
}

// Both are inlined into functions for different processors.
[[gnu::always_inline]] inline std::uint64_t sum_pair(const Word* words) {
    return static_cast<std::uint64_t>(__builtin_popcountll(load_pair(words)));
}
[[gnu::always_inline]] inline std::uint64_t sum_bits(Words words) {
    std::uint64_t sum = 0;
    std::size_t i = 0;
    for (; i + 8 <= words.size(); i += 8)
        sum +=
            sum_pair(&words[i]) + sum_pair(&words[i + 2]) + sum_pair(&words[i + 4]) + sum_pair(&words[i + 6]);
    for (; i < words.size(); ++i) sum += static_cast<std::uint64_t>(__builtin_popcount(words[i]));
    return sum;
}

#if defined(__x86_64__)
[[gnu::target("popcnt")]] std::uint64_t count_by_instruction(Words words) {
    return sum_bits(words);
}
std::uint64_t count_bits(Words words) {
    return __builtin_cpu_supports("popcnt") ? count_by_instruction(words) : sum_bits(words);
}
#else
std::uint64_t count_bits(Words words) {
    return sum_bits(words);
}
#endif

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_bitlist_and(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result) {
    return combine_lists(a, b, result, [](auto& left, const auto& right) { left &= right; });
}

cerrno qel_bitlist_or(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result) {
    return combine_lists(a, b, result, [](auto& left, const auto& right) { left |= right; });
}

cerrno qel_bitlist_xor(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result) {
    return combine_lists(a, b, result, [](auto& left, const auto& right) { left ^= right; });
}

cerrno qel_bitlist_not(const qel_bitlist* a, qel_bitlist* result) {
    return combine_lists(a, a, result, [](auto& left, const auto&) { left = ~left; });
}

uint32_t qel_bitlist_count(const qel_bitlist* list) {
    return list == nullptr ? UINT32_MAX : static_cast<std::uint32_t>(count_bits(bitlist_words(*list)));
}

int qel_bitlist_equal(const qel_bitlist* a, const qel_bitlist* b) {
    if (a == nullptr || b == nullptr || a->size != b->size || a->base != b->base) return 0;
    const Words words = bitlist_words(*a);
    return std::memcmp(words.data(), bitlist_words(*b).data(), words.size_bytes()) == 0;
}

int qel_bitlist_anybit_set(const qel_bitlist* list) {
    if (list == nullptr) return 0;
    return bitlist_search<Bit::set>(*list, 0) < bitlist_words(*list).size() * kWordBits;
}
