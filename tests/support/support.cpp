// The harness's own half: see support.hpp.
#include "support/support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <qel/ppm.h>
#include <qel/shm.h>

namespace qel_test {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* kRootVariable = "QEL_TEST_ROOT";
constexpr int kChildIn = 3;
constexpr int kChildOut = 4;

std::map<std::string, Role>& roles() {
    static std::map<std::string, Role> table;
    return table;
}

std::string read_line_from(int fd, std::chrono::milliseconds limit) {
    std::string line;
    auto deadline = Clock::now() + limit;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd ready{fd, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0) return line;
        char c = 0;
        if (read(fd, &c, 1) != 1 || c == '\n') return line;
        line += c;
    }
}

void write_line_to(int fd, const std::string& line) {
    std::string text = line + "\n";
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        ADD_FAILURE() << "pipe is closed";
}

void remove_shm_objects() {
    for (const std::string& name : shm_objects()) fs::remove(shm_file(name));
}

// What test programs left that were killed on their way.
void remove_shm_objects_of_the_dead() {
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        int pid = 0;
        const std::string name = entry.path().filename();
        if (std::sscanf(name.c_str(), "qt%d.", &pid) != 1 || kill(pid, 0) == 0 || errno != ESRCH) continue;
        std::error_code gone_already;
        fs::remove(entry.path(), gone_already);
    }
}

}  // namespace

RoleEntry::RoleEntry(const char* name, Role role) {
    roles()[name] = role;
}

const std::string& shm_root() {
    static const std::string root = [] {
        const char* inherited = std::getenv(kRootVariable);
        return inherited != nullptr ? std::string{inherited} : "/qt" + std::to_string(getpid()) + ".";
    }();
    return root;
}

std::string shm_file(const std::string& name) {
    return "/dev/shm" + shm_root() + name;
}

bool shm_exists(const std::string& name) {
    return fs::exists(shm_file(name));
}

std::vector<std::string> shm_objects() {
    std::vector<std::string> names;
    const std::string prefix = shm_root().substr(1);
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        std::string name = entry.path().filename();
        if (name.starts_with(prefix)) names.push_back(name.substr(prefix.size()));
    }
    return names;
}

Child::Child(const std::string& role, const RoleArgs& args) {
    int down[2];
    int up[2];
    if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) std::abort();
    std::vector<std::string> words{"/proc/self/exe", "--role", role};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    setenv(kRootVariable, shm_root().c_str(), 1);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The pipes' numbers may be 3 and 4 themselves, so they move out of the way first.
        int in = fcntl(down[0], F_DUPFD, 10);
        int out = fcntl(up[1], F_DUPFD, 10);
        dup2(in, kChildIn);
        dup2(out, kChildOut);
        ::close(in);
        ::close(out);
        execv("/proc/self/exe", argv.data());
        _exit(127);
    }
    ::close(down[0]);
    ::close(up[1]);
    to_child_ = down[1];
    from_child_ = up[0];
}

Child::Child(Child&& other)
    : pid_(std::exchange(other.pid_, -1)), from_child_(std::exchange(other.from_child_, -1)),
      to_child_(std::exchange(other.to_child_, -1)) {}

Child::~Child() {
    if (pid_ > 0) kill();
    if (from_child_ >= 0) ::close(from_child_);
    if (to_child_ >= 0) ::close(to_child_);
}

int Child::wait(std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    while (pid_ > 0) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        if (Clock::now() >= deadline) return -1000;
        std::this_thread::sleep_for(1ms);
    }
    return -1001;
}

void Child::kill() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string Child::read_line(std::chrono::milliseconds limit) {
    return read_line_from(from_child_, limit);
}

void Child::write_line(const std::string& line) {
    write_line_to(to_child_, line);
}

void say(const std::string& line) {
    write_line_to(kChildOut, line);
}

std::string hear() {
    return read_line_from(kChildIn, 60s);
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

int open_descriptors() {
    int count = -1;  // The directory's own descriptor is one of those that it lists.
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

int thread_count() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) ++count;
    return count;
}

int mapping_count(const std::string& part) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        if (line.find(part) != std::string::npos) ++count;
    return count;
}

}  // namespace qel_test

int main(int argc, char** argv) {
    using namespace qel_test;
    qel_ppm_set_string("qel.shm.root", shm_root().c_str());
    if (argc >= 3 && std::strcmp(argv[1], "--role") == 0) {
        auto found = roles().find(argv[2]);
        if (found == roles().end()) return 126;
        return found->second(RoleArgs(argv + 3, argv + argc));
    }
    remove_shm_objects_of_the_dead();
    testing::InitGoogleMock(&argc, argv);
    int result = RUN_ALL_TESTS();
    remove_shm_objects();
    return result;
}
