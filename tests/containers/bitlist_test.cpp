// Bit lists against a model, and their text written in pieces of every size and read back.
#include "support/support.hpp"

#include <qel/bitlist.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr cerrno kRefused = 0xa0000016;
constexpr uint32_t kNone = QEL_BITLIST_NONE;

struct FreeList {
    void operator()(qel_bitlist* list) const { qel_bitlist_free(list); }
};
using List = std::unique_ptr<qel_bitlist, FreeList>;

List make_list(uint32_t size, uint32_t base, const char* text = "") {
    List list{qel_bitlist_alloc(size, base, 0)};
    EXPECT_NE(list, nullptr);
    EXPECT_EQ(qel_bitlist_from_string(list.get(), text), 0u);
    return list;
}
uint32_t* words_of(const List& list) {
    return reinterpret_cast<uint32_t*>(list.get() + 1);
}
std::string text_of(const List& list) {
    std::string text(100, '\0');
    EXPECT_EQ(qel_bitlist_to_string(list.get(), 100, list->base, text.data()), 0u);
    return text.c_str();
}

struct Range {
    uint32_t size, base;
};
class Model : public testing::TestWithParam<Range> {
  protected:
    // The lowest set value at or behind 'offset'.
    uint32_t next(const std::vector<bool>& bits, size_t offset) const {
        while (offset < bits.size() && !bits[offset]) ++offset;
        return offset < bits.size() ? base_ + static_cast<uint32_t>(offset) : kNone;
    }
    // The text of the values from 'offset' on.
    std::string text(const std::vector<bool>& bits, size_t offset) const {
        std::string text;
        for (; offset < bits.size(); ++offset) {
            if (!bits[offset]) continue;
            if (!text.empty()) text += ',';
            text += std::to_string(base_ + offset);
            const size_t low = offset;
            while (offset + 1 < bits.size() && bits[offset + 1]) ++offset;
            if (offset != low) text += '-' + std::to_string(base_ + offset);
        }
        return text;
    }
    void change(const List& list, std::vector<bool>& bits) {
        const auto offset = static_cast<uint32_t>(random_() % size_);
        if (random_() % 4000 == 0) {
            EXPECT_EQ((bits[offset] ? qel_bitlist_setall : qel_bitlist_clearall)(list.get()), 0u);
            bits.assign(size_, bits[offset]);
        }
        bits[offset] = random_() % 2 != 0;
        ASSERT_EQ((bits[offset] ? qel_bitlist_set : qel_bitlist_clear)(list.get(), base_ + offset), 0u);
        ASSERT_EQ(qel_bitlist_get(list.get(), base_ + offset), bits[offset]);
    }
    void search(const List& list, const std::vector<bool>& bits) {
        const auto offset = static_cast<uint32_t>(random_() % size_);
        ASSERT_EQ(qel_bitlist_find_first(list.get()), next(bits, 0));
        const uint32_t found = qel_bitlist_find_after(list.get(), base_ + offset);
        ASSERT_EQ(found, next(bits, offset + 1));
        const size_t behind = found == kNone ? bits.size() : found - base_ + 1;
        ASSERT_EQ(qel_bitlist_find_bit(list.get(), false), next(bits, behind));
        ASSERT_EQ(qel_bitlist_count(list.get()), std::ranges::count(bits, true));
        ASSERT_EQ(qel_bitlist_anybit_set(list.get()), std::ranges::count(bits, true) != 0);
    }
    void combine(std::vector<List>& lists, std::vector<bool> (&bits)[3]) {
        const auto kind = random_() % 4;
        const auto a = random_() % 3, b = random_() % 3, result = random_() % 3;
        constexpr decltype(&qel_bitlist_and) operations[] = {qel_bitlist_and, qel_bitlist_or,
                                                             qel_bitlist_xor};
        for (size_t i = 0; i < size_; ++i) {
            const bool left = bits[a][i], right = bits[b][i];
            bits[result][i] = kind == 0   ? left && right
                              : kind == 1 ? left || right
                              : kind == 2 ? left != right
                                          : !left;
        }
        if (kind < 3) {
            ASSERT_EQ(operations[kind](lists[a].get(), lists[b].get(), lists[result].get()), 0u);
        } else {
            ASSERT_EQ(qel_bitlist_not(lists[a].get(), lists[result].get()), 0u);
            if (size_ % 32 != 0) words_of(lists[result])[size_ / 32] &= ~(~0u << size_ % 32);
        }
        ASSERT_EQ(qel_bitlist_equal(lists[0].get(), lists[1].get()), bits[0] == bits[1]);
        ASSERT_EQ(qel_bitlist_copy(lists[a].get(), lists[b].get()), 0u);
        bits[b] = bits[a];
        ASSERT_EQ(qel_bitlist_equal(lists[a].get(), lists[b].get()), 1);
    }

    const uint32_t size_ = GetParam().size, base_ = GetParam().base;
    std::mt19937 random_{size_};
};
INSTANTIATE_TEST_SUITE_P(BitList, Model,
                         testing::Values(Range{1, 0}, Range{33, 100}, Range{64, 0},
                                         Range{257, 0xfffffffe - 256}, Range{1000, 100}, Range{4094, 1}),
                         [](const auto& range) { return "bits" + std::to_string(range.param.size); });

TEST_P(Model, random_changes_searches_and_algebra_equal_the_model) {
    std::vector<List> lists;
    for (int i = 0; i < 3; ++i) lists.push_back(make_list(size_, base_));
    std::vector<bool> bits[3];
    for (auto& set : bits) set.assign(size_, false);
    for (int round = 0; round < 170'000; ++round) {
        const auto which = random_() % 3;
        change(lists[which], bits[which]);
        if (round % 50 == 0) search(lists[which], bits[which]);
        if (round % 400 == 0) combine(lists, bits);
        if (HasFatalFailure()) FAIL() << "round " << round;
    }
}

TEST_P(Model, text_in_pieces_of_any_size_reads_back_as_the_set) {
    for (uint32_t size = 1; size <= 64; ++size) {
        const List list = make_list(size_, base_), copy = make_list(size_, base_);
        std::vector<bool> bits(size_);
        const uint32_t rare = 1 + random_() % 8;
        for (uint32_t i = 0; i < size_; ++i)
            if ((bits[i] = random_() / 7 % 8 < rare)) qel_bitlist_set(list.get(), base_ + i);
        const uint32_t room = std::max(size, 2u) - 1;
        const std::unique_ptr<char[]> buffer{new char[room + 1]};  // exact, for the address sanitizer
        uint32_t start = qel_bitlist_find_first(list.get());
        while (start != kNone) {
            ASSERT_EQ(qel_bitlist_to_string(list.get(), size, start, buffer.get()), 0u);
            const std::string piece = buffer.get(), whole = text(bits, start - base_);
            ASSERT_EQ(whole.substr(0, piece.size()), piece);
            const size_t end = std::min(whole.find_first_of(",-", piece.size() + 1), whole.size());
            ASSERT_TRUE(piece == whole || end > room) << piece << " of " << whole;
            ASSERT_EQ(qel_bitlist_from_string(copy.get(), piece.c_str()), 0u);
            const uint32_t before = std::exchange(start, qel_bitlist_find_bit(list.get(), false));
            ASSERT_EQ(before == start, piece.empty());
            if (piece.empty()) break;
        }
        ASSERT_TRUE(start != kNone || qel_bitlist_equal(list.get(), copy.get()));
    }
}

TEST(BitList, text_that_is_refused_sets_what_stood_before) {
    struct Case {
        const char *text, *left;
    };
    for (const auto& [text, left] : {Case{"101,", "101"},
                                     {"101-", ""},
                                     {"101-101", ""},
                                     {"103-102", ""},
                                     {"100,,104", "100"},
                                     {"100-102, 104", "100-102"},
                                     {"109,110", "109"},
                                     {"108-110", ""},
                                     {"99", ""},
                                     {"-101", ""},
                                     {",", ""},
                                     {"104,4294967397", "104"},
                                     {"104,+105", "104"},
                                     {"101-102-103", "101-102"}}) {
        const List list = make_list(10, 100), expected = make_list(10, 100, left);
        EXPECT_EQ(qel_bitlist_from_string(list.get(), text), kRefused) << text;
        EXPECT_EQ(qel_bitlist_equal(list.get(), expected.get()), 1) << text;
    }
    EXPECT_EQ(text_of(make_list(10, 100, "109,103-104,0101,104-105")), "101,103-105,109");
}

TEST(BitList, text_begins_where_it_is_told) {
    const List list = make_list(10, 100, "101,103-105");
    char text[16] = "x";
    auto written = [&](uint32_t start) {
        return qel_bitlist_to_string(list.get(), sizeof text, start, text);
    };
    EXPECT_EQ(written(104), 0u);
    EXPECT_STREQ(text, "104-105");
    for (const auto& [start, result] :
         {std::pair{99u, kRefused}, {111u, kRefused}, {106u, kRefused}, {110u, kNone}}) {
        text[0] = 'x';
        EXPECT_EQ(written(start), result) << start;
        EXPECT_STREQ(text, "") << start;
    }
    EXPECT_EQ(qel_bitlist_to_string(list.get(), 0, 100, text), kRefused);
    EXPECT_EQ(qel_bitlist_to_string(list.get(), 16, 100, nullptr), kRefused);
    EXPECT_EQ(qel_bitlist_to_string(nullptr, 16, 100, text), kRefused);

    const auto printed = [](const char* set) {
        testing::internal::CaptureStdout();
        qel_bitlist_dump(make_list(300, 16, set).get());
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(printed("16-17,31-32,300"), "0x11,0x1f-0x20,0x12c");
    EXPECT_EQ(printed("16"), "");
}

TEST(BitList, bits_past_the_size_are_counted_and_never_found) {
    const List list = make_list(33, 0, "3");
    ASSERT_EQ(qel_bitlist_not(list.get(), list.get()), 0u);
    EXPECT_EQ(qel_bitlist_count(list.get()), 63u);
    EXPECT_EQ(text_of(list), "0-2,4-32");
    EXPECT_EQ(qel_bitlist_find_after(list.get(), 32), kNone);
    EXPECT_EQ(list->cursor_word, list->words);
    EXPECT_EQ(qel_bitlist_find_bit(list.get(), false), kNone);
    ASSERT_EQ(qel_bitlist_setall(list.get()), 0u);
    EXPECT_EQ(words_of(list)[1], 1u);
}

TEST(BitList, lists_lie_in_the_callers_memory_and_take_over_headers) {
    uint32_t memory[QEL_BITLIST_WORDS(33) + 1] = {};
    memory[QEL_BITLIST_WORDS(33)] = 0xabcd;
    auto* list = reinterpret_cast<qel_bitlist*>(memory);
    EXPECT_EQ(qel_bitlist_setall_d(list, 33, 7), 0u);
    EXPECT_THAT(memory, testing::ElementsAre(2, 33, 7, 0, 0, 0xffffffff, 1, 0xabcd));
    EXPECT_EQ(qel_bitlist_init(list, 33, 9), 0u);
    EXPECT_EQ(memory[6], 1u);
    EXPECT_EQ(qel_bitlist_find_after(list, 0), 10u);

    qel_bitlist* clone = nullptr;
    ASSERT_EQ(qel_bitlist_clone(list, 1, &clone), 0u);
    const List owned{clone}, other = make_list(33, 0), result = make_list(33, 5);
    EXPECT_EQ(qel_bitlist_equal(list, clone), 1);
    EXPECT_EQ(clone->cursor_bit, 0u);
    ASSERT_EQ(qel_bitlist_or(other.get(), list, other.get()), 0u);
    EXPECT_EQ(other->base, 0u);
    EXPECT_EQ(qel_bitlist_equal(list, other.get()), 0) << "base differs";
    ASSERT_EQ(qel_bitlist_and(list, clone, result.get()), 0u);
    EXPECT_THAT((std::vector{result->base, result->cursor_bit}), testing::ElementsAre(9, 1));
    EXPECT_EQ(qel_bitlist_clearall_d(list, 33, 7), 0u);
    EXPECT_EQ(qel_bitlist_anybit_set(list), 0);
    EXPECT_EQ(memory[7], 0xabcdu);
}

TEST(BitList, sizes_at_the_edge_and_bad_arguments_are_refused) {
    EXPECT_EQ(qel_bitlist_alloc(0, 5, 0), nullptr);
    EXPECT_EQ(qel_bitlist_alloc(2, 0xfffffffe, 0), nullptr);
    EXPECT_EQ(qel_bitlist_alloc(0xffffffff, 1, 0), nullptr);
    const List list = make_list(10, 100), other = make_list(11, 100),
               edge = make_list(1, 0xfffffffe, "4294967294");
    EXPECT_EQ(text_of(edge), "4294967294");
    qel_bitlist largest;
    EXPECT_EQ(qel_bitlist_init(&largest, 0xffffffff, 0), 0u);
    EXPECT_EQ(largest.words, 0x8000000u);

    for (uint32_t value : {99u, 110u, 0u, kNone}) {
        EXPECT_EQ(qel_bitlist_set(list.get(), value), kRefused);
        EXPECT_EQ(qel_bitlist_clear(list.get(), value), kRefused);
        EXPECT_EQ(qel_bitlist_get(list.get(), value), 0);
    }
    EXPECT_EQ(qel_bitlist_find_after(list.get(), 110), kNone);
    EXPECT_EQ(qel_bitlist_valid(list.get(), 9), 1);
    EXPECT_EQ(qel_bitlist_valid(list.get(), 10), 0);
    EXPECT_EQ(qel_bitlist_copy(list.get(), other.get()), kRefused);
    EXPECT_EQ(qel_bitlist_xor(list.get(), list.get(), other.get()), kRefused);
    EXPECT_EQ(qel_bitlist_xor(list.get(), other.get(), list.get()), kRefused);
    EXPECT_EQ(qel_bitlist_not(list.get(), other.get()), kRefused);
    EXPECT_EQ(qel_bitlist_not(nullptr, list.get()), kRefused);
    EXPECT_EQ(qel_bitlist_setall_d(list.get(), 0, 0), kRefused);
    EXPECT_EQ(qel_bitlist_init(nullptr, 1, 0), kRefused);
    EXPECT_EQ(qel_bitlist_clone(list.get(), 0, nullptr), kRefused);
    EXPECT_EQ(qel_bitlist_from_string(list.get(), nullptr), kRefused);
    EXPECT_EQ(qel_bitlist_equal(nullptr, nullptr), 0);
    EXPECT_EQ(qel_bitlist_count(nullptr), kNone);
    EXPECT_EQ(qel_bitlist_size(nullptr), kNone);
    EXPECT_EQ(qel_bitlist_find_first(nullptr), kNone);
    qel_bitlist_dump(nullptr);
}

}  // namespace
