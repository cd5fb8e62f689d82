#include "support/support.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

#include <qel/mem.h>

namespace {

using Pool = std::unique_ptr<qel_mem_chunk, void (*)(qel_mem_chunk*)>;

// A pool that must be destroyable when its test ends.
Pool make_pool(uint32_t size, uint32_t capacity, uint32_t flags, uint32_t alignment = 0) {
    return {qel_mem_chunk_create(size, capacity, flags, 0, alignment, "test"),
            [](qel_mem_chunk* pool) { EXPECT_EQ(qel_mem_chunk_destroy(pool), 1); }};
}

std::vector<std::byte*> take(const Pool& pool, size_t count) {
    std::vector<std::byte*> elements;
    for (size_t i = 0; i < count; ++i)
        elements.push_back(static_cast<std::byte*>(qel_mem_chunk_malloc(pool.get())));
    return elements;
}

void give_back(const Pool& pool, const std::vector<std::byte*>& elements) {
    for (std::byte* element : elements) EXPECT_EQ(qel_mem_chunk_free(pool.get(), element), 1);
}

uint32_t word_at(const std::byte* address) {
    uint32_t word;
    std::memcpy(&word, address, sizeof word);
    return word;
}

bool all_bytes(const std::byte* from, size_t count, int value) {
    return std::all_of(from, from + count, [value](std::byte byte) { return byte == std::byte(value); });
}

constexpr uint32_t kHeaderFlags = QEL_MEM_CHUNK_LOCKABLE | QEL_MEM_CHUNK_DEBUGGABLE;
constexpr uint32_t kAnyHeader[] = {0, QEL_MEM_CHUNK_NO_FAST_FREE, kHeaderFlags,
                                   kHeaderFlags | QEL_MEM_CHUNK_NO_FAST_FREE,
                                   QEL_MEM_CHUNK_LOCKABLE | QEL_MEM_CHUNK_NO_FAST_FREE};

}  // namespace

TEST(MemChunk, fixed_pool_gives_its_number_of_aligned_disjoint_elements) {
    for (uint32_t size : {0u, 1u, 15u, 16u, 17u, 20u, 56u, 60u, 70000u}) {
        for (uint32_t alignment : {0u, 8u, 12u, 16u, 64u}) {
            for (uint32_t flags : kAnyHeader) {
                for (uint32_t count : {1u, 7u}) {
                    SCOPED_TRACE(testing::Message() << size << '/' << alignment << '/' << flags);
                    Pool pool = make_pool(size, count, flags, alignment);
                    std::vector<std::byte*> elements = take(pool, count);
                    EXPECT_EQ(qel_mem_chunk_malloc(pool.get()), nullptr);
                    std::ranges::sort(elements);
                    for (size_t i = 0; i < elements.size(); ++i) {
                        EXPECT_EQ(reinterpret_cast<uintptr_t>(elements[i]) % std::max(alignment, 8u), 0u);
                        // The sanitizer checks that all of it is the pool's memory.
                        std::memset(elements[i], 0xff, std::max(size, 16u));
                        EXPECT_GE(elements[i], i == 0 ? nullptr : elements[i - 1] + std::max(size, 16u));
                    }
                    give_back(pool, elements);
                    give_back(pool, take(pool, 1));
                }
            }
        }
    }
}

TEST(MemChunk, element_headers_lie_where_tools_look_for_them) {
    struct {
        uint32_t flags;
        int count_at;
        int magic_at;
    } rows[] = {{kHeaderFlags, 12, 20},
                {QEL_MEM_CHUNK_DEBUGGABLE, 0, 16},
                {kHeaderFlags | QEL_MEM_CHUNK_NO_FAST_FREE, 4, 12},
                {QEL_MEM_CHUNK_DEBUGGABLE | QEL_MEM_CHUNK_NO_FAST_FREE, 0, 8}};
    for (auto [flags, count_at, magic_at] : rows) {
        Pool pool = make_pool(300, 2, flags);
        std::byte* element = take(pool, 1)[0];
        EXPECT_EQ(word_at(element - magic_at), 0x15a3c78bu);
        EXPECT_TRUE(count_at == 0 || word_at(element - count_at) == 1);
        std::memset(element, 0x55, 300);
        give_back(pool, {element});
        EXPECT_EQ(word_at(element), 0xef4321cdu);
        EXPECT_TRUE(all_bytes(element + 4, 12, 0x55));
        EXPECT_TRUE(all_bytes(element + 16, 256, 0x0d));
        EXPECT_TRUE(all_bytes(element + 272, 28, 0x55));
        EXPECT_EQ(word_at(element - magic_at), 0x15a3c78bu);
    }
}

TEST(MemChunk, zeroing_covers_the_whole_size_each_time) {
    Pool pool = make_pool(100, 1, QEL_MEM_CHUNK_ZERO);
    for (int i = 0; i < 2; ++i) {
        std::byte* element = take(pool, 1)[0];
        EXPECT_TRUE(all_bytes(element, 100, 0));
        std::memset(element, 0xff, 100);
        give_back(pool, {element});
    }
}

TEST(MemChunk, dynamic_pool_grows_and_shrinks_whatever_the_order) {
    for (uint32_t flags : kAnyHeader) {
        for (uint32_t alignment : {0u, 64u}) {
            Pool pool = make_pool(40, 5, flags | QEL_MEM_CHUNK_DYNAMIC, alignment);
            std::vector<std::byte*> held;
            uint32_t seed = 12345 + flags;
            // A random walk that drifts up to 300 elements, then down, over all block boundaries.
            for (int step = 0; step < 20000; ++step) {
                seed = seed * 1664525 + 1013904223;
                bool up = (seed >> 16) % 100 < (step < 10000 ? 55u : 45u);
                if (up && held.size() < 300) {
                    held.push_back(take(pool, 1)[0]);
                    std::memset(held.back(), static_cast<int>(held.size()), 40);
                } else if (!held.empty()) {
                    std::swap(held[(seed >> 8) % held.size()], held.back());
                    EXPECT_EQ(qel_mem_chunk_free(pool.get(), held.back()), 1);
                    held.pop_back();
                }
            }
            EXPECT_EQ(std::set(held.begin(), held.end()).size(), held.size());
            EXPECT_EQ(qel_mem_chunk_is_destroyable(pool.get()), held.empty());
            give_back(pool, held);
            EXPECT_EQ(qel_mem_chunk_is_destroyable(pool.get()), 1);
        }
    }
}

TEST(MemChunk, destroy_waits_for_elements_and_kept_siblings) {
    Pool pool = make_pool(16, 2, 0);
    std::vector<std::byte*> one = take(pool, 1);
    EXPECT_EQ(qel_mem_chunk_destroy(pool.get()), 0);
    give_back(pool, one);

    qel_mem_chunk* keeper =
        qel_mem_chunk_create(16, 1, QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_KEEP, 0, 0, nullptr);
    void* first = qel_mem_chunk_malloc(keeper);
    void* second = qel_mem_chunk_malloc(keeper);
    EXPECT_EQ(qel_mem_chunk_free(keeper, second), 1);
    EXPECT_EQ(qel_mem_chunk_malloc(keeper), second);
    EXPECT_EQ(qel_mem_chunk_free(keeper, second), 1);
    EXPECT_EQ(qel_mem_chunk_free(keeper, first), 1);
    EXPECT_EQ(qel_mem_chunk_is_destroyable(keeper), 0);
    EXPECT_EQ(qel_mem_chunk_destroy(keeper), 0);
    static qel_mem_chunk* never_destroyable = keeper;  // so it stays reachable to the end
    EXPECT_NE(never_destroyable, nullptr);
}

TEST(MemChunk, only_the_last_reference_frees_and_none_is_dropped_twice) {
    for (uint32_t flags : {0u, QEL_MEM_CHUNK_NO_FAST_FREE}) {
        Pool pool = make_pool(32, 3, flags | QEL_MEM_CHUNK_LOCKABLE);
        std::byte* element = take(pool, 1)[0];
        EXPECT_EQ(qel_mem_chunk_lock(pool.get(), element), 1);
        EXPECT_EQ(qel_mem_chunk_lock(pool.get(), element), 1);
        EXPECT_EQ(qel_mem_chunk_refcount(pool.get(), element), 3u);
        for (uint32_t left : {2u, 1u, 0u}) {
            EXPECT_EQ(qel_mem_chunk_free(pool.get(), element), 1);
            EXPECT_EQ(qel_mem_chunk_refcount(pool.get(), element), left);
        }
        EXPECT_EQ(qel_mem_chunk_free(pool.get(), element), 0);
        EXPECT_EQ(qel_mem_chunk_lock(pool.get(), element), 0);
        std::vector<std::byte*> all = take(pool, 3);
        EXPECT_EQ(std::set(all.begin(), all.end()).size(), 3u);
        give_back(pool, all);
    }
    Pool plain = make_pool(32, 1, 0);
    std::vector<std::byte*> one = take(plain, 1);
    EXPECT_EQ(qel_mem_chunk_lock(plain.get(), one[0]), 0);
    EXPECT_EQ(qel_mem_chunk_refcount(plain.get(), one[0]), 0xffffffffu);
    give_back(plain, one);
}

TEST(MemChunk, double_free_changes_nothing) {
    for (uint32_t flags : kAnyHeader) {
        Pool pool = make_pool(64, 4, flags);
        std::vector<std::byte*> all = take(pool, 4);
        give_back(pool, {all[1]});
        EXPECT_EQ(qel_mem_chunk_free(pool.get(), all[1]), 0);
        // A user's data may look like the mark of a free element.
        const uint32_t magic = 0xef4321cd;
        std::memcpy(all[2], &magic, sizeof magic);
        give_back(pool, {all[2], all[0], all[3]});
        for (std::byte* element : all) EXPECT_EQ(qel_mem_chunk_free(pool.get(), element), 0);
        std::vector<std::byte*> again = take(pool, 4);
        EXPECT_EQ(std::set(again.begin(), again.end()).size(), 4u);
        give_back(pool, again);
    }
}

TEST(MemChunk, foreign_addresses_are_refused_untouched) {
    for (uint32_t foreign_flags : kAnyHeader) {
        for (uint32_t flags : kAnyHeader) {
            SCOPED_TRACE(testing::Message() << foreign_flags << " into " << flags);
            Pool other = make_pool(64, 2, foreign_flags | QEL_MEM_CHUNK_ZERO);
            Pool pool = make_pool(64, 2, flags);
            std::vector<std::byte*> foreign = take(other, 2);
            std::vector<std::byte> before(foreign[0] - 20, foreign[0] + 64);
            EXPECT_EQ(qel_mem_chunk_free(pool.get(), foreign[0]), 0);
            EXPECT_EQ(qel_mem_chunk_lock(pool.get(), foreign[0]), 0);
            EXPECT_EQ(qel_mem_chunk_refcount(pool.get(), foreign[0]), 0xffffffffu);
            EXPECT_TRUE(std::equal(before.begin(), before.end(), foreign[0] - 20));
            give_back(other, foreign);
        }
    }
    Pool pool = make_pool(64, 2, QEL_MEM_CHUNK_NO_FAST_FREE);
    std::vector<std::byte*> one = take(pool, 1);
    EXPECT_EQ(qel_mem_chunk_free(pool.get(), one[0] + 8), 0) << "an address inside an element";
    give_back(pool, one);
}

TEST(MemChunk, bad_arguments_get_their_told_results) {
    EXPECT_EQ(qel_mem_chunk_create(65537, 1, QEL_MEM_CHUNK_DYNAMIC, 0, 0, "big"), nullptr);
    give_back(make_pool(65536, 1, QEL_MEM_CHUNK_DYNAMIC), {});
    EXPECT_EQ(qel_mem_chunk_create(UINT32_MAX, UINT32_MAX, 0, 0, UINT32_MAX, "vast"), nullptr);
    Pool empty = make_pool(16, 0, QEL_MEM_CHUNK_DYNAMIC);
    EXPECT_EQ(qel_mem_chunk_malloc(empty.get()), nullptr);
    int nothing = 0;
    EXPECT_EQ(qel_mem_chunk_malloc(nullptr), nullptr);
    EXPECT_EQ(qel_mem_chunk_free(nullptr, &nothing), 0);
    EXPECT_EQ(qel_mem_chunk_free(empty.get(), nullptr), 0);
    EXPECT_EQ(qel_mem_chunk_lock(nullptr, &nothing), 0);
    EXPECT_EQ(qel_mem_chunk_refcount(nullptr, &nothing), 0xffffffffu);
    EXPECT_EQ(qel_mem_chunk_is_destroyable(nullptr), 0);
    EXPECT_EQ(qel_mem_chunk_destroy(nullptr), 0);
}

TEST(MemChunk, threads_never_share_an_element) {
    Pool pool = make_pool(64, 16, QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_ZERO | kHeaderFlags);
    auto work = [&pool](int id) {
        std::vector<std::byte*> held;
        for (int round = 0; round < 5000; ++round) {
            held = take(pool, 1 + static_cast<size_t>((round + id) % 20));
            for (std::byte* element : held) {
                ASSERT_TRUE(all_bytes(element, 64, 0));
                std::memset(element, id, 64);
                ASSERT_EQ(qel_mem_chunk_lock(pool.get(), element), 1);
            }
            for (std::byte* element : held) {
                ASSERT_TRUE(all_bytes(element, 64, id));
                ASSERT_EQ(qel_mem_chunk_free(pool.get(), element), 1);
                ASSERT_EQ(qel_mem_chunk_free(pool.get(), element), 1);
            }
        }
    };
    std::vector<std::thread> threads;
    for (int id = 1; id <= 4; ++id) threads.emplace_back(work, id);
    for (std::thread& thread : threads) thread.join();
}
