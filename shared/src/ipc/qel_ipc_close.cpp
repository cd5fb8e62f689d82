// Closing a channel, and removing a dead one by name.
//
// A client gives back what it holds, removes its ring and tells the server, which frees the record when the
// last of the client's messages has gone. A server ends the channel for all: the clients are told, and every
// name goes. Whose end point has been taken over by another process meanwhile lets go of its own side only.
//
// Invariant: a client's record stays open until its doorbell has stopped, and everything after that happens
// under shm_mutex. So a death in a close leaves a client that can come back, or a told lock held.
// Locks: the context's lock, but for the stop of the doorbell; shm_mutex over the leaving. Threads: any, one
// close a context ('closing').
#include <qel/base.h>

#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

constexpr char kClose[] = "qel_ipc_close";

// A later incarnation of this end point has it now.
bool is_taken_over(const IpcContext& ipc) {
    return read_shared(own_record(ipc).restarts) != ipc.incarnation;
}

void mark_closed(EndPointRecord& record) {
    EndPointState state = read_shared(record.ep_state);
    if (state != EndPointState::open && state != EndPointState::restarted) return;
    write_shared(record.closing, 1);
    write_shared(record.ep_state, EndPointState::closed);
}

// From here on nobody opens the channel; true for the server that ends it.
bool begin_destruction(IpcContext& ipc) {
    if (is_client(ipc)) return false;
    SharedLocked lock{ipc.hdr->shm_mutex};
    if (is_taken_over(ipc)) return false;
    bool first = read_shared(ipc.hdr->state) != ChannelState::destroy_pending;
    write_shared(ipc.hdr->state, ChannelState::destroy_pending);
    mark_closed(own_record(ipc));
    return first;
}

void signal(IpcContext& ipc, std::uint32_t ep, std::uint32_t bits) {
    attach_doorbell(ipc, ep);
    static_cast<void>(qel_sep_signal(&ipc.eps[ep].sep, bits));  // It reports a failure itself.
}

// What the server may have put on the ring before this process ever opened it.
void open_unseen_ring(IpcContext& ipc) {
    if (ipc.eps[ipc.ep].open != 0 || take_shape(ipc) != 0 || open_heap(ipc) != 0) return;
    static_cast<void>(qel_ipc_open_ep(&ipc, ipc.ep));  // Without it there is nothing to give back.
}

void leave_running_channel(IpcContext& ipc) {
    open_unseen_ring(ipc);
    mark_closed(own_record(ipc));
    drain_own_ring(ipc);
    static_cast<void>(qel_shm_unlink(ring_name(ipc.name, ipc.ep).text));  // Gone already is as good.
    write_shared(own_record(ipc).closing, 0);
    signal(ipc, 0, QEL_SEP_EP_UPDATE);
}

// No server has seen the record, so nobody else would free it.
void leave_before_server(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->fc_lock};
    write_shared(own_record(ipc).ep_state, EndPointState::free);
}

void leave_channel(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->shm_mutex};
    if (is_taken_over(ipc)) return;
    ChannelState state = read_shared(ipc.hdr->state);
    if (state == ChannelState::active) return leave_running_channel(ipc);
    if (state == ChannelState::destroy_pending) return mark_closed(own_record(ipc));
    leave_before_server(ipc);
}

void tear_down(IpcContext& ipc) {
    SharedLocked lock{ipc.hdr->shm_mutex};
    for (std::uint32_t ep = 1; ep < kMaxEndPoints; ++ep) signal(ipc, ep, QEL_SEP_DESTROYED);
    write_shared(own_record(ipc).ep_state, EndPointState::free);
    unlink_rings_and_heap(ipc.name);
    if (int error = qel_shm_unlink(ipc.name); error != 0)
        static_cast<void>(ipc_error(ipc, kClose, "qel_shm_unlink failed", fatal(error)));
}

// The rest of a close, with the doorbell silent and the context locked again.
void leave(IpcContext& ipc, bool destroys, bool doorbell_stopped) {
    if (is_client(ipc)) leave_channel(ipc);
    if (destroys) tear_down(ipc);
    let_go(ipc, doorbell_stopped);
}

// The record of a later incarnation has that one's doorbell, which must ring on.
bool silence_doorbell(qel_sep& doorbell, bool taken_over) {
    if (taken_over) doorbell.sep_shm = nullptr;
    return sep_stop(doorbell);
}

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_ipc_close(qel_ipc_handle* handle) {
    qel_check_not_interrupt_path();
    if (handle == nullptr) return EINVAL;
    LockedIpc ipc{*handle};
    if (!ipc) return ipc_error(kClose, "invalid handle", fatal(EINVAL));
    if ((ipc->close_flags & 1) != 0 && ipc->outstanding > 0)
        return ipc_error(*ipc, kClose, "messages outstanding", warning(EBUSY));
    if (ipc->closing != 0) return 0;
    ipc->closing = 1;
    bool destroys = begin_destruction(*ipc);
    qel_ipc_handle own = ipc->handle;
    // Only this call ends the context now, so it stays while its lock is free.
    qel_sep& doorbell = ipc->sep;
    bool taken_over = is_taken_over(*ipc);
    ipc.reset();
    bool stopped = silence_doorbell(doorbell, taken_over);
    LockedIpc again{own};
    if (!again) return ipc_error(kClose, "invalid handle", fatal(EINVAL));
    leave(*again, destroys, stopped);
    *handle = 0;
    return 0;
}

int qel_ipc_cleanup(const char* name) {
    qel_check_not_interrupt_path();
    if (name == nullptr || name[0] == '\0') return EINVAL;
    unlink_rings_and_heap(name);
    return qel_shm_unlink(name);
}
