// Thread attributes: the portable record around the system's own attribute object.
//
// The record is the caller's; its heap part is the pthread_attr_t that qel_thread_create() hands to the
// system. A record without a heap part was never initialised or is destroyed already, and every call refuses
// it.
//
// Invariant: the told fields (percent, class, mode) are what the caller asked for; the system's object holds
// what follows from them. Locks: none. Threads: a record belongs to one thread at a time.
#include "dispatch/qel_thread_attr.hpp"

#include <sched.h>
#include <signal.h>

#include <cerrno>

using namespace qel;

namespace {

constexpr std::uint64_t kFallbackStackSize = 0x20000;
constexpr std::uint64_t kStackGranule = 1024;
constexpr std::uint32_t kStackPercentLimit = 500;

enum PriorityClass : std::uint32_t { unset, lowest, middle, highest, count };

bool usable(const qel_thread_attr* attr) {
    return attr != nullptr && attr->attr != nullptr;
}

std::uint64_t default_stack_size(const pthread_attr_t& native) {
    std::size_t size = 0;
    return pthread_attr_getstacksize(&native, &size) == 0 && size != 0 ? size : kFallbackStackSize;
}

// Divides first, which gives the same quotient and doesn't overflow on the default of an unlimited stack.
std::uint64_t stack_size(std::uint64_t default_size, std::uint32_t percent) {
    std::uint64_t share = default_size / 100 * percent + default_size % 100 * percent / 100;
    return (share + kStackGranule) & ~(kStackGranule - 1);
}

int priority_of(std::uint32_t priority_class, int minimum, int maximum) {
    if (priority_class == lowest) return minimum;
    if (priority_class == middle) return (minimum + maximum) / 2;
    return maximum - 2 < minimum ? maximum : maximum - 2;
}

int set_native_priority(pthread_attr_t* native, std::uint32_t priority_class) {
    int policy = sched_getscheduler(0) & ~SCHED_RESET_ON_FORK;
    int minimum = sched_get_priority_min(policy);
    int maximum = sched_get_priority_max(policy);
    // A priority counts only beside its policy, and only in a thread that doesn't inherit both. The policies
    // that an attribute can't carry know the one priority 0; their threads go on inheriting.
    if (pthread_attr_setschedpolicy(native, policy) == 0)
        static_cast<void>(
            pthread_attr_setinheritsched(native, PTHREAD_EXPLICIT_SCHED));  // takes any constant
    sched_param parameters{};
    parameters.sched_priority = priority_of(priority_class, minimum, maximum);
    return pthread_attr_setschedparam(native, &parameters);
}

// Gives out one told field of a record.
template <class Field>
int get_field(const qel_thread_attr* attr, Field qel_thread_attr::*field, Field* out) {
    if (!usable(attr) || out == nullptr) return EINVAL;
    *out = attr->*field;
    return 0;
}

// ---- The copy of a record

template <class Value>
int copy_setting(const pthread_attr_t& from, pthread_attr_t& to, int (*get)(const pthread_attr_t*, Value*),
                 int (*set)(pthread_attr_t*, Value)) {
    Value value{};
    int error = get(&from, &value);
    return error != 0 ? error : set(&to, value);
}

// The priority is checked against the policy, which therefore goes first.
int copy_scheduling(const pthread_attr_t& from, pthread_attr_t& to) {
    sched_param parameters{};
    int error = copy_setting(from, to, pthread_attr_getinheritsched, pthread_attr_setinheritsched);
    if (error == 0) error = copy_setting(from, to, pthread_attr_getschedpolicy, pthread_attr_setschedpolicy);
    if (error == 0) error = pthread_attr_getschedparam(&from, &parameters);
    if (error == 0) error = pthread_attr_setschedparam(&to, &parameters);
    return error;
}

// An object without an affinity tells that of all processors. Setting it would undo the one that threads
// inherit.
int copy_affinity(const pthread_attr_t& from, pthread_attr_t& to) {
    cpu_set_t processors;
    if (int error = pthread_attr_getaffinity_np(&from, sizeof processors, &processors); error != 0)
        return error;
    if (CPU_COUNT(&processors) == CPU_SETSIZE) return 0;
    return pthread_attr_setaffinity_np(&to, sizeof processors, &processors);
}

int copy_signal_mask(const pthread_attr_t& from, pthread_attr_t& to) {
    sigset_t mask;
    int error = pthread_attr_getsigmask_np(&from, &mask);
    if (error == PTHREAD_ATTR_NO_SIGMASK_NP) return 0;
    return error != 0 ? error : pthread_attr_setsigmask_np(&to, &mask);
}

int copy_native(const pthread_attr_t& from, pthread_attr_t& to) {
    int error = copy_scheduling(from, to);
    if (error == 0) error = copy_setting(from, to, pthread_attr_getstacksize, pthread_attr_setstacksize);
    if (error == 0) error = copy_setting(from, to, pthread_attr_getguardsize, pthread_attr_setguardsize);
    if (error == 0) error = copy_affinity(from, to);
    if (error == 0) error = copy_signal_mask(from, to);
    return error;
}

}  // namespace

namespace qel {

void free_thread_attr(qel_thread_attr* attr) {
    static_cast<void>(qel_thread_attr_destroy(attr));  // A record that was never filled has nothing to free.
    qel_named_free(attr);
}

int copy_thread_attr(const qel_thread_attr& attr, OwnedThreadAttr& out) {
    if (!usable(&attr)) return EINVAL;
    OwnedThreadAttr copy{allocate_zeroed<qel_thread_attr>(QEL_MEM_BASE).release()};
    if (!copy) return ENOMEM;
    if (int error = qel_thread_attr_init(copy.get()); error != 0) return error;
    pthread_attr_t* native = copy.get()->attr;
    *copy.get() = attr;
    copy.get()->attr = native;
    copy.get()->detach_state = QEL_THREAD_JOINABLE;
    if (int error = copy_native(*attr.attr, *native); error != 0) return error;
    out = std::move(copy);
    return 0;
}

}  // namespace qel

int qel_thread_attr_init(qel_thread_attr* attr) {
    if (attr == nullptr) return EINVAL;
    *attr = {.stack_percent = 100,
             .detach_state = QEL_THREAD_JOINABLE,
             .priority = unset,
             .default_stack_size = 0,
             .sched_mode = QEL_THREAD_PREEMPTIVE,
             .attr = nullptr};
    Owned<pthread_attr_t> native = allocate_zeroed<pthread_attr_t>(QEL_MEM_BASE);
    if (!native) return ENOMEM;
    if (int error = pthread_attr_init(native.get()); error != 0) return error;
    attr->default_stack_size = default_stack_size(*native);
    attr->attr = native.release();
    return 0;
}

int qel_thread_attr_destroy(qel_thread_attr* attr) {
    if (!usable(attr)) return EINVAL;
    Owned<pthread_attr_t> native{std::exchange(attr->attr, nullptr)};
    return pthread_attr_destroy(native.get());
}

int qel_thread_attr_setdetachstate(qel_thread_attr* attr, uint32_t state) {
    if (!usable(attr) || state > QEL_THREAD_DETACHED) return EINVAL;
    attr->detach_state = state;
    return pthread_attr_setdetachstate(attr->attr, state == QEL_THREAD_DETACHED ? PTHREAD_CREATE_DETACHED
                                                                                : PTHREAD_CREATE_JOINABLE);
}

int qel_thread_attr_getdetachstate(const qel_thread_attr* attr, uint32_t* state) {
    return get_field(attr, &qel_thread_attr::detach_state, state);
}

int qel_thread_attr_setstacksize(qel_thread_attr* attr, uint32_t percent) {
    if (!usable(attr) || percent == 0 || percent >= kStackPercentLimit) return EINVAL;
    int error = pthread_attr_setstacksize(attr->attr, stack_size(attr->default_stack_size, percent));
    if (error == 0) attr->stack_percent = percent;
    return error;
}

int qel_thread_attr_getstacksize(const qel_thread_attr* attr, size_t* size) {
    if (!usable(attr) || size == nullptr) return EINVAL;
    return pthread_attr_getstacksize(attr->attr, size);
}

int qel_thread_attr_setsched_priority(qel_thread_attr* attr, uint32_t priority) {
    if (!usable(attr)) return EINVAL;
    attr->priority = priority;
    if (priority == unset) return 0;
    return priority < count ? set_native_priority(attr->attr, priority) : EINVAL;
}

int qel_thread_attr_getsched_priority(const qel_thread_attr* attr, uint32_t* priority) {
    return get_field(attr, &qel_thread_attr::priority, priority);
}

int qel_thread_attr_setsched_mode(qel_thread_attr* attr, int32_t mode) {
    if (!usable(attr) || mode < QEL_THREAD_NON_PREEMPTIVE || mode > QEL_THREAD_PREEMPTIVE) return EINVAL;
    attr->sched_mode = mode;
    return mode == QEL_THREAD_PREEMPTIVE ? 0 : EOPNOTSUPP;
}

int qel_thread_attr_getsched_mode(const qel_thread_attr* attr, int32_t* mode) {
    return get_field(attr, &qel_thread_attr::sched_mode, mode);
}
