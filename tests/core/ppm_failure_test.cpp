#include "support/failing.hpp"
#include "support/support.hpp"

#include <cerrno>

#include <qel/ppm.h>

TEST(PpmFailure, store_without_memory_changes_nothing) {
    int failures = qel_test::fail_each_allocation([] {
        // Cold each time: the first store makes the record, the set and its table.
        qel_ppm_destroy();
        int error = qel_ppm_set_integer("fail.a", 5);
        EXPECT_TRUE(error == 0 || error == ENOMEM);
        uint32_t value = 0;
        EXPECT_EQ(qel_ppm_get_integer("fail.a", 1, &value), 0);
        EXPECT_EQ(value, error == 0 ? 5u : 1u);
        // A value that is there can be replaced without memory; a new key can't come in.
        if (error == 0) error = qel_ppm_set_string("fail.a", "text");
        EXPECT_EQ(error != 0, qel_test::allocation_failed);
    });
    EXPECT_EQ(failures, 3);
    qel_ppm_destroy();
}
