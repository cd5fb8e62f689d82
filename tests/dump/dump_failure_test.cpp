// Allocations that fail in the middle of a dump.
#include "dump/dump_support.hpp"
#include "support/failing.hpp"

using namespace qel_test;

namespace {

// Runs at an allocation of the merged dump, between its looks at the buffers.
std::function<void()> meanwhile;
int allocations_until;

bool interfere() {
    if (allocations_until-- == 0) std::exchange(meanwhile, nullptr)();
    return true;
}

}  // namespace

TEST(DumpFailure, each_failing_allocation_gives_nothing_and_leaves_nothing_behind) {
    Buffer left{"low.left"}, right{"low.right"};
    log_once(left, "%d", 1);
    log_once(right, "%d", 2);
    const char* names[] = {"low.left", "low.right"};
    const int mappings = mapping_count("low.");
    auto init = [&] {
        Texts texts;
        qel_dt_mst_handle merged = nullptr;
        const int result = qel_dt_buffer_mst_init(names, 2, nullptr, collect, &texts, &merged);
        EXPECT_EQ(result, allocation_failed ? 12 : 0);
        EXPECT_EQ(texts.size(), allocation_failed ? 0u : 2u);
        EXPECT_EQ(qel_dt_buffer_mst_destroy(merged), allocation_failed ? 22 : 0);
        EXPECT_EQ(mapping_count("low."), mappings);
    };
    EXPECT_GE(fail_each_allocation(init), 5);
}

TEST(DumpFailure, a_merged_dump_without_memory_gives_the_rest_next_time) {
    Buffer buffer{"low.next"};
    Merged merged{{"low.next"}};
    log_once(buffer, "%s", "first");
    EXPECT_EQ(fail_each_allocation([&] {
                  const int result = merged.read();
                  EXPECT_EQ(result, allocation_failed ? 12 : 0);
              }),
              1);
    EXPECT_THAT(merged.take(), testing::ElementsAre("low.next: first"));
}

// The second buffer is copied after its cursor was read: what writers do to it in between is told.
TEST(DumpFailure, what_is_overwritten_while_another_buffer_is_copied_is_told) {
    int moments = 0;
    for (bool reached = true; reached; ++moments) {
        Buffer first{"meanwhile.first"}, second{"meanwhile.second"};
        Merged merged{{"meanwhile.first", "meanwhile.second"}};
        uint32_t site = kUnregistered;
        int number = 0;
        auto write = [&](int count) {
            while (count-- > 0) log_at(site, second, "%d", number++);
        };
        write(100);
        EXPECT_EQ(qel_dt_buffer_resize(first, 0, 256 * 64), 0);  // its copy is made anew
        meanwhile = [&] { write(60); };
        allocations_until = moments;
        qel::allocation_hook.store(interfere);
        Texts given = merged.next();
        qel::allocation_hook.store(nullptr);
        reached = meanwhile == nullptr;
        write(1);
        for (const std::string& text : merged.next()) given.push_back(text);
        int expected = 0;
        bool told = false;
        for (const std::string& text : given) {
            if (text.starts_with("meanwhile.second: ")) {
                const int found = std::stoi(text.substr(18));
                EXPECT_TRUE(found == expected || told) << found << " after " << expected - 1;
                expected = found + 1;
            }
            told = text.starts_with("..");
        }
        EXPECT_EQ(expected, number);
    }
    EXPECT_GE(moments, 3);
}
