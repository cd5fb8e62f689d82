// What the files of messages share: handles, the frame of their calls, kinds of messages, data and answers.
//
// A message's words are written by whichever process holds it, and may be written at any time by one that
// shouldn't. So each is read once, by read_shared(), and checked before it is used.
#pragma once

#include "ipc/qel_ipc.hpp"
#include "ipc/qel_ring_words.hpp"

namespace qel {

// --- Handles

constexpr qel_ipc_handle ipc_half(qel_ipc_msg msg) {
    return static_cast<qel_ipc_handle>(msg >> 32);
}
constexpr std::uint32_t ring_half(qel_ipc_msg msg) {
    return static_cast<std::uint32_t>(msg);
}
inline qel_ipc_msg msg_handle(const IpcContext& ipc, const qel_ring_msg& message) {
    return std::uint64_t{ipc.handle} << 32 | read_shared(message.handle);
}

// --- The frame of a call (qel_ipc_msg.cpp). 'function' is the exported call's name

// 0 in an active channel; 'waiting' with its text while no server is there, else fatal(EPIPE).
cerrno require_active(const IpcContext& ipc, const char* function, const char* waiting_text, cerrno waiting);
// The own end point or a peer's with its ring open: what opening gave.
inline cerrno open_if_closed(IpcContext& ipc, std::uint32_t ep) {
    return ipc.eps[ep].ring != nullptr ? 0 : ensure_ep_open(ipc, ep);
}
// Null, with a report, for a handle that names no message.
qel_ring_msg* find_message(const IpcContext& ipc, qel_ipc_msg msg, const char* function);
// The handle and the message must be of one channel: 0, or fatal(EINVAL) with a report.
cerrno require_same_channel(qel_ipc_handle ipc, qel_ipc_msg msg, const char* function);

// A channel locked by one of its messages, and the message. False, with a report, for a handle of none.
class FoundMessage {
  public:
    FoundMessage(qel_ipc_msg msg, const char* function);
    explicit operator bool() const { return message_ != nullptr; }
    IpcContext& ipc() const { return *ipc_; }
    qel_ring_msg& message() const { return *message_; }

  private:
    LockedIpc ipc_;
    qel_ring_msg* message_ = nullptr;
};

// --- What a message is to this process

inline bool is_reply(const qel_ring_msg& message) {
    std::uint16_t type = read_shared(message.type);
    return type == QEL_RING_MSG_REPLY || type == QEL_RING_MSG_SYNC_REPLY;
}
inline bool is_own(const IpcContext& ipc, const qel_ring_msg& message) {
    return read_shared(message.ring) == ipc.ep;
}
// A request that the own end point has received and not yet answered.
inline bool is_received_request(const IpcContext& ipc, const qel_ring_msg& message) {
    return state_of(message) == MessageState::consumed && is_own(ipc, message) && !is_reply(message);
}

// What a change of an end point's account and of the pool will touch, fetched at once.
inline void ask_for_account(const IpcContext& ipc, std::uint32_t ep) {
    want_to_write(&ipc.eps[0].ring->hdr->free_idx);
    want_to_write(&ipc.hdr->eps[ep].alloc);
    want_to_write(&ipc.hdr->eps[ep].reserved_credits);
}

// --- Data (qel_ipc_msg_data.cpp)

inline std::uint32_t inline_size(const IpcContext& ipc) {
    return ipc.eps[0].ring->msg_size;
}
struct DataSpan {
    void* address;
    std::uint32_t length;
};
// Reserves the request's area of a message just allocated, zeroed; null when the heap has no room.
void* reserve_request(IpcContext& ipc, qel_ring_msg& message, std::uint32_t size, const char* function);
// The request's or the reply's data; false for a chunk that isn't one.
bool request_data(const IpcContext& ipc, qel_ring_msg& message, DataSpan& out);
bool reply_data(const IpcContext& ipc, qel_ring_msg& message, DataSpan& out);
// Whether this process has a reply staged for what the message's handle names.
inline bool has_staged(const IpcContext& ipc, const qel_ring_msg& message) {
    if (ipc.staged == nullptr) [[likely]]
        return false;
    std::uint32_t number = read_shared(message.handle) & 0xffff;
    return number < ipc.shape.total_msg && ipc.staged[number].data != nullptr;
}
// Frees the request's data, chunk or none.
void drop_request(IpcContext& ipc, qel_ring_msg& message);
// Frees the request's data and puts a staged reply in its place.
void settle_reply(IpcContext& ipc, qel_ring_msg& message);

// --- Sending and waiting (qel_ipc_send.cpp, qel_ipc_sync.cpp, qel_ipc_msg_free.cpp)

// The message is on the ring of 'ep': ring the bell and count it.
void signal_input(IpcContext& ipc, std::uint32_t ep, const char* function);
// Hands the answer to a synchronous send to its waiter; false if nobody waits for it any more.
bool claim_answer(IpcContext& ipc, qel_ring_msg& message);

}  // namespace qel
