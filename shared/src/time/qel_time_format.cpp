// Times as text: strftime in a chosen zone, the system's default form, and short durations.
//
// The default form is made in three steps, each with the room that its usual text takes. A step that comes
// out shorter or doesn't fit ends the text where it began or as far as it got.
//
// Locks: none of our own (localtime_r takes the C library's). Threads: any.
#include "time/qel_time.hpp"

#include <qel/time.h>

#include <cstdio>

namespace qel {
namespace {

constexpr std::uint64_t kSecondsPerDay = 86'400;
constexpr std::uint64_t kDaysPerYear = 365;
constexpr std::uint64_t kDaysPerWeek = 7;

constexpr std::size_t kDateLength = sizeof("Thu Jan 01 00:00:00") - 1;
constexpr std::size_t kMillisecondsLength = sizeof(".000 ") - 1;
constexpr std::size_t kZoneSize = 4;
static_assert(kDateLength + kMillisecondsLength + kZoneSize == QEL_TIME_SYSTEM_DEFAULT_SIZE);

bool break_down(const timespec& time, std::uint32_t zone, tm& out) {
    time_t seconds = normalized(time).tv_sec;
    if (zone == QEL_TIME_ZONE_UTC) return gmtime_r(&seconds, &out) != nullptr;
    if (zone == QEL_TIME_ZONE_LOCAL) return localtime_r(&seconds, &out) != nullptr;
    return false;
}

// strftime that leaves an empty text when the room is too small, instead of whatever it got to.
std::size_t format_part(char* buffer, std::size_t size, const char* format, const tm& time) {
    std::size_t length = strftime(buffer, size, format, &time);
    if (length == 0) buffer[0] = '\0';
    return length;
}

}  // namespace
}  // namespace qel

using namespace qel;

size_t qel_time_format_timespec(const timespec* time, const char* format, uint32_t, char* buffer,
                                size_t size) {
    return qel_time_format_timespec2(time, format, QEL_TIME_ZONE_LOCAL, buffer, size);
}

size_t qel_time_format_timespec2(const timespec* time, const char* format, uint32_t zone, char* buffer,
                                 size_t size) {
    if (time == nullptr || format == nullptr || buffer == nullptr || size == 0) return 0;
    buffer[0] = '\0';
    tm parts;
    return break_down(*time, zone, parts) ? format_part(buffer, size, format, parts) : 0;
}

size_t qel_time_format_system_default(const timespec* time, uint32_t zone, char* buffer) {
    if (time == nullptr || buffer == nullptr) return 0;
    buffer[0] = '\0';
    tm parts;
    if (!break_down(*time, zone, parts)) return 0;
    std::size_t length = format_part(buffer, kDateLength + 1, "%a %b %d %T", parts);
    if (length < kDateLength) return length;
    auto milliseconds = static_cast<unsigned long>(normalized(*time).tv_nsec / kNanosecondsPerMillisecond);
    std::snprintf(buffer + length, kMillisecondsLength + 1, ".%.3lu ", milliseconds);
    length += kMillisecondsLength;
    return length + format_part(buffer + length, kZoneSize, "%Z", parts);
}

int qel_time_msec64_to_string(uint64_t milliseconds, char* buffer, size_t size) {
    if (buffer == nullptr && size != 0) return 0;
    unsigned long long seconds = milliseconds / 1000;
    unsigned long long days = seconds / kSecondsPerDay;
    unsigned long long years = days / kDaysPerYear;
    unsigned long long weeks = days % kDaysPerYear / kDaysPerWeek;
    unsigned long long rest = days % kDaysPerYear % kDaysPerWeek;
    unsigned long long hours = seconds % kSecondsPerDay / 3600;
    if (years != 0) return std::snprintf(buffer, size, "%lluy%lluw", years, weeks);
    if (weeks != 0) return std::snprintf(buffer, size, "%lluw%llud", weeks, rest);
    if (rest != 0) return std::snprintf(buffer, size, "%llud%02lluh", rest, hours);
    return std::snprintf(buffer, size, "%02llu:%02llu:%02llu", hours, seconds / 60 % 60, seconds % 60);
}
