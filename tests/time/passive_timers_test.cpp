#include "support/support.hpp"

#include <qel/ptimer.h>
#include <qel/time.h>

#include <climits>

namespace {

using Words = std::pair<std::int64_t, std::int64_t>;

Words words(const timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

// The least and the greatest delay in milliseconds that 2,000 changes of 'delay' give.
Words extremes(const timespec& delay, std::uint32_t percent, std::uint32_t type) {
    Words seen{LONG_MAX, LONG_MIN};
    for (int i = 0; i < 2000; ++i) {
        timespec changed = delay;
        qel_time_calculate_jitter(&changed, percent, type);
        std::int64_t milliseconds = changed.tv_sec * 1000 + changed.tv_nsec / 1'000'000;
        seen = {std::min(seen.first, milliseconds), std::max(seen.second, milliseconds)};
    }
    return seen;
}

}  // namespace

TEST(PassiveTimer, runs_from_start_to_stop_and_expires_by_the_clock) {
    timespec hour{3600, 0};
    timespec left{};
    qel_ptimer timer{};
    for (timespec delay : {timespec{}, timespec{0, -1}}) {
        qel_ptimer_start(&timer, &delay);
        EXPECT_TRUE(qel_ptimer_running_and_awake(&timer));
        EXPECT_FALSE(qel_ptimer_running_and_sleeping(&timer));
        qel_ptimer_left_sleeping(&left, &timer);
        EXPECT_EQ(words(left), Words(0, 0));
    }
    EXPECT_TRUE(qel_ptimer_in_interval(&timer, &hour));
    qel_ptimer_start(&timer, &hour);
    EXPECT_TRUE(qel_ptimer_running_and_sleeping(&timer));
    EXPECT_FALSE(qel_ptimer_awake(&timer));
    EXPECT_FALSE(qel_ptimer_in_interval(&timer, &hour));
    qel_ptimer_left_sleeping(&left, &timer);
    EXPECT_EQ(left.tv_sec, 3599);
    qel_ptimer_elapsed_time(&left, &timer);
    EXPECT_EQ(left.tv_sec, -3600);
    qel_ptimer_stop(&timer);
    EXPECT_FALSE(qel_ptimer_running(&timer));
    EXPECT_FALSE(qel_ptimer_running_and_awake(&timer));
    EXPECT_TRUE(qel_ptimer_awake(&timer));
    EXPECT_FALSE(qel_ptimer_awake(nullptr));
}

TEST(PassiveTimer, updates_without_drift_and_never_wraps) {
    timespec period{0, 400'000'000};
    timespec back{-1, 0};
    qel_ptimer timer{10, 700'000'000};
    qel_ptimer_update(&timer, &period);
    qel_ptimer_update(&timer, &back);
    qel_ptimer_update_jitter(&timer, &back, 50);
    EXPECT_EQ(words(timer), Words(11, 100'000'000));
    timespec forever{LONG_MAX, 999'999'999};
    qel_ptimer_start(&timer, &forever);
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
    timespec stopped{};
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
    EXPECT_EQ(qel_ptimer_soonest(&three, &two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&two, &also_two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&stopped, &two), &two);
    EXPECT_EQ(qel_ptimer_soonest(&two, &stopped), &two);
    timespec stopped_too{};
    EXPECT_EQ(qel_ptimer_soonest(&stopped, &stopped_too), &stopped);
}

TEST(PassiveTimer, jitter_fills_its_bounds_and_no_more) {
    const timespec second{1, 999'999};
    EXPECT_EQ(extremes(second, 10, QEL_TIME_JITTER_SUBTRACT), Words(901, 1000));
    EXPECT_EQ(extremes(second, 10, QEL_TIME_JITTER_CENTERED), Words(950, 1049));
    EXPECT_EQ(extremes(second, 10, QEL_TIME_JITTER_ADD), Words(1000, 1099));
    EXPECT_EQ(extremes(second, 1, QEL_TIME_JITTER_SUBTRACT), Words(991, 1000));
    Words wide = extremes(second, 99, QEL_TIME_JITTER_CENTERED);
    EXPECT_TRUE(wide.first >= 505 && wide.first < 600 && wide.second > 1400 && wide.second <= 1494);
    Words day = extremes({86'400, 0}, 50, QEL_TIME_JITTER_SUBTRACT);
    EXPECT_TRUE(day.first > 43'200'000 && day.second <= 86'400'000);
    // Percents of 100 or more, a range of 1 ms, negative and endless delays change nothing at all.
    for (auto [delay, percent] : {std::pair{timespec{1, 1}, 100u}, std::pair{timespec{0, 100'000'001}, 1u},
                                  std::pair{timespec{-5, 1}, 50u}, std::pair{timespec{LONG_MAX, 1}, 50u}}) {
        timespec changed = delay;
        qel_time_calculate_jitter(&changed, percent, QEL_TIME_JITTER_ADD);
        EXPECT_EQ(words(changed), words(delay));
    }
}
