// Trace entries: several buffers read as one, and the lines that show them.
#pragma once

#include <qel/dt_dump.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "command.hpp"

namespace qel_tool {

struct Entry {
    std::uint64_t seconds = 0;
    std::uint64_t nanoseconds = 0;
    std::uint32_t sequence = 0;
    std::uint32_t process_id = 0;
    std::size_t buffer = 0;  // index into the names
    std::string text;

    // False for what stands in the place of an entry whose format is gone.
    bool formatted() const { return !text.starts_with("Message lost: "); }
    auto order() const { return std::tuple{seconds, nanoseconds, sequence}; }
};

// Buffers of these names as one trace, oldest entry first. It reads copies, so writers and what they have
// left behind when they died don't matter.
class MergedTrace {
  public:
    using Take = std::function<void(Entry entry)>;

    // Gives the last 'most' entries, 0 for all, to 'take', which gets those of later reads too, again 'most'
    // at most. Throws Unreadable if one of the buffers can't be read.
    MergedTrace(const std::vector<std::string>& names, std::uint32_t most, Take take);
    // Gives what has come since.
    void read_on();
    const std::vector<std::string>& names() const { return names_; }

  private:
    static void take_entry(const qel_dt_entry_info* info, const char* text, std::size_t length, void* self);
    std::size_t index_of(const char* name) const;

    struct Destroy {
        void operator()(qel_dt_mst_handle merged) const { qel_dt_buffer_mst_destroy(merged); }
    };
    std::vector<std::string> names_;
    Take take_;
    std::unique_ptr<qel_dt_mst, Destroy> merged_;
};

// Entries as lines of text or JSON, in colour where that is wanted: a colour for each process.
class EntryLines {
  public:
    EntryLines(const Run& run, const std::vector<std::string>& names);
    void append(std::string& out, const Entry& entry);
    // That so many entries of a buffer are missing here.
    void append_lost(std::string& out, std::size_t buffer, std::uint64_t count) const;

  private:
    void append_text(std::string& out, const Entry& entry);
    void append_json(std::string& out, const Entry& entry);
    const std::string& second_text(std::uint64_t seconds);

    const bool json_;
    const bool colour_;
    std::vector<std::string> names_;
    // Entries come in order, so the last second's text serves for nearly all.
    std::uint64_t second_ = UINT64_MAX;
    std::string second_text_;
};

// The text of JSON for a string, quotes included; what isn't UTF-8 in it is replaced.
std::string json_text(const std::string& text);

}  // namespace qel_tool
