// Wrapped AVL trees: objects under several keys, and what is refused.
#include "support/support.hpp"

#include <qel/wavl.h>

#include <array>
#include <random>

namespace {

constexpr cerrno kInvalid = 0xa0000016;
constexpr uint32_t kThreads = 3;

struct Port {
    std::array<qel_wavl_block, kThreads> blocks;
    std::array<uint32_t, kThreads> keys;
};

template <uint32_t thread>
int by_key(const qel_avl_node* a, const qel_avl_node* b) {
    auto key = [](const qel_avl_node* node) {
        return static_cast<Port*>(qel_wavl_normalize(const_cast<qel_avl_node*>(node), thread))->keys[thread];
    };
    return key(a) < key(b) ? QEL_AVL_BEFORE : key(a) > key(b) ? QEL_AVL_AFTER : QEL_AVL_EQUAL;
}

struct Wavl : testing::Test {
    Wavl() { EXPECT_EQ(init(handle), 0); }
    ~Wavl() override { EXPECT_EQ(qel_wavl_tree_finish(&handle), 0); }
    static cerrno init(qel_wavl& handle) {
        return qel_wavl_tree_init(&handle, kThreads, nullptr, by_key<0>, by_key<1>, by_key<2>);
    }
    static Port port(uint32_t a, uint32_t b, uint32_t c) { return {{}, {a, b, c}}; }
    std::vector<uint32_t> sizes() const {
        return {handle.trees[0]->size, handle.trees[1]->size, handle.trees[2]->size};
    }
    // The threads that 'element' is in, as bits; node and block must agree.
    static uint32_t threads(const Port& element) {
        uint32_t inside = 0;
        for (uint32_t thread = 0; thread < kThreads; ++thread) {
            EXPECT_EQ(element.blocks[thread].threaded, qel_avl_is_threaded(&element.blocks[thread].node));
            inside |= static_cast<uint32_t>(element.blocks[thread].threaded << thread);
        }
        return inside;
    }
    using Sizes = std::vector<uint32_t>;
    qel_wavl handle{};
};

}  // namespace

TEST_F(Wavl, every_key_finds_an_object_and_orders_the_walks) {
    std::vector<Port> ports(1000);
    for (uint32_t i = 0; i < ports.size(); ++i) {
        ports[i] = port(i, 999 - i, i * 7 % 1000);
        EXPECT_EQ(qel_wavl_init(&ports[i], kThreads), 0);
        ASSERT_EQ(qel_wavl_insert(&handle, &ports[i]), &ports[i]);
    }
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
        uint32_t expected = 0;
        for (void* at = qel_wavl_get_first(&handle, thread); at != nullptr;
             at = qel_wavl_get_next(&handle, at, thread))
            ASSERT_EQ(static_cast<Port*>(at)->keys[thread], expected++);
        EXPECT_EQ(expected, 1000u);
        std::vector<void*> walked;
        auto collect = [](void* element, void* into) {
            static_cast<std::vector<void*>*>(into)->push_back(element);
            return static_cast<std::vector<void*>*>(into)->size() == 500 ? 9 : 0;
        };
        EXPECT_EQ(qel_wavl_tree_walk(&handle, thread, collect, &walked), 9);
        for (uint32_t i = 0; i < 500; ++i) ASSERT_EQ(static_cast<Port*>(walked[i])->keys[thread], i);
        Port goal = port(313, 313, 313);
        EXPECT_EQ(qel_wavl_search(&handle, &goal, thread), walked[313]);
        goal.keys.fill(1000);
        EXPECT_EQ(qel_wavl_search(&handle, &goal, thread), nullptr);
    }
}

TEST_F(Wavl, a_taken_key_takes_the_object_out_of_the_threads_below) {
    Port first = port(1, 1, 1);
    Port second = port(2, 1, 2);
    ASSERT_EQ(qel_wavl_insert(&handle, &first), &first);
    EXPECT_EQ(qel_wavl_insert(&handle, &first), &first);  // it is in all of them: nothing changes
    EXPECT_EQ(qel_wavl_insert(&handle, &second), nullptr);
    EXPECT_EQ(threads(second), 0u);
    EXPECT_EQ(sizes(), Sizes({1, 1, 1}));
    // Where it was before the call makes no difference below, and none above.
    EXPECT_EQ(qel_wavl_insert_thread(&handle, 0, &second), &second);
    EXPECT_EQ(qel_wavl_insert_thread(&handle, 2, &second), &second);
    EXPECT_EQ(qel_wavl_insert_thread(&handle, 1, &second), nullptr);
    EXPECT_EQ(qel_wavl_insert(&handle, &second), nullptr);
    EXPECT_EQ(threads(second), 4u);
    EXPECT_EQ(sizes(), Sizes({1, 1, 2}));
}

TEST_F(Wavl, an_object_enters_and_leaves_single_threads) {
    Port element = port(1, 2, 3);
    ASSERT_EQ(qel_wavl_insert(&handle, &element), &element);
    EXPECT_EQ(qel_wavl_insert_thread(&handle, 1, &element), nullptr);
    EXPECT_EQ(qel_wavl_delete_thread(&handle, 1, &element), &element);
    EXPECT_EQ(qel_wavl_delete_thread(&handle, 1, &element), nullptr);
    EXPECT_EQ(threads(element), 5u);
    EXPECT_EQ(sizes(), Sizes({1, 0, 1}));
    EXPECT_EQ(qel_wavl_delete(&handle, &element), &element);
    EXPECT_EQ(qel_wavl_delete(&handle, &element), nullptr);
    EXPECT_EQ(threads(element), 0u);
}

TEST_F(Wavl, an_object_of_another_handle_throws_nobody_out) {
    qel_wavl other{};
    ASSERT_EQ(init(other), 0);
    Port ours = port(1, 2, 3);
    Port foreign = port(1, 2, 3);
    ASSERT_EQ(qel_wavl_insert(&handle, &ours), &ours);
    ASSERT_EQ(qel_wavl_insert(&other, &foreign), &foreign);
    EXPECT_EQ(qel_wavl_delete(&handle, &foreign), nullptr);
    EXPECT_EQ(qel_wavl_delete_thread(&handle, 0, &foreign), nullptr);
    EXPECT_EQ(threads(foreign), 7u);
    EXPECT_EQ(sizes(), Sizes({1, 1, 1}));
    EXPECT_EQ(qel_wavl_tree_finish(&other), 0);
    EXPECT_EQ(threads(foreign), 7u);  // elements are left alone
}

TEST_F(Wavl, bad_arguments_are_refused) {
    qel_wavl fresh{};
    Port element = port(1, 1, 1);
    EXPECT_EQ(init(handle), 0xa0000001u);
    EXPECT_EQ(qel_wavl_tree_init(&handle, 1, nullptr, by_key<0>), kInvalid);
    EXPECT_EQ(handle.num_threads, kThreads);
    EXPECT_EQ(qel_wavl_tree_init(nullptr, 1, nullptr, by_key<0>), kInvalid);
    EXPECT_EQ(qel_wavl_tree_init(&fresh, 0, nullptr), kInvalid);
    EXPECT_EQ(qel_wavl_tree_init(&fresh, 2, nullptr, by_key<0>, static_cast<qel_avl_compare>(nullptr)),
              kInvalid);
    EXPECT_EQ(qel_wavl_tree_finish(&fresh), kInvalid);
    EXPECT_EQ(qel_wavl_init(nullptr, 1), kInvalid);
    EXPECT_EQ(qel_wavl_init(&element, 0), kInvalid);
    auto stay = [](void*, void*) { return 0; };
    for (qel_wavl* bad : {static_cast<qel_wavl*>(nullptr), &fresh, &handle}) {
        const uint32_t thread = bad == &handle ? kThreads : 0;
        void* subject = bad == &handle ? nullptr : &element;
        EXPECT_EQ(qel_wavl_insert(bad, subject), nullptr);
        EXPECT_EQ(qel_wavl_delete(bad, subject), nullptr);
        EXPECT_EQ(qel_wavl_insert_thread(bad, thread, &element), nullptr);
        EXPECT_EQ(qel_wavl_delete_thread(bad, thread, &element), nullptr);
        EXPECT_EQ(qel_wavl_search(bad, &element, thread), nullptr);
        EXPECT_EQ(qel_wavl_get_first(bad, thread), nullptr);
        EXPECT_EQ(qel_wavl_get_next(bad, &element, thread), nullptr);
        EXPECT_EQ(static_cast<cerrno>(qel_wavl_tree_walk(bad, thread, stay, nullptr)), kInvalid);
    }
    EXPECT_EQ(qel_wavl_insert_thread(&handle, 0, nullptr), nullptr);
    EXPECT_EQ(qel_wavl_search(&handle, nullptr, 0), nullptr);
    EXPECT_EQ(qel_wavl_to_avl(nullptr, 2), nullptr);
    EXPECT_EQ(qel_avl_to_wavl(nullptr, 2), nullptr);
}
