// A channel as this process has opened it: the context behind an IPC handle, and what the files of messaging
// call of one another.
//
// Locks, outer first: the context's lock, the channel's shm_mutex, its fc_lock, and as leaves the rings'
// mutexes, the signal records' mutexes and the heap's lock.
#pragma once

#include <qel/hash.h>

#include <cstdint>
#include <ctime>

#include "core/qel_codes.hpp"
#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "ipc/qel_ipc_layout.hpp"
#include "ipc/qel_ring.hpp"
#include "ipc/qel_sep.hpp"
#include "shm/qel_mem_safe_shm.hpp"
#include "shm/qel_mem_vchunk.hpp"

namespace qel {

// What a thread finds on its list of connection events, and what an open end point's handle stands for.
struct EndPointHandle {
    qel_dqueue link;
    qel_ipc_ep_handle handle;
    std::uint32_t ep;
    std::uint64_t app_id[2];
    std::uint32_t event;
};

// An end point that this process has touched.
struct LocalEndPoint {
    std::uint8_t open;
    std::uint32_t seen_restarts;
    qel_ring* ring;
    qel_sep_record* sep;
    EndPointHandle* ep_hdl;
    EndPointRecord* shm_ep;
};

// A staged reply of this process: the message keeps its address, but only this entry is believed.
struct StagedReply {
    std::uint32_t msg_handle;  // of the message as it was
    std::uint32_t size;        // bytes at 'data'
    void* data;                // named memory; null for an unused entry
};

// What the header says of the channel's sizes, checked when the channel came up and never read from there
// again.
struct ChannelShape {
    std::uint32_t total_msg;
    std::uint32_t msg_size;
    std::uint32_t heap_size;
    std::uint32_t max_eps;
    bool ext_cs;
};

}  // namespace qel

struct qel_ipc_ctx {
    qel::Mutex lock;  // initialised once for each place of the table, and never destroyed
    qel_ipc_handle handle;
    std::uint32_t role;
    std::uint32_t msg_mode;
    qel::Mapping shm;
    qel_ipc_hdr* hdr;
    qel_dm_handle dm;
    qel_ipc_handler handler;
    void* handler_ctx;
    qel_sep sep;
    std::uint32_t ep;
    std::uint32_t closing;
    std::uint16_t ep_serial;
    qel::LocalEndPoint eps[qel::kMaxEndPoints];
    qel_mem_vchunk_pool heap;
    qel_hashset* sync_hash;
    std::uint32_t close_flags;
    std::int32_t outstanding;
    // Not part of the told order:
    qel::ChannelShape shape;    // all zero until the channel is up
    char name[qel::kNameSize];  // in full; the header keeps the first 31 characters
    std::uint32_t incarnation;  // 'restarts' of the own record when it was taken; another number: taken over
    bool ready;                 // the application has been or is being told that the channel is up
    qel::StagedReply* staged;   // by message number, made when the first reply is staged; named memory
};

namespace qel {

using IpcContext = ::qel_ipc_ctx;
using IpcHeader = ::qel_ipc_hdr;

// Holds a context locked: the frame of every call on a handle. False for a handle that is none.
class LockedIpc {
  public:
    explicit LockedIpc(qel_ipc_handle handle) : ipc_(qel_lock_ipc_from_handle(handle)) {}
    explicit LockedIpc(IpcContext* locked) : ipc_(locked) {}
    LockedIpc(const LockedIpc&) = delete;
    LockedIpc& operator=(const LockedIpc&) = delete;
    ~LockedIpc() { reset(); }
    explicit operator bool() const { return ipc_ != nullptr; }
    IpcContext& operator*() const { return *ipc_; }
    IpcContext* operator->() const { return ipc_; }
    void reset() {
        if (ipc_ != nullptr) qel_ipc_unlock(ipc_);
        ipc_ = nullptr;
    }

  private:
    IpcContext* ipc_;
};

// Guards of a process's own mutexes, and of the channel's shared ones, where a long wait is reported once
// (qel_ipc_report.cpp).
struct IpcMutexFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
};
struct IpcLockFailures : IpcMutexFailures {
    static void waited_long(const LongWait& wait);
};
using IpcLocked = BasicLocked<IpcMutexFailures>;
using SharedLocked = BasicSharedLocked<IpcLockFailures>;

// --- qel_ipc_ep.cpp: the end-point table

// Opens end point 'ep' locally if it isn't, under shm_mutex, which the caller doesn't hold; 0 with its ring
// open.
cerrno ensure_ep_open(IpcContext& ipc, std::uint32_t ep);
inline bool is_client(const IpcContext& ipc) {
    return ipc.role == QEL_IPC_ROLE_CLIENT;
}
// The size of the end-point table in use, all of it while the channel isn't up.
inline std::uint32_t end_point_limit(const IpcContext& ipc) {
    return ipc.shape.max_eps != 0 ? ipc.shape.max_eps : kMaxEndPoints;
}
inline EndPointRecord& own_record(const IpcContext& ipc) {
    return ipc.hdr->eps[ipc.ep];
}
// The table's invariant, stated in the file. Null, or what is broken.
const char* end_points_check(const IpcHeader& header);

// --- qel_ipc_fc.cpp: the credit ledger

// An account as a report shows it.
struct LedgerFigures {
    std::uint32_t alloc = 0;
    std::uint32_t reserved = 0;
    std::uint32_t ofp_quota = 0;
    std::uint32_t ofp_used = 0;
};
// What a change of the ledger makes due once fc_lock is free: what to post and signal, and the lines to
// write.
struct FlowNotice {
    std::uint32_t local_events = 0;              // to post to the own application
    std::uint32_t low_water_ep = kMaxEndPoints;  // who may send again; kMaxEndPoints for nobody
    bool refused = false;                        // 'figures' are those of the own end point
    bool unbalanced = false;                     // 'figures' are sums over all end points
    std::uint32_t left_over = 0;                 // messages above all shares, beyond what could be covered
    LedgerFigures figures;
};
// Takes a credit of the own end point; 0 or fatal(ENOMEM). fc_lock is held.
cerrno charge_locked(IpcContext& ipc, FlowNotice& due);
// Gives the credit of a message that 'ep' allocated back. fc_lock is held.
void credit_locked(IpcContext& ipc, std::uint32_t ep, FlowNotice& due);
// Posts and signals what is due; fc_lock is free. 'holds_shm_mutex' says whether the caller has that.
void tell_flow(IpcContext& ipc, const FlowNotice& due, bool holds_shm_mutex);
// Shares the pool out among the producers there are now. fc_lock is held.
void recalc_locked(IpcContext& ipc, FlowNotice& due);
// By an end point that comes back, fc_lock held: its account is what its messages are, whatever a death left
// written, and the shares follow.
void recount_locked(IpcContext& ipc);
// The ledger's invariant, stated in the file. Null, or what is broken.
const char* ledger_check(const IpcHeader& header);

// --- qel_ipc_msg_data.cpp: the data of messages

// Frees the request's and the reply's data, chunks and what this process has staged, and clears their fields.
void release_msg_heap(IpcContext& ipc, qel_ring_msg& message);
void free_staged_replies(IpcContext& ipc);

// --- qel_ipc_msg_free.cpp: the end of messages

// Disposes of a message that the own end point holds Allocated or Consumed: data, slot, pool and credit. The
// message goes to the pool and its credit back under one hold of fc_lock, so that nobody ever sees one
// without the other. In a server it frees the allocator's record with the last message of one that closed.
void dispose_held(IpcContext& ipc, qel_ring_msg& message, bool holds_shm_mutex);
// Frees the record of an end point that has closed and has no message left: true if it did. fc_lock is held;
// the caller then recalculates and, with the locks free, tells the end point freed and signals all clients.
bool free_closed_record_locked(IpcContext& ipc, std::uint32_t ep);
void report_record_freed(const IpcContext& ipc, std::uint32_t ep);

// --- qel_ipc_sync.cpp: the set of waiting synchronous senders

// A time from now on the clock that condition variables go by, without a shift that an application may have
// set for the timers.
timespec condition_deadline(std::uint32_t timeout_ms);
cerrno make_sync_hash(IpcContext& ipc);
// An end point may have come back and disposed of the requests that its former life had received: releases
// senders whose message is no more with fatal(EPIPE), as no answer will come.
void release_reclaimed_senders(IpcContext& ipc);
// Releases everybody who waits with fatal(EPIPE) and frees the set. The context is locked and its handle
// still stands: who times out meanwhile must find the lock taken.
void free_sync_hash(IpcContext& ipc);

// --- qel_ipc_event.cpp: from a signal to the application's handler

void ipc_dm_handler(qel_dm_handle dm, std::uint64_t ipc, std::uint64_t modifier);

// --- qel_ipc_check.cpp: the invariants, asked by debug builds

// Ends the process if one is broken. The context's lock is held, and no lock of the channel.
void check_channel(IpcContext& ipc);

// --- qel_ipc_report.cpp: the lines of messaging

// "pid: %d [%x:%d:%d] ERROR: %s: %s err=%d" and its shorter forms, to the error buffer and on qel_ipc_err_df.
// Each gives 'code' back, so that a failing site is one line:
//     return ipc_error(ipc, __func__, "destroy pending", fatal(EPIPE));
// 'function' is the exported call's name. None is made with a shared mutex held where that can be helped.
cerrno ipc_error(const char* function, const char* text, cerrno code);
cerrno ipc_error(const IpcContext& ipc, const char* function, const char* text, cerrno code);
cerrno ipc_error(const IpcContext& ipc, std::uint32_t peer, const char* function, const char* text,
                 cerrno code);

// Message traces: one load of a shared byte while they are off.
inline std::uint8_t trace_level(const IpcContext& ipc) {
    return __atomic_load_n(&ipc.hdr->trace_level, __ATOMIC_RELAXED);
}
// A line of "qel_ipc_traces" and of qel_ipc_trace_df; 'tp' is the site's trace point word, so each site has
// its own:
//     static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
//     if (trace_level(ipc) > 0) [[unlikely]] ipc_trace(tp, "pid: %d [%x:%d] qel_ipc_receive msgh=0x%x", ...);
void ipc_trace(std::uint32_t& tp, const char* format, ...) QEL_PRINTF(2, 3);
// A line of the error buffer of another form.
void ipc_log(std::uint32_t& tp, const char* format, ...) QEL_PRINTF(2, 3);

int own_pid();

}  // namespace qel
