// Lists seen without being changed: searches, walks, fields and print.
//
// A walk notes the following element before it calls out, and holds nothing on the list: a callback may
// remove the element that it was given, or end its thread.
//
// Locks and threads: none; the caller of each list holds its own lock.
#include <qel/base.h>
#include <qel/list.h>

#include <array>
#include <cerrno>

#include "core/qel_codes.hpp"

using namespace qel;

namespace {

constexpr size_t kPrintedLine = 1024;

}  // namespace

void* qel_list_lookup(qel_list* list, qel_list_element* scratch, void* data, qel_list_compare compare) {
    if (!qel_list_is_valid(list) || compare == nullptr) return nullptr;
    if (scratch == nullptr && !qel_list_is_indirect(list)) return nullptr;
    for (qel_list_element* element = list->head; element != nullptr; element = element->next)
        if (compare(element->data, data) == 0) return element->data;
    return nullptr;
}

cerrno qel_list_walk(qel_list* list, qel_list_walker walker, void* context) {
    if (!qel_list_is_valid(list) || walker == nullptr) return fatal(EINVAL);
    for (qel_list_element *following, *element = list->head; element != nullptr; element = following) {
        following = element->next;
        cerrno result = walker(list, element, following, context);
        if (result != 0) return result;
    }
    return 0;
}

int qel_list_check(qel_list_element** current, qel_list_element** following, void** data) {
    if (current == nullptr || following == nullptr || data == nullptr) return 0;
    qel_list_element* left = *current;
    qel_list_element* right = *following;
    const bool unchanged = left != nullptr && right != nullptr && left != right && left->data == *data &&
                           left->next == right && right->prev == left && left->list == right->list;
    *current = unchanged ? right : nullptr;
    if (!unchanged) return right == nullptr;
    *following = right->next;
    *data = right->data;
    return 1;
}

cerrno qel_list_print(qel_list* list) {
    if (list == nullptr) return fatal(EINVAL);
    if (list->print_handler == nullptr) return fatal(ENOSYS);
    // Whether the lines reach the terminal is no result of this call.
    static_cast<void>(qel_cli_printf("List %s, size: %d\n", list->name, static_cast<int>(list->count)));
    std::array<char, kPrintedLine> text{};
    for (qel_list_element* element = list->head; element != nullptr; element = element->next) {
        cerrno error = qel_list_elem_print(list, element, text.data());
        if (error != 0) return error;
        static_cast<void>(
            qel_cli_printf("\tElement %p data: %s\n", static_cast<void*>(element), text.data()));
    }
    return 0;
}

cerrno qel_list_elem_print(qel_list* list, qel_list_element* element, char* buffer) {
    if (list == nullptr) return fatal(EINVAL);
    if (list->print_handler == nullptr) return fatal(ENOSYS);
    return list->print_handler(list, element, buffer) == 1 ? 0 : fatal(EPIPE);
}

void qel_list_set_print_handler(qel_list* list, qel_list_print_handler handler) {
    if (list != nullptr && handler != nullptr) list->print_handler = handler;
}

qel_list_print_handler qel_list_get_print_handler(const qel_list* list) {
    return list == nullptr ? nullptr : list->print_handler;
}

qel_list_element* qel_list_get_next(const qel_list_element* element) {
    return element == nullptr ? nullptr : element->next;
}

qel_list_element* qel_list_get_prev(const qel_list_element* element) {
    return element == nullptr ? nullptr : element->prev;
}

void* qel_list_get_data(const qel_list_element* element) {
    return element == nullptr ? nullptr : element->data;
}

void qel_list_set_data(qel_list_element* element, void* data) {
    if (element != nullptr) element->data = data;
}

qel_list_element* qel_list_get_head(const qel_list* list) {
    return list == nullptr ? nullptr : list->head;
}

qel_list_element* qel_list_get_tail(const qel_list* list) {
    return list == nullptr ? nullptr : list->tail;
}

size_t qel_list_get_size(const qel_list* list) {
    return list == nullptr ? 0 : list->count;
}

int qel_list_is_valid(const qel_list* list) {
    return list != nullptr && (list->state & QEL_LIST_STATE_VALID) != 0;
}

int qel_list_is_indirect(const qel_list* list) {
    return list != nullptr && (list->flags & QEL_LIST_INDIRECT) != 0;
}

int qel_list_is_full(const qel_list* list) {
    return list != nullptr && list->max_size != 0 && list->count >= list->max_size;
}

int qel_list_is_empty(const qel_list* list) {
    return list == nullptr || list->count == 0;
}
