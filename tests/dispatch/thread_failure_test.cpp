#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/thread.h>

#include <cerrno>

// Each allocation fails once; a leak checker sees that nothing half made is left.
TEST(ThreadFailures, lack_of_memory_is_an_error_that_leaves_nothing) {
    auto attempt = [] {
        qel_thread_attr attr;
        int error = qel_thread_attr_init(&attr);
        pthread_t thread;
        if (error == 0)
            error = qel_thread_create(
                &thread, &attr, [](void* arg) { return arg; }, nullptr, nullptr, 0);
        if (error == 0) pthread_join(thread, nullptr);
        if (attr.attr != nullptr) qel_thread_attr_destroy(&attr);
        if (error == 0 && *qel_thread_get_name() == '\0') error = qel_thread_adopt("adopted", 0);
        EXPECT_EQ(error, qel_test::allocation_failed ? ENOMEM : 0);
    };
    EXPECT_EQ(qel_test::fail_each_allocation(attempt), 3);
}
