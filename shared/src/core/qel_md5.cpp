// The MD5 digest of RFC 1321.
//
// A message is cut into blocks of 64 bytes. Each block stirs the four chaining words in 64 steps: four rounds
// of 16, each with its own mixing function, its own order of the block's words and its own four rotations.
// The last block ends with a 1 bit, zeroes, and the message's length in bits.
//
// Invariant: buffer holds the bit_count / 8 % 64 bytes that wait for their block to fill.
// All words are little-endian on the wire, whatever the machine's order is.
#include <qel/base.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <span>

namespace {

constexpr std::size_t kBlockSize = sizeof(qel_md5_ctx::buffer);
constexpr std::size_t kLengthOffset = kBlockSize - sizeof(uint64_t);

using Block = std::span<const uint8_t, kBlockSize>;

// floor(2^32 * |sin(step + 1)|), the additive constants.
constexpr std::array<uint32_t, 64> kSines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

struct Round {
    uint32_t (*mix)(uint32_t x, uint32_t y, uint32_t z);
    std::size_t word_stride;  // step i of the message takes word (word_stride * i + word_start) % 16
    std::size_t word_start;
    std::array<int, 4> rotations;
};

constexpr std::array<Round, 4> kRounds{{
    {[](uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (~x & z); }, 1, 0, {7, 12, 17, 22}},
    {[](uint32_t x, uint32_t y, uint32_t z) { return (x & z) | (y & ~z); }, 5, 1, {5, 9, 14, 20}},
    {[](uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }, 3, 5, {4, 11, 16, 23}},
    {[](uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }, 7, 0, {6, 10, 15, 21}},
}};

uint32_t load_word(const uint8_t* from) {
    return static_cast<uint32_t>(from[0]) | static_cast<uint32_t>(from[1]) << 8 |
           static_cast<uint32_t>(from[2]) << 16 | static_cast<uint32_t>(from[3]) << 24;
}

template <class Word>
void store_word(Word word, uint8_t* to) {
    for (std::size_t i = 0; i < sizeof word; ++i) to[i] = static_cast<uint8_t>(word >> (8 * i));
}

void stir(uint32_t (&state)[4], Block block) {
    auto [a, b, c, d] = state;
    for (std::size_t step = 0; step < kSines.size(); ++step) {
        const Round& round = kRounds[step / 16];
        std::size_t word = (round.word_stride * step + round.word_start) % 16;
        uint32_t sum = a + round.mix(b, c, d) + load_word(&block[4 * word]) + kSines[step];
        a = d;
        d = c;
        c = b;
        b += std::rotl(sum, round.rotations[step % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

int qel_md5_init(qel_md5_ctx* context) {
    if (context == nullptr) return EINVAL;
    *context = {.state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, .bit_count = 0, .buffer = {}};
    return 0;
}

void qel_md5_update(qel_md5_ctx* context, const void* data, size_t size) {
    if (context == nullptr || data == nullptr) return;
    std::span rest{static_cast<const uint8_t*>(data), size};
    std::size_t filled = context->bit_count / 8 % kBlockSize;
    context->bit_count += static_cast<uint64_t>(size) * 8;
    while (!rest.empty()) {
        std::size_t piece = std::min(rest.size(), kBlockSize - filled);
        std::memcpy(context->buffer + filled, rest.data(), piece);
        rest = rest.subspan(piece);
        filled += piece;
        if (filled < kBlockSize) return;
        stir(context->state, Block{context->buffer});
        filled = 0;
    }
}

void qel_md5_finish(qel_md5_ctx* context, uint8_t digest[QEL_MD5_DIGEST_SIZE]) {
    if (context == nullptr || digest == nullptr) return;
    constexpr std::array<uint8_t, kBlockSize> kPadding{0x80};
    std::array<uint8_t, sizeof(uint64_t)> length;
    store_word(context->bit_count, length.data());
    std::size_t filled = context->bit_count / 8 % kBlockSize;
    std::size_t end = filled < kLengthOffset ? kLengthOffset : kBlockSize + kLengthOffset;
    qel_md5_update(context, kPadding.data(), end - filled);
    qel_md5_update(context, length.data(), length.size());
    for (std::size_t i = 0; i < std::size(context->state); ++i) store_word(context->state[i], digest + 4 * i);
    *context = {};
}
