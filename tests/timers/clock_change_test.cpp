#include "dispatch/dm_support.hpp"

#include <qel/clock_change.h>
#include <qel/ppm.h>
#include <qel/time.h>

using namespace qel_test;

namespace {

struct Watcher {
    std::uint64_t id = 99;
    qel_dm_handle dm;
    std::atomic<int> told{0};
    explicit Watcher(qel_dm_handle on) : dm(on) {
        EXPECT_EQ(qel_time_clock_change_register(&id, dm, tell, this), 0);
    }
    static void tell(std::uint64_t id, qel_dm_handle dm, void* context) {
        auto& self = *static_cast<Watcher*>(context);
        EXPECT_EQ(id, self.id);
        EXPECT_EQ(dm, self.dm);
        ++self.told;
    }
};

void watch_every_two_seconds() {
    // Whatever is below 2 counts as 2.
    EXPECT_EQ(qel_ppm_set_integer("qel.time.clock-change-check-interval-sec", 0), 0);
}

}  // namespace

TEST(ClockChange, is_told_once_to_each_registration_and_a_stall_is_none) {
    watch_every_two_seconds();
    TestDispatcher first, second;
    Watcher a{first.handle}, b{second.handle}, gone{second.handle};
    EXPECT_EQ(a.id, 0u);
    EXPECT_EQ(gone.id, 2u);
    std::uint64_t id = 5;
    EXPECT_EQ(qel_time_clock_change_register(nullptr, second.handle, Watcher::tell, nullptr), EINVAL);
    EXPECT_EQ(qel_time_clock_change_register(&id, 12345, Watcher::tell, nullptr), EINVAL);
    EXPECT_EQ(qel_time_clock_change_register(&id, second.handle, nullptr, nullptr), EINVAL);
    EXPECT_EQ(id, 5u);
    qel_time_clock_change_deregister(gone.id);
    qel_time_clock_change_deregister(gone.id);
    Servers servers{first.handle, 1};
    Servers more_servers{second.handle, 1};
    clock_set_time(30);
    EXPECT_TRUE(eventually([&] { return a.told == 1 && b.told == 1; }));
    // The timer is due in two seconds and runs after three and a half; then comes the one that tells of it.
    Function stall = [] { qel_time_sleep(3500); };
    EXPECT_EQ(execute(first.handle, stall), 0);
    std::atomic<bool> passed{false};
    qel_dm_timer marker = nullptr;
    const timespec behind{2, 500'000'000};
    auto pass = [](qel_dm_handle, qel_dm_timer, void* flag) {
        *static_cast<std::atomic<bool>*>(flag) = true;
    };
    ASSERT_EQ(qel_dm_timer_register(first.handle, &marker, pass, &passed), 0);
    ASSERT_EQ(qel_dm_timer_settime(first.handle, marker, &behind), 0);
    EXPECT_TRUE(eventually([&] { return passed.load(); }));
    // A job queued now runs behind those that would tell.
    Function pass_again = [&] { passed = false; };
    EXPECT_EQ(execute(second.handle, pass_again), 0);
    EXPECT_TRUE(eventually([&] { return !passed; }));
    qel_time_clock_change_deregister(a.id);
    qel_time_clock_change_deregister(b.id);
    EXPECT_EQ(qel_dm_destroy(&first.handle), 0);
    EXPECT_EQ(qel_dm_destroy(&second.handle), 0);
    EXPECT_EQ(a.told, 1);
    EXPECT_EQ(b.told, 1);
    EXPECT_EQ(gone.told, 0);
}

TEST(ClockChange, is_watched_on_when_the_oldest_goes) {
    watch_every_two_seconds();
    TestDispatcher first, second, third;
    Watcher a{first.handle}, b{second.handle}, c{third.handle};
    Servers servers{third.handle, 1};
    // Deregistered, the oldest hands the timer on; destroyed, the dispatcher leaves it to the next call.
    qel_time_clock_change_deregister(a.id);
    EXPECT_EQ(qel_dm_destroy(&second.handle), 0);
    Watcher d{third.handle};
    clock_set_time(30);
    EXPECT_TRUE(eventually([&] { return c.told == 1 && d.told == 1; }));
    // A change that is found as the timer moves isn't lost.
    qel_time_clock_change_deregister(b.id);
    clock_set_time(30);
    qel_time_clock_change_deregister(c.id);
    EXPECT_TRUE(eventually([&] { return d.told == 2; }, 1s));
    qel_time_clock_change_deregister(d.id);
    EXPECT_EQ(qel_dm_destroy(&third.handle), 0);
    EXPECT_EQ(a.told + b.told, 0);
    EXPECT_EQ(c.told, 1);
}
