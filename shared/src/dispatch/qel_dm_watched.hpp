// What the two kinds of watched objects share: the rule that one dispatcher watches an object at a time.
#pragma once

#include <qel/dm.h>

#include <cerrno>

#include "dispatch/qel_dm_report.hpp"

namespace qel::dm {

// The result of registering 'dm' with an object that 'watcher' watches already.
template <FixedText SameLabel, FixedText SameText, FixedText OtherLabel, FixedText OtherText>
int already_watched(qel_dm_handle watcher, qel_dm_handle dm) {
    if (watcher == dm) return failed<SameLabel, SameText>(EBUSY);
    return failed<OtherLabel, OtherText>(EINVAL);
}

}  // namespace qel::dm
