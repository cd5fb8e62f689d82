// Managed timer trees from inside: the order of thousands of leaves under random changes, with the index
// beside them looked into, and the same without memory.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/mgd_timer.h>

#include <memory>
#include <random>

#include "timers/qel_mgd_timer_index.hpp"

using namespace qel_test;
using namespace qel::mgd;

namespace {

// A leaf and the number of its last start.
struct Session {
    Leaf leaf{};
    std::uint64_t started = 0;
};

// Whether the children of 'parent', and all below, are in order: linked both ways, ascending, leaves of equal
// expiry in the order of their starts, the index the same, and the parent's expiry the first one's. Counts
// leaves.
void check(Parent& parent, std::size_t& leaves) {
    std::uint32_t children = 0;
    for (Node* node = parent.first_child; node != nullptr; node = node->next, ++children) {
        ASSERT_EQ(node->parent, &parent);
        if (node->next != nullptr) {
            ASSERT_EQ(node->next->prev, node);
            const auto relation = qel::order(node->exptime, node->next->exptime);
            ASSERT_TRUE(relation <= 0);
            if (relation == 0 && is_leaf(*node) && is_leaf(*node->next)) {
                ASSERT_LT(reinterpret_cast<Session*>(node)->started,
                          reinterpret_cast<Session*>(node->next)->started);
            }
        } else {
            ASSERT_EQ(parent.first_child->prev, node);
        }
        if (is_leaf(*node))
            ++leaves;
        else
            ASSERT_NO_FATAL_FAILURE(check(parent_of(*node), leaves));
    }
    ASSERT_EQ(children, parent.child_count);
    const timespec expiry = parent.first_child != nullptr ? parent.first_child->exptime : timespec{};
    ASSERT_TRUE(qel::order(parent.node.exptime, expiry) == 0);
    if (parent.index != nullptr) {
        ASSERT_TRUE(static_cast<Index*>(parent.index)->repeats(parent));
    }
}

// Three levels: a few groups of groups; every third leaf is under one and the same group.
struct Forest {
    Tree tree{};
    std::vector<std::unique_ptr<Parent>> groups;
    std::vector<std::unique_ptr<Session>> sessions;
    std::mt19937 random{20'261'123};
    std::uint64_t starts = 0;

    Forest(std::size_t group_count, std::size_t leaf_count) {
        EXPECT_EQ(qel_mgd_timer_tree_init(&tree), 0);
        for (std::size_t i = 0; i < group_count; ++i) {
            groups.push_back(std::make_unique<Parent>());
            Parent* above = i < group_count / 2 ? nullptr : groups[i % (group_count / 2)].get();
            EXPECT_EQ(qel_mgd_timer_parent_init(&tree, above, groups[i].get()), 0);
        }
        for (std::size_t i = 0; i < leaf_count; ++i) {
            sessions.push_back(std::make_unique<Session>());
            Parent* group = groups[i % 3 == 0 ? group_count - 1 : i % group_count].get();
            EXPECT_EQ(qel_mgd_timer_leaf_init(&tree, group, &sessions[i]->leaf, 0, nullptr), 0);
        }
    }
    ~Forest() { EXPECT_EQ(qel_mgd_timer_tree_uninit(&tree), 0); }

    // One change of one leaf. A stopped leaf that is updated expires at a round time, so that many are equal;
    // far ones share the index's last key.
    void change() {
        Session& session = *sessions[random() % sessions.size()];
        Leaf* leaf = &session.leaf;
        session.started = ++starts;
        switch (random() % 8) {
        case 0:
            qel_mgd_timer_leaf_start(leaf, random() % 100'000);
            break;
        case 1:
            qel_mgd_timer_leaf_start(leaf, 60'000);
            break;
        case 2:
            qel_mgd_timer_leaf_start(leaf, UINT64_MAX - random() % 1'000'000);
            break;
        case 3:
            qel_mgd_timer_leaf_stop(leaf);
            break;
        case 4:
            qel_mgd_timer_leaf_start(leaf, 60'000 - starts % 50'000);
            break;
        default:
            qel_mgd_timer_leaf_stop(leaf);
            qel_mgd_timer_leaf_update(leaf, static_cast<std::uint32_t>(1 + random() % 5'000));
        }
    }

    std::size_t running() const {
        std::size_t count = 0;
        for (auto& session : sessions) count += is_linked(session->leaf.node);
        return count;
    }
    void check_all() {
        std::size_t leaves = 0;
        ASSERT_NO_FATAL_FAILURE(check(tree.root, leaves));
        ASSERT_EQ(leaves, running());
    }
    // Takes the earliest leaves one by one; they must come in order.
    void drain() {
        timespec last{};
        Leaf* leaf = nullptr;
        while (qel_mgd_timer_tree_first_running(&tree, &leaf) == 0) {
            ASSERT_TRUE(qel::order(last, leaf->node.exptime) <= 0);
            last = leaf->node.exptime;
            ASSERT_EQ(qel_mgd_timer_leaf_stop(leaf), 0);
        }
        ASSERT_EQ(running(), 0u);
    }
};

bool refuse_allocation() {
    return false;
}

}  // namespace

TEST(MgdTimerOrder, ten_thousand_leaves_stay_in_order_under_random_changes) {
    Forest forest{120, 10'000};
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 5'000; ++i) forest.change();
        ASSERT_NO_FATAL_FAILURE(forest.check_all());
    }
    EXPECT_NE(forest.groups.back()->index, nullptr);
    forest.drain();
    EXPECT_EQ(forest.groups.back()->index, nullptr) << "gone with the leaves";
}

TEST(MgdTimerOrder, restarts_that_keep_a_place_keep_the_index) {
    Forest forest{2, 1'500};
    for (auto& session : forest.sessions) {
        session->started = ++forest.starts;
        qel_mgd_timer_leaf_update(&session->leaf, 1'000'000 + static_cast<std::uint32_t>(forest.starts) * 10);
    }
    // Each moves within the gap to its neighbours, down to their very times, then along with the next ones.
    for (std::uint32_t step : {3u, 7u, 1u, 9u, 30u})
        for (auto& session : forest.sessions) {
            session->started = ++forest.starts;
            qel_mgd_timer_leaf_update(&session->leaf, step);
        }
    for (int i = 0; i < 100; ++i) {
        Session& session = *forest.sessions[forest.random() % 1'500];
        for (std::uint32_t down : {1u, 2u, 3u}) {
            timespec time = session.leaf.node.exptime;
            timespec real{};
            qel_mgd_timer_leaf_get_exptime(&session.leaf, &real);
            real.tv_nsec -= static_cast<long>(down) * 1'000'000 + 1'000;
            qel_mgd_timer_leaf_set_exptime(&session.leaf, &real);
            ASSERT_TRUE(qel::order(session.leaf.node.exptime, time) < 0);
        }
    }
    ASSERT_NO_FATAL_FAILURE(forest.check_all());
    forest.drain();
}

TEST(MgdTimerOrder, order_holds_without_memory_for_an_index) {
    Forest forest{4, 2'000};
    for (int round = 0; round < 6; ++round) {
        // Memory comes and goes: indexes fail when they are made, and when they grow.
        qel::allocation_hook.store(round % 2 == 0 ? refuse_allocation : nullptr);
        for (int i = 0; i < 3'000; ++i) forest.change();
        ASSERT_NO_FATAL_FAILURE(forest.check_all());
    }
    qel::allocation_hook.store(nullptr);
    forest.drain();
}

TEST(MgdTimerFailure, each_allocation_fails_without_a_trace) {
    qel_dm_handle dm = 0;
    ASSERT_EQ(qel_dm_create(&dm, nullptr, QEL_DM_PRIVATE), 0);
    auto handler = [](Tree*, Leaf*, void*) {};
    int failures = fail_each_allocation([&] {
        Tree* tree = qel_mgd_timer_tree_alloc();
        if (tree == nullptr) return;
        const int attached = qel_mgd_timer_attach_qdm(tree, dm, handler);
        EXPECT_TRUE(attached == 0 || attached == ENOMEM);
        EXPECT_EQ(tree->attach_state, attached == 0 ? 1u : 0u);
        Parent* group = qel_mgd_timer_parent_alloc(tree, nullptr);
        std::vector<Leaf*> leaves;
        for (std::uint32_t i = 0; group != nullptr && i < 400; ++i) {
            leaves.push_back(qel_mgd_timer_leaf_alloc(tree, group, 0, nullptr));
            if (leaves.back() == nullptr) continue;
            EXPECT_EQ(qel_mgd_timer_leaf_start(leaves.back(), 10'000 + i * 7919 % 400), 0);
        }
        for (Leaf*& leaf : leaves)
            if (leaf != nullptr) qel_mgd_timer_leaf_free(&leaf);
        if (group != nullptr) qel_mgd_timer_parent_free(&group);
        EXPECT_EQ(qel_mgd_timer_tree_free(&tree), 0);
    });
    EXPECT_GT(failures, 400);
    EXPECT_EQ(qel_dm_destroy(&dm), 0);
}
