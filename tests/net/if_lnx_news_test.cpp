// The kernel's news of links at awkward moments.
#include <dlfcn.h>

#include <thread>

#include "net/if_support.hpp"
#include "support/links.hpp"

using namespace qel_test;

namespace {

// Done when the library opens its next socket, which is what a comparison begins with.
std::function<void()> before_socket;
// Done before the library looks for its third message: there is no news, then comes the list, then its end.
std::function<void()> before_third_message;

struct Counts {
    int created = 0, deleted = 0;
};

qel_if_event_cb_vector count_into_cookie() {
    qel_if_event_cb_vector vector{};
    vector.created = [](auto, auto, std::uint64_t cookie) { ++reinterpret_cast<Counts*>(cookie)->created; };
    vector.deleted = [](auto, auto, std::uint64_t cookie) { ++reinterpret_cast<Counts*>(cookie)->deleted; };
    return vector;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) noexcept {
    static auto* next = reinterpret_cast<int (*)(int, int, int)>(dlsym(RTLD_NEXT, "socket"));
    if (auto action = std::exchange(before_socket, nullptr)) action();
    return next(domain, type, protocol);
}

extern "C" __attribute__((visibility("default"))) ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static auto* next = reinterpret_cast<ssize_t (*)(int, msghdr*, int)>(dlsym(RTLD_NEXT, "recvmsg"));
    static int looks = 0;
    if (before_third_message && ++looks == 3) std::exchange(before_third_message, nullptr)();
    return next(fd, message, flags);
}

namespace {

// A link that is up says that it goes down, then that it goes: both wait when the comparison misses it.
TEST(IfLnxNews, a_link_that_goes_between_news_and_comparison_goes_once) {
    if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
    Links links;
    ASSERT_TRUE(links.add("up") && links.set_up("up", true));
    IfClient client{true};
    Counts counts;
    const qel_if_event_cb_vector vector = count_into_cookie();
    std::uint32_t reg = 0;
    ASSERT_EQ(qel_if_register_callbacks(client.app, &vector, nullptr,
                                        reinterpret_cast<std::uintptr_t>(&counts), &reg),
              0u);
    before_socket = [&links] { EXPECT_TRUE(links.remove("up")); };
    EXPECT_TRUE(client.dispatch_until([&] { return counts.deleted > 0; }));
    ASSERT_TRUE(links.add("last"));
    EXPECT_TRUE(client.dispatch_until([&] { return counts.created > 0; }));
    EXPECT_EQ(counts.created, 1);
    EXPECT_EQ(counts.deleted, 1);
}

std::uint32_t app, reg;
int pair[2] = {-1, -1};

// Runs in the middle of the reading. The library's socket closes twice meanwhile, and its number is free.
void swap_registrations(std::uint64_t, std::uint32_t, std::uint64_t) {
    if (pair[0] >= 0) return;
    qel_if_event_cb_vector vector{};
    vector.created = swap_registrations;
    EXPECT_EQ(qel_if_deregister_callbacks(app, &reg), 0u);
    EXPECT_EQ(qel_if_register_callbacks(app, &vector, nullptr, 0, &reg), 0u);
    EXPECT_EQ(qel_if_deregister_callbacks(app, &reg), 0u);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    for (int end : pair) ASSERT_EQ(send(end, "mine", 4, 0), 4);
}

TEST(IfLnxNews, a_callback_may_end_and_make_registrations) {
    if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
    Links links;
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, "default", 0), 0);
    IfClient client;  // without a dispatcher: called by the one who reads, on the default dispatcher
    app = client.app;
    qel_if_event_cb_vector vector{};
    vector.created = swap_registrations;
    ASSERT_EQ(qel_if_register_callbacks(app, &vector, nullptr, 0, &reg), 0u);
    ASSERT_TRUE(links.add("one"));
    client.dm = dm;  // which the client's end destroys
    EXPECT_TRUE(client.dispatch_until([] { return pair[0] >= 0; }));
    client.dispatch_all();
    char text[8];
    for (int end : pair) {
        EXPECT_EQ(recv(end, text, sizeof(text), MSG_DONTWAIT), 4) << "taken by the library";
        close(end);
    }
}

// The comparison belongs to a client that has gone, and the table to one that bound in the middle of it.
TEST(IfLnxNews, a_comparison_leaves_the_links_of_the_next_client_alone) {
    if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
    IfClient client{true};
    std::optional<IfClient> second;
    Counts counts;
    const qel_if_event_cb_vector vector = count_into_cookie();
    ASSERT_EQ(qel_if_register_callbacks(client.app, &vector, nullptr,
                                        reinterpret_cast<std::uintptr_t>(&counts), &reg),
              0u);
    before_third_message = [&] {
        EXPECT_EQ(qel_if_destroy(&client.app), 0u);
        second.emplace();
    };
    client.dispatch_all();
    ASSERT_TRUE(second);
    std::uint64_t lo = 0;
    EXPECT_EQ(qel_if_get_handle(second->app, "lo", &lo), 0u);
}

}  // namespace
