// Reports that services make in the same words, each under labels of its own.
#pragma once

#include <cerrno>
#include <cstdint>

#include "core/qel_codes.hpp"
#include "trace/qel_report.hpp"

namespace qel::net {

template <FixedText Label>
cerrno invalid_arguments() {
    return failed<Label, "ERROR: %s: invalid arguments">(fatal(EINVAL));
}
template <FixedText Label>
cerrno invalid_client(std::uint32_t app) {
    return failed<Label, "ERROR: %s: invalid app handle, apph=0x%x">(fatal(EINVAL), app);
}
template <FixedText Label>
cerrno no_memory() {
    return failed<Label, "ERROR: %s: memory allocation failure">(fatal(ENOMEM));
}
template <FixedText Label>
cerrno unexpected_code(cerrno code) {
    return failed<Label, "ERROR: %s: unexpected return code, rc=%d (%s)">(code, code, cerr_strerror(code));
}

}  // namespace qel::net
