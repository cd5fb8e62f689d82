// End-point updates: what a change of the shared end-point table means for this process.
//
// A server compares every record with what it has open and reports each difference as connection events. A
// client looks at the server's record only: its first sight of it means that the channel is up, a changed
// 'restarts' that the server has come back.
//
// Invariant: when a walk is over, a record that is open here is the one that was opened, by app_id and
// restarts; one whose owner could not be attached to is tried again at the next update.
// Locks: shm_mutex over a walk, fc_lock inside it while records become free. Nothing is signalled under them
// but the channel's first peers. Threads: the dispatcher thread that handles the wake-up, whose list gets the
// connection events. Restart: a walk takes the table as it finds it.
#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

// Codes of connection events on a handle record; the first two are states of an end point.
constexpr std::uint32_t kUp = 1;
constexpr std::uint32_t kEnded = 2;
constexpr std::uint32_t kBack = 3;

bool is_other_owner(const LocalEndPoint& local, const EndPointRecord& record) {
    return local.open != 0 && (read_shared(record.app_id[0]) != local.ep_hdl->app_id[0] ||
                               read_shared(record.app_id[1]) != local.ep_hdl->app_id[1]);
}

bool is_as_seen(const LocalEndPoint& local, const EndPointRecord& record) {
    return local.open != 0 && local.seen_restarts == read_shared(record.restarts) &&
           !is_other_owner(local, record);
}

bool let_go_of_ep(IpcContext& ipc, std::uint32_t ep, EndPointState state) {
    LocalEndPoint& local = ipc.eps[ep];
    qel_ipc_sync_hash_unblock_free(&ipc, ep);
    if (local.open == 0) return false;
    detach_ep(ipc, ep);
    tell_last_connection(std::exchange(local.ep_hdl, nullptr), static_cast<std::uint32_t>(state));
    return true;
}

// The attachment goes, the ring and the handle stay. Told once, also if the owner can't be reached for a
// while.
bool drop_old_incarnation(IpcContext& ipc, std::uint32_t ep) {
    LocalEndPoint& local = ipc.eps[ep];
    if (local.open == 0 || local.sep == nullptr) return false;
    qel_sep_close(&ipc.sep, &local.sep);
    tell_connection(*local.ep_hdl, kEnded);
    return true;
}

// A peer has caught up, unless the owner has closed meanwhile.
void mark_caught_up(EndPointRecord& record) {
    EndPointState restarted = EndPointState::restarted;
    std::atomic_ref{record.ep_state}.compare_exchange_strong(restarted, EndPointState::open);
}

bool sync_open_record(IpcContext& ipc, std::uint32_t ep, EndPointState state) {
    EndPointRecord& record = ipc.hdr->eps[ep];
    LocalEndPoint& local = ipc.eps[ep];
    if (is_as_seen(local, record)) return false;
    bool changed = is_other_owner(local, record) && let_go_of_ep(ipc, ep, EndPointState::closed);
    if (read_shared(record.restarts) != 0) changed |= drop_old_incarnation(ipc, ep);
    if (open_ep(ipc, ep) != 0) return changed;
    tell_connection(*local.ep_hdl, state == EndPointState::open ? kUp : kBack);
    mark_caught_up(record);
    return true;
}

bool sync_end_point(IpcContext& ipc, std::uint32_t ep) {
    EndPointState state = read_shared(ipc.hdr->eps[ep].ep_state);
    if (state == EndPointState::open || state == EndPointState::restarted)
        return sync_open_record(ipc, ep, state);
    return state != EndPointState::owner_down && let_go_of_ep(ipc, ep, state);
}

// All but the own record: whatever is written there, the messages' ring stays open under all the others.
bool sync_end_points(IpcContext& ipc) {
    bool changed = false;
    for (std::uint32_t ep = 1; ep < end_point_limit(ipc); ++ep) changed |= sync_end_point(ipc, ep);
    return changed;
}

std::uint32_t update_server(IpcContext& ipc) {
    bool changed = false;
    {
        SharedLocked lock{ipc.hdr->shm_mutex};
        if (read_shared(ipc.hdr->state) != ChannelState::active) return 0;
        changed = sync_end_points(ipc);
        cleanup_end_points(ipc);
    }
    qel_ipc_signal_clients(&ipc, QEL_SEP_FLOW_CHECK);
    return changed ? QEL_IPC_EVENT_EP_UPDATE : 0;
}

// Takes over what the channel is, ahead of shm_mutex.
cerrno come_up(IpcContext& ipc) {
    if (cerrno error = take_shape(ipc); error != 0) return error;
    cerrno error = open_heap(ipc);
    if (error != 0) return ipc_error(ipc, "process_ep_update", "client got EP_UPD heap init failed", error);
    map_pool_ring(ipc);
    return 0;
}

// What the server's record tells a client.
std::uint32_t read_server_record(IpcContext& ipc) {
    LocalEndPoint& server = ipc.eps[0];
    if (server.open == 0 || !ipc.ready) return QEL_IPC_EVENT_READY;
    if (server.seen_restarts == read_shared(ipc.hdr->eps[0].restarts)) return 0;
    static_cast<void>(drop_old_incarnation(ipc, 0));
    return QEL_IPC_EVENT_EP_UPDATE;
}

std::uint32_t follow_server(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->shm_mutex};
    if (read_shared(ipc.hdr->state) != ChannelState::active) return 0;
    std::uint32_t events = read_server_record(ipc);
    if (events == 0) return 0;
    if (cerrno error = qel_ipc_open_ep(&ipc, ipc.ep); error != 0)
        static_cast<void>(
            ipc_error(ipc, "process_ep_update", "Client got EP_UPD qel_ipc_open_ep failed", error));
    else
        mark_caught_up(ipc.hdr->eps[0]);
    return events;
}

std::uint32_t first_events(IpcContext& ipc) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc.ready = true;
    std::uint32_t events = 0;
    {
        SharedLocked lock{ipc.hdr->fc_lock};
        events = qel_ipc_fc_get_flags(&ipc);
    }
    if (!has_waiting_input(ipc)) return events;
    ipc_trace(tp, "pid: %d open_replay: produced ipch=0x%x", own_pid(), ipc.handle);
    return events | QEL_IPC_EVENT_INPUT;
}

std::uint32_t update_client(IpcContext& ipc) {
    if (come_up(ipc) != 0) return QEL_IPC_EVENT_DOWN;
    std::uint32_t events = follow_server(ipc);
    if ((events & QEL_IPC_EVENT_READY) != 0) events |= first_events(ipc);
    if ((events & QEL_IPC_EVENT_EP_UPDATE) != 0 && ipc.eps[0].ep_hdl != nullptr)
        tell_connection(*ipc.eps[0].ep_hdl, kBack);
    return events;
}

// Frees what can be freed; bit k of the result says that end point k was.
std::uint32_t free_closed_records(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->fc_lock};
    std::uint32_t freed = 0;
    for (std::uint32_t ep = 1; ep < end_point_limit(ipc); ++ep)
        if (free_closed_record_locked(ipc, ep)) freed |= 1u << ep;
    if (freed != 0) qel_ipc_fc_recalc(&ipc);
    return freed;
}

}  // namespace

bool has_waiting_input(const IpcContext& ipc) {
    const qel_ring* ring = ipc.eps[ipc.ep].ring;
    if (ring == nullptr) return false;
    std::uint32_t produced = qel_ring_get_produced_count(ring);
    return produced != 0 || produced != qel_ring_get_consumed_count(ring);
}

std::uint32_t process_ep_update(IpcContext& ipc) {
    if (read_shared(ipc.hdr->state) != ChannelState::active) return 0;
    std::uint32_t events = is_client(ipc) ? update_client(ipc) : update_server(ipc);
    release_reclaimed_senders(ipc);
    return events;
}

void cleanup_end_points(IpcContext& ipc) {
    std::uint32_t freed = free_closed_records(ipc);
    for (std::uint32_t ep = 1; ep < kMaxEndPoints; ++ep)
        if ((freed & 1u << ep) != 0) report_record_freed(ipc, ep);
}

}  // namespace qel
