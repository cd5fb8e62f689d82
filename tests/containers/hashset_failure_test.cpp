// The hash set and map when memory is short.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/hash.h>

#include <array>

namespace {

struct Element {
    uint32_t key;
    qel_hash_link link;
};

uint32_t hash_element(const void* element, void*) {
    return static_cast<const Element*>(element)->key;
}
bool same_key(const void* left, const void* right, void*) {
    return hash_element(left, nullptr) == hash_element(right, nullptr);
}

}  // namespace

TEST(HashSetFailure, a_set_that_cannot_grow_works_on_and_grows_at_the_next_check) {
    static std::array<Element, 40> elements;
    auto refuse = [] { return false; };
    qel_hashset* set = nullptr;
    EXPECT_EQ(qel_test::fail_each_allocation([&] {
                  qel_hashset* made = nullptr;
                  const int error = qel_hashset_create(&made, nullptr, offsetof(Element, link), hash_element,
                                                       same_key, nullptr);
                  EXPECT_EQ(error, made == nullptr ? ENOMEM : 0);
                  qel_hashset_free(&made);
              }),
              2);
    ASSERT_EQ(qel_hashset_create(&set, nullptr, offsetof(Element, link), hash_element, same_key, nullptr), 0);
    qel::allocation_hook.store(refuse);
    for (uint32_t i = 0; i < 30; ++i) {
        elements[i].key = i;
        qel_hashset_insert(set, &elements[i]);
    }
    EXPECT_EQ(set->size, 13u);
    for (uint32_t i = 0; i < 30; ++i) EXPECT_EQ(qel_hashset_get(set, &elements[i]), &elements[i]);
    qel::allocation_hook.store(nullptr);
    qel_hashset_remove(set, &elements[29]);
    EXPECT_EQ(set->size, 59u);
    for (uint32_t i = 0; i < 29; ++i) EXPECT_EQ(qel_hashset_get(set, &elements[i]), &elements[i]);
    qel_hashset_free(&set);
}
