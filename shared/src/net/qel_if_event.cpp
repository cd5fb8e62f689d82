// Events of interfaces: registrations, filters, and the way of an event to a callback.
//
//     shim reports -> for each registration: has a callback? passes the filter?
//                       -> client without a dispatcher: dispatch_event() here
//                       -> else a job with copies in the client's queue -> dispatch_event() there
//
// What an event looks like, whom it concerns and how its callback is called stands in a row of a table, by
// its number.
//
// Locks: none is held while a shim, filter or callback runs. Threads: any; see qel/if_event.h.
#include <qel/base.h>
#include <qel/if_event.h>
#include <qel/if_layer.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <type_traits>

#include "core/qel_owned.hpp"
#include "net/qel_if.hpp"
#include "net/qel_if_attr.hpp"

namespace qel::interfaces {
namespace {

// --- The events

// The form of a callback's value.
enum class Form : std::uint8_t { word, byte, pointer, bd, plain, value };

// What an event's object is: an interface, or of a family; those that filters test have a name.
enum Subject : std::uint8_t { interface, vrf, bd, third, object, fifth };

constexpr std::uint32_t kNoAttribute = UINT32_MAX;

struct Row {
    Form form = Form::word;
    Subject subject = interface;
    std::uint32_t attr = kNoAttribute;  // whose change it is
    bool is_subject_in_value = false;   // for the filter
};

constexpr std::uint32_t kFirstPlain = 23, kFirstWord = 33, kFirstValue = 38;
constexpr std::uint32_t kDeleted = 1, kByteEvent = 16;

constexpr std::array<Row, QEL_IF_EVENT_COUNT> kEvents = [] {
    constexpr std::uint32_t kAttrs[] = {QEL_IF_ATTR_MTU,
                                        QEL_IF_ATTR_TX_BANDWIDTH,
                                        QEL_IF_ATTR_RX_BANDWIDTH,
                                        QEL_IF_ATTR_OPER_STATE,
                                        QEL_IF_ATTR_ADMIN_STATE,
                                        QEL_IF_ATTR_MAC_ADDR,
                                        QEL_IF_ATTR_ENCAP_DOT1Q,
                                        QEL_IF_ATTR_VRF,
                                        QEL_IF_ATTR_BD,
                                        QEL_IF_ATTR_SPEED,
                                        QEL_IF_ATTR_DUPLEX_MODE,
                                        QEL_IF_ATTR_INPUT_FLOW_CONTROL,
                                        QEL_IF_ATTR_OUTPUT_FLOW_CONTROL,
                                        QEL_IF_ATTR_AUTO_NEGOTIATION};
    std::array<Row, QEL_IF_EVENT_COUNT> rows;
    rows.fill(Row{});  // GCC 12 leaves the defaults of rows{} out where one member is assigned
    std::uint32_t cbid = 2;
    for (std::uint32_t attr : kAttrs) rows[cbid++].attr = attr;
    for (std::uint32_t pointed : {7u, 8u, 9u}) rows[pointed].form = Form::pointer;
    rows[10].form = Form::bd;
    rows[kByteEvent].form = Form::byte;
    for (std::uint32_t family = 0; family < 5; ++family) {
        const auto subject = static_cast<Subject>(family + 1);
        const bool in_value = subject == object;
        rows[kFirstWord + family] = {Form::word, subject};
        for (std::uint32_t i = 0; i < 2; ++i) {
            rows[kFirstPlain + 2 * family + i] = {Form::plain, subject};
            rows[kFirstValue + 2 * family + i] = {Form::value, subject, kNoAttribute, in_value};
        }
    }
    return rows;
}();
static_assert(kEvents[16].attr == kNoAttribute && kEvents[15].attr == QEL_IF_ATTR_AUTO_NEGOTIATION &&
              kEvents[10].attr == QEL_IF_ATTR_BD);
static_assert(kEvents[44].is_subject_in_value && kEvents[45].is_subject_in_value &&
              kEvents[47].subject == fifth && kEvents[37].subject == fifth);

static_assert(sizeof(qel_if_event_cb_vector) == QEL_IF_EVENT_COUNT * sizeof(qel_if_event_cb));
static_assert(offsetof(qel_if_event_cb_vector, byte_event) == 16 * sizeof(qel_if_event_cb) &&
              offsetof(qel_if_event_cb_vector, family) == kFirstPlain * sizeof(qel_if_event_cb) &&
              offsetof(qel_if_event_cb_vector, family_word) == kFirstWord * sizeof(qel_if_event_cb) &&
              offsetof(qel_if_event_cb_vector, family_value) == kFirstValue * sizeof(qel_if_event_cb));

constexpr std::uint64_t size_of_value(const Row& row) {
    switch (row.form) {
    case Form::word:
        return sizeof(std::uint32_t);
    case Form::byte:
        return 1;
    case Form::pointer:
        return kAttributes[row.attr].size;
    case Form::bd:
        return sizeof(qel_if_bd);
    case Form::plain:
        return 0;
    case Form::value:
        return sizeof(std::uint64_t);
    }
    return 0;
}

// A value as the reporter has it, wherever that lies.
template <class Value>
Value load(const void* from) {
    Value value;
    std::memcpy(&value, from, sizeof(value));
    return value;
}

// Calls the callback, whose type the event's number tells.
template <class Callback, class... Values>
void call(qel_if_event_cb callback, Values... values) {
    reinterpret_cast<Callback>(callback)(values...);
}

// All callbacks with a pointer are called alike.
using PointerCallback = void (*)(std::uint64_t, const void*, std::uint64_t);

void call_back(const Row& row, const Event& event, std::uint64_t cookie) {
    const auto subject = load<std::uint64_t>(event.object);
    switch (row.form) {
    case Form::word:
        return call<qel_if_event_word_cb>(event.callback, subject, load<std::uint32_t>(event.value), cookie);
    case Form::byte:
        return call<qel_if_event_byte_cb>(event.callback, subject, load<std::uint8_t>(event.value), cookie);
    case Form::pointer:
        return call<PointerCallback>(event.callback, subject, event.value, cookie);
    case Form::bd:
        return call<qel_if_event_bd_cb>(event.callback, subject, load<qel_if_bd>(event.value), cookie);
    case Form::plain:
        return call<qel_if_event_plain_cb>(event.callback, subject, cookie);
    case Form::value:
        return call<qel_if_event_value_cb>(event.callback, subject, load<std::uint64_t>(event.value), cookie);
    }
}

// --- Filters

// What a filter knows of an event; 0 is unknown.
struct Known {
    std::uint64_t ifh = 0;
    std::uint64_t subjects[fifth + 1]{};
};

// Asks the shim of the interface, and nobody else.
template <class Value>
cerrno read_straight(const qel_if_shim_client& shim, std::uint64_t ifh, std::uint32_t index, Value& value) {
    qel_if_attr_data data{sizeof(value), &value};
    const cerrno error = shim.handlers.get_attr(shim.info, ifh, code_of(index), &data);
    if (error != 0) static_cast<void>(unexpected_shim_code<"IFERROR150">(shim.id, error));  // no match
    return error;
}

bool has_word(const qel_if_shim_client& shim, std::uint64_t ifh, std::uint32_t index, std::uint32_t wanted,
              std::uint32_t any) {
    std::uint32_t word = 0;
    return wanted == any || (read_straight(shim, ifh, index, word) == 0 && word == wanted);
}

bool is_wanted_interface(const qel_if_shim_client& shim, std::uint64_t ifh,
                         const qel_if_event_filter& filter) {
    if (filter.ifh == QEL_IF_HANDLE_ANY) return true;
    if (filter.ifh_exact == 1) return filter.ifh == ifh;
    std::uint64_t base = 0;
    return read_straight(shim, ifh, QEL_IF_ATTR_BASE_IF, base) == 0 &&
           (filter.ifh == ifh || filter.ifh == base);
}

// A question that fails changes nothing.
bool is_excluded(const qel_if_shim_client& shim, std::uint64_t ifh, std::uint32_t exclude, std::uint32_t bit,
                 std::uint32_t property) {
    if ((exclude & bit) == 0 || shim.handlers.has_property == nullptr) return false;
    std::uint8_t has = 0;
    return shim.handlers.has_property(shim.info, ifh, property, &has) == 0 && has != 0;
}

bool matches_interface(const Client& client, std::uint64_t ifh, const qel_if_event_filter& filter) {
    const qel_if_shim_client* shim = client.shim_ctx[shim_of(ifh)];
    if (shim == nullptr) return false;
    return has_word(*shim, ifh, QEL_IF_ATTR_IF_TYPE, filter.type, QEL_IF_TYPE_ANY) &&
           has_word(*shim, ifh, QEL_IF_ATTR_IF_ENCAP, filter.encap, QEL_IF_ENCAP_ANY) &&
           is_wanted_interface(*shim, ifh, filter) &&
           !is_excluded(*shim, ifh, filter.exclude, QEL_IF_EVENT_EXCLUDE_DELETED, QEL_IF_PROPERTY_DELETED) &&
           !is_excluded(*shim, ifh, filter.exclude, QEL_IF_EVENT_EXCLUDE_HIDDEN, QEL_IF_PROPERTY_HIDDEN);
}

// The group of the event is 'wanted', or the interface's is. One that can't be found out matches.
template <class Record>
bool matches_group(std::uint64_t wanted, std::uint64_t known, Client& client, std::uint64_t ifh,
                   cerrno (*read)(qel_if_client*, std::uint64_t, Record*)) {
    if (wanted == 0) return true;
    if (known != 0) return known == wanted;
    Record record{};
    if (ifh == 0 || read(&client, ifh, &record) != 0) return true;
    return record.id == wanted;
}

bool matches(const Registration& registration, const Known& known) {
    Retained<Client> client = app_id_pool.retain<Client>(registration.app_handle);
    if (!client) return false;
    const qel_if_event_filter& filter = *registration.filter;
    if (known.ifh != 0) {
        const qel_if_shim_client* shim = client->shim_ctx[shim_of(known.ifh)];
        if (shim != nullptr && (shim->flags & QEL_IF_SHIM_FILTERS_EVENTS) != 0) return true;
        if (!matches_interface(*client, known.ifh, filter)) return false;
    }
    return matches_group(filter.bd, known.subjects[bd], *client, known.ifh, qel_if_shim_get_bd) &&
           matches_group(filter.vrf, known.subjects[vrf], *client, known.ifh, qel_if_shim_get_vrf) &&
           (filter.object == 0 || filter.object == known.subjects[object]);
}

// --- Registrations

// Frees a registration whose ID was never given, or has gone.
void free_reg_ctx(Registration* registration) {
    Owned<qel_if_event_filter> filter{registration->filter};
    Owned<Registration> owned{registration};
}

void reg_ctx_destructor(void* registration, void*) {
    free_reg_ctx(static_cast<Registration*>(registration));
    reg_id_pool.free_if_empty();
}

constinit std::atomic<std::uint32_t> next_serial{0};

// A registration without a handle, or nothing without memory.
Owned<Registration> create_and_init_reg_ctx(const qel_if_event_cb_vector& vector,
                                            const qel_if_event_filter* filter, std::uint64_t cookie) {
    Owned<Registration> registration = allocate_zeroed<Registration>(QEL_MEM_INTF);
    Owned<qel_if_event_filter> copy = allocate_zeroed<qel_if_event_filter>(QEL_MEM_INTF);
    if (!registration || !copy) return {};
    if (filter != nullptr)
        *copy = *filter;
    else
        qel_if_event_filter_init(copy.get());
    registration->vector = vector;
    registration->filter = copy.release();
    registration->cookie = cookie;
    registration->serial = next_serial.fetch_add(1, std::memory_order_relaxed);
    return registration;
}

// Takes a registration's handle away. True for the one call that does.
bool begin_end(Registration& registration, bool& tell_shims) {
    const std::uint32_t before = registration.state.exchange(Registration::ending);
    if (before == Registration::ending) return false;
    tell_shims = before == Registration::live;  // else the one who makes it does
    return true;
}

// Ends a registration that the caller holds. 0, also while another call is at it; or a shim's error.
cerrno end_registration(Client& client, Registration& registration) {
    bool tell_shims = false;
    if (!begin_end(registration, tell_shims)) return 0;
    const cerrno error = reg_id_pool.release_and_withdraw(registration.handle);
    if (error != 0) return unexpected_code<"IFERROR151">(error);
    return tell_shims ? deregister_at_shims(client, registration) : 0;
}

// Makes known to the shims what has its handle already. What was ended meanwhile, or whose client was, is
// taken back.
cerrno make_live(Client& client, Registration& registration) {
    if (const cerrno error = register_at_shims(client, registration); error != 0) {
        bool tell_shims = false;
        if (begin_end(registration, tell_shims))
            static_cast<void>(reg_id_pool.release_and_withdraw(registration.handle));  // fails as 'error'
        return error;
    }
    std::uint32_t state = Registration::making;
    if (!registration.state.compare_exchange_strong(state, Registration::live)) {
        static_cast<void>(deregister_at_shims(client, registration));  // the end was reported
        return fatal(EINVAL);
    }
    if (!client.closing.load()) return 0;
    static_cast<void>(end_registration(client, registration));  // the client's end comes first
    return fatal(EINVAL);
}

cerrno register_callbacks(Client& client, Owned<Registration> made, std::uint32_t* reg) {
    if (!made) return no_memory<"IFERROR152">();
    Registration* registration = made.release();
    if (cerrno error = reg_id_pool.get_id(registration, &registration->handle); error != 0) {
        free_reg_ctx(registration);
        return error;
    }
    // Nobody ends it before it is a client's.
    const std::uint32_t handle = registration->handle;
    Retained<Registration> held = reg_id_pool.retain<Registration>(handle);
    held->app_handle.store(client.handle);
    if (cerrno error = make_live(client, *held); error != 0) return error;
    *reg = handle;
    if_event<"IFEVENT150", "%s: done, apph=0x%x, regh=0x%x">(client.handle, handle);
    return 0;
}

// --- Delivery to one registration

// The lines of a delivery, in place of the frame's.
struct NotifyLines {
    using Dispatching = net::EventLine<IfTrace, "IFEVENT151", "%s: qdm dispatched, qdm=%p, numjobs=%d">;
    using Dropped = Family::Dropped;
};

void say_dropped(std::uint32_t app, const Event& event) {
    if_detail<"IFEVENT152", "%s: dropped event, apph=0x%x, obj=0x%p, cbid=0x%x, cbarg=%p, cbargsz=%d">(
        app, event.object, event.cbid, event.value, static_cast<std::uint32_t>(event.value_size));
}

void notify(Client& client, const Registration& registration, const Event& event) {
    Owned<net::Job> job = make_event_job(kEventJob, registration, event);
    if (!job) return static_cast<void>(no_memory<"IFERROR153">());  // dropped, and reported
    if (const cerrno error = Frame::enqueue<NotifyLines>(client, client.handle, client.attr.qdm, *job);
        error != 0) {
        static_cast<void>(unexpected_code<"IFERROR154">(error));  // dropped, and reported
        return say_dropped(client.handle, event);
    }
    static_cast<void>(job.release());  // the queue's now
}

// What lies behind a job of an event: the copies, each from a multiple of 16 on.
constexpr std::size_t kAlign = 16;
constexpr std::size_t padded(std::uint64_t size) {
    return (size + kAlign - 1) & ~(kAlign - 1);
}
constexpr std::uint64_t kMostBytes = 1u << 20;  // of an object or value

std::byte* copies_of(net::Job& job) {
    return reinterpret_cast<std::byte*>(&job + 1);
}

}  // namespace

constinit net::HandlePool reg_id_pool{
    pool_shape<16>("QEL IF Event Registration Handle Pool", 1, reg_ctx_destructor)};

std::uint32_t event_of_attribute(std::uint32_t attr) {
    std::uint32_t cbid = 0;
    while (cbid < QEL_IF_EVENT_COUNT &&
           (kEvents[cbid].attr == kNoAttribute || code_of(kEvents[cbid].attr) != attr))
        ++cbid;
    return cbid;
}

Owned<net::Job> make_event_job(std::uint32_t type, const Registration& registration, const Event& event) {
    if (event.object_size > kMostBytes || event.value_size > kMostBytes) return {};
    const std::size_t object_room = padded(event.object_size);
    Owned<net::Job> job{reinterpret_cast<net::Job*>(
        allocate_zeroed<std::byte>(QEL_MEM_INTF, sizeof(net::Job) + object_room + event.value_size)
            .release())};
    if (!job) return job;
    job->type = type;
    job->serial = registration.serial;
    job->handler = event.callback;
    job->words[0] = registration.cookie;
    job->words[1] = registration.handle | std::uint64_t{event.cbid} << 32;
    job->words[2] = event.object_size | event.value_size << 32;
    std::memcpy(copies_of(*job), event.object, event.object_size);
    if (event.value_size != 0) std::memcpy(copies_of(*job) + object_room, event.value, event.value_size);
    return job;
}

void run_event_job(net::Job& job) {
    Event event{static_cast<std::uint32_t>(job.words[1] >> 32),
                job.handler,
                copies_of(job),
                job.words[2] & UINT32_MAX,
                nullptr,
                job.words[2] >> 32};
    if (event.value_size != 0) event.value = copies_of(job) + padded(event.object_size);
    if (job.type == kReportJob) return dispatch_event(event, job.words[0]);
    // An event of an interface is for who is registered still, and not for the next under its handle.
    Retained<Registration> held = reg_id_pool.retain<Registration>(static_cast<std::uint32_t>(job.words[1]));
    if (held && held->serial == job.serial && held->state.load() != Registration::ending)
        dispatch_event(event, held->cookie);
}

void dispatch_event(const Event& event, std::uint64_t cookie) {
    if (event.cbid >= QEL_IF_EVENT_COUNT)
        return report<"IFERROR155", "ERROR: %s: invalid cbid, id=0x%x">(event.cbid);
    const Row& row = kEvents[event.cbid];
    const std::uint64_t needed = size_of_value(row);
    const bool has_value = needed == 0 || (event.value != nullptr && event.value_size >= needed);
    if (!has_value || event.object == nullptr || event.object_size < sizeof(std::uint64_t) ||
        event.callback == nullptr)
        return report<"IFERROR156", "ERROR: %s: null callback arg">();
    call_back(row, event, cookie);
    if (event.cbid == kDeleted)
        static_cast<void>(
            qel_if_ctx_remove_by_if_handle(load<std::uint64_t>(event.object)));  // or none there
}

void end_registrations(Client& client) {
    reg_id_pool.for_each<Registration>([&](Registration& registration) {
        if (registration.app_handle != client.handle) return;
        static_cast<void>(end_registration(client, registration));  // reported there
    });
}

}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

void qel_if_event_filter_init(qel_if_event_filter* filter) {
    qel_check_not_interrupt_path();
    if (filter == nullptr) return;
    *filter = {};
    filter->type = QEL_IF_TYPE_ANY;
    filter->encap = QEL_IF_ENCAP_ANY;
    filter->ifh = QEL_IF_HANDLE_ANY;
}

cerrno qel_if_register_callbacks(uint32_t app, const qel_if_event_cb_vector* vector,
                                 const qel_if_event_filter* filter, uint64_t cookie, uint32_t* reg) {
    qel_check_not_interrupt_path();
    if_event<"IFEVENT153", "%s: invoked, apph=0x%x, vector=%p, event_filter=%p, client_ctx=%p, reg_ptr=%p">(
        app, vector, filter, cookie, reg);
    if (vector == nullptr || reg == nullptr || (filter != nullptr && filter->ifh == 0))
        return invalid_arguments<"IFERROR157">();
    Retained<Client> client = retain_client<"IFERROR158">(app);
    if (!client) return fatal(EINVAL);
    return register_callbacks(*client, create_and_init_reg_ctx(*vector, filter, cookie), reg);
}

cerrno qel_if_deregister_callbacks(uint32_t app, uint32_t* reg) {
    qel_check_not_interrupt_path();
    if (reg == nullptr) return invalid_arguments<"IFERROR159">();
    Retained<Client> client = retain_client<"IFERROR160">(app);
    if (!client) return fatal(EINVAL);
    Retained<Registration> registration = reg_id_pool.retain<Registration>(*reg);
    if (!registration || registration->app_handle != app) return invalid_arguments<"IFERROR161">();
    if_event<"IFEVENT154", "%s: invoked, apph=0x%x, reg=0x%x">(app, *reg);
    const cerrno error = end_registration(*client, *registration);
    if_event<"IFEVENT155", "%s: done, apph=0x%x, reg=0x%x">(app, *reg);
    *reg = 0;
    return error;
}

qel_if_event_cb qel_if_event_get_callback(const qel_if_event_cb_vector* vector, uint32_t cbid) {
    qel_check_not_interrupt_path();
    if (cbid >= QEL_IF_EVENT_COUNT) {
        report<"IFERROR162", "ERROR: %s: Invalid event callback_id: %d">(cbid);
        return nullptr;
    }
    if (vector == nullptr) {
        static_cast<void>(invalid_arguments<"IFERROR163">());
        return nullptr;
    }
    const auto* first = reinterpret_cast<const std::byte*>(vector);
    return load<qel_if_event_cb>(first + cbid * sizeof(qel_if_event_cb));
}

bool qel_if_shim_match_event_filter(const qel_if_reg* reg, uint32_t cbid, const void* object,
                                    const void* value) {
    if (cbid >= QEL_IF_EVENT_COUNT) {
        report<"IFERROR164", "ERROR: %s: Invalid event callback_id: %d">(cbid);
        return false;
    }
    const Row& row = kEvents[cbid];
    const void* from = row.is_subject_in_value ? value : object;
    if (from == nullptr) return false;
    Known known;
    const auto subject = load<std::uint64_t>(from);
    if (row.subject == interface) known.ifh = subject;
    known.subjects[row.subject] = subject;
    return matches(*reg, known);
}

void qel_if_notify(qel_if_reg* reg, uint64_t ifh, uint32_t cbid, qel_if_event_cb callback, const void* value,
                   size_t size) {
    qel_check_not_interrupt_path();
    if (reg == nullptr) return static_cast<void>(invalid_arguments<"IFERROR165">());
    Retained<Client> client = retain_client<"IFERROR166">(reg->app_handle);
    if (!client) return;
    const Event event{cbid, callback, &ifh, sizeof(ifh), value, value == nullptr ? 0 : size};
    if_event<"IFEVENT156", "%s: invoked, apph=0x%x, ifh=0x%x, cbid=0x%x, callback=%p, cbarg=%p">(
        client->handle, static_cast<std::uint32_t>(ifh), cbid, address_of(callback), value);
    if (client->attr.qdm == 0)
        dispatch_event(event, reg->cookie);
    else
        notify(*client, *reg, event);
    if_detail<"IFEVENT157", "%s: done, apph=0x%x, objp=0x%p, cbid=0x%x, cbarg=%p, cbargsz=%d">(
        client->handle, &ifh, cbid, value, static_cast<std::uint32_t>(size));
}

void qel_if_event_demux_and_notify(uint64_t ifh, uint32_t cbid, const void* value, size_t size) {
    qel_check_not_interrupt_path();
    const void* subject = size >= sizeof(std::uint64_t) ? value : nullptr;
    reg_id_pool.for_each<Registration>([&](Registration& registration) {
        const qel_if_event_cb callback = qel_if_event_get_callback(&registration.vector, cbid);
        if (callback == nullptr || !qel_if_shim_match_event_filter(&registration, cbid, &ifh, subject))
            return;
        qel_if_notify(&registration, ifh, cbid, callback, value, size);
    });
}

cerrno qel_if_retain_reg_ctx(uint32_t reg, qel_if_reg** out) {
    qel_check_not_interrupt_path();
    if (out == nullptr) return invalid_arguments<"IFERROR167">();
    Retained<Registration> held = reg_id_pool.retain<Registration>(reg);
    if (!held) return invalid_arguments<"IFERROR168">();
    *out = held.release();
    return 0;
}

cerrno qel_if_release_reg_ctx(qel_if_reg* reg) {
    qel_check_not_interrupt_path();
    if (reg == nullptr) return invalid_arguments<"IFERROR169">();
    const cerrno error = reg_id_pool.release(reg->handle);
    return error == 0 ? 0 : unexpected_code<"IFERROR170">(error);
}
