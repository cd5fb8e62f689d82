// What does it cost to insert, find and remove an element of a hash set of 60,000 and of a million?
//
// Beside Boost.Intrusive's unordered_set. Each element is a record of 64 bytes in an array; it enters in the
// array's order and is found and removed in two random orders. Insertion begins with an empty set, so it
// contains all growth. Boost leaves growth to its user. Here it grows when its load passes 85 per cent as
// ours does: by doubling, with masks in place of remainders; and in a second run through the same primes as
// ours and on a C library's terms, its lookup, hash and match being calls as ours are. It never shrinks,
// which ours does: remove_held shows ours without, inside an iteration. Insertion looks for duplicates in
// Boost only.
#include <qel/hash.h>

#include <boost/intrusive/unordered_set.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "support/beside.hpp"

namespace {

namespace intrusive = boost::intrusive;

// Spreads the keys well enough for masks, too.
constexpr std::uint32_t mix(std::uint64_t key) {
    key = (key ^ key >> 33) * 0xff51afd7ed558ccdu;
    key = (key ^ key >> 33) * 0xc4ceb9fe1a85ec53u;
    return static_cast<std::uint32_t>(key ^ key >> 33);
}

std::vector<std::uint32_t> shuffled(std::size_t count, unsigned seed) {
    std::vector<std::uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    return order;
}

// One run over all elements; prepare_* brings a table to where it begins and is not timed.
class Ours {
  public:
    explicit Ours(std::size_t count) : records_(count) {
        for (std::size_t i = 0; i < count; ++i) records_[i].key = i;
    }
    ~Ours() { empty(); }

    void empty() { qel_hashset_free(&set_); }
    void fill() {
        (void)qel_hashset_create(&set_, nullptr, offsetof(Record, link), hash, match, nullptr);
        for (Record& record : records_) qel_hashset_insert(set_, &record);
    }
    void find(const std::vector<std::uint32_t>& order) {
        Record probe{};
        for (std::uint32_t index : order) {
            probe.key = index;
            benchmark::DoNotOptimize(qel_hashset_get(set_, &probe));
        }
    }
    void remove(const std::vector<std::uint32_t>& order) {
        for (std::uint32_t index : order) qel_hashset_remove(set_, &records_[index]);
    }
    void remove_held(const std::vector<std::uint32_t>& order) {
        order_ = &order;
        qel_hashset_iterate(set_, remove_all, this);
    }

  private:
    static int remove_all(qel_hashset*, void*, void* context) {
        Ours& ours = *static_cast<Ours*>(context);
        ours.remove(*ours.order_);
        return 0;
    }

    struct alignas(64) Record {
        qel_hash_link link;
        std::uint64_t key;
        std::uint64_t payload[5];
    };
    static std::uint32_t hash(const void* record, void*) {
        return mix(static_cast<const Record*>(record)->key);
    }
    static bool match(const void* left, const void* right, void*) {
        return static_cast<const Record*>(left)->key == static_cast<const Record*>(right)->key;
    }

    std::vector<Record> records_;
    qel_hashset* set_ = nullptr;
    const std::vector<std::uint32_t>* order_ = nullptr;
};

constexpr std::size_t kPrimes[] = {13,     29,     59,     107,    263,    599,    1361,
                                   3037,   6719,   19219,  54941,  120721, 156941, 204047,
                                   265271, 344857, 448321, 582821, 757693, 985003, 1280519};

[[gnu::noipa]] std::uint32_t called_mix(std::uint64_t key) {
    return mix(key);
}
[[gnu::noipa]] bool called_equal(std::uint64_t left, std::uint64_t right) {
    return left == right;
}

struct Doubling {
    static constexpr bool masks = true;
    static std::uint32_t hash(std::uint64_t key) { return mix(key); }
    static bool equal(std::uint64_t left, std::uint64_t right) { return left == right; }
    static std::size_t size(std::size_t step) { return std::size_t{16} << step; }
};
struct SamePrimes {
    static constexpr bool masks = false;
    static std::uint32_t hash(std::uint64_t key) { return called_mix(key); }
    static bool equal(std::uint64_t left, std::uint64_t right) { return called_equal(left, right); }
    static std::size_t size(std::size_t step) { return kPrimes[step]; }
};

template <class Growth>
class Boost {
  public:
    explicit Boost(std::size_t count) : records_(count) {
        for (std::size_t i = 0; i < count; ++i) records_[i].key = i;
    }
    ~Boost() { empty(); }

    void empty() {
        if (set_) set_->clear();
        set_.reset();
    }
    void fill() {
        step_ = 0;
        buckets_ = std::make_unique<Bucket[]>(Growth::size(0));
        set_ = std::make_unique<Set>(Traits(buckets_.get(), Growth::size(0)));
        std::size_t count = 0;
        for (Record& record : records_) {
            set_->insert(record);
            if (++count > set_->bucket_count() * 85 / 100 + 1) grow();
        }
    }
    void find(const std::vector<std::uint32_t>& order) {
        for (std::uint32_t index : order)
            benchmark::DoNotOptimize(Growth::masks ? look_up(index) : called_look_up(index));
    }
    void remove(const std::vector<std::uint32_t>& order) {
        for (std::uint32_t index : order) set_->erase(set_->iterator_to(records_[index]));
    }
    void remove_held(const std::vector<std::uint32_t>& order) { remove(order); }

  private:
    using Hook = intrusive::unordered_set_base_hook<intrusive::link_mode<intrusive::normal_link>>;
    struct alignas(64) Record : Hook {
        std::uint64_t key;
        std::uint64_t payload[6];
    };
    struct HashKey {
        std::size_t operator()(std::uint64_t key) const { return Growth::hash(key); }
        std::size_t operator()(const Record& record) const { return Growth::hash(record.key); }
    };
    struct EqualKey {
        bool operator()(std::uint64_t key, const Record& record) const {
            return Growth::equal(key, record.key);
        }
        bool operator()(const Record& left, const Record& right) const {
            return Growth::equal(left.key, right.key);
        }
    };
    using Set =
        intrusive::unordered_set<Record, intrusive::base_hook<Hook>, intrusive::hash<HashKey>,
                                 intrusive::equal<EqualKey>, intrusive::power_2_buckets<Growth::masks>>;
    using Bucket = typename Set::bucket_type;
    using Traits = typename Set::bucket_traits;

    Record* look_up(std::uint64_t key) {
        auto found = set_->find(key, HashKey{}, EqualKey{});
        return found == set_->end() ? nullptr : &*found;
    }
    [[gnu::noipa]] Record* called_look_up(std::uint64_t key) { return look_up(key); }

    void grow() {
        const std::size_t size = Growth::size(++step_);
        auto fresh = std::make_unique<Bucket[]>(size);
        set_->rehash(Traits(fresh.get(), size));
        buckets_ = std::move(fresh);
    }

    std::vector<Record> records_;
    std::unique_ptr<Bucket[]> buckets_;
    std::unique_ptr<Set> set_;
    std::size_t step_ = 0;
};

struct Insert {
    template <class Table>
    static void prepare(Table& table) {
        table.empty();
    }
    template <class Table>
    static void run(Table& table, const std::vector<std::uint32_t>&) {
        table.fill();
    }
};
struct Get {
    template <class Table>
    static void prepare(Table& table) {
        table.empty(), table.fill();
    }
    template <class Table>
    static void run(Table& table, const std::vector<std::uint32_t>& order) {
        table.find(order);
    }
};
struct Remove : Get {
    template <class Table>
    static void run(Table& table, const std::vector<std::uint32_t>& order) {
        table.remove(order);
    }
};

struct RemoveHeld : Get {
    template <class Table>
    static void run(Table& table, const std::vector<std::uint32_t>& order) {
        table.remove_held(order);
    }
};

template <class Operation, class Peer>
void compare(benchmark::State& state) {
    const std::size_t count = static_cast<std::size_t>(state.range(0));
    const std::vector<std::uint32_t> order = shuffled(count, 1);
    Ours ours{count};
    Peer peer{count};
    qel_bench::beside(
        state, count, [&] { Operation::prepare(ours); }, [&] { Operation::run(ours, order); },
        [&] { Operation::prepare(peer); }, [&] { Operation::run(peer, order); });
}

void sizes(benchmark::internal::Benchmark* bench) {
    bench->ArgName("elements")->Arg(60'000)->Arg(1'000'000)->UseManualTime()->MinTime(1);
}
BENCHMARK(compare<Insert, Boost<Doubling>>)->Name("insert_beside_boost_doubling")->Apply(sizes);
BENCHMARK(compare<Get, Boost<Doubling>>)->Name("get_beside_boost_doubling")->Apply(sizes);
BENCHMARK(compare<Remove, Boost<Doubling>>)->Name("remove_beside_boost_doubling")->Apply(sizes);
BENCHMARK(compare<RemoveHeld, Boost<Doubling>>)->Name("remove_held_beside_boost_doubling")->Apply(sizes);
BENCHMARK(compare<Insert, Boost<SamePrimes>>)->Name("insert_beside_boost_same_primes")->Apply(sizes);
BENCHMARK(compare<Get, Boost<SamePrimes>>)->Name("get_beside_boost_same_primes")->Apply(sizes);
BENCHMARK(compare<Remove, Boost<SamePrimes>>)->Name("remove_beside_boost_same_primes")->Apply(sizes);
BENCHMARK(compare<RemoveHeld, Boost<SamePrimes>>)->Name("remove_held_beside_boost_same_primes")->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
