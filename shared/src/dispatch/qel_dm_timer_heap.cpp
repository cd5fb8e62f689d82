// The order of the running timers: see qel_dm_timer_heap.hpp.
//
// Invariant: no entry comes before its parent, entry (i - 1) / 4; timer->place of entry i is i.
// Locks: the dispatcher's mutex, held by the caller. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm_timer_heap.hpp"

#include <qel/mem.h>

#include <algorithm>
#include <limits>

namespace qel::dm {
namespace {

constexpr std::uint32_t kChildren = 4;
constexpr std::uint32_t kFirstCapacity = 16;
constexpr std::int64_t kSecond = 1'000'000'000;

}  // namespace

std::int64_t to_nanoseconds(const timespec& time) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t result = 0;
    if (__builtin_mul_overflow(time.tv_sec, kSecond, &result) ||
        __builtin_add_overflow(result, time.tv_nsec, &result))
        return time.tv_sec < 0 ? Limits::min() : Limits::max();
    return result;
}

bool TimerHeap::reserve(std::uint32_t count) {
    if (count <= capacity_) return true;
    std::uint32_t capacity = std::max({count, capacity_ * 2, kFirstCapacity});
    void* memory = qel_named_realloc(entries_, capacity * sizeof(Entry));
    if (memory == nullptr) return false;
    entries_ = static_cast<Entry*>(memory);
    capacity_ = capacity;
    return true;
}

void TimerHeap::insert(qel_dm_timer timer) {
    sift_up(count_++, {to_nanoseconds(timer->expiry), starts_++, timer});
}

void TimerHeap::remove(qel_dm_timer timer) {
    std::uint32_t hole = timer->place;
    timer->place = kIdle;
    const Entry last = entries_[--count_];
    // The last entry may belong above the hole, when that lies under another parent.
    if (hole != count_) sift(hole, last);
}

void TimerHeap::move(qel_dm_timer timer) {
    sift(timer->place, {to_nanoseconds(timer->expiry), starts_++, timer});
}

void TimerHeap::free() {
    qel_named_free(entries_);
    *this = {};
}

void TimerHeap::put(std::uint32_t place, const Entry& entry) {
    entries_[place] = entry;
    entry.timer->place = place;
}

void TimerHeap::sift(std::uint32_t hole, const Entry& entry) {
    if (hole != 0 && before(entry, entries_[(hole - 1) / kChildren])) return sift_up(hole, entry);
    sift_down(hole, entry);
}

void TimerHeap::sift_up(std::uint32_t hole, const Entry& entry) {
    while (hole != 0) {
        std::uint32_t parent = (hole - 1) / kChildren;
        if (!before(entry, entries_[parent])) break;
        put(hole, entries_[parent]);
        hole = parent;
    }
    put(hole, entry);
}

void TimerHeap::sift_down(std::uint32_t hole, const Entry& entry) {
    for (;;) {
        std::uint32_t child = earliest_child(hole);
        if (child == 0 || !before(entries_[child], entry)) break;
        put(hole, entries_[child]);
        hole = child;
    }
    put(hole, entry);
}

// The index of the child that comes first, or 0 for an entry without children.
std::uint32_t TimerHeap::earliest_child(std::uint32_t parent) const {
    std::uint32_t child = parent * kChildren + 1;
    if (child >= count_) return 0;
    std::uint32_t end = std::min(child + kChildren, count_);
    std::uint32_t earliest = child;
    while (++child < end)
        if (before(entries_[child], entries_[earliest])) earliest = child;
    return earliest;
}

}  // namespace qel::dm
