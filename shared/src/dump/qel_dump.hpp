// Dumps inside the library: a view of a buffer's blocks, the walk over its entries, and an entry as text.
//
// A view is the live mapping or a private copy. What it shows was written by other processes, and a live one
// changes under the reader: counts, lengths, indices and texts are checked before they are used.
#pragma once

#include <qel/dt_dump.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>

#include "core/qel_owned.hpp"
#include "trace/qel_trace_buffer.hpp"

namespace qel::dump {

inline constexpr std::size_t kPrefixSize = 50;
inline constexpr std::size_t kMessageSize = 1024;
inline constexpr std::size_t kTextSize = kPrefixSize + kMessageSize;

struct View {
    BufferHeader* header;
    ControlEntry* control;
    std::byte* payload;
    std::uint32_t blocks;
};

inline View view_of(const BufferSegment& segment) {
    return {segment.header, segment.control, segment.payload, segment.blocks};
}

inline ControlEntry control_at(const View& view, std::uint32_t block) {
    return std::atomic_ref{view.control[block]}.load(std::memory_order_acquire);
}

inline bool same(ControlEntry left, ControlEntry right) {
    return std::bit_cast<std::uint32_t>(left) == std::bit_cast<std::uint32_t>(right);
}

// A block counted as 0 would hold a walk up.
inline std::uint32_t blocks_at(ControlEntry control) {
    return control.blocks == 0 ? 1 : control.blocks;
}

inline std::uint32_t load(const std::uint32_t& word) {
    return std::atomic_ref{const_cast<std::uint32_t&>(word)}.load(std::memory_order_relaxed);
}

// The write cursor; an index outside of the blocks counts as 0.
Cursor cursor_of(const View& view);

// One entry, copied out of the blocks.
struct Entry {
    PayloadHeader header;
    std::byte arguments[kMaxArgumentBytes];
};

// Copies the entry that begins at 'block'. False if there is none: no writer finished it, its length doesn't
// fit its blocks, or a writer took one of them before the copy was done.
bool copy_entry(const View& view, std::uint32_t block, ControlEntry control, Entry& out);

// True for an entry written after the buffer's last clear.
bool after_clear(const View& view, const PayloadHeader& entry);

// Blocks to walk, in the order of writing and around the end of the array.
struct Range {
    std::uint32_t start;   // block
    std::uint32_t length;  // blocks
    std::uint32_t stamp;   // of the lap at 'start'; behind the end of the array the next lap begins
};

// All blocks, from the oldest on.
Range whole_lap(const View& view);

// Calls 'visit'(block, control, stamp) for each entry or single block of 'range'. Ends in any case after the
// blocks of the range; false if a count stepped over their end.
template <class Visit>
bool walk_blocks(const View& view, Range range, Visit visit) {
    while (range.length > 0) {
        const ControlEntry control = control_at(view, range.start);
        const std::uint32_t step = std::min(blocks_at(control), view.blocks - range.start);
        visit(range.start, control, range.stamp);
        if (step > range.length) return false;
        range.length -= step;
        range.start += step;
        if (range.start == view.blocks) range = {0, range.length, (range.stamp + 1) % Cursor::kStamps};
    }
    return true;
}

// Calls 'visit'(block, entry) for each entry of 'range' that stands, oldest first. An entry of another lap is
// a left-over: it lies where a later one found no room, or was written after the range was determined.
template <class Visit>
bool walk_entries(const View& view, Range range, Visit visit) {
    Entry entry;
    return walk_blocks(view, range, [&](std::uint32_t block, ControlEntry control, std::uint32_t stamp) {
        if (copy_entry(view, block, control, entry) && entry.header.stamp == stamp &&
            after_clear(view, entry.header))
            visit(block, entry);
    });
}

// A private copy of a buffer, in one piece of named memory.
class Copy {
  public:
    // Copies all of 'live'. ENOMEM.
    int take(const View& live);
    // Copies the header and the blocks of 'range' again.
    void refresh(const View& live, Range range);
    void drop();
    bool exists() const { return view_.header != nullptr; }
    const View& view() const { return view_; }
    // True if writers changed blocks while the latest copy was made. Such blocks show no entry.
    bool disturbed() const { return disturbed_; }

  private:
    void copy_blocks(const View& live, std::uint32_t first, std::uint32_t count);

    Owned<std::byte> memory_;
    View view_{};
    bool disturbed_ = false;
};

// The text of entries: prefix, message, and the memory of the latest second's date.
class Text {
  public:
    // Writes the message of 'entry' behind the prefix, which is empty unless 'with_prefix'.
    void write(const Entry& entry, const qel_dt_entry_info& info, bool with_prefix);
    const char* data() const { return text_; }
    std::size_t size() const { return size_; }

    std::int64_t write_prefix(char* out, std::size_t size, const qel_dt_entry_info& info);

  private:
    char text_[kTextSize];
    std::size_t size_ = 0;
    std::uint64_t dated_second_ = UINT64_MAX;
    char date_[kPrefixSize + 1];
    char zone_[kPrefixSize + 1];
};

// Formats the arguments of 'entry' into 'out' of kMessageSize bytes and gives the length: the message, or
// what is told in place of one whose trace point is missing or bad.
std::size_t write_message(const Entry& entry, std::span<char> out);

// The place 'index' of the list; without its text while its claimer is still writing it.
qel_dt_tp_entry point_at(const qel_dt_tp_list& list, std::uint32_t index);

// Reads the place 'index' of the mapped list of trace points. EBADMSG for a missing one, EFAULT for a bad
// one.
int read_point(std::uint32_t index, qel_dt_tp_entry& out);

qel_dt_entry_info info_of(const Entry& entry, const char* buffer);

}  // namespace qel::dump

// The handle of a dump. 'handle' is open for this dump alone, so that nothing but the dump's own entering
// replaces its mapping.
struct qel_dt_dump {
    qel_dt_buffer_handle handle = nullptr;
    qel::dump::Copy copy;
    qel_dt_dump_config config{};
    bool lost = false;  // to be told with the next entry
    qel::dump::Text text;
};

namespace qel::dump {

// Opens the buffer 'name', with a copy if asked for. ENOENT if it can't be opened; ENOMEM.
int open_dump(const char* name, bool copy, qel_dt_dump_config config, qel_dt_dump& out);
void close_dump(qel_dt_dump& dump);

// Gives 'entry' to the function of 'config', after the line that tells of lost ones if that is due.
void give_entry(qel_dt_dump& dump, const qel_dt_dump_config& config, const Entry& entry, void* context);

// A terminal would obey some of what a text of another process may hold.
constexpr char terminal_safe(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\t') || c == 0x7f ? '?' : c;
}

// Prints all entries of the buffer 'name', a line each, and their number. 0 or the errno of opening it.
int print_buffer(const char* name);

}  // namespace qel::dump
