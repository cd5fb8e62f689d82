// Statistics of the own end point, and the commands that work on any channel by its name.
//
// A command needs no handle: it attaches to the channel's header, checks that it is one, and looks or sets a
// level there. The channel's processes follow at their next call.
//
// Locks: statistics take the context's lock and fc_lock. A dump holds shm_mutex, waited for 2 s and done
// without then. Levels are single bytes, set without a lock. Threads: any.
// Restart: a channel is as good for a command when all its processes have died.
#include <qel/base.h>
#include <qel/ipc_debug.h>

#include <array>
#include <cstdio>

#include "dump/qel_dump.hpp"
#include "ipc/qel_ipc_channel.hpp"
#include "ipc/qel_ipc_dump.hpp"
#include "ipc/qel_ipc_inspect.hpp"
#include "ipc/qel_ring_words.hpp"

namespace qel {
namespace {

constexpr char kErrorBuffer[] = "qel_ipc_errors";
constexpr char kCommonErrorBuffer[] = "qel.gen.buffer.errors";
constexpr char kTraceBuffer[] = "qel_ipc_traces";
// What a dump tells of the size of a context, whatever that holds beside.
constexpr int kToldContextSize = 1568;
constexpr std::uint32_t kLevelMask = 3;
constexpr std::uint32_t kCoreDumpBit = 0x80;

// --- Commands 0 and 1: the buffers, picked by the argument

struct BufferChoice {
    explicit BufferChoice(std::uint32_t argument) : errors(argument != 2), traces(argument != 1) {}
    bool errors;
    bool traces;
};

cerrno show_buffer(const char* name) {
    int error = dump::print_buffer(name);
    return error == 0 ? 0 : fatal(error);
}

// Errors of messaging go to the library's common error buffer, unless somebody made one for them alone. There
// is none before the first error: then there is nothing to show.
cerrno show_errors() {
    cerrno result = show_buffer(kErrorBuffer);
    if (result == fatal(ENOENT)) result = show_buffer(kCommonErrorBuffer);
    return result == fatal(ENOENT) ? 0 : result;
}

cerrno show_traces(const char*, std::uint32_t argument) {
    BufferChoice choice{argument};
    if (choice.errors) {
        static_cast<void>(qel_cli_printf("\n--- QEL IPC ERRORS ---\n"));
        if (cerrno error = show_errors(); error != 0) return error;
    }
    if (!choice.traces) return 0;
    static_cast<void>(qel_cli_printf("\n--- QEL IPC TRACES ---\n"));
    return show_buffer(kTraceBuffer);
}

// A buffer that is gone already needs no removal.
cerrno remove_buffer(const char* name) {
    char segment[QEL_DT_NAME_SIZE];
    std::snprintf(segment, sizeof segment, "%s.qdt", name);
    int error = qel_shm_unlink(segment);
    return error == 0 || error == ENOENT ? 0 : fatal(error);
}

cerrno reset_traces(const char*, std::uint32_t argument) {
    BufferChoice choice{argument};
    if (choice.errors) {
        static_cast<void>(qel_cli_printf("---  Resetting errors trace buffer ---\n"));
        if (cerrno error = remove_buffer(kErrorBuffer); error != 0) return error;
    }
    if (!choice.traces) return 0;
    static_cast<void>(qel_cli_printf("---  Resetting traces trace buffer ---\n"));
    return remove_buffer(kTraceBuffer);
}

// --- Commands 2 to 4: a channel by name

cerrno attach_channel(const char* name, Mapping& out) {
    if (name == nullptr) return fatal(EINVAL);
    std::uint8_t existed = 0;
    if (qel_shm_open(name, 0, out.out(), &existed) != 0) return fatal(ENOENT);
    HeaderMagic magic = HeaderMagic::fresh;
    if (out.info().size >= sizeof magic) magic = peek(static_cast<const IpcHeader*>(out.info().addr)->magic);
    if (magic == HeaderMagic::ready && out.info().size >= sizeof(IpcHeader)) return 0;
    static_cast<void>(qel_cli_printf("Invalid magic number = %x\n", static_cast<unsigned>(magic)));
    return fatal(EINVAL);
}

IpcHeader& header_of(const Mapping& channel) {
    return *static_cast<IpcHeader*>(channel.info().addr);
}

void print_general(const IpcHeader& header) {
    static_cast<void>(qel_cli_printf("\n---  QEL IPC GENERAL INFORNATION\n"));
    static_cast<void>(qel_cli_printf("     max IPC=%d\n", static_cast<int>(kMaxContexts)));
    static_cast<void>(qel_cli_printf("     ipc in process context size=%d\n", kToldContextSize));
    static_cast<void>(qel_cli_printf("     ipc shm context size=%d\n", static_cast<int>(sizeof header)));
    static_cast<void>(qel_cli_printf("     ipc qdt buffer trace ID=0x%x\n", header.trace_id));
    static_cast<void>(qel_cli_printf("     trace level=%d audit level=%d core dump=%d\n", header.trace_level,
                                     header.audit_level, header.core_dump));
}

// The channel's heap while a dump lasts.
class DumpHeap {
  public:
    explicit DumpHeap(const IpcHeader& header) {
        if (header.heap_size == 0) return;
        if (int error = vchunk_attach(heap_name(header.name).text, pool_); error != 0)
            static_cast<void>(qel_cli_printf("    error opening heap rc=%d\n", error));
    }
    DumpHeap(const DumpHeap&) = delete;
    DumpHeap& operator=(const DumpHeap&) = delete;
    ~DumpHeap() {
        if (pool_ != 0) vchunk_detach(pool_);
    }
    qel_mem_vchunk_pool pool() const { return pool_; }

  private:
    qel_mem_vchunk_pool pool_ = 0;
};

cerrno dump_channel(const char* name, std::uint32_t level) {
    Mapping channel;
    if (cerrno error = attach_channel(name, channel); error != 0) return error;
    IpcHeader& live = header_of(channel);
    DumpLocked lock{live.shm_mutex, "shm_mutex"};
    tell_if_missed(lock.missed());
    HeaderCopy header;
    header.take(live, name);
    print_general(*header);
    static_cast<void>(qel_cli_printf("\n---  QEL IPC POOLS AND FLOW CONTROL\n"));
    print_flow_control(live);
    if (level == 0) return 0;
    DumpHeap heap{*header};
    print_end_points(*header, {heap.pool(), nullptr}, level);
    return 0;
}

std::uint8_t level_in(std::uint32_t argument) {
    return static_cast<std::uint8_t>(argument & kLevelMask);
}

cerrno set_trace_level(const char* name, std::uint32_t argument) {
    Mapping channel;
    if (cerrno error = attach_channel(name, channel); error != 0) return error;
    poke(header_of(channel).trace_level, level_in(argument));
    return 0;
}

cerrno set_audit_level(const char* name, std::uint32_t argument) {
    Mapping channel;
    if (cerrno error = attach_channel(name, channel); error != 0) return error;
    poke(header_of(channel).audit_level, level_in(argument));
    poke(header_of(channel).core_dump, (argument & kCoreDumpBit) != 0 ? 1 : 0);
    return 0;
}

using Command = cerrno (*)(const char* name, std::uint32_t argument);
constexpr std::array<Command, 5> kCommands{show_traces, reset_traces, dump_channel, set_trace_level,
                                           set_audit_level};
static_assert(kCommands.size() == QEL_IPC_DEBUG_AUDIT_LEVEL + 1);

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_ipc_debug(uint32_t command, const char* name, uint32_t argument) {
    qel_check_not_interrupt_path();
    if (command >= kCommands.size()) return fatal(EOPNOTSUPP);
    return kCommands[command](name, argument);
}

cerrno qel_ipc_get_stats(qel_ipc_handle ipc, qel_ipc_stats* out) {
    qel_check_not_interrupt_path();
    if (out == nullptr) return ipc_error(__func__, "stats is NULL", fatal(EINVAL));
    LockedIpc context{ipc};
    if (!context) return ipc_error(__func__, "invalid handle", fatal(EINVAL));
    IpcHeader& header = *context->hdr;
    const EndPointRecord& own = own_record(*context);
    SharedLocked lock{header.fc_lock};
    *out = {.total_msg = header.total_msg,
            .ofp_pool = header.ofp_pool,
            .ofp_quota = header.ofp_quota,
            .prod_count = header.prod_count,
            .quota = header.quota,
            .ofp_used = header.ofp_used,
            .restricted = own.restricted,
            .hw = header.hw,
            .lw = header.lw,
            .alloc = own.alloc,
            .reserved_credits = own.reserved_credits,
            .sent = own.sent,
            .received = own.received};
    return 0;
}

void qel_ipc_wb_test(uint32_t, uint32_t) {}
