// What the dispatcher's tests share: a dispatcher for a scope, threads that serve it, pipes as event sources.
#pragma once

#include "support/support.hpp"

#include <qel/dm.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <vector>

namespace qel_test {

// Private, so that it never becomes the default dispatcher of another test.
struct TestDispatcher {
    qel_dm_handle handle = 0;
    TestDispatcher() { EXPECT_EQ(qel_dm_create(&handle, nullptr, QEL_DM_PRIVATE), 0); }
    TestDispatcher(const TestDispatcher&) = delete;
    ~TestDispatcher() {
        if (handle != 0) {
            EXPECT_EQ(qel_dm_destroy(&handle), 0);
        }
    }

    // Waits and dispatches once, on the calling thread.
    void serve_once() const {
        ASSERT_EQ(qel_dm_wait(handle), 0);
        ASSERT_EQ(qel_dm_dispatch(handle), 0);
    }
};

// Serves 'handle' until it is destroyed; gives the result of the wait that failed.
inline int serve(qel_dm_handle handle) {
    for (;;) {
        if (int error = qel_dm_wait(handle); error != 0) return error;
        qel_dm_dispatch(handle);
    }
}

// Threads that serve a dispatcher. Destroy the dispatcher, then let them go: each must have got 22.
struct Servers {
    std::vector<std::thread> threads;
    std::atomic<int> refused{0};
    Servers(qel_dm_handle handle, int count) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this, handle] { refused += serve(handle) == EINVAL; });
    }
    ~Servers() {
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(refused.load(), static_cast<int>(threads.size()));
    }
};

struct Pipe {
    int ends[2];
    Pipe() { EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0); }
    Pipe(const Pipe&) = delete;
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    std::uint32_t reader() const { return static_cast<std::uint32_t>(ends[0]); }
    std::uint32_t writer() const { return static_cast<std::uint32_t>(ends[1]); }
    void feed() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    bool drain() const {
        char byte = 0;
        return read(ends[0], &byte, 1) == 1;
    }
};

// A job that runs a function object, which the job's 'data' points at.
using Function = std::function<void()>;
inline void run_function(qel_dm_handle, std::uint64_t data, std::uint64_t) {
    (*reinterpret_cast<Function*>(data))();
}
inline int execute(qel_dm_handle handle, Function& function) {
    return qel_dm_execute(handle, run_function, reinterpret_cast<std::uint64_t>(&function), 0);
}

}  // namespace qel_test
