// The dispatcher's reports and results: what the family's files say at a failure site.
#pragma once

#include <cerrno>

#include "trace/qel_report.hpp"

namespace qel::dm {

// A mutex that can't be locked or unlocked is reported, and the call goes on.
struct ReportedLockFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
};

template <FixedText Label>
int bad_argument(const char* argument) {
    return failed<Label, "%s invalid argument \"%s\"">(EINVAL, argument);
}

template <FixedText Label>
int no_memory() {
    return failed<Label, "%s no memory">(ENOMEM);
}

}  // namespace qel::dm
