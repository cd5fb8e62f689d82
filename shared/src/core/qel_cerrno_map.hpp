// The error-code maps: their format in shared memory, and what their files share.
//
//     "cerr_map_hdr"                    one per machine             "cerr_map.<subsystem>.<major>.<minor>"
//     +--------------------------+                                  +----------------------------------+
//     | state                    |                                  | state, subsystem, name, count    |
//     | spin lock of publishers  |                                  | row: u32 code, text, NUL         |
//     | version of subsystem 0   |                                  | row: ...        (packed, and read|
//     | ...             (0.0 for |    names the segment             |                  byte by byte)   |
//     | version of 8191   none)  | -------------------------------> | zeros up to a multiple of 8      |
//     +--------------------------+                                  +----------------------------------+
//
//     state:  fresh --(a process that will write claims it)--> claimed --(all is written)--> ready
//
// A segment is complete when its state is ready, and never changes afterwards; the header names it only then.
// A version that is replaced has its name removed, and lives on in the processes that map it.
//
// Any process may write to these segments, so everything in them is input: nothing read here is used as an
// offset or a count without a bound.
#pragma once

#include <qel/cerrno.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "core/qel_cerrno.hpp"
#include "shm/qel_mem_safe_shm.hpp"

namespace qel {

enum class MapState : std::uint32_t { fresh = 0, claimed = 0x12341234, ready = 0xabcdef00 };

// One word, so that it is read and written whole. 0.0 is no version.
struct alignas(4) MapVersion {
    std::uint16_t major;
    std::uint16_t minor;
    friend constexpr auto operator<=>(const MapVersion&, const MapVersion&) = default;
};
inline constexpr MapVersion kNoVersion{0, 0};

struct HeaderMap {
    MapState state;                        // changed by compare-and-swap to claimed, by its claimer to ready
    std::uint32_t spin_lock;               // 0 free, 1 held by a publisher
    MapVersion versions[kSubsystemCount];  // written by publishers under the spin lock, read by anybody
};

inline constexpr std::size_t kMapNameSize = 64;

struct SubsystemMap {
    MapState state;           // as above
    std::uint32_t subsystem;  // this and all that follows is written by the claimer, before ready
    char name[kMapNameSize];
    std::uint32_t count;  // rows
    std::uint32_t zero;
};

static_assert(sizeof(MapVersion) == 4 && offsetof(MapVersion, major) == 0 &&
              offsetof(MapVersion, minor) == 2);
static_assert(sizeof(HeaderMap) == 32776 && offsetof(HeaderMap, state) == 0);
static_assert(offsetof(HeaderMap, spin_lock) == 4 && offsetof(HeaderMap, versions) == 8);
static_assert(sizeof(SubsystemMap) == 80 && offsetof(SubsystemMap, state) == 0);
static_assert(offsetof(SubsystemMap, subsystem) == 4 && offsetof(SubsystemMap, name) == 8);
static_assert(offsetof(SubsystemMap, count) == 72 && offsetof(SubsystemMap, zero) == 76);
static_assert(std::is_trivially_copyable_v<HeaderMap> && std::is_standard_layout_v<HeaderMap>);
static_assert(std::is_trivially_copyable_v<SubsystemMap> && std::is_standard_layout_v<SubsystemMap>);
static_assert(std::atomic_ref<MapState>::is_always_lock_free);
static_assert(std::atomic_ref<MapVersion>::is_always_lock_free);

inline MapVersion published_version(HeaderMap& header, std::uint32_t subsystem) {
    // V1: acquires what publish_version() releases, so the segment that the version names is complete.
    return std::atomic_ref{header.versions[subsystem]}.load(std::memory_order_acquire);
}
inline void publish_version(HeaderMap& header, std::uint32_t subsystem, MapVersion version) {
    std::atomic_ref{header.versions[subsystem]}.store(version, std::memory_order_release);  // V1
}

// What a look at a map's state says. 'unready' asks whoever may write to write: the map is claimed for this
// process, or its claimer didn't finish within a second.
enum class MapCheck { ready, unready, invalid };
enum class MapAccess { read, write };

// Looks at a state word, and waits up to a second while another process has it claimed. For MapAccess::write
// a fresh word is claimed; a reader leaves it, and finds it invalid like any word that is none of the states.
MapCheck check_map_state(MapState& word, MapAccess access);
inline void mark_map_ready(MapState& word) {
    // S1: publishes what was written to the map; check_map_state() acquires it.
    std::atomic_ref{word}.store(MapState::ready, std::memory_order_release);
}

// Maps the object 'name', which is made if it is absent and 'size' isn't 0. Returns 0 or an errno.
int open_map(const char* name, std::uint32_t size, Mapping& mapping);
template <class Map>
Map* map_in(const Mapping& mapping) {
    return static_cast<Map*>(mapping.info().addr);
}

// Opens the segment of a subsystem's version ('size' 0 for one that must exist) and looks at its state.
// Returns 0; 0xa0010216; 0xc0010a00 with an errno; 0xa0010816 for an invalid state, or too short a segment.
cerrno subsys_map_open(std::uint32_t subsystem, MapVersion version, std::uint32_t size, MapAccess access,
                       Mapping& mapping, MapCheck* check);
// Removes its name. Returns 0, also when there is none; 0xa0010216.
cerrno subsys_map_unlink(std::uint32_t subsystem, MapVersion version);

// The process's header map, null until qel_cerrno_init() has opened it; it is never unmapped.
extern HeaderMap* header_map QEL_GUARDED_BY(cerr_list_mutex);

cerrno cerrno_init_locked() QEL_REQUIRES(cerr_list_mutex);
qel_cerrno_map_info* get_cerrno_info_locked(std::uint32_t subsystem) QEL_REQUIRES(cerr_list_mutex);

// One row of a table. The text lies in the map and ends where it was found to end.
struct CodeRow {
    std::uint32_t code;
    std::string_view text;
};

// Walks packed rows, and ends before one that isn't wholly inside.
class CodeRows {
  public:
    CodeRows(const void* begin, const void* end)
        : at_(static_cast<const char*>(begin)), end_(static_cast<const char*>(end)) {}
    std::optional<CodeRow> next();

  private:
    const char* at_;
    const char* end_;
};

// The first row of 'info' with this code.
std::optional<CodeRow> find_row(const qel_cerrno_map_info& info, std::uint32_t code);

}  // namespace qel
