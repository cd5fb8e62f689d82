// Attributes of interfaces, as the calls that read them see them: how large a value is, and what must hold of
// the interface for it to be read.
//
//     qel_if_attr.cpp   the door to the shims, and reads of one interface
//     qel_if_bulk.cpp   reads of many
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "net/qel_if.hpp"

namespace qel::interfaces {

// What an interface must be for an attribute to be read.
enum class Rule : std::uint8_t {
    none,
    ethernet,     // of type Ethernet
    ethernet_up,  // and not down
    dot1q,        // encapsulated so
    has_address,  // of an encapsulation with addresses
    layer3,       // not layer 2
};

struct Attribute {
    std::uint16_t size;  // of the value, in bytes; for texts the least size of a buffer
    Rule rule = Rule::none;
};

constexpr std::array<Attribute, QEL_IF_ATTR_PC_ID_FROM_HANDLE + 1> kAttributes = [] {
    std::array<Attribute, QEL_IF_ATTR_PC_ID_FROM_HANDLE + 1> rows{};
    for (Attribute& row : rows) row.size = sizeof(std::uint32_t);
    for (auto index :
         {QEL_IF_ATTR_BASE_IF, QEL_IF_ATTR_SNMP_INDEX, QEL_IF_ATTR_SUPPORTED_STAT_COUNT, QEL_IF_ATTR_PC_ID})
        rows[index].size = sizeof(std::uint64_t);
    rows[QEL_IF_ATTR_IS_LAYER2] = {1};
    rows[QEL_IF_ATTR_PHYS_LOC] = {sizeof(qel_if_phys_loc)};
    rows[QEL_IF_ATTR_IF_NAME] = {QEL_IF_NAME_SIZE};
    rows[QEL_IF_ATTR_IF_SHORT_NAME] = {QEL_IF_NAME_SIZE};
    rows[QEL_IF_ATTR_IF_DESCRIPTION] = {QEL_IF_DESCRIPTION_SIZE};
    rows[QEL_IF_ATTR_MAC_ADDR] = {6, Rule::has_address};
    rows[QEL_IF_ATTR_STATISTICS] = {sizeof(qel_if_statistics)};
    rows[QEL_IF_ATTR_ENCAP_DOT1Q] = {sizeof(qel_if_dot1q), Rule::dot1q};
    rows[QEL_IF_ATTR_VRF] = {sizeof(qel_if_vrf), Rule::layer3};
    rows[QEL_IF_ATTR_BD] = {sizeof(qel_if_bd)};
    rows[QEL_IF_ATTR_GENERIC_STATS] = {sizeof(qel_if_stat_request)};
    rows[QEL_IF_ATTR_STAT_SUPPORTED] = {sizeof(qel_if_stat_list)};
    rows[QEL_IF_ATTR_PC_PRIORITY] = {sizeof(std::uint16_t)};
    rows[QEL_IF_ATTR_PC_ID_FROM_HANDLE] = {sizeof(qel_if_port_channel)};
    for (auto index : {QEL_IF_ATTR_SPEED, QEL_IF_ATTR_INPUT_FLOW_CONTROL, QEL_IF_ATTR_OUTPUT_FLOW_CONTROL,
                       QEL_IF_ATTR_AUTO_NEGOTIATION, QEL_IF_ATTR_DUPLEX_MODE})
        rows[index].rule = Rule::ethernet_up;
    rows[QEL_IF_ATTR_SPEED_MAX].rule = Rule::ethernet;
    return rows;
}();

static_assert(sizeof(qel_if_phys_loc) == 24 && sizeof(qel_if_statistics) == 152);
static_assert(sizeof(qel_if_dot1q) == 12 && sizeof(qel_if_vrf) == 40 && sizeof(qel_if_bd) == 72);
static_assert(sizeof(qel_if_stat_request) == 24 && sizeof(qel_if_stat_list) == 16);
static_assert(sizeof(qel_if_port_channel) == 16 && sizeof(qel_if_attr_data) == 16);

constexpr std::uint32_t code_of(std::uint32_t index) {
    return QEL_IF_ATTR_BASE + index;
}

constexpr bool has_address(std::uint32_t encap) {
    return encap == QEL_IF_ENCAP_ETHER || encap == QEL_IF_ENCAP_DOT1Q || encap == QEL_IF_ENCAP_ATM;
}

// What a rule makes of an interface: read(index, &value) reads one of its attributes. 0, or why the rule
// doesn't hold.
template <class Read>
cerrno check_rule(Rule rule, Read read) {
    std::uint32_t type = 0, encap = 0, state = 0;
    std::uint8_t is_layer2 = 0;
    cerrno error = 0;
    bool holds = true;
    switch (rule) {
    case Rule::none:
        break;
    case Rule::ethernet:
    case Rule::ethernet_up:
        error = read(QEL_IF_ATTR_IF_TYPE, &type);
        holds = type == QEL_IF_TYPE_ETHERNET;
        if (rule == Rule::ethernet || error != 0 || !holds) break;
        error = read(QEL_IF_ATTR_OPER_STATE, &state);
        if (error == 0 && state == QEL_IF_OPER_DOWN) return fatal(EFAULT);
        break;
    case Rule::dot1q:
    case Rule::has_address:
        error = read(QEL_IF_ATTR_IF_ENCAP, &encap);
        holds = rule == Rule::dot1q ? encap == QEL_IF_ENCAP_DOT1Q : has_address(encap);
        break;
    case Rule::layer3:
        error = read(QEL_IF_ATTR_IS_LAYER2, &is_layer2);
        holds = is_layer2 == 0;
        break;
    }
    if (error != 0) return error;
    return holds ? 0 : fatal(EOPNOTSUPP);
}

// The shim that serves the attribute of the interface, the one of the handle or whom that one names.
cerrno redirect(const Client& client, std::uint64_t ifh, std::uint32_t attr, std::uint32_t& shim);

// The property behind a ::qel_if_attribute_question; false for another code.
bool find_property(std::uint32_t code, std::uint32_t& property);

}  // namespace qel::interfaces
