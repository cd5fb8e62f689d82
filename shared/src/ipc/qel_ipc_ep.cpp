// End points of a channel: which this process has open, and the table that all share.
//
// To open an end point is to attach to its doorbell, map its ring and make a handle for it. A client opens
// the server's and its own, a server all. End point 0 owns the messages, so it comes first.
//
// Invariant of the table (end_points_check): a record is free, open, restarted or closed; a free one has no
// messages charged to it; of the open ones no two clients have one app_id; the channel's sizes are in range.
// Locks: shm_mutex guards ep_state, restarts and app_id; the context's lock what is open here.
// Restart: an owner that comes back counts 'restarts' up, and each peer attaches anew when it sees that.
#include <qel/base.h>

#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

constexpr char kOpenEp[] = "qel_ipc_open_ep";

// 'open' is qel_ring_open() or ring_attach().
template <class Open>
cerrno map_ring(Open open, const char* channel, const ChannelShape& shape, std::uint32_t ep,
                qel_ring* alloc_ring, qel_ring** out) {
    return open(ring_name(channel, ep).text, static_cast<std::uint16_t>(ep),
                static_cast<std::uint16_t>(shape.total_msg), static_cast<std::uint16_t>(shape.msg_size),
                alloc_ring, out);
}

cerrno attach(IpcContext& ipc, std::uint32_t ep) {
    if (ep == ipc.ep) return 0;
    int error = qel_sep_open(&ipc.sep, &ipc.eps[ep].sep, &ipc.hdr->eps[ep].sep);
    if (error == 0) return 0;
    return ipc_error(ipc, ep, kOpenEp, "qel_sep_open failed",
                     error == EAGAIN ? try_again(error) : fatal(error));
}

cerrno make_handle(IpcContext& ipc, std::uint32_t ep) {
    auto record = allocate_zeroed<EndPointHandle>(QEL_MEM_IPC);
    if (!record) return ipc_error(ipc, ep, kOpenEp, "EP handle calloc failed", fatal(ENOMEM));
    if (++ipc.ep_serial == 0) ++ipc.ep_serial;
    record->handle = std::uint32_t{ipc.ep_serial} << 16 | ep;
    record->ep = ep;
    for (int word = 0; word < 2; ++word) record->app_id[word] = read_shared(ipc.hdr->eps[ep].app_id[word]);
    ipc.eps[ep].ep_hdl = record.release();
    return 0;
}

cerrno open_first_time(IpcContext& ipc, std::uint32_t ep) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    LocalEndPoint& local = ipc.eps[ep];
    if (cerrno error = attach(ipc, ep); error != 0) return error;
    Undo back{[&] { detach_ep(ipc, ep); }};
    if (cerrno error = ensure_ring(ipc, ep); error != 0) return error;
    if (cerrno error = make_handle(ipc, ep); error != 0) return error;
    back.keep();
    local.shm_ep = &ipc.hdr->eps[ep];
    local.seen_restarts = read_shared(local.shm_ep->restarts);
    local.open = 1;
    ipc_trace(tp, "pid: %d [%x:%d:%d] EP open OK", own_pid(), ipc.hdr->trace_id, ipc.ep, ep);
    return 0;
}

cerrno attach_again(IpcContext& ipc, std::uint32_t ep) {
    std::uint32_t restarts = read_shared(ipc.hdr->eps[ep].restarts);
    if (restarts == 0) return 0;
    if (cerrno error = attach(ipc, ep); error != 0) return error;
    ipc.eps[ep].seen_restarts = restarts;
    return 0;
}

bool is_known_state(EndPointState state) {
    return state == EndPointState::free || state == EndPointState::open ||
           state == EndPointState::owner_down || state == EndPointState::restarted ||
           state == EndPointState::closed;
}

bool is_open(const EndPointRecord& record) {
    EndPointState state = read_shared(record.ep_state);
    return state == EndPointState::open || state == EndPointState::restarted;
}

bool shares_app_id(const IpcHeader& header, std::uint32_t ep) {
    for (std::uint32_t other = 1; other < ep; ++other)
        if (is_open(header.eps[other]) && header.eps[other].app_id[1] == header.eps[ep].app_id[1])
            return true;
    return false;
}

const char* record_check(const IpcHeader& header, std::uint32_t ep) {
    const EndPointRecord& record = header.eps[ep];
    if (!is_known_state(read_shared(record.ep_state))) return "an end point is in no known state";
    bool free = read_shared(record.ep_state) == EndPointState::free;
    if (free && read_shared(record.alloc) != 0) return "a free end point has messages";
    if (ep != 0 && is_open(record) && shares_app_id(header, ep)) return "two clients have one app_id";
    return nullptr;
}

}  // namespace

cerrno ensure_ring(IpcContext& ipc, std::uint32_t ep) {
    LocalEndPoint& local = ipc.eps[ep];
    if (local.ring != nullptr) return 0;
    auto open = ep == 0 && is_client(ipc) ? ring_attach : qel_ring_open;
    cerrno error = map_ring(open, ipc.name, ipc.shape, ep, ep == 0 ? nullptr : ipc.eps[0].ring, &local.ring);
    return error == 0 ? 0 : ipc_error(ipc, ep, kOpenEp, "qel_ipc_open_ring failed", error);
}

cerrno open_ep(IpcContext& ipc, std::uint32_t ep) {
    if (ep >= end_point_limit(ipc)) return fatal(EPIPE);
    if (cerrno error = take_shape(ipc); error != 0) return error;
    write_shared(own_record(ipc).pid, static_cast<std::uint32_t>(own_pid()));
    EndPointState state = read_shared(ipc.hdr->eps[ep].ep_state);
    if (state == EndPointState::owner_down) return fatal(EHOSTDOWN);
    if (!is_open(ipc.hdr->eps[ep])) return fatal(EPIPE);
    return ipc.eps[ep].open != 0 ? attach_again(ipc, ep) : open_first_time(ipc, ep);
}

void map_pool_ring(IpcContext& ipc) {
    if (ipc.eps[0].ring != nullptr) return;
    static_cast<void>(map_ring(ring_attach, ipc.name, ipc.shape, 0, nullptr,
                               &ipc.eps[0].ring));  // Tried again by open_ep().
}

void attach_doorbell(IpcContext& ipc, std::uint32_t ep) {
    if (ep == ipc.ep || ipc.eps[ep].sep != nullptr || !is_open(ipc.hdr->eps[ep])) return;
    static_cast<void>(attach(ipc, ep));  // A peer that isn't up has nothing to hear.
}

void detach_ep(IpcContext& ipc, std::uint32_t ep) {
    LocalEndPoint& local = ipc.eps[ep];
    if (local.ring != nullptr) static_cast<void>(qel_ring_close(&local.ring));  // Nulls it in any case.
    if (ep != ipc.ep) qel_sep_close(&ipc.sep, &local.sep);
    local.open = 0;
    local.seen_restarts = 0;
}

void close_all_eps(IpcContext& ipc) {
    for (std::uint32_t ep = kMaxEndPoints; ep-- > 0;) {
        detach_ep(ipc, ep);
        qel_named_free(ipc.eps[ep].ep_hdl);
        ipc.eps[ep] = {};
    }
}

cerrno ensure_ep_open(IpcContext& ipc, std::uint32_t ep) {
    if (cerrno error = take_shape(ipc); error != 0) return error;
    if (cerrno error = open_heap(ipc); error != 0) return error;
    map_pool_ring(ipc);
    SharedLocked lock{ipc.hdr->shm_mutex};
    return qel_ipc_open_ep(&ipc, ep);
}

const char* end_points_check(const IpcHeader& header) {
    ChannelShape shape;
    if (read_shared(header.state) == ChannelState::active && read_shape(header, shape) != 0)
        return "the channel's sizes are out of range";
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (const char* broken = record_check(header, ep); broken != nullptr) return broken;
    return nullptr;
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_open_ep(qel_ipc_ctx* ipc, uint32_t ep) {
    if (ipc == nullptr || ipc->hdr == nullptr || ep >= kMaxEndPoints) return fatal(EINVAL);
    bool server_first = ep != 0 && (ipc->eps[0].open == 0 || read_shared(ipc->hdr->eps[0].restarts) > 0);
    if (server_first)
        if (cerrno error = open_ep(*ipc, 0); error != 0) return error;
    return open_ep(*ipc, ep);
}

cerrno qel_ipc_open_ring(const qel_ipc_hdr* hdr, uint32_t ep, qel_ring* alloc_ring, qel_ring** ring) {
    if (hdr == nullptr || ring == nullptr || ep >= kMaxEndPoints) return fatal(EINVAL);
    ChannelShape shape;
    if (cerrno error = read_shape(*hdr, shape); error != 0) return error;
    return map_ring(qel_ring_open, hdr->name, shape, ep, alloc_ring, ring);
}

cerrno qel_ipc_ep_get_list(qel_ipc_handle handle, qel_ipc_ep_handle* list, uint32_t size, uint32_t* count) {
    qel_check_not_interrupt_path();
    if (list == nullptr || count == nullptr) return fatal(EINVAL);
    LockedIpc ipc{handle};
    if (!ipc) return fatal(EINVAL);
    if (is_client(*ipc)) return ipc_error(*ipc, __func__, "not a server", fatal(EPERM));
    std::uint32_t found = 0;
    for (std::uint32_t ep = 1; ep < end_point_limit(*ipc) && found < size; ++ep)
        if (ipc->eps[ep].open != 0) list[found++] = ipc->eps[ep].ep_hdl->handle;
    *count = found;
    return 0;
}

cerrno qel_ipc_ep_get_app_id(qel_ipc_handle handle, qel_ipc_ep_handle ep, uint64_t app_id[2]) {
    qel_check_not_interrupt_path();
    if (app_id == nullptr) return fatal(EINVAL);
    LockedIpc ipc{handle};
    std::uint32_t number = ep & 0xffff;
    if (!ipc || number >= end_point_limit(*ipc)) return fatal(EINVAL);
    const LocalEndPoint& local = ipc->eps[number];
    bool current = local.open != 0 && local.ep_hdl->handle == ep;
    const EndPointHandle* record = current ? local.ep_hdl : find_connection(ep);
    if (record == nullptr) return fatal(ENOENT);
    for (int word = 0; word < 2; ++word) app_id[word] = record->app_id[word];
    return 0;
}

void qel_ipc_signal_clients(qel_ipc_ctx* ipc, uint32_t bits) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (ipc == nullptr) return;
    for (std::uint32_t ep = 1; ep < end_point_limit(*ipc); ++ep) {
        if (ipc->eps[ep].open == 0 || read_shared(ipc->hdr->eps[ep].ep_state) != EndPointState::open)
            continue;
        if (trace_level(*ipc) > 1)
            ipc_trace(tp, "pid: %d [%x:%d:%d] sending signal flags=0x%x", own_pid(), ipc->hdr->trace_id,
                      ipc->ep, ep, bits);
        static_cast<void>(qel_sep_signal(&ipc->eps[ep].sep, bits));  // It reports a failure itself.
    }
}
