// Making each allocation fail in turn; for the programs that link the library with its allocation hook.
#pragma once

#include <functional>

#include "core/qel_mem_mgmt.hpp"

namespace qel_test {

inline thread_local int allocations_left = -1;
inline thread_local bool allocation_failed = false;

inline bool allow_allocation() {
    if (allocations_left < 0) return true;
    if (allocations_left-- > 0) return true;
    allocations_left = -1;
    allocation_failed = true;
    return false;
}

// Runs 'attempt' again and again, making its first, second, third ... allocation on this thread fail, until a
// run passes without a failure. 'attempt' must leave nothing behind, whether it fails or works; it is told
// which it was only by the library's results. Gives the number of allocations that were made to fail.
inline int fail_each_allocation(const std::function<void()>& attempt) {
    qel::allocation_hook.store(allow_allocation);
    int failures = 0;
    for (;; ++failures) {
        allocations_left = failures;
        allocation_failed = false;
        attempt();
        if (!allocation_failed) break;
    }
    allocations_left = -1;
    qel::allocation_hook.store(nullptr);
    return failures;
}

}  // namespace qel_test
