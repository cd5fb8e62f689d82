// The registry: functions on a list once and in order, and rows of a caller's table.
#include "support/support.hpp"

#include <qel/reg.h>

#include <cerrno>
#include <vector>

namespace {

void first() {}
void second() {}
void third() {}

std::vector<qel_reg_function> functions_of(const qel_queue& queue) {
    std::vector<qel_reg_function> functions;
    for (auto* entry = static_cast<qel_reg_entry*>(qel_queue_peek_head(&queue)); entry != nullptr;
         entry = entry->next)
        functions.push_back(entry->function);
    return functions;
}

}  // namespace

TEST(Registry, a_list_keeps_each_function_once_in_the_order_of_addition) {
    qel_queue queue{};
    for (qel_reg_function function : {first, second, third, second})
        EXPECT_EQ(qel_reg_add_list(&queue, function), 0);
    EXPECT_THAT(functions_of(queue), testing::ElementsAre(first, second, third));
    EXPECT_EQ(qel_reg_delete_list(&queue, second), 0);
    EXPECT_EQ(qel_reg_delete_list(&queue, second), EINVAL);
    EXPECT_EQ(qel_reg_add_list(&queue, second), 0);
    EXPECT_THAT(functions_of(queue), testing::ElementsAre(first, third, second));
    for (qel_reg_function function : {first, second, third})
        EXPECT_EQ(qel_reg_delete_list(&queue, function), 0);
    EXPECT_EQ(qel_queue_empty(&queue), 1);
    EXPECT_EQ(qel_reg_add_list(nullptr, first), EINVAL);
    EXPECT_EQ(qel_reg_add_list(&queue, nullptr), EINVAL);
    EXPECT_EQ(qel_reg_delete_list(nullptr, first), EINVAL);
    EXPECT_EQ(qel_reg_delete_list(&queue, nullptr), EINVAL);
}

TEST(Registry, a_row_serves_one_function_at_a_time) {
    qel_reg_case table[3] = {};
    const auto answer = reinterpret_cast<qel_reg_function>(default_qreg_return_0);
    EXPECT_EQ(qel_reg_add_case(1, answer, table), 0);
    EXPECT_EQ(qel_reg_add_case(1, first, table), EINVAL);
    const auto* row = reinterpret_cast<const char*>(table) + 24;
    EXPECT_EQ(*reinterpret_cast<const uint32_t*>(row), 1u);
    EXPECT_EQ(*reinterpret_cast<const qel_reg_function*>(row + 8), answer);
    EXPECT_EQ(reinterpret_cast<int (*)()>(table[1].function)(), 0);
    EXPECT_TRUE(qel_reg_case_used(1, table));
    EXPECT_FALSE(qel_reg_case_used(0, table) || qel_reg_case_used(2, table) || qel_reg_case_used(1, nullptr));
    EXPECT_EQ(qel_reg_delete_case(2, table), EINVAL);
    EXPECT_EQ(qel_reg_delete_case(1, table), 0);
    EXPECT_EQ(table[1].case_number, 0u);
    EXPECT_EQ(qel_reg_delete_case(1, table), EINVAL);
    EXPECT_EQ(qel_reg_add_case(2, default_qreg_return_void, table), 0);
    EXPECT_EQ(qel_reg_add_case(0, nullptr, table), EINVAL);
    EXPECT_EQ(qel_reg_add_case(0, first, nullptr), EINVAL);
    EXPECT_EQ(qel_reg_delete_case(1, nullptr), EINVAL);
}
