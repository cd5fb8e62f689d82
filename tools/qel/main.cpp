// qel: looks at what libqel keeps in shared memory, and sets what can be set there; and at interfaces.
//
// Each family of subcommands is a row of kFamilies and a file of its own. Every subcommand has a text form
// and, with --json, one JSON document a line.
#include <qel/base.h>
#include <qel/ppm.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "command.hpp"

namespace qel_tool {
namespace {

constexpr char kAbout[] = "Looks at what the daemons of this machine keep in shared memory. It takes no lock "
                          "that a dead process may\n"
                          "hold, so it works on what the dead have left as well.";
constexpr char kFooter[] =
    "Exit codes: 0 fine, 1 something was found wrong, 2 usage, 3 cannot read.\n"
    "Examples:\n"
    "  qel ipc ls                           every channel, and who of its processes lives\n"
    "  qel ipc show element.keys            one channel in full, checked\n"
    "  qel ipc show element.keys --json     the same for a program\n"
    "  qel ipc level element.keys --trace 1 turns its traces on\n"
    "  qel trace dump lines.events          what a process, dead or alive, has logged\n"
    "  qel trace follow lines.events        what processes log now\n"
    "  qel if list                          the interfaces of this machine\n"
    "  qel err 0xa0000016                   what a result code means\n"
    "  qel --root test1. ipc ls             channels whose names begin with \"test1.\" in shared memory";

using AddFamily = void (*)(CLI::App& program, Run& run);
constexpr std::array<AddFamily, 4> kFamilies{add_ipc, add_trace, add_if, add_err};

Exit fail(const Run& run, const Unreadable& error) {
    if (run.json) print_json({{"error", error.what}});
    fmt::print(stderr, "qel: {}\n", error.what);
    return Exit::unreadable;
}

Exit act(const Run& run) {
    if (!run.root.empty() && qel_ppm_set_string("qel.shm.root", run.root.c_str()) != 0)
        return fail(run, {"can't set the prefix of shared memory"});
    try {
        return run.action();
    } catch (const Unreadable& error) {
        return fail(run, error);
    }
}

// What was printed must have arrived, as on a full disk it hasn't.
int finish(int code) {
    if (std::fflush(stdout) == 0) return code;
    fmt::print(stderr, "qel: can't write to standard output\n");
    return static_cast<int>(Exit::unreadable);
}

}  // namespace

void print_json(const Json& document) {
    fmt::print("{}\n", document.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c >= 0x7f; }, '?');
    return text;
}

int run_program(int argc, char** argv) {
    CLI::App program{kAbout, "qel"};
    Run run;
    program.footer(kFooter);
    program.fallthrough();
    program.require_subcommand(1);
    program.set_version_flag("--version", qel_get_version());
    program.add_flag("--json", run.json, "Print JSON, one document a line");
    program.add_option("--root", run.root, "Prefix of shared-memory names, as the parameter qel.shm.root")
        ->type_name("PREFIX");
    for (AddFamily add : kFamilies) add(program, run);
    if (argc > 1 && std::string_view{argv[1]} == "complete")
        return static_cast<int>(complete(program, {argv + 2, argv + argc}));
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? 0 : static_cast<int>(Exit::usage);
    }
    return static_cast<int>(act(run));
}

}  // namespace qel_tool

int main(int argc, char** argv) {
    try {
        return qel_tool::finish(qel_tool::run_program(argc, argv));
    } catch (const std::system_error& error) {  // of a file or pipe that takes no more
        fmt::print(stderr, "qel: {}\n", error.what());
        return static_cast<int>(qel_tool::Exit::unreadable);
    }
}
