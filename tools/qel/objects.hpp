// The objects in shared memory.
#pragma once

#include <string>
#include <vector>

namespace qel_tool {

// The names of all objects below the prefix that end in 'suffix', in order and without either. Throws
// Unreadable if shared memory can't be listed.
std::vector<std::string> find_objects(const std::string& root, const std::string& suffix = "");

}  // namespace qel_tool
