// The hash set against a model that follows the told algorithm with plain vectors, and what its walks allow.
#include "support/support.hpp"

#include <qel/hash.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Element {
    uint32_t key;
    uint32_t hash;
    qel_hash_link link;
};

uint32_t hash_element(const void* element, void*) {
    return static_cast<const Element*>(element)->hash;
}
bool same_key(const void* left, const void* right, void*) {
    return static_cast<const Element*>(left)->key == static_cast<const Element*>(right)->key;
}

struct FreeSet {
    void operator()(qel_hashset* set) const { qel_hashset_free(&set); }
};
using Set = std::unique_ptr<qel_hashset, FreeSet>;

Set make_set() {
    qel_hashset* set = nullptr;
    EXPECT_EQ(qel_hashset_create(&set, nullptr, offsetof(Element, link), hash_element, same_key, nullptr), 0);
    return Set{set};
}

// All elements in iteration order, asked in both ways.
std::vector<Element*> order_of(qel_hashset* set) {
    std::vector<Element*> walked, stepped;
    auto note = [](qel_hashset*, void* element, void* context) {
        static_cast<std::vector<Element*>*>(context)->push_back(static_cast<Element*>(element));
        return 1;
    };
    qel_hashset_iterate(set, note, &walked);
    for (void* at = qel_hashset_first(set); at != nullptr; at = qel_hashset_next(set, at))
        stepped.push_back(static_cast<Element*>(at));
    EXPECT_EQ(walked, stepped);
    return walked;
}

struct Model {
    std::vector<uint32_t> primes{13, 29, 59, 107, 263, 599, 1361, 3037, 6719, 19219, 54941, 120721};
    size_t step = 0;
    size_t count = 0;
    std::vector<std::vector<Element*>> chains{13};  // a chain's last entry is its head

    void insert(Element* element) {
        chains[element->hash % chains.size()].push_back(element);
        ++count;
    }
    void remove(Element* element) {
        auto& chain = chains[element->hash % chains.size()];
        chain.erase(std::find(chain.begin(), chain.end(), element));
        --count;
    }
    std::vector<Element*> order() const {
        std::vector<Element*> all;
        for (const auto& chain : chains) all.insert(all.end(), chain.rbegin(), chain.rend());
        return all;
    }
    void resize() {
        for (;;) {
            const size_t size = primes[step];
            const bool grow = count > size * 85 / 100 + 1;
            if (!grow && (count >= size * 20 / 100 || step == 0)) return;
            step += grow ? 1 : SIZE_MAX;
            const std::vector<Element*> elements = order();
            chains.assign(primes[step], {});
            for (Element* element : elements) chains[element->hash % chains.size()].push_back(element);
        }
    }
};

}  // namespace

TEST(HashSet, order_and_size_follow_the_model_up_and_down) {
    std::mt19937 random{22};
    std::vector<Element> elements(60'000);
    for (Element& element : elements) element = {element.key, static_cast<uint32_t>(random() % 50'000), {}};
    for (uint32_t i = 0; i < elements.size(); ++i) elements[i].key = i;
    for (Element& element : elements)
        if (element.key % 3 == 0) element.hash |= 0xffff0000u;
    Set set = make_set();
    Model model;
    // Grows, shrinks and crosses the marks back and forth; each wave ends elsewhere.
    size_t inside = 0;
    auto go_to = [&](size_t goal) {
        while (inside != goal) {
            Element* element = &elements[inside < goal ? inside++ : --inside];
            const bool enters = element->link.pprev == nullptr;
            enters ? qel_hashset_insert(set.get(), element) : qel_hashset_remove(set.get(), element);
            enters ? model.insert(element) : model.remove(element);
            if (!enters) element->link = {};
            const size_t before = model.step;
            model.resize();
            ASSERT_EQ(set->size, model.chains.size()) << "at " << inside;
            if (before == model.step) continue;
            ASSERT_EQ(order_of(set.get()), model.order()) << "at " << inside;
        }
        ASSERT_EQ(order_of(set.get()), model.order());
    };
    for (size_t goal : {12, 13, 4, 30, 1000, 200, 60'000, 30'000, 55'000, 70, 3, 0}) go_to(goal);
    EXPECT_EQ(qel_hashset_size(set.get()), 0u);
    EXPECT_EQ(set->size, 13u);
}

TEST(HashSet, changes_during_a_walk_wait_for_its_end_and_step_through_the_primes) {
    std::mt19937 random{23};
    std::vector<Element> elements(20'000);
    for (uint32_t i = 0; i < elements.size(); ++i) elements[i] = {i, static_cast<uint32_t>(random()), {}};
    Set set = make_set();
    Model model;
    qel_hashset_insert(set.get(), &elements[0]);
    model.insert(&elements[0]);
    struct Context {
        std::vector<Element>* elements;
        Model* model;
    } context{&elements, &model};
    auto fill = [](qel_hashset* walked, void*, void* opaque) {
        Context& told = *static_cast<Context*>(opaque);
        if (told.model->count > 1) return 0;
        for (size_t i = 1; i < told.elements->size(); ++i) {
            qel_hashset_insert(walked, &(*told.elements)[i]);
            told.model->insert(&(*told.elements)[i]);
        }
        EXPECT_EQ(walked->size, 13u);
        return 0;
    };
    qel_hashset_iterate(set.get(), fill, &context);
    model.resize();
    EXPECT_EQ(set->size, 54'941u);
    EXPECT_EQ(order_of(set.get()), model.order());

    // The inner walk takes away everything, so also the element that the outer walk would visit next.
    auto empty_all = [](qel_hashset* walked, void*, void* opaque) {
        auto take = [](qel_hashset* inner, void* element, void*) {
            qel_hashset_remove(inner, element);
            *static_cast<Element*>(element) = {};
            return 0;
        };
        ++*static_cast<int*>(opaque);
        qel_hashset_iterate(walked, take, nullptr);
        EXPECT_EQ(walked->size, 54'941u);
        return 0;
    };
    int visits = 0;
    qel_hashset_iterate(set.get(), empty_all, &visits);
    EXPECT_EQ(visits, 1);
    EXPECT_EQ(set->count, 0);
    EXPECT_EQ(set->size, 13u);
}

TEST(HashSet, handler_that_ends_its_thread_lets_the_set_go) {
    Set set = make_set();
    Element element{};
    qel_hashset_insert(set.get(), &element);
    auto end = [](qel_hashset*, void*, void*) -> int { pthread_exit(nullptr); };
    std::thread([&] { qel_hashset_iterate(set.get(), end, nullptr); }).join();
    EXPECT_EQ(set->iterating, 0);
    qel_hashset_remove(set.get(), &element);
    EXPECT_EQ(qel_hashset_first(set.get()), nullptr);
}

TEST(HashSet, duplicates_are_found_newest_first_until_a_resize_turns_them_round) {
    Set set = make_set();
    std::array<Element, 3> same{{{7, 7, {}}, {7, 7, {}}, {7, 7, {}}}};
    Element other{20, 20, {}};  // the same chain of 13
    std::array<Element, 10> fill{};
    qel_hashset_insert(set.get(), &same[0]);
    qel_hashset_insert(set.get(), &other);
    qel_hashset_insert(set.get(), &same[1]);
    qel_hashset_insert(set.get(), &same[2]);
    Element probe{7, 7, {}};
    Element absent{33, 20, {}};
    EXPECT_EQ(qel_hashset_get(set.get(), &probe), &same[2]);
    EXPECT_EQ(qel_hashset_get_next(set.get(), &same[2]), &same[1]);
    EXPECT_EQ(qel_hashset_get_next(set.get(), &same[1]), &same[0]);
    EXPECT_EQ(qel_hashset_get_next(set.get(), &same[0]), nullptr);
    EXPECT_EQ(qel_hashset_get(set.get(), &absent), nullptr);
    for (Element& element : fill) element.hash = 1, qel_hashset_insert(set.get(), &element);
    ASSERT_EQ(set->size, 29u);
    EXPECT_EQ(qel_hashset_get(set.get(), &probe), &same[0]);
    EXPECT_EQ(qel_hashset_get_next(set.get(), &same[0]), &same[1]);
    qel_hashset_remove(set.get(), &same[0]);
    EXPECT_EQ(qel_hashset_get(set.get(), &probe), &same[1]);
}

TEST(HashSet, buckets_of_every_size_are_the_remainder_of_the_hash) {
    // One element with each of the hashes where a remainder by reciprocal could slip, at each size to
    // 1,280,519.
    std::vector<Element> elements(1'000'000);
    Set set = make_set();
    uint32_t seen = set->size;
    auto check_place = [&](uint32_t hash) {
        Element element{0, hash, {}};
        qel_hashset_insert(set.get(), &element);
        ASSERT_EQ(set->buckets[hash % set->size], &element.link);
        qel_hashset_remove(set.get(), &element);
    };
    for (uint32_t i = 0; i < elements.size(); ++i) {
        elements[i] = {i, i * 2654435761u, {}};
        qel_hashset_insert(set.get(), &elements[i]);
        if (set->size == seen) continue;
        // The count that passed the mark of the size before.
        ASSERT_EQ(i + 1, seen * 85ull / 100 + 2);
        seen = set->size;
        for (uint32_t quotient : {0u, 1u, UINT32_MAX / set->size})
            for (uint32_t rest : {0u, 1u, set->size - 1}) check_place(quotient * set->size + rest);
        check_place(UINT32_MAX);
    }
    EXPECT_EQ(seen, 1'280'519u);
}

TEST(HashSet, null_arguments_are_refused_and_bytes_hash_as_signed) {
    qel_hashset* set = nullptr;
    EXPECT_EQ(qel_hashset_create(nullptr, nullptr, 0, hash_element, same_key, nullptr), EINVAL);
    EXPECT_EQ(qel_hashset_create(&set, nullptr, 0, nullptr, same_key, nullptr), EINVAL);
    qel_hashset_free(&set);
    EXPECT_EQ(qel_hashset_next(nullptr, nullptr), nullptr);
    EXPECT_EQ(qel_hash_calculate("", 0), 0u);
    EXPECT_EQ(qel_hash_calculate("\xff", 1), 0xae65a494u);
    EXPECT_EQ(qel_hash_calculate("a", 1), 0xca2e9442u);
    EXPECT_EQ(qel_hash_calculate("The quick brown fox jumps over the lazy dog", 43), 0x519e91f5u);
    EXPECT_EQ(qel_hash_calculate("abc", -1), 0u);
}
