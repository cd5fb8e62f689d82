// Asynchronous operations: start and stop of the frame, and what applications call.
//
// The frame is an ID pool and two private dispatchers of one thread each. That there is one thread for
// synchronous handlers is a promise: they run one after the other, in the order of submission, those of all
// services and clients. The pool's handle is also the word that tells whether the frame runs.
//
// Locks: 'start_lock' for start and stop; a waiter sleeps on its operation's 'lock'. Threads: see
// qel/async.h. Restart: nothing stays; a start after a stop makes all anew.
#include "net/qel_async.hpp"

#include <qel/base.h>
#include <qel/dm_threadpool.h>
#include <qel/thread.h>

#include <cerrno>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"

namespace qel::async {

constinit net::PoolPlace id_pool;
constinit std::atomic<std::uint8_t> starts{0};
constinit std::atomic<bool> stopping{false};

namespace {

constexpr const char* kPoolName = "QEL Request IDs";
constexpr BufferSource kEvents{"qel.async.buffer.events", nullptr, 32768};

constinit Mutex start_lock;
constinit qel_dt_buffer_handle events = nullptr;
constinit std::atomic<qel_dm_handle> async_qdm{0};
constinit std::atomic<qel_dm_handle> sync_qdm{0};

void destroy_dispatcher(std::atomic<qel_dm_handle>& place) {
    qel_dm_handle dispatcher = place.exchange(0);
    if (qel_dm_is_handle(dispatcher) != 0) static_cast<void>(qel_dm_destroy(&dispatcher));  // it's ours alone
}

// One thread that waits for work, and never another.
int start_thread(qel_dm_handle dispatcher, const qel_dm_threadpool_attr& defaults, const char* name) {
    qel_dm_threadpool_attr attr = defaults;
    attr.min_wait = attr.max_wait = attr.max_threads = 1;
    const int error = qel_dm_threadpool_create(dispatcher, 0, &attr, nullptr);
    return error == 0 ? 0
                      : failed<"ADERROR017", "ERROR: %s: Failed to create thread pool for QDM '%s', '%s'">(
                            error, name, cerr_strerror(static_cast<cerrno>(error)));
}

cerrno async_impl_create_thread_pool(std::atomic<qel_dm_handle>& place, const char* name) {
    qel_dm_threadpool_attr attr;
    if (int error = qel_dm_threadpool_attr_init(&attr); error != 0)
        return failed<"ADERROR015", "ERROR: %s: Failed to init thread pool attrs for QDM '%s', '%s'">(
            fatal(error), name, cerr_strerror(static_cast<cerrno>(error)));
    qel_dm_handle dispatcher = 0;
    if (int error = qel_dm_create(&dispatcher, name, QEL_DM_PRIVATE); error != 0)
        return failed<"ADERROR016", "ERROR: %s: Failed to create QDM '%s', '%s'">(
            fatal(error), name, cerr_strerror(static_cast<cerrno>(error)));
    place.store(dispatcher);
    const int error = start_thread(dispatcher, attr, name);
    if (error != 0) destroy_dispatcher(place);
    return error == 0 ? 0 : fatal(error);
}

cerrno async_impl_create_id_pool() {
    std::uint32_t made = QEL_IDM_NO_POOL;
    if (cerrno error = qel_idm_pool_create(kPoolName, QEL_ASYNC_MAX_OPS, 1, &made); error != 0)
        return failed<"ADERROR009", "ERROR: %s: Failed to create ID pool size %d, '%s'">(
            error, QEL_ASYNC_MAX_OPS, cerr_strerror(error));
    if (cerrno error = qel_idm_set_destructor(made, async_impl_request_destructor, nullptr); error != 0) {
        qel_idm_pool_destroy(&made);
        return failed<"ADERROR010", "ERROR: %s: Failed to set ID pool ctor, '%s'">(error,
                                                                                   cerr_strerror(error));
    }
    trace<"ADEVENT001", "%s: Created ID pool 0x%x, size %d">(made, QEL_ASYNC_MAX_OPS);
    starts.fetch_add(1);
    id_pool.put(made);
    return 0;
}

void async_impl_free_id_pool() {
    id_pool.destroy();
}

void destroy_dispatchers() {
    destroy_dispatcher(sync_qdm);
    destroy_dispatcher(async_qdm);
}

cerrno start_locked() QEL_REQUIRES(start_lock) {
    cerrno error = async_impl_create_thread_pool(async_qdm, "QEL Async QDM");
    if (error == 0) error = async_impl_create_thread_pool(sync_qdm, "QEL Sync QDM");
    if (error == 0) error = async_impl_create_id_pool();
    if (error != 0) destroy_dispatchers();
    return error;
}

template <FixedText Format>
void trace_stop() {
    trace<"ADEVENT005", Format>();
}

thread_local constinit bool runs_sync_handler = false;

// A job names its operation by the ID and, in the upper half, the serial number: an operation that was ended
// meanwhile isn't found, and another one under its ID isn't mistaken for it.
constexpr int kSerialShift = 32;

std::uint64_t name_of(const Operation& operation) {
    return std::uint64_t{operation.serial} << kSerialShift | operation.op_id;
}

void async_impl_execute_native_sync(qel_dm_handle, std::uint64_t argument, std::uint64_t name) {
    Operation* operation = nullptr;
    if (qel_async_impl_op_guard(static_cast<std::uint32_t>(name), &operation) != 0) return;
    Undo guarded{[operation] { static_cast<void>(qel_async_impl_op_yield(operation)); }};  // reported there
    if (name_of(*operation) != name) return;
    runs_sync_handler = true;
    operation->handler(operation, reinterpret_cast<void*>(argument));
    if (operation->postamble != nullptr) operation->postamble(operation);
}

}  // namespace

bool is_sync_thread() {
    return runs_sync_handler;
}

qel_dt_buffer_handle event_buffer() {
    return buffer_at(events, kEvents);
}

}  // namespace qel::async

using namespace qel;
using namespace qel::async;

cerrno qel_async_req_init(qel_async_req* request) {
    qel_check_not_interrupt_path();
    if (request == nullptr) return failed<"ADERROR011", "ERROR: %s: NULL argument">(fatal(EINVAL));
    *request = {};
    request->magic = QEL_ASYNC_MAGIC;
    return 0;
}

cerrno qel_async_wait(const qel_async_future* future) {
    qel_check_not_interrupt_path();
    if (future == nullptr) return failed<"ADERROR012", "ERROR: %s: NULL future argument">(fatal(EINVAL));
    const std::uint32_t op_id = future->op_id, opcode = future->opcode;
    Operation* operation = nullptr;
    if (cerrno error = qel_async_impl_retain_and_lock_ctx(op_id, &operation); error != 0)
        return failed<"ADERROR013",
                      "ERROR: %s: Failed to lookup op ID 0x%x opcode %d in qel_async_wait, '%s'">(
            error, op_id, opcode, cerr_strerror(error));
    // Also if the thread is cancelled in its sleep.
    Undo held{[operation] { static_cast<void>(qel_async_impl_release_and_unlock_ctx(operation)); }};
    if (operation->callback != nullptr)
        return failed<"ADERROR014", "ERROR: %s: OP ID 0x%x opcode %d trying wait while set for callback">(
            fatal(EPERM), op_id, opcode);
    if (runs_sync_handler && operation->native_sync != 0 && operation->state == kPending)
        return failed<"ADERROR030", "ERROR: %s: OP ID 0x%x opcode %d would be waited for by its own thread">(
            fatal(EDEADLK), op_id, opcode);
    trace<"ADEVENT002", "%s: OP ID 0x%x opcode %d before wait">(op_id, opcode);
    wait_until_done(*operation);
    trace<"ADEVENT003", "%s: OP ID 0x%x opcode %d after wait">(op_id, opcode);
    return 0;
}

cerrno qel_async_get_stats(qel_async_stats* stats) {
    qel_check_not_interrupt_path();
    if (stats == nullptr) return fatal(EINVAL);
    std::uint32_t count = 0;
    if (is_started())
        if (cerrno error = count_operations(count); error != 0) return error;
    *stats = {QEL_ASYNC_MAX_OPS, count};
    return 0;
}

cerrno qel_async_impl_init(uint32_t) {
    qel_check_not_interrupt_path();
    Locked lock{start_lock};
    if (is_started()) return 0;
    if (cerrno error = start_locked(); error != 0) return error;
    trace<"ADEVENT004", "%s: async processing inited">();
    return 0;
}

qel_dm_handle qel_async_impl_get_qdm(void) {
    return is_started() ? async_qdm.load() : 0;
}

cerrno qel_async_impl_submit(qel_async_ctx* operation, qel_async_postamble postamble,
                             qel_async_handler handler, void* argument) {
    if (operation == nullptr || handler == nullptr) return fatal(EINVAL);
    const std::uint32_t op_id = operation->op_id, opcode = operation->opcode;
    operation->native_sync = 1;
    operation->postamble = postamble;
    operation->handler = handler;
    const int error = qel_dm_execute(sync_qdm.load(), async_impl_execute_native_sync,
                                     reinterpret_cast<std::uint64_t>(argument), name_of(*operation));
    if (error == 0) return 0;
    return failed<"ADERROR021", "ERROR: %s: Failed to submit async operation ID 0x%x opcode %d, '%s'">(
        fatal(error), op_id, opcode, cerr_strerror(static_cast<cerrno>(error)));
}

void qel_async_impl_fini(void) {
    if (is_sync_thread())
        return report<"ADERROR031",
                      "ERROR: %s: async fini in a synchronous handler, which it would wait for">();
    Locked lock{start_lock};
    trace_stop<"%s: async fini start">();
    stopping.store(true);
    static_cast<void>(id_pool.await_uses());  // those who hadn't seen it have made their operations
    wake_all();                               // handlers, too, may sleep for an operation
    destroy_dispatchers();
    end_all();
    async_impl_free_id_pool();
    stopping.store(false);
    trace_stop<"%s: async fini end">();
}
