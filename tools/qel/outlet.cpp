// Standard output for a subcommand that runs until somebody ends it.
//
// Signals arrive through a descriptor, so one poll() waits for them, for room in the pipe and for its end.
// Behind a poll() that found room, a write of at most PIPE_BUF bytes to a pipe doesn't wait.
#include "outlet.hpp"

#include <climits>
#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "command.hpp"

namespace qel_tool {
namespace {

constexpr std::chrono::seconds kLastFlush{1};
constexpr std::chrono::hours kLongWait{24};

}  // namespace

Outlet::Outlet() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    signals_.reset(signalfd(-1, &ends, SFD_CLOEXEC));
    if (!signals_) throw Unreadable{"no descriptor for signals"};
}

bool Outlet::await(short events, Clock::time_point limit) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()).count();
    pollfd sources[2] = {{STDOUT_FILENO, events, 0}, {last_moment_ ? -1 : signals_.get(), POLLIN, 0}};
    if (poll(sources, 2, static_cast<int>(std::max<std::int64_t>(left, 0))) <= 0) return false;
    if ((sources[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) reader_gone_ = true;
    if (sources[1].revents != 0) last_moment_ = Clock::now() + kLastFlush;
    return (sources[0].revents & events) != 0;
}

void Outlet::write_some(std::string_view& rest) {
    ssize_t written = write(STDOUT_FILENO, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
    if (written >= 0)
        rest.remove_prefix(static_cast<std::size_t>(written));
    else if (errno == EPIPE)
        reader_gone_ = true;
    else if (errno != EAGAIN && errno != EINTR)
        throw Unreadable{"can't write to standard output"};
}

void Outlet::flush() {
    std::string_view rest = text_;
    while (!rest.empty() && !reader_gone_) {
        if (await(POLLOUT, last_moment_.value_or(Clock::now() + kLongWait)))
            write_some(rest);
        else if (last_moment_ && Clock::now() >= *last_moment_)
            break;
    }
    text_.clear();
}

void Outlet::wait(std::chrono::duration<double> time) {
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
    while (!ended() && Clock::now() < end) await(0, std::min(end, Clock::now() + kLongWait));
}

}  // namespace qel_tool
