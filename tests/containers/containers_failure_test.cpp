// Containers when memory is short.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <qel/bitlist.h>
#include <qel/hash.h>
#include <qel/list.h>
#include <qel/reg.h>
#include <qel/wavl.h>

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

int first_wins(const qel_avl_node*, const qel_avl_node*) {
    return QEL_AVL_EQUAL;
}

// An allocator that counts what it has out.
int blocks_out = 0;
void* counted_allocate(size_t size) {
    if (!qel_test::allow_allocation()) return nullptr;
    ++blocks_out;
    return malloc(size);
}
void counted_free(void* memory) {
    --blocks_out;
    free(memory);
}

}  // namespace

TEST(ContainerFailure, a_set_that_cannot_grow_works_on_and_grows_at_the_next_check) {
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

TEST(ContainerFailure, maps_and_lists_are_whole_or_not_there) {
    // Tuples beyond the first block, and one of the set's resizes: an insertion fails alone or not at all.
    EXPECT_GE(qel_test::fail_each_allocation([] {
                  static std::array<Element, 80> keys;
                  qel_hashmap* map = nullptr;
                  if (qel_hashmap_create(&map, nullptr, hash_element, same_key, nullptr) != 0) {
                      EXPECT_EQ(map, nullptr);
                      return;
                  }
                  size_t entered = 0;
                  for (Element& key : keys) {
                      key.key = static_cast<uint32_t>(&key - keys.data());
                      const bool inside = qel_hashmap_insert(map, &key, &key) != nullptr;
                      EXPECT_EQ(qel_hashmap_get_value(map, &key), inside ? &key : nullptr);
                      entered += inside;
                  }
                  EXPECT_EQ(qel_hashmap_size(map), entered);
                  qel_hashmap_free(&map);
              }),
              6);
    EXPECT_GE(qel_test::fail_each_allocation([] {
                  qel_list* list = nullptr;
                  if (qel_list_create(&list, 0, "list", QEL_LIST_INDIRECT, nullptr) != 0) {
                      EXPECT_EQ(list, nullptr);
                      return;
                  }
                  size_t entered = 0;
                  for (int i = 0; i < 40; ++i) entered += qel_list_enqueue(list, nullptr, list) != nullptr;
                  EXPECT_EQ(qel_list_get_size(list), entered);
                  while (qel_list_dequeue(list) != nullptr) {
                  }
                  EXPECT_EQ(qel_list_destroy(&list), 0u);
              }),
              3);
}

TEST(ContainerFailure, wrapped_trees_are_all_made_or_none) {
    for (bool counted : {false, true}) {
        auto make_and_end = [counted] {
            qel_wavl handle{};
            if (counted) handle.alloc_fn = counted_allocate, handle.free_fn = counted_free;
            const cerrno error = qel_wavl_tree_init(&handle, 2, nullptr, first_wins, first_wins);
            EXPECT_EQ(error, qel_test::allocation_failed ? 0xa000000c : 0u);
            EXPECT_EQ(handle.initialized, error == 0);
            EXPECT_EQ(blocks_out, counted && error == 0 ? 3 : 0);
            EXPECT_EQ(qel_wavl_tree_finish(&handle), error == 0 ? 0 : 0xa0000016);
            EXPECT_EQ(handle.trees, nullptr);
        };
        make_and_end();  // makes the trace buffers
        EXPECT_EQ(qel_test::fail_each_allocation(make_and_end), 3);
        EXPECT_EQ(blocks_out, 0);
    }
}

TEST(ContainerFailure, bit_lists_and_callbacks_without_memory_leave_all_as_it_was) {
    uint32_t memory[QEL_BITLIST_WORDS(33)];
    auto* source = reinterpret_cast<qel_bitlist*>(memory);
    ASSERT_EQ(qel_bitlist_setall_d(source, 33, 0), 0u);
    qel_queue queue{};
    EXPECT_EQ(qel_test::fail_each_allocation([&] {
                  qel_bitlist* clone = source;
                  const cerrno error = qel_bitlist_clone(source, 1, &clone);
                  EXPECT_EQ(error, clone == source ? 0xa0000016 : 0u);
                  if (clone != source) qel_bitlist_free(clone);
                  if (error != 0) return;
                  const int refused = qel_reg_add_list(&queue, [] {});
                  EXPECT_EQ(refused, qel_queue_empty(&queue) != 0 ? ENOMEM : 0);
              }),
              2);
    EXPECT_EQ(qel_reg_delete_list(&queue, static_cast<qel_reg_entry*>(queue.head)->function), 0);
}
