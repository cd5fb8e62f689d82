// What the dispatcher asks of the kernel: a queue of one-shot events, and a pipe that wakes its waiters.
//
// Preconditions: the descriptors come from open_event_queue() and open_pipe() of the same instance. No call
// takes a lock, and none but wait() blocks.
#pragma once

#include <cstdint>

namespace qel::dm::platform {

// Who an event belongs to.
enum Source : std::uint32_t { kUserDescriptor = 0, kPipe = 1 };

// A picked event: the kernel's flags, and what the registration stored.
struct Event {
    std::uint32_t flags;
    std::uint32_t key;  // descriptor in the low 16 bits, generation of its registration above
    std::uint32_t source;
};

enum class Operation : std::uint8_t { add, modify };

// Conditions of qel/dm.h to the kernel's flags, always one-shot, and back.
std::uint32_t to_flags(std::uint32_t conditions);
std::uint32_t to_conditions(std::uint32_t flags);
// The part of a picked event's flags that a registration with the flags 'asked' wants to hear of.
std::uint32_t wanted_flags(std::uint32_t flags, std::uint32_t asked);
// True for an event that says nothing but that the descriptor failed.
bool is_error_only(std::uint32_t flags);

// Each gives 0 or an errno, and leaves the outputs alone on failure.
int open_event_queue(int& epoll_fd);
int open_pipe(int& read_fd, int& write_fd);
int control(int epoll_fd, Operation operation, int fd, const Event& event);
void forget(int epoll_fd, int fd);
int arm_pipe(int epoll_fd, int read_fd, Operation operation);
int write_wake_byte(int write_fd);

// Waits for one event: 1 with 'event' filled in, 0 when time is up, or -errno. A cancelled thread unwinds
// out of it; 'event' then holds what it picked, or has no flags.
int wait(int epoll_fd, Event& event, int timeout_ms);

}  // namespace qel::dm::platform
