// The tables of a channel's dump, for the calls that print them.
#pragma once

#include "ipc/qel_dump_lock.hpp"
#include "ipc/qel_ipc.hpp"

namespace qel {

// Where a dump finds what messages refer to: the channel's heap, 0 for none, and this process's context of
// the channel, null for a dump by name.
struct DumpData {
    qel_mem_vchunk_pool heap;
    const IpcContext* own;
};

// The flow-control table, taken under fc_lock.
void print_flow_control(IpcHeader& live);
// The rings of all end points in a copy of the header. shm_mutex is held, or could not be had.
void print_end_points(const IpcHeader& header, const DumpData& data, std::uint32_t level);

}  // namespace qel
