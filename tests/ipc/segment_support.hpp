// A channel's segments as another process may write them, and a process that dies with one of their locks.
#pragma once

#include "ipc/message_support.hpp"

#include <qel/shm.h>

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

}  // namespace qel_test
