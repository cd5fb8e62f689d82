// What does it cost to enter, find and delete a route among 500,000 of IPv4 and 200,000 of IPv6?
//
// Beside a plain binary trie, DPDK's trees (rib, rib6), which answer the same questions as ours, and its
// tables (lpm, fib), which give lookups in a memory access or two for memory and slow changes. All get the
// same routes and addresses and must agree on every answer. 'MB' and 'peer_MB' are what the full tables hold.
#include <qel/rdx.h>

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "containers/prefix_load.hpp"
#include "support/beside.hpp"

#ifdef QEL_BENCH_DPDK
#include <rte_eal.h>
#include <rte_fib.h>
#include <rte_fib6.h>
#include <rte_malloc.h>
#include <rte_rib.h>
#include <rte_rib6.h>
#endif

namespace {

using qel_bench::Load4;
using qel_bench::Load6;

const Load4& load_of(const Load4*) {
    static const Load4 load{qel_bench::kShares4, qel_bench::kBlocks4, 500'000, 1 << 18};
    return load;
}
const Load6& load_of(const Load6*) {
    static const Load6 load{qel_bench::kShares6, qel_bench::kBlocks6, 200'000, 1 << 18};
    return load;
}

double heap_megabytes() {
    struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) / 1e6;
}

// A table: insert() and erase() take a route and its next hop, find() an address of the load by its index.
template <class Load>
class Ours {
  public:
    using Routes = Load;
    static constexpr std::uint32_t kBits = 8 * sizeof(typename Load::Address);

    explicit Ours(const Load& load) : load_(load) {
        qel_rdx_attr attr;
        (void)qel_rdx_tree_attr_init(&attr);
        (void)qel_rdx_tree_attr_set_keylen(&attr, kBits);
        (void)qel_rdx_tree_create(&tree_, &attr);
    }
    ~Ours() {
        std::vector<typename Load::Route> left;
        auto note = [](qel_rdx_tree*, const std::uint8_t* key, std::uint32_t length, void*, void* routes) {
            typename Load::Route route{{}, static_cast<std::uint8_t>(length)};
            std::copy_n(key, sizeof route.net, route.net.begin());
            static_cast<std::vector<typename Load::Route>*>(routes)->push_back(route);
            return 0;
        };
        qel_rdx_tree_walk(tree_, 0, note, &left);
        for (const typename Load::Route& route : left) erase(route);
        (void)qel_rdx_tree_destroy(tree_);
    }
    static double megabytes() { return heap_megabytes(); }
    void insert(const typename Load::Route& route, std::uint32_t hop) {
        (void)qel_rdx_insert(tree_, route.net.data(), route.length,
                             reinterpret_cast<void*>(std::uintptr_t{hop}));
    }
    void erase(const typename Load::Route& route) {
        void* old;
        (void)qel_rdx_delete(tree_, route.net.data(), route.length, &old);
    }
    std::uint32_t find(std::size_t index) const {
        const std::uint8_t* key;
        std::uint32_t length;
        void* hop = nullptr;
        (void)qel_rdx_search(tree_, load_.asked[index].data(), kBits, &key, &length, &hop);
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(hop));
    }

  private:
    const Load& load_;
    qel_rdx_tree* tree_ = nullptr;
};

// One node for each bit; nodes in order of their making, side by side. Deletion leaves them.
template <class Load>
class PlainTrie {
  public:
    explicit PlainTrie(const Load& load) : load_(load) { nodes_.emplace_back(); }
    static double megabytes() { return heap_megabytes(); }
    void insert(const typename Load::Route& route, std::uint32_t hop) {
        Node* node = &nodes_[0];
        for (unsigned index = 0; index < route.length; ++index) {
            Node*& below = node->below[Load::bit(route.net, index)];
            if (below == nullptr) below = &nodes_.emplace_back();
            node = below;
        }
        node->hop = hop;
    }
    void erase(const typename Load::Route& route) { insert(route, 0); }
    std::uint32_t find(std::size_t index) const {
        const typename Load::Address& address = load_.asked[index];
        std::uint32_t hop = 0;
        unsigned depth = 0;
        for (const Node* node = &nodes_[0]; node != nullptr; ++depth) {
            if (node->hop != 0) hop = node->hop;
            if (depth == 8 * sizeof address) break;
            node = node->below[Load::bit(address, depth)];
        }
        return hop;
    }

  private:
    struct Node {
        Node* below[2] = {};
        std::uint32_t hop = 0;
    };
    const Load& load_;
    std::deque<Node> nodes_;
};

#ifdef QEL_BENCH_DPDK
double dpdk_megabytes() {
    rte_malloc_socket_stats stats{};
    (void)rte_malloc_get_socket_stats(0, &stats);
    return static_cast<double>(stats.heap_allocsz_bytes) / 1e6;
}

// Addresses as numbers, which DPDK's calls for IPv4 take.
class Numbers {
  public:
    explicit Numbers(const Load4& load) {
        for (const Load4::Address& address : load.asked) asked_.push_back(Load4::number(address));
    }
    static double megabytes() { return dpdk_megabytes(); }

  protected:
    std::vector<std::uint32_t> asked_;
};
class Bytes {
  public:
    explicit Bytes(const Load6& load) : asked_(load.asked) {}
    static double megabytes() { return dpdk_megabytes(); }

  protected:
    std::vector<Load6::Address> asked_;
};

class Rib4 : Numbers {
  public:
    using Numbers::megabytes;
    explicit Rib4(const Load4& load) : Numbers(load) {
        rte_rib_conf conf{.ext_sz = 0, .max_nodes = 1 << 20};
        rib_ = rte_rib_create("rib4", -1, &conf);
    }
    ~Rib4() { rte_rib_free(rib_); }
    void insert(const Load4::Route& route, std::uint32_t hop) {
        rte_rib_set_nh(rte_rib_insert(rib_, Load4::number(route.net), route.length), hop);
    }
    void erase(const Load4::Route& route) { rte_rib_remove(rib_, Load4::number(route.net), route.length); }
    std::uint32_t find(std::size_t index) const {
        std::uint64_t hop = 0;
        if (rte_rib_node* node = rte_rib_lookup(rib_, asked_[index])) rte_rib_get_nh(node, &hop);
        return static_cast<std::uint32_t>(hop);
    }

  private:
    rte_rib* rib_;
};

class Rib6 : Bytes {
  public:
    using Bytes::megabytes;
    explicit Rib6(const Load6& load) : Bytes(load) {
        rte_rib6_conf conf{.ext_sz = 0, .max_nodes = 1 << 19};
        rib_ = rte_rib6_create("rib6", -1, &conf);
    }
    ~Rib6() { rte_rib6_free(rib_); }
    void insert(const Load6::Route& route, std::uint32_t hop) {
        rte_rib6_set_nh(rte_rib6_insert(rib_, route.net.data(), route.length), hop);
    }
    void erase(const Load6::Route& route) { rte_rib6_remove(rib_, route.net.data(), route.length); }
    std::uint32_t find(std::size_t index) const {
        std::uint64_t hop = 0;
        if (rte_rib6_node* node = rte_rib6_lookup(rib_, asked_[index].data())) rte_rib6_get_nh(node, &hop);
        return static_cast<std::uint32_t>(hop);
    }

  private:
    rte_rib6* rib_;
};

class Fib4 : Numbers {
  public:
    using Numbers::megabytes;
    explicit Fib4(const Load4& load) : Numbers(load) {
        rte_fib_conf conf{};
        conf.type = RTE_FIB_DIR24_8;
        conf.max_routes = 1 << 20;
        conf.dir24_8 = {.nh_sz = RTE_FIB_DIR24_8_4B, .num_tbl8 = 1 << 12};
        fib_ = rte_fib_create("fib4", -1, &conf);
    }
    ~Fib4() { rte_fib_free(fib_); }
    void insert(const Load4::Route& route, std::uint32_t hop) {
        rte_fib_add(fib_, Load4::number(route.net), route.length, hop);
    }
    void erase(const Load4::Route& route) { rte_fib_delete(fib_, Load4::number(route.net), route.length); }
    std::uint32_t find(std::size_t index) {
        std::uint64_t hop;
        rte_fib_lookup_bulk(fib_, &asked_[index], &hop, 1);
        return static_cast<std::uint32_t>(hop);
    }

  private:
    rte_fib* fib_;
};

class Fib6 : Bytes {
  public:
    using Bytes::megabytes;
    explicit Fib6(const Load6& load) : Bytes(load) {
        rte_fib6_conf conf{};
        conf.type = RTE_FIB6_TRIE;
        conf.max_routes = 1 << 19;
        conf.trie = {.nh_sz = RTE_FIB6_TRIE_4B, .num_tbl8 = 1 << 19};
        fib_ = rte_fib6_create("fib6", -1, &conf);
    }
    ~Fib6() { rte_fib6_free(fib_); }
    void insert(const Load6::Route& route, std::uint32_t hop) {
        rte_fib6_add(fib_, route.net.data(), route.length, hop);
    }
    void erase(const Load6::Route& route) { rte_fib6_delete(fib_, route.net.data(), route.length); }
    std::uint32_t find(std::size_t index) {
        std::uint64_t hop;
        auto* address = reinterpret_cast<std::uint8_t(*)[16]>(asked_[index].data());
        rte_fib6_lookup_bulk(fib_, address, &hop, 1);
        return static_cast<std::uint32_t>(hop);
    }

  private:
    rte_fib6* fib_;
};
#endif

template <class Table, class Load>
void fill(Table& table, const Load& load) {
    for (std::size_t i = 0; i < load.routes.size(); ++i)
        table.insert(load.routes[i], static_cast<std::uint32_t>(i + 1));
}

// A table that can be made anew, and how much its filling takes.
template <class Table, class Load>
struct Renewed {
    const Load& load;
    std::optional<Table> table{};
    double megabytes = 0;

    void empty() {
        table.reset();
        table.emplace(load);
    }
    void full() {
        table.reset();
        double before = Table::megabytes();
        table.emplace(load);
        fill(*table, load);
        megabytes = Table::megabytes() - before;
    }
    void look_up() {
        for (std::size_t i = 0; i < load.asked.size(); ++i) benchmark::DoNotOptimize(table->find(i));
    }
    void erase_all() {
        for (const auto& route : load.routes) table->erase(route);
    }
};

template <class Load, class Peer>
void lookup(benchmark::State& state) {
    const Load& load = load_of(static_cast<const Load*>(nullptr));
    Renewed<Ours<Load>, Load> ours{load};
    Renewed<Peer, Load> peer{load};
    ours.full();
    peer.full();
    for (std::size_t i = 0; i < load.asked.size(); ++i)
        if (ours.table->find(i) != peer.table->find(i)) return state.SkipWithError("the two disagree");
    qel_bench::beside(
        state, load.asked.size(), [&] { ours.look_up(); }, [&] { peer.look_up(); });
    state.counters["MB"] = ours.megabytes;
    state.counters["peer_MB"] = peer.megabytes;
}

template <class Load, class Peer>
void insert(benchmark::State& state) {
    const Load& load = load_of(static_cast<const Load*>(nullptr));
    Renewed<Ours<Load>, Load> ours{load};
    Renewed<Peer, Load> peer{load};
    qel_bench::beside(
        state, load.routes.size(), [&] { ours.empty(); }, [&] { fill(*ours.table, load); },
        [&] { peer.empty(); }, [&] { fill(*peer.table, load); });
}

template <class Load, class Peer>
void erase(benchmark::State& state) {
    const Load& load = load_of(static_cast<const Load*>(nullptr));
    Renewed<Ours<Load>, Load> ours{load};
    Renewed<Peer, Load> peer{load};
    qel_bench::beside(
        state, load.routes.size(), [&] { ours.full(); }, [&] { ours.erase_all(); }, [&] { peer.full(); },
        [&] { peer.erase_all(); });
}

template <class Load, class Peer>
void add(const char* beside) {
    using namespace std::string_literals;
    auto row = [&](const char* verb, auto function) {
        const std::string name =
            verb + "_ipv"s + (sizeof(typename Load::Address) == 4 ? "4" : "6") + "_beside_" + beside;
        benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime()->MinTime(1);
    };
    row("lookup", lookup<Load, Peer>);
    row("insert", insert<Load, Peer>);
    row("erase", erase<Load, Peer>);
}

void add_all() {
    add<Load4, PlainTrie<Load4>>("plain_trie");
    add<Load6, PlainTrie<Load6>>("plain_trie");
#ifdef QEL_BENCH_DPDK
    add<Load4, Rib4>("rte_rib");
    add<Load6, Rib6>("rte_rib6");
    add<Load4, Fib4>("rte_fib");
    add<Load6, Fib6>("rte_fib6");
#endif
}

// Memory for DPDK's tables in ordinary pages, as ours is; no devices, no files.
bool start_dpdk() {
#ifdef QEL_BENCH_DPDK
    const char* words[] = {"rdx_bench", "--no-huge",      "--no-pci",      "--no-shconf", "-m",
                           "2048",      "--no-telemetry", "--log-level=4", "--lcores",    "0@(0,1)"};
    return rte_eal_init(static_cast<int>(std::size(words)), const_cast<char**>(words)) >= 0;
#else
    return true;
#endif
}

}  // namespace

int main(int argc, char** argv) {
    if (!start_dpdk()) return 1;
    benchmark::Initialize(&argc, argv);
    add_all();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
