#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/idm.h>

#include "containers/qel_idm_pool.hpp"

namespace {

int object;

qel::idm::Entry& entry_of(uint32_t pool, uint32_t id) {
    qel::idm::IdParts parts = qel::idm::split(id);
    return qel::idm::find_pool(pool)->slots[parts.slot].load()[parts.position];
}

}  // namespace

TEST(IdmFailures, lack_of_memory_gives_the_told_codes_and_leaves_the_pool_whole) {
    auto attempt = [] {
        uint32_t pool = 0, id = 0;
        cerrno error = qel_idm_pool_create_by_slots("short of memory", 2, 4, 1, &pool);
        EXPECT_EQ(error, qel_test::allocation_failed ? 0xa0000016u : 0u);
        if (error != 0) return;
        error = qel_idm_get_id(pool, &object, &id);
        EXPECT_EQ(error, qel_test::allocation_failed ? 0xa000001cu : 0u);
        bool failed = qel_test::allocation_failed;
        if (failed) {
            EXPECT_EQ(qel_idm_get_id(pool, &object, &id), 0u);
        }
        EXPECT_EQ(id, 1u);
        error = qel_idm_reserve_id(pool, 0x10002, &object);
        EXPECT_EQ(error, failed == qel_test::allocation_failed ? 0u : 0xa000000eu);
        qel_idm_pool_destroy(&pool);
    };
    EXPECT_EQ(qel_test::fail_each_allocation(attempt), 4);
}

TEST(IdmFailures, the_count_of_references_does_not_wrap) {
    uint32_t pool = 0, id = 0, count = 0;
    uint8_t withdrawn = 9;
    ASSERT_EQ(qel_idm_pool_create("full", 1, 0, &pool), 0u);
    ASSERT_EQ(qel_idm_get_id(pool, &object, &id), 0u);
    entry_of(pool, id).state += 0xfffffffdull * qel::idm::kOneReference;
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), &object);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), nullptr);
    EXPECT_EQ(qel_idm_lookup_and_retain_any_id(pool, id), nullptr);
    EXPECT_EQ(qel_idm_get_id_refcount(pool, id, &count), 0u);
    EXPECT_EQ(count, 0xffffffffu);
    EXPECT_EQ(qel_idm_is_id_withdrawn(pool, id, &withdrawn), 0u);
    EXPECT_EQ(withdrawn, 0);
    EXPECT_EQ(qel_idm_release_id(pool, id), 0u);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), &object);
    qel_idm_pool_destroy(&pool);
}
