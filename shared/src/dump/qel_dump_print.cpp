// A buffer as it lies in memory, for those who look for a fault in the trace itself: its counters, and all
// its blocks with their control words and bytes.
//
// Both read what is there, sound or not: every count is bounded before a step is taken with it. Locks: none;
// inside the buffer's gate. Threads: any. Restart: see qel_dump.cpp.
#include <qel/base.h>
#include <qel/time.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "dump/qel_dump.hpp"
#include "trace/qel_trace_gate.hpp"

namespace qel::dump {
namespace {

constexpr std::size_t kBytesInLine = 16;

// Where prints go: to a function, a line or less at a time, or to standard output.
struct Output {
    qel_dt_dump_text function;
    void* context;

    void print(const char* format, ...) const QEL_PRINTF(2, 3) {
        char text[512];
        va_list args;
        va_start(args, format);
        const int length = std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        if (length < 0) return;
        const std::size_t size = std::min(static_cast<std::size_t>(length), sizeof text - 1);
        std::transform(text, text + size, text, terminal_safe);
        if (function != nullptr)
            function(text, size, context);
        else
            static_cast<void>(qel_cli_printf("%s", text));
    }
};

constexpr Output kConsole{nullptr, nullptr};

char printable(std::byte byte) {
    const auto c = static_cast<char>(byte);
    return c >= ' ' && c <= '~' ? c : '.';
}

// "00010203 04050607 08090a0b 0c0d0e0f  ........ ........"
void dump_line(const Output& output, std::span<const std::byte> bytes) {
    char text[kBytesInLine * 4 + 8];
    char* at = text;
    for (std::size_t i = 0; i < kBytesInLine; ++i) {
        at += i < bytes.size() ? std::snprintf(at, 3, "%02x", std::to_integer<unsigned>(bytes[i]))
                               : std::snprintf(at, 3, "  ");
        if (i % 4 == 3) *at++ = ' ';
    }
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 0 || i == 8) *at++ = ' ';
        *at++ = printable(bytes[i]);
    }
    output.print("%.*s\n", static_cast<int>(at - text), text);
}

void dump_bytes(const Output& output, bool show_offsets, std::span<const std::byte> bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += kBytesInLine) {
        if (show_offsets) output.print("%04x ", static_cast<unsigned>(at));
        dump_line(output, bytes.subspan(at, std::min(kBytesInLine, bytes.size() - at)));
    }
}

const char* yes_or_no(std::uint32_t flags, std::uint32_t bit) {
    return (flags & bit) != 0 ? "true" : "false";
}

// Bytes of blocks by state.
struct Usage {
    std::uint32_t free, reserved, used;
};

Usage usage_of(const View& view) {
    Usage usage{};
    static_cast<void>(
        walk_blocks(view, {0, view.blocks, 0}, [&](std::uint32_t block, ControlEntry control, std::uint32_t) {
            const std::uint32_t bytes = std::min(blocks_at(control), view.blocks - block) * kBlockSize;
            if (control.state == BlockState::used)
                usage.used += bytes;
            else if (control.state == BlockState::reserved)
                usage.reserved += bytes;
            else
                usage.free += bytes;
        }));
    return usage;
}

void print_sizes(const Output& output, const View& view) {
    const BufferHeader& header = *view.header;
    const std::uint64_t count = __atomic_load_n(&word_pair(view.header->count)->value, __ATOMIC_RELAXED);
    output.print("Trace buffer name: %.*s\n", static_cast<int>(sizeof header.name), header.name);
    output.print("QDT Version: %d\n", static_cast<int>(header.version));
    output.print("Size (blocks): %d \t Wraps: %d \t Count: %llu \t Dropped: %d\n",
                 static_cast<int>(header.blocks), static_cast<int>(load(header.wraps)),
                 static_cast<unsigned long long>(count), static_cast<int>(load(header.dropped)));
    output.print("Size (bytes): %u \t Original size (bytes): %u\n", header.size, header.original_size);
    const Usage usage = usage_of(view);
    output.print("Memory usage by block type, in bytes: ");
    output.print(" Used: %d\tReserved: %d\tFree: %d\tTotal: %d\n", static_cast<int>(usage.used),
                 static_cast<int>(usage.reserved), static_cast<int>(usage.free),
                 static_cast<int>(usage.used + usage.reserved + usage.free));
}

void print_state(const Output& output, const View& view) {
    const BufferHeader& header = *view.header;
    const std::uint32_t flags = load(header.flags);
    const timespec cleared{static_cast<time_t>(load(header.clear_seconds)),
                           static_cast<long>(load(header.clear_nanoseconds))};
    char time[QEL_TIME_SYSTEM_DEFAULT_SIZE] = "";
    static_cast<void>(qel_time_format_system_default(&cleared, QEL_TIME_ZONE_LOCAL, time));
    output.print("Paused: %s \t Oneshot: %s \t Oneshot full: %s\n", yes_or_no(flags, kFlagPaused),
                 yes_or_no(flags, kFlagOneShot), yes_or_no(flags, kFlagOneShotFull));
    output.print("Buffer was last cleared at %s\n", time);
}

void print_counters(const Output& output, const View& view) {
    const BufferHeader& header = *view.header;
    const Cursor next = Cursor::unpack(load(header.next));
    output.print("Next offset: 0x%x (Seq: 0x%x)\n", next.index, next.stamp);
    output.print("Excessive retries: %d \t Reserve retries: %d\n",
                 static_cast<int>(load(header.excessive_retries)),
                 static_cast<int>(load(header.reserve_retries)));
    output.print("CAS failures: R->U=%d U/F->F=%d\n", static_cast<int>(load(header.commit_cas_failures)),
                 static_cast<int>(load(header.rollbacks)));
    output.print("High Watermarks: Lock-free retries: %d \t Reserve CAS failures: %d\n",
                 static_cast<int>(load(header.lock_free_retries_high)),
                 static_cast<int>(load(header.reserve_cas_failures_high)));
}

struct LevelName {
    std::uint32_t level;
    const char* name;
};
constexpr LevelName kLevelNames[] = {{QEL_DT_LEVEL_ERROR, "error"},
                                     {QEL_DT_LEVEL_WARNING, "warning"},
                                     {QEL_DT_LEVEL_INFO, "info"},
                                     {QEL_DT_LEVEL_DEBUG, "debug"}};

void print_level(const Output& output, std::uint32_t level) {
    output.print("Current level: ");
    for (const LevelName& known : kLevelNames)
        if (known.level == level) return output.print("%s\n", known.name);
    output.print("unknown or corrupted: %d\n", static_cast<int>(level));
}

void print_stats(const Output& output, const View& view) {
    print_sizes(output, view);
    print_state(output, view);
    print_counters(output, view);
    print_level(output, load(view.header->level));
}

// The block-by-block dump, and what it finds.
class BlockDump {
  public:
    BlockDump(const Output& output, const View& view) : output_(output), view_(view) {}
    // Prints all and gives the number of entries that stand.
    std::uint32_t print();

  private:
    void print_block(std::uint32_t block, ControlEntry control, std::uint32_t stamp);
    void print_entry(std::uint32_t block, ControlEntry control, std::uint32_t stamp);
    void error(const char* format, std::uint32_t value) {
        ++errors_;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        output_.print(format, static_cast<int>(value));
#pragma GCC diagnostic pop
        output_.print("\n");
    }

    const Output& output_;
    const View& view_;
    std::uint32_t entries_ = 0;
    std::uint32_t reserved_ = 0;
    std::uint32_t errors_ = 0;
};

char letter_of(BlockState state) {
    switch (state) {
    case BlockState::free:
        return 'F';
    case BlockState::reserved:
        return 'R';
    case BlockState::used:
        return 'U';
    }
    return '?';
}

void BlockDump::print_entry(std::uint32_t block, ControlEntry control, std::uint32_t stamp) {
    Entry entry;
    if (!copy_entry(view_, block, control, entry)) return error("===> Error: Used block check mismatch", 0);
    if (entry.header.stamp != stamp || !after_clear(view_, entry.header))
        output_.print("********** STALE ENTRY ***********\n");
    else
        ++entries_;
}

void BlockDump::print_block(std::uint32_t block, ControlEntry control, std::uint32_t stamp) {
    output_.print("[ofs=x%04x st=%c blocks=%d seq=x%x] ", block, letter_of(control.state), control.blocks,
                  control.sequence);
    if (control.blocks == 0) error("===> Error: Invalid zero-block length!", 0);
    if (control.state == BlockState::free && control.blocks > 1)
        error("===> Error: Free entry invalid length %d", control.blocks);
    if (control.blocks > view_.blocks - block)
        error("===> Invalid length %d moves past end of buffer!", control.blocks);
    output_.print("\n");
    reserved_ += control.state == BlockState::reserved;
    if (control.state == BlockState::used) print_entry(block, control, stamp);
    const std::uint32_t shown = std::min(blocks_at(control), view_.blocks - block);
    dump_bytes(output_, true,
               {view_.payload + std::size_t{block} * kBlockSize, std::size_t{shown} * kBlockSize});
}

std::uint32_t BlockDump::print() {
    static_cast<void>(walk_blocks(view_, whole_lap(view_),
                                  [&](std::uint32_t block, ControlEntry control, std::uint32_t stamp) {
                                      print_block(block, control, stamp);
                                  }));
    if (reserved_ != 0) output_.print("\nReserved entries=%d\n", static_cast<int>(reserved_));
    if (errors_ != 0) output_.print("\nErrors=%d\n", static_cast<int>(errors_));
    return entries_;
}

void check_red_zone(const Output& output, const BufferSegment& segment) {
    std::uint32_t found = 0;
    std::memcpy(&found, segment.payload + std::size_t{segment.blocks} * kBlockSize, sizeof found);
    if (found != kRedZone) output.print("Invalid redzone=x%x (expecting x%x)\n", found, kRedZone);
}

std::uint32_t dump_file(qel_dt_dump& dump, const Output& output) {
    Inside inside{*dump.handle};
    if (inside.error() != 0) return UINT32_MAX;
    const BufferSegment& segment = dump.handle->segment;
    const View view = dump.copy.exists() ? dump.copy.view() : view_of(segment);
    dump_bytes(output, true, std::as_bytes(std::span{view.header, 1}));
    print_stats(output, view);
    check_red_zone(output, segment);
    return BlockDump{output, view}.print();
}

// A handle for the length of a scope.
class Opened {
  public:
    Opened(const char* name, bool copy) : error_(qel_dt_init_buffer_dump_handle(name, copy, {}, &dump_)) {}
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() { qel_dt_destroy_buffer_dump_handle(dump_); }
    int error() const { return error_; }
    qel_dt_dump& operator*() const { return *dump_; }

  private:
    qel_dt_dump_handle dump_ = nullptr;
    int error_;
};

int print_stats_of(const char* name) {
    const Opened dump{name, false};
    if (dump.error() != 0) return dump.error();
    Inside inside{*(*dump).handle};
    if (inside.error() != 0) return inside.error() == kGateBusy ? EAGAIN : inside.error();
    print_stats(kConsole, view_of((*dump).handle->segment));
    return 0;
}

}  // namespace
}  // namespace qel::dump

using namespace qel;
using namespace qel::dump;

void qel_dt_dump_stats(const char* name) {
    if (int error = print_stats_of(name); error != 0)
        static_cast<void>(qel_cli_printf("Cannot open trace buffer error=%d\n", error));
}

uint32_t qel_dt_dump_file(const char* name, qel_dt_dump_text callback, void* context, bool copy) {
    const Opened dump{name, copy};
    if (dump.error() != 0) return UINT32_MAX;
    return dump_file(*dump, Output{callback, context});
}

void qel_dt_byte_dump(bool show_offsets, const void* data, size_t length) {
    if (data == nullptr) return;
    dump_bytes(kConsole, show_offsets, {static_cast<const std::byte*>(data), length});
}
