// What the benchmarks of ordered trees share: keys, records, Boost.Intrusive as the peer, and the operations.
//
// Each record is 64 bytes in an array; keys are random and distinct. Records enter in the array's order and
// are looked up and deleted by key in two random orders. A tree of ours is a class with empty(), fill(),
// find(order), remove(order) and walk(); prepare() of an operation isn't timed.
#pragma once

// The peer runs without the checks of its debug mode.
#define BOOST_DISABLE_ASSERTS

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "support/beside.hpp"

namespace qel_bench {

// Indices of records in a random order.
using Order = std::vector<std::uint32_t>;

inline Order shuffled(std::size_t count, unsigned seed) {
    Order order(count);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    return order;
}

// A key for each index, distinct since every step can be undone.
constexpr std::uint64_t scattered(std::uint64_t index) {
    index = (index ^ index >> 33) * 0xff51afd7ed558ccdu;
    index = (index ^ index >> 33) * 0xc4ceb9fe1a85ec53u;
    return index ^ index >> 33;
}

// A set or tree of Boost.Intrusive; 'Container' is avl_set or rbtree's set, 'Hook' its hook. Its comparisons
// are inlined, and deletion by key finds and erases.
template <class Hook, template <class Record> class Container>
class BoostTree {
  public:
    explicit BoostTree(std::size_t count) : records_(count) {
        for (std::size_t i = 0; i < count; ++i) records_[i].key = scattered(i);
    }
    ~BoostTree() { empty(); }
    void empty() { set_.clear(); }
    void fill() {
        for (Record& record : records_) set_.insert(record);
    }
    void find(const Order& order) {
        for (std::uint32_t index : order)
            benchmark::DoNotOptimize(&*set_.find(scattered(index), OrderOfKeys{}));
    }
    void remove(const Order& order) {
        for (std::uint32_t index : order) set_.erase(scattered(index), OrderOfKeys{});
    }
    void walk() {
        std::uint64_t sum = 0;
        for (const Record& record : set_) sum += record.key;
        benchmark::DoNotOptimize(sum);
    }

  private:
    struct alignas(64) Record : Hook {
        std::uint64_t key;
        friend bool operator<(const Record& left, const Record& right) { return left.key < right.key; }
    };
    struct OrderOfKeys {
        bool operator()(std::uint64_t key, const Record& record) const { return key < record.key; }
        bool operator()(const Record& record, std::uint64_t key) const { return record.key < key; }
    };
    std::vector<Record> records_;
    Container<Record> set_;
};

struct Insert {
    static void prepare(auto& tree) { tree.empty(); }
    static void run(auto& tree, const Order&) { tree.fill(); }
};
struct Search {
    static void prepare(auto& tree) { tree.empty(), tree.fill(); }
    static void run(auto& tree, const Order& order) { tree.find(order); }
};
struct Delete : Search {
    static void run(auto& tree, const Order& order) { tree.remove(order); }
};
struct Walk : Search {
    static void run(auto& tree, const Order&) { tree.walk(); }
};

template <class Operation, class Ours, class Peer>
void compare_trees(benchmark::State& state) {
    const std::size_t count = static_cast<std::size_t>(state.range(0));
    const Order order = shuffled(count, 1);
    Ours ours{count};
    Peer peer{count};
    beside(
        state, count, [&] { Operation::prepare(ours); }, [&] { Operation::run(ours, order); },
        [&] { Operation::prepare(peer); }, [&] { Operation::run(peer, order); });
}

inline void tree_sizes(benchmark::internal::Benchmark* bench) {
    bench->ArgName("nodes")->Arg(60'000)->Arg(1'000'000)->UseManualTime()->MinTime(1);
}

}  // namespace qel_bench
