// What the tests of the trace share: a log call, and the segment as an outsider sees it.
#pragma once

#include "support/support.hpp"

#include <qel/dt.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace qel_test {

constexpr uint32_t kUnregistered = QEL_DT_TP_UNREGISTERED;

template <class... Values>
int log_at(uint32_t& site, qel_dt_buffer_handle buffer, const char* format, Values... values) {
    return _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &site, format, values...);
}

// A call through a site of its own.
template <class... Values>
int log_once(qel_dt_buffer_handle buffer, const char* format, Values... values) {
    uint32_t site = kUnregistered;
    return log_at(site, buffer, format, values...);
}

// A segment mapped straight from the file system, past its 12-byte header.
class RawSegment {
  public:
    explicit RawSegment(const std::string& object) {
        int fd = open(shm_file(object).c_str(), O_RDWR);
        struct stat status {};
        if (fd < 0 || fstat(fd, &status) != 0) return;
        size_ = static_cast<size_t>(status.st_size);
        base_ = static_cast<std::byte*>(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        ::close(fd);
    }
    RawSegment(const RawSegment&) = delete;
    ~RawSegment() {
        if (base_ != nullptr) munmap(base_, size_);
    }
    size_t size() const { return size_; }
    std::byte* at(size_t offset) const { return base_ + 12 + offset; }
    uint32_t word(size_t offset) const { return load<uint32_t>(offset); }
    template <class T>
    T load(size_t offset) const {
        T value;
        std::memcpy(&value, at(offset), sizeof value);
        return value;
    }
    template <class T>
    void store(size_t offset, T value) {
        std::memcpy(at(offset), &value, sizeof value);
    }
    std::string text(size_t offset) const { return reinterpret_cast<const char*>(at(offset)); }

  private:
    std::byte* base_ = nullptr;
    size_t size_ = 0;
};

// Header offsets.
enum : size_t {
    kBlocks = 136,
    kOriginalSize = 140,
    kSize = 144,
    kNext = 156,
    kWraps = 160,
    kCount = 164,
    kDropped = 172,
    kSequence = 176,
    kReserveRetries = 180,
    kPassesHigh = 184,
    kExcessive = 192,
    kRollbacks = 200,
    kLevel = 204,
    kFlags = 208,
    kClearSeconds = 216,
    kControl = 224
};
enum : uint32_t { kFlagControl = 1, kFlagStale = 2, kFlagPaused = 4 };

class RawBuffer : public RawSegment {
  public:
    explicit RawBuffer(const std::string& name) : RawSegment(name + ".qdt"), blocks(word(kBlocks)) {}
    size_t control(uint32_t block) const { return kControl + 4 * block; }
    size_t payload(uint32_t block) const { return kControl + 4 * blocks + 64 * block; }
    uint8_t state(uint32_t block) const { return load<uint8_t>(control(block) + 2); }
    uint32_t index() const { return word(kNext) >> 12; }
    uint32_t stamp() const { return word(kNext) & 0xfff; }

    const uint32_t blocks;
};

// A buffer for the length of a test.
class Buffer {
  public:
    explicit Buffer(const std::string& name, uint32_t size = 128 * 64) : name_(name) {
        EXPECT_EQ(qel_dt_buffer_init(&handle_, name.c_str(), 0, size), 0);
    }
    Buffer(const Buffer&) = delete;
    ~Buffer() {
        if (handle_ != nullptr) qel_dt_buffer_destroy(&handle_);
    }
    operator qel_dt_buffer_handle() const { return handle_; }
    qel_dt_buffer_handle* out() { return &handle_; }
    RawBuffer raw() const { return RawBuffer{name_}; }

  private:
    std::string name_;
    qel_dt_buffer_handle handle_ = nullptr;
};

inline qel_dt_buffer_attr attributes(qel_dt_buffer_handle buffer) {
    qel_dt_buffer_attr attr{};
    EXPECT_EQ(qel_dt_buffer_get_attr(buffer, &attr), 0);
    return attr;
}

}  // namespace qel_test
