// The objects in shared memory, found as files: so those show that no list names any more.
#include "objects.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "command.hpp"

namespace qel_tool {
namespace {

constexpr char kSharedMemory[] = "/dev/shm";

}  // namespace

std::vector<std::string> find_objects(const std::string& root, const std::string& suffix) {
    std::string prefix = root.starts_with('/') ? root.substr(1) : root;
    std::vector<std::string> found;
    std::error_code error;
    std::filesystem::directory_iterator at{kSharedMemory, error};
    if (error) throw Unreadable{fmt::format("{}: {}", kSharedMemory, error.message())};
    for (; at != std::filesystem::directory_iterator{}; at.increment(error)) {
        if (error) break;  // The folder changes all the time; what was seen is listed.
        std::string object = at->path().filename();
        if (object.size() <= prefix.size() + suffix.size()) continue;
        if (!object.starts_with(prefix) || !object.ends_with(suffix)) continue;
        found.push_back(object.substr(prefix.size(), object.size() - prefix.size() - suffix.size()));
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace qel_tool
