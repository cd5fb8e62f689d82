// AVL trees against a sorted model, and what they refuse.
#include "support/support.hpp"

#include <qel/avl.h>
#include <qel/dt.h>
#include <qel/dt_buffer.h>

#include <array>
#include <numeric>
#include <random>
#include <set>

namespace {

constexpr cerrno kInvalid = 0xa0000016;
constexpr cerrno kTaken = 0xa0000011;
constexpr cerrno kAbsent = 0x40000011;

struct Item {
    qel_avl_node node;
    uint32_t key;
};

template <class Key>
int sort(Key left, Key right) {
    return left < right ? QEL_AVL_BEFORE : left > right ? QEL_AVL_AFTER : QEL_AVL_EQUAL;
}
uint32_t key_of(const qel_avl_node* node) {
    return reinterpret_cast<const Item*>(node)->key;
}
int by_key(const qel_avl_node* a, const qel_avl_node* b) {
    return sort(key_of(a), key_of(b));
}
int by_tens(const qel_avl_node* node, const void* goal) {
    return sort(key_of(node) / 10, *static_cast<const uint32_t*>(goal));
}

// Checks balance and mark of all nodes below 'node', and gives the height.
int checked_height(const qel_avl_node* node) {
    if (node == nullptr) return 0;
    const int left = checked_height(node->left);
    const int right = checked_height(node->right);
    EXPECT_EQ(node->balance, right - left);
    EXPECT_LE(std::abs(right - left), 1);
    EXPECT_TRUE(qel_avl_is_threaded(node));
    return std::max(left, right) + 1;
}

int collect(qel_avl_node* node, void* keys) {
    static_cast<std::vector<uint32_t>*>(keys)->push_back(key_of(node));
    return 0;
}

// A tree of some of the items 0 to count - 1 beside a sorted model, which every call is held against.
class Modelled {
  public:
    explicit Modelled(uint32_t count) : items_(count) {
        for (uint32_t key = 0; key < count; ++key) items_[key].key = key;
        qel_avl_tree_init(&tree, by_key);
    }
    void insert(uint32_t key) {
        const bool taken = model.contains(key);
        EXPECT_EQ(qel_avl_insert(&tree, taken ? &(goal = {{}, key}).node : &items_[key].node),
                  taken ? kTaken : 0);
        EXPECT_EQ(qel_avl_is_threaded(&goal.node), false);
        EXPECT_TRUE(!taken || tree.height_changed == 0);
        model.insert(key);
    }
    void remove(uint32_t key) {
        goal = {{}, key};
        qel_avl_node* gone = &goal.node;
        const bool inside = model.erase(key) != 0;
        EXPECT_EQ(qel_avl_delete(&tree, &goal.node, &gone), inside ? 0 : kAbsent);
        ASSERT_EQ(gone, inside ? &items_[key].node : nullptr);
        if (!inside) return;
        EXPECT_EQ(gone->left, nullptr);
        EXPECT_EQ(gone->right, nullptr);
        EXPECT_EQ(gone->balance, 0);
        EXPECT_FALSE(qel_avl_is_threaded(gone));
    }
    // The key need not be in the tree; if it is, the forms that begin at a node must agree.
    void look_around(uint32_t key) {
        goal = {{}, key};
        auto above = model.upper_bound(key);
        auto from = model.lower_bound(key);
        qel_avl_node* next = above == model.end() ? nullptr : &items_[*above].node;
        qel_avl_node* previous = from == model.begin() ? nullptr : &items_[*std::prev(from)].node;
        qel_avl_node* node = model.contains(key) ? &items_[key].node : &goal.node;
        for (qel_avl_node* start : {&goal.node, node}) {
            EXPECT_EQ(qel_avl_get_next(&tree, start), next);
            EXPECT_EQ(qel_avl_get_prev(&tree, start), previous);
            EXPECT_EQ(qel_avl_get_next_from_node(&tree, start), next);
            EXPECT_EQ(qel_avl_get_prev_from_node(&tree, start), previous);
        }
        qel_avl_node* found = &goal.node;
        EXPECT_EQ(qel_avl_search(&tree, &goal, &found), model.contains(key) ? 0 : kAbsent);
        EXPECT_EQ(found, model.contains(key) ? node : nullptr);
    }
    // Gives the height.
    int check() {
        std::vector<uint32_t> keys;
        EXPECT_EQ(qel_avl_tree_walk(&tree, collect, &keys), 0);
        EXPECT_TRUE(std::equal(keys.begin(), keys.end(), model.begin(), model.end()));
        EXPECT_EQ(tree.size, model.size());
        return checked_height(tree.root);
    }

    qel_avl tree{};
    std::set<uint32_t> model;
    Item goal{};

  private:
    std::vector<Item> items_;
};

class Random {
  public:
    explicit Random(uint32_t seed) : engine_(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine_() % limit); }

  private:
    std::mt19937 engine_;
};

uint64_t errors_reported() {
    qel_dt_buffer_attr attr{};
    EXPECT_EQ(qel_dt_buffer_get_attr(qel_gen_error_buffer, &attr), 0);
    return attr.count;
}

// Runs 'call', which must report once.
template <class Call>
auto reported(Call call) {
    const uint64_t before = errors_reported();
    auto result = call();
    EXPECT_EQ(errors_reported(), before + 1);
    return result;
}

}  // namespace

TEST(Avl, a_million_random_changes_agree_with_a_sorted_model) {
    Random random{24};
    Modelled trees{96};
    int height = 0;
    for (int round = 0; round < 1'000'000 && !HasFailure(); ++round) {
        const uint32_t key = random.below(96);
        // Phases of growth and of decline bring the tree from empty to full and back.
        const bool grows = random.below(8) < (round / 512 % 2 == 0 ? 6u : 2u);
        grows ? trees.insert(key) : trees.remove(key);
        const int now = trees.check();
        EXPECT_EQ(trees.tree.height_changed, now != height) << "round " << round;
        height = now;
        if (round % 16 == 0) trees.look_around(random.below(96));
    }
}

TEST(Avl, a_tree_of_a_hundred_thousand_keeps_its_height_and_order) {
    Random random{25};
    Modelled trees{200'000};
    for (uint32_t key = 0; key < 100'000; ++key) trees.insert(key);
    EXPECT_EQ(trees.check(), 17);
    for (int round = 0; round < 200'000; ++round) {
        random.below(2) == 0 ? trees.insert(random.below(200'000)) : trees.remove(random.below(200'000));
        trees.look_around(random.below(200'000));
    }
    EXPECT_LE(trees.check(), 24);
}

TEST(Avl, the_highest_of_the_left_subtree_replaces_a_node_with_two_children) {
    Modelled trees{4};
    for (uint32_t key : {2, 1, 3}) trees.insert(key);
    qel_avl_node* one = trees.tree.root->left;
    qel_avl_node* three = trees.tree.root->right;
    trees.remove(2);
    EXPECT_EQ(qel_avl_tree_get_root(&trees.tree), one);
    EXPECT_EQ(one->right, three);
    EXPECT_EQ(one->balance, 1);
}

TEST(Avl, walks_see_a_subtree_stop_when_told_and_end_it_children_first) {
    Modelled trees{64};
    for (uint32_t key = 0; key < 63; ++key) trees.insert(key);
    std::vector<uint32_t> keys;
    EXPECT_EQ(qel_avl_subtree_walk(&trees.tree, trees.tree.root->right, collect, &keys), 0);
    std::vector<uint32_t> upper(31);
    std::iota(upper.begin(), upper.end(), 32u);
    EXPECT_EQ(keys, upper);
    auto up_to_five = [](qel_avl_node* node, void*) { return key_of(node) == 5 ? -7 : 0; };
    EXPECT_EQ(qel_avl_tree_walk(&trees.tree, up_to_five, nullptr), -7);
    const uint32_t tens = 4;
    qel_avl_node* found = nullptr;
    EXPECT_EQ(qel_avl_search_custom(&trees.tree, &tens, &found, by_tens), 0);
    EXPECT_EQ(key_of(found), 47u);

    keys.clear();
    auto take = [](qel_avl_node* node, void* seen) {
        EXPECT_TRUE(node->left == nullptr && node->right == nullptr);
        collect(node, seen);
    };
    EXPECT_EQ(qel_avl_tree_destroy(&trees.tree, take, &keys), 0);
    EXPECT_EQ(keys.size(), 63u);
    EXPECT_EQ(keys.back(), 31u);
    uint32_t size = 1;
    EXPECT_EQ(qel_avl_tree_get_size(&trees.tree, &size), 0);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(qel_avl_tree_walk(&trees.tree, collect, &keys), 0);
    EXPECT_EQ(keys.size(), 63u);
}

TEST(Avl, bad_arguments_are_reported_and_refused) {
    qel_avl tree{};
    Item item{};
    qel_avl_node* node = &item.node;
    qel_avl_node* found = node;
    uint32_t size = 0;
    auto none = [](qel_avl_node*, void*) { return 0; };
    ASSERT_EQ(qel_avl_tree_init(&tree, by_key), 0);
    ASSERT_NE(qel_gen_error_buffer, nullptr);
    qel_avl unordered{};
    for (cerrno result :
         {reported([] { return qel_avl_tree_init(nullptr, by_key); }),
          reported([&] { return qel_avl_tree_init(&tree, nullptr); }),
          reported([] { return qel_avl_init(nullptr); }),
          reported([&] { return qel_avl_insert(nullptr, node); }),
          reported([&] { return qel_avl_insert(&tree, nullptr); }),
          reported([&] { return qel_avl_insert(&unordered, node); }),
          reported([&] { return qel_avl_delete(nullptr, node, nullptr); }),
          reported([&] { return qel_avl_delete(&tree, nullptr, nullptr); }),
          reported([&] { return qel_avl_search(nullptr, node, &found); }),
          reported([&] { return qel_avl_search(&tree, nullptr, &found); }),
          reported([&] { return qel_avl_search(&tree, node, nullptr); }),
          reported([&] { return qel_avl_search_custom(nullptr, node, &found, by_tens); }),
          reported([&] { return qel_avl_search_custom(&tree, node, &found, nullptr); }),
          reported([&] { return qel_avl_tree_get_size(&tree, nullptr); }),
          reported([&] { return qel_avl_tree_get_size(nullptr, &size); }),
          reported([&] { return static_cast<cerrno>(qel_avl_tree_walk(nullptr, none, nullptr)); }),
          reported([&] { return static_cast<cerrno>(qel_avl_tree_walk(&tree, nullptr, nullptr)); }),
          reported([&] { return static_cast<cerrno>(qel_avl_subtree_walk(&tree, nullptr, none, nullptr)); }),
          qel_avl_tree_destroy(nullptr, nullptr, nullptr)})
        EXPECT_EQ(result, kInvalid);
    EXPECT_EQ(found, node);
    for (auto neighbour :
         {qel_avl_get_next, qel_avl_get_prev, qel_avl_get_next_from_node, qel_avl_get_prev_from_node}) {
        EXPECT_EQ(reported([&] { return neighbour(nullptr, node); }), nullptr);
        EXPECT_EQ(reported([&] { return neighbour(&tree, nullptr); }), nullptr);
        EXPECT_EQ(reported([&] { return neighbour(&tree, node); }), nullptr);  // an empty tree
    }
    EXPECT_EQ(reported([&] { return qel_avl_get_first(&tree); }), nullptr);
    EXPECT_EQ(reported([] { return qel_avl_get_first(nullptr); }), nullptr);
    EXPECT_EQ(qel_avl_tree_get_root(nullptr), nullptr);
    EXPECT_FALSE(qel_avl_is_threaded(nullptr));
}
