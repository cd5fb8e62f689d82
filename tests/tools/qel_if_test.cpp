// "qel if": the links of a network namespace of the test's own.
#include "support/links.hpp"
#include "tools/tool_support.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

namespace qel_test {
namespace {

using testing::HasSubstr;

struct QelIf : testing::Test {
    void SetUp() override {
        if (getenv("QEL_TOOL") == nullptr) GTEST_SKIP() << "QEL_TOOL doesn't name the tool";
        if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
        links = std::make_unique<Links>();
    }
    void TearDown() override { EXPECT_THAT(shm_objects(), testing::Each(testing::Not(HasSubstr("qel-if")))); }
    std::unique_ptr<Links> links;
};

TEST_F(QelIf, lists_and_shows_what_the_kernel_has) {
    ASSERT_TRUE(links->add("eth7") && links->set_up("eth7", true));
    const Result list = qel("if list");
    EXPECT_EQ(list.code, kFine);
    EXPECT_THAT(list.output,
                testing::ContainsRegex("1 +lo +loopback +down +admin down +65536 +- +null +-\n"));
    EXPECT_THAT(list.output,
                testing::ContainsRegex("eth7 +ethernet +up +admin up +1500 +10000 +ether +[0-9a-f:]+\n"));
    EXPECT_EQ(json("if list", "[i[\"name\"] for i in d[\"interfaces\"]]"), "['lo', 'eth7']\n");
    EXPECT_EQ(json("if show eth7", "d[\"speed\"], d[\"duplex\"], d[\"base_if\"] == d[\"ifh\"]"),
              "10000 full_duplex True\n");
    EXPECT_EQ(json("if show lo", "d[\"speed\"]"), "None\n");
    EXPECT_THAT(qel("if show lo").output, testing::ContainsRegex("mtu +65536\n"));
    const Result none = qel("if show nosuch");
    EXPECT_EQ(none.code, kUnreadable);
    EXPECT_THAT(none.output, HasSubstr("interface \"nosuch\": No such device"));
    EXPECT_EQ(shell(std::string{getenv("QEL_TOOL")} + " complete if show e").output, "eth7\n");
}

TEST_F(QelIf, watches_links_come_and_go) {
    FILE* tool_output = popen((tool() + "if watch --count 4 --json").c_str(), "r");
    ASSERT_NE(tool_output, nullptr);
    // The tool listens at some time after its start: links come and go until it has heard enough.
    std::string heard;
    std::atomic<int> lines = 0;
    std::thread reader([&] {
        char part[256];
        for (; std::fgets(part, sizeof(part), tool_output) != nullptr; ++lines) heard += part;
    });
    std::atomic<bool> stop = false;
    std::thread churn([&] {
        while (!stop && links->add("come")) {
            const int before = lines;  // a link that has gone can't be asked for its name
            eventually([&] { return stop || lines != before; }, 200ms);
            links->remove("come");
        }
    });
    reader.join();
    stop = true;
    churn.join();
    EXPECT_EQ(pclose(tool_output), 0);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), '\n'), 4);
    EXPECT_THAT(heard, HasSubstr("\"event\":\"created\""));
    EXPECT_THAT(heard, HasSubstr("\"event\":\"deleted\""));
    EXPECT_THAT(heard, HasSubstr("\"name\":\"come\""));
}

}  // namespace
}  // namespace qel_test
