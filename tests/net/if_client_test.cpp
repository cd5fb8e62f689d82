// Clients of the interface service and the shims that they are bound to.
#include "net/if_support.hpp"

#include <cstdlib>
#include <thread>

using namespace qel_test;

namespace {

cerrno bind_with(qel_if_bind_attr attr, std::uint32_t* app) {
    return qel_if_bind(app, "test", &attr);
}

TEST(IfClient, bind_refuses_what_it_can_t_serve) {
    std::uint32_t app = 7, scope = 0;
    qel_if_bind_attr attr;
    EXPECT_EQ(qel_if_bind_attr_init(nullptr), kInvalid);
    ASSERT_EQ(qel_if_bind_attr_init(&attr), 0u);
    EXPECT_EQ(attr.options, QEL_IF_OPTION_BIND_ALLOW_DELETED);
    EXPECT_EQ(bind_with(attr, &app), kInvalid) << "no scope";
    attr.scope = &scope;
    EXPECT_EQ(bind_with(attr, nullptr), kInvalid);
    EXPECT_EQ(qel_if_bind(&app, nullptr, &attr), kInvalid);
    attr.qdm = 12345;
    EXPECT_EQ(bind_with(attr, &app), kInvalid);
    attr.qdm = 0;
    attr.magic = 0;
    EXPECT_EQ(bind_with(attr, &app), kUnmarked);
    EXPECT_EQ(qel_if_init(&app, "test", nullptr), kInvalid);
    EXPECT_EQ(app, 7u);
}

TEST(IfClient, shims_are_bound_in_order_and_unbound_when_one_refuses) {
    FakeShim zero{0}, three{3};
    {
        IfClient client;
        ASSERT_EQ(client.bind_result, 0u);
        EXPECT_EQ(zero.take_log() + three.take_log(), "bind0 bind3 ");
        std::uint32_t scope = 0;
        EXPECT_EQ(qel_if_get_scope(client.app, &scope), 0u);
        EXPECT_EQ(scope, 5u);
        EXPECT_EQ(qel_if_get_app_handle_refcount(client.app), 1u);
    }
    EXPECT_EQ(zero.take_log() + three.take_log(), "destroy0 destroy3 ");
    three.bind_result = 0xa0000001;
    EXPECT_EQ(IfClient{}.bind_result, 0xa0000001u);
    EXPECT_EQ(zero.take_log() + three.take_log(), "bind0 destroy0 bind3 ");
    three.bind_result = kNotYet;
    IfClient pending;
    EXPECT_EQ(pending.bind_result, kNotYet);
    EXPECT_NE(pending.app, 0u);
}

// What a shim says of a bind that is under way reaches the client when it is over; and who holds a client
// whose bind failed may go on reading.
TEST(IfClient, callbacks_and_ends_wait_for_the_bind) {
    static cerrno registered;
    static std::atomic<int> told;
    static qel_if_client* held;
    registered = 1;
    told = 0;
    FakeShim zero{0}, one{1, false};
    one.registration.handlers.bind = [](const Info* info) {
        qel_if_shim_bind_status status;
        qel_if_shim_bind_status_init(&status);
        status.app = info->app;
        EXPECT_EQ(qel_if_shim_report_bind_status(&status), 0u);
        EXPECT_EQ(qel_if_retain_client_ctx(info->app, &held), 0u);
        std::this_thread::sleep_for(20ms);
        return FakeShim::of(info).bind_result;
    };
    one.enroll();
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, "served", QEL_DM_PRIVATE), 0);
    std::thread server([dm] {
        while (qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    });
    std::uint32_t app = 0, scope = 0;
    qel_if_bind_attr attr;
    qel_if_bind_attr_init(&attr);
    attr.scope = &scope;
    attr.qdm = dm;
    attr.bind_status_cb = [](const qel_if_bind_status* status) {
        const qel_if_event_cb_vector vector{};
        std::uint32_t reg = 0;
        registered = qel_if_register_callbacks(status->app, &vector, nullptr, 0, &reg);
        ++told;
    };
    EXPECT_EQ(qel_if_bind(&app, "bound", &attr), 0u);
    EXPECT_TRUE(eventually([] { return told == 1; }));
    EXPECT_EQ(registered, 0u);
    EXPECT_EQ(qel_if_release_client_ctx(held), 0u);
    EXPECT_EQ(qel_if_destroy(&app), 0u);

    zero.take_log();
    one.bind_result = kDown;
    EXPECT_EQ(qel_if_bind(&app, "refused", &attr), kDown);
    EXPECT_EQ(zero.take_log(), "bind0 ");
    EXPECT_EQ(qel_if_release_client_ctx(held), 0u);
    EXPECT_EQ(zero.take_log(), "destroy0 ");
    EXPECT_EQ(qel_dm_destroy(&dm), 0);
    server.join();
    EXPECT_EQ(told, 1);
}

TEST(IfClient, at_most_as_many_bind_as_the_parameter_of_the_first_says) {
    FakeShim shim{0};
    ASSERT_EQ(qel_ppm_set_integer("qel.if.max.bind", 2), 0);
    {
        IfClient first, second, third;
        EXPECT_EQ(first.bind_result | second.bind_result, 0u);
        EXPECT_EQ(third.bind_result, kNotThere);
        ASSERT_EQ(qel_ppm_set_integer("qel.if.max.bind", 3), 0);
        EXPECT_EQ(IfClient{}.bind_result, kNotThere) << "the pool is the old one";
        EXPECT_EQ(qel_if_destroy(&second.app), 0u);
        EXPECT_EQ(IfClient{}.bind_result, 0u);
    }
    IfClient first, second, third;
    EXPECT_EQ(third.bind_result, 0u);
    qel_ppm_remove("qel.if.max.bind");
}

TEST(IfClient, one_of_many_ends_it) {
    FakeShim shim{0};
    for (int round = 0; round < 300; ++round) {
        IfClient client;
        const std::uint32_t app = std::exchange(client.app, 0);
        shim.take_log();
        std::atomic<int> ended = 0;
        auto destroy = [&] {
            std::uint32_t mine = app, type = 0;
            const cerrno error = qel_if_destroy(&mine);
            EXPECT_TRUE(error == 0 || error == kInvalid) << error;
            ended += mine == 0;
            EXPECT_EQ(qel_if_get_type(app, 1, &type), kInvalid);
        };
        std::thread first{destroy}, second{destroy};
        first.join();
        second.join();
        EXPECT_EQ(ended, 1);
        EXPECT_TRUE(eventually([&] { return qel_if_get_app_handle_refcount(app) == 0; }));
        EXPECT_EQ(shim.take_log(), "destroy0 ");
        std::uint32_t again = app;
        EXPECT_EQ(qel_if_destroy(&again), kInvalid);
    }
}

TEST(IfClient, a_held_client_outlives_its_end) {
    FakeShim shim{0};
    shim.add_ethernet(4);
    IfClient client;
    qel_if_client* held = nullptr;
    ASSERT_EQ(qel_if_retain_client_ctx(client.app, &held), 0u);
    const std::uint32_t app = client.app;
    EXPECT_EQ(qel_if_destroy(&client.app), 0u);
    EXPECT_TRUE(qel_if_client_ctx_is_gone(app));
    std::uint32_t type = 0;
    EXPECT_EQ(qel_if_shim_get_type(held, 4, &type), 0u);
    EXPECT_EQ(qel_if_retain_client_ctx(app, &held), kInvalid);
    shim.take_log();
    EXPECT_EQ(qel_if_release_client_ctx(held), 0u);
    EXPECT_EQ(shim.take_log(), "destroy0 ");
}

TEST(IfClient, a_broken_registration_fails_all_binds_until_it_is_forgotten) {
    FakeShim shim{0};
    {
        FakeShim broken{5, false};
        broken.registration.handlers.group_iterator_start = [](const Info*, std::uint32_t,
                                                               const qel_if_bd_iteration_filter*,
                                                               qel_if_group_iterator**) { return cerrno{0}; };
        EXPECT_EQ(qel_if_shim_register(&broken.registration), kInvalid);
        broken.registration.id = 8;
        EXPECT_EQ(qel_if_shim_register(&broken.registration), 0xa0000022u);
        EXPECT_EQ(IfClient{}.bind_result, kInvalid) << "the first error";
        EXPECT_EQ(qel_netinfra_init(0), kInvalid);
        EXPECT_EQ(qel_if_get_num_shim_reg(), 1u);
        EXPECT_EQ(qel_if_shim_deregister(5), kNotThere);
        EXPECT_EQ(qel_if_shim_deregister(8), 0xa0000022u);
    }
    qel_if_shim_table* table = qel_if_backup_shim_reg();
    ASSERT_NE(table, nullptr);
    qel_if_clear_shim_reg();
    EXPECT_EQ(qel_if_get_num_shim_reg(), 0u);
    EXPECT_EQ(IfClient{}.bind_result, 0u) << "there is the default shim";
    EXPECT_EQ(qel_if_shim_deregister(0), 0u);
    qel_if_restore_shim_reg(table);
    EXPECT_EQ(table->reg_error, kInvalid);
    EXPECT_EQ(table->slot_error[5], kInvalid);
    std::free(table);
    EXPECT_EQ(IfClient{}.bind_result, kInvalid);
    qel_if_clear_shim_reg_error();
    EXPECT_EQ(qel_if_shim_register(&shim.registration), 0xa0000011u) << "and that is an error again";
    qel_if_clear_shim_reg_error();
    EXPECT_EQ(IfClient{}.bind_result, 0u);
}

TEST(IfClient, slots_come_and_go_beside_readers) {
    FakeShim shim{0};
    shim.add_ethernet(4);
    IfClient client;
    std::atomic<bool> stop = false;
    auto read = [&] {
        std::uint32_t type = 0;
        while (!stop) {
            EXPECT_EQ(qel_if_get_type(client.app, 4, &type), 0u);
            const cerrno error = qel_if_get_type(client.app, handle_of(5, 4), &type);
            EXPECT_TRUE(error == kNotThere || error == kInvalid) << error;
        }
    };
    std::thread one{read}, two{read};
    for (int round = 0; round < 500; ++round) FakeShim five{5};
    stop = true;
    one.join();
    two.join();
}

TEST(IfClient, groups_are_the_first_shim_s_that_has_them) {
    FakeShim zero{0, false}, two{2, false};
    static std::uint64_t words[3];
    static qel_if_group_iterator iterator;
    zero.registration.handlers.get_group_from_id = [](const Info*, std::uint64_t, std::uint32_t, void*, void*,
                                                      void*) { return kUnsupported; };
    two.registration.handlers.get_group_from_id = [](const Info*, std::uint64_t id, std::uint32_t type,
                                                     void* a, void*, void*) {
        *static_cast<std::uint64_t*>(a) = id * 10 + type;
        return cerrno{0};
    };
    two.registration.handlers.group_iterator_start =
        [](const Info*, std::uint32_t, const qel_if_bd_iteration_filter*, qel_if_group_iterator** it) {
            *it = &iterator;
            return cerrno{0};
        };
    two.registration.handlers.group_iterator_get_next = [](const Info* info, std::uint32_t,
                                                           qel_if_group_iterator*, std::uint64_t* id) {
        *id = info->shim_id;
        return cerrno{0};
    };
    two.registration.handlers.group_iterator_end = [](const Info*, std::uint32_t, qel_if_group_iterator*) {
        return cerrno{0};
    };
    zero.enroll();
    two.enroll();
    IfClient client;
    EXPECT_EQ(qel_if_get_bd_from_id(client.app, 4, &words[0], &words[1], &words[2]), 0u);
    EXPECT_EQ(words[0], 41u);
    EXPECT_EQ(qel_if_get_port_channel_from_id(client.app, 4, &words[0], &words[1], &words[2]), 0u);
    EXPECT_EQ(words[0], 43u);
    EXPECT_EQ(qel_if_get_bd_from_name(client.app, "x", &words[0], &words[1], &words[2]), kUnsupported);
    EXPECT_EQ(qel_if_get_bd_from_id(client.app, 4, &words[0], nullptr, &words[2]), kInvalid);
    qel_if_bd_iteration_filter filter{};
    qel_if_group_iterator* it = nullptr;
    EXPECT_EQ(qel_if_bd_iterator_start(client.app, &filter, &it), kInvalid);
    qel_if_bd_iteration_filter_init(&filter);
    ASSERT_EQ(qel_if_bd_iterator_start(client.app, &filter, &it), 0u);
    std::uint64_t id = 0;
    EXPECT_EQ(qel_if_bd_iterator_get_next(client.app, it, &id), 0u);
    EXPECT_EQ(id, 2u);
    it->shim_id = UINT32_MAX;
    EXPECT_EQ(qel_if_bd_iterator_get_next(client.app, it, &id), kUnsupported);
    it->shim_id = 2;
    it->app ^= 1;
    EXPECT_EQ(qel_if_bd_iterator_end(client.app, it), kInvalid);
    it->app ^= 1;
    EXPECT_EQ(qel_if_bd_iterator_end(client.app, it), 0u);
}

TEST(IfClient, names_end_with_their_enumerations) {
    EXPECT_STREQ(qel_if_get_printable_type(QEL_IF_TYPE_VFI), "QEL_IF_TYPE_VFI");
    EXPECT_STREQ(qel_if_get_printable_encap(QEL_IF_ENCAP_MPLS), "QEL_IF_ENCAP_MPLS");
    EXPECT_STREQ(qel_if_get_printable_oper_state(QEL_IF_OPER_DOWN), "down");
    EXPECT_STREQ(qel_if_get_printable_admin_state(QEL_IF_ADMIN_UP), "admin up");
    EXPECT_STREQ(qel_if_attr_type_to_string(code(QEL_IF_ATTR_PC_ID_FROM_HANDLE)), "pc_id_from_handle");
    EXPECT_STREQ(qel_if_property_to_string(QEL_IF_PROPERTY_DELETED), "deleted");
    constexpr char kNone[] = "Invalid Attribute";
    EXPECT_STREQ(qel_if_get_printable_type(30), kNone);
    EXPECT_STREQ(qel_if_get_printable_encap(13), kNone);
    EXPECT_STREQ(qel_if_get_printable_encap_dot1q(4), kNone);
    EXPECT_STREQ(qel_if_get_printable_oper_state(2), kNone);
    EXPECT_STREQ(qel_if_get_printable_admin_state(2), kNone);
    EXPECT_STREQ(qel_if_get_printable_unidir_mode(3), kNone);
    EXPECT_STREQ(qel_if_get_printable_duplex_mode(3), kNone);
    EXPECT_STREQ(qel_if_get_printable_flow_control(3), kNone);
    EXPECT_STREQ(qel_if_get_printable_auto_negotiation(2), kNone);
    EXPECT_STREQ(qel_if_get_printable_stat(36), kNone);
    EXPECT_STREQ(qel_if_cfg_attr_type_to_string(22), kNone);
    EXPECT_STREQ(qel_if_attr_type_to_string(0xff000022), "unknown");
    EXPECT_STREQ(qel_if_property_to_string(7), "unknown");
}

TEST(IfClient, a_place_matches_by_the_words_that_are_flagged) {
    const qel_if_phys_loc location{0, {1, 2, 3, 4, 5}};
    for (std::uint32_t flags = 0; flags < 64; ++flags) {
        for (int wrong = 0; wrong < 5; ++wrong) {
            qel_if_phys_loc filter{flags, {1, 2, 3, 4, 5}};
            filter.word[wrong] = 9;
            const bool is_last = (flags & QEL_IF_PHYS_LOC_LAST) != 0;
            const int last = (flags & QEL_IF_PHYS_LOC_WORD_5) != 0 ? 4 : 3;
            const bool counts = is_last ? wrong == last : (flags >> (wrong + 1) & 1) != 0;
            EXPECT_EQ(qel_if_iterator_physical_loc_match(&filter, &location), !counts) << flags << wrong;
        }
    }
    EXPECT_FALSE(qel_if_iterator_physical_loc_match(nullptr, &location));
}

}  // namespace
