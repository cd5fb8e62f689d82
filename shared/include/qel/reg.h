/** @file
 * Registry: what a subsystem lets others hook into, as lists of callbacks and as tables of cases.
 *
 * A list is a ::qel_queue of records that the registry allocates, one a function. A table is the caller's
 * array, indexed by case number. Who owns list or table calls the functions; the registry only keeps them.
 *
 *     static qel_queue on_change;                                    // zeros are an empty list
 *     qel_reg_add_list(&on_change, (qel_reg_function)neighbor_changed);
 *     for (qel_reg_entry* e = qel_queue_peek_head(&on_change); e != NULL; e = e->next)
 *         ((change_function)e->function)(neighbor);
 *
 *     static qel_reg_case encoders[ENCODER_COUNT];                   // zeros are unused rows
 *     qel_reg_add_case(ENCODER_VLAN, (qel_reg_function)encode_vlan, encoders);
 *     if (qel_reg_case_used(kind, encoders)) ((encode_function)encoders[kind].function)(frame);
 *
 * Functions are kept without their arguments; who calls one casts it back to its true type.
 *
 * Threads: there are no locks in here. The caller makes sure that one thread at a time uses a list or a
 * table, calls through it included. */
#ifndef QEL_REG_H
#define QEL_REG_H

#include <qel/queue.h>
#include <stdbool.h>

QEL_BEGIN_DECLS

/** Any function, to be cast to its true type before it is called. */
typedef void (*qel_reg_function)(void);

/** A record of a list, on the heap. The fields are for reading. */
typedef struct qel_reg_entry {
    struct qel_reg_entry* next; /**< the record behind, or null */
    qel_reg_function function;  /**< what was added */
} qel_reg_entry;

/** A row of a case table; all zeros is an unused one. */
typedef struct qel_reg_case {
    uint32_t case_number;      /**< the row's index, once it is in use */
    uint32_t reserved;         /**< 0 */
    qel_reg_function function; /**< what serves the case; null in an unused row */
    uint64_t reserved_end;     /**< 0 */
} qel_reg_case;

/** Adds 'function' at the end of the list 'queue', on which only the registry may put elements. A function
 * that is on the list stays where it is.
 * Returns 0, also for one that was on the list; EINVAL for a null argument; ENOMEM. */
QEL_API int qel_reg_add_list(qel_queue* queue, qel_reg_function function);

/** Takes 'function' off the list 'queue' and frees its record.
 * Returns 0; EINVAL for a null argument and for a function that isn't on the list. */
QEL_API int qel_reg_delete_list(qel_queue* queue, qel_reg_function function);

/** Fills row 'case_number' of 'table' with 'function'. The number isn't checked: the caller knows how long
 * its table is. Returns 0; EINVAL for a null argument and for a row that is in use. */
QEL_API int qel_reg_add_case(uint32_t case_number, qel_reg_function function, qel_reg_case* table);

/** Zeroes row 'case_number' of 'table'. The number isn't checked.
 * Returns 0; EINVAL for a null table and for a row that isn't in use. */
QEL_API int qel_reg_delete_case(uint32_t case_number, qel_reg_case* table);

/** Returns true when row 'case_number' of 'table' has a function; false for a null table, too. The number
 * isn't checked. */
QEL_API bool qel_reg_case_used(uint32_t case_number, const qel_reg_case* table);

/** Does nothing: a default for rows whose functions return nothing. */
QEL_API void default_qreg_return_void(void);
/** Does nothing and returns 0: a default for rows whose functions return an int. */
QEL_API int default_qreg_return_0(void);

QEL_END_DECLS

#endif
