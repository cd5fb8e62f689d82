// The data of messages: inline in the payload, in a chunk of the channel's heap, or staged.
//
//   length                      request                       reply
//   0                           none                          none
//   up to the inline size       payload                       payload, or staged in the replier's process
//                                                             while the request's data is still in there
//   above                       chunk in data_handle          chunk in the low half of reply_buf
//
// A staged reply is copied into the payload when the reply is sent. Its address stands in reply_buf, but only
// the context's table of staged replies is believed: an address from shared memory is never read or freed.
//
// Invariant: a length above the inline size stands in the message before its chunk is taken and until after
// it is freed, and the heap writes and clears the handle under its own lock: at every instant a chunk in use
// is named by a message. No other word of the message decides whether a chunk is freed but its handle.
// Locks: the context's lock is held; the heap's is a leaf. Areas are zeroed with no shared lock held.
// Restart: chunks are found by their messages; staged replies go with their process.
#include <bit>
#include <cstring>

#include "ipc/qel_ipc_msg.hpp"

namespace qel {
namespace {

static_assert(std::endian::native == std::endian::little, "the low half of reply_buf is its first word");
using ChunkPlace [[gnu::may_alias]] = std::uint32_t;

std::uint32_t& reply_chunk(qel_ring_msg& message) {
    return *reinterpret_cast<ChunkPlace*>(&message.reply_buf);
}

void* zeroed_payload(const IpcContext& ipc, qel_ring_msg& message, std::uint32_t size) {
    void* payload = ring_payload(*ipc.eps[0].ring, message).data();
    std::memset(payload, 0, size);
    return payload;
}

// A zeroed chunk whose length stands in 'length' and whose handle in 'chunk'; null, with both as they were.
void* take_chunk(const IpcContext& ipc, std::uint32_t size, std::uint32_t& length, std::uint32_t& chunk,
                 const char* function) {
    if (ipc.heap == 0) {
        static_cast<void>(ipc_error(ipc, function, "Large data heap handle is NULL", fatal(ENOMEM)));
        return nullptr;
    }
    length = size;
    void* data = vchunk_take(ipc.heap, size, chunk);
    if (data != nullptr) return std::memset(data, 0, size);
    length = 0;
    static_cast<void>(ipc_error(ipc, function, "qel_mem_vchunk_malloc() failed", fatal(ENOMEM)));
    return nullptr;
}

// A number that names no chunk in use is cleared and otherwise left alone: it was never this message's.
void drop_chunk(const IpcContext& ipc, std::uint32_t& chunk) {
    if (read_shared(chunk) == 0) return;
    if (ipc.heap != 0)
        static_cast<void>(vchunk_drop(ipc.heap, chunk));
    else
        chunk = 0;
}

bool chunk_data(const IpcContext& ipc, std::uint32_t chunk, std::uint32_t length, DataSpan& out) {
    std::span<std::byte> bytes = vchunk_bytes(ipc.heap, chunk, length);
    if (bytes.size() < length) return false;
    out = {bytes.data(), length};
    return true;
}

bool payload_data(const IpcContext& ipc, qel_ring_msg& message, std::uint32_t length, DataSpan& out) {
    if (length != 0) out = {ring_payload(*ipc.eps[0].ring, message).data(), length};
    return true;
}

// The entry for this message's number; null without a table.
StagedReply* staged_entry(const IpcContext& ipc, const qel_ring_msg& message) {
    if (ipc.staged == nullptr) return nullptr;
    std::uint32_t number = ring_message_number(*ipc.eps[0].ring, message);
    return number < ipc.shape.total_msg ? &ipc.staged[number] : nullptr;
}

void free_entry(StagedReply& entry) {
    qel_named_free(entry.data);
    entry = {};
}

// What this process has staged for the message as it is now. Whatever else is staged under its number, of a
// message that was written over, may be in use still: it stays until the channel is let go.
StagedReply* find_staged(const IpcContext& ipc, const qel_ring_msg& message) {
    StagedReply* entry = staged_entry(ipc, message);
    if (entry == nullptr || entry->data == nullptr) return nullptr;
    return entry->msg_handle == read_shared(message.handle) ? entry : nullptr;
}

bool make_staging_table(IpcContext& ipc) {
    if (ipc.staged == nullptr)
        ipc.staged = allocate_zeroed<StagedReply>(QEL_MEM_IPC, ipc.shape.total_msg).release();
    return ipc.staged != nullptr;
}

void* stage_reply(IpcContext& ipc, qel_ring_msg& message, std::uint32_t size) {
    if (!make_staging_table(ipc)) return nullptr;
    StagedReply* entry = staged_entry(ipc, message);
    if (entry == nullptr || entry->data != nullptr) return nullptr;
    Owned<std::byte> data = allocate_zeroed<std::byte>(QEL_MEM_IPC, size);
    if (!data) return nullptr;
    *entry = {read_shared(message.handle), size, data.release()};
    message.reply_buf = reinterpret_cast<std::uintptr_t>(entry->data);
    message.reply_len = size;
    return entry->data;
}

bool has_inline_request(const IpcContext& ipc, const qel_ring_msg& message) {
    std::uint32_t length = read_shared(message.data_len);
    return length != 0 && length <= inline_size(ipc);
}

// The reply's area, zeroed; null when there is no memory for it.
void* reserve_reply(IpcContext& ipc, qel_ring_msg& message, std::uint32_t size, const char* function) {
    if (size <= inline_size(ipc) && has_inline_request(ipc, message)) return stage_reply(ipc, message, size);
    message.reply_buf = 0;
    if (size > inline_size(ipc))
        return take_chunk(ipc, size, message.reply_len, reply_chunk(message), function);
    message.reply_len = size;
    return zeroed_payload(ipc, message, size);
}

cerrno require_unanswered(const IpcContext& ipc, const qel_ring_msg& message, const char* function) {
    if (state_of(message) != MessageState::consumed || !is_own(ipc, message))
        return ipc_error(ipc, function, "must pass a received msg", fatal(EINVAL));
    if (is_reply(message)) return ipc_error(ipc, function, "cannot pass a reply msg", fatal(EINVAL));
    if (read_shared(message.reply_len) != 0)
        return ipc_error(ipc, function, "already allocated reply buffer", fatal(EPERM));
    return 0;
}

void trace_reply_buffer(const IpcContext& ipc, const qel_ring_msg& message, std::uint32_t size) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_msg_alloc_reply_buffer L=%d msgh=%x", own_pid(), ipc.hdr->trace_id,
              ipc.ep, size, message.handle);
}

}  // namespace

void* reserve_request(IpcContext& ipc, qel_ring_msg& message, std::uint32_t size, const char* function) {
    if (size > inline_size(ipc))
        return take_chunk(ipc, size, message.data_len, message.data_handle, function);
    message.data_len = size;
    return zeroed_payload(ipc, message, size);
}

bool request_data(const IpcContext& ipc, qel_ring_msg& message, DataSpan& out) {
    std::uint32_t length = read_shared(message.data_len);
    if (length <= inline_size(ipc)) return payload_data(ipc, message, length, out);
    return chunk_data(ipc, read_shared(message.data_handle), length, out);
}

bool reply_data(const IpcContext& ipc, qel_ring_msg& message, DataSpan& out) {
    std::uint32_t length = read_shared(message.reply_len);
    if (length <= inline_size(ipc)) return payload_data(ipc, message, length, out);
    return chunk_data(ipc, static_cast<std::uint32_t>(read_shared(message.reply_buf)), length, out);
}

void drop_request(IpcContext& ipc, qel_ring_msg& message) {
    drop_chunk(ipc, message.data_handle);
    message.data_len = 0;
}

void settle_reply(IpcContext& ipc, qel_ring_msg& message) {
    drop_request(ipc, message);
    std::uint32_t length = read_shared(message.reply_len);
    if (length > inline_size(ipc)) return;
    if (StagedReply* staged = find_staged(ipc, message); staged != nullptr) {
        std::span<std::byte> payload = ring_payload(*ipc.eps[0].ring, message);
        std::memcpy(payload.data(), staged->data, std::min(length, staged->size));
        free_entry(*staged);
    }
    message.reply_buf = 0;
}

void release_msg_heap(IpcContext& ipc, qel_ring_msg& message) {
    drop_request(ipc, message);
    if (read_shared(message.reply_len) > inline_size(ipc)) drop_chunk(ipc, reply_chunk(message));
    if (StagedReply* staged = find_staged(ipc, message); staged != nullptr) free_entry(*staged);
    message.reply_len = 0;
    message.reply_buf = 0;
}

void free_staged_replies(IpcContext& ipc) {
    if (ipc.staged == nullptr) return;
    for (std::uint32_t number = 0; number < ipc.shape.total_msg; ++number) free_entry(ipc.staged[number]);
    qel_named_free(std::exchange(ipc.staged, nullptr));
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_msg_alloc_reply_buffer(qel_ipc_msg msg, uint32_t size, void** buffer) {
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    if (buffer != nullptr) *buffer = nullptr;
    IpcContext& ipc = found.ipc();
    if (cerrno refused = require_unanswered(ipc, found.message(), __func__); refused != 0) return refused;
    if (size == 0) return 0;
    void* area = reserve_reply(ipc, found.message(), size, __func__);
    if (area == nullptr) return ipc_error(ipc, __func__, "no memory for the reply", fatal(ENOMEM));
    if (buffer != nullptr) *buffer = area;
    if (trace_level(ipc) > 0) [[unlikely]]
        trace_reply_buffer(ipc, found.message(), size);
    return 0;
}

cerrno qel_ipc_msg_free_incoming_buffer(qel_ipc_msg msg) {
    FoundMessage found{msg, __func__};
    if (!found) return fatal(EINVAL);
    if (!is_received_request(found.ipc(), found.message()))
        return ipc_error(found.ipc(), __func__, "invalid msg state", fatal(EPERM));
    drop_request(found.ipc(), found.message());
    return 0;
}
