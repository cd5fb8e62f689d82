// Registry: callback lists, which are queues of heap records, and case tables, which are the caller's arrays.
//
// A list is searched from its head for each change: it is short and changes while a subsystem starts.
//
// Invariant: no function is twice on a list; a row of a table is in use when its function isn't null.
// Locks and threads: none; the caller of each list or table holds its own lock.
#include <qel/reg.h>

#include <cerrno>
#include <cstddef>

#include "core/qel_owned.hpp"

using namespace qel;

namespace {

static_assert(sizeof(qel_reg_case) == 24 && offsetof(qel_reg_case, function) == 8);
static_assert(offsetof(qel_reg_entry, next) == 0, "a queue's element begins with its link");

qel_reg_entry* find(const qel_queue& queue, qel_reg_function function) {
    auto* entry = static_cast<qel_reg_entry*>(qel_queue_peek_head(&queue));
    while (entry != nullptr && entry->function != function) entry = entry->next;
    return entry;
}

}  // namespace

int qel_reg_add_list(qel_queue* queue, qel_reg_function function) {
    if (queue == nullptr || function == nullptr) return EINVAL;
    if (find(*queue, function) != nullptr) return 0;
    Owned<qel_reg_entry> entry = allocate_zeroed<qel_reg_entry>(QEL_MEM_UTILS);
    if (!entry) return ENOMEM;
    entry->function = function;
    if (qel_queue_enqueue(queue, entry.get()) == nullptr) return EINVAL;
    static_cast<void>(entry.release());  // the list's now
    return 0;
}

int qel_reg_delete_list(qel_queue* queue, qel_reg_function function) {
    if (queue == nullptr || function == nullptr) return EINVAL;
    Owned<qel_reg_entry> entry{static_cast<qel_reg_entry*>(qel_queue_unqueue(queue, find(*queue, function)))};
    return entry ? 0 : EINVAL;
}

int qel_reg_add_case(uint32_t case_number, qel_reg_function function, qel_reg_case* table) {
    if (function == nullptr || table == nullptr || table[case_number].function != nullptr) return EINVAL;
    table[case_number] = {case_number, 0, function, 0};
    return 0;
}

int qel_reg_delete_case(uint32_t case_number, qel_reg_case* table) {
    if (!qel_reg_case_used(case_number, table)) return EINVAL;
    table[case_number] = {};
    return 0;
}

bool qel_reg_case_used(uint32_t case_number, const qel_reg_case* table) {
    return table != nullptr && table[case_number].function != nullptr;
}

void default_qreg_return_void() {}

int default_qreg_return_0() {
    return 0;
}
