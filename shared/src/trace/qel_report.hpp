// Reports: one line at the site of a failure or event, checked while compiling.
//
//     return failed<"QDM401", "%s epoll_ctl rc=%d">(error, error);
//
// A report names its label (a family word and a number, used at one site only; scripts/lint holds that), its
// text, and its values. The label is the first argument of the text. Each label has its own trace point word,
// so a site registers its text once and costs a few atomic operations from then on. A report never changes a
// result.
#pragma once

#include <qel/dt.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qel {

// A text as a template argument.
template <std::size_t N>
struct FixedText {
    char text[N]{};
    consteval FixedText(const char (&literal)[N]) {
        for (std::size_t i = 0; i < N; ++i) text[i] = literal[i];
    }
};

// What a conversion takes from the argument list.
enum class ValueKind : std::uint8_t { none, word32, word64, string };

template <class Value>
constexpr ValueKind kind_of() {
    if constexpr (std::is_convertible_v<Value, const char*>) return ValueKind::string;
    if constexpr (std::is_pointer_v<Value> || sizeof(Value) == 8) return ValueKind::word64;
    if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value>) return ValueKind::word32;
    return ValueKind::none;
}

// The kinds that the conversions of 'format' take, in order; 'count' is 99 for a text that the trace can't
// hold.
struct Conversions {
    std::array<ValueKind, 16> kinds{};
    std::size_t count = 0;
};

constexpr Conversions parse_conversions(const char* format) {
    Conversions found;
    for (const char* at = format; *at != '\0'; ++at) {
        if (*at != '%') continue;
        ++at;
        if (*at == '%') continue;
        while (*at == '#' || *at == '.' || *at == '-' || (*at >= '0' && *at <= '9')) ++at;
        bool wide = false;
        for (; *at == 'l'; ++at) wide = true;
        bool number = *at == 'd' || *at == 'u' || *at == 'x' || *at == 'i' || *at == 'X';
        if (found.count == found.kinds.size() || !(number || *at == 's' || *at == 'p')) return {{}, 99};
        ValueKind word = wide || *at == 'p' ? ValueKind::word64 : ValueKind::word32;
        found.kinds[found.count++] = *at == 's' ? ValueKind::string : word;
    }
    return found;
}

// True when 'format' takes a label (a string) somewhere among its conversions first or, for texts that carry
// no label of their own, exactly the values.
template <class... Values>
constexpr bool conversions_match(const char* format) {
    constexpr std::array<ValueKind, sizeof...(Values) + 1> given{ValueKind::string, kind_of<Values>()...};
    Conversions wanted = parse_conversions(format);
    if (wanted.count != given.size()) return false;
    for (std::size_t i = 0; i < given.size(); ++i)
        if (wanted.kinds[i] != given[i]) return false;
    return true;
}

template <FixedText Label>
inline constinit std::uint32_t trace_point = QEL_DT_TP_UNREGISTERED;

// Gives the library's error buffer, making it on first need; null while it can't be made, or while this very
// thread is making it.
qel_dt_buffer_handle error_buffer();

// Reports a failure to the error buffer. The label is the text's first argument.
template <FixedText Label, FixedText Format, class... Values>
void report(Values... values) {
    static_assert(conversions_match<Values...>(Format.text),
                  "the label's %s comes first, then one conversion a value");
    // A report that can't be written is dropped: it must not disturb the call that it reports on.
    static_cast<void>(_qel_dt_log_filter_adv(nullptr, error_buffer(), 0, 0, 0, 0, &trace_point<Label>,
                                             Format.text, Label.text, values...));
}

// Reports, and gives the result that the site returns.
template <FixedText Label, FixedText Format, class Result, class... Values>
Result failed(Result result, Values... values) {
    report<Label, Format>(values...);
    return result;
}

// Writes an event to a family's buffer if 'level' passes there.
template <FixedText Label, FixedText Format, class... Values>
void event(qel_dt_buffer_handle buffer, std::uint32_t level, Values... values) {
    static_assert(conversions_match<Values...>(Format.text),
                  "the label's %s comes first, then one conversion a value");
    if (buffer == nullptr || !qel_dt_trace_enabled(buffer, level)) return;
    static_cast<void>(_qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &trace_point<Label>, Format.text,
                                             Label.text, values...));
}

}  // namespace qel
