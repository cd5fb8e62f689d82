// Buffers that are made on first need: the library's error buffer, the common event buffer, and those of
// single families.
//
// Several threads may need a buffer first at the same time. Each makes a handle, one installs its own by
// compare-and-swap, and the others close theirs. To make a buffer takes parameters and shared memory, which
// report to the error buffer what goes wrong there: 'making_error_buffer' keeps such a report, on the thread
// that is making that very buffer, from making it once more.
//
// Invariant: an installed handle stays installed; whoever sees it non-null may use it.
// Locks: none. Threads: any.
// Restart: the segment outlives the process, so a new one attaches and goes on writing behind the old
// entries.
#include "trace/qel_report.hpp"

#include <qel/ppm.h>

#include "core/qel_owned.hpp"

constinit qel_dt_buffer_handle qel_gen_error_buffer = nullptr;

namespace qel {
namespace {

constexpr BufferSource kErrorBuffer{"qel.gen.buffer.errors", "qel.gen.buffer.errors.size", 327680};
constexpr BufferSource kEventBuffer{"qel.gen.buffer.events", "qel.gen.buffer.events.size", 65536};

constinit qel_dt_buffer_handle event_buffer = nullptr;

constinit thread_local bool making_error_buffer = false;

void close_buffer(qel_dt_buffer_handle buffer) {
    static_cast<void>(qel_dt_buffer_close(&buffer));  // Nothing is lost with a handle that nobody used.
}

using OwnedBuffer = Unique<qel_dt_buffer_handle, close_buffer>;

OwnedBuffer open_buffer(const BufferSource& source) {
    std::uint32_t size = source.size;
    // Where the parameters can't be read, the default stands.
    if (source.size_key != nullptr)
        static_cast<void>(qel_ppm_get_integer(source.size_key, source.size, &size));
    qel_dt_buffer_handle buffer = nullptr;
    int error = qel_dt_buffer_init(&buffer, source.name, 0, size);
    return OwnedBuffer{error == 0 ? buffer : nullptr};
}

}  // namespace

qel_dt_buffer_handle make_buffer(qel_dt_buffer_handle& place, const BufferSource& source) {
    ErrnoKept kept;
    OwnedBuffer buffer = open_buffer(source);
    if (!buffer) return nullptr;
    qel_dt_buffer_handle installed = nullptr;
    // B1: publishes the handle's record to B1 in buffer_at().
    bool won = std::atomic_ref{place}.compare_exchange_strong(
        installed, buffer.get(), std::memory_order_acq_rel, std::memory_order_acquire);
    return won ? buffer.release() : installed;
}

qel_dt_buffer_handle make_error_buffer() {
    if (making_error_buffer) return nullptr;
    making_error_buffer = true;
    Undo made{[] { making_error_buffer = false; }};
    return make_buffer(qel_gen_error_buffer, kErrorBuffer);
}

qel_dt_buffer_handle common_event_buffer() {
    return buffer_at(event_buffer, kEventBuffer);
}

}  // namespace qel
