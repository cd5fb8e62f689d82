// Lists: order, limits, moves between lists, and walks over lists that change.
#include "support/support.hpp"

#include <qel/list.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

void* number(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}
int compare_numbers(void* existing, void* data) {
    return existing == data ? 0 : existing > data ? 1 : -1;
}
qel_list make_list(uint32_t flags, uint32_t max_size = 0) {
    qel_list list;
    EXPECT_EQ(qel_list_init(&list, max_size, nullptr, flags, nullptr), 0u);
    return list;
}

// The data from the head, after a look at every link and owner.
std::vector<uintptr_t> contents(const qel_list& list) {
    std::vector<uintptr_t> found;
    const qel_list_element* before = nullptr;
    for (const qel_list_element* at = list.head; at != nullptr; before = at, at = at->next) {
        EXPECT_EQ(at->prev, before);
        EXPECT_EQ(at->list, &list);
        found.push_back(reinterpret_cast<uintptr_t>(at->data));
    }
    EXPECT_EQ(list.tail, before);
    EXPECT_EQ(list.count, found.size());
    return found;
}
using Numbers = std::vector<uintptr_t>;

}  // namespace

TEST(List, keeps_order_limit_and_the_rules_of_entering) {
    for (uint32_t flags : {0u, QEL_LIST_INDIRECT}) {
        qel_list list = make_list(flags | 0xfff0, 5);
        EXPECT_EQ(list.flags, flags);
        EXPECT_STREQ(list.name, "(unknown)");
        qel_list_element own[6]{};
        int used = 0;
        auto next = [&] { return flags != 0 ? nullptr : &own[used++]; };
        EXPECT_NE(qel_list_enqueue(&list, next(), number(30)), nullptr);
        EXPECT_NE(qel_list_requeue(&list, next(), number(10)), nullptr);
        EXPECT_NE(qel_list_insert(&list, next(), number(20), compare_numbers), nullptr);
        EXPECT_EQ(qel_list_insert(&list, &own[5], number(20), compare_numbers), nullptr);
        EXPECT_EQ(qel_list_insert(&list, flags != 0 ? nullptr : &own[5], number(20), compare_numbers),
                  nullptr);
        EXPECT_EQ(qel_list_enqueue(&list, flags != 0 ? nullptr : &own[5], nullptr), nullptr);
        // Of the wrong kind: a caller's element for a pool, none or one that is on a list otherwise.
        EXPECT_EQ(qel_list_enqueue(&list, flags != 0 ? &own[5] : nullptr, number(1)), nullptr);
        EXPECT_EQ(qel_list_enqueue(&list, flags != 0 ? &own[5] : &own[0], number(1)), nullptr);
        EXPECT_NE(qel_list_insert(&list, next(), number(40), compare_numbers), nullptr);
        EXPECT_NE(qel_list_insert(&list, next(), number(5), compare_numbers), nullptr);
        EXPECT_EQ(qel_list_enqueue(&list, flags != 0 ? nullptr : &own[5], number(50)), nullptr);
        EXPECT_EQ(contents(list), (Numbers{5, 10, 20, 30, 40}));

        EXPECT_EQ(qel_list_lookup(&list, &own[5], number(20), compare_numbers), number(20));
        EXPECT_EQ(qel_list_lookup(&list, nullptr, number(20), compare_numbers),
                  flags != 0 ? number(20) : nullptr);
        qel_list* pointer = &list;
        EXPECT_EQ(qel_list_destroy(&pointer), 0xa0000010u);
        EXPECT_EQ(qel_list_dequeue(&list), number(5));
        EXPECT_EQ(qel_list_remove(&list, list.tail, nullptr), number(40));
        EXPECT_EQ(qel_list_remove(&list, nullptr, number(20)), number(20));
        EXPECT_EQ(qel_list_remove(&list, nullptr, number(20)), nullptr);
        EXPECT_EQ(qel_list_remove(&list, nullptr, nullptr), nullptr);
        EXPECT_EQ(qel_list_remove(&list, &own[5], nullptr), nullptr);
        EXPECT_EQ(contents(list), (Numbers{10, 30}));
        while (qel_list_dequeue(&list) != nullptr) {
        }
        EXPECT_EQ(contents(list), Numbers{});
        EXPECT_EQ(qel_list_destroy(&pointer), 0u);
        EXPECT_EQ(list.flags, 0);
        EXPECT_EQ(list.element_chunk, nullptr);
    }
}

// The elements stay readable and go back to where they came from, whichever list ends first. The address
// sanitizer watches this test for a leak or a second free.
TEST(List, elements_of_indirect_lists_outlive_the_list_that_made_them) {
    for (bool source_ends_first : {true, false}) {
        qel_list* source = nullptr;
        qel_list* destination = nullptr;
        ASSERT_EQ(qel_list_create(&source, 0, "source", QEL_LIST_INDIRECT, nullptr), 0u);
        ASSERT_EQ(qel_list_create(&destination, 110, "destination", QEL_LIST_INDIRECT, nullptr), 0u);
        Numbers expected;
        for (uintptr_t value = 1; value <= 110; ++value) {
            ASSERT_NE(qel_list_enqueue(value <= 10 ? destination : source, nullptr, number(value)), nullptr);
            expected.push_back(value);
        }
        EXPECT_EQ(qel_list_move(destination, source->head), 0u);
        EXPECT_EQ(qel_list_merge(destination, source), 0u);
        EXPECT_EQ(contents(*source), Numbers{});
        EXPECT_EQ(contents(*destination), expected);
        EXPECT_NE(qel_list_enqueue(source, nullptr, number(111)), nullptr);
        EXPECT_EQ(qel_list_merge(destination, source), 0xa000001cu);
        EXPECT_EQ(qel_list_move(destination, source->head), 0xa000001cu);
        EXPECT_EQ(qel_list_move(source, destination->tail), 0u);
        EXPECT_EQ(contents(*source), (Numbers{111, 110}));
        if (source_ends_first) {
            EXPECT_EQ(qel_list_merge(destination, source), 0xa000001cu);
            EXPECT_EQ(qel_list_dequeue(source), number(111));
            EXPECT_EQ(qel_list_merge(destination, source), 0u);
            EXPECT_EQ(qel_list_destroy(&source), 0u);
            EXPECT_EQ(source, nullptr);
        }
        while (qel_list_dequeue(destination) != nullptr) {
        }
        EXPECT_EQ(qel_list_destroy(&destination), 0u);
        if (source_ends_first) continue;
        while (qel_list_dequeue(source) != nullptr) {
        }
        EXPECT_EQ(qel_list_destroy(&source), 0u);
    }
}

TEST(List, moves_and_merges_refuse_what_does_not_fit) {
    qel_list direct = make_list(0), other = make_list(0), indirect = make_list(QEL_LIST_INDIRECT), invalid{};
    qel_list_element own[2]{};
    EXPECT_EQ(qel_list_merge(&direct, &indirect), 0xa0000001u);
    EXPECT_EQ(qel_list_merge(&direct, &invalid), 0xa0000016u);
    EXPECT_EQ(qel_list_move(&direct, &own[0]), 0u);
    EXPECT_EQ(qel_list_move(nullptr, &own[0]), 0xa0000016u);
    qel_list_enqueue(&direct, &own[0], number(1));
    qel_list_enqueue(&direct, &own[1], number(2));
    EXPECT_EQ(qel_list_move(&indirect, &own[0]), 0xa0000001u);
    EXPECT_EQ(qel_list_move(&invalid, &own[0]), 0u);
    EXPECT_EQ(qel_list_move(&direct, &own[0]), 0u);
    EXPECT_EQ(qel_list_merge(&direct, &direct), 0u);
    EXPECT_EQ(qel_list_merge(&direct, &other), 0u);
    EXPECT_EQ(contents(direct), (Numbers{2, 1}));
    EXPECT_EQ(contents(indirect), Numbers{});
    qel_list* pointer = &indirect;
    EXPECT_EQ(qel_list_destroy(&pointer), 0u);
    EXPECT_EQ(qel_list_destroy(nullptr), 0xa0000016u);
    EXPECT_EQ(qel_list_is_empty(nullptr), 1);
    EXPECT_EQ(qel_list_is_full(nullptr) + qel_list_is_valid(nullptr) + qel_list_is_indirect(nullptr), 0);
}

TEST(List, check_notices_every_change_between_two_steps) {
    qel_list list = make_list(0), other = make_list(0);
    qel_list_element own[5]{};
    for (uintptr_t i = 0; i < 3; ++i) qel_list_enqueue(&list, &own[i], number(i + 1));
    auto steps_after = [&](auto change) {
        qel_list_element *current = &own[0], *following = &own[1];
        void* data = number(1);
        change();
        int result = qel_list_check(&current, &following, &data);
        EXPECT_EQ(current != nullptr, result == 1);
        return result;
    };
    EXPECT_EQ(steps_after([] {}), 1);
    EXPECT_EQ(steps_after([&] { qel_list_element_insert(&list, &own[3], &own[0]); }), 0);  // one put between
    EXPECT_EQ(steps_after([&] { qel_list_remove(&list, &own[3], nullptr); }), 1);
    EXPECT_EQ(steps_after([&] { qel_list_set_data(&own[0], number(9)); }), 0);
    EXPECT_EQ(steps_after([&] { qel_list_set_data(&own[0], number(1)); }), 1);
    EXPECT_EQ(steps_after([&] { qel_list_move(&list, &own[1]); }), 0);  // the following one is elsewhere
    EXPECT_EQ(steps_after([&] { qel_list_move(&list, &own[2]); }), 1);
    EXPECT_EQ(steps_after([&] { qel_list_remove(&list, &own[1], nullptr); }), 0);
    EXPECT_EQ(steps_after([&] { qel_list_element_insert(&list, &own[1], &own[0]); }), 1);
    EXPECT_EQ(steps_after([&] { qel_list_move(&other, &own[0]); }), 0);

    qel_list_element *current = own[2].list->tail, *following = nullptr;
    void* data = current->data;
    EXPECT_EQ(qel_list_check(&current, &following, &data), 1);
    EXPECT_EQ(current, nullptr);
}

TEST(List, walkers_may_remove_the_current_element_and_end_the_walk) {
    qel_list list = make_list(QEL_LIST_INDIRECT);
    for (uintptr_t i = 1; i <= 100; ++i) qel_list_enqueue(&list, nullptr, number(i));
    auto remove_to_50 = [](qel_list* walked, qel_list_element* element, qel_list_element* following,
                           void* context) -> cerrno {
        EXPECT_EQ(qel_list_get_next(element), following);
        EXPECT_EQ(context, walked);
        return qel_list_remove(walked, element, nullptr) == number(50) ? 77 : 0;
    };
    EXPECT_EQ(qel_list_walk(&list, remove_to_50, &list), 77u);
    EXPECT_EQ(qel_list_get_data(list.head), number(51));
    EXPECT_EQ(qel_list_walk(&list, remove_to_50, &list), 0u);
    EXPECT_EQ(qel_list_get_size(&list), 0u);
    EXPECT_EQ(qel_list_walk(&list, nullptr, &list), 0xa0000016u);
    EXPECT_EQ(qel_list_walk(nullptr, remove_to_50, nullptr), 0xa0000016u);
    qel_list* pointer = &list;
    EXPECT_EQ(qel_list_destroy(&pointer), 0u);
}

TEST(List, prints_each_element_through_its_handler) {
    qel_list list = make_list(0);
    qel_list_element own[2]{};
    qel_list_enqueue(&list, &own[0], number(7));
    EXPECT_EQ(qel_list_print(nullptr), 0xa0000016u);
    EXPECT_EQ(qel_list_print(&list), 0xa0000026u);
    auto to_text = [](qel_list*, qel_list_element* element, char* buffer) {
        std::snprintf(buffer, 1024, "<%p>", element->data);
        return element->data == number(7) ? 1 : 2;
    };
    qel_list_set_print_handler(&list, to_text);
    qel_list_set_print_handler(&list, nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(qel_list_print(&list), 0u);
    char expected[100];
    std::snprintf(expected, sizeof expected, "List (unknown), size: 1\n\tElement %p data: <0x7>\n",
                  static_cast<void*>(&own[0]));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    char buffer[1024];
    qel_list_enqueue(&list, &own[1], number(8));
    EXPECT_EQ(qel_list_elem_print(&list, &own[1], buffer), 0xa0000020u);
}
