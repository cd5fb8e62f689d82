// Connection events: which end points came, went and came back, for the thread whose handler is told so.
//
// Each thread has a list of end-point handle records, made at first use. An update of the end-point table
// appends to the list of the thread that runs it; the application's handler takes the entries one by one, on
// the same thread, and the whole list is freed when it returns.
//
// Invariant: the cursor is the entry taken last, or the head when none was taken.
// Locks: key_mutex, for the making of the key only. Threads: each its own list, freed with the thread.
#include <qel/base.h>

#include <pthread.h>

#include "containers/qel_dqueue.hpp"
#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

using List = qel_ipc_ep_hdl_list;

struct ListKey {
    Mutex key_mutex;
    pthread_key_t qel_ipc_key = 0;
    std::atomic<bool> made{false};
};

constinit ListKey list_key;

void free_list(void* list) {
    qel_ipc_free_all_ep_hdl(static_cast<List*>(list));
    qel_named_free(list);
}

List* list_of_thread() {
    if (!list_key.made.load(std::memory_order_acquire)) return nullptr;  // K1
    return static_cast<List*>(pthread_getspecific(list_key.qel_ipc_key));
}

EndPointHandle* record_of(qel_dqueue* link) {
    return static_cast<EndPointHandle*>(link->parent);
}

constexpr std::uint32_t reported(std::uint32_t event) {
    constexpr std::uint32_t kReported[] = {QEL_IPC_EP_GONE, QEL_IPC_EP_UP, QEL_IPC_EP_ENDED, QEL_IPC_EP_BACK};
    return event < std::size(kReported) ? kReported[event] : QEL_IPC_EP_GONE;
}

}  // namespace

cerrno make_connection_lists() {
    IpcLocked lock{list_key.key_mutex};
    if (list_key.made.load(std::memory_order_relaxed)) return 0;
    if (int error = pthread_key_create(&list_key.qel_ipc_key, free_list); error != 0) return fatal(error);
    list_key.made.store(true, std::memory_order_release);  // K1: with the key
    return 0;
}

void tell_connection(const EndPointHandle& record, std::uint32_t event) {
    auto copy = allocate_zeroed<EndPointHandle>(QEL_MEM_IPC);
    if (!copy) return;  // The application learns of the change from qel_ipc_ep_get_list().
    *copy = record;
    tell_last_connection(copy.release(), event);
}

void tell_last_connection(EndPointHandle* record, std::uint32_t event) {
    Owned<EndPointHandle> owned{record};
    List* list = qel_ipc_threadspecific();
    if (list == nullptr) return;
    record->event = event;
    dqueue_init(record->link, record);
    dqueue_insert(record->link, *list->head.prev);
    owned.release();
}

void forget_connections() {
    qel_ipc_free_all_ep_hdl(list_of_thread());
}

const EndPointHandle* find_connection(qel_ipc_ep_handle handle) {
    List* list = list_of_thread();
    if (list == nullptr) return nullptr;
    for (qel_dqueue* link = list->head.next; link != &list->head; link = link->next)
        if (record_of(link)->handle == handle) return record_of(link);
    return nullptr;
}

}  // namespace qel

using namespace qel;

qel_ipc_ep_hdl_list* qel_ipc_threadspecific(void) {
    if (make_connection_lists() != 0) return nullptr;
    if (List* list = list_of_thread(); list != nullptr) return list;
    auto list = allocate_zeroed<List>(QEL_MEM_IPC);
    if (!list || pthread_setspecific(list_key.qel_ipc_key, list.get()) != 0) return nullptr;
    dqueue_init(list->head, list.get());
    list->cursor = &list->head;
    return list.release();
}

void qel_ipc_free_all_ep_hdl(qel_ipc_ep_hdl_list* list) {
    if (list == nullptr) return;
    while (!dqueue_is_initial(list->head)) {
        EndPointHandle* record = record_of(list->head.next);
        dqueue_remove(record->link);
        qel_named_free(record);
    }
    list->cursor = &list->head;
}

cerrno qel_ipc_get_connection_event(qel_ipc_handle ipc, uint32_t* event, qel_ipc_ep_handle* ep) {
    qel_check_not_interrupt_path();
    if (event == nullptr || ep == nullptr || !LockedIpc{ipc}) return fatal(EINVAL);
    List* list = list_of_thread();
    if (list == nullptr || list->cursor->next == &list->head) return try_again(EAGAIN);
    list->cursor = list->cursor->next;
    const EndPointHandle* record = record_of(list->cursor);
    *event = reported(record->event);
    *ep = record->handle;
    return 0;
}
