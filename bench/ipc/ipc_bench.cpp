// What does a message between processes cost, beside the peers that carry messages today?
//
// Each contest (a pattern, a size, a number of clients, one core or two) has all transports' processes at
// once, all but one transport's asleep: a batch of ours, a batch of the next, and so on, round after round,
// so that all see the same machine. The table gives for each the median and the 99th percentile of its round
// trips, or the messages a second of its median batch, the fastest batch, and ours : its as ratios of time
// (below 1 we are faster); then what a message costs in sleeps (voluntary context switches, each of which
// wants a wake-up), other context switches, system calls and processor time, all processes together.
//
//     ipc_bench [--quick] [--contest WORD] [--transport WORD]      only those whose title or name holds WORD
//
// A process of its own, the keeper, does nothing but wait for the run's end and remove what it has left in
// the system, however it ended: everything bears the keeper's number in its name.
#include <fmt/core.h>
#include <sys/prctl.h>

#include <array>
#include <filesystem>
#include <numeric>
#include <string_view>

#include "ipc/bare_ring.hpp"
#include "ipc/boost_mq.hpp"
#include "ipc/channel.hpp"
#include "ipc/libqb.hpp"
#include "ipc/nng.hpp"
#include "ipc/posix_mq.hpp"
#include "ipc/seqpacket.hpp"
#include "ipc/session.hpp"
#include "ipc/zeromq.hpp"

namespace qel_bench {
namespace {

namespace fs = std::filesystem;

struct Plan {
    std::string name;  // of everything that the run makes in the system
    std::size_t batches = 9;
    std::int64_t batch_ns = 50'000'000;
    std::string_view contest;
    std::string_view transport;
};

struct Contest {
    Pattern pattern;
    std::size_t size;
    unsigned clients;
    bool one_core;
    std::string title() const {
        constexpr std::array kPatterns{"round trip through handlers", "round trip, both sides polling",
                                       "one way"};
        std::string bytes = size < 1'024 ? fmt::format("{} B", size) : fmt::format("{} KiB", size / 1'024);
        return fmt::format("{}, {}, {}, {}", kPatterns[static_cast<std::size_t>(pattern)], bytes,
                           clients == 1 ? "1 client" : fmt::format("{} clients", clients),
                           one_core ? "one core" : "two cores");
    }
    // Do single round trips say something, or only the rate of all?
    bool has_laps() const { return pattern != Pattern::one_way && clients == 1; }
};

// --- One transport's part in a contest

struct Entrant {
    std::unique_ptr<AnySession> session;
    std::uint64_t count = 0;      // messages of a client in a batch
    std::vector<double> batches;  // nanoseconds a message
    std::vector<std::uint32_t> laps;
    Spent spent;
    double messages = 0;
    double system_calls = -1;  // a message
    bool failed = false;
    double fastest() const { return *std::ranges::min_element(batches); }
};

double percentile(auto values, double share) {
    if (values.empty()) return 0;
    auto place = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::ranges::nth_element(values, place);
    return static_cast<double>(*place);
}

// Finds how many messages fill a batch; what runs until then warms up.
void calibrate(Entrant& entrant, std::int64_t batch_ns) {
    entrant.count = 16;
    for (std::uint64_t tried = 0; tried < 12; ++tried) {
        std::optional<Batch> batch = entrant.session->run(entrant.count, 0);
        if (!batch) {
            entrant.failed = true;
            return;
        }
        double grow = static_cast<double>(batch_ns) /
                      static_cast<double>(std::max<std::int64_t>(batch->nanoseconds, 1));
        bool enough = grow < 4;
        entrant.count = std::max<std::uint64_t>(
            16, static_cast<std::uint64_t>(static_cast<double>(entrant.count) * std::min(grow, 8.0)));
        if (enough) return;
    }
}

void measure(Entrant& entrant, const Contest& contest) {
    std::optional<Batch> batch = entrant.session->run(entrant.count, 0);
    if (!batch) {
        entrant.failed = true;
        return;
    }
    double messages = static_cast<double>(entrant.count * contest.clients);
    entrant.batches.push_back(static_cast<double>(batch->nanoseconds) / messages);
    entrant.spent.add(batch->spent);
    entrant.messages += messages;
    if (!contest.has_laps()) return;
    auto laps = entrant.session->laps(entrant.count);
    entrant.laps.insert(entrant.laps.end(), laps.begin(), laps.end());
}

void count_system_calls(Entrant& entrant, const Contest& contest, std::uint64_t tracepoint) {
    if (tracepoint == 0) return;
    std::uint64_t count = std::max<std::uint64_t>(16, entrant.count / 4);
    if (std::optional<Batch> batch = entrant.session->run(count, tracepoint))
        entrant.system_calls =
            static_cast<double>(batch->spent.system_calls) / static_cast<double>(count * contest.clients);
}

std::string times(const Entrant& entrant, const Entrant& ours) {
    double median = percentile(entrant.laps, 0.5);
    double p99 = percentile(entrant.laps, 0.99);
    return fmt::format("{:.2f} | {:.2f} | {:.2f} | {:.2f} | {:.2f} | {:.2f}", median / 1e3, p99 / 1e3,
                       entrant.fastest() / 1e3, percentile(ours.laps, 0.5) / median,
                       percentile(ours.laps, 0.99) / p99, ours.fastest() / entrant.fastest());
}

std::string rates(const Entrant& entrant, const Entrant& ours, std::size_t size) {
    double median = percentile(entrant.batches, 0.5);
    return fmt::format("{:.0f} | {:.1f} | {:.0f} | {:.2f} | {:.2f}", 1e9 / median,
                       1e9 / median * static_cast<double>(size) / 1'048'576, 1e9 / entrant.fastest(),
                       percentile(ours.batches, 0.5) / median, ours.fastest() / entrant.fastest());
}

// --- A contest

class Arena {
  public:
    explicit Arena(const Plan& plan) : plan_(plan), tracepoint_(system_call_tracepoint()) {}

    template <Transport... T>
    void hold(const Contest& contest) {
        if (contest.title().find(plan_.contest) == std::string::npos) return;
        entrants_.clear();
        (enter<T>(contest), ...);
        for (Entrant& entrant : entrants_) {
            entrant.failed = !entrant.session->start();
            if (!entrant.failed) calibrate(entrant, plan_.batch_ns);
        }
        for (std::size_t round = 0; round < plan_.batches; ++round)
            for (Entrant& entrant : entrants_)
                if (!entrant.failed) measure(entrant, contest);
        for (Entrant& entrant : entrants_)
            if (!entrant.failed) count_system_calls(entrant, contest, tracepoint_);
        print(contest);
        entrants_.clear();
    }
    bool all_well() const { return failures_ == 0; }

  private:
    template <Transport T>
    void enter(const Contest& contest) {
        Site site{fmt::format("{}.{}", plan_.name, made_++), contest.pattern, contest.size, contest.clients,
                  contest.one_core};
        if (std::string_view{T::kName}.find(plan_.transport) == std::string_view::npos ||
            !T::takes_part(site))
            return;
        entrants_.push_back({.session = std::make_unique<Session<T>>(site)});
    }
    void print(const Contest& contest);
    void print(const Contest& contest, const Entrant& entrant, const Entrant& ours);

    const Plan& plan_;
    std::uint64_t tracepoint_;
    std::vector<Entrant> entrants_;
    unsigned made_ = 0;
    unsigned failures_ = 0;
};

void Arena::print(const Contest& contest) {
    if (entrants_.empty()) return;
    constexpr const char* kTimes = "median, us | p99, us | fastest, us | ratio | ratio, p99 | ratio, fastest";
    constexpr const char* kRates = "messages/s | MiB/s | fastest, messages/s | ratio | ratio, fastest";
    fmt::print("\n{}\n\n| Transport | {} | sleeps | forced | system calls | processor, us |\n|{}\n",
               contest.title(), contest.has_laps() ? kTimes : kRates,
               contest.has_laps() ? "---|---|---|---|---|---|---|---|---|---|---|"
                                  : "---|---|---|---|---|---|---|---|---|---|");
    for (const Entrant& entrant : entrants_) print(contest, entrant, entrants_.front());
    std::fflush(stdout);
}

void Arena::print(const Contest& contest, const Entrant& entrant, const Entrant& ours) {
    if (entrant.failed || ours.failed) {
        failures_ += entrant.failed ? 1 : 0;
        fmt::print("| {} | {} |\n", entrant.session->name(), entrant.failed ? "failed" : "not compared");
        return;
    }
    fmt::print("| {} | {}", entrant.session->name(),
               contest.has_laps() ? times(entrant, ours) : rates(entrant, ours, contest.size));
    fmt::print(" | {:.2f} | {:.2f} | {} | {:.2f} |\n",
               static_cast<double>(entrant.spent.waits) / entrant.messages,
               static_cast<double>(entrant.spent.forced) / entrant.messages,
               entrant.system_calls < 0 ? "?" : fmt::format("{:.2f}", entrant.system_calls),
               static_cast<double>(entrant.spent.processor_ns) / entrant.messages / 1e3);
}

// --- The run and its keeper

constexpr std::array<std::size_t, 3> kSizes{64, 1'024, 65'536};

int run(const Plan& plan) {
    Arena arena{plan};
    struct Kind {
        Pattern pattern;
        unsigned clients;
    };
    constexpr std::array kKinds{Kind{Pattern::round_trip, 1}, Kind{Pattern::polled, 1},
                                Kind{Pattern::one_way, 1}, Kind{Pattern::round_trip, 8},
                                Kind{Pattern::one_way, 8}};
    for (const Kind& kind : kKinds)
        for (std::size_t size : kSizes)
            for (bool one_core : {false, true})
                arena.hold<Channel, Libqb, Nng, ZeroMq, BoostMq, PosixMq, Seqpacket, BareRing>(
                    {kind.pattern, size, kind.clients, one_core});
    return arena.all_well() ? 0 : 1;
}

// libqb gives its directories names without the service's, but the files in them bear it.
bool holds_file_of(const fs::path& directory, const std::string& name) {
    std::error_code ignored;
    for (const auto& file : fs::directory_iterator{directory, ignored})
        if (file.path().filename().string().find(name) != std::string::npos) return true;
    return false;
}

void remove_all_of(const std::string& name) {
    std::error_code ignored;
    for (const char* place : {"/dev/shm", "/tmp"})
        for (const auto& entry : fs::directory_iterator{place, ignored}) {
            const std::string file = entry.path().filename();
            if (file.starts_with(name + ".") ||
                (file.starts_with("qb-") && holds_file_of(entry.path(), name)))
                fs::remove_all(entry.path(), ignored);
        }
}

// Waits for the run, whose processes all come to the keeper when their parent dies, and passes its result on.
int keep(pid_t run) {
    int result = 1;
    int status = 0;
    for (pid_t gone = 0; (gone = waitpid(-1, &status, 0)) > 0 || errno == EINTR;)
        if (gone == run) result = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    return result;
}

Plan plan_from(std::span<char*> arguments) {
    Plan plan{.name = fmt::format("qel_bench.{}", getpid())};
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        std::string_view word = arguments[i];
        if (word == "--quick") {
            plan.batches = 3;
            plan.batch_ns = 12'000'000;
        } else if (word == "--contest" && i + 1 < arguments.size()) {
            plan.contest = arguments[++i];
        } else if (word == "--transport" && i + 1 < arguments.size()) {
            plan.transport = arguments[++i];
        } else {
            fmt::print(stderr, "usage: ipc_bench [--quick] [--contest WORD] [--transport WORD]\n");
            std::exit(2);
        }
    }
    return plan;
}

}  // namespace
}  // namespace qel_bench

int main(int argc, char** argv) {
    using namespace qel_bench;
    const Plan plan = plan_from({argv, static_cast<std::size_t>(argc)});
    const pid_t keeper = getpid();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    static pid_t runner = fork();
    if (runner == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        return getppid() == keeper ? run(plan) : 1;
    }
    // An interrupted run ends, and the keeper stays to clean up.
    for (int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, [](int) { kill(runner, SIGKILL); });
    const int result = keep(runner);
    remove_all_of(plan.name);
    return result;
}
