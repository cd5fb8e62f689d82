// The steps of a qel_queue without argument checks, for the exported calls and for hot paths inside.
//
// A place in a queue is named by the word that points to it: the header's 'head', or the link that is the
// first word of the element before. So the head needs no case of its own, and the address of an element's
// link is the element.
#pragma once

#include <qel/queue.h>

#include <utility>

namespace qel {

// The link word of an element, which its owner may have declared with another pointer type.
using QueueLink [[gnu::may_alias]] = void*;

inline QueueLink& queue_link(void* element) {
    return *static_cast<QueueLink*>(element);
}

// Places 'element' where 'place' points; what was there follows it.
inline void* queue_put(qel_queue& queue, QueueLink& place, void* element) {
    queue_link(element) = place;
    if (place == nullptr) queue.tail = element;
    place = element;
    ++queue.count;
    return element;
}

// Takes away the element that 'place' points to, which isn't null.
inline void* queue_take(qel_queue& queue, QueueLink& place) {
    void* element = place;
    place = std::exchange(queue_link(element), nullptr);
    if (queue.tail == element) queue.tail = &place == &queue.head ? nullptr : &place;
    --queue.count;
    return element;
}

inline void* queue_append(qel_queue& queue, void* element) {
    return queue_put(queue, queue.tail == nullptr ? queue.head : queue_link(queue.tail), element);
}

// The first element, off the queue; null when there is none.
inline void* queue_pop(qel_queue& queue) {
    return queue.head == nullptr ? nullptr : queue_take(queue, queue.head);
}

}  // namespace qel
