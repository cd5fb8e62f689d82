// The log path: one call that feeds a trace buffer, a flag's ttys, or both.
//
// The buffer comes first and takes no lock. If it refuses the entry, the flag is not reached. The flag's half
// tests what needs no lock, gets by on a silent flag, and otherwise walks the ttys under the debug lock with
// the callback called for each tty that passes.
//
// The callback is the one piece of an application's code that runs under a lock of the library. What it must
// not do there (work on flags, or log on one) is refused with EDEADLK instead of hanging: 'callback_runs'
// tells each thread that it is inside.
//
// Locks: debug_lock around the walk; the callback pair has none and is to be set while nothing logs.
// Threads: any. A callback may end its thread; the guards let go.
#include <qel/base.h>

#include <cerrno>

#include "trace/qel_debug_trace.hpp"
#include "trace/qel_trace.hpp"

namespace qel {
namespace {

constinit std::atomic<qel_dt_log_callback> log_callback{print_to_system_log};
constinit std::atomic<void*> log_context{nullptr};
constinit thread_local bool callback_runs = false;

struct CallbackScope {
    CallbackScope() { callback_runs = true; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
    ~CallbackScope() { callback_runs = false; }
};

void set_callback(qel_dt_log_callback function, void* context) {
    log_context.store(context, std::memory_order_relaxed);
    log_callback.store(function, std::memory_order_release);  // L1: publishes the context; L1 in print()
}

int print(const Tty& tty, const char* format, va_list args) {
    qel_dt_log_callback function = log_callback.load(std::memory_order_acquire);  // L1
    CallbackScope scope;
    va_list copy;
    va_copy(copy, args);
    int result = function(log_context.load(std::memory_order_relaxed), tty.name, format, copy);
    va_end(copy);
    return result;
}

int print_where_asked_locked(const qel_dt_flag& flag, const Filter& logged, const char* format, va_list args)
    QEL_REQUIRES(debug_lock) {
    for (const auto* tty = first_of<Tty>(flag.ttys); tty != nullptr; tty = next_of(tty)) {
        if (!passes_locked(*tty, logged)) continue;
        if (int result = print(*tty, format, args); result != 0) return result;
    }
    return 0;
}

// A bit that no logged type may have, though a flag's mask is refused for others as well.
constexpr std::uint32_t kRefusedLoggedType = 0x40;

// A root only groups: it never prints.
bool can_print(const qel_dt_flag* flag, std::uint32_t type) {
    if (!alive(flag) || flag->parent == nullptr || (type & kRefusedLoggedType) != 0) return false;
    return type == 0 || (type & flag->supported_filters) != 0;
}

int write_to_buffer(qel_dt_buffer_handle buffer, std::uint32_t least_args, std::uint32_t* tp,
                    const char* format, va_list args) {
    if (tp == nullptr || format == nullptr) return EINVAL;
    if (std::atomic_ref{*tp}.load(std::memory_order_relaxed) == QEL_DT_TP_UNUSABLE) return EINVAL;
    return trace_write(buffer, least_args, tp, format, args);
}

// True when nobody would take the entry: without a flag, only the buffer's level decides.
bool level_stops(const qel_dt_flag* flag, qel_dt_buffer_handle buffer, std::uint32_t level) {
    return flag == nullptr && !qel_dt_trace_enabled(buffer, level);
}

}  // namespace

bool inside_callback() {
    return callback_runs;
}

}  // namespace qel

using namespace qel;

int _qel_dt_vlog_debug(qel_dt_flag* flag, uint32_t filter_type, uint64_t filter_value, const char* format,
                       va_list args) {
    if (format == nullptr || !can_print(flag, filter_type)) return EINVAL;
    if (!has_ttys(*flag)) return 0;
    if (inside_callback()) return EDEADLK;
    DebugLocked lock{debug_lock};
    return print_where_asked_locked(*flag, {filter_type, filter_value}, format, args);
}

int _qel_dt_vlog_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args, uint32_t,
                            uint32_t filter_type, uint64_t filter_value, uint32_t* tp, const char* format,
                            va_list args) {
    if (buffer != nullptr) {
        va_list copy;
        va_copy(copy, args);
        int error = write_to_buffer(buffer, least_args, tp, format, copy);
        va_end(copy);
        if (error != 0) return error;
    }
    return flag == nullptr ? 0 : _qel_dt_vlog_debug(flag, filter_type, filter_value, format, args);
}

int _qel_dt_vlog_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                             uint32_t reserved, uint32_t filter_type, uint64_t filter_value, uint32_t* tp,
                             uint32_t level, const char* format, va_list args) {
    if (level_stops(flag, buffer, level)) return 0;
    return _qel_dt_vlog_filter_adv(flag, buffer, least_args, reserved, filter_type, filter_value, tp, format,
                                   args);
}

int _qel_dt_log_filter_adv(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                           uint32_t reserved, uint32_t filter_type, uint64_t filter_value, uint32_t* tp,
                           const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = _qel_dt_vlog_filter_adv(flag, buffer, least_args, reserved, filter_type, filter_value, tp,
                                         format, args);
    va_end(args);
    return result;
}

int _qel_dt_log_filter_adv2(qel_dt_flag* flag, qel_dt_buffer_handle buffer, uint32_t least_args,
                            uint32_t reserved, uint32_t filter_type, uint64_t filter_value, uint32_t* tp,
                            uint32_t level, const char* format, ...) {
    if (level_stops(flag, buffer, level)) return 0;
    va_list args;
    va_start(args, format);
    int result = _qel_dt_vlog_filter_adv(flag, buffer, least_args, reserved, filter_type, filter_value, tp,
                                         format, args);
    va_end(args);
    return result;
}

int qel_dt_trace_enabled(qel_dt_buffer_handle buffer, uint32_t level) {
    return buffer != nullptr && trace_passes(buffer, level);
}

int qel_dt_register_log_callback(qel_dt_log_callback function, void* context) {
    qel_check_not_interrupt_path();
    if (function == nullptr) return EINVAL;
    set_callback(function, context);
    return 0;
}

int qel_dt_deregister_log_callback(void) {
    qel_check_not_interrupt_path();
    set_callback(print_to_system_log, nullptr);
    return 0;
}
