// The owner's look for more signals, before its handler ends and it has to be woken again.
//
// A wake-up costs tens of microseconds, an answer a few. So a handler that found signals marks the end point
// as awake and looks again for a while: first spinning, for a peer on another processor, then giving way to
// others, for a peer on the same one. Where nothing comes, the next look is left out, after another one in
// vain the next two, and so on up to a thousand: an owner with rare signals doesn't burn its processor for
// them.
//
// Two who wake each other at every message never find one another with that: each comes after the other's
// look. So a look after many in vain is a long one, which outlasts a wake-up; where it finds something the
// next looks are long and due, until the peer's own look meets one of them and both go on with quick ones. If
// that doesn't come about soon, the peer is slow by itself, and the next try is put off further.
//
// Invariant: the mark stands only while a thread is inside sep_look_again(), and each way out takes it back
// by a step that sees the bits that were added under it; these stay, and the thread takes them next. Two
// threads may run handlers at once: what one clears, it has taken, and the other finds no mark and goes.
//
// Locks: none. Threads: the dispatcher's. Restart: the mark of a dead owner stays until qel_sep_init(), and
// senders go on adding bits meanwhile.
#include <sched.h>

#include <algorithm>

#include "ipc/qel_sep.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"
#include "time/qel_time.hpp"

namespace qel {
namespace {

constexpr int kSpinRounds = 80;  // some two microseconds
constexpr timespec kQuickLook{0, 50'000};
constexpr timespec kLongLook{0, 300'000};
constexpr std::uint32_t kLongFrom = 32;  // looks left out, and the next one is long
constexpr std::uint16_t kLongInARow = 128;
constexpr std::uint32_t kMostSkipped = 1024;
constexpr std::uint16_t kSpinsToTell = 4;    // in vain, and spinning is left out
constexpr std::uint16_t kSpinsToRetry = 64;  // but for one in so many looks

bool is_bare_mark(qel_sep_record& record) {
    return flags_of(record).load(std::memory_order_relaxed) == kOwnerAwake;
}

// A peer on this processor can't answer while its owner spins.
bool spinning_pays(SepWords& words) {
    std::atomic_ref in_vain{words.spins_in_vain};
    std::uint16_t before = in_vain.load(std::memory_order_relaxed);
    in_vain.store(static_cast<std::uint16_t>(before + 1), std::memory_order_relaxed);
    return before < kSpinsToTell || before % kSpinsToRetry == 0;
}

void spin(SepWords& words, qel_sep_record& record) {
    if (!shm_platform::has_processors() || !spinning_pays(words)) return;
    for (int round = 0; round < kSpinRounds && is_bare_mark(record); ++round) shm_platform::pause_spinning();
    if (!is_bare_mark(record)) std::atomic_ref{words.spins_in_vain}.store(0, std::memory_order_relaxed);
}

enum class Found { nothing, late, at_once };

// Until bits come or a look is over; whether that was within a quick one.
bool give_way(qel_sep_record& record, bool is_long) {
    timespec start = monotonic_now();
    timespec quick_end = add(start, kQuickLook), end = is_long ? add(start, kLongLook) : quick_end;
    timespec now = start;
    for (; is_bare_mark(record) && order(now, end) < 0; now = monotonic_now()) sched_yield();
    return order(now, quick_end) < 0;
}

Found look(SepWords& words, qel_sep_record& record, bool is_long) {
    std::uint32_t seen = 0;
    // Another thread looks already, or there are signals.
    if (!flags_of(record).compare_exchange_strong(seen, kOwnerAwake))
        return (seen & kOwnerAwake) == 0 ? Found::at_once : Found::nothing;
    spin(words, record);
    bool quick = give_way(record, is_long);
    bool came = (flags_of(record).fetch_and(~kOwnerAwake) & ~kOwnerAwake) != 0;
    if (!came) return Found::nothing;
    return quick ? Found::at_once : Found::late;
}

// A thread at a time as a rule; counts that two threads mix up cost a look at most.
bool is_due(SepWords& words) {
    std::atomic_ref to_skip{words.looks_to_skip};
    std::uint16_t left = to_skip.load(std::memory_order_relaxed);
    if (left == 0) return true;
    to_skip.store(static_cast<std::uint16_t>(left - 1), std::memory_order_relaxed);
    return false;
}

void back_off(SepWords& words) {
    std::atomic_ref backed_off{words.looks_backed_off};
    std::uint32_t before = backed_off.load(std::memory_order_relaxed);
    auto skip = static_cast<std::uint16_t>(std::clamp(before * 2, 1u, kMostSkipped));
    backed_off.store(skip, std::memory_order_relaxed);
    std::atomic_ref{words.looks_to_skip}.store(skip, std::memory_order_relaxed);
    std::atomic_ref{words.long_looks_done}.store(0, std::memory_order_relaxed);
}

void learn(SepWords& words, Found found) {
    std::atomic_ref long_done{words.long_looks_done};
    if (found == Found::at_once) {
        std::atomic_ref{words.looks_backed_off}.store(0, std::memory_order_relaxed);
        long_done.store(0, std::memory_order_relaxed);
        return;
    }
    auto done = static_cast<std::uint16_t>(long_done.load(std::memory_order_relaxed) + 1);
    if (found == Found::nothing || done >= kLongInARow) return back_off(words);
    long_done.store(done, std::memory_order_relaxed);
}

}  // namespace

void sep_handler_begins(qel_sep& local) {
    handler_of(local).store(HandlerState::begun);
}

std::uint32_t sep_next_signals(qel_sep& local, qel_sep_record& record) {
    if (flags_of(record).load() == 0) return 0;
    std::uint32_t bits = take_signals(record);
    HandlerState begun = HandlerState::begun;
    if (bits != 0) handler_of(local).compare_exchange_strong(begun, HandlerState::talking);
    return bits;
}

bool sep_begin_look(qel_sep& local) {
    SepWords& words = words_of(local);
    if (handler_of(local).load() != HandlerState::talking || !is_due(words)) return false;
    lookers_of(local).fetch_add(
        1);  // Before the look at the generation: sep_stop() ends that, then looks here.
    if (std::atomic_ref{words.generation}.load() != 0) return true;
    lookers_of(local).fetch_sub(1);
    return false;
}

bool sep_look_again(qel_sep& local, qel_sep_record& record) {
    SepWords& words = words_of(local);
    bool is_long = std::atomic_ref{words.looks_backed_off}.load(std::memory_order_relaxed) >= kLongFrom;
    Found found = look(words, record, is_long);
    learn(words, found);
    lookers_of(local).fetch_sub(1);
    return found != Found::nothing;
}

}  // namespace qel
