// What a process spends on a batch: processor time, context switches, and, on demand, system calls.
//
// System calls are counted by the kernel's tracepoint, opened for each thread of the process. That slows each
// call down, so only a batch of its own, whose time isn't looked at, is counted so.
#pragma once

#include <linux/perf_event.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

#include "ipc/site.hpp"

namespace qel_bench {

struct Spent {
    std::int64_t processor_ns = 0;
    std::int64_t waits = 0;   // voluntary context switches: somebody had to be woken
    std::int64_t forced = 0;  // the others
    std::int64_t system_calls = 0;
    void add(const Spent& more) {
        processor_ns += more.processor_ns;
        waits += more.waits;
        forced += more.forced;
        system_calls += more.system_calls;
    }
};

// The number of the tracepoint that every system call passes, 0 where there is none. Mounts the trace files
// for this process and its children alone if it may and must.
inline std::uint64_t system_call_tracepoint() {
    constexpr const char* kFiles = "/sys/kernel/tracing";
    const std::string id_file = std::string{kFiles} + "/events/raw_syscalls/sys_enter/id";
    if (access(id_file.c_str(), R_OK) != 0 && unshare(CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tracefs", kFiles, "tracefs", 0, nullptr) != 0)
        return 0;
    std::uint64_t id = 0;
    std::ifstream{id_file} >> id;
    return id;
}

class SystemCallCount {
  public:
    explicit SystemCallCount(std::uint64_t tracepoint) {
        perf_event_attr what{};
        what.type = PERF_TYPE_TRACEPOINT;
        what.size = sizeof what;
        what.config = tracepoint;
        for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
            int id = std::stoi(thread.path().filename());
            long counter = syscall(SYS_perf_event_open, &what, id, -1, -1, PERF_FLAG_FD_CLOEXEC);
            if (counter >= 0) counters_.push_back(static_cast<int>(counter));
        }
    }
    SystemCallCount(const SystemCallCount&) = delete;
    ~SystemCallCount() {
        for (int counter : counters_) close(counter);
    }
    std::int64_t value() const {
        std::int64_t sum = 0;
        for (int counter : counters_) {
            std::int64_t one = 0;
            if (read(counter, &one, sizeof one) == sizeof one) sum += one;
        }
        return sum;
    }

  private:
    std::vector<int> counters_;
};

inline Spent spent_so_far() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    timespec processor{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &processor);
    return {.processor_ns = std::int64_t{processor.tv_sec} * 1'000'000'000 + processor.tv_nsec,
            .waits = usage.ru_nvcsw,
            .forced = usage.ru_nivcsw};
}

// What 'work' costs this process; its system calls too if 'tracepoint' isn't 0.
template <class Work>
Spent spent_on(std::uint64_t tracepoint, Work work) {
    std::optional<SystemCallCount> calls;
    if (tracepoint != 0) calls.emplace(tracepoint);
    const Spent before = spent_so_far();
    work();
    Spent after = spent_so_far();
    return {.processor_ns = after.processor_ns - before.processor_ns,
            .waits = after.waits - before.waits,
            .forced = after.forced - before.forced,
            .system_calls = calls ? calls->value() : 0};
}

}  // namespace qel_bench
