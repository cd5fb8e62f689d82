// The credit ledger alone: a header in memory, and one context for each end point of a channel that has no
// rings and no processes. Inside the library, so that the invariant can be asked for after every step.
#include "support/support.hpp"

#include <sys/mman.h>

#include <random>

#include "ipc/qel_ipc.hpp"

using namespace qel;

namespace {

constexpr std::uint32_t kMost = 6;

// A channel's accounts. Each end point has a context of its own, to which all others are open and attached.
struct Ledger {
    qel_ipc_hdr& header;
    qel_ipc_ctx ends[kMost]{};
    qel_ring ring{};

    static qel_ipc_hdr& make_header() {
        void* memory =
            mmap(nullptr, sizeof(qel_ipc_hdr), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return *static_cast<qel_ipc_hdr*>(memory);
    }
    Ledger(std::uint32_t total, std::uint32_t overflow, bool ext_cs = false) : header(make_header()) {
        header.total_msg = static_cast<std::uint16_t>(total);
        header.ofp_pool = static_cast<std::uint16_t>(overflow);
        header.hw_percent = 70;
        header.lw_percent = 30;
        header.max_eps = kMost;
        header.ext_cs = ext_cs;
        header.state = ChannelState::active;
        EXPECT_EQ(header.fc_lock.init() | header.shm_mutex.init(), 0);
        header.eps[0].ep_state = EndPointState::open;
        for (std::uint32_t ep = 0; ep < kMost; ++ep) make_end(ep, ext_cs);
        qel_ipc_fc_recalc(&ends[0]);
    }
    Ledger(const Ledger&) = delete;
    ~Ledger() { munmap(&header, sizeof header); }

    void make_end(std::uint32_t ep, bool ext_cs) {
        EXPECT_EQ(qel_sep_shm_init_once(&header.eps[ep].sep), 0u);
        header.eps[ep].sep.sep_state = QEL_SEP_STATE_RUNNING;
        qel_ipc_ctx& end = ends[ep];
        end.hdr = &header;
        end.ep = ep;
        end.role = ep == 0 ? QEL_IPC_ROLE_SERVER : QEL_IPC_ROLE_CLIENT;
        end.shape = {header.total_msg, 128, 0, kMost, ext_cs};
        for (std::uint32_t peer = 0; peer < kMost; ++peer) {
            end.eps[peer].open = 1;
            end.eps[peer].ring = &ring;
            end.eps[peer].sep = &header.eps[peer].sep;
        }
    }

    EndPointRecord& at(std::uint32_t ep) { return header.eps[ep]; }
    void set(std::uint32_t ep, EndPointState state) {
        at(ep).ep_state = state;
        qel_ipc_fc_recalc(&ends[0]);
    }
    void join(std::uint32_t ep) { set(ep, EndPointState::open); }
    std::uint32_t take(std::uint32_t ep, std::uint32_t count) {
        std::uint32_t taken = 0;
        while (taken < count && qel_ipc_fc_sub_credit(&ends[ep]) == 0) ++taken;
        return taken;
    }
    void give(std::uint32_t ep, std::uint32_t count, std::uint32_t by) {
        for (; count > 0; --count) qel_ipc_fc_add_credit(&ends[by], ep);
    }
    std::uint32_t signals(std::uint32_t ep) { return std::exchange(at(ep).sep.sep_flags, 0); }
};

#define EXPECT_SOUND(ledger) EXPECT_STREQ(ledger_check((ledger).header), nullptr)

TEST(Flow, water_marks_never_coincide_unless_the_base_is_zero) {
    struct Case {
        std::uint8_t high, low;
        std::uint32_t base, hw, lw;
    };
    for (const Case& c :
         {Case{70, 30, 128, 89, 38}, Case{70, 30, 1, 1, 0}, Case{70, 30, 0, 0, 0}, Case{100, 100, 50, 50, 49},
          Case{50, 50, 50, 26, 25}, Case{255, 0, 65535, 65535, 0}}) {
        qel_ipc_hdr header{};
        header.hw_percent = c.high;
        header.lw_percent = c.low;
        qel_ipc_fc_init_hlw(&header, c.base);
        EXPECT_EQ(header.hw, c.hw) << c.base;
        EXPECT_EQ(header.lw, c.lw) << c.base;
    }
}

TEST(Flow, one_client_gets_the_whole_pool_and_not_one_more) {
    Ledger ledger{128, 0};
    EXPECT_EQ(ledger.header.quota, 128);  // Nobody produces yet.
    ledger.join(1);
    EXPECT_EQ(ledger.take(1, 200), 128u);
    EXPECT_EQ(qel_ipc_fc_sub_credit(&ledger.ends[1]), 0xa000000cu);
    EXPECT_EQ(ledger.at(1).alloc, 128u);
    EXPECT_SOUND(ledger);
    ledger.give(1, 1, 0);
    EXPECT_EQ(ledger.take(1, 2), 1u);
}

TEST(Flow, what_a_division_leaves_serves_as_overflow) {
    Ledger ledger{101, 0};
    ledger.join(1);
    ledger.join(2);
    EXPECT_EQ(ledger.header.quota, 50);
    EXPECT_EQ(ledger.header.ofp_quota, 1);
    EXPECT_EQ(ledger.take(1, 100), 51u);
    EXPECT_EQ(ledger.take(2, 100), 50u);
    EXPECT_SOUND(ledger);
    ledger.give(1, 1, 0);  // The borrowed credit goes back to the overflow pool, for whoever comes first.
    EXPECT_EQ(ledger.take(2, 100), 1u);
    EXPECT_SOUND(ledger);
}

TEST(Flow, a_newcomer_gets_what_the_others_leave) {
    Ledger ledger{128, 0};
    ledger.join(1);
    EXPECT_EQ(ledger.take(1, 100), 100u);
    ledger.join(2);
    EXPECT_EQ(ledger.header.quota, 64);
    EXPECT_EQ(ledger.at(1).reserved_credits, 0u);
    EXPECT_EQ(ledger.header.ofp_used, 0u);
    EXPECT_EQ(ledger.at(2).reserved_credits, 28u);
    EXPECT_SOUND(ledger);
    EXPECT_EQ(ledger.take(2, 100), 28u);
    ledger.give(1, 36, 0);  // What comes back above the quota is the starving end point's.
    EXPECT_EQ(ledger.at(2).reserved_credits, 36u);
    EXPECT_EQ(ledger.at(1).reserved_credits, 0u);
    EXPECT_SOUND(ledger);
    ledger.set(2, EndPointState::closed);  // Keeps its share until its last message is gone.
    EXPECT_EQ(ledger.header.prod_count, 2);
    ledger.give(2, 28, 0);
    ledger.set(2, EndPointState::free);
    EXPECT_EQ(ledger.at(1).reserved_credits, 64u);
    EXPECT_SOUND(ledger);
}

TEST(Flow, goes_off_at_high_water_and_comes_on_at_low_water_once_each) {
    Ledger ledger{128, 0};
    ledger.join(1);
    EndPointRecord& client = ledger.at(1);
    ledger.take(1, 88);
    EXPECT_EQ(client.restricted, 0);
    ledger.take(1, 1);
    EXPECT_EQ(client.restricted, 1);
    ledger.take(1, 39);
    EXPECT_EQ(client.hw_count, 1u);
    ledger.give(1, 128 - 39, 1);
    EXPECT_EQ(client.restricted, 1);
    ledger.give(1, 1, 1);
    EXPECT_EQ(client.restricted, 0);
    ledger.give(1, 38, 1);
    EXPECT_EQ(client.lw_count, 1u);
    // By the server: it clears the mark and rings the client's bell.
    ledger.take(1, 128);
    ledger.give(1, 90, 0);
    EXPECT_EQ(client.restricted, 0);
    EXPECT_EQ(ledger.signals(1), QEL_SEP_LOW_WATER);
    EXPECT_EQ(qel_ipc_fc_get_flags(&ledger.ends[1]), 0u);
}

TEST(Flow, looking_at_the_marks_moves_them_when_shares_have_changed) {
    Ledger ledger{128, 0};
    ledger.join(1);
    ledger.take(1, 60);
    ledger.join(2);  // A quota of 64, so 4 credits are left, below 64 - 44.
    EXPECT_EQ(qel_ipc_fc_get_flags(&ledger.ends[1]), QEL_IPC_EVENT_FLOW_OFF);
    EXPECT_EQ(qel_ipc_fc_get_flags(&ledger.ends[1]), 0u);
    ledger.set(2, EndPointState::free);
    EXPECT_EQ(qel_ipc_fc_get_flags(&ledger.ends[1]), 0u);  // 68 left; on again with 90.
    ledger.give(1, 22, 2);
    EXPECT_EQ(ledger.at(1).restricted, 1);             // A client leaves the mark to its owner,
    EXPECT_EQ(ledger.signals(0), QEL_SEP_FLOW_RELAY);  // whom the server tells.
    EXPECT_EQ(qel_ipc_fc_get_flags(&ledger.ends[1]), QEL_IPC_EVENT_FLOW_ON);
    EXPECT_EQ(ledger.at(1).hw_count + ledger.at(1).lw_count, 2u);
}

TEST(Flow, a_credit_that_feeds_a_starving_end_point_is_checked_there) {
    Ledger ledger{96, 0};
    ledger.join(1);
    ledger.take(1, 96);
    ledger.join(2);
    ledger.join(3);
    EXPECT_EQ(qel_ipc_fc_sub_credit(&ledger.ends[2]), 0xa000000cu);
    EXPECT_EQ(ledger.at(2).restricted, 1);
    ledger.give(1, 23, 0);  // With a quota of 32, lw 9: on with 23 credits.
    EXPECT_EQ(ledger.at(2).restricted, 0);
    EXPECT_EQ(ledger.signals(2), QEL_SEP_LOW_WATER);
    EXPECT_EQ(ledger.signals(1), 0u);
    EXPECT_EQ(ledger.at(1).restricted, 1);
    EXPECT_SOUND(ledger);
}

// What each end point has out is known here; that, and who may be refused, is all the ledger must get right.
class RandomWalk {
  public:
    // Small pools make for quotas of 1 and 0.
    RandomWalk(std::uint32_t seed, bool ext_cs)
        : random_(seed), ext_cs_(ext_cs), ledger_(seed < 4 ? 4 : 30 + seed % 40, seed % 3 ? 0 : 8, ext_cs) {}
    void step() {
        std::uint32_t ep = pick(ext_cs_ ? 0 : 1, kMost - 1);
        EndPointState state = ledger_.at(ep).ep_state;
        if (state == EndPointState::free) return join(ep);
        if (pick(0, 60) == 0 && ep != 0)
            return ledger_.set(ep, out_[ep] == 0 ? EndPointState::free : EndPointState::closed);
        if (out_[ep] != 0 && pick(0, 99) < 48) return give(ep);
        if (state == EndPointState::open) take(ep);
    }
    void check() {
        ASSERT_STREQ(ledger_check(ledger_.header), nullptr);
        for (std::uint32_t ep = 0; ep < kMost; ++ep) ASSERT_EQ(ledger_.at(ep).alloc, out_[ep]);
    }

  private:
    std::uint32_t pick(std::uint32_t from, std::uint32_t to) {
        return std::uniform_int_distribution<std::uint32_t>{from, to}(random_);
    }
    void join(std::uint32_t ep) {
        if (pick(0, 9) == 0) ledger_.join(ep);
    }
    void take(std::uint32_t ep) {
        const qel_ipc_hdr& header = ledger_.header;
        bool gone = ledger_.at(ep).reserved_credits == 0 && header.ofp_used == header.ofp_quota;
        EXPECT_EQ(qel_ipc_fc_sub_credit(&ledger_.ends[ep]), gone ? 0xa000000cu : 0u);
        out_[ep] += !gone;
    }
    void give(std::uint32_t ep) {
        ledger_.give(ep, 1, pick(0, 1) ? ep : 0);
        --out_[ep];
        if (out_[ep] == 0 && ledger_.at(ep).ep_state == EndPointState::closed)
            ledger_.set(ep, EndPointState::free);
    }

    std::mt19937 random_;
    bool ext_cs_;
    Ledger ledger_;
    std::uint32_t out_[kMost]{};
};

TEST(Flow, five_clients_at_random_keep_the_invariant_after_each_call) {
    for (std::uint32_t seed = 1; seed <= 12; ++seed) {
        RandomWalk walk{seed, seed % 2 == 0};
        for (int i = 0; i < 4000 && !testing::Test::HasFatalFailure(); ++i) {
            walk.step();
            walk.check();
        }
    }
}

TEST(Flow, a_credit_without_a_message_ends_the_process_and_blocks_nobody) {
    Ledger ledger{32, 0};
    ledger.join(1);
    auto give_too_much = [&] {
        EXPECT_EQ(ledger.header.shm_mutex.lock(nullptr), 0);
        ledger.give(1, 1, 0);
    };
    EXPECT_EXIT(give_too_much(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(pthread_mutex_trylock(ledger.header.fc_lock.native()), 0);
    EXPECT_EQ(pthread_mutex_trylock(ledger.header.shm_mutex.native()), 0);
}

}  // namespace
