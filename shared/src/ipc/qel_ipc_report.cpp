// The lines of messaging: errors, traces, and the flags and buffers that they go to.
//
// Errors are written to the library's error buffer always, and printed on the flag "errors" below "qel-ipc".
// Traces go to the buffer "qel_ipc_traces", of which the machine has one, and are printed on the flag
// "traces"; a channel's trace_level, in its header, says which are made at all. A line begins with the
// process; where they are known, the channel's trace ID, the own end point and the peer's follow.
//
// Invariant: no line changes a result or errno; one that can't be written is dropped.
// Locks: tracing_mutex, for the making of flags and buffer only. Threads: any.
// Restart: the buffers outlive the process; flags are made afresh.
#include <qel/ppm.h>
#include <qel/thread.h>

#include <cstdarg>

#include "ipc/qel_ipc.hpp"
#include "trace/qel_report.hpp"

qel_dt_flag* qel_ipc_root_df = nullptr;
qel_dt_flag* qel_ipc_err_df = nullptr;
qel_dt_flag* qel_ipc_trace_df = nullptr;
qel_dt_buffer_handle qel_ipc_trace_buffer = nullptr;
const char* qel_ipc_proc_name = nullptr;

namespace qel {
namespace {

constexpr char kTraceBufferName[] = "qel_ipc_traces";
constexpr char kTraceSizeKey[] = "qel.ipc.trace.size";
constexpr std::uint32_t kTraceSize = 0x20000;

constinit Mutex tracing_mutex;

// What the process-wide words hold, for lines of any thread while another one sets them up.
template <class Word>
Word current(Word& word) {
    return std::atomic_ref{word}.load(std::memory_order_acquire);  // T1
}

template <class Word>
void publish(Word& word, Word value) {
    std::atomic_ref{word}.store(value, std::memory_order_release);  // T1: with the record behind the pointer
}

int make_flag(qel_dt_flag*& place, const char* name, qel_dt_flag* parent) {
    if (place != nullptr) return 0;
    qel_dt_flag* flag = nullptr;
    int error = qel_dt_flag_init(&flag, name, parent, nullptr, 0);
    if (error == 0) publish(place, flag);
    return error;
}

int make_trace_buffer() {
    if (qel_ipc_trace_buffer != nullptr) return 0;
    std::uint32_t size = kTraceSize;
    // Where the parameters can't be read, the default stands.
    static_cast<void>(qel_ppm_get_integer(kTraceSizeKey, kTraceSize, &size));
    qel_dt_buffer_handle buffer = nullptr;
    int error = qel_dt_buffer_init(&buffer, kTraceBufferName, 0, size);
    if (error == 0) publish(qel_ipc_trace_buffer, buffer);
    return error;
}

template <FixedText Label, FixedText Format>
void report_failure(int error) {
    if (error != 0) report<Label, Format>(own_pid(), error);
}

}  // namespace

int own_pid() {
    return static_cast<int>(qel_thread_get_pid());
}

void ipc_log(std::uint32_t& tp, const char* format, ...) {
    ErrnoKept kept;
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(
        _qel_dt_vlog_filter_adv(current(qel_ipc_err_df), error_buffer(), 0, 0, 0, 0, &tp, format, arguments));
    va_end(arguments);
}

void ipc_trace(std::uint32_t& tp, const char* format, ...) {
    ErrnoKept kept;
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(_qel_dt_vlog_filter_adv(current(qel_ipc_trace_df), current(qel_ipc_trace_buffer), 0, 0,
                                              0, 0, &tp, format, arguments));
    va_end(arguments);
}

cerrno ipc_error(const char* function, const char* text, cerrno code) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d ERROR: %s: %s err=%d", own_pid(), function, text, errno_of(code));
    return code;
}

cerrno ipc_error(const IpcContext& ipc, const char* function, const char* text, cerrno code) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d [%x:%d] ERROR: %s: %s err=%d", own_pid(), ipc.hdr->trace_id, ipc.ep, function, text,
            errno_of(code));
    return code;
}

cerrno ipc_error(const IpcContext& ipc, std::uint32_t peer, const char* function, const char* text,
                 cerrno code) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    ipc_log(tp, "pid: %d [%x:%d:%d] ERROR: %s: %s err=%d", own_pid(), ipc.hdr->trace_id, ipc.ep, peer,
            function, text, errno_of(code));
    return code;
}

void IpcMutexFailures::lock_failed(int error) {
    report<"IPC1", "%s lock of a channel failed rc=%d">(error);
}

void IpcMutexFailures::unlock_failed(int error) {
    report<"IPC2", "%s unlock of a channel failed rc=%d">(error);
}

void IpcLockFailures::waited_long(const LongWait& wait) {
    report<"IPC3", "%s waited %u s for a lock of a channel, held by thread %u, alive %u">(
        wait.seconds, wait.holder, wait.holder_lives);
}

}  // namespace qel

using namespace qel;

void qel_ipc_init_tracing(void) {
    static_cast<void>(error_buffer());  // Made here if nobody needed it yet; a failure has no place to go.
    IpcLocked lock{tracing_mutex};
    report_failure<"IPC4", "pid: %d ### qel_dt_flag_init qel-ipc failed rc=%d\n">(
        make_flag(qel_ipc_root_df, "qel-ipc", nullptr));
    report_failure<"IPC5", "pid: %d ### qel_dt_flag_init errors failed rc=%d\n">(
        make_flag(qel_ipc_err_df, "errors", qel_ipc_root_df));
    report_failure<"IPC6", "pid: %d ### qel_dt_buffer_init qel_ipc_traces failed rc=%d\n">(
        make_trace_buffer());
    report_failure<"IPC7", "pid: %d ### qel_dt_flag_init traces failed rc=%d\n">(
        make_flag(qel_ipc_trace_df, "traces", qel_ipc_root_df));
}
