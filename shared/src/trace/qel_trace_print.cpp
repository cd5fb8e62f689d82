// A trace buffer as text: the smallest reader, which a full dump of buffers will replace.
//
// An entry holds numbers; its text lies in the machine's list of trace points. The walk starts at the write
// cursor, which is the oldest block, and goes once around. Each entry is copied and its control word looked
// at again, so that one which a writer took meanwhile is left out.
//
// Invariant: what others have written is checked before it is used, as number of blocks, length, index or
// width. Locks: none against writers. Threads: any. Restart: the writers need not live.
#include "trace/qel_trace_print.hpp"

#include <qel/base.h>
#include <qel/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "core/qel_owned.hpp"
#include "trace/qel_trace_buffer.hpp"
#include "trace/qel_trace_point.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kAttachLimitMs = 1000;
constexpr std::size_t kPrefixSize = 51;

struct EntryCopy {
    PayloadHeader header;
    std::byte arguments[kMaxArgumentBytes];
};

// Numbers lie in the fixed part of the arguments, all else in the part behind it.
struct Arguments {
    std::span<const std::byte> numbers;
    std::span<const std::byte> others;
};

std::span<const std::byte> take(std::span<const std::byte>& from, std::size_t size) {
    size = std::min(size, from.size());
    std::span<const std::byte> taken = from.first(size);
    from = from.subspan(size);
    return taken;
}

// A 32-bit number as its conversion reads it: with its sign for "d" and "i".
long long take_number(Arguments& arguments, bool wide, bool is_signed) {
    std::uint64_t value = 0;
    std::span<const std::byte> bytes = take(arguments.numbers, wide ? 8 : 4);
    std::memcpy(&value, bytes.data(), bytes.size());
    if (!wide && is_signed) return static_cast<std::int32_t>(value);
    return static_cast<long long>(value);
}

// A text may hold what a terminal would obey.
void print_characters(std::string_view text) {
    for (char c : text)
        static_cast<void>(qel_cli_printf("%c", static_cast<unsigned char>(c) < ' ' || c == 0x7f ? '?' : c));
}

void print_text_argument(Arguments& arguments) {
    auto* start = reinterpret_cast<const char*>(arguments.others.data());
    std::size_t length = strnlen(start, arguments.others.size());
    static_cast<void>(take(arguments.others, length + 1));
    print_characters({start, length});
}

void print_address(std::span<const std::byte> bytes, const char* format, const char* between) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) static_cast<void>(qel_cli_printf("%s", between));
        static_cast<void>(qel_cli_printf(format, std::to_integer<unsigned>(bytes[i])));
    }
}

void print_number(Arguments& arguments, bool wide, std::string_view flags, char letter) {
    bool is_signed = letter == 'd' || letter == 'i';
    long long value = take_number(arguments, wide, is_signed);
    char format[16];
    std::snprintf(format, sizeof format, "%%%.*s%s%c", static_cast<int>(flags.size()), flags.data(),
                  letter == 'p' ? "#ll" : "ll", letter == 'p' ? 'x' : letter);
    static_cast<void>(qel_cli_printf(format, value));
}

void print_argument(Arguments& arguments, ArgumentType type, std::string_view flags, char letter) {
    switch (type) {
    case ArgumentType::word32:
    case ArgumentType::word64:
        return print_number(arguments, type == ArgumentType::word64, flags, letter);
    case ArgumentType::string:
        return print_text_argument(arguments);
    case ArgumentType::ipv4_value:
        return print_address(take(arguments.numbers, 4), "%u", ".");
    case ArgumentType::ipv4_pointer:
        return print_address(take(arguments.others, 4), "%u", ".");
    case ArgumentType::ipv6_pointer:
        return print_address(take(arguments.others, 16), "%02x", "");
    case ArgumentType::mac_pointer:
        return print_address(take(arguments.others, 6), "%02x", ":");
    case ArgumentType::none:
        break;
    }
}

constexpr bool is_number_letter(char letter) {
    return std::string_view{"diouxXp"}.find(letter) != std::string_view::npos;
}

// Prints the conversion that begins behind "%" and gives what follows it.
std::string_view print_conversion(std::string_view rest, Arguments& arguments, ArgumentType type) {
    std::string_view flags = rest.substr(0, std::min(rest.find_first_not_of("#.-0123456789"), rest.size()));
    std::size_t at = std::min(rest.find_first_of("diouxXspPe", flags.size()), rest.size());
    if (at == rest.size()) return {};
    char letter = rest[at];
    constexpr std::size_t kWidestFlags = 4;  // The list is shared: nobody makes this print gigabytes.
    print_argument(arguments, type, flags.size() <= kWidestFlags ? flags : "",
                   is_number_letter(letter) ? letter : 'x');
    rest = rest.substr(at + 1);
    if (type >= ArgumentType::ipv4_pointer && rest.starts_with('{'))
        rest = rest.substr(std::min(rest.find('}'), rest.size() - 1) + 1);
    return rest;
}

void print_message(std::string_view format, Arguments& arguments, ArgumentPlan plan) {
    while (!format.empty()) {
        std::size_t plain = std::min(format.find('%'), format.size());
        print_characters(format.substr(0, plain));
        format = format.substr(std::min(plain + 1, format.size()));
        if (plain == format.size() || format.empty()) return;
        if (format.front() == '%') {
            print_characters("%");
            format = format.substr(1);
        } else {
            format = print_conversion(format, arguments, plan.take());
        }
    }
}

bool usable(const qel_dt_tp_entry& point, std::uint32_t length) {
    return point.length > 0 && point.length < QEL_DT_TP_FORMAT_SIZE && point.fixed_size <= length;
}

void print_entry_text(const EntryCopy& entry) {
    const qel_dt_tp_list* list = qel_dt_tp_list_get();
    if (list == nullptr || entry.header.trace_point >= QEL_DT_TP_CAPACITY) return;
    qel_dt_tp_entry point = list->entries[entry.header.trace_point];
    if (!usable(point, entry.header.length)) return;
    std::span<const std::byte> all{entry.arguments, entry.header.length};
    Arguments arguments{all.first(point.fixed_size), all.subspan(point.fixed_size)};
    std::string_view format{point.format, strnlen(point.format, sizeof point.format)};
    print_message(format.substr(0, format.find_last_not_of('\n') + 1), arguments, ArgumentPlan{point.types});
}

void print_entry(const EntryCopy& entry) {
    char date[kPrefixSize];
    char zone[kPrefixSize];
    timespec stamp{entry.header.seconds, entry.header.nanoseconds};
    static_cast<void>(qel_time_format_timespec(&stamp, "%D %T", 0, date, sizeof date));  // Empty: no time.
    static_cast<void>(qel_time_format_timespec(&stamp, "%Z", 0, zone, sizeof zone));
    static_cast<void>(qel_cli_printf("[%s.%.3u %s %x %u] ", date, entry.header.nanoseconds / 1'000'000, zone,
                                     entry.header.sequence, entry.header.process_id));
    print_entry_text(entry);
    static_cast<void>(qel_cli_printf("\n"));
}

ControlEntry control_at(const BufferSegment& segment, std::uint32_t block) {
    return std::atomic_ref{segment.control[block]}.load(std::memory_order_acquire);
}

bool after_clear(const BufferSegment& segment, const PayloadHeader& entry) {
    std::uint32_t seconds = std::atomic_ref{segment.header->clear_seconds}.load(std::memory_order_relaxed);
    if (entry.seconds != seconds) return entry.seconds > seconds;
    return entry.nanoseconds >
           std::atomic_ref{segment.header->clear_nanoseconds}.load(std::memory_order_relaxed);
}

// Copies the entry of 'block'; false if there is none, or none that still stands once it is copied.
bool copy_entry(const BufferSegment& segment, std::uint32_t block, ControlEntry control, EntryCopy& out) {
    if (control.state != BlockState::used || control.blocks == 0 || control.blocks > kMaxEntryBlocks ||
        control.blocks > segment.blocks - block)
        return false;
    std::memcpy(&out, segment.payload + std::size_t{block} * kBlockSize,
                std::size_t{control.blocks} * kBlockSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    ControlEntry again = control_at(segment, block);
    return std::bit_cast<std::uint32_t>(again) == std::bit_cast<std::uint32_t>(control) &&
           out.header.length <= kMaxArgumentBytes && blocks_of_entry(out.header.length) == control.blocks &&
           after_clear(segment, out.header);
}

// Entries of another lap than their neighbours are left-overs: they lie where a later entry found no room.
int print_entries(const BufferSegment& segment) {
    std::uint32_t start = Cursor::unpack(std::atomic_ref{segment.header->next}.load()).index;
    if (start >= segment.blocks) start = 0;
    int printed = 0;
    std::optional<std::uint32_t> lap;
    EntryCopy entry;
    for (std::uint32_t walked = 0; walked < segment.blocks;) {
        std::uint32_t block = (start + walked) % segment.blocks;
        ControlEntry control = control_at(segment, block);
        walked += std::max<std::uint32_t>(control.blocks, 1);
        if (!copy_entry(segment, block, control, entry)) continue;
        if (!lap || block == 0) lap = entry.header.stamp;
        if (entry.header.stamp != *lap) continue;
        print_entry(entry);
        ++printed;
    }
    return printed;
}

}  // namespace

int print_buffer(const char* name) {
    if (int error = point_list_hold(); error != 0) return error;
    Undo release_list{point_list_release};
    BufferSegment segment{};
    if (int error = segment_attach(name, kAttachLimitMs, segment); error != 0) return error;
    Undo close_segment{[&] { segment_close(segment); }};
    static_cast<void>(qel_cli_printf("%d entries printed\n", print_entries(segment)));
    return 0;
}

}  // namespace qel
