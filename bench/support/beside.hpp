// Measures ours and a peer side by side: a batch of one, a batch of the other, in turn, so that both see the
// same machine. The table's columns are nanoseconds an operation (median and 99th percentile of the batches)
// and 'ratio', ours : peer by the medians; below 1 is faster. 'best' is that ratio by the fastest batches:
// what a machine shows that others use, too.
//
//     void lookup(benchmark::State& state) {
//         qel_bench::beside(state, 1000, [] { ...1000 of ours... }, [] { ...1000 of the peer's... });
//     }
//     BENCHMARK(lookup)->UseManualTime();
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

namespace qel_bench {

class Samples {
  public:
    template <class Batch>
    double time(Batch& batch) {
        auto start = std::chrono::steady_clock::now();
        batch();
        std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        seconds_.push_back(taken.count());
        return taken.count();
    }
    // The value below which 'share' of the samples lie, in nanoseconds an operation.
    double nanoseconds(double share, std::size_t operations) {
        std::ranges::sort(seconds_);
        double place = share * static_cast<double>(seconds_.size() - 1);
        return seconds_[static_cast<std::size_t>(place)] * 1e9 / static_cast<double>(operations);
    }

  private:
    std::vector<double> seconds_;
};

// 'prepare_*' run before each batch and aren't timed.
template <class PrepareOurs, class Ours, class PreparePeer, class Peer>
void beside(benchmark::State& state, std::size_t operations, PrepareOurs prepare_ours, Ours ours,
            PreparePeer prepare_peer, Peer peer) {
    Samples of_ours;
    Samples of_peer;
    for (auto _ : state) {
        prepare_ours();
        state.SetIterationTime(of_ours.time(ours));
        prepare_peer();
        of_peer.time(peer);
    }
    double median = of_ours.nanoseconds(0.5, operations);
    double peer_median = of_peer.nanoseconds(0.5, operations);
    state.counters["ops/s"] = 1e9 / median;
    state.counters["ns"] = median;
    state.counters["ns_p99"] = of_ours.nanoseconds(0.99, operations);
    state.counters["peer_ns"] = peer_median;
    state.counters["ratio"] = median / peer_median;
    state.counters["best"] = of_ours.nanoseconds(0, operations) / of_peer.nanoseconds(0, operations);
}

// Runs 'work'(0) to 'work'(threads - 1) at once, the first on this thread.
template <class Work>
void on_threads(int threads, Work work) {
    std::vector<std::thread> others;
    for (int other = 1; other < threads; ++other) others.emplace_back(work, other);
    work(0);
    for (std::thread& other : others) other.join();
}

template <class Ours, class Peer>
void beside(benchmark::State& state, std::size_t operations, Ours ours, Peer peer) {
    ours();
    peer();
    beside(
        state, operations, [] {}, ours, [] {}, peer);
}

}  // namespace qel_bench
