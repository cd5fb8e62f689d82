// What does a chunk of a shared heap cost, allocated and freed, beside managed shared memory of Boost?
//
// 'outstanding' chunks of mixed sizes are taken, then freed, oldest first. Both heaps are in a segment and
// behind a lock that processes share.
#include <qel/mem_vchunk.h>

#include <boost/interprocess/managed_shared_memory.hpp>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/beside.hpp"

namespace {

namespace ipc = boost::interprocess;

void pairs(benchmark::State& state) {
    constexpr std::uint32_t kHeap = 16 << 20;
    std::string name = "qb" + std::to_string(getpid());
    qel_mem_vchunk_pool pool = 0;
    if (qel_mem_vchunk_shm_create((name + ".ours").c_str(), 104, kHeap, 0, &pool) != 0)
        return state.SkipWithError("no heap");
    {
        ipc::managed_shared_memory peer(ipc::create_only, (name + ".peer").c_str(), kHeap);
        std::vector<void*> held(static_cast<std::size_t>(state.range(0)));
        auto size = [&](std::size_t i) { return static_cast<std::uint32_t>(64 + i * 977 % state.range(1)); };
        auto run = [&](auto take, auto give) {
            for (std::size_t i = 0; i < held.size(); ++i) held[i] = take(size(i));
            for (void* chunk : held) give(chunk);
        };
        qel_bench::beside(
            state, held.size(),
            [&] {
                run([&](std::uint32_t bytes) { return qel_mem_vchunk_malloc(pool, bytes); },
                    [&](void* chunk) { qel_mem_vchunk_free(pool, chunk); });
            },
            [&] {
                run([&](std::uint32_t bytes) { return peer.allocate(bytes, std::nothrow); },
                    [&](void* chunk) { peer.deallocate(chunk); });
            });
    }
    ipc::shared_memory_object::remove((name + ".peer").c_str());
    qel_mem_vchunk_close(&pool);
}
BENCHMARK(pairs)
    ->ArgNames({"outstanding", "largest"})
    ->ArgsProduct({{1, 1000}, {512, 8192}})
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
