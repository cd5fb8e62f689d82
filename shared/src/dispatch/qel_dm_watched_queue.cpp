// Watched queues: items for a consumer, who is signalled when some arrive in a queue that it saw empty.
//
// 'need_signal' says that the consumer has seen the queue empty. The item that arrives then queues one job,
// and no other does until the consumer comes to the end again. The job carries the queue's handle and the
// serial of the registration: it finds the queue, also a withdrawn one, or nothing, and does nothing for a
// registration that was ended by its deregistration.
//
//     watched or not --destroy, drained--------------------------> the last reference goes
//            +--------destroy, items that a signal was given for--> draining --last dequeue--^
//
// Invariant: the queue holds a reference to itself until it is drained after its destruction; whoever turns
// 'drained' to true drops that one, with the mutex free.
// Locks: a queue's 'mutex', if it has one, before a dispatcher's, since a signal is queued under it; free
// while a handler runs. Threads: any with 'locked', else one at a time. Restart: nothing stays.
#include <qel/base.h>
#include <qel/dm_watched.h>
#include <qel/queue.h>

#include <cstdint>
#include <utility>

#include "containers/qel_idm_family.hpp"
#include "containers/qel_queue.hpp"
#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "dispatch/qel_dm_watched.hpp"

namespace qel::dm {
namespace {

constexpr std::uint32_t kDefaultMaxQueues = 64;

// A mutex, or for a queue without 'locked' nothing: the code around it is the same.
class QEL_CAPABILITY("mutex") OptionalMutex {
  public:
    int init(bool present) {
        present_ = present;
        return present ? mutex.init() : 0;
    }
    void destroy() {
        if (present_) mutex.destroy();
    }
    int lock() QEL_ACQUIRE() QEL_NO_THREAD_SAFETY_ANALYSIS { return present_ ? mutex.lock() : 0; }
    int unlock() QEL_RELEASE() QEL_NO_THREAD_SAFETY_ANALYSIS { return present_ ? mutex.unlock() : 0; }

  private:
    Mutex mutex;
    bool present_;
};

struct Queue {
    OptionalMutex mutex;
    const char* name;
    qel_dm_watched_queue handle;
    qel_queue items QEL_GUARDED_BY(mutex);
    qel_dm_handle dispatcher QEL_GUARDED_BY(mutex);  // 0: nobody watches
    qel_dm_watched_queue_handler handler QEL_GUARDED_BY(mutex);
    void* context QEL_GUARDED_BY(mutex);
    std::uint32_t event_id QEL_GUARDED_BY(mutex);
    std::uint32_t serial QEL_GUARDED_BY(mutex);  // of the registration; jobs of others do nothing
    bool need_signal QEL_GUARDED_BY(mutex);
    bool destroyed QEL_GUARDED_BY(mutex);
    bool drained QEL_GUARDED_BY(mutex);
    // What the queued job will use.
    qel_dm_watched_queue_handler signal_handler QEL_GUARDED_BY(mutex);
    void* signal_context QEL_GUARDED_BY(mutex);
};

using QueueLocked = BasicLocked<ReportedLockFailures, OptionalMutex>;

void free_queue(void* object) {
    auto* queue = static_cast<Queue*>(object);
    queue->mutex.destroy();
    qel_named_free(queue);
}

constinit FamilyPool queues{
    {"QDM watched queue id manager", "qel.qdm.wq.max.instances", kDefaultMaxQueues, free_queue}};

Retained<Queue> retain_queue(qel_dm_watched_queue handle) {
    qel_check_not_interrupt_path();
    return queues.retain<Queue>(handle);
}

// For the consumer's calls, which go on when the queue has been destroyed.
Retained<Queue> retain_any_queue(qel_dm_watched_queue handle) {
    qel_check_not_interrupt_path();
    return queues.retain_any<Queue>(handle);
}

// ---- The signal

// The dispatch job.
void run_signal(qel_dm_handle, std::uint64_t handle, std::uint64_t serial) {
    Retained<Queue> queue = queues.retain_any<Queue>(handle);
    if (!queue) return;
    qel_dm_watched_queue_handler handler = nullptr;
    void* context = nullptr;
    {
        QueueLocked lock{queue->mutex};
        if (queue->serial != serial) return;
        handler = queue->signal_handler;
        context = queue->signal_context;
    }
    if (handler != nullptr)
        handler(queue->handle, context);
    else
        qel_dm_xd_set(QEL_DM_XD_WATCHED_QUEUE,
                      static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(context)));
}

int signal_locked(Queue& queue) QEL_REQUIRES(queue.mutex) {
    const bool plain = queue.handler != nullptr;
    queue.signal_handler = queue.handler;
    queue.signal_context = plain ? queue.context : reinterpret_cast<void*>(std::uintptr_t{queue.event_id});
    int error = qel_dm_execute(queue.dispatcher, run_signal, queue.handle, queue.serial);
    if (error != 0) report<"QDM720", "%s watched queue signal rc=%d">(error);
    return error;
}

// ---- Registration

// From now on jobs of the present registration do nothing.
void end_registration_locked(Queue& queue) QEL_REQUIRES(queue.mutex) {
    queue.dispatcher = 0;
    queue.handler = nullptr;
    ++queue.serial;
}

int watch_locked(Queue& queue, qel_dm_handle dm, qel_dm_watched_queue_handler handler, void* context)
    QEL_REQUIRES(queue.mutex) {
    queue.dispatcher = dm;
    queue.handler = handler;
    queue.context = context;
    if (qel_queue_empty(&queue.items) != 0) return 0;
    int error = signal_locked(queue);
    if (error != 0) end_registration_locked(queue);
    return error;
}

int enqueue_locked(Queue& queue, void* item) QEL_REQUIRES(queue.mutex) {
    void* last = queue.items.tail;
    if (qel_queue_full(&queue.items) != 0 || qel_queue_enqueue(&queue.items, item) == nullptr)
        return failed<"QDM721", "%s watched queue refuses the item, count=%lu">(EINVAL, queue.items.count);
    if (queue.dispatcher == 0 || !queue.need_signal) return 0;
    if (int error = signal_locked(queue); error != 0) {
        qel_queue_remove(&queue.items, item, last);
        return error;
    }
    queue.need_signal = false;
    return 0;
}

// ---- The end

// Takes the ID away from the lookups; the queue's own reference stays.
void withdraw(const Queue& queue) {
    static_cast<void>(qel_idm_lookup_and_retain_id(queues.handle(), queue.handle));  // The caller holds one.
    static_cast<void>(qel_idm_release_and_withdraw_id(queues.handle(), queue.handle));
}

// Drops the queue's own reference at the end of a call that found the queue drained, once.
class OwnReference {
  public:
    explicit OwnReference(const Queue& queue) : handle_(queue.handle) {}
    ~OwnReference() noexcept(false) {
        if (due_) queues.release(handle_);
    }
    void drop_once(bool& drained) { due_ = !std::exchange(drained, true); }

  private:
    qel_dm_watched_queue handle_;
    bool due_ = false;
};

}  // namespace
}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

namespace {

// 'refuse' gives the result for a queue that is watched already.
int register_watch(qel_dm_handle dm, qel_dm_watched_queue handle, qel_dm_watched_queue_handler handler,
                   void* context, int (*refuse)(qel_dm_handle watcher, qel_dm_handle dm)) {
    qel::Retained<Queue> queue = retain_queue(handle);
    if (!queue) return bad_argument<"QDM722">("watched queue");
    if (qel_dm_is_handle(dm) == 0) return bad_argument<"QDM723">("qdm");
    QueueLocked lock{queue->mutex};
    if (queue->destroyed) return EINVAL;
    if (queue->dispatcher != 0) return refuse(queue->dispatcher, dm);
    return watch_locked(*queue, dm, handler, context);
}

}  // namespace

QEL_API int qel_dm_watched_queue_attr_init(qel_dm_watched_queue_attr* attr) {
    if (attr == nullptr) return bad_argument<"QDM724">("attr");
    *attr = {};
    return 0;
}

QEL_API int qel_dm_watched_queue_create(const char* name, std::uint32_t event_id,
                                        const qel_dm_watched_queue_attr* attr,
                                        qel_dm_watched_queue* out) QEL_NO_THREAD_SAFETY_ANALYSIS {
    qel_check_not_interrupt_path();
    if (out == nullptr) return bad_argument<"QDM725">("out");
    if (!queues.make()) return no_memory<"QDM726">();
    Owned<Queue> queue = allocate_zeroed<Queue>(QEL_MEM_QDM);
    if (!queue) return no_memory<"QDM727">();
    qel_queue_init(&queue->items, attr == nullptr ? 0 : attr->max_size);
    queue->name = name;
    queue->event_id = event_id;
    queue->need_signal = true;
    if (int error = queue->mutex.init(attr != nullptr && attr->locked != 0); error != 0)
        return failed<"QDM728", "%s mutex rc=%d">(error, error);
    Undo destroy_mutex{[&] { queue->mutex.destroy(); }};
    if (qel_idm_get_id(queues.handle(), queue.get(), &queue->handle) != 0) return no_memory<"QDM729">();
    destroy_mutex.keep();
    *out = queue.release()->handle;
    return 0;
}

QEL_API int qel_dm_watched_queue_destroy(qel_dm_watched_queue* handle) {
    if (handle == nullptr) return bad_argument<"QDM730">("watched queue");
    qel::Retained<Queue> queue = retain_queue(*handle);
    if (!queue) return bad_argument<"QDM731">("watched queue");
    OwnReference own{*queue};
    QueueLocked lock{queue->mutex};
    if (lock.error() != 0 || queue->destroyed) return EINVAL;
    withdraw(*queue);
    queue->destroyed = true;
    // The serial stays: a signal that is queued still takes the consumer to the items.
    queue->dispatcher = 0;
    queue->handler = nullptr;
    if (qel_queue_empty(&queue->items) != 0 || queue->need_signal) own.drop_once(queue->drained);
    *handle = 0;
    return 0;
}

QEL_API int qel_dm_watched_queue_register(qel_dm_handle dm, qel_dm_watched_queue queue,
                                          qel_dm_watched_queue_handler handler, void* context) {
    if (handler == nullptr) return bad_argument<"QDM732">("handler");
    return register_watch(dm, queue, handler, context,
                          already_watched<"QDM733", "QDM QDM wq reg: same qdm already registered",  //
                                          "QDM734", "QDM QDM wq reg: other qdm already registered">);
}

QEL_API int qel_dm_watched_queue_xd_register(qel_dm_handle dm, qel_dm_watched_queue queue) {
    return register_watch(dm, queue, nullptr, nullptr,
                          already_watched<"QDM735", "QDM QDM wq xd reg: same qdm already registered",  //
                                          "QDM736", "QDM QDM wq xd reg: other qdm already registered">);
}

QEL_API int qel_dm_watched_queue_deregister(qel_dm_handle dm, qel_dm_watched_queue handle) {
    qel::Retained<Queue> queue = retain_queue(handle);
    if (!queue) return bad_argument<"QDM737">("watched queue");
    QueueLocked lock{queue->mutex};
    if (queue->dispatcher == 0 || queue->dispatcher != dm)
        return failed<"QDM738", "%s watched queue is not registered with qdm=%lx">(EINVAL, dm);
    end_registration_locked(*queue);
    return 0;
}

QEL_API int qel_dm_watched_queue_enqueue(qel_dm_watched_queue handle, void* item) {
    qel::Retained<Queue> queue = retain_queue(handle);
    if (!queue) return bad_argument<"QDM739">("watched queue");
    QueueLocked lock{queue->mutex};
    return queue->destroyed ? EINVAL : enqueue_locked(*queue, item);
}

// The end of a destroyed queue is no failure of its consumer, so it isn't reported.
QEL_API int qel_dm_watched_queue_dequeue(qel_dm_watched_queue handle, void** out) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue || out == nullptr) return EINVAL;
    OwnReference own{*queue};
    QueueLocked lock{queue->mutex};
    void* item = queue_pop(queue->items);
    if (item == nullptr) queue->need_signal = true;
    if (queue->destroyed && qel_queue_empty(&queue->items) != 0) own.drop_once(queue->drained);
    if (item == nullptr) return EAGAIN;
    *out = item;
    return 0;
}

QEL_API int qel_dm_watched_queue_peek_head(qel_dm_watched_queue handle, void** out) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue || out == nullptr) return EINVAL;
    QueueLocked lock{queue->mutex};
    void* first = qel_queue_peek_head(&queue->items);
    if (first == nullptr) return EAGAIN;
    *out = first;
    return 0;
}

QEL_API std::uint32_t qel_dm_watched_queue_get_size(qel_dm_watched_queue handle) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue) return 0;
    QueueLocked lock{queue->mutex};
    return static_cast<std::uint32_t>(queue->items.count);
}

QEL_API int qel_dm_watched_queue_get_id(qel_dm_watched_queue handle, std::uint32_t* out) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue || out == nullptr) return EINVAL;
    QueueLocked lock{queue->mutex};
    *out = queue->event_id;
    return 0;
}

QEL_API int qel_dm_watched_queue_set_id(qel_dm_watched_queue handle, std::uint32_t event_id) {
    qel::Retained<Queue> queue = retain_queue(handle);
    if (!queue) return bad_argument<"QDM740">("watched queue");
    QueueLocked lock{queue->mutex};
    if (queue->destroyed) return EINVAL;
    queue->event_id = event_id;
    return 0;
}

QEL_API const char* qel_dm_watched_queue_get_name(qel_dm_watched_queue handle) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    return queue ? queue->name : nullptr;
}

QEL_API int qel_dm_watched_queue_empty(qel_dm_watched_queue handle) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue) return 1;
    QueueLocked lock{queue->mutex};
    queue->need_signal = qel_queue_empty(&queue->items) != 0;
    return queue->need_signal ? 1 : 0;
}

QEL_API int qel_dm_watched_queue_full(qel_dm_watched_queue handle) {
    qel::Retained<Queue> queue = retain_any_queue(handle);
    if (!queue) return 0;
    QueueLocked lock{queue->mutex};
    return qel_queue_full(&queue->items);
}
