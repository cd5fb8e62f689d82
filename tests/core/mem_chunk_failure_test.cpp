#include "support/failing.hpp"
#include "support/support.hpp"

#include <thread>

#include "core/qel_mem_chunk.hpp"

using qel_test::fail_each_allocation;

TEST(MemChunkFailure, no_memory_at_any_step_leaves_nothing_behind) {
    for (uint32_t alignment : {0u, 64u}) {
        int failures = fail_each_allocation([alignment] {
            qel_mem_chunk* pool = qel_mem_chunk_create(32, 2, QEL_MEM_CHUNK_DYNAMIC, 0, alignment, "short");
            if (pool == nullptr) return;
            void* elements[7];
            for (void*& element : elements) element = qel_mem_chunk_malloc(pool);
            int back = 0;
            for (void* element : elements) back += qel_mem_chunk_free(pool, element);
            EXPECT_GE(back, 2);
            EXPECT_EQ(qel_mem_chunk_destroy(pool), 1);
        });
        EXPECT_EQ(failures, alignment == 0 ? 2 + 3 : 3 + 6);
    }
}

TEST(MemChunkFailure, a_load_around_the_block_edge_does_not_go_to_the_heap) {
    static int allocations;
    qel_mem_chunk* pool = qel_mem_chunk_create(64, 2, QEL_MEM_CHUNK_DYNAMIC, 0, 0, "edge");
    void* first[2] = {qel_mem_chunk_malloc(pool), qel_mem_chunk_malloc(pool)};
    qel::allocation_hook.store([] { return ++allocations > 0; });
    for (int i = 0; i < 100; ++i) EXPECT_EQ(qel_mem_chunk_free(pool, qel_mem_chunk_malloc(pool)), 1);
    qel::allocation_hook.store(nullptr);
    EXPECT_EQ(allocations, 1);
    for (void* element : first) qel_mem_chunk_free(pool, element);
    EXPECT_EQ(qel_mem_chunk_destroy(pool), 1);
}

TEST(MemChunkFailure, given_up_pool_lives_until_its_last_element_is_back) {
    constexpr int kElements = 64;
    for (uint32_t flags :
         {0x111u, QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_KEEP, QEL_MEM_CHUNK_DYNAMIC | 0x440u}) {
        qel_mem_chunk* pool = qel_mem_chunk_create(32, 30, flags, 0, 0, "List Elements");
        void* elements[kElements];
        for (void*& element : elements) element = qel_mem_chunk_malloc(pool);
        EXPECT_EQ(qel::chunk_free_to_owner(elements[0]), 1);
        qel::chunk_retire(pool);
        auto free_half = [&elements](int from) {
            for (int i = from; i < kElements; i += 2) EXPECT_EQ(qel::chunk_free_to_owner(elements[i]), 1);
        };
        std::thread other(free_half, 1);
        if ((flags & QEL_MEM_CHUNK_NO_SYNC) != 0) other.join();
        free_half(2);
        if (other.joinable()) other.join();
    }
    qel::chunk_retire(qel_mem_chunk_create(32, 30, 0x111, 0, 0, "List Elements"));
    qel::chunk_retire(nullptr);
    EXPECT_EQ(qel::chunk_free_to_owner(nullptr), 0);
}
