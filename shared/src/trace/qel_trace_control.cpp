// Control operations: pause, one-shot mode, clear, resize, attributes.
//
// One at a time runs on a buffer in the whole machine: it holds the control flag in the segment. The flag is
// let go on every path; one left behind by a process that died in the middle stays, and later operations give
// EAGAIN.
//
// Resizing makes a new segment under the buffer's name and marks the old one stale. Writers of this process
// are kept out meanwhile; those of others go on in the old segment and move over at their next entry.
//
// Locks, in this order: inside the gate, the control flag, the shut gate.
// Restart: a process that died inside a resize may leave the name without a segment, or writers in a segment
// without a name; the next one to make the buffer by name begins a new one.
#include <cerrno>
#include <cstring>

#include "time/qel_time.hpp"
#include "trace/qel_trace_gate.hpp"
#include "trace/qel_trace_names.hpp"

namespace qel {

namespace {

using Word = std::atomic_ref<std::uint32_t>;

void set_flags(BufferHeader& header, std::uint32_t bits) {
    Word{header.flags}.fetch_or(bits, std::memory_order_acq_rel);
}

void clear_flags(BufferHeader& header, std::uint32_t bits) {
    Word{header.flags}.fetch_and(~bits, std::memory_order_acq_rel);
}

// A stay inside with the control flag held, for the length of a scope.
class ControlSection {
  public:
    explicit ControlSection(qel_dt_buffer& buffer) : inside_(buffer), buffer_(buffer) {
        error_ = inside_.error() == kGateBusy ? EAGAIN : inside_.error();
        if (error_ == 0 && !segment_sound(buffer.segment)) error_ = EFAULT;
        if (error_ == 0) error_ = take_flag();
    }
    ControlSection(const ControlSection&) = delete;
    ControlSection& operator=(const ControlSection&) = delete;
    ~ControlSection() {
        if (error_ == 0 && flag_held_) clear_flags(header(), kFlagControl);
    }
    // 0, EAGAIN, EFAULT for a corrupt segment, or the error of a remap.
    int error() const { return error_; }
    BufferHeader& header() { return *buffer_.segment.header; }
    // The handle went over to a segment whose flag is not ours.
    void forget_flag() { flag_held_ = false; }

  private:
    int take_flag() {
        std::uint32_t old = Word{header().flags}.fetch_or(kFlagControl, std::memory_order_acq_rel);
        return (old & kFlagControl) != 0 ? EAGAIN : 0;
    }

    Inside inside_;
    qel_dt_buffer& buffer_;
    int error_ = 0;
    bool flag_held_ = true;
};

template <class Operation>
int control(qel_dt_buffer_handle buffer, Operation operation) {
    if (buffer == nullptr) return EINVAL;
    ControlSection section{*buffer};
    if (section.error() != 0) return section.error();
    operation(section.header());
    return 0;
}

void set_one_shot_mark(BufferHeader& header) {
    Word{header.one_shot_mark}.store(Word{header.next}.load());
}

void clear(BufferHeader& header) {
    timespec now = realtime_now();
    Word{header.clear_seconds}.store(static_cast<std::uint32_t>(now.tv_sec));
    Word{header.clear_nanoseconds}.store(static_cast<std::uint32_t>(now.tv_nsec));
    if ((Word{header.flags}.load() & kFlagOneShot) != 0) {
        set_one_shot_mark(header);
        clear_flags(header, kFlagOneShotFull);
    }
    __atomic_store_n(&word_pair(header.count)->value, 0, __ATOMIC_RELAXED);
    Word{header.dropped}.store(0);
    Word{header.wraps}.store(0);
}

// The mark is set before the mode, or a writer in between would take the run for ended.
void start_one_shot(BufferHeader& header) {
    set_one_shot_mark(header);
    set_flags(header, kFlagOneShot);
    clear(header);
}

void read_attributes(BufferHeader& header, const char* name, qel_dt_buffer_attr& out) {
    const std::uint32_t flags = Word{header.flags}.load();
    out = {};
    std::memcpy(out.name, name, sizeof out.name);
    out.original_size = header.original_size;
    out.size = header.size;
    out.dropped = Word{header.dropped}.load();
    out.count = __atomic_load_n(&word_pair(header.count)->value, __ATOMIC_RELAXED);
    out.paused = (flags & kFlagPaused) != 0;
    out.one_shot = (flags & kFlagOneShot) != 0;
    out.one_shot_full = (flags & kFlagOneShotFull) != 0;
    out.clear_seconds = header.clear_seconds;
    out.clear_nanoseconds = header.clear_nanoseconds;
}

// The gate kept shut for the length of a scope.
class ShutGate {
  public:
    explicit ShutGate(qel_dt_buffer& buffer) : buffer_(buffer), error_(gate_shut(buffer)) {}
    ShutGate(const ShutGate&) = delete;
    ShutGate& operator=(const ShutGate&) = delete;
    ~ShutGate() { static_cast<void>(reopen()); }  // For the ways out that have an error to tell already.
    int error() const { return error_ == kGateBusy ? EAGAIN : error_; }
    int reopen() {
        if (error_ != 0) return 0;
        error_ = kGateBusy;
        return gate_reopen(buffer_);
    }

  private:
    qel_dt_buffer& buffer_;
    int error_;
};

// Puts 'fresh' in the place of the handle's segment, which is stale from then on.
int go_over_to(qel_dt_buffer& buffer, BufferSegment& fresh) {
    set_flags(*buffer.segment.header, kFlagStale);
    int error = gate_replace_segment(buffer, fresh);
    if (error != 0) segment_close(fresh);
    return error;
}

// Somebody made the buffer anew between our removing its name and taking it: theirs is the buffer now.
int join_the_other(qel_dt_buffer& buffer, ControlSection& section) {
    BufferSegment theirs{};
    if (int error = segment_attach(buffer.name, kCreationLimitMs, theirs); error != 0) return error;
    // They may have found our name in the list before it was taken off. Without a slot the buffer is only
    // unlisted.
    static_cast<void>(name_list_enter(buffer.name));
    if (int error = go_over_to(buffer, theirs); error != 0) return error;
    section.forget_flag();
    return EEXIST;
}

// The new segment is born with our control flag, and can't be born stale.
constexpr std::uint32_t kFlagsThatStay = kFlagControl | kFlagPaused | kFlagOneShot;

BufferSettings settings_after_resize(BufferHeader& header, std::uint32_t size) {
    return {.blocks = blocks_for(size),
            .size = size,
            .original_size = header.original_size,
            .level = Word{header.level}.load(),
            .flags = Word{header.flags}.load() & kFlagsThatStay};
}

int replace_by_new_size(qel_dt_buffer& buffer, ControlSection& section, std::uint32_t size) {
    if (int error = segment_unlink(buffer.name); error != 0) return error;
    name_list_remove(buffer.name);
    BufferSegment fresh{};
    int error = segment_open(buffer.name, QEL_SHM_CREATE | QEL_SHM_EXCLUSIVE,
                             settings_after_resize(section.header(), size), fresh);
    if (error == EEXIST) return join_the_other(buffer, section);
    return error != 0 ? error : go_over_to(buffer, fresh);
}

int resize(qel_dt_buffer& buffer, std::uint32_t size) {
    ControlSection section{buffer};
    if (section.error() != 0) return section.error();
    if (section.header().size == size) return 0;
    ShutGate gate{buffer};
    if (gate.error() != 0) return gate.error();
    int error = replace_by_new_size(buffer, section, size);
    return error != 0 ? error : gate.reopen();
}

}  // namespace

}  // namespace qel

using namespace qel;

int qel_dt_buffer_pause(qel_dt_buffer_handle buffer) {
    return control(buffer, [](BufferHeader& header) { set_flags(header, kFlagPaused); });
}

int qel_dt_buffer_unpause(qel_dt_buffer_handle buffer) {
    return control(buffer, [](BufferHeader& header) { clear_flags(header, kFlagPaused); });
}

int qel_dt_buffer_set_one_shot_mode(qel_dt_buffer_handle buffer) {
    return control(buffer, start_one_shot);
}

int qel_dt_buffer_unset_one_shot_mode(qel_dt_buffer_handle buffer) {
    return control(buffer,
                   [](BufferHeader& header) { clear_flags(header, kFlagOneShot | kFlagOneShotFull); });
}

int qel_dt_buffer_clear(qel_dt_buffer_handle buffer) {
    return control(buffer, clear);
}

int qel_dt_buffer_get_attr(qel_dt_buffer_handle buffer, qel_dt_buffer_attr* out) {
    if (out == nullptr) return EINVAL;
    return control(buffer, [&](BufferHeader& header) { read_attributes(header, buffer->name, *out); });
}

int qel_dt_buffer_resize(qel_dt_buffer_handle buffer, uint32_t reserved, uint32_t size) {
    if (buffer == nullptr || (size == 0 && reserved == 0) || blocks_for(size) == 0) return EINVAL;
    return resize(*buffer, size);
}
