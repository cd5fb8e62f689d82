// Messages when memory runs out: each of the library's allocations on the way fails in turn.
#include "ipc/message_support.hpp"
#include "support/failing.hpp"

using namespace qel_test;

namespace {

TEST(Message, a_synchronous_send_without_memory_leaves_the_message_to_its_sender) {
    Channel channel;
    Participant &client = channel.client, &server = channel.server;
    {
        Pump replies{client, [](qel_ipc_msg) { ADD_FAILURE() << "a message for nobody"; }};
        Pump requests{server,
                      [&](qel_ipc_msg msg) { EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 0), 0u); }};
        EXPECT_GE(fail_each_allocation([&] {
                      qel_ipc_msg msg = client.alloc(9), reply = 0;
                      cerrno result = qel_ipc_sync_send(client.ipc, nullptr, msg, &reply, nullptr);
                      EXPECT_EQ(result, reply == msg ? 0 : kNoMemory);
                      client.free(msg);
                  }),
                  1);
    }
    expect_whole(client);
}

TEST(Message, a_reply_without_memory_can_be_tried_again) {
    Channel channel;
    Participant &client = channel.client, &server = channel.server;
    auto exchange = [&] {
        client.send(client.alloc(9));
        qel_ipc_msg msg = server.receive(QEL_IPC_MSG_ASYNC_REQUEST);
        cerrno result = qel_ipc_msg_alloc_reply_buffer(msg, 9, nullptr);
        EXPECT_EQ(result, allocation_failed ? kNoMemory : 0);
        EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(msg, 9, nullptr), result == 0 ? kNotPermitted : 0);
        EXPECT_EQ(qel_ipc_reply(server.ipc, nullptr, msg, 0), 0u);
        client.free(client.receive(QEL_IPC_MSG_REPLY));
    };
    EXPECT_EQ(fail_each_allocation(exchange), 1);  // The table, which stays,
    EXPECT_EQ(fail_each_allocation(exchange), 1);  // and the area.
    expect_whole(client);
}

}  // namespace
