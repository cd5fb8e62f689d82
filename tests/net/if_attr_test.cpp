// Attributes of interfaces: the door to the shims, the service's rules, single reads and bulk reads.
#include "net/if_support.hpp"

using namespace qel_test;

namespace {

constexpr std::uint64_t kUp = 1, kDownLink = 2, kLoop = 3;

struct IfAttr : testing::Test {
    IfAttr() {
        for (std::uint64_t ifh : {kUp, kDownLink, kLoop}) zero.add_ethernet(ifh);
        zero.set_word(kDownLink, QEL_IF_ATTR_OPER_STATE, QEL_IF_OPER_DOWN);
        zero.set_word(kLoop, QEL_IF_ATTR_IF_TYPE, QEL_IF_TYPE_LOOPBACK);
    }
    std::uint32_t app() { return client.app; }

    FakeShim zero{0}, one{1};
    IfClient client;
};

TEST_F(IfAttr, speed_is_for_ethernet_that_is_up) {
    std::uint32_t speed = 0;
    zero.take_log();
    EXPECT_EQ(qel_if_get_speed(app(), kUp, &speed), 0u);
    EXPECT_EQ(speed, 1000u);
    EXPECT_EQ(zero.take_log(), "2@0 5@0 25@0 ");
    EXPECT_EQ(qel_if_get_speed(app(), kDownLink, &speed), kDown);
    EXPECT_EQ(zero.take_log(), "2@0 5@0 ");
    EXPECT_EQ(qel_if_get_speed(app(), kLoop, &speed), kUnsupported);
    EXPECT_EQ(zero.take_log(), "2@0 ");
    EXPECT_EQ(qel_if_get_speed_max(app(), kDownLink, &speed), 0u);
    EXPECT_EQ(speed, 2500u);
    zero.errors[{kUp, QEL_IF_ATTR_OPER_STATE}] = 0xa0000005;
    EXPECT_EQ(qel_if_get_input_flow_control(app(), kUp, &speed), 0xa0000005u);
}

TEST_F(IfAttr, encapsulation_and_layer_decide_about_tags_addresses_and_vrfs) {
    qel_if_dot1q tags{};
    qel_if_vrf vrf{};
    std::uint8_t address[6]{};
    zero.set(kUp, QEL_IF_ATTR_ENCAP_DOT1Q, qel_if_dot1q{{7, 8, 9}});
    zero.set(kUp, QEL_IF_ATTR_VRF, qel_if_vrf{77, {}});
    zero.set(kUp, QEL_IF_ATTR_MAC_ADDR, std::array<std::uint8_t, 6>{2, 0, 0, 0, 0, 1});
    zero.set(kUp, QEL_IF_ATTR_IS_LAYER2, std::uint8_t{1});
    EXPECT_EQ(qel_if_get_encap_dot1q(app(), kUp, &tags), kUnsupported);
    EXPECT_EQ(qel_if_get_vrf(app(), kUp, &vrf), kUnsupported);
    EXPECT_EQ(qel_if_get_ether_mac_address(app(), kUp, address), 0u);
    EXPECT_EQ(address[5], 1);
    zero.set_word(kUp, QEL_IF_ATTR_IF_ENCAP, QEL_IF_ENCAP_DOT1Q);
    zero.set(kUp, QEL_IF_ATTR_IS_LAYER2, std::uint8_t{0});
    EXPECT_EQ(qel_if_get_encap_dot1q(app(), kUp, &tags), 0u);
    EXPECT_EQ(tags.word[2], 9u);
    EXPECT_EQ(qel_if_get_vrf(app(), kUp, &vrf), 0u);
    EXPECT_EQ(vrf.id, 77u);
    zero.set_word(kUp, QEL_IF_ATTR_IF_ENCAP, QEL_IF_ENCAP_PPP);
    EXPECT_EQ(qel_if_get_ether_mac_address(app(), kUp, address), kUnsupported);
}

TEST_F(IfAttr, arguments_come_before_shims) {
    std::uint32_t word = 0;
    char name[64];
    zero.set(kUp, QEL_IF_ATTR_IF_NAME, std::array<char, 64>{"up"});
    zero.take_log();
    EXPECT_EQ(qel_if_get_mtu(app() ^ 0x1000000, kUp, &word), kInvalid);
    EXPECT_EQ(qel_if_get_mtu(app(), 0, &word), kInvalid);
    EXPECT_EQ(qel_if_get_mtu(app(), kUp, nullptr), kInvalid);
    EXPECT_EQ(qel_if_get_name(app(), kUp, name, 63), kInvalid);
    EXPECT_EQ(qel_if_get_description(app(), kUp, name, 199), kInvalid);
    EXPECT_EQ(qel_if_get_stat_supported(app(), kUp, 0, &word), kInvalid);
    EXPECT_EQ(qel_if_get_mtu(app(), handle_of(7, 1), &word), kNotThere);
    EXPECT_EQ(zero.take_log(), "");
    EXPECT_EQ(qel_if_get_name(app(), kUp, name, 64), 0u);
    EXPECT_STREQ(name, "up");
    FakeShim late{6};
    EXPECT_EQ(qel_if_get_mtu(app(), handle_of(6, 1), &word), kInvalid) << "registered after the bind";
    std::uint64_t ifh = 0;
    EXPECT_EQ(qel_if_get_handle(app(), "abc", &ifh), 0u);
    EXPECT_EQ(ifh, 3u);
}

TEST_F(IfAttr, a_deleted_interface_is_read_by_those_who_asked_to) {
    IfClient strict{false, 0};
    std::uint32_t type[3];
    cerrno results[3];
    const std::uint64_t handles[3] = {kUp, kDownLink, kLoop};
    zero.properties[{kUp, QEL_IF_PROPERTY_DELETED}] = 0;
    EXPECT_EQ(qel_if_get_type(app(), kUp, type), 0u);
    EXPECT_EQ(qel_if_get_type(strict.app, kUp, type), kInvalid);
    EXPECT_EQ(qel_if_get_type(strict.app, kDownLink, type), 0u) << "can't be asked";
    EXPECT_EQ(qel_if_bulk_get_type(strict.app, handles, type, results, 3), 0u);
    EXPECT_EQ(results[0], kInvalid);
    EXPECT_EQ(results[1] | results[2], 0u);
    zero.properties[{kLoop, QEL_IF_PROPERTY_DELETED}] = 0xa0000005;
    EXPECT_EQ(qel_if_get_type(strict.app, kLoop, type), 0xa0000005u);
    std::uint8_t has = 0;
    EXPECT_EQ(qel_if_has_attribute(app(), kUp, &has, QEL_IF_ATTRIBUTE_DELETED), 0u);
    EXPECT_EQ(has, 1);
    EXPECT_EQ(qel_if_has_attribute(app(), kUp, &has, 4), kInvalid);
}

// Set by the tests below, used by shims registered by them.
cerrno redirect_result;
std::uint32_t redirect_to;
int bulk_calls;

TEST(IfRedirect, another_shim_may_serve) {
    FakeShim zero{0, false}, one{1};
    zero.registration.handlers.get_redirect = [](const Info*, const qel_if_redirect* request,
                                                 std::uint32_t* id) {
        EXPECT_EQ(request->attr, code(QEL_IF_ATTR_MTU));
        *id = redirect_to;
        return redirect_result;
    };
    zero.enroll();
    IfClient client;
    std::uint32_t mtu = 0;
    zero.set_word(4, QEL_IF_ATTR_MTU, 1500);
    one.set_word(4, QEL_IF_ATTR_MTU, 9000);
    for (auto [to, result, expected, value] : {std::tuple{0u, 0u, 0u, 1500u},
                                               {1u, 0u, 0u, 9000u},
                                               {5u, 0u, kNotThere, 0u},
                                               {99u, 0u, kNotThere, 0u},
                                               {1u, 0xa0000007u, 0xa0000007u, 0u}}) {
        redirect_to = to;
        redirect_result = result;
        mtu = 0;
        EXPECT_EQ(qel_if_get_mtu(client.app, 4, &mtu), expected);
        EXPECT_EQ(mtu, value);
    }
}

TEST(IfBulk, is_one_call_for_one_shim_and_many_for_two) {
    FakeShim zero{0, false}, one{1};
    zero.registration.handlers.bulk_get_attr = [](const Info*, const std::uint64_t* handles, std::uint32_t,
                                                  qel_if_attr_data* data, cerrno* results,
                                                  std::size_t count) {
        ++bulk_calls;
        for (std::size_t i = 0; i < count; ++i) {
            *static_cast<std::uint32_t*>(data[i].value) = static_cast<std::uint32_t>(handles[i] * 100);
            results[i] = 0;
        }
        return cerrno{0};
    };
    zero.enroll();
    IfClient client;
    bulk_calls = 0;
    const std::uint64_t same[2] = {3, 4}, two[2] = {3, handle_of(1, 4)};
    std::uint32_t values[2];
    cerrno results[2];
    EXPECT_EQ(qel_if_bulk_get_mtu(client.app, same, values, results, 2), 0u);
    EXPECT_EQ(bulk_calls, 1);
    EXPECT_EQ(values[1], 400u);
    EXPECT_EQ(qel_if_bulk_get_mtu(client.app, two, values, results, 2), kUnsupported);
    EXPECT_EQ(bulk_calls, 1);
    one.set_word(two[1], QEL_IF_ATTR_MTU, 9000);
    EXPECT_EQ(qel_if_bulk_get_mtu(client.app, two, values, results, 2), 0u);
    EXPECT_EQ(results[0], kUnsupported);
    EXPECT_EQ(values[1], 9000u);
    for (std::size_t count : {0u, 2u})
        EXPECT_EQ(qel_if_bulk_get_mtu(client.app, same, values, count == 0 ? results : nullptr, count),
                  kInvalid);
}

TEST_F(IfAttr, rules_stand_in_the_entries_of_a_bulk_read) {
    const std::uint64_t handles[3] = {kUp, kDownLink, kLoop};
    std::uint32_t speeds[3] = {1, 1, 1};
    cerrno results[3];
    EXPECT_EQ(qel_if_bulk_get_speed(app(), handles, speeds, results, 3), 0u);
    EXPECT_THAT(speeds, testing::ElementsAre(1000, 0, 0));
    EXPECT_THAT(results, testing::ElementsAre(0u, kDown, kUnsupported));
    EXPECT_EQ(qel_if_bulk_get_speed_max(app(), handles, speeds, results, 3), 0u);
    EXPECT_THAT(speeds, testing::ElementsAre(2500, 2500, 0));
    zero.errors[{kUp, QEL_IF_ATTR_IF_TYPE}] = 0xa0000005;
    EXPECT_EQ(qel_if_bulk_get_speed_max(app(), handles, speeds, results, 3), 0u);
    EXPECT_THAT(results, testing::ElementsAre(0xa0000005u, 0u, kUnsupported));

    qel_if_vrf vrfs[3]{{1, {}}, {1, {}}, {1, {}}};
    for (std::uint64_t ifh : handles) zero.set(ifh, QEL_IF_ATTR_VRF, qel_if_vrf{ifh * 10, {}});
    zero.set(kUp, QEL_IF_ATTR_IS_LAYER2, std::uint8_t{0});
    zero.set(kDownLink, QEL_IF_ATTR_IS_LAYER2, std::uint8_t{1});
    zero.errors[{kLoop, QEL_IF_ATTR_IS_LAYER2}] = 0xa0000005;
    EXPECT_EQ(qel_if_bulk_get_vrf(app(), handles, vrfs, results, 3), 0u);
    EXPECT_THAT(results, testing::ElementsAre(0u, kUnsupported, 0xa0000005u));
    EXPECT_EQ(vrfs[0].id + vrfs[1].id + vrfs[2].id, 10u);

    qel_if_dot1q tags[3];
    for (std::uint64_t ifh : handles) zero.set(ifh, QEL_IF_ATTR_ENCAP_DOT1Q, qel_if_dot1q{{1, 2, 3}});
    zero.set_word(kLoop, QEL_IF_ATTR_IF_ENCAP, QEL_IF_ENCAP_DOT1Q);
    zero.errors[{kDownLink, QEL_IF_ATTR_IF_ENCAP}] = 0xa0000005;
    EXPECT_EQ(qel_if_bulk_get_encap_dot1q(app(), handles, tags, results, 3), 0u);
    EXPECT_THAT(results, testing::ElementsAre(kUnsupported, 0xa0000005u, 0u));
    EXPECT_EQ(tags[0].word[0] + tags[1].word[0] + tags[2].word[0], 1u);

    // Nobody has the attribute, and the rule tells why.
    for (std::uint64_t ifh : handles) zero.values.erase({ifh, QEL_IF_ATTR_SPEED});
    std::ranges::fill(speeds, 1);
    zero.errors.clear();
    EXPECT_EQ(qel_if_bulk_get_speed(app(), handles, speeds, results, 3), kUnsupported);
    EXPECT_THAT(results, testing::ElementsAre(kUnsupported, kDown, kUnsupported));
    EXPECT_THAT(speeds, testing::ElementsAre(1, 0, 0));
}

TEST_F(IfAttr, statistics_need_a_place_for_each) {
    const std::uint64_t handles[1] = {kUp};
    const std::uint32_t ids[2] = {QEL_IF_STAT_RX_BYTES, QEL_IF_STAT_TX_BYTES};
    std::uint64_t values[2];
    cerrno results[1], of_values[2];
    qel_if_stat_values places[1] = {{values, nullptr}};
    EXPECT_EQ(qel_if_bulk_get_stat(app(), handles, 1, ids, 2, results, places), kInvalid);
    places[0].results = of_values;
    EXPECT_EQ(qel_if_bulk_get_stat(app(), handles, 1, ids, 2, results, places), kUnsupported);
    EXPECT_EQ(qel_if_bulk_get_stat(app(), handles, 1, nullptr, 0, nullptr, nullptr), 0u);
    EXPECT_EQ(qel_if_get_port_channel_state(app(), handles, nullptr, results, 1), kInvalid);
    EXPECT_EQ(qel_if_get_port_channel_member_count(app(), handles, values, results, 1), kUnsupported);
    EXPECT_EQ(qel_if_add_mac_filter(app(), kUp, 1, nullptr), kInvalid);
    EXPECT_EQ(qel_if_remove_all_mac_filters(app(), kUp), kUnsupported);
    std::uint64_t native = 0;
    EXPECT_EQ(qel_if_shim_hdl_to_native_handle(kUp, &native), kUnsupported);
    EXPECT_EQ(qel_if_shim_hdl_to_native_handle(handle_of(6, 1), &native), kNotThere);
}

}  // namespace
