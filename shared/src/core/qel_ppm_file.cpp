// The lines of the start-up parameter file.
//
//     # comment                       ignored, as is every line that begins with none of these
//     [name]                          what follows is for the process of that name only; "[]" is for all
//     key = value                     a setting; the key begins with a letter
//
// Lines before the first section are for all. White space around a name, a key and a value doesn't count. The
// reader knows nothing of files: it is fed line by line and keeps only whether the present section applies.
#include "core/qel_ppm_file.hpp"

#include <cstdlib>
#include <cstring>

namespace qel {
namespace {

constexpr const char* kWhiteSpace = " \t\n\v\f\r";

char* skip(char* text, const char* set) {
    return text + std::strspn(text, set);
}

char* trim_end(char* text) {
    std::size_t size = std::strlen(text);
    while (size > 0 && std::strchr(kWhiteSpace, text[size - 1]) != nullptr) --size;
    text[size] = '\0';
    return text;
}

constexpr bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

StartupSetting make_setting(const char* key, char* value) {
    char* end = nullptr;
    auto number = static_cast<std::uint32_t>(std::strtol(value, &end, 0));
    if (*end != '\0') return {key, value, 0};
    return {key, nullptr, number};
}

}  // namespace

std::optional<StartupSetting> StartupReader::read(char* line) {
    line = skip(line, " \t\r\n");
    if (*line == '[') enter_section(line + 1);
    if (!in_section_ || !is_letter(*line)) return std::nullopt;
    char* equals = std::strchr(line, '=');
    if (equals == nullptr) return std::nullopt;
    *equals = '\0';
    return make_setting(trim_end(line), trim_end(skip(equals + 1, kWhiteSpace)));
}

void StartupReader::enter_section(char* name) {
    name = skip(name, kWhiteSpace);
    if (char* bracket = std::strchr(name, ']'); bracket != nullptr) *bracket = '\0';
    trim_end(name);
    in_section_ = *name == '\0' || std::strcmp(name, section_) == 0;
}

}  // namespace qel
