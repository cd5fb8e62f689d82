// "Linux default shim": the links of the kernel as interfaces.
//
// The first client's bind reads the kernel's list into a table, the last one's end frees it. Attributes are
// read there: a row says where in a link's entry its value lies and whether only Ethernet has it. News of
// links is followed while a client is registered for events.
//
// Locks: 'bind_mutex' over the making and freeing of the table. Threads: any. Restart: nothing stays.
#include "net/qel_if_lnx.hpp"

#include <qel/if_cfg.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "net/qel_if.hpp"
#include "net/qel_if_lnx_links.hpp"
#include "net/qel_if_lnx_news.hpp"
#include "net/qel_if_lnx_socket.hpp"

namespace qel::interfaces {
namespace {

using lnx::Entry;
using Info = qel_if_shim_info;

// --- Clients

constinit Mutex bind_mutex;
constinit std::uint32_t binds QEL_GUARDED_BY(bind_mutex) = 0;
constinit netlink::StaticSocket rtnl_attr_fd QEL_GUARDED_BY(bind_mutex);

void leave_locked() QEL_REQUIRES(bind_mutex) {
    lnx::free_table();
    rtnl_attr_fd.reset();
}

cerrno enter_locked() QEL_REQUIRES(bind_mutex) {
    if (cerrno error = lnx::make_table(); error != 0) return error;
    netlink::Socket socket;
    cerrno error = netlink::attr_socket_create(socket);
    if (error == 0) error = lnx::read_list(socket.get());
    rtnl_attr_fd.reset(std::move(socket));
    if (error != 0) leave_locked();
    return error;
}

void unbind() {
    Locked lock{bind_mutex};
    if (--binds == 0) leave_locked();
}

cerrno bind() {
    Locked lock{bind_mutex};
    if (binds == 0)
        if (cerrno error = enter_locked(); error != 0) return error;
    ++binds;
    return 0;
}

cerrno shim_lnx_bind(const Info* info) {
    if (cerrno error = bind(); error != 0) return error;
    qel_if_shim_bind_status status;
    static_cast<void>(qel_if_shim_bind_status_init(&status));  // fails for null only
    status.app = info->app;
    const cerrno error = qel_if_shim_report_bind_status(&status);
    if (error != 0) unbind();
    return error;
}

cerrno shim_lnx_destroy(const Info*) {
    unbind();
    return 0;
}

// A client without a dispatcher uses the default one, or hears nothing.
cerrno shim_lnx_register_callbacks(const Info* info, const qel_if_shim_reg* reg) {
    const qel_dm_handle dm = info->qdm != 0 ? info->qdm : qel_dm_get_handle();
    return dm == 0 ? 0 : lnx::watch(reg->reg_handle, dm);
}

cerrno shim_lnx_deregister_callbacks(const Info*, const qel_if_shim_reg* reg) {
    lnx::unwatch(reg->reg_handle);
    return 0;
}

// --- Attributes

// Where an attribute's value lies in an entry.
struct Row {
    enum Kind : std::uint8_t { refused, value, text, address, location, question };
    Kind kind = refused;
    bool ethernet_only = false;
    std::uint16_t offset = 0;
    std::uint16_t size = 0;
};

#define QEL_FIELD(kind, ethernet_only, field)                                                                \
    Row {                                                                                                    \
        Row::kind, ethernet_only, offsetof(Entry, field), sizeof(Entry::field)                               \
    }

constexpr std::array<Row, QEL_IF_ATTR_PC_ID_FROM_HANDLE + 1> kRows = [] {
    std::array<Row, QEL_IF_ATTR_PC_ID_FROM_HANDLE + 1> rows{};
    rows[QEL_IF_ATTR_IS_LAYER2] = {Row::question};
    rows[QEL_IF_ATTR_BASE_IF] = QEL_FIELD(value, false, base_if);
    rows[QEL_IF_ATTR_IF_TYPE] = QEL_FIELD(value, false, type);
    rows[QEL_IF_ATTR_PHYS_LOC] = {Row::location, false, 0, sizeof(qel_if_phys_loc)};
    rows[QEL_IF_ATTR_IF_ENCAP] = QEL_FIELD(value, false, encap);
    rows[QEL_IF_ATTR_OPER_STATE] = QEL_FIELD(value, false, oper_state);
    rows[QEL_IF_ATTR_ADMIN_STATE] = QEL_FIELD(value, false, admin_state);
    rows[QEL_IF_ATTR_IF_NAME] = QEL_FIELD(text, false, name);
    rows[QEL_IF_ATTR_IF_SHORT_NAME] = QEL_FIELD(text, false, name);
    rows[QEL_IF_ATTR_SNMP_INDEX] = QEL_FIELD(value, false, snmp_index);
    rows[QEL_IF_ATTR_UNIDIR_MODE] = QEL_FIELD(value, false, unidir);
    rows[QEL_IF_ATTR_MTU] = QEL_FIELD(value, false, mtu);
    rows[QEL_IF_ATTR_TX_BANDWIDTH] = QEL_FIELD(value, false, tx_bandwidth);
    rows[QEL_IF_ATTR_RX_BANDWIDTH] = QEL_FIELD(value, false, rx_bandwidth);
    rows[QEL_IF_ATTR_DUPLEX_MODE] = QEL_FIELD(value, true, duplex);
    rows[QEL_IF_ATTR_MAC_ADDR] = QEL_FIELD(value, true, mac);
    rows[QEL_IF_ATTR_SPEED] = QEL_FIELD(value, true, speed);
    rows[QEL_IF_ATTR_SPEED_MAX] = QEL_FIELD(value, true, speed_max);
    rows[QEL_IF_ATTR_INPUT_FLOW_CONTROL] = QEL_FIELD(value, true, input_fc);
    rows[QEL_IF_ATTR_OUTPUT_FLOW_CONTROL] = QEL_FIELD(value, true, output_fc);
    rows[QEL_IF_ATTR_AUTO_NEGOTIATION] = QEL_FIELD(value, true, auto_neg);
    return rows;
}();

#undef QEL_FIELD

constexpr Row row_of(std::uint32_t attr) {
    const std::uint32_t index = attr - QEL_IF_ATTR_BASE;
    return index < kRows.size() ? kRows[index] : Row{};
}

// Copies the entry's value to where the reader wants it.
cerrno copy_value(const Row& row, const Entry& entry, const qel_if_attr_data& data) {
    if (row.ethernet_only && entry.type != QEL_IF_TYPE_ETHERNET) return fatal(EOPNOTSUPP);
    if (data.value == nullptr || data.size < row.size) return fatal(EINVAL);
    if (row.kind == Row::location) {
        const qel_if_phys_loc location{0, {0, entry.loc_a, 0, entry.loc_b, 0}};
        std::memcpy(data.value, &location, sizeof(location));
    } else {
        std::memcpy(data.value, reinterpret_cast<const std::byte*>(&entry) + row.offset, row.size);
    }
    return 0;
}

cerrno read_entry(const Row& row, std::uint64_t ifh, const Entry* entry, const qel_if_attr_data& data) {
    if (ifh == 0) return fatal(EINVAL);
    return entry == nullptr ? fatal(ENOENT) : copy_value(row, *entry, data);
}

cerrno say_failed(const Info& info, std::uint64_t ifh, std::uint32_t attr, cerrno error) {
    return failed<"IFERROR310", "ERROR: %s: shim=%d, rc='%s', apph=0x%x, ifh=0x%x, attr=%s">(
        error, info.shim_id, cerr_strerror(error), info.app, static_cast<std::uint32_t>(ifh),
        qel_if_attr_type_to_string(attr));
}

cerrno shim_lnx_has_property(const Info* info, std::uint64_t ifh, std::uint32_t property, std::uint8_t* has) {
    if (property == QEL_IF_PROPERTY_RESYNC) {
        *has = 0;
        return 0;
    }
    return failed<"IFERROR311", "ERROR: %s: shim=%d, rc='%s', apph=0x%x, ifh=0x%x, attr=%s">(
        fatal(EOPNOTSUPP), info->shim_id, cerr_strerror(fatal(EOPNOTSUPP)), info->app,
        static_cast<std::uint32_t>(ifh), qel_if_property_to_string(property));
}

// What the table doesn't serve.
cerrno answer_elsewhere(const Info& info, const Row& row, std::uint64_t ifh, std::uint32_t attr,
                        const qel_if_attr_data& data) {
    if (row.kind == Row::question)
        return shim_lnx_has_property(&info, ifh, QEL_IF_PROPERTY_LAYER2,
                                     static_cast<std::uint8_t*>(data.value));
    if (attr == QEL_IF_ATTR_BASE + QEL_IF_ATTR_IF_DESCRIPTION)
        report<"IFERROR312", "ERROR: %s: unsupported functionality called, apph=0x%x">(info.app);
    return fatal(EOPNOTSUPP);
}

constexpr bool is_in_table(const Row& row) {
    return row.kind != Row::refused && row.kind != Row::question;
}

cerrno shim_lnx_bulk_get_attr(const Info* info, const std::uint64_t* handles, std::uint32_t attr,
                              qel_if_attr_data* data, cerrno* results, std::size_t count) {
    const Row row = row_of(attr);
    if (is_in_table(row))
        lnx::with_entries(handles, count, [&](std::size_t i, const Entry* entry) {
            results[i] = read_entry(row, handles[i], entry, data[i]);
        });
    else
        for (std::size_t i = 0; i < count; ++i)
            results[i] = answer_elsewhere(*info, row, handles[i], attr, data[i]);
    bool some_served = false;
    for (std::size_t i = 0; i < count; ++i) {
        some_served |= results[i] != fatal(EOPNOTSUPP);
        if (results[i] != 0)
            static_cast<void>(say_failed(*info, handles[i], attr, results[i]));  // told in there
    }
    return some_served ? 0 : fatal(EOPNOTSUPP);
}

cerrno shim_lnx_get_attr(const Info* info, std::uint64_t ifh, std::uint32_t attr, qel_if_attr_data* data) {
    cerrno result = 0;
    static_cast<void>(shim_lnx_bulk_get_attr(info, &ifh, attr, data, &result, 1));  // it is in 'result'
    return result;
}

cerrno shim_lnx_get_handle(const Info*, const char* name, std::uint64_t* ifh) {
    const std::uint64_t found = lnx::find_name(name);
    if (found == 0) return fatal(ENODEV);
    *ifh = found;
    return 0;
}

cerrno shim_lnx_cfg_sync(const Info*, qel_if_cfg_res_attr*) {
    return fatal(EOPNOTSUPP);
}

constexpr qel_if_shim_registration kRegistration = [] {
    qel_if_shim_registration shim{};
    shim.name = "Linux default shim";
    shim.handlers.bind = shim_lnx_bind;
    shim.handlers.destroy = shim_lnx_destroy;
    shim.handlers.get_attr = shim_lnx_get_attr;
    shim.handlers.bulk_get_attr = shim_lnx_bulk_get_attr;
    shim.handlers.register_callbacks = shim_lnx_register_callbacks;
    shim.handlers.deregister_callbacks = shim_lnx_deregister_callbacks;
    shim.handlers.get_handle = shim_lnx_get_handle;
    shim.handlers.has_property = shim_lnx_has_property;
    shim.handlers.cfg_sync = shim_lnx_cfg_sync;
    return shim;
}();

}  // namespace

const qel_if_shim_registration& lnx_registration() {
    return kRegistration;
}

}  // namespace qel::interfaces
