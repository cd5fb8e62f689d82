// What the tests of messages share: participants of a channel within one process, and what they say of it.
#pragma once

#include <qel/ipc.h>
#include <qel/ipc_debug.h>

#include <cstring>
#include <memory>
#include <thread>

#include "dispatch/dm_support.hpp"
#include "support/support.hpp"

namespace qel_test {

inline constexpr std::uint32_t kInline = 100;
inline constexpr std::uint32_t kLarge = 6000;
inline constexpr std::uint32_t kMessages = 64;

inline constexpr cerrno kTryAgain = 0x8000000b, kNotPermitted = 0xa0000001, kNoMemory = 0xa000000c,
                        kInvalid = 0xa0000016, kGone = 0xa0000020, kTimedOut = 0xa000006e,
                        kStillHeld = 0x40000010;

// One participant, whose handler only notes what it was told.
struct Participant {
    qel_ipc_handle ipc = 0;
    std::atomic<std::uint32_t> events{0};

    static void note(qel_ipc_handle, std::uint32_t events, void* self) {
        static_cast<Participant*>(self)->events |= events;
    }
    Participant(const std::string& name, const qel_ipc_attr& attr, qel_dm_handle dm) {
        EXPECT_EQ(qel_ipc_open(&ipc, name.c_str(), &attr, dm, note, this), 0u);
    }
    Participant(const Participant&) = delete;
    ~Participant() { close(); }
    void close() {
        if (ipc != 0) {
            EXPECT_EQ(qel_ipc_close(&ipc), 0u);
        }
    }
    bool told(std::uint32_t event) {
        return eventually([&] { return (events & event) != 0; });
    }

    qel_ipc_msg alloc(std::uint32_t size, void** area = nullptr) {
        qel_ipc_msg msg = 0;
        EXPECT_EQ(qel_ipc_msg_alloc(ipc, size, &msg, area), 0u);
        return msg;
    }
    qel_ipc_msg receive(std::uint32_t expected_type) {
        qel_ipc_msg msg = 0;
        std::uint32_t type = 99;
        EXPECT_TRUE(eventually([&] { return qel_ipc_receive(ipc, nullptr, &msg, &type) == 0; }));
        EXPECT_EQ(type, expected_type);
        return msg;
    }
    void send(qel_ipc_msg msg, qel_ipc_ep_handle to = 0) {
        qel_ipc_send_attr attr{to, 0, 0, 0};
        EXPECT_EQ(qel_ipc_async_send(ipc, &attr, msg), 0u);
    }
    void free(qel_ipc_msg msg) {
        EXPECT_EQ(qel_ipc_msg_free(&msg), 0u);
        EXPECT_EQ(msg, 0u);
    }
    // With close_flags 1: whether the library counts a message as held by the application.
    bool holds() { return qel_ipc_close(&ipc) == kStillHeld; }
};

inline qel_ipc_attr attributes(std::uint32_t role, std::uint64_t app_id) {
    qel_ipc_attr attr;
    EXPECT_EQ(qel_ipc_attr_init(&attr, role), 0u);
    attr.msg_mode = 2;
    attr.max_clients = 3;
    attr.max_msg_count = kMessages;
    attr.max_msg_size = kInline;
    attr.large_data_size = 0x20000;
    attr.app_id = app_id;
    return attr;
}

struct Dispatched {
    TestDispatcher dispatcher;
    std::unique_ptr<Servers> threads = std::make_unique<Servers>(dispatcher.handle, 2);
    ~Dispatched() {
        EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
        threads.reset();
    }
};

// A server with one client that is up.
struct Channel {
    Dispatched dispatched;
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
        : name(next_name()), server(name, with(attributes(QEL_IPC_ROLE_SERVER, 1), ext_cs, close_flags),
                                    dispatched.dispatcher.handle),
          client(name, with(attributes(QEL_IPC_ROLE_CLIENT, 2), 0, close_flags),
                 dispatched.dispatcher.handle) {
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
