// What do very many timers cost: to stop and start one, to run those that are due, to keep all of them going?
//
// 'stop_and_start': 'pending' timers run with delays of 1 s to 10 min; an operation stops a random one and
// starts it with another delay. 'expire': 100,000 timers with delays of up to 20 ms are due when the loop
// gets its turn; an operation is one expiry, in a loop that only counts them, from the begin of the turn to
// its end. 'live' runs each set under the load of live_load.hpp for 2 rounds of 2 s, in turn, on one thread:
// delays of up to 200 ms, a million expiries a second, are more than most loops can do, delays of up to 1 s
// are not. Its columns are processor time an expiry, its share of the time, expiries a second, and how late
// they came. Two clock readings and a random number are in it, the same for all.
//
// Ours are the dispatcher's own timers, a tree of leaves under 100 parents, and wheels with ticks of 8 and 1
// ms. What a peer does is told in peers.hpp. One question: --benchmark_filter=live_1s
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/beside.hpp"
#include "timers/live_load.hpp"
#include "timers/peers.hpp"

using namespace qel_bench;

namespace {

constexpr std::size_t kOperations = 1'000;
constexpr std::size_t kDue = 100'000;

void do_nothing(void*, std::size_t) {}

// Timers that stay pending, and a batch of random choices among them.
template <class Set>
class Pending {
  public:
    explicit Pending(std::size_t count) : set_(count, do_nothing, nullptr), count_(count) {
        for (std::size_t i = 0; i < count; ++i) set_.start(i, delay_ms());
        set_.settle();
    }
    void stop_and_start() {
        for (std::size_t i = 0; i < kOperations; ++i) {
            std::size_t number = random_() % count_;
            set_.stop(number);
            set_.start(number, delay_ms());
        }
        set_.settle();
    }

  private:
    std::uint32_t delay_ms() { return 1'000 + static_cast<std::uint32_t>(random_() % 600'000); }
    std::minstd_rand random_{42};
    Set set_;
    std::size_t count_;
};

template <class Ours, class Peer>
void stop_and_start(benchmark::State& state) {
    const auto pending = static_cast<std::size_t>(state.range(0));
    Pending<Ours> ours{pending};
    Pending<Peer> peer{pending};
    beside(
        state, kOperations, [&] { ours.stop_and_start(); }, [&] { peer.stop_and_start(); });
}

// Timers that are all due when run() is called.
template <class Set>
class Due {
  public:
    // Started in another order than they lie in memory.
    void prepare() {
        constexpr std::size_t kStride = 61'681;
        for (std::size_t i = 0; i < kDue; ++i)
            set_.start(i * kStride % kDue, 1 + static_cast<std::uint32_t>(random_() % 20));
        left_ = kDue;
        std::this_thread::sleep_for(std::chrono::milliseconds{40});
    }
    void run() {
        while (left_ != 0) set_.turn();
    }

  private:
    std::minstd_rand random_{42};
    std::size_t left_ = 0;
    Set set_{kDue, [](void* left, std::size_t) { --*static_cast<std::size_t*>(left); }, &left_};
};

template <class Ours, class Peer>
void expire(benchmark::State& state) {
    Due<Ours> ours;
    Due<Peer> peer;
    beside(
        state, kDue, [&] { ours.prepare(); }, [&] { ours.run(); }, [&] { peer.prepare(); },
        [&] { peer.run(); });
}

template <std::uint32_t LongestDelayMs>
using LiveLoads =
    std::tuple<LiveLoad<DispatcherTimers, LongestDelayMs>, LiveLoad<TreeTimers, LongestDelayMs>,
               LiveLoad<WheelTimers<8>, LongestDelayMs>, LiveLoad<WheelTimers<1>, LongestDelayMs>,
               LiveLoad<LibevTimers, LongestDelayMs>, LiveLoad<LibuvTimers, LongestDelayMs>,
               LiveLoad<LibeventTimers, LongestDelayMs>, LiveLoad<AsioTimers, LongestDelayMs>>;

// Measured once, for all rows of one longest delay.
template <std::uint32_t LongestDelayMs>
const LiveLoads<LongestDelayMs>& live_loads() {
    static const auto measured = [] {
        auto loads = std::make_unique<LiveLoads<LongestDelayMs>>();
        for (int round = 0; round < 2; ++round)
            std::apply([](auto&... load) { (load.run(std::chrono::seconds{2}), ...); }, *loads);
        return loads;
    }();
    return *measured;
}

template <class Ours, class Peer, std::uint32_t LongestDelayMs>
void live(benchmark::State& state) {
    const auto& ours = std::get<LiveLoad<Ours, LongestDelayMs>>(live_loads<LongestDelayMs>());
    const auto& peer = std::get<LiveLoad<Peer, LongestDelayMs>>(live_loads<LongestDelayMs>());
    for (auto _ : state) state.SetIterationTime(1);
    auto add = [&](const char* column, double value, double peer_value) {
        state.counters[column] = value;
        state.counters[std::string{"peer_"} + column] = peer_value;
        state.counters[std::string{"ratio_"} + column] = value / peer_value;
    };
    add("cpu_ns", ours.processor_nanoseconds(), peer.processor_nanoseconds());
    add("cpu_share", ours.processor_share(), peer.processor_share());
    add("per_s", ours.expiries_a_second(), peer.expiries_a_second());
    add("late_us", ours.lateness().microseconds(0.5), peer.lateness().microseconds(0.5));
    add("late_us_p99", ours.lateness().microseconds(0.99), peer.lateness().microseconds(0.99));
}

// Rows of one of ours beside one peer.
template <class Ours, class Peer>
void add_rows(const std::string& ours, const char* peer) {
    auto add = [&](const std::string& question, void (*function)(benchmark::State&)) {
        std::string name = question + "<" + ours + ">_beside_" + peer;
        return benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime();
    };
    add("stop_and_start", stop_and_start<Ours, Peer>)->ArgName("pending")->Arg(100'000)->MinTime(0.3);
    add("expire", expire<Ours, Peer>)->Iterations(10);
    add("live_200ms", live<Ours, Peer, 200>)->Iterations(1);
    add("live_1s", live<Ours, Peer, 1'000>)->Iterations(1);
}

template <class Ours>
void add_rows(const std::string& ours) {
    add_rows<Ours, LibevTimers>(ours, "libev");
    add_rows<Ours, LibuvTimers>(ours, "libuv");
    add_rows<Ours, LibeventTimers>(ours, "libevent");
    add_rows<Ours, AsioTimers>(ours, "asio");
}

}  // namespace

int main(int argc, char** argv) {
    add_rows<DispatcherTimers>("dispatcher");
    add_rows<TreeTimers>("tree");
    add_rows<WheelTimers<8>>("wheel");
    add_rows<WheelTimers<1>, LibevTimers>("wheel of 1 ms", "libev");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
