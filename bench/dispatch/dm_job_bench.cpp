// What does a job cost: to post, to post and have run by another thread, and to hand to and fro between two?
//
// 'post' is the poster's own cost, while nobody serves. 'throughput' posts from one thread to a loop served
// by another, until the last job has run. 'ping_pong' hands one job between two loops, each on its own
// thread; an operation is one way. Run that one under "taskset -c 0" for the case of one core.
//
// A peer's job is what that library offers for it. Asio: post() of a lambda with function and argument.
// libevent: event_active() on one of 10,000 events made beforehand, so nothing is allocated or queued that is
// not there already; and "Once", event_base_once(), which queues a job with its data as the dispatcher does.
// libuv: an async handle; since these merge, there is only the ping-pong.
#include <qel/dm.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <event2/event.h>
#include <event2/thread.h>
#include <uv.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/beside.hpp"

namespace {

// A job of all loops: a function and its argument.
using Job = void (*)(void*);

struct QelLoop {
    qel_dm_handle handle = 0;
    QelLoop() { qel_dm_create(&handle, nullptr, QEL_DM_PRIVATE); }
    ~QelLoop() { stop(); }
    void post(std::size_t, Job job, void* argument) {
        qel_dm_execute(handle, run, reinterpret_cast<std::uint64_t>(argument),
                       reinterpret_cast<std::uint64_t>(job));
    }
    void serve() {
        const qel_dm_handle served = handle;
        while (qel_dm_wait(served) == 0) qel_dm_dispatch(served);
    }
    void stop() { qel_dm_destroy(&handle); }
    static void run(qel_dm_handle, std::uint64_t argument, std::uint64_t job) {
        reinterpret_cast<Job>(job)(reinterpret_cast<void*>(argument));
    }
};

struct AsioLoop {
    boost::asio::io_context context{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{context.get_executor()};
    void post(std::size_t, Job job, void* argument) {
        boost::asio::post(context, [job, argument] { job(argument); });
    }
    void serve() { context.run(); }
    void stop() { context.stop(); }
};

// An event made active is libevent's job; each may be active once at a time, so 'slot' names one of many.
struct LibeventLoop {
    static constexpr std::size_t kSlots = 10'000;
    struct Slot {
        ::event* active;
        Job job;
        void* argument;
    };
    event_base* base = (evthread_use_pthreads(), event_base_new());
    std::vector<Slot> slots{kSlots};
    LibeventLoop() {
        for (Slot& slot : slots) slot.active = event_new(base, -1, 0, run, &slot);
    }
    ~LibeventLoop() {
        for (Slot& slot : slots) event_free(slot.active);
        event_base_free(base);
    }
    void post(std::size_t slot, Job job, void* argument) {
        slots[slot].job = job;
        slots[slot].argument = argument;
        event_active(slots[slot].active, 0, 0);
    }
    void serve() { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); }
    void stop() { event_base_loopbreak(base); }
    static void run(evutil_socket_t, short, void* slot) {
        static_cast<Slot*>(slot)->job(static_cast<Slot*>(slot)->argument);
    }
};

struct LibeventOnceLoop : LibeventLoop {
    void post(std::size_t slot, Job job, void* argument) {
        slots[slot].job = job;
        slots[slot].argument = argument;
        event_base_once(base, -1, EV_TIMEOUT, run, &slots[slot], nullptr);
    }
};

struct LibuvLoop {
    uv_loop_t loop;
    uv_async_t async;
    std::atomic<Job> job{nullptr};
    void* argument = nullptr;
    LibuvLoop() {
        uv_loop_init(&loop);
        uv_async_init(&loop, &async, run);
        async.data = this;
    }
    ~LibuvLoop() {
        uv_close(reinterpret_cast<uv_handle_t*>(&async), nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    void post(std::size_t, Job posted, void* with) {
        argument = with;
        job.store(posted, std::memory_order_release);
        uv_async_send(&async);
    }
    void serve() { uv_run(&loop, UV_RUN_DEFAULT); }
    void stop() {
        post(
            0, [](void* self) { uv_stop(&static_cast<LibuvLoop*>(self)->loop); }, this);
    }
    static void run(uv_async_t* async) {
        auto& self = *static_cast<LibuvLoop*>(async->data);
        if (Job taken = self.job.exchange(nullptr, std::memory_order_acquire)) taken(self.argument);
    }
};

// A loop with a thread that serves it.
template <class Loop>
struct Served : Loop {
    std::thread server{[this] { this->serve(); }};
    ~Served() {
        this->stop();
        server.join();
    }
};

constexpr std::size_t kJobs = LibeventLoop::kSlots;

template <class Loop>
struct Throughput {
    Served<Loop> loop;
    std::atomic<std::size_t> ran{0};
    static void count(void* self) {
        auto& ran = static_cast<Throughput*>(self)->ran;
        if (ran.fetch_add(1, std::memory_order_release) + 1 == kJobs) ran.notify_one();
    }
    void operator()() {
        ran.store(0, std::memory_order_relaxed);
        for (std::size_t i = 0; i < kJobs; ++i) loop.post(i, count, this);
        for (std::size_t seen = 0; (seen = ran.load(std::memory_order_acquire)) != kJobs;) ran.wait(seen);
    }
};

template <class Loop>
struct PingPong {
    static constexpr std::size_t kHops = 2'000;
    std::array<Served<Loop>, 2> loops;
    std::atomic<std::size_t> left{0};
    static void hop(void* self) {
        auto& game = *static_cast<PingPong*>(self);
        std::size_t left = game.left.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left != 0) return game.loops[left % 2].post(0, hop, self);
        game.left.notify_one();
    }
    void operator()() {
        left.store(kHops, std::memory_order_release);
        loops[0].post(0, hop, this);
        for (std::size_t seen = 0; (seen = left.load(std::memory_order_acquire)) != 0;) left.wait(seen);
    }
};

// Posting alone; what was posted is run outside the measured time.
template <class Loop>
struct Post {
    Loop loop;
    static void nothing(void*) {}
    void operator()() {
        for (std::size_t i = 0; i < kJobs; ++i) loop.post(i, nothing, nullptr);
    }
};
void run_posted(Post<QelLoop>& post) {
    bool done = false;
    post.loop.post(
        0, [](void* flag) { *static_cast<bool*>(flag) = true; }, &done);
    while (!done && qel_dm_wait(post.loop.handle) == 0) qel_dm_dispatch(post.loop.handle);
}
void run_posted(Post<AsioLoop>& post) {
    post.loop.context.poll();
}
void run_posted(Post<LibeventLoop>& post) {
    event_base_loop(post.loop.base, EVLOOP_NONBLOCK);
}

template <class Peer>
void post(benchmark::State& state) {
    Post<QelLoop> ours;
    Post<Peer> peer;
    qel_bench::beside(
        state, kJobs, [&] { run_posted(ours); }, [&] { ours(); }, [&] { run_posted(peer); }, [&] { peer(); });
    run_posted(ours);
}
BENCHMARK_TEMPLATE(post, AsioLoop)->UseManualTime()->MinTime(0.2);
BENCHMARK_TEMPLATE(post, LibeventLoop)->UseManualTime()->MinTime(0.2);

template <class Peer>
void throughput(benchmark::State& state) {
    Throughput<QelLoop> ours;
    Throughput<Peer> peer;
    qel_bench::beside(
        state, kJobs, [&] { ours(); }, [&] { peer(); });
}
BENCHMARK_TEMPLATE(throughput, AsioLoop)->UseManualTime()->MinTime(0.3);
BENCHMARK_TEMPLATE(throughput, LibeventLoop)->UseManualTime()->MinTime(0.3);
BENCHMARK_TEMPLATE(throughput, LibeventOnceLoop)->UseManualTime()->MinTime(0.3);

template <class Peer>
void ping_pong(benchmark::State& state) {
    PingPong<QelLoop> ours;
    PingPong<Peer> peer;
    qel_bench::beside(
        state, PingPong<Peer>::kHops, [&] { ours(); }, [&] { peer(); });
}
BENCHMARK_TEMPLATE(ping_pong, AsioLoop)->UseManualTime()->MinTime(0.3);
BENCHMARK_TEMPLATE(ping_pong, LibuvLoop)->UseManualTime()->MinTime(0.3);
BENCHMARK_TEMPLATE(ping_pong, LibeventLoop)->UseManualTime()->MinTime(0.3);

}  // namespace

BENCHMARK_MAIN();
