/** @file
 * What makes an interface shim: a back end that gives the interface service (qel/if.h) interfaces to serve.
 *
 *     static cerrno get_attr(const qel_if_shim_info* info, uint64_t ifh, uint32_t attr, qel_if_attr_data*
 * data);
 *     ...
 *     qel_if_shim_registration reg;
 *     qel_if_shim_registration_init(&reg);
 *     reg.id = 3;                                       // the top three bits of its interfaces' handles
 *     reg.name = "loops";
 *     reg.handlers.bind = bind;                         // and destroy, get_attr, (de)register_callbacks
 *     qel_if_shim_register(&reg);
 *
 * examples/shim_loop.c is a whole one, docs/guide/writing-a-shim.md tells the way there.
 *
 * The life of a shim, as it sees it:
 *  1. It registers, at any time. Clients that are bound already don't reach it.
 *  2. 'bind' for each client that binds; from then on, on any thread, the reads for that client.
 *  3. 'register_callbacks' for each registration of a client, 'deregister_callbacks' when that ends.
 *  4. Configuration handlers, with operations that outlive the call. Asynchronous ones are answered with
 *     qel_if_shim_report_cfg_result() between qel_if_shim_op_guard() and qel_if_shim_op_yield(): the guard is
 *     refused when the client has gone meanwhile, and nothing is to be done then.
 *  5. 'destroy' for each client that ends. Then nothing refers to that client any more.
 *  6. It may deregister when no client is bound.
 *
 * Threads: handlers run on the thread of the client's call, several at a time; synchronous configuration
 * handlers one after the other on a thread of the library's, where one that blocks holds up all of them. No
 * lock of the library is held. Reports may come from any thread.
 *
 * Results are composite codes (qel/cerrno.h), 0 for success, of handlers too. */
#ifndef QEL_IF_SHIM_H
#define QEL_IF_SHIM_H

#include <qel/if_cfg.h>
#include <qel/if_event.h>

QEL_BEGIN_DECLS

/** The number of slots, and of shims' ids. */
#define QEL_IF_SHIM_SLOTS 8u

/** The registration's flag of a shim that filters events itself: filters' conditions on interfaces are not
 * tested for it. */
#define QEL_IF_SHIM_FILTERS_EVENTS 0x1u

/** @name What handlers are given
 * @{ */

/** A client, as its shims know it. The service's memory, from 'bind' to the end of 'destroy'. */
typedef struct qel_if_shim_info {
    const char* name;  /**< the client's name */
    uint32_t app;      /**< the client */
    uint32_t shim_id;  /**< the shim */
    uint32_t* scope;   /**< the client's scope, which 'bind' may change */
    qel_dm_handle qdm; /**< the client's dispatcher, or 0 */
    uint32_t
        num_clients; /**< clients bound when this one did, itself included; counts those that are ending */
    uint8_t has_bind_status_cb; /**< 1 if the client wants to be told of its binding */
} qel_if_shim_info;

/** Where a read goes. */
typedef struct qel_if_attr_data {
    uint64_t size; /**< of 'value', in bytes */
    void* value;   /**< the reader's memory; ::qel_if_attr_index tells what goes there */
} qel_if_attr_data;

/** What a shim is asked to redirect. */
typedef struct qel_if_redirect {
    uint64_t ifh;  /**< the interface */
    uint32_t attr; /**< the attribute's code */
} qel_if_redirect;

/** A registration of a client. The service's memory, from 'register_callbacks' to the end of
 * 'deregister_callbacks'. */
typedef struct qel_if_shim_reg {
    uint32_t reg_handle;               /**< for ::qel_if_shim_event */
    uint8_t has_created_cb;            /**< 1 with a callback for event 0 */
    uint8_t has_deleted_cb;            /**< 1 with a callback for event 1 */
    uint32_t num_cbids;                /**< entries of 'cbids' */
    const uint32_t* cbids;             /**< the events from 2 on with a callback, ascending */
    const qel_if_event_filter* filter; /**< the registration's */
    uint64_t cookie;                   /**< the client's word */
    uint32_t num_regs;                 /**< registrations of all clients when this one was made */
} qel_if_shim_reg;

/** See there. */
typedef struct qel_if_shim_client qel_if_shim_client;
/** @} */

/** The handlers of a shim. Those marked so must be set; a missing one means that the shim doesn't serve it.
 * A failure goes to the client as it is, unless told. */
typedef struct qel_if_shim_handlers {
    /** Must be set. A client binds. 0x4000000b: bound later, told by a bind status report. Any other code
     * fails the client's bind, and 'destroy' is called for the shims that accepted it, not for this one. */
    cerrno (*bind)(const qel_if_shim_info* info);
    /** Must be set. The client is gone. The result is reported only. */
    cerrno (*destroy)(const qel_if_shim_info* info);
    /** Must be set. Reads an attribute, a code, of an interface. */
    cerrno (*get_attr)(const qel_if_shim_info* info, uint64_t ifh, uint32_t attr, qel_if_attr_data* data);
    /** Reads an attribute of 'count' interfaces of this shim: entry by entry, with a result each. The return
     * is for the run as a whole. */
    cerrno (*bulk_get_attr)(const qel_if_shim_info* info, const uint64_t* handles, uint32_t attr,
                            qel_if_attr_data* data, cerrno* results, size_t count);
    /** Must be set. A client registers for events. A failure fails the registration. */
    cerrno (*register_callbacks)(const qel_if_shim_info* info, const qel_if_shim_reg* reg);
    /** Must be set. A registration ends. */
    cerrno (*deregister_callbacks)(const qel_if_shim_info* info, const qel_if_shim_reg* reg);
    /** Finds an interface by name. Asked in slot 0 only. */
    cerrno (*get_handle)(const qel_if_shim_info* info, const char* name, uint64_t* ifh);
    /** The same for 'count' names. Asked in slot 0 only. */
    cerrno (*bulk_get_handle)(const qel_if_shim_info* info, const char* const* names, uint64_t* handles,
                              cerrno* results, size_t count);
    /** Adds an address that the interface receives for. */
    cerrno (*add_mac_filter)(const qel_if_shim_info* info, uint64_t ifh, uint32_t word,
                             const uint8_t* address);
    /** Removes one. */
    cerrno (*remove_mac_filter)(const qel_if_shim_info* info, uint64_t ifh, uint32_t word,
                                const uint8_t* address);
    /** Removes all. */
    cerrno (*remove_all_mac_filters)(const qel_if_shim_info* info, uint64_t ifh);
    /** Gives the platform's own handle of an interface. */
    cerrno (*hdl_to_native_handle)(uint64_t ifh, uint64_t* native);
    /** Says which shim serves the attribute: asked before each read. */
    cerrno (*get_redirect)(const qel_if_shim_info* info, const qel_if_redirect* request, uint32_t* shim_id);
    /** Answers a ::qel_if_property with 0 or 1. */
    cerrno (*has_property)(const qel_if_shim_info* info, uint64_t ifh, uint32_t property, uint8_t* has);
    /** The same for 'count' interfaces. */
    cerrno (*bulk_has_property)(const qel_if_shim_info* info, const uint64_t* handles, uint32_t property,
                                uint8_t* has, cerrno* results, size_t count);
    /** Does a set of changes, and fills the result. The return is the status that the client fetches. The
     * asynchronous form is preferred when both are set: it returns at once, 0 if the result will be reported.
     */
    cerrno (*cfg_sync)(const qel_if_shim_info* info, qel_if_cfg_res_attr* result);
    /** The asynchronous form. */
    cerrno (*cfg_async)(const qel_if_shim_client* client, qel_if_cfg_res_attr* result, uint32_t op_id);
    /** Answers a set of questions. */
    cerrno (*cfg_query_sync)(const qel_if_shim_info* info, qel_if_cfg_query_res_attr* result);
    /** The asynchronous form. */
    cerrno (*cfg_query_async)(const qel_if_shim_client* client, qel_if_cfg_query_res_attr* result,
                              uint32_t op_id);
    /** Creates interfaces. */
    cerrno (*cfg_intf_sync)(const qel_if_shim_info* info, qel_if_cfg_interface_res_attr* result);
    /** The asynchronous form. */
    cerrno (*cfg_intf_async)(const qel_if_shim_client* client, qel_if_cfg_interface_res_attr* result,
                             uint32_t op_id);
    /** Looks a group up, of type QEL_IF_GROUP_*; the pointers are between the shim and its clients.
     * 0xa000005f: the next shim is asked, as in the two following. */
    cerrno (*get_group_from_id)(const qel_if_shim_info* info, uint64_t id, uint32_t type, void* first,
                                void* second, void* third);
    /** The same by name. */
    cerrno (*get_group_from_name)(const qel_if_shim_info* info, const char* name, uint32_t type, void* first,
                                  void* second, void* third);
    /** Begins an iteration over groups: gives an iterator of the shim's own that begins with a
     * ::qel_if_group_iterator, which the service fills. The three come together or not at all. */
    cerrno (*group_iterator_start)(const qel_if_shim_info* info, uint32_t type,
                                   const qel_if_bd_iteration_filter* filter, qel_if_group_iterator** it);
    /** Gives the next group's id. */
    cerrno (*group_iterator_get_next)(const qel_if_shim_info* info, uint32_t type, qel_if_group_iterator* it,
                                      uint64_t* id);
    /** Ends an iteration and frees its iterator. */
    cerrno (*group_iterator_end)(const qel_if_shim_info* info, uint32_t type, qel_if_group_iterator* it);
} qel_if_shim_handlers;

/** A shim. Copied by the registration. */
typedef struct qel_if_shim_registration {
    uint32_t id;                   /**< 0 to 7: the slot, and the top three bits of the shim's interfaces */
    uint32_t flags;                /**< 0 or QEL_IF_SHIM_FILTERS_EVENTS */
    const char* name;              /**< not null, not empty; must stay */
    qel_if_shim_handlers handlers; /**< see there */
    uintptr_t word;                /**< 0; no reader */
} qel_if_shim_registration;

/** What an asynchronous handler gets of a client. */
struct qel_if_shim_client {
    uint32_t magic;                /**< 0x5380C6AB */
    uint32_t id;                   /**< the shim */
    qel_if_shim_handlers handlers; /**< the shim's */
    qel_if_shim_info* info;        /**< the client, as other handlers get it */
    uint32_t flags;                /**< the shim's */
};

/** @name Registration
 * @{ */

/** Zeroes 'registration'. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_shim_registration_init(qel_if_shim_registration* registration);
/** Registers a shim. The first failure but that of a null record is kept: every later bind, and
 * qel_netinfra_init(), fail with its code until qel_if_clear_shim_reg_error().
 *
 * Returns 0; 0xa0000016 for null, no name, or handlers missing; 0xa0000022 for an id above 7; 0xa000001c when
 * all slots are taken; 0xa0000011 when this one is; 0xa000000c. */
QEL_API cerrno qel_if_shim_register(const qel_if_shim_registration* registration);
/** Frees a shim's slot. Returns 0; 0xa0000022; 0xa0000002 for an empty one. */
QEL_API cerrno qel_if_shim_deregister(uint32_t id);
/** The number of registered shims. */
QEL_API uint32_t qel_if_get_num_shim_reg(void);
/** Forgets the first failure of a registration. */
QEL_API void qel_if_clear_shim_reg_error(void);

/** The table of shims, for an application that swaps all of them. */
typedef struct qel_if_shim_table {
    cerrno reg_error;                                   /**< the first failure of a registration */
    uint32_t count;                                     /**< registered shims */
    cerrno slot_error[QEL_IF_SHIM_SLOTS];               /**< the last failure of each slot */
    qel_if_shim_registration* slots[QEL_IF_SHIM_SLOTS]; /**< the service's copies, null for empty slots */
} qel_if_shim_table;

/** Gives a copy of the table, which the caller gives to free(); null without memory. The registrations that
 * it points to are the service's. */
QEL_API qel_if_shim_table* qel_if_backup_shim_reg(void);
/** Empties the table and frees no registration: a copy of it must be there. */
QEL_API void qel_if_clear_shim_reg(void);
/** Writes the table back from a copy; does nothing for null. What was registered meanwhile is forgotten. */
QEL_API void qel_if_restore_shim_reg(const qel_if_shim_table* table);
/** @} */

/** @name Reports of events
 * What the records point to is copied where needed and may go after the call.
 * @{ */

/** An interface's creation or deletion. */
typedef struct qel_if_shim_if_event {
    uint64_t size;     /**< of '*value': 4 */
    const void* value; /**< what the callbacks get, a uint32_t */
} qel_if_shim_if_event;

/** A change of an attribute. */
typedef struct qel_if_shim_attr_change {
    uint32_t attr;     /**< the attribute's code */
    uint64_t size;     /**< of '*value' */
    const void* value; /**< the new value */
} qel_if_shim_attr_change;

/** An event for one registration. */
typedef struct qel_if_shim_event {
    uint32_t magic;           /**< QEL_IF_MAGIC, by qel_if_shim_event_init() */
    uint32_t reg_handle;      /**< of a ::qel_if_shim_reg */
    uint32_t cbid;            /**< the event */
    qel_if_event_cb callback; /**< the client's callback */
    const void* object;       /**< the event's object, 8 bytes */
    uint64_t object_size;     /**< 8 */
    const void* cbarg;        /**< the event's value, or null for the events without one */
    uint64_t cbarg_size;      /**< of '*cbarg', the size of the event's value at least */
} qel_if_shim_event;

/** Tells all registrations of a new interface. Returns 0; 0xa0000016 for a null record or handle 0. */
QEL_API cerrno qel_if_shim_report_if_creation(uint64_t ifh, const qel_if_shim_if_event* event);
/** Tells all registrations that an interface has gone. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_shim_report_if_deletion(uint64_t ifh, const qel_if_shim_if_event* event);
/** Tells all registrations of a change. Returns 0; 0xa0000016; 0xa000005f for an attribute without an event.
 */
QEL_API cerrno qel_if_shim_report_attr_change(uint64_t ifh, const qel_if_shim_attr_change* change);

/** Zeroes and marks 'event'. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_shim_event_init(qel_if_shim_event* event);
/** Whether 'reg' has a callback for event 'cbid', from 2 on. */
QEL_API bool qel_if_shim_event_has_cb(const qel_if_shim_reg* reg, uint32_t cbid);
/** Tells one registration. Returns 0; 0xa0000016 for a null record or object, an unknown registration or a
 * client that has gone; 0xa000000c; the dispatcher's error, with the event dropped. */
QEL_API cerrno qel_if_shim_report_event(const qel_if_shim_event* event);
/** Tells all registrations that have a callback for 'cbid' and let the event pass. Returns the last failure.
 */
QEL_API cerrno qel_if_shim_demux_and_report_event(uint32_t cbid, const void* object, uint64_t object_size,
                                                  const void* value, uint64_t value_size);
/** @} */

/** @name Reports of bindings
 * @{ */

/** How a client's binding stands. */
typedef struct qel_if_shim_bind_status {
    uint32_t magic;  /**< QEL_IF_MAGIC, by qel_if_shim_bind_status_init() */
    uint32_t app;    /**< the client */
    int32_t status;  /**< 0 bound; 1 lost: the client's registrations and operations end */
    uint32_t reason; /**< for the client */
    uint8_t flag;    /**< for the client */
} qel_if_shim_bind_status;

/** Zeroes and marks 'status'. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_shim_bind_status_init(qel_if_shim_bind_status* status);
/** Tells a client how its binding stands. Returns 0; 0xa0000016 for null, an unknown client, or one that
 * wants to be told but has no dispatcher; 0xa000004a without magic; 0xa000000c; the dispatcher's error. */
QEL_API cerrno qel_if_shim_report_bind_status(const qel_if_shim_bind_status* status);
/** Tells every client that wants to be told. Returns the last failure. */
QEL_API cerrno qel_if_shim_demux_and_report_bind_status(int32_t status, uint32_t reason, uint8_t flag);
/** @} */

/** @name Results of configuration requests
 * @{ */

/** Holds the operation 'op_id' while a thread of the shim works on it. Returns 0; 0xa0000002 if it ended. */
QEL_API cerrno qel_if_shim_op_guard(uint32_t op_id, qel_async_ctx** operation);
/** Lets it go. Returns 0. */
QEL_API cerrno qel_if_shim_op_yield(qel_async_ctx* operation);
/** Tells the client how its request went; the result block, filled before, goes with it. Returns 0;
 * 0xa0000072 if that was told already, and the first one stands; 0xa0000002 if the operation ended meanwhile;
 * 0xa0000016 if the client has gone; 0xa000000c, or the dispatcher's error: the operation has ended untold.
 */
QEL_API cerrno qel_if_shim_report_cfg_result(qel_async_ctx* operation, cerrno status);

/** 0 if a description of 'length' bytes may be set: none, or a string of that length. 0xa000001c for more
 * than 200 bytes; 0xa0000016 otherwise. */
QEL_API cerrno qel_if_shim_cfg_description_is_valid(const char* description, size_t length);
/** True when exactly one of the two words that name an interface is set. */
QEL_API bool qel_if_shim_cfg_intf_req_is_valid(const qel_if_cfg_intf_req* request);
/** Writes the mask of an IPv4 prefix as text, "255.255.255.0" for 24. Returns 0; 0xa0000016 for a length
 * above 32 or a null buffer; 0xa000000e when 'size' bytes are too few. */
QEL_API cerrno qel_if_shim_prefixlen2mask(uint32_t prefix_length, char* buffer, size_t size);
/** @} */

/** The platform's own handle of an interface. Returns 0; 0xa0000016; 0xa0000002 without the handle's shim;
 * 0xa000005f if the shim has none; what it gave. */
QEL_API cerrno qel_if_shim_hdl_to_native_handle(uint64_t ifh, uint64_t* native);

QEL_END_DECLS

#endif
