// What does a descriptor's event cost beside a bare loop over the kernel's one-shot events?
//
// A pipe feeds itself: each event reads its byte, writes it back and asks for the next event. 'idle' further
// descriptors are registered and never ready. 'with_idle' compares the dispatcher with itself: 1,000 idle
// descriptors beside none.
#include <qel/dm.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include "support/beside.hpp"

namespace {

constexpr std::size_t kEvents = 1'000;

class FedPipe {
  public:
    FedPipe() {
        if (pipe(ends_) != 0 || write(ends_[1], "x", 1) != 1) std::abort();
    }
    ~FedPipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    int reader() const { return ends_[0]; }
    void turn() const {
        char byte = 0;
        if (read(ends_[0], &byte, 1) != 1 || write(ends_[1], &byte, 1) != 1) std::abort();
    }

  private:
    int ends_[2];
};

class IdleDescriptors {
  public:
    explicit IdleDescriptors(std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) fds_.push_back(eventfd(0, EFD_CLOEXEC));
    }
    ~IdleDescriptors() {
        for (int fd : fds_) close(fd);
    }
    const std::vector<int>& fds() const { return fds_; }

  private:
    std::vector<int> fds_;
};

class BareLoop {
  public:
    explicit BareLoop(std::int64_t idle) : idle_(idle) {
        for (int fd : idle_.fds()) control(EPOLL_CTL_ADD, fd);
        control(EPOLL_CTL_ADD, pipe_.reader());
    }
    ~BareLoop() { close(epoll_); }
    void operator()() {
        for (std::size_t i = 0; i < kEvents; ++i) {
            epoll_event event;
            if (epoll_wait(epoll_, &event, 1, -1) != 1) std::abort();
            pipe_.turn();
            control(EPOLL_CTL_MOD, event.data.fd);
        }
    }

  private:
    void control(int operation, int fd) const {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.fd = fd;
        if (epoll_ctl(epoll_, operation, fd, &event) != 0) std::abort();
    }
    int epoll_ = epoll_create1(0);
    FedPipe pipe_;
    IdleDescriptors idle_;
};

class DispatcherLoop {
  public:
    explicit DispatcherLoop(std::int64_t idle) : idle_(idle) {
        qel_dm_create(&handle_, nullptr, QEL_DM_PRIVATE);
        for (int fd : idle_.fds()) ask(handle_, static_cast<std::uint32_t>(fd), this);
        ask(handle_, static_cast<std::uint32_t>(pipe_.reader()), this);
    }
    ~DispatcherLoop() { qel_dm_destroy(&handle_); }
    void operator()() {
        for (std::size_t i = 0; i < kEvents; ++i) {
            qel_dm_wait(handle_);
            qel_dm_dispatch(handle_);
        }
    }

  private:
    static void ask(qel_dm_handle handle, std::uint32_t fd, void* self) {
        if (qel_dm_fd_register(handle, fd, QEL_DM_READABLE, handle_event, self) != 0) std::abort();
    }
    static void handle_event(qel_dm_handle handle, std::uint32_t fd, std::uint32_t, void* self) {
        static_cast<DispatcherLoop*>(self)->pipe_.turn();
        ask(handle, fd, self);
    }
    qel_dm_handle handle_ = 0;
    FedPipe pipe_;
    IdleDescriptors idle_;
};

void active_beside_bare_loop(benchmark::State& state) {
    DispatcherLoop ours{state.range(0)};
    BareLoop bare{state.range(0)};
    qel_bench::beside(
        state, kEvents, [&] { ours(); }, [&] { bare(); });
}
BENCHMARK(active_beside_bare_loop)->ArgName("idle")->Arg(0)->Arg(1000)->UseManualTime()->MinTime(0.5);

void with_idle_beside_without(benchmark::State& state) {
    DispatcherLoop crowded{state.range(0)};
    DispatcherLoop alone{0};
    qel_bench::beside(
        state, kEvents, [&] { crowded(); }, [&] { alone(); });
}
BENCHMARK(with_idle_beside_without)->ArgName("idle")->Arg(1000)->UseManualTime()->MinTime(0.5);

}  // namespace

BENCHMARK_MAIN();
