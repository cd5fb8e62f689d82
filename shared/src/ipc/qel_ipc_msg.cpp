// Messages: allocation, and what their holders may ask and set.
//
// A message is a slot in the area of ring 0, and its handle (channel above, serial and number below) is good
// from its allocation to its free, in whichever process holds it. A call locks the channel by the upper half
// and finds the message by the lower one; the serial refuses a handle that has outlived its message.
//
// Invariant: a message that isn't Free is charged to the end point in its alloc_ring; credit and message are
// taken under one hold of fc_lock, and given back so.
// Locks: the context's lock, in every call; inside it fc_lock and the leaves. Zeroing and heap work are done
// with fc_lock free. Threads: any.
// Restart: messages live in the segment; whatever a dead owner held is reclaimed when it comes back.
#include "ipc/qel_ipc_msg.hpp"

namespace qel {
namespace {

void report_invalid(const IpcContext& ipc, qel_ipc_msg msg, const char* function) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d [%x:%d] ERROR %s: Invalid msgh=0x%x/%x", own_pid(), ipc.hdr->trace_id, ipc.ep,
            function, ipc_half(msg), ring_half(msg));
}

cerrno refuse(const char* function, const char* text) {
    return ipc_error(function, text, fatal(EINVAL));
}

// A message with its credit, charged to the own end point; null without one.
cerrno take_message(IpcContext& ipc, qel_ring_msg*& out, const char* function) {
    FlowNotice due;
    cerrno charged = 0;
    cerrno taken = 0;
    {
        ask_for_account(ipc, ipc.ep);
        SharedLocked lock{ipc.hdr->fc_lock};
        if (lock.error() != 0) return fatal(lock.error());
        charged = charge_locked(ipc, due);
        if (charged == 0) taken = qel_ring_msg_alloc(ipc.eps[ipc.ep].ring, &out);
        if (taken != 0) [[unlikely]]
            credit_locked(ipc, ipc.ep, due);
    }
    tell_flow(ipc, due, false);
    return taken == 0 ? charged : ipc_error(ipc, function, "qel_ring_msg_alloc failed", fatal(ENOMEM));
}

// What a former user of the slot left must not be taken for this one's.
void clear_fields(qel_ring_msg& message) {
    message.type = QEL_RING_MSG_ASYNC_REQUEST;
    message.context = 0;
    message.data_handle = 0;
    message.data_len = 0;
    message.reply_buf = 0;
    message.reply_len = 0;
    message.status = 0;
}

cerrno require_allocator(IpcContext& ipc, const char* function) {
    if (cerrno refused = require_active(ipc, function, "not ready for alloc yet", try_again(EAGAIN));
        refused != 0)
        return refused;
    if (!is_client(ipc) && !ipc.shape.ext_cs)
        return ipc_error(ipc, function, "server cannot allocate msg (not ECS)", fatal(EPERM));
    if (cerrno refused = open_if_closed(ipc, ipc.ep); refused != 0)
        return ipc_error(ipc, function, "qel_ipc_open_ep() failed!", refused);
    return 0;
}

void trace_alloc(const IpcContext& ipc, const qel_ring_msg& message, std::uint32_t size) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    const EndPointRecord& own = own_record(ipc);
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_msg_alloc L=%d msgh=0x%x used=%d av=%d", own_pid(),
              ipc.hdr->trace_id, ipc.ep, size, message.handle, own.alloc, own.reserved_credits);
}

void trace_entry(const IpcContext& ipc, std::uint32_t size) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_msg_alloc entered L=%d", own_pid(), ipc.hdr->trace_id, ipc.ep,
              size);
}

// What the three calls for data have in common, from the message found to the outputs.
using DataOf = bool (*)(const IpcContext& ipc, qel_ring_msg& message, DataSpan& out);
cerrno give_data(const FoundMessage& found, DataOf data_of, void** address, std::uint32_t* length,
                 const char* function) {
    DataSpan data{};
    bool sound = data_of(found.ipc(), found.message(), data);
    *address = data.address;
    *length = data.length;
    return sound ? 0 : ipc_error(found.ipc(), function, "invalid data handle", fatal(EINVAL));
}

}  // namespace

cerrno require_active(const IpcContext& ipc, const char* function, const char* waiting_text, cerrno waiting) {
    ChannelState state = read_shared(ipc.hdr->state);
    if (state == ChannelState::active) [[likely]]
        return 0;
    if (state == ChannelState::client_waits) return ipc_error(ipc, function, waiting_text, waiting);
    return ipc_error(ipc, function, "destroy pending", fatal(EPIPE));
}

qel_ring_msg* find_message(const IpcContext& ipc, qel_ipc_msg msg, const char* function) {
    qel_ring_msg* message = nullptr;
    qel_ring* pool = ipc.eps[0].ring;
    if (pool != nullptr && qel_ring_msg_handle_to_addr(pool, ring_half(msg), &message) == 0) [[likely]]
        return message;
    report_invalid(ipc, msg, function);
    return nullptr;
}

cerrno require_same_channel(qel_ipc_handle ipc, qel_ipc_msg msg, const char* function) {
    if (ipc_half(msg) == ipc) [[likely]]
        return 0;
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d ERROR: %s: invalid handle ipch=0x%x msgh=0x%x/%x", own_pid(), function, ipc,
            ipc_half(msg), ring_half(msg));
    return fatal(EINVAL);
}

FoundMessage::FoundMessage(qel_ipc_msg msg, const char* function) : ipc_(ipc_half(msg)) {
    if (ipc_)
        message_ = find_message(*ipc_, msg, function);
    else
        static_cast<void>(refuse(function, "invalid message handle"));  // The caller returns the same code.
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_msg_alloc(qel_ipc_handle ipc_handle, uint32_t size, qel_ipc_msg* msg, void** buffer) {
    if (msg == nullptr) return refuse(__func__, "null message");
    LockedIpc ipc{ipc_handle};
    if (!ipc) return refuse(__func__, "invalid ipc handle");
    *msg = 0;
    if (buffer != nullptr) *buffer = nullptr;
    if (trace_level(*ipc) > 2) [[unlikely]]
        trace_entry(*ipc, size);
    if (cerrno refused = require_allocator(*ipc, __func__); refused != 0) return refused;
    qel_ring_msg* message = nullptr;
    if (cerrno refused = take_message(*ipc, message, __func__); refused != 0) return refused;
    clear_fields(*message);
    void* area = reserve_request(*ipc, *message, size, __func__);
    if (area == nullptr) {
        dispose_held(*ipc, *message, false);
        return ipc_error(*ipc, __func__, "qel_ipc_msg_alloc() failing", fatal(ENOMEM));
    }
    *msg = msg_handle(*ipc, *message);
    if (buffer != nullptr) *buffer = area;
    ++ipc->outstanding;
    if (trace_level(*ipc) > 0) [[unlikely]]
        trace_alloc(*ipc, *message, size);
    return 0;
}

cerrno qel_ipc_msg_get_buffer(qel_ipc_msg msg, void** address, uint32_t* length) {
    if (address == nullptr || length == nullptr) return refuse(__func__, "null output");
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    return give_data(found, is_reply(found.message()) ? reply_data : request_data, address, length, __func__);
}

cerrno qel_ipc_msg_get_reply_buffer(qel_ipc_msg msg, void** address, uint32_t* length) {
    if (address == nullptr || length == nullptr) return refuse(__func__, "null output");
    *address = nullptr;
    *length = 0;
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    if (!is_reply(found.message())) return ipc_error(found.ipc(), __func__, "not a reply", fatal(EINVAL));
    return give_data(found, reply_data, address, length, __func__);
}

cerrno qel_ipc_msg_get_status(qel_ipc_msg msg, uint32_t* status) {
    if (status == nullptr) return refuse(__func__, "null output");
    *status = 0;
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    if (!is_reply(found.message())) return ipc_error(found.ipc(), __func__, "not a reply", fatal(EINVAL));
    *status = read_shared(found.message().status);
    return 0;
}

cerrno qel_ipc_msg_set_context(qel_ipc_msg msg, uint64_t context) {
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    found.message().context = context;
    return 0;
}

cerrno qel_ipc_msg_get_context(qel_ipc_msg msg, uint64_t* context) {
    if (context == nullptr) return refuse(__func__, "null output");
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    *context = read_shared(found.message().context);
    return 0;
}

cerrno qel_ipc_msg_get_sender_ep(qel_ipc_msg msg, qel_ipc_ep_handle* ep) {
    if (ep == nullptr) return refuse(__func__, "null output");
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    IpcContext& ipc = found.ipc();
    std::uint32_t sender = read_shared(found.message().alloc_ring);
    if (sender >= ipc.shape.max_eps || open_if_closed(ipc, sender) != 0)
        return ipc_error(ipc, sender, __func__, "qel_ipc_open_ep failed", fatal(EPIPE));
    const EndPointHandle* record = ipc.eps[sender].ep_hdl;
    if (record == nullptr) return ipc_error(ipc, sender, __func__, "no EP handle", fatal(ENOMEM));
    *ep = record->handle;
    return 0;
}
