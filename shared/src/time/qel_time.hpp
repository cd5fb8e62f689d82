// Clocks and time arithmetic for the rest of the library, inline: traces stamp each entry with them and every
// timer is compared by them.
//
// A time is a timespec. All arithmetic here takes operands of any shape, gives nanoseconds within a second,
// and stops at the ends of the 64-bit seconds instead of wrapping, so a far-off expiry stays far off.
#pragma once

#include <atomic>
#include <compare>
#include <cstdint>
#include <ctime>
#include <limits>

namespace qel {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
inline constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

static_assert(sizeof(timespec) == 16 && sizeof(timespec::tv_sec) == 8 && sizeof(timespec::tv_nsec) == 8);

// Seconds that the next reading of the real-time clock has added; taken by that reading.
inline constinit std::atomic<std::uint32_t> pending_clock_shift{0};

inline timespec monotonic_now() {
    timespec now;
    // The clock exists and the address is good: nothing here can fail.
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
    return now;
}

// The plain load in front keeps the shared line clean for the many readings between two shifts.
inline timespec realtime_now() {
    timespec now;
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    if (pending_clock_shift.load(std::memory_order_relaxed) != 0) [[unlikely]]
        now.tv_sec += pending_clock_shift.exchange(0, std::memory_order_relaxed);
    return now;
}

constexpr std::int64_t saturating_add(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

constexpr std::int64_t saturating_subtract(std::int64_t a, std::int64_t b) {
    std::int64_t difference = 0;
    if (!__builtin_sub_overflow(a, b, &difference)) return difference;
    return b > 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

// The same time with its nanoseconds in 0 to 999,999,999; a negative time has negative seconds only.
constexpr timespec normalized(timespec time) {
    if (static_cast<std::uint64_t>(time.tv_nsec) < kNanosecondsPerSecond) [[likely]]
        return time;
    std::int64_t carry = time.tv_nsec / kNanosecondsPerSecond;
    std::int64_t rest = time.tv_nsec % kNanosecondsPerSecond;
    if (rest < 0) return {saturating_add(time.tv_sec, carry - 1), rest + kNanosecondsPerSecond};
    return {saturating_add(time.tv_sec, carry), rest};
}

constexpr timespec add(const timespec& left, const timespec& right) {
    timespec a = normalized(left);
    timespec b = normalized(right);
    return normalized({saturating_add(a.tv_sec, b.tv_sec), a.tv_nsec + b.tv_nsec});
}

constexpr timespec subtract(const timespec& left, const timespec& right) {
    timespec a = normalized(left);
    timespec b = normalized(right);
    return normalized({saturating_subtract(a.tv_sec, b.tv_sec), a.tv_nsec - b.tv_nsec});
}

constexpr std::strong_ordering order(const timespec& left, const timespec& right) {
    timespec a = normalized(left);
    timespec b = normalized(right);
    return a.tv_sec != b.tv_sec ? a.tv_sec <=> b.tv_sec : a.tv_nsec <=> b.tv_nsec;
}

constexpr timespec from_milliseconds(std::uint64_t milliseconds) {
    return {static_cast<std::int64_t>(milliseconds / 1000),
            static_cast<std::int64_t>(milliseconds % 1000) * kNanosecondsPerMillisecond};
}

// A passive timer of all zeros is not running.
constexpr bool is_running(const timespec& timer) {
    return timer.tv_sec != 0 || timer.tv_nsec != 0;
}

// A result that came out as exact zero, one nanosecond off, so that it doesn't read as "not running".
constexpr timespec kept_running(timespec time) {
    if (!is_running(time)) time.tv_nsec = 1;
    return time;
}

// The expiry of a timer started now; a negative delay expires at once.
inline timespec expiry_after(const timespec& delay) {
    timespec now = monotonic_now();
    return normalized(delay).tv_sec < 0 ? now : kept_running(add(now, delay));
}

}  // namespace qel
