// Locks in shared memory: initialising them, and the wait for a held one.
//
// A process-shared mutex is 40 bytes of the C library's own layout, so all processes on a segment use one C
// library. Its waiters spin for a moment, as the sections are short, then sleep in slices and look again
// after each, since a wake-up may have died with the waiter that got it.
//
// Threads: any, of any process. Restart: a mutex left held by the dead stays held; the wait is reported once.
#include "shm/qel_shared_lock.hpp"

#include <qel/time.h>

#include <algorithm>
#include <cerrno>

#include "core/qel_owned.hpp"
#include "core/qel_prefetch.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kFirstSliceMs = 50;
constexpr std::uint32_t kLongestSliceMs = 1000;
constexpr std::uint64_t kLongWaitMs = 2000;
// About a microsecond: twenty sections of the usual length, and a fraction of what a sleep costs.
constexpr int kSpinRounds = 40;

LongWait describe_wait(const shm_platform::PlacedMutex& mutex, std::uint32_t waited_seconds) {
    std::uint32_t holder = shm_platform::holder_of(mutex);
    bool lives = holder != 0 && shm_platform::thread_exists(holder);
    return {waited_seconds, holder, lives};
}

// A holder that runs on another processor is about to leave. The word is only read while it is held, so that
// its line stays with the holder.
int spin_for(shm_platform::PlacedMutex& mutex) {
    for (int round = 0; round < kSpinRounds; ++round) {
        shm_platform::pause_spinning();
        if (shm_platform::is_free(mutex) && pthread_mutex_trylock(shm_platform::native(mutex)) == 0) return 0;
    }
    return EBUSY;
}

int lock_in_slices(shm_platform::PlacedMutex& mutex, LongWaitHandler waited_long) {
    bool reported = false;
    std::uint64_t start = qel_time_get_boot_time();
    for (std::uint32_t slice = kFirstSliceMs;; slice = std::min(slice * 2, kLongestSliceMs)) {
        int error = shm_platform::lock_for(mutex, slice);
        if (error != ETIMEDOUT) return error;
        std::uint64_t waited = qel_time_get_boot_time() - start;
        if (reported || waited < kLongWaitMs) continue;
        reported = true;
        waited_long(describe_wait(mutex, static_cast<std::uint32_t>(waited / 1000)));
    }
}

// The attribute record and the object, whose types differ and whose steps are the same.
template <class Attributes, class Object>
int init_shared(Object* object, int (*make)(Attributes*), int (*share)(Attributes*, int),
                int (*init)(Object*, const Attributes*), int (*destroy)(Attributes*)) {
    if (object == nullptr) return EINVAL;
    Attributes attributes;
    if (int error = make(&attributes); error != 0) return error;
    Undo end{[&] { static_cast<void>(destroy(&attributes)); }};  // Fails for no attributes at all only.
    if (int error = share(&attributes, PTHREAD_PROCESS_SHARED); error != 0) return error;
    return init(object, &attributes);
}

}  // namespace

int SharedMutex::lock(LongWaitHandler waited_long) {
    want_to_write(&native_);
    if (!shm_platform::is_plain(native_)) return EINVAL;
    int error = pthread_mutex_trylock(native());
    if (error == EBUSY && shm_platform::has_processors()) error = spin_for(native_);
    return error == EBUSY ? lock_in_slices(native_, waited_long) : error;
}

int SharedMutex::lock_for(std::uint32_t milliseconds) {
    if (!shm_platform::is_plain(native_)) return EINVAL;
    for (std::uint32_t left = milliseconds;;) {
        std::uint32_t slice = std::min(left, kFirstSliceMs);
        int error = shm_platform::lock_for(native_, slice);
        left -= slice;
        if (error != ETIMEDOUT || left == 0) return error;
    }
}

LongWait SharedMutex::describe(std::uint32_t waited_seconds) const {
    return describe_wait(native_, waited_seconds);
}

}  // namespace qel

using namespace qel;

int qel_init_shared_mutex(pthread_mutex_t* mutex) {
    return init_shared(mutex, pthread_mutexattr_init, pthread_mutexattr_setpshared, pthread_mutex_init,
                       pthread_mutexattr_destroy);
}

int qel_init_shared_condvar(pthread_cond_t* condvar) {
    return init_shared(condvar, pthread_condattr_init, pthread_condattr_setpshared, pthread_cond_init,
                       pthread_condattr_destroy);
}

int qel_revive_and_monitor_mutex(pthread_mutex_t*) {
    return 0;
}
