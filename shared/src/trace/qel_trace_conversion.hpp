// The conversions of a format: what stands between "%" and the text behind it.
#pragma once

#include <cstddef>
#include <string_view>

#include "trace/qel_trace_format.hpp"

namespace qel {

struct Conversion {
    std::string_view flags;  // flags, width and precision
    std::string_view length;
    char letter;  // '\0' where the format ends too early
    ArgumentType tag;
    std::size_t tag_size;  // characters of the tag, which is still in the rest
};

// Takes a conversion off 'rest', which begins behind its "%".
Conversion take_conversion(std::string_view& rest);

// What an entry stores for 'conversion'; none if the trace can't store it.
ArgumentType argument_type(const Conversion& conversion, bool extended);

// True for types whose text replaces the tag that may stand behind the letter.
constexpr bool is_address(ArgumentType type) {
    return type >= ArgumentType::ipv4_pointer;
}

}  // namespace qel
