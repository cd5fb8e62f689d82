// What does it cost to start and stop a timer of a dispatcher beside many that are pending?
//
// 'pending' timers run with random delays of up to an hour. An operation is one start with a random delay and
// one stop, or a restart of a random one of the pending timers. The peer is libuv, which takes the time of
// its last loop iteration as now where the dispatcher reads the clock.
#include <random>
#include <vector>

#include "support/beside.hpp"
#include "timers/peers.hpp"

namespace {

constexpr std::size_t kOperations = 1'000;

std::uint32_t up_to_an_hour_ms(std::mt19937& random) {
    return 1'000 + static_cast<std::uint32_t>(random() % 3'600'000);
}

// The same delays and choices for both.
struct Plan {
    std::vector<std::uint32_t> delays_ms;
    std::vector<std::size_t> choices;
    explicit Plan(std::size_t pending) {
        std::mt19937 random{42};
        for (std::size_t i = 0; i < kOperations; ++i) {
            delays_ms.push_back(up_to_an_hour_ms(random));
            choices.push_back(random() % pending);
        }
    }
};

// The pending timers, and one that is stopped behind them.
template <class Set>
class Pending {
  public:
    explicit Pending(std::size_t count)
        : set_(
              count + 1, [](void*, std::size_t) {}, nullptr),
          spare_(count) {
        std::mt19937 random{7};
        for (std::size_t i = 0; i < count; ++i) set_.start(i, up_to_an_hour_ms(random));
    }
    void start_and_stop(const Plan& plan) {
        for (std::uint32_t delay_ms : plan.delays_ms) {
            set_.start(spare_, delay_ms);
            set_.stop(spare_);
        }
    }
    void restart(const Plan& plan) {
        for (std::size_t i = 0; i < kOperations; ++i) set_.start(plan.choices[i], plan.delays_ms[i]);
    }

  private:
    Set set_;
    std::size_t spare_;
};

using Ours = Pending<qel_bench::DispatcherTimers>;
using Peer = Pending<qel_bench::LibuvTimers>;

template <auto OurCall, auto PeerCall>
void beside_libuv(benchmark::State& state) {
    const auto pending = static_cast<std::size_t>(state.range(0));
    const Plan plan{pending};
    Ours ours{pending};
    Peer peer{pending};
    qel_bench::beside(
        state, kOperations, [&] { (ours.*OurCall)(plan); }, [&] { (peer.*PeerCall)(plan); });
}

void start_and_stop(benchmark::State& state) {
    beside_libuv<&Ours::start_and_stop, &Peer::start_and_stop>(state);
}
void restart(benchmark::State& state) {
    beside_libuv<&Ours::restart, &Peer::restart>(state);
}
BENCHMARK(start_and_stop)->ArgName("pending")->Arg(1'000)->Arg(100'000)->UseManualTime()->MinTime(0.3);
BENCHMARK(restart)->ArgName("pending")->Arg(1'000)->Arg(100'000)->UseManualTime()->MinTime(0.3);

}  // namespace

BENCHMARK_MAIN();
