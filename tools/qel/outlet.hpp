// Standard output for a subcommand that runs until somebody ends it.
#pragma once

#include <core/qel_fd.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace qel_tool {

// Takes text, and waits between one text and the next. It ends by itself, for good, on SIGINT or SIGTERM and
// when the reader at the other end of the pipe goes away; these signals are blocked as long as it lives, so
// that none is lost between two steps, and no write waits where they couldn't end it.
class Outlet {
  public:
    Outlet();
    Outlet(const Outlet&) = delete;
    Outlet& operator=(const Outlet&) = delete;

    // Nothing more is wanted. After a signal one more flush() still goes out, if that takes no second.
    bool ended() const { return reader_gone_ || last_moment_.has_value(); }
    // What is added before the next flush() goes out with it.
    std::string& text() { return text_; }
    void flush();
    // Lets the time pass, unless the outlet ends first.
    void wait(std::chrono::duration<double> time);

  private:
    using Clock = std::chrono::steady_clock;

    // Waits for 'events' of standard output, at most until 'limit'; true if they came.
    bool await(short events, Clock::time_point limit);
    void write_some(std::string_view& rest);

    qel::Fd signals_;
    std::string text_;
    bool reader_gone_ = false;
    std::optional<Clock::time_point> last_moment_;  // set by the signal
};

}  // namespace qel_tool
