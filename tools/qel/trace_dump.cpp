// qel trace dump and export: what buffers hold now.
//
// Entries go out as they are read, so a dump takes no memory of its own for them.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>

#include "trace_buffer.hpp"
#include "trace_commands.hpp"
#include "trace_entries.hpp"

namespace qel_tool {
namespace {

// Nanoseconds of the epoch.
using Moment = std::chrono::nanoseconds;

Moment moment_of(const Entry& entry) {
    return std::chrono::seconds{entry.seconds} + Moment{entry.nanoseconds};
}

// --- Moments as text

std::optional<double> read_number(std::string_view text) {
    double value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end || !(value >= 0)) return std::nullopt;
    return value;
}

// None for more than a Moment can hold.
std::optional<Moment> from_seconds(double seconds) {
    if (!(seconds <= 9e9)) return std::nullopt;
    return Moment{std::llround(seconds * 1e9)};
}

std::optional<Moment> read_age(std::string_view text) {
    constexpr std::array<std::pair<char, double>, 4> kUnits{{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}}};
    for (auto [unit, seconds] : kUnits) {
        if (!text.ends_with(unit)) continue;
        auto number = read_number(text.substr(0, text.size() - 1));
        auto age = number ? from_seconds(*number * seconds) : std::nullopt;
        if (age) return std::chrono::system_clock::now().time_since_epoch() - *age;
    }
    return std::nullopt;
}

// A local time; one without a date is today's.
std::optional<Moment> read_local_time(const std::string& text) {
    const time_t now = time(nullptr);
    for (const char* format :
         {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        std::tm parts{};
        localtime_r(&now, &parts);
        parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
        parts.tm_isdst = -1;
        const char* end = strptime(text.c_str(), format, &parts);
        if (end != nullptr && *end == '\0') return std::chrono::seconds{mktime(&parts)};
    }
    return std::nullopt;
}

std::optional<Moment> read_moment(const std::string& text) {
    if (text.starts_with('@')) {
        auto seconds = read_number(std::string_view{text}.substr(1));
        return seconds ? from_seconds(*seconds) : std::nullopt;
    }
    auto age = read_age(text);
    return age ? age : read_local_time(text);
}

// --- export

// The trace event format of Chrome and Perfetto: a process each process, a thread of it each buffer, an
// instant each entry.
class ChromeWriter {
  public:
    ChromeWriter(std::FILE* file, const Names& names) : file_(file), names_(names) {
        fmt::print(file_, "{{\"displayTimeUnit\":\"ns\",\"traceEvents\":[");
    }
    void write(const Entry& entry);
    void finish() { fmt::print(file_, "\n]}}\n"); }
    std::uint64_t entries() const { return entries_; }

  private:
    void write_event(const std::string& event) {
        fmt::print(file_, "{}\n{}", first_ ? "" : ",", event);
        first_ = false;
    }
    void introduce(const Entry& entry);
    void name_track(const char* what, const Entry& entry, const std::string& name);

    std::FILE* file_;
    const Names& names_;
    std::set<std::uint32_t> processes_;
    std::set<std::pair<std::uint32_t, std::size_t>> tracks_;
    std::uint64_t entries_ = 0;
    bool first_ = true;
};

std::string process_name(std::uint32_t process_id) {
    std::ifstream file{fmt::format("/proc/{}/comm", process_id)};
    std::string name;
    return std::getline(file, name) ? name : "gone";
}

void ChromeWriter::name_track(const char* what, const Entry& entry, const std::string& name) {
    write_event(fmt::format(R"({{"ph":"M","name":"{}","pid":{},"tid":{},"args":{{"name":{}}}}})", what,
                            entry.process_id, entry.buffer, json_text(name)));
}

void ChromeWriter::introduce(const Entry& entry) {
    if (processes_.insert(entry.process_id).second)
        name_track("process_name", entry, process_name(entry.process_id));
    if (tracks_.insert({entry.process_id, entry.buffer}).second)
        name_track("thread_name", entry, names_[entry.buffer]);
}

// Seconds and nanoseconds written side by side are microseconds without rounding.
void ChromeWriter::write(const Entry& entry) {
    introduce(entry);
    std::string text = json_text(entry.text);
    write_event(fmt::format(R"({{"ph":"i","s":"t","name":{},"cat":{},"pid":{},"tid":{},"ts":{}{:06}.{:03},)"
                            R"("args":{{"sequence":{},"text":{}}}}})",
                            text, json_text(names_[entry.buffer]), entry.process_id, entry.buffer,
                            entry.seconds, entry.nanoseconds / 1000, entry.nanoseconds % 1000, entry.sequence,
                            text));
    ++entries_;
}

struct CloseFile {
    void operator()(std::FILE* file) const {
        if (file != stdout) std::fclose(file);
    }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File open_to_write(const std::string& name) {
    if (name == "-") return File{stdout};
    File file{std::fopen(name.c_str(), "w")};
    if (!file)
        throw Unreadable{fmt::format("{}: {}", printable(name), std::generic_category().message(errno))};
    return file;
}

}  // namespace

std::string refuse_other_times(const std::string& text) {
    if (read_moment(text)) return "";
    return fmt::format("\"{}\" is no time: 90s, 5m, 2h or 1d ago, 14:30, 2026-11-23 14:30:05, or @SECONDS",
                       printable(text));
}

Exit dump_trace(const Run& run, const Names& names, const DumpOptions& options) {
    const Moment since = options.since.empty() ? Moment::min() : *read_moment(options.since);
    EntryLines lines{run, names};
    Exit exit = Exit::fine;
    std::string line;
    MergedTrace trace{names, options.last, [&](const Entry& entry) {
                          if (moment_of(entry) < since) return;
                          if (!entry.formatted()) exit = Exit::finding;
                          line.clear();
                          lines.append(line, entry);
                          std::fwrite(line.data(), 1, line.size(), stdout);
                      }};
    return exit;
}

Exit export_trace(const Run& run, const Names& names, const ExportOptions& options) {
    for (const std::string& name : names) must_be_there(name);  // or the file would be emptied for nothing
    File file = open_to_write(options.chrome);
    ChromeWriter writer{file.get(), names};
    Exit exit = Exit::fine;
    MergedTrace trace{names, 0, [&](const Entry& entry) {
                          if (!entry.formatted()) exit = Exit::finding;
                          writer.write(entry);
                      }};
    writer.finish();
    if (std::fflush(file.get()) != 0) throw Unreadable{fmt::format("can't write {}", options.chrome)};
    if (file.get() == stdout) return exit;
    if (run.json)
        print_json({{"file", options.chrome}, {"entries", writer.entries()}});
    else
        fmt::print("{}: {} entries\n", options.chrome, writer.entries());
    return exit;
}

}  // namespace qel_tool
