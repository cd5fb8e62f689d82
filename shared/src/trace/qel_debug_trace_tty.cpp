// The ttys of one debug flag, and the requests of each tty.
//
// A tty exists while it has a request: the first request makes it, the last one takes it along. It prints
// what its requests ask for, in their order: an unconditional request met first, or a filter that equals the
// one logged.
//
// Invariant: a tty holds either one unconditional request or at least one filter, never both; so an
// unconditional request is always its first. Locks: all under debug_lock.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/qel_owned.hpp"
#include "trace/qel_debug_trace.hpp"

namespace qel {
namespace {

const char* text_of(const Filter& filter) {
    return reinterpret_cast<const char*>(filter.value);
}

void free_request(Request* request) {
    if (is_text(request->filter.type)) qel_named_free(reinterpret_cast<void*>(request->filter.value));
    qel_named_free(request);
}

using OwnedRequest = Unique<Request*, free_request>;

OwnedRequest make_request() {
    return OwnedRequest{allocate_zeroed<Request>(QEL_MEM_QDT).release()};
}

OwnedRequest make_unconditional_request() {
    OwnedRequest request = make_request();
    if (request) request.get()->unconditional = 1;
    return request;
}

// A copy of 'filter', with a text of its own.
OwnedRequest make_filter_request(const Filter& filter) {
    OwnedRequest request = make_request();
    if (!request || !is_text(filter.type)) {
        if (request) request.get()->filter = filter;
        return request;
    }
    char* text = allocate_zeroed<char>(QEL_MEM_QDT, kFilterTextSize).release();
    if (text == nullptr) return OwnedRequest{};
    std::memcpy(text, text_of(filter), strnlen(text_of(filter), kFilterTextSize));
    request.get()->filter = {filter.type, reinterpret_cast<std::uint64_t>(text)};
    return request;
}

bool equal(const Filter& asked, const Filter& logged) {
    if (asked.type != logged.type) return false;
    if (asked.type == QEL_DT_FILTER_UINT32)
        return static_cast<std::uint32_t>(asked.value) == static_cast<std::uint32_t>(logged.value);
    if (!is_text(asked.type)) return asked.value == logged.value;
    return logged.value != 0 && std::strncmp(text_of(asked), text_of(logged), kFilterTextSize) == 0;
}

Request* find_filter_locked(const Tty& tty, const Filter& filter) QEL_REQUIRES(debug_lock) {
    for (auto* request = first_of<Request>(tty.requests); request != nullptr; request = next_of(request))
        if (!request->unconditional && equal(request->filter, filter)) return request;
    return nullptr;
}

bool prints_all_locked(const Tty& tty) QEL_REQUIRES(debug_lock) {
    const auto* request = first_of<Request>(tty.requests);
    return request != nullptr && request->unconditional;
}

Tty* find_tty_locked(const qel_dt_flag& flag, const char* name) QEL_REQUIRES(debug_lock) {
    auto* tty = first_of<Tty>(flag.ttys);
    if (name == nullptr || *name == '\0') return tty;
    for (; tty != nullptr; tty = next_of(tty))
        if (std::strncmp(tty->name, name, kTtyNameSize - 1) == 0) return tty;
    return nullptr;
}

void publish_count_locked(qel_dt_flag& flag) QEL_REQUIRES(debug_lock) {
    std::atomic_ref{flag.active_ttys}.store(static_cast<std::uint32_t>(flag.ttys.count),
                                            std::memory_order_relaxed);
}

Tty* make_tty_locked(qel_dt_flag& flag, const char* name) QEL_REQUIRES(debug_lock) {
    Tty* tty = allocate_zeroed<Tty>(QEL_MEM_QDT).release();
    if (tty == nullptr) return nullptr;
    if (name != nullptr) std::memcpy(tty->name, name, strnlen(name, kTtyNameSize - 1));
    qel_queue_enqueue(&flag.ttys, tty);
    publish_count_locked(flag);
    return tty;
}

void drop_requests_locked(Tty& tty) QEL_REQUIRES(debug_lock) {
    while (void* request = qel_queue_dequeue(&tty.requests)) free_request(static_cast<Request*>(request));
}

void destroy_tty_locked(qel_dt_flag& flag, Tty* tty) QEL_REQUIRES(debug_lock) {
    drop_requests_locked(*tty);
    qel_queue_unqueue(&flag.ttys, tty);
    publish_count_locked(flag);
    qel_named_free(tty);
}

enum class Earlier { keep, drop };

// Puts 'request' on the tty 'name', which is made if the flag lacks it, and drops or keeps its earlier
// requests. An empty 'request' is one that found no memory.
int place_request_locked(qel_dt_flag& flag, const char* name, OwnedRequest request, Earlier earlier)
    QEL_REQUIRES(debug_lock) {
    if (!request) return ENOMEM;
    Tty* tty = find_tty_locked(flag, name);
    if (tty == nullptr) tty = make_tty_locked(flag, name);
    if (tty == nullptr) return ENOMEM;
    if (earlier == Earlier::drop) drop_requests_locked(*tty);
    qel_queue_enqueue(&tty->requests, request.release());
    return 0;
}

}  // namespace

int enable_tty_locked(qel_dt_flag& flag, const char* tty) {
    return place_request_locked(flag, tty, make_unconditional_request(), Earlier::drop);
}

void disable_tty_locked(qel_dt_flag& flag, const char* name) {
    if (Tty* tty = find_tty_locked(flag, name); tty != nullptr) destroy_tty_locked(flag, tty);
}

int replace_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* name) {
    const Tty* tty = find_tty_locked(flag, name);
    if (tty != nullptr && prints_all_locked(*tty)) return 0;
    return place_request_locked(flag, name, make_filter_request(filter), Earlier::drop);
}

int add_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* name) {
    const Tty* tty = find_tty_locked(flag, name);
    if (tty != nullptr && (prints_all_locked(*tty) || find_filter_locked(*tty, filter) != nullptr)) return 0;
    return place_request_locked(flag, name, make_filter_request(filter), Earlier::keep);
}

void remove_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* name) {
    Tty* tty = find_tty_locked(flag, name);
    if (tty == nullptr) return;
    Request* request = find_filter_locked(*tty, filter);
    if (request == nullptr) return;
    qel_queue_unqueue(&tty->requests, request);
    free_request(request);
    if (qel_queue_empty(&tty->requests)) destroy_tty_locked(flag, tty);
}

void destroy_ttys_locked(qel_dt_flag& flag) {
    while (auto* tty = first_of<Tty>(flag.ttys)) destroy_tty_locked(flag, tty);
}

bool passes_locked(const Tty& tty, const Filter& logged) {
    return prints_all_locked(tty) || find_filter_locked(tty, logged) != nullptr;
}

}  // namespace qel
