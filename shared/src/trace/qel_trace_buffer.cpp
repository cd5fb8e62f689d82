// Buffer handles: made, given back, and the level.
//
// A handle holds the list of trace points, a mapping of the buffer's segment and the window on its header.
// Each step of making one is undone when a later one fails. The level is no control operation: it is read and
// set inside the gate, and by trace_passes() without even that.
//
// Locks: see qel_trace_gate.hpp. Threads: any; who closes a handle must be its last user.
// Restart: see qel_trace_segment.cpp.
#include "trace/qel_trace_buffer.hpp"

#include <qel/ppm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/qel_owned.hpp"
#include "trace/qel_trace.hpp"
#include "trace/qel_trace_gate.hpp"
#include "trace/qel_trace_lnx.hpp"
#include "trace/qel_trace_names.hpp"
#include "trace/qel_trace_point.hpp"
#include "trace/qel_trace_process.hpp"

namespace qel {

namespace {

constexpr std::uint32_t kHighestLevel = 7;

bool valid_name(const char* name) {
    return name != nullptr && strnlen(name, QEL_DT_NAME_SIZE + 1) <= QEL_DT_NAME_SIZE &&
           std::strchr(name, '/') == nullptr;
}

// A parameter of one buffer; 'fallback' if it is not set.
std::uint32_t buffer_parameter(const char* pattern, const char* name, std::uint32_t fallback) {
    char key[QEL_DT_NAME_SIZE + 32];
    std::snprintf(key, sizeof key, pattern, name);
    std::uint32_t value = fallback;
    static_cast<void>(qel_ppm_get_integer(key, fallback, &value));  // Fails for null only.
    return value;
}

std::uint64_t configured_size(const char* name, std::uint32_t asked) {
    const std::uint32_t kilobytes = buffer_parameter("qel.trace.kbytes.%s", name, 0);
    return static_cast<std::int32_t>(kilobytes) >= 1 ? std::uint64_t{kilobytes} * 1024 : asked;
}

std::uint32_t configured_level(const char* name) {
    const std::uint32_t level = buffer_parameter("qel.trace.level.%s", name, QEL_DT_LEVEL_WARNING);
    return level <= kHighestLevel ? level : QEL_DT_LEVEL_WARNING;
}

void drop_segment(qel_dt_buffer& buffer) {
    trace_window_close(buffer.window);
    segment_close(buffer.segment);
}

// Takes over 'segment', or closes it on failure.
int finish_handle(const char* name, BufferSegment& segment, qel_dt_buffer_handle* out) {
    Undo close_segment{[&] { segment_close(segment); }};
    Owned<qel_dt_buffer> buffer = allocate_zeroed<qel_dt_buffer>(QEL_MEM_QDT);
    if (!buffer) return ENOMEM;
    std::memcpy(buffer->name, name, strnlen(name, sizeof buffer->name - 1));
    buffer->window = trace_window_open(segment_page(segment));
    if (buffer->window == nullptr) return ENOMEM;
    Undo close_window{[&] { trace_window_close(buffer->window); }};
    buffer->segment = segment;
    buffer->level_word.store(window_level_word(buffer->window));
    if (int error = process_list_add(*buffer); error != 0) return error;
    close_window.keep();
    close_segment.keep();
    *out = buffer.release();
    return 0;
}

// Makes a handle on the segment that 'open_segment' gives.
template <class OpenSegment>
int make_handle(const char* name, qel_dt_buffer_handle* out, OpenSegment open_segment) {
    if (int error = point_list_hold(); error != 0) return error;
    Undo release_list{[] { point_list_release(); }};
    BufferSegment segment{};
    int error = open_segment(segment);
    if (error == 0) error = finish_handle(name, segment, out);
    if (error == 0) release_list.keep();
    return error;
}

// Takes the handle apart; nobody else uses it any more.
void close_handle(qel_dt_buffer_handle& handle) {
    Owned<qel_dt_buffer> buffer{std::exchange(handle, nullptr)};
    gate_close(*buffer);
    process_list_remove(*buffer);
    drop_segment(*buffer);
    point_list_release();
}

}  // namespace

int buffer_open(const char* name, std::uint32_t wait_ms, qel_dt_buffer_handle* out) {
    if (out == nullptr || !valid_name(name)) return EINVAL;
    return make_handle(name, out,
                       [&](BufferSegment& segment) { return segment_attach(name, wait_ms, segment); });
}

bool stale_trace_passes(qel_dt_buffer_handle buffer, std::uint32_t level) {
    std::uint32_t highest = QEL_DT_LEVEL_DEBUG;
    return qel_dt_buffer_get_level(buffer, &highest) == 0 && level <= highest;
}

}  // namespace qel

using namespace qel;

int qel_dt_buffer_init(qel_dt_buffer_handle* out, const char* name, uint32_t, uint32_t size) {
    if (out == nullptr || !valid_name(name) || size == 0 || blocks_for(size) == 0) return EINVAL;
    const std::uint64_t wanted = configured_size(name, size);
    const std::uint32_t blocks = blocks_for(wanted);
    if (blocks == 0) return EINVAL;
    const auto stored = static_cast<std::uint32_t>(wanted);
    const BufferSettings settings{blocks, stored, stored, configured_level(name), 0};
    return make_handle(name, out, [&](BufferSegment& segment) {
        return segment_open(name, QEL_SHM_CREATE, settings, segment);
    });
}

int qel_dt_buffer_open(qel_dt_buffer_handle* out, const char* name) {
    return buffer_open(name, kNoLimit, out);
}

int qel_dt_buffer_close(qel_dt_buffer_handle* buffer) {
    if (buffer == nullptr || *buffer == nullptr) return EINVAL;
    close_handle(*buffer);
    return 0;
}

int qel_dt_buffer_destroy(qel_dt_buffer_handle* buffer) {
    if (buffer == nullptr || *buffer == nullptr) return EINVAL;
    char name[QEL_DT_NAME_SIZE];
    std::memcpy(name, (*buffer)->name, sizeof name);
    name_list_remove(name);
    close_handle(*buffer);
    int error = segment_unlink(name);
    return error == ENOENT ? 0 : error;
}

int qel_dt_buffer_set_level(qel_dt_buffer_handle buffer, uint32_t level) {
    if (buffer == nullptr) return EINVAL;
    if (level < QEL_DT_LEVEL_ERROR || level > kHighestLevel) return EPERM;
    Inside inside{*buffer};
    if (inside.error() != 0) return inside.error() == kGateBusy ? 0 : inside.error();
    std::atomic_ref<std::uint32_t>{buffer->segment.header->level}.store(level, std::memory_order_relaxed);
    return 0;
}

int qel_dt_buffer_get_level(qel_dt_buffer_handle buffer, uint32_t* out) {
    if (buffer == nullptr || out == nullptr) return EINVAL;
    Inside inside{*buffer};
    if (inside.error() != 0) return inside.error() == kGateBusy ? 0 : inside.error();
    *out = std::atomic_ref<std::uint32_t>{buffer->segment.header->level}.load(std::memory_order_relaxed);
    return 0;
}
