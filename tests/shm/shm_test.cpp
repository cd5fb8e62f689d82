// Plain segments: names, sizes, modes, and file systems that are full or belong to somebody else.
#include "support/support.hpp"

#include <qel/ppm.h>
#include <qel/shm.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <fstream>
#include <thread>

using namespace qel_test;

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kNotPermitted = 99;

// Opens and closes; gives the error. 'existed' is 9 if it was not written.
int open_plain(const std::string& name, std::uint32_t size, std::uint8_t* existed = nullptr) {
    qel_shm_info info{};
    std::uint8_t answer = 9;
    int error = qel_shm_open(name.c_str(), size, &info, &answer);
    EXPECT_EQ(info.addr != nullptr, error == 0);
    EXPECT_EQ(answer != 9, error == 0);
    if (existed != nullptr) *existed = answer;
    qel_shm_close(&info);
    return error;
}

void make_object(const std::string& name, off_t size, mode_t mode) {
    int fd = open(shm_file(name).c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
    EXPECT_TRUE(fd >= 0 && ftruncate(fd, size) == 0 && close(fd) == 0);
}

std::string current_umask() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("Umask:")) return line.substr(line.size() - 3);
    return "";
}

}  // namespace

QEL_ROLE(stranger) {
    if (setuid(kNobody) != 0) return kNotPermitted;
    say("up");
    return open_plain(args[0], 0);
}

// Sees a /dev/shm of 256 KiB of its own.
QEL_ROLE(small_disk) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("small", "/dev/shm", "tmpfs", 0, "size=256k") != 0)
        return kNotPermitted;
    if (open_plain("big", 720'012) != ENOSPC) return 1;
    qel_shm_info info{};
    if (qel_shm_safe_open("safe", QEL_SHM_CREATE, 720'012, 1, nullptr, nullptr, 0, &info) != ENOSPC) return 2;
    if (!shm_objects().empty() || open_plain("fits", 100'000) != 0) return 3;
    qel_ppm_set_integer("qel.shm.prealloc", 0);
    return open_plain("big", 720'012);
}

TEST(Shm, eight_threads_share_names_without_touching_the_umask) {
    constexpr int kThreads = 8;
    constexpr int kNames = 100;
    mode_t before = umask(027);
    std::atomic<int> made{0};
    std::atomic<bool> done{false};
    std::barrier together{kThreads};
    std::vector<std::jthread> openers;
    std::jthread watcher{[&] {
        do EXPECT_EQ(current_umask(), "027");
        while (!done);
    }};
    for (int i = 0; i < kThreads; ++i)
        openers.emplace_back([&] {
            for (int name = 0; name < kNames; ++name) {
                std::uint8_t existed = 9;
                together.arrive_and_wait();
                EXPECT_EQ(open_plain("many." + std::to_string(name), 8192, &existed), 0);
                made += existed == 0;
            }
        });
    openers.clear();
    done = true;
    watcher.join();
    EXPECT_EQ(made, kNames);
    EXPECT_EQ(umask(before), 027u);
    for (const std::string& name : shm_objects()) {
        struct stat status {};
        ASSERT_EQ(stat(shm_file(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0777u);
        EXPECT_EQ(qel_shm_unlink(name.c_str()), 0);
    }
}

TEST(Shm, sizes_must_agree_and_unsized_segments_are_waited_for) {
    int descriptors = open_descriptors();
    EXPECT_EQ(open_plain("sized", 0), ENOENT);
    EXPECT_EQ(open_plain("sized", 100), 0);
    EXPECT_EQ(open_plain("sized", 101), EINVAL);
    EXPECT_EQ(open_plain("sized", 0), 0);
    make_object("huge", 1ll << 32, 0777);
    EXPECT_EQ(open_plain("huge", 0), EINVAL);
    make_object("unsized", 0, 0777);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(open_plain("unsized", 100), EINVAL);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    std::jthread maker{[] {
        std::this_thread::sleep_for(150ms);
        EXPECT_EQ(truncate(shm_file("unsized").c_str(), 100), 0);
    }};
    EXPECT_EQ(open_plain("unsized", 0), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count(shm_root()), 0);
}

TEST(Shm, names_have_limits_and_a_root) {
    std::string longest = "/" + std::string(126, 'n');
    char out[130];
    EXPECT_EQ(qel_shm_path_append(out, longest.c_str(), 128), 0);
    EXPECT_EQ(out, longest);
    EXPECT_EQ(qel_shm_path_append(out, longest.c_str(), 127), ENAMETOOLONG);
    EXPECT_EQ(qel_shm_path_append(out, "x", sizeof out), 0);
    EXPECT_EQ(out, shm_root() + "x");
    EXPECT_EQ(open_plain(std::string(127, 'n'), 8), ENAMETOOLONG);  // With its root it is longer.
    EXPECT_EQ(open_plain(longest + "n", 8), ENAMETOOLONG);
    EXPECT_EQ(qel_shm_unlink((longest + "n").c_str()), ENAMETOOLONG);
    EXPECT_EQ(qel_shm_unlink("absent"), ENOENT);
    EXPECT_EQ(qel_shm_unlink(nullptr), EINVAL);
    EXPECT_EQ(qel_shm_open("absent", 8, nullptr, nullptr), EINVAL);
    EXPECT_FALSE(shm_exists("absent"));
}

TEST(Shm, stranger_waits_out_the_moment_before_a_segment_is_granted) {
    make_object("private", 100, 0700);
    Child refused("stranger", {"private"});
    int result = refused.wait();
    if (result == kNotPermitted) GTEST_SKIP() << "needs the right to become another user";
    EXPECT_EQ(result, EACCES);
    Child granted("stranger", {"private"});
    ASSERT_EQ(granted.read_line(), "up");
    std::this_thread::sleep_for(5ms);  // Lets its first look fail; the grant comes a moment later.
    ASSERT_EQ(chmod(shm_file("private").c_str(), 0777), 0);
    EXPECT_EQ(granted.wait(), 0);
}

TEST(Shm, full_file_system_is_an_error_and_no_fault) {
    int result = Child("small_disk").wait();
    if (result == kNotPermitted) GTEST_SKIP() << "needs the right to mount in a namespace of its own";
    EXPECT_EQ(result, 0);
}
