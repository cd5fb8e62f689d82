// The interface service without memory, and the kernel's words about links as they must not be believed.
#include "net/qel_if_netlink.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <random>

#include "net/if_support.hpp"
#include "support/failing.hpp"
#include "support/links.hpp"

using namespace qel_test;
namespace netlink = qel::netlink;

namespace {

constexpr cerrno kNoMemory = 0xa000000c;

TEST(IfFailure, nothing_is_left_of_what_had_no_memory) {
    FakeShim zero{0}, two{2};
    zero.add_ethernet(4);
    zero.registration.handlers.cfg_sync = nullptr;
    ASSERT_EQ(qel_netinfra_init(0), 0u);
    std::string log;
    const int failures = fail_each_allocation([&] {
        std::uint32_t app = 0, scope = 0, reg = 0;
        qel_if_bind_attr attr;
        qel_if_bind_attr_init(&attr);
        attr.scope = &scope;
        attr.options = 0;
        cerrno error = qel_if_bind(&app, "test", &attr);
        EXPECT_EQ(error != 0, app == 0);
        if (error == 0) {
            qel_if_event_cb_vector vector{};
            vector.mtu = [](auto, auto, auto) {};
            error = qel_if_register_callbacks(app, &vector, nullptr, 0, &reg);
            EXPECT_TRUE(error == 0 || reg == 0);
            const std::uint64_t handles[2] = {4, 4};
            std::uint32_t speeds[2];
            cerrno results[2];
            const cerrno read = qel_if_bulk_get_speed(app, handles, speeds, results, 2);
            EXPECT_TRUE(read == 0 || read == kNoMemory) << read;
            EXPECT_EQ(qel_if_destroy(&app), 0u);
        }
        log += zero.take_log() + two.take_log();
    });
    EXPECT_GT(failures, 12);
    EXPECT_EQ(qel_if_get_num_shim_reg(), 2u);
    auto count = [&log](const std::string& what) {
        int found = 0;
        for (std::size_t at = 0; (at = log.find(what, at)) != std::string::npos; ++at) ++found;
        return found;
    };
    EXPECT_EQ(count("bind0"), count("destroy0"));
    EXPECT_EQ(count(" register2"), count("deregister2"));
    EXPECT_EQ(qel_netinfra_fini(), 0u);
}

TEST(IfFailure, the_default_shim_comes_without_memory_or_whole) {
    if (!enter_own_network()) GTEST_SKIP() << "no right to a network namespace";
    Links links;
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(links.add("l" + std::to_string(i)));
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, "client", QEL_DM_PRIVATE), 0);
    const int descriptors = open_descriptors();
    const int failures = fail_each_allocation([&] {
        std::uint32_t app = 0, scope = 0, reg = 0;
        qel_if_init_attr attr{&scope, dm};
        if (qel_if_init(&app, "test", &attr) != 0) {
            qel_if_clear_shim_reg_error();
            return;
        }
        qel_if_event_cb_vector vector{};
        vector.created = [](auto, auto, auto) {};
        static_cast<void>(qel_if_register_callbacks(app, &vector, nullptr, 0, &reg));
        qel_if_iteration_filter filter;
        qel_if_iteration_filter_init(&filter);
        qel_if_iterator* it = nullptr;
        if (qel_if_iterator_start(app, &filter, &it) == 0) {
            EXPECT_EQ(qel_if_iterator_end(app, it), 0u);
        }
        EXPECT_EQ(qel_if_destroy(&app), 0u);
    });
    EXPECT_GT(failures, 15);
    EXPECT_LE(open_descriptors(), descriptors);
    qel_dm_destroy(&dm);
}

// --- The kernel's words

std::vector<std::byte> message(std::uint16_t type, const std::string& attributes, std::int32_t index = 3,
                               std::uint8_t family = AF_UNSPEC) {
    nlmsghdr header{};
    ifinfomsg body{};
    body.ifi_family = family;
    body.ifi_type = 1;
    body.ifi_index = index;
    header.nlmsg_type = type;
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + sizeof(body) + attributes.size());
    std::vector<std::byte> bytes(sizeof(header) + sizeof(body) + ((attributes.size() + 3) & ~std::size_t{3}));
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::memcpy(bytes.data() + sizeof(header), &body, sizeof(body));
    std::memcpy(bytes.data() + sizeof(header) + sizeof(body), attributes.data(), attributes.size());
    return bytes;
}
std::string attribute(std::uint16_t type, std::string value) {
    const auto length = static_cast<std::uint16_t>(value.size() + 4);
    value.resize((value.size() + 3) & ~std::size_t{3});
    return std::string{reinterpret_cast<const char*>(&length), 2} +
           std::string{reinterpret_cast<const char*>(&type), 2} + value;
}
std::vector<netlink::Message> read_all(std::span<const std::byte> datagram) {
    netlink::Reader reader{datagram};
    std::vector<netlink::Message> all;
    for (netlink::Message one; reader.next(one);) all.push_back(one);
    return all;
}

TEST(IfNetlink, a_link_is_what_its_attributes_say_within_bounds) {
    using namespace std::string_literals;
    std::vector<std::byte> bytes =
        message(RTM_NEWLINK, attribute(IFLA_IFNAME, "eth7\0"s) + attribute(IFLA_ADDRESS, "\2\1\1\1\1\7"s) +
                                 attribute(IFLA_MTU, "\xdc\5\0\0"s) + attribute(IFLA_LINK, "\2\0\0\0"s));
    const std::vector<std::byte> second =
        message(RTM_DELLINK, attribute(IFLA_IFNAME, std::string(100, 'x')), 4);
    bytes.insert(bytes.end(), second.begin(), second.end());
    auto all = read_all(bytes);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].kind, netlink::Kind::new_link);
    EXPECT_STREQ(all[0].link.name.data(), "eth7");
    EXPECT_EQ(all[0].link.index * 1000000 + all[0].link.mtu * 10 + all[0].link.base, 3015002u);
    EXPECT_EQ(all[0].link.address_length, 6);
    EXPECT_EQ(all[1].kind, netlink::Kind::deleted_link);
    EXPECT_EQ(std::string{all[1].link.name.data()}, std::string(63, 'x'));
    EXPECT_FALSE(all[1].link.has_mtu);

    all = read_all(message(RTM_NEWLINK, attribute(IFLA_MTU, "\1\2"s) + attribute(IFLA_ADDRESS, "\1\2"s) +
                                            attribute(IFLA_IFNAME, ""s)));
    ASSERT_EQ(all.size(), 1u);
    EXPECT_FALSE(all[0].link.has_mtu);
    EXPECT_EQ(all[0].link.address_length, 2);
    EXPECT_STREQ(all[0].link.name.data(), "");
    EXPECT_EQ(read_all(message(RTM_DELLINK, "", 3, AF_BRIDGE)).at(0).kind, netlink::Kind::other);
    EXPECT_EQ(read_all(message(RTM_NEWLINK, "", -3)).at(0).kind, netlink::Kind::other);
}

TEST(IfNetlink, lengths_are_not_believed) {
    const std::vector<std::byte> good = message(RTM_NEWLINK, attribute(IFLA_MTU, std::string(4, '\1')));
    for (std::size_t size = 0; size < good.size(); ++size)
        EXPECT_TRUE(read_all(std::span{good}.first(size)).empty()) << size;
    for (std::uint32_t length : {0u, 15u, 41u, 0xfffffff0u, 0xffffffffu}) {
        std::vector<std::byte> bad = good;
        std::memcpy(bad.data(), &length, sizeof(length));
        EXPECT_TRUE(read_all(bad).empty()) << length;
    }
    for (std::uint16_t length : std::initializer_list<std::uint16_t>{0, 3, 9, 0xffff}) {
        std::vector<std::byte> bad = good;
        std::memcpy(bad.data() + 32, &length, sizeof(length));
        ASSERT_EQ(read_all(bad).size(), 1u);
        EXPECT_FALSE(read_all(bad)[0].link.has_mtu) << length;
    }
}

TEST(IfNetlink, the_request_for_a_list_is_these_bytes) {
    const auto request = netlink::list_request(0x01020304);
    const unsigned char expected[17] = {17, 0, 0, 0, 18, 0, 1, 3, 1, 0, 0, 0, 4, 3, 2, 1, 17};
    EXPECT_EQ(std::memcmp(request.data(), expected, sizeof(expected)), 0);
}

}  // namespace
