/** @file
 * VRFs (virtual routing and forwarding instances): look one up by its id or name, singly or in bulk.
 *
 *      uint32_t app = 0;
 *      qel_vrf_attr attr = {0, 0};
 *      qel_if_vrf vrf;
 *      qel_vrf_attr_init(&attr);
 *      qel_vrf_bind(&app, "bgpd", &attr);
 *      if (qel_vrf_get_vrf_from_name(app, "red", &vrf) == 0) ...
 *      qel_vrf_unbind(&app);
 *
 * The library's layer for Linux knows no VRFs: to bind succeeds, and each lookup gives 0xa000005f. What a
 * VRF's words mean is the platform's; the first is its id.
 *
 * Threads: any. A client's calls may run side by side, also with its unbind.
 */
#ifndef QEL_VRF_H
#define QEL_VRF_H

#include <qel/cerrno.h>
#include <qel/dm.h>
#include <qel/dt.h>
#include <qel/if.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

/** How many clients a process may have. */
#define QEL_VRF_MAX_CLIENTS 16u

/** What a client binds with, made by qel_vrf_attr_init(). */
typedef struct qel_vrf_attr {
    uint32_t magic;    /**< ::QEL_IF_MAGIC */
    qel_dm_handle qdm; /**< the client's dispatcher, or 0 */
} qel_vrf_attr;

/** The flag under which the service's events are printed; null until the application sets it. */
extern QEL_API qel_dt_flag* qel_vrf_event_flag;
/** The service's trace buffer, "qel.vrf.buffer.events"; null until the first event. */
extern QEL_API qel_dt_buffer_handle qel_vrf_event_buffer;

/** Marks 'attr', a zeroed record, and clears its dispatcher. Returns 0; 0xa0000016 for null, and for a record
 * that holds something other than a dispatcher. */
QEL_API cerrno qel_vrf_attr_init(qel_vrf_attr* attr);

/** Makes a client. 'name' is kept and not copied; 'attr' is copied. The client is its maker's until
 * qel_vrf_unbind().
 * Returns 0 and the handle; 0xa0000016 for null, and for a marked record whose dispatcher is none;
 * 0xa000000c; 0xa0000002 for one client more than ::QEL_VRF_MAX_CLIENTS. */
QEL_API cerrno qel_vrf_bind(uint32_t* app, const char* name, const qel_vrf_attr* attr);

/** Ends a client and sets the handle to 0; calls that are in it finish first. Returns 0, also when another
 * thread is at it, with the handle as it was; 0xa0000016 for null and an unknown client. */
QEL_API cerrno qel_vrf_unbind(uint32_t* app);

/** Looks a VRF up by its id. Returns 0; 0xa0000016 for null and an unknown client; 0xa000005f on a platform
 * without VRFs; what else the platform says. */
QEL_API cerrno qel_vrf_get_vrf_from_id(uint32_t app, uint64_t id, qel_if_vrf* vrf);
/** Looks a VRF up by its name. Results as for qel_vrf_get_vrf_from_id(). */
QEL_API cerrno qel_vrf_get_vrf_from_name(uint32_t app, const char* name, qel_if_vrf* vrf);
/** Looks 'count' VRFs up, not 0, each with a result of its own. Returns 0 if 'vrfs' and 'results' are filled;
 * otherwise as qel_vrf_get_vrf_from_id(). */
QEL_API cerrno qel_vrf_bulk_get_vrf_from_id(uint32_t app, const uint64_t* ids, qel_if_vrf* vrfs,
                                            cerrno* results, size_t count);
/** The same by name. */
QEL_API cerrno qel_vrf_bulk_get_vrf_from_name(uint32_t app, const char* const* names, qel_if_vrf* vrfs,
                                              cerrno* results, size_t count);

QEL_END_DECLS

#endif
