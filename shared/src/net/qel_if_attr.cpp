// Reads of one interface: the door to the shims, the service's own rules about attributes, and the calls.
//
// Every read goes through qel_if_shim_get_attr(): it finds the shim, asks whether the interface is deleted
// and whether another shim serves the attribute, and calls. On top, an attribute's row says what is to be
// tested first (speed is for Ethernet that is up). All calls of one form come from one template.
//
// Locks: none; the client's reference keeps all that a read uses. Threads: any; handlers run on the caller's.
#include "net/qel_if_attr.hpp"

#include <qel/base.h>

namespace qel::interfaces {
namespace {

// A shim number by number of a question; see ::qel_if_attribute_question.
constexpr std::array<std::uint32_t, 4> kQuestions{QEL_IF_PROPERTY_VISIBLE, QEL_IF_PROPERTY_HIDDEN,
                                                  QEL_IF_PROPERTY_DELETED, QEL_IF_PROPERTY_RESYNC};

cerrno refuse_deleted(Client& client, std::uint64_t ifh) {
    if ((client.attr.options & QEL_IF_OPTION_BIND_ALLOW_DELETED) != 0) return 0;
    std::uint8_t deleted = 0;
    const cerrno error = qel_if_shim_has_property(&client, ifh, QEL_IF_PROPERTY_DELETED, &deleted);
    if (error != 0 && error != fatal(EOPNOTSUPP)) return error;
    if (error != 0 || deleted == 0) return 0;
    return failed<"IFERROR100",
                  "ERROR: %s: Attempted to access attributes for deleted interface with handle 0x%x">(
        fatal(EINVAL), static_cast<std::uint32_t>(ifh));
}

cerrno read_into(Client& client, std::uint64_t ifh, std::uint32_t index, void* value, std::uint64_t size) {
    qel_if_attr_data data{size, value};
    return qel_if_shim_get_attr(&client, ifh, code_of(index), &data);
}

// Reads an attribute whose rule holds.
cerrno read_by_rule(Client& client, std::uint64_t ifh, std::uint32_t index, void* value, std::uint64_t size) {
    auto read = [&](std::uint32_t needed, auto* out) {
        return read_into(client, ifh, needed, out, sizeof(*out));
    };
    if (cerrno error = check_rule(kAttributes[index].rule, read); error != 0) return error;
    return read_into(client, ifh, index, value, size);
}

// --- The client's calls

// Calls work(client) for the client 'app' once the arguments have passed.
template <class Work>
cerrno with_client(std::uint32_t app, std::uint64_t ifh, bool are_set, Work work) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR101">(app);
    if (!client) return fatal(EINVAL);
    if (ifh == 0) return invalid_interface<"IFERROR102">(ifh);
    if (!are_set) return invalid_arguments<"IFERROR103">();
    return work(client.get());
}

template <class Value>
cerrno read(std::uint32_t app, std::uint64_t ifh, Value* value,
            cerrno (*shim_read)(qel_if_client*, std::uint64_t, Value*)) {
    return with_client(app, ifh, value != nullptr,
                       [&](Client* client) { return shim_read(client, ifh, value); });
}

// The calls about speed and port channels say that they failed to hold the client, too.
template <class Value>
cerrno read_and_tell(std::uint32_t app, std::uint64_t ifh, Value* value,
                     cerrno (*shim_read)(qel_if_client*, std::uint64_t, Value*)) {
    if (is_gone(app)) report<"IFERROR104", "ERROR: %s: Failed to retain app_ctx">();
    return read(app, ifh, value, shim_read);
}

cerrno read_text(std::uint32_t app, std::uint64_t ifh, char* text, std::size_t size, std::size_t least,
                 cerrno (*shim_read)(qel_if_client*, std::uint64_t, char*, std::size_t)) {
    return with_client(app, ifh, text != nullptr && size >= least,
                       [&](Client* client) { return shim_read(client, ifh, text, size); });
}

// The handler of the interface's shim that the client reaches; what else is in the way goes to 'error'.
template <auto Handler>
auto find_handler(const Client& client, std::uint64_t ifh, cerrno& error) {
    std::uint32_t shim = 0;
    error = qel_if_shim_get_ifmgr_id(ifh, &shim);
    if (error == 0 && client.shim_ctx[shim] == nullptr) error = fatal(EINVAL);
    auto handler = error == 0 ? handler_of<Handler>(client, shim) : nullptr;
    if (error == 0 && handler == nullptr) error = unsupported<"IFERROR105">(shim, client.handle);
    return handler;
}

const qel_if_shim_info* info_of(const Client& client, std::uint64_t ifh) {
    return client.shim_ctx[shim_of(ifh)].load()->info;
}

}  // namespace

cerrno redirect(const Client& client, std::uint64_t ifh, std::uint32_t attr, std::uint32_t& shim) {
    if (cerrno error = qel_if_shim_get_ifmgr_id(ifh, &shim); error != 0) return error;
    auto handler = handler_of<&qel_if_shim_handlers::get_redirect>(client, shim);
    if (handler == nullptr) return 0;
    const qel_if_redirect request{ifh, attr};
    std::uint32_t other = shim;
    if (cerrno error = handler(client.shim_ctx[shim].load()->info, &request, &other); error != 0)
        return unexpected_shim_code<"IFERROR106">(shim, error);
    if (other == shim) return 0;
    if_event<"IFEVENT100", "%s: shim %d attr '%s' ifh 0x%llx redirected to shim %d">(
        shim, qel_if_attr_type_to_string(attr), ifh, other);
    if (other >= QEL_IF_SHIM_SLOTS || !has_shim(other)) return fatal(ENOENT);
    shim = other;
    return 0;
}

bool find_property(std::uint32_t code, std::uint32_t& property) {
    if (code >= kQuestions.size()) return false;
    property = kQuestions[code];
    return true;
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

cerrno qel_if_shim_get_attr(qel_if_client* client, uint64_t ifh, uint32_t attr, qel_if_attr_data* data) {
    std::uint32_t shim = 0;
    if (cerrno error = qel_if_shim_get_ifmgr_id(ifh, &shim); error != 0) return error;
    if (cerrno error = refuse_deleted(*client, ifh); error != 0) return error;
    if (cerrno error = redirect(*client, ifh, attr, shim); error != 0) return error;
    const qel_if_shim_client* record = client->shim_ctx[shim];
    if (record == nullptr) return fatal(EINVAL);
    return record->handlers.get_attr(record->info, ifh, attr, data);
}

// --- Attributes: a read for a client that is held, and the client's call

#define QEL_IF_READ_BY(how, name, index, Value)                                                              \
    cerrno qel_if_shim_##name(qel_if_client* client, uint64_t ifh, Value* value) {                           \
        return read_by_rule(*client, ifh, index, value, kAttributes[index].size);                            \
    }                                                                                                        \
    cerrno qel_if_##name(uint32_t app, uint64_t ifh, Value* value) {                                         \
        return how(app, ifh, value, qel_if_shim_##name);                                                     \
    }
#define QEL_IF_READ(name, index, Value) QEL_IF_READ_BY(read, name, index, Value)
#define QEL_IF_READ_AND_TELL(name, index, Value) QEL_IF_READ_BY(read_and_tell, name, index, Value)
#define QEL_IF_READ_TEXT(name, index)                                                                        \
    cerrno qel_if_shim_##name(qel_if_client* client, uint64_t ifh, char* text, size_t size) {                \
        return read_by_rule(*client, ifh, index, text, size);                                                \
    }                                                                                                        \
    cerrno qel_if_##name(uint32_t app, uint64_t ifh, char* text, size_t size) {                              \
        return read_text(app, ifh, text, size, kAttributes[index].size, qel_if_shim_##name);                 \
    }

QEL_IF_READ(is_layer2, QEL_IF_ATTR_IS_LAYER2, uint8_t)
QEL_IF_READ(get_base_interface, QEL_IF_ATTR_BASE_IF, uint64_t)
QEL_IF_READ(get_type, QEL_IF_ATTR_IF_TYPE, uint32_t)
QEL_IF_READ(get_encap, QEL_IF_ATTR_IF_ENCAP, uint32_t)
QEL_IF_READ(get_oper_state, QEL_IF_ATTR_OPER_STATE, uint32_t)
QEL_IF_READ(get_admin_state, QEL_IF_ATTR_ADMIN_STATE, uint32_t)
QEL_IF_READ_TEXT(get_name, QEL_IF_ATTR_IF_NAME)
QEL_IF_READ_TEXT(get_short_name, QEL_IF_ATTR_IF_SHORT_NAME)
QEL_IF_READ(get_snmp_if_index, QEL_IF_ATTR_SNMP_INDEX, uint64_t)
QEL_IF_READ(get_unidir_mode, QEL_IF_ATTR_UNIDIR_MODE, uint32_t)
QEL_IF_READ(get_mtu, QEL_IF_ATTR_MTU, uint32_t)
QEL_IF_READ(get_tx_bandwidth, QEL_IF_ATTR_TX_BANDWIDTH, uint32_t)
QEL_IF_READ(get_rx_bandwidth, QEL_IF_ATTR_RX_BANDWIDTH, uint32_t)
QEL_IF_READ(get_ether_duplex_mode, QEL_IF_ATTR_DUPLEX_MODE, uint32_t)
QEL_IF_READ(get_ether_mac_address, QEL_IF_ATTR_MAC_ADDR, uint8_t)
QEL_IF_READ(get_max_mac_filters, QEL_IF_ATTR_MAX_MAC_FILTERS, uint32_t)
QEL_IF_READ_TEXT(get_description, QEL_IF_ATTR_IF_DESCRIPTION)
QEL_IF_READ(get_encap_dot1q, QEL_IF_ATTR_ENCAP_DOT1Q, qel_if_dot1q)
QEL_IF_READ(get_vrf, QEL_IF_ATTR_VRF, qel_if_vrf)
QEL_IF_READ(get_bd, QEL_IF_ATTR_BD, qel_if_bd)
QEL_IF_READ(get_stat_count, QEL_IF_ATTR_SUPPORTED_STAT_COUNT, uint64_t)
QEL_IF_READ_AND_TELL(get_speed, QEL_IF_ATTR_SPEED, uint32_t)
QEL_IF_READ_AND_TELL(get_speed_max, QEL_IF_ATTR_SPEED_MAX, uint32_t)
QEL_IF_READ(get_input_flow_control, QEL_IF_ATTR_INPUT_FLOW_CONTROL, uint32_t)
QEL_IF_READ(get_output_flow_control, QEL_IF_ATTR_OUTPUT_FLOW_CONTROL, uint32_t)
QEL_IF_READ(get_auto_negotiation, QEL_IF_ATTR_AUTO_NEGOTIATION, uint32_t)
QEL_IF_READ_AND_TELL(get_port_channel_id, QEL_IF_ATTR_PC_ID, uint64_t)
QEL_IF_READ_AND_TELL(get_port_channel_member_priority, QEL_IF_ATTR_PC_PRIORITY, uint16_t)
QEL_IF_READ_AND_TELL(get_port_channel_member_mode, QEL_IF_ATTR_PC_MODE, uint32_t)

#undef QEL_IF_READ_TEXT
#undef QEL_IF_READ_AND_TELL
#undef QEL_IF_READ
#undef QEL_IF_READ_BY

cerrno qel_if_shim_get_physical_loc(qel_if_client* client, uint64_t ifh, qel_if_phys_loc* location) {
    *location = {};
    return read_into(*client, ifh, QEL_IF_ATTR_PHYS_LOC, location, sizeof(*location));
}

cerrno qel_if_get_physical_loc(uint32_t app, uint64_t ifh, qel_if_phys_loc* location) {
    return read(app, ifh, location, qel_if_shim_get_physical_loc);
}

cerrno qel_if_shim_get_statistics(qel_if_client* client, uint64_t ifh, qel_if_statistics* statistics) {
    const cerrno error = read_into(*client, ifh, QEL_IF_ATTR_STATISTICS, statistics, sizeof(*statistics));
    return error == 0 ? 0 : unexpected_code<"IFERROR107">(error);
}

cerrno qel_if_get_statistics(uint32_t app, uint64_t ifh, qel_if_statistics* statistics) {
    return read(app, ifh, statistics, qel_if_shim_get_statistics);
}

cerrno qel_if_shim_get_stat_supported(qel_if_client* client, uint64_t ifh, size_t capacity, uint32_t* ids) {
    qel_if_stat_list list{capacity, ids};
    return read_into(*client, ifh, QEL_IF_ATTR_STAT_SUPPORTED, &list, sizeof(list));
}

cerrno qel_if_get_stat_supported(uint32_t app, uint64_t ifh, size_t capacity, uint32_t* ids) {
    return with_client(app, ifh, ids == nullptr || capacity != 0, [&](Client* client) {
        return qel_if_shim_get_stat_supported(client, ifh, capacity, ids);
    });
}

cerrno qel_if_shim_is_ethernet(qel_if_client* client, uint64_t ifh, bool* is_ethernet) {
    std::uint32_t type = 0;
    const cerrno error = qel_if_shim_get_type(client, ifh, &type);
    if (error == 0) *is_ethernet = type == QEL_IF_TYPE_ETHERNET;
    return error;
}

cerrno qel_if_shim_has_mac_address(qel_if_client* client, uint64_t ifh, bool* has) {
    std::uint32_t encap = 0;
    const cerrno error = qel_if_shim_get_encap(client, ifh, &encap);
    if (error == 0) *has = has_address(encap);
    return error;
}

// --- Names

cerrno qel_if_shim_get_handle(qel_if_client* client, const char* name, uint64_t* ifh) {
    const qel_if_shim_client* shim = client->shim_ctx[0];
    if (shim == nullptr) return fatal(ENOMEM);
    if (shim->handlers.get_handle == nullptr) return unsupported<"IFERROR108">(0, client->handle);
    return shim->handlers.get_handle(shim->info, name, ifh);
}

cerrno qel_if_get_handle(uint32_t app, const char* name, uint64_t* ifh) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR109">(app);
    if (!client) return fatal(EINVAL);
    if (name == nullptr || ifh == nullptr) return invalid_arguments<"IFERROR110">();
    return qel_if_shim_get_handle(client.get(), name, ifh);
}

// --- Questions

cerrno qel_if_shim_has_property(qel_if_client* client, uint64_t ifh, uint32_t property, uint8_t* has) {
    cerrno error = 0;
    auto handler = find_handler<&qel_if_shim_handlers::has_property>(*client, ifh, error);
    if (handler == nullptr) return error;
    *has = 0;
    return handler(info_of(*client, ifh), ifh, property, has);
}

cerrno qel_if_has_property(uint32_t app, uint64_t ifh, uint32_t property, uint8_t* has) {
    return with_client(app, ifh, has != nullptr,
                       [&](Client* client) { return qel_if_shim_has_property(client, ifh, property, has); });
}

cerrno qel_if_shim_has_attribute(qel_if_client* client, uint64_t ifh, uint8_t* has, uint32_t code) {
    std::uint32_t property = 0;
    if (!find_property(code, property))
        return failed<"IFERROR111", "ERROR: %s: passed invalid attribute to qel_if_has_attribute()">(
            fatal(EINVAL));
    return qel_if_shim_has_property(client, ifh, property, has);
}

cerrno qel_if_has_attribute(uint32_t app, uint64_t ifh, uint8_t* has, uint32_t code) {
    return with_client(app, ifh, has != nullptr,
                       [&](Client* client) { return qel_if_shim_has_attribute(client, ifh, has, code); });
}

// --- Address filters

cerrno qel_if_shim_add_mac_filter(qel_if_client* client, uint64_t ifh, uint32_t word,
                                  const uint8_t* address) {
    cerrno error = 0;
    auto handler = find_handler<&qel_if_shim_handlers::add_mac_filter>(*client, ifh, error);
    return handler == nullptr ? error : handler(info_of(*client, ifh), ifh, word, address);
}

cerrno qel_if_add_mac_filter(uint32_t app, uint64_t ifh, uint32_t word, const uint8_t* address) {
    return with_client(app, ifh, address != nullptr, [&](Client* client) {
        return qel_if_shim_add_mac_filter(client, ifh, word, address);
    });
}

cerrno qel_if_shim_remove_mac_filter(qel_if_client* client, uint64_t ifh, uint32_t word,
                                     const uint8_t* address) {
    cerrno error = 0;
    auto handler = find_handler<&qel_if_shim_handlers::remove_mac_filter>(*client, ifh, error);
    return handler == nullptr ? error : handler(info_of(*client, ifh), ifh, word, address);
}

cerrno qel_if_remove_mac_filter(uint32_t app, uint64_t ifh, uint32_t word, const uint8_t* address) {
    return with_client(app, ifh, address != nullptr, [&](Client* client) {
        return qel_if_shim_remove_mac_filter(client, ifh, word, address);
    });
}

cerrno qel_if_shim_remove_all_mac_filters(qel_if_client* client, uint64_t ifh) {
    cerrno error = 0;
    auto handler = find_handler<&qel_if_shim_handlers::remove_all_mac_filters>(*client, ifh, error);
    return handler == nullptr ? error : handler(info_of(*client, ifh), ifh);
}

cerrno qel_if_remove_all_mac_filters(uint32_t app, uint64_t ifh) {
    return with_client(app, ifh, true,
                       [&](Client* client) { return qel_if_shim_remove_all_mac_filters(client, ifh); });
}
