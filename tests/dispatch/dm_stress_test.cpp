// Everything at once, for the thread sanitizer: producers, serving threads, descriptors, timers and messages
// on one dispatcher after the other, each destroyed at a random moment. QEL_STRESS_SECONDS sets the length.
#include "dm_support.hpp"

#include <cstdlib>
#include <random>

using namespace qel_test;

namespace {

constexpr int kProducers = 4;
constexpr int kServers = 4;
constexpr int kPipes = 4;
constexpr int kTimers = 8;

struct Round {
    TestDispatcher dispatcher;
    const qel_dm_handle handle = dispatcher.handle;
    Pipe pipes[kPipes];
    qel_dm_timer timers[kTimers]{};
    std::atomic<std::uint64_t> queued{0}, run{0};
};

void count_job(qel_dm_handle, std::uint64_t data, std::uint64_t) {
    ++reinterpret_cast<Round*>(data)->run;
}

void on_readable(qel_dm_handle handle, std::uint32_t fd, std::uint32_t conditions, void* context) {
    char byte = 0;
    EXPECT_EQ(read(static_cast<int>(fd), &byte, 1), 1);
    qel_dm_fd_register(handle, fd, conditions, on_readable, context);
}

void on_timer(qel_dm_handle handle, qel_dm_timer timer, void*) {
    timespec soon{0, 250'000};
    qel_dm_timer_settime(handle, timer, &soon);
}

void on_message(qel_dm_handle handle, void*, std::uint64_t) {
    while (qel_dm_message_receive(handle, nullptr, nullptr, nullptr) == 0) {
    }
}

// One of the things that an application does to a dispatcher; gives its result.
int act(Round& round, std::uint32_t number) {
    const std::size_t which = number / 8 % kTimers;
    timespec delay{0, static_cast<long>(number % 3'000'000)};
    switch (number % 8) {
    case 0:
        return qel_dm_timer_settime(round.handle, round.timers[which], &delay);
    case 1:
        return qel_dm_timer_settime(round.handle, round.timers[which], nullptr);
    case 2:
        return qel_dm_message_send(round.handle, number, number, &round);
    case 3:
        if (write(round.pipes[which % kPipes].ends[1], "x", 1) < 0) {
            EXPECT_EQ(errno, EAGAIN);
        }
        return 0;
    default:
        if (int error = qel_dm_execute(round.handle, count_job, reinterpret_cast<std::uint64_t>(&round), 0);
            error != 0)
            return error;
        ++round.queued;
        return 0;
    }
}

void produce(Round& round, std::uint32_t seed) {
    std::minstd_rand random{seed};
    int error = 0;
    while (error == 0) error = act(round, static_cast<std::uint32_t>(random()));
    EXPECT_EQ(error, EINVAL);
}

void set_up(Round& round) {
    for (Pipe& pipe : round.pipes)
        ASSERT_EQ(qel_dm_fd_register(round.handle, pipe.reader(), QEL_DM_READABLE, on_readable, nullptr), 0);
    for (qel_dm_timer& timer : round.timers)
        ASSERT_EQ(qel_dm_timer_register(round.handle, &timer, on_timer, nullptr), 0);
    ASSERT_EQ(qel_dm_message_register(round.handle, on_message, nullptr), 0);
}

void play(std::uint32_t seed) {
    Round round;
    set_up(round);
    std::minstd_rand random{seed};
    {
        Servers servers{round.handle, kServers};
        std::vector<std::thread> producers;
        for (std::uint32_t i = 1; i <= kProducers; ++i)
            producers.emplace_back([&round, seed, i] { produce(round, seed + i); });
        // A job posted after so many others have run still gets its turn: nobody sleeps on a full queue.
        const std::uint64_t enough = random() % 20'000;
        EXPECT_TRUE(eventually([&] { return round.run.load() >= enough; }, 60s));
        EXPECT_EQ(qel_dm_destroy(&round.dispatcher.handle), 0);
        for (std::thread& producer : producers) producer.join();
    }
    EXPECT_LE(round.run.load(), round.queued.load());
}

}  // namespace

TEST(DispatcherStress, everything_at_once_until_destroyed) {
    const char* limit = std::getenv("QEL_STRESS_SECONDS");
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(limit != nullptr ? std::atoi(limit) : 5);
    const int descriptors = open_descriptors();
    std::uint32_t seed = 1;
    for (; std::chrono::steady_clock::now() < end && !HasFailure(); seed += 100) play(seed);
    EXPECT_EQ(open_descriptors(), descriptors);
}
