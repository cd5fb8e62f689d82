// The segment of a trace buffer: made, attached, checked, removed.
//
// A process trusts of a segment only what it has checked itself: that the number of blocks is one that the
// format allows, that so many fit the mapping, and that magic, version and red zone are there. From then on
// it uses the checked number.
//
// Restart: a segment lives until its name is removed; a process that returns attaches and goes on.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "time/qel_time.hpp"
#include "trace/qel_trace_buffer.hpp"
#include "trace/qel_trace_names.hpp"

namespace qel {

namespace {

struct SegmentName {
    explicit SegmentName(const char* name) { std::snprintf(text, sizeof text, "%s.qdt", name); }
    // A name of 128 and the suffix: too long to be opened, and refused there.
    char text[QEL_DT_NAME_SIZE + 5];
};

struct NewBuffer {
    const char* name;
    const BufferSettings& settings;
};

BufferSegment lay_out(const qel_shm_info& info, std::uint32_t blocks) {
    auto* header = static_cast<BufferHeader*>(info.addr);
    auto* control = reinterpret_cast<ControlEntry*>(header + 1);
    return {info, header, control, reinterpret_cast<std::byte*>(control + blocks), blocks};
}

std::byte* red_zone(const BufferSegment& segment) {
    return segment.payload + std::size_t{segment.blocks} * kBlockSize;
}

// The present less 1 ns, so that an entry of this very moment counts as written after the clear.
void set_clear_time(BufferHeader& header) {
    timespec now = realtime_now();
    if (now.tv_nsec != 0) {
        --now.tv_nsec;
    } else if (now.tv_sec != 0) {
        --now.tv_sec;
        now.tv_nsec = 999999999;
    }
    header.clear_seconds = static_cast<std::uint32_t>(now.tv_sec);
    header.clear_nanoseconds = static_cast<std::uint32_t>(now.tv_nsec);
}

void write_header(BufferHeader& header, const NewBuffer& buffer) {
    header = {};
    header.magic = kBufferMagic;
    header.version = kBufferVersion;
    std::memcpy(header.name, buffer.name, strnlen(buffer.name, sizeof header.name - 1));
    header.blocks = buffer.settings.blocks;
    header.original_size = buffer.settings.original_size;
    header.size = buffer.settings.size;
    header.level = buffer.settings.level;
    header.flags = buffer.settings.flags;
    set_clear_time(header);
}

int write_segment(qel_shm_info* info, void* context) {
    const auto& buffer = *static_cast<NewBuffer*>(context);
    BufferSegment segment = lay_out(*info, buffer.settings.blocks);
    write_header(*segment.header, buffer);
    for (std::uint32_t i = 0; i < segment.blocks; ++i) segment.control[i] = {0, BlockState::free, 1};
    std::memcpy(red_zone(segment), &kRedZone, sizeof kRedZone);
    return name_list_enter(buffer.name);
}

// The number of blocks by which 'info' may be used; 0 if it is no sound buffer.
std::uint32_t checked_blocks(const qel_shm_info& info) {
    if (info.size < buffer_size(kMinBlocks)) return 0;
    std::atomic_ref<std::uint32_t> claimed{static_cast<BufferHeader*>(info.addr)->blocks};
    const std::uint32_t blocks = claimed.load(std::memory_order_relaxed);  // once, as it may change
    if (blocks < kMinBlocks || blocks > kMaxBlocks || buffer_size(blocks) > info.size) return 0;
    return segment_sound(lay_out(info, blocks)) ? blocks : 0;
}

int check_mapping(qel_shm_info& info, BufferSegment& out) {
    const std::uint32_t blocks = checked_blocks(info);
    if (blocks != 0) {
        out = lay_out(info, blocks);
        return 0;
    }
    qel_shm_close(&info);
    return EBADF;
}

}  // namespace

std::uint32_t blocks_for(std::uint64_t size) {
    const std::uint64_t blocks = (size + kBlockSize - 1) / kBlockSize;
    if (blocks > kMaxBlocks) return 0;
    return blocks < kMinBlocks ? kMinBlocks : static_cast<std::uint32_t>(blocks);
}

int segment_open(const char* name, std::uint32_t flags, const BufferSettings& settings, BufferSegment& out) {
    NewBuffer buffer{name, settings};
    qel_shm_info info{};
    int error = qel_shm_safe_open(SegmentName{name}.text, flags, buffer_size(settings.blocks),
                                  kBufferSegmentMagic, write_segment, &buffer, 0, &info);
    return error != 0 ? error : check_mapping(info, out);
}

int segment_attach(const char* name, std::uint32_t wait_ms, BufferSegment& out) {
    qel_shm_info info{};
    int error = qel_shm_safe_open(SegmentName{name}.text, 0, 0, kBufferSegmentMagic, nullptr, nullptr,
                                  wait_ms, &info);
    return error != 0 ? error : check_mapping(info, out);
}

void segment_close(BufferSegment& segment) {
    qel_shm_close(&segment.info);
    segment = {};
}

int segment_unlink(const char* name) {
    return qel_shm_unlink(SegmentName{name}.text);
}

bool segment_sound(const BufferSegment& segment) {
    return segment.header->magic == kBufferMagic && segment.header->version == kBufferVersion &&
           segment.header->blocks == segment.blocks &&
           std::memcmp(red_zone(segment), &kRedZone, sizeof kRedZone) == 0;
}

}  // namespace qel
