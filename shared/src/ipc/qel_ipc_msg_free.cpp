// The end of messages, and their arrival: disposal and receiving.
//
// Disposal frees a message's data, then under one hold of fc_lock puts the message into the pool and gives
// its credit back to whom it was charged. A server that disposes of the last message of a client that has
// closed frees that client's record, and with it the client's share of the pool.
//
// A reply to a synchronous send goes to its waiter and not to the caller of qel_ipc_receive(); one that
// nobody waits for any more is disposed of there.
//
// Locks: the context's lock is held throughout; fc_lock and the rings' leaves for three short steps.
// Restart: what a dead process held is disposed of in the same way when it comes back.
#include "ipc/qel_ipc_msg.hpp"

namespace qel {
namespace {

struct Disposal {
    cerrno result;
    bool done;  // The message is gone; otherwise nothing has changed.
};

// A message in flight or at another end point: a sender that gave up waiting may let go of its request.
Disposal refuse_foreign(const IpcContext& ipc, const qel_ring_msg& message, const char* function) {
    if (read_shared(message.type) == QEL_RING_MSG_SYNC_REQUEST) return {0, false};
    return {ipc_error(ipc, function, "message not held", fatal(EPERM)), false};
}

bool is_held(const IpcContext& ipc, const qel_ring_msg& message) {
    MessageState state = state_of(message);
    return is_own(ipc, message) && (state == MessageState::allocated || state == MessageState::consumed);
}

void trace_free(const IpcContext& ipc, std::uint32_t handle, std::uint32_t alloc_ep) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    const EndPointRecord& record = ipc.hdr->eps[alloc_ep];
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_msg_free msgh=0x%x alloc_ep=%d used=%d av=%d", own_pid(),
              ipc.hdr->trace_id, ipc.ep, handle, alloc_ep, record.alloc, record.reserved_credits);
}

// Whether a record that has become free may be taken by a new client already. One that is still open here
// is left to the update that is on its way: it closes the old ring first.
bool may_free_record(const IpcContext& ipc, std::uint32_t ep) {
    return !is_client(ipc) && ep != 0 && ipc.eps[ep].open == 0;
}

// What giving a message back came to.
struct Returned {
    cerrno result = 0;
    bool record_freed = false;
    FlowNotice due;
};

Returned return_message(IpcContext& ipc, qel_ring_msg& message, std::uint32_t alloc_ep) {
    Returned out;
    if (alloc_ep < ipc.shape.max_eps) ask_for_account(ipc, alloc_ep);
    SharedLocked lock{ipc.hdr->fc_lock};
    out.result = lock.error() == 0 ? ring_give_back(*ipc.eps[ipc.ep].ring, message) : fatal(lock.error());
    if (out.result != 0) return out;
    if (alloc_ep >= ipc.shape.max_eps) {
        out.result = fatal(EINVAL);  // Nobody's credit.
        return out;
    }
    credit_locked(ipc, alloc_ep, out.due);
    out.record_freed = may_free_record(ipc, alloc_ep) && free_closed_record_locked(ipc, alloc_ep);
    if (out.record_freed) recalc_locked(ipc, out.due);
    return out;
}

Disposal dispose(IpcContext& ipc, qel_ipc_msg* msg, const char* function) {
    qel_ring_msg* message = find_message(ipc, *msg, function);
    if (message == nullptr) return {fatal(EINVAL), false};
    if (!is_held(ipc, *message)) return refuse_foreign(ipc, *message, function);
    *msg = 0;
    dispose_held(ipc, *message, ipc.closing != 0);
    return {0, true};
}

cerrno refuse(const char* function, const char* text) {
    return ipc_error(function, text, fatal(EINVAL));
}

void trace_receive(const IpcContext& ipc, qel_ipc_msg msg) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_receive msgh=0x%x", own_pid(), ipc.hdr->trace_id, ipc.ep,
              ring_half(msg));
}

// The next message of the own ring; an empty one is no failure to report.
cerrno consume(IpcContext& ipc, qel_ring_msg*& out, const char* function) {
    qel_ring* ring = ipc.eps[ipc.ep].ring;
    if (ring == nullptr) return ipc_error(ipc, function, "NULL ring", try_again(EAGAIN));
    cerrno result = qel_ring_msg_consume(ring, &out);
    if (result == try_again(EAGAIN)) return result;
    if (result != 0) return ipc_error(ipc, function, "qel_ring_msg_consume failed", result);
    // Nobody else may end what its holder still writes a reply for.
    if (has_staged(ipc, *out)) [[unlikely]]
        return ipc_error(ipc, function, "message held already", fatal(EINVAL));
    ++own_record(ipc).received;
    if (trace_level(ipc) > 0) [[unlikely]]
        trace_receive(ipc, msg_handle(ipc, *out));
    return 0;
}

// The next message that is the caller's: answers to synchronous sends go their own way.
cerrno receive(IpcContext& ipc, qel_ring_msg*& out, const char* function) {
    for (;;) {
        if (cerrno result = consume(ipc, out, function); result != 0) return result;
        if (read_shared(out->type) != QEL_RING_MSG_SYNC_REPLY) return 0;
        if (!claim_answer(ipc, *out)) dispose_held(ipc, *out, false);
    }
}

}  // namespace

void dispose_held(IpcContext& ipc, qel_ring_msg& message, bool holds_shm_mutex) {
    std::uint32_t alloc_ep = read_shared(message.alloc_ring);
    std::uint32_t handle = read_shared(message.handle);
    release_msg_heap(ipc, message);
    Returned returned = return_message(ipc, message, alloc_ep);
    tell_flow(ipc, returned.due, holds_shm_mutex);
    if (returned.result != 0) [[unlikely]] {
        static_cast<void>(
            ipc_error(ipc, alloc_ep, "qel_ipc_msg_dispose", "damaged message", returned.result));
        return;
    }
    if (trace_level(ipc) > 0) [[unlikely]]
        trace_free(ipc, handle, alloc_ep);
    if (!returned.record_freed) [[likely]]
        return;
    report_record_freed(ipc, alloc_ep);
    qel_ipc_signal_clients(&ipc, QEL_SEP_FLOW_CHECK);
}

bool free_closed_record_locked(IpcContext& ipc, std::uint32_t ep) {
    EndPointRecord& record = ipc.hdr->eps[ep];
    if (read_shared(record.ep_state) != EndPointState::closed || read_shared(record.alloc) != 0) return false;
    write_shared(record.ep_state, EndPointState::free);
    return true;
}

void report_record_freed(const IpcContext& ipc, std::uint32_t ep) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d:%d] EP free OK", own_pid(), ipc.hdr->trace_id, ipc.ep, ep);
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_msg_dispose(qel_ipc_ctx* ctx, qel_ipc_msg* msg) {
    if (ctx == nullptr || msg == nullptr || *msg == 0) return refuse(__func__, "null message");
    return dispose(*ctx, msg, __func__).result;
}

cerrno qel_ipc_msg_free(qel_ipc_msg* msg) {
    if (msg == nullptr || *msg == 0) return refuse(__func__, "null message");
    LockedIpc ipc{ipc_half(*msg)};
    if (!ipc) return refuse(__func__, "invalid message handle");
    Disposal disposal = dispose(*ipc, msg, __func__);
    if (disposal.done) --ipc->outstanding;
    return disposal.result;
}

cerrno qel_ipc_receive(qel_ipc_handle ipc_handle, const void*, qel_ipc_msg* msg, uint32_t* type) {
    if (msg == nullptr) return refuse(__func__, "null message");
    LockedIpc ipc{ipc_handle};
    if (!ipc) return refuse(__func__, "invalid ipc handle");
    if (cerrno refused = require_active(*ipc, __func__, "not ready yet", try_again(EAGAIN)); refused != 0)
        return refused;
    if (cerrno refused = open_if_closed(*ipc, ipc->ep); refused != 0)
        return ipc_error(*ipc, __func__, "open EP failed", refused);
    qel_ring_msg* message = nullptr;
    if (cerrno result = receive(*ipc, message, __func__); result != 0) return result;
    *msg = msg_handle(*ipc, *message);
    if (type != nullptr) *type = read_shared(message->type);
    ++ipc->outstanding;
    return 0;
}
