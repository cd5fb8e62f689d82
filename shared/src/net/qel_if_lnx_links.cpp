// The table of the kernel's links, see the header.
#include "net/qel_if_lnx_links.hpp"

#include <linux/if.h>
#include <linux/if_arp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "net/qel_if.hpp"

namespace qel::interfaces::lnx {
namespace {

using detail::get_ifx_locked;
using detail::ifs_mutex;

constinit qel_hashset* ifs_hs QEL_GUARDED_BY(ifs_mutex) = nullptr;
// The same links by name.
constinit qel_hashset* names_hs QEL_GUARDED_BY(ifs_mutex) = nullptr;
constinit std::uint32_t comparisons QEL_GUARDED_BY(ifs_mutex) = 0;  // begun; goes around, but not to 0

// What the kernel's messages don't tell.
constexpr std::uint32_t kMtu = 1500, kSpeed = 10000;  // bytes, Mbit/s

std::uint32_t if_calc(const void* entry, void*) {
    return qel_hash_calculate(&static_cast<const Entry*>(entry)->ifh, sizeof(Entry::ifh));
}

bool if_match(const void* probe, const void* entry, void*) {
    return static_cast<const Entry*>(probe)->ifh == static_cast<const Entry*>(entry)->ifh;
}

std::uint32_t name_calc(const void* entry, void*) {
    const char* name = static_cast<const Entry*>(entry)->name;
    return qel_hash_calculate(name, static_cast<std::int32_t>(std::strlen(name)));
}

bool name_match(const void* probe, const void* entry, void*) {
    return std::strcmp(static_cast<const Entry*>(probe)->name, static_cast<const Entry*>(entry)->name) == 0;
}

std::uint32_t type_of(std::uint16_t arp_type) {
    if (arp_type == ARPHRD_ETHER) return QEL_IF_TYPE_ETHERNET;
    return arp_type == ARPHRD_LOOPBACK ? QEL_IF_TYPE_LOOPBACK : QEL_IF_TYPE_UNSUPPORTED;
}

std::uint32_t admin_state(std::uint32_t flags) {
    return (flags & IFF_UP) != 0 ? QEL_IF_ADMIN_UP : QEL_IF_ADMIN_DOWN;
}

// A new link works only if it is up; of one that is known, running is enough.
std::uint32_t oper_state(std::uint32_t flags, std::uint32_t needed) {
    return (flags & needed) == needed ? QEL_IF_OPER_UP : QEL_IF_OPER_DOWN;
}

void fill(Entry& entry, const netlink::Link& link) {
    entry.ifh = entry.snmp_index = link.index;
    entry.type = type_of(link.type);
    entry.encap = link.type == ARPHRD_ETHER ? QEL_IF_ENCAP_ETHER : QEL_IF_ENCAP_NULL;
    entry.base_if = link.has_base ? link.base : link.index;
    static_assert(sizeof(entry.name) == netlink::Link::kNameSize &&
                  sizeof(entry.mac) == sizeof(link.address));
    std::memcpy(entry.name, link.name.data(), sizeof(entry.name));
    entry.mtu = link.has_mtu ? link.mtu : kMtu;
    entry.rx_bandwidth = entry.tx_bandwidth = entry.speed = entry.speed_max = kSpeed;
    entry.input_fc = QEL_IF_FLOW_CONTROL_ON;
    entry.output_fc = QEL_IF_FLOW_CONTROL_OFF;
    entry.auto_neg = QEL_IF_AUTO_NEGOTIATION_ON;
    entry.loc_a = entry.loc_b = 1;
    entry.oper_state = oper_state(link.flags, IFF_UP | IFF_RUNNING);
    entry.admin_state = admin_state(link.flags);
    entry.duplex = QEL_IF_FULL_DUPLEX;
    entry.unidir = QEL_IF_UNIDIR_OFF;
    std::memcpy(entry.mac, link.address.data(), link.address_length);
}

void remove_locked(Entry* entry) QEL_REQUIRES(ifs_mutex) {
    qel_hashset_remove(names_hs, entry);
    qel_hashset_remove(ifs_hs, entry);
    entry->ifh = 0;
    Owned<Entry> owned{entry};
}

// Told of before the comparison 'unseen_since' began; every link for kAnyLink.
bool is_meant(const Entry& entry, std::uint32_t unseen_since) {
    return unseen_since == kAnyLink || static_cast<std::int32_t>(entry.seen - unseen_since) < 0;
}

}  // namespace

namespace detail {

constinit Mutex ifs_mutex;

Entry* get_ifx_locked(std::uint64_t ifh) {
    Entry probe;
    probe.ifh = ifh;
    return static_cast<Entry*>(qel_hashset_get(ifs_hs, &probe));
}

}  // namespace detail

cerrno make_table() {
    Locked lock{ifs_mutex};
    if (ifs_hs != nullptr) return 0;
    int error = qel_hashset_create(&ifs_hs, nullptr, offsetof(Entry, link), if_calc, if_match, nullptr);
    if (error == 0)
        error = qel_hashset_create(&names_hs, nullptr, offsetof(Entry, name_link), name_calc, name_match,
                                   nullptr);
    if (error == 0) return 0;
    qel_hashset_free(&ifs_hs);
    return fatal(error);
}

void free_table() {
    Locked lock{ifs_mutex};
    auto take_out = [](qel_hashset*, void* entry, void*) QEL_REQUIRES(ifs_mutex) {
        remove_locked(static_cast<Entry*>(entry));
        return 0;
    };
    qel_hashset_iterate(ifs_hs, take_out, nullptr);
    qel_hashset_free(&names_hs);
    qel_hashset_free(&ifs_hs);
}

Change process_rtnl_msg_new(const netlink::Link& link) {
    Locked lock{ifs_mutex};
    if (ifs_hs == nullptr) return Change::none;  // the last client has gone
    if (Entry* known = get_ifx_locked(link.index); known != nullptr) {
        known->oper_state = oper_state(link.flags, IFF_RUNNING);
        known->admin_state = admin_state(link.flags);
        known->seen = comparisons;
        return Change::none;
    }
    Owned<Entry> entry = allocate_zeroed<Entry>(QEL_MEM_INTF);
    if (!entry) return Change::no_memory;
    fill(*entry, link);
    entry->seen = comparisons;
    qel_hashset_insert(names_hs, entry.get());
    qel_hashset_insert(ifs_hs, entry.release());
    return Change::created;
}

std::uint32_t begin_comparison() {
    Locked lock{ifs_mutex};
    if (++comparisons == kAnyLink) ++comparisons;
    return comparisons;
}

cerrno process_rtnl_msg_del(std::uint64_t ifh, std::uint32_t unseen_since) {
    Locked lock{ifs_mutex};
    Entry* entry = get_ifx_locked(ifh);
    if (entry == nullptr || !is_meant(*entry, unseen_since)) return fatal(ENOENT);
    remove_locked(entry);
    return 0;
}

bool has_link(std::uint64_t ifh, std::uint32_t unseen_since) {
    Locked lock{ifs_mutex};
    const Entry* entry = get_ifx_locked(ifh);
    return entry != nullptr && is_meant(*entry, unseen_since);
}

std::uint64_t find_name(const char* name) {
    Entry probe;
    const std::size_t size = std::strlen(name) + 1;
    if (size > sizeof(probe.name)) return 0;
    std::memcpy(probe.name, name, size);
    Locked lock{ifs_mutex};
    const auto* entry = static_cast<const Entry*>(qel_hashset_get(names_hs, &probe));
    return entry == nullptr ? 0 : entry->ifh;
}

Owned<std::uint64_t> snapshot(std::size_t& count, bool& no_memory, std::uint32_t unseen_since) {
    count = 0;
    no_memory = false;
    Locked lock{ifs_mutex};
    const std::size_t size = qel_hashset_size(ifs_hs);
    if (size == 0) return {};
    Owned<std::uint64_t> handles = allocate_zeroed<std::uint64_t>(QEL_MEM_INTF, size);
    no_memory = !handles;
    if (no_memory) return handles;
    for (void* at = qel_hashset_first(ifs_hs); at != nullptr; at = qel_hashset_next(ifs_hs, at)) {
        const auto& entry = *static_cast<Entry*>(at);
        if (is_meant(entry, unseen_since)) handles.get()[count++] = entry.ifh;
    }
    std::sort(handles.get(), handles.get() + count);
    return handles;
}

}  // namespace qel::interfaces::lnx
