// Looking up a published table: qel_get_cerrno_info().
//
// The process keeps its last five maps open, in a ring with the last used one at the head. A lookup compares
// the version in the header map with the one it keeps, and goes over to a newer one.
//
// Invariant: a map is in the ring only while its mapping is at least a SubsystemMap long.
// Locks: cerr_list_mutex guards ring and mappings, and must be held on while the result's texts are in use.
// Threads: any, one at a time.
// Restart: the ring is the process's own.
#include <qel/base.h>
#include <qel/mem.h>

#include "containers/qel_dqueue.hpp"
#include "core/qel_cerrno_map.hpp"
#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr std::uint32_t kMaxCachedMaps = 5;

struct CachedMap {
    qel_dqueue link;
    std::uint32_t subsystem;
    MapVersion version;
    qel_shm_info mapping;
};

CachedMap& map_of(qel_dqueue& link) {
    return *reinterpret_cast<CachedMap*>(&link);
}
static_assert(std::is_standard_layout_v<CachedMap> && offsetof(CachedMap, link) == 0);

constinit qel_dqueue cache_anchor QEL_GUARDED_BY(cerr_list_mutex){&cache_anchor, &cache_anchor, nullptr};
constinit std::uint32_t cache_count QEL_GUARDED_BY(cerr_list_mutex) = 0;

HeaderMap* usable_header_locked() QEL_REQUIRES(cerr_list_mutex) {
    if (header_map == nullptr && cerrno_init_locked() != 0) return nullptr;
    bool usable = check_map_state(header_map->state, MapAccess::read) != MapCheck::invalid;
    return usable ? header_map : nullptr;
}

CachedMap* find_cached_locked(std::uint32_t subsystem) QEL_REQUIRES(cerr_list_mutex) {
    for (qel_dqueue* at = cache_anchor.next; at != &cache_anchor; at = at->next)
        if (map_of(*at).subsystem == subsystem) return &map_of(*at);
    return nullptr;
}

bool open_ready_map(std::uint32_t subsystem, MapVersion version, Mapping& segment) {
    MapCheck check{};
    cerrno error = subsys_map_open(subsystem, version, 0, MapAccess::read, segment, &check);
    return error == 0 && check == MapCheck::ready;
}

// Goes over to the version that the header names, if it is newer and can be had.
bool renew_locked(CachedMap& cached, MapVersion published) QEL_REQUIRES(cerr_list_mutex) {
    Mapping newer;
    if (published < cached.version || !open_ready_map(cached.subsystem, published, newer)) return false;
    qel_shm_close(&cached.mapping);
    // The publisher removes the old name, too; if it died before, this is the removal.
    static_cast<void>(subsys_map_unlink(cached.subsystem, cached.version));
    cached.version = published;
    cached.mapping = newer.release();
    return true;
}

void make_room_locked() QEL_REQUIRES(cerr_list_mutex) {
    if (cache_count < kMaxCachedMaps) return;
    Owned<CachedMap> oldest{&map_of(*cache_anchor.prev)};
    dqueue_remove(oldest->link);
    qel_shm_close(&oldest->mapping);
    --cache_count;
}

CachedMap* add_cached_locked(std::uint32_t subsystem, MapVersion published) QEL_REQUIRES(cerr_list_mutex) {
    Mapping segment;
    if (published == kNoVersion || !open_ready_map(subsystem, published, segment)) return nullptr;
    auto added = allocate_zeroed<CachedMap>(QEL_MEM_UTILS);
    if (!added) return nullptr;
    make_room_locked();
    added->subsystem = subsystem;
    added->version = published;
    added->mapping = segment.release();
    dqueue_insert(added->link, cache_anchor);
    ++cache_count;
    return added.release();
}

// The map of the published version, at the head of the ring.
const qel_shm_info* current_map_locked(std::uint32_t subsystem, MapVersion published)
    QEL_REQUIRES(cerr_list_mutex) {
    CachedMap* map = find_cached_locked(subsystem);
    if (map == nullptr) {
        map = add_cached_locked(subsystem, published);
        return map != nullptr ? &map->mapping : nullptr;
    }
    if (map->version != published && !renew_locked(*map, published)) return nullptr;
    dqueue_remove(map->link);
    dqueue_insert(map->link, cache_anchor);
    return &map->mapping;
}

bool has_all_rows(const qel_cerrno_map_info& info) {
    CodeRows rows{info.codes, info.codes_end};
    for (std::uint32_t i = 0; i < info.count; ++i)
        if (!rows.next()) return false;
    return true;
}

// Fills the result from a mapping, and gives false for one that isn't a sound map of this subsystem.
bool describe_map(const qel_shm_info& mapping, std::uint32_t subsystem, qel_cerrno_map_info& info) {
    auto* map = static_cast<const SubsystemMap*>(mapping.addr);
    if (map->subsystem != subsystem || strnlen(map->name, sizeof map->name) == sizeof map->name) return false;
    info = {map->name, map->count, map + 1, static_cast<const char*>(mapping.addr) + mapping.size};
    return has_all_rows(info);
}

}  // namespace

qel_cerrno_map_info* get_cerrno_info_locked(std::uint32_t subsystem) {
    if (subsystem >= kSubsystemCount) return nullptr;
    HeaderMap* header = usable_header_locked();
    auto info = allocate_zeroed<qel_cerrno_map_info>(QEL_MEM_UTILS);
    if (header == nullptr || !info) return nullptr;
    const qel_shm_info* mapping = current_map_locked(subsystem, published_version(*header, subsystem));
    if (mapping == nullptr || !describe_map(*mapping, subsystem, *info)) return nullptr;
    return info.release();
}

}  // namespace qel

using namespace qel;

qel_cerrno_map_info* qel_get_cerrno_info(uint32_t subsystem) {
    qel_check_not_interrupt_path();
    Locked lock{cerr_list_mutex};
    return lock.error() == 0 ? get_cerrno_info_locked(subsystem) : nullptr;
}
