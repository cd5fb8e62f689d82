// The radix tree when memory is short.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/rdx.h>

namespace {

int records_gone = 0;

constexpr cerrno kNoMemory = 0xa000000c;

// Enters, forks, puts above and updates: a step that fails leaves what was there.
void build_and_clear() {
    qel_rdx_attr attr;
    EXPECT_EQ(qel_rdx_tree_attr_init(&attr), 0u);
    auto count = [](qel_rdx_info*, qel_rdx_aux*) { ++records_gone; };
    EXPECT_EQ(qel_rdx_tree_attr_set_aux_destructor(&attr, count), 0u);
    qel_rdx_tree* tree = nullptr;
    if (cerrno error = qel_rdx_tree_create(&tree, &attr); error != 0) {
        EXPECT_TRUE(error == kNoMemory && tree == nullptr);
        return;
    }
    records_gone = 0;
    int made = 0;
    // Enough for a second chunk, which a fork may need for either of its two nodes.
    for (uint32_t i = 0; i < 100; ++i) {
        const uint8_t key[4] = {static_cast<uint8_t>(i * 37), static_cast<uint8_t>(i)};
        const uint32_t length = 8 + i % 9;
        void *mark = &tree, *found = nullptr, *old = nullptr;
        cerrno error = qel_rdx_insert(tree, key, length, mark);
        EXPECT_TRUE(error == 0 || (error == kNoMemory && qel_test::allocation_failed));
        EXPECT_EQ(qel_rdx_get_node(tree, key, length) == 0, error == 0);
        if (error != 0) continue;
        error = qel_rdx_update(tree, key, length, &made, 0, &old);
        EXPECT_EQ(qel_rdx_search_exact(tree, key, length, &found), 0u);
        EXPECT_EQ(found, error == 0 ? &made : mark);
        EXPECT_EQ(old, error == 0 ? mark : nullptr);
        made += error == 0 ? 2 : 1;
    }
    const uint8_t* key;
    uint32_t length;
    void* found;
    while (qel_rdx_last_node(tree, &key, &length, &found) == 0)
        EXPECT_EQ(qel_rdx_delete(tree, key, length, &found), 0u);
    EXPECT_EQ(records_gone, made);
    EXPECT_EQ(qel_rdx_tree_destroy(tree), 0u);
}

TEST(RdxFailure, a_call_without_memory_changes_nothing) {
    EXPECT_GE(qel_test::fail_each_allocation(build_and_clear), 200);
}

}  // namespace
