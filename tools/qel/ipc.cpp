// qel ipc: the subcommands for channels.
#include <qel/cerrno.h>
#include <qel/ipc_debug.h>

#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "ipc_channel.hpp"

namespace qel_tool {
namespace {

using Clock = std::chrono::steady_clock;

// --- ls

Exit list_channels(const Run& run) {
    std::vector<Json> channels;
    qel::ChannelLook look;
    for (const std::string& name : find_channels(run.root))
        if (look.read_header(name.c_str()) == 0) channels.push_back(describe_channel(name, look));
    if (run.json)
        print_json({{"channels", channels}});
    else
        print_list(channels);
    return Exit::fine;
}

// --- show

// Counts and states of a process in the middle of a step disagree for a moment. What is wrong stays so.
constexpr int kLooks = 5;
constexpr std::chrono::milliseconds kBetweenLooks{20};

Exit show_channel(const Run& run, const std::string& name) {
    Json channel;
    for (int looks = 0; looks < kLooks; ++looks) {
        if (looks > 0) std::this_thread::sleep_for(kBetweenLooks);
        qel::ChannelLook look;
        look_at(name, look);
        channel = describe_in_full(name, look);
        if (channel["findings"].empty()) break;
    }
    if (run.json)
        print_json(channel);
    else
        print_channel(channel);
    return channel["findings"].empty() ? Exit::fine : Exit::finding;
}

// --- level

struct Levels {
    std::optional<std::uint32_t> trace;
    std::optional<std::uint32_t> audit;
};

void set_level(const std::string& name, std::uint32_t command, std::uint32_t argument) {
    if (cerrno error = qel_ipc_debug(command, name.c_str(), argument); error != 0)
        throw Unreadable{fmt::format("channel \"{}\": {}", printable(name), cerr_strerror(error))};
}

Exit set_levels(const Run& run, const std::string& name, const Levels& levels) {
    qel::ChannelLook look;
    look_at_header(name, look);
    constexpr std::uint32_t kCoreDump = 0x80;  // It goes with the audit level and stays as it is.
    if (levels.trace) set_level(name, QEL_IPC_DEBUG_TRACE_LEVEL, *levels.trace);
    if (levels.audit)
        set_level(name, QEL_IPC_DEBUG_AUDIT_LEVEL,
                  *levels.audit | (look.header().core_dump != 0 ? kCoreDump : 0));
    look_at_header(name, look);
    const qel::IpcHeader& now = look.header();
    if (run.json)
        print_json({{"name", name},
                    {"trace_level", now.trace_level},
                    {"audit_level", now.audit_level},
                    {"core_dump", now.core_dump != 0}});
    else
        fmt::print("{}: trace level {}, audit level {}, core dump {}\n", printable(name), now.trace_level,
                   now.audit_level, now.core_dump != 0 ? "yes" : "no");
    return Exit::fine;
}

// --- watch

struct Sample {
    Clock::time_point time;
    qel::HeaderCopy header;
};

Sample take_sample(const std::string& name) {
    qel::ChannelLook look;
    look_at_header(name, look);
    return {Clock::now(), look.header_copy()};
}

// Counters start anew with a new owner of the record; that interval shows none.
double rate(std::uint64_t before, std::uint64_t now, double seconds) {
    return now < before ? 0 : static_cast<double>(now - before) / seconds;
}

Json describe_rates(const Sample& before, const Sample& now) {
    double seconds = std::chrono::duration<double>(now.time - before.time).count();
    Json rates = Json::array();
    for (std::uint32_t ep = 0; ep < qel::kMaxEndPoints; ++ep) {
        const qel::EndPointRecord& old = before.header->eps[ep];
        const qel::EndPointRecord& record = now.header->eps[ep];
        if (record.ep_state == qel::EndPointState::free) continue;
        double alloc = (static_cast<double>(record.alloc) - static_cast<double>(old.alloc)) / seconds;
        rates.push_back({{"ep", ep},
                         {"pid", record.pid},
                         {"alive", qel::is_alive(record.pid)},
                         {"sent_per_s", rate(old.sent, record.sent, seconds)},
                         {"received_per_s", rate(old.received, record.received, seconds)},
                         {"alloc_per_s", alloc},
                         {"alloc", record.alloc}});
    }
    return rates;
}

void print_rates(const Json& rates) {
    fmt::print("{:>3} {:>8} {:>6} {:>12} {:>12} {:>12} {:>8}\n", "EP", "PID", "ALIVE", "SENT/s", "RECEIVED/s",
               "OUT/s", "OUT");
    for (const Json& ep : rates)
        fmt::print("{:>3} {:>8} {:>6} {:>12.0f} {:>12.0f} {:>+12.0f} {:>8}\n", ep["ep"].get<std::uint32_t>(),
                   ep["pid"].get<std::uint32_t>(), ep["alive"].get<bool>() ? "yes" : "no",
                   ep["sent_per_s"].get<double>(), ep["received_per_s"].get<double>(),
                   ep["alloc_per_s"].get<double>(), ep["alloc"].get<std::uint32_t>());
}

struct WatchOptions {
    double interval = 1;
    std::uint64_t count = 0;
};

Exit watch_channel(const Run& run, const std::string& name, const WatchOptions& options) {
    Sample before = take_sample(name);
    for (std::uint64_t shown = 0; options.count == 0 || shown < options.count; ++shown) {
        std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
        Sample now = take_sample(name);
        Json rates = describe_rates(before, now);
        if (run.json)
            print_json({{"name", name}, {"end_points", rates}});
        else
            print_rates(rates);
        std::fflush(stdout);
        before = now;
    }
    return Exit::fine;
}

// --- The subcommands

// Options of one subcommand, which live as long as the program's record of it.
template <class Options>
struct OnChannel {
    std::string name;
    Options options;
};

template <class Options>
std::shared_ptr<OnChannel<Options>>
add_on_channel(CLI::App& family, Run& run, const char* name, const char* about, CLI::App*& command,
               Exit (*work)(const Run&, const std::string&, const Options&)) {
    auto given = std::make_shared<OnChannel<Options>>();
    command = family.add_subcommand(name, about);
    command->add_option("NAME", given->name, "The channel's name, without the prefix")
        ->type_name(kChannel)
        ->required();
    command->callback([&run, given, work] {
        run.action = [&run, given, work] { return work(run, given->name, given->options); };
    });
    return given;
}

struct NoOptions {};
Exit show(const Run& run, const std::string& name, const NoOptions&) {
    return show_channel(run, name);
}

}  // namespace

void add_ipc(CLI::App& program, Run& run) {
    CLI::App* family = program.add_subcommand("ipc", "Messaging: named channels between processes");
    family->require_subcommand(1);
    family
        ->add_subcommand("ls",
                         "Lists the channels: state, end points with their processes, messages, credits")
        ->callback([&run] { run.action = [&run] { return list_channels(run); }; });
    CLI::App* command = nullptr;
    add_on_channel<NoOptions>(*family, run, "show",
                              "Shows a channel in full and checks its ledger, end points, rings and locks;\n"
                              "exits with 1 if something is wrong",
                              command, show);
    auto levels = add_on_channel<Levels>(
        *family, run, "level", "Shows a channel's levels, or sets those given, for all its processes at once",
        command, set_levels);
    command
        ->add_option("--trace", levels->options.trace,
                     "0 none; 1 sending, receiving, allocating; 2 also signals; 3 also entries of allocation")
        ->check(CLI::Range(0u, 3u));
    command
        ->add_option("--audit", levels->options.audit,
                     "0 off; above that the ledger is checked at each change")
        ->check(CLI::Range(0u, 3u));
    auto watch = add_on_channel<WatchOptions>(
        *family, run, "watch", "Prints rates a second of each end point, until interrupted or --count times",
        command, watch_channel);
    command->add_option("--interval", watch->options.interval, "Seconds between two looks")
        ->check(CLI::Range(0.01, 86400.0))
        ->capture_default_str();
    command->add_option("--count", watch->options.count, "How often to print; 0 for without end")
        ->capture_default_str();
}

}  // namespace qel_tool
