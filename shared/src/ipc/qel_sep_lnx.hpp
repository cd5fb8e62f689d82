// What signal end points need of the platform: looks into the C library's condition variable.
#pragma once

#include <pthread.h>

namespace qel::sep_platform {

// Whether pthread_cond_signal() on a process-shared condition variable will return. It waits without end for
// sleepers that died or never were, and for an internal lock that nobody holds. To be asked under the mutex
// that goes with it, and right for one with a single sleeper.
bool can_signal(pthread_cond_t& condition);
// Whether it counts a sleeper.
bool has_sleeper(pthread_cond_t& condition);

}  // namespace qel::sep_platform
