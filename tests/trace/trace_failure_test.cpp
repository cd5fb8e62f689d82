// Allocations and segments that fail in the middle.
#include "support/failing.hpp"
#include "trace/trace_support.hpp"

using namespace qel_test;

TEST(TraceFailure, each_failing_allocation_leaves_nothing_behind) {
    EXPECT_GE(fail_each_allocation([] {
                  qel_dt_buffer_handle buffer = nullptr;
                  const int made = qel_dt_buffer_init(&buffer, "memory", 0, 8192);
                  EXPECT_EQ(made, allocation_failed ? 12 : 0);
                  EXPECT_EQ(buffer != nullptr, made == 0);
                  EXPECT_EQ(qel_dt_buffer_destroy(&buffer), made == 0 ? 0 : 22);
                  EXPECT_EQ(mapping_count(shm_root()), 0);
                  EXPECT_EQ(qel_dt_tp_list_get(), nullptr);
              }),
              1);
    Buffer buffer{"listed"};
    auto ignore = [](const char(*)[QEL_DT_NAME_SIZE], size_t, void*) { return 0; };
    auto list_names = [&] {
        const int result = qel_dt_buffer_get_names(ignore, nullptr);
        EXPECT_EQ(result, allocation_failed ? 12 : 0);
    };
    EXPECT_EQ(fail_each_allocation(list_names), 1);
    EXPECT_EQ(mapping_count("qdt_buffers"), 0);
}

TEST(TraceFailure, writing_allocates_nothing_once_its_format_is_known) {
    Buffer buffer{"quiet"};
    uint32_t site = kUnregistered;
    EXPECT_EQ(fail_each_allocation([&] { EXPECT_EQ(log_at(site, buffer, "%d %s", 1, "text"), 0); }), 0);
}
