// Start and stop of the network services.
#include "support/support.hpp"

#include <qel/async.h>
#include <qel/netinfra.h>

#include <atomic>
#include <thread>

using namespace qel_test;

TEST(Netinfra, starts_and_stops_once_each_and_again) {
    std::atomic<bool> over = false;
    std::thread first([&] { over.wait(false); });  // a sanitizer's own thread comes with it
    const int threads = thread_count();
    EXPECT_EQ(qel_netinfra_fini(), 0xa0000002u);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(qel_netinfra_is_init(), 0);
        EXPECT_EQ(qel_netinfra_init(0), 0u);
        EXPECT_EQ(qel_netinfra_init(0), 0xa0000010u);
        EXPECT_EQ(qel_netinfra_is_init(), 1);
        EXPECT_NE(qel_async_impl_get_qdm(), 0u);
        EXPECT_EQ(thread_count(), threads + 2);
        EXPECT_EQ(qel_netinfra_fini(), 0u);
        EXPECT_EQ(qel_async_impl_get_qdm(), 0u);
        EXPECT_TRUE(eventually([&] { return thread_count() == threads; }));
    }
    EXPECT_EQ(qel_netinfra_fini(), 0xa0000002u);
    over = true;
    over.notify_one();
    first.join();
}

TEST(Netinfra, keeps_the_first_dispatcher) {
    EXPECT_EQ(qel_netinfra_get_qdm(), 0u);
    EXPECT_EQ(qel_netinfra_register_qdm(12345), 0xa0000016u);
    qel_dm_handle first = 0, second = 0;
    ASSERT_EQ(qel_dm_create(&first, "first", 0), 0);
    ASSERT_EQ(qel_dm_create(&second, "second", 0), 0);
    EXPECT_EQ(qel_netinfra_register_qdm(first), 0u);
    EXPECT_EQ(qel_netinfra_register_qdm(second), 0xa0000010u);
    EXPECT_EQ(qel_netinfra_init(0), 0u);
    EXPECT_EQ(qel_netinfra_fini(), 0u);
    EXPECT_EQ(qel_netinfra_get_qdm(), first);
    qel_dm_destroy(&first);
    qel_dm_destroy(&second);
}

TEST(Netinfra, predicates_of_handler_pairs) {
    int one = 0;
    EXPECT_TRUE(qel_is_both_set_or_both_unset(nullptr, nullptr));
    EXPECT_TRUE(qel_is_both_set_or_both_unset(&one, &one));
    EXPECT_FALSE(qel_is_both_set_or_both_unset(&one, nullptr));
    EXPECT_EQ(qel_is_either_or_neither_set(nullptr, nullptr), 0);
    EXPECT_EQ(qel_is_either_or_neither_set(nullptr, &one), 1);
    EXPECT_EQ(qel_is_either_or_neither_set(&one, &one), -1);
}
