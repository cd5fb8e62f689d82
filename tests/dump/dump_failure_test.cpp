// Allocations that fail in the middle of a dump.
#include "dump/dump_support.hpp"
#include "support/failing.hpp"

using namespace qel_test;

TEST(DumpFailure, each_failing_allocation_gives_nothing_and_leaves_nothing_behind) {
    Buffer left{"low.left"}, right{"low.right"};
    log_once(left, "%d", 1);
    log_once(right, "%d", 2);
    const char* names[] = {"low.left", "low.right"};
    const int mappings = mapping_count("low.");
    auto init = [&] {
        Texts texts;
        qel_dt_mst_handle merged = nullptr;
        const int result = qel_dt_buffer_mst_init(names, 2, nullptr, collect, &texts, &merged);
        EXPECT_EQ(result, allocation_failed ? 12 : 0);
        EXPECT_EQ(texts.size(), allocation_failed ? 0u : 2u);
        EXPECT_EQ(qel_dt_buffer_mst_destroy(merged), allocation_failed ? 22 : 0);
        EXPECT_EQ(mapping_count("low."), mappings);
    };
    EXPECT_GE(fail_each_allocation(init), 5);
}

TEST(DumpFailure, a_merged_dump_without_memory_gives_the_rest_next_time) {
    Buffer buffer{"low.next"};
    Merged merged{{"low.next"}};
    log_once(buffer, "%s", "first");
    EXPECT_EQ(fail_each_allocation([&] {
                  const int result = merged.read();
                  EXPECT_EQ(result, allocation_failed ? 12 : 0);
              }),
              1);
    EXPECT_THAT(merged.take(), testing::ElementsAre("low.next: first"));
}
