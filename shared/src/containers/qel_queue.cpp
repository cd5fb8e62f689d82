// Queues: singly linked, with a header of head, tail, count and limit.
//
// An element is the caller's structure and its first word the link, 0 while it is off every queue. Two steps
// do all the work: queue_put() and queue_take() at a place, which is the word that points to the element
// there.
//
// Invariant: 'tail' is the last element reached from 'head', whose link is 0; both are null when 'count' is
// 0. Locks and threads: none; the caller of each queue holds its own lock.
#include "containers/qel_queue.hpp"

#include <qel/base.h>

using namespace qel;

namespace {

// The last element's link is 0 as well, so the tail is asked for by its address.
bool may_enter(const qel_queue* queue, void* element) {
    return queue != nullptr && element != nullptr && queue_link(element) == nullptr && element != queue->tail;
}

// The place that holds 'element', or null. The queue's words are only read.
QueueLink* find_place(const qel_queue* queue, const void* element) {
    if (queue == nullptr || element == nullptr) return nullptr;
    QueueLink* place = const_cast<QueueLink*>(&queue->head);
    while (*place != nullptr && *place != element) place = &queue_link(*place);
    return *place == nullptr ? nullptr : place;
}

}  // namespace

int qel_queue_init(qel_queue* queue, size_t max_size) {
    if (queue != nullptr) *queue = {nullptr, nullptr, 0, max_size};
    return 0;
}

void* qel_queue_enqueue(qel_queue* queue, void* element) {
    return may_enter(queue, element) ? queue_append(*queue, element) : nullptr;
}

void* qel_queue_requeue(qel_queue* queue, void* element) {
    return may_enter(queue, element) ? queue_put(*queue, queue->head, element) : nullptr;
}

void* qel_queue_insert(qel_queue* queue, void* element, void* predecessor) {
    if (predecessor == nullptr) return qel_queue_requeue(queue, element);
    if (!may_enter(queue, element)) return nullptr;
    // A predecessor that nothing follows is this queue's tail, or else not on it: another's, or 'element'
    // itself.
    if (queue_link(predecessor) == nullptr && predecessor != queue->tail) return nullptr;
    return queue_put(*queue, queue_link(predecessor), element);
}

void* qel_queue_dequeue(qel_queue* queue) {
    return queue == nullptr ? nullptr : queue_pop(*queue);
}

void* qel_queue_remove(qel_queue* queue, void* element, void* predecessor) {
    if (queue == nullptr || element == nullptr) return nullptr;
    QueueLink& place = predecessor == nullptr ? queue->head : queue_link(predecessor);
    return place == element ? queue_take(*queue, place) : nullptr;
}

void* qel_queue_unqueue(qel_queue* queue, void* element) {
    QueueLink* place = find_place(queue, element);
    return place == nullptr ? nullptr : queue_take(*queue, *place);
}

void* qel_queue_swapqueue(qel_queue* queue, void* new_element, void* old_element) {
    if (new_element != old_element && !may_enter(queue, new_element)) return nullptr;
    if (new_element == nullptr || queue_link(new_element) != nullptr) return nullptr;
    QueueLink* place = find_place(queue, old_element);
    if (place == nullptr) return nullptr;
    queue_take(*queue, *place);
    queue_put(*queue, *place, new_element);
    return old_element;
}

int qel_queue_entry_exists(const qel_queue* queue, const void* element) {
    return find_place(queue, element) != nullptr;
}

void* qel_queue_get_next(const void* element) {
    return element == nullptr ? nullptr : *static_cast<const QueueLink*>(element);
}

void* qel_queue_peek_head(const qel_queue* queue) {
    return queue == nullptr ? nullptr : queue->head;
}

void* qel_queue_peek_tail(const qel_queue* queue) {
    return queue == nullptr ? nullptr : queue->tail;
}

size_t qel_queue_size(const qel_queue* queue) {
    return queue == nullptr ? 0 : queue->count;
}

size_t qel_queue_max_size(const qel_queue* queue) {
    return queue == nullptr ? 0 : queue->max_size;
}

int qel_queue_empty(const qel_queue* queue) {
    return queue != nullptr && queue->count == 0;
}

int qel_queue_full(const qel_queue* queue) {
    return qel_queue_reserve_used(queue, 0);
}

int qel_queue_reserve_used(const qel_queue* queue, size_t n) {
    if (queue == nullptr || queue->max_size == 0) return 0;
    return queue->count >= queue->max_size || n >= queue->max_size - queue->count;
}
