// The VRF service inside: its clients, and the layer below that a platform gives.
#pragma once

#include <qel/vrf.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "net/qel_net_frame.hpp"
#include "net/qel_net_pool.hpp"
#include "net/qel_net_report.hpp"

namespace qel::vrf {

// A client. What a bind sets doesn't change after it, and is read without a lock.
struct Client {
    std::uint32_t handle;
    const char* name;
    qel_vrf_attr attr;
    net::ClientJobs jobs;       // none are made: lookups answer at once
    std::atomic<bool> closing;  // it is being bound, or an unbind is at it
};

// --- The platform's. Called on the client's thread with the client held; no lock is.

cerrno vrf_od_bind(const Client& client);
// The last word of a client: nobody uses it any more.
cerrno vrf_od_unbind(const Client& client);
// Fill one record and result an entry, or give why none could be.
cerrno vrf_od_bulk_get_vrf_from_id(const Client& client, const std::uint64_t* ids, qel_if_vrf* vrfs,
                                   cerrno* results, std::size_t count);
cerrno vrf_od_bulk_get_vrf_from_name(const Client& client, const char* const* names, qel_if_vrf* vrfs,
                                     cerrno* results, std::size_t count);

}  // namespace qel::vrf
