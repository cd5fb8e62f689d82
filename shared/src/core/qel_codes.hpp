// Composite result codes, composed in one place: no other file writes a hexadecimal result.
#pragma once

#include <qel/cerrno.h>

#include <cerrno>
#include <cstdint>

namespace qel {

// The errno part of a code, its low nine bits.
inline constexpr cerrno kErrnoMask = 0x1ff;

constexpr cerrno compose(cerrno severity, std::uint32_t subsystem, std::uint32_t code, int error) {
    return severity | (subsystem & 0x1fff) << 15 | (code & 63) << 9 |
           (static_cast<cerrno>(error) & kErrnoMask);
}

constexpr cerrno fatal(int error) {
    return compose(QEL_CERRNO_FATAL, 0, 0, error);
}
constexpr cerrno try_again(int error) {
    return compose(QEL_CERRNO_TRY_AGAIN, 0, 0, error);
}
constexpr cerrno warning(int error) {
    return compose(QEL_CERRNO_WARNING, 0, 0, error);
}
constexpr int errno_of(cerrno code) {
    return static_cast<int>(code & kErrnoMask);
}

static_assert(fatal(EINVAL) == 0xa0000016 && fatal(ENOENT) == 0xa0000002 && fatal(EBUSY) == 0xa0000010);
static_assert(fatal(EEXIST) == 0xa0000011 && fatal(ENOSPC) == 0xa000001c && fatal(ENOMEM) == 0xa000000c);
static_assert(try_again(EAGAIN) == 0x8000000b && warning(EAGAIN) == 0x4000000b);

}  // namespace qel
