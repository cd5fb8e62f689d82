// Bit lists as sets: intersection, union, difference, complement, counting and comparison.
//
// All of it runs over the data words in blocks of 16 bytes and over what is left word by word. Blocks are
// loaded before any is stored, so a result may be one of the inputs. Counting takes wider registers where the
// processor has them.
//
// Bits past 'size' in the last word take part: they are clear in all lists, but for a complement's.
// Locks and threads: none; the caller of each list holds its own lock.
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "containers/qel_bitlist.hpp"
#include "core/qel_codes.hpp"

namespace qel {
namespace {

using Word = std::uint32_t;
using Words = std::span<const Word>;
using Block = Word __attribute__((vector_size(16)));
constexpr std::size_t kBlockWords = sizeof(Block) / sizeof(Word);

Block load_block(const Word* words) {
    Block block;
    std::memcpy(&block, words, sizeof block);
    return block;
}
void store_block(Word* words, Block block) {
    std::memcpy(words, &block, sizeof block);
}

// result[i] = operation(a[i], b[i]) for all words of lists of one size. Four blocks a round, so that it
// matters little what a round itself costs, which depends on where the loop's code comes to lie.
template <class Operation>
void combine(Words a, Words b, std::span<Word> result, Operation operation) {
    constexpr std::size_t k1 = kBlockWords, k2 = 2 * k1, k3 = 3 * k1, step = 4 * k1;
    std::size_t i = 0;
    for (; i + step <= a.size(); i += step) {
        const Word *left = &a[i], *right = &b[i];
        const Block first = operation(load_block(left), load_block(right));
        const Block second = operation(load_block(left + k1), load_block(right + k1));
        const Block third = operation(load_block(left + k2), load_block(right + k2));
        const Block fourth = operation(load_block(left + k3), load_block(right + k3));
        store_block(&result[i], first);
        store_block(&result[i + k1], second);
        store_block(&result[i + k2], third);
        store_block(&result[i + k3], fourth);
    }
    for (; i < a.size(); ++i) result[i] = operation(a[i], b[i]);
}

template <class Operation>
cerrno combine_lists(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result, Operation operation) {
    if (a == nullptr || b == nullptr || result == nullptr) return fatal(EINVAL);
    if (a->size != b->size || a->size != result->size) return fatal(EINVAL);
    if (result != a && result != b) *result = *a;
    combine(bitlist_words(*a), bitlist_words(*b), bitlist_words(*result), operation);
    return 0;
}

std::uint64_t sum_bits(Words words) {
    std::uint64_t sum = 0;
    std::size_t i = 0;
    for (; i + 2 <= words.size(); i += 2) sum += static_cast<unsigned>(std::popcount(load_pair(&words[i])));
    return i == words.size() ? sum : sum + static_cast<unsigned>(std::popcount(words[i]));
}

#if defined(__x86_64__)
constexpr std::size_t kWideWords = sizeof(__m256i) / sizeof(Word);

// Each half of a byte looks its number of bits up in a register; then the bytes of each quarter are summed.
[[gnu::target("avx2")]] std::uint64_t sum_bits_wide(Words words) {
    const __m256i low_half = _mm256_set1_epi8(15);
    const __m256i bits =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4));
    __m256i sums = _mm256_setzero_si256();
    for (std::size_t i = 0; i < words.size(); i += kWideWords) {
        const __m256i block = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&words[i]));
        const __m256i low = _mm256_and_si256(block, low_half);
        const __m256i high = _mm256_and_si256(_mm256_srli_epi16(block, 4), low_half);
        const __m256i bytes =
            _mm256_add_epi8(_mm256_shuffle_epi8(bits, low), _mm256_shuffle_epi8(bits, high));
        sums = _mm256_add_epi64(sums, _mm256_sad_epu8(bytes, _mm256_setzero_si256()));
    }
    std::array<std::uint64_t, 4> quarters;
    std::memcpy(quarters.data(), &sums, sizeof sums);
    return quarters[0] + quarters[1] + quarters[2] + quarters[3];
}

std::uint64_t count_bits(Words words) {
    if (!__builtin_cpu_supports("avx2")) return sum_bits(words);
    const std::size_t wide = words.size() / kWideWords * kWideWords;
    return sum_bits_wide(words.first(wide)) + sum_bits(words.subspan(wide));
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
    return combine_lists(a, b, result, [](auto left, auto right) { return left & right; });
}

cerrno qel_bitlist_or(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result) {
    return combine_lists(a, b, result, [](auto left, auto right) { return left | right; });
}

cerrno qel_bitlist_xor(const qel_bitlist* a, const qel_bitlist* b, qel_bitlist* result) {
    return combine_lists(a, b, result, [](auto left, auto right) { return left ^ right; });
}

cerrno qel_bitlist_not(const qel_bitlist* a, qel_bitlist* result) {
    return combine_lists(a, a, result, [](auto left, auto) { return ~left; });
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
