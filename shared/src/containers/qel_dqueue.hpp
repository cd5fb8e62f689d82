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

}  // namespace qel
