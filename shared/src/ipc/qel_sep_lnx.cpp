// A condition variable of the GNU C library, looked into before it is signalled.
//
// It has two groups of sleepers. A signal goes to the older one while that has sleepers left; then the groups
// change places if the younger has any, and the call first waits until all who were woken in the older group
// have left it. Sleepers leave before they take their mutex again, so a single sleeper that sleeps anew has
// left: a reference that is still counted when the groups would change belongs to a dead one, or was written
// over.
//
// Locks: the caller's. Threads: any. Restart: nothing stays.
#include "ipc/qel_sep_lnx.hpp"

#include <cstdint>

#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel::sep_platform {
namespace {

constexpr unsigned kWaiterUnit = 8;  // in __wrefs; below are shared, clock and destruction
constexpr unsigned kShared = 1;
constexpr unsigned kInternalLock = 3;  // in __g1_orig_size
constexpr int kLooks = 1000;

template <class Word>
Word look_at(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

// A sleeper that gives up holds the lock for a few instructions.
bool internal_lock_is_free(const unsigned& word) {
    for (int look = 0; look < kLooks; ++look) {
        if ((look_at(word) & kInternalLock) == 0) return true;
        shm_platform::pause_spinning();
    }
    return false;
}

struct Groups {
    unsigned older_left;        // sleepers that are still to be signalled
    unsigned older_references;  // sleepers that have not left
    unsigned younger;           // sleepers
};

Groups look_at_groups(const __pthread_cond_s& data) {
    std::uint64_t sequence = look_at(data.__wseq.__value64);
    unsigned older = (sequence & 1) ^ 1;
    std::uint64_t counted = (look_at(data.__g1_start.__value64) >> 1) + (look_at(data.__g1_orig_size) >> 2);
    return {look_at(data.__g_size[older]), look_at(data.__g_refs[older]) >> 1,
            static_cast<unsigned>((sequence >> 1) - counted) + look_at(data.__g_size[older ^ 1])};
}

}  // namespace

bool can_signal(pthread_cond_t& condition) {
#if defined(__GLIBC__)  // the layout is as of 2.25, and a reference count that is no longer kept is 0
    auto& data = condition.__data;
    unsigned references = look_at(data.__wrefs);
    if (references % kWaiterUnit != kShared) return false;
    if (references / kWaiterUnit == 0) return true;
    if (!internal_lock_is_free(data.__g1_orig_size)) return false;
    Groups groups = look_at_groups(data);
    return groups.older_left != 0 || groups.younger == 0 || groups.older_references == 0;
#else
    static_cast<void>(condition);
    return true;
#endif
}

bool has_sleeper(pthread_cond_t& condition) {
#if defined(__GLIBC__)
    return look_at(condition.__data.__wrefs) / kWaiterUnit != 0;
#else
    static_cast<void>(condition);
    return true;
#endif
}

}  // namespace qel::sep_platform
