// Trace entries: several buffers read as one, and the lines that show them.
#include "trace_entries.hpp"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <string_view>

#include "trace_buffer.hpp"

namespace qel_tool {
namespace {

constexpr const char* kNoColour = "\033[0m";
constexpr const char* kLossColour = "\033[1;31m";
constexpr std::array<const char*, 6> kColours{"\033[36m", "\033[32m", "\033[33m",
                                              "\033[35m", "\033[34m", "\033[94m"};

bool colour_wanted() {
    const char* no_colour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
}

std::vector<const char*> pointers(const std::vector<std::string>& names) {
    std::vector<const char*> all;
    for (const std::string& name : names) all.push_back(name.c_str());
    return all;
}

std::string_view without_line_end(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.remove_suffix(1);
    return text;
}

}  // namespace

MergedTrace::MergedTrace(const std::vector<std::string>& names, std::uint32_t most, Take take)
    : names_(names), take_(std::move(take)) {
    for (const std::string& name : names) must_be_there(name);
    const qel_dt_dump_limits limits{most, 0};
    qel_dt_mst_handle merged = nullptr;
    int error = qel_dt_buffer_mst_init_pfx(pointers(names_).data(), static_cast<int>(names_.size()), &limits,
                                           take_entry, this, &merged);
    merged_.reset(merged);
    if (error != 0) throw Unreadable{fmt::format("trace: {}", reason(error))};
}

void MergedTrace::read_on() {
    int error = qel_dt_buffer_mst_next(merged_.get());
    if (error != 0) throw Unreadable{fmt::format("trace: {}", reason(error))};
}

void MergedTrace::take_entry(const qel_dt_entry_info* info, const char* text, std::size_t length,
                             void* self) {
    auto& trace = *static_cast<MergedTrace*>(self);
    trace.take_({.seconds = info->seconds,
                 .nanoseconds = info->nanoseconds,
                 .sequence = info->sequence,
                 .process_id = info->process_id,
                 .buffer = trace.index_of(info->buffer_name),
                 .text = std::string{without_line_end({text, length})}});
}

std::size_t MergedTrace::index_of(const char* name) const {
    for (std::size_t i = 0; i + 1 < names_.size(); ++i)
        if (names_[i] == name) return i;
    return names_.size() - 1;
}

EntryLines::EntryLines(const Run& run, const std::vector<std::string>& names)
    : json_(run.json), colour_(!run.json && colour_wanted()) {
    for (const std::string& name : names) names_.push_back(run.json ? json_text(name) : printable(name));
}

void EntryLines::append(std::string& out, const Entry& entry) {
    json_ ? append_json(out, entry) : append_text(out, entry);
}

const std::string& EntryLines::second_text(std::uint64_t seconds) {
    if (seconds == second_) return second_text_;
    char text[64] = "";
    std::tm parts{};
    const auto time = static_cast<time_t>(seconds);
    json_ ? gmtime_r(&time, &parts) : localtime_r(&time, &parts);
    std::strftime(text, sizeof text, json_ ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    second_ = seconds;
    return second_text_ = text;
}

void EntryLines::append_text(std::string& out, const Entry& entry) {
    if (colour_) out += kColours[entry.process_id % kColours.size()];
    fmt::format_to(std::back_inserter(out), "{}.{:06} {} {}:{} {}\n", second_text(entry.seconds),
                   entry.nanoseconds / 1000, entry.process_id, names_[entry.buffer], colour_ ? kNoColour : "",
                   printable(entry.text));
}

void EntryLines::append_json(std::string& out, const Entry& entry) {
    fmt::format_to(std::back_inserter(out),
                   R"({{"time":"{}.{:09}Z","seconds":{},"nanoseconds":{},"sequence":{},"pid":{},"buffer":{},)"
                   R"("text":{}}})"
                   "\n",
                   second_text(entry.seconds), entry.nanoseconds, entry.seconds, entry.nanoseconds,
                   entry.sequence, entry.process_id, names_[entry.buffer], json_text(entry.text));
}

void EntryLines::append_lost(std::string& out, std::size_t buffer, std::uint64_t count) const {
    if (json_)
        fmt::format_to(std::back_inserter(out), "{{\"buffer\":{},\"lost\":{}}}\n", names_[buffer], count);
    else
        fmt::format_to(std::back_inserter(out), "{}.. {} entries of {} lost ..{}\n",
                       colour_ ? kLossColour : "", count, names_[buffer], colour_ ? kNoColour : "");
}

std::string json_text(const std::string& text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace qel_tool
