// Requests that change interfaces, ask for their configuration, or create them.
//
// The three kinds differ in their records and texts, which a kind is; everything else is written once. The
// result of an operation lies in one block: the record that shim and client know, the counts of the service's
// own, a slot a request, the entries. The block hangs on the operation and goes with it, however that ends.
// What the client brings to the fetch is trusted for its pointers, not for its counts.
//
// Locks: an operation's while its result is copied. Threads: synchronous handlers run on "QEL Sync QDM".
#include "net/qel_if_cfg.hpp"

#include <qel/base.h>
#include <qel/if_cfg.h>
#include <qel/if_shim.h>
#include <qel/netinfra.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/qel_owned.hpp"

namespace qel::interfaces {
namespace {

using Entry = qel_if_cfg_attr_result;
using Handlers = qel_if_shim_handlers;
static_assert(sizeof(Entry) == 16);

// --- The kinds

struct Configure {
    using Set = qel_if_cfg_req_attr;
    using Request = qel_if_cfg_req;
    using Result = qel_if_cfg_res_attr;
    using Slot = Entry*;
    static constexpr std::uint32_t kOpcode = QEL_IF_OPCODE_CFG;
    static constexpr auto kSync = &Handlers::cfg_sync;
    static constexpr auto kAsync = &Handlers::cfg_async;
    static constexpr char kSyncName[] = "if_cfg.sync", kAsyncName[] = "if_cfg.async";
    static constexpr FixedText kNotInitialised =
        "ERROR: %s: qel_if_cfg_req_init() was not called for cfg_req->requests[%zd]";
    static constexpr FixedText kRefused = "ERROR: %s: create res_attr lock failed: %s";
    static constexpr FixedText kFailed =
        "ERROR: %s: underlying OS call was unsucessful during call of qel_if_cfg_async()";

    static Request* requests(const Set& set) { return set.requests; }
    static Result result(const Set& set, Slot* slots) {
        return {set.num_requests, set.option, set.requests, slots};
    }
    static std::uint64_t entries(const Request& request) { return request.num_attrs; }
    static void fill(Slot& slot, const Request&, Entry* entries) { slot = entries; }
    static bool copy(const Slot& from, Slot& to, std::uint64_t count) {
        if (from == nullptr || to == nullptr) return false;
        std::copy_n(from, count, to);
        return true;
    }
};

struct Query {
    using Set = qel_if_cfg_query_req_attr;
    using Request = qel_if_cfg_query_req;
    using Result = qel_if_cfg_query_res_attr;
    using Slot = qel_if_cfg_answer;
    static constexpr std::uint32_t kOpcode = QEL_IF_OPCODE_CFG_QUERY;
    static constexpr auto kSync = &Handlers::cfg_query_sync;
    static constexpr auto kAsync = &Handlers::cfg_query_async;
    static constexpr char kSyncName[] = "shim_cfg_query.sync", kAsyncName[] = "shim_cfg_query.async";
    static constexpr FixedText kNotInitialised =
        "ERROR: %s: qel_if_cfg_query_req_init() was not called for cfg_query_req->requests[%zd]";
    static constexpr FixedText kRefused = "ERROR: %s: create quer_res_attr lock failed: %s";
    static constexpr FixedText kFailed =
        "ERROR: %s: underlying OS call was unsucessful during call of qel_if_cfg_query_async()";

    static Request* requests(const Set& set) { return set.requests; }
    static Result result(const Set& set, Slot* slots) { return {set.num_requests, set.requests, slots}; }
    static std::uint64_t entries(const Request& request) { return request.num_attrs; }
    static void fill(Slot& slot, const Request& request, Entry* entries) { slot = {entries, request.last}; }
    static bool copy(const Slot& from, Slot& to, std::uint64_t count) {
        to.word = from.word;
        return Configure::copy(from.attrs, to.attrs, count);
    }
};

struct Interface {
    using Set = qel_if_cfg_interface_req_attr;
    using Request = qel_if_cfg_intf_req;
    using Result = qel_if_cfg_interface_res_attr;
    using Slot = Entry;
    static constexpr std::uint32_t kOpcode = QEL_IF_OPCODE_CFG_INTERFACE;
    static constexpr auto kSync = &Handlers::cfg_intf_sync;
    static constexpr auto kAsync = &Handlers::cfg_intf_async;
    static constexpr char kSyncName[] = "shim_cfg_intf.sync", kAsyncName[] = "shim_cfg_intf.async";
    static constexpr FixedText kNotInitialised =
        "ERROR: %s: qel_if_cfg_intf_req_init() was not called for cfg_intf_req->interface_requests[%zd]";
    static constexpr FixedText kRefused = "ERROR: %s: create res_attr lock failed: %s";
    static constexpr FixedText kFailed =
        "ERROR: %s: underlying OS call was unsucessful during call of qel_if_cfg_interface_async()";

    static Request* requests(const Set& set) { return set.interface_requests; }
    static Result result(const Set& set, Slot* slots) {
        return {set.num_requests, set.option, set.interface_requests, slots};
    }
    static std::uint64_t entries(const Request&) { return 0; }  // the slot is the entry
    static void fill(Slot&, const Request&, Entry*) {}
    static bool copy(const Slot& from, Slot& to, std::uint64_t) {
        to = from;
        return true;
    }
};

// --- The block of a result

// Followed by a count of entries and a slot for each request, then the entries of all.
template <class Kind>
struct Block {
    typename Kind::Result result;  // what the shim gets
    const typename Kind::Request* requests;
    std::uint64_t num_requests;

    std::uint64_t* counts() { return reinterpret_cast<std::uint64_t*>(this + 1); }
    auto* slots() { return reinterpret_cast<typename Kind::Slot*>(counts() + num_requests); }
    Entry* entries() { return reinterpret_cast<Entry*>(slots() + num_requests); }
};

// The bytes of a block; false when that is no number.
template <class Kind>
bool size_of_block(const typename Kind::Set& set, std::size_t& size) {
    std::size_t entries = 0, of_requests = 0;
    for (std::uint64_t i = 0; i < set.num_requests; ++i)
        if (__builtin_add_overflow(entries, Kind::entries(Kind::requests(set)[i]), &entries)) return false;
    constexpr std::size_t kOfRequest = sizeof(std::uint64_t) + sizeof(typename Kind::Slot);
    return !__builtin_mul_overflow(entries, sizeof(Entry), &size) &&
           !__builtin_mul_overflow(set.num_requests, kOfRequest, &of_requests) &&
           !__builtin_add_overflow(size, of_requests, &size) &&
           !__builtin_add_overflow(size, sizeof(Block<Kind>), &size);
}

template <class Kind>
void fill_block(Block<Kind>& block, const typename Kind::Set& set) {
    block.requests = Kind::requests(set);
    block.num_requests = set.num_requests;
    block.result = Kind::result(set, block.slots());
    Entry* entries = block.entries();
    for (std::uint64_t i = 0; i < set.num_requests; ++i) {
        const auto& request = Kind::requests(set)[i];
        block.counts()[i] = Kind::entries(request);
        Kind::fill(block.slots()[i], request, entries);
        entries += block.counts()[i];
    }
}

template <class Kind>
Owned<Block<Kind>> create_res_attr(const typename Kind::Set& set) {
    std::size_t size = 0;
    Owned<std::byte> bytes;
    if (size_of_block<Kind>(set, size)) bytes = allocate_zeroed<std::byte>(QEL_MEM_INTF, size);
    if (!bytes) {
        report<"IFERROR220", "ERROR: %s: %d:%s()">(__LINE__, __func__);
        return {};
    }
    Owned<Block<Kind>> block{reinterpret_cast<Block<Kind>*>(bytes.release())};
    fill_block(*block, set);
    return block;
}

// Copies what the shim made of it to the client's record: false where an array is missing.
template <class Kind>
bool copy_res_attr(Block<Kind>& from, typename Kind::Result& to) {
    const auto* slots = from.result.results;
    if (slots == nullptr || to.results == nullptr) return false;
    auto* results = to.results;
    for (std::uint64_t i = 0; i < from.num_requests; ++i) {
        const std::uint64_t count = std::min(from.counts()[i], Kind::entries(from.requests[i]));
        if (!Kind::copy(slots[i], results[i], count)) return false;
    }
    to = from.result;
    to.results = results;
    return true;
}

// The block hangs on the operation as its service area's first word.
template <class Kind>
Block<Kind>* block_of(const net::Operation& operation) {
    return reinterpret_cast<Block<Kind>*>(operation.service[0]);
}

template <class Kind>
void free_res_attr(qel_async_ctx* operation, void*) {
    Owned<Block<Kind>> block{block_of<Kind>(*operation)};
}

// --- Handlers

void trace_shim_handler_pre(std::uint32_t op_id, const char* handler, const qel_if_shim_client& shim) {
    if_event<"IFEVENT220", "%s: OP ID 0x%x handler '%s' app_name '%s' shim %d starting">(
        op_id, handler, shim.info->name, shim.id);
}

void trace_shim_handler_post(std::uint32_t op_id, const char* handler, const qel_if_shim_client& shim,
                             cerrno status) {
    if (status == 0)
        if_event<"IFEVENT221", "%s: OP ID 0x%x handler '%s' app_name '%s' shim %d ended, status 'success'">(
            op_id, handler, shim.info->name, shim.id);
    else
        report<"IFERROR221", "ERROR: %s: OP ID 0x%x handler '%s' app_name '%s' shim %d ended, status '%s'">(
            op_id, handler, shim.info->name, shim.id, cerr_strerror(status));
}

// Calls the handler between its two lines.
template <class Call>
cerrno call_handler(std::uint32_t op_id, const char* handler, const qel_if_shim_client& shim, Call call) {
    trace_shim_handler_pre(op_id, handler, shim);
    const cerrno status = call();
    trace_shim_handler_post(op_id, handler, shim, status);
    return status;
}

void report_error_result(net::Operation& operation, cerrno error) {
    static_cast<void>(provide_result(operation, [error](net::Operation& locked) {  // reported there
        locked.internal_status = error;
        locked.op_status = 0;
    }));
}

// Runs a synchronous handler, on the thread for these.
template <class Kind>
void native_sync(qel_async_ctx* operation, void*) {
    cerrno status = fatal(EINVAL);
    {
        Retained<Client> client = retain_client<"IFERROR222">(operation->client_handle);
        if (!client) return;
        const auto& shim = *static_cast<const qel_if_shim_client*>(operation->shim);
        if (shim.magic != kShimMagic) return report_error_result(*operation, status);
        status = call_handler(operation->op_id, Kind::kSyncName, shim, [&] {
            return (shim.handlers.*Kind::kSync)(shim.info, &block_of<Kind>(*operation)->result);
        });
    }
    static_cast<void>(qel_if_shim_report_cfg_result(operation, status));  // reported there
}

// --- Start

template <class Kind>
cerrno check_requests(const typename Kind::Set& set) {
    if (set.magic != QEL_IF_MAGIC)
        return failed<"IFERROR223", "ERROR: %s: invalid arguments">(fatal(EBADMSG));
    if (set.num_requests == 0) return failed<"IFERROR224", "ERROR: %s: No requests">(fatal(EINVAL));
    if (Kind::requests(set) == nullptr) return invalid_arguments<"IFERROR225">();
    for (std::uint64_t i = 0; i < set.num_requests; ++i)
        if (Kind::requests(set)[i].magic != QEL_IF_MAGIC)
            return failed<"IFERROR226", Kind::kNotInitialised>(fatal(EBADMSG), static_cast<std::uint32_t>(i));
    return 0;
}

// Requests go to the shim in slot 0.
template <class Kind>
cerrno start(Client& client, const typename Kind::Set& set, const qel_async_req& request,
             qel_async_future& future) {
    qel_if_shim_client* shim = client.shim_ctx[0];
    if (shim == nullptr || shim->info == nullptr) return unexpected_shim_code<"IFERROR227">(0, fatal(EINVAL));
    const auto async = shim->handlers.*Kind::kAsync;
    const bool has_sync = shim->handlers.*Kind::kSync != nullptr;
    const net::Order order{client.handle, client.attr.qdm, shim, Kind::kOpcode, &request, &future};
    auto prepare = [&](net::Operation& operation) {
        Owned<Block<Kind>> block = create_res_attr<Kind>(set);
        if (!block) return fatal(ENOMEM);
        operation.service[0] = reinterpret_cast<std::uintptr_t>(block.release());
        operation.destructor = free_res_attr<Kind>;
        return cerrno{0};
    };
    auto call_async = [&](net::Operation& operation) {
        return call_handler(operation.op_id, Kind::kAsyncName, *shim,
                            [&] { return async(shim, &block_of<Kind>(operation)->result, operation.op_id); });
    };
    const cerrno error = Frame::start(client, order, prepare, async != nullptr, call_async,
                                      has_sync ? native_sync<Kind> : nullptr, nullptr);
    return error == 0 ? 0 : failed<"IFERROR228", Kind::kRefused>(error, cerr_strerror(error));
}

// A zeroed request record does, too: what it asks for is to be waited for.
template <class Kind>
cerrno cfg_async(std::uint32_t app, const typename Kind::Set* set, const qel_async_req* request,
                 qel_async_future* future) {
    qel_check_not_interrupt_path();
    if (qel_netinfra_is_init() == 0)
        return failed<"IFERROR229", "ERROR: %s: qel_netinfra_init() was not called">(fatal(EBADMSG));
    Retained<Client> client = retain_client<"IFERROR230">(app);
    if (!client) return fatal(EINVAL);
    if ((client->attr.options & QEL_IF_OPTION_BIND_CFG) == 0)
        return failed<"IFERROR231", "ERROR: %s: QEL_IF_OPTION_BIND_CFG was not passed to qel_if_bind()">(
            fatal(ENOENT));
    if (set == nullptr || request == nullptr || future == nullptr) return invalid_arguments<"IFERROR232">();
    if (cerrno error = check_requests<Kind>(*set); error != 0) return error;
    return start<Kind>(*client, *set, *request, *future);
}

// --- Fetch

template <class Kind>
cerrno take_result(net::Operation& operation, cerrno& status, typename Kind::Result& result) {
    if (operation.internal_status != 0) return unexpected_code<"IFERROR233">(operation.internal_status);
    status = operation.op_status;
    if (status != 0) {
        report<"IFERROR234", Kind::kFailed>();
        return 0;
    }
    if (copy_res_attr(*block_of<Kind>(operation), result)) return 0;
    return failed<"IFERROR235", "ERROR: %s: Failed to copy args: %s">(fatal(EINVAL),
                                                                      cerr_strerror(fatal(EINVAL)));
}

template <class Kind>
cerrno get_result(const qel_async_future* future, cerrno* status, typename Kind::Result* result) {
    qel_check_not_interrupt_path();
    if (future == nullptr || status == nullptr || result == nullptr) return invalid_arguments<"IFERROR236">();
    net::Operation* operation = nullptr;
    if (cerrno error = Frame::get_result_pre(*future, Kind::kOpcode, &operation); error != 0) return error;
    const cerrno error = take_result<Kind>(*operation, *status, *result);
    qel_async_impl_withdrawn_ctx(operation);
    return error;
}

template <class Record>
cerrno init(Record* record) {
    qel_check_not_interrupt_path();
    if (record == nullptr) return invalid_arguments<"IFERROR237">();
    *record = {};
    record->magic = QEL_IF_MAGIC;
    return 0;
}

}  // namespace

std::uint32_t shim_id_of(const net::Operation& operation) {
    return static_cast<const qel_if_shim_client*>(operation.shim)->id;
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

cerrno qel_if_cfg_req_init(qel_if_cfg_req* request) {
    return init(request);
}
cerrno qel_if_cfg_req_attr_init(qel_if_cfg_req_attr* set) {
    return init(set);
}
cerrno qel_if_cfg_query_req_init(qel_if_cfg_query_req* request) {
    return init(request);
}
cerrno qel_if_cfg_query_req_attr_init(qel_if_cfg_query_req_attr* set) {
    return init(set);
}
cerrno qel_if_cfg_intf_req_init(qel_if_cfg_intf_req* request) {
    return init(request);
}
cerrno qel_if_cfg_interface_req_attr_init(qel_if_cfg_interface_req_attr* set) {
    return init(set);
}

cerrno qel_if_cfg_async(uint32_t app, const qel_if_cfg_req_attr* set, const qel_async_req* request,
                        qel_async_future* future) {
    return cfg_async<Configure>(app, set, request, future);
}
cerrno qel_if_cfg_query_async(uint32_t app, const qel_if_cfg_query_req_attr* set,
                              const qel_async_req* request, qel_async_future* future) {
    return cfg_async<Query>(app, set, request, future);
}
cerrno qel_if_cfg_interface_async(uint32_t app, const qel_if_cfg_interface_req_attr* set,
                                  const qel_async_req* request, qel_async_future* future) {
    return cfg_async<Interface>(app, set, request, future);
}

cerrno qel_if_cfg_get_result(const qel_async_future* future, cerrno* status, qel_if_cfg_res_attr* result) {
    return get_result<Configure>(future, status, result);
}
cerrno qel_if_cfg_query_get_result(const qel_async_future* future, cerrno* status,
                                   qel_if_cfg_query_res_attr* result) {
    return get_result<Query>(future, status, result);
}
cerrno qel_if_cfg_interface_get_result(const qel_async_future* future, cerrno* status,
                                       qel_if_cfg_interface_res_attr* result) {
    return get_result<Interface>(future, status, result);
}

// --- Helpers of shims

cerrno qel_if_shim_cfg_description_is_valid(const char* description, size_t length) {
    qel_check_not_interrupt_path();
    if (description == nullptr) return length == 0 ? 0 : fatal(EINVAL);
    if (length > QEL_IF_DESCRIPTION_SIZE) return fatal(ENOSPC);
    return strnlen(description, length + 1) == length ? 0 : fatal(EINVAL);
}

bool qel_if_shim_cfg_intf_req_is_valid(const qel_if_cfg_intf_req* request) {
    qel_check_not_interrupt_path();
    return request != nullptr && (request->word != 0) != (request->pair[0] != 0);
}

cerrno qel_if_shim_prefixlen2mask(uint32_t prefix_length, char* buffer, size_t size) {
    constexpr std::uint32_t kBits = 32;
    qel_check_not_interrupt_path();
    if (prefix_length > kBits || buffer == nullptr) return fatal(EINVAL);
    const std::uint64_t ones = UINT64_C(0xffffffff) << (kBits - prefix_length);
    const in_addr mask{htonl(static_cast<std::uint32_t>(ones))};
    const auto room = static_cast<socklen_t>(std::min<size_t>(size, INET_ADDRSTRLEN));
    return inet_ntop(AF_INET, &mask, buffer, room) != nullptr ? 0 : fatal(EFAULT);
}
