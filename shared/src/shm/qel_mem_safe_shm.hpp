// Shared segments for the rest of the library: the owner of a mapping, and the open with an exclusive option.
//
// Nothing below reports: segments are opened while the error buffer is being made.
#pragma once

#include <qel/shm.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace qel {

// Holds a mapped segment and unmaps it; the segment's name stays.
class Mapping {
  public:
    constexpr Mapping() = default;
    explicit constexpr Mapping(const qel_shm_info& info) : info_(info) {}
    Mapping(Mapping&& other) : info_(other.release()) {}
    Mapping& operator=(Mapping&& other) {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~Mapping() { reset(); }

    explicit operator bool() const { return info_.addr != nullptr; }
    const qel_shm_info& info() const { return info_; }
    // The user's bytes: all that may be touched, whatever the segment's own words claim.
    std::span<std::byte> bytes() const { return {static_cast<std::byte*>(info_.addr), info_.size}; }
    qel_shm_info release() { return std::exchange(info_, qel_shm_info{}); }
    void reset(const qel_shm_info& info = {}) {
        qel_shm_info old = std::exchange(info_, info);
        qel_shm_close(&old);
    }
    // Where an open puts its result; what was held is let go.
    qel_shm_info* out() {
        reset();
        return &info_;
    }

  private:
    qel_shm_info info_{};
};

// qel_shm_open() with options, of which QEL_SHM_EXCLUSIVE matters: EEXIST if the name exists.
int qel_shm_open_int(const char* name, std::uint32_t size, std::uint32_t options, qel_shm_info* info,
                     std::uint8_t* existed);

}  // namespace qel
