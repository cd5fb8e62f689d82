// Formats parsed into trace points: which arguments a log call passes, and how an entry stores them.
//
// A conversion is flags and width, a length, a letter, and perhaps a tag behind it, as in "%p{mac}": the
// address that the argument points at is stored, not the pointer. What the trace can't store, as "*", "$",
// "L", floating point or "n", is refused with the letter that it leads to, since nothing but the letters of
// number_letters and the five below ends a conversion.
//
// Threads: pure functions.
#include <qel/dt_buffer.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "trace/qel_trace_format.hpp"

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
constexpr std::string_view kTruncated = "<truncated>";

ArgumentType tag_at(std::string_view text) {
    for (const Tag& tag : kTags)
        if (text.starts_with(tag.text)) return tag.type;
    return ArgumentType::none;
}

class FormatParser {
  public:
    FormatParser(qel_dt_tp_entry& record, bool extended)
        : rest_(record.format, record.length), record_(record), extended_(extended) {}

    // False if the format holds what the trace can't store.
    bool parse();
    std::uint32_t argument_count() const { return count_; }

  private:
    bool parse_conversion();
    ArgumentType parse_length();
    ArgumentType type_of(char letter, ArgumentType number) const;
    ArgumentType type_of_extended(char letter) const;
    void add(ArgumentType type);
    char next() const { return rest_.empty() ? '\0' : rest_.front(); }
    bool skip(char c) {
        if (next() != c) return false;
        rest_.remove_prefix(1);
        return true;
    }

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
        if (!parse_conversion()) return false;
    }
}

bool FormatParser::parse_conversion() {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(kFlagsAndWidth), rest_.size()));
    ArgumentType number = parse_length();
    char letter = next();
    if (letter == '\0') return false;
    rest_.remove_prefix(1);
    if (letter == '%') return true;
    ArgumentType type = type_of(letter, number);
    if (type == ArgumentType::none) return false;
    add(type);
    return true;
}

// Only 'l' makes a number longer; the lengths that say less are passed over.
ArgumentType FormatParser::parse_length() {
    if (skip('l')) {
        skip('l');
        return ArgumentType::word64;
    }
    if (skip('h')) {
        skip('h');
    } else {
        static_cast<void>(skip('j') || skip('t') || skip('z'));
    }
    return ArgumentType::word32;
}

// 'rest_' begins behind the letter, where a tag may stand.
ArgumentType FormatParser::type_of(char letter, ArgumentType number) const {
    const ArgumentType tag = tag_at(rest_);
    if (ArgumentType type = type_of_extended(letter); type != ArgumentType::none) return type;
    switch (letter) {
    case 's':
        return ArgumentType::string;
    case 'p':
        if (tag == ArgumentType::none) return ArgumentType::word64;
        return tag == ArgumentType::ipv4_value ? ArgumentType::ipv4_pointer : tag;
    case 'u':
    case 'i':
        return tag == ArgumentType::ipv4_value ? tag : number;
    case 'd':
    case 'o':
    case 'x':
    case 'X':
        return number;
    default:
        return ArgumentType::none;
    }
}

ArgumentType FormatParser::type_of_extended(char letter) const {
    if (!extended_) return ArgumentType::none;
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
