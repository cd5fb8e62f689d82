/** @file
 * Intrusive queues: `qel_queue`, singly linked with a head and a tail, and `qel_dqueue`, a doubly linked
 * ring.
 *
 * Neither allocates and neither owns its elements: an element is the caller's structure, and its links lie
 * inside it. Take a `qel_queue` for free lists, work queues and whatever leaves in order; take a `qel_dqueue`
 * for whatever leaves from the middle, such as timers and event lists.
 *
 *      struct work { void* link; int number; };         // a queue element begins with its link, 0 when off
 *      qel_queue queue;
 *      qel_queue_init(&queue, 0);
 *      qel_queue_enqueue(&queue, &some_work);
 *      struct work* next = qel_queue_dequeue(&queue);
 *
 *      struct timer { qel_dqueue ring; int id; };       // a ring element: anywhere in the structure
 *      qel_dqueue head;
 *      qel_dqueue_init(&head, NULL);
 *      qel_dqueue_init(&timer->ring, timer);
 *      qel_dqueue_insert(&timer->ring, qel_dqueue_get_prev(&head));  // behind the last
 *      qel_dqueue_remove(&timer->ring);
 *
 * Threads: there are no locks in here. The caller makes sure that one thread at a time uses a queue or a
 * ring, reads included; different queues are independent.
 */
#ifndef QEL_QUEUE_H
#define QEL_QUEUE_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/** A queue's header. All zeros is an empty queue without a limit.
 *
 * The last element's link is 0, so a link of 0 alone doesn't tell that an element is off every queue; the
 * calls that put an element on a queue therefore also refuse the present tail of that queue. */
typedef struct qel_queue {
    void* head;      /**< first element, or null */
    void* tail;      /**< last element, or null */
    size_t count;    /**< elements on the queue */
    size_t max_size; /**< the limit that qel_queue_full() compares with; 0 is none. No call enforces it. */
} qel_queue;

/** Empties the header 'queue' and sets its limit of 'max_size' elements, 0 for none. Elements that were on it
 * are not touched, so their links stay. Returns 0; a null queue is left alone. */
QEL_API int qel_queue_init(qel_queue* queue, size_t max_size);

/** Appends 'element' at the tail. The limit is not looked at.
 * Returns the element; null for a null argument, an element whose link isn't 0, or the present tail. */
QEL_API void* qel_queue_enqueue(qel_queue* queue, void* element);

/** Puts 'element' at the head. Results as for qel_queue_enqueue(). */
QEL_API void* qel_queue_requeue(qel_queue* queue, void* element);

/** Inserts 'element' behind 'predecessor', which is on the queue; a null predecessor means at the head.
 * Returns the element; null as for qel_queue_enqueue(), and for a predecessor that nothing follows and that
 * isn't this queue's tail. */
QEL_API void* qel_queue_insert(qel_queue* queue, void* element, void* predecessor);

/** Removes the head and clears its link. Returns it; null for a null or empty queue. */
QEL_API void* qel_queue_dequeue(qel_queue* queue);

/** Removes 'element' in constant time, given the element before it; with a null 'predecessor' only the head
 * can go. Returns the element with its link cleared; null for a null argument or when the element doesn't
 * follow. */
QEL_API void* qel_queue_remove(qel_queue* queue, void* element, void* predecessor);

/** Searches 'element' from the head and removes it.
 * Returns it with its link cleared; null for a null argument or when it isn't on the queue. */
QEL_API void* qel_queue_unqueue(qel_queue* queue, void* element);

/** Searches 'old_element' from the head and puts 'new_element' in its place; the count stays.
 * Returns the old element with its link cleared; null for a null argument, a new element that is on a queue,
 * or an old one that isn't on this one. */
QEL_API void* qel_queue_swapqueue(qel_queue* queue, void* new_element, void* old_element);

/** Searches 'element' from the head. Returns 1 when it is on the queue, else 0. */
QEL_API int qel_queue_entry_exists(const qel_queue* queue, const void* element);

/** Returns the link of 'element': the element behind it, or null for the last one and for a null element. */
QEL_API void* qel_queue_get_next(const void* element);

/** Returns the first element without removing it; null for a null or empty queue. */
QEL_API void* qel_queue_peek_head(const qel_queue* queue);
/** Returns the last element without removing it; null for a null or empty queue. */
QEL_API void* qel_queue_peek_tail(const qel_queue* queue);

/** Returns the number of elements; 0 for a null queue. */
QEL_API size_t qel_queue_size(const qel_queue* queue);
/** Returns the limit in elements; 0 for none and for a null queue. */
QEL_API size_t qel_queue_max_size(const qel_queue* queue);

/** Returns 1 for a queue without elements, else 0; 0 for a null queue. */
QEL_API int qel_queue_empty(const qel_queue* queue);

/** Returns 1 when the queue has a limit and has reached it, else 0; 0 for a null queue. */
QEL_API int qel_queue_full(const qel_queue* queue);

/** Returns 1 when the queue has a limit and 'n' more elements would reach it, else 0; 0 for a null queue. */
QEL_API int qel_queue_reserve_used(const qel_queue* queue, size_t n);

/** An element of a ring, and the head of a list kept as a ring. An element alone points to itself both ways.
 */
typedef struct qel_dqueue {
    struct qel_dqueue* next; /**< the element behind */
    struct qel_dqueue* prev; /**< the element before */
    void* parent;            /**< free for the owner: typically the structure around the element */
} qel_dqueue;

/** Makes 'element' a ring of its own and stores 'parent'. Returns 0; a null element is left alone. */
QEL_API int qel_dqueue_init(qel_dqueue* element, void* parent);

/** Puts 'element', which is in no ring, directly behind 'after': behind a list's head it becomes the first,
 * behind the qel_dqueue_get_prev() of the head it becomes the last. Does nothing for a null argument, for an
 * 'after' that was never initialised (zeros), and for an element behind itself. */
QEL_API void qel_dqueue_insert(qel_dqueue* element, qel_dqueue* after);

/** Takes 'element' out of its ring and makes it a ring of its own, so a second removal is harmless. Does
 * nothing for a null element and one that was never initialised (zeros). */
QEL_API void qel_dqueue_remove(qel_dqueue* element);

/** Returns the element behind, which is itself for one that is alone; null for a null element. */
QEL_API qel_dqueue* qel_dqueue_get_next(const qel_dqueue* element);
/** Returns the element before, which is itself for one that is alone; null for a null element. */
QEL_API qel_dqueue* qel_dqueue_get_prev(const qel_dqueue* element);
/** Returns the parent as it was stored; null for a null element. */
QEL_API void* qel_dqueue_get_parent(const qel_dqueue* element);

/** Stores 'parent' when neither it nor the element is null; so a parent can be changed, but not taken away.
 */
QEL_API void qel_dqueue_set_parent(qel_dqueue* element, void* parent);

/** Returns 1 when 'element' points to itself both ways: it is in no ring, or is the head of an empty one.
 * Else 0. */
QEL_API int qel_dqueue_initial_element(const qel_dqueue* element);

QEL_END_DECLS

#endif
