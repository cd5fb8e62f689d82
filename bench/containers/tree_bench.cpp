// What does it cost to insert, find and delete a node of an AVL tree of 60,000 and of a million, and to walk
// it?
//
// Beside Boost.Intrusive's avl_set, see tree_load.hpp. Its nodes have a link to their parent, ours haven't;
// its comparisons are inlined, ours are calls.
#include "containers/tree_load.hpp"

#include <qel/avl.h>

#include <boost/intrusive/avl_set.hpp>

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

using namespace qel_bench;
BENCHMARK(compare_trees<Insert, Ours, Boost>)->Name("avl_insert_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Search, Ours, Boost>)->Name("avl_search_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Delete, Ours, Boost>)->Name("avl_delete_beside_boost")->Apply(tree_sizes);
BENCHMARK(compare_trees<Walk, Ours, Boost>)->Name("avl_walk_beside_boost")->Apply(tree_sizes);

}  // namespace

BENCHMARK_MAIN();
