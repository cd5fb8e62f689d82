// What does a packet cost to make and give back, and how fast is the Internet checksum?
//
// 'make' makes a packet of a size and gives it back, beside one block of the heap of the same size that is
// zeroed, too: by malloc() and memset(), by calloc(), and, for what the zeroing costs, by malloc() alone.
// 'sum' is beside the 16-bit loop of RFC 1071 and beside 64-bit accumulators of 32-bit words, the fastest
// form that needs no vectors; and beside DPDK's. 'bytes/cycle' is that of the fastest batch.
#include <qel/pak.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "support/beside.hpp"
#include "support/cycles.hpp"

#ifdef QEL_BENCH_DPDK
#include <rte_ip.h>
#endif

namespace {

constexpr std::size_t kRepeats = 1000;
constexpr std::size_t kOverhead = 96 + 120;  // of a packet: head room and header

// --- Packets

template <class Peer>
void make(benchmark::State& state, Peer peer) {
    const auto size = static_cast<std::size_t>(state.range(0));
    qel_bench::beside(
        state, kRepeats,
        [size] {
            for (std::size_t i = 0; i < kRepeats; ++i) {
                qel_pak* pak = nullptr;
                qel_pak_alloc(size, &pak);
                benchmark::DoNotOptimize(pak);
                qel_pak_return_buffer(&pak);
            }
        },
        [size, peer] {
            for (std::size_t i = 0; i < kRepeats; ++i) {
                void* block = peer(size + kOverhead);
                benchmark::DoNotOptimize(block);
                std::free(block);
            }
        });
}
void make_beside_memset(benchmark::State& state) {
    make(state, [](std::size_t size) {
        void* block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        return std::memset(block, 0, size);
    });
}
void make_beside_calloc(benchmark::State& state) {
    make(state, [](std::size_t size) { return std::calloc(1, size); });
}
void make_beside_malloc(benchmark::State& state) {
    make(state, [](std::size_t size) { return std::malloc(size); });
}

// --- Sums

std::uint16_t sum_by_16(const std::uint8_t* data, std::size_t length) {
    std::uint32_t sum = 0;
    for (; length > 1; data += 2, length -= 2) {
        std::uint16_t word;
        std::memcpy(&word, data, sizeof(word));
        sum += word;
        if ((sum & 0x80000000) != 0) sum = (sum & 0xffff) + (sum >> 16);
    }
    if (length != 0) sum += *data;
    while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

std::uint16_t sum_by_64(const std::uint8_t* data, std::size_t length) {
    std::array<std::uint64_t, 4> sums{};
    for (; length >= 32; data += 32, length -= 32)
        for (std::size_t i = 0; i < 4; ++i) {
            std::uint32_t words[2];
            std::memcpy(words, data + 8 * i, sizeof(words));
            sums[i] += std::uint64_t{words[0]} + words[1];
        }
    std::uint64_t sum = sums[0] + sums[1] + sums[2] + sums[3] + sum_by_16(data, length);
    while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(sum);
}

template <class Peer>
void sum(benchmark::State& state, Peer peer) {
    static const double cycle = qel_bench::seconds_a_cycle();
    std::minstd_rand random{1};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(state.range(0)));
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8);
    if (peer(bytes.data(), bytes.size()) != qel_pak_crc(bytes.data(), bytes.size())) std::abort();
    double fastest = 1;
    qel_bench::beside(
        state, kRepeats,
        [&] {
            fastest = std::min(fastest, qel_bench::seconds([&] {
                                   for (std::size_t i = 0; i < kRepeats; ++i)
                                       benchmark::DoNotOptimize(qel_pak_crc(bytes.data(), bytes.size()));
                               }));
        },
        [&] {
            for (std::size_t i = 0; i < kRepeats; ++i)
                benchmark::DoNotOptimize(peer(bytes.data(), bytes.size()));
        });
    state.counters["bytes/cycle"] = static_cast<double>(kRepeats * bytes.size()) * cycle / fastest;
}
void sum_beside_16_bit(benchmark::State& state) {
    sum(state, sum_by_16);
}
void sum_beside_64_bit(benchmark::State& state) {
    sum(state, sum_by_64);
}
#ifdef QEL_BENCH_DPDK
void sum_beside_dpdk(benchmark::State& state) {
    sum(state, [](const std::uint8_t* data, std::size_t length) { return rte_raw_cksum(data, length); });
}
BENCHMARK(sum_beside_dpdk)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);
#endif

BENCHMARK(sum_beside_16_bit)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);
BENCHMARK(sum_beside_64_bit)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);
BENCHMARK(make_beside_memset)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);
BENCHMARK(make_beside_calloc)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);
BENCHMARK(make_beside_malloc)->UseManualTime()->Arg(64)->Arg(1500)->Arg(9000);

}  // namespace

BENCHMARK_MAIN();
