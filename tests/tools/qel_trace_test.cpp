// The subcommands of "qel trace" on buffers of the living, of the dead and of the hostile, through their
// output and exit codes.
#include "tools/tool_support.hpp"

#include <qel/dt.h>
#include <qel/dt_buffer.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace qel_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 60;  // each process costs a tenth of a second
#else
constexpr int kKills = 500;
#endif
constexpr std::uint32_t kBufferSize = 64 << 10;
constexpr unsigned kLongest = 180;  // letters in an entry, in up to 4 blocks

qel_dt_buffer_handle buffer_of(const std::string& name) {
    qel_dt_buffer_handle buffer = nullptr;
    EXPECT_EQ(qel_dt_buffer_init(&buffer, name.c_str(), 0, kBufferSize), 0) << name;
    return buffer;
}

// An entry that shows when a part of it is another's: all of it follows from its number.
std::string letters_of(unsigned number) {
    return std::string(number * 7 % kLongest + 1, static_cast<char>('a' + number % 26));
}

void log_entry(qel_dt_buffer_handle buffer, unsigned number) {
    static std::uint32_t point = QEL_DT_TP_UNREGISTERED;
    _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &point, "entry %u %s %u", number,
                           letters_of(number).c_str(), number);
}

bool is_whole(const std::string& line) {
    unsigned number = 0, again = 0;
    char letters[kLongest + 1] = "";
    const std::size_t at = std::min(line.find("entry "), line.size());
    return sscanf(line.c_str() + at, "entry %u %180s %u", &number, letters, &again) == 3 && again == number &&
           letters == letters_of(number);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in{text};
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Logs what it is told to: "BUFFER FROM COUNT", a buffer after the other.
QEL_ROLE(trace_writer) {
    for (std::string order = hear(); !order.empty(); order = hear()) {
        std::istringstream words{order};
        std::string name;
        unsigned from = 0, count = 0;
        words >> name >> from >> count;
        qel_dt_buffer_handle buffer = buffer_of(name);
        for (unsigned number = from; number < from + count; ++number) log_entry(buffer, number);
        qel_dt_buffer_close(&buffer);
        say("logged");
    }
    return 0;
}

QEL_ROLE(endless_writer) {
    qel_dt_buffer_handle buffer = buffer_of(args[0]);
    say("ready");
    for (unsigned number = 0;; ++number) log_entry(buffer, number);
}

class QelTrace : public testing::Test {
  protected:
    void SetUp() override {
        if (getenv("QEL_TOOL") == nullptr) GTEST_SKIP() << "QEL_TOOL doesn't name the tool";
        for (const std::string& object : shm_objects()) std::filesystem::remove(shm_file(object));
        writer_ = std::make_unique<Child>("trace_writer");
    }
    void log(const std::string& order) {
        writer_->write_line(order);
        ASSERT_EQ(writer_->read_line(), "logged");
    }
    std::unique_ptr<Child> writer_;
};

TEST_F(QelTrace, reads_what_the_dead_have_left_in_order_of_time) {
    log("first 0 3"), log("second 100 2"), log("first 3 3");
    const std::string pid = std::to_string(writer_->pid());
    writer_->kill();
    Result all = qel("trace dump second first");
    EXPECT_EQ(all.code, kFine);
    std::vector<std::string> lines = lines_of(all.output);
    ASSERT_EQ(lines.size(), 8u) << all.output;
    EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), is_whole));
    EXPECT_THAT(lines[2], HasSubstr(" " + pid + " first: entry 2 c"));
    EXPECT_THAT(lines[3], HasSubstr(" second: entry 100 "));
    EXPECT_THAT(lines[5], HasSubstr(" first: entry 3 "));

    EXPECT_EQ(qel("trace dump first second --last 3").output,
              lines[5] + "\n" + lines[6] + "\n" + lines[7] + "\n");
    EXPECT_EQ(qel("trace dump first second --since 1h").output, all.output);
    EXPECT_EQ(qel("trace dump first --since @4294967295").output, "");
    EXPECT_EQ(json("trace dump second --last 1", "d[\"buffer\"], d[\"sequence\"], d[\"text\"][:10]"),
              "second 2 entry 101 \n");
    EXPECT_EQ(json("trace list", "[(b[\"name\"], b[\"count\"], b[\"dropped\"], b[\"level_name\"]) "
                                 "for b in d[\"buffers\"] if not b[\"name\"].startswith(\"qel.\")]"),
              "[('first', 6, 0, 'warning'), ('second', 2, 0, 'warning')]\n");
    EXPECT_EQ(json("trace points", "[(p[\"arguments\"], p[\"format\"]) for p in d[\"points\"]]"),
              "[(3, 'entry %u %s %u')]\n");
    std::string check = "import json,sys; e=[x[\"ts\"] for x in json.load(sys.stdin)[\"traceEvents\"] "
                        "if x[\"ph\"]==\"i\"]; print(len(e), e==sorted(e))";
    EXPECT_EQ(shell(tool() + "trace export --chrome - first second | python3 -c '" + check + "'").output,
              "8 True\n");

    std::filesystem::remove(shm_file("qel_trace.tpl"));
    all = qel("trace dump first");
    EXPECT_EQ(all.code, kFinding);
    EXPECT_THAT(lines_of(all.output), testing::Each(HasSubstr("Message lost: ")));
    EXPECT_THAT(qel("trace stats first").output,
                HasSubstr("an entry of trace point 0, which is not in the list"));
}

TEST_F(QelTrace, controls_all_writers_of_a_buffer) {
    log("controlled 0 5");
    EXPECT_EQ(qel("trace pause controlled").output, "controlled: paused, level warning\n");
    log("controlled 5 5");
    EXPECT_EQ(lines_of(qel("trace dump controlled").output).size(), 5u);
    EXPECT_EQ(qel("trace resume controlled").output, "controlled: running, level warning\n");
    EXPECT_EQ(json("trace level controlled debug", "d[\"level\"], d[\"state\"]"), "7 running\n");
    qel_dt_buffer_handle buffer = buffer_of("controlled");
    std::uint32_t level = 0;
    EXPECT_EQ(qel_dt_buffer_get_level(buffer, &level), 0);
    EXPECT_EQ(level, QEL_DT_LEVEL_DEBUG);
    EXPECT_EQ(qel_dt_buffer_close(&buffer), 0);
    log("controlled 10 1");
    EXPECT_EQ(qel("trace clear controlled").code, kFine);
    EXPECT_EQ(qel("trace dump controlled").output, "");
    EXPECT_EQ(json("trace stats controlled", "d[\"count\"], d[\"findings\"]"), "0 []\n");
}

// A follower that ends at a signal, and what it has printed.
class Following {
  public:
    explicit Following(const std::string& arguments)
        : pipe_(popen(("echo $$; exec timeout 60 " + tool() + "trace follow " + arguments).c_str(), "r")),
          pid_(std::stoi(read_line())) {}
    // Empty at the end.
    std::string read_line() {
        char line[512] = "";
        return fgets(line, sizeof line, pipe_) != nullptr ? line : "";
    }
    int end() {
        ::kill(pid_, SIGTERM);
        while (!read_line().empty()) {
        }
        int status = pclose(pipe_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    FILE* pipe_;
    pid_t pid_;
};

TEST_F(QelTrace, follows_two_writers_in_order_and_misses_nothing) {
    Child other{"trace_writer"};
    constexpr unsigned kEach = 200;
    log("left 0 2"), log("right 0 1");
    Following follow{"left right --last 1 --interval 0.01"};
    EXPECT_THAT(follow.read_line(), HasSubstr(" right: entry 0 a 0"));
    for (unsigned from = 2; from < kEach + 2; from += 20) {
        other.write_line("right " + std::to_string(from) + " 20");
        log("left " + std::to_string(from) + " 20");
        EXPECT_EQ(other.read_line(), "logged");
    }
    std::string before;
    for (unsigned i = 0; i < 2 * kEach; ++i) {
        std::string line = follow.read_line();
        ASSERT_TRUE(is_whole(line)) << line;
        EXPECT_LE(before, line.substr(0, 26));
        before = line.substr(0, 26);
    }
    EXPECT_EQ(follow.end(), kFine);
}

TEST_F(QelTrace, follow_tells_what_was_overwritten) {
    constexpr unsigned kBurst = 5000;
    log("burst 0 0"), log("other 0 1");
    Following follow{"burst other --last 1 --interval 0.2"};
    follow.read_line();
    log("burst 0 " + std::to_string(kBurst));
    unsigned printed = 0, lost = 0;
    while (printed + lost < kBurst) {
        std::string line = follow.read_line();
        unsigned told = 0;
        if (sscanf(line.c_str(), ".. %u entries of burst lost ..", &told) == 1)
            lost += told;
        else
            ASSERT_TRUE(is_whole(line)) << line;
        printed += told == 0;
    }
    EXPECT_EQ(printed + lost, kBurst);
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(follow.end(), kFinding);
}

// The blocks that are reserved, read from the segment's control words.
unsigned reserved_blocks(const std::string& name) {
    constexpr std::size_t kBlockCount = 12 + 136, kControl = 12 + 224;
    std::ifstream file{shm_file(name + ".qdt"), std::ios::binary};
    std::string bytes{std::istreambuf_iterator<char>{file}, {}};
    std::uint32_t blocks = 0, reserved = 0;
    memcpy(&blocks, &bytes.at(kBlockCount), sizeof blocks);
    for (std::size_t block = 0; block < blocks; ++block) reserved += bytes.at(kControl + 4 * block + 2) == 1;
    return reserved;
}

TEST_F(QelTrace, no_kill_of_a_writer_tears_a_text) {
    std::mt19937 random{20261123};
    std::uniform_int_distribution<int> microseconds{0, 2000};
    const auto limit = std::chrono::steady_clock::now() + 100s;
    for (int kills = 0; kills < kKills && std::chrono::steady_clock::now() < limit; ++kills) {
        Child writer{"endless_writer", {"torn"}};
        ASSERT_EQ(writer.read_line(), "ready");
        std::this_thread::sleep_for(std::chrono::microseconds{microseconds(random)});
        writer.kill();
        Result dump = shell("timeout 20 " + tool() + "trace dump torn 2>&1");
        ASSERT_EQ(dump.code, kFine) << dump.output;
        for (const std::string& line : lines_of(dump.output)) ASSERT_TRUE(is_whole(line)) << line;
    }
    const unsigned reserved = reserved_blocks("torn");
    EXPECT_GT(reserved, 0u);
    Result stats = qel("trace stats torn");
    EXPECT_EQ(stats.code, kFinding);
    EXPECT_THAT(stats.output, HasSubstr("stays reserved"));
    EXPECT_EQ(json("trace stats torn", "d[\"blocks\"][\"reserved_entries\"]"),
              std::to_string(reserved) + "\n");
}

TEST_F(QelTrace, hostile_bytes_reach_neither_terminal_nor_control_flow) {
    static std::uint32_t point = QEL_DT_TP_UNREGISTERED;
    qel_dt_buffer_handle buffer = buffer_of("hostile");
    _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &point, "\033[2Jstate\r%s", "\x9b\177\xff\n\afake");
    for (const char* command :
         {"trace dump hostile", "trace points", "trace follow hostile --seconds 0.01"}) {
        std::string output = qel(command).output;
        EXPECT_TRUE(std::all_of(output.begin(), output.end(), [](char c) {
            return c == '\n' || (c >= ' ' && c < 0x7f);
        })) << output;
        EXPECT_THAT(output, HasSubstr("?[2Jstate?"));
    }
    EXPECT_EQ(json("trace dump hostile", "d[\"text\"][:4].encode()"), "b'\\x1b[2J'\n");

    constexpr std::streamoff kBlockCount = 12 + 136, kFirstControl = 12 + 224;
    auto scribble = [](std::streamoff at, std::uint32_t word) {
        std::fstream file{shm_file("hostile.qdt"), std::ios::in | std::ios::out | std::ios::binary};
        file.seekp(at).write(reinterpret_cast<const char*>(&word), sizeof word);
    };
    scribble(kFirstControl, 0xff02'0001);  // used, 255 blocks
    Result stats = qel("trace stats hostile");
    EXPECT_EQ(stats.code, kFinding);
    EXPECT_THAT(stats.output, HasSubstr("FINDING: corrupt, block 0: an entry of 255 blocks"));
    scribble(kBlockCount, 0xffffffff);
    for (const char* command : {"stats", "dump", "follow", "level", "clear", "export --chrome -"})
        EXPECT_EQ(qel(std::string{"trace "} + command + " hostile").code, kUnreadable) << command;
    EXPECT_EQ(qel("trace list").code, kFinding);
    EXPECT_EQ(qel_dt_buffer_close(&buffer), 0);
}

TEST_F(QelTrace, exit_codes_and_words_to_complete) {
    log("lines.events 0 1");
    for (const char* wrong : {"trace", "trace dump", "trace dump x --since noon", "trace level x loud",
                              "trace follow x --interval 0", "trace export x"})
        EXPECT_EQ(qel(wrong).code, kUsage) << wrong;
    for (const char* absent : {"dump nobody", "follow lines.events nobody", "stats nobody", "pause nobody",
                               "export --chrome /none/file lines.events"})
        EXPECT_EQ(qel(std::string{"trace "} + absent).code, kUnreadable) << absent;
    EXPECT_FALSE(shm_exists("nobody.qdt"));
    EXPECT_EQ(
        shell("echo kept >kept; " + tool() + "trace export --chrome kept nobody; cat kept; rm kept").output,
        "kept\n");
    auto complete = [](const std::string& words) {
        return lines_of(
            shell(std::string{getenv("QEL_TOOL")} + " complete --root " + shm_root() + " " + words).output);
    };
    EXPECT_THAT(complete("trace dump lin"), ElementsAre("lines.events"));
    EXPECT_THAT(complete("trace re"), ElementsAre("resume"));
    EXPECT_THAT(complete("trace level lines.events de"), ElementsAre("debug"));
    EXPECT_THAT(complete("trace follow --int"), ElementsAre("--interval"));
}

}  // namespace
}  // namespace qel_test
