// The hash map: keys, values, duplicates and the end of a map that is in use.
#include "support/support.hpp"

#include <qel/hash.h>

#include <array>
#include <cstring>
#include <set>
#include <string>

namespace {

int context_word = 0;

uint32_t hash_text(const void* key, void* context) {
    EXPECT_EQ(context, &context_word);
    return qel_hash_calculate(key, static_cast<int32_t>(std::strlen(static_cast<const char*>(key))));
}
bool same_text(const void* left, const void* right, void*) {
    return std::strcmp(static_cast<const char*>(left), static_cast<const char*>(right)) == 0;
}

}  // namespace

TEST(HashMap, finds_values_and_walks_duplicates_from_the_newest) {
    qel_hashmap* map = nullptr;
    ASSERT_EQ(qel_hashmap_create(&map, nullptr, hash_text, same_text, &context_word), 0);
    char key[] = "eth0", same_key[] = "eth0", other[] = "eth1";
    int first = 1, second = 2;
    qel_hashmap_tuple* older = qel_hashmap_insert(map, key, &first);
    qel_hashmap_tuple* newer = qel_hashmap_insert(map, same_key, &second);
    EXPECT_EQ(qel_hashmap_get(map, key), newer);
    EXPECT_EQ(qel_hashmap_get_next(map, key, nullptr), newer);
    EXPECT_EQ(qel_hashmap_get_next(map, key, newer), older);
    EXPECT_EQ(qel_hashmap_get_next(map, key, older), nullptr);
    EXPECT_EQ(qel_hashmap_remove(map, key), 0);
    EXPECT_EQ(qel_hashmap_get_value(map, "eth0"), &first);
    EXPECT_EQ(qel_hashmap_key(older), key);
    EXPECT_EQ(qel_hashmap_get_value(map, other), nullptr);
    EXPECT_EQ(qel_hashmap_remove(map, other), ENOENT);
    EXPECT_EQ(qel_hashmap_remove(map, nullptr), EINVAL);
    EXPECT_EQ(qel_hashmap_remove_tuple(map, nullptr), ENOENT);
    EXPECT_EQ(qel_hashmap_get(map, nullptr), nullptr);
    EXPECT_EQ(qel_hashmap_get(nullptr, key), nullptr);
    EXPECT_EQ(qel_hashmap_size(map), 1u);
    qel_hashmap_free(&map);  // with a tuple in it
    EXPECT_EQ(map, nullptr);
    qel_hashmap_free(&map);
    EXPECT_EQ(qel_hashmap_create(&map, nullptr, nullptr, same_text, nullptr), EINVAL);
}

TEST(HashMap, every_tuple_is_met_once_and_may_be_removed_on_the_way) {
    static std::array<std::string, 500> names;
    qel_hashmap* map = nullptr;
    ASSERT_EQ(qel_hashmap_create(&map, nullptr, hash_text, same_text, &context_word), 0);
    for (size_t i = 0; i < names.size(); ++i) {
        names[i] = "name " + std::to_string(i);
        ASSERT_NE(qel_hashmap_insert(map, names[i].data(), &names[i]), nullptr);
    }
    std::set<void*> stepped, walked;
    for (auto* tuple = qel_hashmap_first(map); tuple != nullptr; tuple = qel_hashmap_next(map, tuple))
        stepped.insert(qel_hashmap_value(tuple));
    auto remove = [](qel_hashmap* inner, qel_hashmap_tuple* tuple, void* context) {
        static_cast<std::set<void*>*>(context)->insert(tuple->value);
        return qel_hashmap_remove_tuple(inner, tuple);
    };
    qel_hashmap_iterate(map, remove, &walked);
    EXPECT_EQ(stepped.size(), names.size());
    EXPECT_EQ(walked, stepped);
    EXPECT_EQ(qel_hashmap_size(map), 0u);
    EXPECT_EQ(map->set->size, 13u);
    qel_hashmap_free(&map);
}
