// The radix tree against a model: a sorted map of masked keys, whose order is the tree's own, and in which
// the longest match is looked for length by length. Every key that goes into a call ends where a page ends.
#include "support/support.hpp"

#include <qel/rdx.h>

#include <pthread.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <utility>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRounds = 20'000;
#else
constexpr int kRounds = 400'000;
#endif
constexpr cerrno kInvalid = 0xa0000016, kExists = 0xa0000011, kNone = 0xa0000002, kBroken = 0xa0000020;

using Bytes = std::array<uint8_t, 16>;

struct Prefix {
    Bytes key{};
    uint32_t length = 0;
    auto operator<=>(const Prefix&) const = default;
};

bool bit(const Bytes& key, uint32_t index) {
    return (key[index / 8] >> (7 - index % 8) & 1) != 0;
}
Bytes first_bits(Bytes key, uint32_t length) {
    for (uint32_t i = 0; i < key.size(); ++i)
        key[i] &= static_cast<uint8_t>(0xff00u >> std::clamp(int(length) - int(8 * i), 0, 8));
    return key;
}
bool covers(const Prefix& outer, const Prefix& inner) {
    return outer.length <= inner.length && first_bits(inner.key, outer.length) == outer.key;
}
bool walks_ahead(const Prefix& left, const Prefix& right) {
    return covers(left, right) ? left.length > right.length : covers(right, left) || left < right;
}

// What the destructor of all trees saw. Nothing but a deleted record may get there, and each once.
int records_gone = 0;
void count_record(qel_rdx_info* info, qel_rdx_aux* aux) {
    EXPECT_TRUE(info->node == nullptr && info->refcount == 0 && aux != nullptr);
    EXPECT_EQ(rdx_get_user_data(info), nullptr);
    ++records_gone;
}

struct Entry {
    Bytes key;  // as it was given, with the bits behind the length
    void* user_data;
};
struct Answer {
    const uint8_t* key = nullptr;
    uint32_t length = 999;
    void* user_data = nullptr;
};

// A tree and its model. Each change is held against the model's.
class Modelled {
  public:
    explicit Modelled(uint32_t bits, unsigned seed = 1) : random(seed), keylen(bits) {
        qel_rdx_attr attr;
        EXPECT_EQ(qel_rdx_tree_attr_user_init(&attr, keylen, count_record, 64, "routes", 6), 0u);
        EXPECT_EQ(qel_rdx_tree_create(&tree, &attr), 0u);
        page_ = static_cast<uint8_t*>(
            mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_EQ(mprotect(page_ + 4096, 4096, PROT_NONE), 0);
        for (Bytes& stem : stems_) std::ranges::generate(stem, [&] { return uint8_t(random()); });
        stems_[0] = {};
    }
    ~Modelled() {
        while (!model.empty()) remove(existing());
        EXPECT_EQ(made_, records_gone - gone_before_);
        EXPECT_EQ(qel_rdx_tree_destroy(tree), 0u);
        munmap(page_, 8192);
    }

    const uint8_t* at_page_end(const Bytes& key) {
        return std::copy_n(key.data(), keylen / 8, page_ + 4096 - keylen / 8) - keylen / 8;
    }
    // A key near others, so that prefixes nest and part at all depths.
    Bytes any_key() {
        Bytes key = stems_[random() % stems_.size()];
        const auto from = static_cast<uint32_t>(random() % keylen);
        key[from / 8] ^= static_cast<uint8_t>(0x80 >> from % 8);
        if (random() % 2 == 0)
            for (uint32_t i = from / 8 + 1; i < keylen / 8; ++i) key[i] = static_cast<uint8_t>(random());
        for (uint32_t i = keylen / 8; i < key.size(); ++i) key[i] = 0;
        return key;
    }
    uint32_t any_length() {
        return random() % 3 == 0 ? keylen : static_cast<uint32_t>(random() % (keylen + 1));
    }
    std::pair<Bytes, uint32_t> any() { return {any_key(), any_length()}; }
    std::pair<Bytes, uint32_t> existing() {
        if (model.empty()) return any();
        auto found = model.lower_bound({any_key(), any_length()});
        if (found == model.end()) found = model.begin();
        return {found->second.key, found->first.length};
    }

    void insert(std::pair<Bytes, uint32_t> given) {
        const auto [key, length] = given;
        const auto [place, fresh] =
            model.try_emplace({first_bits(key, length), length}, Entry{key, next_value_});
        EXPECT_EQ(qel_rdx_insert(tree, at_page_end(key), length, next_value_), fresh ? 0u : kExists);
        note_made(fresh);
    }
    void update(std::pair<Bytes, uint32_t> given, uint32_t flag) {
        const auto [key, length] = given;
        const auto found = model.find({first_bits(key, length), length});
        void* const old = found != model.end() ? found->second.user_data : nullptr;
        const bool accepted = old != nullptr || flag == 1;
        void* out = this;
        EXPECT_EQ(qel_rdx_update(tree, at_page_end(key), length, next_value_, flag, &out),
                  accepted ? 0u : kInvalid);
        EXPECT_EQ(out, old);
        if (accepted) model[{first_bits(key, length), length}] = Entry{key, next_value_};
        note_made(accepted);
    }
    void remove(std::pair<Bytes, uint32_t> given) {
        const auto [key, length] = given;
        const auto found = model.find({first_bits(key, length), length});
        void* out = this;
        EXPECT_EQ(qel_rdx_delete(tree, at_page_end(key), length, &out), found == model.end() ? kInvalid : 0u);
        EXPECT_EQ(out, found == model.end() ? nullptr : found->second.user_data);
        if (found != model.end()) model.erase(found);
    }

    using Call = cerrno (*)(qel_rdx_tree*, const uint8_t*, uint32_t, const uint8_t**, uint32_t*, void**);
    void expect(Call call, const Bytes& key, uint32_t length,
                decltype(std::map<Prefix, Entry>{}.end()) wanted) {
        Answer got;
        const cerrno result = call(tree, at_page_end(key), length, &got.key, &got.length, &got.user_data);
        if (wanted == model.end()) {
            EXPECT_EQ(result, kInvalid);
            EXPECT_TRUE(got.key == nullptr && got.length == 999 && got.user_data == nullptr);
            return;
        }
        ASSERT_EQ(result, 0u);
        EXPECT_TRUE(std::equal(got.key, got.key + keylen / 8, wanted->second.key.begin()));
        EXPECT_EQ(got.length, wanted->first.length);
        EXPECT_EQ(got.user_data, wanted->second.user_data);
    }
    // All five ways to ask for a prefix.
    void ask(std::pair<Bytes, uint32_t> given) {
        const auto [key, length] = given;
        const Prefix prefix{first_bits(key, length), length};
        const auto exact = model.find(prefix);
        void* out = nullptr;
        const cerrno known = exact != model.end() ? 0u : kInvalid;
        EXPECT_EQ(qel_rdx_search_exact(tree, at_page_end(key), length, &out), known);
        EXPECT_EQ(out, known == 0 ? exact->second.user_data : nullptr);
        EXPECT_EQ(qel_rdx_get_node(tree, at_page_end(key), length), known);
        auto longest = exact;
        for (uint32_t bits = length; longest == model.end() && bits-- > 0;)
            longest = model.find({first_bits(key, bits), bits});
        expect(qel_rdx_search, key, length, longest);
        expect(qel_rdx_key_next_node, key, length, model.upper_bound(prefix));
        const auto from = model.lower_bound(prefix);
        expect(qel_rdx_key_previous_node, key, length, from == model.begin() ? model.end() : std::prev(from));
    }
    // The tree's shape: lengths grow downwards, each node has a reason, borrowed records are counted.
    void expect_sound() {
        std::map<const qel_rdx_info*, uint32_t> holders;
        nodes = expect_sound_below(tree->root, holders);
        size_t entries = 0;
        for (const auto& [record, count] : holders) {
            EXPECT_EQ(record->refcount, count);
            entries += record->node != nullptr && record->node->info == record;
        }
        EXPECT_EQ(entries, model.size());
        EXPECT_EQ(holders.size(), model.size());
        EXPECT_LE(nodes, 2 * model.size() + 1);
    }

    qel_rdx_tree* tree = nullptr;
    std::map<Prefix, Entry> model;
    std::mt19937 random;
    uint32_t keylen;
    size_t nodes = 0;

  private:
    void note_made(bool made) {
        made_ += made;
        next_value_ = static_cast<char*>(next_value_) + 1;
    }
    size_t expect_sound_below(const qel_rdx_node* node, std::map<const qel_rdx_info*, uint32_t>& holders) {
        const bool root = node == tree->root;
        EXPECT_EQ(node->flags & ~QEL_RDX_NODE_ENTRY, root ? QEL_RDX_NODE_ROOT : 0u);
        EXPECT_TRUE((node->flags & QEL_RDX_NODE_ENTRY) || root || (node->left && node->right));
        EXPECT_TRUE(node->walkers == 0 && (root || node->bit > node->parent->bit));
        EXPECT_EQ(node->info == nullptr, model.empty());
        if (node->info == nullptr) return 1;
        ++holders[node->info];
        EXPECT_TRUE(node->info->prefix_len >= node->bit && node->info->next == nullptr);
        size_t count = 1;
        for (const qel_rdx_node* below : {node->left, node->right}) {
            if (below == nullptr) continue;
            EXPECT_EQ(below->parent, node);
            count += expect_sound_below(below, holders);
            Bytes above{}, under{};
            std::copy_n(node->info->key, keylen / 8, above.begin());
            std::copy_n(below->info->key, keylen / 8, under.begin());
            EXPECT_EQ(first_bits(above, node->bit), first_bits(under, node->bit));
            EXPECT_EQ(bit(under, node->bit), below == node->right);
        }
        return count;
    }

    std::array<Bytes, 12> stems_{};
    uint8_t* page_;
    void* next_value_ = reinterpret_cast<void*>(1);
    int made_ = 0;
    int gone_before_ = records_gone;
};

// What a walk saw, in order, and what its condition refused.
struct Seen {
    Modelled& routes;
    std::vector<Prefix> entries;
    std::set<Prefix> refused;
};
Prefix prefix_of(const qel_rdx_tree* tree, const uint8_t* key, uint32_t length) {
    Bytes bytes{};
    std::copy_n(key, tree->key_bytes, bytes.begin());
    return {first_bits(bytes, length), length};
}
int note(qel_rdx_tree* tree, const uint8_t* key, uint32_t length, void* user_data, void* context) {
    Seen& seen = *static_cast<Seen*>(context);
    seen.entries.push_back(prefix_of(tree, key, length));
    EXPECT_EQ(user_data, seen.routes.model.at(seen.entries.back()).user_data);
    return 0;
}
int refuse_some(qel_rdx_tree* tree, const uint8_t* key, uint32_t length, void*, uint32_t word,
                void* context) {
    const Prefix prefix = prefix_of(tree, key, length);
    if ((prefix.key[length / 8 % 16] + length) % 7 != word) return 1;
    static_cast<Seen*>(context)->refused.insert(prefix);
    return 0;
}

void expect_walks(Modelled& routes, std::pair<Bytes, uint32_t> given) {
    const Prefix top{first_bits(given.first, given.second), given.second};
    const uint8_t* key = routes.at_page_end(given.first);
    std::vector<Prefix> all, inside, above, allowed;
    for (const auto& [prefix, entry] : routes.model) {
        all.push_back(prefix);
        if (covers(top, prefix)) inside.push_back(prefix);
        if (covers(prefix, top)) above.insert(above.begin(), prefix);
    }
    std::ranges::sort(all, walks_ahead);
    std::ranges::sort(inside, walks_ahead);
    Seen whole{routes, {}, {}}, subtree{routes, {}, {}}, reverse{routes, {}, {}}, pruned{routes, {}, {}};
    EXPECT_EQ(qel_rdx_tree_walk(routes.tree, 3, note, &whole), 0);
    EXPECT_EQ(whole.entries, all);
    const cerrno result = qel_rdx_subtree_walk(routes.tree, 0, key, top.length, note, &subtree);
    EXPECT_EQ(result, inside.empty() && top.length > 0 ? kNone : 0u);
    EXPECT_EQ(subtree.entries, inside);
    EXPECT_EQ(qel_rdx_tree_walk_reverse(routes.tree, 0, key, top.length, note, &reverse), 0);
    EXPECT_EQ(reverse.entries, above);
    auto is_refused = [&](const Prefix& prefix) {
        return std::ranges::any_of(pruned.refused,
                                   [&](const Prefix& by) { return by != prefix && covers(by, prefix); });
    };
    EXPECT_EQ(qel_rdx_tree_walk_cond(routes.tree, 0, note, 3, refuse_some, &pruned), 0);
    std::ranges::remove_copy_if(all, std::back_inserter(allowed), is_refused);
    EXPECT_EQ(pruned.entries, allowed);
    pruned.entries.clear(), pruned.refused.clear(), allowed.clear();
    EXPECT_EQ(qel_rdx_subtree_walk_cond(routes.tree, 0, key, top.length, note, 3, refuse_some, &pruned),
              result);
    std::ranges::remove_copy_if(inside, std::back_inserter(allowed), is_refused);
    EXPECT_EQ(pruned.entries, allowed);
}

class KeyLengths : public testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Rdx, KeyLengths, testing::Values(8, 32, 40, 128));

TEST_P(KeyLengths, lookups_neighbours_and_walks_equal_a_model_through_random_changes) {
    Modelled routes{GetParam()};
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        const bool growing = round / 3000 % 2 == 0;
        switch (routes.random() % 8) {
        case 0:
            routes.update(routes.existing(), routes.random() % 2);
            break;
        case 1:
            routes.update(routes.any(), growing);
            break;
        case 2:
            routes.remove(routes.any());
            break;
        case 3:
            routes.remove(routes.existing());
            break;
        case 4:
            routes.insert(growing ? routes.any() : routes.existing());
            break;
        case 5:
            growing ? routes.insert(routes.any()) : routes.remove(routes.existing());
            break;
        case 6:
            routes.ask(routes.existing());
            break;
        case 7:
            routes.ask(routes.any());
            break;
        }
        if (round % 997 != 0) continue;
        routes.expect_sound();
        expect_walks(routes, round % 2 == 0 ? routes.existing() : routes.any());
    }
}

// A walk whose function changes the tree at random.
struct Disturbed {
    Modelled& routes;
    std::set<Prefix> seen;
    std::set<Prefix> stayed;  // there from the walk's start on
};
int disturb(qel_rdx_tree* tree, const uint8_t* key, uint32_t length, void*, void* context) {
    Disturbed& walk = *static_cast<Disturbed*>(context);
    Modelled& routes = walk.routes;
    const Prefix here = prefix_of(tree, key, length);
    EXPECT_TRUE(routes.model.contains(here) && walk.seen.insert(here).second);
    for (uint32_t change = routes.random() % 4; change > 0; --change) {
        auto doomed = routes.random() % 2 == 0 ? std::pair{here.key, length} : routes.existing();
        walk.stayed.erase({first_bits(doomed.first, doomed.second), doomed.second});
        routes.remove(doomed);
        // A re-inserted entry would be visited, or not, by where the walk is.
        if (auto added = routes.any(); routes.random() % 2 == 0 && added.second > length)
            routes.insert(added);
    }
    EXPECT_EQ(prefix_of(tree, key, length), here);  // the key stays readable
    return 0;
}

TEST(Rdx, walks_go_on_while_their_function_changes_the_tree) {
    for (uint32_t keylen : {32, 128}) {
        for (unsigned seed = 0; seed < kRounds / 2000 && !HasFailure(); ++seed) {
            Modelled routes{keylen, seed};
            for (int i = 0; i < 200; ++i) routes.insert(routes.any());
            Disturbed walk{routes, {}, {}};
            const Prefix top{{}, seed % 3 == 0 ? 3u : 0u};
            for (const auto& [prefix, entry] : routes.model)
                if (covers(top, prefix)) walk.stayed.insert(prefix);
            EXPECT_EQ(
                qel_rdx_subtree_walk(routes.tree, 0, routes.at_page_end(top.key), top.length, disturb, &walk),
                0u);
            EXPECT_TRUE(std::ranges::includes(walk.seen, walk.stayed));
            routes.expect_sound();
        }
    }
}

int delete_and_leave(qel_rdx_tree* tree, const uint8_t* key, uint32_t length, void*, void* context) {
    Modelled& routes = *static_cast<Modelled*>(context);
    EXPECT_EQ(qel_rdx_tree_destroy(tree), kInvalid);
    routes.remove({prefix_of(tree, key, length).key, length});
    if (routes.model.size() == 1) pthread_exit(nullptr);
    return length == 16 ? 77 : 0;
}

TEST(Rdx, walks_end_with_their_function_s_result_or_thread) {
    Modelled routes{32};
    for (uint8_t i = 0; i < 4; ++i) routes.insert({Bytes{10, i}, 16});
    routes.insert({Bytes{}, 0});
    const uint8_t* ten = routes.at_page_end({10});
    EXPECT_EQ(qel_rdx_tree_walk(routes.tree, 0, delete_and_leave, &routes), 77);
    EXPECT_EQ(qel_rdx_subtree_walk(routes.tree, 0, ten, 8, delete_and_leave, &routes), kInvalid);
    EXPECT_EQ(
        qel_rdx_tree_walk_reverse(routes.tree, 0, routes.at_page_end({10, 2}), 32, delete_and_leave, &routes),
        77);
    EXPECT_EQ(routes.model.size(), 2u);
    std::thread{[&] { qel_rdx_tree_walk(routes.tree, 0, delete_and_leave, &routes); }}.join();
    routes.expect_sound();
    EXPECT_EQ(routes.model.size(), 1u);
}

TEST(Rdx, glue_comes_where_keys_part_and_goes_with_either) {
    Modelled routes{32};
    routes.insert({Bytes{10, 0}, 16});
    routes.insert({Bytes{10, 1}, 16});
    EXPECT_EQ(routes.tree->root->left->bit, 15u);
    routes.expect_sound();
    EXPECT_EQ(routes.nodes, 4u);
    routes.remove({Bytes{10, 0}, 16});
    EXPECT_EQ(routes.tree->root->left->bit, 16u);
    routes.insert({Bytes{10}, 8});
    routes.ask({Bytes{10, 1, 2, 3}, 32});
    routes.remove({Bytes{10, 1}, 16});
    routes.ask({Bytes{10, 1, 2, 3}, 32});
    EXPECT_EQ(rdx_get_user_data(routes.tree->root->left->info), routes.model.begin()->second.user_data);
    routes.remove({Bytes{10}, 8});
    routes.insert({Bytes{}, 0});
    EXPECT_EQ(qel_rdx_tree_destroy(routes.tree), kInvalid);
    routes.ask({Bytes{99}, 32});
}

TEST(Rdx, attributes_are_checked_where_they_are_set_and_at_creation) {
    qel_rdx_attr attr{};
    qel_rdx_tree* tree = nullptr;
    char name[33] = {};
    uint32_t value = 0;
    EXPECT_EQ(qel_rdx_tree_attr_init(&attr), 0u);
    EXPECT_TRUE(qel_rdx_tree_attr_get_keylen(&attr, &value) == 0 && value == 32 && attr.key_bytes == 4);
    EXPECT_TRUE(qel_rdx_tree_attr_get_chunk_size(&attr, &value) == 0 && value == 64);
    EXPECT_TRUE(qel_rdx_tree_attr_get_chunk_name(&attr, name, 32) == 0 && std::string{name} == "QEL_RTREE");
    const char text[] = "a name of all thirty-two letters";
    EXPECT_EQ(qel_rdx_tree_attr_set_chunk_name(&attr, text, 32), 0u);
    EXPECT_TRUE(qel_rdx_tree_attr_get_chunk_name(&attr, name, 32) == 0 && std::string{name} == text);
    const qel_rdx_attr before = attr;
    for (uint32_t length : {0, 33}) {
        EXPECT_EQ(qel_rdx_tree_attr_set_chunk_name(&attr, text, length), kInvalid);
        EXPECT_EQ(qel_rdx_tree_attr_get_chunk_name(&attr, name, length), kInvalid);
        EXPECT_EQ(qel_rdx_tree_attr_user_init(&attr, 32, nullptr, 64, text, length), kInvalid);
    }
    EXPECT_EQ(qel_rdx_tree_attr_set_keylen(&attr, 33), kInvalid);
    EXPECT_EQ(qel_rdx_tree_attr_set_chunk_size(&attr, 63), kInvalid);
    EXPECT_EQ(qel_rdx_tree_attr_set_aux_destructor(&attr, nullptr), kInvalid);
    EXPECT_EQ(qel_rdx_tree_attr_user_init(&attr, 12, nullptr, 64, text, 4), kInvalid);
    EXPECT_EQ(qel_rdx_tree_attr_user_init(&attr, 0, nullptr, 63, text, 4), kInvalid);
    EXPECT_EQ(memcmp(&attr, &before, sizeof attr), 0);
    for (uint32_t keylen : {0, 136, 2080}) {
        EXPECT_EQ(qel_rdx_tree_attr_set_keylen(&attr, keylen), 0u);
        EXPECT_EQ(qel_rdx_tree_create(&tree, &attr), kInvalid);
    }
    EXPECT_EQ(qel_rdx_tree_create(&tree, nullptr), 0u);
    EXPECT_TRUE(std::string{tree->chunk_name} == "QEL RTREE" && tree->keylen == 32 && tree->key_bytes == 4);
    EXPECT_EQ(qel_rdx_tree_destroy(tree), 0u);
}

TEST(Rdx, bad_arguments_and_an_empty_tree_are_told) {
    Modelled routes{32};
    const uint8_t key[4] = {10};
    const uint8_t* out_key = nullptr;
    uint32_t length = 0;
    void* out = nullptr;
    int mark = 0;
    EXPECT_EQ(qel_rdx_first_node(routes.tree, &out_key, &length, &out), kInvalid);
    EXPECT_EQ(qel_rdx_last_node(routes.tree, &out_key, &length, &out), kExists);
    EXPECT_EQ(qel_rdx_subtree_walk(routes.tree, 0, key, 0, note, nullptr), 0u);
    EXPECT_EQ(qel_rdx_subtree_walk(routes.tree, 0, key, 1, note, nullptr), kNone);
    routes.insert({Bytes{10}, 8});
    for (qel_rdx_tree* tree : {routes.tree, static_cast<qel_rdx_tree*>(nullptr)}) {
        const uint8_t* bytes = tree == nullptr ? key : nullptr;
        for (const auto& [from, bits] : {std::pair{bytes, 8u}, {+key, tree == nullptr ? 8u : 33u}}) {
            EXPECT_EQ(qel_rdx_insert(tree, from, bits, &mark), kInvalid);
            EXPECT_EQ(qel_rdx_update(tree, from, bits, &mark, 1, &out), kInvalid);
            EXPECT_EQ(qel_rdx_delete(tree, from, bits, &out), kInvalid);
            EXPECT_EQ(qel_rdx_search_exact(tree, from, bits, &out), kInvalid);
            EXPECT_EQ(qel_rdx_get_node(tree, from, bits), kInvalid);
            for (auto call : {qel_rdx_search, qel_rdx_next_node, qel_rdx_previous_node})
                EXPECT_EQ(call(tree, from, bits, &out_key, &length, &out), kInvalid);
            EXPECT_EQ(qel_rdx_subtree_walk(tree, 0, from, bits, note, nullptr), kInvalid);
            EXPECT_EQ(qel_rdx_tree_walk_reverse(tree, 0, from, bits, note, nullptr),
                      static_cast<int>(kInvalid));
        }
    }
    EXPECT_EQ(qel_rdx_insert(routes.tree, key, 9, nullptr), kInvalid);
    EXPECT_EQ(qel_rdx_update(routes.tree, key, 8, nullptr, 1, &out), kInvalid);
    EXPECT_EQ(qel_rdx_delete(routes.tree, key, 8, nullptr), kInvalid);
    EXPECT_EQ(qel_rdx_search(routes.tree, key, 32, nullptr, &length, &out), kInvalid);
    EXPECT_EQ(qel_rdx_first_node(routes.tree, &out_key, nullptr, &out), kInvalid);
    EXPECT_EQ(qel_rdx_last_node(routes.tree, &out_key, &length, nullptr), kBroken);
    EXPECT_EQ(qel_rdx_tree_walk(routes.tree, 0, nullptr, nullptr), static_cast<int>(kInvalid));
    EXPECT_EQ(qel_rdx_tree_walk_cond(routes.tree, 0, note, 0, nullptr, nullptr), static_cast<int>(kInvalid));
    EXPECT_EQ(qel_rdx_subtree_walk_cond(routes.tree, 0, key, 8, note, 0, nullptr, nullptr), kInvalid);
    EXPECT_TRUE(rdx_get_key(nullptr) == nullptr && rdx_get_key_prefixlen(nullptr, &length) == nullptr);
    const qel_rdx_info* record = routes.tree->root->info;
    EXPECT_TRUE(rdx_get_key(record) == rdx_get_key_prefixlen(record, &length) && length == 8);
}

}  // namespace
