// Sending: requests to another end point's ring, and replies back to the allocator's.
//
// A send produces the message's number on the destination's ring and rings its bell; from then on the message
// is the receiver's. A reply moves the message off the own ring and onto the allocator's in one step of the
// ring, so that neither a death nor a reclaim finds it between the two.
//
// Invariant: a send or reply that fails leaves the message the caller's, as it was, to be sent again or
// freed. Locks: the context's lock throughout; shm_mutex to open a destination; the rings' leaves. Threads:
// any. Restart: what was produced waits on its ring for the owner, or for its next incarnation.
#include "ipc/qel_ipc_msg.hpp"

namespace qel {
namespace {

struct Destination {
    std::uint32_t ep = 0;
    cerrno refused = 0;
};

// A client has one peer. A server names an end point by the handle that it has of it.
Destination find_destination(const IpcContext& ipc, const qel_ipc_send_attr* attr, const char* function) {
    auto refuse = [&](const char* text, cerrno code) {
        return Destination{0, ipc_error(ipc, function, text, code)};
    };
    if (is_client(ipc)) return {};
    if (!ipc.shape.ext_cs) return refuse("not in Ext C/S mode", fatal(EPERM));
    if (attr == nullptr) return refuse("send attributes required for dest EP", fatal(EINVAL));
    std::uint32_t ep = attr->dest_ep & 0xffff;
    if (ep >= ipc.shape.max_eps || ep >= kMaxEndPoints) return refuse("invalid dest ep id", fatal(EINVAL));
    if (ep == 0) return refuse("server cannot send to self", fatal(EPERM));
    const LocalEndPoint& local = ipc.eps[ep];
    if (local.open == 0 || local.ep_hdl == nullptr || local.ep_hdl->handle != attr->dest_ep)
        return refuse("dest EP no longer valid", fatal(EPIPE));
    return {ep, 0};
}

qel_ring* open_ring_of(IpcContext& ipc, std::uint32_t ep, const char* function, const char* text) {
    if (cerrno failed = open_if_closed(ipc, ep); failed != 0)
        static_cast<void>(ipc_error(ipc, ep, function, text, failed));  // Without a ring the caller knows.
    return ipc.eps[ep].ring;
}

// A message that the own end point has allocated and not yet sent.
bool may_be_sent(const IpcContext& ipc, const qel_ring_msg& message) {
    return state_of(message) == MessageState::allocated && is_own(ipc, message);
}

cerrno produce(IpcContext& ipc, qel_ring_msg& message, std::uint32_t ep, const char* function) {
    qel_ring* ring = open_ring_of(ipc, ep, function, "qel_ipc_open_ep");
    if (ring == nullptr) return ipc_error(ipc, ep, function, "dest EP not ready yet", try_again(EAGAIN));
    cerrno failed = qel_ring_msg_produce(ring, &message);
    return failed == 0 ? 0 : ipc_error(ipc, ep, function, "qel_ring_msg_produce failed", failed);
}

void trace_send(const IpcContext& ipc, std::uint32_t ep, qel_ipc_msg msg) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d:%d] qel_ipc_async_send msgh=0x%x", own_pid(), ipc.hdr->trace_id, ipc.ep, ep,
              ring_half(msg));
}

void trace_reply(const IpcContext& ipc, std::uint32_t ep, qel_ipc_msg msg) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d:%d] qel_ipc_reply msgh=0x%x", own_pid(), ipc.hdr->trace_id, ipc.ep, ep,
              ring_half(msg));
}

cerrno require_replier(const IpcContext& ipc, const char* function) {
    if (cerrno refused = require_active(ipc, function, "IPC not ready yet", fatal(EPERM)); refused != 0)
        return refused;
    if (is_client(ipc) && !ipc.shape.ext_cs)
        return ipc_error(ipc, function, "client cannot reply", fatal(EPERM));
    return 0;
}

// Makes the request its own reply and moves it to its allocator's ring. A ring that refuses it leaves it a
// request without data, which can be answered again or freed.
cerrno move_reply(IpcContext& ipc, qel_ring_msg& message, qel_ring& ring, std::uint32_t status) {
    std::uint16_t type = read_shared(message.type);
    settle_reply(ipc, message);
    message.status = status;
    message.type = type == QEL_RING_MSG_SYNC_REQUEST ? QEL_RING_MSG_SYNC_REPLY : QEL_RING_MSG_REPLY;
    cerrno failed = ring_move(*ipc.eps[ipc.ep].ring, ring, message);
    if (failed != 0) message.type = type;
    return failed;
}

cerrno send_reply(IpcContext& ipc, qel_ipc_msg msg, qel_ring_msg& message, std::uint32_t status,
                  const char* function) {
    std::uint32_t ep = read_shared(message.alloc_ring);
    qel_ring* ring =
        ep < ipc.shape.max_eps ? open_ring_of(ipc, ep, function, "qel_ipc_open_ep failed") : nullptr;
    if (ring == nullptr) {  // Nobody will ever ask for it: the allocator gets its credit instead.
        dispose_held(ipc, message, false);
        return 0;
    }
    if (cerrno failed = move_reply(ipc, message, *ring, status); failed != 0)
        return ipc_error(ipc, ep, function, "qel_ring_msg_produce failed", failed);
    signal_input(ipc, ep, function);
    if (trace_level(ipc) > 0) [[unlikely]]
        trace_reply(ipc, ep, msg);
    return 0;
}

}  // namespace

void signal_input(IpcContext& ipc, std::uint32_t ep, const char* function) {
    // The message is on its way whatever becomes of the bell: the ring is read at every other wake-up too.
    if (int error = qel_sep_signal(&ipc.eps[ep].sep, QEL_SEP_INPUT); error != 0) [[unlikely]]
        static_cast<void>(ipc_error(ipc, ep, function, "qel_sep_signal failed", fatal(error)));
    ++own_record(ipc).sent;
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_async_transport(qel_ipc_ctx* ctx, uint16_t type, const qel_ipc_send_attr* attr,
                               qel_ipc_msg msg) {
    if (ctx == nullptr) return ipc_error(__func__, "null context", fatal(EINVAL));
    IpcContext& ipc = *ctx;
    Destination destination = find_destination(ipc, attr, __func__);
    if (destination.refused != 0) return destination.refused;
    if (cerrno refused = require_active(ipc, __func__, "IPC not ready yet", try_again(EAGAIN)); refused != 0)
        return refused;
    qel_ring_msg* message = find_message(ipc, msg, __func__);
    if (message == nullptr) return fatal(EINVAL);
    if (!may_be_sent(ipc, *message)) return ipc_error(ipc, __func__, "invalid msg state", try_again(EAGAIN));
    message->type = type;
    if (cerrno failed = produce(ipc, *message, destination.ep, __func__); failed != 0) return failed;
    signal_input(ipc, destination.ep, __func__);
    if (trace_level(ipc) > 0) [[unlikely]]
        trace_send(ipc, destination.ep, msg);
    --ipc.outstanding;
    return 0;
}

cerrno qel_ipc_async_send(qel_ipc_handle ipc_handle, const qel_ipc_send_attr* attr, qel_ipc_msg msg) {
    if (attr != nullptr && attr->priority != 0)
        return ipc_error(__func__, "Message priority not suppoted", fatal(EINVAL));
    if (cerrno refused = require_same_channel(ipc_handle, msg, __func__); refused != 0) return refused;
    LockedIpc ipc{ipc_handle};
    if (!ipc) return ipc_error(__func__, "invalid ipc handle", fatal(EINVAL));
    return qel_ipc_async_transport(&*ipc, QEL_RING_MSG_ASYNC_REQUEST, attr, msg);
}

cerrno qel_ipc_reply(qel_ipc_handle ipc_handle, const void*, qel_ipc_msg msg, uint32_t status) {
    if (cerrno refused = require_same_channel(ipc_handle, msg, __func__); refused != 0) return refused;
    LockedIpc ipc{ipc_handle};
    if (!ipc) return ipc_error(__func__, "invalid ipc handle", fatal(EINVAL));
    if (cerrno refused = require_replier(*ipc, __func__); refused != 0) return refused;
    qel_ring_msg* message = find_message(*ipc, msg, __func__);
    if (message == nullptr) return fatal(EINVAL);
    if (!is_received_request(*ipc, *message))
        return ipc_error(*ipc, __func__, "invalid msg state", fatal(EINVAL));
    cerrno failed = send_reply(*ipc, msg, *message, status, __func__);
    if (failed == 0) --ipc->outstanding;
    return failed;
}
