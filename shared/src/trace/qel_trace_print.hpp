// A trace buffer as text, for those who look by hand.
#pragma once

namespace qel {

// Prints the entries of the buffer 'name' since its last clear to standard output, oldest first, a line each,
// and then "%d entries printed". 0, or the errno of a buffer or list of texts that can't be attached to.
int print_buffer(const char* name);

}  // namespace qel
