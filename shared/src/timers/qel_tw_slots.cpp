// Slots: where a timer waits, how it comes down, and the tick that fires it.
//
// With B bits a level, slot s of level l holds the timers whose expiry tick has s in bits l*B to l*B+B-1. A
// timer starts in the lowest level from where its slot is reached just in time: when the ticks' upper bits
// (tick >> l*B) have at most one revolution to go. As the counter's lower l*B bits come to 0, the slot of
// level l that it has reached is dealt out to the levels below, in time for those, and the current tick's
// slot of level 0 fires.
//
//      level 2   [ ][ ][ ]...           a slot is S*S ticks   (S slots a level)
//                  |  reached: every S*S ticks
//      level 1   [ ][ ][ ]...           a slot is S ticks
//                  |  reached: every S ticks
//      level 0   [ ][ ][ ]...           a slot is one tick    --> due --> handlers, one after the other
//
// A timer's 'time' has lost the expiry's top bits to the shift. They aren't missed: coming down from level l
// takes bits below l*B only, and a timer is that high up only if its delay has more than l*B bits, all of
// which 'time' holds.
//
// Invariant: a running timer is in one slot or in 'due', which lies in the wheel so that a handler that ends
// its thread leaves the rest for the next tick. Locks: the wheel's mutex, let go around each handler; after
// that the wheel may be destroyed, detached, ticked. Threads: any. Restart: nothing stays.
#include "core/qel_owned.hpp"
#include "timers/qel_tw.hpp"

namespace qel::tw {
namespace {

Link& slot_at(Wheel& wheel, std::uint32_t level, std::uint32_t tick_bits) {
    return wheel.wheels[(level << wheel.bits) + (tick_bits & wheel.slot_mask)];
}

std::uint32_t ticks_of(const Wheel& wheel, std::uint32_t delay_ms) {
    std::uint32_t rest = delay_ms & (wheel.granularity - 1);
    return (delay_ms >> wheel.granularity_bits) + (rest != 0 ? 1 : 0);
}

// The lowest level in which the slot of 'expiry' lies at most one revolution ahead. Comparing the slots
// themselves and not the delay counts the carry from below: a timer that a carry takes past the revolution
// would be met at once.
std::uint32_t level_for(const Wheel& wheel, std::uint64_t now, std::uint64_t expiry) {
    std::uint32_t level = 0;
    while (expiry - now > wheel.size) {
        now >>= wheel.bits;
        expiry >>= wheel.bits;
        ++level;
    }
    return level;
}

// Puts a timer that was in a slot of the level above 'level', which the counter has just reached, into its
// slot of 'level'; or, since slot 0 of that has just been dealt out, further down.
void lower_locked(Wheel& wheel, Link& link, std::uint32_t level) QEL_REQUIRES(wheel.mutex) {
    const std::uint32_t expiry = timer_of(link).time >> wheel.time_shift;
    while (level > 0 && ((expiry >> (level * wheel.bits)) & wheel.slot_mask) == 0) --level;
    append(link, slot_at(wheel, level, expiry >> (level * wheel.bits)));
}

// Deals out a slot of the level above 'level'.
void deal_out_locked(Wheel& wheel, Link& slot, std::uint32_t level) QEL_REQUIRES(wheel.mutex) {
    Link* link = slot.next;
    const Link* end = &slot;
    make_empty(slot);
    while (link != end) {
        Link* following = link->next;
        __builtin_prefetch(following->next, 1);
        lower_locked(wheel, *link, level);
        link = following;
    }
}

// The counter's lowest bits have come to 0: brings down what the levels above hold for it.
void cascade_locked(Wheel& wheel) QEL_REQUIRES(wheel.mutex) {
    std::uint32_t turns = wheel.current_tick;
    for (std::uint32_t level = 0; level + 1 < wheel.levels; ++level) {
        turns >>= wheel.bits;
        deal_out_locked(wheel, slot_at(wheel, level + 1, turns), level);
        // While its own slot isn't 0, the level above that has not moved.
        if ((turns & wheel.slot_mask) != 0) return;
    }
}

// Takes the first due timer off and calls its handler.
void fire_locked(Wheel& wheel, Locked& lock) QEL_REQUIRES(wheel.mutex) {
    qel_tw_timer_basic& timer = timer_of(*wheel.due.next);
    take_off(link_of(timer));
    if ((wheel.flags & Wheel::kBasic) != 0) {
        if (qel_tw_basic_handler handler = basic_handler_locked(wheel, timer); handler != nullptr)
            lock.while_unlocked([&] { handler(&timer); });
        return;
    }
    auto& full = reinterpret_cast<qel_tw_timer&>(timer);
    lock.while_unlocked(
        [&wheel, &full, handler = full.handler, context = full.context] { handler(&wheel, &full, context); });
}

}  // namespace

void place_locked(Wheel& wheel, qel_tw_timer_basic& timer, std::uint32_t delay_ms) {
    const std::uint32_t ticks = ticks_of(wheel, delay_ms);
    const std::uint32_t expiry = (wheel.current_tick + ticks) & wheel.tick_mask;
    timer.time = expiry << wheel.time_shift | (timer.time & wheel.type_mask);
    std::uint32_t level = level_for(wheel, wheel.current_tick, std::uint64_t{wheel.current_tick} + ticks);
    append(link_of(timer), slot_at(wheel, level, expiry >> (level * wheel.bits)));
}

std::uint32_t remaining_locked(const Wheel& wheel, const qel_tw_timer_basic& timer) {
    // In units of a tick this is modulo 2^(32 - granularity_bits), as much as 'time' holds.
    return (timer.time & ~(wheel.granularity - 1)) - (wheel.current_tick << wheel.time_shift);
}

void empty_all_slots_locked(Wheel& wheel) {
    while (!is_empty(wheel.due)) take_off(*wheel.due.next);
    for (Link* slot = wheel.wheels; slot != wheel.wheels + wheel.levels * wheel.size; ++slot)
        while (!is_empty(*slot)) take_off(*slot->next);
}

bool may_tick_locked(const Wheel& wheel, const Ticker& ticker) {
    return is_alive_locked(wheel) && (!ticker.driven || ticker.attachment == wheel.attachment);
}

bool run_tick(Wheel& wheel, const Ticker& ticker) {
    Undo leave{[outer = std::exchange(ticking_here, &wheel)] { ticking_here = outer; }};
    Locked lock{wheel.mutex};
    if (!may_tick_locked(wheel, ticker)) return false;
    wheel.current_tick = (wheel.current_tick + 1) & wheel.tick_mask;
    if ((wheel.current_tick & wheel.slot_mask) == 0) cascade_locked(wheel);
    append_all(slot_at(wheel, 0, wheel.current_tick), wheel.due);
    while (!is_empty(wheel.due)) {
        fire_locked(wheel, lock);
        if (!may_tick_locked(wheel, ticker)) return false;
    }
    return true;
}

}  // namespace qel::tw
