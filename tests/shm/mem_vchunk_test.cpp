#include <qel/mem_vchunk.h>
#include <qel/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/support.hpp"

namespace {

using qel_test::Child;

constexpr std::uint32_t kHeader = 1368;
constexpr std::uint32_t kUnit = 64;  // for a min_size of 40

std::string dump_of(qel_mem_vchunk_pool pool) {
    testing::internal::CaptureStdout();
    qel_mem_vchunk_dump(pool);
    return testing::internal::GetCapturedStdout();
}

// A number below 'limit' from the generator's next.
std::uint32_t below(std::mt19937& random, std::uint32_t limit) {
    return static_cast<std::uint32_t>(random() % limit);
}

struct Pool {
    explicit Pool(std::uint32_t units, bool shared = false, std::uint32_t flags = 0) {
        auto create = shared ? qel_mem_vchunk_shm_create : qel_mem_vchunk_create;
        EXPECT_EQ(create("heap", 40, kHeader + units * kUnit, flags, &handle), 0);
    }
    ~Pool() {
        if (handle != 0) {
            EXPECT_EQ(qel_mem_vchunk_close(&handle), 0);
        }
    }
    operator qel_mem_vchunk_pool() const { return handle; }
    qel_mem_vchunk_pool release() { return std::exchange(handle, 0); }
    qel_mem_vchunk_pool handle = 0;
};

TEST(Vchunk, takes_powers_of_two_of_units) {
    Pool pool{5};  // root blocks of four and one
    void* one = qel_mem_vchunk_malloc(pool, 40);
    void* two = qel_mem_vchunk_malloc(pool, 41);
    ASSERT_TRUE(one && two);
    EXPECT_THAT(dump_of(pool), testing::HasSubstr("mem_heap_used=" + std::to_string(kHeader + 3 * kUnit)));
    EXPECT_EQ(qel_mem_vchunk_malloc(pool, 2 * kUnit - 23), nullptr) << "only two and no more lie together";
    EXPECT_EQ(qel_mem_vchunk_close(&pool.handle), EBUSY);
    EXPECT_EQ(qel_mem_vchunk_free(pool, two), 0);
    EXPECT_EQ(qel_mem_vchunk_free(pool, two), EINVAL) << "freed twice";
    void* four = qel_mem_vchunk_malloc(pool, 4 * kUnit - 24);
    EXPECT_NE(four, nullptr) << "exactly four units, and no fifth";
    EXPECT_EQ(qel_mem_vchunk_malloc(pool, 4 * kUnit), nullptr);
    EXPECT_EQ(qel_mem_vchunk_free(pool, four), 0);
    EXPECT_EQ(qel_mem_vchunk_free(pool, one), 0);
    EXPECT_THAT(dump_of(pool), testing::HasSubstr("mem_heap_used=1368\tmem_heap_overhead=1368\t"));
    EXPECT_EQ(qel_mem_vchunk_free(pool, nullptr), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_malloc(pool, 0), nullptr);
    EXPECT_EQ(qel_mem_vchunk_malloc(pool, UINT32_MAX), nullptr);
}

TEST(Vchunk, refuses_what_makes_no_heap) {
    qel_mem_vchunk_pool pool = 0, other = 0;
    EXPECT_EQ(qel_mem_vchunk_create("", 40, 4096, 0, &pool), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 40, kHeader, 0, &pool), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 40, kHeader + 1, 0, &pool), ENOMEM);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 40, 4096, 4, &pool), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_shm_create("heap", 40, 4096, 2, &pool), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 32745, 1 << 20, 0, &pool), EINVAL);
    ASSERT_EQ(qel_mem_vchunk_create("heap.long", 40, 4096, 0, &pool), 0);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 41, 4096, 0, &other), EINVAL)
        << "the beginning of its name, another unit";
    EXPECT_EQ(qel_mem_vchunk_shm_create("heap.long", 40, 4096, 0, &other), EFAULT);
    EXPECT_EQ(qel_mem_vchunk_create("heap", 40, 4096, 0, &other), 0);
    EXPECT_EQ(other, pool);
    EXPECT_EQ(qel_mem_vchunk_iszero(pool), EINVAL);
    EXPECT_EQ(qel_mem_vchunk_close(&other), 0);
    EXPECT_EQ(qel_mem_vchunk_close(&pool), 0);
    EXPECT_EQ(pool, 0u);
    EXPECT_EQ(qel_mem_vchunk_close(&other), EPERM) << "stale";
    EXPECT_EQ(qel_mem_vchunk_iszero(0), 1);
    EXPECT_EQ(qel_mem_vchunk_iszero(other), 0);
    EXPECT_EQ(qel_mem_vchunk_malloc(other, 8), nullptr);
    EXPECT_EQ(qel_mem_vchunk_close(nullptr), EINVAL);
}

TEST(Vchunk, passes_through_and_zeroes_as_asked) {
    Pool through{1, false, QEL_MEM_VCHUNK_PASS_THROUGH | QEL_MEM_VCHUNK_ZERO};
    auto* bytes = static_cast<char*>(qel_mem_vchunk_malloc(through, 100'000));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::count(bytes, bytes + 100'000, 0), 100'000);
    EXPECT_EQ(qel_mem_vchunk_addr_to_handle(through, bytes), 0u);
    EXPECT_EQ(qel_mem_vchunk_free(through, bytes), 0);
}

// Whatever is taken and given back, chunks don't overlap, and in the end the heap is what it was.
TEST(Vchunk, random_use_leaves_the_heap_as_it_was) {
    Pool pool{1000, true};
    std::string free_lists = dump_of(pool).substr(0, 120);
    struct Held {
        std::uint8_t* bytes;
        std::uint32_t size;
        std::uint8_t pattern;
    };
    std::vector<Held> held;
    std::mt19937 random{7};
    for (int round = 0; round < 40'000; ++round) {
        if (random() % 2 == 0 && held.size() < 300) {
            std::uint32_t size = 1 + below(random, below(random, 8) == 0 ? 6000 : 300);
            auto* bytes = static_cast<std::uint8_t*>(qel_mem_vchunk_malloc(pool, size));
            if (bytes == nullptr) continue;
            std::memset(bytes, round, size);
            held.push_back({bytes, size, static_cast<std::uint8_t>(round)});
        } else if (!held.empty()) {
            std::swap(held[random() % held.size()], held.back());
            Held one = held.back();
            held.pop_back();
            ASSERT_EQ(std::count(one.bytes, one.bytes + one.size, one.pattern), one.size) << "chunks overlap";
            std::uint32_t handle = qel_mem_vchunk_addr_to_handle(pool, one.bytes);
            ASSERT_EQ(qel_mem_vchunk_handle_to_addr(pool, handle), one.bytes);
            ASSERT_EQ(qel_mem_vchunk_free(pool, one.bytes), 0);
        }
    }
    for (Held& one : held) ASSERT_EQ(qel_mem_vchunk_free(pool, one.bytes), 0);
    EXPECT_EQ(dump_of(pool).substr(0, 120), free_lists);
}

QEL_ROLE(neighbour) {
    Pool pool{64, true};
    auto handle = static_cast<std::uint32_t>(std::stoul(args.at(0)));
    auto* bytes = static_cast<char*>(qel_mem_vchunk_handle_to_addr(pool, handle));
    if (bytes == nullptr || std::strcmp(bytes, "from A") != 0) return 1;
    if (qel_mem_vchunk_free(pool, bytes) != 0) return 2;
    return 0;  // The last close of this process: the heap is idle, and its name goes.
}

TEST(Vchunk, a_chunk_is_read_and_freed_by_another_process_whose_close_hurts_nobody) {
    Pool pool{64, true};
    auto* bytes = static_cast<char*>(qel_mem_vchunk_malloc(pool, 100));
    std::strcpy(bytes, "from A");
    Child child{"neighbour", {std::to_string(qel_mem_vchunk_addr_to_handle(pool, bytes))}};
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(qel_mem_vchunk_free(pool, bytes), EINVAL) << "it is free by now";
    EXPECT_FALSE(qel_test::shm_exists("heap"));
    void* more = qel_mem_vchunk_malloc(pool, 100);
    EXPECT_NE(more, nullptr) << "who has it mapped goes on";
    EXPECT_EQ(qel_mem_vchunk_free(pool, more), 0);
    qel_mem_vchunk_pool stale = pool.handle;
    EXPECT_EQ(qel_mem_vchunk_close(&pool.handle), ENOENT) << "the name is gone";
    EXPECT_EQ(qel_mem_vchunk_close(&pool.handle), EFAULT) << "and so is the heap";
    EXPECT_EQ(qel_mem_vchunk_malloc(stale, 1), nullptr);
    // The name, opened again, is a heap that others see, and not the one that is gone.
    pool.handle = Pool{64, true}.release();
    EXPECT_TRUE(qel_test::shm_exists("heap"));
    EXPECT_EQ(qel_mem_vchunk_free(stale, more), EINVAL);
}

TEST(Vchunk, close_removes_a_long_name) {
    std::string name(100, 'h');
    qel_mem_vchunk_pool pool = 0;
    ASSERT_EQ(qel_mem_vchunk_shm_create(name.c_str(), 40, 4096, 0, &pool), 0);
    EXPECT_EQ(qel_mem_vchunk_close(&pool), 0);
    EXPECT_FALSE(qel_test::shm_exists(name));
}

QEL_ROLE(leaver) {
    Pool pool{64, true};
    for (int thread = 0; thread < 4; ++thread)
        std::thread{[shared = pool.handle] {
            for (;;) qel_mem_vchunk_free(shared, qel_mem_vchunk_malloc(shared, 1));
        }}.detach();
    return static_cast<int>(pool.release() == 0);
}

TEST(Vchunk, threads_may_use_a_heap_while_their_process_ends) {
    for (int round = 0; round < 20; ++round) ASSERT_EQ(Child{"leaver"}.wait(), 0);
    EXPECT_EQ(qel_mem_vchunk_destroy("heap"), 0);
}

// Any word of the heap may be anything at any time: calls fail, but stay inside and come back.
TEST(Vchunk, a_scribbled_heap_refuses_and_never_faults) {
    constexpr std::uint32_t kUnits = 256, kSize = kHeader + kUnits * kUnit;
    for (std::uint32_t seed = 0; seed < 300; ++seed) {
        Pool pool{kUnits, true};
        qel_shm_info whole;
        std::uint8_t existed;
        ASSERT_EQ(qel_shm_open("heap", 0, &whole, &existed), 0);
        auto* words = reinterpret_cast<std::uint32_t*>(static_cast<std::byte*>(whole.addr) + 12);
        auto* first = static_cast<std::byte*>(qel_mem_vchunk_malloc(pool, 1));
        std::byte* base = first - qel_mem_vchunk_addr_to_handle(pool, first);
        std::mt19937 random{seed};
        std::vector<void*> held;
        for (int round = 0; round < 400; ++round) {
            std::uint32_t at = below(random, kSize / 4);
            bool is_lock = at >= 4 && at < 14;
            if (round > 20 && !is_lock)
                words[at] =
                    below(random, 3) == 0 ? below(random, UINT32_MAX) : kHeader + below(random, kSize);
            void* chunk = qel_mem_vchunk_malloc(pool, 1 + below(random, 900));
            auto offset = static_cast<std::byte*>(chunk) - base;
            ASSERT_TRUE(chunk == nullptr || (offset > kHeader && offset < kSize));
            held.push_back(chunk);
            std::swap(held[random() % held.size()], held.back());
            static_cast<void>(qel_mem_vchunk_free(pool, held.back()));  // whatever it gives
            held.pop_back();
        }
        words[17] = kHeader;  // the bytes in use, so that it can be closed
        qel_shm_close(&whole);
    }
}

}  // namespace
