#include "support/failing.hpp"
#include "support/support.hpp"

#include <set>
#include <thread>

#include <qel/cerrno.h>

// Each attempt decodes on a thread of its own, so it begins without a record; and with the maps of five other
// subsystems in use, so it pushes one out.
TEST(CerrnoFailure, decoder_always_says_something_and_keeps_nothing_half_made) {
    static const qel_cerrno_code codes[] = {{1, "text"}};
    static qel_cerrno_info infos[6];
    static qel_cerrno_node nodes[6];
    for (uint32_t i = 0; i < 6; ++i) {
        infos[i] = {"Chassis", 100 + i, 1, codes, 1, 0};
        nodes[i] = {QEL_CERRNO_NODE_MAGIC, nullptr, &infos[i]};
        __register_cerrno(&nodes[i]);
    }
    ASSERT_EQ(qel_cerrno_init(), 0u);
    auto code_of = [](uint32_t i) { return 0xa0000000u | (100 + i) << 15 | 1u << 9; };
    std::string sound = cerr_strerror(code_of(0));
    EXPECT_EQ(sound, "'Chassis' detected the 'fatal' condition 'text'");
    int descriptors = qel_test::open_descriptors();
    std::set<std::string> said;
    uint32_t next = 0;
    int failures = 0;
    for (bool failed = true; failed; ++failures) {
        std::thread{[&] {
            qel::allocation_hook.store(qel_test::allow_allocation);
            qel_test::allocations_left = failures;
            said.insert(cerr_strerror(code_of(next++ % 6)));
            failed = qel_test::allocation_failed;
            qel::allocation_hook.store(nullptr);
        }}.join();
    }
    EXPECT_GE(failures, 4);
    const std::string undecodable = "Unable to decode cerrno";
    EXPECT_THAT(said, testing::IsSupersetOf({sound, undecodable}));
    EXPECT_THAT(said, testing::Each(
                          testing::AnyOf(sound, undecodable, testing::StartsWith("'Unknown Subsystem(10"))));
    EXPECT_EQ(qel_test::open_descriptors(), descriptors);
    EXPECT_LE(qel_test::mapping_count("cerr_map."), 5);
}
