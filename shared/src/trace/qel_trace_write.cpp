// Writing an entry: from a log call's arguments to a committed entry.
//
//   enter the gate -> (first time: register the format) -> gather the arguments -> reserve -> fill -> commit
//   -> leave
//
// The arguments are walked once. Numbers go into a small packed copy, of variable arguments address and size
// are noted; when the size is known, blocks are reserved and both are copied behind the payload header. A
// text that changes meanwhile may be torn, but never runs past its size, and its last byte is a NUL.
//
// Threads: any. No lock, no allocation, and no system call once the format is registered.
// Restart: blocks reserved by a writer that died before its commit stay reserved.
#include "trace/qel_trace.hpp"

#include <cerrno>
#include <cstring>

#include "time/qel_time.hpp"
#include "trace/qel_trace_gate.hpp"
#include "trace/qel_trace_point.hpp"
#include "trace/qel_trace_process.hpp"
#include "trace/qel_trace_reserve.hpp"

namespace qel {

namespace {

constexpr std::size_t kIpv4Bytes = 4;
constexpr std::size_t kIpv6Bytes = 16;
constexpr std::size_t kMacBytes = 6;

// The arguments of one call, in the order and the sizes of the entry. Members are written before they are
// read.
class Arguments {
  public:
    // EINVAL for a null address.
    int gather(ArgumentPlan plan, va_list args);
    std::uint32_t length() const { return fixed_size_ + variable_size_; }
    void copy_to(std::byte* out) const;

  private:
    struct Variable {
        const void* data;  // null for the empty string
        std::uint32_t size;
        bool text;
    };

    template <class Number>
    void add_number(Number number) {
        std::memcpy(fixed_ + fixed_size_, &number, sizeof number);
        fixed_size_ += static_cast<std::uint32_t>(sizeof number);
    }
    void add_text(const char* text) {
        std::size_t size = text != nullptr ? strnlen(text, kMaxArgumentBytes + 1) : 0;
        add_variable(text, size + 1, true);
    }
    int add_address(const void* address, std::size_t size) {
        if (address == nullptr) return EINVAL;
        add_variable(address, size, false);
        return 0;
    }
    void add_variable(const void* data, std::size_t size, bool text) {
        variable_[variable_count_++] = {data, static_cast<std::uint32_t>(size), text};
        variable_size_ += static_cast<std::uint32_t>(size);
    }

    std::uint32_t fixed_size_ = 0;
    std::uint32_t variable_size_ = 0;
    std::uint32_t variable_count_ = 0;
    std::byte fixed_[8 * QEL_DT_TP_MAX_ARGUMENTS];
    Variable variable_[QEL_DT_TP_MAX_ARGUMENTS];
};

int Arguments::gather(ArgumentPlan plan, va_list args) {
    for (int error = 0; error == 0;) {
        switch (plan.take()) {
        case ArgumentType::none:
            return 0;
        case ArgumentType::word32:
        case ArgumentType::ipv4_value:
            add_number(va_arg(args, std::uint32_t));
            break;
        case ArgumentType::word64:
            add_number(va_arg(args, std::uint64_t));
            break;
        case ArgumentType::string:
            add_text(va_arg(args, const char*));
            break;
        case ArgumentType::ipv4_pointer:
            error = add_address(va_arg(args, const void*), kIpv4Bytes);
            break;
        case ArgumentType::ipv6_pointer:
            error = add_address(va_arg(args, const void*), kIpv6Bytes);
            break;
        case ArgumentType::mac_pointer:
            error = add_address(va_arg(args, const void*), kMacBytes);
            break;
        }
    }
    return EINVAL;
}

void Arguments::copy_to(std::byte* out) const {
    std::memcpy(out, fixed_, fixed_size_);
    out += fixed_size_;
    for (std::uint32_t i = 0; i < variable_count_; ++i) {
        const Variable& variable = variable_[i];
        const std::uint32_t copied = variable.size - (variable.text ? 1 : 0);
        if (copied != 0) std::memcpy(out, variable.data, copied);
        if (variable.text) out[copied] = std::byte{0};
        out += variable.size;
    }
}

// Numbers run from 1 to 2^31 - 1 and on from 0; the word itself never stands for 0.
std::uint32_t take_sequence_number(BufferHeader& header) {
    std::atomic_ref<std::uint32_t> next{header.sequence};
    std::uint32_t number = next.fetch_add(1, std::memory_order_relaxed);
    while (number == 0) number = next.fetch_add(1, std::memory_order_relaxed);
    return number & 0x7fffffff;
}

void fill_entry(const BufferSegment& segment, Cursor at, std::uint32_t trace_point,
                const Arguments& arguments) {
    std::uint32_t sequence = take_sequence_number(*segment.header);
    const timespec now = realtime_now();
    const PayloadHeader header{.length = static_cast<std::uint16_t>(arguments.length()),
                               .stamp = static_cast<std::uint16_t>(at.stamp),
                               .sequence = sequence,
                               .process_id = process_id.load(std::memory_order_relaxed),
                               .trace_point = trace_point,
                               .seconds = static_cast<std::uint32_t>(now.tv_sec),
                               .nanoseconds = static_cast<std::uint32_t>(now.tv_nsec)};
    std::byte* entry = segment.payload + std::size_t{at.index} * kBlockSize;
    std::memcpy(entry, &header, sizeof header);
    arguments.copy_to(entry + sizeof header);
}

// The run is over, unless a control operation is just starting a new one.
void set_one_shot_full(BufferHeader& header) {
    std::atomic_ref<std::uint32_t> flags{header.flags};
    std::uint32_t seen = flags.load(std::memory_order_relaxed);
    while ((seen & (kFlagOneShot | kFlagControl)) == kFlagOneShot &&
           !flags.compare_exchange_weak(seen, seen | kFlagOneShotFull, std::memory_order_relaxed)) {
    }
}

int write_entry(const BufferSegment& segment, std::uint32_t trace_point, const Arguments& arguments) {
    const std::uint32_t blocks = blocks_of_entry(arguments.length());
    if (blocks > kMaxEntryBlocks) return E2BIG;
    Reservation reservation;
    int error = reserve_blocks(segment, blocks, reservation);
    if (error == kOneShotEnd) {
        set_one_shot_full(*segment.header);
        return 0;
    }
    if (error != 0) return error;
    fill_entry(segment, reservation.at, trace_point, arguments);
    commit_blocks(segment, reservation);
    return 0;
}

[[gnu::noinline]] int register_site(std::atomic_ref<std::uint32_t> site, std::uint32_t least_args,
                                    const char* format) {
    std::uint32_t index = QEL_DT_TP_UNUSABLE;
    int error = point_register(format, least_args, index);
    site.store(error == 0 ? index : QEL_DT_TP_UNUSABLE, std::memory_order_relaxed);
    return error;
}

bool drops_entries(BufferHeader& header) {
    std::atomic_ref<std::uint32_t> flags{header.flags};
    return (flags.load(std::memory_order_relaxed) & (kFlagPaused | kFlagOneShotFull)) != 0;
}

int write_inside(const BufferSegment& segment, std::uint32_t least_args, std::uint32_t* tp,
                 const char* format, va_list args) {
    std::atomic_ref<std::uint32_t> site{*tp};
    if (site.load(std::memory_order_relaxed) == QEL_DT_TP_UNREGISTERED)
        if (int error = register_site(site, least_args, format); error != 0) return error;
    if (drops_entries(*segment.header)) return 0;
    const std::uint32_t trace_point = site.load(std::memory_order_relaxed);
    const ArgumentPlan plan = argument_plan(trace_point);
    if (!plan) return EINVAL;
    Arguments arguments;
    if (int error = arguments.gather(plan, args); error != 0) return error;
    return write_entry(segment, trace_point, arguments);
}

}  // namespace

int trace_write(qel_dt_buffer_handle buffer, std::uint32_t least_args, std::uint32_t* tp, const char* format,
                va_list args) {
    if (buffer == nullptr || tp == nullptr || format == nullptr) return EINVAL;
    Inside inside{*buffer};
    if (inside.error() == kGateBusy) return 0;
    if (inside.error() != 0) return inside.error();
    int error = write_inside(buffer->segment, least_args, tp, format, args);
    if (error != 0)
        std::atomic_ref<std::uint32_t>{buffer->segment.header->dropped}.fetch_add(1,
                                                                                  std::memory_order_relaxed);
    return error;
}

}  // namespace qel
