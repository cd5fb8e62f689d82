#include "support/support.hpp"

#include <qel/idm.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

namespace {

constexpr cerrno kInvalid = 0xa0000016, kGone = 0xa0000002, kFull = 0xa000001c, kBusy = 0xa0000010,
                 kExists = 0xa0000011;

struct Pool {
    uint32_t handle = 0;
    Pool(uint32_t max_ids, int sequential) {
        EXPECT_EQ(qel_idm_pool_create("test", max_ids, sequential, &handle), 0u);
    }
    Pool(uint32_t slots, uint32_t slot_size, int sequential) {
        EXPECT_EQ(qel_idm_pool_create_by_slots("test", slots, slot_size, sequential, &handle), 0u);
    }
    ~Pool() { qel_idm_pool_destroy(&handle); }
    operator uint32_t() const { return handle; }

    uint32_t assign(void* object) {
        uint32_t id = 0;
        EXPECT_EQ(qel_idm_get_id(handle, object, &id), 0u);
        return id;
    }
    uint32_t count() const {
        uint32_t count = 99;
        EXPECT_EQ(qel_idm_get_count(handle, &count), 0u);
        return count;
    }
};

int object, other;

}  // namespace

TEST(Idm, a_released_id_is_refused_and_its_successor_does_not_resolve_early) {
    Pool pool(1, 1, 0);
    uint32_t first = pool.assign(&object);
    uint32_t last = first;
    void* context = nullptr;
    for (int life = 1; life <= 256; ++life) {
        ASSERT_EQ(qel_idm_release_id(pool, last), 0u);
        uint32_t next = (last - 1 + (1u << 24)) + 1;
        // Neither the old ID nor the one that comes next is anybody's now; releasing them does nothing.
        for (uint32_t id : {last, next}) {
            context = &object;
            EXPECT_EQ(qel_idm_id_to_ctx(pool, id, &context), kGone);
            EXPECT_EQ(context, nullptr);
            EXPECT_EQ(qel_idm_lookup_and_retain_any_id(pool, id), nullptr);
            EXPECT_EQ(qel_idm_release_id(pool, id), 0u);
        }
        ASSERT_EQ(last = pool.assign(&other), next);
        EXPECT_EQ(pool.count(), 1u);
    }
    EXPECT_EQ(last, first) << "256 lives later the ID matches again";
    EXPECT_EQ(qel_idm_id_to_ctx(pool, first, &context), 0u);
    EXPECT_EQ(context, &other);
}

TEST(Idm, a_withdrawn_id_is_invisible_to_new_lookups_while_calls_finish) {
    Pool pool(10, 1);
    int destroyed = 0;
    qel_idm_set_destructor(
        pool, [](void*, void* counter) { ++*static_cast<int*>(counter); }, &destroyed);
    uint32_t id = pool.assign(&object), next = 7, count = 0;
    uint8_t withdrawn = 9;
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), &object);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), &object);
    EXPECT_EQ(qel_idm_release_and_withdraw_id(pool, id), 0u);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, id), nullptr);
    EXPECT_EQ(qel_idm_lookup_next_and_retain(pool, 0, &next), nullptr);
    EXPECT_EQ(next, 7u);
    EXPECT_EQ(qel_idm_get_next_id(pool, 0, &next), nullptr);
    EXPECT_EQ(next, 0u);
    EXPECT_EQ(qel_idm_lookup_and_retain_any_id(pool, id), &object);
    EXPECT_EQ(qel_idm_get_id_refcount(pool, id, &count), 0u);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(qel_idm_is_id_withdrawn(pool, id, &withdrawn), 0u);
    EXPECT_EQ(withdrawn, 1);
    EXPECT_EQ(qel_idm_release_and_withdraw_id(pool, id), kBusy) << "drops its reference all the same";
    EXPECT_EQ(qel_idm_delete_id(pool, &id), 0u);
    EXPECT_EQ(pool.count(), 1u);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(qel_idm_release_and_withdraw_id(pool, id), 0u) << "the last reference";
    EXPECT_EQ(pool.count(), 0u);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(qel_idm_is_id_withdrawn(pool, id, &withdrawn), kGone);
}

TEST(Idm, sequential_ids_count_up_walk_in_order_and_are_reused_last) {
    Pool pool(2, 4, 1);
    uint32_t id = 0, index = 0;
    for (uint32_t want : {1u, 2u, 3u, 4u, 0x10001u, 0x10002u}) EXPECT_EQ(pool.assign(&object), want);
    EXPECT_EQ(qel_idm_id_to_index(pool, 0x10002, &index), 0u);
    EXPECT_EQ(index, 5u);
    EXPECT_EQ(qel_idm_index_to_id(pool, 5, &id), 0u);
    EXPECT_EQ(id, 0x10002u);
    EXPECT_EQ(qel_idm_index_to_id(pool, 8, &id), kInvalid);
    EXPECT_EQ(qel_idm_release_id(pool, 2), 0u);
    for (uint32_t want : {0x10003u, 0x10004u, 2u}) EXPECT_EQ(pool.assign(&other), want);
    EXPECT_EQ(qel_idm_get_id(pool, &object, &id), kGone) << "the pool is full";
    // The walk goes on behind an ID that went meanwhile.
    EXPECT_EQ(qel_idm_release_id(pool, 4), 0u);
    EXPECT_EQ(qel_idm_get_next_id(pool, 2, &id), &object);
    EXPECT_EQ(id, 3u);
    EXPECT_EQ(qel_idm_release_id(pool, 3), 0u);
    EXPECT_EQ(qel_idm_get_next_id(pool, id, &id), &object);
    EXPECT_EQ(id, 0x10001u);
    EXPECT_EQ(qel_idm_lookup_next_and_retain(pool, 0x10003, &id), &other);
    EXPECT_EQ(id, 0x10004u);
    EXPECT_EQ(qel_idm_lookup_next_and_retain(pool, id, &id), nullptr);
}

TEST(Idm, a_reserved_id_is_exactly_the_one_and_is_never_given_out_again) {
    Pool sequential(256, 65536, 1);
    EXPECT_EQ(qel_idm_reserve_id(sequential, 0x1000000, &object), 0u);
    EXPECT_EQ(qel_idm_reserve_id(sequential, 0x1000000, &object), kExists);
    for (uint32_t id : {0u, 0x1000001u}) EXPECT_EQ(qel_idm_reserve_id(sequential, id, &object), kInvalid);

    Pool random(2, 8, 0);
    uint32_t wanted = 0xab010003;
    EXPECT_EQ(qel_idm_reserve_id(random, wanted, &other), 0u) << "in a slot without a block";
    EXPECT_EQ(qel_idm_reserve_id(random, 0xcd010004, &other), 0u) << "out of the middle of the free queue";
    EXPECT_EQ(qel_idm_reserve_id(random, 0xef010004, &other), kExists);
    EXPECT_EQ(qel_idm_reserve_id(random, 0xab020001, &other), kInvalid);
    EXPECT_EQ(qel_idm_reserve_id(random, 0xab000009, &other), kInvalid);
    for (int i = 0; i < 14; ++i) EXPECT_NE(random.assign(&object) & 0xffffff, wanted & 0xffffff);
    uint32_t id = 0;
    EXPECT_EQ(qel_idm_get_id(random, &object, &id), kGone);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(random, wanted), &other);

    // A limit that reserved IDs have passed stops nobody but the entries that are left.
    Pool limited(1, 1);
    EXPECT_EQ(qel_idm_reserve_id(limited, 8, &object), 0u);
    EXPECT_EQ(qel_idm_reserve_id(limited, 7, &object), 0u);
    for (uint32_t want : {1u, 2u, 3u, 4u, 5u, 6u}) EXPECT_EQ(limited.assign(&object), want);
    EXPECT_EQ(qel_idm_get_id(limited, &object, &id), kFull);
}

TEST(Idm, the_raw_id_that_would_become_zero_is_passed_over) {
    Pool pool(256, 65536, 0);
    uint32_t id = 0;
    // Brings the last entry of the last slot to generation 255 and to the head of the free queue.
    ASSERT_EQ(qel_idm_reserve_id(pool, 0xffffffffu, &object), 0u);
    ASSERT_EQ(qel_idm_reserve_id(pool, 0xfeffffffu + 1, &object), 0u);
    ASSERT_EQ(qel_idm_release_id(pool, 0xff000000u), 0u);
    for (int i = 0; i < 65534; ++i) ASSERT_EQ(qel_idm_get_id(pool, &object, &id), 0u);
    EXPECT_EQ(qel_idm_get_id(pool, &object, &id), kFull);
    EXPECT_EQ(pool.count(), 65535u);
    EXPECT_EQ(qel_idm_lookup_and_retain_id(pool, 0), nullptr);
    EXPECT_EQ(pool.assign(&object), 0x01000000u) << "its next life has generation 0";
}

TEST(Idm, there_are_127_pools_and_an_old_handle_fails_after_its_place_is_reused) {
    std::vector<std::unique_ptr<Pool>> pools;
    for (int i = 0; i < 127; ++i) pools.push_back(std::make_unique<Pool>(1, 0));
    uint32_t handle = 0, id = 0, count = 0;
    EXPECT_EQ(qel_idm_pool_create("one too many", 1, 0, &handle), kInvalid);
    uint32_t old = *pools[50];
    pools[50].reset();
    Pool successor(1, 0);
    EXPECT_EQ(successor & 0xffff, old & 0xffff);
    EXPECT_EQ(qel_idm_get_count(old, &count), kInvalid);
    EXPECT_EQ(qel_idm_get_id(old, &object, &id), kInvalid);
    handle = old;
    qel_idm_pool_destroy(&handle);
    qel_idm_pool_destroy(nullptr);
    EXPECT_EQ(handle, old);
    EXPECT_EQ(successor.count(), 0u);
}

TEST(Idm, geometry_and_bad_arguments_are_checked) {
    uint32_t handle = 0, word = 0;
    EXPECT_EQ(qel_idm_pool_create("", 1, 0, &handle), kInvalid);
    EXPECT_EQ(qel_idm_pool_create(nullptr, 1, 0, &handle), kInvalid);
    for (uint32_t ids : {0u, (1u << 24) + 1}) EXPECT_EQ(qel_idm_pool_create("x", ids, 0, &handle), kInvalid);
    EXPECT_EQ(qel_idm_pool_create_by_slots("x", 257, 1, 0, &handle), kInvalid);
    EXPECT_EQ(qel_idm_pool_create_by_slots("x", 1, 65537, 0, &handle), kInvalid);
    // 1,097,152 IDs would be 262 slots by the square root alone; an ID can tell 256 apart.
    Pool big(1097152, 1);
    EXPECT_EQ(qel_idm_index_to_id(big, 1097151, &word), 0u);
    EXPECT_EQ(word, 0xff0000u + 4222);
    Pool pool(10, 0);
    uint32_t id = pool.assign(&object);
    for (uint32_t bad : {0u, id + 100, id + 0x10000}) {
        EXPECT_EQ(qel_idm_release_id(pool, bad), kInvalid);
        EXPECT_EQ(qel_idm_get_id_refcount(pool, bad, &word), kInvalid);
    }
    for (uint32_t bad : {0u, QEL_IDM_NO_POOL, pool + 1u, pool + 0x10000u, 0xffffffffu, pool & 0xffff})
        EXPECT_EQ(qel_idm_get_count(bad, &word), kInvalid) << bad;
    EXPECT_EQ(qel_idm_get_id(pool, nullptr, &word), kInvalid);
    EXPECT_EQ(qel_idm_set_destructor(pool, nullptr, nullptr), kInvalid);
    EXPECT_EQ(qel_idm_index_to_id(pool, 0, &word), kInvalid)
        << "a random pool's IDs don't follow from the index";
}

// Objects live in a table of IDs that four threads read, replace and delete. An object is found alive only,
// its destructor runs once, and in the end nothing is left.
class IdmStress : public testing::TestWithParam<int> {};

struct Guarded {
    std::atomic<int> alive{1};
    std::atomic<uint32_t> id{0};
};
std::atomic<int> destroyed{0};

void destroy(void* guarded, void*) {
    auto* dead = static_cast<Guarded*>(guarded);
    EXPECT_EQ(dead->alive.exchange(0), 1);
    delete dead;
    ++destroyed;
}

struct Table {
    Pool pool;
    std::array<std::atomic<uint32_t>, 8> ids{};
    std::atomic<int> created{0};

    void look(uint32_t id) {
        auto* found = static_cast<Guarded*>(qel_idm_lookup_and_retain_id(pool, id));
        if (found == nullptr) return;
        EXPECT_EQ(found->alive, 1);
        // 0: another thread is just about to publish it, under an ID of an earlier object.
        EXPECT_THAT(found->id.load(), testing::AnyOf(0u, id));
        EXPECT_EQ(qel_idm_release_id(pool, id), 0u);
    }
    void remove(uint32_t id) {
        if (id == 0) return;
        EXPECT_NE(qel_idm_lookup_and_retain_id(pool, id), nullptr);
        EXPECT_EQ(qel_idm_release_and_withdraw_id(pool, id), 0u);
        EXPECT_EQ(qel_idm_release_id(pool, id), 0u);
    }
    void replace(std::atomic<uint32_t>& place) {
        auto* fresh = new Guarded;
        uint32_t id = pool.assign(fresh);
        fresh->id = id;
        ++created;
        remove(place.exchange(id));
    }
    void walk() {
        uint32_t id = 0;
        while (qel_idm_lookup_next_and_retain(pool, id, &id) != nullptr) qel_idm_release_id(pool, id);
    }
    void run(unsigned seed) {
        for (int i = 0; i < 20000; ++i) {
            seed = seed * 1103515245 + 12345;
            std::atomic<uint32_t>& place = ids[seed >> 16 & 7];
            unsigned what = seed >> 20 & 7;
            if (what == 0)
                replace(place);
            else if (what == 1)
                remove(place.exchange(0));
            else if (what == 2)
                walk();
            else
                look(place.load());
        }
    }
};

TEST_P(IdmStress, the_last_release_and_a_lookup_never_meet) {
    destroyed = 0;
    Table table{Pool(64, GetParam()), {}, {}};
    qel_idm_set_destructor(table.pool, destroy, nullptr);
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back([&table, seed] { table.run(seed); });
    for (std::thread& thread : threads) thread.join();
    for (std::atomic<uint32_t>& place : table.ids) table.remove(place.exchange(0));
    EXPECT_EQ(destroyed, table.created);
    EXPECT_EQ(table.pool.count(), 0u);
}

INSTANTIATE_TEST_SUITE_P(RandomAndSequential, IdmStress, testing::Values(0, 1));
