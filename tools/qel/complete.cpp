// qel complete WORDS...: what could stand in the place of the last word.
//
// The shell's script calls it at each TAB, so a new subcommand completes without a change there.
#include <qel/ppm.h>

#include <net/if.h>

#include <algorithm>
#include <memory>

#include "ipc_channel.hpp"
#include "objects.hpp"

namespace qel_tool {
namespace {

// Where in the command line the last word stands.
struct Place {
    const CLI::App* command;
    std::string root;
    std::size_t positionals = 0;            // words before it that are arguments of 'command'
    const CLI::Option* value_of = nullptr;  // the option that it belongs to
};

const CLI::Option* find_option(const CLI::App* command, const std::string& word) {
    for (; command != nullptr; command = command->get_parent())
        if (const CLI::Option* option = command->get_option_no_throw(word)) return option;
    return nullptr;
}

const CLI::App* find_subcommand(const CLI::App* command, const std::string& word) {
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; }))
        if (sub->get_name() == word) return sub;
    return nullptr;
}

void pass_word(Place& place, const std::string& word) {
    if (place.value_of != nullptr) {
        if (place.value_of->check_name("--root")) place.root = word;
        place.value_of = nullptr;
    } else if (word.starts_with('-')) {
        const CLI::Option* option = find_option(place.command, word);
        if (option != nullptr && option->get_items_expected_max() > 0) place.value_of = option;
    } else if (const CLI::App* sub = find_subcommand(place.command, word)) {
        place.command = sub;
        place.positionals = 0;
    } else {
        ++place.positionals;
    }
}

using Candidates = std::vector<std::string>;

Candidates long_options(const CLI::App* command) {
    Candidates all;
    for (; command != nullptr; command = command->get_parent())
        for (const CLI::Option* option : command->get_options())
            for (const std::string& name : option->get_lnames()) all.push_back("--" + name);
    return all;
}

Candidates subcommands(const CLI::App* command) {
    Candidates all;
    for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; }))
        all.push_back(sub->get_name());
    return all;
}

// The last argument of a command may take any number of words.
const CLI::Option* positional_at(const Place& place) {
    const CLI::Option* last = nullptr;
    std::size_t before = 0;
    for (const CLI::Option* option : place.command->get_options()) {
        if (!option->get_positional()) continue;
        last = option;
        if (before++ == place.positionals) break;
    }
    return last;
}

Candidates find_links() {
    Candidates all;
    const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> links{if_nameindex(),
                                                                                  if_freenameindex};
    for (const auto* at = links.get(); at != nullptr && at->if_index != 0; ++at) all.push_back(at->if_name);
    return all;
}

Candidates words_for(const CLI::Option* argument, const std::string& root) {
    if (argument == nullptr) return {};
    const std::string kind = argument->get_type_name();
    if (kind == kBuffer) return find_objects(root, ".qdt");
    if (kind == kInterface) return find_links();
    if (kind == kLevel) return {"error", "warning", "info", "debug"};
    if (kind != kChannel) return {};
    static_cast<void>(qel_ppm_set_string("qel.shm.root", root.c_str()));  // Without it none are found.
    return find_channels(root);
}

Candidates candidates(const Place& place, const std::string& word) {
    if (place.value_of != nullptr) return words_for(place.value_of, place.root);
    if (word.starts_with('-')) return long_options(place.command);
    Candidates subs = subcommands(place.command);
    return subs.empty() ? words_for(positional_at(place), place.root) : subs;
}

}  // namespace

Exit complete(const CLI::App& program, const std::vector<std::string>& words) {
    if (words.empty()) return Exit::usage;
    Place place{&program, ""};
    for (std::size_t i = 0; i + 1 < words.size(); ++i) pass_word(place, words[i]);
    Candidates all = candidates(place, words.back());
    std::sort(all.begin(), all.end());
    all.erase(std::unique(all.begin(), all.end()), all.end());
    for (const std::string& one : all)
        if (one.starts_with(words.back())) fmt::print("{}\n", printable(one));
    return Exit::fine;
}

}  // namespace qel_tool
