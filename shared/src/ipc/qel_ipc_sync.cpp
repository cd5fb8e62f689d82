// Synchronous sends: a request whose sender sleeps until the reply has come.
//
// A waiting call stands in the context's set by its message's handle. The reply comes through the own ring
// like any other message; whichever thread receives it finds the waiter and wakes it instead of returning.
// So another thread must go on receiving while synchronous sends are in progress.
//
//   waiting --receive finds the reply--> answered (0)     the reply is the caller's
//   waiting --destination down, close--> released (EPIPE); a reply that comes before the call has left counts
//   waiting --destination came back----> released (EPIPE) if it had received the request in its former life
//   waiting --time-out, wait failed--->  still waiting    looked at once more under the context's lock: a
//                                                         reply may have been claimed meanwhile, and counts
//
// Invariant: a record is in the set exactly while its call can be answered; its result changes once, under
// the context's lock and the record's mutex. A reply that finds no record is disposed of by who received it.
// Locks: the record's mutex is taken inside the context's lock, and held by the waiter between waits only.
// Restart: the set is the process's own; replies to a former life find no waiter.
#include <qel/thread.h>

#include <cstddef>
#include <ctime>

#include "ipc/qel_ipc_msg.hpp"
#include "time/qel_time.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kWaiting = 65535;

struct SyncWaiter {
    qel_hash_link link;
    qel_ipc_msg msgh;
    std::uint32_t sync_status;
    Mutex sync_mutex;
    pthread_cond_t sync_cond;
    std::uint32_t sync_dest;
};
static_assert(offsetof(SyncWaiter, link) == 0);

std::uint32_t hash_of(const void* waiter, void*) {
    return qel_hash_calculate(&static_cast<const SyncWaiter*>(waiter)->msgh, sizeof(qel_ipc_msg));
}

bool match(const void* probe, const void* waiter, void*) {
    return static_cast<const SyncWaiter*>(probe)->msgh == static_cast<const SyncWaiter*>(waiter)->msgh;
}

void wake(SyncWaiter& waiter, cerrno result) {
    Locked lock{waiter.sync_mutex};
    waiter.sync_status = result;
    static_cast<void>(pthread_cond_signal(&waiter.sync_cond));  // Fails for no condition variable only.
}

// Of those who wait for an answer of 'ep', or of anybody; one that has its answer keeps it.
int release(qel_hashset*, void* element, void* ep) {
    SyncWaiter& waiter = *static_cast<SyncWaiter*>(element);
    bool concerned = ep == nullptr || waiter.sync_dest == *static_cast<std::uint32_t*>(ep);
    if (concerned && waiter.sync_status == kWaiting) wake(waiter, fatal(EPIPE));
    return 0;
}

// Of those who wait, the ones whose message is no more in 'pool'.
int release_if_reclaimed(qel_hashset*, void* element, void* pool) {
    SyncWaiter& waiter = *static_cast<SyncWaiter*>(element);
    qel_ring_msg* message = nullptr;
    bool gone =
        qel_ring_msg_handle_to_addr(static_cast<qel_ring*>(pool), ring_half(waiter.msgh), &message) != 0;
    if (gone && waiter.sync_status == kWaiting) wake(waiter, fatal(EPIPE));
    return 0;
}

// A call's record, and its place in the set. It leaves the set also when the waiting thread is ended.
class Waiting {
  public:
    explicit Waiting(qel_ipc_handle ipc) : ipc_(ipc) {}
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting() noexcept(false);

    bool enter(IpcContext& ipc, qel_ipc_msg msg, std::uint32_t destination);
    void leave(IpcContext& ipc);
    // 0 with a result there, or why waiting failed.
    int wait(std::uint32_t timeout_ms);
    std::uint32_t result() const { return record_->sync_status; }

  private:
    qel_ipc_handle ipc_;
    bool entered_ = false;
    Owned<SyncWaiter> record_;
};

bool Waiting::enter(IpcContext& ipc, qel_ipc_msg msg, std::uint32_t destination) {
    record_ = allocate_zeroed<SyncWaiter>(QEL_MEM_IPC);
    if (!record_) return false;
    record_->msgh = msg;
    record_->sync_dest = destination;
    record_->sync_status = kWaiting;
    static_cast<void>(record_->sync_mutex.init());  // Without attributes neither can fail.
    static_cast<void>(pthread_cond_init(&record_->sync_cond, nullptr));
    qel_hashset_insert(ipc.sync_hash, record_.get());
    entered_ = true;
    return true;
}

// In a channel that was closed meanwhile there is no set to leave.
void Waiting::leave(IpcContext& ipc) {
    if (entered_ && ipc.sync_hash != nullptr) qel_hashset_remove(ipc.sync_hash, record_.get());
    entered_ = false;
}

Waiting::~Waiting() noexcept(false) {
    if (!record_) return;
    if (entered_) {
        LockedIpc ipc{ipc_};
        if (ipc) leave(*ipc);
    }
    static_cast<void>(pthread_cond_destroy(&record_->sync_cond));
    static_cast<void>(record_->sync_mutex.destroy());
}

int wait_once(SyncWaiter& waiter, std::uint32_t timeout_ms) {
    if (timeout_ms == 0) return qel_thread_cond_wait(&waiter.sync_cond, waiter.sync_mutex.native());
    timespec deadline = condition_deadline(timeout_ms);
    return qel_thread_cond_timedwait(&waiter.sync_cond, waiter.sync_mutex.native(), &deadline);
}

int Waiting::wait(std::uint32_t timeout_ms) {
    Locked lock{record_->sync_mutex};
    qel_thread_before_deschedule();
    int error = 0;
    while (error == 0 && record_->sync_status == kWaiting) error = wait_once(*record_, timeout_ms);
    qel_thread_after_reschedule();
    return error;
}

cerrno check_arguments(qel_ipc_handle ipc, const qel_ipc_send_attr* attr, qel_ipc_msg msg,
                       const qel_ipc_msg* reply, const char* function) {
    if (reply == nullptr) return ipc_error(function, "Received NULL reply_msg for sync_send", fatal(EINVAL));
    if (attr != nullptr && attr->priority != 0)
        return ipc_error(function, "Message priority not supported", fatal(EINVAL));
    return require_same_channel(ipc, msg, function);
}

cerrno require_synchronous(const IpcContext& ipc, const qel_ipc_send_attr* attr, const char* function) {
    if (!is_client(ipc) && (attr == nullptr || attr->dest_ep == 0))
        return ipc_error(ipc, function, "send_attr or dest_ep is NULL for a server", fatal(EINVAL));
    if (ipc.sync_hash == nullptr)
        return ipc_error(ipc, function, "sync messaging not supported", fatal(EINVAL));
    return 0;
}

// Sends with 'waiting' in the set; after a failure it has left it again, under the same hold of the lock, so
// that it can't be found by a reply to somebody else's send of that message.
cerrno send_waiting(Waiting& waiting, qel_ipc_handle ipc_handle, const qel_ipc_send_attr* attr,
                    qel_ipc_msg msg, const char* function) {
    LockedIpc ipc{ipc_handle};
    if (!ipc) return ipc_error(function, "invalid ipc handle", fatal(EINVAL));
    if (cerrno refused = require_synchronous(*ipc, attr, function); refused != 0) return refused;
    std::uint32_t destination = is_client(*ipc) ? 0 : attr->dest_ep & 0xffff;
    if (!waiting.enter(*ipc, msg, destination))
        return ipc_error(*ipc, function, "allocation of sync_cb failed", fatal(ENOMEM));
    cerrno failed = qel_ipc_async_transport(&*ipc, QEL_RING_MSG_SYNC_REQUEST, attr, msg);
    if (failed == 0) return 0;
    waiting.leave(*ipc);
    return ipc_error(*ipc, function, "qel_ipc_async_transport failed", failed);
}

// The wait is over, for 'error' or by a result that came, perhaps after the error.
cerrno end_wait(Waiting& waiting, qel_ipc_handle ipc_handle, int error, const char* function) {
    LockedIpc ipc{ipc_handle};
    if (ipc) waiting.leave(*ipc);
    if (waiting.result() != kWaiting) return waiting.result();
    cerrno code = error == EAGAIN ? try_again(error) : fatal(error);
    return ipc_error(function, "pthread_cond_wait failed", code);
}

}  // namespace

cerrno make_sync_hash(IpcContext& ipc) {
    int error =
        qel_hashset_create(&ipc.sync_hash, nullptr, offsetof(SyncWaiter, link), hash_of, match, nullptr);
    return error == 0 ? 0 : fatal(error);
}

timespec condition_deadline(std::uint32_t timeout_ms) {
    timespec now;
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    return add(now, from_milliseconds(timeout_ms));
}

void free_sync_hash(IpcContext& ipc) {
    qel_hashset_iterate(ipc.sync_hash, release, nullptr);
    qel_hashset_free(&ipc.sync_hash);
}

void release_reclaimed_senders(IpcContext& ipc) {
    qel_ring* pool = ipc.eps[0].ring;
    if (pool != nullptr) qel_hashset_iterate(ipc.sync_hash, release_if_reclaimed, pool);
}

bool claim_answer(IpcContext& ipc, qel_ring_msg& message) {
    SyncWaiter probe{};
    probe.msgh = msg_handle(ipc, message);
    auto* waiter = static_cast<SyncWaiter*>(qel_hashset_get(ipc.sync_hash, &probe));
    if (waiter == nullptr) return false;
    message.type = QEL_RING_MSG_REPLY;
    ++ipc.outstanding;
    wake(*waiter, 0);
    return true;
}

}  // namespace qel

using namespace qel;

void qel_ipc_sync_hash_unblock_free(qel_ipc_ctx* ctx, uint32_t ep) {
    if (ctx != nullptr) qel_hashset_iterate(ctx->sync_hash, release, &ep);
}

cerrno qel_ipc_sync_send(qel_ipc_handle ipc, const qel_ipc_send_attr* attr, qel_ipc_msg msg,
                         qel_ipc_msg* reply, uint32_t* status) {
    if (cerrno refused = check_arguments(ipc, attr, msg, reply, __func__); refused != 0) return refused;
    std::uint32_t timeout_ms = attr == nullptr ? 0 : attr->timeout_ms;
    Waiting waiting{ipc};
    if (cerrno failed = send_waiting(waiting, ipc, attr, msg, __func__); failed != 0) return failed;
    int error = waiting.wait(timeout_ms);
    cerrno result = end_wait(waiting, ipc, error, __func__);
    if (result == fatal(ETIMEDOUT)) *reply = 0;
    if (result == 0 && status != nullptr) result = qel_ipc_msg_get_status(msg, status);
    if (result == 0) *reply = msg;
    return result;
}
