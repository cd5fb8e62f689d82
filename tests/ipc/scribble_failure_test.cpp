// The hostile peer: a server and three clients under load while somebody writes anything anywhere into the
// segments of their channel.
//
// Each round makes the channel anew, forks the participants and a looker that dumps the channel by name, and
// scribbles while they work. Then all are told to stop. Each must end by itself and cleanly, whatever results
// its calls gave, but for two told ends: the abort of broken accounts, and the wait for a mutex whose word
// says that it is held; both are counted apart. Every buffer that a participant is given is written to in
// full, and must lie in the channel's segments.
//
//     QEL_SCRIBBLE_SECONDS (default 8), QEL_SCRIBBLE_SEED (default 1), QEL_SCRIBBLE_ROUND (this one alone)
#include <qel/dm.h>
#include <qel/ipc.h>
#include <qel/ipc_debug.h>
#include <qel/shm.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ipc/qel_ipc_inspect.hpp"
#include "shm/qel_mem_vchunk_heap.hpp"
#include "support/support.hpp"

namespace {

using namespace std::chrono_literals;
using qel_test::eventually;
using Clock = std::chrono::steady_clock;

constexpr char kChannel[] = "scribble";
constexpr std::uint32_t kClients = 3;
constexpr std::uint32_t kLooker = kClients + 1;
constexpr std::uint32_t kChildren = kLooker + 1;  // the server is 0
constexpr std::uint32_t kMessages = 32;
constexpr std::uint32_t kInline = 64;
constexpr std::uint32_t kHeapSize = 64u << 10;
constexpr auto kTimeToEnd = 8s;

// What the children and the driver tell one another.
struct Board {
    std::atomic<std::uint32_t> stop;
    std::atomic<std::uint32_t> up[kChildren];
    std::atomic<std::uint32_t> outside;  // buffers that don't lie in the channel
    std::atomic<std::uint64_t> handled;
};
Board* board;
std::mt19937 dice;

std::uint32_t any(std::uint32_t below) {
    return static_cast<std::uint32_t>(dice() % below);
}

// ---- The participants. ----

bool lies_in_channel(const void* data, std::uint32_t length) {
    auto from = reinterpret_cast<std::uintptr_t>(data), to = from + length;
    std::ifstream maps{"/proc/self/maps"};
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        std::sscanf(line.c_str(), "%lx-%lx", &start, &end);
        if (from >= start && to <= end) return line.find(kChannel) != std::string::npos;
    }
    return false;
}

void use(void* data, std::uint32_t length) {
    thread_local std::uint32_t uses = 0;
    if (data == nullptr) return;
    if (++uses % 16 == 0 && !lies_in_channel(data, length)) board->outside.fetch_add(1);
    std::memset(data, static_cast<int>(length), length);
}

void answer(qel_ipc_handle ipc, qel_ipc_msg msg) {
    void* data = nullptr;
    std::uint32_t length = 0;
    board->handled.fetch_add(1);
    if (qel_ipc_msg_get_buffer(msg, &data, &length) == 0) use(data, length);
    if (length % 5 == 0) qel_ipc_msg_free_incoming_buffer(msg);
    std::uint32_t reply = length * 7 % 400;
    if (qel_ipc_msg_alloc_reply_buffer(msg, reply, &data) == 0 && data != nullptr)
        std::memset(data, 1, reply);
    if (length % 3 == 0 || qel_ipc_reply(ipc, nullptr, msg, 0) != 0) qel_ipc_msg_free(&msg);
}

void hear(qel_ipc_msg msg) {
    void* data = nullptr;
    std::uint32_t length = 0;
    qel_ipc_ep_handle sender = 0;
    if (qel_ipc_msg_get_reply_buffer(msg, &data, &length) == 0) use(data, length);
    qel_ipc_msg_get_sender_ep(msg, &sender);
    qel_ipc_msg_free(&msg);
}

void on_event(qel_ipc_handle ipc, std::uint32_t, void* is_server) {
    qel_ipc_msg msg;
    std::uint32_t event;
    qel_ipc_ep_handle ep;
    std::uint64_t app_id[2];
    while (qel_ipc_get_connection_event(ipc, &event, &ep) == 0) qel_ipc_ep_get_app_id(ipc, ep, app_id);
    for (std::uint32_t left = 4 * kMessages; left > 0; --left) {
        if (qel_ipc_receive(ipc, nullptr, &msg, nullptr) != 0) break;
        is_server != nullptr ? answer(ipc, msg) : hear(msg);
    }
}

void send_some(qel_ipc_handle ipc) {
    for (int sent = 0; sent < 20 && board->stop.load() == 0; ++sent) {
        qel_ipc_msg msg = 0, reply = 0;
        void* data = nullptr;
        std::uint32_t length = any(4) == 0 ? any(2000) : any(kInline), status = 0;
        if (qel_ipc_msg_alloc(ipc, length, &msg, &data) != 0) {
            usleep(200);
            continue;
        }
        use(data, length);
        qel_ipc_send_attr attr{};
        attr.timeout_ms = 5;
        cerrno error = any(4) == 0 ? qel_ipc_sync_send(ipc, &attr, msg, &reply, &status)
                                   : qel_ipc_async_send(ipc, nullptr, msg);
        if (error != 0) qel_ipc_msg_free(&msg);
        if (reply != 0) hear(reply);
    }
}

void ask_server(qel_ipc_handle ipc) {
    std::array<qel_ipc_ep_handle, 32> list{};
    std::uint32_t count = 0;
    qel_ipc_ep_get_list(ipc, list.data(), list.size(), &count);
    for (std::uint32_t i = 0; i < count; ++i) {
        qel_ipc_msg msg = 0;
        void* data = nullptr;
        qel_ipc_send_attr attr{};
        attr.dest_ep = list[i];
        if (qel_ipc_msg_alloc(ipc, any(100), &msg, &data) != 0) continue;
        if (qel_ipc_async_send(ipc, &attr, msg) != 0) qel_ipc_msg_free(&msg);
    }
    usleep(1000);
}

void stay_open(qel_ipc_handle ipc, bool is_server) {
    for (std::uint32_t turn = any(40) + 2; turn > 0 && board->stop.load() == 0; --turn) {
        is_server ? ask_server(ipc) : send_some(ipc);
        qel_ipc_stats stats;
        qel_ipc_get_stats(ipc, &stats);
        if (turn % 16 == 0) qel_ipc_dump(ipc, 3);
    }
}

[[noreturn]] void participate(std::uint32_t who) {
    bool is_server = who == 0;
    qel_dm_handle dm = 0;
    qel_ipc_handle ipc = 0;
    qel_ipc_attr attr;
    qel_ipc_attr_init(&attr, is_server ? QEL_IPC_ROLE_SERVER : QEL_IPC_ROLE_CLIENT);
    attr.msg_mode = 2;
    attr.max_clients = kClients;
    attr.max_msg_count = kMessages;
    attr.max_msg_size = kInline;
    attr.large_data_size = kHeapSize;
    attr.ext_cs = 1;
    attr.app_id = who + 100;
    if (qel_dm_create(&dm, "scribble", 0) != 0) _exit(10);
    std::thread{[dm] {
        while (qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    }}.detach();
    do {
        if (qel_ipc_open(&ipc, kChannel, &attr, dm, on_event, is_server ? board : nullptr) != 0) {
            usleep(2000);
            continue;
        }
        board->up[who].store(1);
        stay_open(ipc, is_server);
        qel_ipc_close(&ipc);
    } while (board->stop.load() == 0);
    _exit(0);
}

[[noreturn]] void look_on() {
    board->up[kLooker].store(1);
    while (board->stop.load() == 0) {
        qel_ipc_debug(QEL_IPC_DEBUG_DUMP, kChannel, any(4));
        qel_ipc_debug(QEL_IPC_DEBUG_TRACE_LEVEL, kChannel, any(4));
        qel_ipc_debug(QEL_IPC_DEBUG_AUDIT_LEVEL, kChannel, any(4));
        qel::ChannelLook channel;
        if (channel.read(kChannel) == 0) channel.check([](const qel::Finding&) {});
        usleep(500);
    }
    _exit(0);
}

// ---- The scribbler. ----

// All segments of the channel as they are now.
class Segments {
  public:
    Segments() {
        map(kChannel, 0);
        map(std::string{kChannel} + ".heap", 1);
        for (std::uint32_t ep = 0; ep <= kClients; ++ep)
            map(std::string{kChannel} + "." + std::to_string(ep), 2 + ep);
    }
    ~Segments() {
        for (auto& segment : all_)
            if (segment.words != nullptr) munmap(segment.words, segment.size);
    }
    Segments(const Segments&) = delete;

    // One word of one segment, more often one that others rely on.
    std::uint32_t* pick(bool locks_too);
    // Whether a mutex's word says that it is held.
    bool any_lock_held() const;

  private:
    struct Segment {
        std::uint32_t* words = nullptr;
        std::size_t size = 0;
    };
    void map(const std::string& name, std::size_t index) {
        int file = ::open(qel_test::shm_file(name).c_str(), O_RDWR | O_CLOEXEC);
        if (file < 0) return;
        auto size = static_cast<std::size_t>(lseek(file, 0, SEEK_END));
        void* bytes =
            size < 4 ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ::close(file);
        if (bytes != MAP_FAILED) all_[index] = {static_cast<std::uint32_t*>(bytes), size};
    }
    static std::vector<std::size_t> mutexes(std::size_t index);
    static std::size_t telling_place(std::size_t index);

    std::array<Segment, kClients + 3> all_{};
};

// Where a segment's mutexes lie.
std::vector<std::size_t> Segments::mutexes(std::size_t index) {
    if (index == 1) return {12 + offsetof(qel::VchunkHeapHeader, lock)};
    if (index > 1) return {offsetof(qel::RingHeader, ring_prod), offsetof(qel::RingHeader, ring_free)};
    std::vector<std::size_t> places{offsetof(qel_ipc_hdr, shm_mutex), offsetof(qel_ipc_hdr, fc_lock)};
    for (std::size_t ep = 0; ep < qel::kMaxEndPoints; ++ep)
        places.push_back(offsetof(qel_ipc_hdr, eps) + ep * sizeof(qel::EndPointRecord) +
                         offsetof(qel::EndPointRecord, sep) + offsetof(qel_sep_record, sep_mutex));
    return places;
}

bool Segments::any_lock_held() const {
    for (std::size_t index = 0; index < all_.size(); ++index)
        for (std::size_t place : mutexes(index))
            if (all_[index].words != nullptr && place + 4 <= all_[index].size &&
                all_[index].words[place / 4] != 0)
                return true;
    return false;
}

// A word that all rely on: of an end point, a ring's header and slots, a message, a chunk.
std::size_t Segments::telling_place(std::size_t index) {
    constexpr std::size_t kFields[] = {offsetof(qel::EndPointRecord, ep_state),
                                       offsetof(qel::EndPointRecord, closing) & ~std::size_t{3},
                                       offsetof(qel::EndPointRecord, sep),
                                       offsetof(qel::EndPointRecord, sep) + 4,
                                       offsetof(qel::EndPointRecord, app_id),
                                       offsetof(qel::EndPointRecord, app_id) + 8,
                                       offsetof(qel::EndPointRecord, restarts),
                                       offsetof(qel::EndPointRecord, alloc),
                                       offsetof(qel::EndPointRecord, reserved_credits)};
    constexpr std::size_t kSlotsEnd = sizeof(qel::RingHeader) + 2 * kMessages;
    std::size_t end_point = offsetof(qel_ipc_hdr, eps) + any(kClients + 1) * sizeof(qel::EndPointRecord);
    if (index == 0 && any(4) == 0) return any(50);
    if (index == 0) return (end_point + kFields[any(std::size(kFields))]) / 4;
    if (index == 1) return (12 + qel::kVchunkOverhead) / 4 + 32 * any(kHeapSize / 128) + any(6);
    if (index == 2 && any(2) == 0)
        return (kSlotsEnd + any(kMessages) * (sizeof(qel_ring_msg) + kInline)) / 4 + any(12);
    return any(kSlotsEnd / 4);
}

std::uint32_t* Segments::pick(bool locks_too) {
    std::size_t index = any(static_cast<std::uint32_t>(all_.size()));
    const Segment& segment = all_[index];
    if (segment.words == nullptr) return nullptr;
    std::size_t at = any(2) == 0 ? telling_place(index) : any(static_cast<std::uint32_t>(segment.size / 4));
    if (at >= segment.size / 4) return nullptr;
    for (std::size_t place : mutexes(index)) {
        bool is_doorbell = index == 0 && place >= offsetof(qel_ipc_hdr, eps);
        bool is_lock_word = at == place / 4 || at == place / 4 + 2;
        if (is_lock_word && !locks_too) return nullptr;
        // The C library takes these by itself when a sleeper wakes, and asserts what stands there.
        if (is_doorbell && (at == place / 4 + 2 || at == place / 4 + 4)) return nullptr;
    }
    return segment.words + at;
}

std::uint32_t value_for(std::uint32_t now) {
    constexpr std::uint32_t kTelling[] = {0,      1,      2,       3,          31,         32,         33,
                                          0x8000, 0xffff, 0x10000, 0x7fffffff, 0x80000000, 0xffffffff, 64};
    switch (any(8)) {
    case 0:
        return static_cast<std::uint32_t>(dice());
    case 1:
        return now + 1;
    case 2:
        return now - 1;
    case 3:
        return now ^ (1u << any(32));
    case 4:
        return any(kHeapSize) & ~7u;
    case 5:
        return any(kMessages + 2) | any(kMessages + 2) << 16;
    default:
        return kTelling[any(std::size(kTelling))];
    }
}

// Gives all the segments that there were: who waits for a mutex may do so in one that was made anew since.
std::vector<std::unique_ptr<Segments>> scribble(bool locks_too) {
    std::vector<std::unique_ptr<Segments>> looks;
    std::uint32_t writes = 1u << any(9), pause_us = any(400);
    for (int look = 0; look < 4; ++look) {
        looks.push_back(std::make_unique<Segments>());
        Segments& segments = *looks.back();
        for (std::uint32_t written = 0; written < writes; ++written) {
            if (std::uint32_t* word = segments.pick(locks_too); word != nullptr)
                __atomic_store_n(word, value_for(*word), __ATOMIC_RELAXED);
            if (written % 4 == 3 && pause_us > 20) usleep(pause_us / 4);
        }
        usleep(5000);
    }
    return looks;
}

// ---- The driver. ----

struct Tally {
    std::uint32_t rounds = 0, aborts = 0, waits = 0;
};

std::string output_of(std::uint32_t who) {
    return "/tmp/qel_scribble." + std::to_string(getpid()) + "." + std::to_string(who);
}

[[noreturn]] void live(std::uint32_t who, std::uint32_t round, const std::string& output) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int file = ::open(output.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
    int nothing = ::open("/dev/null", O_WRONLY);
    dup2(nothing, 1);
    dup2(file, 2);
    dice.seed(round * kChildren + who);
    who == kLooker ? look_on() : participate(who);
}

class Round {
  public:
    Round(std::uint32_t number, Tally& tally) : number_(number), tally_(tally) {}
    void play();

  private:
    bool ended(std::uint32_t who);
    void judge(std::uint32_t who);
    std::string words_of(std::uint32_t who) {
        std::ifstream file{output_of(who)};
        return {std::istreambuf_iterator<char>{file}, {}};
    }

    std::uint32_t number_;
    Tally& tally_;
    std::array<pid_t, kChildren> pids_{};
    std::array<int, kChildren> status_{};
};

bool Round::ended(std::uint32_t who) {
    if (pids_[who] > 0 && waitpid(pids_[who], &status_[who], WNOHANG) == pids_[who]) pids_[who] = 0;
    return pids_[who] == 0;
}

// An abort that the library wrote nothing about to the standard error, as the C library and the sanitizers
// do, is the told one.
void Round::judge(std::uint32_t who) {
    int status = status_[who];
    std::string words = words_of(who);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && words.find("rror:") == std::string::npos) return;
    bool told = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && words.find("ssert") == words.npos &&
                words.find("futex") == words.npos && words.find("ddressSan") == words.npos;
    ++tally_.aborts;
    EXPECT_TRUE(told) << "round " << number_ << ", child " << who << ": status " << std::hex << status << "\n"
                      << words.substr(0, 6000);
}

void Round::play() {
    qel_ipc_cleanup(kChannel);
    dice.seed(number_);
    new (board) Board{};
    for (std::uint32_t who = 0; who < kChildren; ++who) {
        std::string output = output_of(who);  // with this process's ID, not the child's
        pids_[who] = fork();
        if (pids_[who] == 0) live(who, number_, output);
    }
    eventually([&] { return board->up[0].load() + board->up[1].load() == 2; }, 3s);
    auto looks = scribble(number_ % 8 == 7);
    board->stop.store(1);
    auto all_ended = [&] {
        bool all = true;
        for (std::uint32_t who = 0; who < kChildren; ++who) all &= ended(who);
        return all;
    };
    bool in_time = eventually(all_ended, kTimeToEnd);
    if (!in_time) {
        looks.push_back(std::make_unique<Segments>());
        bool told = std::any_of(looks.begin(), looks.end(), [](auto& look) { return look->any_lock_held(); });
        ++tally_.waits;
        EXPECT_TRUE(told) << "round " << number_ << ": somebody hangs, and no lock is held";
    }
    for (std::uint32_t who = 0; who < kChildren; ++who) {
        if (pids_[who] == 0) {
            judge(who);
            continue;
        }
        kill(pids_[who], SIGKILL);
        waitpid(pids_[who], nullptr, 0);
    }
    ++tally_.rounds;
    EXPECT_EQ(board->outside.load(), 0u) << "round " << number_ << ": buffers outside of the channel";
}

std::uint32_t number_from(const char* variable, std::uint32_t otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)) : otherwise;
}

TEST(Scribble, peers_of_one_who_writes_anything_anywhere_end_by_themselves) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a lock that was written over lets two threads in, and that race is the writer's";
#endif
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    board = static_cast<Board*>(memory);
    Tally tally;
    std::uint64_t handled = 0;
    std::uint32_t first = number_from("QEL_SCRIBBLE_SEED", 1) * 10000,
                  only = number_from("QEL_SCRIBBLE_ROUND", 0);
    auto end = Clock::now() + std::chrono::seconds{number_from("QEL_SCRIBBLE_SECONDS", 8)};
    for (std::uint32_t number = only != 0 ? only : first; Clock::now() < end && !HasFailure(); ++number) {
        Round{number, tally}.play();
        handled += board->handled.load();
        if (only != 0) break;
    }
    for (std::uint32_t who = 0; who < kChildren; ++who) unlink(output_of(who).c_str());
    qel_ipc_cleanup(kChannel);
    std::printf("scribble: %u rounds, %lu messages handled; %u told aborts, %u rounds ended in a wait for a "
                "held mutex\n",
                tally.rounds, handled, tally.aborts, tally.waits);
    EXPECT_GT(handled, 0u);
}

}  // namespace
