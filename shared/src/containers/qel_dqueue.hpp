// The steps of a qel_dqueue without argument checks, for the exported calls and for hot paths inside.
#pragma once

#include <qel/queue.h>

namespace qel {

inline void dqueue_init(qel_dqueue& element, void* parent) {
    element = {&element, &element, parent};
}

inline bool dqueue_is_initial(const qel_dqueue& element) {
    return element.next == &element && element.prev == &element;
}

// Puts 'element', which is in no other ring, directly behind 'after'.
inline void dqueue_insert(qel_dqueue& element, qel_dqueue& after) {
    element.next = after.next;
    element.prev = &after;
    element.next->prev = &element;
    after.next = &element;
}

// Leaves 'element' initial; one that is initial already stays as it is.
inline void dqueue_remove(qel_dqueue& element) {
    element.prev->next = element.next;
    element.next->prev = element.prev;
    element.next = element.prev = &element;
}

// Moves all elements of the ring 'from' behind the anchor 'to', in their order.
inline void dqueue_move_all(qel_dqueue& from, qel_dqueue& to) {
    if (dqueue_is_initial(from)) return;
    from.prev->next = to.next;
    to.next->prev = from.prev;
    to.next = from.next;
    to.next->prev = &to;
    dqueue_init(from, nullptr);
}

}  // namespace qel
