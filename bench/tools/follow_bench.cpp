// What does `qel trace follow` cost beside two processes that log all the time, and does it tell the truth?
//
// Two writers, a buffer each, log numbered entries at a steady rate. The tool follows both through a pipe,
// and the bench checks every line that comes out of it: the times never go back, and in each buffer the
// entries that came and those that the tool calls lost are together those that were logged. A row is a format
// of the output and a size of the buffers; in those of the last row there is no room for what comes between
// two looks.
//
//     follow_bench [--seconds N] [--rate N]      5 s a row, 100,000 entries/s a writer
//
// Exits with 1 if a row is wrong. Needs no peer; see bench/README.md for the figures.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include <qel/qel.h>

namespace qel_bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::size_t kWriters = 2;
constexpr auto kSettle = 300ms;  // several looks of the tool

struct Plan {
    std::uint32_t seconds = 5;
    std::uint32_t rate = 100'000;
    std::uint32_t entries() const { return seconds * rate; }
};

struct Row {
    const char* format;
    std::uint32_t buffer_size;
    bool losses_expected;
};
constexpr std::array<Row, 3> kRows{
    {{"text", 4 << 20, false}, {"JSON", 4 << 20, false}, {"text", 64 << 10, true}}};

void require(bool fine, const char* what) {
    if (fine) return;
    std::fprintf(stderr, "follow_bench: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

std::string buffer_name(std::size_t writer) {
    return "writer" + std::to_string(writer);
}

// The prefix of all that the bench makes; gone with it.
class Root {
  public:
    Root() : name_("/follow_bench" + std::to_string(getpid()) + ".") {
        require(qel_ppm_set_string("qel.shm.root", name_.c_str()) == 0, "qel.shm.root");
    }
    ~Root() {
        for (const auto& file : std::filesystem::directory_iterator{"/dev/shm"})
            if (("/" + file.path().filename().string()).starts_with(name_))
                std::filesystem::remove(file.path());
    }
    const std::string& name() const { return name_; }

  private:
    std::string name_;
};

class Process {
  public:
    template <class Life>
    explicit Process(Life life) {
        const pid_t parent = getpid();
        pid_ = fork();
        require(pid_ >= 0, "fork");
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::_Exit(getppid() == parent ? life() : 1);
    }
    Process(const Process&) = delete;
    void signal(int number) const { kill(pid_, number); }
    // Processor time in seconds; waits for the end.
    double wait() {
        rusage usage{};
        require(wait4(pid_, &status_, 0, &usage) == pid_, "wait4");
        const auto seconds = [](const timeval& time) {
            return double(time.tv_sec) + double(time.tv_usec) / 1e6;
        };
        return seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    int exit_code() const { return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1; }

  private:
    pid_t pid_;
    int status_ = 0;
};

// Logs in slices of a millisecond, since nobody sleeps for 10 microseconds.
int write_entries(const Plan& plan, std::size_t writer) {
    static std::uint32_t point = QEL_DT_TP_UNREGISTERED;
    qel_dt_buffer_handle buffer = nullptr;
    if (qel_dt_buffer_open(&buffer, buffer_name(writer).c_str()) != 0) return 1;
    const std::uint32_t slice = plan.rate / 1000;
    Clock::time_point due = Clock::now();
    for (std::uint32_t i = 0; i < plan.entries(); ++i) {
        _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &point, "writer %u entry %u of slot %llu",
                               unsigned(writer), i, 0x1234ULL);
        if (i % slice == slice - 1) std::this_thread::sleep_until(due += 1ms);
    }
    return qel_dt_buffer_close(&buffer);
}

// --- What comes out of the tool

struct Seen {
    std::uint32_t entries = 0;
    std::uint32_t lost = 0;
};

class Checker {
  public:
    explicit Checker(bool json) : time_at_(json ? 9 : 0), time_size_(json ? 29 : 26) {}
    void take(std::string_view line) {
        ++lines;
        if (line.find("lost") != line.npos)
            take_loss(line);
        else
            take_entry(line);
    }
    std::array<Seen, kWriters> seen;
    std::uint64_t lines = 0;
    std::uint64_t backwards = 0;  // times before that of the line above
    std::uint64_t strange = 0;    // lines that are no entry, or one of a writer twice or in the wrong order

  private:
    static bool number_behind(std::string_view line, std::string_view word, std::uint32_t& out) {
        const std::size_t at = line.find(word);
        if (at == line.npos) return false;
        const char* digits = line.data() + at + word.size();
        return std::from_chars(digits, line.data() + line.size(), out).ec == std::errc{};
    }
    void take_loss(std::string_view line) {
        std::uint32_t writer = 0, count = 0;
        const bool told = number_behind(line, "\"lost\":", count) || number_behind(line, ".. ", count);
        if (told &&
            number_behind(line, line.find("of writer") != line.npos ? "of writer" : "\"writer", writer) &&
            writer < kWriters)
            seen[writer].lost += count;
        else
            ++strange;
    }
    void take_entry(std::string_view line) {
        const std::string_view time = line.substr(std::min(time_at_, line.size()), time_size_);
        backwards += time < latest_;
        latest_ = time;
        std::uint32_t writer = 0, entry = 0;
        if (!number_behind(line, "writer ", writer) || !number_behind(line, "entry ", entry) ||
            writer >= kWriters || entry < next_[writer]) {
            ++strange;
            return;
        }
        next_[writer] = entry + 1;
        ++seen[writer].entries;
    }

    const std::size_t time_at_;  // where in a line its time stands; as text it sorts like the time
    const std::size_t time_size_;
    std::string latest_;
    std::array<std::uint32_t, kWriters> next_{};
};

// Gives the lines of 'descriptor' until its end.
void read_lines(int descriptor, Checker& checker) {
    std::string rest;
    std::array<char, 65536> part;
    for (ssize_t got = 0; (got = read(descriptor, part.data(), part.size())) > 0;) {
        rest.append(part.data(), static_cast<std::size_t>(got));
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = rest.find('\n', begin)) != rest.npos; begin = end + 1)
            checker.take(std::string_view{rest}.substr(begin, end - begin));
        rest.erase(0, begin);
    }
    checker.strange += !rest.empty();
}

// --- A row

int run_tool(const Root& root, const Row& row, int output) {
    dup2(output, STDOUT_FILENO);
    const std::string first = buffer_name(0), second = buffer_name(1);
    const char* format = row.format == std::string_view{"JSON"} ? "--json" : "--";
    execl(QEL_TOOL, "qel", "--root", root.name().c_str(), "trace", "follow", "--last", "0", format,
          first.c_str(), second.c_str(), nullptr);
    return 127;
}

// Both buffers empty, of the row's size, and open to all levels.
void make_buffers(const Row& row) {
    for (std::size_t writer = 0; writer < kWriters; ++writer) {
        qel_dt_buffer_handle buffer = nullptr;
        require(qel_dt_buffer_init(&buffer, buffer_name(writer).c_str(), 0, row.buffer_size) == 0, "buffer");
        require(qel_dt_buffer_close(&buffer) == 0, "buffer");
    }
}

void destroy_buffers() {
    for (std::size_t writer = 0; writer < kWriters; ++writer) {
        qel_dt_buffer_handle buffer = nullptr;
        if (qel_dt_buffer_open(&buffer, buffer_name(writer).c_str()) == 0) qel_dt_buffer_destroy(&buffer);
    }
}

bool adds_up(const Plan& plan, const Row& row, const Checker& checker) {
    bool fine = checker.backwards == 0 && checker.strange == 0;
    for (const Seen& seen : checker.seen)
        fine &= seen.entries + seen.lost == plan.entries() && (seen.lost != 0) == row.losses_expected;
    return fine;
}

bool run_row(const Root& root, const Plan& plan, const Row& row) {
    make_buffers(row);
    int pipe_ends[2];
    require(pipe2(pipe_ends, O_CLOEXEC) == 0, "pipe");
    Process tool{[&] { return run_tool(root, row, pipe_ends[1]); }};
    close(pipe_ends[1]);
    Checker checker{row.format == std::string_view{"JSON"}};
    std::thread reader{[&] { read_lines(pipe_ends[0], checker); }};
    std::this_thread::sleep_for(kSettle);
    const Clock::time_point begin = Clock::now();
    Process first{[&] { return write_entries(plan, 0); }};
    Process second{[&] { return write_entries(plan, 1); }};
    const double writing = first.wait() + second.wait();
    const std::chrono::duration<double> took = Clock::now() - begin;
    std::this_thread::sleep_for(kSettle);
    tool.signal(SIGTERM);
    const double following = tool.wait();
    reader.join();
    close(pipe_ends[0]);
    destroy_buffers();
    const auto& seen = checker.seen;
    const bool fine = adds_up(plan, row, checker) && tool.exit_code() == (row.losses_expected ? 1 : 0);
    std::printf("| %s | %u KiB | %.0f | %u | %u | %llu | %.1f %% | %.1f %% | %s |\n", row.format,
                row.buffer_size >> 10, 2 * plan.entries() / took.count(), seen[0].entries + seen[1].entries,
                seen[0].lost + seen[1].lost, static_cast<unsigned long long>(checker.backwards),
                100 * following / took.count(), 100 * writing / took.count(), fine ? "yes" : "NO");
    if (!fine)
        std::printf(
            "  strange lines %llu, exit code %d, of %u entries a writer: %u + %u lost, %u + %u lost\n",
            static_cast<unsigned long long>(checker.strange), tool.exit_code(), plan.entries(),
            seen[0].entries, seen[0].lost, seen[1].entries, seen[1].lost);
    std::fflush(stdout);
    return fine;
}

std::uint32_t number_of(const char* text, std::uint32_t least, std::uint32_t most) {
    return static_cast<std::uint32_t>(
        std::clamp<unsigned long>(std::strtoul(text, nullptr, 10), least, most));
}

}  // namespace
}  // namespace qel_bench

int main(int argc, char** argv) {
    using namespace qel_bench;
    Plan plan;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        if (option == "--seconds") plan.seconds = number_of(argv[i + 1], 1, 60);
        if (option == "--rate") plan.rate = number_of(argv[i + 1], 1000, 1'000'000);
    }
    Root root;
    std::printf(
        "| output | buffers | entries/s | printed | told as lost | backwards | tool's processor | writers' | "
        "right |\n|---|---|---|---|---|---|---|---|---|\n");
    std::fflush(stdout);
    bool fine = true;
    for (const Row& row : kRows) fine &= run_row(root, plan, row);
    return fine ? 0 : 1;
}
