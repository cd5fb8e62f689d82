// The frame of a network service: what lies between a client's call, a shim that does the work on some
// thread, and the client's callback. Written once; a family of services is a record of what differs.
//
//     struct Interfaces {                                     // a family
//         using Client = ...;                                 // a bind context behind a handle
//         static constexpr qel_tag_e kTag = QEL_MEM_INTF;     // of its jobs
//         static Retained<Client> retain(std::uint32_t handle);
//         static ClientJobs& jobs_of(Client& client);
//         static std::atomic<bool>& closing(Client& client);  // true once an unbind is at it
//         static cerrno withdraw(std::uint32_t handle);       // drops the binder's reference
//         static bool stops(const Client& client);            // true: no more callbacks
//         static bool& binding(Client& client);               // optional; true: callbacks wait for the bind
//         static void run(Client& client, Job& job);          // a job of the family's own types
//         static void drop(Job& job);                         // gives back what it holds, run or not
//         ...and a line for each text, see Line below
//     };
//     using Frame = net::Frame<Interfaces>;
//
// A result goes: provide() stores it under the operation's lock, once; then the waiter is woken, or a job
// goes into the client's queue, or without a dispatcher the callback runs here. A client's queue has one job
// of a dispatcher at most, which empties it: so callbacks of a client run in order, outside all locks.
//
// Locks: an operation's 'lock' and a client's 'jobs' mutex, never together, and none while application or
// shim code runs. Threads: any. Restart: nothing stays.
#pragma once

#include <qel/async.h>
#include <qel/dm.h>
#include <qel/queue.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "containers/qel_idm.hpp"
#include "core/qel_codes.hpp"
#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "trace/qel_report.hpp"

namespace qel::net {

using Operation = qel_async_ctx;

// A text with its label: an error goes to the library's error buffer, an event to the family's own, which
// 'Sink' gives, as a buffer() and a flag().
template <FixedText Label, FixedText Format>
struct ErrorLine {
    template <class... Values>
    static void say(Values... values) {
        report<Label, Format>(values...);
    }
};
template <class Sink, FixedText Label, FixedText Format>
struct EventLine {
    template <class... Values>
    static void say(Values... values) {
        ErrnoKept kept;
        write_line_under<Label, Format>(Sink::flag(), Sink::buffer(), values...);
    }
};

// What travels through a client's queue. A family's own jobs begin with it.
struct Job {
    void* link;            // of the queue; 0 when it is put there
    std::uint32_t type;    // kResultJob, or the family's
    std::uint32_t serial;  // of the operation: its ID may be another's by now
    void (*handler)();     // the client's callback
    union {
        qel_async_future future;  // of a result
        std::uint64_t words[3];   // of the family's own types
    };
};
inline constexpr std::uint32_t kResultJob = 0;
static_assert(sizeof(Job) == 48 && offsetof(Job, handler) == 16 && sizeof(qel_async_future) == 24);

// A client's jobs that wait for its dispatcher. All zeros are an empty queue.
struct ClientJobs {
    qel_queue queue;
    Mutex mutex;
};

// An operation that a thread is about to work on.
class Guarded {
  public:
    explicit Guarded(std::uint32_t op_id) : error_(qel_async_impl_op_guard(op_id, &operation_)) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() noexcept(false) {
        if (error_ == 0) static_cast<void>(qel_async_impl_op_yield(operation_));  // reported there
    }
    cerrno error() const { return error_; }
    Operation& operator*() const { return *operation_; }

  private:
    Operation* operation_ = nullptr;
    cerrno error_;
};

// An operation that a client asks for.
struct Order {
    std::uint32_t client;      // its handle
    qel_dm_handle dispatcher;  // the client's, or 0
    void* shim;                // the shim's record that will serve it
    std::uint32_t opcode;
    const qel_async_req* request;
    qel_async_future* future;
};

template <class Family>
class Frame {
  public:
    using Client = typename Family::Client;

    // --- To the client

    // Hands 'job' to the client 'handle', to run on 'dispatcher'. On failure it is still the caller's.
    static cerrno submit(std::uint32_t handle, qel_dm_handle dispatcher, Job& job) {
        Retained<Client> client = Family::retain(handle);
        if (!client) {
            Family::NoClient::say(handle, job.type, cerr_strerror(fatal(EINVAL)));
            return fatal(EINVAL);
        }
        return enqueue(*client, handle, dispatcher, job);
    }

    // The same for a client that is held; 'Lines' are the texts of another occasion.
    template <class Lines = Family>
    static cerrno enqueue(Client& client, std::uint32_t handle, qel_dm_handle dispatcher, Job& job) {
        ClientJobs& jobs = Family::jobs_of(client);
        Locked lock{jobs.mutex};
        const bool was_empty = qel_queue_empty(&jobs.queue) != 0;
        qel_queue_enqueue(&jobs.queue, &job);
        if (is_binding(client)) return 0;
        // A dispatcher that has gone since takes nothing any more, and its jobs stay in the queue unseen.
        int error = was_empty || qel_dm_is_handle(dispatcher) != 0 ? 0 : EINVAL;
        if (was_empty) error = schedule<Lines>(jobs, handle, dispatcher);
        if (error == 0) return 0;
        say_dropped<Lines>(jobs, handle, dispatcher, error);
        static_cast<void>(qel_queue_unqueue(&jobs.queue, &job));
        return fatal(error);
    }

    // Ends a client's bind: what came for it meanwhile goes to its dispatcher.
    static void end_binding(Client& client, std::uint32_t handle, qel_dm_handle dispatcher) {
        bool dropped = false;
        {
            ClientJobs& jobs = Family::jobs_of(client);
            Locked lock{jobs.mutex};
            Family::binding(client) = false;
            if (qel_queue_empty(&jobs.queue) != 0) return;
            const int error = schedule<Family>(jobs, handle, dispatcher);
            dropped = error != 0;
            if (dropped) say_dropped<Family>(jobs, handle, dispatcher, error);
        }
        if (dropped) drain(client);
    }

    // Drops all that waits in the client's queue; the operations of results end.
    static void drain(Client& client) {
        std::uint32_t count = 0;
        qel_queue dropped{};
        {
            ClientJobs& jobs = Family::jobs_of(client);
            Locked lock{jobs.mutex};
            std::swap(dropped, jobs.queue);
        }
        while (auto* job = static_cast<Job*>(qel_queue_dequeue(&dropped))) {
            Owned<Job> owned{job};
            if (job->type == kResultJob)
                end_undelivered(*job);
            else
                Family::drop(*job);
            ++count;
        }
        Family::Drained::say(count);
    }

    // --- Results

    // Stores the result of 'operation', which the caller holds a guard of: store(operation) runs under its
    // lock, for the first report only. Then tells the client.
    template <class Store>
    static cerrno provide(Operation& operation, Store store) {
        static_cast<void>(qel_async_impl_lock_op(&operation));  // reported there
        if (operation.state != 0) {
            Family::AlreadyProvided::say(operation.op_id, operation.opcode);
            static_cast<void>(qel_async_impl_unlock_op(&operation));
            return fatal(EALREADY);
        }
        // Discarded while the shim was at it, or meant is an earlier one of this ID.
        if (std::atomic_ref{operation.ended}.load() != 0 || std::atomic_ref{operation.begun}.load() == 0) {
            static_cast<void>(qel_async_impl_unlock_op(&operation));
            return fatal(ENOENT);
        }
        store(operation);
        if (operation.native_sync == 0) Family::say_ended(operation);
        operation.state = 1;
        if (operation.callback == nullptr) {
            qel_async_impl_signal_op(&operation);
            static_cast<void>(qel_async_impl_unlock_op(&operation));
            return 0;
        }
        return operation.client_qdm == 0 ? call_back_here(operation) : call_back_there(operation);
    }

    // What every fetch begins with: gives the operation of 'future' retained and locked if it is one of
    // 'opcode' with a result.
    static cerrno get_result_pre(const qel_async_future& future, std::uint32_t opcode, Operation** out) {
        Operation* operation = nullptr;
        if (cerrno error = qel_async_impl_retain_and_lock_ctx(future.op_id, &operation); error != 0) {
            Family::NoOperation::say(future.op_id, future.opcode, cerr_strerror(error));
            return error;
        }
        cerrno error = 0;
        if (future.opcode != opcode || operation->opcode != opcode) {
            Family::WrongOpcode::say(future.op_id, future.opcode, opcode);
            error = fatal(ENOMSG);
        } else if (operation->state != 1) {
            Family::NoResultYet::say(future.op_id, opcode);
            error = warning(EAGAIN);
        }
        if (error == 0)
            *out = operation;
        else
            static_cast<void>(qel_async_impl_release_and_unlock_ctx(operation));  // reported there
        return error;
    }

    // --- Operations

    // Makes an operation of a client that is held, and gives it to its shim. prepare(operation) hangs the
    // arguments on it; then async(operation) is called, which tells whether a result will come, if the shim
    // has such a handler, else 'sync' gets 'argument' on the thread for synchronous handlers. On failure the
    // operation has ended.
    template <class Prepare, class Async>
    static cerrno start(Client& client, const Order& order, Prepare prepare, bool has_async, Async async,
                        qel_async_handler sync, void* argument) {
        Operation* operation = nullptr;
        if (cerrno error = qel_async_impl_create_ctx(order.opcode, order.request, order.future, &operation);
            error != 0)
            return error;
        // Until the operation has its client nothing but a stop of all ends it; from then on it may be gone.
        Guarded guard{order.future->op_id};
        if (guard.error() != 0) return guard.error();
        if (&*guard != operation) return fatal(ENOENT);  // of the frame's next start
        adopt(*operation, order);
        // An unbind that came before this looked for operations too early to find this one.
        cerrno error = Family::closing(client).load() ? fatal(EINVAL) : prepare(*operation);
        if (error == 0) error = hand_over(*operation, has_async, async, sync, argument);
        if (error != 0) static_cast<void>(qel_async_impl_discard_ctx(operation));  // or the unbind has
        return error;
    }

    // Ends the client 'handle': of several calls at once one does it. 'cleanup' is the family's part, with
    // the handle withdrawn. 0; 0xa0000016 for an unknown client; 0xa0000010 when another call is at it.
    template <class Cleanup>
    static cerrno unbind(std::uint32_t handle, Cleanup cleanup) {
        Retained<Client> client = Family::retain(handle);
        if (!client) return fatal(EINVAL);
        if (Family::closing(*client).exchange(true)) return fatal(EBUSY);
        if (cerrno error = Family::withdraw(handle); error != 0) return error;
        cleanup(*client);
        drain(*client);
        cleanup_operations(handle);
        return 0;
    }

    // Ends the operations of a client that is gone, or that has lost its shim.
    static void cleanup_operations(std::uint32_t handle) {
        qel_async_impl_walk_and_cleanup(is_of_client, &handle);
    }

  private:
    static bool is_binding(Client& client) {
        if constexpr (requires { Family::binding(client); })
            return Family::binding(client);
        else
            return false;
    }

    // Has the dispatcher empty the queue, which is locked.
    template <class Lines>
    static int schedule(const ClientJobs& jobs, std::uint32_t handle, qel_dm_handle dispatcher) {
        Lines::Dispatching::say(dispatcher, static_cast<std::uint32_t>(jobs.queue.count));
        return qel_dm_execute(dispatcher, dispatch, handle, 0);
    }
    template <class Lines>
    static void say_dropped(const ClientJobs& jobs, std::uint32_t handle, qel_dm_handle dispatcher,
                            int error) {
        Lines::Dropped::say(handle, dispatcher, static_cast<std::uint32_t>(jobs.queue.count),
                            cerr_strerror(static_cast<cerrno>(error)));
    }

    static int is_of_client(const Operation* operation, void* handle) {
        const std::uint32_t client =
            std::atomic_ref{const_cast<std::uint32_t&>(operation->client_handle)}.load();
        if (client != *static_cast<std::uint32_t*>(handle)) return 0;
        Family::Discarded::say(operation->op_id, operation->opcode, client);
        return 1;
    }

    // What a waiter finds if the operation ends without a result is in 'op_status' from here on.
    static void adopt(Operation& operation, const Order& order) {
        operation.client_qdm = order.dispatcher;
        operation.shim = order.shim;
        operation.op_status = fatal(ENOENT);
        std::atomic_ref{operation.client_handle}.store(order.client);
    }

    template <class Async>
    static cerrno hand_over(Operation& operation, bool has_async, Async async, qel_async_handler sync,
                            void* argument) {
        std::atomic_ref{operation.begun}.store(1);
        if (has_async) {
            Family::say_async_starting(operation);
            return async(operation);
        }
        if (sync == nullptr) return fatal(EOPNOTSUPP);
        Family::say_sync_starting(operation);
        return qel_async_impl_submit(&operation, Family::after_sync, sync, argument);
    }

    static Job* next_job(Client& client) {
        if (Family::stops(client)) return nullptr;
        ClientJobs& jobs = Family::jobs_of(client);
        Locked lock{jobs.mutex};
        return static_cast<Job*>(qel_queue_dequeue(&jobs.queue));
    }

    static void dispatch(qel_dm_handle dispatcher, std::uint64_t data, std::uint64_t) {
        const auto handle = static_cast<std::uint32_t>(data);
        Retained<Client> client = Family::retain(handle);
        if (!client) return;
        // A callback may end its thread; who submits next trusts that somebody is at the queue.
        Undo left{[&client, dispatcher, handle] {
            ClientJobs& jobs = Family::jobs_of(*client);
            Locked lock{jobs.mutex};
            if (qel_queue_empty(&jobs.queue) == 0)
                static_cast<void>(schedule<Family>(jobs, handle, dispatcher));  // else the unbind drains it
        }};
        while (Job* job = next_job(*client)) {
            Owned<Job> owned{job};
            if (job->type == kResultJob) {
                call_back(*job);
                continue;
            }
            Undo dropped{[job] { Family::drop(*job); }};
            Family::run(*client, *job);
        }
        left.keep();
    }

    static void call_back(const Job& job) { reinterpret_cast<qel_async_callback>(job.handler)(&job.future); }

    static void fill(Job& job, const Operation& operation) {
        job.type = kResultJob;
        job.serial = operation.serial;
        job.handler = reinterpret_cast<void (*)()>(operation.callback);
        job.future = {operation.op_id, operation.opcode, operation.user_id, operation.cookie};
    }

    // The operation is locked, and may be gone once it isn't.
    static cerrno call_back_here(Operation& operation) {
        Job job{};
        fill(job, operation);
        static_cast<void>(qel_async_impl_unlock_op(&operation));  // reported there
        call_back(job);
        return 0;
    }

    static cerrno call_back_there(Operation& operation) {
        Owned<Job> job = allocate_zeroed<Job>(Family::kTag);
        const std::uint32_t handle = operation.client_handle;
        const qel_dm_handle dispatcher = operation.client_qdm;
        if (job) fill(*job, operation);
        static_cast<void>(qel_async_impl_unlock_op(&operation));  // reported there
        if (!job) {
            Family::NoMemoryForJob::say(static_cast<std::uint32_t>(sizeof(Job)));
            static_cast<void>(qel_async_impl_discard_ctx(&operation));  // reported there
            return fatal(ENOMEM);
        }
        const qel_async_future future = job->future;
        const cerrno error = submit(handle, dispatcher, *job);
        if (error == 0) {
            static_cast<void>(job.release());  // the queue's now
            return 0;
        }
        Family::say_submit_failed(handle, future, error);
        static_cast<void>(qel_async_impl_discard_ctx(&operation));  // reported there
        return error;
    }

    // Ends the operation of a result that its client will not see.
    static void end_undelivered(const Job& job) {
        Operation* operation = nullptr;
        cerrno error = qel_async_impl_retain_and_lock_ctx(job.future.op_id, &operation);
        if (error == 0 && operation->serial == job.serial) return qel_async_impl_withdrawn_ctx(operation);
        if (error == 0) {
            static_cast<void>(qel_async_impl_release_and_unlock_ctx(operation));  // reported there
            error = fatal(ENOENT);
        }
        Family::say_gone(job.future, error);
    }
};

}  // namespace qel::net
