#include "support/support.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <qel/ppm.h>

namespace {

namespace fs = std::filesystem;
using namespace qel_test;
const fs::path kFile = "/tmp/qeltest-ppm.conf";
const fs::path kSaved = "/tmp/qeltest-ppm.conf.saved";

// Has the machine's start-up file to itself and puts it back as it was.
class BorrowedFile {
  public:
    BorrowedFile() : guard_(open(kFile.parent_path().c_str(), O_DIRECTORY | O_CLOEXEC)) {
        flock(guard_, LOCK_EX);
        std::error_code none;
        fs::rename(kFile, kSaved, none);
    }
    ~BorrowedFile() {
        fs::remove(kFile);
        std::error_code none;
        fs::rename(kSaved, kFile, none);
        close(guard_);
    }
    void write(const std::string& text) { std::ofstream(kFile) << text; }

  private:
    int guard_;
};

// "5" for an integer, "'x'" for a string, "-" for neither.
std::string held(const char* key) {
    uint32_t number = 0;
    const char* text = nullptr;
    if (qel_ppm_get_string(key, nullptr, &text) != 0) return "refused";
    if (text != nullptr) return "'" + std::string{text} + "'";
    uint32_t other = 0;
    qel_ppm_get_integer(key, 1, &number);
    qel_ppm_get_integer(key, 2, &other);
    return number == other ? std::to_string(number) : "-";
}

// Tells what each key given holds in a process of its own.
QEL_ROLE(tell) {
    for (const std::string& key : args) say(held(key.c_str()));
    return 0;
}

std::string told_by_child(const char* section, const RoleArgs& keys) {
    section != nullptr ? setenv("QELTEST_PROC", section, 1) : unsetenv("QELTEST_PROC");
    Child child{"tell", keys};
    std::string told;
    for (std::size_t i = 0; i < keys.size(); ++i) told += child.read_line() + " ";
    EXPECT_EQ(child.wait(), 0);
    unsetenv("QELTEST_PROC");
    return told;
}

}  // namespace

TEST(Ppm, startup_file_lines_become_integers_strings_or_nothing) {
    BorrowedFile file;
    std::string long_key(70, 'k');
    // Line 8 is read in two pieces, and the second is a line of its own; the last line has no end.
    file.write(
        "ppmt.hex = 0x10\r\n\t ppmt.oct=010\nppmt.text = 12a b \t\nppmt.empty =\nppmt.none\n# ppmt.c = 1\n"
        "9ppmt = 1\nppmt.cut = " +
        std::string(127 - 11, 'v') + "ppmt.piece = 7\n" + long_key +
        " = 5\nppmt.two = 1\nppmt.two = a=b\nppmt.big = -1\nppmt.last = 3");
    EXPECT_EQ(told_by_child(nullptr, {"ppmt.hex", "ppmt.oct", "ppmt.text", "ppmt.empty", "ppmt.none",
                                      "ppmt.c", "9ppmt", "ppmt.cut", "ppmt.piece", long_key, "ppmt.two",
                                      "ppmt.big", "ppmt.last"}),
              "16 8 '12a b' 0 - - - '" + std::string(31, 'v') + "' 7 5 'a=b' 4294967295 3 ");
}

TEST(Ppm, startup_file_sections_choose_by_process) {
    BorrowedFile file;
    file.write(
        "ppmt.a = 1\n[ppmt.one ]\nppmt.b = 1\n[ ppmt.two] tail\nppmt.c = 1\n[]\nppmt.d = 1\n[ppmt.one\n"
        "ppmt.e = 1\n");
    const RoleArgs keys{"ppmt.a", "ppmt.b", "ppmt.c", "ppmt.d", "ppmt.e"};
    EXPECT_EQ(told_by_child(nullptr, keys), "1 - - 1 - ");
    EXPECT_EQ(told_by_child("ppmt.one", keys), "1 1 - 1 1 ");
    EXPECT_EQ(told_by_child("ppmt.two", keys), "1 - 1 1 - ");
}

TEST(Ppm, startup_file_that_is_a_pipe_is_no_file) {
    BorrowedFile file;
    ASSERT_EQ(mkfifo(kFile.c_str(), 0666), 0);
    EXPECT_EQ(told_by_child(nullptr, {"ppmt.a"}), "- ");
}

TEST(Ppm, key_holds_one_value_of_one_kind) {
    EXPECT_EQ(held("kind"), "-");
    EXPECT_EQ(qel_ppm_set_integer("kind", 0xffffffffu), 0);
    EXPECT_EQ(held("kind"), "4294967295");
    EXPECT_EQ(qel_ppm_set_string("kind", ""), 0);
    EXPECT_EQ(held("kind"), "''");
    EXPECT_EQ(qel_ppm_set_integer("kind", 0), 0);
    EXPECT_EQ(held("kind"), "0");
    qel_ppm_remove("kind");
    qel_ppm_remove("kind");
    qel_ppm_remove(nullptr);
    EXPECT_EQ(held("kind"), "-");
    uint32_t number = 7;
    EXPECT_EQ(qel_ppm_get_integer(nullptr, 1, &number), EINVAL);
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(qel_ppm_get_integer("kind", 1, nullptr), EINVAL);
    EXPECT_EQ(qel_ppm_get_string("kind", "x", nullptr), EINVAL);
    EXPECT_EQ(qel_ppm_set_string("kind", nullptr), EINVAL);
    EXPECT_EQ(held("kind"), "-");
}

TEST(Ppm, long_keys_and_strings_are_cut_and_a_string_stays_put) {
    const std::string key(62, 'k');
    const std::string value(31, 'v');
    EXPECT_EQ(qel_ppm_set_string((key + "first").c_str(), (value + "x").c_str()), 0);
    const char* text = nullptr;
    EXPECT_EQ(qel_ppm_get_string((key + "second").c_str(), nullptr, &text), 0);
    EXPECT_EQ(text, value);
    // A reader may hold the text while an equal one is set: not a byte is written (the sanitizer watches).
    std::atomic<bool> done{false};
    std::thread reader{[&] {
        while (!done.load()) EXPECT_EQ(text, value);
    }};
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(qel_ppm_set_string(key.c_str(), (value + "y").c_str()), 0);
    done.store(true);
    reader.join();
    const char* again = nullptr;
    EXPECT_EQ(qel_ppm_get_string(key.c_str(), nullptr, &again), 0);
    EXPECT_EQ(again, text);
    qel_ppm_remove(key.c_str());
}

static void churn(int thread) {
    for (int round = 0; round < 200; ++round)
        for (uint32_t i = 0; i < 100; ++i) {
            std::string key = "stress." + std::to_string(i);
            if ((round + thread) % 3 == 0) qel_ppm_remove(key.c_str());
            EXPECT_EQ(qel_ppm_set_integer(key.c_str(), i), 0);
            uint32_t value = 0;
            EXPECT_EQ(qel_ppm_get_integer(key.c_str(), i, &value), 0);
            EXPECT_EQ(value, i);
        }
}

// Runs in a child, whose first call read the file.
QEL_ROLE(stress) {
    if (held("ppmt.file") != "1") return 1;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(churn, i);
    for (int i = 0; i < 500; ++i) qel_ppm_destroy();
    for (std::thread& thread : threads) thread.join();
    qel_ppm_destroy();
    return held("ppmt.file") == "-" && !testing::Test::HasFailure() ? 0 : 2;
}

TEST(Ppm, threads_race_destroy_and_the_file_is_read_once) {
    BorrowedFile file;
    file.write("ppmt.file = 1\n");
    EXPECT_EQ(Child("stress").wait(), 0);
}
