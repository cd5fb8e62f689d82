#include "support/support.hpp"

#include <qel/time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <thread>

using namespace qel_test;

namespace {

std::string default_text(const timespec& time, std::uint32_t zone) {
    char text[QEL_TIME_SYSTEM_DEFAULT_SIZE];
    std::size_t length = qel_time_format_system_default(&time, zone, text);
    EXPECT_EQ(length, std::string{text}.size());
    return text;
}

std::string duration_text(std::uint64_t milliseconds) {
    char text[64];
    int length = qel_time_msec64_to_string(milliseconds, text, sizeof text);
    return std::string(text, static_cast<std::size_t>(length));
}

std::int64_t seconds_after(const timespec& base) {
    timespec now{};
    EXPECT_EQ(qel_time_get_timespec_realtime(&now), 0);
    return now.tv_sec - base.tv_sec;
}

}  // namespace

TEST(Time, converts_milliseconds_half_up_and_refuses_what_does_not_fit) {
    auto rounded = [](timespec time) { return qel_timespec_to_msec64(&time); };
    EXPECT_EQ(rounded({0, 1'500'000}), 2u);
    EXPECT_EQ(rounded({0, 1'499'999}), 1u);
    EXPECT_EQ(rounded({2, -500'000'000}), 1500u);
    std::uint32_t narrow = 7;
    timespec most{4294967, 295'499'999};
    EXPECT_EQ(qel_time_timespec_to_msec(&most, &narrow), 0);
    EXPECT_EQ(narrow, UINT32_MAX);
    // 2^61 seconds times 1000 wraps to 0 in 64 bits.
    for (timespec beyond : {timespec{4294967, 295'500'000}, timespec{-1, 0}, timespec{1ll << 61, 0}}) {
        EXPECT_EQ(qel_time_timespec_to_msec(&beyond, &narrow), EFAULT);
        EXPECT_EQ(qel_timespec_to_msec(&beyond), 0u);
    }
    timespec time{};
    EXPECT_EQ(qel_time_msec64_to_timespec(0x1f3ffffffff, &time), 0);
    EXPECT_EQ(std::pair(time.tv_sec, time.tv_nsec), std::pair(0x7fffffffl, 999'000'000l));
    EXPECT_EQ(qel_time_msec64_to_timespec(0x1f400000000, &time), EINVAL);
    EXPECT_EQ(qel_time_msec_to_timespec(1, nullptr), EINVAL);
}

TEST(Time, converts_ntp_stamps_both_ways) {
    timespec half{1, 500'000'000};
    qel_ntp_ts stamp{};
    timespec back{};
    ASSERT_EQ(qel_time_timespec_to_ntp_ts(&half, &stamp), 0);
    EXPECT_EQ(std::pair(stamp.seconds, stamp.fraction), std::pair(2'208'988'801u, 0x80000000u));
    ASSERT_EQ(qel_time_ntp_ts_to_timespec(&stamp, &back), 0);
    EXPECT_EQ(std::pair(back.tv_sec, back.tv_nsec), std::pair(1l, 32768l * 15258));
    stamp = {0, 0xffffffff};
    ASSERT_EQ(qel_time_ntp_ts_to_timespec(&stamp, &back), 0);
    EXPECT_EQ(back.tv_sec, -2'208'988'800);
}

TEST(Time, shift_is_seen_by_exactly_one_reading_among_four_threads) {
    constexpr std::uint32_t kShift = 1'000'000;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> shifted{0};
        timespec base{};
        ASSERT_EQ(qel_get_time(&base), 0);
        clock_set_time(kShift);
        std::vector<std::jthread> readers;
        for (int i = 0; i < 4; ++i)
            readers.emplace_back([&] {
                for (int j = 0; j < 100; ++j) shifted += seconds_after(base) >= kShift;
            });
        readers.clear();
        ASSERT_EQ(shifted, 1);
    }
}

TEST(Time, boot_time_is_measured_once_and_clocks_agree_with_the_system) {
    timespec boot{};
    timespec again{};
    ASSERT_EQ(qel_time_get_boot_timespec(&boot), 0);
    EXPECT_NEAR(static_cast<double>(qel_time_get_boot_time()) / 1000,
                static_cast<double>(time(nullptr) - boot.tv_sec), 2);
    clock_set_time(50);
    ASSERT_EQ(qel_time_get_boot_timespec(&again), 0);
    EXPECT_EQ(std::pair(again.tv_sec, again.tv_nsec), std::pair(boot.tv_sec, boot.tv_nsec));
    // The pending shift goes to the reading of the ICMP time, whose day it moves on by 50 s.
    std::int64_t wanted = (time(nullptr) + 50) % 86'400;
    EXPECT_LE((qel_time_get_icmp_time() / 1000 - wanted + 86'400) % 86'400, 1);
    EXPECT_EQ(qel_time_get_boot_timespec(nullptr), EINVAL);
}

TEST(Time, sleeps_its_whole_length_through_signals) {
    struct sigaction interrupt {};
    interrupt.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupt, nullptr);
    auto start = std::chrono::steady_clock::now();
    std::atomic<bool> awake{false};
    std::jthread sleeper{[&] {
        qel_time_sleep(1030);
        awake = true;
    }};
    for (int i = 0; i < 20 && !awake; ++i) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        qel_time_sleep(2);
    }
    sleeper.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1030ms);
}

TEST(Time, writes_durations_by_their_largest_unit) {
    constexpr std::uint64_t kDay = 86'400'000;
    EXPECT_EQ(duration_text(0), "00:00:00");
    EXPECT_EQ(duration_text(kDay - 1), "23:59:59");
    EXPECT_EQ(duration_text(90'000'000), "1d01h");
    EXPECT_EQ(duration_text(17 * kDay), "2w3d");
    EXPECT_EQ(duration_text((2 * 365 + 14) * kDay), "2y2w");
}

TEST(Time, writes_texts_in_the_chosen_zone_and_nothing_on_failure) {
    setenv("TZ", "EET-2", 1);
    tzset();
    timespec epoch{0, 1'999'999};
    EXPECT_EQ(default_text(epoch, QEL_TIME_ZONE_UTC), "Thu Jan 01 00:00:00.001 GMT");
    EXPECT_EQ(default_text(epoch, QEL_TIME_ZONE_LOCAL), "Thu Jan 01 02:00:00.001 EET");
    EXPECT_EQ(default_text(epoch, 3), "");
    char text[8];
    EXPECT_EQ(qel_time_format_timespec(&epoch, "%H:%M", 0, text, sizeof text), 5u);
    EXPECT_STREQ(text, "02:00");
    EXPECT_EQ(qel_time_format_timespec2(&epoch, "%H:%M:%S", QEL_TIME_ZONE_UTC, text, sizeof text), 0u);
    EXPECT_STREQ(text, "");
    timespec no_year{LONG_MAX, 0};
    EXPECT_EQ(qel_time_format_timespec(&no_year, "%Y", 0, text, sizeof text), 0u);
    // A zone name that doesn't fit its four bytes ends the text before it.
    setenv("TZ", "LONGER+3:30", 1);
    tzset();
    EXPECT_EQ(default_text(epoch, QEL_TIME_ZONE_LOCAL), "Wed Dec 31 20:30:00.001 ");
    std::uint32_t offset = 0;
    EXPECT_EQ(qel_time_get_tzone_offset(&offset), 0);
    EXPECT_EQ(static_cast<std::int32_t>(offset), -12'600);
}
