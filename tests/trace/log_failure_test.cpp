// Reports and flags when things can't be had: memory, segments, a quiet moment for the first report.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <barrier>
#include <thread>

#include <qel/ppm.h>

#include "trace/qel_report.hpp"

namespace {

// Reports from eight threads at once, each of which finds its errno as it was.
void report_from_eight_threads() {
    std::barrier together{8};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&together, i] {
            together.arrive_and_wait();
            errno = 77;
            EXPECT_EQ((qel::failed<"TEST1", "%s report %d">(i, i)), i);
            EXPECT_EQ(errno, 77);
        });
}

}  // namespace

TEST(Report, first_use_by_many_threads_makes_one_error_buffer) {
    const int descriptors = qel_test::open_descriptors();
    ASSERT_EQ(qel_ppm_set_string("qel.shm.root", "/no/such/place/"), 0);
    report_from_eight_threads();
    EXPECT_EQ(qel_gen_error_buffer, nullptr);

    ASSERT_EQ(qel_ppm_set_string("qel.shm.root", qel_test::shm_root().c_str()), 0);
    report_from_eight_threads();
    ASSERT_NE(qel_gen_error_buffer, nullptr);
    EXPECT_EQ(qel_test::open_descriptors(), descriptors);
    // One handle more doubles the mappings, so there was one.
    const int mappings = qel_test::mapping_count("qel.gen.buffer.errors");
    qel_dt_buffer_handle another = nullptr;
    ASSERT_EQ(qel_dt_buffer_open(&another, "qel.gen.buffer.errors"), 0);
    EXPECT_EQ(qel_test::mapping_count("qel.gen.buffer.errors"), 2 * mappings);
    ASSERT_EQ(qel_dt_buffer_close(&another), 0);
    qel_dt_buffer_attr attr;
    ASSERT_EQ(qel_dt_buffer_get_attr(qel_gen_error_buffer, &attr), 0);
    EXPECT_EQ(attr.count, 8u);
    EXPECT_EQ(attr.size, 327680u);
    ASSERT_EQ(qel_dt_buffer_destroy(&qel_gen_error_buffer), 0);
}

TEST(Flag, each_lack_of_memory_leaves_a_flag_as_it_was) {
    const uint32_t types = QEL_DT_FILTER_STRING;
    const auto name = reinterpret_cast<uint64_t>("eth0");
    int failures = qel_test::fail_each_allocation([&] {
        qel_dt_flag* flag = nullptr;
        if (int error = qel_dt_flag_init(&flag, "flag", nullptr, &types, 0); error != 0) {
            EXPECT_EQ(error, ENOMEM);
            EXPECT_EQ(flag, nullptr);
            return;
        }
        bool enabled = qel_dt_flag_set_filter_or(flag, types, name, "a") == 0;
        EXPECT_EQ(qel_dt_flag_enabled(flag), enabled);
        bool again = qel_dt_flag_enable(flag, "b") == 0;
        EXPECT_EQ(qel_dt_flag_enabled(flag), enabled || again);
        EXPECT_TRUE(qel_dt_flag_set_filter(flag, 1, types, name, "a") == 0 || enabled);
        EXPECT_EQ(qel_dt_flag_destroy(&flag), 0);
    });
    EXPECT_EQ(failures, 1 + 3 + 2 + 2);
}
