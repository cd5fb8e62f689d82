#ifndef QEL_LIST_H
#define QEL_LIST_H

#include <qel/mem.h>
#include <qel/types.h>

QEL_BEGIN_DECLS

#define QEL_LIST_INDIRECT 0x2u

#define QEL_LIST_STATE_VALID 0x1u
#define QEL_LIST_STATE_ALLOCATED 0x4u

struct qel_list;

typedef struct qel_list_element {
    struct qel_list_element* next;
    struct qel_list_element* prev;
    void* data;
    struct qel_list* list;
} qel_list_element;

typedef int (*qel_list_print_handler)(struct qel_list* list, qel_list_element* element, char* buffer);
typedef int (*qel_list_compare)(void* existing, void* data);
typedef cerrno (*qel_list_walker)(struct qel_list* list, qel_list_element* element,
                                  qel_list_element* following, void* context);

typedef struct qel_list {
    qel_list_element* head;
    qel_list_element* tail;
    uint32_t count;
    uint16_t flags;
    uint16_t state;
    uint32_t max_size;
    const char* name;
    qel_list_print_handler print_handler;
    qel_mem_chunk* element_chunk;
} qel_list;

QEL_API cerrno qel_list_init(qel_list* list, uint32_t max_size, const char* name, uint32_t flags,
                             qel_list_print_handler print_handler);
QEL_API cerrno qel_list_create(qel_list** out, uint32_t max_size, const char* name, uint32_t flags,
                               qel_list_print_handler print_handler);
QEL_API cerrno qel_list_destroy(qel_list** list);
QEL_API qel_list_element* qel_list_enqueue(qel_list* list, qel_list_element* element, void* data);
QEL_API qel_list_element* qel_list_requeue(qel_list* list, qel_list_element* element, void* data);
QEL_API qel_list_element* qel_list_insert(qel_list* list, qel_list_element* element, void* data,
                                          qel_list_compare compare);
QEL_API void* qel_list_dequeue(qel_list* list);
QEL_API void* qel_list_remove(qel_list* list, qel_list_element* element, void* data);
QEL_API void* qel_list_lookup(qel_list* list, qel_list_element* scratch, void* data,
                              qel_list_compare compare);
QEL_API cerrno qel_list_walk(qel_list* list, qel_list_walker walker, void* context);
QEL_API int qel_list_check(qel_list_element** current, qel_list_element** following, void** data);
QEL_API cerrno qel_list_move(qel_list* destination, qel_list_element* element);
QEL_API cerrno qel_list_merge(qel_list* destination, qel_list* source);
QEL_API void qel_list_element_insert(qel_list* list, qel_list_element* element,
                                     qel_list_element* predecessor);
QEL_API cerrno qel_list_print(qel_list* list);
QEL_API cerrno qel_list_elem_print(qel_list* list, qel_list_element* element, char* buffer);
QEL_API void qel_list_set_print_handler(qel_list* list, qel_list_print_handler handler);
QEL_API qel_list_print_handler qel_list_get_print_handler(const qel_list* list);
QEL_API qel_list_element* qel_list_get_next(const qel_list_element* element);
QEL_API qel_list_element* qel_list_get_prev(const qel_list_element* element);
QEL_API void* qel_list_get_data(const qel_list_element* element);
QEL_API void qel_list_set_data(qel_list_element* element, void* data);
QEL_API qel_list_element* qel_list_get_head(const qel_list* list);
QEL_API qel_list_element* qel_list_get_tail(const qel_list* list);
QEL_API size_t qel_list_get_size(const qel_list* list);
QEL_API int qel_list_is_valid(const qel_list* list);
QEL_API int qel_list_is_indirect(const qel_list* list);
QEL_API int qel_list_is_full(const qel_list* list);
QEL_API int qel_list_is_empty(const qel_list* list);

QEL_END_DECLS

#endif
