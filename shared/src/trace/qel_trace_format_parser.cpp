// Formats parsed into trace points: which arguments a log call passes, and how an entry stores them.
//
// A conversion is flags and width, a length, a letter, and perhaps a tag behind it, as in "%p{mac}": the
// address that the argument points at is stored, not the pointer. What the trace can't store, as "*", "$",
// "L", floating point or "n", is refused with the letter that it leads to, since nothing but the letters of
// argument_type() ends a conversion.
//
// Threads: pure functions.
#include <qel/dt_buffer.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "trace/qel_trace_conversion.hpp"

namespace qel {

namespace {

struct Tag {
    std::string_view text;
    ArgumentType type;
};
constexpr std::array<Tag, 3> kTags{{{"{ipv4}", ArgumentType::ipv4_value},
                                    {"{ipv6}", ArgumentType::ipv6_pointer},
                                    {"{mac}", ArgumentType::mac_pointer}}};

// Bytes in the fixed part of an entry, by ArgumentType.
constexpr std::array<std::uint8_t, 8> kFixedBytes{0, 4, 8, 0, 0, 0, 0, 4};

constexpr std::string_view kFlagsAndWidth = " #'+-.0123456789";
constexpr std::array<std::string_view, 7> kLengths{"ll", "l", "hh", "h", "j", "t", "z"};
constexpr std::string_view kTruncated = "<truncated>";

std::string_view take_front(std::string_view& rest, std::size_t size) {
    std::string_view front = rest.substr(0, size);
    rest.remove_prefix(front.size());
    return front;
}

std::string_view take_length(std::string_view& rest) {
    for (std::string_view length : kLengths)
        if (rest.starts_with(length)) return take_front(rest, length.size());
    return {};
}

void look_for_tag(std::string_view rest, Conversion& conversion) {
    for (const Tag& tag : kTags) {
        if (!rest.starts_with(tag.text)) continue;
        conversion.tag = tag.type;
        conversion.tag_size = tag.text.size();
    }
}

ArgumentType extended_type(char letter) {
    switch (letter) {
    case 'P':
        return ArgumentType::ipv6_pointer;
    case 'e':
        return ArgumentType::mac_pointer;
    case 'i':
        return ArgumentType::ipv4_value;
    default:
        return ArgumentType::none;
    }
}

class FormatParser {
  public:
    FormatParser(qel_dt_tp_entry& record, bool extended)
        : rest_(record.format, record.length), record_(record), extended_(extended) {}

    // False if the format holds what the trace can't store.
    bool parse();
    std::uint32_t argument_count() const { return count_; }

  private:
    void add(ArgumentType type);

    std::string_view rest_;
    qel_dt_tp_entry& record_;
    std::uint32_t count_ = 0;
    bool extended_;
};

bool FormatParser::parse() {
    for (;;) {
        std::size_t percent = rest_.find('%');
        if (percent == rest_.npos) return true;
        rest_.remove_prefix(percent + 1);
        const Conversion conversion = take_conversion(rest_);
        if (conversion.letter == '%') continue;
        const ArgumentType type = argument_type(conversion, extended_);
        if (type == ArgumentType::none) return false;
        add(type);
    }
}

void FormatParser::add(ArgumentType type) {
    const std::uint32_t place = count_++;
    if (place >= QEL_DT_TP_MAX_ARGUMENTS) return;
    auto code = static_cast<std::uint8_t>(type);
    record_.types[place / 8] |= std::uint32_t{code} << 4 * (place % 8);
    record_.fixed_size = static_cast<std::uint8_t>(record_.fixed_size + kFixedBytes[code]);
    record_.argument_count = static_cast<std::uint8_t>(count_);
}

// A text too long for the record is cut, and says so at its end.
void copy_format(qel_dt_tp_entry& record, const char* format) {
    constexpr std::size_t longest = QEL_DT_TP_FORMAT_SIZE - 1;
    std::size_t length = strnlen(format, QEL_DT_TP_FORMAT_SIZE);
    record = {};
    record.length = static_cast<std::uint32_t>(std::min(length, longest));
    std::memcpy(record.format, format, record.length);
    if (length > longest)
        std::memcpy(record.format + longest - kTruncated.size(), kTruncated.data(), kTruncated.size());
}

}  // namespace

Conversion take_conversion(std::string_view& rest) {
    Conversion conversion{};
    conversion.flags = take_front(rest, std::min(rest.find_first_not_of(kFlagsAndWidth), rest.size()));
    conversion.length = take_length(rest);
    if (rest.empty()) return conversion;
    conversion.letter = rest.front();
    rest.remove_prefix(1);
    look_for_tag(rest, conversion);
    return conversion;
}

// Only "l" makes a number longer; the lengths that say less are passed over.
ArgumentType argument_type(const Conversion& conversion, bool extended) {
    const ArgumentType number =
        conversion.length.starts_with('l') ? ArgumentType::word64 : ArgumentType::word32;
    if (ArgumentType type = extended_type(conversion.letter); extended && type != ArgumentType::none)
        return type;
    switch (conversion.letter) {
    case 's':
        return ArgumentType::string;
    case 'p':
        if (conversion.tag == ArgumentType::none) return ArgumentType::word64;
        return conversion.tag == ArgumentType::ipv4_value ? ArgumentType::ipv4_pointer : conversion.tag;
    case 'u':
    case 'i':
        return conversion.tag == ArgumentType::ipv4_value ? conversion.tag : number;
    case 'd':
    case 'o':
    case 'x':
    case 'X':
        return number;
    default:
        return ArgumentType::none;
    }
}

}  // namespace qel

int qel_dt_init_tp(const char* format, uint32_t least_args, qel_dt_tp_entry* record, uint32_t extended) {
    if (format == nullptr || *format == '\0' || record == nullptr) return EINVAL;
    qel_dt_tp_entry parsed;
    qel::copy_format(parsed, format);
    parsed.extended = extended != 0 ? 1 : 0;
    qel::FormatParser parser{parsed, extended != 0};
    if (!parser.parse()) return EINVAL;
    if (parser.argument_count() > QEL_DT_TP_MAX_ARGUMENTS || parser.argument_count() < least_args)
        return E2BIG;
    *record = parsed;
    return 0;
}
