// What main() and the families of subcommands share.
//
// A family is one function that adds its subcommands to the program: declare it here, add it to the table in
// main.cpp. A subcommand's callback puts its work into Run::action, which runs once all options are read.
#pragma once

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

namespace qel_tool {

using Json = nlohmann::ordered_json;

enum class Exit { fine = 0, finding = 1, usage = 2, unreadable = 3 };

struct Run {
    std::string root;  // prefix of all shared-memory names
    bool json = false;
    std::function<Exit()> action;
};

// Thrown by an action: what was to be read can't be.
struct Unreadable {
    std::string what;
};

// Prints 'document' on one line. What isn't UTF-8 in it, as a name that somebody scribbled on, is replaced.
void print_json(const Json& document);
// Text from shared memory without what a terminal would obey.
std::string printable(std::string text);

void add_ipc(CLI::App& program, Run& run);
void add_err(CLI::App& program, Run& run);
void add_trace(CLI::App& program, Run& run);
void add_if(CLI::App& program, Run& run);

// What the shell's completion offers for the last of 'words', one a line. Arguments are known by the names
// of their types: kBuffer, kChannel, kInterface and kLevel.
Exit complete(const CLI::App& program, const std::vector<std::string>& words);
inline constexpr const char* kBuffer = "BUFFER";
inline constexpr const char* kChannel = "CHANNEL";
inline constexpr const char* kInterface = "INTERFACE";
inline constexpr const char* kLevel = "LEVEL";

}  // namespace qel_tool
