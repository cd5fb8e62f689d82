/** @file
 * General lists: doubly linked, with a name, a size limit and an owner pointer in each element.
 *
 * A direct list links elements that the caller provides. An indirect list (QEL_LIST_INDIRECT) takes its
 * elements from a private pool: the caller passes a null element and gets one back. What an element's 'data'
 * refers to stays the caller's either way, and 'data' is never 0.
 *
 *      qel_list* peers;
 *      if (qel_list_create(&peers, 100, "peers", QEL_LIST_INDIRECT, NULL) != 0) return;
 *      qel_list_enqueue(peers, NULL, peer);
 *      qel_list_remove(peers, NULL, peer);
 *      qel_list_destroy(&peers);
 *
 * Elements of indirect lists may move to other indirect lists: each returns to the pool that it came from,
 * and the pool of a list that is destroyed lives until its last element is back.
 *
 * Threads: there are no locks in here. The caller makes sure that one thread at a time uses a list, and both
 * lists of a move or merge. Two lists that exchanged elements may then be used under locks of their own.
 */
#ifndef QEL_LIST_H
#define QEL_LIST_H

#include <qel/mem.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

/** Flag of a list: elements come from a private pool. Other flags are dropped. */
#define QEL_LIST_INDIRECT 0x2u

#define QEL_LIST_STATE_VALID 0x1u     /**< bit of a list's state: it was initialised */
#define QEL_LIST_STATE_ALLOCATED 0x4u /**< bit of a list's state: qel_list_create() allocated it */

struct qel_list;

/** An element. All zeros is one that is off every list. */
typedef struct qel_list_element {
    struct qel_list_element* next; /**< null for the tail */
    struct qel_list_element* prev; /**< null for the head */
    void* data;                    /**< the caller's; not null while on a list */
    struct qel_list* list;         /**< the owner; null while off any list */
} qel_list_element;

/** Writes one line of text about 'element' into 'buffer' (1,024 bytes from qel_list_print()), ended by NUL.
 * Returns 1 if it did. */
typedef int (*qel_list_print_handler)(struct qel_list* list, qel_list_element* element, char* buffer);
/** Compares the data of an element on the list with the data asked about: 0 equal, positive when the existing
 * one goes behind, negative when it goes before. */
typedef int (*qel_list_compare)(void* existing, void* data);
/** Visits one element; 'following' is the one behind it. A result other than 0 ends the walk. */
typedef cerrno (*qel_list_walker)(struct qel_list* list, qel_list_element* element,
                                  qel_list_element* following, void* context);

/** A list. All fields are for reading. */
typedef struct qel_list {
    qel_list_element* head;               /**< null when empty */
    qel_list_element* tail;               /**< null when empty */
    uint32_t count;                       /**< elements */
    uint16_t flags;                       /**< QEL_LIST_INDIRECT or 0 */
    uint16_t state;                       /**< QEL_LIST_STATE_VALID, QEL_LIST_STATE_ALLOCATED */
    uint32_t max_size;                    /**< limit on 'count'; 0 is none */
    const char* name;                     /**< the caller's string, not copied */
    qel_list_print_handler print_handler; /**< null if there is none */
    qel_mem_chunk* element_chunk;         /**< of an indirect list */
} qel_list;

/** Makes an empty list in the caller's descriptor, whatever is in it. 'max_size' is its limit in elements, 0
 * for none; 'name' must outlive the list, null becomes "(unknown)"; 'print_handler' may be null. Returns 0;
 * 0xa0000016 for a null descriptor; 0xa000000c without memory for the pool, with the descriptor zeroed. */
QEL_API cerrno qel_list_init(qel_list* list, uint32_t max_size, const char* name, uint32_t flags,
                             qel_list_print_handler print_handler);

/** The same in a descriptor from named memory, stored in 'out' on success only.
 * Returns 0; 0xa0000016 for a null 'out'; 0xa000000c without memory. */
QEL_API cerrno qel_list_create(qel_list** out, uint32_t max_size, const char* name, uint32_t flags,
                               qel_list_print_handler print_handler);

/** Ends an empty list: its pool goes, at the latest when elements that moved away are freed. A created
 * descriptor is freed and the pointer nulled; one that was initialised is left as an empty direct list.
 * Returns 0; 0xa0000016 for a null pointer or a list that isn't valid; 0xa0000010 for one that isn't empty.
 */
QEL_API cerrno qel_list_destroy(qel_list** list);

/** Puts 'data' on the list, at its tail, in 'element', which is null for an indirect list and off every list
 * for a direct one. Returns the element; null when refused: the list isn't valid or is full, 'data'
 * is 0, the element doesn't suit the list, or memory is short. */
QEL_API qel_list_element* qel_list_enqueue(qel_list* list, qel_list_element* element, void* data);
/** As qel_list_enqueue(), at the head. */
QEL_API qel_list_element* qel_list_requeue(qel_list* list, qel_list_element* element, void* data);

/** Puts 'data' before the first element for which 'compare' is positive, else at the tail.
 * Returns the element; null as for qel_list_enqueue(), for a null 'compare', and when 'compare' gave 0 on
 * the way: an equal one is there. */
QEL_API qel_list_element* qel_list_insert(qel_list* list, qel_list_element* element, void* data,
                                          qel_list_compare compare);

/** Takes away the head; an element of an indirect list is freed. Returns its data; null for a list that isn't
 * valid or is empty. */
QEL_API void* qel_list_dequeue(qel_list* list);

/** Takes away 'element', or with a null one the first that has 'data'; an element of an indirect list is
 * freed. Returns its data; null for a list that isn't valid, an element of another list, and data that isn't
 * there. */
QEL_API void* qel_list_remove(qel_list* list, qel_list_element* element, void* data);

/** Returns the data of the first element for which 'compare' gives 0, or null. A direct list asks for a
 * 'scratch' element, which stays as it is; an indirect one doesn't look at it. */
QEL_API void* qel_list_lookup(qel_list* list, qel_list_element* scratch, void* data,
                              qel_list_compare compare);

/** Calls 'walker' for each element from the head. The following element is read before the call, so the
 * walker may remove the current one. Returns the first result that isn't 0, which ends the walk, or 0;
 * 0xa0000016 for a list that isn't valid and for a null walker. */
QEL_API cerrno qel_list_walk(qel_list* list, qel_list_walker walker, void* context);

/** One step of a walk that notices changes, for callers that let others at the list between steps. The three
 * hold the current element, the one behind it and the data of the current one, as noted at the step before;
 * they advance if all is still so. Otherwise, and at the end, the current element becomes null.
 *
 *      current = qel_list_get_head(list);
 *      following = qel_list_get_next(current);
 *      data = qel_list_get_data(current);
 *      while (current != NULL) {
 *          ... use data ...
 *          if (!qel_list_check(&current, &following, &data)) ... changed: begin again ...
 *      }
 *
 * An element that left the list must still be readable: true of a caller's own elements.
 * Returns 1 for a step and at the end ('following' was null); 0 when the list changed, and for a null
 * argument. */
QEL_API int qel_list_check(qel_list_element** current, qel_list_element** following, void** data);

/** Moves 'element' from its list to the tail of 'destination'.
 * Returns 0, also when nothing happens because one list isn't valid or the element is on none; 0xa0000016
 * for a null argument; 0xa0000001 if the flags of the lists differ; 0xa000001c if the destination is another
 * list and full. */
QEL_API cerrno qel_list_move(qel_list* destination, qel_list_element* element);

/** Moves all elements of 'source', in order, behind those of 'destination'; the source stays, empty.
 * Returns 0, also for an empty source or one that is the destination; 0xa0000016 for a list that isn't
 * valid; 0xa0000001 if one is indirect and the other not; 0xa000001c if the sum passes the destination's
 * limit. */
QEL_API cerrno qel_list_merge(qel_list* destination, qel_list* source);

/** Links 'element' behind 'predecessor', or at the head for a null one, with no check of state, limit, owner
 * or kind: an element on an indirect list must come from an indirect list. Does nothing for a null list or
 * element. */
QEL_API void qel_list_element_insert(qel_list* list, qel_list_element* element,
                                     qel_list_element* predecessor);

/** Prints a line for the list and one an element to standard output, with the text of the print handler.
 * Returns 0; 0xa0000016 for a null list; 0xa0000026 without a handler; 0xa0000020, at once, when the handler
 * fails. */
QEL_API cerrno qel_list_print(qel_list* list);

/** Calls the print handler for one element.
 * Returns 0; 0xa0000016 for a null list; 0xa0000026 without a handler; 0xa0000020 if it doesn't return 1. */
QEL_API cerrno qel_list_elem_print(qel_list* list, qel_list_element* element, char* buffer);

/** Sets the print handler. A null handler keeps the old one; a null list does nothing. */
QEL_API void qel_list_set_print_handler(qel_list* list, qel_list_print_handler handler);
/** Returns the print handler; null for a null list and for one without. */
QEL_API qel_list_print_handler qel_list_get_print_handler(const qel_list* list);

/** Returns the element behind; null for the tail and for a null element. */
QEL_API qel_list_element* qel_list_get_next(const qel_list_element* element);
/** Returns the element before; null for the head and for a null element. */
QEL_API qel_list_element* qel_list_get_prev(const qel_list_element* element);
/** Returns the element's data; null for a null element. */
QEL_API void* qel_list_get_data(const qel_list_element* element);
/** Replaces the element's data. A null element does nothing. */
QEL_API void qel_list_set_data(qel_list_element* element, void* data);

/** Returns the first element; null for a null or empty list. */
QEL_API qel_list_element* qel_list_get_head(const qel_list* list);
/** Returns the last element; null for a null or empty list. */
QEL_API qel_list_element* qel_list_get_tail(const qel_list* list);
/** Returns the number of elements; 0 for a null list. */
QEL_API size_t qel_list_get_size(const qel_list* list);

/** Returns 1 if the list was initialised, else 0; 0 for a null list. */
QEL_API int qel_list_is_valid(const qel_list* list);
/** Returns 1 if the elements come from a private pool, else 0; 0 for a null list. */
QEL_API int qel_list_is_indirect(const qel_list* list);
/** Returns 1 if the list has a limit and has reached it, else 0; 0 for a null list. */
QEL_API int qel_list_is_full(const qel_list* list);
/** Returns 1 if the list has no element, else 0; 1 for a null list. */
QEL_API int qel_list_is_empty(const qel_list* list);

QEL_END_DECLS

#endif
