#include "support/failing.hpp"
#include "timers/qel_tw.hpp"

#include "support/support.hpp"

#include <qel/clock_change.h>

#include <random>
#include <vector>

using namespace qel_test;

namespace {

// Four million ticks of the largest size would take the thread sanitizer half a minute.
#if defined(__SANITIZE_THREAD__)
constexpr std::uint32_t kLargestSize = 1024;
#else
constexpr std::uint32_t kLargestSize = 2048;
#endif

void ignore_basic(qel_tw_timer_basic*) {}

// A wheel beside a model that knows no levels: of each timer the tick at which it is to fire.
struct Model {
    struct Entry {
        qel_tw_timer timer;
        Model* model;
        bool due;
        std::uint32_t expiry, started_at;
        std::uint64_t order;
    };
    qel_tw wheel = nullptr;
    std::uint32_t tick;
    std::uint64_t starts = 0, fired = 0;
    std::vector<Entry> entries{200};
    Entry last{};

    Model(std::uint32_t granularity, std::uint32_t size, std::uint32_t first_tick) : tick(first_tick) {
        EXPECT_EQ(qel_tw_init_wheel(&wheel, granularity, granularity * (size - 1), 0, 0, nullptr, 0), 0);
        EXPECT_EQ(wheel->size, size);
        wheel->current_tick = first_tick;  // An empty wheel may stand at any tick.
    }
    ~Model() { EXPECT_EQ(qel_tw_destroy_wheel(&wheel), 0); }

    void start(Entry& entry, std::uint32_t ticks) {
        const std::uint32_t expiry = tick + (ticks == 0 ? wheel->size : ticks);
        entry = {entry.timer, this, true, expiry, tick, ++starts};
        ASSERT_EQ(qel_tw_timer_start(wheel, &entry.timer, ticks * wheel->granularity, fire, &entry), 0);
        ASSERT_EQ(qel_tw_timer_remaining(wheel, &entry.timer), ticks * wheel->granularity);
    }
    void stop(Entry& entry) {
        ASSERT_EQ(qel_tw_timer_running(&entry.timer), entry.due);
        ASSERT_EQ(qel_tw_timer_stop(&entry.timer), 0);
        entry.due = false;
    }
    static void fire(qel_tw, qel_tw_timer*, void* context) {
        auto& entry = *static_cast<Entry*>(context);
        Model& model = *entry.model;
        EXPECT_TRUE(entry.due);
        EXPECT_EQ(entry.expiry, model.tick) << "started at " << entry.started_at;
        EXPECT_TRUE(entry.expiry != model.last.expiry || entry.started_at != model.last.started_at ||
                    entry.order > model.last.order);
        entry.due = false;
        model.last = entry;
        ++model.fired;
    }

    // Starts, restarts and stops timers in the first quarter of 'ticks', and ticks until all have fired.
    void run(std::uint32_t ticks, const std::vector<std::uint32_t>& delays) {
        std::mt19937 random{1};
        auto any = [&]() -> Entry& { return entries[random() % entries.size()]; };
        for (std::uint32_t i = 0; i < ticks; ++i) {
            if (i < ticks / 4 && random() % 16 == 0) {
                const auto jiggle = static_cast<std::uint32_t>(random() % 3) - 1;
                const std::uint32_t delay = delays[random() % delays.size()] + jiggle;
                start(any(), delay);
                start(any(), delay);
                if (random() % 4 == 0) stop(any());
            }
            ++tick;
            ASSERT_EQ(qel_tw_tick(wheel), 0);
        }
        EXPECT_GT(fired, entries.size());
        for (Entry& entry : entries) ASSERT_FALSE(entry.due) << entry.expiry - entry.started_at;
    }
};

}  // namespace

// Delays around each power of the size, started at all distances before the counter's wrap and behind it, so
// that carries run through all levels; 64 slots up to the third power.
TEST(TimerWheelSlots, each_timer_fires_at_its_tick_in_every_size_and_across_the_wrap) {
    for (std::uint32_t size = 64; size <= kLargestSize; size *= 2) {
        const std::uint32_t square = size * size;
        std::vector<std::uint32_t> delays{1, size / 2, size, 2 * size, square / 2, square, square + size - 1};
        if (size == 64) delays.insert(delays.end(), {square * size / 2, square * size});
        const std::uint32_t ticks = (delays.back() + size) / 3 * 4 + 8;
        Model{1, size, 0u - ticks / 8}.run(ticks, delays);
        if (size <= 256) Model{16, size, 0u - ticks / 8}.run(ticks, delays);
    }
}

// The counter is set on to where the top level's slot comes down, instead of thousands of millions of ticks.
TEST(TimerWheelSlots, the_longest_delays_come_down_from_the_top_level) {
    struct Case {
        std::uint32_t now, expiry;
    };
    // A carry past the highest level but one; a delay of a whole revolution of the counter, less one.
    for (Case c : {Case{0x7ffffffe, 0xc0000046}, Case{0x40000047, 0x40000046}}) {
        for (std::uint32_t size = 64; size <= 2048; size *= 2) {
            qel_tw wheel = nullptr;
            ASSERT_EQ(qel_tw_init_wheel(&wheel, 1, size - 1, 1, QEL_TW_MODE_BASIC, ignore_basic, 0), 0);
            qel_tw_timer_basic timer{};
            wheel->current_tick = c.now;
            ASSERT_EQ(qel_tw_timer_basic_start(wheel, &timer, c.expiry - c.now), 0);
            wheel->current_tick = (c.expiry & 0xf0000000) - 1;
            while (wheel->current_tick != c.expiry) {
                EXPECT_TRUE(qel_tw_timer_basic_running(&timer));
                ASSERT_EQ(qel_tw_tick(wheel), 0);
            }
            EXPECT_FALSE(qel_tw_timer_basic_running(&timer)) << size;
            EXPECT_EQ(qel_tw_destroy_wheel(&wheel), 0);
        }
    }
}

TEST(TimerWheelFailures, each_allocation_may_fail) {
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, "wheel's", QEL_DM_PRIVATE), 0);
    auto worked = [](int error) {
        EXPECT_TRUE(error == 0 || error == ENOMEM) << error;
        return error == 0;
    };
    const qel_tw_type_row table[] = {{1, ignore_basic}, {0, nullptr}};
    int failures = fail_each_allocation([&] {
        std::uint64_t id = 7;
        if (worked(qel_time_clock_change_register(
                &id, dm, [](std::uint64_t, qel_dm_handle, void*) {}, nullptr)))
            qel_time_clock_change_deregister(id);
        qel_tw wheel = nullptr;
        if (!worked(qel_tw_init_wheel(&wheel, 4, 100, 4, QEL_TW_MODE_BASIC, nullptr, 0))) {
            EXPECT_EQ(wheel, nullptr);
            return;
        }
        EXPECT_EQ(qel_tw_get_handler(wheel, 1),
                  worked(qel_tw_load_table(wheel, table)) ? ignore_basic : nullptr);
        EXPECT_EQ(qel_tw_attach_qdm(wheel, 0), worked(qel_tw_attach_qdm(wheel, dm)) ? 0 : ENOENT);
        EXPECT_EQ(qel_tw_destroy_wheel(&wheel), 0);
    });
    EXPECT_GE(failures, 3);
    EXPECT_EQ(qel_dm_destroy(&dm), 0);
}
