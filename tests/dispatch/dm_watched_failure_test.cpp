#include "dm_support.hpp"
#include "support/failing.hpp"

#include <qel/dm_watched.h>

#include <tuple>
#include <utility>

using namespace qel_test;

namespace {

template <class Object>
void count(Object, void* calls) {
    ++*static_cast<int*>(calls);
}

// The next job needs memory.
void use_up_spare_jobs(qel_dm_handle dm) {
    const auto before = std::pair{allocations_left, allocation_failed};
    do allocations_left = 0;
    while (qel_dm_execute(
               dm, [](qel_dm_handle, std::uint64_t, std::uint64_t) {}, 0, 0) == 0);
    std::tie(allocations_left, allocation_failed) = before;
}

// What could not be signalled is signalled by the next attempt. Each gives the number of signals.
int try_boolean(qel_dm_handle dm, qel_dm_watched_boolean& boolean, int& calls) {
    if (qel_dm_watched_boolean_create("b", 1, &boolean) == ENOMEM) return 0;
    EXPECT_EQ(qel_dm_watched_boolean_register(dm, boolean, count, &calls), 0);
    use_up_spare_jobs(dm);
    if (qel_dm_watched_boolean_set(boolean, 1) != EINVAL) return 1;
    EXPECT_EQ(qel_dm_watched_boolean_set(boolean, 2), 0);
    return 1;
}

int try_queue(qel_dm_handle dm, qel_dm_watched_queue& queue, void** item, int& calls) {
    const qel_dm_watched_queue_attr attr{0, 1};
    if (qel_dm_watched_queue_create("q", 1, &attr, &queue) == ENOMEM) return 0;
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), 0);
    use_up_spare_jobs(dm);
    if (qel_dm_watched_queue_enqueue(queue, item) != ENOMEM) return 1;
    EXPECT_EQ(qel_dm_watched_queue_enqueue(queue, item), 0);
    return 1;
}

}  // namespace

TEST(WatchedFailures, each_allocation_may_fail) {
    auto attempt = [] {
        const int armed = std::exchange(allocations_left, -1);
        TestDispatcher dispatcher;
        allocations_left = armed;
        qel_dm_watched_boolean boolean = nullptr;
        qel_dm_watched_queue queue = 0;
        void *item = nullptr, *taken = nullptr;
        int calls = 0;
        int signals = try_boolean(dispatcher.handle, boolean, calls);
        signals += try_queue(dispatcher.handle, queue, &item, calls);
        while (calls < signals) dispatcher.serve_once();
        EXPECT_EQ(qel_dm_watched_boolean_destroy(&boolean), boolean != nullptr ? 0 : EINVAL);
        EXPECT_EQ(qel_dm_watched_queue_dequeue(queue, &taken), queue != 0 ? 0 : EINVAL);
        EXPECT_EQ(qel_dm_watched_queue_destroy(&queue), queue != 0 ? 0 : EINVAL);
    };
    // What is made once and for all is made in the first pass: the second reaches each of the others.
    for (int pass = 0; pass < 2; ++pass) EXPECT_GE(fail_each_allocation(attempt), 4);
}

TEST(WatchedFailures, queues_are_bounded) {
    const qel_dm_watched_queue_attr attr{0, 1};
    std::vector<qel_dm_watched_queue> queues(65);
    for (qel_dm_watched_queue& queue : queues)
        EXPECT_EQ(qel_dm_watched_queue_create(nullptr, 0, &attr, &queue), &queue == &queues[64] ? ENOMEM : 0);
    for (qel_dm_watched_queue& queue : queues)
        EXPECT_EQ(qel_dm_watched_queue_destroy(&queue), &queue == &queues[64] ? EINVAL : 0);
}
