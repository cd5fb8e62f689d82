// What does it cost to insert, find, delete and walk 60,000 keys of a red-black tree?
//
// Beside Boost.Intrusive's rbtree with its defaults, whose node is a parent, two children and a colour; ours
// keeps also sizes, key summaries, an in-order list and a free list. Records have 16 bytes of the
// application's and lie in an array, aligned to cache lines: Boost's fill one, ours two. They enter in random
// order of keys and are found and deleted in another. 'delete' is of a record that is at hand, 'delete_key'
// looks for it first. 'walk' goes from node to node by qel_rbtree_next_node(), 'visit' is
// qel_rbtree_for_each_node(); each sums the keys.
#include <qel/rbtree.h>

#include <boost/intrusive/rbtree.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "support/beside.hpp"

namespace {

namespace intrusive = boost::intrusive;

constexpr std::size_t kCount = 60'000;

std::vector<std::uint32_t> shuffled(unsigned seed) {
    std::vector<std::uint32_t> order(kCount);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    return order;
}

// Keys for records 0 to kCount - 1, and the records' numbers in the order in which they are used.
struct Load {
    std::vector<std::uint32_t> keys;
    std::vector<std::uint32_t> order = shuffled(2);

    Load() : keys(kCount) {
        std::mt19937 random(1);
        for (std::uint32_t& key : keys) key = static_cast<std::uint32_t>(random());
    }
};

class Ours {
  public:
    explicit Ours(const Load& load) : load_(load) {}
    ~Ours() {
        protect_all();
        (void)qel_rbtree_destroy(tree_);
    }

    void empty() {
        protect_all();
        (void)qel_rbtree_destroy(tree_);
        tree_ = qel_rbtree_create("bench", "rb", "bench", nullptr);
    }
    void fill() {
        for (std::size_t i = 0; i < kCount; ++i)
            (void)qel_rbtree_insert(load_.keys[i], tree_, &records_[i].node);
    }
    void find() {
        for (std::uint32_t index : load_.order)
            benchmark::DoNotOptimize(qel_rbtree_search(tree_, load_.keys[index]));
    }
    void remove() {
        for (std::uint32_t index : load_.order) (void)qel_rbtree_delete(tree_, &records_[index].node);
    }
    void remove_key() {
        for (std::uint32_t index : load_.order)
            (void)qel_rbtree_delete(tree_, qel_rbtree_search(tree_, load_.keys[index]));
    }
    void walk() {
        std::uint64_t sum = 0;
        for (qel_rbtree_node* node = qel_rbtree_first_node(tree_); node != nullptr;
             node = qel_rbtree_next_node(node))
            sum += node->key;
        benchmark::DoNotOptimize(sum);
    }
    void visit() {
        std::uint64_t sum = 0;
        auto add = [](qel_rbtree_node* node, void* context) {
            *static_cast<std::uint64_t*>(context) += node->key;
            return true;
        };
        (void)qel_rbtree_for_each_node(add, &sum, tree_, false);
        benchmark::DoNotOptimize(sum);
    }

  private:
    // What is protected isn't freed with the tree.
    void protect_all() {
        for (Record& record : records_) (void)qel_rbtree_node_protect(&record.node, true);
    }

    struct alignas(64) Record {
        qel_rbtree_node node;
        std::uint64_t payload[2];
    };

    const Load& load_;
    std::vector<Record> records_ = std::vector<Record>(kCount);
    qel_rbtree* tree_ = nullptr;
};

class Boost {
  public:
    explicit Boost(const Load& load) : load_(load) {}
    ~Boost() { empty(); }

    void empty() { tree_.clear(); }
    void fill() {
        for (std::size_t i = 0; i < kCount; ++i) {
            records_[i].key = load_.keys[i];
            tree_.insert_equal(records_[i]);
        }
    }
    void find() {
        for (std::uint32_t index : load_.order)
            benchmark::DoNotOptimize(tree_.find(load_.keys[index], LessKey{}));
    }
    void remove() {
        for (std::uint32_t index : load_.order) tree_.erase(tree_.iterator_to(records_[index]));
    }
    void remove_key() {
        for (std::uint32_t index : load_.order) tree_.erase(tree_.find(load_.keys[index], LessKey{}));
    }
    void walk() {
        std::uint64_t sum = 0;
        for (const Record& record : tree_) sum += record.key;
        benchmark::DoNotOptimize(sum);
    }
    void visit() { walk(); }

  private:
    struct alignas(64) Record : intrusive::set_base_hook<intrusive::link_mode<intrusive::normal_link>> {
        std::uint64_t key;
        std::uint64_t payload[2];
    };
    struct Less {
        bool operator()(const Record& left, const Record& right) const { return left.key < right.key; }
    };
    struct LessKey {
        bool operator()(const Record& left, std::uint64_t right) const { return left.key < right; }
        bool operator()(std::uint64_t left, const Record& right) const { return left < right.key; }
    };

    const Load& load_;
    std::vector<Record> records_ = std::vector<Record>(kCount);
    intrusive::rbtree<Record, intrusive::compare<Less>> tree_;
};

enum class Before { empty, full };

template <Before before, auto run_ours, auto run_peer>
void compare(benchmark::State& state) {
    const Load load;
    Ours ours{load};
    Boost peer{load};
    auto prepare = [](auto& side) {
        side.empty();
        if (before == Before::full) side.fill();
    };
    qel_bench::beside(
        state, kCount, [&] { prepare(ours); }, [&] { (ours.*run_ours)(); }, [&] { prepare(peer); },
        [&] { (peer.*run_peer)(); });
}

void timed(benchmark::internal::Benchmark* bench) {
    bench->UseManualTime()->MinTime(0.5);
}
BENCHMARK(compare<Before::empty, &Ours::fill, &Boost::fill>)->Name("insert_beside_boost")->Apply(timed);
BENCHMARK(compare<Before::full, &Ours::find, &Boost::find>)->Name("search_beside_boost")->Apply(timed);
BENCHMARK(compare<Before::full, &Ours::remove, &Boost::remove>)->Name("delete_beside_boost")->Apply(timed);
BENCHMARK(compare<Before::full, &Ours::remove_key, &Boost::remove_key>)
    ->Name("delete_key_beside_boost")
    ->Apply(timed);
BENCHMARK(compare<Before::full, &Ours::walk, &Boost::walk>)->Name("walk_beside_boost")->Apply(timed);
BENCHMARK(compare<Before::full, &Ours::visit, &Boost::visit>)->Name("visit_beside_boost")->Apply(timed);

}  // namespace

BENCHMARK_MAIN();
