// The participants of the chaos test: a server and clients under load, and the book that all of them share.
//
// The book says of each message what its sender and its receiver know of it, independently of the library:
//
//     tried -> sent -> got            a request, by its sender, then by the server
//     answered -> heard               its reply, by the server, then by the sender
//
// A client sends asynchronously from its handler and synchronously from a second thread, each a sender of the
// book, and closes and opens its channel now and then.
#pragma once

#include <qel/dm.h>
#include <qel/ipc.h>

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>

namespace qel_chaos {

inline constexpr char kChannel[] = "chaos";
inline constexpr std::uint32_t kClients = 8;
inline constexpr std::uint32_t kParticipants = kClients + 1;  // the server is 0
inline constexpr std::uint32_t kSenders = 2 * kClients;       // asynchronous ones, then synchronous ones
inline constexpr std::uint32_t kPlaces = kClients + 4;        // closed ones may wait for their last message
inline constexpr std::uint32_t kNumbers = 4u << 20;           // messages of one sender in a run
inline constexpr std::uint32_t kWindow = 6;                   // of a client, on their way
inline constexpr std::uint32_t kMessages = 64;
inline constexpr std::uint32_t kInline = 64;
inline constexpr std::uint32_t kLong = 600;
inline constexpr std::uint32_t kSyncTimeoutMs = 20;
inline constexpr std::uint32_t kTicksToClose = 16;  // on the average

// What is known of one message. The bits of a row are set by different processes, each its own.
enum : std::uint8_t {
    kTried = 1,
    kSent = 2,
    kGot = 4,
    kAnswered = 8,
    kHeard = 16,
    kWentWithTheDead = 32,
    kTwice = 64,
    kGaveUp = 128  // its sender closed the channel or stopped waiting: nobody hears the reply
};

struct Book {
    std::atomic<std::uint32_t> stop;    // clients allocate no more
    std::atomic<std::uint32_t> broken;  // a participant found bytes that aren't the message's
    std::atomic<std::uint32_t> closes;
    std::atomic<std::uint64_t> got[kParticipants];
    std::atomic<std::uint32_t> next[kSenders];      // a sender's next number, also for its next life
    std::atomic<std::uint32_t> given_up[kSenders];  // numbers below this one are
    std::atomic<std::uint8_t> rows[kSenders][kNumbers];
};
inline Book* book;

// A message's bytes: who, which, and a pattern to the end.
struct Body {
    std::uint32_t sender;
    std::uint32_t number;
};

constexpr std::uint64_t app_id_of(std::uint32_t who) {
    return who + 100;
}

inline bool is_synchronous(std::uint32_t sender) {
    return sender >= kClients;
}
inline bool wants_reply(const Body& body) {
    return is_synchronous(body.sender) || body.number % 4 != 3;
}

inline void note(std::uint32_t sender, std::uint32_t number, std::uint8_t bit) {
    std::uint8_t before = book->rows[sender][number].fetch_or(bit);
    if ((before & bit) != 0 && (bit == kGot || bit == kHeard)) book->rows[sender][number].fetch_or(kTwice);
}

// Of all that the sender has tried so far nobody hears a reply any more.
inline void give_up_all(std::uint32_t sender) {
    std::uint32_t end = book->next[sender].load();
    for (std::uint32_t number = book->given_up[sender].load(); number < end; ++number)
        note(sender, number, kGaveUp);
    book->given_up[sender].store(end);
}

inline std::uint32_t length_of(std::uint32_t number) {
    return number % 16 == 0 ? kLong : 8 + number % (kInline - 8);
}

inline void fill(void* data, const Body& body) {
    std::memset(data, static_cast<int>(body.number & 0xff), length_of(body.number));
    std::memcpy(data, &body, sizeof body);
}

// Reads a message's identity, and refuses one whose bytes aren't what its sender wrote.
inline bool read_body(const void* data, std::uint32_t length, Body& body) {
    if (data == nullptr || length < sizeof body) return false;
    std::memcpy(&body, data, sizeof body);
    if (body.sender >= kSenders || body.number >= kNumbers || length != length_of(body.number)) return false;
    auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::uint32_t i = sizeof body; i < length; ++i)
        if (bytes[i] != (body.number & 0xff)) return false;
    return true;
}

// ---- The server. ----

inline void serve(qel_ipc_handle ipc, qel_ipc_msg msg) {
    void* data = nullptr;
    std::uint32_t length = 0;
    Body body{};
    qel_ipc_msg_get_buffer(msg, &data, &length);
    if (!read_body(data, length, body)) {
        book->broken.store(1);
        return;
    }
    note(body.sender, body.number, kGot);
    book->got[0].fetch_add(1);
    if (!wants_reply(body)) {
        qel_ipc_msg_free(&msg);
        return;
    }
    void* answer = nullptr;
    if (qel_ipc_msg_alloc_reply_buffer(msg, length, &answer) == 0)
        fill(answer, body);
    else
        note(body.sender, body.number, kGaveUp);  // a reply without data doesn't say to what
    if (qel_ipc_reply(ipc, nullptr, msg, 0) == 0)
        note(body.sender, body.number, kAnswered);
    else
        qel_ipc_msg_free(&msg);
}

inline void on_server_event(qel_ipc_handle ipc, std::uint32_t, void*) {
    qel_ipc_msg msg;
    while (qel_ipc_receive(ipc, nullptr, &msg, nullptr) == 0) serve(ipc, msg);
}

// ---- A client. ----

inline std::uint32_t me;  // 1 to kClients
inline std::uint32_t on_their_way;
inline std::atomic<qel_ipc_handle> channel;
inline std::atomic<std::uint32_t> closings;
inline qel_dm_handle dispatcher;

// A new message, filled and tried; false without one.
inline bool begin_message(qel_ipc_handle ipc, std::uint32_t sender, qel_ipc_msg& msg, Body& body) {
    body = {sender, book->next[sender].load()};
    void* data = nullptr;
    if (body.number >= kNumbers || qel_ipc_msg_alloc(ipc, length_of(body.number), &msg, &data) != 0)
        return false;
    book->next[sender].store(body.number + 1);
    fill(data, body);
    note(sender, body.number, kTried);
    return true;
}

inline bool send_one(qel_ipc_handle ipc) {
    qel_ipc_msg msg;
    Body body;
    if (!begin_message(ipc, me - 1, msg, body)) return false;
    if (qel_ipc_async_send(ipc, nullptr, msg) != 0) {
        qel_ipc_msg_free(&msg);
        return false;
    }
    note(body.sender, body.number, kSent);
    if (wants_reply(body)) ++on_their_way;
    return true;
}

// False for a reply without data: it comes from a server that found no memory for it, or its channel has
// closed.
inline bool hear(qel_ipc_msg msg, std::uint32_t sender) {
    void* data = nullptr;
    std::uint32_t length = 0;
    Body body{};
    qel_ipc_msg_get_reply_buffer(msg, &data, &length);
    if (length != 0 && (!read_body(data, length, body) || body.sender != sender)) book->broken.store(1);
    if (length != 0) note(body.sender, body.number, kHeard);
    book->got[me].fetch_add(1);
    qel_ipc_msg_free(&msg);
    return length != 0;
}

inline void on_client_event(qel_ipc_handle ipc, std::uint32_t events, void*) {
    qel_ipc_msg msg;
    if ((events & QEL_IPC_EVENT_EP_UPDATE) != 0) on_their_way = 0;  // who knows what the server took with it
    while (qel_ipc_receive(ipc, nullptr, &msg, nullptr) == 0) {
        if (on_their_way > 0) --on_their_way;
        hear(msg, me - 1);
    }
    while (book->stop.load() == 0 && on_their_way < kWindow && send_one(ipc)) {
    }
}

// One synchronous send; false without a channel or message for it.
inline bool converse_once(std::uint32_t sender) {
    qel_ipc_handle ipc = channel.load();
    qel_ipc_msg msg, reply = 0;
    Body body;
    std::uint32_t closings_before = closings.load();
    if (ipc == 0 || !begin_message(ipc, sender, msg, body)) return false;
    qel_ipc_send_attr attr;
    qel_ipc_send_attr_init(&attr);
    attr.timeout_ms = kSyncTimeoutMs;
    if (qel_ipc_sync_send(ipc, &attr, msg, &reply, nullptr) == 0) {
        note(sender, body.number, kSent);
        // The other thread may have closed the channel between the reply's arrival and its reading.
        if (!hear(reply, sender) && closings.load() != closings_before) note(sender, body.number, kGaveUp);
    } else {
        note(sender, body.number, kGaveUp);
        qel_ipc_msg_free(&msg);  // Unless it is on its way.
    }
    return true;
}

inline void* converse(void*) {
    std::uint32_t sender = kClients + me - 1;
    for (;;)
        if (book->stop.load() != 0 || !converse_once(sender)) usleep(1000);
}

inline qel_ipc_handle open_until_it_works(std::uint32_t who) {
    qel_ipc_handle ipc = 0;
    qel_ipc_attr attr;
    qel_ipc_attr_init(&attr, who == 0 ? QEL_IPC_ROLE_SERVER : QEL_IPC_ROLE_CLIENT);
    attr.msg_mode = who == 0 ? 1 : 3;
    attr.max_clients = kPlaces;
    attr.max_msg_count = kMessages;
    attr.max_msg_size = kInline;
    attr.large_data_size = 256u << 10;
    attr.app_id = app_id_of(who);
    while (qel_ipc_open(&ipc, kChannel, &attr, dispatcher, who == 0 ? on_server_event : on_client_event,
                        nullptr) != 0)
        usleep(500);
    return ipc;
}

inline void close_and_open() {
    give_up_all(me - 1);
    closings.fetch_add(1);
    qel_ipc_handle ipc = channel.exchange(0);
    if (qel_ipc_close(&ipc) != 0) book->broken.store(1);
    book->closes.fetch_add(1);
    channel.store(open_until_it_works(me));
}

// Sends also when nothing comes: a reply may have gone with a server.
inline void on_tick(qel_dm_handle dm, qel_dm_timer timer, void*) {
    constexpr timespec kTick{0, 3'000'000};
    static std::minstd_rand random{static_cast<std::uint32_t>(getpid())};
    on_their_way = 0;
    if (book->stop.load() == 0 && random() % kTicksToClose == 0) close_and_open();
    on_client_event(channel.load(), 0, nullptr);
    qel_dm_timer_settime(dm, timer, &kTick);
}

inline void begin_client() {
    give_up_all(kClients + me - 1);  // what a former life waited for
    pthread_t thread;
    qel_dm_timer timer = nullptr;
    if (pthread_create(&thread, nullptr, converse, nullptr) != 0) _exit(12);
    qel_dm_timer_register(dispatcher, &timer, on_tick, nullptr);
    on_tick(dispatcher, timer, nullptr);
}

// A participant's life, which ends by SIGKILL.
[[noreturn]] inline void live(std::uint32_t who) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    me = who;
    if (qel_dm_create(&dispatcher, "chaos", 0) != 0) _exit(10);
    channel.store(open_until_it_works(who));
    if (who != 0) begin_client();
    while (qel_dm_wait(dispatcher) == 0) qel_dm_dispatch(dispatcher);
    _exit(11);
}

}  // namespace qel_chaos
