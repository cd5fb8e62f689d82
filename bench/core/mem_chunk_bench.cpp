// What does an element of 64 bytes cost, allocated and freed?
//
// With the pool's mutex, beside a bare free list under a pthread mutex; without it, beside the C library's
// malloc. An operation is one allocation and its free. 'outstanding' elements are taken, then freed, newest
// first or oldest first. With more of them than 'per_block' the pool grows and shrinks by siblings all the
// time. At the block edge the first block is all handed out, so that the elements come from a sibling that
// empties each time.
#include <qel/mem.h>

#include <pthread.h>

#include <cstdlib>
#include <ranges>

#include "support/beside.hpp"

namespace {

constexpr uint32_t kSize = 64;
constexpr std::size_t kOperations = 10000;

struct ChunkPool {
    ChunkPool(uint32_t flags, uint32_t per_block)
        : pool(qel_mem_chunk_create(kSize, per_block, flags | QEL_MEM_CHUNK_DYNAMIC, 0, 0, "bench")) {}
    ~ChunkPool() { qel_mem_chunk_destroy(pool); }
    void* take() { return qel_mem_chunk_malloc(pool); }
    void give(void* element) { qel_mem_chunk_free(pool, element); }

    qel_mem_chunk* pool;
};

// The least that a pool under a lock can do.
class FreeList {
  public:
    FreeList() : memory_(static_cast<char*>(std::malloc(kSize * kElements))) {
        for (std::size_t i = 0; i < kElements; ++i) give(memory_ + i * kSize);
    }
    ~FreeList() { std::free(memory_); }
    [[gnu::noinline]] void* take() {
        pthread_mutex_lock(&mutex_);
        Node* node = head_;
        head_ = node->next;
        pthread_mutex_unlock(&mutex_);
        return node;
    }
    [[gnu::noinline]] void give(void* element) {
        Node* node = static_cast<Node*>(element);
        pthread_mutex_lock(&mutex_);
        node->next = head_;
        head_ = node;
        pthread_mutex_unlock(&mutex_);
    }

  private:
    struct Node {
        Node* next;
    };
    static constexpr std::size_t kElements = 20000;

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    Node* head_ = nullptr;
    char* memory_;
};

struct Heap {
    void* take() { return std::malloc(kSize); }
    void give(void* element) { std::free(element); }
};

// Takes and gives kOperations elements, 'outstanding' at a time.
template <class Pool>
void load(Pool& pool, std::vector<void*>& held, bool oldest_first) {
    for (std::size_t done = 0; done < kOperations; done += held.size()) {
        for (void*& element : held) benchmark::DoNotOptimize(element = pool.take());
        if (oldest_first)
            for (void* element : held) pool.give(element);
        else
            for (void* element : std::views::reverse(held)) pool.give(element);
    }
}

template <class Peer>
void compare(benchmark::State& state, uint32_t flags, bool at_edge = false) {
    auto per_block = static_cast<uint32_t>(state.range(1));
    ChunkPool ours{flags, per_block};
    Peer peer;
    std::vector<void*> held(static_cast<std::size_t>(state.range(0)));
    bool oldest_first = state.range(2) != 0;
    std::vector<void*> block(at_edge ? per_block : 0);
    for (void*& element : block) element = ours.take();
    qel_bench::beside(
        state, kOperations, [&] { load(ours, held, oldest_first); }, [&] { load(peer, held, oldest_first); });
    for (void* element : block) ours.give(element);
}

void mutex_beside_free_list(benchmark::State& state) {
    compare<FreeList>(state, 0);
}
void mutex_at_block_edge_beside_free_list(benchmark::State& state) {
    compare<FreeList>(state, 0, true);
}
void no_mutex_beside_malloc(benchmark::State& state) {
    compare<Heap>(state, QEL_MEM_CHUNK_NO_SYNC);
}
void no_mutex_at_block_edge_beside_malloc(benchmark::State& state) {
    compare<Heap>(state, QEL_MEM_CHUNK_NO_SYNC, true);
}

void loads(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"outstanding", "per_block", "oldest_first"})->UseManualTime()->MinTime(0.3);
    bench->Args({1, 64, 0})->Args({50, 64, 0})->Args({50, 64, 1});
    bench->Args({10000, 10000, 0})->Args({10000, 10000, 1})->Args({10000, 64, 0})->Args({10000, 64, 1});
}
void edge_loads(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"outstanding", "per_block", "oldest_first"})->UseManualTime()->MinTime(0.3);
    bench->Args({1, 64, 0})->Args({2, 64, 1});
}

BENCHMARK(mutex_beside_free_list)->Apply(loads);
BENCHMARK(mutex_at_block_edge_beside_free_list)->Apply(edge_loads);
BENCHMARK(no_mutex_beside_malloc)->Apply(loads);
BENCHMARK(no_mutex_at_block_edge_beside_malloc)->Apply(edge_loads);

}  // namespace

BENCHMARK_MAIN();
