// Events of interfaces: the forms of callbacks, filters, what is delivered and what is dropped, and context
// databases.
#include "net/if_support.hpp"

#include <thread>

using namespace qel_test;

namespace {

// What callbacks got: event, object, value, cookie; -1 for no value.
struct Got {
    std::uint32_t cbid;
    std::uint64_t object;
    std::int64_t value;
    std::uint64_t cookie;
    bool operator==(const Got&) const = default;
};
std::mutex got_mutex;
std::vector<Got> got;

void take(const Got& one) {
    std::lock_guard lock{got_mutex};
    got.push_back(one);
}
std::vector<Got> take_all() {
    std::lock_guard lock{got_mutex};
    return std::exchange(got, {});
}

template <std::uint32_t Id>
void on_word(std::uint64_t object, std::uint32_t value, std::uint64_t cookie) {
    take({Id, object, value, cookie});
}
template <std::uint32_t Id>
void on_value(std::uint64_t object, std::uint64_t value, std::uint64_t cookie) {
    take({Id, object, static_cast<std::int64_t>(value), cookie});
}
template <std::uint32_t Id>
void on_plain(std::uint64_t object, std::uint64_t cookie) {
    take({Id, object, -1, cookie});
}

template <std::size_t... I>
void fill_words(qel_if_event_cb_vector& vector, std::index_sequence<I...>) {
    ((vector.word_event[I] = on_word<17 + I>), ...);
}
template <std::size_t... I>
void fill_families(qel_if_event_cb_vector& vector, std::index_sequence<I...>) {
    ((vector.family[I / 2][I % 2] = on_plain<23 + I>), ...);
    ((vector.family_value[I / 2][I % 2] = on_value<38 + I>), ...);
    ((vector.family_word[I / 2] = on_word<33 + I / 2>), ...);
}

qel_if_event_cb_vector all_callbacks() {
    qel_if_event_cb_vector all{};
    all.created = on_word<0>;
    all.deleted = on_word<1>;
    all.mtu = on_word<2>;
    all.tx_bandwidth = on_word<3>;
    all.rx_bandwidth = on_word<4>;
    all.oper_state = on_word<5>;
    all.admin_state = on_word<6>;
    all.mac_addr = [](std::uint64_t o, const std::uint8_t* address, std::uint64_t c) {
        take({7, o, address[5], c});
    };
    all.encap_dot1q = [](std::uint64_t o, const qel_if_dot1q* tags, std::uint64_t c) {
        take({8, o, tags->word[2], c});
    };
    all.vrf = [](std::uint64_t o, const qel_if_vrf* vrf, std::uint64_t c) {
        take({9, o, static_cast<std::int64_t>(vrf->word[3]), c});
    };
    all.bd = [](std::uint64_t o, qel_if_bd bd, std::uint64_t c) {
        take({10, o, static_cast<std::int64_t>(bd.word[7]), c});
    };
    all.speed = on_word<11>;
    all.duplex_mode = on_word<12>;
    all.input_flow_control = on_word<13>;
    all.output_flow_control = on_word<14>;
    all.auto_negotiation = on_word<15>;
    all.byte_event = [](std::uint64_t o, std::uint8_t byte, std::uint64_t c) { take({16, o, byte, c}); };
    fill_words(all, std::make_index_sequence<6>{});
    fill_families(all, std::make_index_sequence<10>{});
    return all;
}

// A value of 72 bytes that says 42 wherever a form looks for a value.
struct Value {
    alignas(8) std::uint8_t bytes[72];
};
Value value_of(std::uint32_t cbid) {
    Value value{};
    const std::map<std::uint32_t, std::size_t> places{{7, 5}, {8, 8}, {9, 32}, {10, 64}};
    auto place = places.find(cbid);
    value.bytes[place == places.end() ? 0 : place->second] = 42;
    return value;
}

struct IfEvent : testing::Test {
    IfEvent() { zero.add_ethernet(4); }
    ~IfEvent() override { take_all(); }
    std::uint32_t enlist(const IfClient& client, const qel_if_event_filter* filter = nullptr,
                         std::uint64_t cookie = 7) {
        const qel_if_event_cb_vector vector = all_callbacks();
        std::uint32_t reg = 0;
        EXPECT_EQ(qel_if_register_callbacks(client.app, &vector, filter, cookie, &reg), 0u);
        return reg;
    }
    static cerrno report(std::uint32_t cbid, std::uint64_t object) {
        const Value value = value_of(cbid);
        return qel_if_shim_demux_and_report_event(cbid, &object, sizeof(object), &value, sizeof(value));
    }

    FakeShim zero{0};
};

TEST_F(IfEvent, every_callback_gets_the_arguments_of_its_form) {
    IfClient inline_client, queued{true};
    enlist(inline_client);
    enlist(queued);
    for (std::uint32_t cbid = 0; cbid < QEL_IF_EVENT_COUNT; ++cbid) {
        const bool is_plain = cbid >= 23 && cbid < 33;
        const std::uint64_t object = cbid < 23 ? 4 : 1000 + cbid;
        const Got expected{cbid, object, is_plain ? -1 : 42, 7};
        EXPECT_EQ(report(cbid, object), 0u);
        EXPECT_THAT(take_all(), testing::ElementsAre(expected)) << "the one without a dispatcher, at once";
        queued.dispatch_all();
        EXPECT_THAT(take_all(), testing::ElementsAre(expected));
    }
    EXPECT_EQ(report(48, 4), 0u);
    EXPECT_THAT(take_all(), testing::IsEmpty());
}

TEST_F(IfEvent, a_change_of_an_attribute_has_its_event) {
    IfClient client;
    enlist(client);
    const std::map<std::uint32_t, std::uint32_t> events{{5, 5},   {6, 6},   {11, 2},  {12, 3}, {13, 4},
                                                        {14, 12}, {15, 7},  {19, 8},  {20, 9}, {21, 10},
                                                        {25, 11}, {27, 13}, {28, 14}, {29, 15}};
    for (std::uint32_t index = 0; index < 40; ++index) {
        auto event = events.find(index);
        const std::uint32_t cbid = event == events.end() ? 0 : event->second;
        const Value value = value_of(cbid);
        const qel_if_shim_attr_change change{code(index), sizeof(value), &value};
        EXPECT_EQ(qel_if_shim_report_attr_change(4, &change), event == events.end() ? kUnsupported : 0u);
        const auto told = take_all();
        ASSERT_EQ(told.size(), event == events.end() ? 0u : 1u) << index;
        if (!told.empty()) {
            EXPECT_EQ(told[0], (Got{cbid, 4, 42, 7}));
        }
    }
    const std::uint8_t byte = 1;
    const qel_if_shim_attr_change too_short{code(QEL_IF_ATTR_MTU), 1, &byte};
    EXPECT_EQ(qel_if_shim_report_attr_change(4, &too_short), 0u);
    EXPECT_THAT(take_all(), testing::IsEmpty()) << "three bytes of a word aren't there";
}

TEST_F(IfEvent, filters_ask_the_shim_about_interfaces) {
    struct Case {
        const char* what;
        std::function<void(qel_if_event_filter&)> filter;
        std::function<void(FakeShim&)> shim;
        bool passes;
    };
    auto nothing = [](FakeShim&) {};
    auto type = [](std::uint32_t wanted) { return [wanted](qel_if_event_filter& f) { f.type = wanted; }; };
    auto hidden = [](qel_if_event_filter& f) { f.exclude = QEL_IF_EVENT_EXCLUDE_HIDDEN; };
    auto on_base = [](qel_if_event_filter& f) { f.ifh = 9; };
    auto in_bd = [](qel_if_event_filter& f) { f.bd = 3; };
    auto in_vrf = [](qel_if_event_filter& f) { f.vrf = 3; };
    const Case cases[] = {
        {"type", type(QEL_IF_TYPE_ETHERNET), nothing, true},
        {"other type", type(QEL_IF_TYPE_SERIAL), nothing, false},
        {"no type", type(QEL_IF_TYPE_ETHERNET),
         [](FakeShim& s) {
             s.errors[{4, QEL_IF_ATTR_IF_TYPE}] = kDown;
         },
         false},
        {"encap", [](qel_if_event_filter& f) { f.encap = QEL_IF_ENCAP_ETHER; }, nothing, true},
        {"other encap", [](qel_if_event_filter& f) { f.encap = QEL_IF_ENCAP_PPP; }, nothing, false},
        {"itself", [](qel_if_event_filter& f) { f.ifh = 4; },
         [](FakeShim& s) { s.set(4, QEL_IF_ATTR_BASE_IF, std::uint64_t{4}); }, true},
        {"itself, exact", [](qel_if_event_filter& f) { f.ifh = 4, f.ifh_exact = 1; }, nothing, true},
        {"itself, base unknown", [](qel_if_event_filter& f) { f.ifh = 4; }, nothing, false},
        {"base unknown", on_base, nothing, false},
        {"base", on_base, [](FakeShim& s) { s.set(4, QEL_IF_ATTR_BASE_IF, std::uint64_t{9}); }, true},
        {"exact", [](qel_if_event_filter& f) { f.ifh = 9, f.ifh_exact = 1; },
         [](FakeShim& s) { s.set(4, QEL_IF_ATTR_BASE_IF, std::uint64_t{9}); }, false},
        {"hidden unknown", hidden, nothing, true},
        {"hidden", hidden,
         [](FakeShim& s) {
             s.properties[{4, QEL_IF_PROPERTY_HIDDEN}] = 0;
         },
         false},
        {"deleted", [](qel_if_event_filter& f) { f.exclude = QEL_IF_EVENT_EXCLUDE_DELETED; },
         [](FakeShim& s) {
             s.properties[{4, QEL_IF_PROPERTY_DELETED}] = 0;
         },
         false},
        {"bd unknown", in_bd, nothing, true},
        {"bd", in_bd,
         [](FakeShim& s) {
             s.set(4, QEL_IF_ATTR_BD, qel_if_bd{3, {}});
         },
         true},
        {"other bd", in_bd,
         [](FakeShim& s) {
             s.set(4, QEL_IF_ATTR_BD, qel_if_bd{4, {}});
         },
         false},
        {"vrf unknown", in_vrf, nothing, true},
        {"other vrf", in_vrf,
         [](FakeShim& s) {
             s.set(4, QEL_IF_ATTR_IS_LAYER2, std::uint8_t{0});
             s.set(4, QEL_IF_ATTR_VRF, qel_if_vrf{4, {}});
         },
         false},
        {"object", [](qel_if_event_filter& f) { f.object = 3; }, nothing, false},
    };
    for (const Case& one : cases) {
        zero.values.clear();
        zero.errors.clear();
        zero.properties.clear();
        zero.add_ethernet(4);
        one.shim(zero);
        qel_if_event_filter filter;
        qel_if_event_filter_init(&filter);
        one.filter(filter);
        IfClient client;
        enlist(client, &filter);
        EXPECT_EQ(report(2, 4), 0u);
        EXPECT_EQ(take_all().size(), one.passes ? 1u : 0u) << one.what;
    }
}

TEST_F(IfEvent, a_value_is_read_no_further_than_it_goes) {
    IfClient client;
    enlist(client);
    const std::unique_ptr<std::uint32_t> word{new std::uint32_t{5}};
    for (std::uint32_t cbid : {2u, 44u, 45u})
        qel_if_event_demux_and_notify(4, cbid, word.get(), sizeof(*word));
    EXPECT_THAT(take_all(), testing::ElementsAre(Got{2, 4, 5, 7}));
}

TEST_F(IfEvent, filters_know_the_object_of_a_family) {
    qel_if_event_filter filter;
    qel_if_event_filter_init(&filter);
    filter.vrf = 11;
    filter.bd = 12;
    filter.object = 42;
    IfClient client;
    enlist(client, &filter);
    struct Case {
        std::uint32_t cbid;
        std::uint64_t object;
        bool passes;
    };
    // One of the three is known, the other two match what can't be found out; but for the object.
    for (auto [cbid, object, passes] :
         {Case{23, 11, false}, {29, 42, true}, {29, 41, false}, {44, 5, true}, {36, 42, true}}) {
        EXPECT_EQ(report(cbid, object), 0u);
        EXPECT_EQ(take_all().size(), passes ? 1u : 0u) << cbid << " " << object;
    }
    filter.object = 0;
    IfClient other;
    enlist(other, &filter);
    for (auto [cbid, object, passes] :
         {Case{23, 11, true}, {38, 10, false}, {25, 12, true}, {26, 11, false}}) {
        EXPECT_EQ(report(cbid, object), 0u);
        EXPECT_EQ(take_all().size(), passes ? 1u : 0u) << cbid << " " << object;
    }
}

TEST(IfEventShims, a_shim_that_filters_itself_is_believed) {
    FakeShim zero{0, false}, two{2};
    zero.registration.flags = QEL_IF_SHIM_FILTERS_EVENTS;
    zero.enroll();
    two.add_ethernet(handle_of(2, 4));
    IfClient client;
    const qel_if_event_cb_vector vector = all_callbacks();
    qel_if_event_filter filter;
    qel_if_event_filter_init(&filter);
    filter.type = QEL_IF_TYPE_SERIAL;
    std::uint32_t reg = 0, one_shim = 0;
    zero.take_log();
    two.take_log();
    ASSERT_EQ(qel_if_register_callbacks(client.app, &vector, &filter, 7, &reg), 0u);
    filter.ifh = handle_of(2, 4);
    ASSERT_EQ(qel_if_register_callbacks(client.app, &vector, &filter, 7, &one_shim), 0u);
    EXPECT_EQ(zero.take_log() + two.take_log(), "register0 register2 register2 ");
    EXPECT_EQ(two.last_reg.num_cbids, 46u);
    EXPECT_EQ(two.last_reg.num_regs, 2u);
    const qel_if_shim_if_event event{4, "\1\0\0"};
    EXPECT_EQ(qel_if_shim_report_if_creation(4, &event), 0u);
    EXPECT_EQ(qel_if_shim_report_if_creation(handle_of(2, 4), &event), 0u);
    EXPECT_EQ(take_all().size(), 2u) << "of the first shim only";
    filter.ifh = handle_of(3, 4);
    EXPECT_EQ(qel_if_register_callbacks(client.app, &vector, &filter, 7, &reg), kInvalid) << "no such shim";
    filter.ifh = QEL_IF_HANDLE_ANY;
    two.register_result = 0xa0000005;
    EXPECT_EQ(qel_if_register_callbacks(client.app, &vector, &filter, 7, &reg), 0xa0000005u);
    EXPECT_THAT(zero.take_log(), testing::HasSubstr("register0 deregister0"));
    EXPECT_EQ(qel_if_deregister_callbacks(client.app, &one_shim), 0u);
    EXPECT_THAT(two.take_log(), testing::EndsWith("deregister2 "));
    EXPECT_EQ(one_shim, 0u);
}

TEST_F(IfEvent, what_waits_is_dropped_or_delivered_by_its_kind) {
    IfClient client{true};
    std::uint32_t reg = enlist(client);
    const qel_if_shim_if_event event{4, "\1\0\0"};
    EXPECT_EQ(qel_if_shim_report_if_creation(4, &event), 0u);
    EXPECT_EQ(report(17, 4), 0u);
    const std::uint32_t old = reg;
    EXPECT_EQ(qel_if_deregister_callbacks(client.app, &reg), 0u);
    // What waits for a registration that has gone keeps no handle from the next.
    for (int i = 0; i < 300; ++i) {
        std::uint32_t brief = enlist(client, nullptr, 9);
        EXPECT_EQ(qel_if_shim_report_if_creation(4, &event), 0u);
        EXPECT_EQ(qel_if_deregister_callbacks(client.app, &brief), 0u);
    }
    const std::uint32_t again = enlist(client, nullptr, 8);
    client.dispatch_all();
    EXPECT_THAT(take_all(), testing::ElementsAre(Got{17, 4, 42, 7}));
    std::uint32_t stale = old;
    if (old != again) {
        EXPECT_EQ(qel_if_deregister_callbacks(client.app, &stale), kInvalid);
    }
    IfClient foreign;
    stale = again;
    EXPECT_EQ(qel_if_deregister_callbacks(foreign.app, &stale), kInvalid);
    EXPECT_EQ(report(17, 4), 0u);
    const qel_dm_handle dm = std::exchange(client.dm, 0);
    EXPECT_EQ(qel_if_destroy(&client.app), 0u);
    qel_dm_handle mine = dm;
    qel_dm_destroy(&mine);
    EXPECT_THAT(take_all(), testing::IsEmpty()) << "its client has gone";
    qel_if_shim_event late;
    EXPECT_EQ(qel_if_shim_event_init(&late), 0u);
    late.reg_handle = again;
    EXPECT_EQ(qel_if_shim_report_event(&late), kInvalid);
}

TEST_F(IfEvent, a_lost_binding_ends_registrations_and_tells_the_client) {
    static qel_if_bind_status told;
    IfClient bystander;
    std::uint32_t app = 0, scope = 0;
    qel_if_bind_attr attr;
    qel_if_bind_attr_init(&attr);
    attr.scope = &scope;
    attr.cookie = 9;
    attr.bind_status_cb = [](const qel_if_bind_status* status) { told = *status; };
    ASSERT_EQ(qel_if_bind(&app, "no dispatcher", &attr), 0u);
    qel_if_shim_bind_status report_of;
    EXPECT_EQ(qel_if_shim_report_bind_status(nullptr), kInvalid);
    qel_if_shim_bind_status_init(&report_of);
    report_of.app = app;
    EXPECT_EQ(qel_if_shim_report_bind_status(&report_of), kInvalid) << "it can't be told";
    report_of.magic = 0;
    EXPECT_EQ(qel_if_shim_report_bind_status(&report_of), kUnmarked);
    EXPECT_EQ(qel_if_destroy(&app), 0u);

    IfClient dispatcher{true};
    attr.qdm = dispatcher.dm;
    ASSERT_EQ(qel_if_bind(&app, "told", &attr), 0u);
    const qel_if_event_cb_vector vector = all_callbacks();
    std::uint32_t reg = 0, type = 0;
    ASSERT_EQ(qel_if_register_callbacks(app, &vector, nullptr, 7, &reg), 0u);
    EXPECT_EQ(report(17, 4), 0u);
    EXPECT_EQ(qel_if_shim_demux_and_report_bind_status(1, 2, 3), 0u);
    dispatcher.dispatch_all();
    EXPECT_THAT(take_all(), testing::IsEmpty());
    EXPECT_EQ(told.app, app);
    EXPECT_EQ(told.status * 100 + static_cast<int>(told.reason) * 10 + told.flag, 123);
    EXPECT_EQ(told.cookie, 9u);
    EXPECT_EQ(qel_if_deregister_callbacks(app, &reg), kInvalid);
    EXPECT_EQ(qel_if_get_type(app, 4, &type), 0u) << "the client stays";
    EXPECT_EQ(qel_if_destroy(&app), 0u);
}

// Registrations come and go on several threads while events are reported and the client ends.
TEST_F(IfEvent, registrations_may_end_from_both_sides) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kRounds = 200;
#else
    constexpr int kRounds = 2000;
#endif
    for (int round = 0; round < kRounds; ++round) {
        IfClient client;
        std::uint32_t app = std::exchange(client.app, 0);
        const qel_if_event_cb_vector vector = all_callbacks();
        auto enroll = [&, app] {
            for (;;) {
                std::uint32_t reg = 0;
                const cerrno error = qel_if_register_callbacks(app, &vector, nullptr, 7, &reg);
                EXPECT_TRUE(error == 0 || error == kInvalid) << error;
                if (error != 0 || qel_if_deregister_callbacks(app, &reg) != 0) return;
            }
        };
        std::thread one{enroll}, two{enroll}, three{[] {
            const qel_if_shim_if_event event{4, "\1\0\0"};
            for (int i = 0; i < 20; ++i) qel_if_shim_report_if_creation(4, &event);
        }};
        three.join();
        EXPECT_EQ(qel_if_destroy(&app), 0u);
        one.join();
        two.join();
        const std::string log = zero.take_log();
        auto count = [&log](const std::string& what) {
            int found = 0;
            for (std::size_t at = 0; (at = log.find(what, at)) != std::string::npos; ++at) ++found;
            return found;
        };
        EXPECT_EQ(count(" register0"), count("deregister0"));
        EXPECT_EQ(count("bind0"), count("destroy0"));
    }
}

// --- Context databases

std::vector<std::pair<std::uint64_t, void*>> freed;
void on_free(std::uint64_t ifh, qel_if_ctx_db* db, void* context, qel_if_ctx_db* same) {
    EXPECT_EQ(db, same);
    freed.emplace_back(ifh, context);
}

TEST_F(IfEvent, contexts_leave_with_their_interface_after_the_callback) {
    static qel_if_ctx_db *first, *second;
    int one = 1, two = 2;
    void* found = nullptr;
    freed.clear();
    EXPECT_EQ(qel_if_ctx_create_db("db", nullptr, &first), kInvalid);
    ASSERT_EQ(qel_if_ctx_create_db("first", on_free, &first), 0u);
    ASSERT_EQ(qel_if_ctx_create_db("second", on_free, &second), 0u);
    EXPECT_EQ(qel_if_ctx_set(first, 4, &one), 0u);
    EXPECT_EQ(qel_if_ctx_set(first, 4, &two), 0xa0000011u);
    EXPECT_EQ(qel_if_ctx_set(first, 2, &two), 0u);
    EXPECT_EQ(qel_if_ctx_set(second, 4, &two), 0u);
    EXPECT_EQ(qel_if_ctx_set(first, 9, nullptr), kNotThere);
    EXPECT_EQ(qel_if_ctx_set(first, 0, &one), kInvalid);
    EXPECT_EQ(qel_if_ctx_get(first, 4, &found), 0u);
    EXPECT_EQ(found, &one);
    std::uint64_t ifh = 0;
    EXPECT_EQ(qel_if_ctx_db_get_first(first, &ifh), 0u);
    EXPECT_EQ(ifh, 2u);
    EXPECT_EQ(qel_if_ctx_db_get_next(first, 3, &ifh), 0u);
    EXPECT_EQ(ifh, 4u);
    EXPECT_EQ(qel_if_ctx_db_get_next(first, 4, &ifh), 0u);
    EXPECT_EQ(ifh, 0u);

    IfClient client;
    qel_if_event_cb_vector vector{};
    vector.deleted = [](std::uint64_t gone, std::uint32_t, std::uint64_t) {
        void* still = nullptr;
        EXPECT_EQ(qel_if_ctx_get(first, gone, &still), 0u);
    };
    std::uint32_t reg = 0;
    ASSERT_EQ(qel_if_register_callbacks(client.app, &vector, nullptr, 0, &reg), 0u);
    const qel_if_shim_if_event event{4, "\1\0\0"};
    EXPECT_EQ(qel_if_shim_report_if_deletion(4, &event), 0u);
    EXPECT_THAT(freed, testing::UnorderedElementsAre(testing::Pair(4, &one), testing::Pair(4, &two)));
    EXPECT_EQ(qel_if_ctx_get(first, 4, &found), kNotThere);
    EXPECT_EQ(qel_if_ctx_get(second, 4, &found), kNotThere);
    EXPECT_EQ(qel_if_ctx_destroy_db(first), 0u);
    EXPECT_THAT(freed, testing::Contains(testing::Pair(2, &two)));
    EXPECT_EQ(qel_if_ctx_get(first, 2, &found), kInvalid) << "a pointer to what was destroyed";
    EXPECT_EQ(qel_if_ctx_destroy_db(first), kInvalid);
    EXPECT_EQ(qel_if_ctx_destroy_db(second), 0u);
}

}  // namespace
