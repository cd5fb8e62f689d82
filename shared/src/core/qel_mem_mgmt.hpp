// The tests' hook in named memory. It exists in the test build of the library only.
#pragma once

#include <qel/mem.h>

#include <atomic>

namespace qel {

// Asked before each allocation, on the allocating thread; false makes that allocation fail.
using AllocationHook = bool (*)();

#if defined(QEL_ALLOCATION_HOOK)
extern std::atomic<AllocationHook> allocation_hook;
#endif

}  // namespace qel
