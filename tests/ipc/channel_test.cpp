// Channels from opening to removal: who may open, who is told what, and what a death leaves to whom.
#include <climits>

#include "ipc/segment_support.hpp"

using namespace qel_test;

QEL_IPC_PEER_ROLE

// Opens as many times as told, taking whatever an opening race gives; the code is how often that failed
// oddly.
QEL_ROLE(racer) {
    int odd = 0;
    auto role = static_cast<std::uint32_t>(std::stoul(args.at(1)));
    Participant one{args.at(0), channel_attr(role, std::stoull(args.at(2)))};
    say("here");
    hear();
    bool open = eventually([&] {
        cerrno error = one.open();
        odd += error != 0 && error != kInvalid;
        return error == 0;
    });
    bool ready = open && one.told(QEL_IPC_EVENT_READY);
    say(ready ? "ready" : "not ready");
    hear();
    return odd;
}

namespace {

constexpr std::uint32_t kClient = QEL_IPC_ROLE_CLIENT, kServer = QEL_IPC_ROLE_SERVER;

Connection up(std::uint64_t app_id) {
    return {QEL_IPC_EP_UP, app_id, 0};
}
Connection gone(std::uint64_t app_id) {
    return {QEL_IPC_EP_GONE, app_id, 0};
}

void ignore(qel_ipc_handle, std::uint32_t, void*) {}

TEST(Channel, open_refuses_what_no_channel_can_be) {
    ServedDispatcher dispatcher;
    struct Case {
        void (*change)(qel_ipc_attr& attr);
        bool server_only;
    };
    const Case kCases[] = {
        {[](qel_ipc_attr& attr) { attr.msg_mode = 0; }, false},
        {[](qel_ipc_attr& attr) { attr.msg_mode = 4; }, false},
        {[](qel_ipc_attr& attr) { attr.attr_kind = 3; }, false},
        {[](qel_ipc_attr& attr) { attr.close_flags = 2; }, false},
        {[](qel_ipc_attr& attr) { attr.large_data_size = 0x4000001; }, true},
        {[](qel_ipc_attr& attr) { attr.max_msg_count = 65536; }, true},
        {[](qel_ipc_attr& attr) { attr.max_msg_size = 4097; }, true},
        {[](qel_ipc_attr& attr) { attr.max_msg_count = 7; }, true},
        {[](qel_ipc_attr& attr) { attr.overflow_count = 7; }, true},
        {[](qel_ipc_attr& attr) { attr.low_water_percent = 70; }, true},
        {[](qel_ipc_attr& attr) { attr.high_water_percent = 101; }, true},
        {[](qel_ipc_attr& attr) { attr.max_clients = 32; }, true},
        {[](qel_ipc_attr& attr) { attr.overflow_count = 57; }, true},
    };
    for (const Case& each : kCases)
        for (std::uint32_t role : {kClient, kServer}) {
            qel_ipc_attr attr = channel_attr(role, 1);
            each.change(attr);
            qel_ipc_handle ipc = 77;
            bool refused = !each.server_only || role == kServer;
            EXPECT_EQ(qel_ipc_open(&ipc, "refused", &attr, dispatcher.handle(), ignore, nullptr),
                      refused ? kInvalid : 0u)
                << &each - kCases;
            EXPECT_EQ(ipc == 0, refused);
            static_cast<void>(qel_ipc_close(&ipc));
        }
    qel_ipc_attr attr = channel_attr(kServer, 1);
    qel_ipc_handle ipc = 77;
    for (const char* name : {static_cast<const char*>(nullptr), "", "a name of thirty-three characters"})
        EXPECT_EQ(qel_ipc_open(&ipc, name, &attr, dispatcher.handle(), ignore, nullptr), kInvalid);
    EXPECT_EQ(ipc, 0u);
    EXPECT_EQ(qel_ipc_open(nullptr, "n", &attr, dispatcher.handle(), ignore, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_open(&ipc, "n", nullptr, dispatcher.handle(), ignore, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_open(&ipc, "n", &attr, dispatcher.handle(), nullptr, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_open(&ipc, "n", &attr, 0, ignore, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_close(nullptr), static_cast<cerrno>(EINVAL));
    EXPECT_EQ(qel_ipc_close(&ipc), kInvalid);
    EXPECT_TRUE(qel_ipc_cleanup("refused") == 0 && qel_ipc_cleanup("refused") == ENOENT);
}

TEST(Channel, a_client_without_a_server_hears_nothing_and_then_ready_once) {
    Participant client{"late", channel_attr(kClient, 5)};
    ASSERT_EQ(client.open(), 0u);
    EXPECT_EQ(client.hold(1), kTryAgain);
    EXPECT_FALSE(shm_exists("late.0"));
    EXPECT_EQ(client.told_so_far(), 0u);
    Participant server{"late", channel_attr(kServer, 1)};
    ASSERT_EQ(server.open(), 0u);
    ASSERT_TRUE(client.told(QEL_IPC_EVENT_READY) && server.told(QEL_IPC_EVENT_READY));
    EXPECT_EQ(client.post(7), 0u);
    EXPECT_EQ(server.take(), 7u);
    server.drop_held();
    // It was there first, so the server isn't told of it, but knows it.
    qel_ipc_ep_handle list[9];
    std::uint32_t count = 0;
    EXPECT_EQ(qel_ipc_ep_get_list(server.ipc, list, 9, &count), 0u);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(qel_ipc_ep_get_list(client.ipc, list, 9, &count), kNotPermitted);
    EXPECT_EQ(server.connections(), std::vector<Connection>{});
    EXPECT_EQ(client.times_told(QEL_IPC_EVENT_READY), 1);
    EXPECT_TRUE(client.handle_was_stored && server.handle_was_stored);
    std::uint64_t app_id[2];
    EXPECT_EQ(qel_ipc_ep_get_app_id(server.ipc, list[0] | 0xff, app_id), kInvalid);
    EXPECT_EQ(qel_ipc_ep_get_app_id(server.ipc, list[0] ^ 0x10000, app_id), kMissing);
    std::uint32_t event = 0;
    EXPECT_EQ(qel_ipc_get_connection_event(server.ipc, &event, list), kTryAgain);
}

TEST(Channel, clients_without_a_server_leave_no_trace) {
    for (std::uint64_t app_id = 0; app_id < 40; ++app_id) {
        Participant client{"lonely", channel_attr(kClient, app_id)};
        ASSERT_EQ(client.open(), 0u);
        EXPECT_EQ(client.close(), 0u);
        EXPECT_EQ(qel_ipc_close(&client.ipc), kInvalid);
    }
    EXPECT_EQ(qel_ipc_cleanup("lonely"), 0);
}

TEST(Channel, the_end_reaches_everybody_and_removes_every_name) {
    Participant server{"ending", channel_attr(kServer, 1)};
    Participant client{"ending", channel_attr(kClient, 2)};
    ASSERT_TRUE(server.open() == 0 && client.open() == 0 && server.connected({up(2)}));
    EXPECT_EQ(client.hold(1, 5000), 0u);
    EXPECT_EQ(server.close(), 0u);
    EXPECT_TRUE(client.told(QEL_IPC_EVENT_DOWN));
    EXPECT_EQ(client.hold(2), kGone);
    for (const std::string& name : shm_objects()) EXPECT_EQ(name.find("ending"), std::string::npos) << name;
    // What the client then closes isn't the channel that has the name by now.
    ASSERT_EQ(server.open(), 0u);
    Participant second{"ending", channel_attr(kClient, 3)};
    ASSERT_EQ(second.open(), 0u);
    EXPECT_EQ(client.close(), 0u);
    EXPECT_TRUE(shm_exists("ending.1") && shm_exists("ending.heap"));
    EXPECT_EQ(second.post(4, 0, 5000), 0u);
    EXPECT_EQ(server.take(), 4u);
    server.drop_held();
    Segment{"ending"}.at<std::uint32_t>(kStateAt) = 3u;
    Participant third{"ending", channel_attr(kClient, 4)};
    EXPECT_EQ(third.open(), kTryAgain);
    // Who comes between the removal of the names makes none of them again.
    Segment{"ending"}.at<std::uint32_t>(kStateAt) = 2u;
    for (const char* name : {"ending.0", "ending.heap"}) ASSERT_EQ(unlink(shm_file(name).c_str()), 0);
    EXPECT_EQ(third.open(), kMissing);
    EXPECT_FALSE(shm_exists("ending.0") || shm_exists("ending.heap"));
    // Nor does a server end what is being ended.
    Segment{"ending"}.at<std::uint32_t>(kStateAt) = 3u;
    EXPECT_EQ(server.close(), 0u);
    EXPECT_TRUE(shm_exists("ending") && qel_ipc_cleanup("ending") == 0);
}

TEST(Channel, names_of_thirty_two_characters_are_removed_in_full) {
    std::string name(32, 'x');
    Participant server{name, channel_attr(kServer, 1)}, client{name, channel_attr(kClient, 2)};
    ASSERT_TRUE(server.open() == 0 && client.open() == 0 && client.told(QEL_IPC_EVENT_READY));
    EXPECT_TRUE(shm_exists(name) && shm_exists(std::string(31, 'x') + ".0"));
    EXPECT_EQ(client.post(3), 0u);
    EXPECT_EQ(server.take(), 3u);
    EXPECT_EQ(client.close(), 0u);
    EXPECT_EQ(server.close(), 0u);
    EXPECT_FALSE(shm_exists(name) || shm_exists(std::string(31, 'x') + ".0"));
}

TEST(Channel, every_place_of_the_table_is_had_once) {
    qel_ipc_attr attr = channel_attr(kServer, 1);
    attr.max_clients = 0;
    auto dispatcher = std::make_shared<ServedDispatcher>();
    Participant server{"full", attr, dispatcher};
    ASSERT_EQ(server.open(), 0u);
    std::deque<Participant> clients;
    for (std::uint64_t app_id = 1; app_id <= 31; ++app_id)
        ASSERT_EQ(clients.emplace_back("full", channel_attr(kClient, app_id), dispatcher).open(), 0u)
            << app_id;
    ASSERT_TRUE(eventually([&] { return server.connections().size() == 31; }));
    Participant extra{"full", channel_attr(kClient, 99), dispatcher},
        twin{"full", channel_attr(kClient, 4), dispatcher};
    EXPECT_EQ(extra.open(), kNoPlace);
    EXPECT_EQ(twin.open(), kNotPermitted);
    EXPECT_EQ(clients[30].post(31), 0u);
    EXPECT_EQ(server.take(), 31u);
    // Closed, but its message is still here: the place comes free with that.
    EXPECT_EQ(clients[30].close(), 0u);
    ASSERT_TRUE(server.told(QEL_IPC_EVENT_EP_UPDATE));
    EXPECT_EQ(extra.open(), kNoPlace);
    server.drop_held();
    EXPECT_TRUE(eventually([&] { return extra.open() == 0; }));
    EXPECT_TRUE(eventually([&] { return server.connections().back() == up(99); }));
    std::deque<Participant> more;
    for (std::uint64_t app_id = 1; app_id <= 16; ++app_id)
        EXPECT_EQ(more.emplace_back("fill", channel_attr(kClient, app_id), dispatcher).open(), 0u) << app_id;
    EXPECT_EQ(twin.open(), kNoPlace);
    more.clear();
    EXPECT_EQ(qel_ipc_cleanup("fill"), 0);
}

TEST(Channel, the_next_client_in_a_place_gets_its_own_messages) {
    Participant server{"heir", channel_attr(kServer, 1)};
    ASSERT_EQ(server.open(), 0u);
    for (std::uint64_t app_id = 10; app_id < 40; ++app_id) {
        Participant client{"heir", channel_attr(kClient, app_id)};
        ASSERT_EQ(client.open(), 0u);
        ASSERT_EQ(client.post(app_id), 0u);
        ASSERT_EQ(server.take(), app_id);
        // With the reply in its ring, or with its request still here, it closes.
        if (app_id % 3 == 0) {
            EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, server.held.back(), 1), 0u);
            server.held.clear();
        }
        EXPECT_EQ(client.close(), 0u);
        server.drop_held();
        Participant heir{"heir", channel_attr(kClient, app_id + 100)};
        ASSERT_TRUE(heir.open() == 0 && heir.post(1) == 0);
        ASSERT_EQ(server.take(), 1u);
        ASSERT_EQ(qel_ipc_reply(server.ipc, nullptr, server.held.back(), 1), 0u);
        server.held.clear();
        EXPECT_EQ(heir.take(), 1u) << app_id;
        heir.drop_held();
    }
    EXPECT_TRUE(eventually([&] { return server.stats().prod_count == 0; }));
}

TEST(Channel, a_killed_client_comes_back_to_its_messages) {
    qel_ipc_attr attr = channel_attr(kServer, 1);
    attr.ext_cs = 1;
    Participant server{"revived", attr};
    ASSERT_EQ(server.open(), 0u);
    Segment block{"revived"};
    std::uint32_t taken_to_full = 0;
    for (int round = 0; round < 12; ++round) {
        PeerProcess client{"revived", kClient, 6};
        ASSERT_EQ(client.ask("open"), "0");
        ASSERT_EQ(client.ask("told 800"), "yes");
        auto told = round == 0 ? std::vector<Connection>{up(6)}
                               : std::vector<Connection>{{QEL_IPC_EP_ENDED, 6, 0}, {QEL_IPC_EP_BACK, 6, 0}};
        ASSERT_TRUE(server.connected(told)) << round;
        qel_ipc_ep_handle ep = server.connections()[0].ep;
        if (round > 0) {
            ASSERT_EQ(client.ask("told 1"), "yes");
            EXPECT_EQ(client.ask("take 3"), "3 4 5 ");
            client.ask("drop");
            EXPECT_EQ(block.at<std::uint32_t>(ep_at(1) + kAllocAt), 0u);
            EXPECT_EQ(block.at<std::uint32_t>(ep_at(0) + kAllocAt), 0u);
            EXPECT_EQ(block.at<std::uint32_t>(ep_at(1) + kReservedAt), taken_to_full);
        }
        taken_to_full = block.at<std::uint32_t>(ep_at(1) + kReservedAt);
        for (std::uint64_t context = 1; context <= 5; ++context)
            ASSERT_EQ(server.post(context, ep, context % 2 != 0 ? 8 : 5000), 0u);
        ASSERT_EQ(client.ask("take 2"), "1 2 ");
        ASSERT_EQ(client.ask("alloc 2"), "2");
        server.forget();
        ASSERT_TRUE(is_asleep(block, 1));
        kill_outside_of_locks(client, block);
    }
}

TEST(Channel, a_killed_server_comes_back_to_its_messages) {
    Participant client{"phoenix", channel_attr(kClient, 2)};
    PeerProcess waiting{"phoenix", kClient, 3};
    for (int round = 0; round < 8; ++round) {
        PeerProcess server{"phoenix", kServer, 1};
        ASSERT_EQ(server.ask("open"), "0");
        ASSERT_EQ(server.ask("told 800"), "yes");
        if (round == 0) {
            ASSERT_TRUE(client.open() == 0 && client.told(QEL_IPC_EVENT_READY));
        } else {
            EXPECT_TRUE(client.connected({{QEL_IPC_EP_ENDED, 1, 0}, {QEL_IPC_EP_BACK, 1, 0}}));
            ASSERT_EQ(server.ask("told 1"), "yes");
            EXPECT_EQ(server.ask("take 3"), "3 4 5 ");
            server.ask("drop");
            EXPECT_EQ(client.stats().alloc, 0u);
        }
        for (std::uint64_t context = 1; context <= 4; ++context) ASSERT_EQ(client.post(context), 0u);
        ASSERT_EQ(server.ask("take 2"), "1 2 ");
        client.forget();
        Segment block{"phoenix"};
        ASSERT_TRUE(is_asleep(block, 0));
        kill_outside_of_locks(server, block);
        // Nobody is there, but there is room.
        ASSERT_EQ(client.post(5), 0u);
    }
    // A client that comes back, and one that is new, while no server is there; and one that is told so.
    EXPECT_EQ(waiting.ask("open"), "0");
    Participant delayed{"phoenix", channel_attr(kClient, 4)};
    Segment{"phoenix"}.at<std::uint32_t>(ep_at(0)) = 2u;
    EXPECT_EQ(delayed.open(), 0u);
    PeerProcess server{"phoenix", kServer, 1};
    ASSERT_EQ(server.ask("open"), "0");
    EXPECT_EQ(waiting.ask("told 4800"), "yes");
    EXPECT_TRUE(delayed.told(QEL_IPC_EVENT_READY));
    EXPECT_EQ(delayed.connections(), std::vector<Connection>{});
    EXPECT_EQ(server.ask("close"), "0");
    EXPECT_EQ(waiting.ask("told 8000"), "yes");
}

// One message from state to state between two processes, with each call that its state refuses.
TEST(Channel, a_message_refuses_what_its_state_does_not_allow) {
    PeerProcess server{"ways", kServer, 1};
    Participant client{"ways", channel_attr(kClient, 2)};
    ASSERT_TRUE(server.ask("open") == "0" && client.open() == 0 && client.told(QEL_IPC_EVENT_READY));
    qel_ipc_msg msg = 0;
    EXPECT_EQ(qel_ipc_receive(client.ipc, nullptr, &msg, nullptr), kTryAgain);
    ASSERT_EQ(client.hold(7, kLarge), 0u);
    msg = client.held.back();
    auto expect_not_ours = [&] {
        qel_ipc_msg copy = msg;
        EXPECT_EQ(qel_ipc_msg_free(&copy), kNotPermitted);
        EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg), kTryAgain);
        EXPECT_EQ(qel_ipc_reply(client.ipc, nullptr, msg, 0), kInvalid);
        EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 8, nullptr), kInvalid);
        EXPECT_EQ(qel_ipc_msg_free_incoming_buffer(msg), kNotPermitted);
    };
    ASSERT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg), 0u);
    client.held.clear();
    expect_not_ours();  // Produced
    ASSERT_EQ(server.ask("take 1"), "7 ");
    expect_not_ours();  // Consumed, by the other
    ASSERT_EQ(server.ask("reply 1"), "1");
    ASSERT_EQ(client.take(), 7u);
    std::uint32_t status = 0;
    EXPECT_TRUE(client.held.back() == msg && qel_ipc_msg_get_status(msg, &status) == 0 && status == 0x55);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg), kTryAgain);
    EXPECT_EQ(qel_ipc_reply(client.ipc, nullptr, msg, 0), kInvalid);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 8, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_msg_free_incoming_buffer(msg), kNotPermitted);
    client.drop_held();
    EXPECT_EQ(qel_ipc_msg_free(&msg), kInvalid);  // Free
    cerrno error = 0;
    while ((error = client.hold(1)) == 0) continue;
    EXPECT_EQ(error, kNoMemory);
    ASSERT_EQ(server.ask("close"), "0");
    EXPECT_TRUE(client.told(QEL_IPC_EVENT_DOWN));
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, client.held.front()), kGone);
}

// The request that the dead server had received is reclaimed; the one that it had not is answered.
TEST(Channel, a_synchronous_sender_doesn_t_wait_for_what_a_restart_reclaimed) {
    Participant client{"lost", channel_attr(kClient, 2)};
    auto ask = [&](std::atomic<cerrno>& result) {
        qel_ipc_msg reply = 0, msg = 0;
        EXPECT_EQ(qel_ipc_msg_alloc(client.ipc, 8, &msg, nullptr), 0u);
        result = qel_ipc_sync_send(client.ipc, nullptr, msg, &reply, nullptr);
    };
    std::atomic<cerrno> received{1}, waiting{1};
    std::thread senders[2];
    {
        PeerProcess server{"lost", kServer, 1};
        ASSERT_EQ(server.ask("open"), "0");
        ASSERT_TRUE(client.open() == 0 && client.told(QEL_IPC_EVENT_READY));
        senders[0] = std::thread{[&] { ask(received); }};
        ASSERT_EQ(server.ask("take 1"), "0 ");
        senders[1] = std::thread{[&] { ask(waiting); }};
        EXPECT_TRUE(eventually([&] { return client.stats().sent == 2; }));
        Segment block{"lost"};
        ASSERT_TRUE(is_asleep(block, 0));
        kill_outside_of_locks(server, block);
    }
    qel_ipc_attr attr = channel_attr(kServer, 1);
    attr.ext_cs = 1;
    Participant server{"lost", attr};
    ASSERT_EQ(server.open(), 0u);
    senders[0].join();
    EXPECT_EQ(received, kGone);
    EXPECT_EQ(server.take(), 0u);
    ASSERT_EQ(server.held.size(), 1u);
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, server.held[0], 0), 0u);
    qel_ipc_msg msg = 0;
    EXPECT_TRUE(
        eventually([&] { return qel_ipc_receive(client.ipc, nullptr, &msg, nullptr) != 0 && waiting != 1; }));
    senders[1].join();
    EXPECT_EQ(waiting, 0u);
}

TEST(Channel, a_process_that_closes_gives_all_back) {
    qel_ipc_attr attr = channel_attr(kServer, 1);
    attr.ext_cs = 1;
    Participant server{"leaving", attr};
    PeerProcess client{"leaving", kClient, 2};
    ASSERT_TRUE(server.open() == 0 && client.ask("open") == "0" && server.connected({up(2)}));
    qel_ipc_ep_handle ep = server.connections()[0].ep;
    for (std::uint64_t context = 1; context <= 4; ++context)
        ASSERT_EQ(server.post(context, ep, context % 2 != 0 ? 8 : 5000), 0u);
    ASSERT_TRUE(client.ask("take 2") == "1 2 " && client.ask("alloc 2") == "2");
    EXPECT_EQ(client.ask("close"), "0");
    EXPECT_TRUE(server.connected({up(2), gone(2)}));
    EXPECT_FALSE(shm_exists("leaving.1"));
    Segment block{"leaving"};
    EXPECT_EQ(block.at<std::uint32_t>(ep_at(0) + kAllocAt), 0u);
    EXPECT_EQ(block.at<std::uint32_t>(ep_at(1)), 0u);
    EXPECT_EQ(server.post(5, ep), kGone);
}

TEST(Channel, who_was_taken_over_leaves_the_heir_alone) {
    Participant server{"heirs", channel_attr(kServer, 1)}, first{"heirs", channel_attr(kClient, 2)};
    PeerProcess heir{"heirs", kClient, 2};
    ASSERT_TRUE(server.open() == 0 && first.open() == 0 && server.connected({up(2)}));
    ASSERT_EQ(heir.ask("open"), "0");
    EXPECT_TRUE(server.connected({up(2), {QEL_IPC_EP_ENDED, 2, 0}, {QEL_IPC_EP_BACK, 2, 0}}));
    EXPECT_EQ(first.close(), 0u);
    EXPECT_TRUE(shm_exists("heirs.1"));
    // It hears every bell, since the thread of the first sleeps in its doorbell no more.
    for (std::uint64_t context = 1; context <= 5; ++context) {
        EXPECT_EQ(heir.ask("send 1"), "1");
        ASSERT_EQ(server.take(), context);
        ASSERT_EQ(qel_ipc_reply(server.ipc, nullptr, server.held.back(), 0), 0u);
        server.held.clear();
        EXPECT_EQ(heir.ask("told 1"), "yes");
        EXPECT_EQ(heir.ask("take 1"), std::to_string(context) + " ");
        EXPECT_EQ(heir.ask("forget"), "");
    }
}

TEST(Channel, flow_comes_on_again_across_processes) {
    Participant server{"flow", channel_attr(kServer, 1)};
    PeerProcess greedy{"flow", kClient, 2}, starving{"flow", kClient, 3};
    ASSERT_TRUE(server.open() == 0 && greedy.ask("open") == "0" && server.connected({up(2)}));
    ASSERT_EQ(greedy.ask("send 100"), "40");
    EXPECT_EQ(greedy.ask("told 2000"), "yes");
    for (std::uint64_t context = 1; context <= 64; ++context) ASSERT_EQ(server.take(), context);
    server.drop_held();  // The server rings the client's bell itself.
    EXPECT_EQ(greedy.ask("told 1000"), "yes");
    // A client gives back what another one lacks: the server passes that on.
    ASSERT_EQ(greedy.ask("alloc 100"), "40");
    ASSERT_EQ(starving.ask("open"), "0");
    EXPECT_EQ(starving.ask("told 2800"), "yes");
    ASSERT_TRUE(server.connected({up(2), up(3)}));
    greedy.ask("drop");
    EXPECT_EQ(starving.ask("told 1000"), "yes");
}

TEST(Channel, both_ends_killed_lose_nothing) {
    auto client = std::make_unique<PeerProcess>("storm", kClient, 4);
    auto server = std::make_unique<PeerProcess>("storm", kServer, 1);
    ASSERT_TRUE(client->ask("open") == "0" && server->ask("open") == "0" && client->ask("told 800") == "yes");
    ASSERT_TRUE(client->ask("send 6") == "6" && server->ask("take 2") == "1 2 " &&
                client->ask("alloc 3") == "3");
    Segment block{"storm"};
    ASSERT_TRUE(is_asleep(block, 0) && is_asleep(block, 1));
    kill_outside_of_locks(*client, block);
    kill_outside_of_locks(*server, block);
    client = std::make_unique<PeerProcess>("storm", kClient, 4);
    ASSERT_EQ(client->ask("open"), "0");
    ASSERT_EQ(client->ask("told 800"), "yes");
    server = std::make_unique<PeerProcess>("storm", kServer, 1);
    ASSERT_EQ(server->ask("open"), "0");
    EXPECT_EQ(client->ask("told 4000"), "yes");
    EXPECT_EQ(client->ask("connections"), "800:1 400:1 ");
    EXPECT_EQ(server->ask("take 4"), "3 4 5 6 ");
    server->ask("drop");
    EXPECT_EQ(block.at<std::uint32_t>(ep_at(1) + kAllocAt), 0u);
    EXPECT_EQ(server->ask("close"), "0");
}

TEST(Channel, a_death_inside_a_doorbell_keeps_out_nobody_else) {
    Participant server{"stuck", channel_attr(kServer, 1)}, other{"stuck", channel_attr(kClient, 2)};
    PeerProcess client{"stuck", kClient, 3};
    ASSERT_EQ(server.open(), 0u);
    ASSERT_EQ(client.ask("open"), "0");
    ASSERT_TRUE(server.connected({up(3)}));
    Segment block{"stuck"};
    ASSERT_TRUE(is_asleep(block, 1));
    kill_outside_of_locks(client, block);
    block.at<std::uint32_t>(ep_at(1) + kDoorbellLockAt) = 2u;
    Participant heir{"stuck", channel_attr(kClient, 3)};
    EXPECT_EQ(heir.open(), kTimedOut);
    // The server looks at the end points, and signals to all that it finds.
    EXPECT_TRUE(other.open() == 0 && other.post(5) == 0);
    EXPECT_TRUE(server.connected({up(3), {QEL_IPC_EP_ENDED, 3, 0}, {QEL_IPC_EP_BACK, 3, 0}, up(2)}));
    EXPECT_EQ(server.take(), 5u);
    block.at<std::uint32_t>(ep_at(1) + kDoorbellLockAt) = 0u;
    EXPECT_TRUE(heir.open() == 0 && heir.told(QEL_IPC_EVENT_READY));
}

TEST(Channel, whoever_wins_the_race_to_open_all_meet) {
    for (int round = 0; round < 5; ++round) {
        std::string name = "race" + std::to_string(round);
        std::vector<Child> racers;
        for (int i = 0; i < 5; ++i)
            racers.emplace_back("racer", RoleArgs{name, i == 0 ? "1" : "0", std::to_string(i + 1)});
        for (Child& racer : racers) ASSERT_EQ(racer.read_line(), "here");
        for (Child& racer : racers) racer.write_line("go");
        for (Child& racer : racers) EXPECT_EQ(racer.read_line(), "ready");
        for (std::size_t i = racers.size(); i-- > 0;) {
            racers[i].write_line("end");
            EXPECT_EQ(racers[i].wait(), 0);
        }
        EXPECT_FALSE(shm_exists(name));
    }
}

TEST(Channel, a_block_that_no_server_wrote_is_refused) {
    {
        PeerProcess server{"odd", kServer, 1};
        ASSERT_EQ(server.ask("open"), "0");
        Segment block{"odd"};
        stop_outside_of_locks(server, block);  // One that runs might look at what is changed here.
        Participant client{"odd", channel_attr(kClient, 2)};
        auto refused_with = [&]<class Word>(std::size_t offset, Word bad) {
            Word good = block.at<Word>(offset);
            block.at<Word>(offset) = bad;
            EXPECT_EQ(client.open(), kInvalid) << offset;
            block.at<Word>(offset) = good;
        };
        refused_with(kMagicAt, 0x12345678u);
        refused_with(kTotalMsgAt, std::uint16_t{7});
        refused_with(kMsgSizeAt, 4097u);
        refused_with(kHeapSizeAt, 0xfffffff0u);
        refused_with(kMaxEpsAt, std::uint16_t{33});
        refused_with(kMaxEpsAt, std::uint16_t{0});
        refused_with(std::size_t{163}, 'x');
        kill(server.pid(), SIGCONT);
        EXPECT_EQ(client.open(), 0u);
        qel_ipc_attr other = channel_attr(kServer, 1);
        other.max_msg_count = 65;
        Participant second{"odd", other};
        EXPECT_EQ(second.open(), kInvalid);
    }
    EXPECT_FALSE(shm_exists("odd"));
}

TEST(Channel, what_a_dead_maker_left_is_made_good) {
    PeerProcess maker{"half", kClient, 1};
    ASSERT_EQ(maker.ask("open"), "0");
    Segment block{"half"};
    kill_outside_of_locks(maker, block);
    for (std::size_t at = 4; at < block.info.size; at += 4) block.at<std::uint32_t>(at) = 0u;
    block.at<std::uint32_t>(kMagicAt) = 0xdecade00u;
    Participant client{"half", channel_attr(kClient, 2)}, server{"half", channel_attr(kServer, 3)};
    EXPECT_TRUE(client.open() == 0 && server.open() == 0 && client.told(QEL_IPC_EVENT_READY));
    EXPECT_EQ(client.post(2), 0u);
    EXPECT_EQ(server.take(), 2u);
}

TEST(Channel, a_new_channel_uses_nothing_of_an_old_one) {
    qel_ipc_attr small = channel_attr(kServer, 1);
    small.max_msg_count = 16;
    {
        PeerProcess client{"old", kClient, 2};
        PeerProcess server{"old", kServer, 1};
        ASSERT_TRUE(client.ask("open") == "0" && server.ask("open") == "0" &&
                    client.ask("told 800") == "yes");
        ASSERT_EQ(client.ask("send 5"), "5");
        Segment block{"old"};
        ASSERT_TRUE(is_asleep(block, 0) && is_asleep(block, 1));
        kill_outside_of_locks(server, block);
        kill_outside_of_locks(client, block);
    }
    ASSERT_EQ(unlink(shm_file("old").c_str()), 0);
    Participant server{"old", small}, client{"old", channel_attr(kClient, 2)};
    ASSERT_TRUE(server.open() == 0 && client.open() == 0 && client.told(QEL_IPC_EVENT_READY));
    EXPECT_EQ(server.take(10ms), 0u);
    for (std::uint64_t i = 0; i < 16; ++i) EXPECT_EQ(client.hold(i), 0u);
    EXPECT_EQ(client.hold(16), kNoMemory);
    client.drop_held();
}

TEST(Channel, closing_keeps_what_the_application_holds_if_told_so) {
    qel_ipc_attr attr = channel_attr(kClient, 2);
    attr.close_flags = 1;
    Participant server{"held", channel_attr(kServer, 1)}, client{"held", attr};
    ASSERT_TRUE(server.open() == 0 && client.open() == 0 && server.connected({up(2)}));
    ASSERT_EQ(client.hold(1), 0u);
    EXPECT_EQ(client.close(), kStillHeld);
    client.drop_held();
    server.forget();
    EXPECT_EQ(client.close(), 0u);
    EXPECT_TRUE(server.connected({gone(2)}));
    EXPECT_FALSE(shm_exists("held.1"));
}

// Callers of every kind queue on the context while it is closed, and find it gone; nobody sleeps on.
TEST(Channel, a_close_under_load_strands_nobody) {
    for (int round = 0; round < 20; ++round) {
        Participant server{"busy", channel_attr(kServer, 1)}, client{"busy", channel_attr(kClient, 2)};
        ASSERT_TRUE(server.open() == 0 && client.open() == 0 && server.connected({up(2)}));
        std::atomic<bool> closed{false};
        std::vector<std::thread> callers;
        for (qel_ipc_handle ipc : {client.ipc, client.ipc, server.ipc})
            callers.emplace_back([&, ipc, sends = callers.size() == 0] {
                qel_ipc_msg msg = 0;
                while (!closed) {
                    if (sends && qel_ipc_msg_alloc(ipc, 8, &msg, nullptr) == 0)
                        static_cast<void>(qel_ipc_async_send(ipc, nullptr, msg));
                    if (qel_ipc_receive(ipc, nullptr, &msg, nullptr) == 0) qel_ipc_msg_free(&msg);
                }
            });
        Participant& closing = round % 2 != 0 ? server : client;
        cerrno second = 0;
        callers.emplace_back([&second, ipc = closing.ipc]() mutable { second = qel_ipc_close(&ipc); });
        cerrno first = closing.close();
        closed = true;
        for (std::thread& caller : callers) caller.join();
        EXPECT_TRUE(first == 0 || second == 0);
        EXPECT_TRUE((first | second) == 0 || (first | second) == kInvalid);
    }
}

}  // namespace
