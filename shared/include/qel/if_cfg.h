/** @file
 * Requests that change interfaces, read their configuration back, or create interfaces.
 *
 *     qel_if_cfg_req wanted[1];
 *     qel_if_cfg_req_attr set;
 *     qel_if_cfg_req_init(&wanted[0]);                  // then what the shim asks for
 *     wanted[0].num_attrs = 2;
 *     qel_if_cfg_req_attr_init(&set);
 *     set.num_requests = 1;
 *     set.requests = wanted;
 *     if (qel_if_cfg_async(app, &set, &request, &future) != 0) return;      // request: qel/async.h
 *     qel_async_wait(&future);
 *     cerrno status;
 *     qel_if_cfg_attr_result attrs[2], *results[1] = {attrs};
 *     qel_if_cfg_res_attr result = {.results = results};
 *     if (qel_if_cfg_get_result(&future, &status, &result) == 0 && status == 0) ...
 *
 * Each of the three kinds has a request set, a result block, a call that starts an operation (qel/async.h)
 * and one that fetches its result. They go to the shim in slot 0, which must serve the kind: the default one
 * of the library does not. What the words of requests and results mean is between that shim and its clients;
 * the library copies them.
 *
 * A set is read during the start, but the array of requests that it points to must stay until the result is
 * fetched: the shim reads it there. For the fetch the client brings a block of the result's shape, with all
 * arrays in place; the library allocates nothing for it.
 *
 * Threads: any, save that a client must not sleep for a result on the thread that brings it. The client must
 * have bound with QEL_IF_OPTION_BIND_CFG, and the services run (qel/netinfra.h).
 *
 * Results are composite codes (qel/cerrno.h), 0 for success.
 *
 * Every start returns 0 if the operation runs; 0xa000004a before qel_netinfra_init(), or for a set or request
 * without magic; 0xa0000016 for an unknown client, a missing argument, no requests, or a client without the
 * shim; 0xa0000002 for a client without the option; 0xa000005f if the shim doesn't serve it; 0xa000000c, also
 * for more than 512 operations; what the shim gave. Then the future is of no use.
 *
 * Every fetch returns 0 and writes '*status', what the shim says of the request; if that is 0, also the
 * result. Else 0xa0000016 for a missing argument or an array missing in the client's block; 0xa0000002 for an
 * unknown operation; 0xa000002a for one of another kind and 0x4000000b before there is a result, which both
 * leave it as it is; or what went wrong on the way to the shim. */
#ifndef QEL_IF_CFG_H
#define QEL_IF_CFG_H

#include <qel/async.h>
#include <qel/if.h>

QEL_BEGIN_DECLS

/** @name Opcodes of futures
 * @{ */
#define QEL_IF_OPCODE_CFG 101u           /**< qel_if_cfg_async() */
#define QEL_IF_OPCODE_CFG_QUERY 102u     /**< qel_if_cfg_query_async() */
#define QEL_IF_OPCODE_CFG_INTERFACE 103u /**< qel_if_cfg_interface_async() */
/** @} */

/** What the attributes of requests are about. */
typedef enum qel_if_cfg_attr_type {
    QEL_IF_CFG_ATTR_ADMIN,
    QEL_IF_CFG_ATTR_MTU,
    QEL_IF_CFG_ATTR_ENCAP_DOT1Q,
    QEL_IF_CFG_ATTR_BW,
    QEL_IF_CFG_ATTR_MAC,
    QEL_IF_CFG_ATTR_ADDRESS,
    QEL_IF_CFG_ATTR_DESCRIPTION,
    QEL_IF_CFG_ATTR_LAYER2,
    QEL_IF_CFG_ATTR_SWITCHPORT_MODE,
    QEL_IF_CFG_ATTR_IPV4_REDIRECTS,
    QEL_IF_CFG_ATTR_IPV6_REDIRECTS,
    QEL_IF_CFG_ATTR_IPV4_UNREACHABLES,
    QEL_IF_CFG_ATTR_IPV6_UNREACHABLES,
    QEL_IF_CFG_ATTR_IPV4_PROXY_ARP,
    QEL_IF_CFG_ATTR_IPV4_HELPER_ADDRESS,
    QEL_IF_CFG_ATTR_SPEED,
    QEL_IF_CFG_ATTR_DUPLEX_MODE,
    QEL_IF_CFG_ATTR_INPUT_FLOW_CONTROL,
    QEL_IF_CFG_ATTR_OUTPUT_FLOW_CONTROL,
    QEL_IF_CFG_ATTR_AUTO_NEG,
    QEL_IF_CFG_ATTR_FORWARD_CLASS,
    QEL_IF_CFG_OPENFLOW_STATE
} qel_if_cfg_attr_type;

/** The name of a ::qel_if_cfg_attr_type, a string that stays; "Invalid Attribute" for any other value. */
QEL_API const char* qel_if_cfg_attr_type_to_string(uint32_t type);

/** What a shim says of one attribute, or answers; between it and its clients. */
typedef struct qel_if_cfg_attr_result {
    uint64_t word[2]; /**< the shim's */
} qel_if_cfg_attr_result;

/** @name Changes
 * @{ */

/** A request of a set of changes. */
typedef struct qel_if_cfg_req {
    uint32_t magic;     /**< QEL_IF_MAGIC, by qel_if_cfg_req_init() */
    uintptr_t word;     /**< for the shim */
    uint64_t num_attrs; /**< entries of its result */
    uintptr_t last;     /**< for the shim */
} qel_if_cfg_req;

/** A set of changes. */
typedef struct qel_if_cfg_req_attr {
    uint32_t magic;           /**< QEL_IF_MAGIC, by qel_if_cfg_req_attr_init() */
    uint32_t option;          /**< handed to the shim */
    uint64_t num_requests;    /**< entries of 'requests', not 0 */
    qel_if_cfg_req* requests; /**< the client's; must stay until the fetch */
} qel_if_cfg_req_attr;

/** The result of a set of changes: the shim fills one that the service made, the client gets a copy. */
typedef struct qel_if_cfg_res_attr {
    uint64_t num_requests;            /**< as in the set */
    uint32_t option;                  /**< as in the set */
    qel_if_cfg_req* requests;         /**< as in the set */
    qel_if_cfg_attr_result** results; /**< 'num_requests' pointers to 'num_attrs' entries each */
} qel_if_cfg_res_attr;

/** Zeroes and marks a request; a null one is reported to the trace. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_req_init(qel_if_cfg_req* request);
/** Zeroes and marks a set. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_req_attr_init(qel_if_cfg_req_attr* set);
/** Starts a set of changes. */
QEL_API cerrno qel_if_cfg_async(uint32_t app, const qel_if_cfg_req_attr* set, const qel_async_req* request,
                                qel_async_future* future);
/** Fetches its result. */
QEL_API cerrno qel_if_cfg_get_result(const qel_async_future* future, cerrno* status,
                                     qel_if_cfg_res_attr* result);
/** @} */

/** @name Queries
 * @{ */

/** A question. */
typedef struct qel_if_cfg_query_req {
    uint32_t magic;     /**< QEL_IF_MAGIC, by qel_if_cfg_query_req_init() */
    uintptr_t word;     /**< for the shim */
    uint64_t num_attrs; /**< entries of its answer */
    uint64_t last;      /**< what 'word' of the answer is at first */
} qel_if_cfg_query_req;

/** A set of questions. */
typedef struct qel_if_cfg_query_req_attr {
    uint32_t magic;                 /**< QEL_IF_MAGIC, by qel_if_cfg_query_req_attr_init() */
    uint64_t num_requests;          /**< entries of 'requests', not 0 */
    qel_if_cfg_query_req* requests; /**< the client's; must stay until the fetch */
} qel_if_cfg_query_req_attr;

/** An answer. */
typedef struct qel_if_cfg_answer {
    qel_if_cfg_attr_result* attrs; /**< 'num_attrs' entries */
    uint64_t word;                 /**< 'last' of the question, which the shim may change */
} qel_if_cfg_answer;

/** The answers to a set of questions. */
typedef struct qel_if_cfg_query_res_attr {
    uint64_t num_requests;          /**< as in the set */
    qel_if_cfg_query_req* requests; /**< as in the set */
    qel_if_cfg_answer* results;     /**< 'num_requests' answers */
} qel_if_cfg_query_res_attr;

/** Zeroes and marks a question. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_query_req_init(qel_if_cfg_query_req* request);
/** Zeroes and marks a set of questions. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_query_req_attr_init(qel_if_cfg_query_req_attr* set);
/** Starts a set of questions. */
QEL_API cerrno qel_if_cfg_query_async(uint32_t app, const qel_if_cfg_query_req_attr* set,
                                      const qel_async_req* request, qel_async_future* future);
/** Fetches the answers. */
QEL_API cerrno qel_if_cfg_query_get_result(const qel_async_future* future, cerrno* status,
                                           qel_if_cfg_query_res_attr* result);
/** @} */

/** @name Creation of interfaces
 * @{ */

/** A request for an interface, or about one. */
typedef struct qel_if_cfg_intf_req {
    uint32_t magic;   /**< QEL_IF_MAGIC, by qel_if_cfg_intf_req_init() */
    uintptr_t word;   /**< for the shim: either this or 'pair[0]' is set */
    uint32_t pair[2]; /**< for the shim */
} qel_if_cfg_intf_req;

/** A set of them. */
typedef struct qel_if_cfg_interface_req_attr {
    uint32_t magic;                          /**< QEL_IF_MAGIC, by qel_if_cfg_interface_req_attr_init() */
    uint32_t option;                         /**< handed to the shim */
    uint64_t num_requests;                   /**< entries of 'interface_requests', not 0 */
    qel_if_cfg_intf_req* interface_requests; /**< the client's; must stay until the fetch */
} qel_if_cfg_interface_req_attr;

/** The result of such a set. */
typedef struct qel_if_cfg_interface_res_attr {
    uint64_t num_requests;                   /**< as in the set */
    uint32_t option;                         /**< as in the set */
    qel_if_cfg_intf_req* interface_requests; /**< as in the set */
    qel_if_cfg_attr_result* results;         /**< an entry a request */
} qel_if_cfg_interface_res_attr;

/** Zeroes and marks a request. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_intf_req_init(qel_if_cfg_intf_req* request);
/** Zeroes and marks a set. Returns 0; 0xa0000016. */
QEL_API cerrno qel_if_cfg_interface_req_attr_init(qel_if_cfg_interface_req_attr* set);
/** Starts a set. */
QEL_API cerrno qel_if_cfg_interface_async(uint32_t app, const qel_if_cfg_interface_req_attr* set,
                                          const qel_async_req* request, qel_async_future* future);
/** Fetches its result. */
QEL_API cerrno qel_if_cfg_interface_get_result(const qel_async_future* future, cerrno* status,
                                               qel_if_cfg_interface_res_attr* result);
/** @} */

QEL_END_DECLS

#endif
