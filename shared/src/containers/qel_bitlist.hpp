// What the files of the bit list share: where its words are, and the search for a bit.
#pragma once

#include <qel/bitlist.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

namespace qel {

inline constexpr std::uint32_t kWordBits = 32;

constexpr std::uint32_t bitlist_word_count(std::uint32_t size) {
    return size / kWordBits + (size % kWordBits != 0);
}

// The data behind the header. Their number comes from 'size' alone, so that it can't contradict it.
inline std::span<std::uint32_t> bitlist_words(qel_bitlist& list) {
    return {reinterpret_cast<std::uint32_t*>(&list + 1), bitlist_word_count(list.size)};
}
inline std::span<const std::uint32_t> bitlist_words(const qel_bitlist& list) {
    return {reinterpret_cast<const std::uint32_t*>(&list + 1), bitlist_word_count(list.size)};
}

// The two words from 'words' on, in the order of the machine.
inline std::uint64_t load_pair(const std::uint32_t* words) {
    std::uint64_t pair;
    std::memcpy(&pair, words, sizeof pair);
    return pair;
}

// What turns the bits that are looked for into ones, and the others into zeros, by exclusive or.
enum class Bit : std::uint64_t { set = 0, clear = ~std::uint64_t{0} };

// The first index from 'index' on whose next eight words have a bit of the kind, or that has no eight.
template <Bit kind>
std::size_t skip_blocks(std::span<const std::uint32_t> words, std::size_t index) {
    constexpr auto flip = static_cast<std::uint64_t>(kind);
    for (; index + 8 <= words.size(); index += 8) {
        const std::uint32_t* at = &words[index];
        const std::uint64_t low = (load_pair(at) ^ flip) | (load_pair(at + 2) ^ flip);
        const std::uint64_t high = (load_pair(at + 4) ^ flip) | (load_pair(at + 6) ^ flip);
        if ((low | high) != 0) break;
    }
    return index;
}

// The 64 bits from word 'index' on, those of the kind as ones. Behind the last word are zeros.
template <Bit kind>
std::uint64_t bits_from(std::span<const std::uint32_t> words, std::size_t index) {
    constexpr auto flip = static_cast<std::uint64_t>(kind);
    if (index + 1 == words.size()) return words[index] ^ static_cast<std::uint32_t>(flip);
    const std::uint64_t pair = load_pair(&words[index]);
    return (std::endian::native == std::endian::big ? std::rotl(pair, kWordBits) : pair) ^ flip;
}

// The offset of the first bit of the kind at or behind 'offset'. It may lie past 'size' in the last word; 32
// times the number of words when there is none.
template <Bit kind>
std::uint64_t bitlist_search(const qel_bitlist& list, std::uint64_t offset) {
    const std::span words = bitlist_words(list);
    std::uint64_t passed = ~std::uint64_t{0} << offset % kWordBits;
    for (std::size_t index = offset / kWordBits; index < words.size();) {
        const std::uint64_t found = bits_from<kind>(words, index) & std::exchange(passed, ~std::uint64_t{0});
        if (found != 0) return index * kWordBits + static_cast<std::uint32_t>(std::countr_zero(found));
        index = skip_blocks<kind>(words, index + 2);
    }
    return words.size() * kWordBits;
}

}  // namespace qel
