// The subcommands of "qel ipc" on channels of the living and of the dead, through their output and exit
// codes.
#include "ipc/segment_support.hpp"
#include "tools/tool_support.hpp"

#include <atomic>

namespace qel_test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// A server and a client that hold a message, and send more when they are told to.
QEL_ROLE(tool_channel) {
    Channel channel;
    channel.client.alloc(kLarge);
    say(channel.name);
    while (!hear().empty()) {
        channel.client.send(channel.client.alloc(0));
        channel.server.free(channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST));
        say("sent");
    }
    return 0;
}

class QelIpc : public testing::Test {
  protected:
    void SetUp() override {
        if (getenv("QEL_TOOL") == nullptr) GTEST_SKIP() << "QEL_TOOL doesn't name the tool";
        child_ = std::make_unique<Child>("tool_channel");
        name_ = child_->read_line();
    }
    void TearDown() override {
        child_.reset();
        if (!name_.empty()) qel_ipc_cleanup(name_.c_str());
    }
    void kill_child() {
        Segment block{name_};
        kill_outside_of_locks(*child_, block);
    }
    std::unique_ptr<Child> child_;
    std::string name_;
};

TEST_F(QelIpc, shows_the_living_and_the_dead_alike) {
    std::string pid = std::to_string(child_->pid());
    std::string alive =
        "d[\"channels\"][0][\"end_points\"][1][\"pid\"], d[\"channels\"][0][\"end_points\"][1][\"alive\"], "
        "d[\"channels\"][0][\"out\"], d[\"channels\"][0][\"messages\"], d[\"channels\"][0][\"credits\"]";
    EXPECT_EQ(json("ipc ls", alive), pid + " True 1 64 63\n");
    Result living = qel("ipc show " + name_);
    EXPECT_EQ(living.code, kFine) << living.output;
    EXPECT_THAT(living.output, AllOf(HasSubstr("channel " + name_ + ": active\n"),
                                     HasSubstr("checked: ledger, end points and rings agree\n")));
    kill_child();
    EXPECT_EQ(json("ipc ls", alive), pid + " False 1 64 63\n");
    Result list = qel("ipc ls");
    EXPECT_EQ(list.code, kFine);
    EXPECT_THAT(list.output, HasSubstr(name_ + ": active, 1 of 64 messages out, 63 credits\n"));
    EXPECT_EQ(qel("ipc show " + name_).code, kFine);
    EXPECT_EQ(json("ipc show " + name_, "d[\"settled\"], d[\"findings\"], d[\"rings\"][0][\"free\"]"),
              "True [] 63\n");
}

TEST_F(QelIpc, tells_what_is_wrong) {
    kill_child();
    ASSERT_EQ(Child("dies_with_lock", {name_, std::to_string(kShmMutex)}).wait(), 0);
    Result held = qel("ipc show " + name_);
    EXPECT_EQ(held.code, kFinding);
    EXPECT_THAT(held.output, HasSubstr("FINDING: lock (end point 0): shm_mutex is held by thread "));
    ASSERT_EQ(Child("dies_with_lock", {name_ + ".heap", std::to_string(kHeapLock)}).wait(), 0);
    EXPECT_THAT(qel("ipc show " + name_).output, HasSubstr("heap lock is held by thread "));

    constexpr std::size_t kClientAlloc = 200 + 168 + 128, kProdIdx = 8;
    Segment{name_}.at<std::uint32_t>(kClientAlloc) = 7;
    Segment{name_ + ".0"}.at<std::uint32_t>(kProdIdx) = 1'000'000;
    EXPECT_EQ(qel("ipc show " + name_).code, kFinding);
    EXPECT_EQ(json("ipc show " + name_, "[f[\"part\"] for f in d[\"findings\"]]"),
              "['lock', 'lock', 'ledger', 'ring']\n");
    EXPECT_EQ(qel("ipc ls").code, kFine);
}

TEST_F(QelIpc, sets_levels_and_keeps_the_rest) {
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_AUDIT_LEVEL, name_.c_str(), 0x80), 0u);
    EXPECT_EQ(qel("ipc level " + name_ + " --trace 2 --audit 1").output,
              name_ + ": trace level 2, audit level 1, core dump yes\n");
    EXPECT_EQ(json("ipc level " + name_, "d[\"trace_level\"], d[\"audit_level\"], d[\"core_dump\"]"),
              "2 1 True\n");
}

TEST_F(QelIpc, watches_rates) {
    std::atomic<bool> seen{false};
    std::thread sender([&] {
        while (!seen) {
            child_->write_line("send");
            child_->read_line();
        }
    });
    std::string rates =
        json("ipc watch " + name_ + " --interval 0.2 --count 1",
             "[e[\"sent_per_s\"] > 0 for e in d[\"end_points\"]], d[\"end_points\"][1][\"alloc\"] > 0");
    seen = true;
    sender.join();
    EXPECT_EQ(rates, "[False, True] True\n");
    Result table = qel("ipc watch " + name_ + " --interval 0.01 --count 2");
    EXPECT_EQ(table.code, kFine);
    EXPECT_THAT(table.output, HasSubstr("SENT/s"));
}

TEST_F(QelIpc, exit_codes_tell_usage_from_the_unreadable) {
    EXPECT_EQ(qel("--help").code, kFine);
    EXPECT_THAT(qel("--help").output, HasSubstr("Exit codes"));
    EXPECT_EQ(qel("ipc level --help").code, kFine);
    for (const char* wrong :
         {"", "ipc", "ipc show", "ipc ls what", "ipc level x --trace 4", "ipc watch x --interval 0"})
        EXPECT_EQ(qel(wrong).code, kUsage) << wrong;
    for (std::string command : {"show", "level", "watch"}) {
        EXPECT_EQ(qel("ipc " + command + " nobody").code, kUnreadable);
        EXPECT_EQ(qel("ipc " + command + " " + name_ + ".0").code, kUnreadable);
    }
    EXPECT_EQ(json("ipc show nobody 2>/dev/null", "list(d)"), "['error']\n");
    EXPECT_EQ(shell(std::string{getenv("QEL_TOOL")} + " --root /none. ipc ls").output, "no channels\n");
}

}  // namespace
}  // namespace qel_test
