// The log call's two sinks, and the default printer.
#include "support/support.hpp"

#include <syslog.h>

#include <cstdarg>

#include <qel/dt.h>

namespace {

struct SystemLogLine {
    int priority;
    std::string format;
    std::string text;
};
std::vector<SystemLogLine> system_log;

}  // namespace

// In the place of the system's: keeps the line.
extern "C" void vsyslog(int priority, const char* format, va_list args) {
    char text[1000];
    vsnprintf(text, sizeof text, format, args);
    system_log.push_back({priority, format, text});
}

namespace {

struct LogTest : testing::Test {
    LogTest() {
        EXPECT_EQ(qel_dt_buffer_init(&buffer, "log.test", 0, 65536), 0);
        EXPECT_EQ(qel_dt_flag_init(&root, "root", nullptr, nullptr, 0), 0);
        EXPECT_EQ(qel_dt_flag_init(&flag, "flag", root, nullptr, 0), 0);
        system_log.clear();
    }
    ~LogTest() override {
        EXPECT_EQ(qel_dt_flag_destroy(&root), 0);
        EXPECT_EQ(qel_dt_buffer_destroy(&buffer), 0);
    }
    template <class... Values>
    int log(uint32_t* point, const char* format, Values... values) {
        return _qel_dt_log_filter_adv(flag, buffer, 0, 0, 0, 0, point, format, values...);
    }
    uint64_t entries() const {
        qel_dt_buffer_attr attr;
        EXPECT_EQ(qel_dt_buffer_get_attr(buffer, &attr), 0);
        return attr.count;
    }

    uint32_t tp = QEL_DT_TP_UNREGISTERED;
    qel_dt_buffer_handle buffer = nullptr;
    qel_dt_flag* root = nullptr;
    qel_dt_flag* flag = nullptr;
};

}  // namespace

TEST_F(LogTest, feeds_the_buffer_then_the_flag) {
    EXPECT_EQ(_qel_dt_log_filter_adv(nullptr, nullptr, 0, 0, 0, 0, nullptr, nullptr), 0);
    EXPECT_EQ(qel_dt_flag_enable(flag, "t"), 0);
    EXPECT_EQ(log(&tp, "%s of %d", "one", 2), 0);
    EXPECT_EQ(entries(), 1u);
    ASSERT_EQ(system_log.size(), 1u);
    EXPECT_THAT(system_log[0].text, testing::EndsWith("] one of 2\n"));
    // Without a format or trace point word the buffer can't take it.
    EXPECT_EQ(log(nullptr, "a"), EINVAL);
    EXPECT_EQ(log(&tp, nullptr), EINVAL);
    EXPECT_EQ(_qel_dt_log_filter_adv(flag, nullptr, 0, 0, 0, 0, nullptr, nullptr), EINVAL);
}

TEST_F(LogTest, an_unusable_format_fails_once_by_its_fault_and_then_silently) {
    EXPECT_EQ(qel_dt_flag_enable(flag, "t"), 0);
    const char* seventeen = "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d";
    EXPECT_EQ(log(&tp, seventeen, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17), E2BIG);
    EXPECT_EQ(tp, QEL_DT_TP_UNUSABLE);
    EXPECT_EQ(log(&tp, seventeen, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17), EINVAL);
    EXPECT_EQ(entries(), 0u);
    EXPECT_TRUE(system_log.empty());
}

TEST_F(LogTest, a_level_stops_only_what_has_no_flag) {
    auto log_at = [this](qel_dt_flag* to, uint32_t level) {
        return _qel_dt_log_filter_adv2(to, buffer, 0, 0, 0, 0, &tp, level, "level %u", level);
    };
    ASSERT_EQ(qel_dt_buffer_set_level(buffer, 6), 0);
    EXPECT_TRUE(qel_dt_trace_enabled(buffer, 6));
    EXPECT_FALSE(qel_dt_trace_enabled(buffer, 7) || qel_dt_trace_enabled(nullptr, 0));
    EXPECT_EQ(log_at(nullptr, 7), 0);
    EXPECT_EQ(entries(), 0u);
    EXPECT_EQ(log_at(nullptr, 6), 0);
    EXPECT_EQ(log_at(flag, 7), 0);
    EXPECT_EQ(entries(), 2u);
}

TEST_F(LogTest, the_system_log_gets_a_dated_line_of_160_characters_at_most) {
    ASSERT_EQ(qel_dt_flag_enable(flag, nullptr), 0);
    buffer = nullptr;  // the flag alone
    std::string fill(200, '.');
    EXPECT_EQ(log(nullptr, (fill + "%s").c_str(), "never"), 0);
    ASSERT_EQ(system_log.size(), 1u);
    EXPECT_EQ(system_log[0].priority, LOG_DEBUG);
    EXPECT_EQ(system_log[0].text.size(), 160u);
    EXPECT_THAT(system_log[0].text,
                testing::ContainsRegex("^\\[... ... [0-9]+ [0-9:]+\\.[0-9]+ [^]]*\\] \\.+\n$"));
    // The cut takes a conversion as a whole or not at all, wherever it falls.
    const std::size_t room = 160 - system_log[0].text.find("..") - 1;
    for (std::size_t before = room - 8; before <= room; ++before) {
        system_log.clear();
        EXPECT_EQ(log(nullptr, (fill.substr(0, before) + "%-5.3lld+").c_str(), 42ll), 0);
        const bool fits = before + 8 <= room;
        EXPECT_THAT(system_log[0].text, testing::EndsWith(fits ? ".042  \n" : "..\n"));
        EXPECT_LE(system_log[0].format.size(), 160u);
    }
    ASSERT_EQ(qel_dt_buffer_open(&buffer, "log.test"), 0);
}
