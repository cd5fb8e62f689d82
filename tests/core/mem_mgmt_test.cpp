#include "support/support.hpp"

#include <qel/mem.h>

// The sanitizers' allocators end the program on an impossible size unless told otherwise.
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}

TEST(NamedMemory, reallocates_and_frees_by_the_told_rules) {
    void* memory = qel_named_realloc(nullptr, 100);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(qel_named_realloc(memory, 0), nullptr);
    qel_named_free(nullptr);
    // The product of count and size must not wrap.
    EXPECT_EQ(qel_named_calloc_(1ull << 33, 1ull << 33, "QEL_MEM_TEST", 0), nullptr);
    EXPECT_STREQ(qel_tag_e_get_string(QEL_MEM_PLC), "QEL_MEM_PLC");
    EXPECT_EQ(qel_tag_e_get_string(16), nullptr);
}
