// The work of those subcommands of "qel trace" that read entries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command.hpp"

namespace qel_tool {

using Names = std::vector<std::string>;

struct DumpOptions {
    std::uint32_t last = 0;  // 0 for all
    std::string since;
};
Exit dump_trace(const Run& run, const Names& names, const DumpOptions& options);

struct FollowOptions {
    std::uint32_t last = 10;
    double interval = 0.05;
    std::uint64_t count = 0;  // 0 for without end
    double seconds = 0;       // likewise
};
Exit follow_trace(const Run& run, const Names& names, const FollowOptions& options);

struct ExportOptions {
    std::string chrome;  // the file to write, "-" for standard output
};
Exit export_trace(const Run& run, const Names& names, const ExportOptions& options);

// Why 'text' is no moment that --since takes; empty if it is one.
std::string refuse_other_times(const std::string& text);

}  // namespace qel_tool
