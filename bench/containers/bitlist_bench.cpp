// How many bytes a cycle do the calls on a bit list of 4,096 bits work through?
//
// Beside std::bitset<4096>, whose size the compiler knows. A random half of the bits is set. 'find' walks
// from one set bit to the next, with one in 64 set; 'find_last' looks for the only one, at the end.
// 'bytes/cycle' counts the 512 bytes of one list in the fastest batch, the nine cycles of a call included.
#include <qel/bitlist.h>

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <random>

#include "support/beside.hpp"
#include "support/cycles.hpp"

namespace {

constexpr std::uint32_t kBits = 4096;
constexpr std::size_t kRepeats = 1000;
using Peer = std::bitset<kBits>;

struct Set {
    explicit Set(unsigned seed, unsigned one_in) {
        std::mt19937 random(seed);
        (void)qel_bitlist_clearall_d(list(), kBits, 0);
        for (std::uint32_t value = 0; value < kBits; ++value)
            if (random() % one_in == 0) add(value);
    }
    void add(std::uint32_t value) {
        (void)qel_bitlist_set(list(), value);
        peer.set(value);
    }
    qel_bitlist* list() { return reinterpret_cast<qel_bitlist*>(memory); }

    std::uint32_t memory[QEL_BITLIST_WORDS(kBits)];
    Peer peer;
};

// Repeats each of the two, and tells the fastest batch of ours in bytes a cycle.
template <class Ours, class Theirs>
void measure(benchmark::State& state, Ours ours, Theirs theirs) {
    static const double cycle = qel_bench::seconds_a_cycle();
    double fastest = 1;
    qel_bench::beside(
        state, kRepeats,
        [&] {
            fastest = std::min(fastest, qel_bench::seconds([&] {
                                   for (std::size_t i = 0; i < kRepeats; ++i) ours();
                               }));
        },
        [&] {
            for (std::size_t i = 0; i < kRepeats; ++i) theirs();
        });
    state.counters["bytes/cycle"] = static_cast<double>(kRepeats * kBits / 8) * cycle / fastest;
}

template <class Ours, class Theirs>
void combine(benchmark::State& state, Ours ours, Theirs theirs) {
    Set a{1, 2}, b{2, 2}, result{3, 2};
    measure(
        state,
        [&] {
            benchmark::DoNotOptimize(ours(a.list(), b.list(), result.list()));
            benchmark::ClobberMemory();
        },
        [&] {
            theirs(a.peer, b.peer, result.peer);
            benchmark::DoNotOptimize(result.peer);
            benchmark::ClobberMemory();
        });
}

void bit_and(benchmark::State& state) {
    combine(state, qel_bitlist_and, [](const Peer& a, const Peer& b, Peer& result) { result = a & b; });
}
void bit_or(benchmark::State& state) {
    combine(state, qel_bitlist_or, [](const Peer& a, const Peer& b, Peer& result) { result = a | b; });
}
void bit_xor(benchmark::State& state) {
    combine(state, qel_bitlist_xor, [](const Peer& a, const Peer& b, Peer& result) { result = a ^ b; });
}

template <class Ours, class Theirs>
void ask(benchmark::State& state, Set& set, Ours ours, Theirs theirs) {
    measure(
        state,
        [&] {
            benchmark::DoNotOptimize(ours(set.list()));
            benchmark::ClobberMemory();
        },
        [&] {
            benchmark::DoNotOptimize(theirs(set.peer));
            benchmark::ClobberMemory();
        });
}

void bit_count(benchmark::State& state) {
    Set set{1, 2};
    ask(state, set, qel_bitlist_count, [](const Peer& peer) { return peer.count(); });
}
void bit_equal(benchmark::State& state) {
    Set set{1, 2}, same{1, 2};
    ask(
        state, set, [&](const qel_bitlist* list) { return qel_bitlist_equal(list, same.list()); },
        [&](const Peer& peer) { return peer == same.peer; });
}
void bit_find(benchmark::State& state) {
    Set set{1, 64};
    ask(
        state, set,
        [](qel_bitlist* list) {
            std::uint32_t sum = 0;
            for (std::uint32_t v = qel_bitlist_find_first(list); v != QEL_BITLIST_NONE;
                 v = qel_bitlist_find_bit(list, false))
                sum += v;
            return sum;
        },
        [](const Peer& peer) {
            std::size_t sum = 0;
            for (std::size_t v = peer._Find_first(); v < kBits; v = peer._Find_next(v)) sum += v;
            return sum;
        });
}
void bit_find_last(benchmark::State& state) {
    Set set{1, UINT32_MAX};
    set.add(kBits - 1);
    ask(state, set, qel_bitlist_find_first, [](const Peer& peer) { return peer._Find_first(); });
}

BENCHMARK(bit_and)->UseManualTime();
BENCHMARK(bit_or)->UseManualTime();
BENCHMARK(bit_xor)->UseManualTime();
BENCHMARK(bit_count)->UseManualTime();
BENCHMARK(bit_equal)->UseManualTime();
BENCHMARK(bit_find)->UseManualTime();
BENCHMARK(bit_find_last)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
