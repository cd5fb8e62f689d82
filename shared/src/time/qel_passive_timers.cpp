// Passive timers: a stored expiry on the monotonic clock, that its owner asks about.
//
// A timer of all zeros is not running; results that would come out as exact zero move by one nanosecond. The
// arithmetic is that of qel_time.hpp. Null operands do nothing and compare false.
//
// Locks: none; a timer belongs to whoever guards it. The seed of the jitter is shared by all threads without
// a lock: a lost update costs nothing, as the numbers need not be good.
#include "time/qel_time.hpp"

#include <qel/base.h>
#include <qel/ptimer.h>
#include <qel/time.h>

#include <array>

namespace qel {
namespace {

// The outcomes that satisfy each operator of qel_ptimer_compare, by its number.
enum Outcome : std::uint8_t { kLess = 1, kEqual = 2, kGreater = 4 };
constexpr std::array<std::uint8_t, 7> kSatisfying{
    0, kEqual, kLess | kGreater, kGreater, kGreater | kEqual, kLess, kLess | kEqual};
static_assert(kSatisfying.size() == QEL_PTIMER_LE + 1 && kSatisfying[QEL_PTIMER_GT] == kGreater);

Outcome outcome_of(const timespec& a, const timespec& b) {
    std::strong_ordering relation = order(a, b);
    if (relation == 0) return kEqual;
    return relation < 0 ? kLess : kGreater;
}

constinit std::atomic<std::uint32_t> jitter_seed{0};

std::uint32_t next_jitter() {
    std::uint32_t seed = qel_random_uint32() ^ (jitter_seed.load(std::memory_order_relaxed) * 16);
    jitter_seed.store(seed, std::memory_order_relaxed);
    return seed;
}

// Below this many milliseconds the product by a percent fits 32 bits; above it the division comes first.
constexpr std::int64_t kExactRangeLimit = 42'949'673;

constexpr std::int64_t jitter_range(std::int64_t milliseconds, std::uint32_t percent) {
    return milliseconds < kExactRangeLimit ? milliseconds * percent / 100 : milliseconds / 100 * percent;
}

constexpr std::int64_t jittered(std::int64_t milliseconds, std::int64_t range, std::int64_t random,
                                std::uint32_t type) {
    if (type == QEL_TIME_JITTER_SUBTRACT) return milliseconds - random;
    if (type == QEL_TIME_JITTER_CENTERED) return milliseconds - range / 2 + random;
    if (type == QEL_TIME_JITTER_ADD) return saturating_add(milliseconds, random);
    return milliseconds;
}

timespec with_jitter(timespec delay, std::uint32_t percent, std::uint32_t type) {
    qel_time_calculate_jitter(&delay, percent, type);
    return delay;
}

bool has_expired(const qel_ptimer& timer) {
    return order(monotonic_now(), timer) >= 0;
}

}  // namespace
}  // namespace qel

using namespace qel;

void qel_time_calculate_jitter(timespec* delay, uint32_t percent, uint32_t type) {
    if (delay == nullptr || percent >= 100) return;
    timespec normal = normalized(*delay);
    std::int64_t milliseconds = 0;
    // A delay beyond 292 million years is left as it is.
    if (__builtin_mul_overflow(normal.tv_sec, std::int64_t{1000}, &milliseconds)) return;
    milliseconds = saturating_add(milliseconds, normal.tv_nsec / kNanosecondsPerMillisecond);
    std::int64_t range = milliseconds > 0 ? jitter_range(milliseconds, percent) : 0;
    if (range <= 1) return;
    std::int64_t changed = jittered(milliseconds, range, next_jitter() % range, type);
    *delay = {changed / 1000, changed % 1000 * kNanosecondsPerMillisecond};
}

void qel_ptimer_get_time(timespec* out) {
    if (out != nullptr) *out = monotonic_now();
}

void qel_ptimer_start(qel_ptimer* timer, const timespec* delay) {
    if (timer != nullptr && delay != nullptr) *timer = expiry_after(*delay);
}

void qel_ptimer_start_jitter(qel_ptimer* timer, const timespec* delay, uint32_t percent, uint32_t type) {
    if (timer != nullptr && delay != nullptr) *timer = expiry_after(with_jitter(*delay, percent, type));
}

void qel_ptimer_update(qel_ptimer* timer, const timespec* delay) {
    if (timer == nullptr || delay == nullptr || normalized(*delay).tv_sec < 0) return;
    *timer = kept_running(add(*timer, *delay));
}

void qel_ptimer_update_jitter(qel_ptimer* timer, const timespec* delay, uint32_t percent) {
    qel_ptimer_update_jitter_with_type(timer, delay, percent, QEL_TIME_JITTER_SUBTRACT);
}

void qel_ptimer_update_jitter_with_type(qel_ptimer* timer, const timespec* delay, uint32_t percent,
                                        uint32_t type) {
    if (delay == nullptr) return;
    timespec changed = with_jitter(*delay, percent, type);
    qel_ptimer_update(timer, &changed);
}

void qel_ptimer_stop(qel_ptimer* timer) {
    if (timer != nullptr) *timer = {};
}

int qel_ptimer_running(const qel_ptimer* timer) {
    return timer != nullptr && is_running(*timer);
}

int qel_ptimer_awake(const qel_ptimer* timer) {
    return timer != nullptr && has_expired(*timer);
}

int qel_ptimer_running_and_awake(const qel_ptimer* timer) {
    return qel_ptimer_running(timer) != 0 && has_expired(*timer);
}

int qel_ptimer_running_and_sleeping(const qel_ptimer* timer) {
    return qel_ptimer_running(timer) != 0 && !has_expired(*timer);
}

void qel_ptimer_left_sleeping(timespec* out, const qel_ptimer* timer) {
    if (out == nullptr || timer == nullptr) return;
    timespec left = subtract(*timer, monotonic_now());
    *out = left.tv_sec < 0 ? timespec{} : kept_running(left);
}

void qel_ptimer_elapsed_time(timespec* out, const qel_ptimer* start) {
    timespec now = monotonic_now();
    qel_ptimer_diff_timespec(out, start, &now);
}

int qel_ptimer_in_interval(const qel_ptimer* start, const timespec* length) {
    if (start == nullptr || length == nullptr) return 0;
    timespec now = monotonic_now();
    return order(*start, now) <= 0 && order(now, add(*start, *length)) <= 0;
}

void qel_ptimer_diff_timespec(timespec* out, const timespec* a, const timespec* b) {
    if (out != nullptr && a != nullptr && b != nullptr) *out = kept_running(subtract(*b, *a));
}

void qel_ptimer_add_timespec(timespec* out, const timespec* a, const timespec* b) {
    if (out != nullptr && a != nullptr && b != nullptr) *out = add(*a, *b);
}

void qel_ptimer_add_delta(timespec* out, const timespec* a, const timespec* b) {
    if (out != nullptr && a != nullptr && b != nullptr) *out = kept_running(add(*a, *b));
}

int qel_ptimer_compare(const qel_ptimer* a, uint32_t op, const qel_ptimer* b) {
    if (a == nullptr || b == nullptr || op >= kSatisfying.size()) return 0;
    return (kSatisfying[op] & outcome_of(*a, *b)) != 0;
}

const qel_ptimer* qel_ptimer_soonest(const qel_ptimer* a, const qel_ptimer* b) {
    if (!qel_ptimer_running(b)) return a;
    if (!qel_ptimer_running(a)) return b;
    return order(*b, *a) < 0 ? b : a;
}

void qel_ptimer_copy_timestamp(const qel_ptimer* source, qel_ptimer* destination) {
    if (source != nullptr && destination != nullptr) *destination = *source;
}

void qel_ptimer_normalize_timespec(timespec* value) {
    if (value != nullptr) *value = normalized(*value);
}
