// The protocol of safe segments, raced, killed and lied to.
#include "support/support.hpp"

#include <qel/shm.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

using namespace qel_test;

namespace {

constexpr std::uint32_t kClaimed = 0xace00000;
constexpr std::uint32_t kReady = 0xace01234;
constexpr std::uint32_t kFailed = 0xace0dead;
constexpr std::uint32_t kVersion = 77;
using Words = std::vector<std::uint32_t>;

// Writes and reads an object by hand, as another program could.
void write_object(const std::string& name, const Words& words) {
    std::ofstream file(shm_file(name), std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 4));
}

Words first_words(const std::string& name) {
    std::ifstream file(shm_file(name), std::ios::binary);
    Words words(4);
    file.read(reinterpret_cast<char*>(words.data()), 16);
    return words;
}

int open_with(qel_shm_initializer initializer, void* context, const char* name, std::uint32_t flags,
              std::uint32_t size, std::uint32_t wait = 20, std::uint32_t version = kVersion) {
    qel_shm_info info{};
    int error = qel_shm_safe_open(name, flags, size, version, initializer, context, wait, &info);
    EXPECT_EQ(info.addr != nullptr, error == 0);
    qel_shm_close(&info);
    return error;
}

int open_safe(const char* name, std::uint32_t flags, std::uint32_t size, std::uint32_t wait = 20,
              std::uint32_t version = kVersion) {
    return open_with(nullptr, nullptr, name, flags, size, wait, version);
}

int fill_with_pattern(qel_shm_info* info, void* runs) {
    std::this_thread::sleep_for(50ms);
    std::memset(info->addr, 0x5a, info->size);
    ++*static_cast<int*>(runs);
    return 0;
}

}  // namespace

// Exit code: 1 if it ran the initialiser, 0 if it found the other's work, 99 if anything is wrong.
QEL_ROLE(racer) {
    say("up");
    hear();
    qel_shm_info info{};
    int runs = 0;
    if (qel_shm_safe_open("race", QEL_SHM_CREATE, 4096, kVersion, fill_with_pattern, &runs, 0, &info) != 0)
        return 99;
    const auto* bytes = static_cast<const char*>(info.addr);
    return std::count(bytes, bytes + 4096, 0x5a) == 4096 && info.size == 4096 ? runs : 99;
}

QEL_ROLE(claimer) {
    auto stay = [](qel_shm_info*, void*) {
        say("claimed");
        hear();
        return 0;
    };
    return open_with(stay, nullptr, "killed", QEL_SHM_CREATE, 52, 0);
}

TEST(SafeShm, sixteen_racing_processes_run_a_slow_initialiser_once) {
    std::vector<Child> children;
    for (int i = 0; i < 16; ++i) children.emplace_back("racer");
    for (Child& child : children) ASSERT_EQ(child.read_line(), "up");
    for (Child& child : children) child.write_line("go");
    int runs = 0;
    for (Child& child : children) runs += child.wait();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(first_words("race"), (Words{kReady, kVersion, 0, 0x5a5a5a5a}));
}

TEST(SafeShm, claim_of_a_killed_process_stays_and_waits_are_limited) {
    Child child("claimer");
    ASSERT_EQ(child.read_line(), "claimed");
    child.kill();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(open_safe("killed", QEL_SHM_CREATE, 52, 50), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_EQ(first_words("killed").front(), kClaimed);
}

TEST(SafeShm, refuses_what_is_no_ready_segment_of_this_version) {
    int descriptors = open_descriptors();
    EXPECT_EQ(open_safe("made", QEL_SHM_EXACT_SIZE, 8), ENOENT);
    write_object("made", {kReady, kVersion});
    EXPECT_EQ(open_safe("made", 0, 0), EINVAL);  // Shorter than a header.
    write_object("made", {kReady, kVersion, 0, 1});
    EXPECT_EQ(open_safe("made", 0, 400), 0);
    EXPECT_EQ(open_safe("made", QEL_SHM_CREATE | QEL_SHM_EXACT_SIZE, 4), 0);
    EXPECT_EQ(open_safe("made", QEL_SHM_CREATE | QEL_SHM_EXACT_SIZE, 8), EINVAL);
    EXPECT_EQ(open_safe("made", QEL_SHM_CREATE | QEL_SHM_EXCLUSIVE, 4), EEXIST);
    EXPECT_EQ(open_safe("made", 0, 0, 20, kVersion + 1), EFAULT);
    for (auto [state, error] : {std::pair{kFailed, EFAULT}, std::pair{0xace00001u, EINVAL},
                                std::pair{kClaimed, ETIMEDOUT}, std::pair{0u, ETIMEDOUT}}) {
        write_object("made", {state, kVersion, 0, 1});
        EXPECT_EQ(open_safe("made", QEL_SHM_CREATE, 4), error) << std::hex << state;
        EXPECT_EQ(first_words("made").front(), state);
    }
    EXPECT_EQ(open_safe("made", QEL_SHM_CREATE, 0), EINVAL);
    EXPECT_EQ(open_safe("made", QEL_SHM_CREATE, UINT32_MAX - 11), EINVAL);
    EXPECT_EQ(open_safe(nullptr, 0, 0), EINVAL);
    EXPECT_EQ(qel_shm_safe_resize(nullptr, 0, 0), ENOSYS);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(mapping_count(shm_root()), 0);
}

TEST(SafeShm, header_alone_is_a_segment_and_close_takes_it_along) {
    write_object("bare", {kReady, 0, 0});
    qel_shm_info info{};
    ASSERT_EQ(qel_shm_safe_open("bare", 0, 0, 0, nullptr, nullptr, 0, &info), 0);
    EXPECT_EQ(std::pair(info.size, info.hdr_size), std::pair(0u, QEL_SHM_SAFE_HEADER_SIZE));
    EXPECT_EQ(static_cast<std::uint32_t*>(info.addr)[-3], kReady);
    qel_shm_close(&info);
    qel_shm_close(&info);
    EXPECT_EQ(mapping_count(shm_root()), 0);
}

TEST(SafeShm, opener_with_all_means_replaces_a_maker_that_died_before_its_claim) {
    write_object("orphan", Words(8));
    int runs = 0;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(open_with(fill_with_pattern, &runs, "orphan", QEL_SHM_CREATE, 20, 0), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1000ms);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(open_safe("orphan", 0, 0), 0);
}

TEST(SafeShm, failed_initialiser_leaves_no_name_and_tells_those_who_wait) {
    // The numbers by which an absent and an existing name are told apart inside must pass as well.
    auto fail = [](qel_shm_info*, void* error) { return *static_cast<int*>(error); };
    for (int error : {ENOENT, EEXIST, 4711}) {
        EXPECT_EQ(open_with(fail, &error, "failing", QEL_SHM_CREATE, 8), error);
        EXPECT_FALSE(shm_exists("failing"));
    }
    // It fails once both have the segment mapped.
    auto fail_late = [](qel_shm_info*, void*) {
        EXPECT_TRUE(eventually([] { return mapping_count(shm_root()) == 2; }));
        return EIO;
    };
    std::jthread opener{[&] { EXPECT_EQ(open_with(fail_late, nullptr, "failing", QEL_SHM_CREATE, 8), EIO); }};
    ASSERT_TRUE(eventually([] { return mapping_count(shm_root()) == 1; }));
    EXPECT_EQ(open_safe("failing", 0, 0, 0), EFAULT);
    opener.join();
    EXPECT_EQ(open_safe("failing", QEL_SHM_CREATE, 8), 0);
}

TEST(SafeShm, failing_maker_spares_a_segment_that_took_its_name) {
    auto lose_the_name = [](qel_shm_info*, void*) {
        EXPECT_EQ(qel_shm_unlink("taken"), 0);
        EXPECT_EQ(open_safe("taken", QEL_SHM_CREATE, 100), 0);
        return EIO;
    };
    EXPECT_EQ(open_with(lose_the_name, nullptr, "taken", QEL_SHM_CREATE, 8), EIO);
    EXPECT_TRUE(shm_exists("taken"));
}

TEST(SafeShm, initialiser_may_end_its_thread) {
    auto leave = [](qel_shm_info*, void*) -> int { pthread_exit(nullptr); };
    int descriptors = open_descriptors();
    std::thread{[&] { ADD_FAILURE() << open_with(leave, nullptr, "left", QEL_SHM_CREATE, 8); }}.join();
    EXPECT_FALSE(shm_exists("left"));
    EXPECT_EQ(mapping_count(shm_root()), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}
