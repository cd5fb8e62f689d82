// The message queue of a dispatcher: messages for one handler, announced by a job.
//
// Sending onto an empty queue queues a job that calls the handler; sending onto a queue that holds messages
// does not, so a handler receives until there is nothing left. A queue registered without a handler gives its
// oldest message's type to an explicit dispatch instead.
//
// Invariant: a queue that holds messages and is registered had a job queued when its oldest one came.
// Locks: 'mutex', let go around the handler and each call of a clean-up handler. Threads: any.
// Restart: nothing stays; messages are pointers of this process, and undelivered ones stay their sender's.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

namespace qel::dm {
namespace {

struct Message {
    qel_dqueue link;
    std::uint32_t type;
    std::uint32_t arg;
    void* message;
};

// What the oldest message asks for; 'registered' is false when there is nothing to do.
struct Delivery {
    bool registered = false;
    qel_dm_message_handler handler = nullptr;
    void* context = nullptr;
    std::uint32_t type = 0;
};

Delivery next_delivery(Dispatcher& dispatcher) {
    Locked lock{dispatcher.mutex};
    const Message* message = oldest<Message>(dispatcher.messages);
    if (message == nullptr || dispatcher.message_registered == 0 || dispatcher.destroy_pending()) return {};
    return {true, dispatcher.message_handler, dispatcher.message_ctx, message->type};
}

// The job behind a message; it runs while its dispatcher is retained.
void run_message(qel_dm_handle handle, std::uint64_t instance, std::uint64_t) {
    Delivery delivery = next_delivery(*reinterpret_cast<Dispatcher*>(instance));
    if (!delivery.registered) return;
    if (delivery.handler != nullptr)
        delivery.handler(handle, delivery.context, 0);
    else
        qel_dm_xd_set(QEL_DM_XD_MESSAGE, delivery.type);
}

// Takes the oldest message off 'queue', or gives false.
bool take_oldest_locked(Dispatcher& dispatcher, qel_dqueue& queue, Message& out)
    QEL_REQUIRES(dispatcher.mutex) {
    Message* message = oldest<Message>(queue);
    if (message == nullptr) return false;
    out = *message;
    dqueue_remove(message->link);
    give_back(dispatcher, message);
    return true;
}

int enqueue_locked(Dispatcher& dispatcher, const Message& content) QEL_REQUIRES(dispatcher.mutex) {
    auto* message = allocate<Message>(dispatcher);
    if (message == nullptr) return no_memory<"QDM600">();
    *message = content;
    bool was_empty = dqueue_is_initial(dispatcher.messages);
    dqueue_insert(message->link, dispatcher.messages);
    if (!was_empty) return 0;
    int error = execute_locked(dispatcher, run_message, reinterpret_cast<std::uint64_t>(&dispatcher), 0);
    if (error == 0) return 0;
    dqueue_remove(message->link);
    give_back(dispatcher, message);
    return error;
}

int register_handler(qel_dm_handle handle, qel_dm_message_handler handler, void* context) {
    Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM601">("qdm");
    Dispatcher& instance = *dispatcher;
    Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM602", "%s destroy pending %s">(EINVAL, instance.name);
    if (instance.message_registered != 0)
        return failed<"QDM603", "QDM QDM message handler already registered">(EBUSY);
    instance.message_registered = 1;
    instance.message_handler = handler;
    instance.message_ctx = context;
    return 0;
}

// The messages that a closed queue leaves. They are taken out at once: while the clean-up handler runs, the
// queue may be opened again, and its new messages are not ours. Keeps destruction waiting.
class Leftovers {
  public:
    explicit Leftovers(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) : dispatcher_(dispatcher) {
        dqueue_init(messages_, nullptr);
        dqueue_move_all(dispatcher.messages, messages_);
        add_waiters_locked(dispatcher, 1);
    }
    ~Leftovers() QEL_NO_THREAD_SAFETY_ANALYSIS {
        give_back_all(dispatcher_, messages_);  // There are some only if the handler ended its thread.
        add_waiters_locked(dispatcher_, -1);
        if (dispatcher_.destroy_pending()) pthread_cond_broadcast(&dispatcher_.cond);
    }
    qel_dqueue& messages() { return messages_; }

  private:
    Dispatcher& dispatcher_;
    qel_dqueue messages_;
};

void clean_up_locked(Dispatcher& dispatcher, qel_dm_message_cleanup cleanup) QEL_REQUIRES(dispatcher.mutex) {
    Leftovers leftovers{dispatcher};
    Message taken{};
    while (take_oldest_locked(dispatcher, leftovers.messages(), taken)) {
        if (cleanup == nullptr) continue;
        while_unlocked(dispatcher, [&] { cleanup(dispatcher.handle, taken.type, taken.arg, taken.message); });
    }
}

}  // namespace
}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_message_register(qel_dm_handle handle, qel_dm_message_handler handler, void* context) {
    qel_check_not_interrupt_path();
    if (handler == nullptr) return bad_argument<"QDM604">("handler");
    return register_handler(handle, handler, context);
}

QEL_API int qel_dm_message_xd_register(qel_dm_handle handle) {
    qel_check_not_interrupt_path();
    return register_handler(handle, nullptr, nullptr);
}

QEL_API int qel_dm_message_deregister(qel_dm_handle handle, qel_dm_message_cleanup cleanup) {
    qel_check_not_interrupt_path();
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM605">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM606", "%s destroy pending %s">(EINVAL, instance.name);
    if (instance.message_registered == 0)
        return failed<"QDM607", "QDM QDM message deregister: was not registered">(EINVAL);
    instance.message_registered = 0;
    instance.message_handler = nullptr;
    instance.message_ctx = nullptr;
    clean_up_locked(instance, cleanup);
    return 0;
}

QEL_API int qel_dm_message_send(qel_dm_handle handle, std::uint32_t type, std::uint32_t arg, void* message) {
    qel_check_not_interrupt_path();
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM608">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending() || instance.message_registered == 0)
        return failed<"QDM609", "%s destroy pending %s">(EINVAL, instance.name);
    return enqueue_locked(instance, {{}, type, arg, message});
}

QEL_API int qel_dm_message_receive(qel_dm_handle handle, std::uint32_t* type, std::uint32_t* arg,
                                   void** message) {
    qel_check_not_interrupt_path();
    dm::Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM610">("qdm");
    Dispatcher& instance = *dispatcher;
    dm::Locked lock{instance.mutex};
    if (instance.destroy_pending()) return EINVAL;
    Message taken{};
    if (!take_oldest_locked(instance, instance.messages, taken)) return EAGAIN;
    if (type != nullptr) *type = taken.type;
    if (arg != nullptr) *arg = taken.arg;
    if (message != nullptr) *message = taken.message;
    return 0;
}

// No event manager of this platform tells of disconnects.

QEL_API int qel_dm_disconnect_register(qel_dm_handle, void*, void*) {
    return failed<"QDM611", "%s not supported">(EOPNOTSUPP);
}

QEL_API int qel_dm_disconnect_deregister(qel_dm_handle, void*, void*) {
    return failed<"QDM612", "%s not supported">(EOPNOTSUPP);
}
