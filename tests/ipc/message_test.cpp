// Messages through the public API: what arrives, what is left behind, and who is refused. Server and clients
// are contexts of one process; deaths and restarts are the channel's tests.
#include "ipc/message_support.hpp"

using namespace qel_test;

namespace {

struct Exchange {
    std::uint32_t request, reply;
    bool drop_early;
};

// The answering half: checks the request, and replies.
void answer(Participant& server, qel_ipc_msg msg, const Exchange& sizes) {
    expect_filled(msg, sizes.request, 1);
    std::uint32_t status = 0;
    EXPECT_EQ(qel_ipc_msg_get_status(msg, &status), kInvalid);
    if (sizes.drop_early) {
        EXPECT_EQ(qel_ipc_msg_free_incoming_buffer(msg), 0u);
    }
    void* area = nullptr;
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, sizes.reply, &area), 0u);
    fill(area, sizes.reply, 2);
    if (!sizes.drop_early) expect_filled(msg, sizes.request, 1);
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 77), 0u);
}

void expect_reply(qel_ipc_msg msg, const Exchange& sizes) {
    expect_filled(msg, sizes.reply, 2);
    std::uint32_t status = 0, length = 99;
    std::uint64_t context = 0;
    void* area = nullptr;
    EXPECT_EQ(qel_ipc_msg_get_status(msg, &status), 0u);
    EXPECT_EQ(qel_ipc_msg_get_context(msg, &context), 0u);
    EXPECT_EQ(qel_ipc_msg_get_reply_buffer(msg, &area, &length), 0u);
    EXPECT_EQ(status, 77u);
    EXPECT_EQ(context, 0x1122334455667788u);
    EXPECT_EQ(length, sizes.reply);
}

qel_ipc_msg make_request(Participant& client, std::uint32_t size) {
    void* area = nullptr;
    qel_ipc_msg msg = client.alloc(size, &area);
    fill(area, size, 1);
    EXPECT_EQ(qel_ipc_msg_set_context(msg, 0x1122334455667788u), 0u);
    return msg;
}

TEST(Message, request_and_reply_of_every_size_arrive_and_leave_nothing) {
    Channel channel;
    for (std::uint32_t request : {0u, 9u, kInline, kInline + 1, kLarge})
        for (std::uint32_t reply : {0u, 9u, kInline, kInline + 1, kLarge})
            for (bool drop_early : {false, true}) {
                Exchange sizes{request, reply, drop_early};
                channel.client.send(make_request(channel.client, request));
                answer(channel.server, channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST), sizes);
                qel_ipc_msg msg = channel.client.receive(QEL_IPC_MSG_REPLY);
                expect_reply(msg, sizes);
                channel.client.free(msg);
            }
    // Freed without a reply, with all that was reserved for one.
    for (std::uint32_t reply : {9u, kLarge}) {
        channel.client.send(make_request(channel.client, reply));
        qel_ipc_msg msg = channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
        EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, reply, nullptr), 0u);
        channel.server.free(msg);
    }
    expect_whole(channel.client);
    qel_ipc_stats stats;
    EXPECT_EQ(qel_ipc_get_stats(channel.client.ipc, &stats), 0u);
    EXPECT_EQ(stats.alloc, 0u);
    EXPECT_EQ(stats.reserved_credits, kMessages);
    EXPECT_EQ(stats.sent, 52u);
    EXPECT_EQ(stats.received, 50u);
}

void unexpected(qel_ipc_msg) {
    ADD_FAILURE() << "a message for nobody";
}

TEST(Message, a_synchronous_sender_gets_its_own_answer) {
    Channel channel;
    std::vector<std::thread> senders;
    {
        Pump replies{channel.client, unexpected};
        Pump requests{channel.server, [&](qel_ipc_msg msg) {
                          std::uint64_t context = 0;
                          EXPECT_EQ(qel_ipc_msg_get_context(msg, &context), 0u);
                          EXPECT_EQ(qel_ipc_reply(channel.server.ipc, nullptr, msg, context & 0xffff), 0u);
                      }};
        for (std::uint32_t sender = 0; sender < 4; ++sender)
            senders.emplace_back([&, sender] {
                for (std::uint32_t i = 0; i < 300; ++i) {
                    qel_ipc_msg msg = channel.client.alloc(9), reply = 0;
                    std::uint32_t status = 0, wanted = sender * 1000 + i;
                    EXPECT_EQ(qel_ipc_msg_set_context(msg, wanted), 0u);
                    EXPECT_EQ(qel_ipc_sync_send(channel.client.ipc, nullptr, msg, &reply, &status), 0u);
                    EXPECT_EQ(reply, msg);
                    EXPECT_EQ(status, wanted);
                    channel.client.free(reply);
                }
            });
        for (std::thread& sender : senders) sender.join();
    }
    expect_whole(channel.client);
}

TEST(Message, an_answer_around_the_time_out_is_either_delivered_or_disposed_of) {
    Channel channel{0, 1};
    int answered = 0, timed_out = 0;
    {
        Pump replies{channel.client, unexpected};
        Pump requests{channel.server, [&](qel_ipc_msg msg) {
                          std::this_thread::sleep_for(std::chrono::microseconds{900 + msg * 37 % 300});
                          EXPECT_EQ(qel_ipc_reply(channel.server.ipc, nullptr, msg, 5), 0u);
                      }};
        qel_ipc_send_attr attr{0, 0, 1, 0};
        for (int i = 0; i < 300; ++i) {
            qel_ipc_msg msg = channel.client.alloc(9), reply = 1;
            cerrno result = qel_ipc_sync_send(channel.client.ipc, &attr, msg, &reply, nullptr);
            if (result == 0) {
                channel.client.free(reply);
                ++answered;
            } else {
                EXPECT_EQ(result, kTimedOut);
                EXPECT_EQ(reply, 0u);
                ++timed_out;
            }
        }
        EXPECT_TRUE(eventually([&] {
            qel_ipc_stats stats{};
            return qel_ipc_get_stats(channel.client.ipc, &stats) == 0 && stats.alloc == 0;
        }));
    }
    EXPECT_GT(timed_out, 0);
    EXPECT_EQ(answered + timed_out, 300);
    expect_whole(channel.client);
    EXPECT_FALSE(channel.client.holds());
}

TEST(Message, a_synchronous_sender_is_released_when_the_channel_goes) {
    for (bool server_closes : {true, false}) {
        Channel channel;
        cerrno result = 0;
        std::thread sender{[&] {
            qel_ipc_msg reply = 0;
            result = qel_ipc_sync_send(channel.client.ipc, nullptr, channel.client.alloc(9), &reply, nullptr);
        }};
        channel.server.receive(QEL_IPC_MSG_SYNC_REQUEST);
        (server_closes ? channel.server : channel.client).close();
        sender.join();
        EXPECT_EQ(result, kGone);
    }
}

TEST(Message, held_messages_are_counted_on_every_path) {
    Channel channel{0, 1};
    Participant &client = channel.client, &server = channel.server;
    qel_ipc_msg msg = client.alloc(9);
    EXPECT_TRUE(client.holds());
    client.free(msg);

    client.send(client.alloc(9));
    msg = server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
    EXPECT_TRUE(server.holds());
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 0), 0u);
    msg = client.receive(QEL_IPC_MSG_REPLY);
    EXPECT_TRUE(client.holds());
    client.free(msg);

    // A synchronous request that is under way: freeing it changes nothing.
    qel_ipc_msg sent = client.alloc(9), reply = 1;
    qel_ipc_send_attr attr{0, 0, 1, 0};
    EXPECT_EQ(qel_ipc_sync_send(client.ipc, &attr, sent, &reply, nullptr), kTimedOut);
    msg = sent;
    EXPECT_EQ(qel_ipc_msg_free(&msg), 0u);
    EXPECT_EQ(msg, sent);
    msg = server.receive(QEL_IPC_MSG_SYNC_REQUEST);
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 0), 0u);
    qel_ipc_msg none = 0;
    EXPECT_EQ(qel_ipc_receive(client.ipc, nullptr, &none, nullptr), kTryAgain);  // The late reply is gone.

    msg = client.alloc(9);  // Neither below zero
    EXPECT_TRUE(client.holds());
    client.free(msg);  // nor above.
    EXPECT_FALSE(client.holds());
    EXPECT_FALSE(server.holds());
}

TEST(Message, the_wrong_state_role_or_handle_is_refused_and_spoils_nothing) {
    Channel channel;
    Participant &client = channel.client, &server = channel.server;
    qel_ipc_msg none = 0, msg = 0;
    void* area = nullptr;
    std::uint32_t length = 0;
    qel_ipc_send_attr urgent{0, 0, 0, 1};
    EXPECT_EQ(qel_ipc_msg_alloc(server.ipc, 9, &none, nullptr), kNotPermitted);
    EXPECT_EQ(qel_ipc_msg_alloc(client.ipc ^ 1, 9, &none, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_msg_alloc(client.ipc, 9, nullptr, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_msg_alloc(client.ipc, 0x20000 + 4096, &none, nullptr), kNoMemory);
    EXPECT_EQ(qel_ipc_msg_alloc(client.ipc, ~0u, &none, nullptr), kNoMemory);
    EXPECT_EQ(qel_ipc_receive(client.ipc, nullptr, &none, nullptr), kTryAgain);
    EXPECT_EQ(qel_ipc_msg_free(&none), kInvalid);
    EXPECT_EQ(qel_ipc_msg_get_buffer(none, &area, &length), kInvalid);

    qel_ipc_msg allocated = msg = make_request(client, 9);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, &urgent, msg), kInvalid);
    EXPECT_EQ(qel_ipc_async_send(server.ipc, nullptr, msg), kInvalid);
    EXPECT_EQ(qel_ipc_sync_send(client.ipc, nullptr, msg, nullptr, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg + 0x10000), kInvalid);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg | 0xffff), kInvalid);
    EXPECT_EQ(qel_ipc_reply(client.ipc, nullptr, msg, 0), kNotPermitted);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 9, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_msg_free_incoming_buffer(msg), kNotPermitted);
    client.send(msg);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg), kTryAgain);
    EXPECT_EQ(qel_ipc_msg_free(&msg), kNotPermitted);

    msg = server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
    qel_ipc_msg theirs = allocated;  // The client's handle of what the server holds now.
    EXPECT_EQ(qel_ipc_msg_free(&theirs), kNotPermitted);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(theirs, 9, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_async_send(server.ipc, nullptr, msg), kNotPermitted);
    EXPECT_EQ(qel_ipc_msg_get_reply_buffer(msg, &area, &length), kInvalid);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, ~0u, nullptr), kNoMemory);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 9, &area), 0u);
    fill(area, 9, 2);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 9, nullptr), kNotPermitted);
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 77), 0u);
    EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 77), kInvalid);

    msg = client.receive(QEL_IPC_MSG_REPLY);
    EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 9, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_async_send(client.ipc, nullptr, msg), kTryAgain);
    expect_reply(msg, {9, 9, false});
    client.free(msg);
    EXPECT_EQ(qel_ipc_msg_free(&msg), kInvalid);
    expect_whole(client);
}

// What every call gives on a channel that has no server yet, and on one that is being destroyed.
void expect_refusals(Participant& of, cerrno refusal, cerrno reply_refusal) {
    qel_ipc_msg msg = std::uint64_t{of.ipc} << 32 | 0x10001, out = 0;
    EXPECT_EQ(qel_ipc_msg_alloc(of.ipc, 9, &out, nullptr), refusal);
    EXPECT_EQ(qel_ipc_async_send(of.ipc, nullptr, msg), refusal);
    EXPECT_EQ(qel_ipc_sync_send(of.ipc, nullptr, msg, &out, nullptr), refusal);
    EXPECT_EQ(qel_ipc_receive(of.ipc, nullptr, &out, nullptr), refusal);
    EXPECT_EQ(qel_ipc_reply(of.ipc, nullptr, msg, 0), reply_refusal);
}

TEST(Message, a_channel_that_isn_t_up_or_goes_refuses_every_call) {
    auto dispatcher = std::make_shared<ServedDispatcher>();
    Participant client{"early", channel_attr(QEL_IPC_ROLE_CLIENT, 2), dispatcher};
    EXPECT_EQ(client.open(), 0u);
    expect_refusals(client, kTryAgain, kNotPermitted);
    qel_ipc_attr attr = channel_attr(QEL_IPC_ROLE_SERVER, 1);
    attr.msg_mode = 1;
    attr.ext_cs = 1;
    attr.large_data_size = 0;
    Participant server{"early", attr, dispatcher};
    EXPECT_EQ(server.open(), 0u);
    EXPECT_TRUE(client.told(QEL_IPC_EVENT_READY));
    qel_ipc_msg msg = 0, reply = 0;
    EXPECT_EQ(qel_ipc_msg_alloc(client.ipc, kInline + 1, &msg, nullptr), kNoMemory);  // There is no heap.
    qel_ipc_ep_handle peer = 0, sender = 0;
    std::uint32_t count = 0;
    EXPECT_EQ(qel_ipc_ep_get_list(server.ipc, &peer, 1, &count), 0u);
    qel_ipc_send_attr to_peer{peer, 0, 0, 0}, urgent{peer, 0, 0, 1};
    msg = server.alloc(9);
    EXPECT_EQ(qel_ipc_sync_send(server.ipc, nullptr, msg, &reply, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_sync_send(server.ipc, &urgent, msg, &reply, nullptr), kInvalid);
    EXPECT_EQ(qel_ipc_sync_send(server.ipc, &to_peer, msg, &reply, nullptr), kInvalid);  // Of mode 1.
    server.free(msg);
    client.send(client.alloc(9));
    msg = server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
    EXPECT_EQ(qel_ipc_msg_get_sender_ep(msg, &sender), 0u);
    EXPECT_EQ(sender, peer);
    server.free(msg);
    server.close();
    expect_refusals(client, kGone, kGone);
}

TEST(Message, an_extended_server_asks_and_a_client_answers) {
    Channel channel{1};
    Participant &client = channel.client, &server = channel.server;
    qel_ipc_ep_handle peer = 0, sender = 0;
    std::uint32_t count = 0;
    ASSERT_EQ(qel_ipc_ep_get_list(server.ipc, &peer, 1, &count), 0u);
    qel_ipc_msg msg = make_request(server, 9);
    for (auto [to, code] :
         {std::pair{0u, kNotPermitted}, {0xffffu, kInvalid}, {peer ^ 0x10000, kGone}, {3u, kGone}}) {
        qel_ipc_send_attr attr{to, 0, 0, 0};
        EXPECT_EQ(qel_ipc_async_send(server.ipc, &attr, msg), code);
    }
    EXPECT_EQ(qel_ipc_async_send(server.ipc, nullptr, msg), kInvalid);
    server.send(msg, peer);
    msg = client.receive(QEL_IPC_MSG_ASYNC_REQUEST);
    EXPECT_EQ(qel_ipc_msg_get_sender_ep(msg, &sender), 0u);
    EXPECT_EQ(sender & 0xffff, 0u);
    answer(client, msg, {9, kLarge, false});
    msg = server.receive(QEL_IPC_MSG_REPLY);
    expect_reply(msg, {9, kLarge, false});
    server.free(msg);

    Pump replies{server, unexpected};
    Pump requests{client, [&](qel_ipc_msg request) { answer(client, request, {kInline, kInline, true}); }};
    qel_ipc_send_attr attr{peer, 0, 10000, 0};
    std::uint32_t status = 0;
    EXPECT_EQ(qel_ipc_sync_send(server.ipc, &attr, make_request(server, kInline), &msg, &status), 0u);
    EXPECT_EQ(status, 77u);
    server.free(msg);
    expect_whole(client, kMessages / 2);
    expect_whole(server, kMessages / 2);
}

TEST(Message, a_client_that_left_gets_no_reply_and_its_place_is_whole_for_the_next) {
    Channel channel;
    Participant& server = channel.server;
    for (bool replied : {true, false}) {
        server.forget();
        Participant guest{channel.name, channel_attr(QEL_IPC_ROLE_CLIENT, 10), channel.dispatcher};
        EXPECT_EQ(guest.open(), 0u);
        for (int i = 0; i < 3; ++i) guest.send(make_request(guest, kLarge));
        EXPECT_TRUE(server.told(QEL_IPC_EVENT_EP_UPDATE));
        server.forget();
        guest.close();
        EXPECT_TRUE(!replied || server.told(QEL_IPC_EVENT_EP_UPDATE));
        for (int i = 0; i < 3; ++i) {
            qel_ipc_msg msg = server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
            if (replied)
                answer(server, msg, {kLarge, kLarge, false});
            else
                server.free(msg);
        }
    }
    // The next one takes the end point over at once, whether or not the server's update has run.
    Participant next{channel.name, channel_attr(QEL_IPC_ROLE_CLIENT, 11), channel.dispatcher};
    EXPECT_EQ(next.open(), 0u);
    next.send(make_request(next, 9));
    answer(server, server.receive(QEL_IPC_MSG_ASYNC_REQUEST), {9, 9, false});
    next.free(next.receive(QEL_IPC_MSG_REPLY));
    next.close();
    EXPECT_TRUE(eventually([&] {
        qel_ipc_stats stats{};
        return qel_ipc_get_stats(channel.client.ipc, &stats) == 0 && stats.prod_count == 1;
    }));
    expect_whole(channel.client);
}

TEST(Message, allocation_is_refused_when_credits_and_overflow_are_gone) {
    Channel channel;
    Participant other{channel.name, channel_attr(QEL_IPC_ROLE_CLIENT, 10), channel.dispatcher};
    EXPECT_EQ(other.open(), 0u);
    std::vector<qel_ipc_msg> held;
    for (std::uint32_t i = 0; i < kMessages / 2; ++i) held.push_back(channel.client.alloc(9));
    EXPECT_TRUE(channel.client.told(QEL_IPC_EVENT_FLOW_OFF));
    qel_ipc_msg msg = 0;
    EXPECT_EQ(qel_ipc_msg_alloc(channel.client.ipc, 9, &msg, nullptr), kNoMemory);
    expect_whole(other, kMessages / 2);
    for (qel_ipc_msg each : held) channel.client.send(each);
    for (std::size_t i = 0; i < held.size(); ++i)
        channel.server.free(channel.server.receive(QEL_IPC_MSG_ASYNC_REQUEST));
    EXPECT_TRUE(channel.client.told(QEL_IPC_EVENT_FLOW_ON));
    expect_whole(channel.client, kMessages / 2);
}

}  // namespace
