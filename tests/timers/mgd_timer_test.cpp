// Managed timer trees through their exported calls. A stopped leaf that is updated gets an expiry since boot
// that the test chooses to the millisecond, so ties and leaves that are due take no waiting.
#include "dispatch/dm_support.hpp"

#include <qel/dm_threadpool.h>
#include <qel/mgd_timer.h>
#include <qel/time.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>

using namespace qel_test;

namespace {

using Tree = qel_mgd_timer_tree;
using Leaf = qel_mgd_timer_leaf;
using Parent = qel_mgd_timer_parent;

struct TestTree {
    Tree tree;
    TestTree() { EXPECT_EQ(qel_mgd_timer_tree_init(&tree), 0); }
    TestTree(const TestTree&) = delete;
    ~TestTree() { EXPECT_EQ(qel_mgd_timer_tree_uninit(&tree), 0); }
    Tree* operator&() { return &tree; }
};

struct TestLeaf : Leaf {
    explicit TestLeaf(Tree* owner, Parent* parent = nullptr, std::uint16_t type = 0) : Leaf{} {
        EXPECT_EQ(qel_mgd_timer_leaf_init(owner, parent, this, type, this), 0);
    }
};

// What a handler does, as the tree's context; it notes the types of the leaves that it is called for.
struct Script {
    std::function<void(Leaf*)> act = [](Leaf*) {};
    std::vector<int> fired;
};
void run_script(Tree* tree, Leaf* leaf, void* context) {
    auto* script = static_cast<Script*>(qel_mgd_timer_tree_get_context(tree));
    EXPECT_EQ(context, leaf->context);
    script->fired.push_back(leaf->node.type);
    script->act(leaf);
}

struct ScriptedTree : TestTree {
    TestDispatcher dm;
    Script script;
    ScriptedTree() {
        qel_mgd_timer_tree_set_context(&tree, &script);
        EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, dm.handle, run_script), 0);
    }
    void serve_until_fired(std::size_t count) {
        while (script.fired.size() < count) dm.serve_once();
    }
};

// Milliseconds until the tree's dispatcher timer runs out; -1 when it is stopped.
long armed_ms(Tree& tree) {
    timespec left{};
    if (qel_dm_timer_gettime(tree.dispatcher, tree.dm_timer, &left) != 0) return -1;
    return left.tv_sec * 1000 + left.tv_nsec / 1'000'000;
}

}  // namespace

TEST(MgdTimer, refuses_what_is_not_initialised_or_of_the_wrong_kind) {
    Tree blank_tree{};
    Leaf blank{};
    Parent parent{};
    Leaf* out = nullptr;
    timespec time{};
    EXPECT_EQ(qel_mgd_timer_tree_init(nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_tree_uninit(&blank_tree), EINVAL);
    EXPECT_EQ(qel_mgd_timer_tree_free(nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&blank_tree, nullptr, &blank, 0, nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_start(&blank, 1), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_stop(nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_remaining(&blank), 0u);
    EXPECT_EQ(qel_mgd_timer_attach_other_dm(&blank_tree, nullptr, run_script), EINVAL);

    TestTree tree;
    TestTree other;
    TestLeaf leaf{&tree};
    auto* leaf_as_parent = reinterpret_cast<Parent*>(&leaf);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&tree, nullptr, nullptr, 0, nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&tree, leaf_as_parent, &blank, 0, nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&tree, &parent, &blank, 0, nullptr), EINVAL);
    ASSERT_EQ(qel_mgd_timer_parent_init(&tree, nullptr, &parent), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&other, &parent, &blank, 0, nullptr), EINVAL)
        << "parent of another tree";
    EXPECT_EQ(qel_mgd_timer_leaf_start(reinterpret_cast<Leaf*>(&parent), 1), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_stop(reinterpret_cast<Leaf*>(&parent)), EINVAL);
    EXPECT_EQ(qel_mgd_timer_parent_stop(leaf_as_parent), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_update(&leaf, 0), EINVAL);
    EXPECT_EQ(qel_mgd_timer_leaf_set_exptime(&leaf, &time), EINVAL) << "not a running time";
    EXPECT_EQ(qel_mgd_timer_tree_first_running(&tree, &out), ENOENT);
    ASSERT_EQ(qel_mgd_timer_leaf_start(&leaf, 1000), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_init(&tree, nullptr, &leaf, 0, nullptr), EINVAL) << "it runs";
    EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, 0, run_script), EINVAL);
    EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, 12345, nullptr), EINVAL);
    EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, 0, nullptr), 0) << "detaches";
    ASSERT_EQ(qel_mgd_timer_leaf_init(&tree, &parent, &blank, 0, nullptr), 0);
    EXPECT_EQ(qel_mgd_timer_parent_uninit(&parent), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_start(&blank, 1), EINVAL) << "its parent's next init would break the tree";
    EXPECT_EQ(qel_mgd_timer_parent_init(&tree, nullptr, &parent), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_start(&blank, 1), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_stop(&blank), 0);
}

TEST(MgdTimer, siblings_and_parents_show_their_order) {
    TestTree tree;
    Parent near{};
    Parent far{};
    ASSERT_EQ(qel_mgd_timer_parent_init(&tree, nullptr, &near), 0);
    ASSERT_EQ(qel_mgd_timer_parent_init(&tree, nullptr, &far), 0);
    TestLeaf a{&tree, &near};
    TestLeaf b{&tree, &near};
    TestLeaf c{&tree, &far};
    qel_mgd_timer_leaf_start(&a, 10'000);
    EXPECT_EQ(a.node.prev, &a.node) << "an only child precedes itself";
    qel_mgd_timer_leaf_start(&b, 40'000);
    qel_mgd_timer_leaf_start(&c, 20'000);
    EXPECT_EQ(near.first_child->prev, &b.node);

    Leaf* leaf = nullptr;
    Parent* parent = &near;
    EXPECT_EQ(qel_mgd_timer_tree_first_running(&tree, &leaf), 0);
    EXPECT_EQ(leaf, &a);
    EXPECT_EQ(qel_mgd_timer_tree_next_running(&a.node, nullptr, &parent), EINVAL);
    EXPECT_EQ(qel_mgd_timer_tree_next_running(&a.node, &leaf, &parent), 0);
    EXPECT_TRUE(leaf == &b && parent == nullptr);
    EXPECT_EQ(qel_mgd_timer_tree_next_running(&b.node, &leaf, &parent), ENOENT);
    EXPECT_EQ(qel_mgd_timer_tree_next_running(&near.node, &leaf, &parent), 0);
    EXPECT_TRUE(leaf == nullptr && parent == &far);

    qel_mgd_timer_leaf_start(&a, 50'000);  // Now far is first, and b in near.
    EXPECT_TRUE(tree.tree.root.first_child == &far.node && near.first_child == &b.node);
    EXPECT_EQ(tree.tree.root.node.exptime.tv_nsec, c.node.exptime.tv_nsec);
    timespec left{};
    EXPECT_EQ(qel_mgd_timer_parent_remaining(&near, &left), 1);
    EXPECT_GT(left.tv_sec, 30);
    EXPECT_EQ(qel_mgd_timer_parent_stop(&near), 0);
    EXPECT_FALSE(qel_mgd_timer_parent_running(&near) || qel_mgd_timer_leaf_running(&a) ||
                 a.node.prev != nullptr || qel_mgd_timer_parent_remaining(&near, &left) != 0);
    EXPECT_TRUE(qel_mgd_timer_tree_running(&tree));
    EXPECT_EQ(qel_mgd_timer_leaf_stop(&c), 0);
    EXPECT_FALSE(qel_mgd_timer_tree_running(&tree));
}

TEST(MgdTimer, start_modes_give_the_expiry_that_they_tell) {
    TestTree tree;
    TestLeaf leaf{&tree};
    EXPECT_EQ(qel_mgd_timer_leaf_start(&leaf, 60'000), 0);
    EXPECT_EQ((qel_mgd_timer_leaf_remaining(&leaf) + 50) / 1000, 60u);
    const timespec first = leaf.node.exptime;
    EXPECT_EQ(qel_mgd_timer_leaf_update(&leaf, 1500), 0);
    timespec moved{};
    qel_ptimer_diff_timespec(&moved, &first, &leaf.node.exptime);
    EXPECT_TRUE(moved.tv_sec == 1 && moved.tv_nsec == 500'000'000) << "from the old expiry, exactly";
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(qel_mgd_timer_leaf_start_jittered(&leaf, 100'000, 50), 0);
        EXPECT_THAT(qel_mgd_timer_leaf_remaining(&leaf),
                    testing::AllOf(testing::Gt(49'000u), testing::Le(100'000u)));
    }

    timespec real{};
    qel_time_get_timespec_realtime(&real);
    real.tv_sec += 110;
    clock_set_time(100);
    EXPECT_EQ(qel_mgd_timer_leaf_set_exptime(&leaf, &real), 0);
    EXPECT_EQ((qel_mgd_timer_leaf_remaining(&leaf) + 500) / 1000, 10u) << "the clock has come 100 s closer";
    timespec back{};
    EXPECT_EQ(qel_mgd_timer_leaf_get_exptime(&leaf, &back), 0);
    EXPECT_THAT(real.tv_sec - back.tv_sec, testing::AllOf(testing::Ge(99), testing::Le(101)));

    EXPECT_EQ(qel_mgd_timer_leaf_start(&leaf, UINT64_MAX), 0);
    EXPECT_GT(qel_mgd_timer_leaf_remaining(&leaf), UINT64_MAX - 10);
    EXPECT_TRUE(qel_mgd_timer_leaf_running_and_sleeping(&leaf) && !qel_mgd_timer_leaf_expired(&leaf));
    EXPECT_EQ(qel_mgd_timer_leaf_stop(&leaf), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_update(&leaf, 1), 0);
    EXPECT_TRUE(qel_mgd_timer_leaf_expired(&leaf) && qel_mgd_timer_tree_first_expired(&tree) == &leaf);
}

TEST(MgdTimer, dispatcher_timer_follows_the_earliest_leaf_only) {
    ScriptedTree tree;
    EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, tree.dm.handle, run_script), EBUSY);
    TestLeaf a{&tree};
    TestLeaf b{&tree};
    EXPECT_EQ(armed_ms(tree.tree), -1);
    qel_mgd_timer_leaf_start(&b, 20'000);
    qel_mgd_timer_leaf_start(&a, 10'000);
    EXPECT_EQ((armed_ms(tree.tree) + 500) / 1000, 10);
    // A timer that was set behind the tree's back shows that no call is made while the earliest stands.
    const timespec mark{99, 0};
    qel_dm_timer_settime(tree.dm.handle, tree.tree.dm_timer, &mark);
    qel_mgd_timer_leaf_start(&b, 30'000);
    qel_mgd_timer_leaf_stop(&b);
    qel_mgd_timer_leaf_start(&b, 30'000);
    EXPECT_EQ((armed_ms(tree.tree) + 500) / 1000, 99);
    qel_mgd_timer_leaf_start(&a, 40'000);
    EXPECT_EQ((armed_ms(tree.tree) + 500) / 1000, 30) << "the next leaf is the earliest now";
    qel_mgd_timer_tree_stop(&tree);
    EXPECT_EQ(armed_ms(tree.tree), -1);
    qel_mgd_timer_leaf_start(&a, 5000);
    EXPECT_EQ(qel_mgd_timer_detach_qdm(&tree), 0);
    EXPECT_TRUE(tree.tree.dm_timer == nullptr && qel_mgd_timer_leaf_running(&a));
    EXPECT_EQ(qel_mgd_timer_attach_qdm(&tree, tree.dm.handle, run_script), 0);
    EXPECT_EQ((armed_ms(tree.tree) + 500) / 1000, 5);
}

TEST(MgdTimer, leaves_fire_in_order_and_never_early) {
    ScriptedTree tree;
    Parent group{};
    qel_mgd_timer_parent_init(&tree, nullptr, &group);
    std::vector<std::unique_ptr<TestLeaf>> leaves;
    for (int i = 0; i < 100; ++i) {
        Parent* parent = i % 2 == 0 ? nullptr : &group;
        leaves.push_back(std::make_unique<TestLeaf>(&tree, parent, static_cast<std::uint16_t>(i)));
    }
    // Equal times, all due, within each parent in the order of their starts.
    for (auto& leaf : leaves) qel_mgd_timer_leaf_update(leaf.get(), 7);
    tree.serve_until_fired(100);
    std::vector<int> own;
    for (int type : tree.script.fired)
        if (type % 2 == 0) own.push_back(type);
    EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));

    tree.script.fired.clear();
    std::vector<timespec> expiries(100);
    tree.script.act = [&](Leaf* leaf) {
        timespec now{};
        qel_time_get_timespec(&now);
        EXPECT_TRUE(qel_ptimer_compare(&now, QEL_PTIMER_GE, &expiries[leaf->node.type]));
    };
    for (std::size_t i = 0; i < 100; ++i) {
        qel_mgd_timer_leaf_start(leaves[i].get(), 30 - i % 30);
        expiries[i] = leaves[i]->node.exptime;
    }
    tree.serve_until_fired(100);
    for (std::size_t i = 1; i < 100; ++i)
        EXPECT_FALSE(qel_ptimer_compare(&expiries[static_cast<std::size_t>(tree.script.fired[i])],
                                        QEL_PTIMER_LT,
                                        &expiries[static_cast<std::size_t>(tree.script.fired[i - 1])]));
}

TEST(MgdTimer, handler_stops_frees_and_starts_leaves_and_serves_the_dispatcher) {
    ScriptedTree tree;
    std::vector<Leaf*> leaves;
    for (int i = 0; i < 4; ++i) {
        leaves.push_back(qel_mgd_timer_leaf_alloc(&tree, nullptr, static_cast<std::uint16_t>(i), nullptr));
        qel_mgd_timer_leaf_update(leaves.back(), static_cast<std::uint32_t>(i + 1));
    }
    bool job_ran = false;
    Function job = [&] { job_ran = true; };
    tree.script.act = [&](Leaf* leaf) {
        if (leaf->node.type == 0) {
            EXPECT_EQ(qel_mgd_timer_leaf_free(&leaves[1]), 0);
            EXPECT_EQ(qel_mgd_timer_leaf_stop(leaves[2]), 0);
            EXPECT_EQ(qel_mgd_timer_leaf_start(leaf, 0), 0);
            execute(tree.dm.handle, job);
            tree.dm.serve_once();
            leaf->node.type = 9;
        } else {
            EXPECT_EQ(qel_mgd_timer_leaf_free(&leaf), 0);
            EXPECT_EQ(leaf, nullptr);
        }
    };
    tree.serve_until_fired(3);
    EXPECT_THAT(tree.script.fired, testing::ElementsAre(0, 3, 9))
        << "1 was freed, 2 stopped, 0 started again";
    EXPECT_TRUE(job_ran);
    EXPECT_FALSE(tree.tree.in_handler || qel_mgd_timer_tree_running(&tree));
    qel_mgd_timer_leaf_free(&leaves[2]);
}

TEST(MgdTimer, handler_may_end_its_tree_attach_it_anew_and_end_its_thread) {
    TestDispatcher dm;
    Script script;
    Tree* tree = qel_mgd_timer_tree_alloc();
    qel_mgd_timer_tree_set_context(tree, &script);
    ASSERT_EQ(qel_mgd_timer_attach_qdm(tree, dm.handle, run_script), 0);
    Leaf* first = qel_mgd_timer_leaf_alloc(tree, nullptr, 1, nullptr);
    Leaf* second = qel_mgd_timer_leaf_alloc(tree, nullptr, 2, nullptr);
    qel_mgd_timer_leaf_update(first, 1);
    qel_mgd_timer_leaf_update(second, 2);
    script.act = [&](Leaf*) { pthread_exit(nullptr); };
    std::thread{[&] { dm.serve_once(); }}.join();
    EXPECT_EQ(tree->in_handler, 0) << "let go by the thread that ended";
    script.act = [&](Leaf* leaf) {
        qel_mgd_timer_leaf_update(leaf, 1);
        EXPECT_EQ(qel_mgd_timer_detach_qdm(tree), 0);
        EXPECT_EQ(qel_mgd_timer_attach_qdm(tree, dm.handle, run_script), 0);
        script.act = [&](Leaf*) {
            qel_mgd_timer_leaf_free(&first);
            qel_mgd_timer_leaf_free(&second);
            EXPECT_EQ(qel_mgd_timer_tree_free(&tree), 0);
        };
    };
    while (tree != nullptr) dm.serve_once();
    EXPECT_THAT(script.fired, testing::ElementsAre(1, 2, 2));
}

TEST(MgdTimer, explicit_dispatch_is_armed_again_by_a_stop) {
    TestDispatcher dm;
    TestTree tree;
    TestLeaf a{&tree};
    TestLeaf b{&tree};
    ASSERT_EQ(qel_mgd_timer_xd_attach_qdm(&tree, dm.handle, 77), 0);
    qel_mgd_timer_leaf_update(&a, 1);
    qel_mgd_timer_leaf_update(&b, 2);
    for (TestLeaf* expected : {&a, &b}) {
        std::uint32_t event = 0;
        std::uint32_t id = 0;
        ASSERT_EQ(qel_dm_wait(dm.handle), 0);
        ASSERT_EQ(qel_dm_xdispatch(dm.handle, &event, &id), 0);
        EXPECT_TRUE(event == QEL_DM_XD_TIMER_TREE && id == 77);
        EXPECT_EQ(armed_ms(tree.tree), -1);
        EXPECT_EQ(qel_mgd_timer_tree_first_expired(&tree), expected);
        qel_mgd_timer_leaf_stop(expected);
    }
    EXPECT_EQ(armed_ms(tree.tree), -1);
}

TEST(MgdTimer, tree_outlives_its_dispatcher) {
    TestTree tree;
    TestLeaf leaf{&tree};
    {
        TestDispatcher dm;
        ASSERT_EQ(qel_mgd_timer_attach_qdm(&tree, dm.handle, run_script), 0);
        qel_mgd_timer_leaf_start(&leaf, 10'000);
    }
    EXPECT_EQ(qel_mgd_timer_leaf_start(&leaf, 1), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_stop(&leaf), 0);
    EXPECT_EQ(qel_mgd_timer_detach_qdm(&tree), 0);
}

// Each tree lives for about the time that its leaf takes to fire, so that the end meets the expiry at all its
// steps.
TEST(MgdTimer, ends_against_expiry_on_a_pool) {
    using Clock = std::chrono::steady_clock;
    struct Round {
        Clock::time_point end;
        Tree* tree;
        Leaf* leaf;
    };
    static std::atomic<int> fired;
    auto handler = [](Tree*, Leaf*, void*) { ++fired; };
    auto end_oldest = [](std::deque<Round>& rounds) {
        Round& round = rounds.front();
        ASSERT_EQ(qel_mgd_timer_tree_uninit(round.tree), 0);
        free(round.leaf);
        free(round.tree);
        rounds.pop_front();
    };
    TestDispatcher dm;
    Servers servers{dm.handle, 2};
    std::deque<Round> rounds;
    for (int i = 0; i < 10'000; ++i) {
        Tree* tree = qel_mgd_timer_tree_alloc();
        Leaf* leaf = qel_mgd_timer_leaf_alloc(tree, nullptr, 0, nullptr);
        ASSERT_EQ(qel_mgd_timer_attach_qdm(tree, dm.handle, handler), 0);
        ASSERT_EQ(qel_mgd_timer_leaf_update(leaf, 1), 0);
        rounds.push_back({Clock::now() + std::chrono::microseconds{1000 + i % 1500}, tree, leaf});
        while (!rounds.empty() && (rounds.front().end < Clock::now() || rounds.size() > 100))
            end_oldest(rounds);
        if (rounds.size() == 100)
            while (Clock::now() < rounds.front().end) std::this_thread::yield();
    }
    while (!rounds.empty()) end_oldest(rounds);
    EXPECT_THAT(fired.load(), testing::AllOf(testing::Gt(500), testing::Lt(9'900))) << "ends met no expiry";
    EXPECT_EQ(qel_dm_destroy(&dm.handle), 0);
}

TEST(MgdTimer, a_leaf_that_is_always_due_lets_its_dispatcher_go) {
    TestDispatcher dm;
    ASSERT_EQ(qel_dm_threadpool_create(dm.handle, 0, nullptr, nullptr), 0);
    Tree* tree = qel_mgd_timer_tree_alloc();
    Leaf* leaf = qel_mgd_timer_leaf_alloc(tree, nullptr, 0, nullptr);
    static std::atomic<int> fired{0};
    auto handler = [](Tree*, Leaf* due, void*) {
        ++fired;
        EXPECT_EQ(qel_mgd_timer_leaf_start(due, 1), 0);
        std::this_thread::sleep_for(3ms);
    };
    ASSERT_EQ(qel_mgd_timer_attach_qdm(tree, dm.handle, handler), 0);
    ASSERT_EQ(qel_mgd_timer_leaf_start(leaf, 1), 0);
    EXPECT_TRUE(eventually([] { return fired > 2; }));
    EXPECT_EQ(qel_dm_destroy(&dm.handle), 0);
    EXPECT_EQ(qel_mgd_timer_leaf_free(&leaf), 0);
    EXPECT_EQ(qel_mgd_timer_tree_free(&tree), 0);
}
