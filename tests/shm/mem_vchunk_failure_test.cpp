// Heaps from inside: their invariant, messaging's calls on them, and memory that runs out.
#include "shm/qel_mem_vchunk.hpp"

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "shm/qel_mem_safe_shm.hpp"
#include "shm/qel_mem_vchunk_heap.hpp"
#include "support/failing.hpp"
#include "support/support.hpp"

namespace {

using namespace qel_test;

constexpr std::uint32_t kUnit = 64;
constexpr std::uint32_t kUnits = 333;  // several root blocks
constexpr std::uint32_t kSize = 1368 + kUnits * kUnit;

// A pool of messaging, detached at the end.
struct SharedPool {
    explicit SharedPool(const char* name = "inner") {
        EXPECT_EQ(qel::vchunk_shm_open(name, 40, kSize, handle), 0);
    }
    ~SharedPool() { qel::vchunk_detach(handle); }
    operator qel_mem_vchunk_pool() const { return handle; }
    qel_mem_vchunk_pool handle = 0;
};

// The header as another program may find and change it.
struct HeaderOf {
    explicit HeaderOf(const char* name) {
        EXPECT_EQ(qel_shm_safe_open(name, 0, 0, qel::kVchunkMagic, nullptr, nullptr, 1, mapping.out()), 0);
    }
    qel::VchunkHeapHeader* operator->() const {
        return static_cast<qel::VchunkHeapHeader*>(mapping.info().addr);
    }
    qel::Mapping mapping;
};

TEST(VchunkInside, invariant_holds_after_each_step) {
    SharedPool pool;
    std::mt19937 random{11};
    std::vector<std::uint32_t> places(60);
    for (int round = 0; round < 4000; ++round) {
        std::uint32_t& place = places[random() % places.size()];
        auto size = static_cast<std::uint32_t>(1 + random() % (random() % 5 == 0 ? 5000 : 200));
        if (place != 0) {
            ASSERT_EQ(qel::vchunk_drop(pool, place), 0);
            ASSERT_EQ(place, 0u);
        } else if (void* bytes = qel::vchunk_take(pool, size, place)) {
            ASSERT_EQ(qel::vchunk_bytes(pool, place, size).data(), bytes);
        } else {
            ASSERT_EQ(place, 0u) << "a failure leaves it";
        }
        ASSERT_STREQ(qel::vchunk_check(pool), nullptr) << "round " << round;
    }
    for (std::uint32_t& place : places) qel::vchunk_drop(pool, place);
    EXPECT_STREQ(qel::vchunk_check(pool), nullptr);
    HeaderOf header{"inner"};
    for (std::uint32_t order = 0; order < qel::kVchunkOrders; ++order)
        EXPECT_EQ(header->lists[order].count, kUnits >> order & 1) << "only root blocks are left";
    header->lists[2].tail = 77;
    EXPECT_STRNE(qel::vchunk_check(pool), nullptr);
    EXPECT_EQ(qel_mem_vchunk_destroy("inner"), 0);
}

TEST(VchunkInside, only_a_chunk_in_use_has_bytes) {
    SharedPool pool;
    std::uint32_t place = 0;
    ASSERT_NE(qel::vchunk_take(pool, 100, place), nullptr);
    std::uint32_t chunk = place;
    EXPECT_EQ(qel::vchunk_bytes(pool, chunk, 2 * kUnit - 24).size(), 2 * kUnit - 24);
    EXPECT_TRUE(qel::vchunk_bytes(pool, chunk, 2 * kUnit - 23).empty());
    for (std::uint32_t other : {0u, 1u, chunk - 4, chunk + kUnit, kSize, UINT32_MAX})
        EXPECT_TRUE(qel::vchunk_bytes(pool, other, 1).empty()) << other;
    EXPECT_EQ(qel::vchunk_drop(pool, place), 0);
    EXPECT_TRUE(qel::vchunk_bytes(pool, chunk, 1).empty());
    place = chunk;
    EXPECT_EQ(qel::vchunk_drop(pool, place), EINVAL);
    EXPECT_EQ(place, 0u) << "cleared all the same";
    EXPECT_EQ(qel_mem_vchunk_destroy("inner"), 0);
}

QEL_ROLE(dies_with_the_lock) {
    SharedPool pool;
    std::uint32_t place = 0;
    if (qel::vchunk_take(pool, 10, place) == nullptr) return 1;
    HeaderOf header{"inner"};
    qel::BasicSharedLocked<qel::SilentSharedLockFailures> lock{header->lock};
    say(std::to_string(place));
    hear();
    return 0;
}

TEST(VchunkInside, a_heap_locked_by_the_dead_can_be_looked_at) {
    SharedPool pool;
    Child child{"dies_with_the_lock"};
    auto chunk = static_cast<std::uint32_t>(std::stoul(child.read_line()));
    child.kill();
    EXPECT_EQ(qel::vchunk_bytes(pool, chunk, 10).size(), 10u);
    testing::internal::CaptureStdout();
    qel_mem_vchunk_dump(pool);
    EXPECT_THAT(
        testing::internal::GetCapturedStdout(),
        testing::AllOf(testing::HasSubstr("lock not taken"), testing::HasSubstr("mem_heap_used=1432\t")));
    EXPECT_EQ(qel_mem_vchunk_destroy("inner"), 0);
}

// A channel made anew has a heap of the old name; names of channels begin with one another.
TEST(VchunkInside, messaging_gets_the_heap_that_has_the_name_now) {
    SharedPool old{"a.heap"};
    SharedPool longer{"a.heap.heap"};
    EXPECT_EQ(SharedPool{"a.heap"}.handle, old.handle);
    EXPECT_NE(longer.handle, old.handle);
    std::uint32_t place = 0;
    ASSERT_NE(qel::vchunk_take(old, 10, place), nullptr);
    EXPECT_EQ(qel_mem_vchunk_destroy("a.heap"), 0);
    qel_mem_vchunk_pool looker = 0;
    EXPECT_EQ(qel::vchunk_attach("a.heap", looker), ENOENT);
    SharedPool anew{"a.heap"};
    EXPECT_TRUE(qel::vchunk_bytes(anew, place, 10).empty()) << "not the old one";
    EXPECT_EQ(qel::vchunk_attach("a.heap", looker), 0);
    EXPECT_EQ(looker, anew.handle);
    qel::vchunk_detach(looker);
    EXPECT_EQ(qel::vchunk_drop(old, place), 0) << "which serves on";
    EXPECT_EQ(qel_mem_vchunk_destroy("a.heap"), 0);
    EXPECT_EQ(qel_mem_vchunk_destroy("a.heap.heap"), 0);
}

TEST(VchunkInside, opens_refuse_a_segment_that_is_no_heap_and_leave_nothing) {
    int descriptors = open_descriptors();
    SharedPool{"odd"};
    for (auto spoil : {+[](qel::VchunkHeapHeader& header) { header.magic = 1; },
                       +[](qel::VchunkHeapHeader& header) { header.min_chunk_size = 48; },
                       +[](qel::VchunkHeapHeader& header) { header.mem_heap_capacity = UINT32_MAX; }}) {
        HeaderOf other{"odd"};
        std::uint32_t words[] = {other->magic, other->min_chunk_size, other->mem_heap_capacity};
        spoil(*other.operator->());
        qel_mem_vchunk_pool pool = 0;
        EXPECT_EQ(qel::vchunk_shm_open("odd", 40, kSize, pool), EFAULT);
        EXPECT_EQ(qel::vchunk_attach("odd", pool), EFAULT);
        EXPECT_EQ(pool, 0u);
        other->magic = words[0];
        other->min_chunk_size = words[1];
        other->mem_heap_capacity = words[2];
    }
    EXPECT_EQ(qel_mem_vchunk_destroy("odd"), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count("odd"), 0);
}

TEST(VchunkInside, process_heap_survives_each_failing_allocation) {
    int failures = fail_each_allocation([] {
        qel_mem_vchunk_pool pool = 0;
        if (qel_mem_vchunk_create("short", 40, 4096, QEL_MEM_VCHUNK_PASS_THROUGH, &pool) != 0) {
            EXPECT_EQ(pool, 0u);
            return;
        }
        void* chunk = qel_mem_vchunk_malloc(pool, 10);
        EXPECT_EQ(qel_mem_vchunk_free(pool, chunk), chunk != nullptr ? 0 : EINVAL);
        EXPECT_EQ(qel_mem_vchunk_close(&pool), 0);
    });
    EXPECT_EQ(failures, 2);
}

}  // namespace
