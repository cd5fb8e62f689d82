// VRFs: clients and the lookups that Linux doesn't have.
#include "support/support.hpp"

#include <qel/idm.h>
#include <qel/vrf.h>

#include <thread>

using namespace qel_test;

namespace {

constexpr cerrno kInvalid = 0xa0000016, kUnsupported = 0xa000005f;

std::uint32_t bind() {
    std::uint32_t app = 0;
    qel_vrf_attr attr{};
    EXPECT_EQ(qel_vrf_attr_init(&attr), 0u);
    EXPECT_EQ(qel_vrf_bind(&app, "test", &attr), 0u);
    return app;
}

TEST(Vrf, records_are_checked_by_their_mark) {
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, "vrf", QEL_DM_PRIVATE), 0);
    qel_vrf_attr attr{1, 12345};
    EXPECT_EQ(qel_vrf_attr_init(nullptr), kInvalid);
    EXPECT_EQ(qel_vrf_attr_init(&attr), kInvalid);
    EXPECT_EQ(attr.qdm, 12345u);
    std::uint32_t app = 0;
    EXPECT_EQ(qel_vrf_bind(&app, "test", &attr), 0u) << "unmarked: its dispatcher isn't looked at";
    EXPECT_EQ(qel_vrf_unbind(&app), 0u);
    attr.magic = QEL_IF_MAGIC;
    EXPECT_EQ(qel_vrf_bind(&app, "test", &attr), kInvalid);
    attr.qdm = dm;
    EXPECT_EQ(qel_vrf_bind(nullptr, "test", &attr), kInvalid);
    EXPECT_EQ(qel_vrf_bind(&app, nullptr, &attr), kInvalid);
    EXPECT_EQ(qel_vrf_bind(&app, "test", nullptr), kInvalid);
    EXPECT_EQ(qel_vrf_bind(&app, "test", &attr), 0u);
    EXPECT_EQ(qel_vrf_attr_init(&attr), 0u);
    EXPECT_EQ(attr.magic, 0x8F3C8765u);
    EXPECT_EQ(attr.qdm, 0u);
    std::uint32_t copy = app;
    EXPECT_EQ(qel_vrf_unbind(&app), 0u);
    EXPECT_EQ(app, 0u);
    EXPECT_EQ(qel_vrf_unbind(&copy), kInvalid);
    EXPECT_NE(copy, 0u);
    EXPECT_EQ(qel_vrf_unbind(nullptr), kInvalid);
    qel_dm_destroy(&dm);
}

TEST(Vrf, sixteen_clients_and_again_after_the_last) {
    for (int round = 0; round < 3; ++round) {
        std::uint32_t apps[QEL_VRF_MAX_CLIENTS], one_more = 0;
        for (std::uint32_t& app : apps) app = bind();
        qel_vrf_attr attr{};
        EXPECT_EQ(qel_vrf_bind(&one_more, "one more", &attr), 0xa0000002u);
        EXPECT_EQ(one_more, 0u);
        qel_if_vrf vrf;
        for (std::uint32_t& app : apps) {
            EXPECT_EQ(qel_vrf_get_vrf_from_id(app, 1, &vrf), kUnsupported);
            EXPECT_EQ(qel_vrf_unbind(&app), 0u);
        }
    }
}

TEST(Vrf, lookups_check_and_then_have_no_vrfs) {
    std::uint32_t app = bind();
    qel_if_vrf vrf{1, {2, 3, 4, 5}};
    std::uint64_t id = 1;
    const char* name = "red";
    cerrno result = 7;
    const cerrno refused[] = {
        qel_vrf_get_vrf_from_id(app ^ 1, id, &vrf),
        qel_vrf_get_vrf_from_id(app, id, nullptr),
        qel_vrf_get_vrf_from_name(app, nullptr, &vrf),
        qel_vrf_get_vrf_from_name(app, name, nullptr),
        qel_vrf_bulk_get_vrf_from_id(app, nullptr, &vrf, &result, 1),
        qel_vrf_bulk_get_vrf_from_id(app, &id, nullptr, &result, 1),
        qel_vrf_bulk_get_vrf_from_id(app, &id, &vrf, nullptr, 1),
        qel_vrf_bulk_get_vrf_from_id(app, &id, &vrf, &result, 0),
        qel_vrf_bulk_get_vrf_from_name(app, nullptr, &vrf, &result, 1),
        qel_vrf_bulk_get_vrf_from_name(app, &name, &vrf, &result, 0),
    };
    for (std::size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i], kInvalid) << i;
    EXPECT_EQ(qel_vrf_get_vrf_from_id(app, id, &vrf), kUnsupported);
    EXPECT_EQ(qel_vrf_get_vrf_from_name(app, name, &vrf), kUnsupported);
    EXPECT_EQ(qel_vrf_bulk_get_vrf_from_id(app, &id, &vrf, &result, 1), kUnsupported);
    EXPECT_EQ(qel_vrf_bulk_get_vrf_from_name(app, &name, &vrf, &result, 1), kUnsupported);
    EXPECT_EQ(vrf.word[3], 5u);
    EXPECT_EQ(result, 7u);
    EXPECT_EQ(qel_vrf_unbind(&app), 0u);
}

// Clients come and go on several threads, the pool with them, while each is looked up and ended twice. The
// second time may meet the next client of a handle, whose generations are 256: in all, as many end as began.
TEST(Vrf, unbinds_meet_lookups_and_each_other) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int kRounds = 500;
#else
    constexpr int kRounds = 5000;
#endif
    std::atomic<int> ended = 0;
    auto client = [&ended] {
        for (int round = 0; round < kRounds; ++round) {
            const std::uint32_t app = bind();
            auto look = [app] {
                qel_if_vrf vrf;
                const cerrno error = qel_vrf_get_vrf_from_id(app, 1, &vrf);
                EXPECT_TRUE(error == kUnsupported || error == kInvalid) << error;
            };
            auto end = [app, &ended] {
                std::uint32_t mine = app;
                const cerrno error = qel_vrf_unbind(&mine);
                EXPECT_TRUE(error == 0 || error == kInvalid) << error;
                ended += mine == 0;
            };
            std::thread other([&] {
                look();
                end();
            });
            end();
            look();
            other.join();
        }
    };
    std::thread one(client), two(client);
    client();
    one.join();
    two.join();
    EXPECT_EQ(ended, 3 * kRounds);
}

}  // namespace
