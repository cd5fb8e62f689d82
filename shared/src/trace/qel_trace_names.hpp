// The shared list of the names of all trace buffers.
#pragma once

namespace qel {

// Enters 'name', of less than 128 characters, unless it is there. ENOSPC without a free slot.
int name_list_enter(const char* name);

// Takes 'name' off the list, if list and name are there.
void name_list_remove(const char* name);

}  // namespace qel
