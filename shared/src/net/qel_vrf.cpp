// The VRF service: clients and lookups, in the frame of services.
//
// A client is a context behind an ID; calls hold it while they work, so an unbind, which withdraws the ID,
// waits for nobody, and the last one to let go runs the destructor. The platform's layer does the lookups.
//
// Locks: vrf_gbl_mutex while the pool of clients is made or taken down. Threads: any. Restart: nothing stays.
#include "net/qel_vrf.hpp"

#include <qel/base.h>

#include <cerrno>

#include "core/qel_owned.hpp"

qel_dt_flag* qel_vrf_event_flag = nullptr;
qel_dt_buffer_handle qel_vrf_event_buffer = nullptr;

namespace qel::vrf {
namespace {

constexpr BufferSource kEvents{"qel.vrf.buffer.events", nullptr, 32768};

struct Trace {
    static qel_dt_buffer_handle buffer() { return buffer_at(qel_vrf_event_buffer, kEvents); }
    static qel_dt_flag* flag() { return std::atomic_ref{qel_vrf_event_flag}.load(std::memory_order_relaxed); }
};

template <FixedText Label, FixedText Format, class... Values>
void vrf_event(Values... values) {
    net::EventLine<Trace, Label, Format>::say(values...);
}

// --- Clients

void vrf_app_ctx_destructor(void* context, void*);

constinit Mutex vrf_gbl_mutex;
constinit net::HandlePool app_vrf_id_pool{{
    .name = "QEL VRF Application Handle Pool",
    .mutex = &vrf_gbl_mutex,
    .ids = [] { return std::uint64_t{QEL_VRF_MAX_CLIENTS}; },
    .no_randomize = 0,
    .free = vrf_app_ctx_destructor,
    .say_creating =
        [](const char* name, std::uint32_t ids) {
            vrf_event<"VRFEVENT001", "%s: Creating ID pool '%s' of size %d">(name, ids);
        },
    .failed = net::unexpected_code<"VRFERROR001">,
}};

struct Family {
    using Client = vrf::Client;

    static Retained<Client> retain(std::uint32_t app) { return app_vrf_id_pool.retain<Client>(app); }
    static net::ClientJobs& jobs_of(Client& client) { return client.jobs; }
    static std::atomic<bool>& closing(Client& client) { return client.closing; }
    static cerrno withdraw(std::uint32_t app) { return app_vrf_id_pool.release_and_withdraw(app); }
    static void drop(net::Job&) {}

    using Drained = net::EventLine<Trace, "VRFEVENT002", "%s: drained client queue: %d">;
    using Discarded =
        net::EventLine<Trace, "VRFEVENT003",
                       "%s: OP ID 0x%x opcode %d discarded during cleanup of client handle 0x%x">;
    static void say_gone(const qel_async_future& future, cerrno error) {
        report<"VRFERROR002", "ERROR: %s: op_id: 0x%x opcode: %d : %s">(future.op_id, future.opcode,
                                                                        cerr_strerror(error));
    }
};
using Frame = net::Frame<Family>;

template <FixedText Label>
Retained<Client> retain_client(std::uint32_t app) {
    Retained<Client> client = Family::retain(app);
    if (!client) net::invalid_client<Label>(app);
    return client;
}

Client* vrf_create_and_init_app_ctx(const char* name, const qel_vrf_attr& attr) {
    Owned<Client> client = allocate_zeroed<Client>(QEL_MEM_INTF);
    if (!client) return nullptr;
    client->name = name;
    client->attr = attr;
    client->closing.store(true);
    return client.release();
}

void vrf_free_app_ctx(Client* client) {
    qel_named_free(client);
}

// The last reference has gone.
void vrf_app_ctx_destructor(void* context, void*) {
    auto* client = static_cast<Client*>(context);
    if (cerrno error = vrf_od_unbind(*client); error != 0)
        net::unexpected_code<"VRFERROR003">(error);  // it is over all the same
    vrf_event<"VRFEVENT004", "%s: done, apph=0x%x">(client->handle);
    vrf_free_app_ctx(client);
    app_vrf_id_pool.free_if_empty();
}

cerrno bind(std::uint32_t* app, const char* name, const qel_vrf_attr& attr) {
    Client* client = vrf_create_and_init_app_ctx(name, attr);
    if (client == nullptr) return net::no_memory<"VRFERROR004">();
    if (cerrno error = app_vrf_id_pool.get_id(client, &client->handle); error != 0) {
        vrf_free_app_ctx(client);
        return error;
    }
    // Nobody ends it before it is bound.
    const std::uint32_t handle = client->handle;
    Retained<Client> held = Family::retain(handle);
    if (cerrno error = vrf_od_bind(*client); error != 0) {
        static_cast<void>(app_vrf_id_pool.release_and_withdraw(handle));  // the destructor frees it
        return net::unexpected_code<"VRFERROR005">(error);
    }
    client->closing.store(false);
    *app = handle;
    vrf_event<"VRFEVENT005", "%s: done, apph=0x%x, name=%s, qdm=%p">(handle, name, attr.qdm);
    return 0;
}

bool is_bind_attr(const qel_vrf_attr* attr) {
    if (attr == nullptr) return false;
    return attr->magic != QEL_IF_MAGIC || attr->qdm == 0 || qel_dm_is_handle(attr->qdm) != 0;
}

// --- Lookups

// Looks up one entry as a list of one.
template <auto Bulk, class Key>
cerrno get_one(const Client& client, Key key, qel_if_vrf* vrf) {
    cerrno result = 0;
    const cerrno error = Bulk(client, &key, vrf, &result, 1);
    return error != 0 ? error : result;
}

}  // namespace
}  // namespace qel::vrf

using namespace qel;
using namespace qel::vrf;

cerrno qel_vrf_attr_init(qel_vrf_attr* attr) {
    qel_check_not_interrupt_path();
    if (attr == nullptr || (attr->qdm != 0 && qel_dm_is_handle(attr->qdm) == 0))
        return net::invalid_arguments<"VRFERROR006">();
    *attr = {QEL_IF_MAGIC, 0};
    return 0;
}

cerrno qel_vrf_bind(uint32_t* app, const char* name, const qel_vrf_attr* attr) {
    qel_check_not_interrupt_path();
    if (app == nullptr || name == nullptr || !is_bind_attr(attr))
        return net::invalid_arguments<"VRFERROR007">();
    vrf_event<"VRFEVENT006", "%s: invoked, app_ptr=%p, name=%s, qdm=%p">(app, name, attr->qdm);
    return bind(app, name, *attr);
}

cerrno qel_vrf_unbind(uint32_t* app) {
    qel_check_not_interrupt_path();
    if (app == nullptr) return net::invalid_arguments<"VRFERROR008">();
    {
        Retained<Client> client = retain_client<"VRFERROR009">(*app);
        if (!client) return fatal(EINVAL);
        const cerrno error = Frame::unbind(*app, [](Client&) {});
        if (error == fatal(EBUSY) || error == fatal(EINVAL)) return 0;  // another call is at it
        if (error != 0) return net::unexpected_code<"VRFERROR010">(error);
    }
    *app = 0;
    return 0;
}

cerrno qel_vrf_get_vrf_from_id(uint32_t app, uint64_t id, qel_if_vrf* vrf) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"VRFERROR011">(app);
    if (!client) return fatal(EINVAL);
    if (vrf == nullptr) return net::invalid_arguments<"VRFERROR012">();
    return get_one<vrf_od_bulk_get_vrf_from_id>(*client, id, vrf);
}

cerrno qel_vrf_get_vrf_from_name(uint32_t app, const char* name, qel_if_vrf* vrf) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"VRFERROR013">(app);
    if (!client) return fatal(EINVAL);
    if (name == nullptr || vrf == nullptr) return net::invalid_arguments<"VRFERROR014">();
    return get_one<vrf_od_bulk_get_vrf_from_name>(*client, name, vrf);
}

cerrno qel_vrf_bulk_get_vrf_from_id(uint32_t app, const uint64_t* ids, qel_if_vrf* vrfs, cerrno* results,
                                    size_t count) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"VRFERROR015">(app);
    if (!client) return fatal(EINVAL);
    if (ids == nullptr || vrfs == nullptr || results == nullptr || count == 0)
        return net::invalid_arguments<"VRFERROR016">();
    return vrf_od_bulk_get_vrf_from_id(*client, ids, vrfs, results, count);
}

cerrno qel_vrf_bulk_get_vrf_from_name(uint32_t app, const char* const* names, qel_if_vrf* vrfs,
                                      cerrno* results, size_t count) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"VRFERROR017">(app);
    if (!client) return fatal(EINVAL);
    if (names == nullptr || vrfs == nullptr || results == nullptr || count == 0)
        return net::invalid_arguments<"VRFERROR018">();
    return vrf_od_bulk_get_vrf_from_name(*client, names, vrfs, results, count);
}
