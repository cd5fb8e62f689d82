// Rings: doubly linked elements without a header.
//
// An element alone points to itself both ways. A list is a ring around an element that serves as its head, so
// neither insertion nor removal has a special case, and an element leaves without anyone knowing which list
// it is on.
//
// Invariant: element.next->prev and element.prev->next are the element, for each element that was
// initialised. Locks and threads: none; the caller of each ring holds its own lock.
#include "containers/qel_dqueue.hpp"

using namespace qel;

int qel_dqueue_init(qel_dqueue* element, void* parent) {
    if (element != nullptr) dqueue_init(*element, parent);
    return 0;
}

void qel_dqueue_insert(qel_dqueue* element, qel_dqueue* after) {
    if (element == nullptr || after == nullptr || element == after || after->next == nullptr) return;
    dqueue_insert(*element, *after);
}

void qel_dqueue_remove(qel_dqueue* element) {
    if (element == nullptr || element->next == nullptr || element->prev == nullptr) return;
    dqueue_remove(*element);
}

qel_dqueue* qel_dqueue_get_next(const qel_dqueue* element) {
    return element == nullptr ? nullptr : element->next;
}

qel_dqueue* qel_dqueue_get_prev(const qel_dqueue* element) {
    return element == nullptr ? nullptr : element->prev;
}

void* qel_dqueue_get_parent(const qel_dqueue* element) {
    return element == nullptr ? nullptr : element->parent;
}

void qel_dqueue_set_parent(qel_dqueue* element, void* parent) {
    if (element != nullptr && parent != nullptr) element->parent = parent;
}

int qel_dqueue_initial_element(const qel_dqueue* element) {
    return element != nullptr && dqueue_is_initial(*element);
}
