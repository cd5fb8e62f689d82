// What the files of the error codes share: the fields of a code, their own results, their lock, bounded
// copies.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/qel_codes.hpp"
#include "core/qel_lock.hpp"

namespace qel {

inline constexpr std::uint32_t kSubsystemCount = 8192;

constexpr std::uint32_t subsystem_of(cerrno code) {
    return code >> 15 & (kSubsystemCount - 1);
}
constexpr std::uint32_t code_of(cerrno code) {
    return code >> 9 & 63;
}
constexpr bool is_plain_errno(cerrno code) {
    return code <= kErrnoMask;
}

// The library's own table: its subsystem, its codes, and the results built from them.
inline constexpr std::uint32_t kInfraSubsystem = 2;
enum class InfraCode : std::uint32_t {
    invalid_arguments = 1,
    corrupt_data = 2,
    no_heap = 3,
    corrupt_shared_data = 4,
    no_shared_memory = 5,
    lock_failed = 6,
};

constexpr cerrno infra(cerrno severity, InfraCode code, int error) {
    return compose(severity, kInfraSubsystem, static_cast<std::uint32_t>(code), error);
}
inline constexpr cerrno kInvalidArguments = infra(QEL_CERRNO_FATAL, InfraCode::invalid_arguments, EINVAL);
inline constexpr cerrno kCorruptData = infra(QEL_CERRNO_FATAL, InfraCode::corrupt_data, EINVAL);
inline constexpr cerrno kCorruptSharedData = infra(QEL_CERRNO_FATAL, InfraCode::corrupt_shared_data, EINVAL);
inline constexpr cerrno kNoHeap = infra(QEL_CERRNO_NO_RESOURCE, InfraCode::no_heap, ENOMEM);
constexpr cerrno no_shared_memory(int error) {
    return infra(QEL_CERRNO_NO_RESOURCE, InfraCode::no_shared_memory, error);
}
constexpr cerrno lock_failed(int error) {
    return infra(QEL_CERRNO_NO_RESOURCE, InfraCode::lock_failed, error);
}
static_assert(kInvalidArguments == 0xa0010216 && kCorruptData == 0xa0010416 && kNoHeap == 0xc001060c);
static_assert(kCorruptSharedData == 0xa0010816 && no_shared_memory(0) == 0xc0010a00);
static_assert(lock_failed(0) == 0xc0010c00);

// Serialises the decoding of composites and guards all that this process keeps of the maps.
extern Mutex cerr_list_mutex;

// Copies what fits of 'text' and ends it with NUL.
template <std::size_t N>
void copy_cut(char (&field)[N], std::string_view text) {
    std::size_t length = text.size() < N ? text.size() : N - 1;
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

}  // namespace qel
