/** @file
 * The interface service: what a daemon knows of the network interfaces of its element.
 *
 * A client binds once and reaches all interface shims at a time: the one of the library, which serves the
 * links of the Linux kernel, and those that the application registers (qel/if_shim.h). It finds interfaces,
 * reads their attributes, one by one or in bulk, hears of changes (qel/if_event.h), and may change them
 * (qel/if_cfg.h).
 *
 *     uint32_t app, scope = 0;
 *     qel_if_bind_attr attr;
 *     qel_if_bind_attr_init(&attr);
 *     attr.scope = &scope;
 *     attr.qdm = dm;                                    // where callbacks run; 0 for the reporting thread
 *     if (qel_if_bind(&app, "monitor", &attr) != 0) return;
 *
 *     qel_if_iteration_filter all;
 *     qel_if_iterator* it;
 *     uint64_t ifh;
 *     qel_if_iteration_filter_init(&all);
 *     qel_if_iterator_start(app, &all, &it);
 *     while (qel_if_iterator_get_next(app, it, &ifh) == 0) qel_if_get_mtu(app, ifh, &mtu);
 *     qel_if_iterator_end(app, it);
 *     qel_if_destroy(&app);
 *
 * A client is an app handle, 'app' here and below: an ID, never 0. An interface is a 64-bit handle, 'ifh':
 * its top three bits say which shim it belongs to, the others are that shim's own; 0 is none. The default
 * shim's are the kernel's interface indexes.
 *
 * Threads: any thread may make any call, also while another ends the client: a call in progress completes, a
 * later one gets 0xa0000016. No call of this file waits for a callback.
 *
 * Results are composite codes (qel/cerrno.h), 0 for success, unless told. Every call with an 'app' gives
 * 0xa0000016 for one that is unknown or ended, and for an 'ifh' of 0 or a missing pointer; this isn't told
 * again below. Reads of an interface also give 0xa0000002 when no shim has the handle's number or the shim
 * doesn't know the interface, 0xa000005f for what the shim doesn't serve or the interface doesn't have, and
 * what else the shim says. */
#ifndef QEL_IF_H
#define QEL_IF_H

#include <stdbool.h>
#include <stddef.h>

#include <qel/cerrno.h>
#include <qel/dm.h>

QEL_BEGIN_DECLS

/** What marks a record that its init call has filled: that of all services, see QEL_ASYNC_MAGIC. */
#define QEL_IF_MAGIC 0x8F3C8765u

/** In a filter: every interface. */
#define QEL_IF_HANDLE_ANY UINT64_MAX

/** The size, in bytes with the final zero, below which qel_if_get_name() and qel_if_get_short_name() refuse a
 * buffer. */
#define QEL_IF_NAME_SIZE 64u
/** The same for qel_if_get_description(). */
#define QEL_IF_DESCRIPTION_SIZE 200u

/** @name Enumerations
 * Each has a call that gives a value's name, a string that stays; "Invalid Attribute" for any other value.
 * @{ */

/** Kinds of interfaces. */
typedef enum qel_if_type {
    QEL_IF_TYPE_UNSUPPORTED,
    QEL_IF_TYPE_ANY, /**< in a filter: every kind */
    QEL_IF_TYPE_NULL,
    QEL_IF_TYPE_LOOPBACK,
    QEL_IF_TYPE_ETHERNET,
    QEL_IF_TYPE_ETHER_CHANNEL,
    QEL_IF_TYPE_GIGABIT_ETHERNET,
    QEL_IF_TYPE_SERIAL,
    QEL_IF_TYPE_TUNNEL,
    QEL_IF_TYPE_P2P,
    QEL_IF_TYPE_MULTI_LINK,
    QEL_IF_TYPE_TE,
    QEL_IF_TYPE_PSEUDOWIRE,
    QEL_IF_TYPE_WIRELESS,
    QEL_IF_TYPE_ATM,
    QEL_IF_TYPE_FRAME_RELAY,
    QEL_IF_TYPE_VLAN,
    QEL_IF_TYPE_PPP,
    QEL_IF_TYPE_MLP_BUNDLE,
    QEL_IF_TYPE_POS,
    QEL_IF_TYPE_POS_CHANNEL,
    QEL_IF_TYPE_NATIVE_VLAN,
    QEL_IF_TYPE_HDLC,
    QEL_IF_TYPE_BVI,
    QEL_IF_TYPE_INTERFLEX_LEFT,
    QEL_IF_TYPE_INTERFLEX_RIGHT,
    QEL_IF_TYPE_PSEUDOWIRE_HE,
    QEL_IF_TYPE_MANAGEMENT,
    QEL_IF_TYPE_SVI,
    QEL_IF_TYPE_VFI
} qel_if_type;

/** Encapsulations. */
typedef enum qel_if_encap {
    QEL_IF_ENCAP_NULL,
    QEL_IF_ENCAP_ANY, /**< in a filter: every encapsulation */
    QEL_IF_ENCAP_UNKNOWN,
    QEL_IF_ENCAP_ARPA,
    QEL_IF_ENCAP_LOOP,
    QEL_IF_ENCAP_DOT1Q,
    QEL_IF_ENCAP_ATM,
    QEL_IF_ENCAP_SNAP,
    QEL_IF_ENCAP_HDLC,
    QEL_IF_ENCAP_PPP,
    QEL_IF_ENCAP_ETHER,
    QEL_IF_ENCAP_GRE,
    QEL_IF_ENCAP_MPLS
} qel_if_encap;

/** VLAN tagging, IEEE 802.1Q. */
typedef enum qel_if_encap_dot1q {
    QEL_IF_ENCAP_DOT1Q_NONE,
    QEL_IF_ENCAP_DOT1Q_DOT1Q,
    QEL_IF_ENCAP_DOT1Q_QINQ,
    QEL_IF_ENCAP_DOT1Q_QINANY
} qel_if_encap_dot1q;

/** Whether an interface works. */
typedef enum qel_if_oper_state { QEL_IF_OPER_UP, QEL_IF_OPER_DOWN } qel_if_oper_state;

/** Whether an interface is meant to work. */
typedef enum qel_if_admin_state { QEL_IF_ADMIN_UP, QEL_IF_ADMIN_DOWN } qel_if_admin_state;

/** Interfaces that only send or only receive. */
typedef enum qel_if_unidir_mode {
    QEL_IF_UNIDIR_OFF,
    QEL_IF_UNIDIR_SEND_ONLY,
    QEL_IF_UNIDIR_RECV_ONLY
} qel_if_unidir_mode;

/** Duplex modes. */
typedef enum qel_if_duplex_mode {
    QEL_IF_FULL_DUPLEX,
    QEL_IF_HALF_DUPLEX,
    QEL_IF_AUTO_DUPLEX
} qel_if_duplex_mode;

/** Flow control by pause frames, IEEE 802.3 annex 31B. */
typedef enum qel_if_flow_control {
    QEL_IF_FLOW_CONTROL_OFF,
    QEL_IF_FLOW_CONTROL_ON,
    QEL_IF_FLOW_CONTROL_DESIRED
} qel_if_flow_control;

/** Auto-negotiation, IEEE 802.3 clause 28. */
typedef enum qel_if_auto_negotiation {
    QEL_IF_AUTO_NEGOTIATION_OFF,
    QEL_IF_AUTO_NEGOTIATION_ON
} qel_if_auto_negotiation;

/** Names of values. */
QEL_API const char* qel_if_get_printable_type(uint32_t type);
QEL_API const char* qel_if_get_printable_encap(uint32_t encap);       /**< See there. */
QEL_API const char* qel_if_get_printable_encap_dot1q(uint32_t encap); /**< See there. */
QEL_API const char* qel_if_get_printable_oper_state(uint32_t state);  /**< "up", "down". */
QEL_API const char* qel_if_get_printable_admin_state(uint32_t state); /**< "admin up", "admin down". */
QEL_API const char* qel_if_get_printable_unidir_mode(uint32_t mode);  /**< See there. */
QEL_API const char* qel_if_get_printable_duplex_mode(uint32_t mode);  /**< See there. */
QEL_API const char* qel_if_get_printable_flow_control(uint32_t flow_control);    /**< See there. */
QEL_API const char* qel_if_get_printable_auto_negotiation(uint32_t negotiation); /**< See there. */
/** @} */

/** @name Clients
 * @{ */

/** The client may ask for changes of interfaces, qel/if_cfg.h. */
#define QEL_IF_OPTION_BIND_CFG 0x1u
/** Attributes are read without asking whether the interface is marked as deleted. */
#define QEL_IF_OPTION_BIND_ALLOW_DELETED 0x2u

/** What a ::qel_if_bind_status_cb is told. */
typedef struct qel_if_bind_status {
    uint32_t app;    /**< the client */
    int32_t status;  /**< 0 bound; 1 the binding was lost, and with it registrations and operations */
    uint32_t reason; /**< the shim's word */
    uint8_t flag;    /**< the shim's word */
    uint64_t cookie; /**< of the client's ::qel_if_bind_attr */
} qel_if_bind_status;

/** Tells a client how its binding stands. Runs on the client's dispatcher, when the bind is over. */
typedef void (*qel_if_bind_status_cb)(const qel_if_bind_status* status);

/** How a client binds. Read only during the call, save what 'scope' points to, which is also written. */
typedef struct qel_if_bind_attr {
    uint32_t magic;    /**< QEL_IF_MAGIC, by qel_if_bind_attr_init() */
    uint32_t* scope;   /**< in: the client's scope, a word for the shims; out: what they made of it.
                            Must be set */
    qel_dm_handle qdm; /**< where callbacks run; 0: on the thread that reports */
    uint32_t options;  /**< QEL_IF_OPTION_*; QEL_IF_OPTION_BIND_ALLOW_DELETED by default */
    qel_if_bind_status_cb bind_status_cb; /**< told of the binding, or null; needs 'qdm' */
    uint64_t cookie;                      /**< the client's word for 'bind_status_cb' */
} qel_if_bind_attr;

/** The short form of a bind. */
typedef struct qel_if_init_attr {
    uint32_t* scope;   /**< as in ::qel_if_bind_attr */
    qel_dm_handle qdm; /**< as in ::qel_if_bind_attr */
} qel_if_init_attr;

/** Fills 'attr' with the defaults; its 'scope' is still to be set. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_bind_attr_init(qel_if_bind_attr* attr);

/** Binds a client to all registered shims; the first bind registers the default shim if slot 0 is empty.
 * 'name' must live until qel_if_destroy(), 'attr' need not. At most "qel.if.max.bind" clients (a parameter,
 * 16 by default, read when there are none) are bound at a time.
 *
 * Returns 0; 0x4000000b if the binding to the last shim is still in progress: the client is bound, and
 * 'bind_status_cb' tells the rest; 0xa0000016, also for a 'qdm' that isn't a dispatcher; 0xa000004a for an
 * attribute without magic; 0xa000000c; 0xa0000002 for a client too many; the error of an earlier registration
 * of a shim; what a shim's bind gave. */
QEL_API cerrno qel_if_bind(uint32_t* app, const char* name, qel_if_bind_attr* attr);
/** The same with default options. */
QEL_API cerrno qel_if_init(uint32_t* app, const char* name, const qel_if_init_attr* attr);

/** Ends a client and sets '*app' to 0. Its registrations and operations end and what waits for its dispatcher
 * is dropped; calls of its own that are in progress on other threads complete. Of several calls at once one
 * does it; the others return 0 and leave their '*app' as it is. */
QEL_API cerrno qel_if_destroy(uint32_t* app);

/** The scope that the shims settled on. */
QEL_API cerrno qel_if_get_scope(uint32_t app, uint32_t* scope);
/** How many references the client has: its own, and one a call in progress; 0 for an unknown one. */
QEL_API uint32_t qel_if_get_app_handle_refcount(uint32_t app);

/** True for any handle but 0. */
QEL_API bool qel_if_is_valid_handle(uint64_t ifh);
/** The number of the shim that an interface belongs to, 0 to 7. */
QEL_API uint32_t qel_if_get_ifmgr_id(uint64_t ifh);
/** The interface called 'name', as the shim in slot 0 knows it. Returns 0; 0xa000000c for a client without
 * that shim; the shim's error, 0xa0000013 of the default one for an unknown name. */
QEL_API cerrno qel_if_get_handle(uint32_t app, const char* name, uint64_t* ifh);
/** @} */

/** @name Values of attributes
 * Blocks whose words only the shim and its clients know; the library copies them.
 * @{ */

/** A place in a chassis, by levels, and as a filter the words of it that must be equal. */
typedef struct qel_if_phys_loc {
    uint32_t flags;   /**< in a filter QEL_IF_PHYS_LOC_*: the words that count */
    uint32_t word[5]; /**< words 1 to 5 */
} qel_if_phys_loc;

#define QEL_IF_PHYS_LOC_LAST 0x01u   /**< only word 5 if its flag is set, else only word 4 */
#define QEL_IF_PHYS_LOC_WORD_1 0x02u /**< word 1 counts; the following flags mean words 2 to 5 */
#define QEL_IF_PHYS_LOC_WORD_2 0x04u /**< see there */
#define QEL_IF_PHYS_LOC_WORD_3 0x08u /**< see there */
#define QEL_IF_PHYS_LOC_WORD_4 0x10u /**< see there */
#define QEL_IF_PHYS_LOC_WORD_5 0x20u /**< see there */

/** VLAN tags. */
typedef struct qel_if_dot1q {
    uint32_t word[3]; /**< the shim's */
} qel_if_dot1q;

/** A VRF. */
typedef struct qel_if_vrf {
    uint64_t id;      /**< what an event filter's 'vrf' is compared with */
    uint64_t word[4]; /**< the shim's */
} qel_if_vrf;

/** A bridge domain. */
typedef struct qel_if_bd {
    uint64_t id;      /**< what an event filter's 'bd' is compared with */
    uint64_t word[8]; /**< the shim's */
} qel_if_bd;

/** Counters. */
typedef struct qel_if_statistics {
    uint64_t word[19]; /**< the shim's */
} qel_if_statistics;

/** What identifies a port channel. */
typedef struct qel_if_port_channel {
    uint64_t word[2]; /**< the shim's */
} qel_if_port_channel;

/** Where the statistics of one interface go: an entry an id. */
typedef struct qel_if_stat_values {
    uint64_t* values; /**< the values */
    cerrno* results;  /**< 0, or why there is no value */
} qel_if_stat_values;
/** @} */

/** @name Iterations
 * Over the links of the default shim, or over the interfaces of a context database (qel/if_event.h).
 * @{ */

struct qel_if_ctx_db;

/** Which interfaces an iteration gives. All conditions must hold. */
typedef struct qel_if_iteration_filter {
    uint32_t magic;               /**< QEL_IF_MAGIC, by qel_if_iteration_filter_init() */
    uint32_t type;                /**< ::qel_if_type; QEL_IF_TYPE_ANY by default */
    uint32_t encap;               /**< ::qel_if_encap; QEL_IF_ENCAP_ANY by default */
    struct qel_if_ctx_db* ctx_db; /**< if set, only the interfaces that have an entry there */
    uint64_t base_if;             /**< the base interface; QEL_IF_HANDLE_ANY by default */
    uint32_t word;                /**< 0; no reader */
    qel_if_phys_loc phys_loc;     /**< must be valid; the default shim doesn't compare it */
    int32_t words[2][2];          /**< {-1, 0} twice; no reader */
} qel_if_iteration_filter;

/** An iteration; the library's. */
typedef struct qel_if_iterator qel_if_iterator;

/** Fills 'filter' with what accepts every interface; does nothing for null. */
QEL_API void qel_if_iteration_filter_init(qel_if_iteration_filter* filter);

/** True when 'location' has the words that 'filter' flags. QEL_IF_PHYS_LOC_LAST decides alone. */
QEL_API bool qel_if_iterator_physical_loc_match(const qel_if_phys_loc* filter,
                                                const qel_if_phys_loc* location);

/** Begins an iteration over the interfaces there are now; ascending with a context database. 'filter' is
 * copied. Interfaces that go meanwhile are passed over. The iterator is one thread's at a time and its
 * owner's to end, also after the client has.
 *
 * Returns 0; 0xa0000016 also for a filter with a type, encapsulation or base interface out of range, or with
 * QEL_IF_PHYS_LOC_LAST beside the flag of a word from 1 to 4; 0xa000000c. */
QEL_API cerrno qel_if_iterator_start(uint32_t app, const qel_if_iteration_filter* filter,
                                     qel_if_iterator** it);
/** Gives the next interface. Returns 0; 0xa0000002 at the end, again and again; 0xa0000016 for another
 * client's iterator. */
QEL_API cerrno qel_if_iterator_get_next(uint32_t app, qel_if_iterator* it, uint64_t* ifh);
/** Ends an iteration and frees 'it'. */
QEL_API cerrno qel_if_iterator_end(uint32_t app, qel_if_iterator* it);
/** All at once: an array of '*count' handles, which the caller gives to free(). */
QEL_API cerrno qel_if_iterator_glob(uint32_t app, const qel_if_iteration_filter* filter, uint64_t** handles,
                                    size_t* count);
/** @} */

/** @name Groups
 * Bridge domains and port channels, where a shim offers them: the first shim that does answers. What the
 * pointers of a lookup mean is between the client and the shim. All give 0xa000005f when no shim offers it.
 * @{ */

#define QEL_IF_GROUP_BRIDGE_DOMAIN 1u /**< a type of group: bridge domain */
#define QEL_IF_GROUP_PORT_CHANNEL 3u  /**< a type of group: port channel */

/** A filter of bridge domains. */
typedef struct qel_if_bd_iteration_filter {
    uint32_t magic; /**< QEL_IF_MAGIC, by qel_if_bd_iteration_filter_init() */
} qel_if_bd_iteration_filter;

/** The beginning of an iterator, whose whole is the shim's. */
typedef struct qel_if_group_iterator {
    uint32_t app;     /**< the client; written by the library */
    uint32_t shim_id; /**< the shim that answers, or all ones; written by the library */
} qel_if_group_iterator;

/** Marks 'filter'; does nothing for null. */
QEL_API void qel_if_bd_iteration_filter_init(qel_if_bd_iteration_filter* filter);
/** Begins an iteration over bridge domains. Returns 0; 0xa0000016 also for a filter without magic. */
QEL_API cerrno qel_if_bd_iterator_start(uint32_t app, const qel_if_bd_iteration_filter* filter,
                                        qel_if_group_iterator** it);
/** The next bridge domain. Returns 0; 0xa0000016 also for another client's iterator; the shim's end. */
QEL_API cerrno qel_if_bd_iterator_get_next(uint32_t app, qel_if_group_iterator* it, uint64_t* bd_id);
/** Ends an iteration over bridge domains. */
QEL_API cerrno qel_if_bd_iterator_end(uint32_t app, qel_if_group_iterator* it);
/** Looks a bridge domain up by its id. */
QEL_API cerrno qel_if_get_bd_from_id(uint32_t app, uint64_t id, void* first, void* second, void* third);
/** Looks a bridge domain up by its name. */
QEL_API cerrno qel_if_get_bd_from_name(uint32_t app, const char* name, void* first, void* second,
                                       void* third);
/** Looks a port channel up by its id. */
QEL_API cerrno qel_if_get_port_channel_from_id(uint32_t app, uint64_t id, void* first, void* second,
                                               void* third);
/** @} */

/** @name Attributes of one interface
 * @{ */

/** True for one that switches frames. */
QEL_API cerrno qel_if_is_layer2(uint32_t app, uint64_t ifh, uint8_t* is_layer2);
/** The interface that this one stands on; itself if it stands on none. */
QEL_API cerrno qel_if_get_base_interface(uint32_t app, uint64_t ifh, uint64_t* base_if);
/** The ::qel_if_type. */
QEL_API cerrno qel_if_get_type(uint32_t app, uint64_t ifh, uint32_t* type);
/** The place in the chassis. */
QEL_API cerrno qel_if_get_physical_loc(uint32_t app, uint64_t ifh, qel_if_phys_loc* location);
/** The ::qel_if_encap. */
QEL_API cerrno qel_if_get_encap(uint32_t app, uint64_t ifh, uint32_t* encap);
/** The ::qel_if_oper_state. */
QEL_API cerrno qel_if_get_oper_state(uint32_t app, uint64_t ifh, uint32_t* state);
/** The ::qel_if_admin_state. */
QEL_API cerrno qel_if_get_admin_state(uint32_t app, uint64_t ifh, uint32_t* state);
/** The name, into a buffer of 'size' bytes, at least QEL_IF_NAME_SIZE. */
QEL_API cerrno qel_if_get_name(uint32_t app, uint64_t ifh, char* name, size_t size);
/** The short name, as above. */
QEL_API cerrno qel_if_get_short_name(uint32_t app, uint64_t ifh, char* name, size_t size);
/** The description, into a buffer of 'size' bytes, at least QEL_IF_DESCRIPTION_SIZE. */
QEL_API cerrno qel_if_get_description(uint32_t app, uint64_t ifh, char* description, size_t size);
/** The ifIndex of RFC 2863. */
QEL_API cerrno qel_if_get_snmp_if_index(uint32_t app, uint64_t ifh, uint64_t* index);
/** The ::qel_if_unidir_mode. */
QEL_API cerrno qel_if_get_unidir_mode(uint32_t app, uint64_t ifh, uint32_t* mode);
/** The MTU, in bytes. */
QEL_API cerrno qel_if_get_mtu(uint32_t app, uint64_t ifh, uint32_t* mtu);
/** The bandwidth for sending, in Mbit/s for the default shim. */
QEL_API cerrno qel_if_get_tx_bandwidth(uint32_t app, uint64_t ifh, uint32_t* bandwidth);
/** The bandwidth for receiving. */
QEL_API cerrno qel_if_get_rx_bandwidth(uint32_t app, uint64_t ifh, uint32_t* bandwidth);
/** The 6 bytes of the address; 0xa000005f unless the encapsulation is ETHER, DOT1Q or ATM. */
QEL_API cerrno qel_if_get_ether_mac_address(uint32_t app, uint64_t ifh, uint8_t* address);
/** How many further addresses it can receive for. */
QEL_API cerrno qel_if_get_max_mac_filters(uint32_t app, uint64_t ifh, uint32_t* count);
/** The counters. */
QEL_API cerrno qel_if_get_statistics(uint32_t app, uint64_t ifh, qel_if_statistics* statistics);
/** The VLAN tags; 0xa000005f unless the encapsulation is DOT1Q. */
QEL_API cerrno qel_if_get_encap_dot1q(uint32_t app, uint64_t ifh, qel_if_dot1q* tags);
/** The VRF; 0xa000005f for one that is layer 2. */
QEL_API cerrno qel_if_get_vrf(uint32_t app, uint64_t ifh, qel_if_vrf* vrf);
/** The bridge domain. */
QEL_API cerrno qel_if_get_bd(uint32_t app, uint64_t ifh, qel_if_bd* bd);
/** How many statistics the interface has. */
QEL_API cerrno qel_if_get_stat_count(uint32_t app, uint64_t ifh, uint64_t* count);
/** The ids of up to 'capacity' statistics that the interface has. 'ids' may be null; a list of capacity 0
 * gives 0xa0000016. */
QEL_API cerrno qel_if_get_stat_supported(uint32_t app, uint64_t ifh, size_t capacity, uint32_t* ids);
/** The ::qel_if_duplex_mode. For Ethernet only, else 0xa000005f; 0xa000000e while the interface is down. */
QEL_API cerrno qel_if_get_ether_duplex_mode(uint32_t app, uint64_t ifh, uint32_t* mode);
/** The speed, with the rule of the duplex mode. */
QEL_API cerrno qel_if_get_speed(uint32_t app, uint64_t ifh, uint32_t* speed);
/** The ::qel_if_flow_control of what is received, with the same rule. */
QEL_API cerrno qel_if_get_input_flow_control(uint32_t app, uint64_t ifh, uint32_t* flow_control);
/** The ::qel_if_flow_control of what is sent, with the same rule. */
QEL_API cerrno qel_if_get_output_flow_control(uint32_t app, uint64_t ifh, uint32_t* flow_control);
/** The ::qel_if_auto_negotiation, with the same rule. */
QEL_API cerrno qel_if_get_auto_negotiation(uint32_t app, uint64_t ifh, uint32_t* negotiation);
/** The highest speed: for Ethernet only, but also while it is down. */
QEL_API cerrno qel_if_get_speed_max(uint32_t app, uint64_t ifh, uint32_t* speed);
/** The id of the port channel that the interface belongs to. */
QEL_API cerrno qel_if_get_port_channel_id(uint32_t app, uint64_t ifh, uint64_t* id);
/** The priority of a member of a port channel. */
QEL_API cerrno qel_if_get_port_channel_member_priority(uint32_t app, uint64_t ifh, uint16_t* priority);
/** The mode of a member of a port channel. */
QEL_API cerrno qel_if_get_port_channel_member_mode(uint32_t app, uint64_t ifh, uint32_t* mode);
/** @} */

/** @name Yes-or-no questions
 * @{ */

/** Properties, for qel_if_has_property(). */
typedef enum qel_if_property {
    QEL_IF_PROPERTY_VISIBLE = 0,
    QEL_IF_PROPERTY_HIDDEN = 1,
    QEL_IF_PROPERTY_RESYNC = 2,
    QEL_IF_PROPERTY_LAYER2 = 3,
    QEL_IF_PROPERTY_VIRTUAL = 4,
    QEL_IF_PROPERTY_SUBINTERFACE = 5,
    QEL_IF_PROPERTY_PHYSICAL = 6,
    QEL_IF_PROPERTY_DELETED = 101
} qel_if_property;

/** The codes of qel_if_has_attribute(). */
typedef enum qel_if_attribute_question {
    QEL_IF_ATTRIBUTE_VISIBLE,
    QEL_IF_ATTRIBUTE_HIDDEN,
    QEL_IF_ATTRIBUTE_DELETED,
    QEL_IF_ATTRIBUTE_RESYNC
} qel_if_attribute_question;

/** Whether the interface has a ::qel_if_property. */
QEL_API cerrno qel_if_has_property(uint32_t app, uint64_t ifh, uint32_t property, uint8_t* has);
/** The same by a ::qel_if_attribute_question. Returns 0xa0000016 for another code. */
QEL_API cerrno qel_if_has_attribute(uint32_t app, uint64_t ifh, uint8_t* has, uint32_t code);
/** A property's name, a string that stays; "unknown" for any other value. */
QEL_API const char* qel_if_property_to_string(uint32_t property);
/** @} */

/** @name Address filters
 * Addresses that an interface receives for beside its own. 'word' is for the shim.
 * @{ */

/** Adds the 6 bytes of 'address'. */
QEL_API cerrno qel_if_add_mac_filter(uint32_t app, uint64_t ifh, uint32_t word, const uint8_t* address);
/** Removes one. */
QEL_API cerrno qel_if_remove_mac_filter(uint32_t app, uint64_t ifh, uint32_t word, const uint8_t* address);
/** Removes all. */
QEL_API cerrno qel_if_remove_all_mac_filters(uint32_t app, uint64_t ifh);
/** @} */

/** @name Attributes of many interfaces
 * One attribute of the 'count' interfaces in 'handles': entry i of 'values' is written, and entry i of
 * 'results' says how it went, with the codes and rules of the single read. When all belong to one shim that
 * can do it, it is one call of the shim. No pointer may be null and 'count' not 0.
 *
 * Return 0 if the run as a whole worked, whatever single entries say; 0xa000005f if no entry could be served;
 * 0xa000000c; 0xa0000002 when the shim of all the handles isn't there.
 * @{ */
/** As qel_if_get_type() for each. */
QEL_API cerrno qel_if_bulk_get_type(uint32_t app, const uint64_t* handles, uint32_t* values, cerrno* results,
                                    size_t count);
/** As qel_if_get_physical_loc() for each. */
QEL_API cerrno qel_if_bulk_get_physical_loc(uint32_t app, const uint64_t* handles, qel_if_phys_loc* values,
                                            cerrno* results, size_t count);
/** As qel_if_get_encap() for each. */
QEL_API cerrno qel_if_bulk_get_encap(uint32_t app, const uint64_t* handles, uint32_t* values, cerrno* results,
                                     size_t count);
/** As qel_if_get_oper_state() for each. */
QEL_API cerrno qel_if_bulk_get_oper_state(uint32_t app, const uint64_t* handles, uint32_t* values,
                                          cerrno* results, size_t count);
/** As qel_if_get_admin_state() for each. */
QEL_API cerrno qel_if_bulk_get_admin_state(uint32_t app, const uint64_t* handles, uint32_t* values,
                                           cerrno* results, size_t count);
/** As qel_if_get_snmp_if_index() for each. */
QEL_API cerrno qel_if_bulk_get_snmp_if_index(uint32_t app, const uint64_t* handles, uint64_t* values,
                                             cerrno* results, size_t count);
/** As qel_if_get_unidir_mode() for each. */
QEL_API cerrno qel_if_bulk_get_unidir_mode(uint32_t app, const uint64_t* handles, uint32_t* values,
                                           cerrno* results, size_t count);
/** As qel_if_get_mtu() for each. */
QEL_API cerrno qel_if_bulk_get_mtu(uint32_t app, const uint64_t* handles, uint32_t* values, cerrno* results,
                                   size_t count);
/** As qel_if_get_tx_bandwidth() for each. */
QEL_API cerrno qel_if_bulk_get_tx_bandwidth(uint32_t app, const uint64_t* handles, uint32_t* values,
                                            cerrno* results, size_t count);
/** As qel_if_get_rx_bandwidth() for each. */
QEL_API cerrno qel_if_bulk_get_rx_bandwidth(uint32_t app, const uint64_t* handles, uint32_t* values,
                                            cerrno* results, size_t count);
/** As qel_if_get_statistics() for each. */
QEL_API cerrno qel_if_bulk_get_statistics(uint32_t app, const uint64_t* handles, qel_if_statistics* values,
                                          cerrno* results, size_t count);
/** As qel_if_get_encap_dot1q() for each. */
QEL_API cerrno qel_if_bulk_get_encap_dot1q(uint32_t app, const uint64_t* handles, qel_if_dot1q* values,
                                           cerrno* results, size_t count);
/** As qel_if_get_vrf() for each. */
QEL_API cerrno qel_if_bulk_get_vrf(uint32_t app, const uint64_t* handles, qel_if_vrf* values, cerrno* results,
                                   size_t count);
/** As qel_if_get_bd() for each. */
QEL_API cerrno qel_if_bulk_get_bd(uint32_t app, const uint64_t* handles, qel_if_bd* values, cerrno* results,
                                  size_t count);
/** As qel_if_get_speed() for each. */
QEL_API cerrno qel_if_bulk_get_speed(uint32_t app, const uint64_t* handles, uint32_t* values, cerrno* results,
                                     size_t count);
/** As qel_if_get_speed_max() for each. */
QEL_API cerrno qel_if_bulk_get_speed_max(uint32_t app, const uint64_t* handles, uint32_t* values,
                                         cerrno* results, size_t count);
/** As qel_if_get_input_flow_control() for each. */
QEL_API cerrno qel_if_bulk_get_input_flow_control(uint32_t app, const uint64_t* handles, uint32_t* values,
                                                  cerrno* results, size_t count);
/** As qel_if_get_output_flow_control() for each. */
QEL_API cerrno qel_if_bulk_get_output_flow_control(uint32_t app, const uint64_t* handles, uint32_t* values,
                                                   cerrno* results, size_t count);
/** As qel_if_get_auto_negotiation() for each. */
QEL_API cerrno qel_if_bulk_get_auto_negotiation(uint32_t app, const uint64_t* handles, uint32_t* values,
                                                cerrno* results, size_t count);
/** As qel_if_get_port_channel_id() for each. */
QEL_API cerrno qel_if_bulk_get_port_channel_id(uint32_t app, const uint64_t* handles, uint64_t* values,
                                               cerrno* results, size_t count);
/** As qel_if_get_port_channel_member_priority() for each. */
QEL_API cerrno qel_if_bulk_get_port_channel_member_priority(uint32_t app, const uint64_t* handles,
                                                            uint16_t* values, cerrno* results, size_t count);
/** As qel_if_get_port_channel_member_mode() for each. */
QEL_API cerrno qel_if_bulk_get_port_channel_member_mode(uint32_t app, const uint64_t* handles,
                                                        uint32_t* values, cerrno* results, size_t count);
/** The port channel of each. */
QEL_API cerrno qel_if_get_port_channel_from_handle(uint32_t app, const uint64_t* handles,
                                                   qel_if_port_channel* values, cerrno* results,
                                                   size_t count);

/** Names, into buffers of 'size' bytes each, at least QEL_IF_NAME_SIZE. */
QEL_API cerrno qel_if_bulk_get_name(uint32_t app, const uint64_t* handles, char* const* buffers,
                                    cerrno* results, size_t size, size_t count);
/** Short names, likewise. */
QEL_API cerrno qel_if_bulk_get_short_name(uint32_t app, const uint64_t* handles, char* const* buffers,
                                          cerrno* results, size_t size, size_t count);
/** Descriptions, into buffers of 'size' bytes each, at least QEL_IF_DESCRIPTION_SIZE. */
QEL_API cerrno qel_if_bulk_get_description(uint32_t app, const uint64_t* handles, char* const* buffers,
                                           cerrno* results, size_t size, size_t count);

/** The interfaces of 'count' names, as qel_if_get_handle(). */
QEL_API cerrno qel_if_bulk_get_handle(uint32_t app, const char* const* names, uint64_t* handles,
                                      cerrno* results, size_t count);
/** A ::qel_if_property of many; the first handle's shim is asked about all. */
QEL_API cerrno qel_if_bulk_has_property(uint32_t app, const uint64_t* handles, uint32_t property,
                                        uint8_t* has, cerrno* results, size_t count);
/** The same by a ::qel_if_attribute_question. */
QEL_API cerrno qel_if_bulk_has_attribute(uint32_t app, const uint64_t* handles, uint8_t* has, uint32_t code,
                                         cerrno* results, size_t count);

/** The statistics 'ids', 'num_ids' of ::qel_if_stat, of 'count' interfaces. 'values' has an entry for each
 * interface, whose two pointers lead to 'num_ids' entries. With 'num_ids' 0, nothing else need be set but
 * the interfaces, and nothing is read. */
QEL_API cerrno qel_if_bulk_get_stat(uint32_t app, const uint64_t* handles, size_t count, const uint32_t* ids,
                                    size_t num_ids, cerrno* results, qel_if_stat_values* values);
/** @} */

/** @name Port channels
 * No shim serves these: 0xa000005f once the arguments pass.
 * @{ */
/** The number of members of each. */
QEL_API cerrno qel_if_get_port_channel_member_count(uint32_t app, const uint64_t* ids, uint64_t* values,
                                                    cerrno* results, size_t count);
/** The state of each. */
QEL_API cerrno qel_if_get_port_channel_state(uint32_t app, const uint64_t* ids, uint32_t* values,
                                             cerrno* results, size_t count);
/** @} */

/** @name Codes of attributes
 * What shims are asked for, and what changes are reported of. A code is QEL_IF_ATTR_BASE plus an index.
 * @{ */
#define QEL_IF_ATTR_BASE 0xFF000000u /**< the code of index 0 */

/** The attributes, each with the type of its value. */
typedef enum qel_if_attr_index {
    QEL_IF_ATTR_IS_LAYER2,            /**< uint8_t */
    QEL_IF_ATTR_BASE_IF,              /**< uint64_t, an interface */
    QEL_IF_ATTR_IF_TYPE,              /**< uint32_t, ::qel_if_type */
    QEL_IF_ATTR_PHYS_LOC,             /**< ::qel_if_phys_loc */
    QEL_IF_ATTR_IF_ENCAP,             /**< uint32_t, ::qel_if_encap */
    QEL_IF_ATTR_OPER_STATE,           /**< uint32_t, ::qel_if_oper_state */
    QEL_IF_ATTR_ADMIN_STATE,          /**< uint32_t, ::qel_if_admin_state */
    QEL_IF_ATTR_IF_NAME,              /**< char[size], zero-terminated */
    QEL_IF_ATTR_IF_SHORT_NAME,        /**< char[size], zero-terminated */
    QEL_IF_ATTR_SNMP_INDEX,           /**< uint64_t */
    QEL_IF_ATTR_UNIDIR_MODE,          /**< uint32_t, ::qel_if_unidir_mode */
    QEL_IF_ATTR_MTU,                  /**< uint32_t */
    QEL_IF_ATTR_TX_BANDWIDTH,         /**< uint32_t */
    QEL_IF_ATTR_RX_BANDWIDTH,         /**< uint32_t */
    QEL_IF_ATTR_DUPLEX_MODE,          /**< uint32_t, ::qel_if_duplex_mode */
    QEL_IF_ATTR_MAC_ADDR,             /**< uint8_t[6] */
    QEL_IF_ATTR_MAX_MAC_FILTERS,      /**< uint32_t */
    QEL_IF_ATTR_STATISTICS,           /**< ::qel_if_statistics */
    QEL_IF_ATTR_IF_DESCRIPTION,       /**< char[size], zero-terminated */
    QEL_IF_ATTR_ENCAP_DOT1Q,          /**< ::qel_if_dot1q */
    QEL_IF_ATTR_VRF,                  /**< ::qel_if_vrf */
    QEL_IF_ATTR_BD,                   /**< ::qel_if_bd */
    QEL_IF_ATTR_GENERIC_STATS,        /**< in and out: ::qel_if_stat_request */
    QEL_IF_ATTR_SUPPORTED_STAT_COUNT, /**< uint64_t */
    QEL_IF_ATTR_STAT_SUPPORTED,       /**< in and out: ::qel_if_stat_list */
    QEL_IF_ATTR_SPEED,                /**< uint32_t */
    QEL_IF_ATTR_SPEED_MAX,            /**< uint32_t */
    QEL_IF_ATTR_INPUT_FLOW_CONTROL,   /**< uint32_t, ::qel_if_flow_control */
    QEL_IF_ATTR_OUTPUT_FLOW_CONTROL,  /**< uint32_t, ::qel_if_flow_control */
    QEL_IF_ATTR_AUTO_NEGOTIATION,     /**< uint32_t, ::qel_if_auto_negotiation */
    QEL_IF_ATTR_PC_ID,                /**< uint64_t */
    QEL_IF_ATTR_PC_PRIORITY,          /**< uint16_t */
    QEL_IF_ATTR_PC_MODE,              /**< uint32_t */
    QEL_IF_ATTR_PC_ID_FROM_HANDLE     /**< ::qel_if_port_channel */
} qel_if_attr_index;

/** What a shim is asked for as QEL_IF_ATTR_GENERIC_STATS. */
typedef struct qel_if_stat_request {
    const uint32_t* ids;        /**< the statistics, ::qel_if_stat */
    uint64_t num_ids;           /**< how many */
    qel_if_stat_values* values; /**< where they go */
} qel_if_stat_request;

/** What a shim is asked for as QEL_IF_ATTR_STAT_SUPPORTED. */
typedef struct qel_if_stat_list {
    uint64_t capacity; /**< of 'ids' */
    uint32_t* ids;     /**< where the ids go, or null */
} qel_if_stat_list;

/** The name of an attribute's code, a string that stays; "unknown" for any other value. */
QEL_API const char* qel_if_attr_type_to_string(uint32_t code);

/** Statistics, for qel_if_bulk_get_stat(). */
typedef enum qel_if_stat {
    QEL_IF_STAT_RELIABILITY,
    QEL_IF_STAT_RESETS,
    QEL_IF_STAT_RX_LOAD,
    QEL_IF_STAT_RX_BYTES_PER_SEC,
    QEL_IF_STAT_RX_PKTS_PER_SEC,
    QEL_IF_STAT_RX_BYTES,
    QEL_IF_STAT_RX_PKTS,
    QEL_IF_STAT_RX_PKTS_UCAST,
    QEL_IF_STAT_RX_PKTS_MCAST,
    QEL_IF_STAT_RX_PKTS_BCAST,
    QEL_IF_STAT_RX_PKTS_DISCARD,
    QEL_IF_STAT_RX_PKTS_ERRORS,
    QEL_IF_STAT_RX_PKTS_UNKNOWN,
    QEL_IF_STAT_RX_PKTS_RUNTS,
    QEL_IF_STAT_RX_PKTS_GIANTS,
    QEL_IF_STAT_RX_PKTS_THROTTLE,
    QEL_IF_STAT_RX_PKTS_CRC,
    QEL_IF_STAT_RX_PKTS_FRAME,
    QEL_IF_STAT_RX_PKTS_OVERRUN,
    QEL_IF_STAT_TX_LOAD,
    QEL_IF_STAT_TX_BYTES_PER_SEC,
    QEL_IF_STAT_TX_PKTS_PER_SEC,
    QEL_IF_STAT_TX_BYTES,
    QEL_IF_STAT_TX_PKTS,
    QEL_IF_STAT_TX_PKTS_UCAST,
    QEL_IF_STAT_TX_PKTS_MCAST,
    QEL_IF_STAT_TX_PKTS_BCAST,
    QEL_IF_STAT_TX_PKTS_DISCARDS,
    QEL_IF_STAT_TX_PKTS_ERRORS,
    QEL_IF_STAT_TX_PKTS_UNDERRUN,
    QEL_IF_STAT_TX_PKTS_BUFFER_FAILURES,
    QEL_IF_STAT_TX_PKTS_BUFFER_SWAPPEDOUT,
    QEL_IF_STAT_TX_PKTS_TAIL_DROPS,
    QEL_IF_STAT_TX_PKTS_VOQ_DROPS,
    QEL_IF_STAT_TX_PKTS_REP_ENG_DROP,
    QEL_IF_STAT_TX_PKTS_COLLISIONS
} qel_if_stat;

/** The name of a statistic, a string that stays; "Invalid Attribute" for any other value. */
QEL_API const char* qel_if_get_printable_stat(uint32_t id);
/** @} */

QEL_END_DECLS

#endif
