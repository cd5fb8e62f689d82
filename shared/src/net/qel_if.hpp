// The interface service inside: its clients and registrations, its reports, and its place in the frame.
//
//     qel_if_client.cpp     bind and unbind, the ends of clients
//     qel_if_shim.cpp       the table of shims, and a client's records of them
//     qel_if_attr.cpp       reads of one interface, qel_if_bulk.cpp those of many
//     qel_if_event.cpp      registrations, filters, delivery; qel_if_report.cpp what shims report
//     qel_if_cfg.cpp        requests that change interfaces
//     qel_if_ctx_db.cpp     what applications hang on interfaces
//     qel_if_lnx*.cpp       the shim of the library, and the iterators over its links
#pragma once

#include <qel/if.h>
#include <qel/if_event.h>
#include <qel/if_layer.h>
#include <qel/if_shim.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "net/qel_net_frame.hpp"
#include "net/qel_net_pool.hpp"
#include "net/qel_net_report.hpp"

// A client. What a bind sets doesn't change after it, and is read without a lock.
struct qel_if_client {
    std::uint32_t handle;
    const char* name;
    qel_if_bind_attr attr;  // a copy; its 'scope' points to a word of the client's own
    qel::net::ClientJobs if_client_event;
    // Null where the client has no shim, and until that has bound it.
    std::atomic<qel_if_shim_client*> shim_ctx[QEL_IF_SHIM_SLOTS];
    std::atomic<bool> closing;  // it is being bound, or an unbind is at it
    bool binding;               // callbacks wait for the bind's end; guarded by the mutex of its jobs
};

// A client's registration for events.
//
// It is made in steps: it gets its handle, is its client's, the shims hear of it, and it is live. Whoever
// ends it, once it is its client's, sets 'ending'; the shims are told by the one of the two that comes
// second.
struct qel_if_reg {
    enum State : std::uint32_t { making, live, ending };

    std::uint32_t handle;
    std::uint32_t serial;  // another one for each registration of a handle
    std::atomic<std::uint32_t> app_handle;
    qel_if_event_cb_vector vector;
    qel_if_event_filter* filter;
    std::uint64_t cookie;
    qel_if_shim_reg* shim_reg[QEL_IF_SHIM_SLOTS];
    std::atomic<std::uint32_t> state;
};

namespace qel::interfaces {

using Client = qel_if_client;
using Registration = qel_if_reg;

// --- Reports

struct IfTrace {
    static qel_dt_buffer_handle buffer();
    static qel_dt_flag* flag();
};

template <FixedText Label, FixedText Format, class... Values>
void if_event(Values... values) {
    net::EventLine<IfTrace, Label, Format>::say(values...);
}
// The same for texts that are written only when the application asked for more.
template <FixedText Label, FixedText Format, class... Values>
void if_detail(Values... values) {
    if (std::atomic_ref{qel_if_trace_level}.load(std::memory_order_relaxed) > 0)
        if_event<Label, Format>(values...);
}

// A callback as "%p" takes it.
template <class Function>
const void* address_of(Function* function) {
    return reinterpret_cast<const void*>(function);
}

// A label in quote marks, as some texts have it.
template <FixedText Label>
consteval auto quoted() {
    return joined<"\"", Label, "\"">();
}

using net::invalid_arguments;
using net::invalid_client;
template <FixedText Label>
cerrno invalid_interface(std::uint64_t ifh) {
    return failed<Label, "ERROR: %s: invalid if handle, ifh=0x%x">(fatal(EINVAL),
                                                                   static_cast<std::uint32_t>(ifh));
}
template <FixedText Label>
cerrno no_memory() {
    return net::no_memory<quoted<Label>()>();
}
template <FixedText Label>
cerrno unexpected_code(cerrno code) {
    return net::unexpected_code<quoted<Label>()>(code);
}
template <FixedText Label>
cerrno unexpected_shim_code(std::uint32_t shim, cerrno code) {
    return failed<quoted<Label>(), "ERROR: %s: shim=%d, unexpected return code, rc=%d (%s)">(
        code, shim, code, cerr_strerror(code));
}
template <FixedText Label>
cerrno unsupported(std::uint32_t shim, std::uint32_t app) {
    return failed<Label, "ERROR: %s: shim=%d, unsupported functionality called, apph=0x%x">(fatal(EOPNOTSUPP),
                                                                                            shim, app);
}

// --- Clients

// Guards making and taking down of the pools, and the context databases.
extern constinit Mutex if_gbl_mutex;

// The clients, and their registrations for events.
extern constinit net::HandlePool app_id_pool;
extern constinit net::HandlePool reg_id_pool;

// The shape of a pool with 'PerBind' IDs for each client that there may be.
std::uint32_t max_binds();
void say_creating_pool(const char* name, std::uint32_t ids);
cerrno failed_in_pool(cerrno error);
template <std::uint32_t PerBind>
constexpr net::HandlePool::Shape pool_shape(const char* name, int no_randomize,
                                            void (*free)(void* object, void*)) {
    auto ids = [] { return std::uint64_t{max_binds()} * PerBind; };
    return {name, &if_gbl_mutex, ids, no_randomize, free, say_creating_pool, failed_in_pool};
}

constexpr std::uint32_t kMaxJobs = 128;  // of a client's queue, which doesn't enforce it

// The client of a handle; an unknown one is reported.
template <FixedText Label>
Retained<Client> retain_client(std::uint32_t app) {
    Retained<Client> client = app_id_pool.retain<Client>(app);
    if (!client) invalid_client<Label>(app);
    return client;
}

// True once an unbind has taken the client's handle away.
bool is_gone(std::uint32_t app);

// Ends what hangs off a client: its registrations, what waits for its dispatcher, its operations.
void cleanup_client(Client& client);

// --- Shims

constexpr std::uint32_t kShimMagic = 0x5380C6AB;
constexpr int kShimShift = 61;

constexpr std::uint32_t shim_of(std::uint64_t ifh) {
    return static_cast<std::uint32_t>(ifh >> kShimShift);
}

// Makes sure that slot 0 has a shim; the error of an earlier registration fails it.
cerrno register_shims();
// Frees slot 0.
void deregister_shims();

// Binds a client to all shims. After a failure destroy_shims() is still to come, when nobody uses the client.
cerrno bind_shims(Client& client);
// Tells a client's shims that it is gone.
void destroy_shims(Client& client);

// Tells the shims of a registration: all, or the one that its filter names.
cerrno register_at_shims(Client& client, Registration& registration);
cerrno deregister_at_shims(Client& client, Registration& registration);

// True if a shim is registered in the slot.
bool has_shim(std::uint32_t id);

// The handler of the client's shim 'id' that 'Handler' points to, or null.
template <auto Handler>
auto handler_of(const Client& client, std::uint32_t id) {
    const qel_if_shim_client* shim = client.shim_ctx[id];
    return shim == nullptr ? nullptr : shim->handlers.*Handler;
}

// --- Events

struct Event {
    std::uint32_t cbid;
    qel_if_event_cb callback;
    const void* object;
    std::uint64_t object_size;
    const void* value;  // null with a size of 0
    std::uint64_t value_size;
};

constexpr std::uint32_t kEventJob = 1;   // of an interface, dropped when its registration has gone
constexpr std::uint32_t kStatusJob = 2;  // of a binding
constexpr std::uint32_t kReportJob = 3;  // of anything, delivered to who was registered

// A job with copies of what 'event' points to, or nothing without memory. Its 'words' are: the cookie; the
// registration's handle and the event; the sizes of the copies.
Owned<net::Job> make_event_job(std::uint32_t type, const Registration& registration, const Event& event);
void run_event_job(net::Job& job);

// Calls the callback in the form that the event has.
void dispatch_event(const Event& event, std::uint64_t cookie);

// Ends all registrations of a client.
void end_registrations(Client& client);

// The event of an attribute's change, or QEL_IF_EVENT_COUNT.
std::uint32_t event_of_attribute(std::uint32_t attr);

// --- The frame's family

struct Family {
    using Client = qel_if_client;
    static constexpr qel_tag_e kTag = QEL_MEM_INTF;

    static Retained<Client> retain(std::uint32_t app) { return app_id_pool.retain<Client>(app); }
    static net::ClientJobs& jobs_of(Client& client) { return client.if_client_event; }
    static std::atomic<bool>& closing(Client& client) { return client.closing; }
    static cerrno withdraw(std::uint32_t app) { return app_id_pool.release_and_withdraw(app); }
    static bool stops(const Client& client) { return is_gone(client.handle); }
    static void run(Client& client, net::Job& job);
    static void drop(net::Job&) {}
    static bool& binding(Client& client) { return client.binding; }

    static void say_async_starting(const net::Operation& operation);
    static void say_sync_starting(const net::Operation& operation);
    static void say_ended(const net::Operation& operation);
    static void say_submit_failed(std::uint32_t app, const qel_async_future& future, cerrno error);
    static void say_gone(const qel_async_future& future, cerrno error);
    static void after_sync(qel_async_ctx* operation);

    using NoClient =
        net::ErrorLine<"IFERROR010", "ERROR: %s: No client bind ctx for 0x%x, job id 0x%X: '%s'">;
    using Drained = net::EventLine<IfTrace, "IFEVENT010", "%s: drained client queue: %d">;
    using AlreadyProvided =
        net::ErrorLine<"IFERROR011", "ERROR: %s: Result for operation ID 0x%x opcode %d already provided">;
    using NoOperation = net::ErrorLine<"IFERROR012", "ERROR: %s: Failed to get OP ID 0x%x opcode %d, '%s'">;
    using WrongOpcode =
        net::ErrorLine<"IFERROR013", "ERROR: %s: OP ID 0x%x opcode %d, result requested for wrong opcode %d">;
    using NoResultYet =
        net::ErrorLine<"IFERROR014", "ERROR: %s: OP ID 0x%x opcode %d, result not available yet">;
    using Discarded =
        net::EventLine<IfTrace, "IFEVENT011",
                       "%s: OP ID 0x%x opcode %d discarded during cleanup of client handle 0x%x">;
    using Dispatching = net::EventLine<IfTrace, "IFEVENT012", "%s: qdm dispatching, qdm=%p, numjobs=%d">;
    using Dropped =
        net::ErrorLine<"IFERROR015", "ERROR: %s: dropped event apph 0x%x, qdm=%p, numjobs=%d: %s">;
    using NoMemoryForJob = net::ErrorLine<"IFERROR016", "ERROR: %s: Failed to allocate job size %d">;
};
using Frame = net::Frame<Family>;

}  // namespace qel::interfaces
