// Publishing the registered tables: qel_cerrno_init().
//
// The walk goes over this process's list. A table that is newer than the version in the header map gets a
// segment of its own, complete before the header names it; then the segment of the older version goes. Where
// everything is published already, which is how a restarted process finds it, the walk only reads.
//
// Invariant: a version in the header names a segment that was ready; a version never goes back.
// Locks: cerr_list_mutex; inside it the spin lock of the header map, which orders the publishers of all
// processes. It is taken only by who has something to write, since a process that dies with it leaves it
// held. Restart: whoever finds a header that its initialiser left claimed, marks it ready after its own walk.
#include <qel/atomic.h>
#include <qel/base.h>
#include <qel/time.h>

#include <sched.h>

#include "core/qel_cerrno_map.hpp"

namespace qel {

constinit HeaderMap* header_map = nullptr;

namespace {

constexpr const char* kHeaderName = "cerr_map_hdr";

// The publishers' lock. A holder writes a few pages, or waits a second for another's claim; one that died
// never lets go. So the wait first spins, then yields, then sleeps, and ends after two seconds.
class PublisherLock {
  public:
    explicit PublisherLock(std::uint32_t& word) : word_(word) {}
    PublisherLock(const PublisherLock&) = delete;
    PublisherLock& operator=(const PublisherLock&) = delete;
    ~PublisherLock() {
        // One try: qel_atomic_unlock() would wait for ever if somebody else has overwritten the word.
        if (held_) static_cast<void>(qel_atomic_cas(&word_, 1, 0));
    }

    // Takes the lock, if this guard doesn't hold it yet. Returns 0 or ETIMEDOUT.
    int acquire() {
        for (int attempt = 0; !held_ && attempt < kAttempts; ++attempt) {
            held_ = qel_atomic_cas(&word_, 0, 1) != 0;
            if (!held_) pause(attempt);
        }
        return held_ ? 0 : ETIMEDOUT;
    }

  private:
    static constexpr int kSpins = 64;
    static constexpr int kYields = 64;
    static constexpr int kSleeps = 2000;
    static constexpr std::uint32_t kSleep_ms = 1;
    static constexpr int kAttempts = kSpins + kYields + kSleeps;

    static void pause(int attempt) {
        if (attempt >= kSpins + kYields)
            qel_time_sleep(kSleep_ms);
        else if (attempt >= kSpins)
            sched_yield();
    }

    std::uint32_t& word_;
    bool held_ = false;
};

MapVersion version_of(const qel_cerrno_info& info) {
    return {static_cast<std::uint16_t>(info.major), static_cast<std::uint16_t>(info.minor)};
}

// A subsystem out of range has no entry; its table goes on to be refused.
bool is_newer(HeaderMap& header, const qel_cerrno_info& info) {
    if (info.subsystem >= kSubsystemCount) return true;
    MapVersion published = published_version(header, info.subsystem);
    return published == kNoVersion || version_of(info) > published;
}

std::uint64_t map_size(const qel_cerrno_info& info) {
    std::uint64_t size = sizeof(SubsystemMap);
    for (std::uint32_t i = 0; i < info.count; ++i)
        size += sizeof(std::uint32_t) + std::strlen(info.codes[i].text) + 1;
    return size;
}

void write_rows(char* at, const qel_cerrno_info& info) {
    for (std::uint32_t i = 0; i < info.count; ++i) {
        const qel_cerrno_code& row = info.codes[i];
        std::size_t text_size = std::strlen(row.text) + 1;
        std::memcpy(at, &row.code, sizeof row.code);
        std::memcpy(at + sizeof row.code, row.text, text_size);
        at += sizeof row.code + text_size;
    }
}

void write_map(SubsystemMap& map, const qel_cerrno_info& info) {
    map.subsystem = info.subsystem;
    copy_cut(map.name, info.name);
    map.count = info.count;
    map.zero = 0;
    write_rows(reinterpret_cast<char*>(&map + 1), info);
    mark_map_ready(map.state);
}

// Writes the segment of a table and names it in the header. A segment that is there already stays as it is,
// and so does the header.
cerrno add_cerrno_subsys_map(HeaderMap& header, const qel_cerrno_info& info) {
    std::uint64_t size = map_size(info);
    if (size > UINT32_MAX - 7) return no_shared_memory(EFBIG);
    MapVersion version = version_of(info);
    {
        Mapping segment;
        MapCheck check{};
        cerrno error = subsys_map_open(info.subsystem, version, qel_round64bit(static_cast<uint32_t>(size)),
                                       MapAccess::write, segment, &check);
        if (error != 0 || check == MapCheck::ready) return error;
        write_map(*map_in<SubsystemMap>(segment), info);
    }
    publish_version(header, info.subsystem, version);
    return 0;
}

cerrno publish_table(HeaderMap& header, const qel_cerrno_info& info) {
    MapVersion old = published_version(header, info.subsystem);
    if (cerrno error = add_cerrno_subsys_map(header, info); error != 0) return error;
    // An older segment that the header still names is the one that readers need.
    if (old == kNoVersion || old == published_version(header, info.subsystem)) return 0;
    return subsys_map_unlink(info.subsystem, old);
}

cerrno publish_node(HeaderMap& header, PublisherLock& lock, const qel_cerrno_node& node) {
    if (node.magic != QEL_CERRNO_NODE_MAGIC) return kCorruptData;
    if (node.info == nullptr || node.info->codes == nullptr) return kInvalidArguments;
    if (!is_newer(header, *node.info)) return 0;
    if (cerrno error = qel_cerrno_validate_info(node.info); error != 0) return error;
    if (int error = lock.acquire(); error != 0) return lock_failed(error);
    // Looked at again, because another process may have published it before this one got the lock.
    return is_newer(header, *node.info) ? publish_table(header, *node.info) : 0;
}

cerrno publish_tables(HeaderMap& header, PublisherLock& lock) {
    cerrno result = 0;
    for (const qel_cerrno_node* node = qel_cerrno_root; node != nullptr && result == 0; node = node->next)
        result = publish_node(header, lock, *node);
    return result;
}

// Opens the process's header map if need be, and looks at its state. A map that is refused is not kept, so a
// later call begins afresh.
cerrno attach_header_locked(MapCheck* check) QEL_REQUIRES(cerr_list_mutex) {
    Mapping opened;
    HeaderMap* header = header_map;
    if (header == nullptr) {
        if (int error = open_map(kHeaderName, sizeof(HeaderMap), opened); error != 0)
            return no_shared_memory(error);
        header = map_in<HeaderMap>(opened);
    }
    *check = check_map_state(header->state, MapAccess::write);
    if (*check == MapCheck::invalid) return kCorruptSharedData;
    if (header_map == nullptr) static_cast<void>(opened.release());
    header_map = header;
    return 0;
}

}  // namespace

cerrno cerrno_init_locked() {
    MapCheck check{};
    if (cerrno error = attach_header_locked(&check); error != 0) return error;
    PublisherLock lock{header_map->spin_lock};
    if (check == MapCheck::ready) return publish_tables(*header_map, lock);
    // The initialiser marks the header ready whatever comes of its own tables: others wait for it.
    int error = lock.acquire();
    cerrno result = error == 0 ? publish_tables(*header_map, lock) : lock_failed(error);
    mark_map_ready(header_map->state);
    return result;
}

}  // namespace qel

using namespace qel;

cerrno qel_cerrno_init(void) {
    qel_check_not_interrupt_path();
    Locked lock{cerr_list_mutex};
    return lock.error() == 0 ? cerrno_init_locked() : lock_failed(lock.error());
}
