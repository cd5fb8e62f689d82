// A trace buffer seen from outside, as a document.
#pragma once

#include <qel/dt_buffer.h>
#include <trace/qel_trace_format.hpp>

#include <memory>
#include <string>
#include <vector>

#include "command.hpp"

namespace qel_tool {

// A copy of a buffer's segment, read like a file: without a lock, a mapping or a change. Writers go on
// meanwhile; settled() tells what they have not touched between the beginning and the end of the copying.
class TraceLook {
  public:
    // Copies the header alone, or all. 0; ENOENT and what else opening gives; EBADF for an object that is no
    // sound buffer.
    int read_header(const std::string& name);
    int read(const std::string& name);

    const qel::BufferHeader& header() const { return header_; }
    std::uint32_t blocks() const { return header_.blocks; }
    qel::ControlEntry control(std::uint32_t block) const { return control_[block]; }
    // Whether the control entry, and so the entry that begins there, is of one moment.
    bool settled(std::uint32_t block) const;
    qel::PayloadHeader payload(std::uint32_t block) const;

  private:
    qel::BufferHeader header_{};
    std::vector<qel::ControlEntry> control_;
    std::vector<qel::ControlEntry> control_later_;
    std::vector<std::byte> payload_;
};

// The machine's list of formats. Throws Unreadable where there is none.
using PointList = std::unique_ptr<qel_dt_tp_list>;
PointList read_points();
// Whether entries can be formatted by it.
bool is_usable(const qel_dt_tp_entry& point);

// Why a buffer can't be read. The second throws it.
std::string reason(int error);
[[noreturn]] void give_up(const std::string& name, int error);
// Gives up on a buffer that isn't there or not sound, and after a second on one whose creator died in the
// middle. It makes nothing, not even the machine's list of formats.
void must_be_there(const std::string& name);

// The levels' names; a number that has none as text.
std::string level_name(std::uint32_t level);

// {name, size, count, dropped, level, state}.
Json describe_buffer(const std::string& name, const qel::BufferHeader& header);
// The counters in full, the blocks by state, and "findings".
Json describe_stats(const std::string& name);
void print_stats(const Json& stats);

}  // namespace qel_tool
