// The default printer of the debug flags: a line in the system log, headed by the local time.
//
//     [Sat Nov 21 10:15:00.123 UTC] text of the caller
//
// The line is a format of at most 160 characters, the newline included, and goes out with the caller's
// arguments. A longer text is cut; a conversion that the cut would split goes as a whole, for half of one
// would read the arguments wrongly.
//
// Locks: called under the debug lock, takes none. Threads: any.
#include <qel/time.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "trace/qel_debug_trace.hpp"

namespace qel {
namespace {

constexpr std::size_t kLineLimit = 160;

// What may stand between a conversion's "%" and the letter that ends it.
constexpr std::string_view kBeforeConversion = " #'+-0123456789.*$hlLjqtzI";

// The place behind the conversion that starts at 'at', or npos if the text ends inside it.
std::size_t conversion_end(std::string_view text, std::size_t at) {
    std::size_t letter = text.find_first_not_of(kBeforeConversion, at + 1);
    return letter == text.npos ? letter : letter + 1;
}

// 'format' cut to 'room' characters, or to less so as to end in front of a conversion.
std::string_view cut(const char* format, std::size_t room) {
    std::string_view text{format, strnlen(format, room)};
    for (std::size_t at = text.find('%'); at != text.npos;) {
        std::size_t end = conversion_end(text, at);
        if (end == text.npos) return text.substr(0, at);
        at = text.find('%', end);
    }
    return text;
}

char* append(char* at, std::string_view text) {
    return std::copy(text.begin(), text.end(), at);
}

void compose_line(char (&line)[kLineLimit + 1], const timespec& now, const char* format) {
    char* time = append(line, "[");
    char* at = time + qel_time_format_system_default(&now, QEL_TIME_ZONE_LOCAL, time);
    // The name of the zone may come from a file and must not act as a conversion.
    std::replace(time, at, '%', '?');
    at = append(at, "] ");
    std::size_t room = kLineLimit - static_cast<std::size_t>(at - line) - 1;
    at = append(at, cut(format, room));
    *append(at, "\n") = '\0';
}

}  // namespace

int print_to_system_log(void*, const char*, const char* format, va_list args) {
    timespec now;
    if (int error = qel_time_get_timespec_realtime(&now); error != 0) return error;
    char line[kLineLimit + 1];
    compose_line(line, now, format);
    vsyslog(LOG_DEBUG, line, args);
    return 0;
}

}  // namespace qel
