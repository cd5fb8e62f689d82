// Clocks, the sleep, and conversions between timespec, milliseconds and the NTP form.
//
// The clocks themselves are inline in qel_time.hpp; here they meet C. Conversions first bring their operand
// into its normal shape, so any two words make a time.
//
// Invariant: a boot time, once given, never changes for the life of the process: the first caller to publish
// wins, and every other one gives the published value.
// Locks: none. Threads: any.
#include "time/qel_time.hpp"

#include <qel/thread.h>
#include <qel/time.h>

#include <cerrno>
#include <limits>

namespace qel {
namespace {

constexpr std::uint64_t kMillisecondsPerDay = 86'400'000;
// 2^31 seconds, the first value that no 32-bit count of seconds holds.
constexpr std::uint64_t kMillisecondsLimit = 0x1f400000000;
static_assert(kMillisecondsLimit == (1ull << 31) * 1000);

// Seconds from the NTP era's start, 1900-01-01, to 1970-01-01 (RFC 5905, figure 4).
constexpr std::uint32_t kNtpEpochOffset = 0x83aa7e80;
static_assert(kNtpEpochOffset == 2'208'988'800);
// Nanoseconds in 1/65536 second, cut down.
constexpr std::int64_t kNanosecondsPerNtpTick = 15258;

// Nanoseconds from 1970 to the system's start; 0 until the first call.
constinit std::atomic<std::int64_t> boot_nanoseconds{0};

int give(timespec* out, timespec (*clock)()) {
    if (out == nullptr) return EINVAL;
    *out = clock();
    return 0;
}

// Wraps for times that 64 bits of milliseconds can't hold.
std::uint64_t to_milliseconds(const timespec& time) {
    timespec normal = normalized(time);
    std::int64_t rounded = (normal.tv_nsec + kNanosecondsPerMillisecond / 2) / kNanosecondsPerMillisecond;
    return static_cast<std::uint64_t>(normal.tv_sec) * 1000 + static_cast<std::uint64_t>(rounded);
}

std::int64_t measure_boot() {
    timespec boot = subtract(realtime_now(), monotonic_now());
    return boot.tv_sec * kNanosecondsPerSecond + boot.tv_nsec;
}

// Tells the thread layer that this thread is off the processor, also if it is cancelled in its sleep.
struct Descheduled {
    Descheduled() { qel_thread_before_deschedule(); }
    Descheduled(const Descheduled&) = delete;
    Descheduled& operator=(const Descheduled&) = delete;
    ~Descheduled() noexcept(false) { qel_thread_after_reschedule(); }
};

}  // namespace
}  // namespace qel

using namespace qel;

int qel_time_get_timespec(timespec* out) {
    return give(out, monotonic_now);
}

int qel_time_get_timespec_realtime(timespec* out) {
    return give(out, realtime_now);
}

int qel_get_time(timespec* out) {
    return give(out, realtime_now);
}

void clock_set_time(uint32_t seconds) {
    pending_clock_shift.store(seconds, std::memory_order_relaxed);
}

int qel_time_get_boot_timespec(timespec* out) {
    if (out == nullptr) return EINVAL;
    std::int64_t boot = boot_nanoseconds.load(std::memory_order_relaxed);
    if (boot == 0) {
        std::int64_t measured = measure_boot();
        if (boot_nanoseconds.compare_exchange_strong(boot, measured, std::memory_order_relaxed))
            boot = measured;
    }
    *out = normalized({0, boot});
    return 0;
}

uint64_t qel_time_get_boot_time(void) {
    return to_milliseconds(monotonic_now());
}

uint32_t qel_time_get_icmp_time(void) {
    return static_cast<uint32_t>(to_milliseconds(realtime_now()) % kMillisecondsPerDay);
}

int qel_time_get_tzone_offset(uint32_t* out) {
    if (out == nullptr) return EINVAL;
    time_t now = time(nullptr);
    tm local;
    if (localtime_r(&now, &local) == nullptr) return EFAULT;
    *out = static_cast<uint32_t>(local.tm_gmtoff);
    return 0;
}

void qel_time_sleep(uint32_t milliseconds) {
    if (milliseconds == 0) return;
    Descheduled away;
    // A signal ends the call early and leaves the rest, which sleep() would cut to whole seconds.
    timespec left = from_milliseconds(milliseconds);
    while (nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}

int qel_time_timespec_to_msec64(const timespec* time, uint64_t* out) {
    if (time == nullptr || out == nullptr) return EINVAL;
    *out = to_milliseconds(*time);
    return 0;
}

int qel_time_timespec_to_msec(const timespec* time, uint32_t* out) {
    if (time == nullptr || out == nullptr) return EINVAL;
    std::uint64_t milliseconds = to_milliseconds(*time);
    // The seconds are compared too: the product by 1000 may have wrapped to a small number.
    constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
    if (static_cast<std::uint64_t>(normalized(*time).tv_sec) > kMost || milliseconds > kMost) return EFAULT;
    *out = static_cast<uint32_t>(milliseconds);
    return 0;
}

uint32_t qel_timespec_to_msec(const timespec* time) {
    uint32_t milliseconds = 0;
    return qel_time_timespec_to_msec(time, &milliseconds) == 0 ? milliseconds : 0;
}

uint64_t qel_timespec_to_msec64(const timespec* time) {
    uint64_t milliseconds = 0;
    return qel_time_timespec_to_msec64(time, &milliseconds) == 0 ? milliseconds : 0;
}

int qel_time_msec_to_timespec(uint32_t milliseconds, timespec* out) {
    return qel_time_msec64_to_timespec(milliseconds, out);
}

int qel_time_msec64_to_timespec(uint64_t milliseconds, timespec* out) {
    if (out == nullptr || milliseconds >= kMillisecondsLimit) return EINVAL;
    *out = from_milliseconds(milliseconds);
    return 0;
}

int qel_time_timespec_to_ntp_ts(const timespec* time, qel_ntp_ts* out) {
    if (time == nullptr || out == nullptr) return EINVAL;
    timespec normal = normalized(*time);
    std::uint64_t fraction = (static_cast<std::uint64_t>(normal.tv_nsec) << 32) / kNanosecondsPerSecond;
    *out = {static_cast<uint32_t>(normal.tv_sec) + kNtpEpochOffset, static_cast<uint32_t>(fraction)};
    return 0;
}

int qel_time_ntp_ts_to_timespec(const qel_ntp_ts* stamp, timespec* out) {
    if (stamp == nullptr || out == nullptr) return EINVAL;
    *out = {std::int64_t{stamp->seconds} - kNtpEpochOffset, (stamp->fraction >> 16) * kNanosecondsPerNtpTick};
    return 0;
}

int qel_time_diff(const timespec* a, const timespec* b, timespec* out) {
    if (a == nullptr || b == nullptr || out == nullptr) return EINVAL;
    *out = order(*a, *b) > 0 ? subtract(*a, *b) : subtract(*b, *a);
    return 0;
}
