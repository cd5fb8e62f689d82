// What the tests of messaging share: a participant of a channel with a dispatcher of its own, the same in a
// child process that obeys line by line and may be killed at any, and a look at a channel's bytes.
#pragma once

#include <qel/ipc.h>
#include <qel/ipc_debug.h>

#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>

#include "dispatch/dm_support.hpp"
#include "support/support.hpp"

namespace qel_test {

inline constexpr std::uint32_t kInline = 100, kLarge = 6000, kMessages = 64;

inline constexpr cerrno kTryAgain = 0x8000000b, kNotPermitted = 0xa0000001, kMissing = 0xa0000002,
                        kNoMemory = 0xa000000c, kInvalid = 0xa0000016, kNoPlace = 0xa000001c,
                        kGone = 0xa0000020, kTimedOut = 0xa000006e, kStillHeld = 0x40000010;

// A channel of small sizes, so that its limits are near.
inline qel_ipc_attr channel_attr(std::uint32_t role, std::uint64_t app_id) {
    qel_ipc_attr attr;
    EXPECT_EQ(qel_ipc_attr_init(&attr, role), 0u);
    attr.msg_mode = 2;
    attr.max_clients = 7;
    attr.max_msg_count = kMessages;
    attr.max_msg_size = kInline;
    attr.large_data_size = 0x20000;
    attr.app_id = app_id;
    return attr;
}

// A dispatcher and the thread that serves it.
class ServedDispatcher {
  public:
    ~ServedDispatcher() {
        EXPECT_EQ(qel_dm_destroy(&dm_.handle), 0);
        servers_.reset();
    }
    qel_dm_handle handle() const { return dm_.handle; }
    // Waits until all that was queued has run.
    void flush() const {
        std::atomic<bool> done{false};
        Function note = [&] { done = true; };
        EXPECT_EQ(execute(dm_.handle, note), 0);
        EXPECT_TRUE(eventually([&] { return done.load(); }));
    }

  private:
    TestDispatcher dm_;
    std::unique_ptr<Servers> servers_ = std::make_unique<Servers>(dm_.handle, 1);
};

// What a handler was told about an end point.
struct Connection {
    std::uint32_t event;
    std::uint64_t app_id;
    qel_ipc_ep_handle ep;
    friend bool operator==(const Connection& one, const Connection& other) {
        return one.event == other.event && one.app_id == other.app_id;
    }
};

// Opens and closes a channel, and notes all that its handler is told. Deals in messages by their handles, or
// by their contexts: those that it gets are held then until they are dropped.
class Participant {
  public:
    Participant(std::string name, const qel_ipc_attr& attr,
                std::shared_ptr<ServedDispatcher> dispatcher = std::make_shared<ServedDispatcher>())
        : name_(std::move(name)), attr_(attr), dispatcher_(std::move(dispatcher)) {}
    Participant(const Participant&) = delete;
    ~Participant() {
        static_cast<void>(close());
        dispatcher_->flush();
    }

    cerrno open() {
        forget();
        return qel_ipc_open(&ipc, name_.c_str(), &attr_, dispatcher_->handle(), note, this);
    }
    // A handler may be running yet, and look at 'ipc'.
    cerrno close() {
        qel_ipc_handle closing = ipc;
        cerrno error = closing == 0 ? 0 : qel_ipc_close(&closing);
        std::lock_guard lock{mutex_};
        ipc = closing;
        return error;
    }

    // Waits until each of 'events' has come since the last forget().
    bool told(std::uint32_t events) {
        return eventually([&] { return (told_ & events) == events; });
    }
    std::uint32_t told_so_far() const { return told_; }
    int times_told(std::uint32_t event) const {
        std::lock_guard lock{mutex_};
        int times = 0;
        for (std::uint32_t each : all_) times += (each & event) != 0;
        return times;
    }
    std::vector<Connection> connections() const {
        std::lock_guard lock{mutex_};
        return connections_;
    }
    bool connected(const std::vector<Connection>& wanted) {
        return eventually([&] { return connections() == wanted; });
    }
    void forget() {
        std::lock_guard lock{mutex_};
        told_ = 0;
        all_.clear();
        connections_.clear();
    }

    qel_ipc_msg alloc(std::uint32_t size, void** area = nullptr) {
        qel_ipc_msg msg = 0;
        EXPECT_EQ(qel_ipc_msg_alloc(ipc, size, &msg, area), 0u);
        return msg;
    }
    void send(qel_ipc_msg msg, qel_ipc_ep_handle to = 0) {
        qel_ipc_send_attr attr{to, 0, 0, 0};
        EXPECT_EQ(qel_ipc_async_send(ipc, &attr, msg), 0u);
    }
    qel_ipc_msg receive(std::uint32_t expected_type) {
        qel_ipc_msg msg = 0;
        std::uint32_t type = 99;
        EXPECT_TRUE(eventually([&] { return qel_ipc_receive(ipc, nullptr, &msg, &type) == 0; }));
        EXPECT_EQ(type, expected_type);
        return msg;
    }
    void free(qel_ipc_msg msg) {
        EXPECT_EQ(qel_ipc_msg_free(&msg), 0u);
        EXPECT_EQ(msg, 0u);
    }
    // With close_flags 1: whether the library counts a message as held by the application.
    bool holds() { return qel_ipc_close(&ipc) == kStillHeld; }

    cerrno hold(std::uint64_t context, std::uint32_t size = 8) {
        qel_ipc_msg msg = 0;
        cerrno error = qel_ipc_msg_alloc(ipc, size, &msg, nullptr);
        if (error != 0) return error;
        EXPECT_EQ(qel_ipc_msg_set_context(msg, context), 0u);
        held.push_back(msg);
        return 0;
    }
    cerrno post(std::uint64_t context, qel_ipc_ep_handle to = 0, std::uint32_t size = 8) {
        if (cerrno error = hold(context, size); error != 0) return error;
        qel_ipc_send_attr attr{to, 0, 0, 0};
        cerrno error = qel_ipc_async_send(ipc, &attr, held.back());
        if (error == 0) held.pop_back();
        return error;
    }
    // The next message's context; 0 when none comes.
    std::uint64_t take(std::chrono::milliseconds limit = 10s) {
        qel_ipc_msg msg = 0;
        std::uint64_t context = 0;
        if (!eventually([&] { return qel_ipc_receive(ipc, nullptr, &msg, nullptr) == 0; }, limit)) return 0;
        held.push_back(msg);
        EXPECT_EQ(qel_ipc_msg_get_context(msg, &context), 0u);
        return context;
    }
    cerrno answer_oldest() {
        void* area = nullptr;
        EXPECT_EQ(qel_ipc_msg_alloc_reply_buffer(held.front(), kLarge, &area), 0u);
        cerrno error = qel_ipc_reply(ipc, nullptr, held.front(), 0x55);
        if (error == 0) held.pop_front();
        return error;
    }
    void drop_held() {
        for (qel_ipc_msg& msg : held) EXPECT_EQ(qel_ipc_msg_free(&msg), 0u);
        held.clear();
    }
    qel_ipc_stats stats() const {
        qel_ipc_stats stats{};
        EXPECT_EQ(qel_ipc_get_stats(ipc, &stats), 0u);
        return stats;
    }

    qel_ipc_handle ipc = 0;
    std::deque<qel_ipc_msg> held;
    std::atomic<bool> handle_was_stored{true};  // whenever the handler ran

  private:
    static void note(qel_ipc_handle ipc, std::uint32_t events, void* self) {
        static_cast<Participant*>(self)->note(ipc, events);
    }
    void note(qel_ipc_handle handle, std::uint32_t events) {
        std::lock_guard lock{mutex_};
        if (handle != ipc) handle_was_stored = false;
        Connection one{};
        std::uint64_t app_id[2];
        while (qel_ipc_get_connection_event(handle, &one.event, &one.ep) == 0) {
            EXPECT_EQ(qel_ipc_ep_get_app_id(handle, one.ep, app_id), 0u);
            one.app_id = app_id[1];
            connections_.push_back(one);
        }
        all_.push_back(events);
        told_ |= events;
    }

    std::string name_;
    qel_ipc_attr attr_;
    mutable std::mutex mutex_;
    std::atomic<std::uint32_t> told_{0};
    std::vector<std::uint32_t> all_;
    std::vector<Connection> connections_;
    std::shared_ptr<ServedDispatcher> dispatcher_;
};

// The role of a participant in a process of its own; QEL_IPC_PEER_ROLE defines it in a test program. Each
// line is a command, and each gets one line of answer:
//
//     open | close              the result, in hexadecimal
//     told EVENTS               "yes" when all bits (hexadecimal) have come, or "no"
//     connections               "EVENT:APP_ID " for each, in hexadecimal
//     alloc N | send N          N messages with contexts 1, 2, ... to the server; how many went
//     take N                    N messages received and held; their contexts
//     reply N                   answers the N oldest of them with a long reply and status 0x55; how many
//     drop                      frees all that is held
//     forget                    what was told so far doesn't count
inline int run_peer(const RoleArgs& args) {
    qel_ipc_attr attr =
        channel_attr(static_cast<std::uint32_t>(std::stoul(args.at(1))), std::stoull(args.at(2)));
    attr.ext_cs = 1;
    Participant peer{args.at(0), attr};
    std::uint64_t next = 1;
    for (std::string line = hear(); !line.empty(); line = hear()) {
        std::istringstream words{line};
        std::ostringstream answer;
        std::string command, argument = "0";
        words >> command >> argument;
        answer << std::hex;
        int count = std::stoi(argument, nullptr, 16), done = 0;
        if (command == "open") answer << peer.open();
        if (command == "close") answer << peer.close();
        if (command == "told") answer << (peer.told(static_cast<std::uint32_t>(count)) ? "yes" : "no");
        if (command == "connections")
            for (const Connection& each : peer.connections())
                answer << each.event << ":" << each.app_id << " ";
        if (command == "alloc") {
            while (done < count && peer.hold(next++) == 0) ++done;
            answer << done;
        }
        if (command == "send") {
            while (done < count && peer.post(next++) == 0) ++done;
            answer << done;
        }
        if (command == "take")
            for (; done < count; ++done) answer << peer.take() << " ";
        if (command == "reply") {
            while (done < count && peer.answer_oldest() == 0) ++done;
            answer << done;
        }
        if (command == "drop") peer.drop_held();
        if (command == "forget") peer.forget();
        say("=" + answer.str());
    }
    return 0;
}
#define QEL_IPC_PEER_ROLE                                                                                    \
    QEL_ROLE(ipc_peer) {                                                                                     \
        return ::qel_test::run_peer(args);                                                                   \
    }

class PeerProcess {
  public:
    PeerProcess(const std::string& name, std::uint32_t role, std::uint64_t app_id)
        : child_("ipc_peer", {name, std::to_string(role), std::to_string(app_id)}) {}
    // Lets one that still runs close its channel: killed inside a lock it would hold up the rest of the test.
    ~PeerProcess() {
        if (child_.pid() <= 0 || child_.wait(std::chrono::milliseconds{0}) != -1000) return;
        child_.write_line("");
        child_.wait(std::chrono::seconds{5});
    }
    std::string ask(const std::string& command) {
        child_.write_line(command);
        std::string answer = child_.read_line();
        return answer.empty() ? "gone" : answer.substr(1);
    }
    // At once, wherever it is: perhaps inside a lock, which then stays held.
    void kill() { child_.kill(); }
    pid_t pid() const { return child_.pid(); }

  private:
    Child child_;
};

}  // namespace qel_test
