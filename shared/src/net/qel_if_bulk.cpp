// Reads of many interfaces at once: one attribute, an array of handles, a result for each.
//
// While the entries are arranged it shows whether all interfaces belong to one shim. If so, and the shim can
// do it, the run is one call of the shim; else each entry goes through the door of single reads. The
// service's rules about attributes come after the run, entry by entry: what they need is read in bulk, too.
//
// Locks: none. Threads: any; handlers run on the caller's.
#include <qel/base.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "core/qel_owned.hpp"
#include "net/qel_if_attr.hpp"

namespace qel::interfaces {
namespace {

// The interfaces of a bulk call and how each fared.
struct Targets {
    const std::uint64_t* handles;
    cerrno* results;
    std::size_t count;

    bool are_set() const { return handles != nullptr && results != nullptr && count != 0; }
};

template <class Value>
Owned<Value> allocate_array(std::size_t count) {
    return allocate_zeroed<Value>(QEL_MEM_INTF, count);
}

bool all_unsupported(std::span<const cerrno> results) {
    return std::ranges::all_of(results, [](cerrno result) { return result == fatal(EOPNOTSUPP); });
}

// Calls one(i) for each entry, and sums up.
template <class One>
cerrno run_one_by_one(std::span<cerrno> results, One one) {
    for (std::size_t i = 0; i < results.size(); ++i) results[i] = one(i);
    return all_unsupported(results) ? fatal(EOPNOTSUPP) : 0;
}

// --- Runs

// The client's record of the one shim that all interfaces belong to.
cerrno find_shim(const Client& client, std::uint32_t id, const qel_if_shim_client*& shim) {
    if (id >= QEL_IF_SHIM_SLOTS) return fatal(ERANGE);
    if (!has_shim(id)) return fatal(ENOENT);
    shim = client.shim_ctx[id];
    return shim == nullptr ? fatal(EINVAL) : 0;
}

cerrno run(Client& client, std::uint32_t attr, qel_if_bulk& bulk) {
    const qel_if_shim_client* shim = nullptr;
    if (bulk.same_shim != 0)
        if (cerrno error = find_shim(client, bulk.ifmgr_id, shim); error != 0) return error;
    if (shim != nullptr && shim->handlers.bulk_get_attr != nullptr)
        return shim->handlers.bulk_get_attr(shim->info, bulk.handles, attr, bulk.attrs, bulk.results,
                                            bulk.count);
    return run_one_by_one({bulk.results, bulk.count}, [&](std::size_t i) {
        return qel_if_shim_get_attr(&client, bulk.handles[i], attr, &bulk.attrs[i]);
    });
}

void refuse_if_deleted(std::uint64_t ifh, cerrno asked, bool deleted, cerrno& result) {
    if (asked != 0 && asked != fatal(EOPNOTSUPP))
        result =
            failed<"IFERROR120", "ERROR: %s: Failed to check whether interface was deleted or not">(asked);
    if (asked == 0 && deleted)
        result = failed<"IFERROR121",
                        "ERROR: %s: Attempted to access attributes for deleted interface with handle 0x%x">(
            fatal(EINVAL), static_cast<std::uint32_t>(ifh));
}

cerrno refuse_deleted(Client& client, const Targets& targets) {
    Owned<std::uint8_t> deleted = allocate_array<std::uint8_t>(targets.count);
    Owned<cerrno> asked = allocate_array<cerrno>(targets.count);
    if (!deleted || !asked) return no_memory<"IFERROR122">();
    const cerrno error = qel_if_shim_bulk_has_property(&client, targets.handles, QEL_IF_PROPERTY_DELETED,
                                                       deleted.get(), asked.get(), targets.count);
    if (error == fatal(EOPNOTSUPP)) return 0;
    if (error != 0) return error;
    for (std::size_t i = 0; i < targets.count; ++i)
        refuse_if_deleted(targets.handles[i], asked.get()[i], deleted.get()[i] != 0, targets.results[i]);
    return 0;
}

// Reads the attribute of an index for all; place(i) says where entry i goes.
template <class Place>
cerrno read_all(Client& client, const Targets& targets, std::uint32_t index, std::uint64_t size,
                Place place) {
    qel_if_bulk bulk{};
    if (cerrno error = qel_if_shim_prepare_bulk(&bulk, targets.handles, targets.results, targets.count);
        error != 0)
        return error;
    for (std::size_t i = 0; i < targets.count; ++i) qel_if_shim_arrange_bulk(&bulk, i, place(i), size);
    return qel_if_shim_run_bulk_get_attr(&client, code_of(index), &bulk);
}

// --- Rules

// Another attribute of the same interfaces, a word each, read for a rule.
class Needed {
  public:
    // A failure of the whole run but for memory stands in every entry.
    cerrno read(Client& client, const Targets& targets, std::uint32_t index) {
        values_ = allocate_array<std::uint32_t>(targets.count);
        results_ = allocate_array<cerrno>(targets.count);
        if (!values_ || !results_) return no_memory<"IFERROR123">();
        const cerrno error =
            read_all(client, {targets.handles, results_.get(), targets.count}, index, sizeof(std::uint32_t),
                     [this](std::size_t i) { return values_.get() + i; });
        if (error == fatal(ENOMEM)) return error;
        if (error != 0) std::fill_n(results_.get(), targets.count, error);
        return 0;
    }
    template <class Out>
    cerrno get(std::size_t i, Out* out) const {
        *out = static_cast<Out>(values_.get()[i]);
        return results_.get()[i];
    }

  private:
    Owned<std::uint32_t> values_;
    Owned<cerrno> results_;
};

// Applies the rule to each entry of a run: one that it refuses gets the reason and a value of zeros.
// read(index, i, &value) gives what the rule asks for of entry i.
template <class Value, class Read>
void apply_rule(Rule rule, const Targets& targets, Value* values, Read read) {
    for (std::size_t i = 0; i < targets.count; ++i) {
        auto read_entry = [&](std::uint32_t index, auto* out) { return read(index, i, out); };
        const cerrno refused = check_rule(rule, read_entry);
        if (refused == 0) continue;
        targets.results[i] = refused;
        values[i] = {};
    }
}

// 'what' is the encapsulations if the rule is dot1q.
template <class Value>
cerrno apply_rule_of(Rule rule, Client& client, const Targets& targets, Value* values, Needed& what) {
    if (rule == Rule::none) return 0;
    if (rule == Rule::layer3) {
        apply_rule(rule, targets, values, [&](std::uint32_t, std::size_t i, auto* out) {
            std::uint8_t is_layer2 = 0;
            const cerrno error = qel_if_shim_is_layer2(&client, targets.handles[i], &is_layer2);
            *out = is_layer2;
            return error;
        });
        return 0;
    }
    Needed state;
    cerrno error = 0;
    if (rule != Rule::dot1q)
        error = what.read(client, targets,
                          rule == Rule::has_address ? QEL_IF_ATTR_IF_ENCAP : QEL_IF_ATTR_IF_TYPE);
    if (error == 0 && rule == Rule::ethernet_up) error = state.read(client, targets, QEL_IF_ATTR_OPER_STATE);
    if (error != 0) return error;
    apply_rule(rule, targets, values, [&](std::uint32_t asked, std::size_t i, auto* out) {
        return asked == QEL_IF_ATTR_OPER_STATE ? state.get(i, out) : what.get(i, out);
    });
    return 0;
}

// Reads an attribute of all into an array, by its rule, which also tells why no entry has the attribute.
template <class Value>
cerrno read_values(Client& client, const Targets& targets, std::uint32_t index, Value* values) {
    const Rule rule = kAttributes[index].rule;
    Needed what;
    if (rule == Rule::dot1q)
        if (cerrno error = what.read(client, targets, QEL_IF_ATTR_IF_ENCAP); error != 0) return error;
    const cerrno error =
        read_all(client, targets, index, sizeof(Value), [values](std::size_t i) { return values + i; });
    if (error != 0 && error != fatal(EOPNOTSUPP)) return error;
    const cerrno of_rule = apply_rule_of(rule, client, targets, values, what);
    return of_rule != 0 ? of_rule : error;
}

cerrno read_texts(Client& client, const Targets& targets, std::uint32_t index, char* const* buffers,
                  std::size_t size) {
    return read_all(client, targets, index, size, [buffers](std::size_t i) { return buffers[i]; });
}

// --- The client's calls

template <class Work>
cerrno with_client(std::uint32_t app, bool are_set, Work work) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR124">(app);
    if (!client) return fatal(EINVAL);
    if (!are_set) return invalid_arguments<"IFERROR125">();
    return work(client.get());
}

bool are_all_set(char* const* buffers, std::size_t count) {
    return buffers != nullptr &&
           std::all_of(buffers, buffers + count, [](const char* buffer) { return buffer != nullptr; });
}

bool are_stat_places_set(const std::uint32_t* ids, const qel_if_stat_values* values, std::size_t count) {
    return ids != nullptr && values != nullptr && std::all_of(values, values + count, [](const auto& place) {
               return place.values != nullptr && place.results != nullptr;
           });
}

}  // namespace
}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

// --- A run, step by step

cerrno qel_if_shim_prepare_bulk(qel_if_bulk* bulk, const uint64_t* handles, cerrno* results, size_t count) {
    *bulk = {handles, nullptr, results, count, 1, shim_of(handles[0])};
    bulk->attrs = allocate_array<qel_if_attr_data>(count).release();
    return bulk->attrs != nullptr ? 0 : no_memory<"IFERROR126">();
}

void qel_if_shim_arrange_bulk(qel_if_bulk* bulk, size_t index, void* value, uint64_t size) {
    if (shim_of(bulk->handles[index]) != bulk->ifmgr_id) bulk->same_shim = 0;
    bulk->attrs[index] = {size, value};
}

cerrno qel_if_shim_run_bulk_get_attr(qel_if_client* client, uint32_t attr, qel_if_bulk* bulk) {
    Owned<qel_if_attr_data> attrs{bulk->attrs};
    const cerrno error = run(*client, attr, *bulk);
    bulk->attrs = nullptr;
    if (error != 0 || (client->attr.options & QEL_IF_OPTION_BIND_ALLOW_DELETED) != 0) return error;
    return refuse_deleted(*client, {bulk->handles, bulk->results, bulk->count});
}

// --- Attributes: a read for a client that is held, and the client's call

#define QEL_IF_BULK_CALLS(shim_name, name, index, Value)                                                     \
    cerrno shim_name(qel_if_client* client, const uint64_t* handles, Value* values, cerrno* results,         \
                     size_t count) {                                                                         \
        return read_values(*client, {handles, results, count}, index, values);                               \
    }                                                                                                        \
    cerrno name(uint32_t app, const uint64_t* handles, Value* values, cerrno* results, size_t count) {       \
        const Targets targets{handles, results, count};                                                      \
        return with_client(app, targets.are_set() && values != nullptr, [&](Client* client) {                \
            return shim_name(client, handles, values, results, count);                                       \
        });                                                                                                  \
    }
#define QEL_IF_BULK(name, index, Value)                                                                      \
    QEL_IF_BULK_CALLS(qel_if_shim_bulk_##name, qel_if_bulk_##name, index, Value)
#define QEL_IF_BULK_TEXT(name, index)                                                                        \
    cerrno qel_if_shim_bulk_##name(qel_if_client* client, const uint64_t* handles, char* const* buffers,     \
                                   cerrno* results, size_t size, size_t count) {                             \
        return read_texts(*client, {handles, results, count}, index, buffers, size);                         \
    }                                                                                                        \
    cerrno qel_if_bulk_##name(uint32_t app, const uint64_t* handles, char* const* buffers, cerrno* results,  \
                              size_t size, size_t count) {                                                   \
        const Targets targets{handles, results, count};                                                      \
        const bool are_set = targets.are_set() && size >= kAttributes[index].size;                           \
        return with_client(app, are_set && are_all_set(buffers, count), [&](Client* client) {                \
            return qel_if_shim_bulk_##name(client, handles, buffers, results, size, count);                  \
        });                                                                                                  \
    }

QEL_IF_BULK(get_type, QEL_IF_ATTR_IF_TYPE, uint32_t)
QEL_IF_BULK(get_physical_loc, QEL_IF_ATTR_PHYS_LOC, qel_if_phys_loc)
QEL_IF_BULK(get_encap, QEL_IF_ATTR_IF_ENCAP, uint32_t)
QEL_IF_BULK(get_oper_state, QEL_IF_ATTR_OPER_STATE, uint32_t)
QEL_IF_BULK(get_admin_state, QEL_IF_ATTR_ADMIN_STATE, uint32_t)
QEL_IF_BULK_TEXT(get_name, QEL_IF_ATTR_IF_NAME)
QEL_IF_BULK_TEXT(get_short_name, QEL_IF_ATTR_IF_SHORT_NAME)
QEL_IF_BULK(get_snmp_if_index, QEL_IF_ATTR_SNMP_INDEX, uint64_t)
QEL_IF_BULK(get_unidir_mode, QEL_IF_ATTR_UNIDIR_MODE, uint32_t)
QEL_IF_BULK(get_mtu, QEL_IF_ATTR_MTU, uint32_t)
QEL_IF_BULK(get_tx_bandwidth, QEL_IF_ATTR_TX_BANDWIDTH, uint32_t)
QEL_IF_BULK(get_rx_bandwidth, QEL_IF_ATTR_RX_BANDWIDTH, uint32_t)
QEL_IF_BULK(get_statistics, QEL_IF_ATTR_STATISTICS, qel_if_statistics)
QEL_IF_BULK_TEXT(get_description, QEL_IF_ATTR_IF_DESCRIPTION)
QEL_IF_BULK(get_encap_dot1q, QEL_IF_ATTR_ENCAP_DOT1Q, qel_if_dot1q)
QEL_IF_BULK(get_vrf, QEL_IF_ATTR_VRF, qel_if_vrf)
QEL_IF_BULK(get_speed, QEL_IF_ATTR_SPEED, uint32_t)
QEL_IF_BULK(get_speed_max, QEL_IF_ATTR_SPEED_MAX, uint32_t)
QEL_IF_BULK(get_input_flow_control, QEL_IF_ATTR_INPUT_FLOW_CONTROL, uint32_t)
QEL_IF_BULK(get_output_flow_control, QEL_IF_ATTR_OUTPUT_FLOW_CONTROL, uint32_t)
QEL_IF_BULK(get_auto_negotiation, QEL_IF_ATTR_AUTO_NEGOTIATION, uint32_t)
QEL_IF_BULK(get_port_channel_id, QEL_IF_ATTR_PC_ID, uint64_t)
QEL_IF_BULK(get_port_channel_member_priority, QEL_IF_ATTR_PC_PRIORITY, uint16_t)
QEL_IF_BULK(get_port_channel_member_mode, QEL_IF_ATTR_PC_MODE, uint32_t)
QEL_IF_BULK_CALLS(qel_if_shim_get_port_channel_from_handle, qel_if_get_port_channel_from_handle,
                  QEL_IF_ATTR_PC_ID_FROM_HANDLE, qel_if_port_channel)

#undef QEL_IF_BULK_TEXT
#undef QEL_IF_BULK
#undef QEL_IF_BULK_CALLS

// Whoever serves the first interface's bridge domain serves all.
cerrno qel_if_shim_bulk_get_bd(qel_if_client* client, const uint64_t* handles, qel_if_bd* values,
                               cerrno* results, size_t count) {
    std::uint32_t shim = 0;
    if (cerrno error = redirect(*client, handles[0], code_of(QEL_IF_ATTR_BD), shim); error != 0) return error;
    qel_if_bulk bulk{};
    if (cerrno error = qel_if_shim_prepare_bulk(&bulk, handles, results, count); error != 0) return error;
    for (size_t i = 0; i < count; ++i) qel_if_shim_arrange_bulk(&bulk, i, values + i, sizeof(qel_if_bd));
    bulk.ifmgr_id = shim;
    return qel_if_shim_run_bulk_get_attr(client, code_of(QEL_IF_ATTR_BD), &bulk);
}

cerrno qel_if_bulk_get_bd(uint32_t app, const uint64_t* handles, qel_if_bd* values, cerrno* results,
                          size_t count) {
    const Targets targets{handles, results, count};
    return with_client(app, targets.are_set() && values != nullptr, [&](Client* client) {
        return qel_if_shim_bulk_get_bd(client, handles, values, results, count);
    });
}

cerrno qel_if_shim_bulk_get_stat(qel_if_client* client, const uint64_t* handles, size_t count,
                                 const uint32_t* ids, size_t num_ids, cerrno* results,
                                 qel_if_stat_values* values) {
    if (num_ids == 0) return 0;
    Owned<qel_if_stat_request> requests = allocate_array<qel_if_stat_request>(count);
    if (!requests) return no_memory<"IFERROR127">();
    for (size_t i = 0; i < count; ++i) requests.get()[i] = {ids, num_ids, values + i};
    return read_values(*client, {handles, results, count}, QEL_IF_ATTR_GENERIC_STATS, requests.get());
}

cerrno qel_if_bulk_get_stat(uint32_t app, const uint64_t* handles, size_t count, const uint32_t* ids,
                            size_t num_ids, cerrno* results, qel_if_stat_values* values) {
    const bool are_set = handles != nullptr && count != 0 &&
                         (num_ids == 0 || (results != nullptr && are_stat_places_set(ids, values, count)));
    return with_client(app, are_set, [&](Client* client) {
        return qel_if_shim_bulk_get_stat(client, handles, count, ids, num_ids, results, values);
    });
}

// --- Names

cerrno qel_if_shim_bulk_get_handle(qel_if_client* client, const char* const* names, uint64_t* handles,
                                   cerrno* results, size_t count) {
    const qel_if_shim_client* shim = client->shim_ctx[0];
    if (shim == nullptr) return fatal(ENOMEM);
    if (shim->handlers.bulk_get_handle != nullptr)
        return shim->handlers.bulk_get_handle(shim->info, names, handles, results, count);
    return run_one_by_one({results, count}, [&](std::size_t i) {
        return names[i] == nullptr ? fatal(EINVAL) : qel_if_shim_get_handle(client, names[i], &handles[i]);
    });
}

cerrno qel_if_bulk_get_handle(uint32_t app, const char* const* names, uint64_t* handles, cerrno* results,
                              size_t count) {
    const bool are_set = names != nullptr && handles != nullptr && results != nullptr && count != 0;
    return with_client(app, are_set, [&](Client* client) {
        return qel_if_shim_bulk_get_handle(client, names, handles, results, count);
    });
}

// --- Questions

cerrno qel_if_shim_bulk_has_property(qel_if_client* client, const uint64_t* handles, uint32_t property,
                                     uint8_t* has, cerrno* results, size_t count) {
    const qel_if_shim_client* shim = nullptr;
    if (cerrno error = find_shim(*client, shim_of(handles[0]), shim); error != 0) return error;
    if (shim->handlers.bulk_has_property != nullptr)
        return shim->handlers.bulk_has_property(shim->info, handles, property, has, results, count);
    return run_one_by_one({results, count}, [&](std::size_t i) {
        return qel_if_shim_has_property(client, handles[i], property, &has[i]);
    });
}

cerrno qel_if_bulk_has_property(uint32_t app, const uint64_t* handles, uint32_t property, uint8_t* has,
                                cerrno* results, size_t count) {
    const Targets targets{handles, results, count};
    return with_client(app, targets.are_set() && has != nullptr, [&](Client* client) {
        return qel_if_shim_bulk_has_property(client, handles, property, has, results, count);
    });
}

cerrno qel_if_shim_bulk_has_attribute(qel_if_client* client, const uint64_t* handles, uint8_t* has,
                                      uint32_t code, cerrno* results, size_t count) {
    std::uint32_t property = 0;
    if (!find_property(code, property))
        return failed<"IFERROR128", "ERROR: %s: passed invalid attribute to qel_if_has_attribute()">(
            fatal(EINVAL));
    return qel_if_shim_bulk_has_property(client, handles, property, has, results, count);
}

cerrno qel_if_bulk_has_attribute(uint32_t app, const uint64_t* handles, uint8_t* has, uint32_t code,
                                 cerrno* results, size_t count) {
    const Targets targets{handles, results, count};
    return with_client(app, targets.are_set() && has != nullptr, [&](Client* client) {
        return qel_if_shim_bulk_has_attribute(client, handles, has, code, results, count);
    });
}

// --- What no shim serves

cerrno qel_if_shim_get_port_channel_member_count(qel_if_client*, const uint64_t*, uint64_t*, cerrno*,
                                                 size_t) {
    return fatal(EOPNOTSUPP);
}

cerrno qel_if_get_port_channel_member_count(uint32_t app, const uint64_t* ids, uint64_t* values,
                                            cerrno* results, size_t count) {
    const Targets targets{ids, results, count};
    return with_client(app, targets.are_set() && values != nullptr, [&](Client* client) {
        return qel_if_shim_get_port_channel_member_count(client, ids, values, results, count);
    });
}

cerrno qel_if_shim_get_port_channel_state(qel_if_client*, const uint64_t*, uint32_t*, cerrno*, size_t) {
    return fatal(EOPNOTSUPP);
}

cerrno qel_if_get_port_channel_state(uint32_t app, const uint64_t* ids, uint32_t* values, cerrno* results,
                                     size_t count) {
    const Targets targets{ids, results, count};
    return with_client(app, targets.are_set() && values != nullptr, [&](Client* client) {
        return qel_if_shim_get_port_channel_state(client, ids, values, results, count);
    });
}
