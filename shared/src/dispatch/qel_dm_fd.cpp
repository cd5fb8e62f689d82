// Descriptors as event sources.
//
// A registration is a record in the dispatcher's hash set, keyed by the descriptor's number, and a one-shot
// entry in the kernel. An array by number beside the set finds it in one load. The key stored with the kernel
// carries a generation besides the number, so an event picked for a registration that has since been removed
// is recognised and dropped.
//
// Invariant: a record in the set has a handler and was accepted by the kernel; closing a descriptor takes the
// kernel's entry away and leaves the record, which the next registration of that number finds and renews.
// Locks: 'mutex'. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

#include <algorithm>
#include <bit>

namespace qel::dm {
namespace {

constexpr std::uint32_t kMaxDescriptor = 0xffff;
constexpr std::uint32_t kMaxConditions = 0xf;
constexpr std::uint32_t kFirstNumbers = 64;

struct Handlers {
    qel_dm_fd_handler fd_handler;
    qel_dm_io_handler io_handler;
    void* context;
};

}  // namespace

struct Descriptor {
    qel_hash_link link;
    std::uint32_t fd;
    std::uint32_t events;  // the kernel's flags
    Handlers handlers;
    std::uint32_t key;
};

namespace {

struct Registration {
    std::uint32_t fd;
    std::uint32_t conditions;
    Handlers handlers;
};

std::uint32_t hash_of(const void* element, void*) {
    return static_cast<const Descriptor*>(element)->fd;
}

bool same_fd(const void* probe, const void* element, void*) {
    return static_cast<const Descriptor*>(probe)->fd == static_cast<const Descriptor*>(element)->fd;
}

Descriptor* find_locked(Dispatcher& dispatcher, std::uint32_t fd) QEL_REQUIRES(dispatcher.mutex) {
    return fd < dispatcher.fd_numbers ? dispatcher.fds_by_number[fd] : nullptr;
}

// Makes room in the array for 'fd'; false when memory is short.
bool reserve_number_locked(Dispatcher& dispatcher, std::uint32_t fd) QEL_REQUIRES(dispatcher.mutex) {
    const std::uint32_t held = dispatcher.fd_numbers;
    if (fd < held) return true;
    const std::uint32_t wanted = std::max(std::bit_ceil(fd + 1), kFirstNumbers);
    void* memory = qel_named_realloc(dispatcher.fds_by_number, wanted * sizeof(Descriptor*));
    if (memory == nullptr) return false;
    dispatcher.fds_by_number = static_cast<Descriptor**>(memory);
    std::fill(dispatcher.fds_by_number + held, dispatcher.fds_by_number + wanted, nullptr);
    dispatcher.fd_numbers = wanted;
    return true;
}

void drop_locked(Dispatcher& dispatcher, Descriptor* record) QEL_REQUIRES(dispatcher.mutex) {
    dispatcher.fds_by_number[record->fd] = nullptr;
    qel_hashset_remove(dispatcher.fds, record);
    give_back(dispatcher, record);
}

int control_locked(Dispatcher& dispatcher, platform::Operation operation, const Descriptor& record)
    QEL_REQUIRES(dispatcher.mutex) {
    return platform::control(dispatcher.epoll_fd, operation, static_cast<int>(record.fd),
                             {record.events, record.key, platform::kUserDescriptor});
}

int modify_locked(Dispatcher& dispatcher, const Descriptor& record) QEL_REQUIRES(dispatcher.mutex) {
    return control_locked(dispatcher, platform::Operation::modify, record);
}

// A new generation of the record, at the kernel too. A record that the kernel refuses is dropped.
int add_locked(Dispatcher& dispatcher, Descriptor* record) QEL_REQUIRES(dispatcher.mutex) {
    record->key = std::uint32_t{++dispatcher.fd_generation} << 16 | record->fd;
    int error = control_locked(dispatcher, platform::Operation::add, *record);
    // The number was closed, removed and given to the same file again, which another number kept open: the
    // kernel has never forgotten it.
    if (error == EEXIST) error = modify_locked(dispatcher, *record);
    if (error == 0) return 0;
    drop_locked(dispatcher, record);
    return failed<"QDM408", "%s epoll_ctl rc=%d">(error, error);
}

int update_locked(Dispatcher& dispatcher, Descriptor* record, const Registration& wanted)
    QEL_REQUIRES(dispatcher.mutex) {
    event<"QDM405", "already registered, updating fd context">(event_buffer, QEL_DT_LEVEL_INFO);
    record->events = platform::to_flags(wanted.conditions);
    record->handlers = wanted.handlers;
    int error = modify_locked(dispatcher, *record);
    // The descriptor was closed, and the kernel has forgotten it: its number now stands for another file.
    if (error == ENOENT) return add_locked(dispatcher, record);
    return error == 0 ? 0 : failed<"QDM406", "%s epoll_ctl rc=%d">(error, error);
}

int insert_locked(Dispatcher& dispatcher, const Registration& wanted) QEL_REQUIRES(dispatcher.mutex) {
    Descriptor* record =
        reserve_number_locked(dispatcher, wanted.fd) ? allocate<Descriptor>(dispatcher) : nullptr;
    if (record == nullptr) return no_memory<"QDM407">();
    record->fd = wanted.fd;
    record->events = platform::to_flags(wanted.conditions);
    record->handlers = wanted.handlers;
    qel_hashset_insert(dispatcher.fds, record);
    dispatcher.fds_by_number[record->fd] = record;
    return add_locked(dispatcher, record);
}

int remove_locked(Dispatcher& dispatcher, std::uint32_t fd) QEL_REQUIRES(dispatcher.mutex) {
    Descriptor* record = find_locked(dispatcher, fd);
    if (record == nullptr) return bad_argument<"QDM404">("fd");
    platform::forget(dispatcher.epoll_fd, static_cast<int>(fd));
    drop_locked(dispatcher, record);
    return 0;
}

bool is_removal(const Registration& wanted) {
    return wanted.conditions == 0 ||
           (wanted.handlers.fd_handler == nullptr && wanted.handlers.io_handler == nullptr);
}

// The dispatcher's own descriptors can't be registered: its wake-up would be lost.
bool is_own_descriptor(const Dispatcher& dispatcher, std::uint32_t fd) {
    int number = static_cast<int>(fd);
    return number == dispatcher.epoll_fd || number == dispatcher.pipe_read_fd ||
           number == dispatcher.pipe_write_fd;
}

int register_locked(Dispatcher& dispatcher, const Registration& wanted) QEL_REQUIRES(dispatcher.mutex) {
    if (is_removal(wanted)) return remove_locked(dispatcher, wanted.fd);
    if (is_own_descriptor(dispatcher, wanted.fd)) return bad_argument<"QDM409">("fd");
    Descriptor* record = find_locked(dispatcher, wanted.fd);
    return record != nullptr ? update_locked(dispatcher, record, wanted) : insert_locked(dispatcher, wanted);
}

int register_descriptor(qel_dm_handle handle, const Registration& wanted) {
    qel_check_not_interrupt_path();
    Retained dispatcher = retain_or_default(handle);
    if (!dispatcher) return bad_argument<"QDM400">("qdm");
    if (wanted.fd > kMaxDescriptor) return bad_argument<"QDM401">("fd");
    if (wanted.conditions > kMaxConditions) return bad_argument<"QDM402">("conditions");
    Dispatcher& instance = *dispatcher;
    Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM403", "%s destroy pending %s">(EINVAL, instance.name);
    return register_locked(instance, wanted);
}

// The record that a picked event is meant for, or null for a stale event.
Descriptor* addressee_locked(Dispatcher& dispatcher, const platform::Event& picked)
    QEL_REQUIRES(dispatcher.mutex) {
    Descriptor* record = find_locked(dispatcher, picked.key & kMaxDescriptor);
    if (record == nullptr || record->key != picked.key) return nullptr;
    if (platform::wanted_flags(picked.flags, record->events) != 0) return record;
    // Nobody is told of this, and the descriptor stays silent until it is registered again.
    if (platform::is_error_only(picked.flags)) report<"QDM410", "%s descriptor error, fd=%u">(record->fd);
    return nullptr;
}

}  // namespace

int make_descriptor_set(Dispatcher& dispatcher) {
    return qel_hashset_create(&dispatcher.fds, nullptr, offsetof(Descriptor, link), hash_of, same_fd,
                              nullptr);
}

void free_descriptor_set(Dispatcher& dispatcher) {
    while (void* record = qel_hashset_first(dispatcher.fds))
        drop_locked(dispatcher, static_cast<Descriptor*>(record));
    qel_hashset_free(&dispatcher.fds);
    qel_named_free(dispatcher.fds_by_number);
}

void rearm_descriptor_locked(Dispatcher& dispatcher, const platform::Event& picked) {
    Descriptor* record = addressee_locked(dispatcher, picked);
    // It fails only for a closed descriptor, which has no more events.
    if (record != nullptr) static_cast<void>(modify_locked(dispatcher, *record));
}

void dispatch_descriptor(Dispatcher& dispatcher, const platform::Event& picked) {
    Handlers handlers{};
    const platform::Event taken = picked;
    {
        Locked lock{dispatcher.mutex};
        if (dispatcher.destroy_pending()) return;
        Descriptor* record = addressee_locked(dispatcher, taken);
        if (record == nullptr)
            return event<"QDM411", "dropping event, mismatch">(event_buffer, QEL_DT_LEVEL_DEBUG);
        handlers = record->handlers;
    }
    std::uint32_t fd = taken.key & kMaxDescriptor;
    std::uint32_t conditions = platform::to_conditions(taken.flags);
    if (handlers.fd_handler != nullptr)
        handlers.fd_handler(dispatcher.handle, fd, conditions, handlers.context);
    else
        handlers.io_handler(dispatcher.handle, static_cast<std::uint16_t>(fd), conditions, handlers.context);
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_fd_register(qel_dm_handle handle, std::uint32_t fd, std::uint32_t conditions,
                               qel_dm_fd_handler handler, void* context) {
    return register_descriptor(handle, {fd, conditions, {handler, nullptr, context}});
}

QEL_API int qel_dm_io_register(qel_dm_handle handle, std::uint16_t fd, std::uint32_t conditions,
                               qel_dm_io_handler handler, void* context) {
    return register_descriptor(handle, {fd, conditions, {nullptr, handler, context}});
}
