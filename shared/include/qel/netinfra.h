/** @file
 * Start and stop of the network services: interfaces, routing, policy.
 *
 *     qel_netinfra_register_qdm(dm);                    // optional, for shims and whoever asks for it
 *     if (qel_netinfra_init(0) != 0) return 1;
 *     ...                                               // clients bind, qel/if.h
 *     qel_netinfra_fini();
 *
 * A service reaches the platform through shims: back ends that register a record of handlers. Some must be
 * registered before the start, see each service's header.
 *
 * Threads: any thread may make any call, but the stop must not run on a thread that operations wait for: it
 * waits up to 4 s for those that are outstanding, and for a running synchronous handler until that returns.
 *
 * Results are composite codes (qel/cerrno.h), 0 for success, unless told. */
#ifndef QEL_NETINFRA_H
#define QEL_NETINFRA_H

#include <stdbool.h>

#include <qel/cerrno.h>
#include <qel/dm.h>

QEL_BEGIN_DECLS

/** Names the dispatcher on which the application serves the network services, for good: a stop keeps it.
 * Returns 0; 0xa0000016 if it isn't a dispatcher; 0xa0000010 if there is one. */
QEL_API cerrno qel_netinfra_register_qdm(qel_dm_handle dispatcher);
/** The dispatcher of qel_netinfra_register_qdm(), or 0. */
QEL_API qel_dm_handle qel_netinfra_get_qdm(void);

/** 1 between a start and its stop, else 0. */
QEL_API int qel_netinfra_is_init(void);
/** Starts the services. 'word' is handed to each; none reads it. Returns 0; 0xa0000010 if they run; the code
 * of the service that failed, and then those before it are stopped again. */
QEL_API cerrno qel_netinfra_init(uint32_t word);
/** Stops the services, after 4 s at most for the operations that are outstanding; these end then. Futures are
 * of no use from its beginning on. Returns 0; 0xa0000002 if they don't run; 0xa0000023 in a synchronous
 * handler, and in a callback that runs in one, which it would wait for. */
QEL_API cerrno qel_netinfra_fini(void);

/** True when both or neither of the pointers are set: for checks of a shim's handlers that come in pairs. */
QEL_API bool qel_is_both_set_or_both_unset(const void* first, const void* second);
/** 0 when neither pointer is set, 1 when one is, -1 (all ones) when both are. */
QEL_API int qel_is_either_or_neither_set(const void* first, const void* second);

QEL_END_DECLS

#endif
