// What the tests add to GoogleTest: roles in child processes, a shared-memory root of each program's own,
// waits with a deadline, and counts of what a process holds.
//
// A test program is its own process. Its main() (in support.cpp) sets the parameter "qel.shm.root" to a
// prefix that no other process has, and removes whatever lies under it in /dev/shm at the end; children
// inherit the prefix.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qel_test {

using namespace std::chrono_literals;

// The prefix of this program's shared-memory names, as "/qt<pid>.".
const std::string& shm_root();
// The path in /dev/shm of the object that the library calls 'name'.
std::string shm_file(const std::string& name);
bool shm_exists(const std::string& name);
// The names of this program's objects, without the root.
std::vector<std::string> shm_objects();

// A role: a function that a child process runs after an exec of this very program, so that it starts cold.
// Its return value is the child's exit code. Define one at namespace scope with QEL_ROLE(name) { ... };
// 'args' are the strings that the parent gave.
using RoleArgs = std::vector<std::string>;
using Role = int (*)(const RoleArgs& args);
struct RoleEntry {
    RoleEntry(const char* name, Role role);
};
#define QEL_ROLE(name)                                                                                       \
    static int role_##name(const ::qel_test::RoleArgs&);                                                     \
    static const ::qel_test::RoleEntry role_entry_##name{#name, role_##name};                                \
    static int role_##name([[maybe_unused]] const ::qel_test::RoleArgs& args)

// A child process in a role. The destructor kills and reaps a child that still runs.
class Child {
  public:
    explicit Child(const std::string& role, const RoleArgs& args = {});
    Child(Child&& other);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    pid_t pid() const { return pid_; }
    // Waits for the end, 30 s at most: the exit code, or minus the signal that ended it. -1000 when time is
    // up.
    int wait(std::chrono::milliseconds limit = 30s);
    // SIGKILL, and waits until the process is gone.
    void kill();
    // Lines between parent and child over a pipe pair: the child uses say() and hear() of the namespace.
    std::string read_line(std::chrono::milliseconds limit = 30s);
    void write_line(const std::string& line);

  private:
    pid_t pid_ = -1;
    int from_child_ = -1;
    int to_child_ = -1;
};

// In a role: a line to the parent, and a line from it (empty when the parent closed).
void say(const std::string& line);
std::string hear();

// Polls 'condition' until it holds or the time is up; true if it held.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s);

// What this process holds now: open descriptors, threads, mappings whose path contains 'part'.
int open_descriptors();
int thread_count();
int mapping_count(const std::string& part);

}  // namespace qel_test
