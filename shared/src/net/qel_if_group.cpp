// Groups of interfaces: bridge domains and port channels, where a shim offers them.
//
// A lookup asks the client's shims in the order of their slots until one answers anything but "not
// supported". An iterator is its shim's: the two words at its beginning, which the service writes, lead back
// to it.
//
// Locks: none. Threads: any; an iterator is one thread's at a time.
#include <qel/base.h>
#include <qel/if.h>
#include <qel/if_layer.h>

#include <cerrno>

#include "net/qel_if.hpp"

namespace qel::interfaces {
namespace {

constexpr std::uint32_t kNoShim = UINT32_MAX;

// Calls ask(handler, info, id) for the client's shims that have the handler, until one supports it.
template <auto Handler, class Ask>
cerrno ask_shims(Client& client, Ask ask) {
    for (std::uint32_t id = 0; id < QEL_IF_SHIM_SLOTS; ++id) {
        auto handler = handler_of<Handler>(client, id);
        if (handler == nullptr) continue;
        const cerrno result = ask(handler, client.shim_ctx[id].load()->info, id);
        if (result != fatal(EOPNOTSUPP)) return result;
    }
    return fatal(EOPNOTSUPP);
}

// The shim that an iterator came from, or kNoShim: the iterator's words may have been written over.
template <auto Handler>
std::uint32_t shim_of_iterator(const Client& client, const qel_if_group_iterator& it) {
    if (it.shim_id >= QEL_IF_SHIM_SLOTS || handler_of<Handler>(client, it.shim_id) == nullptr) return kNoShim;
    return it.shim_id;
}

bool is_of(const qel_if_group_iterator* it, std::uint32_t app) {
    return it != nullptr && it->app == app;
}

bool are_set(const void* first, const void* second, const void* third) {
    return first != nullptr && second != nullptr && third != nullptr;
}

}  // namespace
}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

// --- For a client that is held

cerrno qel_if_shim_get_group_from_id(qel_if_client* client, uint64_t id, uint32_t type, void* first,
                                     void* second, void* third) {
    return ask_shims<&qel_if_shim_handlers::get_group_from_id>(*client, [&](auto handler, auto* info, auto) {
        return handler(info, id, type, first, second, third);
    });
}

cerrno qel_if_shim_get_group_from_name(qel_if_client* client, const char* name, uint32_t type, void* first,
                                       void* second, void* third) {
    return ask_shims<&qel_if_shim_handlers::get_group_from_name>(
        *client,
        [&](auto handler, auto* info, auto) { return handler(info, name, type, first, second, third); });
}

cerrno qel_if_shim_group_iterator_start(qel_if_client* client, uint32_t type,
                                        const qel_if_bd_iteration_filter* filter,
                                        qel_if_group_iterator** it) {
    return ask_shims<&qel_if_shim_handlers::group_iterator_start>(
        *client, [&](auto handler, auto* info, std::uint32_t id) {
            qel_if_group_iterator* started = nullptr;
            const cerrno result = handler(info, type, filter, &started);
            if (result != 0) return result;
            if (started == nullptr) return unexpected_shim_code<"IFERROR040">(id, fatal(EINVAL));
            *started = {client->handle, id};
            *it = started;
            return result;
        });
}

cerrno qel_if_shim_group_iterator_get_next(qel_if_client* client, uint32_t type, qel_if_group_iterator* it,
                                           uint64_t* id) {
    constexpr auto kHandler = &qel_if_shim_handlers::group_iterator_get_next;
    const std::uint32_t shim = shim_of_iterator<kHandler>(*client, *it);
    if (shim == kNoShim) return fatal(EOPNOTSUPP);
    return handler_of<kHandler>(*client, shim)(client->shim_ctx[shim].load()->info, type, it, id);
}

cerrno qel_if_shim_group_iterator_end(qel_if_client* client, uint32_t type, qel_if_group_iterator* it) {
    constexpr auto kHandler = &qel_if_shim_handlers::group_iterator_end;
    const std::uint32_t shim = shim_of_iterator<kHandler>(*client, *it);
    if (shim == kNoShim) return fatal(EOPNOTSUPP);
    return handler_of<kHandler>(*client, shim)(client->shim_ctx[shim].load()->info, type, it);
}

// --- For clients

void qel_if_bd_iteration_filter_init(qel_if_bd_iteration_filter* filter) {
    qel_check_not_interrupt_path();
    if (filter != nullptr) filter->magic = QEL_IF_MAGIC;
}

cerrno qel_if_bd_iterator_start(uint32_t app, const qel_if_bd_iteration_filter* filter,
                                qel_if_group_iterator** it) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR041">(app);
    if (!client) return fatal(EINVAL);
    if (filter == nullptr || filter->magic != QEL_IF_MAGIC || it == nullptr)
        return invalid_arguments<"IFERROR042">();
    return qel_if_shim_group_iterator_start(client.get(), QEL_IF_GROUP_BRIDGE_DOMAIN, filter, it);
}

cerrno qel_if_bd_iterator_get_next(uint32_t app, qel_if_group_iterator* it, uint64_t* bd_id) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR043">(app);
    if (!client) return fatal(EINVAL);
    if (!is_of(it, app) || bd_id == nullptr)
        return failed<"IFERROR044", "ERROR: %s: invalid iterator or bd_id">(fatal(EINVAL));
    return qel_if_shim_group_iterator_get_next(client.get(), QEL_IF_GROUP_BRIDGE_DOMAIN, it, bd_id);
}

cerrno qel_if_bd_iterator_end(uint32_t app, qel_if_group_iterator* it) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR045">(app);
    if (!client) return fatal(EINVAL);
    if (!is_of(it, app))
        return failed<"IFERROR046", "ERROR: %s: invalid iterator or app_handle">(fatal(EINVAL));
    return qel_if_shim_group_iterator_end(client.get(), QEL_IF_GROUP_BRIDGE_DOMAIN, it);
}

cerrno qel_if_get_bd_from_id(uint32_t app, uint64_t id, void* first, void* second, void* third) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR047">(app);
    if (!client) return fatal(EINVAL);
    if (!are_set(first, second, third)) return invalid_arguments<"IFERROR048">();
    return qel_if_shim_get_group_from_id(client.get(), id, QEL_IF_GROUP_BRIDGE_DOMAIN, first, second, third);
}

cerrno qel_if_get_bd_from_name(uint32_t app, const char* name, void* first, void* second, void* third) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR049">(app);
    if (!client) return fatal(EINVAL);
    if (name == nullptr || !are_set(first, second, third)) return invalid_arguments<"IFERROR050">();
    return qel_if_shim_get_group_from_name(client.get(), name, QEL_IF_GROUP_BRIDGE_DOMAIN, first, second,
                                           third);
}

cerrno qel_if_get_port_channel_from_id(uint32_t app, uint64_t id, void* first, void* second, void* third) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR051">(app);
    if (!client) return fatal(EINVAL);
    if (!are_set(first, second, third)) return invalid_arguments<"IFERROR052">();
    return qel_if_shim_get_port_channel_from_id(client.get(), id, first, second, third);
}

cerrno qel_if_shim_get_port_channel_from_id(qel_if_client* client, uint64_t id, void* first, void* second,
                                            void* third) {
    return qel_if_shim_get_group_from_id(client, id, QEL_IF_GROUP_PORT_CHANNEL, first, second, third);
}
