// The red-black tree against models: a sorted vector for keys, all pairs for intervals; and what deletion
// leaves to those who still hold a node.
#include "support/support.hpp"

#include <qel/rbtree.h>

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

struct DestroyTree {
    void operator()(qel_rbtree* tree) const { EXPECT_EQ(qel_rbtree_destroy(tree), nullptr); }
};
using Tree = std::unique_ptr<qel_rbtree, DestroyTree>;

Tree make_tree() {
    return Tree{qel_rbtree_create("tests", "key", "set", nullptr)};
}
qel_rbtree_node* new_node() {
    return static_cast<qel_rbtree_node*>(std::malloc(sizeof(qel_rbtree_node)));
}
std::vector<qel_rbtree_node*> fill(qel_rbtree* tree, uint32_t count) {
    std::vector<qel_rbtree_node*> nodes;
    for (uint32_t key = 0; key < count; ++key) nodes.push_back(qel_rbtree_insert(key, tree, new_node()));
    return nodes;
}
std::vector<qel_rbtree_node*> nodes_of(qel_rbtree* tree) {
    std::vector<qel_rbtree_node*> nodes;
    for (auto* node = qel_rbtree_first_node(tree); node != nullptr; node = qel_rbtree_next_node(node))
        nodes.push_back(node);
    return nodes;
}

// Black nodes on each way down from 'node', which qel_rbtree_valid() doesn't count; -1 where they differ.
int black_height(const qel_rbtree_node* node) {
    if (node->size == 0) return 1;
    const int left = black_height(node->left), right = black_height(node->right);
    return left == right && left >= 0 ? left + static_cast<int>(node->color) : -1;
}

uint64_t interval(uint16_t low, uint16_t high) {
    return uint64_t{low} << 16 | high;
}
bool overlap(uint64_t left, uint64_t right) {
    return (left & 0xffff) >= (right >> 16) && (right & 0xffff) >= (left >> 16);
}

enum class Kind { low32, ulonglong, interval };

class Model : public testing::TestWithParam<Kind> {
  protected:
    uint64_t order_of(uint64_t key) const {
        switch (GetParam()) {
        case Kind::low32:
            return static_cast<uint32_t>(key);
        case Kind::ulonglong:
            return key;
        default:
            return key >> 16;
        }
    }
    uint64_t draw(uint64_t span) {
        const uint64_t low = random_() % span;
        switch (GetParam()) {
        case Kind::low32:
            return low | static_cast<uint64_t>(random_()) << 32;
        case Kind::ulonglong:
            return low % 16 | low / 16 << 40;
        default:
            return interval(static_cast<uint16_t>(low), static_cast<uint16_t>(low + random_() % 300));
        }
    }
    void insert(uint64_t key) {
        qel_rbtree_node* node = qel_rbtree_get_free_node(tree_.get());
        if (node == nullptr) node = new_node();
        ASSERT_EQ(GetParam() == Kind::interval
                      ? qel_rbtree_int_insert(static_cast<uint16_t>(key >> 16), static_cast<uint16_t>(key),
                                              tree_.get(), node)
                      : qel_rbtree_insert(key, tree_.get(), node),
                  node);
        model_.insert(bound(key, true), node);
    }
    void remove(size_t place) {
        ASSERT_EQ(qel_rbtree_delete(tree_.get(), model_[place]), model_[place]);
        ASSERT_EQ(qel_rbtree_delete(tree_.get(), model_[place]), nullptr);
        model_.erase(model_.begin() + static_cast<std::ptrdiff_t>(place));
    }
    // The first node behind 'key' and all its equals, or the first of the equals.
    std::vector<qel_rbtree_node*>::iterator bound(uint64_t key, bool behind) {
        return std::partition_point(model_.begin(), model_.end(), [&](const qel_rbtree_node* node) {
            return behind ? order_of(node->key) <= order_of(key) : order_of(node->key) < order_of(key);
        });
    }
    void compare() {
        ASSERT_EQ(nodes_of(tree_.get()), model_);
        ASSERT_EQ(qel_rbtree_get_size(tree_.get()), model_.size());
        ASSERT_GE(black_height(tree_->root), 0);
        ASSERT_EQ(qel_rbtree_valid(tree_.get(), 1, "compare"), 1);
    }
    void ask_for(uint64_t key) {
        const auto first = bound(key, false), behind = bound(key, true);
        auto* found = qel_rbtree_search(tree_.get(), key);
        ASSERT_EQ(std::find(first, behind, found) != behind, first != behind);
        ASSERT_EQ(found != nullptr, first != behind);
        ASSERT_EQ(qel_rbtree_lexi_node(tree_.get(), key), first == model_.end() ? nullptr : *first);
        ASSERT_EQ(qel_rbtree_best_node(tree_.get(), key), behind == model_.begin() ? nullptr : behind[-1]);
    }

    std::mt19937 random_{25};
    Tree tree_ = make_tree();
    std::vector<qel_rbtree_node*> model_;
};

}  // namespace

TEST_P(Model, order_sizes_and_searches_follow_random_changes) {
    if (GetParam() == Kind::ulonglong)
        qel_rbtree_non_32bit(tree_.get(), qel_rbtree_key_max_ulonglong, qel_rbtree_key_compare_ulonglong);
    auto change = [&](size_t steps, size_t goal, uint64_t span) {
        for (size_t step = 0; step < steps; ++step) {
            const bool grow = random_() % (2 * goal) >= model_.size();
            grow ? insert(draw(span)) : remove(random_() % model_.size());
            if (step % 64 == 0 && GetParam() != Kind::interval) ask_for(draw(span));
            if (step % (goal * 8) == 0) compare();
            if (HasFatalFailure()) return;
        }
        compare();
    };
    qel_rbtree_set_debug_flag(tree_.get(), true);
    change(8'000, 60, 40);
    qel_rbtree_set_debug_flag(tree_.get(), false);
    EXPECT_STREQ(tree_->last_error, nullptr);
    for (size_t goal : {1, 5, 300, 3'000}) change(30'000, goal, goal * 8);
    EXPECT_EQ(tree_->last_error, nullptr);
    EXPECT_EQ(static_cast<uint16_t>(tree_->inserted - tree_->deleted), tree_->active);
}
INSTANTIATE_TEST_SUITE_P(RedBlackTree, Model, testing::Values(Kind::low32, Kind::ulonglong, Kind::interval));

TEST(RedBlackTree, interval_search_agrees_with_brute_force) {
    std::mt19937 random{5};
    Tree tree = make_tree();
    std::vector<uint64_t> all;
    auto ask = [&](uint64_t query) {
        const auto* found = qel_rbtree_int_search(tree.get(), query);
        const bool any =
            std::any_of(all.begin(), all.end(), [&](uint64_t one) { return overlap(one, query); });
        ASSERT_EQ(found != nullptr, any) << std::hex << query;
        ASSERT_TRUE(found == nullptr || overlap(found->key, query));
    };
    for (uint32_t i = 0; i < 10'000; ++i) {
        const auto low = static_cast<uint16_t>(random() % 60'000 & ~15u);
        const auto length = static_cast<uint16_t>(random() % 8);
        const bool point = low == 0 || random() % 4 == 0;
        auto* node = qel_rbtree_int_insert(low, point ? 0 : static_cast<uint16_t>(low + length), tree.get(),
                                           new_node());
        ASSERT_EQ(node->key, interval(low, point ? low : static_cast<uint16_t>(low + length)));
        all.push_back(node->key);
        if (i % 8 != 0) continue;
        const auto asked = static_cast<uint16_t>(random());
        ask(interval(asked, static_cast<uint16_t>(std::min<unsigned long>(65'535, asked + random() % 12))));
    }
    ask(interval(0, 0));
    ask(interval(65'535, 65'535));
    EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "intervals"), 1);
    EXPECT_EQ(tree->int_searches, 1'252u);
    EXPECT_LE(tree->max_depth, 2u * 14);
}

TEST(RedBlackTree, equal_keys_stay_in_order_and_a_second_insertion_changes_nothing) {
    Tree tree = make_tree();
    std::vector<qel_rbtree_node*> nodes;
    for (int i = 0; i < 40; ++i) nodes.push_back(qel_rbtree_insert(7, tree.get(), new_node()));
    EXPECT_EQ(nodes_of(tree.get()), nodes);
    qel_rbtree_delete(tree.get(), nodes[20]);
    qel_rbtree_insert(9, tree.get(), qel_rbtree_get_free_node(tree.get()));
    EXPECT_EQ(qel_rbtree_insert(9, tree.get(), nodes[20]), nodes[20]);
    EXPECT_EQ(qel_rbtree_get_size(tree.get()), 40u);
    EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "twice"), 1);
    EXPECT_EQ(qel_rbtree_lexi_node(tree.get(), 8), nodes[20]);
    EXPECT_EQ(qel_rbtree_lexi_node(tree.get(), 10), nullptr);
    EXPECT_EQ(qel_rbtree_best_node(tree.get(), 6), nullptr);
}

TEST(RedBlackTree, a_walk_goes_on_when_its_function_deletes_what_it_likes) {
    struct Visits {
        qel_rbtree* tree;
        std::vector<uint64_t> keys;
    };
    Tree tree = make_tree();
    fill(tree.get(), 12);
    Visits visits{tree.get(), {}};
    auto remove_three = [](qel_rbtree_node* node, void* context) {
        Visits& seen = *static_cast<Visits*>(context);
        seen.keys.push_back(node->key);
        EXPECT_TRUE(qel_rbtree_node_protected(node));
        if (node->key % 4 != 1) return node->key != 10;
        auto* next = qel_rbtree_next_node(node);
        auto* after = qel_rbtree_next_node(next);
        for (auto* victim : {node, next, after}) qel_rbtree_delete(seen.tree, victim);
        qel_rbtree_trim_free_list(seen.tree);  // leaves the two that the walk holds
        EXPECT_TRUE(qel_rbtree_node_deleted(seen.tree, node) && qel_rbtree_node_deleted(seen.tree, next));
        return true;
    };
    EXPECT_EQ(qel_rbtree_for_each_node_til_false(remove_three, &visits, tree.get(), 0, true), 1);
    EXPECT_EQ(visits.keys, (std::vector<uint64_t>{0, 1, 4, 5, 8, 9}));
    EXPECT_EQ(qel_rbtree_get_size(tree.get()), 3u);
    EXPECT_EQ(qel_rbtree_released_node_count(tree.get()), 2u);
    visits.keys.clear();
    auto stop_at_four = [](qel_rbtree_node* node, void*) { return node->key != 4; };
    EXPECT_EQ(qel_rbtree_for_each_node_til_false(stop_at_four, nullptr, tree.get(), 0, true), 0);
    EXPECT_EQ(qel_rbtree_for_each_node(stop_at_four, nullptr, tree.get(), true), 1);
    // A function that ends its thread leaves neither the walk nor a protection behind.
    std::thread([&] {
        auto leave = [](qel_rbtree_node*, void*) -> bool { pthread_exit(nullptr); };
        qel_rbtree_for_each_node(leave, nullptr, tree.get(), true);
    }).join();
    for (auto* node : nodes_of(tree.get())) EXPECT_FALSE(qel_rbtree_node_protected(node));
    qel_rbtree_delete(tree.get(), qel_rbtree_first_node(tree.get()));
    EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "walks"), 1);
}

TEST(RedBlackTree, protected_nodes_outlive_trim_reuse_and_tree) {
    Tree tree = make_tree();
    const auto nodes = fill(tree.get(), 4);
    EXPECT_TRUE(qel_rbtree_node_protect(nodes[3], true));
    for (auto* node : nodes) EXPECT_EQ(qel_rbtree_delete(tree.get(), node), node);
    EXPECT_EQ(qel_rbtree_get_free_node(tree.get()), nodes[2]);
    qel_rbtree_trim_free_list(tree.get());
    EXPECT_EQ(tree->released, 2u);
    EXPECT_EQ(qel_rbtree_free_node_count(tree.get()), 1u);
    EXPECT_EQ(qel_rbtree_get_free_node(tree.get()), nullptr);
    EXPECT_EQ(qel_rbtree_insert(20, tree.get(), nodes[2]), nodes[2]);
    EXPECT_TRUE(qel_rbtree_node_protect(nodes[2], true));
    tree.reset();
    EXPECT_EQ(nodes[2]->key, 20u);
    EXPECT_EQ(nodes[3]->key, 3u);
    EXPECT_FALSE(qel_rbtree_node_protect(nodes[3], false));
    EXPECT_FALSE(qel_rbtree_node_protect(nodes[3], false));
    std::free(nodes[2]);
    std::free(nodes[3]);
}

TEST(RedBlackTree, a_full_tree_and_foreign_nodes_are_refused) {
    Tree tree = make_tree(), other = make_tree();
    const auto nodes = fill(tree.get(), 65'535);
    std::unique_ptr<qel_rbtree_node, void (*)(void*)> extra{new_node(), std::free};
    EXPECT_EQ(qel_rbtree_insert(1, tree.get(), extra.get()), nullptr);
    fill(other.get(), 3);
    EXPECT_EQ(qel_rbtree_delete(other.get(), nodes[100]), nullptr);
    EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "full"), 1);
    // The free list takes more than its counter can tell.
    for (auto* node : nodes) EXPECT_EQ(qel_rbtree_delete(tree.get(), node), node);
    fill(tree.get(), 1);
    EXPECT_NE(qel_rbtree_delete(tree.get(), tree->root), nullptr);
    EXPECT_EQ(tree->free, 65'535u);
    EXPECT_EQ(qel_rbtree_free_node_count(tree.get()), 65'536u);
    EXPECT_TRUE(qel_rbtree_node_deleted(tree.get(), nodes[0]));
    EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "emptied"), 1);
    EXPECT_EQ(qel_rbtree_create("tests", nullptr, "set", nullptr), nullptr);
    EXPECT_EQ(qel_rbtree_get_size(nullptr), UINT32_MAX);
}

TEST(RedBlackTree, trees_of_two_threads_have_nothing_in_common) {
    auto churn = [](unsigned seed) {
        std::mt19937 random{seed};
        for (int round = 0; round < 20; ++round) {
            Tree tree = make_tree();
            auto nodes = fill(tree.get(), 500);
            std::shuffle(nodes.begin(), nodes.end(), random);
            for (auto* node : nodes) EXPECT_EQ(qel_rbtree_delete(tree.get(), node), node);
            EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "thread"), 1);
        }
    };
    std::thread first(churn, 1u), second(churn, 2u);
    first.join();
    second.join();
}

TEST(RedBlackTree, a_check_names_what_is_broken_and_ends) {
    struct Damage {
        const char* text;
        void (*break_it)(qel_rbtree* tree, std::vector<qel_rbtree_node*>& nodes);
    };
    // Keys 0 to 6 give root 1 or 3 with all others below; 7 is on the free list.
    const Damage damages[] = {
        {"Pointer is NULL", [](auto*, auto& n) { n[0]->left = nullptr; }},
        {"Root size differs from active count", [](auto* tree, auto&) { ++tree->active; }},
        {"Root node has non-NIL parent", [](auto* tree, auto& n) { tree->root->parent = n[0]; }},
        {"Left child has bad parent ptr", [](auto* tree, auto& n) { tree->root->left->parent = n[6]; }},
        {"Right child has bad parent ptr", [](auto* tree, auto& n) { n[6]->right = tree->root; }},
        {"Node is not a sibling of the parent",
         [](auto* tree, auto&) { tree->root->left = tree->root->right; }},
        {"Size value is wrong", [](auto*, auto& n) { n[6]->size = 2; }},
        {"Node has an invalid size (less than 1)", [](auto*, auto& n) { n[0]->size = 0; }},
        {"Left child has larger key", [](auto*, auto& n) { n[0]->key = n[0]->summary = 50; }},
        {"Right child has smaller key", [](auto* tree, auto&) { tree->root->key = 50; }},
        {"Max subkey not equal to high key", [](auto*, auto& n) { n[0]->summary = 9; }},
        {"Right child max subkey differs", [](auto* tree, auto&) { tree->root->summary = 9; }},
        {"Red node and red parent (violates #3)",
         [](auto*, auto& n) { n[0]->parent->color = n[0]->color = 0; }},
        {"Previous link of next node doesn't point to us", [](auto*, auto& n) { n[4]->prev = n[1]; }},
        {"Next link of previous node doesn't point to us", [](auto*, auto& n) { n[4]->next = n[0]; }},
        {"Node has an invalid freelist pointer", [](auto*, auto& n) { n[2]->free_next = n[7]; }},
        {"Non-nil links for free node", [](auto*, auto& n) { n[7]->left = n[2]; }},
        {"Free node count wrong", [](auto*, auto& n) { n[7]->free_next = n[7]; }},
    };
    for (const Damage& damage : damages) {
        Tree tree = make_tree();
        auto nodes = fill(tree.get(), 8);
        qel_rbtree_delete(tree.get(), nodes[7]);
        const qel_rbtree healthy = *tree;
        std::vector<qel_rbtree_node> copies;
        for (auto* node : nodes) copies.push_back(*node);
        damage.break_it(tree.get(), nodes);
        EXPECT_EQ(qel_rbtree_valid(tree.get(), 0, "test"), 0);
        EXPECT_STREQ(tree->last_error, damage.text);
        testing::internal::CaptureStdout();
        qel_rbtree_print(tree->root, 0, tree.get());
        EXPECT_NE(testing::internal::GetCapturedStdout(), "");
        *tree = healthy;
        for (size_t i = 0; i < nodes.size(); ++i) *nodes[i] = copies[i];
        EXPECT_EQ(qel_rbtree_valid(tree.get(), 1, "healed"), 1);
    }
}

TEST(RedBlackTree, prints_name_the_tree_its_counters_and_misplaced_nodes) {
    Tree tree = make_tree();
    const auto nodes = fill(tree.get(), 3);
    auto printed = [&](auto print) {
        testing::internal::CaptureStdout();
        print();
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_THAT(printed([&] { qel_rbtree_stats(tree.get(), "now"); }),
                testing::HasSubstr("key set RBTree: now"));
    nodes[2]->key = 0;
    EXPECT_THAT(printed([&] { qel_rbtree_print(tree->root, 0, tree.get()); }),
                testing::HasSubstr("\nkey set RBTree: Tree FAULT! invalid key found node=#0, 00000000"));
    nodes[2]->size = 0;
    nodes[0]->left = tree->root;
    EXPECT_THAT(
        printed([&] { qel_rbtree_print(tree->root, 0, tree.get()); }),
        testing::AllOf(testing::HasSubstr("\nkey set RBTree: Tree FAULT! deleted node found=#0, 00000000"),
                       testing::HasSubstr("\nkey set RBTree: Tree FAULT! Head node found within tree")));
    nodes[0]->left = nodes[0]->right;
    char text[QEL_RBTREE_KEY_TEXT_SIZE];
    EXPECT_STREQ(qel_rbtree_key_print_ulonglong(text, 0x12'0000'00ffu), "#18#255, 00000012000000ff");
}
