// Packets inside: the layout of one, the places in it, and the family's reports.
//
//     qel_pak.cpp        making and giving back, size, named offsets, fields
//     qel_pak_data.cpp   bytes in and out, vectors, numbers in network byte order
//     qel_pak_sum.cpp    the Internet checksum
//     qel_pak_ctx.cpp    types of contexts, and their values on packets
//     qel_pak_queue.cpp  queues; qel_pak_dump.cpp  text
#pragma once

#include <qel/pak.h>
#include <qel/queue.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "core/qel_codes.hpp"
#include "core/qel_lock.hpp"
#include "trace/qel_report.hpp"

// The begin of a packet's block; head room and the datagram's buffer follow.
//
//     | header | head room ...| datagram: 'size' bytes |... tail room |
//              ^ buffer()     ^ datagram                         end ^ (the last byte)
//
// Invariant: each of the other three places is inside the datagram, or its begin.
struct qel_pak {
    void* link;  // of a queue; 0 for the last one on it
    std::byte* datagram;
    std::byte* network;
    std::byte* transport;
    std::byte* application;
    std::uint32_t proto_id;
    std::uint32_t priority;
    std::uint16_t size;
    std::uint8_t reserved[6];
    std::uint64_t if_input;
    std::uint64_t if_output;
    qel_queue ctx_queue;  // of the packet's contexts
    std::byte* end;
    std::uint8_t on_queue;
    std::uint8_t had_params;  // parameters stood when it was made
    std::uint8_t reserved_end[6];

    std::byte* buffer() { return reinterpret_cast<std::byte*>(this + 1); }
};
static_assert(sizeof(qel_pak) == 120 && offsetof(qel_pak, application) == 32);
static_assert(offsetof(qel_pak, proto_id) == 40 && offsetof(qel_pak, size) == 48);
static_assert(offsetof(qel_pak, if_input) == 56 && offsetof(qel_pak, ctx_queue) == 72);
static_assert(offsetof(qel_pak, end) == 104 && offsetof(qel_pak, on_queue) == 112);

namespace qel::packets {

using Packet = qel_pak;

// Guards the registration of parameters and the table of types of contexts.
extern constinit Mutex ctx_mutex;

// --- Reports

qel_dt_buffer_handle event_buffer();

constexpr int kChanges = 1, kReads = 2;

inline bool traces(int level) {
    return std::atomic_ref{qel_pak_trace_level}.load(std::memory_order_relaxed) >= level;
}

// Out of line, so that a call that traces nothing pays for a comparison only.
template <FixedText Label, FixedText Format, class... Values>
[[gnu::noinline]] void write_event(Values... values) {
    ErrnoKept kept;
    write_line<Label, joined<"QEL-PAK-EVENT: ", Format>()>(event_buffer(), values...);
}

// Writes an event if the trace level has come to 'level'.
template <FixedText Label, FixedText Format, class... Values>
[[gnu::always_inline]] inline void event_at(int level, Values... values) {
    if (traces(level)) [[unlikely]]
        write_event<Label, Format>(values...);
}

// 'Words' say what was asked for.
template <FixedText Label, FixedText Words>
[[gnu::cold]] cerrno invalid() {
    return failed<Label, joined<"QEL-PAK-ERROR: invalid arguments", Words>()>(fatal(EINVAL));
}
template <FixedText Label, FixedText Words>
[[gnu::cold]] cerrno no_memory() {
    return failed<Label, joined<"QEL-PAK-ERROR: memory allocation failure", Words>()>(fatal(ENOMEM));
}

// --- Places

constexpr bool pak_offset_type_valid(std::uint32_t name) {
    return name <= QEL_PAK_APPLICATION;
}

// The place 'name', which is valid.
inline std::byte*& pak_offset_name_to_address_inline(Packet& pak, std::uint32_t name) {
    static constexpr std::byte* Packet::*kPlaces[] = {&Packet::datagram, &Packet::network, &Packet::transport,
                                                      &Packet::application};
    return pak.*kPlaces[name];
}
inline std::byte* pak_offset_name_to_address_inline(const Packet& pak, std::uint32_t name) {
    return pak_offset_name_to_address_inline(const_cast<Packet&>(pak), name);
}

// A part of the datagram; none where a position led outside.
struct Range {
    std::byte* begin = nullptr;
    std::size_t size = 0;

    explicit operator bool() const { return begin != nullptr; }
};

// What lies behind a position, up to the datagram's end.
inline Range pak_offset_to_address(const Packet& pak, std::uint32_t name, std::size_t position) {
    if (!pak_offset_type_valid(name)) return {};
    std::byte* place = pak_offset_name_to_address_inline(pak, name);
    const std::size_t behind = pak.size - static_cast<std::size_t>(place - pak.datagram);
    return position < behind ? Range{place + position, behind - position} : Range{};
}

// --- Contexts

// Frees the values that a packet has.
void free_contexts(Packet& pak);

}  // namespace qel::packets
