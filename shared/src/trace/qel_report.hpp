// Reports: one line at the site of a failure or event, checked while compiling.
//
//     return failed<"WORD12", "%s epoll_ctl rc=%d">(error, error);
//
// A report names its label (a family word and a number, used at one site only; scripts/lint holds that), its
// text, and its values. The label is the first argument of the text; a few texts take it last or not at all.
// Each label with its text has its own trace point word, so a site registers its text once and costs a few
// atomic operations from then on. A report changes neither a result nor 'errno'.
#pragma once

#include <qel/dt.h>

#include <array>
#include <atomic>
#include <cerrno>
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

// Texts, one behind the other, as one.
template <FixedText... Parts>
consteval auto joined() {
    char text[(sizeof(Parts.text) + ... + 1) - sizeof...(Parts)]{};
    std::size_t at = 0;
    auto append = [&](const auto& part) {
        for (std::size_t i = 0; i + 1 < sizeof(part.text); ++i) text[at++] = part.text[i];
    };
    (append(Parts), ...);
    return FixedText{text};
}

// What a conversion takes from the argument list.
enum class ValueKind : std::uint8_t { none, word32, word64, string };

template <class Value>
constexpr ValueKind kind_of() {
    constexpr bool whole = std::is_integral_v<Value>;
    // An enumeration is passed unwidened, so one narrower than a word would be read with garbage beside it.
    constexpr bool listed = std::is_enum_v<Value> && sizeof(Value) >= 4;
    if constexpr (std::is_convertible_v<Value, const char*>) return ValueKind::string;
    if constexpr (std::is_pointer_v<Value>) return ValueKind::word64;
    if constexpr (whole || listed) return sizeof(Value) == 8 ? ValueKind::word64 : ValueKind::word32;
    return ValueKind::none;
}

// The kinds that the conversions of 'format' take, in order; 'count' is kUnusable for a text that no trace
// point can hold.
struct Conversions {
    static constexpr std::size_t kUnusable = 99;
    std::array<ValueKind, QEL_DT_TP_MAX_ARGUMENTS> kinds{};
    std::size_t count = 0;
};

constexpr bool is_one_of(char letter, const char* letters) {
    for (; *letters != '\0'; ++letters)
        if (*letters == letter) return true;
    return false;
}

// Reads the conversion whose "%" lies before 'at' and moves 'at' to its letter.
constexpr ValueKind parse_conversion(const char*& at) {
    while (is_one_of(*at, "#.-0123456789")) ++at;
    bool wide = false;
    for (; *at == 'l'; ++at) wide = true;
    if (*at == 'z' && !wide) ++at;  // the trace takes it for a word
    if (*at == 's' && !wide) return ValueKind::string;
    if (*at == 'p' && !wide) return ValueKind::word64;
    if (!is_one_of(*at, "dioxXu")) return ValueKind::none;
    return wide ? ValueKind::word64 : ValueKind::word32;
}

constexpr Conversions parse_conversions(const char* format) {
    constexpr Conversions unusable{{}, Conversions::kUnusable};
    Conversions found;
    const char* at = format;
    for (; *at != '\0'; ++at) {
        if (*at != '%' || *++at == '%') continue;
        ValueKind kind = parse_conversion(at);
        if (kind == ValueKind::none || found.count == found.kinds.size()) return unusable;
        found.kinds[found.count++] = kind;
    }
    return at - format < QEL_DT_TP_FORMAT_SIZE ? found : unusable;
}

// Where a text takes its label: some have it at the end, and some not at all.
enum class LabelPlace : std::uint8_t { first, last, none, mismatch };

template <std::size_t N>
constexpr bool takes(const Conversions& wanted, const std::array<ValueKind, N>& given) {
    if (wanted.count != N) return false;
    for (std::size_t i = 0; i < N; ++i)
        if (wanted.kinds[i] != given[i]) return false;
    return true;
}

template <class... Values>
constexpr LabelPlace label_place(const char* format) {
    using WithLabel = std::array<ValueKind, sizeof...(Values) + 1>;
    Conversions wanted = parse_conversions(format);
    if (takes(wanted, WithLabel{ValueKind::string, kind_of<Values>()...})) return LabelPlace::first;
    if (takes(wanted, WithLabel{kind_of<Values>()..., ValueKind::string})) return LabelPlace::last;
    if (takes(wanted, std::array<ValueKind, sizeof...(Values)>{kind_of<Values>()...}))
        return LabelPlace::none;
    return LabelPlace::mismatch;
}

static_assert(label_place<int, const char*, std::uint64_t, void*>("%s rc=%-3d %s %#lx%% %p") ==
              LabelPlace::first);
static_assert(label_place<void*>("interrupted qdm=%p %s") == LabelPlace::last);
static_assert(label_place<>("no label") == LabelPlace::none);
static_assert(label_place<std::uint64_t>("%s %u") == LabelPlace::mismatch &&
              label_place<double>("%s %lu") == LabelPlace::mismatch &&
              label_place<int>("%s %*d") == LabelPlace::mismatch);

template <FixedText Label, FixedText Format>
inline constinit std::uint32_t trace_point = QEL_DT_TP_UNREGISTERED;

// A trace buffer that is made when it is first needed. 'size_key' names the parameter that overrides 'size',
// in bytes; null for a buffer of fixed size.
struct BufferSource {
    const char* name;
    const char* size_key;
    std::uint32_t size;
};

// Makes the buffer, or attaches to it, and installs it at 'place' unless another thread was faster; gives the
// one that is installed, or null.
qel_dt_buffer_handle make_buffer(qel_dt_buffer_handle& place, const BufferSource& source);
qel_dt_buffer_handle make_error_buffer();

// The buffer installed at 'place', a family's static, made on first need; null while it can't be made.
inline qel_dt_buffer_handle buffer_at(qel_dt_buffer_handle& place, const BufferSource& source) {
    qel_dt_buffer_handle buffer = std::atomic_ref{place}.load(std::memory_order_acquire);  // B1
    return buffer != nullptr ? buffer : make_buffer(place, source);
}

// The library's error buffer, made on first need; null while it can't be made, and on a thread that is making
// it.
inline qel_dt_buffer_handle error_buffer() {
    qel_dt_buffer_handle buffer =
        std::atomic_ref{qel_gen_error_buffer}.load(std::memory_order_acquire);  // B1
    return buffer != nullptr ? buffer : make_error_buffer();
}

// "qel.gen.buffer.events", for the events of families that have no buffer of their own; null while it can't
// be made.
qel_dt_buffer_handle common_event_buffer();

// Puts 'errno' back at the end of a scope.
class ErrnoKept {
  public:
    ErrnoKept() = default;
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;
    ~ErrnoKept() { errno = kept_; }

  private:
    int kept_ = errno;
};

// Writes one line to 'buffer', with the label where the text takes it, and prints it under 'flag' unless that
// is null.
template <FixedText Label, FixedText Format, class... Values>
void write_line_under(qel_dt_flag* flag, qel_dt_buffer_handle buffer, Values... values) {
    constexpr LabelPlace place = label_place<Values...>(Format.text);
    static_assert(place != LabelPlace::mismatch, "one conversion for the label, if any, and one a value");
    auto write = [flag, buffer](auto... arguments) {
        // A line that can't be written is dropped: it must not disturb the call that it reports on.
        static_cast<void>(_qel_dt_log_filter_adv(flag, buffer, 0, 0, 0, 0, &trace_point<Label, Format>,
                                                 Format.text, arguments...));
    };
    if constexpr (place == LabelPlace::first) write(Label.text, values...);
    if constexpr (place == LabelPlace::last) write(values..., Label.text);
    if constexpr (place == LabelPlace::none) write(values...);
}

template <FixedText Label, FixedText Format, class... Values>
void write_line(qel_dt_buffer_handle buffer, Values... values) {
    write_line_under<Label, Format>(nullptr, buffer, values...);
}

// Reports a failure to the error buffer.
template <FixedText Label, FixedText Format, class... Values>
void report(Values... values) {
    ErrnoKept kept;
    write_line<Label, Format>(error_buffer(), values...);
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
    if (buffer != nullptr && qel_dt_trace_enabled(buffer, level))
        write_line<Label, Format>(buffer, values...);
}

}  // namespace qel
