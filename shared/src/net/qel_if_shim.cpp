// The table of interface shims, and a client's records of them.
//
// A shim's registration is copied into its slot. A client that binds gets, for each shim that is there, a
// record with the handlers and an information record; from then on the table isn't asked for it again, so a
// slot that is freed or filled later doesn't reach the client. What a process may see without the lock is
// whether a slot is taken.
//
// The first failure of a registration stays and fails all binds: a process with a broken shim must not run
// with half of its shims.
//
// Locks: 'fs.mutex' guards the table; no shim is called under it. Threads: any. Restart: nothing stays.
#include <qel/base.h>
#include <qel/if_layer.h>
#include <qel/if_shim.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/qel_owned.hpp"
#include "net/qel_if.hpp"
#include "net/qel_if_lnx.hpp"

namespace qel::interfaces {
namespace {

using Registered = qel_if_shim_registration;

constexpr char kMutexName[] = "fs.mutex";

struct ReportedLockFailures {
    static void lock_failed(int error) {
        report<"IFERROR060", "ERROR: %s: mutex %s lock failed, '%s'">(kMutexName, std::strerror(error));
    }
    static void unlock_failed(int error) {
        report<"IFERROR061", "ERROR: %s: mutex %s unlock failed, '%s'">(kMutexName, std::strerror(error));
    }
};
using TableLocked = BasicLocked<ReportedLockFailures>;

struct ShimTable {
    Mutex mutex;
    std::atomic<cerrno> reg_error{0};
    std::atomic<std::uint32_t> count{0};
    cerrno slot_error[QEL_IF_SHIM_SLOTS] QEL_GUARDED_BY(mutex){};
    std::atomic<Registered*> slots[QEL_IF_SHIM_SLOTS]{};  // what they point to is guarded by 'mutex'
};
constinit ShimTable fs;

bool is_valid_ifmgr_id(std::uint32_t id) {
    return id < QEL_IF_SHIM_SLOTS;
}

// --- Registration

bool has_mandatory_handlers(const qel_if_shim_handlers& handlers) {
    return handlers.bind != nullptr && handlers.destroy != nullptr && handlers.get_attr != nullptr &&
           handlers.register_callbacks != nullptr && handlers.deregister_callbacks != nullptr;
}

bool has_whole_iterator(const qel_if_shim_handlers& handlers) {
    const bool starts = handlers.group_iterator_start != nullptr;
    return starts == (handlers.group_iterator_get_next != nullptr) &&
           starts == (handlers.group_iterator_end != nullptr);
}

cerrno check_reg_vector(const Registered& shim) {
    cerrno error = 0;
    if (!has_mandatory_handlers(shim.handlers))
        error = unexpected_shim_code<"IFERROR062">(shim.id, fatal(EINVAL));
    if (!has_whole_iterator(shim.handlers))
        error = unexpected_shim_code<"IFERROR063">(shim.id, fatal(EINVAL));
    return error;
}

cerrno check_registration_locked(const Registered& shim) QEL_REQUIRES(fs.mutex) {
    if (!is_valid_ifmgr_id(shim.id)) return fatal(ERANGE);
    if (fs.count.load() >= QEL_IF_SHIM_SLOTS) return fatal(ENOSPC);
    if (fs.slots[shim.id].load() != nullptr) return fatal(EEXIST);
    if (shim.name == nullptr || shim.name[0] == '\0') return fatal(EINVAL);
    return check_reg_vector(shim);
}

cerrno store_locked(const Registered& shim) QEL_REQUIRES(fs.mutex) {
    Owned<Registered> copy = allocate_zeroed<Registered>(QEL_MEM_INTF);
    if (!copy) return fatal(ENOMEM);
    *copy = shim;
    fs.slots[shim.id].store(copy.release());
    fs.count.fetch_add(1);
    return 0;
}

cerrno register_locked(const Registered& shim) QEL_REQUIRES(fs.mutex) {
    cerrno error = check_registration_locked(shim);
    if (error == 0) error = store_locked(shim);
    if (error == 0) return 0;
    if (fs.reg_error.load() == 0) fs.reg_error.store(error);
    if (is_valid_ifmgr_id(shim.id)) fs.slot_error[shim.id] = error;
    return unexpected_shim_code<"IFERROR064">(shim.id, error);
}

cerrno deregister(std::uint32_t id) {
    if (!is_valid_ifmgr_id(id)) return unexpected_shim_code<"IFERROR065">(id, fatal(ERANGE));
    TableLocked lock{fs.mutex};
    Owned<Registered> shim{fs.slots[id].exchange(nullptr)};
    if (!shim) return unexpected_shim_code<"IFERROR066">(id, fatal(ENOENT));
    fs.count.fetch_sub(1);
    return 0;
}

// --- A client's records

// A client's record of a shim, with the information that it owns, off the slot if that is taken; 'error' says
// why it is nothing.
Owned<qel_if_shim_client> init_ctx(const Client& client, std::uint32_t id, cerrno& error) {
    Owned<qel_if_shim_info> info = allocate_zeroed<qel_if_shim_info>(QEL_MEM_INTF);
    Owned<qel_if_shim_client> record = allocate_zeroed<qel_if_shim_client>(QEL_MEM_INTF);
    error = info && record ? 0 : fatal(ENOMEM);
    if (error != 0) return {};
    {
        TableLocked lock{fs.mutex};
        const Registered* shim = fs.slots[id].load();
        if (shim == nullptr) return {};
        record->handlers = shim->handlers;
        record->flags = shim->flags;
    }
    *info = {client.name,
             client.handle,
             id,
             client.attr.scope,
             client.attr.qdm,
             app_id_pool.count(),
             static_cast<std::uint8_t>(client.attr.bind_status_cb != nullptr)};
    record->magic = kShimMagic;
    record->id = id;
    record->info = info.release();
    return record;
}

// Frees a client's record of a shim.
void free_ctx(Owned<qel_if_shim_client> record) {
    Owned<qel_if_shim_info> info{record->info};
    record->magic = 0;
}

cerrno bind_shim(Client& client, std::uint32_t id) {
    cerrno error = 0;
    Owned<qel_if_shim_client> record = init_ctx(client, id, error);
    if (!record) return error == 0 ? 0 : no_memory<"IFERROR067">();
    const cerrno result = record->handlers.bind(record->info);
    if (result == 0 || result == warning(EAGAIN)) {
        client.shim_ctx[id].store(record.release());
        return result;
    }
    free_ctx(std::move(record));
    return unexpected_shim_code<"IFERROR068">(id, result);
}

// --- A registration's records

// A shim's record of a registration, with room for all events behind it; nothing without memory.
Owned<qel_if_shim_reg> init_reg_ctx(const Registration& registration) {
    constexpr std::size_t kRoom = sizeof(qel_if_shim_reg) + QEL_IF_EVENT_COUNT * sizeof(std::uint32_t);
    Owned<qel_if_shim_reg> record{
        reinterpret_cast<qel_if_shim_reg*>(allocate_zeroed<std::byte>(QEL_MEM_INTF, kRoom).release())};
    if (!record) return record;
    auto* cbids = reinterpret_cast<std::uint32_t*>(record.get() + 1);
    record->reg_handle = registration.handle;
    record->has_created_cb = registration.vector.created != nullptr;
    record->has_deleted_cb = registration.vector.deleted != nullptr;
    for (std::uint32_t cbid = 2; cbid < QEL_IF_EVENT_COUNT; ++cbid)
        if (qel_if_event_get_callback(&registration.vector, cbid) != nullptr)
            cbids[record->num_cbids++] = cbid;
    record->cbids = cbids;
    record->filter = registration.filter;
    record->cookie = registration.cookie;
    record->num_regs = reg_id_pool.count();
    return record;
}

cerrno register_at_shim(const qel_if_shim_client& shim, Registration& registration) {
    Owned<qel_if_shim_reg> record = init_reg_ctx(registration);
    if (!record) return no_memory<"IFERROR069">();
    const cerrno error = shim.handlers.register_callbacks(shim.info, record.get());
    if (error != 0) return unexpected_shim_code<"IFERROR070">(shim.id, error);
    registration.shim_reg[shim.id] = record.release();
    return 0;
}

}  // namespace

cerrno register_shims() {
    if (const cerrno error = fs.reg_error.load(); error != 0) return unexpected_code<"IFERROR071">(error);
    TableLocked lock{fs.mutex};
    return fs.slots[0].load() != nullptr ? 0 : register_locked(lnx_registration());
}

void deregister_shims() {
    if (has_shim(0)) static_cast<void>(deregister(0));  // reported there
}

bool has_shim(std::uint32_t id) {
    return fs.slots[id].load(std::memory_order_relaxed) != nullptr;
}

cerrno bind_shims(Client& client) {
    if (const cerrno error = fs.reg_error.load(); error != 0) return unexpected_code<"IFERROR072">(error);
    if (!has_shim(0))
        if (const cerrno error = register_shims(); error != 0) return error;
    if (fs.count.load() == 0) return unexpected_code<"IFERROR073">(fatal(EAGAIN));
    cerrno result = 0;
    for (std::uint32_t id = 0; id < QEL_IF_SHIM_SLOTS; ++id) {
        if (!has_shim(id)) continue;
        result = bind_shim(client, id);
        if (result != 0 && result != warning(EAGAIN)) return result;
    }
    return result;
}

void destroy_shims(Client& client) {
    for (std::atomic<qel_if_shim_client*>& place : client.shim_ctx) {
        Owned<qel_if_shim_client> shim{place.exchange(nullptr)};
        if (!shim) continue;
        if (const cerrno error = shim->handlers.destroy(shim->info); error != 0)
            static_cast<void>(
                unexpected_shim_code<"IFERROR074">(shim->id, error));  // it is over all the same
        free_ctx(std::move(shim));
    }
}

cerrno register_at_shims(Client& client, Registration& registration) {
    const std::uint64_t ifh = registration.filter->ifh;
    if (ifh != QEL_IF_HANDLE_ANY) {
        const qel_if_shim_client* shim = client.shim_ctx[shim_of(ifh)];
        if (shim == nullptr) return unexpected_shim_code<"IFERROR075">(shim_of(ifh), fatal(EINVAL));
        return register_at_shim(*shim, registration);
    }
    for (const qel_if_shim_client* shim : client.shim_ctx) {
        if (shim == nullptr) continue;
        const cerrno error = register_at_shim(*shim, registration);
        if (error == 0) continue;
        static_cast<void>(deregister_at_shims(client, registration));  // reported there
        return error;
    }
    return 0;
}

cerrno deregister_at_shims(Client& client, Registration& registration) {
    cerrno first = 0;
    for (std::uint32_t id = 0; id < QEL_IF_SHIM_SLOTS; ++id) {
        Owned<qel_if_shim_reg> record{std::exchange(registration.shim_reg[id], nullptr)};
        if (!record) continue;
        const qel_if_shim_client& shim = *client.shim_ctx[id].load();
        const cerrno error = shim.handlers.deregister_callbacks(shim.info, record.get());
        if (error != 0) static_cast<void>(unexpected_shim_code<"IFERROR076">(id, error));  // returned
        if (first == 0) first = error;
    }
    return first;
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

cerrno qel_if_shim_registration_init(qel_if_shim_registration* registration) {
    qel_check_not_interrupt_path();
    if (registration == nullptr) return invalid_arguments<"IFERROR077">();
    *registration = {};
    return 0;
}

cerrno qel_if_shim_register(const qel_if_shim_registration* registration) {
    qel_check_not_interrupt_path();
    if (registration == nullptr) return invalid_arguments<"IFERROR078">();
    TableLocked lock{fs.mutex};
    return register_locked(*registration);
}

cerrno qel_if_shim_deregister(uint32_t id) {
    qel_check_not_interrupt_path();
    return deregister(id);
}

uint32_t qel_if_get_num_shim_reg(void) {
    qel_check_not_interrupt_path();
    return fs.count.load();
}

void qel_if_clear_shim_reg_error(void) {
    qel_check_not_interrupt_path();
    fs.reg_error.store(0);
}

// The caller gives the copy to free(), so it doesn't come from named memory.
qel_if_shim_table* qel_if_backup_shim_reg(void) {
    qel_check_not_interrupt_path();
    auto* table = static_cast<qel_if_shim_table*>(std::calloc(1, sizeof(qel_if_shim_table)));
    if (table == nullptr) return nullptr;
    TableLocked lock{fs.mutex};
    table->reg_error = fs.reg_error.load();
    table->count = fs.count.load();
    for (std::uint32_t id = 0; id < QEL_IF_SHIM_SLOTS; ++id) {
        table->slot_error[id] = fs.slot_error[id];
        table->slots[id] = fs.slots[id].load();
    }
    return table;
}

void qel_if_restore_shim_reg(const qel_if_shim_table* table) {
    qel_check_not_interrupt_path();
    if (table == nullptr) return;
    TableLocked lock{fs.mutex};
    fs.reg_error.store(table->reg_error);
    fs.count.store(table->count);
    for (std::uint32_t id = 0; id < QEL_IF_SHIM_SLOTS; ++id) {
        fs.slot_error[id] = table->slot_error[id];
        fs.slots[id].store(table->slots[id]);
    }
}

void qel_if_clear_shim_reg(void) {
    constexpr qel_if_shim_table kEmpty{};
    qel_if_restore_shim_reg(&kEmpty);
}

cerrno qel_if_shim_get_ifmgr_id(uint64_t ifh, uint32_t* id) {
    const std::uint32_t shim = shim_of(ifh);
    if (!has_shim(shim)) return fatal(ENOENT);
    *id = shim;
    return 0;
}

cerrno qel_if_shim_hdl_to_native_handle(uint64_t ifh, uint64_t* native) {
    qel_check_not_interrupt_path();
    if (ifh == 0) return invalid_interface<"IFERROR079">(ifh);
    if (native == nullptr) return invalid_arguments<"IFERROR080">();
    const std::uint32_t id = shim_of(ifh);
    decltype(qel_if_shim_handlers::hdl_to_native_handle) handler = nullptr;
    {
        TableLocked lock{fs.mutex};
        const Registered* shim = fs.slots[id].load();
        if (shim == nullptr) return unexpected_shim_code<"IFERROR081">(id, fatal(ENOENT));
        handler = shim->handlers.hdl_to_native_handle;
    }
    return handler == nullptr ? unsupported<"IFERROR082">(id, 0) : handler(ifh, native);
}
