// qel err: what a result code means, also one of another process's component.
//
// The fields are taken apart here; the texts are the library's. Those of components that aren't linked come
// from the error-code maps in shared memory, where their processes have published them.
#include <qel/cerrno.h>

#include <charconv>
#include <optional>
#include <string_view>

#include "command.hpp"

namespace qel_tool {
namespace {

constexpr std::uint32_t kErrnoMask = 0x1ff;

// Decimal, or hexadecimal behind "0x"; a negative number is a code that was printed with a sign.
std::optional<std::uint32_t> read_code(std::string_view text) {
    bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || value > UINT32_MAX) return std::nullopt;
    return static_cast<std::uint32_t>(negative ? 0 - value : value);
}

std::string refuse_other_texts(const std::string& text) {
    return read_code(text) ? "" : fmt::format("\"{}\" is no 32-bit number", printable(text));
}

const char* severity_of(std::uint32_t code) {
    switch (code & QEL_CERRNO_SEVERITY_MASK) {
    case QEL_CERRNO_INFORMATIONAL:
        return "informational";
    case QEL_CERRNO_WARNING:
        return "warning";
    case QEL_CERRNO_TRY_AGAIN:
        return "try again";
    case QEL_CERRNO_FATAL:
        return "fatal";
    case QEL_CERRNO_NO_RESOURCE:
        return "no resource";
    default:
        return "none";
    }
}

Json describe_code(std::uint32_t code) {
    return {{"code", code},
            {"hexadecimal", fmt::format("0x{:08x}", code)},
            {"severity", severity_of(code)},
            {"errno", code & kErrnoMask},
            {"text", printable(cerr_strerror(code))}};
}

Exit explain(const Run& run, const std::vector<std::string>& codes) {
    for (const std::string& text : codes) {
        Json code = describe_code(read_code(text).value_or(0));
        if (run.json)
            print_json(code);
        else
            fmt::print("{}: {}, errno {}: {}\n", code["hexadecimal"].get<std::string>(),
                       code["severity"].get<std::string>(), code["errno"].get<std::uint32_t>(),
                       code["text"].get<std::string>());
    }
    return Exit::fine;
}

}  // namespace

void add_err(CLI::App& program, Run& run) {
    auto codes = std::make_shared<std::vector<std::string>>();
    CLI::App* command = program.add_subcommand("err", "Tells what result codes mean");
    command->add_option("CODE", *codes, "Decimal or 0x...; a negative one behind --")
        ->required()
        ->check(refuse_other_texts);
    command->callback([&run, codes] { run.action = [&run, codes] { return explain(run, *codes); }; });
}

}  // namespace qel_tool
