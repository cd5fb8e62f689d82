// Fd: the owner of a file descriptor.
#pragma once

#include "core/qel_owned.hpp"

namespace qel {

// close() is a cancellation point, and an owner's destructor must not be left halfway: it closes with
// cancellation held off.
void close_fd(int fd);
using Fd = Unique<int, close_fd, -1>;

}  // namespace qel
