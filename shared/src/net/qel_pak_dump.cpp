// Packets as text for a log.
//
// What a request may need is known before anything is printed, so a buffer that passes the first check holds
// the text; the checks while printing are there for the day when a text grows and its need doesn't.
#include <qel/pak_ctx.h>

#include <algorithm>
#include <cstdio>

#include "net/qel_pak.hpp"

namespace qel::packets {
namespace {

constexpr std::size_t kHeaderNeeds = 312, kCtxNeeds = 512, kDataOverhead = 30, kBytesALine = 16;
constexpr char kDataTitle[] = "Packet Data Portion:";

// Where the text goes on, and the bytes that are left there.
struct Text {
    char* at;
    std::size_t room;
};

// False when it didn't fit.
template <class... Values>
bool print(Text& text, const char* format, Values... values) {
    const int printed = std::snprintf(text.at, text.room, format, values...);
    if (printed < 0 || static_cast<std::size_t>(printed) >= text.room) return false;
    text.at += printed;
    text.room -= static_cast<std::size_t>(printed);
    return true;
}

bool print_header(const Packet& pak, Text& text) {
    auto position = [&pak](std::uint32_t name) {
        return static_cast<unsigned long>(pak_offset_name_to_address_inline(pak, name) - pak.datagram);
    };
    return print(text,
                 "Packet Header:\n pak:0x%p, datagram size:%lu\n Datagram offset:%lu, Network offset:%lu\n "
                 "Trasport offset:%lu, Application offset:%lu\n Input if handle 0x%llx, Output if "
                 "handle:0x%llx\n Proto ID:0x%x, Priority:0x%x\n",
                 static_cast<const void*>(&pak), static_cast<unsigned long>(pak.size),
                 position(QEL_PAK_DATAGRAM), position(QEL_PAK_NETWORK), position(QEL_PAK_TRANSPORT),
                 position(QEL_PAK_APPLICATION), static_cast<unsigned long long>(pak.if_input),
                 static_cast<unsigned long long>(pak.if_output), pak.proto_id, pak.priority);
}

// The room that print_data() takes.
constexpr std::size_t room_for(std::size_t bytes) {
    const std::size_t lines = (bytes + kBytesALine - 1) / kBytesALine;
    return sizeof(kDataTitle) + 2 * bytes + 2 * lines;
}
static_assert(room_for(1) <= 2 * (1 + kDataOverhead) &&
              room_for(QEL_PAK_DUMP_MAX_LENGTH) <= 2 * (QEL_PAK_DUMP_MAX_LENGTH + kDataOverhead));

void print_data(const std::byte* data, std::size_t length, Text& text) {
    constexpr char kDigits[] = "0123456789abcdef";
    char* at = std::copy_n(kDataTitle, sizeof(kDataTitle) - 1, text.at);
    for (std::size_t i = 0; i < length; ++i) {
        if (i % kBytesALine == 0) at = std::copy_n("\n ", 2, at);
        const auto byte = std::to_integer<unsigned>(data[i]);
        *at++ = kDigits[byte >> 4];
        *at++ = kDigits[byte & 0xf];
    }
    *at = '\0';
    text.room -= static_cast<std::size_t>(at - text.at);
    text.at = at;
}

cerrno dump_data(const Packet& pak, const qel_pak_dump_req& request, Text& text) {
    const Range range = pak_offset_to_address(pak, request.offset_name, request.position);
    if (!range)
        return failed<"PAKERROR140", "QEL-PAK-ERROR: %s: error reading packet">(
            fatal(EINVAL), static_cast<const char*>("pak dump common"));
    const std::size_t length = std::min<std::size_t>(request.length, range.size);
    if (text.room < room_for(length))
        return failed<"PAKERROR141", "QEL-PAK-ERROR: dump not enough buf space for data portion, pak=%p">(
            fatal(EFAULT), &pak);
    print_data(range.begin, length, text);
    return 0;
}

// The bytes of buffer that a request asks for; false for a length out of range.
bool needed_by(const qel_pak_dump_req& request, std::size_t& needed) {
    needed = 0;
    if ((request.flags & QEL_PAK_DUMP_DATA) != 0) {
        if (request.length == 0 || request.length > QEL_PAK_DUMP_MAX_LENGTH) return false;
        needed += (request.length + kDataOverhead) * 2;
    }
    if ((request.flags & QEL_PAK_DUMP_HEADER) != 0) needed += kHeaderNeeds;
    if ((request.flags & QEL_PAK_DUMP_CTX) != 0) needed += kCtxNeeds;
    return true;
}

cerrno dump(const Packet& pak, const qel_pak_dump_req& request, Text& text) {
    if (text.room != 0) *text.at = '\0';
    if ((request.flags & QEL_PAK_DUMP_HEADER) != 0 && !print_header(pak, text))
        return failed<"PAKERROR142", "QEL-PAK-ERROR: dump print failure">(fatal(EFAULT));
    return (request.flags & QEL_PAK_DUMP_DATA) != 0 ? dump_data(pak, request, text) : 0;
}

}  // namespace
}  // namespace qel::packets

using namespace qel;
using namespace qel::packets;

cerrno qel_pak_dump(const qel_pak* pak, char* buffer, size_t size, const qel_pak_dump_req* request,
                    size_t* length) {
    if (pak == nullptr || buffer == nullptr || request == nullptr || length == nullptr)
        return invalid<"PAKERROR143", "dump">();
    std::size_t needed = 0;
    if (!needed_by(*request, needed))
        return failed<"PAKERROR144", "QEL-PAK-ERROR: dump len=%lu out of range">(fatal(EINVAL),
                                                                                 request->length);
    if (size < needed)
        return failed<"PAKERROR145", "QEL-PAK-ERROR: dump buffer too small, pak=%p">(fatal(ENOSPC), pak);
    Text text{buffer, size};
    if (cerrno error = dump(*pak, *request, text); error != 0) return error;
    *length = static_cast<std::size_t>(text.at - buffer) + 1;
    event_at<"PAKEVENT140", "dump ok, pak=%p">(kReads, pak);
    return 0;
}
