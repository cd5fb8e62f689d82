#ifndef QEL_QUEUE_H
#define QEL_QUEUE_H

#include <qel/types.h>

QEL_BEGIN_DECLS

typedef struct qel_queue {
    void* head;
    void* tail;
    size_t count;
    size_t max_size;
} qel_queue;

QEL_API int qel_queue_init(qel_queue* queue, size_t max_size);
QEL_API void* qel_queue_enqueue(qel_queue* queue, void* element);
QEL_API void* qel_queue_requeue(qel_queue* queue, void* element);
QEL_API void* qel_queue_insert(qel_queue* queue, void* element, void* predecessor);
QEL_API void* qel_queue_dequeue(qel_queue* queue);
QEL_API void* qel_queue_remove(qel_queue* queue, void* element, void* predecessor);
QEL_API void* qel_queue_unqueue(qel_queue* queue, void* element);
QEL_API void* qel_queue_swapqueue(qel_queue* queue, void* new_element, void* old_element);
QEL_API int qel_queue_entry_exists(const qel_queue* queue, const void* element);
QEL_API void* qel_queue_get_next(const void* element);
QEL_API void* qel_queue_peek_head(const qel_queue* queue);
QEL_API void* qel_queue_peek_tail(const qel_queue* queue);
QEL_API size_t qel_queue_size(const qel_queue* queue);
QEL_API size_t qel_queue_max_size(const qel_queue* queue);
QEL_API int qel_queue_empty(const qel_queue* queue);
QEL_API int qel_queue_full(const qel_queue* queue);
QEL_API int qel_queue_reserve_used(const qel_queue* queue, size_t n);

typedef struct qel_dqueue {
    struct qel_dqueue* next;
    struct qel_dqueue* prev;
    void* parent;
} qel_dqueue;

QEL_API int qel_dqueue_init(qel_dqueue* element, void* parent);
QEL_API void qel_dqueue_insert(qel_dqueue* element, qel_dqueue* after);
QEL_API void qel_dqueue_remove(qel_dqueue* element);
QEL_API qel_dqueue* qel_dqueue_get_next(const qel_dqueue* element);
QEL_API qel_dqueue* qel_dqueue_get_prev(const qel_dqueue* element);
QEL_API void* qel_dqueue_get_parent(const qel_dqueue* element);
QEL_API void qel_dqueue_set_parent(qel_dqueue* element, void* parent);
QEL_API int qel_dqueue_initial_element(const qel_dqueue* element);

QEL_END_DECLS

#endif
