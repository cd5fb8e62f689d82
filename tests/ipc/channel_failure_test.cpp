// Opening and closing without memory: each allocation fails in turn, and nothing is left of the attempt.
#include "ipc/ipc_support.hpp"
#include "support/failing.hpp"

#include "ipc/qel_ipc.hpp"

#include <signal.h>
#include <sys/resource.h>

using namespace qel_test;

namespace {

constexpr std::uint32_t kClient = QEL_IPC_ROLE_CLIENT, kServer = QEL_IPC_ROLE_SERVER;

void ignore(qel_ipc_handle, std::uint32_t, void*) {}

// Opens and closes; null if it opened, else what is wrong with the channel that stays.
cerrno open_and_close(const qel_ipc_attr& attr, qel_dm_handle dm) {
    qel_ipc_handle ipc = 77;
    cerrno error = qel_ipc_open(&ipc, "scarce", &attr, dm, ignore, nullptr);
    EXPECT_EQ(ipc != 0, error == 0);
    if (error == 0) {
        EXPECT_EQ(qel_ipc_close(&ipc), 0u);
    }
    return error;
}

TEST(ChannelFailure, an_open_without_memory_leaves_nothing_behind) {
    ServedDispatcher dispatcher;
    ASSERT_EQ(open_and_close(channel_attr(kServer, 1), dispatcher.handle()), 0u);  // what is made once
    int threads = thread_count(), mappings = mapping_count("scarce"), refused = 0;
    auto attempt_as = [&](std::uint32_t role) {
        return fail_each_allocation([&] {
            cerrno error = open_and_close(channel_attr(role, 2), dispatcher.handle());
            refused += error != 0;
            // A server that failed late has left a channel behind, as one that dies does.
            if (error != 0 && role == kServer) static_cast<void>(qel_ipc_cleanup("scarce"));
        });
    };
    EXPECT_GT(attempt_as(kServer), 3);
    EXPECT_GT(refused, 3);
    EXPECT_FALSE(shm_exists("scarce") || shm_exists("scarce.0") || shm_exists("scarce.heap"));

    Participant server{"scarce", channel_attr(kServer, 1)};
    ASSERT_EQ(server.open(), 0u);
    EXPECT_GT(attempt_as(kClient), 3);
    ASSERT_EQ(open_and_close(channel_attr(kClient, 2), dispatcher.handle()), 0u);
    qel_ipc_ctx* ctx = qel_lock_ipc_from_handle(server.ipc);
    ASSERT_NE(ctx, nullptr);
    EXPECT_STREQ(qel::end_points_check(*ctx->hdr), nullptr);
    EXPECT_STREQ(qel::ledger_check(*ctx->hdr), nullptr);
    qel_ipc_unlock(ctx);
    EXPECT_EQ(server.close(), 0u);
    EXPECT_EQ(thread_count(), threads + 1);  // the second dispatcher's
    EXPECT_EQ(mapping_count("scarce"), mappings);
}

// The heap is over the limit for a file, so each open of the server fails after it has made the channel.
TEST(ChannelFailure, who_joins_a_channel_that_could_not_be_made_is_not_forgotten) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit whole{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &whole), 0);
    const rlimit small{0x8000, whole.rlim_max};
    for (int round = 0; round < 20 && !HasFailure(); ++round) {
        Participant server{"unmade", channel_attr(kServer, 1)}, client{"unmade", channel_attr(kClient, 2)};
        std::atomic<bool> joined{false};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
        std::thread joiner{[&] { joined = eventually([&] { return client.open() == 0; }); }};
        EXPECT_TRUE(eventually([&] { return server.open() != 0 && joined; }));
        joiner.join();
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &whole), 0);
        EXPECT_EQ(server.open(), 0u);
        EXPECT_TRUE(client.told(QEL_IPC_EVENT_READY));
    }
}

}  // namespace
