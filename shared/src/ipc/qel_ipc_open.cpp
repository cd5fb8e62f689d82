// Opening a channel, for the first time or again.
//
// An opener maps the control block, takes its end point under shm_mutex, starts its doorbell, and opens the
// rings as far as the channel is up. A server that finds the channel up, or a client that finds a record with
// its app_id, is its own former incarnation come back: it takes the end point over, gives back what that one
// held (reclaim), and is told of what waits for it (replay). A client without a server waits for the update
// by which the server makes itself known.
//
// Invariant: the caller's handle is stored before anything can call the handler. A failed open leaves no
// thread, mapping or handle in this process, and in shared memory what a process leaves that dies there.
// Locks: the context's over the open; shm_mutex while the end point is taken; fc_lock inside it while records
// and shares change. Rings and heap of a channel that is up are mapped ahead of shm_mutex, the client's own
// ring and what a new channel needs inside it, since others must find them.
// Restart: told above; a death in here is one more restart for the next opener.
#include <qel/base.h>

#include <cstring>

#include "ipc/qel_ipc_channel.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel {
namespace {

constexpr char kOpen[] = "qel_ipc_open";
constexpr std::uint32_t kDoorbellMs = 2000;

struct Request {
    qel_ipc_handle* out;
    const char* name;
    const qel_ipc_attr& attr;
    qel_dm_handle dm;
    qel_ipc_handler handler;
    void* handler_ctx;
};

// What becomes of an opening under shm_mutex: who is refused there is told why when that is free again.
struct Opening {
    const qel_ipc_attr& attr;
    bool restarted = false;
    const char* refusal = nullptr;

    cerrno refuse(const char* text, cerrno code) {
        refusal = text;
        return code;
    }
};

// --- What is asked for

struct Rule {
    bool (*holds)(const qel_ipc_attr& attr);
    const char* text;
};
constexpr Rule kServerRules[] = {
    {[](const qel_ipc_attr& attr) {
         return attr.large_data_size <= kMaxLargeData && attr.max_msg_count <= kMostMessages &&
                attr.max_msg_size <= kMostMessageSize;
     },
     "invalid memory attributes"},
    {[](const qel_ipc_attr& attr) { return attr.max_msg_count >= kLeastMessages; },
     "max_msg_count too small"},
    {[](const qel_ipc_attr& attr) {
         return attr.overflow_count == 0 || attr.overflow_count >= kLeastMessages;
     },
     "overflow_count too small"},
    {[](const qel_ipc_attr& attr) {
         return attr.no_water_check == 1 ||
                (attr.low_water_percent < attr.high_water_percent && attr.high_water_percent <= 100);
     },
     "invalid low/high water percent"},
    {[](const qel_ipc_attr& attr) { return attr.max_clients < kMaxEndPoints; }, "max_clients too large"},
    {[](const qel_ipc_attr& attr) { return attr.overflow_count <= attr.max_msg_count - kLeastMessages; },
     "overflow_count too large"},
};

bool is_name(const char* name) {
    return name != nullptr && name[0] != '\0' && strnlen(name, kNameSize) < kNameSize;
}

cerrno refuse_request(const char* name, const qel_ipc_attr& attr) {
    if (qel_ipc_attr_is_valid(&attr) != 0) return ipc_error(kOpen, "invalid IPC attributes", fatal(EINVAL));
    if (!is_name(name)) return ipc_error(kOpen, "invalid IPC name", fatal(EINVAL));
    if (attr.role != QEL_IPC_ROLE_SERVER) return 0;
    for (const Rule& rule : kServerRules)
        if (!rule.holds(attr)) return ipc_error(kOpen, rule.text, fatal(EINVAL));
    return 0;
}

void trace_request(const char* name, const qel_ipc_attr& attr) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    static std::uint32_t tp_with_process = QEL_DT_TP_UNREGISTERED;
    const char* process = qel_ipc_proc_name;
    if (process == nullptr)
        ipc_trace(tp, "pid: %d qel_ipc_open name=%s role=%d appid=0x%lx", own_pid(), name, attr.role,
                  attr.app_id);
    else
        ipc_trace(tp_with_process, "pid: %d qel_ipc_open name=%s role=%d appid=0x%lx, proc=%s", own_pid(),
                  name, attr.role, attr.app_id, process);
}

// --- The own end point

// The peers see the counted 'restarts' and attach anew; fc_lock is held.
void mark_restarted(EndPointRecord& record) {
    write_shared(record.restarts, record.restarts + 1);
    record.restricted = 0;
    write_shared(record.ep_state, EndPointState::restarted);
}

void fill_new_record(EndPointRecord& record, std::uint64_t app_id) {
    record.app_id[0] = 0;
    write_shared(record.app_id[1], app_id);
    record.alloc = record.reserved_credits = record.hw_count = record.lw_count = 0;
    record.sent = record.received = record.msg_input = 0;
    record.restricted = 0;
    write_shared(record.restarts, 0);
    write_shared(record.ep_state, EndPointState::open);
}

// A former incarnation that died inside its doorbell's mutex keeps that, but shall not keep shm_mutex with
// it, which this thread holds.
int await_doorbell(qel_sep_record& record) {
    return BriefSharedLocked{mutex_of(record), kDoorbellMs}.error();
}

cerrno start_doorbell(IpcContext& ipc, Opening& opening, const char* text) {
    if (int error = await_doorbell(own_record(ipc).sep); error != 0)
        return opening.refuse(text, fatal(error));
    if (shm_platform::thread_exists(read_shared(own_record(ipc).pid))) sep_evict(own_record(ipc).sep);
    int error = qel_sep_init(static_cast<std::uint16_t>(ipc.ep), &ipc.sep, &ipc.eps[ipc.ep].sep,
                             &own_record(ipc).sep, ipc.dm, ipc_dm_handler, ipc.handle);
    if (error == 0) sep_handler_begins(ipc.sep);
    return error == 0 ? 0 : opening.refuse(text, fatal(error));
}

void share_out(IpcContext& ipc, bool restarted) {
    SharedLocked lock{ipc.hdr->fc_lock};
    if (restarted) recount_locked(ipc);
    qel_ipc_fc_recalc(&ipc);
}

// --- The server

void store_attributes(IpcContext& ipc, const qel_ipc_attr& attr) {
    IpcHeader& header = *ipc.hdr;
    header.max_msg_count = attr.max_msg_count;
    header.total_msg = static_cast<std::uint16_t>(attr.max_msg_count);
    header.msg_size = attr.max_msg_size;
    header.heap_size = attr.large_data_size == 0 ? 0 : attr.large_data_size + kHeapExtra;
    header.ext_cs = attr.ext_cs;
    header.ofp_pool = static_cast<std::uint16_t>(attr.overflow_count);
    header.spare_count = static_cast<std::uint16_t>(attr.spare_count);
    header.hw_percent = attr.high_water_percent;
    header.lw_percent = attr.low_water_percent;
    header.max_eps = static_cast<std::uint16_t>(attr.max_clients == 0 ? kMaxEndPoints : attr.max_clients + 1);
}

// Rings and heap of an earlier channel of this name hold other messages and have other sizes.
cerrno found_channel(IpcContext& ipc, const qel_ipc_attr& attr) {
    unlink_rings_and_heap(ipc.name);
    store_attributes(ipc, attr);
    write_shared(own_record(ipc).restarts, 0);
    write_shared(own_record(ipc).ep_state, EndPointState::open);
    return take_shape(ipc);
}

void log_restart_of_server() {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "open_server: IPC already inited,assume restart");
}

// The clients that are there, also those that came back while no server was: it has caught up with them.
void open_clients(IpcContext& ipc) {
    for (std::uint32_t ep = 1; ep < end_point_limit(ipc); ++ep) {
        if (qel_ipc_open_ep(&ipc, ep) != 0) continue;  // Tried again at its next update.
        EndPointState restarted = EndPointState::restarted;
        std::atomic_ref{ipc.hdr->eps[ep].ep_state}.compare_exchange_strong(restarted, EndPointState::open);
    }
}

cerrno bring_server_up(IpcContext& ipc, Opening& opening) {
    if (cerrno error = start_doorbell(ipc, opening, "qel_sep_init failed"); error != 0) return error;
    if (cerrno error = qel_ipc_open_ep(&ipc, 0); error != 0) return error;
    if (cerrno error = make_heap(ipc); error != 0) return error;
    open_clients(ipc);
    if (opening.restarted) ring_recover(*ipc.eps[0].ring);
    share_out(ipc, opening.restarted);
    return 0;
}

cerrno open_server(IpcContext& ipc, Opening& opening) {
    EndPointRecord& record = own_record(ipc);
    opening.restarted = read_shared(ipc.hdr->state) == ChannelState::active;
    if (opening.restarted) {
        SharedLocked lock{ipc.hdr->fc_lock};
        mark_restarted(record);
    } else if (cerrno error = found_channel(ipc, opening.attr); error != 0) {
        return error;
    }
    ipc.incarnation = read_shared(record.restarts);
    write_shared(record.app_id[1], opening.attr.app_id);
    Undo give_up{[&] {
        if (opening.restarted) return;
        write_shared(record.ep_state, EndPointState::free);
        ipc.hdr->total_msg = 0;
        unlink_rings_and_heap(ipc.name);
    }};
    if (cerrno error = bring_server_up(ipc, opening); error != 0) return error;
    give_up.keep();
    write_shared(ipc.hdr->state, ChannelState::active);
    for (std::uint32_t ep = 1; ep < end_point_limit(ipc); ++ep)
        if (ipc.eps[ep].open != 0) sep_wake_stranded(ipc.hdr->eps[ep].sep);
    qel_ipc_signal_clients(&ipc, QEL_SEP_EP_UPDATE);
    return 0;
}

// --- A client

struct Place {
    std::uint32_t ep = kMaxEndPoints;  // kMaxEndPoints for none
    bool restarted = false;
};

Place find_place(const IpcContext& ipc, std::uint64_t app_id) {
    Place place;
    for (std::uint32_t ep = 1; ep < end_point_limit(ipc); ++ep) {
        const EndPointRecord& record = ipc.hdr->eps[ep];
        EndPointState state = read_shared(record.ep_state);
        bool open = state == EndPointState::open || state == EndPointState::restarted;
        if (open && record.app_id[0] == 0 && record.app_id[1] == app_id) return {ep, true};
        bool free = state == EndPointState::free && read_shared(record.closing) == 0;
        if (free && place.ep == kMaxEndPoints) place.ep = ep;
    }
    return place;
}

cerrno refuse_place(const IpcContext& ipc, const Place& place, Opening& opening) {
    if (place.ep == kMaxEndPoints) return opening.refuse("open_client: no EP available", fatal(ENOSPC));
    if (place.restarted && open_elsewhere(ipc, place.ep))
        return opening.refuse("end point with same app_id already opened by this process", fatal(EPERM));
    return 0;
}

void take_place(IpcContext& ipc, const Place& place, std::uint64_t app_id) {
    set_own_ep(ipc, place.ep);
    SharedLocked lock{ipc.hdr->fc_lock};
    if (place.restarted)
        mark_restarted(own_record(ipc));
    else
        fill_new_record(own_record(ipc), app_id);
    ipc.incarnation = read_shared(own_record(ipc).restarts);
}

void log_restart_of_client() {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "open_client: IPC matching unique endpoint with appid found, assume restart");
}

// A ring that its last owner died over while it closed is frozen for good. Nothing on it is this client's.
cerrno replace_stale_ring(IpcContext& ipc) {
    LocalEndPoint& local = ipc.eps[ipc.ep];
    if (read_shared(local.ring->hdr->frozen) == 0 && !has_waiting_input(ipc)) return 0;
    share_out(ipc, true);
    drain_own_ring(ipc);
    static_cast<void>(qel_ring_close(&local.ring));                       // Nulls it in any case.
    static_cast<void>(qel_shm_unlink(ring_name(ipc.name, ipc.ep).text));  // Gone already is as good.
    return ensure_ring(ipc, ipc.ep);
}

cerrno open_own_ring(IpcContext& ipc, Opening& opening) {
    if (cerrno error = qel_ipc_open_ep(&ipc, ipc.ep); error != 0)
        return error == fatal(EHOSTDOWN) ? error : opening.refuse("open local EP failed", error);
    if (!opening.restarted) return replace_stale_ring(ipc);
    ring_recover(*ipc.eps[ipc.ep].ring);
    return 0;
}

cerrno join_channel(IpcContext& ipc, Opening& opening) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    cerrno error = open_own_ring(ipc, opening);
    if (error == fatal(EHOSTDOWN))
        ipc_trace(tp, "pid: %d %s: server down, client delaying ready epid=%d", own_pid(), kOpen, ipc.ep);
    else if (error != 0)
        return error;
    share_out(ipc, opening.restarted && error == 0);
    ipc.ready = error == 0;
    sep_wake_stranded(ipc.hdr->eps[0].sep);
    static_cast<void>(qel_sep_signal(&ipc.eps[0].sep, QEL_SEP_EP_UPDATE));  // It reports a failure itself.
    return 0;
}

void give_place_back(IpcContext& ipc, bool active) {
    SharedLocked lock{ipc.hdr->fc_lock};
    write_shared(own_record(ipc).ep_state, EndPointState::free);
    if (active) qel_ipc_fc_recalc(&ipc);
}

cerrno open_client(IpcContext& ipc, Opening& opening) {
    ChannelState state = read_shared(ipc.hdr->state);
    bool active = state == ChannelState::active;
    if (active)
        if (cerrno error = take_shape(ipc); error != 0) return error;
    if (cerrno error = open_heap(ipc); error != 0)
        return opening.refuse("variable size heap initialization failed", error);
    Place place = find_place(ipc, opening.attr.app_id);
    if (cerrno error = refuse_place(ipc, place, opening); error != 0) return error;
    opening.restarted = place.restarted;
    take_place(ipc, place, opening.attr.app_id);
    Undo give_up{[&] {
        static_cast<void>(sep_stop(ipc.sep));  // A thread that doesn't end touches nothing more.
        if (!place.restarted) give_place_back(ipc, active);
    }};
    if (cerrno error = start_doorbell(ipc, opening, "sig end point init"); error != 0) return error;
    if (active)
        if (cerrno error = join_channel(ipc, opening); error != 0) return error;
    give_up.keep();
    if (state == ChannelState::fresh) write_shared(ipc.hdr->state, ChannelState::client_waits);
    return 0;
}

// --- Both

cerrno prepare_locals(IpcContext& ipc, const Request& request) {
    ipc.role = request.attr.role;
    ipc.msg_mode = request.attr.msg_mode;
    ipc.close_flags = request.attr.close_flags;
    ipc.outstanding = 0;
    ipc.dm = request.dm;
    ipc.handler = request.handler;
    ipc.handler_ctx = request.handler_ctx;
    if (!is_client(ipc)) set_own_ep(ipc, 0);
    return ipc.msg_mode >= 2 ? make_sync_hash(ipc) : 0;
}

// What can be mapped before shm_mutex is taken. A failure comes up again, and is told, inside.
void map_ahead(IpcContext& ipc) {
    if (read_shared(ipc.hdr->state) != ChannelState::active || take_shape(ipc) != 0) return;
    if (open_heap(ipc) == 0) map_pool_ring(ipc);
}

cerrno take_end_point(IpcContext& ipc, Opening& opening) {
    SharedLocked lock{ipc.hdr->shm_mutex};
    if (read_shared(ipc.hdr->state) == ChannelState::destroy_pending)
        return opening.refuse("destroy pending", try_again(EAGAIN));
    return is_client(ipc) ? open_client(ipc, opening) : open_server(ipc, opening);
}

cerrno open_end_point(IpcContext& ipc, Opening& opening) {
    map_ahead(ipc);
    cerrno error = take_end_point(ipc, opening);
    return error == 0 || opening.refusal == nullptr ? error : ipc_error(kOpen, opening.refusal, error);
}

// Peers may have looked before the requests that this end point had received were gone. Who waits for an
// answer to one of those is released at the next look.
void tell_senders(IpcContext& ipc) {
    if (is_client(ipc))
        static_cast<void>(
            qel_sep_signal(&ipc.eps[0].sep, QEL_SEP_EP_UPDATE));  // It reports a failure itself.
    else
        qel_ipc_signal_clients(&ipc, QEL_SEP_EP_UPDATE);
}

void reclaim(IpcContext& ipc) {
    qel_ring* ring = ipc.eps[ipc.ep].ring;
    qel_ring_msg* message = nullptr;
    for (std::uint32_t left = ipc.shape.total_msg; left > 0; --left) {
        if (qel_ring_msg_reclaim_alloc(ring, &message) != 0) break;
        dispose_held(ipc, *message, false);
    }
    bool awaited = false;
    for (std::uint32_t left = ipc.shape.total_msg; left > 0; --left) {
        if (qel_ring_msg_reclaim_consumed(ring, &message) != 0) break;
        awaited |= read_shared(message->type) == QEL_RING_MSG_SYNC_REQUEST;
        dispose_held(ipc, *message, false);
    }
    if (awaited) tell_senders(ipc);
}

// Gives back what the former incarnation held; the event for what waits.
std::uint32_t reclaim_and_replay(IpcContext& ipc) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    reclaim(ipc);
    if (!has_waiting_input(ipc)) return 0;
    ipc_trace(tp, "pid: %d open_replay: produced ipch=0x%x", own_pid(), ipc.handle);
    return QEL_IPC_EVENT_INPUT;
}

std::uint32_t flow_events(IpcContext& ipc) {
    if (!is_client(ipc) && !ipc.shape.ext_cs) return 0;
    SharedLocked lock{ipc.hdr->fc_lock};
    return qel_ipc_fc_get_flags(&ipc);
}

// The channel is up: the application is told so, and of what waits.
cerrno announce(IpcContext& ipc, bool restarted) {
    std::uint32_t events = QEL_IPC_EVENT_READY | flow_events(ipc);
    ipc.ready = true;
    if (!is_client(ipc)) {
        cleanup_end_points(ipc);
        qel_ipc_signal_clients(&ipc, QEL_SEP_FLOW_CHECK);
    }
    if (restarted) events |= reclaim_and_replay(ipc);
    return qel_ipc_send_local_event(&ipc, events);
}

// Removes a block that this opener has made and could not use. Who has mapped it meanwhile is sent away, or
// has got in already, and then it is theirs.
void remove_block(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->shm_mutex};
    if (read_shared(ipc.hdr->state) != ChannelState::fresh) return;
    write_shared(ipc.hdr->state, ChannelState::destroy_pending);
    static_cast<void>(qel_shm_unlink(ipc.name));  // Gone already is as good.
}

cerrno open_context(IpcContext& ipc, const Request& request) {
    bool created = false;
    Undo abandon{[&] {
        *request.out = 0;
        if (created) remove_block(ipc);
        let_go(ipc, sep_stop(ipc.sep));
    }};
    if (cerrno error = attach_control_block(ipc, request.attr, created); error != 0) return error;
    if (cerrno error = prepare_locals(ipc, request); error != 0) return error;
    *request.out = ipc.handle;
    Opening opening{request.attr};
    if (cerrno error = open_end_point(ipc, opening); error != 0) return error;
    created = false;  // From here on others may count on it.
    if (opening.restarted) is_client(ipc) ? log_restart_of_client() : log_restart_of_server();
    if (!is_client(ipc) || ipc.ready)
        if (cerrno error = announce(ipc, opening.restarted); error != 0) return error;
    abandon.keep();
    return 0;
}

cerrno open_channel(const Request& request) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    qel_ipc_handle handle = claim_context(request.name);
    if (handle == 0) return ipc_error(kOpen, "no IPC ctx available", fatal(ENOSPC));
    LockedIpc ipc{handle};
    if (!ipc) return fatal(EINVAL);
    if (cerrno error = open_context(*ipc, request); error != 0) return error;
    ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_open OK name=%s ipch=0x%x role=%d state=%d", own_pid(),
              ipc->hdr->trace_id, ipc->ep, request.name, handle, ipc->role,
              static_cast<std::uint32_t>(read_shared(ipc->hdr->state)));
    return 0;
}

}  // namespace

void drain_own_ring(IpcContext& ipc) {
    qel_ring* ring = ipc.eps[ipc.ep].ring;
    if (ring == nullptr) return;
    ring_recover(*ring);
    static_cast<void>(qel_ring_freeze(ring));  // Frozen already is as good.
    qel_ring_msg* message = nullptr;
    for (std::uint32_t left = ipc.shape.total_msg; left > 0; --left) {
        if (qel_ring_msg_consume(ring, &message) != 0) break;
        dispose_held(ipc, *message, true);
    }
    for (std::uint32_t left = ipc.shape.total_msg; left > 0; --left) {
        if (qel_ring_msg_reclaim_alloc(ring, &message) != 0) break;
        dispose_held(ipc, *message, true);
    }
}

void let_go(IpcContext& ipc, bool doorbell_stopped) {
    free_sync_hash(ipc);
    free_staged_replies(ipc);
    if (ipc.hdr != nullptr) close_all_eps(ipc);
    if (ipc.heap != 0) vchunk_detach(ipc.heap);
    ipc.heap = 0;
    // A thread that hasn't ended may still sleep in the control block, which stays mapped for it.
    if (!doorbell_stopped) static_cast<void>(ipc.shm.release());
    ipc.shm.reset();
    release_context(ipc);
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_open(qel_ipc_handle* ipc, const char* name, const qel_ipc_attr* attr, qel_dm_handle dm,
                    qel_ipc_handler handler, void* handler_ctx) {
    qel_check_not_interrupt_path();
    if (!make_contexts() || make_connection_lists() != 0)
        return ipc_error(kOpen, "Failed to allocate memory for global IPC array", fatal(ENOMEM));
    qel_ipc_init_tracing();
    if (ipc == nullptr || attr == nullptr || handler == nullptr)
        return ipc_error(kOpen, "null ipc handle, attribute, or ipc handler", fatal(EINVAL));
    if (dm == 0) dm = qel_dm_get_handle();
    if (dm == 0) return ipc_error(kOpen, "null dm handle", fatal(EINVAL));
    *ipc = 0;
    if (cerrno refused = refuse_request(name, *attr); refused != 0) return refused;
    trace_request(name, *attr);
    return open_channel({ipc, name, *attr, dm, handler, handler_ctx});
}
