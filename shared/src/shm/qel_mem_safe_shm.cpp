// Safe segments: any number of processes race to open one name, and one of them runs the initialiser.
//
// A 12-byte header precedes the user's bytes. Its state word is the whole protocol:
//
//                 claim (compare-and-swap)      version, then ready
//     fresh (0) ---------------------------> claimed -----------------> ready
//                                               |
//                                               +---------------------> failed
//                                                 initialiser failed
//
// Owners of the transitions: the process that made the segment claims at once. Others wait; one that could
// have made it claims a segment that stays fresh for a second, since its maker has died. Only the claimer
// leaves 'claimed', and nobody leaves 'ready' or 'failed'.
//
// Invariant: who reads 'ready' sees the version and all that the initialiser wrote (R1, A1). A claimer that
// fails, or whose thread ends in the initialiser, removes the name, so the next opener begins afresh.
// Locks: none. The initialiser is the application's code and runs with nothing held but the claim.
// Restart: a process that dies in the initialiser leaves the segment claimed, and openers wait.
#include "shm/qel_mem_safe_shm.hpp"

#include <qel/time.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <type_traits>

#include "shm/qel_mem_safe_shm_object.hpp"

namespace qel {
namespace {

enum class SegmentState : std::uint32_t {
    fresh = 0,
    claimed = 0xace00000,
    ready = 0xace01234,
    failed = 0xace0dead
};

struct SafeHeader {
    SegmentState state;      // changed by the owners drawn above only
    std::uint32_t version;   // written by the claimer before 'ready'; any value is good
    std::uint32_t reserved;  // 0
};
static_assert(sizeof(SafeHeader) == QEL_SHM_SAFE_HEADER_SIZE && offsetof(SafeHeader, state) == 0 &&
              offsetof(SafeHeader, version) == 4 && offsetof(SafeHeader, reserved) == 8);
static_assert(std::is_trivially_copyable_v<SafeHeader> && std::is_standard_layout_v<SafeHeader>);
static_assert(std::atomic_ref<SegmentState>::is_always_lock_free);

constexpr std::uint64_t kAtOnce = 0;
constexpr std::uint64_t kMakerIsDeadPolls = 1000;
constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint32_t kPollMs = 1;

// What the caller of qel_shm_safe_open() asked for.
struct SafeRequest {
    std::uint32_t flags;
    std::uint32_t size;  // of the whole segment, header included
    std::uint32_t version;
    qel_shm_initializer initializer;
    void* context;
    std::uint32_t wait;  // polls, 0 for no limit

    bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
};

// The words of a mapped segment's header, which other processes read and write at any time.
class Header {
  public:
    explicit Header(const Segment& segment)
        : words_(*static_cast<SafeHeader*>(segment.mapping.info().addr)) {}

    // A1: pairs with R1, so the version and the user's bytes are those of the initialiser.
    SegmentState state() const { return std::atomic_ref{words_.state}.load(std::memory_order_acquire); }
    std::uint32_t version() const { return std::atomic_ref{words_.version}.load(std::memory_order_relaxed); }
    bool claim() const {
        SegmentState expected = SegmentState::fresh;
        return std::atomic_ref{words_.state}.compare_exchange_strong(expected, SegmentState::claimed);
    }
    void finish(std::uint32_t version) const {
        std::atomic_ref{words_.version}.store(version, std::memory_order_relaxed);
        // R1: publishes the version and the initialiser's writes; A1 in state() sees them.
        std::atomic_ref{words_.state}.store(SegmentState::ready, std::memory_order_release);
    }
    void fail() const { std::atomic_ref{words_.state}.store(SegmentState::failed); }

  private:
    SafeHeader& words_;
};

qel_shm_info user_part(const qel_shm_info& whole) {
    return {sizeof(SafeHeader), static_cast<std::byte*>(whole.addr) + sizeof(SafeHeader),
            whole.size - static_cast<std::uint32_t>(sizeof(SafeHeader))};
}

// Runs the initialiser in a segment that this call has claimed.
int initialize(const ShmPath& path, const SafeRequest& request, const Segment& segment) {
    Header header{segment};
    // Also when the initialiser ends its thread. Somebody may have removed and remade the name meanwhile.
    Undo abandon{[&] {
        header.fail();
        shm_platform::remove_if_same(path.text, segment.identity);
    }};
    if (request.initializer != nullptr) {
        qel_shm_info user = user_part(segment.mapping.info());
        if (int error = request.initializer(&user, request.context); error != 0) return error;
    }
    abandon.keep();
    header.finish(request.version);
    return 0;
}

// Waits until the segment is ready and of the wanted version, and initialises it if it is still fresh after
// 'claim_after' polls.
int await_ready(const ShmPath& path, const SafeRequest& request, const Segment& segment,
                std::uint64_t claim_after) {
    Header header{segment};
    for (std::uint64_t polls = 0;; ++polls) {
        SegmentState state = header.state();
        if (state == SegmentState::ready) return header.version() == request.version ? 0 : EFAULT;
        if (state == SegmentState::failed) return EFAULT;
        if (state != SegmentState::fresh && state != SegmentState::claimed) return EINVAL;
        bool may_claim = state == SegmentState::fresh && polls >= claim_after;
        if (may_claim && header.claim()) return initialize(path, request, segment);
        if (request.wait != 0 && polls >= request.wait) return ETIMEDOUT;
        qel_time_sleep(kPollMs);
    }
}

// Who could have made this very segment may take the place of a maker that died before its claim.
bool could_have_made(const SafeRequest& request, std::uint32_t size) {
    return request.has(QEL_SHM_CREATE) && request.initializer != nullptr && request.size == size;
}

int await_joined(const ShmPath& path, const SafeRequest& request, const Segment& segment) {
    if (request.has(QEL_SHM_EXCLUSIVE)) return EEXIST;
    std::uint32_t size = segment.mapping.info().size;
    if (size < sizeof(SafeHeader)) return EINVAL;
    if (request.has(QEL_SHM_EXACT_SIZE) && size != request.size) return EINVAL;
    return await_ready(path, request, segment, could_have_made(request, size) ? kMakerIsDeadPolls : kNever);
}

// Attaches to the segment or makes it. Apart from the waiting, since an initialiser may fail with any number.
int attach_or_create(const ShmPath& path, const SafeRequest& request, Segment& out) {
    auto join = [&] { return attach_segment(path, 0, out); };
    auto make = [&] {
        return request.has(QEL_SHM_CREATE) ? create_segment(path, request.size, out) : ENOENT;
    };
    return join_or_make(join, make);
}

}  // namespace
}  // namespace qel

using namespace qel;

int qel_shm_safe_open(const char* name, uint32_t flags, uint32_t size, uint32_t version,
                      qel_shm_initializer initializer, void* init_context, uint32_t wait,
                      qel_shm_info* info) {
    if (name == nullptr || info == nullptr || (flags != 0 && size == 0)) return EINVAL;
    SafeRequest request{flags, 0, version, initializer, init_context, wait};
    if (__builtin_add_overflow(size, sizeof(SafeHeader), &request.size)) return EINVAL;
    ShmPath path;
    if (int error = build_path(name, path); error != 0) return error;
    Segment segment;
    if (int error = attach_or_create(path, request, segment); error != 0) return error;
    int error =
        segment.created ? await_ready(path, request, segment, kAtOnce) : await_joined(path, request, segment);
    if (error != 0) return error;
    *info = user_part(segment.mapping.release());
    return 0;
}

int qel_shm_safe_resize(qel_shm_info*, uint32_t, uint32_t) {
    return ENOSYS;
}
