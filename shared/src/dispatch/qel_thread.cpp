// Threads: a name, an exit hook and a creation hook around the system's threads.
//
// A started or adopted thread carries a record under a thread-local key. The creator allocates it and owns it
// until the system or the hook took the thread on; from then on it is the new thread's, and the key's
// destructor frees it when that thread ends, whichever way it ends.
//
// Invariant: once creation succeeded, the creator touches the record no more (a detached thread may be gone).
// Locks: qel_thread_lock guards the making of the key, nothing else, and is a leaf.
// Threads: any. The two hooks are plain pointers, set before threads are created.
// Unwinding: qel_thread_exit() unwinds through the application's frames, so nothing on that way is noexcept.
#include <qel/thread.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"

using namespace qel;

namespace {

struct ThreadRecord {
    qel_thread_entry entry;
    void* arg;
    std::uint32_t flags;
    std::int32_t sched_mode;
    const char* name;  // the caller's; it outlives the thread
};
static_assert(sizeof(ThreadRecord) == 32);

constexpr const char* kDefaultName = "qel_thread";
constexpr pthread_key_t kNoKey = 0xffffffff;
constexpr std::uint32_t kAdoptUnsupported = 0xffffffff;

constinit std::atomic<pthread_key_t> tls_key{kNoKey};
constinit Mutex qel_thread_lock;
constinit qel_thread_create_fn custom_create_fn = nullptr;
constinit qel_thread_exit_fn custom_exit_fn = nullptr;

// The key, made on first use; kNoKey while it can't be made.
pthread_key_t ensure_key() {
    pthread_key_t key = tls_key.load(std::memory_order_acquire);
    if (key != kNoKey) return key;
    Locked lock{qel_thread_lock};
    key = tls_key.load(std::memory_order_relaxed);
    if (key != kNoKey) return key;
    if (pthread_key_create(&key, qel_named_free) != 0) return kNoKey;
    tls_key.store(key, std::memory_order_release);
    return key;
}

// Hands 'record' to the calling thread.
bool attach_record(Owned<ThreadRecord> record) {
    pthread_key_t key = ensure_key();
    if (key == kNoKey || pthread_setspecific(key, record.get()) != 0) return false;
    static_cast<void>(record.release());  // The key's destructor frees it.
    return true;
}

ThreadRecord* current_record() {
    pthread_key_t key = tls_key.load(std::memory_order_acquire);
    return key == kNoKey ? nullptr : static_cast<ThreadRecord*>(pthread_getspecific(key));
}

int start_thread(pthread_t* out, const qel_thread_attr* attr, ThreadRecord* record) {
    if (custom_create_fn != nullptr) return custom_create_fn(out, record->name, attr, record);
    return pthread_create(out, attr == nullptr ? nullptr : attr->attr, thread_start_kludge, record);
}

timespec sum(const timeval& a, const timeval& b) {
    long microseconds = a.tv_usec + b.tv_usec;
    return {a.tv_sec + b.tv_sec + microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
}

}  // namespace

void* (*thread_start_kludge)(void* record) = qel_thread_start;

int qel_thread_create(pthread_t* out, const qel_thread_attr* attr, qel_thread_entry entry, void* arg,
                      const char* name, uint32_t flags) {
    if (out == nullptr || entry == nullptr || (attr != nullptr && attr->attr == nullptr)) return EINVAL;
    Owned<ThreadRecord> record = allocate_zeroed<ThreadRecord>(QEL_MEM_BASE);
    if (!record) return ENOMEM;
    *record = {.entry = entry,
               .arg = arg,
               .flags = flags,
               .sched_mode = attr == nullptr ? QEL_THREAD_PREEMPTIVE : attr->sched_mode,
               .name = name == nullptr ? kDefaultName : name};
    int error = start_thread(out, attr, record.get());
    if (error == 0) static_cast<void>(record.release());  // It is the new thread's.
    return error;
}

void* qel_thread_start(void* opaque) {
    auto* record = static_cast<ThreadRecord*>(opaque);
    if (record == nullptr) return nullptr;
    // A thread without its kernel name works as well.
    static_cast<void>(prctl(PR_SET_NAME, record->name));
    if (!attach_record(Owned<ThreadRecord>{record})) qel_thread_exit(nullptr);
    return record->entry(record->arg);
}

int qel_thread_adopt(const char* name, int32_t mode) {
    if (static_cast<std::uint32_t>(mode) == kAdoptUnsupported) return EOPNOTSUPP;
    if (name == nullptr) name = kDefaultName;
    if (ThreadRecord* present = current_record(); present != nullptr) {
        present->name = name;
        present->sched_mode = mode;
        return 0;
    }
    Owned<ThreadRecord> record = allocate_zeroed<ThreadRecord>(QEL_MEM_BASE);
    if (!record) return ENOMEM;
    record->name = name;
    record->sched_mode = mode;
    return attach_record(std::move(record)) ? 0 : EFAULT;
}

int qel_thread_detach(pthread_t thread) {
    return pthread_detach(thread);
}

void qel_thread_exit(void* value) {
    if (custom_exit_fn != nullptr) custom_exit_fn(value);
    pthread_exit(value);
}

const char* qel_thread_get_name(void) {
    const ThreadRecord* record = current_record();
    return record == nullptr ? "" : record->name;
}

uint32_t qel_thread_get_pid(void) {
    return static_cast<uint32_t>(getpid());
}

int qel_thread_get_cputime(uint32_t who, struct timespec* out) {
    if (out == nullptr) return EINVAL;
    int target = static_cast<int>(who);
    if (target != RUSAGE_SELF && target != RUSAGE_CHILDREN) return EOPNOTSUPP;
    rusage usage{};
    if (getrusage(target, &usage) != 0) return errno;
    timespec spent = sum(usage.ru_utime, usage.ru_stime);
    if (spent.tv_sec < 0 && spent.tv_nsec < 0) return EAGAIN;
    *out = spent;
    return 0;
}

void qel_thread_set_create_fn(qel_thread_create_fn function) {
    custom_create_fn = function;
}

void qel_thread_set_exit_fn(qel_thread_exit_fn function) {
    custom_exit_fn = function;
}

int qel_thread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (condition == nullptr || mutex == nullptr) return EINVAL;
    return pthread_cond_wait(condition, mutex);
}

int qel_thread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                              const struct timespec* deadline) {
    if (condition == nullptr || mutex == nullptr || deadline == nullptr) return EINVAL;
    return pthread_cond_timedwait(condition, mutex, deadline);
}

// The system preempts threads, so there is nobody to tell that one is about to wait.
void qel_thread_before_deschedule(void) {}

void qel_thread_after_reschedule(void) {}

void qel_thread_yield(void) {}

int qel_thread_check_and_suspend(void) {
    return 0;
}

int qel_thread_may_yield(void) {
    return 1;
}

int qel_thread_is_non_preemptive(void) {
    return 0;
}
