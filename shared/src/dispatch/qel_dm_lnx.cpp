// The dispatcher's calls to the Linux kernel: epoll, and the pipe that wakes it.
//
// Every registration is one-shot: once an event is picked, its descriptor stays silent until it is registered
// again, so no two threads ever hold the same event. The kernel hands back 64 bits with an event: the key in
// the low half and the source, descriptor or pipe, in the high half.
//
// Invariant: none beyond the kernel's. Locks: none. Threads: any.
// Restart: descriptors are closed on exec and belong to one process.
#include "dispatch/qel_dm_lnx.hpp"

#include <qel/dm.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "core/qel_owned.hpp"

namespace qel::dm::platform {
namespace {

struct ConditionFlag {
    std::uint32_t condition;
    std::uint32_t flag;
};
constexpr std::array<ConditionFlag, 3> kAskedFor{{
    {QEL_DM_READABLE, EPOLLIN},
    {QEL_DM_WRITABLE, EPOLLOUT},
    {QEL_DM_URGENT, EPOLLPRI},
}};

constexpr std::uint32_t flags_of(std::uint32_t conditions) {
    std::uint32_t flags = EPOLLONESHOT;
    for (const ConditionFlag& row : kAskedFor)
        if ((conditions & row.condition) != 0) flags |= row.flag;
    return flags;
}

constexpr std::uint32_t conditions_of(std::uint32_t flags) {
    std::uint32_t conditions = (flags & EPOLLHUP) != 0 ? QEL_DM_HANGUP : 0;
    for (const ConditionFlag& row : kAskedFor)
        if ((flags & row.flag) != 0) conditions |= row.condition;
    return conditions;
}

template <std::size_t N, class Entry>
consteval std::array<std::uint32_t, N> tabulate(Entry entry) {
    std::array<std::uint32_t, N> table{};
    for (std::uint32_t i = 0; i < N; ++i) table[i] = entry(i);
    return table;
}

// Each event needs both; straight loads where branches would find the predictor cold after a system call.
constexpr auto kFlagsOf = tabulate<16>([](std::uint32_t conditions) { return flags_of(conditions); });
constexpr auto kConditionsOf = tabulate<32>([](std::uint32_t flags) { return conditions_of(flags); });
static_assert((EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLHUP) < kConditionsOf.size());

epoll_event to_native(const Event& event) {
    epoll_event native{};
    native.events = event.flags;
    native.data.u64 = std::uint64_t{event.source} << 32 | event.key;
    return native;
}

int native_operation(Operation operation) {
    return operation == Operation::add ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
}

}  // namespace

std::uint32_t to_flags(std::uint32_t conditions) {
    return kFlagsOf[conditions % kFlagsOf.size()];
}

std::uint32_t to_conditions(std::uint32_t flags) {
    return kConditionsOf[flags % kConditionsOf.size()];
}

std::uint32_t wanted_flags(std::uint32_t flags, std::uint32_t asked) {
    return flags & (asked | EPOLLHUP);
}

bool is_error_only(std::uint32_t flags) {
    return flags == EPOLLERR;
}

int open_event_queue(int& epoll_fd) {
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) return errno;
    epoll_fd = fd;
    return 0;
}

int open_pipe(int& read_fd, int& write_fd) {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return errno;
    read_fd = ends[0];
    write_fd = ends[1];
    return 0;
}

int control(int epoll_fd, Operation operation, int fd, const Event& event) {
    epoll_event native = to_native(event);
    return epoll_ctl(epoll_fd, native_operation(operation), fd, &native) == 0 ? 0 : errno;
}

void forget(int epoll_fd, int fd) {
    // A descriptor that was closed is forgotten by the kernel already.
    static_cast<void>(epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr));
}

int arm_pipe(int epoll_fd, int read_fd, Operation operation) {
    return control(epoll_fd, operation, read_fd, {EPOLLIN | EPOLLONESHOT, 0, kPipe});
}

int write_wake_byte(int write_fd) {
    // A cancellation in the middle would leave a wake-up claimed and not delivered.
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    ssize_t written = write(write_fd, "H", 1);
    int error = written == 1 || errno == EAGAIN ? 0 : errno;
    pthread_setcancelstate(state, nullptr);
    return error;
}

int wait(int epoll_fd, Event& event, int timeout_ms) {
    epoll_event native{};
    // Told also when a cancellation ends the thread inside the call, which may have picked an event by then.
    Undo tell{[&] {
        event = {native.events, static_cast<std::uint32_t>(native.data.u64),
                 static_cast<std::uint32_t>(native.data.u64 >> 32)};
    }};
    int count = epoll_wait(epoll_fd, &native, 1, timeout_ms);
    return count < 0 ? -errno : count;
}

}  // namespace qel::dm::platform
