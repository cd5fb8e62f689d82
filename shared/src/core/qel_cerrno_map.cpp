// The error-code maps in shared memory, as both their writers and their readers handle them: the state word,
// the names of segments, the rows. Format and states are drawn in the header.
//
// Invariant: no look at a map, whatever it holds, reads outside of it or takes more than about a second.
// Locks: none here; readers and writers come with cerr_list_mutex.
// Restart: a claimer that died leaves its map claimed. Whoever would write waits a second and then writes it
// anew, which gives the same bytes; a reader gives up until then.
#include "core/qel_cerrno_map.hpp"

#include <qel/time.h>

#include <array>
#include <cstdio>

namespace qel {
namespace {

constexpr int kStateAttempts = 10;
constexpr std::uint32_t kStateWait_ms = 100;

using SegmentName = std::array<char, 64>;

bool make_segment_name(SegmentName& name, std::uint32_t subsystem, MapVersion version) {
    int length =
        std::snprintf(name.data(), name.size(), "cerr_map.%u.%u.%u", subsystem, version.major, version.minor);
    return length > 0 && static_cast<std::size_t>(length) < name.size();
}

}  // namespace

MapCheck check_map_state(MapState& word, MapAccess access) {
    std::atomic_ref state{word};
    for (int attempt = 0; attempt < kStateAttempts; ++attempt) {
        MapState seen = state.load(std::memory_order_acquire);  // S1
        if (seen == MapState::ready) return MapCheck::ready;
        if (seen == MapState::fresh && access == MapAccess::write) {
            // A lost swap is not looked into again: the map counts as invalid for this call.
            bool won = state.compare_exchange_strong(seen, MapState::claimed);
            return won ? MapCheck::unready : MapCheck::invalid;
        }
        if (seen != MapState::claimed) return MapCheck::invalid;
        qel_time_sleep(kStateWait_ms);
    }
    return MapCheck::unready;
}

int open_map(const char* name, std::uint32_t size, Mapping& mapping) {
    std::uint8_t existed = 0;
    return qel_shm_open(name, size, mapping.out(), &existed);
}

cerrno subsys_map_open(std::uint32_t subsystem, MapVersion version, std::uint32_t size, MapAccess access,
                       Mapping& mapping, MapCheck* check) {
    SegmentName name;
    if (!make_segment_name(name, subsystem, version)) return kInvalidArguments;
    if (int error = open_map(name.data(), size, mapping); error != 0) return no_shared_memory(error);
    if (mapping.info().size < sizeof(SubsystemMap)) return kCorruptSharedData;
    *check = check_map_state(map_in<SubsystemMap>(mapping)->state, access);
    return *check == MapCheck::invalid ? kCorruptSharedData : 0;
}

cerrno subsys_map_unlink(std::uint32_t subsystem, MapVersion version) {
    SegmentName name;
    if (!make_segment_name(name, subsystem, version)) return kInvalidArguments;
    // Whoever removed it first did the work.
    static_cast<void>(qel_shm_unlink(name.data()));
    return 0;
}

std::optional<CodeRow> CodeRows::next() {
    CodeRow row{};
    auto left = static_cast<std::size_t>(end_ - at_);
    if (left < sizeof row.code) return std::nullopt;
    const char* text = at_ + sizeof row.code;
    const void* nul = std::memchr(text, '\0', left - sizeof row.code);
    if (nul == nullptr) return std::nullopt;
    std::memcpy(&row.code, at_, sizeof row.code);
    row.text = {text, static_cast<const char*>(nul)};
    at_ = static_cast<const char*>(nul) + 1;
    return row;
}

std::optional<CodeRow> find_row(const qel_cerrno_map_info& info, std::uint32_t code) {
    CodeRows rows{info.codes, info.codes_end};
    for (std::uint32_t i = 0; i < info.count; ++i) {
        auto row = rows.next();
        if (!row || row->code == code) return row;
    }
    return std::nullopt;
}

}  // namespace qel
