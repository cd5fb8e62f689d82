// Lists: how elements come onto a list, leave it and change to another one.
//
// Every way onto a list ends in qel_list_element_insert(), every way off it in take_off(). An indirect list
// frees an element into the pool that it came from, which need not be its own: elements move between lists.
// For the same reason a list that ends gives its pool up instead of destroying it; the pool goes with its
// last element.
//
// Invariant: 'count' elements lead from 'head' to 'tail', each with this list as owner; both are null when it
// is 0. Locks and threads: none; the caller of each list holds its own lock. The pools of indirect lists have
// a mutex, as elements may be freed under another list's lock.
#include <qel/list.h>

#include <cerrno>
#include <utility>

#include "core/qel_codes.hpp"
#include "core/qel_mem_chunk.hpp"
#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kElementsPerBlock = 30;
constexpr std::uint32_t kElementFlags = QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_FAST_FREE | QEL_MEM_CHUNK_ZERO;
static_assert(sizeof(qel_list_element) == 32 && kElementFlags == 0x111);

bool may_enter(const qel_list* list, const qel_list_element* element, const void* data) {
    if (!qel_list_is_valid(list) || qel_list_is_full(list) || data == nullptr) return false;
    if (qel_list_is_indirect(list)) return element == nullptr;
    return element != nullptr && element->list == nullptr;
}

// Brings 'data' onto a list that it may enter, behind 'predecessor'. Null when memory is short.
qel_list_element* enter(qel_list& list, qel_list_element* element, void* data,
                        qel_list_element* predecessor) {
    if (qel_list_is_indirect(&list))
        element = static_cast<qel_list_element*>(qel_mem_chunk_malloc(list.element_chunk));
    if (element == nullptr) return nullptr;
    element->data = data;
    qel_list_element_insert(&list, element, predecessor);
    return element;
}

// Unlinks 'element' from its owner.
void take_off(qel_list_element& element) {
    qel_list& list = *element.list;
    (element.prev == nullptr ? list.head : element.prev->next) = element.next;
    (element.next == nullptr ? list.tail : element.next->prev) = element.prev;
    --list.count;
    element.next = element.prev = nullptr;
    element.list = nullptr;
}

// Takes 'element' off its list and gives it back to its pool if it has one. Its data is the result.
void* dismiss(qel_list_element& element) {
    const bool indirect = qel_list_is_indirect(element.list) != 0;
    void* data = element.data;
    take_off(element);
    // It came from a pool, so this can't be refused.
    if (indirect) static_cast<void>(chunk_free_to_owner(&element));
    return data;
}

qel_list_element* find_data(const qel_list& list, const void* data) {
    qel_list_element* element = list.head;
    while (element != nullptr && element->data != data) element = element->next;
    return element;
}

void adopt_all(qel_list& destination, qel_list& source) {
    for (qel_list_element* element = source.head; element != nullptr; element = element->next)
        element->list = &destination;
    source.head->prev = destination.tail;
    (destination.tail == nullptr ? destination.head : destination.tail->next) = source.head;
    destination.tail = source.tail;
    destination.count += std::exchange(source.count, 0);
    source.head = source.tail = nullptr;
}

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_list_init(qel_list* list, uint32_t max_size, const char* name, uint32_t flags,
                     qel_list_print_handler print_handler) {
    if (list == nullptr) return fatal(EINVAL);
    *list = {};
    if ((flags & QEL_LIST_INDIRECT) != 0) {
        list->element_chunk = qel_mem_chunk_create(sizeof(qel_list_element), kElementsPerBlock, kElementFlags,
                                                   0, 0, "List Elements");
        if (list->element_chunk == nullptr) return fatal(ENOMEM);
    }
    list->flags = static_cast<uint16_t>(flags & QEL_LIST_INDIRECT);
    list->state = QEL_LIST_STATE_VALID;
    list->max_size = max_size;
    list->name = name == nullptr ? "(unknown)" : name;
    list->print_handler = print_handler;
    return 0;
}

cerrno qel_list_create(qel_list** out, uint32_t max_size, const char* name, uint32_t flags,
                       qel_list_print_handler print_handler) {
    if (out == nullptr) return fatal(EINVAL);
    Owned<qel_list> list = allocate_zeroed<qel_list>(QEL_MEM_UTILS);
    if (!list) return fatal(ENOMEM);
    cerrno error = qel_list_init(list.get(), max_size, name, flags, print_handler);
    if (error != 0) return error;
    list->state |= QEL_LIST_STATE_ALLOCATED;
    *out = list.release();
    return 0;
}

cerrno qel_list_destroy(qel_list** list) {
    if (list == nullptr || !qel_list_is_valid(*list)) return fatal(EINVAL);
    qel_list& ended = **list;
    if (!qel_list_is_empty(&ended)) return fatal(EBUSY);
    chunk_retire(std::exchange(ended.element_chunk, nullptr));
    ended.flags = 0;
    if ((ended.state & QEL_LIST_STATE_ALLOCATED) != 0) qel_named_free(std::exchange(*list, nullptr));
    return 0;
}

qel_list_element* qel_list_enqueue(qel_list* list, qel_list_element* element, void* data) {
    return may_enter(list, element, data) ? enter(*list, element, data, list->tail) : nullptr;
}

qel_list_element* qel_list_requeue(qel_list* list, qel_list_element* element, void* data) {
    return may_enter(list, element, data) ? enter(*list, element, data, nullptr) : nullptr;
}

qel_list_element* qel_list_insert(qel_list* list, qel_list_element* element, void* data,
                                  qel_list_compare compare) {
    if (compare == nullptr || !may_enter(list, element, data)) return nullptr;
    qel_list_element* predecessor = nullptr;
    for (qel_list_element* existing = list->head; existing != nullptr; existing = existing->next) {
        const int order = compare(existing->data, data);
        if (order == 0) return nullptr;
        if (order > 0) break;
        predecessor = existing;
    }
    return enter(*list, element, data, predecessor);
}

void* qel_list_dequeue(qel_list* list) {
    if (!qel_list_is_valid(list) || list->head == nullptr) return nullptr;
    return dismiss(*list->head);
}

void* qel_list_remove(qel_list* list, qel_list_element* element, void* data) {
    if (!qel_list_is_valid(list)) return nullptr;
    if (element == nullptr && data != nullptr) element = find_data(*list, data);
    return element != nullptr && element->list == list ? dismiss(*element) : nullptr;
}

cerrno qel_list_move(qel_list* destination, qel_list_element* element) {
    if (destination == nullptr || element == nullptr) return fatal(EINVAL);
    qel_list* source = element->list;
    if (source == nullptr) return 0;
    if (source->flags != destination->flags) return fatal(EPERM);
    if (!qel_list_is_valid(destination) || !qel_list_is_valid(source) || qel_list_is_empty(source)) return 0;
    if (source != destination && qel_list_is_full(destination)) return fatal(ENOSPC);
    take_off(*element);
    qel_list_element_insert(destination, element, destination->tail);
    return 0;
}

cerrno qel_list_merge(qel_list* destination, qel_list* source) {
    if (!qel_list_is_valid(destination) || !qel_list_is_valid(source)) return fatal(EINVAL);
    if (qel_list_is_indirect(destination) != qel_list_is_indirect(source)) return fatal(EPERM);
    if (destination == source || qel_list_is_empty(source)) return 0;
    const uint64_t sum = uint64_t{destination->count} + source->count;
    if (destination->max_size != 0 && sum > destination->max_size) return fatal(ENOSPC);
    adopt_all(*destination, *source);
    return 0;
}

void qel_list_element_insert(qel_list* list, qel_list_element* element, qel_list_element* predecessor) {
    if (list == nullptr || element == nullptr) return;
    qel_list_element*& place = predecessor == nullptr ? list->head : predecessor->next;
    element->next = place;
    element->prev = predecessor;
    element->list = list;
    (element->next == nullptr ? list->tail : element->next->prev) = element;
    place = element;
    ++list->count;
}
