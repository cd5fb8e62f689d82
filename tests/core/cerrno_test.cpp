#include "support/support.hpp"

#include <cstring>
#include <thread>

#include <qel/cerrno.h>

using testing::StrEq;

namespace {

// Fatal, subsystem 77, which nobody publishes, code 5, EINVAL.
constexpr uint32_t kUnknown = 0xa0000000u | 77u << 15 | 5u << 9 | 22u;

}  // namespace

TEST(Cerrno, codes_without_a_code_of_their_own_read_as_the_system_text) {
    EXPECT_STREQ(cerr_strerror(0), strerror(0));
    EXPECT_STREQ(cerr_strerror(11), strerror(11));
    EXPECT_STREQ(cerr_strerror(511), "Unknown Error(511)");
    EXPECT_STREQ(cerr_strerror(0xa0000016u), strerror(22));
    EXPECT_STREQ(cerr_strerror(0xa0000000u | 77u << 15 | 2u), strerror(2));
    qel_cerrno_strings* texts = nullptr;
    ASSERT_EQ(cerr_getstrings(22, &texts), 0u);
    EXPECT_THAT(texts->err, StrEq(strerror(22)));
    EXPECT_EQ(texts->severity, nullptr);
    EXPECT_EQ(texts->subsystem, nullptr);
    EXPECT_EQ(texts->code, nullptr);
    char small[8] = "";
    EXPECT_STREQ(strerror_pd(22, small, sizeof small), "Unknown");
    EXPECT_EQ(strerror_pd(22, small, 0), small);
}

QEL_ROLE(decode_own) {
    qel_test::say(cerr_strerror(0xa0010216u));
    return 0;
}

TEST(Cerrno, cold_process_decodes_the_librarys_own_codes) {
    qel_test::Child child{"decode_own"};
    EXPECT_EQ(child.read_line(),
              std::string{"'QEL Cerrno Infra' detected the 'fatal' condition 'Invalid args': "} +
                  strerror(22));
    EXPECT_EQ(child.wait(), 0);
}

TEST(Cerrno, unknown_codes_keep_the_default_texts_with_their_numbers) {
    std::string start = "'Unknown Subsystem(77)' detected the 'fatal' condition 'Unknown Code(5)'";
    EXPECT_EQ(cerr_strerror(kUnknown), start + ": " + strerror(22));
    EXPECT_EQ(cerr_strerror(kUnknown & ~0x1ffu), start);
    qel_cerrno_strings* texts = nullptr;
    ASSERT_EQ(cerr_getstrings(0x60000000u | 77u << 15, &texts), 0u);
    EXPECT_STREQ(texts->severity, "unknown");
    // No subsystem: refused, and yet readable.
    texts = nullptr;
    EXPECT_EQ(cerr_getstrings(0xa0000000u | 63u << 9 | 2u, &texts), 0xa0010216u);
    ASSERT_NE(texts, nullptr);
    EXPECT_STREQ(texts->subsystem, "Unknown Subsystem(0)");
    EXPECT_STREQ(texts->code, "Unknown Code(63)");
    EXPECT_EQ(texts->decoded, 1u);
    ASSERT_EQ(cerr_getstrings(2, &texts), 0u);
    EXPECT_EQ(texts->decoded, 1u);
    EXPECT_EQ(cerr_getstrings(kUnknown, nullptr), 0xa0010216u);
}

TEST(Cerrno, validation_refuses_each_single_defect) {
    const qel_cerrno_code codes[] = {{1, "one"}, {2, "two"}};
    const qel_cerrno_code gap[] = {{1, "one"}, {2, ""}};
    const qel_cerrno_code null_text[] = {{1, nullptr}, {2, "two"}};
    const qel_cerrno_info sound[] = {{"name", 8191, 2, codes, 0, 1}, {"n", 0, 1, gap, 1, 0}};
    const qel_cerrno_info defects[] = {{"name", 8192, 2, codes, 1, 0},  {"", 100, 2, codes, 1, 0},
                                       {nullptr, 100, 2, codes, 1, 0},  {"name", 100, 0, codes, 1, 0},
                                       {"name", 100, 2, nullptr, 1, 0}, {"name", 100, 2, codes, 0, 0},
                                       {"name", 100, 2, gap, 1, 0},     {"name", 100, 2, null_text, 1, 0}};
    for (const qel_cerrno_info& info : sound) EXPECT_EQ(qel_cerrno_validate_info(&info), 0u);
    for (const qel_cerrno_info& info : defects)
        EXPECT_EQ(qel_cerrno_validate_info(&info), 0xa0010216u) << &info - defects;
    EXPECT_EQ(qel_cerrno_validate_info(nullptr), 0xa0010216u);
}

TEST(Cerrno, each_thread_decodes_into_its_own_texts) {
    const char* mine = cerr_strerror(kUnknown);
    const std::string before = mine;
    std::vector<std::thread> threads;
    for (uint32_t i = 1; i <= 4; ++i)
        threads.emplace_back([i, mine] {
            for (uint32_t round = 0; round < 200; ++round) {
                uint32_t number = 1000 * i + round;
                const char* text = cerr_strerror(0xa0000000u | number << 15 | i << 9);
                EXPECT_NE(text, mine);
                EXPECT_NE(strstr(text, ("(" + std::to_string(number) + ")").c_str()), nullptr) << text;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mine, before);
}
