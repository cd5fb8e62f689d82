// Names of the interface service's values: for each enumeration a table, indexed by the value.
#include <qel/base.h>
#include <qel/if.h>
#include <qel/if_cfg.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qel::interfaces {
namespace {

constexpr std::array kTypes{"QEL_IF_TYPE_UNSUPPORTED",
                            "QEL_IF_TYPE_ANY",
                            "QEL_IF_TYPE_NULL",
                            "QEL_IF_TYPE_LOOPBACK",
                            "QEL_IF_TYPE_ETHERNET",
                            "QEL_IF_TYPE_ETHER_CHANNEL",
                            "QEL_IF_TYPE_GIGABIT_ETHERNET",
                            "QEL_IF_TYPE_SERIAL",
                            "QEL_IF_TYPE_TUNNEL",
                            "QEL_IF_TYPE_P2P",
                            "QEL_IF_TYPE_MULTI_LINK",
                            "QEL_IF_TYPE_TE",
                            "QEL_IF_TYPE_PSEUDOWIRE",
                            "QEL_IF_TYPE_WIRELESS",
                            "QEL_IF_TYPE_ATM",
                            "QEL_IF_TYPE_FRAME_RELAY",
                            "QEL_IF_TYPE_VLAN",
                            "QEL_IF_TYPE_PPP",
                            "QEL_IF_TYPE_MLP_BUNDLE",
                            "QEL_IF_TYPE_POS",
                            "QEL_IF_TYPE_POS_CHANNEL",
                            "QEL_IF_TYPE_NATIVE_VLAN",
                            "QEL_IF_TYPE_HDLC",
                            "QEL_IF_TYPE_BVI",
                            "QEL_IF_TYPE_INTERFLEX_LEFT",
                            "QEL_IF_TYPE_INTERFLEX_RIGHT",
                            "QEL_IF_TYPE_PSEUDOWIRE_HE",
                            "QEL_IF_TYPE_MANAGEMENT",
                            "QEL_IF_TYPE_SVI",
                            "QEL_IF_TYPE_VFI"};
static_assert(kTypes.size() == QEL_IF_TYPE_VFI + 1);

constexpr std::array kEncaps{"QEL_IF_ENCAP_NULL", "QEL_IF_ENCAP_ANY",   "QEL_IF_ENCAP_UNKNOWN",
                             "QEL_IF_ENCAP_ARPA", "QEL_IF_ENCAP_LOOP",  "QEL_IF_ENCAP_DOT1Q",
                             "QEL_IF_ENCAP_ATM",  "QEL_IF_ENCAP_SNAP",  "QEL_IF_ENCAP_HDLC",
                             "QEL_IF_ENCAP_PPP",  "QEL_IF_ENCAP_ETHER", "QEL_IF_ENCAP_GRE",
                             "QEL_IF_ENCAP_MPLS"};
static_assert(kEncaps.size() == QEL_IF_ENCAP_MPLS + 1);

constexpr std::array kDot1qEncaps{"QEL_IF_ENCAP_DOT1Q_NONE", "QEL_IF_ENCAP_DOT1Q_DOT1Q",
                                  "QEL_IF_ENCAP_DOT1Q_QINQ", "QEL_IF_ENCAP_DOT1Q_QINANY"};

constexpr std::array kOperStates{"up", "down"};
constexpr std::array kAdminStates{"admin up", "admin down"};

constexpr std::array kUnidirModes{"QEL_IF_UNIDIR_OFF", "QEL_IF_UNIDIR_SEND_ONLY", "QEL_IF_UNIDIR_RECV_ONLY"};

constexpr std::array kDuplexModes{"QEL_IF_FULL_DUPLEX", "QEL_IF_HALF_DUPLEX", "QEL_IF_AUTO_DUPLEX"};

constexpr std::array kFlowControls{"QEL_IF_FLOW_CONTROL_OFF", "QEL_IF_FLOW_CONTROL_ON",
                                   "QEL_IF_FLOW_CONTROL_DESIRED"};

constexpr std::array kAutoNegotiations{"QEL_IF_AUTO_NEGOTIATION_OFF", "QEL_IF_AUTO_NEGOTIATION_ON"};

constexpr std::array kStats{"QEL_IF_STAT_RELIABILITY",
                            "QEL_IF_STAT_RESETS",
                            "QEL_IF_STAT_RX_LOAD",
                            "QEL_IF_STAT_RX_BYTES_PER_SEC",
                            "QEL_IF_STAT_RX_PKTS_PER_SEC",
                            "QEL_IF_STAT_RX_BYTES",
                            "QEL_IF_STAT_RX_PKTS",
                            "QEL_IF_STAT_RX_PKTS_UCAST",
                            "QEL_IF_STAT_RX_PKTS_MCAST",
                            "QEL_IF_STAT_RX_PKTS_BCAST",
                            "QEL_IF_STAT_RX_PKTS_DISCARD",
                            "QEL_IF_STAT_RX_PKTS_ERRORS",
                            "QEL_IF_STAT_RX_PKTS_UNKNOWN",
                            "QEL_IF_STAT_RX_PKTS_RUNTS",
                            "QEL_IF_STAT_RX_PKTS_GIANTS",
                            "QEL_IF_STAT_RX_PKTS_THROTTLE",
                            "QEL_IF_STAT_RX_PKTS_CRC",
                            "QEL_IF_STAT_RX_PKTS_FRAME",
                            "QEL_IF_STAT_RX_PKTS_OVERRUN",
                            "QEL_IF_STAT_TX_LOAD",
                            "QEL_IF_STAT_TX_BYTES_PER_SEC",
                            "QEL_IF_STAT_TX_PKTS_PER_SEC",
                            "QEL_IF_STAT_TX_BYTES",
                            "QEL_IF_STAT_TX_PKTS",
                            "QEL_IF_STAT_TX_PKTS_UCAST",
                            "QEL_IF_STAT_TX_PKTS_MCAST",
                            "QEL_IF_STAT_TX_PKTS_BCAST",
                            "QEL_IF_STAT_TX_PKTS_DISCARDS",
                            "QEL_IF_STAT_TX_PKTS_ERRORS",
                            "QEL_IF_STAT_TX_PKTS_UNDERRUN",
                            "QEL_IF_STAT_TX_PKTS_BUFFER_FAILURES",
                            "QEL_IF_STAT_TX_PKTS_BUFFER_SWAPPEDOUT",
                            "QEL_IF_STAT_TX_PKTS_TAIL_DROPS",
                            "QEL_IF_STAT_TX_PKTS_VOQ_DROPS",
                            "QEL_IF_STAT_TX_PKTS_REP_ENG_DROP",
                            "QEL_IF_STAT_TX_PKTS_COLLISIONS"};
static_assert(kStats.size() == QEL_IF_STAT_TX_PKTS_COLLISIONS + 1);

constexpr std::array kAttributes{"is_layer2",
                                 "base_if",
                                 "if_type",
                                 "phys_loc",
                                 "if_encap",
                                 "oper_state",
                                 "admin_state",
                                 "if_name",
                                 "if_short_name",
                                 "snmp_index",
                                 "unidir_mode",
                                 "mtu",
                                 "tx_bandwidth",
                                 "rx_bandwidth",
                                 "duplex_mode",
                                 "mac_addr",
                                 "max_mac_filters",
                                 "statistics",
                                 "if_description",
                                 "encap_dot1q",
                                 "vrf",
                                 "bd",
                                 "generic_stats",
                                 "supported_stat_count",
                                 "stat_supported",
                                 "speed",
                                 "speed_max",
                                 "input_flow_control",
                                 "output_flow_control",
                                 "auto_negotiation",
                                 "pc_id",
                                 "pc_priority",
                                 "pc_mode",
                                 "pc_id_from_handle"};
static_assert(kAttributes.size() == QEL_IF_ATTR_PC_ID_FROM_HANDLE + 1);

constexpr std::array kConfigurations{"QEL_IF_CFG_ATTR_ADMIN",
                                     "QEL_IF_CFG_ATTR_MTU",
                                     "QEL_IF_CFG_ATTR_ENCAP_DOT1Q",
                                     "QEL_IF_CFG_ATTR_BW",
                                     "QEL_IF_CFG_ATTR_MAC",
                                     "QEL_IF_CFG_ATTR_ADDRESS",
                                     "QEL_IF_CFG_ATTR_DESCRIPTION",
                                     "QEL_IF_CFG_ATTR_LAYER2",
                                     "QEL_IF_CFG_ATTR_SWITCHPORT_MODE",
                                     "QEL_IF_CFG_ATTR_IPV4_REDIRECTS",
                                     "QEL_IF_CFG_ATTR_IPV6_REDIRECTS",
                                     "QEL_IF_CFG_ATTR_IPV4_UNREACHABLES",
                                     "QEL_IF_CFG_ATTR_IPV6_UNREACHABLES",
                                     "QEL_IF_CFG_ATTR_IPV4_PROXY_ARP",
                                     "QEL_IF_CFG_ATTR_IPV4_HELPER_ADDRESS",
                                     "QEL_IF_CFG_ATTR_SPEED",
                                     "QEL_IF_CFG_ATTR_DUPLEX_MODE",
                                     "QEL_IF_CFG_ATTR_INPUT_FLOW_CONTROL",
                                     "QEL_IF_CFG_ATTR_OUTPUT_FLOW_CONTROL",
                                     "QEL_IF_CFG_ATTR_AUTO_NEG",
                                     "QEL_IF_CFG_ATTR_FORWARD_CLASS",
                                     "QEL_IF_CFG_OPENFLOW_STATE"};
static_assert(kConfigurations.size() == QEL_IF_CFG_OPENFLOW_STATE + 1);

constexpr std::array kProperties{"visible", "hidden",       "resync",  "layer2",
                                 "virtual", "subinterface", "physical"};
static_assert(kProperties.size() == QEL_IF_PROPERTY_PHYSICAL + 1);

using Names = std::span<const char* const>;

const char* name_at(Names names, std::uint32_t value, const char* otherwise = "Invalid Attribute") {
    qel_check_not_interrupt_path();
    return value < names.size() ? names[value] : otherwise;
}

}  // namespace
}  // namespace qel::interfaces

using namespace qel::interfaces;

const char* qel_if_get_printable_type(uint32_t type) {
    return name_at(kTypes, type);
}

const char* qel_if_get_printable_encap(uint32_t encap) {
    return name_at(kEncaps, encap);
}

const char* qel_if_get_printable_encap_dot1q(uint32_t encap) {
    return name_at(kDot1qEncaps, encap);
}

const char* qel_if_get_printable_oper_state(uint32_t state) {
    return name_at(kOperStates, state);
}

const char* qel_if_get_printable_admin_state(uint32_t state) {
    return name_at(kAdminStates, state);
}

const char* qel_if_get_printable_unidir_mode(uint32_t mode) {
    return name_at(kUnidirModes, mode);
}

const char* qel_if_get_printable_duplex_mode(uint32_t mode) {
    return name_at(kDuplexModes, mode);
}

const char* qel_if_get_printable_flow_control(uint32_t flow_control) {
    return name_at(kFlowControls, flow_control);
}

const char* qel_if_get_printable_auto_negotiation(uint32_t negotiation) {
    return name_at(kAutoNegotiations, negotiation);
}

const char* qel_if_get_printable_stat(uint32_t id) {
    return name_at(kStats, id);
}

const char* qel_if_cfg_attr_type_to_string(uint32_t type) {
    return name_at(kConfigurations, type);
}

const char* qel_if_attr_type_to_string(uint32_t code) {
    return name_at(kAttributes, code - QEL_IF_ATTR_BASE, "unknown");
}

const char* qel_if_property_to_string(uint32_t property) {
    return property == QEL_IF_PROPERTY_DELETED ? "deleted" : name_at(kProperties, property, "unknown");
}
