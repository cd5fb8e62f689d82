// qel trace: the subcommands for trace buffers. Those that read entries are in trace_dump.cpp and
// trace_follow.cpp.
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "objects.hpp"
#include "table.hpp"
#include "trace_buffer.hpp"
#include "trace_commands.hpp"

namespace qel_tool {
namespace {

// --- list

Json describe_listed(const std::string& name) {
    TraceLook look;
    int error = look.read_header(name);
    if (error == 0) return describe_buffer(name, look.header());
    return {{"name", name}, {"error", reason(error)}};
}

Exit list_buffers(const Run& run) {
    Json buffers = Json::array();
    Exit exit = Exit::fine;
    for (const std::string& name : find_objects(run.root, ".qdt")) {
        buffers.push_back(describe_listed(name));
        if (buffers.back().contains("error")) exit = Exit::finding;
    }
    if (run.json)
        print_json({{"buffers", buffers}});
    else if (buffers.empty())
        fmt::print("no trace buffers\n");
    else
        print_table(buffers, {{"NAME", "name"},
                              {"SIZE", "size"},
                              {"COUNT", "count"},
                              {"DROPPED", "dropped"},
                              {"LEVEL", "level_name"},
                              {"STATE", "state"}});
    return exit;
}

// --- stats

Exit show_stats(const Run& run, const Names& names) {
    Exit exit = Exit::fine;
    for (const std::string& name : names) {
        Json stats = describe_stats(name);
        if (run.json)
            print_json(stats);
        else
            print_stats(stats);
        if (!stats["findings"].empty()) exit = Exit::finding;
    }
    return exit;
}

// --- level, clear, pause, resume

class OpenBuffer {
  public:
    explicit OpenBuffer(const std::string& name) : name_(name) {
        must_be_there(name);
        if (int error = qel_dt_buffer_open(&handle_, name.c_str()); error != 0) give_up(name, error);
    }
    OpenBuffer(const OpenBuffer&) = delete;
    OpenBuffer& operator=(const OpenBuffer&) = delete;
    ~OpenBuffer() { qel_dt_buffer_close(&handle_); }

    // Another process may be at it for a moment.
    void control(const std::function<int(qel_dt_buffer_handle)>& operation) {
        constexpr int kTries = 10;
        constexpr std::chrono::milliseconds kBetweenTries{20};
        int error = operation(handle_);
        for (int tries = 1; error == EAGAIN && tries < kTries; ++tries) {
            std::this_thread::sleep_for(kBetweenTries);
            error = operation(handle_);
        }
        if (error != 0) give_up(name_, error);
    }

  private:
    std::string name_;
    qel_dt_buffer_handle handle_ = nullptr;
};

void show_buffer(const Run& run, const std::string& name) {
    Json buffer = describe_listed(name);
    if (run.json)
        print_json(buffer);
    else
        fmt::print("{}: {}, level {}\n", printable(name), text_of(buffer["state"]),
                   text_of(buffer["level_name"]));
}

Exit control_buffers(const Run& run, const Names& names, int (*operation)(qel_dt_buffer_handle)) {
    for (const std::string& name : names) {
        OpenBuffer{name}.control(operation);
        show_buffer(run, name);
    }
    return Exit::fine;
}

struct LevelOptions {
    std::string level;
};

std::optional<std::uint32_t> read_level(const std::string& text) {
    for (std::uint32_t level = QEL_DT_LEVEL_ERROR; level <= QEL_DT_LEVEL_DEBUG; ++level)
        if (text == level_name(level) || text == std::to_string(level)) return level;
    return std::nullopt;
}

std::string refuse_other_levels(const std::string& text) {
    if (read_level(text)) return "";
    return fmt::format("\"{}\" is no level: error, warning, info, debug, or 3 to 7", printable(text));
}

Exit set_level(const Run& run, const std::string& name, const LevelOptions& options) {
    OpenBuffer buffer{name};
    if (!options.level.empty())
        buffer.control([&](qel_dt_buffer_handle handle) {
            return qel_dt_buffer_set_level(handle, *read_level(options.level));
        });
    show_buffer(run, name);
    return Exit::fine;
}

// --- points

Exit list_points(const Run& run) {
    PointList list = read_points();
    Json points = Json::array();
    for (std::uint32_t index = 0; index < QEL_DT_TP_CAPACITY; ++index) {
        const qel_dt_tp_entry& point = list->entries[index];
        if (!is_usable(point)) continue;
        points.push_back({{"index", index},
                          {"arguments", point.argument_count},
                          {"types", fmt::format("{:08x}{:08x}", point.types[1], point.types[0])},
                          {"format", std::string{point.format, strnlen(point.format, sizeof point.format)}}});
    }
    if (run.json) {
        print_json({{"capacity", QEL_DT_TP_CAPACITY}, {"points", points}});
        return Exit::fine;
    }
    print_table(points,
                {{"POINT", "index"}, {"ARGS", "arguments"}, {"TYPES", "types"}, {"FORMAT", "format"}});
    fmt::print("{} of {} in use\n", points.size(), QEL_DT_TP_CAPACITY);
    return Exit::fine;
}

// --- The subcommands

constexpr char kFooter[] =
    "Examples:\n"
    "  qel trace list                               every buffer of the machine\n"
    "  qel trace dump lines.events --last 50        the last 50 entries, also after a crash\n"
    "  qel trace follow lines.events lines.errors   both, in order of time, as they come\n"
    "  qel trace level lines.events debug           what trace_enabled() lets through, for all processes\n"
    "  qel trace stats lines.events || echo bad     counters, and what is wrong with the buffer";

CLI::App* add(CLI::App& family, const char* name, const char* about, const char* example) {
    CLI::App* command = family.add_subcommand(name, about);
    command->footer(std::string{"Example:\n  "} + example);
    return command;
}

// Options of a subcommand on buffers, which live as long as the program's record of it.
template <class Options>
struct OnBuffers {
    Names names;
    Options options;
};

template <class Options>
std::shared_ptr<OnBuffers<Options>> work_on_buffers(CLI::App* command, Run& run,
                                                    Exit (*work)(const Run&, const Names&, const Options&)) {
    auto given = std::make_shared<OnBuffers<Options>>();
    command->add_option("NAME", given->names, "The buffer's name, without prefix and \".qdt\"")
        ->type_name(kBuffer)
        ->required();
    command->callback([&run, given, work] {
        run.action = [&run, given, work] { return work(run, given->names, given->options); };
    });
    return given;
}

struct NoOptions {};
template <Exit (*work)(const Run&, const Names&)>
Exit without_options(const Run& run, const Names& names, const NoOptions&) {
    return work(run, names);
}

template <int (*operation)(qel_dt_buffer_handle)>
Exit control_each(const Run& run, const Names& names, const NoOptions&) {
    return control_buffers(run, names, operation);
}

void add_looks(CLI::App& family, Run& run) {
    add(family, "list",
        "Lists the buffers: size in bytes, entries, drops, level; exits with 1 if one is unsound",
        "qel trace list --json")
        ->callback([&run] { run.action = [&run] { return list_buffers(run); }; });
    add(family, "points", "Lists the trace points: the formats that all entries of the machine refer to",
        "qel trace points")
        ->callback([&run] { run.action = [&run] { return list_points(run); }; });
    work_on_buffers<NoOptions>(
        add(family, "stats",
            "Shows a buffer's counters, and checks its blocks; exits with 1 if entries were dropped, a dead\n"
            "writer left blocks reserved, or an entry is corrupt",
            "qel trace stats lines.events"),
        run, without_options<show_stats>);
}

void add_dump(CLI::App& family, Run& run) {
    CLI::App* command = add(family, "dump", "Prints what buffers hold, merged in order of time",
                            "qel trace dump lines.events lines.errors --since 5m");
    auto dump = work_on_buffers<DumpOptions>(command, run, dump_trace);
    command->add_option("--last", dump->options.last, "The last so many entries only; 0 for all")
        ->capture_default_str();
    command
        ->add_option(
            "--since", dump->options.since,
            "Entries from then on: 90s, 5m, 2h or 1d ago, 14:30, \"2026-11-23 14:30:05\" or @SECONDS")
        ->check(refuse_other_times);
}

void add_follow(CLI::App& family, Run& run) {
    CLI::App* command =
        add(family, "follow",
            "Prints what comes into buffers, merged in order of time, until interrupted; tells losses, "
            "and exits\nwith 1 if there were any",
            "qel trace follow lines.events lines.errors --seconds 60");
    auto follow = work_on_buffers<FollowOptions>(command, run, follow_trace);
    command->add_option("--last", follow->options.last, "How many older entries to begin with")
        ->capture_default_str();
    command->add_option("--interval", follow->options.interval, "Seconds between two looks")
        ->check(CLI::Range(0.001, 3600.0))
        ->capture_default_str();
    command->add_option("--count", follow->options.count, "End after so many entries; 0 for never")
        ->capture_default_str();
    command->add_option("--seconds", follow->options.seconds, "End after so many seconds; 0 for never")
        ->check(CLI::Range(0.0, 1e9))
        ->capture_default_str();
}

void add_export(CLI::App& family, Run& run) {
    CLI::App* command =
        add(family, "export", "Writes what buffers hold for another program",
            "qel trace export --chrome events.json lines.events   # open it at ui.perfetto.dev");
    auto exported = work_on_buffers<ExportOptions>(command, run, export_trace);
    command
        ->add_option(
            "--chrome", exported->options.chrome,
            "The file to write, in the trace event format of Chrome and Perfetto; - for standard output")
        ->type_name("FILE")
        ->required();
}

void add_control(CLI::App& family, Run& run) {
    CLI::App* command =
        add(family, "level", "Shows a buffer's level, or sets it, for all its processes at once",
            "qel trace level lines.events debug");
    auto level = std::make_shared<std::pair<std::string, LevelOptions>>();
    command->add_option("NAME", level->first, "The buffer's name, without prefix and \".qdt\"")
        ->type_name(kBuffer)
        ->required();
    command->add_option("LEVEL", level->second.level, "error, warning, info, debug, or 3 to 7")
        ->type_name(kLevel)
        ->check(refuse_other_levels);
    command->callback([&run, level] {
        run.action = [&run, level] { return set_level(run, level->first, level->second); };
    });
    work_on_buffers<NoOptions>(add(family, "clear", "Forgets all entries, and sets the counters to 0",
                                   "qel trace clear lines.events"),
                               run, control_each<qel_dt_buffer_clear>);
    work_on_buffers<NoOptions>(add(family, "pause",
                                   "Makes all writers drop their entries while somebody looks",
                                   "qel trace pause lines.events"),
                               run, control_each<qel_dt_buffer_pause>);
    work_on_buffers<NoOptions>(
        add(family, "resume", "Lets writers write again", "qel trace resume lines.events"), run,
        control_each<qel_dt_buffer_unpause>);
}

}  // namespace

void add_trace(CLI::App& program, Run& run) {
    CLI::App* family = program.add_subcommand("trace", "The trace: buffers that outlive their writers");
    family->footer(kFooter);
    family->require_subcommand(1);
    add_looks(*family, run);
    add_dump(*family, run);
    add_follow(*family, run);
    add_export(*family, run);
    add_control(*family, run);
}

}  // namespace qel_tool
