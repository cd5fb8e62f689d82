// Clients of the interface service: bind, unbind, and the calls that need nothing but a client.
//
// A client is a context behind an ID. Calls hold a reference while they work, so an unbind, which withdraws
// the ID, doesn't wait for them: the last one to let go runs the destructor, which takes the client from its
// shims. A report that a client's binding was lost ends all that an unbind ends, but not the client.
//
// Locks: none held here. Threads: any. Restart: nothing stays.
#include <qel/base.h>
#include <qel/if.h>
#include <qel/if_layer.h>
#include <qel/ppm.h>

#include <cerrno>

#include "core/qel_owned.hpp"
#include "net/qel_if.hpp"

qel_dt_flag* qel_if_event_flag = nullptr;
qel_dt_buffer_handle qel_if_event_buffer = nullptr;
int qel_if_trace_level = 0;

namespace qel::interfaces {
namespace {

constexpr BufferSource kEvents{"qel.if.buffer.events", "qel.if.buffer.events", 32768};

// Frees a client whose ID was never given, or has gone.
void free_app_ctx(Client* client) {
    Owned<std::uint32_t> scope{client->attr.scope};
    Owned<Client> owned{client};
    client->handle = 0;
    client->name = nullptr;
}

// The destructor of clients: the last reference has gone.
void app_ctx_destructor(void* context, void*) {
    auto* client = static_cast<Client*>(context);
    const std::uint32_t app = client->handle;
    Frame::drain(*client);
    destroy_shims(*client);
    if_event<"IFEVENT020", "%s: done, apph=0x%x">(app);
    free_app_ctx(client);
    app_id_pool.free_if_empty();
}

// A client without a handle, or nothing without memory.
Owned<Client> create_and_init_app_ctx(const char* name, const qel_if_bind_attr& attr) {
    Owned<Client> client = allocate_zeroed<Client>(QEL_MEM_INTF);
    Owned<std::uint32_t> scope = allocate_zeroed<std::uint32_t>(QEL_MEM_INTF);
    if (!client || !scope) return {};
    *scope = *attr.scope;
    client->closing.store(true);
    client->binding = true;
    client->name = name;
    client->attr = attr;
    client->attr.scope = scope.release();
    if (attr.qdm != 0) qel_queue_init(&client->if_client_event.queue, kMaxJobs);
    return client;
}

bool is_bind_attr(const qel_if_bind_attr* attr) {
    return attr != nullptr && attr->scope != nullptr && (attr->qdm == 0 || qel_dm_is_handle(attr->qdm) != 0);
}

cerrno publish(Client& client) {
    return app_id_pool.get_id(&client, &client.handle);
}

cerrno bind(std::uint32_t* app, const char* name, qel_if_bind_attr& attr) {
    Owned<Client> made = create_and_init_app_ctx(name, attr);
    if (!made) return no_memory<"IFERROR020">();
    Client* client = made.release();
    if (cerrno error = publish(*client); error != 0) {
        free_app_ctx(client);
        return error;
    }
    // Nobody ends it before it is bound.
    const std::uint32_t handle = client->handle;
    Retained<Client> held = app_id_pool.retain<Client>(handle);
    const cerrno result = bind_shims(*client);
    if (result != 0 && result != warning(EAGAIN)) {
        static_cast<void>(app_id_pool.release_and_withdraw(handle));  // the destructor undoes the rest
        return result;
    }
    client->closing.store(false);
    *attr.scope = *client->attr.scope;
    *app = handle;
    Frame::end_binding(*client, handle, attr.qdm);
    if_event<"IFEVENT021", "%s: done, apph=%#x, name=%s, scope=%d, qdm=%p, options=%#x, cb=%p cookie=%p">(
        handle, name, *attr.scope, attr.qdm, attr.options, address_of(attr.bind_status_cb), attr.cookie);
    return result;
}

}  // namespace

constinit Mutex if_gbl_mutex;
constinit net::HandlePool app_id_pool{pool_shape<1>("QEL IF Application Handle Pool", 0, app_ctx_destructor)};

std::uint32_t max_binds() {
    constexpr std::uint32_t kDefault = 16;
    std::uint32_t binds = kDefault;
    static_cast<void>(qel_ppm_get_integer("qel.if.max.bind", kDefault, &binds));  // then it is the default
    return binds;
}

void say_creating_pool(const char* name, std::uint32_t ids) {
    if_event<"IFEVENT001", "%s: Creating ID pool '%s' of size %d">(name, ids);
}

cerrno failed_in_pool(cerrno error) {
    return unexpected_code<"IFERROR001">(error);
}

qel_dt_buffer_handle IfTrace::buffer() {
    return buffer_at(qel_if_event_buffer, kEvents);
}

qel_dt_flag* IfTrace::flag() {
    return std::atomic_ref{qel_if_event_flag}.load(std::memory_order_relaxed);
}

bool is_gone(std::uint32_t app) {
    std::uint8_t withdrawn = 1;
    return app_id_pool.is_withdrawn(app, &withdrawn) != 0 || withdrawn != 0;
}

void cleanup_client(Client& client) {
    end_registrations(client);
    Frame::drain(client);
    Frame::cleanup_operations(client.handle);
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

cerrno qel_if_bind_attr_init(qel_if_bind_attr* attr) {
    qel_check_not_interrupt_path();
    if (attr == nullptr) return failed<"IFERROR021", "ERROR: %s: NULL bind attribute">(fatal(EINVAL));
    *attr = {};
    attr->magic = QEL_IF_MAGIC;
    attr->options = QEL_IF_OPTION_BIND_ALLOW_DELETED;
    return 0;
}

cerrno qel_if_bind(uint32_t* app, const char* name, qel_if_bind_attr* attr) {
    qel_check_not_interrupt_path();
    if (app == nullptr || name == nullptr || !is_bind_attr(attr)) return invalid_arguments<"IFERROR022">();
    if (attr->magic != QEL_IF_MAGIC) return fatal(EBADMSG);
    if_event<"IFEVENT022",
             "%s: invoked, app_ptr=%p, name=%s, scope=%d, qdm=%p, options=%#x, cb=%p, cookie=%p">(
        app, name, *attr->scope, attr->qdm, attr->options, address_of(attr->bind_status_cb), attr->cookie);
    return bind(app, name, *attr);
}

cerrno qel_if_init(uint32_t* app, const char* name, const qel_if_init_attr* init) {
    qel_check_not_interrupt_path();
    if (init == nullptr) return invalid_arguments<"IFERROR023">();
    qel_if_bind_attr attr;
    static_cast<void>(qel_if_bind_attr_init(&attr));  // fails for null only
    attr.scope = init->scope;
    attr.qdm = init->qdm;
    return qel_if_bind(app, name, &attr);
}

cerrno qel_if_destroy(uint32_t* app) {
    qel_check_not_interrupt_path();
    if (app == nullptr) return invalid_arguments<"IFERROR024">();
    const std::uint32_t handle = *app;
    {
        Retained<Client> client = retain_client<"IFERROR025">(handle);
        if (!client) return fatal(EINVAL);
        if_event<"IFEVENT023", "%s: invoked, apph=0x%x">(handle);
        const cerrno error = Frame::unbind(handle, end_registrations);
        if (error == fatal(EBUSY) || error == fatal(EINVAL)) return 0;  // another call is at it
        if (error != 0) return unexpected_code<"IFERROR026">(error);
    }
    *app = 0;
    return 0;
}

cerrno qel_if_get_scope(uint32_t app, uint32_t* scope) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR027">(app);
    if (!client) return fatal(EINVAL);
    if (scope == nullptr) return invalid_arguments<"IFERROR028">();
    *scope = *client->attr.scope;
    return 0;
}

uint32_t qel_if_get_app_handle_refcount(uint32_t app) {
    qel_check_not_interrupt_path();
    return app_id_pool.references(app);
}

bool qel_if_is_valid_handle(uint64_t ifh) {
    qel_check_not_interrupt_path();
    return ifh != 0;
}

uint32_t qel_if_get_ifmgr_id(uint64_t ifh) {
    qel_check_not_interrupt_path();
    return shim_of(ifh);
}

cerrno qel_if_retain_client_ctx(uint32_t app, qel_if_client** client) {
    qel_check_not_interrupt_path();
    if (client == nullptr) return invalid_arguments<"IFERROR029">();
    Retained<Client> held = retain_client<"IFERROR030">(app);
    if (!held) return fatal(EINVAL);
    *client = held.release();
    return 0;
}

cerrno qel_if_release_client_ctx(qel_if_client* client) {
    qel_check_not_interrupt_path();
    if (client == nullptr) return invalid_arguments<"IFERROR031">();
    const cerrno error = app_id_pool.release(client->handle);
    return error == 0 ? 0 : unexpected_code<"IFERROR032">(error);
}

bool qel_if_client_ctx_is_gone(uint32_t app) {
    qel_check_not_interrupt_path();
    return is_gone(app);
}
