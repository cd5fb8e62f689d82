// What does it cost to insert, find and delete a node of an AVL tree of 60,000 and of a million, and to walk
// it?
//
// Beside Boost.Intrusive's avl_set, see tree_load.hpp. Its nodes have a link to their parent, ours haven't;
// its comparisons are inlined, ours are calls. And beside what keeps no balance: uthash, a hash table without
// an order, and Judy, a digital tree in order that allocates what it holds.
#include "containers/tree_load.hpp"

#include <qel/avl.h>

#include <Judy.h>
#include <boost/intrusive/avl_set.hpp>
#include <uthash.h>

namespace {

namespace intrusive = boost::intrusive;
using qel_bench::Order;
using qel_bench::scattered;

class Ours {
  public:
    explicit Ours(std::size_t count) : records_(count) {
        for (std::size_t i = 0; i < count; ++i) records_[i].key = scattered(i);
        empty();
    }
    void empty() { (void)qel_avl_tree_init(&tree_, by_key); }
    void fill() {
        for (Record& record : records_) (void)qel_avl_insert(&tree_, &record.node);
    }
    void find(const Order& order) {
        Record goal{};
        qel_avl_node* found = nullptr;
        for (std::uint32_t index : order) {
            goal.key = scattered(index);
            (void)qel_avl_search(&tree_, &goal, &found);
            benchmark::DoNotOptimize(found);
        }
    }
    void remove(const Order& order) {
        Record goal{};
        for (std::uint32_t index : order) {
            goal.key = scattered(index);
            (void)qel_avl_delete(&tree_, &goal.node, nullptr);
        }
    }
    void walk() {
        std::uint64_t sum = 0;
        qel_avl_tree_walk(&tree_, add_key, &sum);
        benchmark::DoNotOptimize(sum);
    }

  private:
    struct alignas(64) Record {
        qel_avl_node node;
        std::uint64_t key;
    };
    static std::uint64_t key_of(const qel_avl_node* node) {
        return reinterpret_cast<const Record*>(node)->key;
    }
    static int by_key(const qel_avl_node* a, const qel_avl_node* b) {
        const std::uint64_t left = key_of(a);
        const std::uint64_t right = key_of(b);
        return left == right ? QEL_AVL_EQUAL : left < right;
    }
    static int add_key(qel_avl_node* node, void* sum) {
        *static_cast<std::uint64_t*>(sum) += key_of(node);
        return 0;
    }

    std::vector<Record> records_;
    qel_avl tree_{};
};

using Hook = intrusive::avl_set_base_hook<intrusive::link_mode<intrusive::normal_link>>;
template <class Record>
using Set = intrusive::avl_set<Record, intrusive::base_hook<Hook>>;
using Boost = qel_bench::BoostTree<Hook, Set>;

class Uthash {
  public:
    explicit Uthash(std::size_t count) : records_(count) {
        for (std::size_t i = 0; i < count; ++i) records_[i].key = scattered(i);
    }
    ~Uthash() { empty(); }
    void empty() { HASH_CLEAR(hh, head_); }
    void fill() {
        for (Record& record : records_) HASH_ADD(hh, head_, key, sizeof record.key, &record);
    }
    void find(const Order& order) {
        for (std::uint32_t index : order) benchmark::DoNotOptimize(find(scattered(index)));
    }
    void remove(const Order& order) {
        for (std::uint32_t index : order) HASH_DELETE(hh, head_, find(scattered(index)));
    }

  private:
    struct Record {
        std::uint64_t key;
        UT_hash_handle hh;
    };
    Record* find(std::uint64_t key) {
        Record* found = nullptr;
        HASH_FIND(hh, head_, &key, sizeof key, found);
        return found;
    }

    std::vector<Record> records_;
    Record* head_ = nullptr;
};

class Judy {
  public:
    explicit Judy(std::size_t count) : count_(count) {}
    ~Judy() { empty(); }
    void empty() { (void)JudyLFreeArray(&array_, nullptr); }
    void fill() {
        for (std::size_t i = 0; i < count_; ++i)
            *static_cast<void**>(JudyLIns(&array_, scattered(i), nullptr)) = this;
    }
    void find(const Order& order) {
        for (std::uint32_t index : order)
            benchmark::DoNotOptimize(JudyLGet(array_, scattered(index), nullptr));
    }
    void remove(const Order& order) {
        for (std::uint32_t index : order) (void)JudyLDel(&array_, scattered(index), nullptr);
    }
    void walk() {
        Word_t key = 0, sum = 0;
        for (void* value = JudyLFirst(array_, &key, nullptr); value != nullptr;
             value = JudyLNext(array_, &key, nullptr))
            sum += key;
        benchmark::DoNotOptimize(sum);
    }

  private:
    std::size_t count_;
    Pvoid_t array_ = nullptr;
};

using namespace qel_bench;
BENCHMARK(compare_trees<Insert, Ours, Boost>)->Name("avl_insert_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Search, Ours, Boost>)->Name("avl_search_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Delete, Ours, Boost>)->Name("avl_delete_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Walk, Ours, Boost>)->Name("avl_walk_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Insert, Ours, Uthash>)->Name("avl_insert_beside_uthash")->Apply(tree_sizes);
BENCHMARK(compare_trees<Search, Ours, Uthash>)->Name("avl_search_beside_uthash")->Apply(tree_sizes);
BENCHMARK(compare_trees<Delete, Ours, Uthash>)->Name("avl_delete_beside_uthash")->Apply(tree_sizes);
BENCHMARK(compare_trees<Insert, Ours, Judy>)->Name("avl_insert_beside_judy")->Apply(tree_sizes);
BENCHMARK(compare_trees<Search, Ours, Judy>)->Name("avl_search_beside_judy")->Apply(tree_sizes);
BENCHMARK(compare_trees<Delete, Ours, Judy>)->Name("avl_delete_beside_judy")->Apply(tree_sizes);
BENCHMARK(compare_trees<Walk, Ours, Judy>)->Name("avl_walk_beside_judy")->Apply(tree_sizes);

}  // namespace

BENCHMARK_MAIN();
