// The running timers of a dispatcher, ordered by expiry; equal times in the order of their starts.
//
// A 4-ary heap in one array. Each entry carries its whole key, so comparing touches no timer record, and the
// four children of an entry lie side by side. Starting a timer costs about one comparison, stopping one a
// handful, whatever the number of timers.
#pragma once

#include <qel/dm.h>
#include <qel/ptimer.h>
#include <qel/queue.h>

#include <cstddef>
#include <cstdint>

// A timer, an element of its dispatcher's chunk pool. The caller's timer variable holds its address.
struct qel_dm_timer_record {
    qel_dqueue link;  // in 'idle_timers' or 'expired_timers'; initial while the timer runs
    qel_dm_timer_handler handler;
    void* context;
    qel_ptimer expiry;
    std::uint32_t place;  // index in the heap while it runs, else a TimerHeap::Place
    std::uint32_t owner;  // handle of the dispatcher; 0 once freed
};
static_assert(sizeof(qel_dm_timer_record) == 64);

namespace qel::dm {

// Plain data: zeroed is empty. The caller's lock guards it.
class TimerHeap {
  public:
    // What 'place' holds for a timer that is not in the heap.
    enum Place : std::uint32_t { kIdle = 0xffffffff, kExpired = 0xfffffffe };

    bool empty() const { return count_ == 0; }
    qel_dm_timer first() const { return count_ == 0 ? nullptr : entries_[0].timer; }
    std::int64_t first_expiry_ns() const { return entries_[0].expiry_ns; }

    // Makes room for 'count' timers, so that insert() can't fail. False when memory is short.
    bool reserve(std::uint32_t count);
    void insert(qel_dm_timer timer);
    void remove(qel_dm_timer timer);
    // Puts a running timer where its changed expiry belongs, as if it had been removed and inserted.
    void move(qel_dm_timer timer);
    void free();

  private:
    struct Entry {
        std::int64_t expiry_ns;
        std::uint64_t sequence;
        qel_dm_timer timer;
    };

    static bool before(const Entry& left, const Entry& right) {
        if (left.expiry_ns != right.expiry_ns) return left.expiry_ns < right.expiry_ns;
        return left.sequence < right.sequence;
    }
    void put(std::uint32_t place, const Entry& entry);
    void sift(std::uint32_t hole, const Entry& entry);
    void sift_up(std::uint32_t hole, const Entry& entry);
    void sift_down(std::uint32_t hole, const Entry& entry);
    std::uint32_t earliest_child(std::uint32_t parent) const;

    Entry* entries_;
    std::uint32_t count_;
    std::uint32_t capacity_;
    std::uint64_t starts_;
};

// A time as nanoseconds, held within 64 bits.
std::int64_t to_nanoseconds(const timespec& time);

}  // namespace qel::dm
