// The window on a segment's header: one page of a shared mapping, mapped a second time.
#pragma once

namespace qel {

// Maps the page at 'page', the start of a shared mapping, once more. Null if the system refuses.
void* trace_window_open(void* page);

// Makes 'window' show the page at 'page' from now on, at the same address and in one step. False if the
// system refuses; then the window shows what it showed.
bool trace_window_move(void* window, void* page);

// 'window' may be null.
void trace_window_close(void* window);

}  // namespace qel
