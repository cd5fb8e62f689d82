// What does it cost to start and stop a timer beside many that are pending?
//
// 'pending' timers run with random delays of up to an hour. An operation is one start with a random delay and
// one stop, or a restart of a random one of the pending timers. The peer is libuv, which takes the time of
// its last loop iteration as now where the dispatcher reads the clock.
#include <qel/dm.h>

#include <uv.h>

#include <random>
#include <vector>

#include "support/beside.hpp"

namespace {

constexpr std::size_t kOperations = 1'000;
constexpr std::uint32_t kHourMs = 3'600'000;

// The same delays and choices for both.
struct Plan {
    std::vector<std::uint32_t> delays_ms;
    std::vector<std::size_t> choices;
    explicit Plan(std::size_t pending) {
        std::mt19937 random{42};
        for (std::size_t i = 0; i < kOperations; ++i) {
            delays_ms.push_back(1'000 + static_cast<std::uint32_t>(random() % kHourMs));
            choices.push_back(random() % pending);
        }
    }
};

class DispatcherTimers {
  public:
    explicit DispatcherTimers(std::size_t pending) : timers_(pending + 1) {
        qel_dm_create(&handle_, nullptr, QEL_DM_PRIVATE);
        std::mt19937 random{7};
        for (qel_dm_timer& timer : timers_) {
            qel_dm_timer_register(
                handle_, &timer, [](qel_dm_handle, qel_dm_timer, void*) {}, nullptr);
            start(timer, 1'000 + static_cast<std::uint32_t>(random() % kHourMs));
        }
        stop(timers_.back());
    }
    ~DispatcherTimers() { qel_dm_destroy(&handle_); }
    void start_and_stop(const Plan& plan) {
        for (std::uint32_t delay_ms : plan.delays_ms) {
            start(timers_.back(), delay_ms);
            stop(timers_.back());
        }
    }
    void restart(const Plan& plan) {
        for (std::size_t i = 0; i < kOperations; ++i) start(timers_[plan.choices[i]], plan.delays_ms[i]);
    }

  private:
    void start(qel_dm_timer timer, std::uint32_t delay_ms) {
        timespec delay{delay_ms / 1'000, static_cast<long>(delay_ms % 1'000) * 1'000'000};
        qel_dm_timer_settime(handle_, timer, &delay);
    }
    void stop(qel_dm_timer timer) { qel_dm_timer_settime(handle_, timer, nullptr); }
    qel_dm_handle handle_ = 0;
    std::vector<qel_dm_timer> timers_;
};

class LibuvTimers {
  public:
    explicit LibuvTimers(std::size_t pending) : timers_(pending + 1) {
        uv_loop_init(&loop_);
        std::mt19937 random{7};
        for (uv_timer_t& timer : timers_) {
            uv_timer_init(&loop_, &timer);
            start(timer, 1'000 + static_cast<std::uint32_t>(random() % kHourMs));
        }
        uv_timer_stop(&timers_.back());
    }
    ~LibuvTimers() {
        for (uv_timer_t& timer : timers_) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void start_and_stop(const Plan& plan) {
        for (std::uint32_t delay_ms : plan.delays_ms) {
            start(timers_.back(), delay_ms);
            uv_timer_stop(&timers_.back());
        }
    }
    void restart(const Plan& plan) {
        for (std::size_t i = 0; i < kOperations; ++i) start(timers_[plan.choices[i]], plan.delays_ms[i]);
    }

  private:
    static void start(uv_timer_t& timer, std::uint32_t delay_ms) {
        uv_timer_start(
            &timer, [](uv_timer_t*) {}, delay_ms, 0);
    }
    uv_loop_t loop_;
    std::vector<uv_timer_t> timers_;
};

template <auto Ours, auto Peer>
void beside_libuv(benchmark::State& state) {
    const auto pending = static_cast<std::size_t>(state.range(0));
    const Plan plan{pending};
    DispatcherTimers ours{pending};
    LibuvTimers peer{pending};
    qel_bench::beside(
        state, kOperations, [&] { (ours.*Ours)(plan); }, [&] { (peer.*Peer)(plan); });
}

void start_and_stop(benchmark::State& state) {
    beside_libuv<&DispatcherTimers::start_and_stop, &LibuvTimers::start_and_stop>(state);
}
void restart(benchmark::State& state) {
    beside_libuv<&DispatcherTimers::restart, &LibuvTimers::restart>(state);
}
BENCHMARK(start_and_stop)->ArgName("pending")->Arg(1'000)->Arg(100'000)->UseManualTime()->MinTime(0.3);
BENCHMARK(restart)->ArgName("pending")->Arg(1'000)->Arg(100'000)->UseManualTime()->MinTime(0.3);

}  // namespace

BENCHMARK_MAIN();
