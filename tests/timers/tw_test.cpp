#include "dispatch/dm_support.hpp"

#include <qel/time.h>
#include <qel/tw.h>

#include <pthread.h>

#include <algorithm>
#include <deque>

using namespace qel_test;

namespace {

struct TestWheel {
    qel_tw wheel = nullptr;
    explicit TestWheel(std::uint32_t granularity, std::uint32_t longest = 60, int catch_up = 0) {
        EXPECT_EQ(qel_tw_init_wheel(&wheel, granularity, std::max(granularity, longest), 0,
                                    QEL_TW_MODE_CALLBACK, nullptr, catch_up),
                  0);
    }
    TestWheel(const TestWheel&) = delete;
    ~TestWheel() { EXPECT_TRUE(wheel == nullptr || qel_tw_destroy_wheel(&wheel) == 0); }
    void tick(int count = 1) const {
        for (int i = 0; i < count; ++i) ASSERT_EQ(qel_tw_tick(wheel), 0);
    }
};

// A timer that runs a function object.
struct FunctionTimer {
    qel_tw_timer timer{};
    Function function;
    int start(qel_tw wheel, std::uint32_t delay_ms) {
        return qel_tw_timer_start(
            wheel, &timer, delay_ms,
            [](qel_tw, qel_tw_timer*, void* self) { static_cast<FunctionTimer*>(self)->function(); }, this);
    }
    bool running() const { return qel_tw_timer_running(&timer) != 0; }
};

// Counts the ticks of a wheel by a timer that starts itself again.
struct TickCounter : FunctionTimer {
    int ticks = 0;
    explicit TickCounter(qel_tw wheel) {
        function = [this, wheel] {
            ++ticks;
            start(wheel, 1);
        };
        start(wheel, 1);
    }
};

std::int64_t milliseconds_now() {
    timespec now{};
    qel_time_get_timespec(&now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

std::vector<int> typed_calls;
template <int Type>
void typed(qel_tw_timer_basic* timer) {
    EXPECT_FALSE(qel_tw_timer_basic_running(timer));
    typed_calls.push_back(Type);
}

}  // namespace

TEST(TimerWheel, rounds_delays_up_and_fires_a_zero_delay_a_revolution_later) {
    TestWheel test{8, 8 * 63};
    EXPECT_EQ(qel_tw_granularity(test.wheel), 8u);
    std::vector<int> fired;
    std::vector<FunctionTimer> timers(5);
    const std::uint32_t delays[] = {0, 1, 8, 9, 1000};
    const std::uint32_t left[] = {0, 8, 8, 16, 1000};
    int ticks = 0;
    for (std::size_t i = 0; i < timers.size(); ++i) {
        timers[i].function = [&] { fired.push_back(ticks); };
        ASSERT_EQ(timers[i].start(test.wheel, delays[i]), 0);
        EXPECT_EQ(qel_tw_timer_remaining(test.wheel, &timers[i].timer), left[i]);
    }
    while (++ticks < 200) test.tick();
    EXPECT_THAT(fired, testing::ElementsAre(1, 1, 2, 64, 125));
    EXPECT_EQ(qel_tw_timer_remaining(test.wheel, &timers[4].timer), 0u);
}

// Slot 0 of levels 1 and 2 both come down with tick 8192; lower levels bring theirs first.
TEST(TimerWheel, two_levels_that_turn_over_at_one_tick_keep_tick_and_order) {
    TestWheel test{1};
    FunctionTimer timers[6];
    std::vector<int> fired;
    for (int i = 0; i < 6; ++i) timers[i].function = [&fired, i] { fired.push_back(i); };
    auto start = [&](int first, std::uint32_t delay) {
        EXPECT_EQ(timers[first].start(test.wheel, delay), 0);
        EXPECT_EQ(timers[first + 1].start(test.wheel, delay), 0);
    };
    start(4, 8192);
    test.tick(5000);
    start(2, 3192);
    test.tick(3190);
    start(0, 2);
    test.tick();
    EXPECT_TRUE(fired.empty());
    test.tick();
    EXPECT_THAT(fired, testing::ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(TimerWheel, refuses_what_it_cannot_do) {
    struct Case {
        std::uint32_t granularity, longest, types, mode;
        int error;
    };
    for (const Case& c :
         {Case{0, 9, 0, 0, EINVAL}, Case{100, 100, 0, 0, EINVAL}, Case{128, 127, 0, 0, EINVAL},
          Case{128, 128, 0, 2, EINVAL}, Case{128, 128, 0, 1, EINVAL}, Case{128, 128, 129, 1, EINVAL},
          Case{128, 128, 128, 1, 0}, Case{0x80000000, 0x80000000, 0, 0, 0}}) {
        qel_tw wheel = nullptr;
        EXPECT_EQ(qel_tw_init_wheel(&wheel, c.granularity, c.longest, c.types, c.mode, nullptr, 0), c.error);
        EXPECT_EQ(qel_tw_destroy_wheel(&wheel), c.error);
    }
    TestWheel test{1};
    FunctionTimer timer;
    qel_tw_timer& callback = timer.timer;
    EXPECT_EQ(qel_tw_init_wheel(&test.wheel, 1, 1, 0, 0, nullptr, 0), EINVAL);
    EXPECT_EQ(qel_tw_tick(nullptr), EINVAL);
    EXPECT_EQ(timer.start(nullptr, 1), EINVAL);
    EXPECT_EQ(qel_tw_timer_start(test.wheel, &callback, 1, nullptr, nullptr), EINVAL);
    EXPECT_EQ(qel_tw_timer_basic_start(test.wheel, &callback.basic, 1), EINVAL);
    EXPECT_EQ(qel_tw_set_handler(test.wheel, 1, typed<1>), EINVAL);
    EXPECT_EQ(qel_tw_timer_stop(nullptr), EINVAL);
    EXPECT_EQ(qel_tw_timer_stop(&callback), 0);
    EXPECT_EQ(qel_tw_attach_qdm(test.wheel, 0), ENOENT);
    EXPECT_EQ(qel_tw_attach_qdm(test.wheel, 1), EINVAL);
}

TEST(TimerWheel, a_type_selects_its_handler_from_the_table) {
    qel_tw wheel = nullptr;
    ASSERT_EQ(qel_tw_init_wheel(&wheel, 8, 8, 4, QEL_TW_MODE_BASIC, nullptr, 0), 0);
    EXPECT_EQ(qel_tw_set_handler(wheel, 1, typed<1>), EINVAL);
    const qel_tw_type_row table[] = {
        {5, typed<5>}, {4, typed<4>}, {3, typed<3>}, {1, typed<1>}, {0, nullptr}};
    ASSERT_EQ(qel_tw_load_table(wheel, table), 0);
    EXPECT_EQ(qel_tw_get_handler(wheel, 3), typed<3>);
    for (int type : {0, 2, 4, 5})
        EXPECT_EQ(qel_tw_get_handler(wheel, static_cast<std::uint8_t>(type)), nullptr);
    EXPECT_EQ(qel_tw_set_handler(wheel, 5, typed<5>), EEXIST);
    EXPECT_EQ(qel_tw_set_handler(wheel, 1, nullptr), 0);
    EXPECT_EQ(qel_tw_set_handler(wheel, 5, typed<5>), 0);
    EXPECT_EQ(qel_tw_set_handler(wheel, 4, typed<4>), 0);
    std::vector<qel_tw_timer_basic> timers(8);
    for (std::uint8_t type = 0; type < 8; ++type) {
        EXPECT_EQ(qel_tw_timer_basic_set_type(wheel, &timers[type], type), 0);
        EXPECT_EQ(qel_tw_timer_basic_start(wheel, &timers[type], 8), 0);
        EXPECT_EQ(qel_tw_timer_basic_get_type(wheel, &timers[type]), type);
    }
    EXPECT_EQ(qel_tw_timer_basic_set_type(wheel, &timers[0], 8), EINVAL);
    EXPECT_EQ(qel_tw_timer_basic_stop_r(wheel, &timers[4]), 0);
    typed_calls.clear();
    EXPECT_EQ(qel_tw_tick(wheel), 0);
    EXPECT_THAT(typed_calls, testing::ElementsAre(3, 5));
    EXPECT_EQ(qel_tw_destroy_wheel(&wheel), 0);
    ASSERT_EQ(qel_tw_init_wheel(&wheel, 8, 8, 4, QEL_TW_MODE_BASIC, typed<9>, 0), 0);
    EXPECT_EQ(qel_tw_load_table(wheel, table), EINVAL);
    EXPECT_EQ(qel_tw_get_handler(wheel, 1), nullptr);
    EXPECT_EQ(qel_tw_timer_basic_start_jittered(wheel, &timers[6], 7, 50), 0);
    EXPECT_EQ(qel_tw_timer_basic_remaining(wheel, &timers[6]), 8u);
    EXPECT_EQ(qel_tw_tick(wheel), 0);
    EXPECT_EQ(typed_calls.back(), 9);
    EXPECT_EQ(qel_tw_destroy_wheel(&wheel), 0);
}

TEST(TimerWheel, jitter_adds_up_to_its_share) {
    TestWheel test{8};
    qel_tw_timer timer{};
    auto ignore = [](qel_tw, qel_tw_timer*, void*) {};
    std::uint32_t most = 0;
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(qel_tw_timer_start_jittered(test.wheel, &timer, 1000, 20, ignore, nullptr), 0);
        ASSERT_GE(qel_tw_timer_remaining(test.wheel, &timer), 1000u);
        most = std::max(most, qel_tw_timer_remaining(test.wheel, &timer));
    }
    EXPECT_TRUE(most > 1100 && most <= 1200) << most;
    EXPECT_GE(qel_tw_calculate_jitter(0xffffffff, 99, QEL_TIME_JITTER_ADD), 0xfffffff0u);
}

TEST(TimerWheel, a_handler_may_do_anything_to_its_wheel) {
    TestWheel test{1};
    std::vector<FunctionTimer> timers(6);
    int fired = 0;
    for (FunctionTimer& timer : timers) timer.function = [&] { ++fired; };
    for (FunctionTimer& timer : timers) timer.start(test.wheel, 1);
    // Restarts itself, stops a neighbour that is due, and ticks, which fires the others.
    timers[0].function = [&] {
        EXPECT_FALSE(timers[0].running());
        EXPECT_EQ(timers[0].start(test.wheel, 3), 0);
        EXPECT_EQ(qel_tw_timer_stop(&timers[1].timer), 0);
        EXPECT_EQ(qel_tw_tick(test.wheel), 0);
        EXPECT_EQ(fired, 4);
    };
    test.tick();
    EXPECT_EQ(fired, 4);
    // Destroys the wheel: what is left doesn't run any more.
    for (FunctionTimer& timer : timers) timer.start(test.wheel, 1);
    const qel_tw stale = test.wheel;
    timers[0].function = [&] {
        EXPECT_EQ(qel_tw_destroy_wheel(&test.wheel), 0);
        EXPECT_FALSE(timers[1].running());
        EXPECT_EQ(timers[1].start(stale, 1), EINVAL);
        EXPECT_EQ(qel_tw_tick(stale), EINVAL);
    };
    qel_tw_tick(stale);
    EXPECT_EQ(test.wheel, nullptr);
    EXPECT_EQ(fired, 4);
}

TEST(TimerWheel, a_stalled_dispatcher_catches_up_if_asked_to) {
    for (int catch_up : {0, 1}) {
        TestDispatcher dispatcher, other;
        TestWheel test{16, 1000, catch_up};
        TickCounter counter{test.wheel};
        const std::int64_t attached_at = milliseconds_now();
        ASSERT_EQ(qel_tw_attach_qdm(test.wheel, dispatcher.handle), 0);
        EXPECT_EQ(qel_tw_attach_qdm(test.wheel, dispatcher.handle), EBUSY);
        qel_time_sleep(5 * 16 + 4);
        dispatcher.serve_once();
        EXPECT_GE(counter.ticks, catch_up == 0 ? 1 : 5);
        EXPECT_LE(counter.ticks, catch_up == 0 ? 1 : (milliseconds_now() - attached_at) / 16);
        // Left behind by its dispatcher, the wheel goes over to another one.
        EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
        EXPECT_EQ(qel_tw_attach_qdm(test.wheel, other.handle), 0);
        const int before = counter.ticks;
        other.serve_once();
        EXPECT_GT(counter.ticks, before);
        EXPECT_EQ(qel_tw_attach_qdm(test.wheel, 0), 0);
        EXPECT_EQ(qel_tw_attach_qdm(test.wheel, 0), ENOENT);
    }
}

// What was due behind a handler that ends its thread fires with the next tick, and that comes.
TEST(TimerWheel, a_driven_handler_that_ends_its_thread_leaves_the_wheel_running) {
    TestDispatcher dispatcher;
    TestWheel test{1};
    FunctionTimer ends;
    ends.function = [] { pthread_exit(nullptr); };
    ends.start(test.wheel, 1);
    TickCounter counter{test.wheel};
    ASSERT_EQ(qel_tw_attach_qdm(test.wheel, dispatcher.handle), 0);
    std::thread([&] { dispatcher.serve_once(); }).join();
    EXPECT_EQ(counter.ticks, 0);
    dispatcher.serve_once();
    EXPECT_GT(counter.ticks, 0);
}

// A busy dispatcher fires each period up to 0.2 ms early.
TEST(TimerWheel, never_runs_ahead_of_the_clock) {
    TestDispatcher dispatcher;
    TestWheel test{1};
    TickCounter counter{test.wheel};
    const std::int64_t begin = milliseconds_now();
    ASSERT_EQ(qel_tw_attach_qdm(test.wheel, dispatcher.handle), 0);
    Function keep_busy = [&] { execute(dispatcher.handle, keep_busy); };
    keep_busy();
    while (counter.ticks < 100) dispatcher.serve_once();
    EXPECT_GE(milliseconds_now() - begin, 99);
}

// Ten wheels whose ticks come together end as the first of them fires. The timers outlive the rounds: a
// handler that has begun may still run as its wheel goes.
TEST(TimerWheel, ends_against_expiry_on_a_pool_of_threads) {
    TestDispatcher dispatcher;
    std::atomic<int> calls{0};
    FunctionTimer timers[10];
    for (FunctionTimer& timer : timers) timer.function = [&] { ++calls; };
    Servers servers{dispatcher.handle, 3};
    for (int round = 0; round < 1000; ++round) {
        std::deque<TestWheel> wheels;
        const int before = calls;
        for (FunctionTimer& timer : timers) {
            qel_tw wheel = wheels.emplace_back(1).wheel;
            ASSERT_EQ(timer.start(wheel, 1), 0);
            ASSERT_EQ(qel_tw_attach_qdm(wheel, dispatcher.handle), 0);
        }
        while (calls == before) std::this_thread::yield();
        for (TestWheel& test : wheels) ASSERT_TRUE(round % 2 != 0 || qel_tw_attach_qdm(test.wheel, 0) == 0);
    }
    EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
}

TEST(TimerWheel, lists_stay_whole_while_threads_tick_start_and_stop) {
    TestWheel test{1};
    FunctionTimer timers[64];
    std::atomic<int> fired{0};
    for (std::size_t i = 0; i < 64; ++i)
        timers[i].function = [&, i] {
            ++fired;
            EXPECT_EQ(qel_tw_timer_stop(&timers[(i + 1) % 64].timer), 0);
            EXPECT_EQ(timers[(i + 7) % 64].start(test.wheel, 2), 0);
        };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (fired < 5000) test.tick();
        });
    for (std::uint32_t i = 0; fired < 5000; ++i) {
        qel_tw_timer_stop_r(test.wheel, &timers[i * 3 % 64].timer);
        timers[i % 64].start(test.wheel, i % 200);
    }
    for (std::thread& thread : threads) thread.join();
    // What still runs can be stopped, and then nothing fires any more.
    for (FunctionTimer& timer : timers) qel_tw_timer_stop_r(test.wheel, &timer.timer);
    const int before = fired;
    test.tick(300);
    EXPECT_EQ(fired, before);
}
