#include "support/support.hpp"

#include <qel/ptimer.h>
#include <qel/time.h>

#include <climits>

namespace {

using Words = std::pair<std::int64_t, std::int64_t>;

Words words(const timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

timespec after(timespec now, std::int64_t seconds) {
    now.tv_sec += seconds;
    return now;
}

struct Bounds {
    std::uint32_t percent;
    std::uint32_t type;
    std::int64_t low;
    std::int64_t high;
};

// The least and the greatest delay in milliseconds that 2,000 changes of 'delay' give.
std::pair<std::int64_t, std::int64_t> extremes(const timespec& delay, std::uint32_t percent,
                                               std::uint32_t type) {
    std::pair<std::int64_t, std::int64_t> seen{LONG_MAX, LONG_MIN};
    for (int i = 0; i < 2000; ++i) {
        timespec changed = delay;
        qel_time_calculate_jitter(&changed, percent, type);
        EXPECT_EQ(changed.tv_nsec % 1'000'000, 0);
        std::int64_t milliseconds = changed.tv_sec * 1000 + changed.tv_nsec / 1'000'000;
        seen = {std::min(seen.first, milliseconds), std::max(seen.second, milliseconds)};
    }
    return seen;
}

}  // namespace

TEST(PassiveTimer, runs_from_start_to_stop_and_expires_by_the_clock) {
    timespec zero{};
    timespec hour{3600, 0};
    timespec back{0, -1};
    for (const timespec* delay : {&zero, &back}) {
        qel_ptimer timer{};
        qel_ptimer_start(&timer, delay);
        EXPECT_TRUE(qel_ptimer_running(&timer));
        EXPECT_TRUE(qel_ptimer_running_and_awake(&timer));
        EXPECT_FALSE(qel_ptimer_running_and_sleeping(&timer));
        timespec left{9, 9};
        qel_ptimer_left_sleeping(&left, &timer);
        EXPECT_EQ(words(left), Words(0, 0));
    }
    qel_ptimer timer{};
    qel_ptimer_start(&timer, &hour);
    EXPECT_TRUE(qel_ptimer_running_and_sleeping(&timer));
    EXPECT_FALSE(qel_ptimer_awake(&timer));
    timespec left{};
    qel_ptimer_left_sleeping(&left, &timer);
    EXPECT_EQ(left.tv_sec, 3599);

    // The start is in the future, so the elapsed time is negative and the interval has not begun.
    timespec elapsed{};
    qel_ptimer_elapsed_time(&elapsed, &timer);
    EXPECT_EQ(elapsed.tv_sec, -3600);
    EXPECT_FALSE(qel_ptimer_in_interval(&timer, &hour));
    timespec started = after(timer, -5400);
    EXPECT_TRUE(qel_ptimer_in_interval(&started, &hour));
    started.tv_sec -= 3600;
    EXPECT_FALSE(qel_ptimer_in_interval(&started, &hour));

    qel_ptimer_stop(&timer);
    EXPECT_FALSE(qel_ptimer_running(&timer));
    EXPECT_FALSE(qel_ptimer_running_and_awake(&timer));
    EXPECT_TRUE(qel_ptimer_awake(&timer));
    EXPECT_FALSE(qel_ptimer_awake(nullptr));
    qel_ptimer_start(nullptr, &hour);
}

TEST(PassiveTimer, updates_without_drift_and_never_wraps) {
    timespec period{0, 400'000'000};
    timespec back{-1, 0};
    qel_ptimer timer{10, 700'000'000};
    qel_ptimer_update(&timer, &period);
    EXPECT_EQ(words(timer), Words(11, 100'000'000));
    qel_ptimer_update(&timer, &back);
    EXPECT_EQ(words(timer), Words(11, 100'000'000));
    qel_ptimer_update_jitter(&timer, &back, 50);
    EXPECT_EQ(words(timer), Words(11, 100'000'000));

    timespec forever{LONG_MAX, 999'999'999};
    qel_ptimer_start(&timer, &forever);
    EXPECT_TRUE(qel_ptimer_running_and_sleeping(&timer));
    qel_ptimer_update(&timer, &forever);
    EXPECT_TRUE(qel_ptimer_running_and_sleeping(&timer));
}

TEST(PassiveTimer, results_of_exact_zero_stay_apart_from_not_running) {
    timespec one{1, 500'000'000};
    timespec minus{-2, 500'000'000};
    timespec out{};
    qel_ptimer_add_delta(&out, &one, &minus);
    EXPECT_EQ(words(out), Words(0, 1));
    qel_ptimer_add_timespec(&out, &one, &minus);
    EXPECT_EQ(words(out), Words(0, 0));
    qel_ptimer_diff_timespec(&out, &one, &one);
    EXPECT_EQ(words(out), Words(0, 1));
    qel_ptimer_diff_timespec(&one, &one, &minus);
    EXPECT_EQ(words(one), Words(-3, 0));
}

TEST(PassiveTimer, compares_normal_shapes_by_six_operators) {
    timespec two{2, 0};
    timespec also_two{3, -1'000'000'000};
    timespec three{3, 0};
    auto satisfied = [](const timespec& a, const timespec& b) {
        std::string found;
        for (std::uint32_t op = 0; op < 9; ++op)
            found += qel_ptimer_compare(&a, op, &b) ? std::to_string(op) : "";
        return found;
    };
    EXPECT_EQ(satisfied(two, also_two), "146");
    EXPECT_EQ(satisfied(three, two), "234");
    EXPECT_EQ(satisfied(also_two, three), "256");
    EXPECT_FALSE(qel_ptimer_compare(nullptr, QEL_PTIMER_EQ, nullptr));

    timespec stopped{};
    EXPECT_EQ(qel_ptimer_soonest(&three, &two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&two, &also_two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&stopped, &two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&two, &stopped), &two);
    timespec stopped_too{};
    EXPECT_EQ(qel_ptimer_soonest(&stopped, &stopped_too), &stopped);

    qel_ptimer_normalize_timespec(&also_two);
    EXPECT_EQ(words(also_two), Words(2, 0));
    qel_ptimer_copy_timestamp(&three, &two);
    EXPECT_EQ(two.tv_sec, 3);
}

TEST(PassiveTimer, jitter_fills_its_bounds_and_no_more) {
    const timespec second{1, 999'999};
    for (Bounds bounds :
         {Bounds{10, QEL_TIME_JITTER_SUBTRACT, 901, 1000}, Bounds{10, QEL_TIME_JITTER_CENTERED, 950, 1049},
          Bounds{10, QEL_TIME_JITTER_ADD, 1000, 1099}, Bounds{1, QEL_TIME_JITTER_SUBTRACT, 991, 1000},
          Bounds{10, 4, 1000, 1000}}) {
        auto seen = extremes(second, bounds.percent, bounds.type);
        EXPECT_EQ(seen, std::pair(bounds.low, bounds.high)) << bounds.percent << " " << bounds.type;
    }
    // 99 per cent of 1,000 ms is too wide to be filled by 2,000 draws.
    auto wide = extremes(second, 99, QEL_TIME_JITTER_CENTERED);
    EXPECT_GE(wide.first, 505);
    EXPECT_LE(wide.second, 1494);
    EXPECT_LT(wide.first, 600);
    EXPECT_GT(wide.second, 1400);

    // Percents of 100 or more, a range of 1 ms and negative delays leave the delay alone to the nanosecond.
    for (auto [delay, percent] : {std::pair{timespec{1, 1}, 100u}, std::pair{timespec{0, 100'000'001}, 1u},
                                  std::pair{timespec{-5, 1}, 50u}, std::pair{timespec{LONG_MAX, 1}, 50u}}) {
        timespec changed = delay;
        qel_time_calculate_jitter(&changed, percent, QEL_TIME_JITTER_ADD);
        EXPECT_EQ(words(changed), words(delay));
    }
    // Above 42,949,673 ms the division by 100 comes first: the range is that of whole hundreds.
    timespec day{86'400, 0};
    auto seen = extremes(day, 50, QEL_TIME_JITTER_SUBTRACT);
    EXPECT_GT(seen.first, 43'200'000);
    EXPECT_LE(seen.second, 86'400'000);
}
