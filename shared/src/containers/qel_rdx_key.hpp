// Keys of the radix tree as numbers: what the tree asks of two keys, without a look at bytes.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace qel::rdx {

inline constexpr std::uint32_t kMaxKeyBits = 128;
inline constexpr std::uint32_t kMaxKeyBytes = kMaxKeyBits / 8;
inline constexpr std::uint32_t kFirstBits = 32;  // what a node holds of its key

// Bit 0 is the top bit of 'high'. A shorter key has zeros behind it.
struct Key {
    std::uint64_t high;
    std::uint64_t low;
};

static_assert(std::endian::native == std::endian::little);

inline std::uint32_t load_big_endian32(const std::uint8_t* bytes) {
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return __builtin_bswap32(word);
}
inline std::uint64_t load_big_endian64(const std::uint8_t* bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return __builtin_bswap64(word);
}

// A key in a record of the tree, which has room for the longest and zeros behind a shorter one.
inline Key stored_key(const std::uint8_t* bytes) {
    return {load_big_endian64(bytes), load_big_endian64(bytes + 8)};
}

// A caller's key, of which no byte beyond 'count' is read.
inline Key load_key(const std::uint8_t* bytes, std::uint32_t count) {
    if (count == 4) return {std::uint64_t{load_big_endian32(bytes)} << 32, 0};
    if (count == 16) return stored_key(bytes);
    if (count == 8) return {load_big_endian64(bytes), 0};
    std::uint8_t filled[kMaxKeyBytes] = {};
    std::memcpy(filled, bytes, count);
    return stored_key(filled);
}

constexpr std::uint32_t first_bits(Key key) {
    return static_cast<std::uint32_t>(key.high >> 32);
}

// Bit 'index' of the key. One past the end gives any bit: a node of the full length has no children.
constexpr bool key_testbit(Key key, std::uint32_t index) {
    return ((index < 64 ? key.high : key.low) >> (~index & 63) & 1) != 0;
}

// Index of the first bit in which the keys differ; kMaxKeyBits if they are equal.
constexpr std::uint32_t key_bitdiff(Key left, Key right) {
    std::uint64_t high = left.high ^ right.high;
    if (high != 0) return static_cast<std::uint32_t>(std::countl_zero(high));
    return 64 + static_cast<std::uint32_t>(std::countl_zero(left.low ^ right.low));
}

static_assert(key_testbit({0, 1}, 127) && !key_testbit({~0ULL, 0}, 64) && key_testbit({1, 0}, 63));
static_assert(key_bitdiff({0, 0}, {0, 0}) == kMaxKeyBits && key_bitdiff({1, 0}, {0, 0}) == 63);

}  // namespace qel::rdx
