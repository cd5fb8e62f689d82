// Credit ledger: how many messages of a channel's pool each end point may hold.
//
// Each producer (a client whose record isn't free, and in Ext C/S mode the server) has a quota of credits. A
// message costs its allocator one from its allocation to its free, whoever frees it. Past the quota it is
// paid from the overflow pool. When producers come or go the shares are made anew from what each has out;
// who has more than its new quota uses up the overflow pool and then, in end-point order, what others have
// in reserve.
//
// Invariant, whenever fc_lock is free and the channel is up: over all records that aren't free
//     sum(alloc) + sum(reserved_credits) + ofp_quota - ofp_used == total_msg,
// no producer's alloc + reserved_credits exceeds quota unless its reserve is 0, and ofp_used <= ofp_quota.
//
// Locks: fc_lock guards every field here. Nothing is written, posted or signalled under it: a change collects
// in a FlowNotice what tell_flow() does once it is free.
// Restart: the ledger lives in the segment. An end point that comes back has its account recounted from its
// messages, so a death between credit and message costs at most one credit until then, and never makes one.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "ipc/qel_ipc.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel {
namespace {

std::uint32_t first_producer(const IpcContext& ipc) {
    return ipc.shape.ext_cs ? 0 : 1;
}

// The server counts in Ext C/S mode whatever its state: its record is open as long as there is a channel.
bool is_producer(const IpcContext& ipc, std::uint32_t ep) {
    return ep == 0 || ipc.hdr->eps[ep].ep_state != EndPointState::free;
}

template <class Visit>
void for_each_producer(const IpcContext& ipc, Visit visit) {
    for (std::uint32_t ep = first_producer(ipc); ep < ipc.shape.max_eps; ++ep)
        if (is_producer(ipc, ep)) visit(ipc.hdr->eps[ep]);
}

// Marks and credits are compared as signed numbers: a percentage above 100 puts a mark above the quota.
std::int32_t credits_at(const IpcHeader& header, std::uint16_t mark) {
    return std::int32_t{header.quota} - std::int32_t{mark};
}
std::int32_t credits_of(const EndPointRecord& record) {
    return static_cast<std::int32_t>(std::min(record.reserved_credits, std::uint32_t{0xffff}));
}

LedgerFigures sums_of(const IpcHeader& header) {
    LedgerFigures sums{0, 0, header.ofp_quota, header.ofp_used};
    for (const EndPointRecord& record : header.eps) {
        if (record.ep_state == EndPointState::free) continue;
        sums.alloc += record.alloc;
        sums.reserved += record.reserved_credits;
    }
    return sums;
}

bool balances(const IpcHeader& header, const LedgerFigures& sums) {
    return sums.alloc + sums.reserved + sums.ofp_quota - sums.ofp_used == header.total_msg;
}

void audit_locked(const IpcContext& ipc, FlowNotice& due) {
    const IpcHeader& header = *ipc.hdr;
    if (header.audit_level == 0) [[likely]]
        return;
    if (header.prod_count == 0 || header.state != ChannelState::active) return;
    LedgerFigures sums = sums_of(header);
    if (balances(header, sums)) return;
    due.unbalanced = true;
    due.figures = sums;
}

// Gives each producer what its quota leaves it; the result is how much all are above theirs.
std::uint32_t reset_reserves(const IpcContext& ipc) {
    std::uint32_t over = 0;
    std::uint32_t quota = ipc.hdr->quota;
    for_each_producer(ipc, [&](EndPointRecord& record) {
        record.reserved_credits = record.alloc > quota ? 0 : quota - record.alloc;
        if (record.alloc > quota) over += record.alloc - quota;
    });
    return over;
}

// Takes 'wanted' credits from reserves, in end-point order; gives what could not be had.
std::uint32_t take_from_reserves(const IpcContext& ipc, std::uint32_t wanted) {
    for_each_producer(ipc, [&](EndPointRecord& record) {
        std::uint32_t taken = std::min(wanted, record.reserved_credits);
        record.reserved_credits -= taken;
        wanted -= taken;
    });
    return wanted;
}

std::uint32_t count_producers(const IpcContext& ipc) {
    std::uint32_t count = 0;
    for_each_producer(ipc, [&](EndPointRecord&) { ++count; });
    return count;
}

bool held_by_this_thread(SharedMutex& mutex) {
    return shm_platform::holder_of(*mutex.native()) == static_cast<std::uint32_t>(gettid());
}

// The shared state can't be trusted any more. Ends the process, with the locks let go that would block
// others.
[[noreturn]] void end_process(IpcContext& ipc) QEL_NO_THREAD_SAFETY_ANALYSIS {
    for (SharedMutex* mutex : {&ipc.hdr->fc_lock, &ipc.hdr->shm_mutex})
        if (held_by_this_thread(*mutex)) static_cast<void>(mutex->unlock());  // The end comes either way.
    std::abort();
}

[[noreturn]] void end_for_credit_without_message(IpcContext& ipc, std::uint32_t ep) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    const EndPointRecord& record = ipc.hdr->eps[ep];
    ipc_log(tp, "pid: %d alloc_count=%d, credited_ep=%d, rsv=%d, quota=%d", own_pid(), record.alloc, ep,
            record.reserved_credits, ipc.hdr->quota);
    end_process(ipc);
}

[[noreturn]] void end_for_overflow_without_use(IpcContext& ipc, std::uint32_t ep) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    const EndPointRecord& record = ipc.hdr->eps[ep];
    ipc_log(tp, "pid: %d ofp_used=0. credited_ep=%d, rsv=%d, alloc=%d quota=%d", own_pid(), ep,
            record.reserved_credits, record.alloc, ipc.hdr->quota);
    end_process(ipc);
}

// The first producer that has less than its quota, in end-point order; kMaxEndPoints for none.
std::uint32_t find_starving(const IpcContext& ipc) {
    for (std::uint32_t ep = first_producer(ipc); ep < ipc.shape.max_eps; ++ep) {
        const EndPointRecord& record = ipc.hdr->eps[ep];
        std::uint64_t share = std::uint64_t{record.reserved_credits} + record.alloc;
        if (is_producer(ipc, ep) && share < ipc.hdr->quota) return ep;
    }
    return kMaxEndPoints;
}

// Where the credit of a message that 'ep' had above its quota goes: gives the end point that got it, or 'ep'
// when it went back to the overflow pool.
std::uint32_t return_overflow_locked(IpcContext& ipc, std::uint32_t ep) {
    IpcHeader& header = *ipc.hdr;
    if (header.ofp_used >= header.ofp_quota) {
        if (std::uint32_t starving = find_starving(ipc); starving != kMaxEndPoints) {
            ++header.eps[starving].reserved_credits;
            return starving;
        }
    }
    if (header.ofp_used == 0) [[unlikely]]
        end_for_overflow_without_use(ipc, ep);
    --header.ofp_used;
    return ep;
}

// Flow may come on for 'ep'. A client leaves the mark of another client to its owner, whom the server's relay
// will tell.
void recover_locked(IpcContext& ipc, std::uint32_t ep, FlowNotice& due) {
    EndPointRecord& record = ipc.hdr->eps[ep];
    if (record.restricted == 0) [[likely]]
        return;
    if (credits_of(record) < credits_at(*ipc.hdr, ipc.hdr->lw)) return;
    if (ep == ipc.ep || ep == 0 || !is_client(ipc)) record.restricted = 0;
    if (ep != ipc.ep) {
        due.low_water_ep = ep;
    } else if (ipc.closing == 0) {
        ++record.lw_count;
        due.local_events |= QEL_IPC_EVENT_FLOW_ON;
    }
}

// The credits are asked first: the mark lies on a cache line that every signal to this end point writes.
void restrict_locked(IpcContext& ipc, EndPointRecord& own, FlowNotice& due) {
    if (credits_of(own) > credits_at(*ipc.hdr, ipc.hdr->hw) || own.restricted == 1) [[likely]]
        return;
    own.restricted = 1;
    ++own.hw_count;
    due.local_events |= QEL_IPC_EVENT_FLOW_OFF;
}

void signal_low_water(IpcContext& ipc, std::uint32_t ep, bool holds_shm_mutex) {
    if (ipc.hdr->eps[ep].ep_state != EndPointState::open) return;
    bool relayed = is_client(ipc) && ep != 0;
    std::uint32_t target = relayed ? 0 : ep;
    std::uint32_t bits = relayed ? QEL_SEP_FLOW_RELAY : QEL_SEP_LOW_WATER;
    // One that can't be opened gets no signal: it looks at its marks when it comes back.
    if (ipc.eps[target].open == 0)
        static_cast<void>(holds_shm_mutex ? qel_ipc_open_ep(&ipc, target) : ensure_ep_open(ipc, target));
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (trace_level(ipc) > 1) [[unlikely]]
        ipc_trace(tp, "pid: %d [%x:%d:%d] sending signal flags=0x%x", own_pid(), ipc.hdr->trace_id, ipc.ep,
                  target, bits);
    if (int error = qel_sep_signal(&ipc.eps[target].sep, bits); error != 0)
        static_cast<void>(ipc_error(ipc, target, "send_low_water", "qel_sep_signal failed", fatal(error)));
}

void report_refusal(const IpcContext& ipc, const LedgerFigures& own) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d %s: [%d] flow closed rsv=%d ofp=%d alloc=%d", own_pid(), "qel_ipc_fc_sub_credit",
            ipc.ep, own.reserved, own.ofp_used, own.alloc);
}

void report_imbalance(const IpcContext& ipc, const LedgerFigures& sums) {
    static std::uint32_t core_tp = QEL_DT_TP_UNREGISTERED;
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    if (ipc.hdr->core_dump != 0) ipc_log(core_tp, "Core dump (failed flow control sanity check)");
    ipc_log(tp,
            "pid: %d Failed flow control sanity check: sum_alloc=%d, sum_res=%d, ofp_quota=%d, ofp_used=%d, "
            "total=%d",
            own_pid(), sums.alloc, sums.reserved, sums.ofp_quota, sums.ofp_used, ipc.hdr->total_msg);
}

void report_left_over(std::uint32_t left_over) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d %s: over allocation left=%d", own_pid(), "qel_ipc_fc_recalc", left_over);
}

void report_notice(const IpcContext& ipc, const FlowNotice& due) {
    if (due.unbalanced)
        report_imbalance(ipc, due.figures);
    else if (due.refused)
        report_refusal(ipc, due.figures);
    if (due.left_over != 0) report_left_over(due.left_over);
}

}  // namespace

cerrno charge_locked(IpcContext& ipc, FlowNotice& due) {
    IpcHeader& header = *ipc.hdr;
    EndPointRecord& own = own_record(ipc);
    if (own.reserved_credits > 0) {
        --own.reserved_credits;
        ++own.alloc;
    } else if (header.ofp_used < header.ofp_quota) {
        ++header.ofp_used;
        ++own.alloc;
    } else {
        due.refused = true;
        due.figures = {own.alloc, own.reserved_credits, header.ofp_quota, header.ofp_used};
    }
    restrict_locked(ipc, own, due);
    audit_locked(ipc, due);
    return due.refused ? fatal(ENOMEM) : 0;
}

void credit_locked(IpcContext& ipc, std::uint32_t ep, FlowNotice& due) {
    EndPointRecord& record = ipc.hdr->eps[ep];
    if (record.alloc == 0) [[unlikely]]
        end_for_credit_without_message(ipc, ep);
    --record.alloc;
    std::uint32_t credited = ep;
    if (record.alloc < ipc.hdr->quota) [[likely]]
        ++record.reserved_credits;
    else
        credited = return_overflow_locked(ipc, ep);
    recover_locked(ipc, credited, due);
    audit_locked(ipc, due);
}

void tell_flow(IpcContext& ipc, const FlowNotice& due, bool holds_shm_mutex) {
    if (due.refused || due.unbalanced || due.left_over != 0) [[unlikely]]
        report_notice(ipc, due);
    // An event that can't be queued is reported there; the mark stands, and the next one tells.
    if (due.local_events != 0) static_cast<void>(qel_ipc_send_local_event(&ipc, due.local_events));
    if (due.low_water_ep < ipc.shape.max_eps) signal_low_water(ipc, due.low_water_ep, holds_shm_mutex);
}

void recalc_locked(IpcContext& ipc, FlowNotice& due) {
    IpcHeader& header = *ipc.hdr;
    std::uint32_t total = ipc.shape.total_msg;
    std::uint32_t producers = count_producers(ipc);
    std::uint32_t quota = (total - std::min<std::uint32_t>(header.ofp_pool, total)) / std::max(producers, 1u);
    header.prod_count = static_cast<std::uint16_t>(producers);
    header.quota = static_cast<std::uint16_t>(quota);
    header.ofp_quota = static_cast<std::uint16_t>(total - producers * quota);
    qel_ipc_fc_init_hlw(&header, quota);
    if (producers == 0) return;
    std::uint32_t over = reset_reserves(ipc);
    header.ofp_used = std::min<std::uint32_t>(over, header.ofp_quota);
    due.left_over = take_from_reserves(ipc, over - header.ofp_used);
    audit_locked(ipc, due);
}

void recount_locked(IpcContext& ipc) {
    if (ipc.eps[0].ring == nullptr) return;
    own_record(ipc).alloc = ring_count_charged(*ipc.eps[0].ring, ipc.ep);
    FlowNotice told_by_caller;  // The shares are made again when all is open.
    recalc_locked(ipc, told_by_caller);
}

const char* ledger_check(const IpcHeader& header) {
    if (header.prod_count == 0 || header.state != ChannelState::active) return nullptr;
    if (!balances(header, sums_of(header)))
        return "accounts, reserves and overflow pool don't add up to total_msg";
    if (header.ofp_used > header.ofp_quota) return "more overflow credits out than there are";
    std::uint32_t producers = header.ext_cs != 0 ? 1 : 0;
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep) {
        const EndPointRecord& record = header.eps[ep];
        if (record.ep_state == EndPointState::free) continue;
        if (ep != 0) ++producers;
        if (record.reserved_credits != 0 && record.alloc + record.reserved_credits > header.quota)
            return "an end point has more than its quota in reserve";
    }
    return producers == header.prod_count ? nullptr : "prod_count isn't the number of producers";
}

}  // namespace qel

using namespace qel;

void qel_ipc_fc_init_hlw(qel_ipc_hdr* hdr, uint32_t base) {
    if (hdr == nullptr) return;
    constexpr std::uint64_t kLargest = 0xffff;
    std::uint64_t hw = std::uint64_t{hdr->hw_percent} * base / 100;
    std::uint64_t lw = std::uint64_t{hdr->lw_percent} * base / 100;
    if (hw == lw && hw != base)
        ++hw;
    else if (hw == lw && lw != 0)  // A base of 0 leaves both at 0.
        --lw;
    hdr->hw = static_cast<std::uint16_t>(std::min(hw, kLargest));
    hdr->lw = static_cast<std::uint16_t>(std::min(lw, kLargest));
}

void qel_ipc_fc_recalc(qel_ipc_ctx* ctx) {
    if (ctx == nullptr) return;
    FlowNotice due;
    recalc_locked(*ctx, due);
    report_notice(*ctx, due);
}

cerrno qel_ipc_fc_sub_credit(qel_ipc_ctx* ctx) {
    if (ctx == nullptr) return fatal(EINVAL);
    FlowNotice due;
    cerrno result = 0;
    {
        SharedLocked lock{ctx->hdr->fc_lock};
        if (lock.error() != 0) return fatal(lock.error());
        result = charge_locked(*ctx, due);
    }
    tell_flow(*ctx, due, false);
    return result;
}

void qel_ipc_fc_add_credit(qel_ipc_ctx* ctx, uint32_t ep) {
    if (ctx == nullptr || ep >= ctx->shape.max_eps) return;
    FlowNotice due;
    {
        SharedLocked lock{ctx->hdr->fc_lock};
        if (lock.error() != 0) return;
        credit_locked(*ctx, ep, due);
    }
    tell_flow(*ctx, due, ctx->closing != 0);
}

uint32_t qel_ipc_fc_get_flags(qel_ipc_ctx* ctx) {
    if (ctx == nullptr) return 0;
    const IpcHeader& header = *ctx->hdr;
    EndPointRecord& own = own_record(*ctx);
    std::int32_t credits = credits_of(own);
    if (own.restricted == 1) {
        if (credits < credits_at(header, header.lw)) return 0;
        own.restricted = 0;
        ++own.lw_count;
        return QEL_IPC_EVENT_FLOW_ON;
    }
    if (credits >= credits_at(header, header.hw)) return 0;
    own.restricted = 1;
    ++own.hw_count;
    return QEL_IPC_EVENT_FLOW_OFF;
}
