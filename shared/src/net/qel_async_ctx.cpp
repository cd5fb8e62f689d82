// Asynchronous operations: the life of a context.
//
// The ID's first reference is the operation's own and stands for the result that is outstanding or unfetched.
// Several may want to end an operation: the client's fetch, its unbind, a failed start, the stop. 'ended'
// makes one of them the one who drops that reference and withdraws the ID. Every other reference belongs to a
// thread that is in the operation; the last to leave frees it.
//
// Invariant: no reference is dropped under 'lock', since the release may free the mutex with the rest.
// Locks: 'lock', innermost. Threads: any. Restart: nothing stays.
#include <qel/base.h>
#include <qel/thread.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/qel_owned.hpp"
#include "net/qel_async.hpp"

namespace qel::async {
namespace {

// What a failed call of the thread library is reported as; the caller goes on.
template <FixedText Label, FixedText Format>
int checked(int error) {
    return error == 0 ? 0 : failed<Label, Format>(error, strerror(error));
}

int async_impl_mutex_init(pthread_mutex_t* mutex) {
    return checked<"ADERROR001", "ERROR: %s: mutex init failed, '%s'">(pthread_mutex_init(mutex, nullptr));
}
int async_impl_mutex_destroy(pthread_mutex_t* mutex) {
    return checked<"ADERROR002", "ERROR: %s: mutex destroy failed, '%s'">(pthread_mutex_destroy(mutex));
}
int async_impl_mutex_lock(pthread_mutex_t* mutex) {
    return checked<"ADERROR003", "ERROR: %s: mutex lock failed, '%s'">(pthread_mutex_lock(mutex));
}
int async_impl_mutex_unlock(pthread_mutex_t* mutex) {
    return checked<"ADERROR004", "ERROR: %s: mutex unlock failed, '%s'">(pthread_mutex_unlock(mutex));
}
int async_impl_condvar_init(pthread_cond_t* condition) {
    return checked<"ADERROR005", "ERROR: %s: condvar init failed, '%s'">(
        pthread_cond_init(condition, nullptr));
}
int async_impl_condvar_destroy(pthread_cond_t* condition) {
    return checked<"ADERROR006", "ERROR: %s: condvar destroy failed, '%s'">(pthread_cond_destroy(condition));
}
// One waiter is foreseen; whoever waits beside it is woken, too.
int async_impl_condvar_signal(pthread_cond_t* condition) {
    return checked<"ADERROR007", "ERROR: %s: condvar signal failed, '%s'">(pthread_cond_broadcast(condition));
}
int async_impl_condvar_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return checked<"ADERROR008", "ERROR: %s: condvar wait failed, '%s'">(
        qel_thread_cond_wait(condition, mutex));
}

// True for the one caller who is to drop the operation's own reference.
bool take_ending(Operation& operation) {
    return std::atomic_ref{operation.ended}.exchange(1) == 0;
}
bool has_ended(Operation& operation) {
    return std::atomic_ref{operation.ended}.load() != 0;
}

void qel_async_impl_free_ctx(Operation* operation) {
    static_cast<void>(async_impl_mutex_destroy(&operation->lock));    // reported there,
    static_cast<void>(async_impl_condvar_destroy(&operation->cond));  // and the memory goes in any case
    if (operation->destructor != nullptr) operation->destructor(operation, operation->destructor_arg);
    qel_named_free(operation);
}

// How many IDs are in use as text, or "?".
struct CountText {
    char text[20] = "?";
    CountText() {
        std::uint32_t count = 0;
        if (count_operations(count) == 0) std::snprintf(text, sizeof text, "%u", count);
    }
};

cerrno take_id(std::uint32_t pool, std::uint32_t opcode, Operation& operation) {
    const cerrno error = qel_idm_get_id(pool, &operation, &operation.op_id);
    if (error == 0) return 0;
    return failed<"ADERROR020", "ERROR: %s: Failed to allocate ID for operation %d, '%s', %s IDs used">(
        error, opcode, cerr_strerror(error), static_cast<const char*>(CountText{}.text));
}

constinit std::atomic<std::uint32_t> next_serial{0};

Operation* make_operation(std::uint32_t opcode, const qel_async_req& request) {
    Owned<Operation> made = allocate_zeroed<Operation>(QEL_MEM_ASYNC);
    if (!made) return nullptr;
    static_cast<void>(async_impl_mutex_init(&made->lock));    // reported there
    static_cast<void>(async_impl_condvar_init(&made->cond));  // reported there
    made->opcode = opcode;
    made->callback = request.callback;
    made->user_id = request.user_id;
    made->cookie = request.cookie;
    made->serial = next_serial.fetch_add(1, std::memory_order_relaxed);
    made->start = starts.load();
    return made.release();
}

Operation* retain(std::uint32_t op_id) {
    net::PoolPlace::Use use{id_pool};
    return static_cast<Operation*>(qel_idm_lookup_and_retain_id(use.pool, op_id));
}
Operation* retain_next(std::uint32_t& id) {
    net::PoolPlace::Use use{id_pool};
    return static_cast<Operation*>(qel_idm_lookup_next_and_retain(use.pool, id, &id));
}

// What of an operation is needed when it may be gone.
struct Name {
    explicit Name(const Operation& operation)
        : op_id(operation.op_id), opcode(operation.opcode), start(operation.start) {}
    std::uint32_t op_id;
    std::uint32_t opcode;
    std::uint8_t start;
};

// Gives a reference back by 'Release'. 0xa0000002 for one that the frame's stop didn't wait for.
template <auto Release>
cerrno give_back(const Name& name) {
    net::PoolPlace::Use use{id_pool};
    return name.start == starts.load() ? Release(use.pool, name.op_id) : fatal(ENOENT);
}
constexpr auto& release = give_back<qel_idm_release_id>;
constexpr auto& release_and_withdraw = give_back<qel_idm_release_and_withdraw_id>;

void retain_each(void (*visit)(Operation&, void*), void* context) {
    std::uint32_t id = 0;
    while (Operation* found = retain_next(id)) {
        const Name name{*found};
        visit(*found, context);
        if (cerrno error = release(name); error != 0)
            report<"ADERROR029", "ERROR: %s: OP ID 0x%x failed to be released, '%s'">(id,
                                                                                      cerr_strerror(error));
    }
}

// As if the operation had a result.
void wake(Operation& operation) {
    static_cast<void>(async_impl_mutex_lock(&operation.lock));  // reported there
    operation.state = kDone;
    qel_async_impl_signal_op(&operation);
    static_cast<void>(async_impl_mutex_unlock(&operation.lock));  // reported there
}

void end(Operation& operation) {
    if (operation.callback == nullptr)
        wake(operation);
    else
        static_cast<void>(qel_async_impl_discard_ctx(&operation));  // or somebody else has
}

struct Match {
    qel_async_match function;
    void* argument;
};

constexpr std::uint32_t kDrainAttempts = 400;
constexpr std::uint32_t kDrainPauseMs = 10;
constexpr std::uint32_t kLastAttempts = 100;

void rest() {
    const timespec span{0, kDrainPauseMs * 1'000'000};
    static_cast<void>(nanosleep(&span, nullptr));  // one that is cut short is made up for by the next
}

template <FixedText Format, class... Values>
void trace_drain(Values... values) {
    trace<"ADEVENT006", Format>(values...);
}

}  // namespace

void async_impl_request_destructor(void* object, void*) {
    auto* operation = static_cast<Operation*>(object);
    trace<"ADEVENT008", "%s: OP ID 0x%x opcode %d being freed">(operation->op_id, operation->opcode);
    qel_async_impl_free_ctx(operation);
}

void wait_until_done(Operation& operation) {
    while (operation.state != kDone)
        if (async_impl_condvar_wait(&operation.cond, &operation.lock) != 0) return;
}

void wake_all() {
    retain_each([](Operation& operation, void*) { wake(operation); }, nullptr);
}

void end_all() {
    retain_each(
        [](Operation& operation, void*) {
            wake(operation);
            static_cast<void>(qel_async_impl_discard_ctx(&operation));  // or somebody else has
        },
        nullptr);
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < kLastAttempts && count_operations(count) == 0 && count != 0; ++i) rest();
}

}  // namespace qel::async

using namespace qel;
using namespace qel::async;

cerrno qel_async_impl_create_ctx(uint32_t opcode, const qel_async_req* request, qel_async_future* future,
                                 qel_async_ctx** out) {
    if (request == nullptr || future == nullptr || out == nullptr) return fatal(EINVAL);
    // A stop waits for this, so that it finds the operation or this finds the stop.
    net::PoolPlace::Use use{id_pool};
    Operation* made = make_operation(opcode, *request);
    if (made == nullptr)
        return failed<"ADERROR019", "ERROR: %s: Failed to allocate async context, size %d">(
            fatal(ENOMEM), static_cast<std::uint32_t>(sizeof *made));
    const std::uint32_t pool = stopping.load() ? QEL_IDM_NO_POOL : use.pool;
    if (cerrno error = take_id(pool, opcode, *made); error != 0) {
        qel_async_impl_free_ctx(made);
        return error;
    }
    *future = {made->op_id, opcode, made->user_id, made->cookie};
    *out = made;
    return 0;
}

cerrno qel_async_impl_op_guard(uint32_t op_id, qel_async_ctx** out) {
    if (out == nullptr) return fatal(EINVAL);
    Operation* found = retain(op_id);
    if (found == nullptr)
        return failed<"ADERROR026", "ERROR: %s: Failed to guard operation ID 0x%x">(fatal(ENOENT), op_id);
    *out = found;
    return 0;
}

cerrno qel_async_impl_op_yield(qel_async_ctx* operation) {
    if (operation == nullptr) return fatal(EINVAL);
    const Name name{*operation};
    const cerrno error = release(name);
    if (error == 0) return 0;
    return failed<"ADERROR027", "ERROR: %s: Failed to yield operation ID 0x%x opcode %d, '%s'">(
        error, name.op_id, name.opcode, cerr_strerror(error));
}

int qel_async_impl_lock_op(qel_async_ctx* operation) {
    return operation == nullptr ? EINVAL : async_impl_mutex_lock(&operation->lock);
}

int qel_async_impl_unlock_op(qel_async_ctx* operation) {
    return operation == nullptr ? EINVAL : async_impl_mutex_unlock(&operation->lock);
}

void qel_async_impl_signal_op(qel_async_ctx* operation) {
    if (operation == nullptr) return;
    if (async_impl_condvar_signal(&operation->cond) == 0)
        trace<"ADEVENT010", "%s: OP ID 0x%x opcode %d signaled">(operation->op_id, operation->opcode);
}

cerrno qel_async_impl_retain_and_lock_ctx(uint32_t op_id, qel_async_ctx** out) {
    if (out == nullptr) return fatal(EINVAL);
    Operation* found = retain(op_id);
    if (found != nullptr) {
        static_cast<void>(async_impl_mutex_lock(&found->lock));  // reported there
        // Found before another thread's fetch withdrew it, and locked after.
        if (has_ended(*found)) {
            static_cast<void>(qel_async_impl_release_and_unlock_ctx(found));  // reported there
            found = nullptr;
        }
    }
    if (found == nullptr)
        return failed<"ADERROR022", "ERROR: %s: Failed to lookup op ID 0x%x">(fatal(ENOENT), op_id);
    *out = found;
    return 0;
}

cerrno qel_async_impl_release_and_unlock_ctx(qel_async_ctx* operation) {
    if (operation == nullptr) return fatal(EINVAL);
    const Name name{*operation};
    static_cast<void>(async_impl_mutex_unlock(&operation->lock));  // reported there
    const cerrno error = release(name);
    if (error == 0) return 0;
    return failed<"ADERROR023", "ERROR: %s: Failed to release operation ID 0x%x, '%s'">(error, name.op_id,
                                                                                        cerr_strerror(error));
}

void qel_async_impl_withdrawn_ctx(qel_async_ctx* operation) {
    if (operation == nullptr) return;
    const Name name{*operation};
    const bool ending = take_ending(*operation);
    static_cast<void>(async_impl_mutex_unlock(&operation->lock));  // reported there
    if (ending) {
        if (cerrno error = release_and_withdraw(name); error != 0)
            return report<"ADERROR024", "ERROR: %s: OP ID 0x%x failed to be withdrawn, '%s'">(
                name.op_id, cerr_strerror(error));
        trace<"ADEVENT009", "%s: OP ID 0x%x opcode %d withdrawn">(name.op_id, name.opcode);
    }
    if (cerrno error = release(name); error != 0)
        report<"ADERROR025", "ERROR: %s: OP ID 0x%x failed to be released, '%s'">(name.op_id,
                                                                                  cerr_strerror(error));
}

cerrno qel_async_impl_discard_ctx(qel_async_ctx* operation) {
    if (operation == nullptr) return fatal(EINVAL);
    const Name name{*operation};
    if (!take_ending(*operation)) return fatal(EBUSY);
    const cerrno error = release_and_withdraw(name);
    if (error == 0) return 0;
    return failed<"ADERROR028", "ERROR: %s: OP ID 0x%x failed to be withdrawn, '%s'">(error, name.op_id,
                                                                                      cerr_strerror(error));
}

void qel_async_impl_walk_and_cleanup(qel_async_match match, void* argument) {
    if (match == nullptr) return;
    Match given{match, argument};
    retain_each(
        [](Operation& operation, void* context) {
            const auto& wanted = *static_cast<Match*>(context);
            if (wanted.function(&operation, wanted.argument) != 0) end(operation);
        },
        &given);
}

void qel_async_impl_drain_ops(void) {
    std::uint32_t count = 0, sleeps = 0;
    for (std::uint32_t attempt = 1; attempt <= kDrainAttempts; ++attempt) {
        if (cerrno error = count_operations(count); error != 0) {
            report<"ADERROR018", "ERROR: %s: failed to get count from async ID pool 0x%x, %s">(
                id_pool.get(), cerr_strerror(error));
            break;
        }
        if (attempt == 1) trace_drain<"%s: async finishing, %d async ops remain">(count);
        if (count == 0) break;
        rest();
        ++sleeps;
    }
    trace_drain<"%s: async drained after %d retries every %dms, %d async ops remain">(sleeps, kDrainPauseMs,
                                                                                      count);
    retain_each(
        [](Operation& operation, void*) { trace<"ADEVENT999", "%s: OP ID 0x%x remains">(operation.op_id); },
        nullptr);
}
