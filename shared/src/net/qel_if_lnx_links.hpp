// The table of the kernel's links, as the shim of the library serves them.
//
// Readers come from any thread; what changes the table comes from one at a time: the first bind, the last
// destroy, and whoever reads the kernel's news. A link that is deleted is told of before it leaves.
//
// Locks: ifs_mutex, a leaf: nothing is called under it but the visitor of with_entries(), which must not come
// back here.
#pragma once

#include <qel/hash.h>
#include <qel/if.h>

#include <cstddef>
#include <cstdint>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "net/qel_if_netlink.hpp"

// A link. What has no word in the kernel's message has a fixed value.
struct qel_if_lnx_entry {
    qel_hash_link link;  // in ifs_hs
    qel_hash_link name_link;
    std::uint64_t ifh;  // the kernel's index; 0 once it is freed
    std::uint32_t type;
    std::uint32_t encap;
    std::uint64_t base_if;
    char name[QEL_IF_NAME_SIZE];
    std::uint32_t mtu;
    std::uint32_t rx_bandwidth;
    std::uint32_t tx_bandwidth;
    std::uint32_t speed;
    std::uint32_t speed_max;
    std::uint32_t input_fc;
    std::uint32_t output_fc;
    std::uint32_t auto_neg;
    std::uint64_t snmp_index;
    std::uint32_t loc_a;
    std::uint32_t loc_b;
    std::uint32_t oper_state;
    std::uint32_t admin_state;
    std::uint32_t duplex;
    std::uint32_t unidir;
    std::uint8_t mac[6];
    std::uint32_t seen;  // the comparison that had begun when the kernel last told of it
};

namespace qel::interfaces::lnx {

using Entry = qel_if_lnx_entry;

enum class Change : std::uint8_t { none, created, no_memory };

// An empty table. Frees none that is there.
cerrno make_table();
void free_table();

// Enters a link of dump or news, or brings its states up to date.
Change process_rtnl_msg_new(const netlink::Link& link);

// Begins a comparison with the kernel's list, of which the links in the table are told from then on. Links of
// which nobody has been told since may have gone; the three below can be asked for those alone by its number.
std::uint32_t begin_comparison();
inline constexpr std::uint32_t kAnyLink = 0;

// Takes a link out. 0, or 0xa0000002 if there is none.
cerrno process_rtnl_msg_del(std::uint64_t ifh, std::uint32_t unseen_since = kAnyLink);
bool has_link(std::uint64_t ifh, std::uint32_t unseen_since = kAnyLink);
// All handles, ascending, and how many; null for none or without memory.
Owned<std::uint64_t> snapshot(std::size_t& count, bool& no_memory, std::uint32_t unseen_since = kAnyLink);

// The link of a name, 0 if there is none.
std::uint64_t find_name(const char* name);

namespace detail {
extern constinit Mutex ifs_mutex;
Entry* get_ifx_locked(std::uint64_t ifh) QEL_REQUIRES(ifs_mutex);
}  // namespace detail

// Calls visit(i, entry) for the links of 'count' handles, with null for one that isn't there.
template <class Visit>
void with_entries(const std::uint64_t* handles, std::size_t count, Visit visit) {
    Locked lock{detail::ifs_mutex};
    for (std::size_t i = 0; i < count; ++i) visit(i, detail::get_ifx_locked(handles[i]));
}

}  // namespace qel::interfaces::lnx
