// The tables of a channel's dump: flow control, end points and their rings.
//
// A table is printed from a copy of the header, so a slow terminal holds up nobody who needs fc_lock, and a
// number that changes under the dump's eyes can't lead it astray. Rings are opened afresh by name, ring 0
// first, whose message area the others borrow.
//
// Invariant: a dump changes nothing, makes no segment, and returns whatever the segments hold: sizes are held
// against them by the ring's open, chunks by the heap, and no address from shared memory is followed.
// Locks: shm_mutex by the caller, fc_lock while copying; both are waited for 2 s and done without then.
// Threads: any. Restart: channels of the dead are what dumps are for.
#include "ipc/qel_ipc_dump.hpp"

#include <qel/base.h>
#include <qel/ipc_debug.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ipc/qel_ipc_channel.hpp"
#include "ipc/qel_ipc_inspect.hpp"
#include "ipc/qel_ring_words.hpp"

namespace qel {
namespace {

cerrno close_ring(qel_ring* ring) {
    return qel_ring_close(&ring);
}
using OpenRing = Unique<qel_ring*, close_ring>;

int as_int(std::uint32_t value) {
    return static_cast<int>(value);
}

void print_flow_row(std::uint32_t number, const EndPointRecord& record) {
    static_cast<void>(qel_cli_printf(
        "     %-5d %-7d %5x %5d %5d %5d %7llu %7llu %5d %5d %7llu %8llx\n", as_int(number),
        as_int(record.pid), static_cast<unsigned>(record.ep_state), as_int(record.alloc),
        as_int(record.reserved_credits), record.restricted, static_cast<unsigned long long>(record.sent),
        static_cast<unsigned long long>(record.received), as_int(record.lw_count), as_int(record.hw_count),
        static_cast<unsigned long long>(record.msg_input),
        static_cast<unsigned long long>(record.app_id[1])));
}

void print_flow_table(const IpcHeader& header) {
    static_cast<void>(qel_cli_printf("     total_msg=%d ofp_pool=%d hw=%d lw=%d\n", header.total_msg,
                                     header.ofp_pool, header.hw, header.lw));
    static_cast<void>(qel_cli_printf("     prod count=%d quota=%d\n", header.prod_count, header.quota));
    static_cast<void>(qel_cli_printf(
        "     EP#     PID       ST ALLOC RSRVD RESTR    SENT   RECV     LW    HW MSGINPUT  APPID\n"));
    static_cast<void>(qel_cli_printf("     OFP         %5d %5d\n", as_int(header.ofp_used),
                                     as_int(header.ofp_quota - header.ofp_used)));
    if (header.prod_count == 0) return;
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (header.eps[ep].ep_state != EndPointState::free) print_flow_row(ep, header.eps[ep]);
}

// The ring's open would make one that is absent.
cerrno open_existing_ring(const IpcHeader& header, std::uint32_t ep, qel_ring* alloc_ring, OpenRing& out) {
    Mapping existing;
    std::uint8_t existed = 0;
    int unopened = qel_shm_open(ring_name(header.name, ep).text, 0, existing.out(), &existed);
    if (unopened != 0) return fatal(unopened);
    qel_ring* ring = nullptr;
    cerrno error = qel_ipc_open_ring(&header, ep, alloc_ring, &ring);
    if (error == 0) out.reset(ring);
    return error;
}

// --- Where a message's data lies

struct DataPlace {
    void* address;
    std::uint32_t length;
};

DataPlace in_payload(const qel_ring& ring, qel_ring_msg& message, std::uint32_t length) {
    std::span<std::byte> payload = ring_payload(*ring.alloc_ring, message);
    return {payload.data(), std::min(length, static_cast<std::uint32_t>(payload.size()))};
}

DataPlace in_heap(const DumpData& data, qel_mem_vchunk_handle chunk, std::uint32_t length) {
    if (data.heap == 0) return {nullptr, 0};
    std::span<std::byte> bytes = vchunk_bytes(data.heap, chunk, length);
    return {bytes.data(), std::min(length, static_cast<std::uint32_t>(bytes.size()))};
}

// What the reply's address in shared memory stands for. It is an address of whoever staged the reply, so it
// is followed only where this process's own table has it, and shown as a number otherwise.
DataPlace in_staging(const DumpData& data, const qel_ring& ring, const qel_ring_msg& message,
                     std::uint64_t address, std::uint32_t length) {
    std::uint32_t number = ring_message_number(*ring.alloc_ring, message);
    if (data.own != nullptr && data.own->staged != nullptr && number < data.own->shape.total_msg) {
        const StagedReply& staged = data.own->staged[number];
        if (staged.data != nullptr && staged.msg_handle == peek(message.handle))
            return {staged.data, std::min(length, staged.size)};
    }
    static_cast<void>(qel_cli_printf("reply_buf=0x%llx ", static_cast<unsigned long long>(address)));
    return {nullptr, 0};
}

DataPlace reply_place(const DumpData& data, const qel_ring& ring, qel_ring_msg& message) {
    std::uint32_t length = peek(message.reply_len);
    std::uint64_t buffer = peek(message.reply_buf);
    if (data.heap != 0 && length > ring.msg_size)
        return in_heap(data, static_cast<qel_mem_vchunk_handle>(buffer), length);
    if (data.heap == 0 && buffer != 0) return in_staging(data, ring, message, buffer, length);
    return in_payload(ring, message, length);
}

DataPlace request_place(const DumpData& data, const qel_ring& ring, qel_ring_msg& message) {
    std::uint32_t length = peek(message.data_len);
    qel_mem_vchunk_handle chunk = peek(message.data_handle);
    return chunk == 0 ? in_payload(ring, message, length) : in_heap(data, chunk, length);
}

void find_data(qel_ring* ring, qel_ring_msg* message, void* context, void** address, std::uint32_t* length) {
    const DumpData& data = *static_cast<const DumpData*>(context);
    std::uint16_t type = peek(message->type);
    bool is_reply = type == QEL_RING_MSG_REPLY || type == QEL_RING_MSG_SYNC_REPLY;
    DataPlace place = is_reply ? reply_place(data, *ring, *message) : request_place(data, *ring, *message);
    *address = place.address;
    *length = place.length;
}

// --- End points

void print_ring(qel_ring* ring, cerrno error, DumpData data, std::uint32_t level) {
    if (ring != nullptr)
        qel_ring_dump(ring, level, find_data, &data);
    else
        static_cast<void>(qel_cli_printf("    error opening ring rc=%d\n", as_int(error)));
}

struct PoolRing {
    OpenRing ring;
    cerrno error;
};

void print_end_point(const IpcHeader& header, std::uint32_t ep, const PoolRing& pool, const DumpData& data,
                     std::uint32_t level) {
    static_cast<void>(qel_cli_printf("\n---  End Point # %d \n", as_int(ep)));
    if ((static_cast<std::uint32_t>(header.eps[ep].ep_state) & 0x8000) != 0)
        static_cast<void>(qel_cli_printf("    Destroy pending\n"));
    if (ep == 0 || !pool.ring) return print_ring(pool.ring.get(), pool.error, data, level);
    OpenRing ring;
    cerrno error = open_existing_ring(header, ep, pool.ring.get(), ring);
    print_ring(ring.get(), error, data, level);
}

}  // namespace

void print_flow_control(IpcHeader& live) {
    HeaderCopy copy;
    std::optional<MissedLock> missed;
    {
        DumpLocked lock{live.fc_lock, "fc_lock"};
        copy.take(live, "");  // The name isn't shown.
        missed = lock.missed();
    }
    tell_if_missed(missed);
    print_flow_table(*copy);
}

void print_end_points(const IpcHeader& header, const DumpData& data, std::uint32_t level) {
    PoolRing pool{};
    pool.error = open_existing_ring(header, 0, nullptr, pool.ring);
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (header.eps[ep].ep_state != EndPointState::free) print_end_point(header, ep, pool, data, level);
}

}  // namespace qel

using namespace qel;

void qel_ipc_fc_dump(const char* text, qel_ipc_ctx* ctx) {
    qel_check_not_interrupt_path();
    if (ctx == nullptr || ctx->hdr == nullptr) return;
    static_cast<void>(qel_cli_printf(">>> [EP#%d] %s\n", as_int(ctx->ep), text != nullptr ? text : ""));
    print_flow_control(*ctx->hdr);
}

void qel_ipc_dump(qel_ipc_handle ipc, uint32_t level) {
    qel_check_not_interrupt_path();
    LockedIpc context{ipc};
    if (!context) {
        static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
        ipc_log(tp, "pid: %d ERROR: %s: invalid handle ipch=0x%x", own_pid(), __func__, ipc);
        return;
    }
    DumpLocked lock{context->hdr->shm_mutex, "shm_mutex"};
    tell_if_missed(lock.missed());
    static_cast<void>(qel_cli_printf("\n--- QEL IPC POOLS AND FLOW CONTROL ---\n"));
    print_flow_control(*context->hdr);
    if (level == 0) return;
    HeaderCopy header;
    header.take(*context->hdr, context->name);
    print_end_points(*header, {context->heap, &*context}, level);
}
