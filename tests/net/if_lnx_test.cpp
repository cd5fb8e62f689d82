// The kernel's links through the shim of the library, in network namespaces of the tests' own.
#include "net/if_support.hpp"
#include "support/links.hpp"

#include <algorithm>
#include <set>
#include <thread>

using namespace qel_test;

namespace {

struct IfLnx : testing::Test {
    void SetUp() override {
        if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
        links = std::make_unique<Links>();
    }
    static std::vector<std::uint64_t> list(std::uint32_t app, std::uint32_t type = QEL_IF_TYPE_ANY) {
        qel_if_iteration_filter filter;
        qel_if_iteration_filter_init(&filter);
        filter.type = type;
        qel_if_iterator* it = nullptr;
        EXPECT_EQ(qel_if_iterator_start(app, &filter, &it), 0u);
        std::vector<std::uint64_t> found;
        std::uint64_t ifh = 0;
        while (qel_if_iterator_get_next(app, it, &ifh) == 0) found.push_back(ifh);
        EXPECT_EQ(qel_if_iterator_get_next(app, it, &ifh), kNotThere);
        EXPECT_EQ(qel_if_iterator_end(app, it), 0u);
        return found;
    }
    std::unique_ptr<Links> links;
};

std::string link_name(int number) {
    return "l" + std::to_string(number);
}

TEST_F(IfLnx, attributes_are_the_kernel_s_or_fixed) {
    ASSERT_TRUE(links->add("one") && links->set_up("one", true) && links->set_up("lo", true));
    IfClient client{false, 0};
    std::uint64_t one = 0, lo = 0;
    std::uint32_t word = 9;
    std::uint8_t byte = 9;
    ASSERT_EQ(qel_if_get_handle(client.app, "one", &one), 0u);
    ASSERT_EQ(qel_if_get_handle(client.app, "lo", &lo), 0u);
    EXPECT_EQ(qel_if_get_handle(client.app, "none", &lo), 0xa0000013u);
    EXPECT_EQ(one, if_nametoindex("one"));
    EXPECT_EQ(qel_if_get_type(client.app, one, &word), 0u);
    EXPECT_EQ(word, QEL_IF_TYPE_ETHERNET);
    EXPECT_EQ(qel_if_get_encap(client.app, one, &word), 0u);
    EXPECT_EQ(word, QEL_IF_ENCAP_ETHER);
    EXPECT_EQ(qel_if_get_speed(client.app, one, &word), 0u);
    EXPECT_EQ(word, 10000u);
    EXPECT_EQ(qel_if_get_speed(client.app, lo, &word), kUnsupported);
    EXPECT_EQ(qel_if_get_mtu(client.app, lo, &word), 0u);
    EXPECT_EQ(word, 65536u);
    EXPECT_EQ(qel_if_get_input_flow_control(client.app, one, &word), 0u);
    EXPECT_EQ(word, QEL_IF_FLOW_CONTROL_ON);
    qel_if_phys_loc location{7, {7, 7, 7, 7, 7}};
    EXPECT_EQ(qel_if_get_physical_loc(client.app, one, &location), 0u);
    EXPECT_THAT(location.word, testing::ElementsAre(0, 1, 0, 1, 0));
    std::uint8_t mac[6]{};
    EXPECT_EQ(qel_if_get_ether_mac_address(client.app, one, mac), 0u);
    EXPECT_NE(std::count(mac, mac + 6, 0), 6);
    EXPECT_EQ(qel_if_get_ether_mac_address(client.app, lo, mac), kUnsupported);
    EXPECT_EQ(qel_if_is_layer2(client.app, one, &byte), kUnsupported);
    EXPECT_EQ(qel_if_has_property(client.app, one, QEL_IF_PROPERTY_RESYNC, &byte), 0u);
    EXPECT_EQ(byte, 0);
    EXPECT_EQ(qel_if_get_mtu(client.app, 999999, &word), kNotThere);
    char text[200];
    EXPECT_EQ(qel_if_get_short_name(client.app, one, text, 64), 0u);
    EXPECT_STREQ(text, "one");
    EXPECT_EQ(qel_if_get_description(client.app, one, text, 200), kUnsupported);
    const std::uint64_t handles[3] = {one, lo, 999999};
    cerrno results[3];
    std::uint32_t speeds[3];
    EXPECT_EQ(qel_if_bulk_get_speed(client.app, handles, speeds, results, 3), 0u);
    EXPECT_THAT(results, testing::ElementsAre(0u, kUnsupported, kNotThere));
    qel_if_statistics statistics[3];
    EXPECT_EQ(qel_if_bulk_get_statistics(client.app, handles, statistics, results, 3), kUnsupported);
    EXPECT_THAT(results, testing::Each(kUnsupported));
}

TEST_F(IfLnx, filters_of_iterations_are_tested) {
    IfClient client;
    qel_if_iterator* it = nullptr;
    auto start = [&](auto change) {
        qel_if_iteration_filter filter;
        qel_if_iteration_filter_init(&filter);
        change(filter);
        return qel_if_iterator_start(client.app, &filter, &it);
    };
    EXPECT_EQ(start([](auto& f) { f.type = 0; }), kInvalid);
    EXPECT_EQ(start([](auto& f) { f.type = 30; }), kInvalid);
    EXPECT_EQ(start([](auto& f) { f.encap = 13; }), kInvalid);
    EXPECT_EQ(start([](auto& f) { f.base_if = 0; }), kInvalid);
    EXPECT_EQ(start([](auto& f) { f.phys_loc.flags = 0x11; }), kInvalid);
    EXPECT_EQ(qel_if_iterator_start(client.app, nullptr, &it), kInvalid);
    ASSERT_EQ(start([](auto& f) { f.phys_loc.flags = 0x21; }), 0u);
    IfClient other;
    std::uint64_t ifh = 0;
    EXPECT_EQ(qel_if_iterator_get_next(other.app, it, &ifh), kInvalid);
    EXPECT_EQ(qel_if_iterator_end(other.app, it), kInvalid);
    const std::uint32_t app = client.app;
    EXPECT_EQ(qel_if_destroy(&client.app), 0u);
    EXPECT_EQ(qel_if_iterator_get_next(app, it, &ifh), kInvalid);
    EXPECT_EQ(qel_if_iterator_end(app, it), 0u) << "also after its client";

    static qel_if_ctx_db* db;
    ASSERT_EQ(qel_if_ctx_create_db(
                  "db", [](auto, auto, auto, auto) {}, &db),
              0u);
    ASSERT_TRUE(links->add("one"));
    IfClient later;  // sees the table of the other one, as long as nobody listens
    int any = 0;
    for (std::uint64_t entry : {std::uint64_t{77}, std::uint64_t{1}, handle_of(3, 1)})
        EXPECT_EQ(qel_if_ctx_set(db, entry, &any), 0u);
    qel_if_iteration_filter filter;
    qel_if_iteration_filter_init(&filter);
    filter.ctx_db = db;
    ASSERT_EQ(qel_if_iterator_start(later.app, &filter, &it), 0u);
    EXPECT_EQ(qel_if_iterator_get_next(later.app, it, &ifh), 0u);
    EXPECT_EQ(ifh, 1u);
    EXPECT_EQ(qel_if_iterator_get_next(later.app, it, &ifh), kNotThere);
    EXPECT_EQ(qel_if_iterator_end(later.app, it), 0u);
    EXPECT_EQ(qel_if_ctx_destroy_db(db), 0u);
}

// What a registration has heard, each link's creations and deletions.
struct Heard {
    std::mutex mutex;
    std::map<std::uint64_t, std::pair<int, int>> links;
    std::atomic<std::size_t> created = 0, deleted = 0;

    std::uint32_t enlist(std::uint32_t app) {
        qel_if_event_cb_vector vector{};
        vector.created = [](std::uint64_t ifh, std::uint32_t value, std::uint64_t cookie) {
            auto* self = reinterpret_cast<Heard*>(cookie);
            std::lock_guard lock{self->mutex};
            EXPECT_EQ(value, 1u);
            ++self->links[ifh].first;
            ++self->created;
        };
        vector.deleted = [](std::uint64_t ifh, std::uint32_t, std::uint64_t cookie) {
            auto* self = reinterpret_cast<Heard*>(cookie);
            std::lock_guard lock{self->mutex};
            ++self->links[ifh].second;
            ++self->deleted;
        };
        std::uint32_t reg = 0;
        EXPECT_EQ(
            qel_if_register_callbacks(app, &vector, nullptr, reinterpret_cast<std::uintptr_t>(this), &reg),
            0u);
        return reg;
    }
    void expect_each_once(std::size_t count) {
        std::lock_guard lock{mutex};
        EXPECT_EQ(links.size(), count);
        for (const auto& [ifh, times] : links) EXPECT_EQ(times, std::pair(1, 1)) << ifh;
    }
};

TEST_F(IfLnx, churn_is_told_to_each_exactly_once) {
    constexpr int kLinks = 1000;
    IfClient one{true}, two{true};
    Heard by_one, by_two;
    by_one.enlist(one.app);
    std::uint32_t second = by_two.enlist(two.app);
    std::atomic<bool> stop = false;
    auto serve = [&stop](qel_dm_handle dm) {
        while (!stop && qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    };
    std::thread first_server{serve, one.dm}, second_server{serve, two.dm};
    for (int i = 0; i < kLinks; ++i) ASSERT_TRUE(links->add(link_name(i)));
    ASSERT_TRUE(links->remove(link_name(0)) && links->remove_all());
    for (Heard* heard : {&by_one, &by_two}) {
        EXPECT_TRUE(eventually([&] { return heard->deleted == kLinks; })) << heard->created << heard->deleted;
        heard->expect_each_once(kLinks);
    }
    EXPECT_EQ(qel_if_deregister_callbacks(two.app, &second), 0u);
    ASSERT_TRUE(links->add("late") && links->remove("late"));
    EXPECT_TRUE(eventually([&] { return by_one.deleted == kLinks + 1; })) << "the socket stays for the other";
    EXPECT_EQ(by_two.deleted, std::size_t{kLinks});
    stop = true;
    for (const IfClient* client : {&one, &two})
        qel_dm_execute(
            client->dm, [](qel_dm_handle, std::uint64_t, std::uint64_t) {}, 0, 0);
    first_server.join();
    second_server.join();
}

TEST_F(IfLnx, what_nobody_took_in_time_is_found_by_comparison) {
    constexpr int kLinks = 3000;
    ASSERT_TRUE(links->add("before"));
    IfClient client{true};
    ASSERT_TRUE(links->remove("before") && links->add("after"));
    Heard heard;
    heard.enlist(client.app);
    EXPECT_TRUE(client.dispatch_until([&] { return heard.created + heard.deleted == 2; }))
        << "what happened between the bind and the registration";
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < kLinks; ++i) ASSERT_TRUE(links->add(link_name(i)));
        if (round == 3) break;
        ASSERT_TRUE(links->remove_all());
    }
    ASSERT_TRUE(links->add("after"));
    const std::set<std::uint64_t> expected = [] {
        std::set<std::uint64_t> all{if_nametoindex("lo"), if_nametoindex("after")};
        for (int i = 0; i < kLinks; ++i) all.insert(if_nametoindex(link_name(i).c_str()));
        return all;
    }();
    EXPECT_TRUE(client.dispatch_until([&] {
        const auto found = list(client.app);
        return std::set(found.begin(), found.end()) == expected;
    }));
    for (const auto& [ifh, times] : heard.links) {
        EXPECT_LE(times.first, 1) << ifh;
        EXPECT_LE(times.second, 1) << ifh;
    }
}

TEST_F(IfLnx, a_bridge_s_word_about_its_port_is_no_deletion) {
    ASSERT_TRUE(links->add("br", "bridge") && links->add("port"));
    IfClient client{true};
    Heard heard;
    heard.enlist(client.app);
    const std::uint64_t port = if_nametoindex("port");
    ASSERT_TRUE(links->set_master("port", "br") && links->set_master("port", ""));
    ASSERT_TRUE(links->set_up("port", true) && links->add("last"));
    EXPECT_TRUE(client.dispatch_until([&] { return heard.created == 1; }));
    EXPECT_EQ(heard.deleted, 0u);
    std::uint32_t state = QEL_IF_ADMIN_DOWN;
    EXPECT_EQ(qel_if_get_admin_state(client.app, port, &state), 0u);
    EXPECT_EQ(state, QEL_IF_ADMIN_UP) << "followed without an event";
}

TEST_F(IfLnx, readers_live_with_links_that_go) {
    IfClient client{true};
    Heard heard;
    heard.enlist(client.app);
    std::atomic<bool> stop = false;
    auto read = [&] {
        while (!stop) {
            const std::vector<std::uint64_t> found = list(client.app);
            if (found.empty()) continue;
            std::vector<std::uint32_t> mtus(found.size());
            std::vector<cerrno> results(found.size());
            EXPECT_EQ(
                qel_if_bulk_get_mtu(client.app, found.data(), mtus.data(), results.data(), found.size()), 0u);
            for (cerrno result : results) EXPECT_TRUE(result == 0 || result == kNotThere);
            qel_if_iteration_filter filter;
            qel_if_iteration_filter_init(&filter);
            std::uint64_t* handles = nullptr;
            std::size_t count = 0;
            const cerrno error = qel_if_iterator_glob(client.app, &filter, &handles, &count);
            EXPECT_TRUE(error == 0 || error == kInvalid) << error;
            if (error == 0) std::free(handles);
        }
    };
    std::thread one{read}, two{read};
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(links->add(link_name(i)));
        if (i >= 10) {
            ASSERT_TRUE(links->remove(link_name(i - 10)));
        }
        client.dispatch_all();
    }
    EXPECT_TRUE(client.dispatch_until([&] { return heard.created == 100 && heard.deleted == 90; }));
    stop = true;
    one.join();
    two.join();
}

TEST_F(IfLnx, clients_share_one_table_and_leave_nothing) {
    const int descriptors = open_descriptors(), threads = thread_count();
    for (int round = 0; round < 3; ++round) {
        IfClient one, two{true}, three{true};
        Heard heard;
        heard.enlist(one.app);  // no dispatcher: nothing is heard
        heard.enlist(two.app);
        EXPECT_EQ(qel_if_destroy(&one.app), 0u);
        EXPECT_EQ(list(two.app).size(), 1u) << "the first one's end leaves it";
        std::uint32_t reg = heard.enlist(three.app);
        EXPECT_EQ(qel_if_deregister_callbacks(three.app, &reg), 0u);
        ASSERT_TRUE(links->add("x") && links->remove("x"));
        EXPECT_TRUE(two.dispatch_until([&] { return heard.deleted == 1; }));
    }
    EXPECT_LE(open_descriptors(), descriptors);
    EXPECT_TRUE(eventually([&] { return thread_count() <= threads; }));
}

// The last one: what it leaves to the kernel to clear away takes its time.
TEST_F(IfLnx, all_links_are_listed_once) {
    int made = 0;
    for (int wanted : {0, 64, 1000, 10000}) {
        for (; made < wanted; ++made) ASSERT_TRUE(links->add(link_name(made)));
        IfClient client;
        ASSERT_EQ(client.bind_result, 0u);
        const std::vector<std::uint64_t> found = list(client.app);
        std::set<std::uint64_t> expected{if_nametoindex("lo")};
        for (int i = 0; i < made; ++i) expected.insert(if_nametoindex(link_name(i).c_str()));
        EXPECT_EQ(found.size(), expected.size());
        EXPECT_EQ(std::set(found.begin(), found.end()), expected);
        EXPECT_EQ(list(client.app, QEL_IF_TYPE_LOOPBACK).size(), 1u);
        std::uint64_t* handles = nullptr;
        std::size_t count = 0;
        qel_if_iteration_filter filter;
        qel_if_iteration_filter_init(&filter);
        EXPECT_EQ(qel_if_iterator_glob(client.app, &filter, &handles, &count), 0u);
        EXPECT_EQ(std::vector(handles, handles + count), found);
        std::free(handles);
    }
}

}  // namespace
