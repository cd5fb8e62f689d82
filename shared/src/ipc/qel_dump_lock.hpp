// How every dump takes a lock: waited for two seconds, and done without then, as its holder may be dead.
#pragma once

#include <qel/base.h>

#include <optional>

#include "shm/qel_shared_lock.hpp"

namespace qel {

// A lock that could not be had, and who has it.
struct MissedLock {
    const char* name;
    LongWait wait;

    void tell() const {
        static_cast<void>(qel_cli_printf("*** %s not got within %u s, held by thread %u (%s)\n", name,
                                         wait.seconds, wait.holder,
                                         wait.holder_lives != 0 ? "alive" : "gone"));
    }
};

class DumpLocked {
  public:
    DumpLocked(SharedMutex& mutex, const char* name) : lock_(mutex, kWaitMs) {
        if (lock_.error() != 0) missed_ = MissedLock{name, mutex.describe(kWaitMs / 1000)};
    }
    // Nothing while the lock is held. Telling may take long, so a dump that copies tells after it.
    const std::optional<MissedLock>& missed() const { return missed_; }

  private:
    static constexpr std::uint32_t kWaitMs = 2000;

    BriefSharedLocked lock_;
    std::optional<MissedLock> missed_;
};

inline void tell_if_missed(const std::optional<MissedLock>& missed) {
    if (missed) missed->tell();
}

}  // namespace qel
