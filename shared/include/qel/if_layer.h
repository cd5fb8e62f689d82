/** @file
 * The layer under the client calls of the interface service: the same reads and questions for a client that
 * the caller holds already, so that many of them look the client up once.
 *
 *     qel_if_client* client;
 *     if (qel_if_retain_client_ctx(app, &client) != 0) return;
 *     qel_if_shim_get_type(client, ifh, &type);
 *     qel_if_shim_get_mtu(client, ifh, &mtu);
 *     qel_if_release_client_ctx(client);
 *
 * A call qel_if_shim_get_x() here does what qel_if_get_x() does (qel/if.h), but for the checks of its
 * arguments: pointers must be set, lengths right, and 'client' held.
 *
 * Threads: any. A client that is held while another thread ends it stays until it is let go; its shims hear
 * of its end then. */
#ifndef QEL_IF_LAYER_H
#define QEL_IF_LAYER_H

#include <qel/if_shim.h>

QEL_BEGIN_DECLS

/** A client, held. */
typedef struct qel_if_client qel_if_client;

/** @name Clients and registrations
 * @{ */
/** Holds the client 'app'. Returns 0; 0xa0000016 if it is unknown or ended. */
QEL_API cerrno qel_if_retain_client_ctx(uint32_t app, qel_if_client** client);
/** Lets it go: it is freed with the last holder. Returns 0, or the ID manager's error. */
QEL_API cerrno qel_if_release_client_ctx(qel_if_client* client);
/** True for a client that is unknown or ended. */
QEL_API bool qel_if_client_ctx_is_gone(uint32_t app);
/** Holds the registration 'reg'. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_retain_reg_ctx(uint32_t reg, qel_if_reg** out);
/** Lets it go. Returns 0, or the ID manager's error. */
QEL_API cerrno qel_if_release_reg_ctx(qel_if_reg* reg);
/** Whether an event of 'object' with 'value' (8 bytes for events 44 and 45) passes the registration's filter.
 */
QEL_API bool qel_if_shim_match_event_filter(const qel_if_reg* reg, uint32_t cbid, const void* object,
                                            const void* value);
/** @} */

/** @name The door to the shims
 * @{ */

/** A bulk read. */
typedef struct qel_if_bulk {
    const uint64_t* handles; /**< 'count' interfaces */
    qel_if_attr_data* attrs; /**< where each value goes */
    cerrno* results;         /**< how each read went */
    size_t count;            /**< entries of the three */
    uint8_t same_shim;       /**< 1 while all interfaces arranged so far belong to one shim */
    uint32_t ifmgr_id;       /**< the first interface's shim */
} qel_if_bulk;

/** Reads an attribute, a code, by the shim that serves it for the interface. */
QEL_API cerrno qel_if_shim_get_attr(qel_if_client* client, uint64_t ifh, uint32_t attr,
                                    qel_if_attr_data* data);
/** Fills 'bulk' but for the entries of its 'attrs', which it allocates. Returns 0; 0xa000000c. */
QEL_API cerrno qel_if_shim_prepare_bulk(qel_if_bulk* bulk, const uint64_t* handles, cerrno* results,
                                        size_t count);
/** Sets where entry 'index' goes. */
QEL_API void qel_if_shim_arrange_bulk(qel_if_bulk* bulk, size_t index, void* value, uint64_t size);
/** Reads an attribute of all interfaces of 'bulk', and frees its 'attrs'. */
QEL_API cerrno qel_if_shim_run_bulk_get_attr(qel_if_client* client, uint32_t attr, qel_if_bulk* bulk);

/** Whether the interface is of type Ethernet. Returns 0, or why its type can't be read. */
QEL_API cerrno qel_if_shim_is_ethernet(qel_if_client* client, uint64_t ifh, bool* is_ethernet);
/** Whether the interface's encapsulation has addresses. Returns 0, or why it can't be read. */
QEL_API cerrno qel_if_shim_has_mac_address(qel_if_client* client, uint64_t ifh, bool* has);
/** The number of the interface's shim, if there is one with it. Returns 0; 0xa0000022; 0xa0000002. */
QEL_API cerrno qel_if_shim_get_ifmgr_id(uint64_t ifh, uint32_t* id);
/** @} */

/** @name Groups
 * As qel_if_get_bd_from_id() and its kin, for any type of group.
 * @{ */
/** Looks a group of a type, QEL_IF_GROUP_*, up by its id. */
QEL_API cerrno qel_if_shim_get_group_from_id(qel_if_client* client, uint64_t id, uint32_t type, void* first,
                                             void* second, void* third);
/** The same by its name. */
QEL_API cerrno qel_if_shim_get_group_from_name(qel_if_client* client, const char* name, uint32_t type,
                                               void* first, void* second, void* third);
/** Begins an iteration over groups of a type. */
QEL_API cerrno qel_if_shim_group_iterator_start(qel_if_client* client, uint32_t type,
                                                const qel_if_bd_iteration_filter* filter,
                                                qel_if_group_iterator** it);
/** The next group. */
QEL_API cerrno qel_if_shim_group_iterator_get_next(qel_if_client* client, uint32_t type,
                                                   qel_if_group_iterator* it, uint64_t* id);
/** Ends an iteration over groups. */
QEL_API cerrno qel_if_shim_group_iterator_end(qel_if_client* client, uint32_t type,
                                              qel_if_group_iterator* it);
/** @} */

/** @name Reads of one interface
 * @{ */
/** As qel_if_get_handle(). */
QEL_API cerrno qel_if_shim_get_handle(qel_if_client* client, const char* name, uint64_t* ifh);
/** As qel_if_is_layer2(). */
QEL_API cerrno qel_if_shim_is_layer2(qel_if_client* client, uint64_t ifh, uint8_t* is_layer2);
/** As qel_if_get_base_interface(). */
QEL_API cerrno qel_if_shim_get_base_interface(qel_if_client* client, uint64_t ifh, uint64_t* base_if);
/** As qel_if_get_type(). */
QEL_API cerrno qel_if_shim_get_type(qel_if_client* client, uint64_t ifh, uint32_t* type);
/** As qel_if_get_physical_loc(). */
QEL_API cerrno qel_if_shim_get_physical_loc(qel_if_client* client, uint64_t ifh, qel_if_phys_loc* location);
/** As qel_if_get_encap(). */
QEL_API cerrno qel_if_shim_get_encap(qel_if_client* client, uint64_t ifh, uint32_t* encap);
/** As qel_if_get_oper_state(). */
QEL_API cerrno qel_if_shim_get_oper_state(qel_if_client* client, uint64_t ifh, uint32_t* state);
/** As qel_if_get_admin_state(). */
QEL_API cerrno qel_if_shim_get_admin_state(qel_if_client* client, uint64_t ifh, uint32_t* state);
/** As qel_if_get_name(). */
QEL_API cerrno qel_if_shim_get_name(qel_if_client* client, uint64_t ifh, char* name, size_t size);
/** As qel_if_get_short_name(). */
QEL_API cerrno qel_if_shim_get_short_name(qel_if_client* client, uint64_t ifh, char* name, size_t size);
/** As qel_if_get_description(). */
QEL_API cerrno qel_if_shim_get_description(qel_if_client* client, uint64_t ifh, char* description,
                                           size_t size);
/** As qel_if_get_snmp_if_index(). */
QEL_API cerrno qel_if_shim_get_snmp_if_index(qel_if_client* client, uint64_t ifh, uint64_t* index);
/** As qel_if_get_unidir_mode(). */
QEL_API cerrno qel_if_shim_get_unidir_mode(qel_if_client* client, uint64_t ifh, uint32_t* mode);
/** As qel_if_get_mtu(). */
QEL_API cerrno qel_if_shim_get_mtu(qel_if_client* client, uint64_t ifh, uint32_t* mtu);
/** As qel_if_get_tx_bandwidth(). */
QEL_API cerrno qel_if_shim_get_tx_bandwidth(qel_if_client* client, uint64_t ifh, uint32_t* bandwidth);
/** As qel_if_get_rx_bandwidth(). */
QEL_API cerrno qel_if_shim_get_rx_bandwidth(qel_if_client* client, uint64_t ifh, uint32_t* bandwidth);
/** As qel_if_get_ether_mac_address(). */
QEL_API cerrno qel_if_shim_get_ether_mac_address(qel_if_client* client, uint64_t ifh, uint8_t* address);
/** As qel_if_get_max_mac_filters(). */
QEL_API cerrno qel_if_shim_get_max_mac_filters(qel_if_client* client, uint64_t ifh, uint32_t* count);
/** As qel_if_get_statistics(). */
QEL_API cerrno qel_if_shim_get_statistics(qel_if_client* client, uint64_t ifh, qel_if_statistics* statistics);
/** As qel_if_get_encap_dot1q(). */
QEL_API cerrno qel_if_shim_get_encap_dot1q(qel_if_client* client, uint64_t ifh, qel_if_dot1q* tags);
/** As qel_if_get_vrf(). */
QEL_API cerrno qel_if_shim_get_vrf(qel_if_client* client, uint64_t ifh, qel_if_vrf* vrf);
/** As qel_if_get_bd(). */
QEL_API cerrno qel_if_shim_get_bd(qel_if_client* client, uint64_t ifh, qel_if_bd* bd);
/** As qel_if_get_stat_count(). */
QEL_API cerrno qel_if_shim_get_stat_count(qel_if_client* client, uint64_t ifh, uint64_t* count);
/** As qel_if_get_stat_supported(). */
QEL_API cerrno qel_if_shim_get_stat_supported(qel_if_client* client, uint64_t ifh, size_t capacity,
                                              uint32_t* ids);
/** As qel_if_get_ether_duplex_mode(). */
QEL_API cerrno qel_if_shim_get_ether_duplex_mode(qel_if_client* client, uint64_t ifh, uint32_t* mode);
/** As qel_if_get_speed(). */
QEL_API cerrno qel_if_shim_get_speed(qel_if_client* client, uint64_t ifh, uint32_t* speed);
/** As qel_if_get_input_flow_control(). */
QEL_API cerrno qel_if_shim_get_input_flow_control(qel_if_client* client, uint64_t ifh,
                                                  uint32_t* flow_control);
/** As qel_if_get_output_flow_control(). */
QEL_API cerrno qel_if_shim_get_output_flow_control(qel_if_client* client, uint64_t ifh,
                                                   uint32_t* flow_control);
/** As qel_if_get_auto_negotiation(). */
QEL_API cerrno qel_if_shim_get_auto_negotiation(qel_if_client* client, uint64_t ifh, uint32_t* negotiation);
/** As qel_if_get_speed_max(). */
QEL_API cerrno qel_if_shim_get_speed_max(qel_if_client* client, uint64_t ifh, uint32_t* speed);
/** As qel_if_get_port_channel_id(). */
QEL_API cerrno qel_if_shim_get_port_channel_id(qel_if_client* client, uint64_t ifh, uint64_t* id);
/** As qel_if_get_port_channel_member_priority(). */
QEL_API cerrno qel_if_shim_get_port_channel_member_priority(qel_if_client* client, uint64_t ifh,
                                                            uint16_t* priority);
/** As qel_if_get_port_channel_member_mode(). */
QEL_API cerrno qel_if_shim_get_port_channel_member_mode(qel_if_client* client, uint64_t ifh, uint32_t* mode);
/** As qel_if_has_property(). */
QEL_API cerrno qel_if_shim_has_property(qel_if_client* client, uint64_t ifh, uint32_t property, uint8_t* has);
/** As qel_if_has_attribute(). */
QEL_API cerrno qel_if_shim_has_attribute(qel_if_client* client, uint64_t ifh, uint8_t* has, uint32_t code);
/** As qel_if_add_mac_filter(). */
QEL_API cerrno qel_if_shim_add_mac_filter(qel_if_client* client, uint64_t ifh, uint32_t word,
                                          const uint8_t* address);
/** As qel_if_remove_mac_filter(). */
QEL_API cerrno qel_if_shim_remove_mac_filter(qel_if_client* client, uint64_t ifh, uint32_t word,
                                             const uint8_t* address);
/** As qel_if_remove_all_mac_filters(). */
QEL_API cerrno qel_if_shim_remove_all_mac_filters(qel_if_client* client, uint64_t ifh);
/** @} */

/** @name Reads of many interfaces
 * @{ */
/** As qel_if_get_port_channel_from_id(). */
QEL_API cerrno qel_if_shim_get_port_channel_from_id(qel_if_client* client, uint64_t id, void* first,
                                                    void* second, void* third);
/** As qel_if_bulk_get_type(). */
QEL_API cerrno qel_if_shim_bulk_get_type(qel_if_client* client, const uint64_t* handles, uint32_t* values,
                                         cerrno* results, size_t count);
/** As qel_if_bulk_get_physical_loc(). */
QEL_API cerrno qel_if_shim_bulk_get_physical_loc(qel_if_client* client, const uint64_t* handles,
                                                 qel_if_phys_loc* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_encap(). */
QEL_API cerrno qel_if_shim_bulk_get_encap(qel_if_client* client, const uint64_t* handles, uint32_t* values,
                                          cerrno* results, size_t count);
/** As qel_if_bulk_get_oper_state(). */
QEL_API cerrno qel_if_shim_bulk_get_oper_state(qel_if_client* client, const uint64_t* handles,
                                               uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_admin_state(). */
QEL_API cerrno qel_if_shim_bulk_get_admin_state(qel_if_client* client, const uint64_t* handles,
                                                uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_snmp_if_index(). */
QEL_API cerrno qel_if_shim_bulk_get_snmp_if_index(qel_if_client* client, const uint64_t* handles,
                                                  uint64_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_unidir_mode(). */
QEL_API cerrno qel_if_shim_bulk_get_unidir_mode(qel_if_client* client, const uint64_t* handles,
                                                uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_mtu(). */
QEL_API cerrno qel_if_shim_bulk_get_mtu(qel_if_client* client, const uint64_t* handles, uint32_t* values,
                                        cerrno* results, size_t count);
/** As qel_if_bulk_get_tx_bandwidth(). */
QEL_API cerrno qel_if_shim_bulk_get_tx_bandwidth(qel_if_client* client, const uint64_t* handles,
                                                 uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_rx_bandwidth(). */
QEL_API cerrno qel_if_shim_bulk_get_rx_bandwidth(qel_if_client* client, const uint64_t* handles,
                                                 uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_statistics(). */
QEL_API cerrno qel_if_shim_bulk_get_statistics(qel_if_client* client, const uint64_t* handles,
                                               qel_if_statistics* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_encap_dot1q(). */
QEL_API cerrno qel_if_shim_bulk_get_encap_dot1q(qel_if_client* client, const uint64_t* handles,
                                                qel_if_dot1q* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_vrf(). */
QEL_API cerrno qel_if_shim_bulk_get_vrf(qel_if_client* client, const uint64_t* handles, qel_if_vrf* values,
                                        cerrno* results, size_t count);
/** As qel_if_bulk_get_bd(). */
QEL_API cerrno qel_if_shim_bulk_get_bd(qel_if_client* client, const uint64_t* handles, qel_if_bd* values,
                                       cerrno* results, size_t count);
/** As qel_if_bulk_get_speed(). */
QEL_API cerrno qel_if_shim_bulk_get_speed(qel_if_client* client, const uint64_t* handles, uint32_t* values,
                                          cerrno* results, size_t count);
/** As qel_if_bulk_get_speed_max(). */
QEL_API cerrno qel_if_shim_bulk_get_speed_max(qel_if_client* client, const uint64_t* handles,
                                              uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_input_flow_control(). */
QEL_API cerrno qel_if_shim_bulk_get_input_flow_control(qel_if_client* client, const uint64_t* handles,
                                                       uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_output_flow_control(). */
QEL_API cerrno qel_if_shim_bulk_get_output_flow_control(qel_if_client* client, const uint64_t* handles,
                                                        uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_auto_negotiation(). */
QEL_API cerrno qel_if_shim_bulk_get_auto_negotiation(qel_if_client* client, const uint64_t* handles,
                                                     uint32_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_port_channel_id(). */
QEL_API cerrno qel_if_shim_bulk_get_port_channel_id(qel_if_client* client, const uint64_t* handles,
                                                    uint64_t* values, cerrno* results, size_t count);
/** As qel_if_bulk_get_port_channel_member_priority(). */
QEL_API cerrno qel_if_shim_bulk_get_port_channel_member_priority(qel_if_client* client,
                                                                 const uint64_t* handles, uint16_t* values,
                                                                 cerrno* results, size_t count);
/** As qel_if_bulk_get_port_channel_member_mode(). */
QEL_API cerrno qel_if_shim_bulk_get_port_channel_member_mode(qel_if_client* client, const uint64_t* handles,
                                                             uint32_t* values, cerrno* results, size_t count);
/** As qel_if_get_port_channel_from_handle(). */
QEL_API cerrno qel_if_shim_get_port_channel_from_handle(qel_if_client* client, const uint64_t* handles,
                                                        qel_if_port_channel* values, cerrno* results,
                                                        size_t count);
/** As qel_if_bulk_get_name(). */
QEL_API cerrno qel_if_shim_bulk_get_name(qel_if_client* client, const uint64_t* handles, char* const* buffers,
                                         cerrno* results, size_t size, size_t count);
/** As qel_if_bulk_get_short_name(). */
QEL_API cerrno qel_if_shim_bulk_get_short_name(qel_if_client* client, const uint64_t* handles,
                                               char* const* buffers, cerrno* results, size_t size,
                                               size_t count);
/** As qel_if_bulk_get_description(). */
QEL_API cerrno qel_if_shim_bulk_get_description(qel_if_client* client, const uint64_t* handles,
                                                char* const* buffers, cerrno* results, size_t size,
                                                size_t count);
/** As qel_if_bulk_get_handle(). */
QEL_API cerrno qel_if_shim_bulk_get_handle(qel_if_client* client, const char* const* names, uint64_t* handles,
                                           cerrno* results, size_t count);
/** As qel_if_bulk_has_property(). */
QEL_API cerrno qel_if_shim_bulk_has_property(qel_if_client* client, const uint64_t* handles,
                                             uint32_t property, uint8_t* has, cerrno* results, size_t count);
/** As qel_if_bulk_has_attribute(). */
QEL_API cerrno qel_if_shim_bulk_has_attribute(qel_if_client* client, const uint64_t* handles, uint8_t* has,
                                              uint32_t code, cerrno* results, size_t count);
/** As qel_if_bulk_get_stat(). */
QEL_API cerrno qel_if_shim_bulk_get_stat(qel_if_client* client, const uint64_t* handles, size_t count,
                                         const uint32_t* ids, size_t num_ids, cerrno* results,
                                         qel_if_stat_values* values);
/** As qel_if_get_port_channel_member_count(). */
QEL_API cerrno qel_if_shim_get_port_channel_member_count(qel_if_client* client, const uint64_t* ids,
                                                         uint64_t* values, cerrno* results, size_t count);
/** As qel_if_get_port_channel_state(). */
QEL_API cerrno qel_if_shim_get_port_channel_state(qel_if_client* client, const uint64_t* ids,
                                                  uint32_t* values, cerrno* results, size_t count);
/** @} */

QEL_END_DECLS

#endif
