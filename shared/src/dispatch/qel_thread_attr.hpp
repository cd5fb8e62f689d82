// Thread attributes: what other files of the subsystem do with a caller's record.
#pragma once

#include <qel/thread.h>

#include "core/qel_owned.hpp"

namespace qel {

void free_thread_attr(qel_thread_attr* attr);
using OwnedThreadAttr = Unique<qel_thread_attr*, free_thread_attr>;

// A copy of 'attr' that shares nothing with it, for threads that detach themselves: they are joinable until
// then, and each gets a stack of its own even if 'attr' names one. 0, EINVAL for a record that isn't
// initialised, ENOMEM, or an error of the thread library.
int copy_thread_attr(const qel_thread_attr& attr, OwnedThreadAttr& out);

}  // namespace qel
