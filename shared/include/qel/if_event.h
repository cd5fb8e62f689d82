/** @file
 * Events of interfaces: what a client is told when an interface appears, goes or changes; and what an
 * application hangs on interfaces until they go.
 *
 *     static void created(uint64_t ifh, uint32_t value, uint64_t cookie) { ... }
 *
 *     qel_if_event_cb_vector callbacks = {.created = created, .mtu = mtu_changed};
 *     uint32_t reg;
 *     qel_if_register_callbacks(app, &callbacks, NULL, 7, &reg);        // NULL: no filter
 *     ...
 *     qel_if_deregister_callbacks(app, &reg);
 *
 * Shims report an event once; the service hands it to every registration that has a callback for it and whose
 * filter lets it pass. A client with a dispatcher is called there, in the order of the reports; one without
 * is called by the reporting thread, during the report.
 *
 * Threads: any thread may make any call; a callback may make all calls of this file. A free handler of a
 * context database that runs because its interface went holds a lock of the library, and must not.
 *
 * Results are composite codes (qel/cerrno.h), 0 for success; 0xa0000016 for bad arguments and unknown handles
 * everywhere. */
#ifndef QEL_IF_EVENT_H
#define QEL_IF_EVENT_H

#include <qel/dt.h>
#include <qel/if.h>

QEL_BEGIN_DECLS

/** @name Callbacks
 * Called with the object (an interface's handle, or for the families a word of the shim's), the value, and
 * the cookie of the registration. A pointer is valid during the call.
 * @{ */
/** With a 32-bit value. */
typedef void (*qel_if_event_word_cb)(uint64_t object, uint32_t value, uint64_t cookie);
/** With a byte. */
typedef void (*qel_if_event_byte_cb)(uint64_t object, uint8_t value, uint64_t cookie);
/** With a 64-bit value. */
typedef void (*qel_if_event_value_cb)(uint64_t object, uint64_t value, uint64_t cookie);
/** With the 6 bytes of an address. */
typedef void (*qel_if_event_mac_cb)(uint64_t object, const uint8_t* address, uint64_t cookie);
/** With VLAN tags. */
typedef void (*qel_if_event_dot1q_cb)(uint64_t object, const qel_if_dot1q* tags, uint64_t cookie);
/** With a VRF. */
typedef void (*qel_if_event_vrf_cb)(uint64_t object, const qel_if_vrf* vrf, uint64_t cookie);
/** With a bridge domain. */
typedef void (*qel_if_event_bd_cb)(uint64_t object, qel_if_bd bd, uint64_t cookie);
/** Without a value. */
typedef void (*qel_if_event_plain_cb)(uint64_t object, uint64_t cookie);
/** Any of these. */
typedef void (*qel_if_event_cb)(void);

/** The number of events. */
#define QEL_IF_EVENT_COUNT 48u

/** A client's callbacks; null where it has no interest. The events, and with them the pointers, are numbered
 * from 0 in this order: that number is the 'cbid' below. */
typedef struct qel_if_event_cb_vector {
    qel_if_event_word_cb created;             /**< 0: a new interface */
    qel_if_event_word_cb deleted;             /**< 1: it went; then the context databases forget it */
    qel_if_event_word_cb mtu;                 /**< 2: changed, as the following */
    qel_if_event_word_cb tx_bandwidth;        /**< 3 */
    qel_if_event_word_cb rx_bandwidth;        /**< 4 */
    qel_if_event_word_cb oper_state;          /**< 5 */
    qel_if_event_word_cb admin_state;         /**< 6 */
    qel_if_event_mac_cb mac_addr;             /**< 7 */
    qel_if_event_dot1q_cb encap_dot1q;        /**< 8 */
    qel_if_event_vrf_cb vrf;                  /**< 9 */
    qel_if_event_bd_cb bd;                    /**< 10 */
    qel_if_event_word_cb speed;               /**< 11 */
    qel_if_event_word_cb duplex_mode;         /**< 12 */
    qel_if_event_word_cb input_flow_control;  /**< 13 */
    qel_if_event_word_cb output_flow_control; /**< 14 */
    qel_if_event_word_cb auto_negotiation;    /**< 15 */
    qel_if_event_byte_cb byte_event;          /**< 16: between the shim and its clients, as the following */
    qel_if_event_word_cb word_event[6];       /**< 17 to 22 */
    qel_if_event_plain_cb family[5][2];  /**< 23 to 32: two events of each of five families of objects. The
                                              first are VRFs, the second bridge domains, the fourth what a
                                              filter's 'object' means */
    qel_if_event_word_cb family_word[5]; /**< 33 to 37: one of each */
    qel_if_event_value_cb family_value[5][2]; /**< 38 to 47: two of each */
} qel_if_event_cb_vector;
/** @} */

/** @name Registrations
 * @{ */

#define QEL_IF_EVENT_EXCLUDE_DELETED 0x1u /**< not for interfaces marked as deleted */
#define QEL_IF_EVENT_EXCLUDE_HIDDEN 0x2u  /**< not for hidden interfaces */

/** Which events pass. The conditions on the interface are for events of interfaces; a shim that filters by
 * itself is trusted to have seen to them. */
typedef struct qel_if_event_filter {
    uint32_t type;  /**< ::qel_if_type; QEL_IF_TYPE_ANY by default */
    uint32_t encap; /**< ::qel_if_encap; QEL_IF_ENCAP_ANY by default */
    uint64_t ifh;   /**< the interface, not 0; QEL_IF_HANDLE_ANY by default. Another one names the only
                         shim that is asked for events */
    uint32_t
        ifh_exact;    /**< 1: 'ifh' itself; else it or what stands on it, if the shim tells base interfaces */
    uint32_t exclude; /**< QEL_IF_EVENT_EXCLUDE_* */
    uint64_t vrf;     /**< the VRF; 0 for all */
    uint64_t bd;      /**< the bridge domain; 0 for all */
    uint64_t word;    /**< 0; no reader */
    uint64_t object;  /**< the object of the fourth family; 0 for all */
} qel_if_event_filter;

/** Fills 'filter' with what lets everything pass; does nothing for null. */
QEL_API void qel_if_event_filter_init(qel_if_event_filter* filter);

/** Registers the callbacks of 'vector' for what passes 'filter', null for everything; both are copied. A
 * client may have several registrations, all clients together 16 times "qel.if.max.bind".
 *
 * Returns 0; 0xa0000016, also for a filter of interface 0 or of a shim that the client isn't bound to;
 * 0xa000000c; 0xa0000002 for a registration too many; what a shim gave. */
QEL_API cerrno qel_if_register_callbacks(uint32_t app, const qel_if_event_cb_vector* vector,
                                         const qel_if_event_filter* filter, uint64_t cookie, uint32_t* reg);

/** Ends a registration and sets '*reg' to 0. Interface and attribute events that wait for the client's
 * dispatcher are dropped, other ones still delivered. Returns 0, also while another thread does the same;
 * 0xa0000016; a shim's error, with the registration ended all the same. */
QEL_API cerrno qel_if_deregister_callbacks(uint32_t app, uint32_t* reg);

/** The callback of event 'cbid', as it stands in 'vector'; null for one from QEL_IF_EVENT_COUNT on. */
QEL_API qel_if_event_cb qel_if_event_get_callback(const qel_if_event_cb_vector* vector, uint32_t cbid);
/** @} */

/** @name Delivery
 * For shims that know a registration; others report, qel/if_shim.h.
 * @{ */
/** A registration, held; see qel_if_retain_reg_ctx(). */
typedef struct qel_if_reg qel_if_reg;

/** Delivers one event of an interface to one registration. 'value' has 'size' bytes and is copied when the
 * client has a dispatcher. An event that can't be delivered is dropped, and reported. */
QEL_API void qel_if_notify(qel_if_reg* reg, uint64_t ifh, uint32_t cbid, qel_if_event_cb callback,
                           const void* value, size_t size);
/** The same to every registration with a callback for it that lets it pass. */
QEL_API void qel_if_event_demux_and_notify(uint64_t ifh, uint32_t cbid, const void* value, size_t size);
/** @} */

/** @name Context databases
 * What an application hangs on interfaces, by handle, one pointer an interface and database. When a client's
 * callback for a deleted interface has returned, the interface's entries leave all databases; without a
 * client that listens for that they stay.
 * @{ */
/** A context database; the library's. */
typedef struct qel_if_ctx_db qel_if_ctx_db;

/** Takes a pointer back when its entry leaves the database, which it gets twice. */
typedef void (*qel_if_ctx_free_handler)(uint64_t ifh, qel_if_ctx_db* db, void* context, qel_if_ctx_db* same);

/** Makes a database. 'name' is for the trace. Returns 0; 0xa0000016; 0xa000000c. */
QEL_API cerrno qel_if_ctx_create_db(const char* name, qel_if_ctx_free_handler free_handler,
                                    qel_if_ctx_db** db);
/** Hands each pointer to the free handler, without a lock, and destroys the database, which nobody may use
 * meanwhile. */
QEL_API cerrno qel_if_ctx_destroy_db(qel_if_ctx_db* db);
/** Hangs 'context' on an interface; null takes away what hangs there. Returns 0; 0xa0000016; 0xa000000c;
 * 0xa0000011 if something hangs there, which stays; 0xa0000002 if there is nothing to take away. */
QEL_API cerrno qel_if_ctx_set(qel_if_ctx_db* db, uint64_t ifh, void* context);
/** Gives what hangs on an interface. Returns 0; 0xa0000016; 0xa0000002. */
QEL_API cerrno qel_if_ctx_get(qel_if_ctx_db* db, uint64_t ifh, void** context);
/** Takes away what hangs on an interface and hands it to the free handler. 'lock_is_held' is for free
 * handlers that run because their interface went; 'report' 1 reports a missing entry to the trace. Returns 0;
 * 0xa0000016; 0xa0000002. */
QEL_API cerrno qel_if_ctx_remove(qel_if_ctx_db* db, uint64_t ifh, int lock_is_held, int report);
/** Takes away what hangs on an interface in every database, with the lock held. */
QEL_API cerrno qel_if_ctx_remove_by_if_handle(uint64_t ifh);
/** Gives the lowest handle of the database, 0 if it is empty. */
QEL_API cerrno qel_if_ctx_db_get_first(qel_if_ctx_db* db, uint64_t* ifh);
/** Gives the lowest handle above 'previous', which need not be there; 0 at the end. */
QEL_API cerrno qel_if_ctx_db_get_next(qel_if_ctx_db* db, uint64_t previous, uint64_t* ifh);
/** @} */

/** More than 0: deliveries and drops of single events are traced, too. 0 at first. */
QEL_API extern int qel_if_trace_level;

/** A flag of the application's under which the service's events are printed, see qel_dt_flag_init(); null
 * until the application sets it. */
QEL_API extern qel_dt_flag* qel_if_event_flag;
/** The trace buffer of the service's events, "qel.if.buffer.events"; null before the first one. */
QEL_API extern qel_dt_buffer_handle qel_if_event_buffer;

QEL_END_DECLS

#endif
