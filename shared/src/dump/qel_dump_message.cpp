// The message of an entry: its trace point's format with the arguments that the entry holds.
//
// The list of trace points is shared, so neither its texts nor its types are believed. A text goes to no
// printf: each conversion is taken apart and made anew from parts that are known to be harmless, for the
// argument that it stands for; and the types that follow from the text have to be those of the record.
//
// Threads: pure functions on what the mapped list holds. Restart: the list outlives its writers.
#include <arpa/inet.h>

#include <qel/cerrno.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "dump/qel_dump.hpp"
#include "trace/qel_trace_conversion.hpp"
#include "trace/qel_trace_point.hpp"

namespace qel::dump {
namespace {

constexpr std::size_t kLongestString = 1023;
constexpr std::size_t kWidestField = kMessageSize - 1;

// What is left of the room for a message. Always ends in NUL.
class Writer {
  public:
    explicit Writer(std::span<char> room) : room_(room) { room_[0] = '\0'; }
    std::size_t size() const { return used_; }
    void add(std::string_view text) {
        text = text.substr(0, room_.size() - 1 - used_);
        std::memcpy(&room_[used_], text.data(), text.size());
        used_ += text.size();
        room_[used_] = '\0';
    }
    // 'format' is one conversion of our own making, for 'value'.
    template <class Value>
    void print(const char* format, Value value) {
        const std::size_t left = room_.size() - used_;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int length = std::snprintf(&room_[used_], left, format, value);
#pragma GCC diagnostic pop
        if (length > 0) used_ += std::min(static_cast<std::size_t>(length), left - 1);
    }

  private:
    std::span<char> room_;
    std::size_t used_ = 0;
};

// The arguments of an entry: numbers in the fixed part, all else behind it.
class Arguments {
  public:
    Arguments(std::span<const std::byte> all, std::size_t fixed_size)
        : fixed_(all.first(fixed_size)), variable_(all.subspan(fixed_size)) {}

    // False if there are too few bytes; the next 4 are sign-extended.
    bool take_number(bool wide, std::uint64_t& out) {
        std::int32_t narrow = 0;
        if (wide) return take(fixed_, &out, sizeof out);
        if (!take(fixed_, &narrow, sizeof narrow)) return false;
        out = static_cast<std::uint64_t>(std::int64_t{narrow});
        return true;
    }
    bool take_string(std::string_view& out) {
        const auto* start = reinterpret_cast<const char*>(variable_.data());
        const std::size_t length = strnlen(start, variable_.size());
        if (length == variable_.size()) return false;
        out = {start, std::min(length, kLongestString)};
        variable_ = variable_.subspan(length + 1);
        return true;
    }
    bool take_fixed(void* out, std::size_t size) { return take(fixed_, out, size); }
    bool take_variable(void* out, std::size_t size) { return take(variable_, out, size); }

  private:
    static bool take(std::span<const std::byte>& from, void* out, std::size_t size) {
        if (from.size() < size) return false;
        std::memcpy(out, from.data(), size);
        from = from.subspan(size);
        return true;
    }

    std::span<const std::byte> fixed_;
    std::span<const std::byte> variable_;
};

// Flags, width and precision of a conversion, each harmless by itself, with the end that the type asks for.
class Directive {
  public:
    Directive(std::string_view flags, std::string_view ending) {
        add("%");
        add(take(flags, " #'+-0"));
        add_number(flags);
        if (flags.starts_with('.')) {
            add(".");
            flags.remove_prefix(1);
            add_number(flags);
        }
        add(ending);
        text_[size_] = '\0';
    }
    const char* text() const { return text_.data(); }

  private:
    static std::string_view take(std::string_view& from, std::string_view characters) {
        std::string_view taken = from.substr(0, std::min(from.find_first_not_of(characters), from.size()));
        from.remove_prefix(taken.size());
        return taken.substr(0, 8);
    }
    void add(std::string_view text) {
        std::memcpy(&text_[size_], text.data(), text.size());
        size_ += text.size();
    }
    // Nothing is filled that doesn't fit the message.
    void add_number(std::string_view& flags) {
        std::size_t value = 0;
        const std::string_view digits = take(flags, "0123456789");
        if (digits.empty()) return;
        for (char digit : digits)
            value = std::min(value * 10 + static_cast<std::size_t>(digit - '0'), kWidestField);
        size_ += static_cast<std::size_t>(std::snprintf(&text_[size_], 8, "%zu", value));
    }

    std::array<char, 40> text_;
    std::size_t size_ = 0;
};

bool print_number(Writer& out, Arguments& arguments, const Conversion& conversion, bool wide) {
    std::uint64_t value = 0;
    if (!arguments.take_number(wide, value)) return false;
    char ending[] = {'l', 'l', conversion.letter, '\0'};
    // "j", "t" and "z" were stored in 32 bits, with a sign as like as not.
    const bool widened = conversion.length.find_first_of("jtz") != conversion.length.npos;
    if (!wide && widened) value = static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(value)});
    if ((wide || widened) && conversion.letter != 'p') {
        out.print(Directive{conversion.flags, ending}.text(), static_cast<unsigned long long>(value));
    } else if (wide) {
        out.print(Directive{conversion.flags, "p"}.text(), reinterpret_cast<void*>(value));
    } else {
        char narrow[] = {'h', 'h', conversion.letter, '\0'};
        const std::size_t shorts = conversion.length.starts_with('h') ? conversion.length.size() : 0;
        out.print(Directive{conversion.flags, narrow + (2 - shorts)}.text(), static_cast<unsigned>(value));
    }
    return true;
}

bool print_string(Writer& out, const Conversion& conversion, std::string_view text) {
    char copy[kLongestString + 1];
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    out.print(Directive{conversion.flags, "s"}.text(), static_cast<const char*>(copy));
    return true;
}

bool print_inet(Writer& out, const Conversion& conversion, int family, const void* address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, address, text, sizeof text) != nullptr && print_string(out, conversion, text);
}

bool print_mac(Writer& out, const Conversion& conversion, const std::uint8_t (&mac)[6]) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x%02x.%02x%02x.%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return print_string(out, conversion, text);
}

bool print_argument(Writer& out, Arguments& arguments, const Conversion& conversion, ArgumentType type) {
    in_addr ipv4;
    in6_addr ipv6;
    std::uint8_t mac[6];
    std::string_view text;
    switch (type) {
    case ArgumentType::word32:
    case ArgumentType::word64:
        return print_number(out, arguments, conversion, type == ArgumentType::word64);
    case ArgumentType::string:
        return arguments.take_string(text) && print_string(out, conversion, text);
    case ArgumentType::ipv4_value:
        return arguments.take_fixed(&ipv4, sizeof ipv4) && print_inet(out, conversion, AF_INET, &ipv4);
    case ArgumentType::ipv4_pointer:
        return arguments.take_variable(&ipv4, sizeof ipv4) && print_inet(out, conversion, AF_INET, &ipv4);
    case ArgumentType::ipv6_pointer:
        return arguments.take_variable(&ipv6, sizeof ipv6) && print_inet(out, conversion, AF_INET6, &ipv6);
    case ArgumentType::mac_pointer:
        return arguments.take_variable(&mac, sizeof mac) && print_mac(out, conversion, mac);
    case ArgumentType::none:
        break;
    }
    return false;
}

// False if format, types and arguments don't fit each other.
bool format_message(const qel_dt_tp_entry& point, Arguments arguments, Writer& out) {
    std::string_view rest{point.format, point.length};
    ArgumentPlan plan{point.types};
    for (;;) {
        const std::size_t percent = std::min(rest.find('%'), rest.size());
        out.add(rest.substr(0, percent));
        if (percent == rest.size()) return true;
        rest.remove_prefix(percent + 1);
        const Conversion conversion = take_conversion(rest);
        if (conversion.letter == '%') {
            out.add("%");
            continue;
        }
        const ArgumentType type = argument_type(conversion, point.extended != 0);
        if (type != plan.take() || !print_argument(out, arguments, conversion, type)) return false;
        if (is_address(type)) rest.remove_prefix(conversion.tag_size);
    }
}

int message_of(const Entry& entry, Writer& out) {
    qel_dt_tp_entry point;
    if (int error = read_point(entry.header.trace_point, point); error != 0) return error;
    if (point.fixed_size > entry.header.length) return EFAULT;
    const Arguments arguments{{entry.arguments, entry.header.length}, point.fixed_size};
    return format_message(point, arguments, out) ? 0 : EFAULT;
}

}  // namespace

qel_dt_tp_entry point_at(const qel_dt_tp_list& list, std::uint32_t index) {
    const qel_dt_tp_entry& point = list.entries[index];
    qel_dt_tp_entry claimed{};
    claimed.length = load(point.length);
    const std::atomic_ref<char> text{const_cast<char&>(point.format[0])};
    return text.load(std::memory_order_acquire) == '\0' ? claimed : point;  // A1 of qel_trace_point.cpp
}

int read_point(std::uint32_t index, qel_dt_tp_entry& out) {
    const qel_dt_tp_list* list = qel_dt_tp_list_get();
    if (list == nullptr || index >= QEL_DT_TP_CAPACITY) return EBADMSG;
    out = point_at(*list, index);
    if (out.length == 0) return EBADMSG;
    const bool sound = out.length <= sizeof out.format && out.argument_count <= QEL_DT_TP_MAX_ARGUMENTS &&
                       out.reserved == 0 && out.fixed_size <= 8 * out.argument_count;
    return sound && strnlen(out.format, sizeof out.format) == out.length ? 0 : EFAULT;
}

std::size_t write_message(const Entry& entry, std::span<char> out) {
    Writer writer{out};
    const int error = message_of(entry, writer);
    if (error == 0) return writer.size();
    const int length = std::snprintf(out.data(), out.size(), "Message lost: %s tp_id: %d",
                                     cerr_strerror(static_cast<std::uint32_t>(error)),
                                     static_cast<int>(entry.header.trace_point));
    return std::min(static_cast<std::size_t>(std::max(length, 0)), out.size() - 1);
}

}  // namespace qel::dump
