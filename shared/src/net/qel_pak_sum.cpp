// The Internet checksum's sum (RFC 1071): 16-bit words in host order, with end-around carry.
//
// The order of additions doesn't matter, and neither does their width: 2^16, 2^32 and 2^64 all leave 1 when
// divided by 65535. So words are added by the vector, the lower and upper halves of 32 bits in lanes of their
// own, and folded at the end. Only data of zeros sums to 0, as with any end-around carry.
#include <cstring>

#include "net/qel_pak.hpp"

namespace qel::packets {
namespace {

// 16 bytes, as four words: the compiler makes of them what the machine has.
using Lanes [[gnu::vector_size(16)]] = std::uint32_t;
using WideLanes [[gnu::vector_size(16)]] = std::uint64_t;

constexpr std::size_t kVector = sizeof(Lanes), kStride = 4 * kVector;
// In one go: a lane of the total takes eight halves of 16 bits from a stride, and must not overflow.
constexpr std::size_t kMaxBytes = 0x1000 * kStride;

template <class Word>
Word load(const std::byte* data) {
    Word word;
    std::memcpy(&word, data, sizeof word);
    return word;
}
Lanes lower(Lanes words) {
    return words & 0xffff;
}
Lanes upper(Lanes words) {
    return words >> 16;
}
std::uint64_t halves(std::uint64_t words) {
    return (words & 0xffffffff) + (words >> 32);
}

// The sum of whole vectors, at most kMaxBytes.
std::uint64_t sum_vectors(const std::byte* data, std::size_t length) {
    Lanes sums[4]{};
    for (; length >= kStride; data += kStride, length -= kStride) {
        const auto a = load<Lanes>(data), b = load<Lanes>(data + kVector);
        const auto c = load<Lanes>(data + 2 * kVector), d = load<Lanes>(data + 3 * kVector);
        sums[0] += lower(a) + lower(b);
        sums[1] += upper(a) + upper(b);
        sums[2] += lower(c) + lower(d);
        sums[3] += upper(c) + upper(d);
    }
    for (; length >= kVector; data += kVector, length -= kVector) {
        const auto words = load<Lanes>(data);
        sums[0] += lower(words);
        sums[1] += upper(words);
    }
    const auto total = reinterpret_cast<WideLanes>(sums[0] + sums[1] + (sums[2] + sums[3]));
    return halves(total[0]) + halves(total[1]);
}

// The sum of fewer bytes than a vector's, as if a zero followed.
std::uint64_t sum_rest(const std::byte* data, std::size_t length) {
    std::uint64_t sum = 0;
    if ((length & 8) != 0) sum += halves(load<std::uint64_t>(data));
    data += length & 8;
    if ((length & 4) != 0) sum += load<std::uint32_t>(data);
    data += length & 4;
    if ((length & 2) != 0) sum += load<std::uint16_t>(data);
    data += length & 2;
    const std::byte last[2] = {(length & 1) != 0 ? *data : std::byte{0}, std::byte{0}};
    return sum + load<std::uint16_t>(last);
}

std::uint16_t fold(std::uint64_t sum) {
    sum = halves(sum);
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

std::uint16_t sum_of(const std::byte* data, std::size_t length) {
    std::uint64_t sum = 0;
    for (; length > kMaxBytes; data += kMaxBytes, length -= kMaxBytes)
        sum = fold(sum + sum_vectors(data, kMaxBytes));
    const std::size_t rest = length % kVector;
    sum += sum_vectors(data, length - rest) + sum_rest(data + (length - rest), rest);
    return fold(sum);
}

}  // namespace
}  // namespace qel::packets

using namespace qel;
using namespace qel::packets;

uint16_t qel_pak_crc(const void* data, size_t length) {
    return data == nullptr ? std::uint16_t{0} : sum_of(static_cast<const std::byte*>(data), length);
}

cerrno qel_pak_checksum(const qel_pak* pak, uint32_t name, size_t position, size_t length, uint16_t* sum) {
    if (pak == nullptr || sum == nullptr) return invalid<"PAKERROR080", "checksum">();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<"PAKERROR081", "checksum">();
    if (length > range.size) return 0;
    *sum = sum_of(range.begin, length);
    event_at<"PAKEVENT080", "checksum ok, pak=%p, crc=%u">(kReads, pak, std::uint32_t{*sum});
    return 0;
}

cerrno qel_pak_writev_and_checksum(qel_pak* pak, uint32_t name, size_t position, const struct iovec* pairs,
                                   size_t count, uint16_t* sum, size_t* written) {
    if (pak == nullptr || sum == nullptr || written == nullptr)
        return invalid<"PAKERROR082", "writev chksum">();
    *written = 0;
    if (cerrno error = qel_pak_writev(pak, name, position, pairs, count, written); error != 0)
        return failed<"PAKERROR083", "QEL-PAK-ERROR: writev chksum calc, error writing to pak=%p">(error,
                                                                                                   pak);
    if (cerrno error = qel_pak_checksum(pak, name, position, *written, sum); error != 0)
        return failed<"PAKERROR084", "QEL-PAK-ERROR: writev chksum calc, calc failed after write, pak=%p">(
            error, pak);
    event_at<"PAKEVENT081", "writev chksum ok, pak=%p, crc=%u">(kReads, pak, std::uint32_t{*sum});
    return 0;
}
