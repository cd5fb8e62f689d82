// What the files of a channel's life call of one another.
//
// qel_ipc.cpp             contexts, handles, attributes
// qel_ipc_attach.cpp      the control block and the channel's sizes
// qel_ipc_open.cpp        opening as server or client, reclaim and replay
// qel_ipc_ep.cpp          end points of this process, and the table's invariant
// qel_ipc_update.cpp      what a change of the table means for this process
// qel_ipc_connection.cpp  the threads' lists of connection events
// qel_ipc_event.cpp       from a signal to the application's handler
// qel_ipc_close.cpp       closing, and removal by name
#pragma once

#include "ipc/qel_ipc.hpp"
#include "ipc/qel_sep.hpp"

namespace qel {

// --- qel_ipc.cpp

// Makes the table of contexts unless that is done; false without memory.
bool make_contexts();
// Takes a free context for the channel 'name' and gives it a handle; 0 when all are taken.
qel_ipc_handle claim_context(const char* name);
// Makes a context free again, with nothing of the channel left in it. It stays locked, for the caller to
// unlock.
void release_context(IpcContext& ipc);
// Notes the own end point, for open_elsewhere() of other threads.
void set_own_ep(IpcContext& ipc, std::uint32_t ep);
// Whether another context of this process has the end point of the same channel.
bool open_elsewhere(const IpcContext& ipc, std::uint32_t ep);

// --- qel_ipc_attach.cpp

// The name of a segment beside N, built from the first 31 characters of N.
struct SegmentName {
    char text[kNameInUse + sizeof ".heap"];
};
SegmentName ring_name(const char* channel, std::uint32_t ep);
SegmentName heap_name(const char* channel);
// Removes what stands under the channel's names beside N.
void unlink_rings_and_heap(const char* channel);

// Maps the control block, and makes it what 'created' says.
cerrno attach_control_block(IpcContext& ipc, const qel_ipc_attr& attr, bool& created);
// The header's sizes, or fatal(EINVAL) for such as no server writes.
cerrno read_shape(const IpcHeader& header, ChannelShape& out);
// Of a channel that is up: takes its sizes over, once.
cerrno take_shape(IpcContext& ipc);
// Opens the heap, if the channel has one and it isn't open. One that isn't there is not made: the channel is
// being destroyed then, and what is made now would stay.
cerrno open_heap(IpcContext& ipc);
// The same by the server that brings the channel up, which makes the heap.
cerrno make_heap(IpcContext& ipc);

// --- qel_ipc_ep.cpp; shm_mutex is held

// Opens one end point and no other.
cerrno open_ep(IpcContext& ipc, std::uint32_t ep);
// Maps one end point's ring, by the channel's own name and sizes, unless it is. Ring 0 is the server's to
// make.
cerrno ensure_ring(IpcContext& ipc, std::uint32_t ep);
// Maps ring 0, if it is there, ahead of open_ep(), which then has less to do under shm_mutex. It need not be
// held here.
void map_pool_ring(IpcContext& ipc);
void attach_doorbell(IpcContext& ipc, std::uint32_t ep);
// Closes ring and attachment; the handle record stays.
void detach_ep(IpcContext& ipc, std::uint32_t ep);
void close_all_eps(IpcContext& ipc);

// --- qel_ipc_open.cpp

// Empties the own ring, which is frozen for good, and gives back what the own end point holds otherwise.
void drain_own_ring(IpcContext& ipc);
// Lets go of all that a context holds in this process; shared memory stays as it is. The context is free
// then, and stays locked for the caller to unlock.
void let_go(IpcContext& ipc, bool doorbell_stopped);

// --- qel_ipc_update.cpp

// The events that an update of the table makes due, with the connection events on the calling thread's list.
std::uint32_t process_ep_update(IpcContext& ipc);
// Whether the own ring has messages to deliver, or to give back.
bool has_waiting_input(const IpcContext& ipc);
// Frees the records of closed end points whose last message has gone.
void cleanup_end_points(IpcContext& ipc);

// --- qel_ipc_connection.cpp

// Makes the key of the lists, once.
cerrno make_connection_lists();
// Puts a copy of the record, or the record itself, on the calling thread's list.
void tell_connection(const EndPointHandle& record, std::uint32_t event);
void tell_last_connection(EndPointHandle* record, std::uint32_t event);
// Frees what the calling thread has listed.
void forget_connections();
// An entry of the calling thread's list, or null.
const EndPointHandle* find_connection(qel_ipc_ep_handle handle);

}  // namespace qel
