// Contexts: the channels that this process has open, and the handles that stand for them.
//
// A handle is a serial and a place of the table. A call looks at the place's handle, locks, and looks again:
// a close may have let the channel go while the call waited, and the place may serve another channel since.
//
// Invariant: a context with a handle belongs to the call that opens or closes it, or to whoever holds its
// lock; one without belongs to nobody. Contexts, their locks and the local parts of their doorbells are made
// once and never given back: a late caller finds a lock that works and then a handle that isn't its own, a
// doorbell's thread that outlives its channel one whose generation isn't its own.
// Locks: ipc_array_mutex guards the table, who has which place, and the places' names and own end points as
// other contexts see them. It stands alone, but for a client that opens, which takes it under shm_mutex.
#include "ipc/qel_ipc.hpp"

#include <qel/base.h>

#include <cstring>
#include <new>
#include <span>

#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

using ContextTable = std::span<IpcContext, kMaxContexts>;

struct Contexts {
    Mutex ipc_array_mutex;
    std::atomic<IpcContext*> qel_ipc_array{nullptr};  // written once
    std::uint16_t ipc_serial QEL_GUARDED_BY(ipc_array_mutex) = 0;
};

constinit Contexts contexts;

IpcContext* make_table() {
    void* memory = qel_named_calloc_(kMaxContexts, sizeof(IpcContext), qel_tag_e_get_string(QEL_MEM_IPC), 0);
    Undo give_back{[&] { qel_named_free(memory); }};
    auto* table = static_cast<IpcContext*>(memory);
    for (std::uint32_t i = 0; memory != nullptr && i < kMaxContexts; ++i) {
        new (&table[i]) IpcContext{};
        if (qel_sep_init_once(&table[i].sep) != 0) return nullptr;
    }
    give_back.keep();
    return table;
}

ContextTable table() {
    return ContextTable{contexts.qel_ipc_array.load(std::memory_order_acquire), kMaxContexts};
}

// The context at a handle's place, whoever has it now; null for a number that no handle has.
IpcContext* place_of(qel_ipc_handle handle) {
    std::uint32_t index = handle & 0xffff;
    IpcContext* first = contexts.qel_ipc_array.load(std::memory_order_acquire);
    return handle == 0 || first == nullptr || index >= kMaxContexts ? nullptr : first + index;
}

IpcContext* find_free_place() {
    for (IpcContext& ipc : table())
        if (read_shared(ipc.handle) == 0) return &ipc;
    return nullptr;
}

bool same_channel(const IpcContext& one, const IpcContext& other) {
    return std::strncmp(one.name, other.name, kNameSize) == 0;
}

}  // namespace

bool make_contexts() {
    IpcLocked lock{contexts.ipc_array_mutex};
    if (contexts.qel_ipc_array.load(std::memory_order_relaxed) == nullptr)
        contexts.qel_ipc_array.store(make_table(), std::memory_order_release);
    return contexts.qel_ipc_array.load(std::memory_order_relaxed) != nullptr;
}

qel_ipc_handle claim_context(const char* name) {
    IpcLocked lock{contexts.ipc_array_mutex};
    IpcContext* ipc = find_free_place();
    if (ipc == nullptr) return 0;
    std::strncpy(ipc->name, name, kNameSize - 1);
    ipc->ep = kMaxEndPoints;
    if (++contexts.ipc_serial == 0) ++contexts.ipc_serial;
    auto index = static_cast<std::uint32_t>(ipc - table().data());
    write_shared(ipc->handle, std::uint32_t{contexts.ipc_serial} << 16 | index);
    return ipc->handle;
}

void release_context(IpcContext& ipc) {
    IpcLocked lock{contexts.ipc_array_mutex};
    ipc.role = ipc.msg_mode = ipc.ep = ipc.closing = ipc.close_flags = ipc.incarnation = 0;
    ipc.hdr = nullptr;
    ipc.dm = 0;
    ipc.handler = nullptr;
    ipc.handler_ctx = nullptr;
    ipc.ep_serial = 0;
    ipc.outstanding = 0;
    ipc.shape = {};
    ipc.ready = false;
    std::memset(ipc.name, 0, sizeof ipc.name);
    write_shared(ipc.handle, 0);
}

void set_own_ep(IpcContext& ipc, std::uint32_t ep) {
    IpcLocked lock{contexts.ipc_array_mutex};
    ipc.ep = ep;
}

bool open_elsewhere(const IpcContext& ipc, std::uint32_t ep) {
    IpcLocked lock{contexts.ipc_array_mutex};
    for (const IpcContext& other : table())
        if (&other != &ipc && read_shared(other.handle) != 0 && other.ep == ep && same_channel(other, ipc))
            return true;
    return false;
}

}  // namespace qel

using namespace qel;

qel_ipc_ctx* qel_lock_ipc_from_handle(qel_ipc_handle handle) QEL_NO_THREAD_SAFETY_ANALYSIS {
    IpcContext* ipc = place_of(handle);
    if (ipc == nullptr || read_shared(ipc->handle) != handle) return nullptr;
    if (int error = ipc->lock.lock(); error != 0) {
        IpcMutexFailures::lock_failed(error);
        return nullptr;
    }
    if (read_shared(ipc->handle) == handle) return ipc;
    qel_ipc_unlock(ipc);
    return nullptr;
}

void qel_ipc_unlock(qel_ipc_ctx* ipc) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (ipc == nullptr) return;
#if defined(QEL_SELF_CHECK)
    check_channel(*ipc);
#endif
    if (int error = ipc->lock.unlock(); error != 0) IpcMutexFailures::unlock_failed(error);
}

cerrno qel_ipc_attr_init(qel_ipc_attr* attr, uint32_t role) {
    qel_check_not_interrupt_path();
    if (attr == nullptr) return fatal(EINVAL);
    *attr = {};
    attr->msg_mode = 1;
    attr->attr_kind = 1;
    attr->role = role;
    attr->max_clients = 1;
    attr->max_msg_count = 128;
    attr->low_water_percent = 30;
    attr->high_water_percent = 70;
    attr->max_msg_size = 128;
    attr->attr_spare = 8;
    return 0;
}

cerrno qel_ipc_attr_is_valid(const qel_ipc_attr* attr) {
    qel_check_not_interrupt_path();
    if (attr == nullptr) return fatal(EINVAL);
    bool valid = attr->msg_mode >= 1 && attr->msg_mode <= 3 && attr->attr_kind <= 2 &&
                 attr->role <= QEL_IPC_ROLE_SERVER && attr->close_flags <= 1;
    return valid ? 0 : fatal(EINVAL);
}

cerrno qel_ipc_send_attr_init(qel_ipc_send_attr* attr) {
    qel_check_not_interrupt_path();
    if (attr == nullptr) return fatal(EINVAL);
    *attr = {};
    return 0;
}
