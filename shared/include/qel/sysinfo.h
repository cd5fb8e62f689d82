/** @file
 * System information: memory and processor use, processes, and field-replaceable units (FRUs).
 *
 * A platform's layer fills lists of records; the accessors below read one record each. The library's layer
 * for Linux fills none: the calls that would ask it give EOPNOTSUPP (95).
 *
 *      const char* name = NULL;
 *      if (qel_sysinfo_get_process_name(process, &name) == 0) ...    // lives as long as the record
 *
 * Results are plain errno values, of errno.h. Threads: any; there is no state, and no lock.
 */
#ifndef QEL_SYSINFO_H
#define QEL_SYSINFO_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** The first word of what a platform's layer marks as a process. */
#define QEL_SYSINFO_PROCESS_MAGIC 0xC205920Cu
/** The same for a unit. */
#define QEL_SYSINFO_FRU_MAGIC 0xC2050F20u

/** A process. */
typedef struct qel_sysinfo_process {
    uint64_t id;                 /**< the process's number */
    uint64_t freed_memory;       /**< the platform's */
    uint64_t used_memory;        /**< the platform's */
    uint64_t allocated_memory;   /**< the platform's */
    uint32_t magic;              /**< ::QEL_SYSINFO_PROCESS_MAGIC */
    uint32_t reserved;           /**< 0 */
    uint8_t cpu_utilization[64]; /**< the platform's */
    char name[256];              /**< ends with a zero */
} qel_sysinfo_process;

/** A field-replaceable unit. */
typedef struct qel_sysinfo_fru {
    uint8_t alarm_type[256]; /**< the platform's */
    char fw_version[256];    /**< of the firmware */
    char sw_version[256];    /**< of the software */
    char hw_version[256];    /**< of the hardware */
    char part_no[64];        /**< the part's number */
    char serial_no[64];      /**< the unit's number */
    char product_id[64];     /**< the product's name */
    uint64_t slot;           /**< where it sits */
    uint32_t magic;          /**< ::QEL_SYSINFO_FRU_MAGIC */
    uint32_t reserved;       /**< 0 */
} qel_sysinfo_fru;

/* --- Asked of the platform, which gives the arguments their meaning. Each returns EOPNOTSUPP on Linux,
 * whatever its arguments are, null included. */

/** All memory of the system. */
QEL_API int qel_sysinfo_get_total_system_memory(void* request, void* memory);
/** What of it is free. */
QEL_API int qel_sysinfo_get_free_system_memory(void* request, void* memory);
/** What the processors do. */
QEL_API int qel_sysinfo_get_system_cpu_utilization(void* request, uint32_t interval, void* utilization,
                                                   void* count);
/** The processes. */
QEL_API int qel_sysinfo_get_process_list(void* request, uint32_t node, void* list, void* count);
/** Gives a list of processes back. */
QEL_API int qel_sysinfo_cleanup_process_list(void* list);
/** The units. */
QEL_API int qel_sysinfo_get_fru_list(void* list, void* count);
/** Gives a list of units back. */
QEL_API int qel_sysinfo_cleanup_fru_list(void* list);
/** The nodes that compute; there is no platform's layer for it. */
QEL_API int qel_sysinfo_get_compute_node_list(void* list, void* count);
/** Gives a list of nodes back. */
QEL_API int qel_sysinfo_cleanup_compute_node_list(void* list);

/* --- Read from a record. Each returns 0; EINVAL, with the output as it was, for null and for a record
 * without its mark. Addresses are inside the record. */

/** The process's number. */
QEL_API int qel_sysinfo_get_process_id(const qel_sysinfo_process* process, uint64_t* id);
/** Memory that it gave back. */
QEL_API int qel_sysinfo_get_process_freed_memory(const qel_sysinfo_process* process, uint64_t* memory);
/** Memory in use. */
QEL_API int qel_sysinfo_get_process_used_memory(const qel_sysinfo_process* process, uint64_t* memory);
/** Memory that it was given. */
QEL_API int qel_sysinfo_get_process_allocated_memory(const qel_sysinfo_process* process, uint64_t* memory);
/** The address of its 64 bytes about processor use. */
QEL_API int qel_sysinfo_get_process_cpu_utilization(const qel_sysinfo_process* process,
                                                    const void** utilization);
/** The address of its name. */
QEL_API int qel_sysinfo_get_process_name(const qel_sysinfo_process* process, const char** name);

/** The address of the unit's 256 bytes about alarms. */
QEL_API int qel_sysinfo_get_fru_alarm_type(const qel_sysinfo_fru* fru, const void** alarm_type);
/** The address of its firmware's version. */
QEL_API int qel_sysinfo_get_fru_fw_version(const qel_sysinfo_fru* fru, const char** version);
/** The address of its software's version. */
QEL_API int qel_sysinfo_get_fru_sw_version(const qel_sysinfo_fru* fru, const char** version);
/** The address of its hardware's version. */
QEL_API int qel_sysinfo_get_fru_hw_version(const qel_sysinfo_fru* fru, const char** version);
/** The address of its part number. */
QEL_API int qel_sysinfo_get_fru_part_no(const qel_sysinfo_fru* fru, const char** part_no);
/** The address of its serial number. */
QEL_API int qel_sysinfo_get_fru_serial_no(const qel_sysinfo_fru* fru, const char** serial_no);
/** The address of its product's name. */
QEL_API int qel_sysinfo_get_fru_product_id(const qel_sysinfo_fru* fru, const char** product_id);
/** Where it sits. */
QEL_API int qel_sysinfo_get_fru_slot(const qel_sysinfo_fru* fru, uint64_t* slot);

QEL_END_DECLS

#endif
