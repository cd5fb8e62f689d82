// Debug builds ask the invariants of a channel at the end of every call.
//
// The ledger, the end-point table and the rings each state theirs in their file, with one function that
// checks it. Here all of them are called when a context is unlocked, under the locks that keep what they look
// at still; where one of these is held for long, perhaps by the dead, there is no check. A broken invariant
// is a fault of the library, or of whoever writes over the segment: the process ends where it is found.
//
// QEL_SELF_CHECK=off in the environment leaves it out, for programs that write over segments themselves.
// Locks: shm_mutex, then fc_lock. Threads: any. Restart: nothing stays.
#include <cstdlib>
#include <cstring>

#include "ipc/qel_ipc.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kPatienceMs = 5;

bool is_wanted() {
    static const bool wanted = [] {
        const char* setting = std::getenv("QEL_SELF_CHECK");
        return setting == nullptr || std::strcmp(setting, "off") != 0;
    }();
    return wanted;
}

const char* find_broken(IpcContext& ipc) {
    BriefSharedLocked coming_and_going{ipc.hdr->shm_mutex, kPatienceMs};
    if (coming_and_going.error() != 0) return nullptr;
    BriefSharedLocked accounts{ipc.hdr->fc_lock, kPatienceMs};
    if (accounts.error() != 0) return nullptr;
    const char* broken = end_points_check(*ipc.hdr);
    if (broken == nullptr) broken = ledger_check(*ipc.hdr);
    for (const LocalEndPoint& local : ipc.eps)
        if (broken == nullptr && local.ring != nullptr) broken = ring_check(*local.ring, false);
    return broken;
}

}  // namespace

void check_channel(IpcContext& ipc) {
    bool is_up = ipc.shape.total_msg != 0 && read_shared(ipc.hdr->state) == ChannelState::active;
    if (!is_up || !is_wanted()) return;
    const char* broken = find_broken(ipc);
    if (broken == nullptr) return;
    static_cast<void>(ipc_error(ipc, "self-check", broken, fatal(EFAULT)));
    std::abort();
}

}  // namespace qel
