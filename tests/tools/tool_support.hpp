// What the tests of the command-line tool share: running it as its users do, below the test's own root.
#pragma once

#include "support/support.hpp"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace qel_test {

inline constexpr int kFine = 0, kFinding = 1, kUsage = 2, kUnreadable = 3;

struct Result {
    int code;
    std::string output;
};

inline Result shell(const std::string& command) {
    Result result{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char part[512];
    while (size_t got = fread(part, 1, sizeof part, pipe)) result.output.append(part, got);
    int status = pclose(pipe);
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// The beginning of the tool's command line.
inline std::string tool() {
    return std::string{getenv("QEL_TOOL")} + " --root " + shm_root() + " ";
}

inline Result qel(const std::string& arguments) {
    return shell(tool() + arguments + " 2>&1");
}

// A value of the tool's JSON, by a Python expression over the document 'd'.
inline std::string json(const std::string& arguments, const std::string& expression) {
    std::string python =
        "python3 -c 'import json,sys; d=json.loads(sys.stdin.readline()); print(" + expression + ")'";
    return shell(tool() + arguments + " --json | " + python).output;
}

}  // namespace qel_test
