// The window on a segment's header, by Linux's mremap(): an old size of 0 duplicates a shared mapping.
//
// A thread may load the level of a buffer through its window without holding anything while another thread
// moves the window to the segment that replaced the old one. The kernel changes the mapping under its own
// lock, so the load sees one page or the other. It refuses for want of mappings before it takes the old one
// away.
#include "trace/qel_trace_lnx.hpp"

#include <sys/mman.h>

#include <qel/shm.h>

#include "trace/qel_trace_format.hpp"

namespace qel {

namespace {

// The kernel rounds it up to a page.
constexpr std::size_t kWindowSize = QEL_SHM_SAFE_HEADER_SIZE + sizeof(BufferHeader);

}  // namespace

void* trace_window_open(void* page) {
    void* window = mremap(page, 0, kWindowSize, MREMAP_MAYMOVE);
    return window == MAP_FAILED ? nullptr : window;
}

bool trace_window_move(void* window, void* page) {
    return mremap(page, 0, kWindowSize, MREMAP_MAYMOVE | MREMAP_FIXED, window) != MAP_FAILED;
}

void trace_window_close(void* window) {
    if (window != nullptr) munmap(window, kWindowSize);
}

}  // namespace qel
