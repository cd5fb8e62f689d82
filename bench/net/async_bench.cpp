// What does an operation of a network service cost: to start, to answer, to fetch; and there and back between
// two threads?
//
// A shim with an asynchronous handler serves. 'steps' is on one thread: batches of operations are started,
// answered and fetched, each step timed by itself, beside the allocation, lock and release of a block by
// hand. 'round_trip' has the shim on a thread of its own: the client waits for each result, beside a plain
// round trip through two condition variables with the same mailbox. An operation is one request and its
// result.
#include <qel/qel.h>

#include <pthread.h>
#include <sched.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "support/beside.hpp"

namespace {

void must(cerrno error) {
    if (error == 0) return;
    std::fprintf(stderr, "async_bench: %s\n", cerr_strerror(error));
    std::abort();
}

// Passes one number from one thread to another.
class Mailbox {
  public:
    void put(std::uint32_t number) {
        std::lock_guard lock{mutex_};
        number_ = number;
        came_.notify_one();
    }
    std::uint32_t take() {
        std::unique_lock lock{mutex_};
        came_.wait(lock, [this] { return number_ != 0; });
        return std::exchange(number_, 0);
    }

  private:
    std::mutex mutex_;
    std::condition_variable came_;
    std::uint32_t number_ = 0;
};

constexpr std::uint32_t kEnd = UINT32_MAX;
Mailbox requests;
std::vector<std::uint32_t> kept;
bool keep;

void answer(std::uint32_t op_id) {
    qel_async_ctx* operation = nullptr;
    must(qel_if_shim_op_guard(op_id, &operation));
    must(qel_if_shim_report_cfg_result(operation, 0));
    qel_if_shim_op_yield(operation);
}

cerrno take_request(const qel_if_shim_client*, qel_if_cfg_res_attr*, std::uint32_t op_id) {
    if (keep)
        kept.push_back(op_id);
    else
        requests.put(op_id);
    return 0;
}

class Service {
  public:
    Service() {
        qel_if_shim_registration shim;
        qel_if_shim_registration_init(&shim);
        shim.name = "bench";
        shim.handlers.bind = [](const qel_if_shim_info*) { return cerrno{0}; };
        shim.handlers.destroy = shim.handlers.bind;
        shim.handlers.get_attr = [](auto, auto, auto, auto) { return cerrno{0}; };
        shim.handlers.register_callbacks = [](auto, auto) { return cerrno{0}; };
        shim.handlers.deregister_callbacks = shim.handlers.register_callbacks;
        shim.handlers.cfg_async = take_request;
        must(qel_if_shim_register(&shim));
        must(qel_netinfra_init(0));
        qel_if_bind_attr attr;
        qel_if_bind_attr_init(&attr);
        attr.scope = &scope_;
        attr.options |= QEL_IF_OPTION_BIND_CFG;
        must(qel_if_bind(&app_, "bench", &attr));
        qel_if_cfg_req_init(&wanted_);
        wanted_.num_attrs = 1;
        qel_if_cfg_req_attr_init(&set_);
        set_.num_requests = 1;
        set_.requests = &wanted_;
        qel_async_req_init(&request_);
    }
    ~Service() {
        qel_if_destroy(&app_);
        qel_netinfra_fini();
    }
    qel_async_future start() {
        qel_async_future future;
        must(qel_if_cfg_async(app_, &set_, &request_, &future));
        return future;
    }
    void fetch(const qel_async_future& future) {
        qel_if_cfg_attr_result attr, *results[1] = {&attr};
        qel_if_cfg_res_attr result{0, 0, nullptr, results};
        cerrno status = 0;
        must(qel_if_cfg_get_result(&future, &status, &result));
    }

  private:
    std::uint32_t app_ = 0, scope_ = 0;
    qel_if_cfg_req wanted_;
    qel_if_cfg_req_attr set_;
    qel_async_req request_;
};

constexpr std::size_t kBatch = 250;  // of the 512 that may be outstanding

void steps(benchmark::State& state) {
    Service service;
    std::vector<qel_async_future> futures(kBatch);
    qel_bench::Samples starts, answers, fetches;
    auto start = [&] {
        for (auto& future : futures) future = service.start();
    };
    auto answer_all = [&] {
        for (std::uint32_t op_id : kept) answer(op_id);
    };
    auto fetch = [&] {
        for (const auto& future : futures) service.fetch(future);
    };
    keep = true;
    for (auto _ : state) {
        kept.clear();
        state.SetIterationTime(starts.time(start) + answers.time(answer_all) + fetches.time(fetch));
    }
    keep = false;
    state.counters["start_ns"] = starts.nanoseconds(0.5, kBatch);
    state.counters["answer_ns"] = answers.nanoseconds(0.5, kBatch);
    state.counters["fetch_ns"] = fetches.nanoseconds(0.5, kBatch);
}
BENCHMARK(steps)->Iterations(4000)->UseManualTime();

void pin(unsigned processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

void round_trip(benchmark::State& state) {
    constexpr int kRounds = 500;
    const auto other = static_cast<unsigned>(state.range(0) - 1);
    Service service;
    Mailbox there, back;
    pin(0);
    std::thread shim([other] {
        pin(other);
        for (std::uint32_t op_id = requests.take(); op_id != kEnd; op_id = requests.take()) answer(op_id);
    });
    std::thread plain([&] {
        pin(other);
        for (std::uint32_t number = there.take(); number != kEnd; number = there.take()) back.put(number);
    });
    auto ours = [&] {
        for (int i = 0; i < kRounds; ++i) {
            const qel_async_future future = service.start();
            must(qel_async_wait(&future));
            service.fetch(future);
        }
    };
    auto peer = [&] {
        for (int i = 0; i < kRounds; ++i) {
            there.put(1);
            benchmark::DoNotOptimize(back.take());
        }
    };
    qel_bench::beside(state, kRounds, ours, peer);
    requests.put(kEnd);
    there.put(kEnd);
    shim.join();
    plain.join();
}
BENCHMARK(round_trip)->ArgName("processors")->Arg(1)->Iterations(2000)->UseManualTime();
BENCHMARK(round_trip)->ArgName("processors")->Arg(2)->Iterations(200)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
