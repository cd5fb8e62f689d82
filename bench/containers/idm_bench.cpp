// What does it cost to hold an object through its ID for the length of a call, and to make and end an ID?
// Beside libqb's handle database and a bare array of slots, see slot_array.hpp. 1,000 handles live; each
// thread of a pair works on its own half, or both on all of them. An operation is one get and put, by each
// thread.
#include <qel/idm.h>

#include <algorithm>

#include <atomic>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "containers/slot_array.hpp"
#include "support/beside.hpp"

#if __has_include(<qb/qbhdb.h>)
#include <qb/qbhdb.h>
#define HAVE_QB 1
#endif

namespace {

constexpr std::uint32_t kHandles = 1000;

struct Object {
    std::uint64_t payload = 1;
};
Object objects[kHandles];

// The order of the lookups: each handle of the share, shuffled.
std::vector<std::uint32_t> shuffled_share(int thread, int threads) {
    std::uint32_t share = kHandles / static_cast<std::uint32_t>(threads);
    std::vector<std::uint32_t> order(share);
    std::iota(order.begin(), order.end(), static_cast<std::uint32_t>(thread) * share);
    std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(thread)));
    return order;
}

struct Ours {
    std::uint32_t pool = 0;
    std::vector<std::uint32_t> ids = std::vector<std::uint32_t>(kHandles);

    Ours() {
        qel_idm_pool_create("bench", 2 * kHandles, 0, &pool);
        for (std::uint32_t i = 0; i < kHandles; ++i) qel_idm_get_id(pool, &objects[i], &ids[i]);
    }
    void* get(std::uint32_t index) { return qel_idm_lookup_and_retain_id(pool, ids[index]); }
    void put(std::uint32_t index) { qel_idm_release_id(pool, ids[index]); }
    void make_and_end() {
        std::uint32_t id = 0;
        qel_idm_get_id(pool, &objects[0], &id);
        qel_idm_release_and_withdraw_id(pool, id);
    }
};

struct SlotArray {
    std::vector<qel_bench::Slot> slots = std::vector<qel_bench::Slot>(kHandles);

    SlotArray() {
        for (std::uint32_t i = 0; i < kHandles; ++i) {
            slots[i].object = &objects[i];
            slots[i].references = 1;
        }
        qel_bench::slot_array_open(slots.data(), kHandles);
    }
    void* get(std::uint32_t handle) { return qel_bench::slot_array_get(handle); }
    void put(std::uint32_t handle) { qel_bench::slot_array_put(handle); }
};

#if HAVE_QB
struct Qb {
    qb_hdb database{};
    std::vector<qb_handle_t> handles = std::vector<qb_handle_t>(kHandles);

    Qb() {
        qb_hdb_create(&database);
        for (qb_handle_t& handle : handles) qb_hdb_handle_create(&database, sizeof(Object), &handle);
    }
    void* get(std::uint32_t index) {
        void* instance = nullptr;
        qb_hdb_handle_get(&database, handles[index], &instance);
        return instance;
    }
    void put(std::uint32_t index) { qb_hdb_handle_put(&database, handles[index]); }
    void make_and_end() {
        qb_handle_t handle = 0;
        qb_hdb_handle_create(&database, sizeof(Object), &handle);
        qb_hdb_handle_destroy(&database, handle);
    }
};
#endif

constexpr std::size_t kBatch = 100'000;
constexpr std::size_t kMakes = 1000;  // libqb looks through all its places

template <class Handles>
void hold(Handles& handles, const std::vector<std::uint32_t>& order) {
    std::size_t next = 0;
    for (std::size_t done = 0; done < kBatch; ++done) {
        std::uint32_t index = order[next];
        if (++next == order.size()) next = 0;
        benchmark::DoNotOptimize(handles.get(index));
        handles.put(index);
    }
}

// 'threads' hold handles at once, each its own share of them or any.
template <class Peer, bool shared>
void hold_beside(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    Ours ours;
    Peer peer;
    std::vector<std::vector<std::uint32_t>> orders;
    for (int thread = 0; thread < threads; ++thread)
        orders.push_back(shared ? shuffled_share(0, 1) : shuffled_share(thread, threads));
    auto on_all = [&](auto& handles) {
        qel_bench::on_threads(threads,
                              [&](int thread) { hold(handles, orders[static_cast<std::size_t>(thread)]); });
    };
    qel_bench::beside(
        state, kBatch, [&] { on_all(ours); }, [&] { on_all(peer); });
}

template <class Handles>
void make_and_end(Handles& handles) {
    for (std::size_t done = 0; done < kMakes; ++done) handles.make_and_end();
}

template <class Peer>
void make_beside(benchmark::State& state) {
    Ours ours;
    Peer peer;
    qel_bench::beside(
        state, kMakes, [&] { make_and_end(ours); }, [&] { make_and_end(peer); });
}

void threads(benchmark::internal::Benchmark* bench) {
    bench->ArgName("threads")->Arg(1)->Arg(2)->UseManualTime()->MinTime(0.3);
}
BENCHMARK(hold_beside<SlotArray, false>)->Name("hold_own_beside_slot_array")->Apply(threads);
BENCHMARK(hold_beside<SlotArray, true>)->Name("hold_any_beside_slot_array")->Apply(threads);
#if HAVE_QB
BENCHMARK(hold_beside<Qb, false>)->Name("hold_own_beside_libqb")->Apply(threads);
BENCHMARK(hold_beside<Qb, true>)->Name("hold_any_beside_libqb")->Apply(threads);
BENCHMARK(make_beside<Qb>)->Name("make_and_end_beside_libqb")->UseManualTime()->MinTime(0.3);
#endif

}  // namespace

BENCHMARK_MAIN();
