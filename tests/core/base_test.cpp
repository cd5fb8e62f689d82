#include "support/support.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include <qel/atomic.h>
#include <qel/base.h>

namespace {

using Digest = std::array<uint8_t, QEL_MD5_DIGEST_SIZE>;

Digest md5(std::string_view text, size_t first_piece) {
    qel_md5_ctx context;
    Digest digest;
    EXPECT_EQ(qel_md5_init(&context), 0);
    qel_md5_update(&context, text.data(), first_piece);
    qel_md5_update(&context, text.data() + first_piece, text.size() - first_piece);
    qel_md5_finish(&context, digest.data());
    return digest;
}

std::string hex(const Digest& digest) {
    std::string text;
    for (uint8_t byte : digest) text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    return text;
}

}  // namespace

TEST(Base, string_copy_cuts_and_always_ends) {
    char text[8] = "xxxxxxx";
    EXPECT_EQ(sstrncpy(text, "abc", 1), text);
    EXPECT_EQ(std::string_view(text, 3), std::string_view("\0xx", 3));
    const char endless[4] = {'a', 'b', 'c', 'd'};
    EXPECT_STREQ(sstrncpy(text, endless, 4), "abc");
    EXPECT_STREQ(sstrncpy(text, "fits", sizeof text), "fits");
    EXPECT_STREQ(sstrncpy(text, nullptr, sizeof text), "");
    EXPECT_EQ(sstrncpy(text, "no room", 0), text);
    EXPECT_EQ(text[0], '\0');
}

TEST(Base, sizes_round_up) {
    EXPECT_EQ(qel_round64bit(32776), 32776u);
    EXPECT_EQ(qel_round64bit(81), 88u);
    EXPECT_EQ(qel_round32bit(81), 84u);
}

TEST(Base, bounded_random_numbers_stay_in_their_range) {
    qel_random_set_seed(7);
    uint32_t first = qel_random_uint32();
    for (uint32_t high : {6u, 7u, 1000u, 0x80000000u, 0xffffffffu}) {
        for (int i = 0; i < 1000; ++i) {
            uint32_t value = qel_random_bounded_uint32(5, high);
            ASSERT_TRUE(value >= 5 && value < high) << value << " for " << high;
        }
    }
    EXPECT_EQ(qel_random_bounded_uint32(5, 5), 5u);
    qel_random_set_seed(7);
    EXPECT_EQ(qel_random_uint32(), first);
}

TEST(Base, tells_its_version_and_prints) {
    EXPECT_EQ(qel_get_version_id(), 0xa0000u);
    EXPECT_STREQ(qel_get_version(), "0.10.0.0");
    testing::internal::CaptureStdout();
    EXPECT_EQ(qel_cli_printf("%s %d", "port", 7), 6);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "port 7");
}

TEST(Base, md5_gives_the_digests_of_rfc_1321) {
    EXPECT_EQ(hex(md5("", 0)), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(hex(md5("message digest", 3)), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(
        hex(md5("12345678901234567890123456789012345678901234567890123456789012345678901234567890", 80)),
        "57edf4a22be3c955ac49da2e2107b67a");
    EXPECT_EQ(qel_md5_init(nullptr), EINVAL);
}

TEST(Base, md5_does_not_depend_on_the_pieces) {
    // The digest of all digests of 0 to 130 bytes 'a', from an independent implementation.
    std::string all;
    for (size_t size = 0; size <= 130; ++size) {
        std::string text(size, 'a');
        Digest whole = md5(text, 0);
        for (size_t piece = 1; piece <= size; ++piece) ASSERT_EQ(md5(text, piece), whole) << size << piece;
        all += hex(whole);
    }
    EXPECT_EQ(hex(md5(all, 0)), "dc15a7096e621b7f0679b8ac9d383e7f");
}

TEST(Atomic, operations_give_their_results) {
    uint32_t word = 5;
    EXPECT_EQ(qel_atomic_cas(&word, 4, 9), 0);
    EXPECT_EQ(qel_atomic_cas(&word, 5, 9), 1);
    EXPECT_EQ(qel_atomic_add_and_fetch(&word, 3), 12u);
    EXPECT_EQ(qel_atomic_sub_and_fetch_mb(&word, 13), 0xffffffffu);
    EXPECT_EQ(qel_atomic_incr_and_fetch_mb(&word), 0u);
    EXPECT_EQ(qel_atomic_decr_and_fetch(&word), 0xffffffffu);
    EXPECT_EQ(qel_atomic_add_and_fetch_mb(&word, 11), 10u);
    EXPECT_EQ(qel_atomic_sub_and_fetch(&word, 4), 6u);
    EXPECT_EQ(qel_atomic_incr_and_fetch(&word), 7u);
    EXPECT_EQ(qel_atomic_decr_and_fetch_mb(&word), 6u);
    void* place = &word;
    EXPECT_EQ(qel_atomic_cas_vptr(&place, nullptr, &place), 0);
    EXPECT_EQ(qel_atomic_cas_vptr(&place, &word, &place), 1);
    EXPECT_EQ(place, &place);
}

namespace {
constexpr int kRounds = 100000;

struct SharedWords {
    uint32_t sum;
    uint32_t gate;
    uint32_t guarded;  // changed under the gate only
};
}  // namespace

QEL_ROLE(adder) {
    int fd = std::stoi(args[0]);
    auto* words = static_cast<SharedWords*>(
        mmap(nullptr, sizeof(SharedWords), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    for (int i = 0; i < kRounds; ++i) {
        qel_atomic_add(&words->sum, 7);
        qel_atomic_sub_mb(&words->sum, 2);
        qel_atomic_add_mb(&words->sum, 3);
        qel_atomic_sub(&words->sum, 8);
        qel_atomic_incr(&words->sum);
        qel_atomic_incr_mb(&words->sum);
        qel_atomic_decr(&words->sum);
        qel_atomic_decr_mb(&words->sum);
        qel_atomic_incr(&words->sum);
        qel_atomic_lock(&words->gate);
        ++words->guarded;
        qel_atomic_unlock(&words->gate);
    }
    return 0;
}

TEST(Atomic, four_processes_lose_no_addition_on_a_shared_word) {
    // A number that the children's own pipes don't take.
    int low = memfd_create("words", 0);
    int fd = fcntl(low, F_DUPFD, 100);
    close(low);
    ASSERT_EQ(ftruncate(fd, sizeof(SharedWords)), 0);
    auto* words = static_cast<SharedWords*>(
        mmap(nullptr, sizeof(SharedWords), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    {
        std::vector<qel_test::Child> children;
        for (int i = 0; i < 4; ++i) children.emplace_back("adder", qel_test::RoleArgs{std::to_string(fd)});
        for (qel_test::Child& child : children) EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_EQ(words->sum, 4u * kRounds);
    EXPECT_EQ(words->guarded, 4u * kRounds);
    EXPECT_EQ(words->gate, 0u);
    munmap(words, sizeof(SharedWords));
    close(fd);
}
