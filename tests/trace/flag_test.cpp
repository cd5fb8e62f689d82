// Debug flags: which logged line reaches which tty.
#include "support/support.hpp"

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <thread>

#include <qel/dt.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Lines = std::vector<std::string>;

// While it lives, what is printed goes to 'lines', each with its tty's name in front.
struct Printed {
    Printed() { EXPECT_EQ(qel_dt_register_log_callback(keep, this), 0); }
    ~Printed() { EXPECT_EQ(qel_dt_deregister_log_callback(), 0); }

    static int keep(void* context, const char* tty, const char* format, va_list args) {
        char text[300];
        vsnprintf(text, sizeof text, format, args);
        auto* self = static_cast<Printed*>(context);
        self->lines.push_back(std::string{tty} + "|" + text);
        return self->result;
    }
    Lines take() { return std::exchange(lines, {}); }

    Lines lines;
    int result = 0;
};

int print(qel_dt_flag* flag, uint32_t type = 0, uint64_t value = 0) {
    uint32_t tp = QEL_DT_TP_UNREGISTERED;
    return _qel_dt_log_filter_adv(flag, nullptr, 0, 0, type, value, &tp, "%s-%d", "x", 7);
}

uint64_t text(const char* string) {
    return reinterpret_cast<uint64_t>(string);
}

// A root with a child, a grandchild below it, and an independent child; all know all types but where told.
struct FlagTest : testing::Test {
    FlagTest() {
        root = make("root", nullptr);
        child = make("child", root);
        grandchild = make("grandchild", child);
        independent = make("independent", root, QEL_DT_FLAG_INDEPENDENT);
    }
    ~FlagTest() override {
        EXPECT_EQ(qel_dt_flag_destroy(&root), 0);
        EXPECT_EQ(root, nullptr);
    }
    static qel_dt_flag* make(const char* name, qel_dt_flag* parent, uint32_t options = 0,
                             uint32_t types = 0x13) {
        qel_dt_flag* flag = nullptr;
        EXPECT_EQ(qel_dt_flag_init(&flag, name, parent, &types, options), 0);
        return flag;
    }

    Printed printed;
    qel_dt_flag* root;
    qel_dt_flag* child;
    qel_dt_flag* grandchild;
    qel_dt_flag* independent;
};

}  // namespace

TEST_F(FlagTest, refuses_what_is_no_flag_and_a_name_taken) {
    qel_dt_flag* made = root;
    alignas(8) char foreign[512] = {};
    auto* stranger = reinterpret_cast<qel_dt_flag*>(foreign);
    EXPECT_EQ(qel_dt_flag_init(nullptr, "a", nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(qel_dt_flag_init(&made, "", nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(qel_dt_flag_init(&made, "a", nullptr, nullptr, 2), EINVAL);
    EXPECT_EQ(qel_dt_flag_init(&made, "a", stranger, nullptr, 0), EINVAL);
    for (uint32_t types : {0x04u, 0x08u, 0x20u, 0x41u})
        EXPECT_EQ(qel_dt_flag_init(&made, "a", nullptr, &types, 0), EOPNOTSUPP);
    // 64 characters of a name count, not one more and not one less.
    std::string name(64, 'n');
    make(name.c_str(), root);
    EXPECT_EQ(qel_dt_flag_init(&made, (name + "tail").c_str(), root, nullptr, 0), EEXIST);
    make((name.substr(1) + "m").c_str(), root);
    EXPECT_EQ(made, root);

    qel_dt_flag* null = nullptr;
    EXPECT_EQ(qel_dt_flag_destroy(nullptr), EINVAL);
    for (qel_dt_flag* bad : {null, stranger}) {
        EXPECT_EQ(qel_dt_flag_destroy(&bad), EINVAL);
        EXPECT_EQ(qel_dt_flag_enable(bad, "t"), EINVAL);
        EXPECT_EQ(qel_dt_flag_disable(bad, "t"), EINVAL);
        EXPECT_EQ(qel_dt_flag_set_filter(bad, 1, 1, 1, "t"), EINVAL);
        EXPECT_EQ(qel_dt_flag_set_filter_or(bad, 1, 1, "t"), EINVAL);
        EXPECT_FALSE(qel_dt_flag_enabled(bad));
    }
    EXPECT_EQ(print(stranger), EINVAL);
}

TEST_F(FlagTest, changes_stop_at_independent_children_but_disabling_does_not) {
    EXPECT_EQ(qel_dt_flag_enable(independent, "t"), 0);
    EXPECT_EQ(qel_dt_flag_disable(independent, "t"), 0);
    EXPECT_EQ(qel_dt_flag_enable(root, "t"), 0);
    EXPECT_TRUE(qel_dt_flag_enabled(root) && qel_dt_flag_enabled(child) && qel_dt_flag_enabled(grandchild));
    EXPECT_FALSE(qel_dt_flag_enabled(independent));
    EXPECT_EQ(print(root), EINVAL);
    EXPECT_EQ(print(grandchild), 0);
    EXPECT_EQ(print(independent), 0);
    EXPECT_THAT(printed.take(), ElementsAre("t|x-7"));

    EXPECT_EQ(qel_dt_flag_enable(independent, "t"), 0);
    EXPECT_EQ(qel_dt_flag_disable(root, "t"), 0);
    for (qel_dt_flag* flag : {root, child, grandchild, independent}) EXPECT_FALSE(qel_dt_flag_enabled(flag));
}

TEST_F(FlagTest, one_tty_prints_all_and_another_what_its_filter_matches) {
    EXPECT_EQ(qel_dt_flag_enable(child, "all"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_UINT32, 5, "five"), 0);
    EXPECT_EQ(print(child, QEL_DT_FILTER_UINT32, 6), 0);
    EXPECT_EQ(print(child), 0);
    EXPECT_THAT(printed.take(), ElementsAre("all|x-7", "all|x-7"));
    // 32 bits count; the same number under another type is another filter.
    EXPECT_EQ(print(child, QEL_DT_FILTER_UINT32, 0x900000005), 0);
    EXPECT_EQ(print(child, QEL_DT_FILTER_UINT64, 5), 0);
    EXPECT_THAT(printed.take(), ElementsAre("all|x-7", "five|x-7", "all|x-7"));
    // The callback's failure ends the walk and is the result.
    printed.result = 71;
    EXPECT_EQ(print(child, QEL_DT_FILTER_UINT32, 5), 71);
    EXPECT_EQ(printed.take().size(), 1u);
}

TEST_F(FlagTest, filters_replace_add_up_and_go_one_by_one) {
    std::string long_text(128, 'a');
    auto passes = [&](uint32_t type, uint64_t value) {
        EXPECT_EQ(print(child, type, value), 0);
        return !printed.take().empty();
    };
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_UINT64, 1ull << 40, "t"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_STRING, text(long_text.c_str()), "t"), 0);
    EXPECT_FALSE(passes(QEL_DT_FILTER_UINT64, 1ull << 40));
    EXPECT_TRUE(passes(QEL_DT_FILTER_STRING, text((long_text + "beyond").c_str())));
    EXPECT_FALSE(passes(QEL_DT_FILTER_STRING, text(long_text.substr(1).c_str())));
    EXPECT_FALSE(passes(QEL_DT_FILTER_STRING, 0));

    for (int twice = 0; twice < 2; ++twice)
        EXPECT_EQ(qel_dt_flag_set_filter_or(child, QEL_DT_FILTER_UINT64, 1ull << 40, "t"), 0);
    EXPECT_TRUE(passes(QEL_DT_FILTER_UINT64, 1ull << 40));
    EXPECT_EQ(qel_dt_flag_set_filter(child, 0, QEL_DT_FILTER_UINT64, 1ull << 40, "t"), 0);
    EXPECT_FALSE(passes(QEL_DT_FILTER_UINT64, 1ull << 40));
    EXPECT_EQ(qel_dt_flag_set_filter(child, 0, QEL_DT_FILTER_STRING, text(long_text.c_str()), "t"), 0);
    EXPECT_FALSE(qel_dt_flag_enabled(child));

    // Output of everything stays so, whatever filters come and go; it replaces filters, too.
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_UINT32, 1, "t"), 0);
    EXPECT_EQ(qel_dt_flag_enable(child, "t"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_UINT32, 1, "t"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter_or(child, QEL_DT_FILTER_UINT32, 1, "t"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 0, QEL_DT_FILTER_UINT32, 1, "t"), 0);
    EXPECT_TRUE(passes(QEL_DT_FILTER_UINT32, 2));
}

TEST_F(FlagTest, a_type_that_a_flag_lacks_is_refused_and_skipped_below) {
    qel_dt_flag* numbers = make("numbers", child, 0, QEL_DT_FILTER_UINT32);
    EXPECT_EQ(qel_dt_flag_set_filter(numbers, 1, QEL_DT_FILTER_STRING, text("a"), "t"), EINVAL);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_STRING, 0, "t"), EINVAL);
    EXPECT_EQ(print(numbers, QEL_DT_FILTER_UINT64, 1), EINVAL);
    EXPECT_EQ(print(numbers, 0x41, 1), EINVAL);
    EXPECT_FALSE(qel_dt_flag_enabled(numbers) || qel_dt_flag_enabled(child));
    EXPECT_EQ(qel_dt_flag_set_filter_or(root, QEL_DT_FILTER_STRING, text("a"), "t"), 0);
    EXPECT_TRUE(qel_dt_flag_enabled(grandchild));
    EXPECT_FALSE(qel_dt_flag_enabled(numbers) || qel_dt_flag_enabled(independent));
}

TEST_F(FlagTest, no_name_means_the_first_tty_or_a_new_default_one) {
    EXPECT_EQ(qel_dt_flag_enable(child, nullptr), 0);
    EXPECT_EQ(qel_dt_flag_enable(child, "second"), 0);
    EXPECT_EQ(qel_dt_flag_disable(child, ""), 0);
    EXPECT_EQ(qel_dt_flag_enable(child, ""), 0);
    EXPECT_EQ(print(child), 0);
    EXPECT_THAT(printed.take(), ElementsAre("second|x-7"));
    EXPECT_EQ(qel_dt_flag_disable(child, nullptr), 0);
    EXPECT_EQ(qel_dt_flag_disable(child, "second"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter_or(child, QEL_DT_FILTER_UINT32, 1, ""), 0);
    EXPECT_EQ(print(child, QEL_DT_FILTER_UINT32, 1), 0);
    EXPECT_THAT(printed.take(), ElementsAre("|x-7"));
}

TEST_F(FlagTest, shows_its_state) {
    EXPECT_EQ(qel_dt_flag_enable(child, "a"), 0);
    EXPECT_EQ(qel_dt_flag_set_filter(child, 1, QEL_DT_FILTER_STRING, text("eth0"), "b"), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(qel_dt_flag_print_state(child), 0);
    fflush(stdout);
    std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_THAT(shown, testing::HasSubstr("  - Name: child, Magic: 0xabababab (good)"));
    EXPECT_THAT(shown, testing::HasSubstr("Child Count: 1, Options: 0x0, Supported Filters: 0x13\n"
                                          "  - Active TTY Count: 2\n"
                                          "    * TTY [1/2] Name: a, Requests: 1\n"
                                          "      ~ Req [1/1] Uncond: 1 Type: 0x0\n"
                                          "    * TTY [2/2] Name: b, Requests: 1\n"
                                          "      ~ Req [1/1] Uncond: 0 Type: 0x10 Value: eth0\n"));
    EXPECT_EQ(qel_dt_flag_print_state(nullptr), EINVAL);
}

TEST_F(FlagTest, a_callback_may_end_its_thread_but_not_come_back_in) {
    ASSERT_EQ(qel_dt_flag_enable(child, "t"), 0);
    auto meddle = [](void* context, const char*, const char*, va_list) {
        auto* flag = static_cast<qel_dt_flag*>(context);
        EXPECT_EQ(qel_dt_flag_disable(flag, nullptr), EDEADLK);
        EXPECT_EQ(print(flag), EDEADLK);
        pthread_exit(nullptr);
        return 0;
    };
    ASSERT_EQ(qel_dt_register_log_callback(meddle, child), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* flag) -> void* {
                      print(static_cast<qel_dt_flag*>(flag));
                      return flag;
                  },
                  child),
              0);
    void* value = child;
    pthread_join(thread, &value);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(qel_dt_register_log_callback(nullptr, nullptr), EINVAL);
    EXPECT_EQ(qel_dt_flag_disable(child, "t"), 0);
}

TEST_F(FlagTest, trees_of_any_depth_change_and_go_beside_loggers) {
    std::atomic<bool> stop{false};
    std::thread logger{[&] {
        while (!stop) EXPECT_EQ(print(grandchild, QEL_DT_FILTER_UINT32, 1), 0);
    }};
    for (int round = 0; round < 300; ++round) {
        EXPECT_EQ(qel_dt_flag_set_filter_or(child, QEL_DT_FILTER_UINT32, 1, "t"), 0);
        EXPECT_EQ(qel_dt_flag_enable(child, "u"), 0);
        EXPECT_EQ(qel_dt_flag_disable(child, nullptr), 0);
        EXPECT_EQ(qel_dt_flag_disable(child, nullptr), 0);
    }
    stop = true;
    logger.join();
    qel_dt_flag* deepest = grandchild;
    for (int level = 0; level < 50'000; ++level) deepest = make("level", deepest);
    EXPECT_EQ(qel_dt_flag_enable(root, "t"), 0);
    EXPECT_TRUE(qel_dt_flag_enabled(deepest));
}
