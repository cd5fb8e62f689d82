// From a signal to the application's handler.
//
// A wake-up is a job of the dispatcher. It takes the bits that came, does what the channel itself has to do
// about each, turns them into one word of events, and calls the application's handler with no lock held; then
// it looks for more, so that a conversation doesn't cost a job a message. The context is found by its handle
// each round, since the handler may have closed the channel, or another thread.
//
// Invariant: application code runs on dispatcher threads only, with no lock of messaging held.
// Locks: the context's lock while bits are turned into events. Threads: the dispatcher's; a handler may end
// its thread.
#include <iterator>

#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kAlwaysTraced = QEL_IPC_EVENT_READY | QEL_IPC_EVENT_EP_UPDATE;

// What a call of the application's handler needs when the context is unlocked again.
struct Invocation {
    qel_ipc_handler handler;
    void* context;
    qel_ipc_handle handle;
    std::uint32_t trace_id;
    std::uint32_t ep;
    bool traced;
};

Invocation prepare(const IpcContext& ipc) {
    return {ipc.handler, ipc.handler_ctx, ipc.handle, ipc.hdr->trace_id, ipc.ep, trace_level(ipc) > 0};
}

void invoke_ipc_handler(const Invocation& to, std::uint32_t events) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (events == 0 || to.handler == nullptr) return;
    if (to.traced || (events & kAlwaysTraced) != 0)
        ipc_trace(tp, "pid: %d [%x:%d] invoking handler events=0x%x", own_pid(), to.trace_id, to.ep, events);
    to.handler(to.handle, events, to.context);
    forget_connections();
}

std::uint32_t count_input(IpcContext& ipc) {
    std::uint64_t& inputs = own_record(ipc).msg_input;
    write_shared(inputs, inputs + 1);
    return QEL_IPC_EVENT_INPUT;
}

std::uint32_t check_flow(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->fc_lock};
    return qel_ipc_fc_get_flags(&ipc);
}

std::uint32_t flow_on(IpcContext&) {
    return QEL_IPC_EVENT_FLOW_ON;
}

std::uint32_t relay_flow(IpcContext& ipc) {
    if (!is_client(ipc)) qel_ipc_signal_clients(&ipc, QEL_SEP_FLOW_CHECK);
    return 0;
}

std::uint32_t go_down(IpcContext& ipc) {
    qel_ipc_sync_hash_unblock_free(&ipc, 0);
    return QEL_IPC_EVENT_DOWN;
}

struct Answer {
    std::uint32_t bit;
    std::uint32_t (*give)(IpcContext& ipc);
};
constexpr Answer kAnswers[] = {
    {QEL_SEP_INPUT, count_input}, {QEL_SEP_FLOW_CHECK, check_flow},
    {QEL_SEP_LOW_WATER, flow_on}, {QEL_SEP_FLOW_RELAY, relay_flow},
    {QEL_SEP_DESTROYED, go_down}, {QEL_SEP_EP_UPDATE, process_ep_update},
};

std::uint32_t events_of(IpcContext& ipc, std::uint32_t bits) {
    std::uint32_t events = 0;
    for (const Answer& answer : kAnswers)
        if ((bits & answer.bit) != 0) events |= answer.give(ipc);
    return events;
}

// A closing process takes no more events.
bool is_leaving(const IpcContext& ipc) {
    return read_shared(ipc.hdr->state) == ChannelState::destroy_pending &&
           read_shared(own_record(ipc).ep_state) == EndPointState::closed;
}

// The bits that came, or 0. The first look of a wake-up lets others queue the next one.
std::uint32_t take_bits(IpcContext& ipc, bool first) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (first) sep_handler_begins(ipc.sep);
    std::uint32_t bits = sep_next_signals(ipc.sep, own_record(ipc).sep);
    if (trace_level(ipc) > 1)
        ipc_trace(tp, "pid: %d [%x:%d] ipc_dm_handler called flags=0x%x", own_pid(), ipc.hdr->trace_id,
                  ipc.ep, bits);
    return bits;
}

// Looks for more with the context unlocked, as that takes long. The local part is a place of the table, and a
// close leaves the record mapped until the look is over.
bool look_unlocked(LockedIpc& ipc) {
    if (!sep_begin_look(ipc->sep)) return false;
    qel_sep& local = ipc->sep;
    qel_sep_record& record = own_record(*ipc).sep;
    ipc.reset();
    return sep_look_again(local, record);
}

// One round; false when there was nothing to do.
bool handle_signals(qel_ipc_handle handle, bool first) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    LockedIpc ipc{handle};
    if (!ipc) {
        if (first) ipc_trace(tp, "pid: %d ipc_dm_handler: ignore (invalid ipch=0x%x)", own_pid(), handle);
        return false;
    }
    std::uint32_t bits = take_bits(*ipc, first);
    if (is_leaving(*ipc)) return false;
    if (bits == 0) return look_unlocked(ipc);
    std::uint32_t events = events_of(*ipc, bits);
    Invocation invocation = prepare(*ipc);
    ipc.reset();
    invoke_ipc_handler(invocation, events);
    return true;
}

void ipc_local_event_handler(qel_dm_handle, std::uint64_t handle, std::uint64_t events) {
    LockedIpc ipc{static_cast<qel_ipc_handle>(handle)};
    if (!ipc) return;
    Invocation invocation = prepare(*ipc);
    ipc.reset();
    invoke_ipc_handler(invocation, static_cast<std::uint32_t>(events));
}

}  // namespace

void ipc_dm_handler(qel_dm_handle, std::uint64_t ipc, std::uint64_t) {
    auto handle = static_cast<qel_ipc_handle>(ipc);
    bool more = handle_signals(handle, true);
    while (more) more = handle_signals(handle, false);
}

}  // namespace qel

using namespace qel;

cerrno qel_ipc_send_local_event(qel_ipc_ctx* ipc, uint32_t events) {
    if (ipc == nullptr) return fatal(EINVAL);
    if (ipc->handler == nullptr || ipc->dm == 0) return 0;
    int error = qel_dm_execute(ipc->dm, ipc_local_event_handler, ipc->handle, events);
    return error == 0 ? 0 : ipc_error(*ipc, __func__, "qel_dm_execute failed", fatal(error));
}
