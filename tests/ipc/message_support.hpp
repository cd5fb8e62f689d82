// What the tests of messages share: participants of a channel within one process, and what they say of it.
#pragma once

#include "ipc/ipc_support.hpp"

namespace qel_test {

// A server with one client that is up.
struct Channel {
    std::shared_ptr<ServedDispatcher> dispatcher = std::make_shared<ServedDispatcher>();
    std::string name;
    Participant server;
    Participant client;
    static std::string next_name() {
        static int number = 0;
        return "messages" + std::to_string(number++);
    }
    static qel_ipc_attr with(qel_ipc_attr attr, std::uint8_t ext_cs, std::uint32_t close_flags) {
        attr.ext_cs = ext_cs;
        attr.close_flags = close_flags;
        return attr;
    }
    explicit Channel(std::uint8_t ext_cs = 0, std::uint32_t close_flags = 0)
        : name(next_name()),
          server(name, with(channel_attr(QEL_IPC_ROLE_SERVER, 1), ext_cs, close_flags), dispatcher),
          client(name, with(channel_attr(QEL_IPC_ROLE_CLIENT, 2), 0, close_flags), dispatcher) {
        EXPECT_TRUE(server.open() == 0 && client.open() == 0);
        EXPECT_TRUE(client.told(QEL_IPC_EVENT_READY));
        EXPECT_TRUE(server.told(QEL_IPC_EVENT_EP_UPDATE));
    }
};

// Everything is where it was at the start: all messages with their credits can be had at once, and so can a
// chunk as large as half the heap.
inline void expect_whole(Participant& client, std::uint32_t credits = kMessages) {
    std::vector<qel_ipc_msg> all;
    qel_ipc_msg msg = 0;
    while (qel_ipc_msg_alloc(client.ipc, all.empty() ? 0x10000 - 64 : 0, &msg, nullptr) == 0)
        all.push_back(msg);
    EXPECT_EQ(all.size(), credits);
    for (qel_ipc_msg each : all) client.free(each);
}

inline void fill(void* area, std::uint32_t size, std::uint8_t seed) {
    auto* bytes = static_cast<std::uint8_t*>(area);
    for (std::uint32_t i = 0; i < size; ++i) {
        EXPECT_EQ(bytes[i], 0) << "an area that isn't zeroed";
        bytes[i] = static_cast<std::uint8_t>(seed + i * 7);
    }
}

inline void expect_filled(qel_ipc_msg msg, std::uint32_t size, std::uint8_t seed) {
    void* area = &area;
    std::uint32_t length = 99;
    EXPECT_EQ(qel_ipc_msg_get_buffer(msg, &area, &length), 0u);
    EXPECT_EQ(length, size);
    EXPECT_EQ(area == nullptr, size == 0);
    for (std::uint32_t i = 0; i < length; ++i)
        ASSERT_EQ(static_cast<std::uint8_t*>(area)[i], static_cast<std::uint8_t>(seed + i * 7));
}

// Takes messages until told to stop, answering as 'handle' says.
struct Pump {
    std::atomic<bool> stop{false};
    std::thread thread;
    Pump(Participant& participant, std::function<void(qel_ipc_msg)> handle)
        : thread([this, &participant, handle] {
              while (!stop) {
                  qel_ipc_msg msg = 0;
                  if (qel_ipc_receive(participant.ipc, nullptr, &msg, nullptr) == 0)
                      handle(msg);
                  else
                      std::this_thread::yield();
              }
          }) {}
    ~Pump() {
        stop = true;
        thread.join();
    }
};

}  // namespace qel_test
