// Atomic operations on 32-bit words, which may lie in memory shared between processes.
//
// Every operation has full ordering (seq_cst, on purpose). The forms with _mb put a full fence behind it,
// which also orders the caller's plain accesses around a word that others reach by other means.
//
// The spin lock yields now and then: its holder may be waiting for this very core.
#include <qel/atomic.h>

#include <sched.h>

#include <atomic>

namespace {

using Word = std::atomic_ref<uint32_t>;

// A word in shared memory must not hide a lock that lives in one process.
static_assert(Word::is_always_lock_free && std::atomic_ref<void*>::is_always_lock_free);

constexpr int kSpinsBeforeYield = 64;

void fence() {
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

void spin_until_swapped(uint32_t* word, uint32_t from, uint32_t to) {
    for (int spins = 1; !qel_atomic_cas(word, from, to); ++spins) {
        // Waiting reads leave the holder its cache line.
        while (Word{*word}.load(std::memory_order_relaxed) != from)
            if (spins++ % kSpinsBeforeYield == 0) sched_yield();
    }
}

}  // namespace

int qel_atomic_cas(uint32_t* word, uint32_t old_value, uint32_t new_value) {
    return Word{*word}.compare_exchange_strong(old_value, new_value);
}

int qel_atomic_cas_vptr(void** word, void* old_value, void* new_value) {
    return std::atomic_ref{*word}.compare_exchange_strong(old_value, new_value);
}

uint32_t qel_atomic_add_and_fetch(uint32_t* word, uint32_t value) {
    return Word{*word}.fetch_add(value) + value;
}

uint32_t qel_atomic_add_and_fetch_mb(uint32_t* word, uint32_t value) {
    uint32_t result = qel_atomic_add_and_fetch(word, value);
    fence();
    return result;
}

uint32_t qel_atomic_sub_and_fetch(uint32_t* word, uint32_t value) {
    return Word{*word}.fetch_sub(value) - value;
}

uint32_t qel_atomic_sub_and_fetch_mb(uint32_t* word, uint32_t value) {
    uint32_t result = qel_atomic_sub_and_fetch(word, value);
    fence();
    return result;
}

void qel_atomic_add(uint32_t* word, uint32_t value) {
    qel_atomic_add_and_fetch(word, value);
}

void qel_atomic_add_mb(uint32_t* word, uint32_t value) {
    qel_atomic_add_and_fetch_mb(word, value);
}

void qel_atomic_sub(uint32_t* word, uint32_t value) {
    qel_atomic_sub_and_fetch(word, value);
}

void qel_atomic_sub_mb(uint32_t* word, uint32_t value) {
    qel_atomic_sub_and_fetch_mb(word, value);
}

void qel_atomic_incr(uint32_t* word) {
    qel_atomic_add_and_fetch(word, 1);
}

void qel_atomic_incr_mb(uint32_t* word) {
    qel_atomic_add_and_fetch_mb(word, 1);
}

uint32_t qel_atomic_incr_and_fetch(uint32_t* word) {
    return qel_atomic_add_and_fetch(word, 1);
}

uint32_t qel_atomic_incr_and_fetch_mb(uint32_t* word) {
    return qel_atomic_add_and_fetch_mb(word, 1);
}

void qel_atomic_decr(uint32_t* word) {
    qel_atomic_sub_and_fetch(word, 1);
}

void qel_atomic_decr_mb(uint32_t* word) {
    qel_atomic_sub_and_fetch_mb(word, 1);
}

uint32_t qel_atomic_decr_and_fetch(uint32_t* word) {
    return qel_atomic_sub_and_fetch(word, 1);
}

uint32_t qel_atomic_decr_and_fetch_mb(uint32_t* word) {
    return qel_atomic_sub_and_fetch_mb(word, 1);
}

void qel_atomic_lock(uint32_t* word) {
    spin_until_swapped(word, 0, 1);
}

void qel_atomic_unlock(uint32_t* word) {
    spin_until_swapped(word, 1, 0);
}
