// One transport in one contest: its server and clients, each a process of its own, pinned, and asleep unless
// it has been told to run a batch.
//
// Every process has a socket to the driver. The driver sends an Order, the process answers with a Report; a
// process that dies or doesn't answer in time ends its session, not the run. All die with the driver.
#pragma once

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <vector>

#include "ipc/counters.hpp"
#include "ipc/transport.hpp"

namespace qel_bench {

struct Order {
    enum class Kind : std::uint64_t { accept, batch, stop } kind;
    std::uint64_t count;       // messages, of this process
    std::uint64_t tracepoint;  // of system calls, if they are to be counted
};
struct Report {
    std::int64_t begun = 0;
    std::int64_t ended = 0;
    Spent spent;
};

// What a batch came to, all processes together.
struct Batch {
    std::int64_t nanoseconds = 0;
    Spent spent;
};

// One process of a session, as the driver sees it.
class Member {
  public:
    // 'life' runs in the new process, with the socket on which the orders come.
    template <class Life>
    Member(unsigned core, Life life) {
        int ends[2];
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
        const pid_t driver = getpid();
        pid_ = fork();
        require(pid_ >= 0, "fork");
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != driver) std::_Exit(1);
            pin(core);
            close(ends[0]);
            life(ends[1]);
            const Report gone;  // all that the transport had made has been taken down
            send(ends[1], &gone, sizeof gone, MSG_NOSIGNAL);
            std::_Exit(0);
        }
        close(ends[1]);
        socket_ = ends[0];
    }
    Member(const Member&) = delete;
    Member(Member&& other) noexcept
        : pid_(std::exchange(other.pid_, -1)), socket_(std::exchange(other.socket_, -1)) {}
    ~Member() {
        if (pid_ < 0) return;
        tell({Order::Kind::stop, 0, 0});
        Report last;
        if (!answer(last)) kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(socket_);
    }
    void tell(const Order& order) const { send(socket_, &order, sizeof order, MSG_NOSIGNAL); }
    // False if the process has died or taken too long.
    bool answer(Report& report) const {
        constexpr int kLongestMs = 8'000;
        pollfd wanted{socket_, POLLIN, 0};
        return poll(&wanted, 1, kLongestMs) == 1 && recv(socket_, &report, sizeof report, 0) == sizeof report;
    }

  private:
    static void pin(unsigned core) {
        cpu_set_t cores;
        CPU_ZERO(&cores);
        CPU_SET(core, &cores);
        require(sched_setaffinity(0, sizeof cores, &cores) == 0, "sched_setaffinity");
    }
    pid_t pid_ = -1;
    int socket_ = -1;
};

class AnySession {
  public:
    virtual ~AnySession() = default;
    virtual const char* name() const = 0;
    // Server and clients are there and have found one another.
    virtual bool start() = 0;
    // 'count' messages of each client; nothing if the session is broken.
    virtual std::optional<Batch> run(std::uint64_t count, std::uint64_t tracepoint) = 0;
    // The round trips of the first client in the last batch, as far as they were kept.
    virtual std::span<const std::uint32_t> laps(std::uint64_t count) const = 0;
};

template <Transport T>
class Session : public AnySession {
  public:
    explicit Session(const Site& site) : site_(site), ground_(site_) {}
    ~Session() override {
        clients_.clear();
        server_.reset();
    }
    const char* name() const override { return T::kName; }

    bool start() override {
        server_.emplace(site_.one_core ? 0u : 1u, [this](int socket) { live_as_server(socket); });
        Report ready;
        if (!server_->answer(ready)) return false;
        server_->tell({Order::Kind::accept, 0, 0});
        for (unsigned number = 0; number < site_.clients; ++number)
            clients_.emplace_back(0u, [this, number](int socket) { live_as_client(socket, number); });
        return all_answer() && server_->answer(ready);
    }

    std::optional<Batch> run(std::uint64_t count, std::uint64_t tracepoint) override {
        server_->tell({Order::Kind::batch, count * site_.clients, tracepoint});
        for (Member& client : clients_) client.tell({Order::Kind::batch, count, tracepoint});
        Report whole{INT64_MAX, 0, {}};
        if (!all_answer(&whole)) return {};
        Report servers;
        if (!server_->answer(servers)) return {};
        whole.spent.add(servers.spent);
        return Batch{std::max(whole.ended, servers.ended) - whole.begun, whole.spent};
    }

    std::span<const std::uint32_t> laps(std::uint64_t count) const override {
        return laps_.all().first(std::min<std::size_t>(count, kMostLaps));
    }

  private:
    static constexpr std::size_t kMostLaps = 1 << 17;

    bool all_answer(Report* whole = nullptr) {
        for (Member& client : clients_) {
            Report one;
            if (!client.answer(one)) return false;
            if (whole == nullptr) continue;
            whole->begun = std::min(whole->begun, one.begun);
            whole->ended = std::max(whole->ended, one.ended);
            whole->spent.add(one.spent);
        }
        return true;
    }

    void live_as_server(int socket) {
        typename T::Server server{ground_, site_};
        live(socket, [&](const Order& order) {
            if (order.kind == Order::Kind::accept) return server.accept();
            server.serve(order.count);
        });
    }
    // Of many clients the first one's round trips stand for all.
    void live_as_client(int socket, unsigned number) {
        typename T::Client client{ground_, site_, number};
        live(socket, [&](const Order& order) {
            if (!site_.replies()) return client.send(order.count);
            Laps laps{order.count, number == 0 ? laps_.all() : std::span<std::uint32_t>{}};
            client.call(laps);
        });
    }
    // Says that it's ready, then does as it is told.
    template <class Obey>
    static void live(int socket, Obey obey) {
        Report report;
        Order order{};
        while (send(socket, &report, sizeof report, MSG_NOSIGNAL) == sizeof report) {
            if (recv(socket, &order, sizeof order, 0) != sizeof order) std::_Exit(1);
            if (order.kind == Order::Kind::stop) break;
            report.begun = nanoseconds_now();
            report.spent = spent_on(order.tracepoint, [&] { obey(order); });
            report.ended = nanoseconds_now();
        }
    }

    Site site_;
    typename T::Ground ground_;
    Inherited<std::uint32_t> laps_{kMostLaps};
    std::optional<Member> server_;
    std::vector<Member> clients_;
};

}  // namespace qel_bench
