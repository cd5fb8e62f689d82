// A load of live timers: each, when it expires, is started afresh with a random delay of up to
// LongestDelayMs.
//
// A set runs for rounds of real time, in turn with others. What is kept: processor time, expiries, and a
// histogram of how late they came. A timer is due its delay after the clock reading at the end of the handler
// before; a set that counts delays from an earlier reading, or rounds them, may come early, and the histogram
// goes below zero.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

namespace qel_bench {

inline std::int64_t nanoseconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

class Lateness {
  public:
    void add(std::int64_t nanoseconds) {
        std::int64_t bin = nanoseconds / kBinNanoseconds + kEarlyBins;
        ++bins_[static_cast<std::size_t>(std::clamp<std::int64_t>(bin, 0, kBins - 1))];
        ++count_;
    }
    // The lateness that 'share' of the expiries stay below, in microseconds.
    double microseconds(double share) const {
        auto left = static_cast<std::int64_t>(share * static_cast<double>(count_));
        std::int64_t bin = 0;
        while (bin < kBins - 1 && (left -= bins_[static_cast<std::size_t>(bin)]) > 0) ++bin;
        return static_cast<double>((bin - kEarlyBins) * kBinNanoseconds) * 1e-3;
    }

  private:
    static constexpr std::int64_t kBinNanoseconds = 20'000, kEarlyBins = 1'000, kBins = 56'000;
    std::array<std::uint32_t, kBins> bins_{};
    std::uint64_t count_ = 0;
};

template <class Set, std::uint32_t LongestDelayMs>
class LiveLoad {
  public:
    static constexpr std::size_t kTimers = 100'000;

    void run(std::chrono::milliseconds length) {
        auto set = std::make_unique<Set>(kTimers, expired, this);
        set_ = set.get();
        for (std::size_t i = 0; i < kTimers; ++i) start(i, nanoseconds_of(CLOCK_MONOTONIC));
        std::ranges::fill(due_, kUnmeasured);
        std::int64_t processor = nanoseconds_of(CLOCK_PROCESS_CPUTIME_ID);
        std::int64_t begun = nanoseconds_of(CLOCK_MONOTONIC);
        end_ = begun + std::chrono::nanoseconds{length}.count();
        for (over_ = false; !over_;) set->turn();
        processor_ += nanoseconds_of(CLOCK_PROCESS_CPUTIME_ID) - processor;
        real_ += nanoseconds_of(CLOCK_MONOTONIC) - begun;
    }

    const Lateness& lateness() const { return lateness_; }
    double expiries_a_second() const { return count() * 1e9 / static_cast<double>(real_); }
    double processor_nanoseconds() const { return static_cast<double>(processor_) / count(); }
    double processor_share() const { return static_cast<double>(processor_) / static_cast<double>(real_); }

  private:
    static void expired(void* context, std::size_t number) {
        auto& load = *static_cast<LiveLoad*>(context);
        std::int64_t now = nanoseconds_of(CLOCK_MONOTONIC);
        ++load.count_;
        if (load.due_[number] != kUnmeasured) load.lateness_.add(now - load.due_[number]);
        if (now >= load.end_) load.over_ = true;
        if (!load.over_) load.start(number, now);
    }
    void start(std::size_t number, std::int64_t now) {
        auto delay_ms = 1 + static_cast<std::uint32_t>(random_() % LongestDelayMs);
        due_[number] = now + std::int64_t{delay_ms} * 1'000'000;
        set_->start(number, delay_ms);
    }
    double count() const { return static_cast<double>(count_); }

    static constexpr std::int64_t kUnmeasured = 0;

    std::minstd_rand random_{42};
    std::vector<std::int64_t> due_ = std::vector<std::int64_t>(kTimers);
    Lateness lateness_;
    Set* set_ = nullptr;
    std::uint64_t count_ = 0;
    std::int64_t end_ = 0, processor_ = 0, real_ = 0;
    bool over_ = false;
};

}  // namespace qel_bench
