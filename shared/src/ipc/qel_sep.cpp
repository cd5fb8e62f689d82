// The signal record: setting bits and waking the owner.
//
//                 sender                                            owner's handler
//   sep_flags 0 ---------> bits, and the bell under sep_mutex       takes all with one exchange
//   bits        ---------> more bits, no bell                       the same
//   awake       ---------> awake + bits by compare-and-swap         takes all; awake goes with them
//
// The bell is rung on the first of these only: whoever set the first bit has woken the owner's thread, and an
// owner that marked itself awake takes its mark back by compare-and-swap and so sees what was added. So no
// bit is ever in sep_flags for which nobody is on the way; tests/ipc/model/ searches all interleavings.
//
// A sender makes its message visible before it reads the bits, and the owner clears them before it reads the
// messages, both with a full fence: a bit that is found set will be taken after the message came.
//
// Locks: sep_mutex, a leaf but for reports of the owner's thread. Threads: any, of any process.
// Restart: the record stays as it was; qel_sep_init() clears it. A death inside sep_mutex leaves the owner
// deaf, and delays each peer by two seconds once.
#include "ipc/qel_sep.hpp"

#include <cerrno>

#include "ipc/qel_sep_lnx.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kPatienceMs = 1000;
constexpr int kLooksAtTheDead = 2;
constexpr std::uint32_t kStrandedMs = 20;

bool is_running(qel_sep_record& record) {
    return state_of(record).load(std::memory_order_acquire) == QEL_SEP_STATE_RUNNING;
}

bool are_set(qel_sep_record& record, std::uint32_t bits) {
    std::atomic_thread_fence(std::memory_order_seq_cst);  // F1: the message before the look, see F2
    return (flags_of(record).load(std::memory_order_relaxed) & bits) == bits;
}

// Adds the bits for an owner that looks again by itself; false if it doesn't.
bool tell_awake_owner(qel_sep_record& record, std::uint32_t bits) {
    std::uint32_t seen = flags_of(record).load(std::memory_order_relaxed);
    while ((seen & kOwnerAwake) != 0)
        if (flags_of(record).compare_exchange_weak(seen, seen | bits)) return true;
    return false;
}

int ring_locked(qel_sep_record& record, std::uint32_t bits) {
    if (!is_running(record) || flags_of(record).fetch_or(bits) != 0) return 0;
    return ring_bell_locked(record);
}

// A mutex that the dead hold is waited for in vain, and its owner hears no bell either: the sender, with its
// channel locked, must not wait with it. The bits spare the next sender the same wait.
int tell_sleeper(qel_sep_record& record, std::uint32_t bits) {
    SharedMutex& mutex = mutex_of(record);
    for (int dead = 0; dead < kLooksAtTheDead;) {
        BriefSharedLocked lock{mutex, kPatienceMs};
        if (lock.error() == 0) return ring_locked(record, bits);
        if (lock.error() != ETIMEDOUT) return lock.error();
        LongWait wait = mutex.describe(kPatienceMs / 1000);
        IpcLockFailures::waited_long(wait);
        dead = wait.holder_lives != 0 ? 0 : dead + 1;
    }
    flags_of(record).fetch_or(bits);
    return 0;
}

int init_locks(qel_sep_record& record) {
    constexpr const char* kCall = "qel_sep_shm_init_once";
    if (int error = qel_init_shared_mutex(&record.sep_mutex); error != 0)
        return errno_of(ipc_error(kCall, "qel_init_shared_mutex fail", fatal(error)));
    if (int error = qel_init_shared_condvar(&record.sep_cond); error != 0)
        return errno_of(ipc_error(kCall, "qel_init_shared_condvar fail", fatal(error)));
    return 0;
}

}  // namespace

std::uint32_t take_signals(qel_sep_record& record) {
    std::uint32_t bits = flags_of(record).exchange(0) & ~kOwnerAwake;
    std::atomic_thread_fence(std::memory_order_seq_cst);  // F2: the bits before the messages, see F1
    return bits;
}

int ring_bell_locked(qel_sep_record& record) {
    if (!sep_platform::can_signal(record.sep_cond)) return EINVAL;
    return pthread_cond_signal(&record.sep_cond);
}

// One that is held has a holder to wake the waiters, who know of this one by then.
void sep_wake_stranded(qel_sep_record& record) QEL_NO_THREAD_SAFETY_ANALYSIS {
    BriefSharedLocked lock{mutex_of(record), kStrandedMs};
    if (lock.error() == 0) mutex_of(record).expect_waiter();
}

}  // namespace qel

using namespace qel;

cerrno qel_sep_shm_init_once(qel_sep_record* record) {
    if (record == nullptr) return fatal(EINVAL);
    state_of(*record).store(QEL_SEP_STATE_NONE);
    flags_of(*record).store(0);
    int error = init_locks(*record);
    return error == 0 ? 0 : fatal(error);
}

int qel_sep_open(qel_sep* local, qel_sep_record** place, qel_sep_record* record) {
    if (local == nullptr || place == nullptr || record == nullptr) return EINVAL;
    std::uint32_t state = state_of(*record).load(std::memory_order_acquire);
    if (state != QEL_SEP_STATE_RUNNING) {
        static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
        ipc_log(tp, "pid: %d [SIG%d] %s 0x%x", own_pid(), local->sep_ep, "SEP shm state=", state);
        return EAGAIN;
    }
    *place = record;
    return 0;
}

void qel_sep_close(qel_sep*, qel_sep_record** place) {
    if (place != nullptr) *place = nullptr;
}

int qel_sep_signal(qel_sep_record** place, std::uint32_t bits) {
    qel_sep_record* record = place == nullptr ? nullptr : *place;
    bits &= ~kOwnerAwake;
    if (record == nullptr || are_set(*record, bits) || !is_running(*record)) return 0;
    if (tell_awake_owner(*record, bits)) return 0;
    int error = tell_sleeper(*record, bits);
    if (error == 0) return 0;
    ipc_error(__func__, "qel_thread_cond_signal failed", fatal(error));
    ipc_error(__func__, "Signaling to remote sep failed", fatal(error));
    return error;
}

std::uint32_t qel_sep_get_signals(qel_sep_record* record) {
    if (record == nullptr) return 0;
    SharedLocked lock{mutex_of(*record)};  // One that can't be had is reported; the bits are safe without it.
    return take_signals(*record);
}
