// How the table of links gets to know of the kernel's: whole dumps, and news of changes.
#pragma once

#include <qel/cerrno.h>
#include <qel/dm.h>

#include <cstdint>

namespace qel::interfaces::lnx {

// Reads the kernel's list into the table over the socket 'fd', until it has come whole. What is received may
// fail without consequence: a table without links is a table. Returns why the dump can't be asked for.
cerrno read_list(int fd);

// Has dispatcher 'dm' follow the kernel's news for a registration; the first one opens the socket.
cerrno watch(std::uint32_t reg_handle, qel_dm_handle dm);
// Ends that; the last one closes the socket. Does nothing for a registration without.
void unwatch(std::uint32_t reg_handle);

}  // namespace qel::interfaces::lnx
