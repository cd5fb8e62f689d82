// Bytes into and out of packets: plain, by vectors, and as numbers in network byte order.
//
// One step turns a position into a part of the datagram or refuses it; what is copied stays inside that part.
// Copies may overlap the packet, whose data the application can see, and need no alignment.
#include <algorithm>
#include <bit>
#include <cstring>
#include <span>

#include "net/qel_pak.hpp"

namespace qel::packets {
namespace {

enum class Direction : std::uint8_t { in, out };

template <Direction Way>
void move_bytes(std::byte* inside, void* outside, std::size_t length) {
    if constexpr (Way == Direction::in)
        std::memmove(inside, outside, length);
    else
        std::memmove(outside, inside, length);
}

// Copies what 'pairs' name while bytes remain, and counts; false for a pair without a base.
template <Direction Way>
bool move_pairs(Range range, std::span<const iovec> pairs, std::size_t& moved) {
    moved = 0;
    for (const iovec& pair : pairs) {
        if (moved == range.size) return true;
        if (pair.iov_len == 0) continue;
        if (pair.iov_base == nullptr) return false;
        const std::size_t length = std::min(pair.iov_len, range.size - moved);
        move_bytes<Way>(range.begin + moved, pair.iov_base, length);
        moved += length;
    }
    return true;
}

bool is_vector(const iovec* pairs, std::size_t count) {
    return pairs != nullptr && count != 0 && count < QEL_PAK_MAX_PAIRS;
}

// To network order, and back.
template <class Word>
Word swapped(Word word) {
    if constexpr (std::endian::native == std::endian::big || sizeof(Word) == 1) return word;
    if constexpr (sizeof(Word) == 2) return __builtin_bswap16(word);
    if constexpr (sizeof(Word) == 4) return __builtin_bswap32(word);
    if constexpr (sizeof(Word) == 8) return __builtin_bswap64(word);
}

template <FixedText Label, FixedText Words, class Word>
cerrno get_word(const Packet* pak, std::uint32_t name, std::size_t position, Word* value) {
    if (pak == nullptr || value == nullptr) return invalid<Label, Words>();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (range.size < sizeof(Word)) return invalid<Label, Words>();
    Word word{};
    std::memcpy(&word, range.begin, sizeof(Word));
    *value = swapped(word);
    event_at<Label, joined<Words, " ok, pak=%p, value=%#lx">()>(kReads, pak, std::uint64_t{*value});
    return 0;
}

template <FixedText Label, FixedText Words, class Word>
cerrno put_word(Packet* pak, std::uint32_t name, std::size_t position, Word value) {
    if (pak == nullptr) return invalid<Label, Words>();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<Label, Words>();
    const Word word = swapped(value);
    std::memcpy(range.begin, &word, std::min(range.size, sizeof(Word)));
    if (range.size < sizeof(Word)) return invalid<Label, Words>();
    event_at<Label, joined<Words, " ok, pak=%p, value=%#lx">()>(kChanges, pak, std::uint64_t{value});
    return 0;
}

}  // namespace
}  // namespace qel::packets

using namespace qel;
using namespace qel::packets;

cerrno qel_pak_write(qel_pak* pak, uint32_t name, size_t position, const void* source, size_t length,
                     size_t* written) {
    if (pak == nullptr || source == nullptr || written == nullptr) return invalid<"PAKERROR050", "write">();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<"PAKERROR051", "write">();
    *written = std::min(length, range.size);
    move_bytes<Direction::in>(range.begin, const_cast<void*>(source), *written);
    event_at<"PAKEVENT050", "write ok, pak=%p, bytes=%lu">(kChanges, pak, *written);
    return 0;
}

cerrno qel_pak_read(const qel_pak* pak, uint32_t name, size_t position, void* destination, size_t length,
                    size_t* read) {
    if (pak == nullptr || destination == nullptr || read == nullptr) return invalid<"PAKERROR052", "read">();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<"PAKERROR053", "read">();
    *read = std::min(length, range.size);
    move_bytes<Direction::out>(range.begin, destination, *read);
    event_at<"PAKEVENT051", "read ok, pak=%p, bytes=%lu">(kReads, pak, *read);
    return 0;
}

cerrno qel_pak_writev(qel_pak* pak, uint32_t name, size_t position, const struct iovec* pairs, size_t count,
                      size_t* written) {
    if (pak == nullptr || !is_vector(pairs, count) || written == nullptr)
        return invalid<"PAKERROR054", "writev">();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<"PAKERROR055", "writev">();
    if (!move_pairs<Direction::in>(range, {pairs, count}, *written))
        return failed<"PAKERROR056", "QEL-PAK-ERROR: writev failed, iov_base address NULL, pak=%p">(
            fatal(EINVAL), pak);
    event_at<"PAKEVENT052", "writev ok, pak=%p, bytes=%lu">(kChanges, pak, *written);
    return 0;
}

cerrno qel_pak_readv(const qel_pak* pak, uint32_t name, size_t position, const struct iovec* pairs,
                     size_t count, size_t* read) {
    if (pak == nullptr || !is_vector(pairs, count) || read == nullptr)
        return invalid<"PAKERROR057", "readv">();
    const Range range = pak_offset_to_address(*pak, name, position);
    if (!range) return invalid<"PAKERROR058", "readv">();
    if (!move_pairs<Direction::out>(range, {pairs, count}, *read))
        return failed<"PAKERROR059", "QEL-PAK-ERROR: readv failed, iov_base address NULL, pak=%p">(
            fatal(EINVAL), pak);
    event_at<"PAKEVENT053", "readv ok, pak=%p, bytes=%lu">(kReads, pak, *read);
    return 0;
}

cerrno qel_pak_uint8_get(const qel_pak* pak, uint32_t name, size_t position, uint8_t* value) {
    return get_word<"PAKERROR060", "uint8 get">(pak, name, position, value);
}
cerrno qel_pak_uint16_get(const qel_pak* pak, uint32_t name, size_t position, uint16_t* value) {
    return get_word<"PAKERROR061", "uint16 get">(pak, name, position, value);
}
cerrno qel_pak_uint32_get(const qel_pak* pak, uint32_t name, size_t position, uint32_t* value) {
    return get_word<"PAKERROR062", "uint32 get">(pak, name, position, value);
}
cerrno qel_pak_uint64_get(const qel_pak* pak, uint32_t name, size_t position, uint64_t* value) {
    return get_word<"PAKERROR063", "uint64 get">(pak, name, position, value);
}
cerrno qel_pak_uint8_put(qel_pak* pak, uint32_t name, size_t position, uint8_t value) {
    return put_word<"PAKERROR064", "uint8 put">(pak, name, position, value);
}
cerrno qel_pak_uint16_put(qel_pak* pak, uint32_t name, size_t position, uint16_t value) {
    return put_word<"PAKERROR065", "uint16 put">(pak, name, position, value);
}
cerrno qel_pak_uint32_put(qel_pak* pak, uint32_t name, size_t position, uint32_t value) {
    return put_word<"PAKERROR066", "uint32 put">(pak, name, position, value);
}
cerrno qel_pak_uint64_put(qel_pak* pak, uint32_t name, size_t position, uint64_t value) {
    return put_word<"PAKERROR067", "uint64 put">(pak, name, position, value);
}
