// "qel err": codes of nobody, of the library, and of a process that has published its table and died.
#include "tools/tool_support.hpp"

#include <qel/cerrno.h>

namespace qel_test {
namespace {

using testing::HasSubstr;

constexpr std::uint32_t kSubsystem = 3000;

QEL_ROLE(publisher) {
    static constexpr qel_cerrno_code kCodes[] = {{5, "line card is missing"}};
    static constexpr qel_cerrno_info kInfo{"Line Cards", kSubsystem, 1, kCodes, 1, 0};
    static qel_cerrno_node node{QEL_CERRNO_NODE_MAGIC, nullptr, &kInfo};
    __register_cerrno(&node);
    say(qel_cerrno_init() == 0 ? "published" : "failed");
    return 0;
}

TEST(QelErr, decodes_codes_of_processes_that_are_gone) {
    if (getenv("QEL_TOOL") == nullptr) GTEST_SKIP() << "QEL_TOOL doesn't name the tool";
    std::string code = std::to_string(QEL_CERRNO_FATAL | kSubsystem << 15 | 5 << 9 | ENODEV);
    EXPECT_THAT(qel("err " + code).output, HasSubstr("Unknown Subsystem(3000)"));
    EXPECT_EQ(Child{"publisher"}.read_line(), "published");
    Result told = qel("err -- 0xa0000016 -1610612724 " + code);
    EXPECT_EQ(told.code, kFine);
    EXPECT_THAT(told.output, HasSubstr("0xa0000016: fatal, errno 22: Invalid argument\n"));
    EXPECT_THAT(told.output, HasSubstr("0xa000000c: fatal, errno 12: Cannot allocate memory\n"));
    EXPECT_THAT(told.output, HasSubstr("'Line Cards' detected the 'fatal' condition 'line card is missing'"));
    EXPECT_EQ(json("err 0x8000000b", "d[\"severity\"], d[\"errno\"]"), "try again 11\n");
    for (const char* wrong : {"err", "err 12x", "err 0x100000000"})
        EXPECT_EQ(qel(wrong).code, kUsage) << wrong;
}

}  // namespace
}  // namespace qel_test
