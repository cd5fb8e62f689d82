// How long a batch takes, and what a cycle of this processor's core takes, for figures in bytes a cycle.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace qel_bench {

template <class Batch>
double seconds(Batch batch) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    batch();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A multiplication that waits for the one before it takes three cycles.
inline double seconds_a_cycle() {
    constexpr int kCount = 3000;
    double fastest = 1;
    std::uint64_t product = 3, factor = 5;
    for (int repeat = 0; repeat < 3000; ++repeat)
        fastest = std::min(fastest, seconds([&] {
                               for (int i = 0; i < kCount; ++i) {
                                   product *= factor;
                                   asm volatile("" : "+r"(product), "+r"(factor));
                               }
                           }));
    return fastest / (3 * kCount);
}

}  // namespace qel_bench
