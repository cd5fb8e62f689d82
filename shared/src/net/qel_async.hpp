// Asynchronous operations inside the library: the state that the frame's files share, its event trace, and
// the guards that the services use.
#pragma once

#include <qel/async.h>
#include <qel/idm.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/qel_codes.hpp"
#include "net/qel_net_pool.hpp"
#include "trace/qel_report.hpp"

namespace qel::async {

using Operation = qel_async_ctx;

static_assert(sizeof(Operation) == 256 && offsetof(Operation, native_sync) == 4);
static_assert(offsetof(Operation, start) == 7 && offsetof(Operation, op_id) == 8 &&
              offsetof(Operation, callback) == 16);
static_assert(offsetof(Operation, serial) == 28 && offsetof(Operation, cookie) == 32 &&
              offsetof(Operation, destructor) == 56);
static_assert(offsetof(Operation, lock) == 64 && offsetof(Operation, cond) == 104);
static_assert(offsetof(Operation, client_qdm) == 152 && offsetof(Operation, client_handle) == 160);
static_assert(offsetof(Operation, op_status) == 176 && offsetof(Operation, shim) == 184);
static_assert(offsetof(Operation, service) == 192 && offsetof(Operation, destructor_arg) == 248);

enum : std::uint32_t { kPending = 0, kDone = 1 };

// The pool of operations' IDs: QEL_IDM_NO_POOL while the frame is stopped.
[[gnu::visibility("hidden")]] extern constinit net::PoolPlace id_pool;
// Counts the starts of the frame. A reference that outlived a stop is none to the pool that came after it.
[[gnu::visibility("hidden")]] extern constinit std::atomic<std::uint8_t> starts;
// Set while the frame stops: nobody makes operations any more.
[[gnu::visibility("hidden")]] extern constinit std::atomic<bool> stopping;

inline bool is_started() {
    return id_pool.get() != QEL_IDM_NO_POOL;
}
// True on the thread for synchronous handlers: what waits behind a handler can't be waited for in it.
bool is_sync_thread();

qel_dt_buffer_handle event_buffer();

// Every event is recorded, whatever the buffer's level.
template <FixedText Label, FixedText Format, class... Values>
void trace(Values... values) {
    ErrnoKept kept;
    write_line<Label, Format>(event_buffer(), values...);
}

// Sleeps until the operation, which is locked, has a result.
void wait_until_done(Operation& operation);

// Wakes who waits for any operation, as if it had a result.
void wake_all();

// The pool's destructor.
void async_impl_request_destructor(void* operation, void*);

// Ends all operations and waits a moment for the threads that are in them.
void end_all();

// How many operations there are; the pool's code if it can't tell.
inline cerrno count_operations(std::uint32_t& count) {
    net::PoolPlace::Use use{id_pool};
    return qel_idm_get_count(use.pool, &count);
}

}  // namespace qel::async
