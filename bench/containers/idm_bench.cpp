// What does it cost to hold an object through its ID for the length of a call, and to make and end an ID?
// Beside libqb's handle database and a bare array of slots with generations and atomic counts, which has no
// lock and no last release. 1,000 handles live; each thread of a pair works on its own half, or both on all
// of them.
#include "support/ratio.hpp"

#include <qel/idm.h>

#include <atomic>
#include <cstdint>
#include <numeric>
#include <random>

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
    struct Slot {
        void* object;
        std::uint32_t generation;
        std::atomic<std::uint32_t> references;
    };
    std::vector<Slot> slots = std::vector<Slot>(kHandles);

    SlotArray() {
        for (std::uint32_t i = 0; i < kHandles; ++i) {
            slots[i].object = &objects[i];
            slots[i].references = 1;
        }
    }
    [[gnu::noinline]] void* get(std::uint32_t handle) {
        if ((handle & 0xffff) >= slots.size()) return nullptr;
        Slot& slot = slots[handle & 0xffff];
        if (slot.generation != handle >> 16) return nullptr;
        slot.references.fetch_add(1, std::memory_order_acquire);
        return slot.object;
    }
    [[gnu::noinline]] void put(std::uint32_t handle) {
        if ((handle & 0xffff) >= slots.size()) return;
        slots[handle & 0xffff].references.fetch_sub(1, std::memory_order_acq_rel);
    }
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

template <class Handles>
Handles& instance() {
    static Handles handles;
    return handles;
}

template <class Handles>
void hold(benchmark::State& state, const std::vector<std::uint32_t>& order) {
    Handles& handles = instance<Handles>();
    std::size_t next = 0;
    for (auto _ : state) {
        std::uint32_t index = order[next];
        if (++next == order.size()) next = 0;
        benchmark::DoNotOptimize(handles.get(index));
        handles.put(index);
    }
}

template <class Handles>
void hold_own(benchmark::State& state) {
    hold<Handles>(state, shuffled_share(state.thread_index(), state.threads()));
}

template <class Handles>
void hold_any(benchmark::State& state) {
    hold<Handles>(state, shuffled_share(0, 1));
}

template <class Handles>
void make_and_end(benchmark::State& state) {
    for (auto _ : state) instance<Handles>().make_and_end();
}

BENCHMARK_TEMPLATE(hold_own, Ours)->Threads(1)->Threads(2);
BENCHMARK_TEMPLATE(hold_own, SlotArray)->Threads(1)->Threads(2);
BENCHMARK_TEMPLATE(hold_any, Ours)->Threads(2);
BENCHMARK_TEMPLATE(hold_any, SlotArray)->Threads(2);
BENCHMARK_TEMPLATE(make_and_end, Ours);
#if HAVE_QB
BENCHMARK_TEMPLATE(hold_own, Qb)->Threads(1)->Threads(2);
BENCHMARK_TEMPLATE(hold_any, Qb)->Threads(2);
BENCHMARK_TEMPLATE(make_and_end, Qb);
#endif

}  // namespace

int main(int argc, char** argv) {
    return qel_bench::run(argc, argv,
                          {{"hold_own<Ours>/threads:1", "hold_own<Qb>/threads:1", 0.4},
                           {"hold_own<Ours>/threads:1", "hold_own<SlotArray>/threads:1", 1.6},
                           {"hold_own<Ours>/threads:2", "hold_own<Ours>/threads:1", 1.0},
                           {"hold_own<Ours>/threads:2", "hold_own<Qb>/threads:2", 0.4},
                           {"hold_any<Ours>/threads:2", "hold_any<Qb>/threads:2", 0.4},
                           {"hold_any<Ours>/threads:2", "hold_any<SlotArray>/threads:2", 0},
                           {"make_and_end<Ours>", "make_and_end<Qb>", 0}});
}
