// Looking at channels by name: of the living, of the dead, of those that somebody scribbled on.
#include "ipc/segment_support.hpp"

#include <random>

namespace qel_test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::uint32_t kName = 163, kRings = 128 + kMessages * 2;

template <class Work>
std::string printed(Work work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

std::string dump(const std::string& name, std::uint32_t level) {
    return printed([&] { EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_DUMP, name.c_str(), level), 0u); });
}

template <class... Values>
std::string text(const char* format, Values... values) {
    char line[400];
    std::snprintf(line, sizeof line, format, values...);
    return line;
}

// A channel whose server and client hold two messages, one inline and one large, and a third one that is not
// sent. Ends by a kill only.
QEL_ROLE(channel) {
    Channel channel;
    void* area = nullptr;
    qel_ipc_msg small = channel.client.alloc(4, &area);
    std::memcpy(area, "abcd", 4);
    qel_ipc_msg large = channel.client.alloc(kLarge, &area);
    std::memset(area, 0x5a, kLarge);
    channel.client.alloc(0);
    channel.client.send(small);
    channel.client.send(large);
    channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
    say(channel.name);
    hear();
    return 0;
}

struct DeadChannel {
    Child child{"channel"};
    pid_t pid = child.pid();
    std::string name = child.read_line();
    DeadChannel() {
        Segment block{name};
        kill_outside_of_locks(child, block);
    }
    ~DeadChannel() { qel_ipc_cleanup(name.c_str()); }
};

TEST(IpcDebug, dump_by_name_shows_a_dead_channel_in_full) {
    DeadChannel dead;
    pid_t pid = dead.pid;
    Segment header{dead.name};
    std::string shown = dump(dead.name, 3);
    std::string general =
        text("\n---  QEL IPC GENERAL INFORNATION\n     max IPC=48\n     ipc in process context size=1568\n"
             "     ipc shm context size=5576\n     ipc qdt buffer trace ID=0x%x\n"
             "     trace level=0 audit level=0 core dump=0\n\n---  QEL IPC POOLS AND FLOW CONTROL\n",
             header.at<std::uint32_t>(196));
    std::string flow =
        "     total_msg=64 ofp_pool=0 hw=44 lw=19\n     prod count=1 quota=64\n"
        "     EP#     PID       ST ALLOC RSRVD RESTR    SENT   RECV     LW    HW MSGINPUT  APPID\n"
        "     OFP             0     0\n";
    auto input = [&](int ep) {
        return header.at<unsigned long long>(200 + 168u * static_cast<unsigned>(ep) + 160);
    };
    flow += text("     0     %-7d     1     0     0     0       0       1     0     0 %7llu        1\n", pid,
                 input(0));
    flow += text("     1     %-7d     1     3    61     0       2       0     0     0 %7llu        2\n", pid,
                 input(1));
    EXPECT_THAT(shown, StartsWith(general + flow));
    std::string rings = shown.substr(std::min(shown.size(), general.size() + flow.size()));
    EXPECT_THAT(rings, StartsWith("\n---  End Point # 0 \n     ring in-process context size=64\n"));
    EXPECT_THAT(rings, HasSubstr("\n---  End Point # 1 \n     F=0 (0), P=0 (0), C=0 (0), R=0\n"));
    EXPECT_THAT(rings, HasSubstr("owner=1, H=10000 S=Consumed T=AsyncReq L=4 61 62 63 64 \n"));
    std::string large = "owner=1, H=20001 S=Produced T=AsyncReq L=6000 ";
    for (int i = 0; i < 16; ++i) large += "5a ";
    EXPECT_THAT(rings, HasSubstr(large + "\n---- FREE messages (oldest to newest)\n"));
}

TEST(IpcDebug, dump_goes_by_locks_that_the_dead_hold) {
    DeadChannel dead;
    Child thief{"dies_with_lock", {dead.name, std::to_string(kFcLock)}};
    auto pid = thief.pid();
    ASSERT_EQ(thief.wait(), 0);
    EXPECT_THAT(dump(dead.name, 0),
                HasSubstr(text("*** fc_lock not got within 2 s, held by thread %d (gone)\n"
                               "     total_msg=64 ",
                               pid)));
}

TEST(IpcDebug, address_of_a_staged_reply_of_others_is_a_number) {
    DeadChannel dead;
    Segment header{dead.name};
    Segment ring{dead.name + ".0"};
    header.at<std::uint32_t>(84) = 0;  // as without a heap
    ring.at<std::uint16_t>(kRings + 14) = 2;
    ring.at<std::uint64_t>(kRings + 32) = 0x10;
    ring.at<std::uint32_t>(kRings + 40) = 8;
    EXPECT_THAT(dump(dead.name, 2), HasSubstr("T=Reply L=4 reply_buf=0x10 \n"));
}

// What comes out is worth nothing; that it comes, and that nothing faults, is the test.
TEST(IpcDebug, dump_of_a_scribbled_channel_returns) {
    DeadChannel dead;
    std::mt19937 random{7};
    for (int round = 0; round < 60; ++round) {
        Segment header{dead.name};
        Segment ring{dead.name + ".0"};
        // Sizes, ledger and end points, but no locks; then the ring's words and its messages.
        for (std::size_t at : {64u, 80u, 84u, 88u, 92u, 148u, 152u, kName - 3u, kName + 5u})
            if (random() % 8 == 0) header.at<std::uint16_t>(at & ~1u) = static_cast<std::uint16_t>(random());
        header.at<std::uint32_t>(200 + 168 * (random() % 32)) = static_cast<std::uint32_t>(random() % 4);
        for (std::size_t at : {8u, 12u, 16u, 20u, 64u, 68u, 72u})
            if (random() % 3 == 0) ring.at<std::uint32_t>(at) = static_cast<std::uint32_t>(random() % 100);
        for (int i = 0; i < 200; ++i)
            ring.at<std::uint32_t>(128 + random() % ((ring.info.size - 132) / 4) * 4) =
                static_cast<std::uint32_t>(random());
        EXPECT_THAT(dump(dead.name, 3), HasSubstr("QEL IPC POOLS AND FLOW CONTROL"));
        header.at<std::uint16_t>(92) = kMessages;
        header.at<std::uint32_t>(80) = kInline;
        std::memcpy(&header.at<char>(kName), dead.name.c_str(), dead.name.size() + 1);
    }
}

TEST(IpcDebug, commands_refuse_what_is_no_channel_and_set_levels_for_all) {
    EXPECT_EQ(qel_ipc_debug(5, "nobody", 0), 0xa000005fu);
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_DUMP, "nobody", 0), 0xa0000002u);
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_DUMP, nullptr, 0), kInvalid);
    Segment other{"other", 5576};
    other.at<std::uint32_t>(0) = 0xdecade00;
    EXPECT_EQ(printed([] { EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_TRACE_LEVEL, "other", 1), kInvalid); }),
              "Invalid magic number = decade00\n");
    EXPECT_EQ(qel_shm_unlink("other"), 0);

    DeadChannel dead;
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_TRACE_LEVEL, dead.name.c_str(), 7), 0u);
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_AUDIT_LEVEL, dead.name.c_str(), 0x82), 0u);
    EXPECT_THAT(dump(dead.name, 0), HasSubstr("     trace level=3 audit level=2 core dump=1\n"));
}

TEST(IpcDebug, own_statistics_and_dump) {
    Channel channel;
    qel_ipc_stats stats{};
    EXPECT_EQ(qel_ipc_get_stats(channel.client.ipc, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_get_stats(channel.client.ipc + 1, &stats), kInvalid);
    channel.client.send(channel.client.alloc(0));
    channel.server.free(channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST));
    qel_ipc_msg held = channel.client.alloc(0);
    ASSERT_EQ(qel_ipc_get_stats(channel.client.ipc, &stats), 0u);
    EXPECT_EQ(stats.total_msg, kMessages);
    EXPECT_EQ(stats.prod_count, 1);
    EXPECT_EQ(stats.alloc, 1u);
    EXPECT_EQ(stats.alloc + stats.reserved_credits + stats.ofp_quota - stats.ofp_used, stats.total_msg);
    EXPECT_EQ(stats.sent, 1u);
    EXPECT_EQ(stats.received, 0u);
    channel.client.free(held);

    std::string own = printed([&] { qel_ipc_dump(channel.client.ipc, 1); });
    EXPECT_THAT(own, StartsWith("\n--- QEL IPC POOLS AND FLOW CONTROL ---\n     total_msg=64 "));
    EXPECT_THAT(own, HasSubstr("\n---  End Point # 1 \n"));
    EXPECT_EQ(printed([] { qel_ipc_dump(77, 1); }), "");
    channel.client.close();
    // No producers are left, once the server knows.
    EXPECT_TRUE(
        eventually([&] { return dump(channel.name, 0).ends_with("     OFP             0    64\n"); }));
    qel_ipc_ctx* locked = qel_lock_ipc_from_handle(channel.server.ipc);
    ASSERT_NE(locked, nullptr);
    EXPECT_THAT(printed([&] { qel_ipc_fc_dump("after", locked); }),
                StartsWith(">>> [EP#0] after\n     total_msg=64 "));
    qel_ipc_unlock(locked);
}

TEST(IpcDebug, buffers_are_shown_as_picked_and_reset) {
    Channel channel;
    EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_TRACE_LEVEL, channel.name.c_str(), 1), 0u);
    channel.client.free(channel.client.alloc(0));
    qel_ipc_stats stats;
    EXPECT_EQ(qel_ipc_get_stats(77, &stats), kInvalid);
    auto show = [](std::uint32_t which) {
        return printed([&] { EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_SHOW_TRACE, nullptr, which), 0u); });
    };
    std::string errors = show(1);
    EXPECT_THAT(errors, StartsWith("\n--- QEL IPC ERRORS ---\n["));
    EXPECT_THAT(errors, HasSubstr(text("] pid: %d ERROR: qel_ipc_get_stats: ", getpid())));
    EXPECT_THAT(errors, HasSubstr(" entries printed\n"));
    EXPECT_THAT(errors, Not(HasSubstr("TRACES")));
    std::string traces = show(2);
    EXPECT_THAT(traces, StartsWith("\n--- QEL IPC TRACES ---\n["));
    EXPECT_THAT(traces, HasSubstr(text("] pid: %d [", getpid())));
    EXPECT_THAT(traces, HasSubstr(":1] qel_ipc_msg_alloc L=0 msgh=0x"));
    EXPECT_EQ(show(0), errors + traces);

    EXPECT_EQ(printed([] { EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_RESET_TRACE, nullptr, 0), 0u); }),
              "---  Resetting errors trace buffer ---\n---  Resetting traces trace buffer ---\n");
    EXPECT_FALSE(shm_exists("qel_ipc_traces.qdt"));
    EXPECT_EQ(printed([] { EXPECT_EQ(qel_ipc_debug(QEL_IPC_DEBUG_SHOW_TRACE, nullptr, 2), 0xa0000002u); }),
              "\n--- QEL IPC TRACES ---\n");
}

}  // namespace
}  // namespace qel_test
