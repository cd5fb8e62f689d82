// What interface shims report: events, how a client's binding stands, results of configuration requests; and
// the family's part in the frame that brings these to clients.
//
// Locks: none is held while a shim or callback runs. Threads: any. Restart: nothing stays.
#include <qel/base.h>
#include <qel/if_layer.h>
#include <qel/if_shim.h>

#include <algorithm>
#include <cerrno>

#include "core/qel_owned.hpp"
#include "net/qel_if.hpp"
#include "net/qel_if_cfg.hpp"

namespace qel::interfaces {
namespace {

constexpr std::uint32_t kCreated = 0, kDeleted = 1;
constexpr std::int32_t kLost = 1;

// Zeroes and marks a record of a shim's report.
template <class Record>
void mark(Record& record) {
    record = {};
    record.magic = QEL_IF_MAGIC;
}

// --- Events

Event event_of(const qel_if_shim_event& report) {
    return {report.cbid,        report.callback, report.object,
            report.object_size, report.cbarg,    report.cbarg == nullptr ? 0 : report.cbarg_size};
}

cerrno queue_event(Client& client, const Registration& registration, const Event& event) {
    Owned<net::Job> job = make_event_job(kReportJob, registration, event);
    if (!job) return no_memory<"IFERROR180">();
    const cerrno error = Frame::submit(client.handle, client.attr.qdm, *job);
    if (error == 0) {
        static_cast<void>(job.release());  // the queue's now
        return 0;
    }
    if_detail<"IFEVENT180", "%s: dropped event, apph=0x%x, obj=0x%p, cbid=0x%x, cbarg=%p, cbargsz=%d">(
        client.handle, event.object, event.cbid, event.value, static_cast<std::uint32_t>(event.value_size));
    return error;
}

cerrno deliver(Client& client, const Registration& registration, const Event& event) {
    if_event<"IFEVENT181", "%s: invoked, apph=0x%x, objp=0x%p, cbid=0x%x, callback=%p, cbarg=%p">(
        client.handle, event.object, event.cbid, address_of(event.callback), event.value);
    if (client.attr.qdm == 0)
        dispatch_event(event, registration.cookie);
    else if (const cerrno error = queue_event(client, registration, event); error != 0)
        return error;
    if_detail<"IFEVENT182", "%s: done, apph=0x%x, objp=0x%p, cbid=0x%x, cbarg=%p, cbargsz=%d">(
        client.handle, event.object, event.cbid, event.value, static_cast<std::uint32_t>(event.value_size));
    return 0;
}

cerrno report_existence(std::uint64_t ifh, std::uint32_t cbid, const qel_if_shim_if_event* event) {
    if (event == nullptr || ifh == 0) return invalid_arguments<"IFERROR181">();
    qel_if_event_demux_and_notify(ifh, cbid, event->value, event->size);
    return 0;
}

// --- Bindings

// What a status job carries is what the callback gets.
qel_if_bind_status& status_of(net::Job& job) {
    static_assert(sizeof(qel_if_bind_status) == sizeof(net::Job::words));
    return *reinterpret_cast<qel_if_bind_status*>(job.words);
}

cerrno submit_status(std::uint32_t app, qel_dm_handle dispatcher, Owned<net::Job> job) {
    const cerrno error = Frame::submit(app, dispatcher, *job);
    if (error == 0) {
        static_cast<void>(job.release());  // the queue's now
        return 0;
    }
    return failed<"IFERROR182", "ERROR: %s: Failed to submit bind status notification: %s">(
        error, cerr_strerror(error));
}

Owned<net::Job> make_status_job(const Client& client, const qel_if_shim_bind_status& status) {
    Owned<net::Job> job = allocate_zeroed<net::Job>(QEL_MEM_INTF);
    if (!job) return job;
    job->type = kStatusJob;
    job->handler = reinterpret_cast<void (*)()>(client.attr.bind_status_cb);
    status_of(*job) = {status.app, status.status, status.reason, status.flag, client.attr.cookie};
    return job;
}

cerrno report_bind_status(Client& client, const qel_if_shim_bind_status& status) {
    if (status.status == kLost) cleanup_client(client);
    if (client.attr.bind_status_cb == nullptr) return 0;
    if (client.attr.qdm == 0) return fatal(EINVAL);
    Owned<net::Job> job = make_status_job(client, status);
    if (!job)
        return failed<"IFERROR183", "ERROR: %s: Failed to allocate job size %d">(
            fatal(ENOMEM), static_cast<std::uint32_t>(sizeof(net::Job)));
    return submit_status(status.app, client.attr.qdm, std::move(job));
}

}  // namespace

// --- The family in the frame

void Family::run(Client&, net::Job& job) {
    switch (job.type) {
    case kEventJob:
    case kReportJob:
        return run_event_job(job);
    case kStatusJob:
        return reinterpret_cast<qel_if_bind_status_cb>(job.handler)(&status_of(job));
    default:
        return report<"IFERROR184", "ERROR: %s: unknown job %d">(job.type);
    }
}

void Family::say_async_starting(const net::Operation& operation) {
    if_event<"IFEVENT183", "%s: OP ID 0x%x async opcode %d shim %d starting">(
        operation.op_id, operation.opcode, shim_id_of(operation));
}

void Family::say_sync_starting(const net::Operation& operation) {
    if_event<"IFEVENT184", "%s: OP ID 0x%x sync opcode %d shim %d starting">(
        operation.op_id, operation.opcode, shim_id_of(operation));
}

void Family::say_ended(const net::Operation& operation) {
    if_event<"IFEVENT185", "%s: OP ID 0x%x async opcode %d ended, internal status '%s' op status '%s'">(
        operation.op_id, operation.opcode, cerr_strerror(operation.internal_status),
        cerr_strerror(operation.op_status));
}

void Family::after_sync(qel_async_ctx* operation) {
    static_cast<void>(qel_async_impl_lock_op(operation));  // reported there
    if_event<"IFEVENT186", "%s: OP ID 0x%x sync opcode %d ended, internal status '%s' op status '%s'">(
        operation->op_id, operation->opcode, cerr_strerror(operation->internal_status),
        cerr_strerror(operation->op_status));
    static_cast<void>(qel_async_impl_unlock_op(operation));  // reported there
}

void Family::say_submit_failed(std::uint32_t, const qel_async_future& future, cerrno error) {
    report<"IFERROR185", "ERROR: %s: Failed to submit op_id 0x%x opcode %d, '%s'">(
        future.op_id, future.opcode, cerr_strerror(error));
}

void Family::say_gone(const qel_async_future& future, cerrno error) {
    report<"IFERROR186", "ERROR: %s: op_id: 0x%x opcode: %d : %s">(future.op_id, future.opcode,
                                                                   cerr_strerror(error));
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

// --- Events

cerrno qel_if_shim_report_if_creation(uint64_t ifh, const qel_if_shim_if_event* event) {
    qel_check_not_interrupt_path();
    return report_existence(ifh, kCreated, event);
}

cerrno qel_if_shim_report_if_deletion(uint64_t ifh, const qel_if_shim_if_event* event) {
    qel_check_not_interrupt_path();
    return report_existence(ifh, kDeleted, event);
}

cerrno qel_if_shim_report_attr_change(uint64_t ifh, const qel_if_shim_attr_change* change) {
    qel_check_not_interrupt_path();
    if (change == nullptr || ifh == 0) return invalid_arguments<"IFERROR187">();
    const std::uint32_t cbid = event_of_attribute(change->attr);
    if (cbid == QEL_IF_EVENT_COUNT)
        return failed<"IFERROR188", "ERROR: %s: attr=0x%x '%s'">(fatal(EOPNOTSUPP), change->attr,
                                                                 qel_if_attr_type_to_string(change->attr));
    qel_if_event_demux_and_notify(ifh, cbid, change->value, change->size);
    return 0;
}

cerrno qel_if_shim_event_init(qel_if_shim_event* event) {
    qel_check_not_interrupt_path();
    if (event == nullptr)
        return failed<"IFERROR189", "ERROR: %s: NULL if_shim_event attribute">(fatal(EINVAL));
    mark(*event);
    return 0;
}

bool qel_if_shim_event_has_cb(const qel_if_shim_reg* reg, uint32_t cbid) {
    qel_check_not_interrupt_path();
    return reg != nullptr && std::binary_search(reg->cbids, reg->cbids + reg->num_cbids, cbid);
}

cerrno qel_if_shim_report_event(const qel_if_shim_event* report) {
    qel_check_not_interrupt_path();
    if (report == nullptr || report->object == nullptr) return invalid_arguments<"IFERROR190">();
    Retained<Registration> registration = reg_id_pool.retain<Registration>(report->reg_handle);
    if (!registration) return invalid_arguments<"IFERROR191">();
    Retained<Client> client = app_id_pool.retain<Client>(registration->app_handle);
    if (!client) return invalid_arguments<"IFERROR192">();
    return deliver(*client, *registration, event_of(*report));
}

cerrno qel_if_shim_demux_and_report_event(uint32_t cbid, const void* object, uint64_t object_size,
                                          const void* value, uint64_t value_size) {
    qel_check_not_interrupt_path();
    if (object == nullptr || object_size < sizeof(std::uint64_t)) return invalid_arguments<"IFERROR193">();
    cerrno last = 0;
    reg_id_pool.for_each<Registration>([&](Registration& registration) {
        const qel_if_event_cb callback = qel_if_event_get_callback(&registration.vector, cbid);
        if (callback == nullptr) return;
        if (!qel_if_shim_match_event_filter(&registration, cbid, object,
                                            value_size < sizeof(std::uint64_t) ? nullptr : value))
            return;
        qel_if_shim_event event{QEL_IF_MAGIC, registration.handle, cbid,  callback,
                                object,       object_size,         value, value_size};
        if (const cerrno error = qel_if_shim_report_event(&event); error != 0) last = error;
    });
    return last;
}

// --- Bindings

cerrno qel_if_shim_bind_status_init(qel_if_shim_bind_status* status) {
    qel_check_not_interrupt_path();
    if (status == nullptr)
        return failed<"IFERROR194", "ERROR: %s: NULL shim_bind_status attribute">(fatal(EINVAL));
    mark(*status);
    return 0;
}

cerrno qel_if_shim_report_bind_status(const qel_if_shim_bind_status* status) {
    qel_check_not_interrupt_path();
    if (status == nullptr) return invalid_arguments<"IFERROR195">();
    if (status->magic != QEL_IF_MAGIC) return fatal(EBADMSG);
    Retained<Client> client = retain_client<"IFERROR196">(status->app);
    if (!client) return fatal(EINVAL);
    if_event<"IFEVENT187", "%s: Shim reports client bind status, handle 0x%x status %d">(status->app,
                                                                                         status->status);
    return report_bind_status(*client, *status);
}

cerrno qel_if_shim_demux_and_report_bind_status(int32_t status, uint32_t reason, uint8_t flag) {
    qel_check_not_interrupt_path();
    cerrno last = 0;
    app_id_pool.for_each<Client>([&](Client& client) {
        if (client.attr.bind_status_cb == nullptr) return;
        const qel_if_shim_bind_status report{QEL_IF_MAGIC, client.handle, status, reason, flag};
        if (const cerrno error = qel_if_shim_report_bind_status(&report); error != 0) last = error;
    });
    return last;
}

// --- Results

cerrno qel_if_shim_op_guard(uint32_t op_id, qel_async_ctx** operation) {
    qel_check_not_interrupt_path();
    if (operation == nullptr) return invalid_arguments<"IFERROR197">();
    return qel_async_impl_op_guard(op_id, operation);
}

cerrno qel_if_shim_op_yield(qel_async_ctx* operation) {
    qel_check_not_interrupt_path();
    if (operation != nullptr) static_cast<void>(qel_async_impl_op_yield(operation));  // reported there
    return 0;
}

cerrno qel_if_shim_report_cfg_result(qel_async_ctx* operation, cerrno status) {
    qel_check_not_interrupt_path();
    if (operation == nullptr) return invalid_arguments<"IFERROR198">();
    return provide_result(*operation, [status](qel_async_ctx& locked) { locked.op_status = status; });
}
