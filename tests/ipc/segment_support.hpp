// A channel's segments as another process may write them, and a process that dies with one of their locks.
#pragma once

#include "ipc/message_support.hpp"

#include <qel/shm.h>

#include <signal.h>
#include <sys/wait.h>

namespace qel_test {

// Offsets in the channel's header, and in its heap's segment.
inline constexpr std::uint32_t kShmMutex = 8, kFcLock = 104, kHeapLock = 28;

struct Segment {
    qel_shm_info info{};
    explicit Segment(const std::string& name, std::uint32_t size = 0) {
        std::uint8_t existed = 0;
        EXPECT_EQ(qel_shm_open(name.c_str(), size, &info, &existed), 0);
    }
    ~Segment() { qel_shm_close(&info); }
    template <class Word>
    Word& at(std::size_t offset) {
        return *reinterpret_cast<Word*>(static_cast<std::byte*>(info.addr) + offset);
    }
};

// Takes a lock of a segment and dies with it. The heap's isn't aligned as its type is, and need not be.
QEL_ROLE(dies_with_lock) {
    Segment segment{args[0]};
    return pthread_mutex_lock(
        reinterpret_cast<pthread_mutex_t*>(&segment.at<std::byte>(std::stoul(args[1]))));
}

// Offsets in the control block.
constexpr std::size_t kMagicAt = 0, kStateAt = 48, kMsgSizeAt = 80, kHeapSizeAt = 84, kMaxEpsAt = 90,
                      kTotalMsgAt = 92;
constexpr std::size_t ep_at(std::size_t ep) {
    return 200 + 168 * ep;
}
constexpr std::size_t kSignalsAt = 12, kDoorbellLockAt = 16;
constexpr std::size_t kAllocAt = 128, kReservedAt = 132;

// Waits until the end point's owner sleeps with nothing to hear.
inline bool is_asleep(Segment& block, std::size_t ep) {
    return eventually([&] {
        return block.at<std::uint32_t>(ep_at(ep) + kSignalsAt) == 0 &&
               block.at<std::uint32_t>(ep_at(ep) + kDoorbellLockAt) == 0;
    });
}

// Stops a process that has the channel open at a moment when nobody has one of its locks: a stopped one is
// looked at, and goes on for a while if there is one.
template <class Process>
void stop_outside_of_locks(Process& process, Segment& block) {
    constexpr std::size_t kEndPoints = 32;
    auto locked = [&] {
        bool any = block.at<std::uint32_t>(kShmMutex) != 0 || block.at<std::uint32_t>(kFcLock) != 0;
        for (std::size_t ep = 0; ep < kEndPoints; ++ep)
            any |= block.at<std::uint32_t>(ep_at(ep) + kDoorbellLockAt) != 0;
        return any;
    };
    EXPECT_TRUE(eventually([&] {
        kill(process.pid(), SIGSTOP);
        waitpid(process.pid(), nullptr, WUNTRACED);
        if (!locked()) return true;
        kill(process.pid(), SIGCONT);
        return false;
    }));
}

template <class Process>
void kill_outside_of_locks(Process& process, Segment& block) {
    stop_outside_of_locks(process, block);
    process.kill();
}

}  // namespace qel_test
