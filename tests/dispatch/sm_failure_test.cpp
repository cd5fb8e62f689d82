#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/sm.h>

TEST(StateMachineFailures, lack_of_memory_is_an_error_that_leaves_nothing) {
    static const qel_sm_transition rows[] = {{}};
    static qel_sm_state state{1, "state", rows, 0, {}, {}, {}};
    static qel_sm_state* const states[] = {&state, nullptr};
    static qel_sm_definition definition{"definition", 0, nullptr, 1, states, nullptr, 0};
    auto attempt = [] {
        qel_sm machine = nullptr;
        cerrno error = qel_sm_create(&definition, nullptr, nullptr, &machine);
        EXPECT_EQ(error == 0, machine != nullptr);
        // A buffer that can't be made for lack of memory fails no call.
        EXPECT_TRUE(error == 0 || (error == 0xa000000c && qel_test::allocation_failed));
        if (machine != nullptr) {
            EXPECT_EQ(qel_sm_destroy(&machine), 0);
        }
    };
    attempt();
    EXPECT_EQ(qel_test::fail_each_allocation(attempt), 1);
}
