#include "dm_support.hpp"

#include <qel/dm_watched.h>

#include <initializer_list>
#include <utility>

using namespace qel_test;

namespace {

struct Item {
    void* link = nullptr;
};

template <class Object>
void count(Object, void* calls) {
    ++*static_cast<std::atomic<int>*>(calls);
}

// Takes all that is there, up to EAGAIN; gives the number.
int drain(qel_dm_watched_queue queue) {
    int taken = 0;
    for (void* item = nullptr; qel_dm_watched_queue_dequeue(queue, &item) == 0; ++taken)
        EXPECT_EQ(static_cast<Item*>(item)->link, nullptr);
    return taken;
}
void count_drained(qel_dm_watched_queue queue, void* taken) {
    *static_cast<std::atomic<int>*>(taken) += drain(queue);
}

// One of each, and a dispatcher that this thread serves.
struct Watched : testing::Test {
    TestDispatcher dispatcher, other;
    const qel_dm_handle dm = dispatcher.handle;
    qel_dm_watched_boolean boolean = nullptr;
    qel_dm_watched_queue queue = 0;  // of 4 items, with a mutex
    Item items[5];
    std::atomic<int> calls{0};

    Watched() {
        qel_dm_watched_queue_attr attr{4, 1};
        EXPECT_EQ(qel_dm_watched_boolean_create("b", 70, &boolean), 0);
        EXPECT_EQ(qel_dm_watched_queue_create("q", 80, &attr, &queue), 0);
    }
    ~Watched() override {
        EXPECT_EQ(qel_dm_watched_boolean_destroy(&boolean), boolean != nullptr ? 0 : EINVAL);
        EXPECT_EQ(qel_dm_watched_queue_destroy(&queue), queue != 0 ? 0 : EINVAL);
    }
    void set(std::initializer_list<std::uint8_t> values) const {
        for (std::uint8_t value : values) EXPECT_EQ(qel_dm_watched_boolean_set(boolean, value), 0);
    }
    int put(std::size_t i) { return qel_dm_watched_queue_enqueue(queue, &items[i]); }
    // Runs what is queued; gives the number of calls so far.
    int run() {
        bool reached = false;
        Function fence = [&] { reached = true; };
        EXPECT_EQ(execute(dm, fence), 0);
        while (!reached) dispatcher.serve_once();
        return calls;
    }
    using Event = std::pair<std::uint32_t, std::uint32_t>;
    Event next_event() const {
        Event event;
        EXPECT_EQ(qel_dm_wait(dm), 0);
        EXPECT_EQ(qel_dm_xdispatch(dm, &event.first, &event.second), 0);
        return event;
    }
};

}  // namespace

TEST_F(Watched, boolean_signals_when_it_becomes_true) {
    set({1});
    EXPECT_EQ(qel_dm_watched_boolean_register(dm, boolean, nullptr, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_watched_boolean_register(77, boolean, count, &calls), EINVAL);
    EXPECT_EQ(qel_dm_watched_boolean_register(dm, boolean, count, &calls), 0);
    EXPECT_EQ(qel_dm_watched_boolean_xd_register(dm, boolean), EBUSY);
    EXPECT_EQ(qel_dm_watched_boolean_register(other.handle, boolean, count, &calls), EINVAL);
    EXPECT_EQ(run(), 1) << "it was true at the registration";
    set({1, 0, 9, 2});
    EXPECT_EQ(run(), 2);
    set({0, 3});
    EXPECT_EQ(qel_dm_watched_boolean_deregister(dm, boolean), 0);
    EXPECT_EQ(qel_dm_watched_boolean_deregister(dm, boolean), EINVAL);
    EXPECT_EQ(qel_dm_watched_boolean_register(dm, boolean, count, &calls), 0);
    EXPECT_EQ(run(), 3) << "the job of the ended registration does nothing";
    std::uint8_t value = 0;
    EXPECT_EQ(qel_dm_watched_boolean_get(boolean, &value), 0);
    EXPECT_EQ(value, 3);
    EXPECT_STREQ(qel_dm_watched_boolean_get_name(boolean), "b");
    set({0, 1});
    EXPECT_EQ(qel_dm_watched_boolean_destroy(&boolean), 0);
    EXPECT_EQ(boolean, nullptr);
    EXPECT_EQ(run(), 3) << "nor does that of a destroyed boolean";
    EXPECT_EQ(qel_dm_watched_boolean_set(boolean, 1), EINVAL);
}

TEST_F(Watched, one_shot_ends_with_its_first_handler) {
    EXPECT_EQ(qel_dm_watched_boolean_register_oneshot(dm, boolean, count, &calls), 0);
    set({1, 0, 1});  // two jobs
    EXPECT_EQ(run(), 1);
    set({0, 1});
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(qel_dm_watched_boolean_deregister(dm, boolean), EINVAL);
    auto destroy = [](qel_dm_watched_boolean it, void* variable) {
        EXPECT_EQ(qel_dm_watched_boolean_destroy(static_cast<qel_dm_watched_boolean*>(variable)), 0);
        EXPECT_EQ(qel_dm_watched_boolean_set(it, 1), EINVAL) << "it lives until its handler returns";
    };
    EXPECT_EQ(qel_dm_watched_boolean_register_oneshot(dm, boolean, destroy, &boolean), 0);
    run();
    EXPECT_EQ(boolean, nullptr);
}

TEST_F(Watched, explicit_dispatch_gives_event_and_id) {
    EXPECT_EQ(qel_dm_watched_boolean_xd_register_oneshot(dm, boolean), 0);
    set({1});
    EXPECT_EQ(qel_dm_watched_boolean_set_id(boolean, 71), 0);
    EXPECT_EQ(next_event(), Event(QEL_DM_XD_WATCHED_BOOLEAN, 71));
    EXPECT_EQ(qel_dm_watched_boolean_xd_register(dm, boolean), 0) << "the first was for one event";
    EXPECT_EQ(next_event(), Event(QEL_DM_XD_WATCHED_BOOLEAN, 71));
    EXPECT_EQ(qel_dm_watched_queue_xd_register(dm, queue), 0);
    EXPECT_EQ(put(0), 0);
    EXPECT_EQ(qel_dm_watched_queue_set_id(queue, 81), 0);
    EXPECT_EQ(next_event(), Event(QEL_DM_XD_WATCHED_QUEUE, 80)) << "the ID at the signal";
    std::uint32_t id = 0;
    EXPECT_EQ(qel_dm_watched_queue_get_id(queue, &id), 0);
    EXPECT_EQ(id, 81u);
}

TEST_F(Watched, dead_dispatcher_refuses_signals_and_loses_nothing) {
    const qel_dm_handle dead = other.handle;
    EXPECT_EQ(qel_dm_watched_boolean_register(dead, boolean, count, &calls), 0);
    EXPECT_EQ(qel_dm_watched_queue_register(dead, queue, count, &calls), 0);
    EXPECT_EQ(qel_dm_destroy(&other.handle), 0);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(qel_dm_watched_boolean_set(boolean, 1), EINVAL) << "still due";
    EXPECT_EQ(qel_dm_watched_boolean_deregister(dead, boolean), 0);
    EXPECT_EQ(qel_dm_watched_boolean_register(dm, boolean, count, &calls), 0);
    EXPECT_EQ(put(0), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_get_size(queue), 0u);
    EXPECT_EQ(qel_dm_watched_queue_deregister(dead, queue), 0);
    EXPECT_EQ(put(0), 0) << "its link is clear";
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), 0);
    EXPECT_EQ(run(), 2);
}

TEST_F(Watched, queue_signals_once_until_the_consumer_has_seen_it_empty) {
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, nullptr, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_register(77, queue, count, &calls), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_deregister(0, queue), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), 0);
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), EBUSY);
    EXPECT_EQ(qel_dm_watched_queue_xd_register(other.handle, queue), EINVAL);
    void* item = nullptr;
    for (std::size_t i : {0, 1, 2}) EXPECT_EQ(put(i), 0);
    for (std::size_t i : {0, 1, 2}) {
        EXPECT_EQ(qel_dm_watched_queue_dequeue(queue, &item), 0);
        EXPECT_EQ(item, &items[i]);
    }
    EXPECT_EQ(put(0), 0);
    EXPECT_EQ(run(), 1) << "the consumer didn't see it empty";
    EXPECT_EQ(drain(queue), 1);
    EXPECT_EQ(put(0), 0);
    EXPECT_EQ(run(), 2);
    EXPECT_EQ(qel_dm_watched_queue_empty(queue), 0);
    EXPECT_EQ(qel_dm_watched_queue_dequeue(queue, &item), 0);
    EXPECT_EQ(qel_dm_watched_queue_empty(queue), 1);
    EXPECT_EQ(put(0), 0);
    EXPECT_EQ(qel_dm_watched_queue_deregister(dm, queue), 0);
    EXPECT_EQ(run(), 2) << "its registration has ended";
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), 0);
    EXPECT_EQ(run(), 3) << "an item waited at the registration";
}

TEST_F(Watched, queue_refuses_what_it_cannot_take_without_a_signal) {
    for (std::size_t i : {0, 1, 2, 3}) EXPECT_EQ(put(i), 0);
    EXPECT_EQ(qel_dm_watched_queue_full(queue), 1);
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count, &calls), 0);
    EXPECT_EQ(put(4), EINVAL);
    void* item = nullptr;
    EXPECT_EQ(qel_dm_watched_queue_dequeue(queue, &item), 0);
    EXPECT_EQ(put(3), EINVAL) << "it is on the queue";
    EXPECT_EQ(qel_dm_watched_queue_enqueue(queue, nullptr), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_peek_head(queue, &item), 0);
    EXPECT_EQ(item, &items[1]);
    EXPECT_EQ(run(), 1) << "only the registration's";
    EXPECT_EQ(drain(queue), 3);
    EXPECT_EQ(qel_dm_watched_queue_peek_head(queue, &item), EAGAIN);
}

TEST_F(Watched, queue_destroyed_with_items_lives_until_they_are_out) {
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count_drained, &calls), 0);
    EXPECT_EQ(put(0) | put(1), 0);
    qel_dm_watched_queue withdrawn = queue;
    EXPECT_EQ(qel_dm_watched_queue_destroy(&queue), 0);
    EXPECT_EQ(queue, 0u);
    EXPECT_EQ(qel_dm_watched_queue_destroy(&withdrawn), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_enqueue(withdrawn, &items[2]), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_register(dm, withdrawn, count, &calls), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_set_id(withdrawn, 1), EINVAL);
    EXPECT_STREQ(qel_dm_watched_queue_get_name(withdrawn), "q");
    EXPECT_EQ(qel_dm_watched_queue_empty(withdrawn), 0);
    EXPECT_EQ(run(), 2) << "the queued signal took the consumer there";
    void* item = nullptr;
    EXPECT_EQ(qel_dm_watched_queue_dequeue(withdrawn, &item), EINVAL);
    EXPECT_EQ(qel_dm_watched_queue_empty(withdrawn), 1);

    // No visit is owed here, though the job is still queued.
    EXPECT_EQ(qel_dm_watched_queue_create(nullptr, 0, nullptr, &queue), 0);
    EXPECT_EQ(qel_dm_watched_queue_register(dm, queue, count_drained, &calls), 0);
    EXPECT_EQ(put(0), 0);
    EXPECT_EQ(drain(withdrawn = queue), 1);
    EXPECT_EQ(qel_dm_watched_queue_destroy(&queue), 0);
    EXPECT_EQ(qel_dm_watched_queue_empty(withdrawn), 1);
    EXPECT_EQ(run(), 2);
}

// Two handlers that expect a context of their own each, while two threads set and three serve.
TEST_F(Watched, threads_meet_in_a_boolean_without_mixing_registrations) {
    static std::atomic<int> mixed, one;
    auto expect_one = [](qel_dm_watched_boolean, void* context) { mixed += context != &one; };
    auto expect_none = [](qel_dm_watched_boolean, void* context) { mixed += context != nullptr; };
    Servers servers{dm, 3};
    std::atomic<bool> stop{false};
    auto flip = [&] {
        while (!stop) set({1, 0});
    };
    std::thread setters[]{std::thread{flip}, std::thread{flip}};
    for (int round = 0; round < 500; ++round) {
        auto add =
            (round & 2) != 0 ? qel_dm_watched_boolean_register : qel_dm_watched_boolean_register_oneshot;
        EXPECT_EQ((round & 1) != 0 ? add(dm, boolean, expect_one, &one)
                                   : add(dm, boolean, expect_none, nullptr),
                  0);
        std::this_thread::yield();
        static_cast<void>(qel_dm_watched_boolean_deregister(dm, boolean));
    }
    stop = true;
    for (std::thread& setter : setters) setter.join();
    EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
    EXPECT_EQ(mixed, 0);
}

// Each round ends a queue while its signal takes one consumer to the items and another one comes by itself.
TEST_F(Watched, threads_lose_no_item_of_a_locked_queue) {
    Servers servers{dm, 3};
    std::vector<Item> work(64);
    const qel_dm_watched_queue_attr attr{0, 1};
    for (int round = 0; round < 200; ++round) {
        qel_dm_watched_queue ending = 0;
        EXPECT_EQ(qel_dm_watched_queue_create("q", 0, &attr, &ending), 0);
        const qel_dm_watched_queue handle = ending;
        calls = 0;
        EXPECT_EQ(qel_dm_watched_queue_register(dm, handle, count_drained, &calls), 0);
        auto produce = [&](std::size_t from) {
            for (std::size_t i = from; i < work.size(); i += 2)
                EXPECT_EQ(qel_dm_watched_queue_enqueue(handle, &work[i]), 0);
        };
        std::thread odd{produce, 1u};
        produce(0);
        odd.join();
        EXPECT_EQ(qel_dm_watched_queue_destroy(&ending), 0);
        calls += drain(handle);
        EXPECT_TRUE(
            eventually([&] { return calls == 64 && qel_dm_watched_queue_get_name(handle) == nullptr; }));
    }
    EXPECT_EQ(qel_dm_destroy(&dispatcher.handle), 0);
}
