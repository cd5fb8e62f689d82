// Queues and rings against simple models, and what they refuse.
#include "support/support.hpp"

#include <qel/queue.h>

#include <algorithm>
#include <array>
#include <deque>
#include <random>

namespace {

struct Entry {
    void* link = nullptr;
    int number = 0;
};

std::deque<void*> contents(const qel_queue& queue) {
    std::deque<void*> found;
    for (void* at = queue.head; at != nullptr; at = qel_queue_get_next(at)) found.push_back(at);
    return found;
}

}  // namespace

TEST(Queue, random_operations_agree_with_a_model) {
    std::mt19937 random{20};
    std::array<Entry, 12> entries;
    std::deque<void*> model;
    qel_queue queue{};
    auto at = [&](void* element) { return std::find(model.begin(), model.end(), element); };
    for (int round = 0; round < 100'000; ++round) {
        void* element = &entries[random() % entries.size()];
        void* other = random() % 4 == 0 ? nullptr : static_cast<void*>(&entries[random() % entries.size()]);
        const bool inside = at(element) != model.end();
        const bool other_inside = at(other) != model.end();
        void* result = nullptr;
        void* expected = nullptr;
        auto enters = [&](std::deque<void*>::iterator where) {
            if (inside) return;
            model.insert(where, element);
            expected = element;
        };
        switch (random() % 7) {
        case 0:
            enters(model.end()), result = qel_queue_enqueue(&queue, element);
            break;
        case 1:
            enters(model.begin()), result = qel_queue_requeue(&queue, element);
            break;
        case 2:
            // A predecessor outside a queue has a link of 0 and must be refused, the element itself included.
            if (other == nullptr || other_inside) enters(other == nullptr ? model.begin() : at(other) + 1);
            result = qel_queue_insert(&queue, element, other);
            break;
        case 3:
            if (!model.empty()) expected = model.front(), model.pop_front();
            result = qel_queue_dequeue(&queue);
            break;
        case 4:
            if (inside && (other == nullptr ? at(element) == model.begin()
                                            : other_inside && at(other) + 1 == at(element)))
                expected = element, model.erase(at(element));
            result = qel_queue_remove(&queue, element, other);
            break;
        case 5:
            if (inside) expected = element, model.erase(at(element));
            result = qel_queue_unqueue(&queue, element);
            break;
        case 6:
            if (!inside && other_inside) expected = other, *at(other) = element;
            if (inside && element == other && element == model.back()) expected = element;
            result = qel_queue_swapqueue(&queue, element, other);
            break;
        }
        ASSERT_EQ(result, expected) << "round " << round;
        ASSERT_EQ(contents(queue), model) << "round " << round;
        ASSERT_EQ(queue.count, model.size());
        ASSERT_EQ(queue.tail, model.empty() ? nullptr : model.back());
        for (Entry& entry : entries) {
            ASSERT_EQ(qel_queue_entry_exists(&queue, &entry), at(&entry) != model.end());
            ASSERT_TRUE(entry.link == nullptr || at(&entry) != model.end());
        }
    }
}

TEST(Queue, limit_is_told_and_never_enforced) {
    std::array<Entry, 3> entries;
    qel_queue queue;
    EXPECT_EQ(qel_queue_init(&queue, 2), 0);
    EXPECT_EQ(qel_queue_reserve_used(&queue, 1), 0);
    EXPECT_EQ(qel_queue_reserve_used(&queue, 2), 1);
    EXPECT_EQ(qel_queue_reserve_used(&queue, SIZE_MAX), 1);
    for (Entry& entry : entries) EXPECT_EQ(qel_queue_enqueue(&queue, &entry), &entry);
    EXPECT_EQ(qel_queue_full(&queue), 1);
    EXPECT_EQ(qel_queue_reserve_used(&queue, SIZE_MAX), 1);
    EXPECT_EQ(qel_queue_size(&queue), 3u);
    qel_queue unlimited{};
    EXPECT_EQ(qel_queue_full(&unlimited), 0);
    EXPECT_EQ(qel_queue_reserve_used(&unlimited, SIZE_MAX), 0);
    EXPECT_EQ(qel_queue_empty(&unlimited), 1);
    EXPECT_EQ(qel_queue_empty(nullptr), 0);
    EXPECT_EQ(qel_queue_full(nullptr), 0);
    EXPECT_EQ(qel_queue_enqueue(nullptr, &entries[0]), nullptr);
    EXPECT_EQ(qel_queue_swapqueue(nullptr, &entries[0], &entries[0]), nullptr);
    EXPECT_EQ(qel_queue_unqueue(&queue, nullptr), nullptr);
}

TEST(Dqueue, list_keeps_order_and_an_element_leaves_twice_without_harm) {
    int owner = 0;
    qel_dqueue head, first, second, third;
    for (qel_dqueue* element : {&head, &first, &second, &third}) qel_dqueue_init(element, &owner);
    EXPECT_EQ(qel_dqueue_initial_element(&head), 1);
    qel_dqueue_insert(&second, &head);
    qel_dqueue_insert(&first, &head);
    qel_dqueue_insert(&third, qel_dqueue_get_prev(&head));
    qel_dqueue_insert(&second, &second);
    std::deque<qel_dqueue*> forward, backward;
    for (auto* at = head.next; at != &head; at = qel_dqueue_get_next(at)) forward.push_back(at);
    for (auto* at = head.prev; at != &head; at = qel_dqueue_get_prev(at)) backward.push_front(at);
    EXPECT_EQ(forward, (std::deque<qel_dqueue*>{&first, &second, &third}));
    EXPECT_EQ(backward, forward);
    for (int round = 0; round < 2; ++round) {
        qel_dqueue_remove(&second);
        EXPECT_EQ(qel_dqueue_initial_element(&second), 1);
        EXPECT_EQ(first.next, &third);
        EXPECT_EQ(third.prev, &first);
    }
    EXPECT_EQ(qel_dqueue_initial_element(&first), 0);
    qel_dqueue_set_parent(&first, nullptr);
    EXPECT_EQ(qel_dqueue_get_parent(&first), &owner);

    qel_dqueue zeroed{};
    qel_dqueue_remove(&zeroed);
    qel_dqueue_insert(&second, &zeroed);
    qel_dqueue_insert(nullptr, &head);
    EXPECT_EQ(qel_dqueue_initial_element(&second), 1);
    EXPECT_EQ(qel_dqueue_initial_element(nullptr), 0);
}
