// Dispatchers: their handles, their life, and the default one.
//
// An instance lives behind an ID. Each exported call retains it, so the record outlives every call that works
// on it; qel_dm_destroy() forbids new work, brings the waiting threads out, and drops the creator's
// reference. Whoever drops the last one runs free_instance().
//
// Invariant: an instance is in the list from the end of its creation to the start of its destruction.
// Locks: 'global_mutex' guards the list, the default handle and what is made on first use. It is never held
// together with an instance's mutex. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>
#include <qel/dt.h>
#include <qel/idm.h>

#include <cstdarg>
#include <cstdio>

#include "containers/qel_idm_family.hpp"
#include "core/qel_owned.hpp"
#include "dispatch/qel_thread_attr.hpp"

namespace qel::dm {

constinit qel_dt_buffer_handle event_buffer = nullptr;

namespace {

constexpr std::uint32_t kDefaultMaxInstances = 32;
constexpr BufferSource kEventBuffer{"qel.dm.buffer.events", nullptr, 32768};
constexpr std::uint32_t kPoolFlags = QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_FAST_FREE | QEL_MEM_CHUNK_ZERO;
constexpr std::uint32_t kElementsPerBlock = 32;

constinit Mutex global_mutex;
constinit Dispatcher* first_instance QEL_GUARDED_BY(global_mutex) = nullptr;
constinit Dispatcher* last_instance QEL_GUARDED_BY(global_mutex) = nullptr;
constinit std::atomic<std::uint32_t> qdm_default_handle{0};
constinit std::atomic<bool> debug_prints{false};

// ---- The list

void link_instance(Dispatcher& instance) {
    Locked lock{global_mutex};
    (last_instance != nullptr ? last_instance->next : first_instance) = &instance;
    last_instance = &instance;
}

// Takes the instance out of the list; does nothing for one that another thread has taken out.
void unlink_instance(Dispatcher& instance) {
    Locked lock{global_mutex};
    if (qdm_default_handle.load(std::memory_order_relaxed) == instance.handle) qdm_default_handle = 0;
    Dispatcher* previous = nullptr;
    for (Dispatcher* at = first_instance; at != nullptr; previous = at, at = at->next) {
        if (at != &instance) continue;
        (previous != nullptr ? previous->next : first_instance) = at->next;
        if (last_instance == at) last_instance = previous;
        return;
    }
}

std::uint32_t find_default_locked() QEL_REQUIRES(global_mutex) {
    for (Dispatcher* at = first_instance; at != nullptr; at = at->next)
        if ((at->flags & Dispatcher::kPrivate) == 0) return at->handle;
    return 0;
}

// ---- The life of an instance

void free_record(Dispatcher* instance) {
    instance->mutex.destroy();
    instance->batch_mutex.destroy();
    pthread_cond_destroy(&instance->cond);
    qel_named_free(instance);
}
using OwnedRecord = Unique<Dispatcher*, free_record>;

// Frees an instance that nobody else can reach any more; each part may be missing.
void free_instance(Dispatcher* instance) QEL_NO_THREAD_SAFETY_ANALYSIS {
    OwnedRecord record{instance};
    event<"QDM10", "%s destroyed qdm=%p">(event_buffer, QEL_DT_LEVEL_ERROR, instance);
    if (instance->fds != nullptr) free_descriptor_set(*instance);
    free_jobs(*instance);
    give_back_all(*instance, instance->messages);
    qel_dm_pf_cleanup(instance);
    qel_mem_chunk_destroy(instance->pool);
    if (instance->thread_attr != nullptr) free_thread_attr(instance->thread_attr);
}
using OwnedInstance = Unique<Dispatcher*, free_instance>;

constinit FamilyPool instances{{"QDM id manager", "qel.qdm.max.instances", kDefaultMaxInstances,
                                [](void* instance) { free_instance(static_cast<Dispatcher*>(instance)); }}};

int init_mutexes(Dispatcher& instance) {
    if (int error = instance.mutex.init(); error != 0) return error;
    int error = instance.batch_mutex.init();
    if (error != 0) instance.mutex.destroy();
    return error;
}

int make_record(OwnedRecord& out) {
    Owned<Dispatcher> memory = allocate_zeroed<Dispatcher>(QEL_MEM_QDM);
    if (!memory) return no_memory<"QDM11">();
    if (int error = init_mutexes(*memory); error != 0) return failed<"QDM12", "%s mutex rc=%d">(error, error);
    Undo destroy_mutexes{[&] {
        memory->mutex.destroy();
        memory->batch_mutex.destroy();
    }};
    if (int error = pthread_cond_init(&memory->cond, nullptr); error != 0)
        return failed<"QDM13", "%s cond rc=%d">(error, error);
    destroy_mutexes.keep();
    out.reset(memory.release());
    return 0;
}

const char* name_or_default(const char* name, std::uint32_t flags) {
    if (name != nullptr) return name;
    return (flags & QEL_DM_PRIVATE) != 0 ? "PRIVATE QDM" : "PUBLIC QDM";
}

// An instance with all its parts but the handle and the kernel's.
int make_instance(OwnedInstance& out, const char* name, std::uint32_t flags) QEL_NO_THREAD_SAFETY_ANALYSIS {
    OwnedRecord record;
    if (int error = make_record(record); error != 0) return error;
    Dispatcher& instance = *record.get();
    instance.name = name_or_default(name, flags);
    instance.flags = (flags & QEL_DM_PRIVATE) != 0 ? Dispatcher::kPrivate : 0;
    instance.epoll_fd = instance.pipe_read_fd = instance.pipe_write_fd = -1;
    for (qel_dqueue* queue : {&instance.jobs, &instance.spare_jobs, &instance.batch, &instance.done_jobs,
                              &instance.messages, &instance.idle_timers, &instance.expired_timers})
        dqueue_init(*queue, nullptr);
    instance.batch_end = &instance.batch;
    instance.pool = qel_mem_chunk_create(kPoolElementSize, kElementsPerBlock, kPoolFlags, 0, 0, "QDM chunks");
    if (instance.pool == nullptr) return no_memory<"QDM14">();
    out.reset(record.release());
    if (int error = make_descriptor_set(instance); error != 0)
        return failed<"QDM15", "%s hash set rc=%d">(error, error);
    return 0;
}

// What the family makes on first use.
int prepare_family() {
    Locked lock{global_mutex};
    if (!instances.make()) return no_memory<"QDM16">();
    static_cast<void>(buffer_at(event_buffer, kEventBuffer));  // Without it events are not traced.
    return make_context_key();
}

int create_instance(qel_dm_handle& out, const char* name, std::uint32_t flags, void* native) {
    if (int error = prepare_family(); error != 0) return error;
    OwnedInstance owned;
    if (int error = make_instance(owned, name, flags); error != 0) return error;
    Dispatcher& instance = *owned.get();
    if (qel_idm_get_id(instances.handle(), &instance, &instance.handle) != 0) return no_memory<"QDM17">();
    owned.release();
    // From here on the reference behind the handle owns the instance.
    Undo release{[&] { instances.release(instance.handle); }};
    if (int error = qel_dm_pf_init(&instance, native); error != 0) return error;
    release.keep();
    link_instance(instance);
    event<"QDM18", "%s created qdm=%p">(event_buffer, QEL_DT_LEVEL_ERROR, &instance);
    out = instance.handle;
    return 0;
}

int begin_destroy(Dispatcher& instance) {
    unlink_instance(instance);
    Locked lock{instance.mutex};
    if (instance.destroy_pending()) return failed<"QDM19", "%s destroy pending %s">(EINVAL, instance.name);
    std::atomic_ref{instance.flags}.fetch_or(Dispatcher::kDestroyPending, std::memory_order_relaxed);
    return 0;
}

// Brings the threads out of the wait step, one after the other: each wakes the next.
void drain_waiters(Dispatcher& instance) {
    Locked lock{instance.mutex};
    leave_pool_locked(instance);
    wake_locked(instance);
    while (instance.waiters > 0 || instance.threads > 0)
        qel_thread_cond_wait(&instance.cond, instance.mutex.native());
}

}  // namespace

void ReportedLockFailures::lock_failed(int error) {
    report<"QDM1", "QDM Error locking mutex err=%d\n">(error);
}

void ReportedLockFailures::unlock_failed(int error) {
    report<"QDM2", "QDM Error unlocking mutex err=%d\n">(error);
}

Retained retain(qel_dm_handle handle) {
    Dispatcher* served = served_here;
    if (served != nullptr && served->handle == handle && !served->destroy_pending()) return Retained{*served};
    return Retained{instances.retain<Dispatcher>(handle)};
}

Retained retain_or_default(qel_dm_handle handle) {
    return retain(handle != 0 ? handle : qel_dm_get_handle());
}

void give_back(Dispatcher& dispatcher, void* element) {
    if (qel_mem_chunk_free(dispatcher.pool, element) != 0) return;
    report<"QDM3", "QDM QDM chunk elem free failed data=%lx">(reinterpret_cast<std::uint64_t>(element));
}

void give_back_all(Dispatcher& dispatcher, qel_dqueue& queue) {
    while (!dqueue_is_initial(queue)) {
        qel_dqueue* element = queue.next;
        dqueue_remove(*element);
        give_back(dispatcher, element);
    }
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_create(qel_dm_handle* out, const char* name, std::uint32_t flags) {
    return qel_dm_create_from_native_dm(out, name, flags, nullptr);
}

QEL_API int qel_dm_create_from_native_dm(qel_dm_handle* out, const char* name, std::uint32_t flags,
                                         void* native) {
    qel_check_not_interrupt_path();
    if (out == nullptr) return bad_argument<"QDM4">("qdm");
    *out = 0;
    return create_instance(*out, name, flags, native);
}

QEL_API int qel_dm_destroy(qel_dm_handle* handle) {
    qel_check_not_interrupt_path();
    if (handle == nullptr) return bad_argument<"QDM5">("qdm");
    dm::Retained dispatcher = retain(*handle);
    if (!dispatcher) return bad_argument<"QDM6">("qdm");
    if (int error = begin_destroy(*dispatcher); error != 0) return error;
    {
        // Also when the calling thread is cancelled while it waits.
        const std::uint32_t id = dispatcher->handle;
        Undo drop_creators_reference{[&] { instances.release(id); }};
        drain_waiters(*dispatcher);
    }
    *handle = 0;
    return 0;
}

QEL_API qel_dm_handle qel_dm_get_handle(void) {
    std::uint32_t cached = qdm_default_handle.load(std::memory_order_relaxed);
    if (cached != 0) return cached;
    dm::Locked lock{global_mutex};
    std::uint32_t found = find_default_locked();
    qdm_default_handle.store(found, std::memory_order_relaxed);
    return found;
}

QEL_API qel_dm_handle qel_dm_is_handle(qel_dm_handle handle) {
    qel_check_not_interrupt_path();
    return retain(handle) ? handle : 0;
}

QEL_API const char* qel_dm_get_name(qel_dm_handle handle) {
    qel_check_not_interrupt_path();
    dm::Retained dispatcher = retain(handle);
    return dispatcher ? dispatcher->name : "Invalid QDM";
}

QEL_API void* qel_dm_get_native_evm(qel_dm_handle) {
    return nullptr;  // This platform has no event manager of its own.
}

QEL_API void qdm_debug_enable(int on) {
    debug_prints.store(on != 0, std::memory_order_relaxed);
}

QEL_API void qdm_debug_print_(const char* format, ...) {
    if (!debug_prints.load(std::memory_order_relaxed)) return;
    std::va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}
