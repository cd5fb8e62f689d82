// Trace buffers as documents, and what can be wrong with them.
//
// A writer may be in the middle of any entry while the tool looks. So only what stays for several looks is a
// finding: a block that is still reserved by the same reservation, an entry whose parts disagree though
// nobody has touched it, a control operation that never ends.
#include "trace_buffer.hpp"

#include <qel/cerrno.h>
#include <qel/time.h>
#include <shm/qel_mem_safe_shm_object.hpp>
#include <trace/qel_trace_buffer.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <span>
#include <thread>

#include "table.hpp"

namespace qel_tool {
namespace {

using qel::BlockState;
using qel::BufferHeader;
using qel::ControlEntry;
using qel::PayloadHeader;

constexpr int kLooks = 5;
constexpr std::chrono::milliseconds kBetweenLooks{20};
// Who scribbles over a buffer makes as many faults as there are blocks.
constexpr std::size_t kMostFindings = 1000;
constexpr std::uint64_t kSegmentHeader = QEL_SHM_SAFE_HEADER_SIZE;

template <class T>
int read_array(const qel::ObjectToRead& object, std::uint64_t at, std::size_t count, std::vector<T>& out) {
    out.resize(count);
    return qel::shm_platform::read_object(object.object, kSegmentHeader + at,
                                          std::as_writable_bytes(std::span{out}));
}

template <class T>
int read_record(const qel::ObjectToRead& object, std::uint64_t at, T& out) {
    return qel::shm_platform::read_object(object.object, kSegmentHeader + at,
                                          std::as_writable_bytes(std::span{&out, 1}));
}

// The copies of everything before the payload are made by the number of blocks that was checked here.
int read_checked_header(const qel::ObjectToRead& object, BufferHeader& out) {
    std::uint32_t red_zone = 0;
    if (object.size < kSegmentHeader + qel::buffer_size(qel::kMinBlocks)) return EBADF;
    if (int error = read_record(object, 0, out); error != 0) return error;
    if (out.magic != qel::kBufferMagic || out.version != qel::kBufferVersion) return EBADF;
    if (out.blocks < qel::kMinBlocks || out.blocks > qel::kMaxBlocks) return EBADF;
    const std::uint64_t size = qel::buffer_size(out.blocks);
    if (object.size < kSegmentHeader + size) return EBADF;
    if (int error = read_record(object, size - sizeof red_zone, red_zone); error != 0) return error;
    return red_zone == qel::kRedZone ? 0 : EBADF;
}

int open_buffer(const std::string& name, qel::ObjectToRead& object) {
    return qel::open_to_read((name + ".qdt").c_str(), object);
}

std::uint64_t count_of(const BufferHeader& header) {
    return std::uint64_t{header.count[1]} << 32 | header.count[0];
}

std::string state_of(const BufferHeader& header) {
    if ((header.flags & qel::kFlagPaused) != 0) return "paused";
    if ((header.flags & qel::kFlagOneShotFull) != 0) return "one-shot, full";
    return (header.flags & qel::kFlagOneShot) != 0 ? "one-shot" : "running";
}

// The lap in which 'block' was last passed; older entries that lie there yet don't count any more.
std::uint32_t expected_stamp(const TraceLook& look, std::uint32_t block) {
    const qel::Cursor next = qel::Cursor::unpack(look.header().next);
    return (next.stamp - (block < next.index ? 0 : 1)) % qel::Cursor::kStamps;
}

// --- What is wrong with the entry that begins at a block; empty if nothing is.

std::string fault_of_used(const TraceLook& look, std::uint32_t block, const qel_dt_tp_list* points) {
    const std::uint32_t count = look.control(block).blocks;
    const PayloadHeader entry = look.payload(block);
    if (count == 0 || count > qel::kMaxEntryBlocks) return fmt::format("an entry of {} blocks", count);
    if (count > look.blocks() - block) return fmt::format("an entry of {} blocks passes the end", count);
    if (qel::blocks_of_entry(entry.length) != count)
        return fmt::format("an entry of {} bytes in {} blocks", entry.length, count);
    if (points == nullptr) return "";
    if (entry.trace_point >= QEL_DT_TP_CAPACITY || !is_usable(points->entries[entry.trace_point]))
        return fmt::format("an entry of trace point {}, which is not in the list", entry.trace_point);
    return "";
}

std::string fault_of(const TraceLook& look, std::uint32_t block, const qel_dt_tp_list* points) {
    switch (look.control(block).state) {
    case BlockState::free:
        return "";
    case BlockState::reserved:
        return "stays reserved: its writer died, or was stopped, in the middle of an entry";
    case BlockState::used:
        return fault_of_used(look, block, points);
    }
    return fmt::format("is in state {}, which is none", static_cast<int>(look.control(block).state));
}

const char* part_of(const TraceLook& look, std::uint32_t block) {
    return look.control(block).state == BlockState::reserved ? "reserved" : "corrupt";
}

// The control entry's sequence tells whether it is the same fault that several looks see.
Json find_faults(const TraceLook& look, const qel_dt_tp_list* points) {
    Json findings = Json::array();
    for (std::uint32_t block = 0; block < look.blocks() && findings.size() < kMostFindings; ++block) {
        if (!look.settled(block)) continue;
        std::string fault = fault_of(look, block, points);
        if (fault.empty()) continue;
        findings.push_back({{"part", part_of(look, block)},
                            {"block", block},
                            {"blocks", look.control(block).blocks},
                            {"change", look.control(block).sequence},
                            {"text", fault}});
    }
    if ((look.header().flags & qel::kFlagControl) != 0)
        findings.push_back({{"part", "control"},
                            {"text", "a control operation never ends, as its process died: pause, resume "
                                     "and clear won't work"}});
    return findings;
}

Json in_both(const Json& some, const Json& others) {
    Json both = Json::array();
    for (const Json& one : some)
        if (std::find(others.begin(), others.end(), one) != others.end()) both.push_back(one);
    return both;
}

Json describe_losses(const BufferHeader& header) {
    if (header.dropped == 0) return Json::array();
    return {{{"part", "lost"}, {"text", fmt::format("{} entries were dropped", header.dropped)}}};
}

// --- Statistics

Json count_blocks(const TraceLook& look) {
    std::uint32_t used = 0, reserved = 0, entries = 0, stale = 0, reserved_entries = 0;
    for (std::uint32_t block = 0; block < look.blocks(); ++block) {
        const ControlEntry control = look.control(block);
        if (control.state == BlockState::reserved) {
            reserved += control.blocks;
            ++reserved_entries;
        }
        if (control.state != BlockState::used) continue;
        used += control.blocks;
        (look.payload(block).stamp == expected_stamp(look, block) ? entries : stale) += 1;
    }
    const std::uint32_t free = look.blocks() - std::min(look.blocks(), used + reserved);
    return {{"total", look.blocks()},
            {"used", used},
            {"reserved", reserved},
            {"free", free},
            {"entries", entries},
            {"stale_entries", stale},
            {"reserved_entries", reserved_entries}};
}

std::string time_text(std::uint32_t seconds, std::uint32_t nanoseconds) {
    char text[QEL_TIME_SYSTEM_DEFAULT_SIZE] = "";
    const timespec time{static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
    qel_time_format_system_default(&time, QEL_TIME_ZONE_LOCAL, text);
    return text;
}

Json describe_counters(const std::string& name, const TraceLook& look) {
    const BufferHeader& header = look.header();
    const qel::Cursor next = qel::Cursor::unpack(header.next);
    Json stats = describe_buffer(name, header);
    stats["version"] = header.version;
    stats["original_size"] = header.original_size;
    stats["cleared"] = time_text(header.clear_seconds, header.clear_nanoseconds);
    stats["next_block"] = next.index;
    stats["lap"] = next.stamp;
    stats["wraps"] = header.wraps;
    stats["next_sequence"] = header.sequence;
    stats["blocks"] = count_blocks(look);
    stats["contention"] = {{"excessive_retries", header.excessive_retries},
                           {"reserve_retries", header.reserve_retries},
                           {"commit_cas_failures", header.commit_cas_failures},
                           {"rollbacks", header.rollbacks},
                           {"most_passes", header.lock_free_retries_high},
                           {"most_cas_failures", header.reserve_cas_failures_high}};
    return stats;
}

void look_at(const std::string& name, TraceLook& look) {
    if (int error = look.read(name); error != 0) give_up(name, error);
}

// A list that can't be read is none of the buffer's faults.
PointList points_if_any() {
    try {
        return read_points();
    } catch (const Unreadable&) {
        return nullptr;
    }
}

}  // namespace

bool TraceLook::settled(std::uint32_t block) const {
    return std::memcmp(&control_[block], &control_later_[block], sizeof(ControlEntry)) == 0;
}

PayloadHeader TraceLook::payload(std::uint32_t block) const {
    PayloadHeader entry;
    std::memcpy(&entry, payload_.data() + std::size_t{block} * qel::kBlockSize, sizeof entry);
    return entry;
}

int TraceLook::read_header(const std::string& name) {
    qel::ObjectToRead object;
    if (int error = open_buffer(name, object); error != 0) return error;
    return read_checked_header(object, header_);
}

int TraceLook::read(const std::string& name) {
    qel::ObjectToRead object;
    if (int error = open_buffer(name, object); error != 0) return error;
    if (int error = read_checked_header(object, header_); error != 0) return error;
    const std::uint64_t control = sizeof(BufferHeader);
    const std::uint64_t payload = control + sizeof(ControlEntry) * blocks();
    if (int error = read_array(object, control, blocks(), control_); error != 0) return error;
    if (int error = read_array(object, payload, std::size_t{blocks()} * qel::kBlockSize, payload_);
        error != 0)
        return error;
    return read_array(object, control, blocks(), control_later_);
}

PointList read_points() {
    auto points = std::make_unique<qel_dt_tp_list>();
    qel::ObjectToRead object;
    int error = qel::open_to_read("qel_trace.tpl", object);
    if (error == 0) error = read_record(object, 0, *points);
    if (error == 0 && points->version != qel::kPointListVersion) error = EBADF;
    if (error == 0) return points;
    throw Unreadable{
        fmt::format("the list of trace points: {}", error == EBADF ? "of another version" : reason(error))};
}

bool is_usable(const qel_dt_tp_entry& point) {
    return point.length != 0 && point.length <= QEL_DT_TP_FORMAT_SIZE && point.reserved == 0 &&
           point.argument_count <= QEL_DT_TP_MAX_ARGUMENTS && point.fixed_size <= 8 * point.argument_count;
}

std::string reason(int error) {
    if (error == EBADF) return "this is no sound trace buffer";
    if (error == EAGAIN) return "another process controls it, or died while it did";
    return cerr_strerror(static_cast<cerrno>(error));
}

void give_up(const std::string& name, int error) {
    throw Unreadable{fmt::format("trace buffer \"{}\": {}", printable(name), reason(error))};
}

void must_be_there(const std::string& name) {
    qel::BufferSegment segment{};
    int error = qel::segment_attach(name.c_str(), qel::kCreationLimitMs, segment);
    qel::segment_close(segment);
    if (error != 0) give_up(name, error);
}

std::string level_name(std::uint32_t level) {
    static const std::map<std::uint32_t, const char*> names{{QEL_DT_LEVEL_ERROR, "error"},
                                                            {QEL_DT_LEVEL_WARNING, "warning"},
                                                            {QEL_DT_LEVEL_INFO, "info"},
                                                            {QEL_DT_LEVEL_DEBUG, "debug"}};
    auto found = names.find(level);
    return found != names.end() ? found->second : std::to_string(level);
}

Json describe_buffer(const std::string& name, const BufferHeader& header) {
    return {{"name", name},
            {"size", header.size},
            {"count", count_of(header)},
            {"dropped", header.dropped},
            {"level", header.level},
            {"level_name", level_name(header.level)},
            {"state", state_of(header)}};
}

Json describe_stats(const std::string& name) {
    TraceLook look;
    look_at(name, look);
    PointList points = points_if_any();
    Json faults = find_faults(look, points.get());
    for (int looks = 1; looks < kLooks && !faults.empty(); ++looks) {
        std::this_thread::sleep_for(kBetweenLooks);
        look_at(name, look);
        points = points_if_any();
        faults = in_both(faults, find_faults(look, points.get()));
    }
    Json stats = describe_counters(name, look);
    stats["findings"] = describe_losses(look.header());
    for (Json& fault : faults) stats["findings"].push_back(std::move(fault));
    return stats;
}

void print_stats(const Json& stats) {
    fmt::print("trace buffer {}: {}, level {}\n", text_of(stats["name"]), text_of(stats["state"]),
               text_of(stats["level_name"]));
    print_fields(stats, {"version", "size", "original_size", "count", "dropped", "cleared", "next_block",
                         "lap", "wraps", "next_sequence"});
    fmt::print("blocks of {} bytes\n", qel::kBlockSize);
    print_fields(stats["blocks"],
                 {"total", "used", "reserved", "free", "entries", "stale_entries", "reserved_entries"});
    fmt::print("contention\n");
    print_fields(stats["contention"], {"excessive_retries", "reserve_retries", "commit_cas_failures",
                                       "rollbacks", "most_passes", "most_cas_failures"});
    for (const Json& finding : stats["findings"])
        fmt::print("FINDING: {}{}: {}\n", text_of(finding["part"]),
                   finding.contains("block") ? fmt::format(", block {}", text_of(finding["block"])) : "",
                   text_of(finding["text"]));
    if (stats["findings"].empty()) fmt::print("checked: nothing found\n");
}

}  // namespace qel_tool
