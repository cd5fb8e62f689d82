// The control block of a channel: mapping it, making it, and what its sizes must be.
//
// Whoever opens a channel first makes its control block; others wait for that. The header's magic word is the
// whole protocol:
//
//     fresh (0) ---- compare-and-swap ----> claimed ---- all set up ----> ready
//
// An opener looks ten times, 100 ms apart. A block that is still claimed then belongs to a process that died
// while it made it, or that is very slow: the opener goes on, and sets up whatever word of name and locks is
// still zero. It does so by compare-and-swap from zero to what a fresh lock has there, so that any number of
// openers may do it side by side, and beside the maker.
//
// Invariant: the sizes that this process works with were checked when the channel came up, and are its own.
// Locks: none. Restart: the block outlives its processes; the magic of a dead maker stays.
#include <qel/time.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "ipc/qel_ipc_channel.hpp"

namespace qel {
namespace {

constexpr char kOpen[] = "qel_ipc_open";
constexpr int kLooks = 10;
constexpr std::uint32_t kLookMs = 100;

enum class Part { creator, attacher, none };

// Which part falls to this opener.
Part settle_magic(IpcHeader& header) {
    std::atomic_ref magic{header.magic};
    for (int look = 0; look < kLooks; ++look) {
        HeaderMagic seen = magic.load(std::memory_order_acquire);  // H1
        if (seen == HeaderMagic::ready) return Part::attacher;
        if (seen == HeaderMagic::fresh)
            return magic.compare_exchange_strong(seen, HeaderMagic::claimed) ? Part::creator : Part::none;
        if (seen != HeaderMagic::claimed) return Part::none;
        qel_time_sleep(kLookMs);
    }
    return Part::attacher;
}

void store_name(IpcHeader& header, const char* name) {
    std::memset(header.name, 0, sizeof header.name);
    std::memcpy(header.name, name, strnlen(name, kNameInUse));
    header.trace_id = qel_hash_calculate(header.name, kNameInUse + 1);
}

cerrno init_lock(SharedMutex& mutex, const char* init_text, const char* revive_text) {
    if (int error = mutex.init(); error != 0) return ipc_error(kOpen, init_text, fatal(error));
    int error = qel_revive_and_monitor_mutex(mutex.native());
    return error == 0 ? 0 : ipc_error(kOpen, revive_text, fatal(error));
}

cerrno revive_lock(SharedMutex& mutex, const char* text) {
    int error = qel_revive_and_monitor_mutex(mutex.native());
    return error == 0 ? 0 : ipc_error(kOpen, text, fatal(error));
}

cerrno init_signal_records(IpcHeader& header) {
    for (EndPointRecord& record : header.eps)
        if (cerrno error = qel_sep_shm_init_once(&record.sep); error != 0)
            return ipc_error(kOpen, "qel_sep_shm_init_once", error);
    return 0;
}

cerrno create_block(IpcContext& ipc, const qel_ipc_attr& attr) {
    IpcHeader& header = *ipc.hdr;
    if (attr.role == QEL_IPC_ROLE_SERVER) header.total_msg = static_cast<std::uint16_t>(attr.max_msg_count);
    header.reserved_56 = 1;
    store_name(header, ipc.name);
    if (cerrno error = init_lock(header.shm_mutex, "init_shared ipc_mutex", "revive ipc_mutex"); error != 0)
        return error;
    if (cerrno error = init_lock(header.fc_lock, "init_shared fc_lock", "revive fc_lock"); error != 0)
        return error;
    if (cerrno error = init_signal_records(header); error != 0) return error;
    write_shared(header.magic, HeaderMagic::ready);  // H1: with all the above
    return 0;
}

// Gives the words of 'place' that are still zero what a fresh object has there.
template <class Object>
void set_up_zero_words(Object& place, const Object& fresh) {
    static_assert(sizeof(Object) % sizeof(std::uint32_t) == 0);
    auto* words = reinterpret_cast<std::uint32_t*>(&place);
    for (std::size_t i = 0; i < sizeof(Object) / sizeof(std::uint32_t); ++i) {
        std::uint32_t wanted = 0;
        std::memcpy(&wanted, reinterpret_cast<const std::byte*>(&fresh) + i * sizeof wanted, sizeof wanted);
        std::uint32_t zero = 0;
        if (wanted != 0) std::atomic_ref{words[i]}.compare_exchange_strong(zero, wanted);
    }
}

// After a maker that didn't end its work.
cerrno complete_block(IpcContext& ipc) {
    IpcHeader& header = *ipc.hdr;
    pthread_mutex_t mutex;
    qel_sep_record record{};
    if (int error = qel_init_shared_mutex(&mutex); error != 0)
        return ipc_error(kOpen, "init_shared ipc_mutex", fatal(error));
    if (cerrno error = qel_sep_shm_init_once(&record); error != 0)
        return ipc_error(kOpen, "qel_sep_shm_init_once", error);
    set_up_zero_words(*header.shm_mutex.native(), mutex);
    set_up_zero_words(*header.fc_lock.native(), mutex);
    for (EndPointRecord& each : header.eps) set_up_zero_words(each.sep, record);
    if (header.name[0] == '\0') store_name(header, ipc.name);
    return 0;
}

cerrno refuse_other_count(const IpcHeader& header, const qel_ipc_attr& attr) {
    static std::uint32_t tp = QEL_DT_TP_UNREGISTERED;
    std::uint32_t found = read_shared(header.total_msg);
    if (attr.role != QEL_IPC_ROLE_SERVER || found == 0 || found == attr.max_msg_count) return 0;
    ipc_log(tp, "pid: %d ERROR: %s: %s got=0x%x exp=0x%x", own_pid(), kOpen, "shm reuse, msg count mismatch",
            found, attr.max_msg_count);
    return fatal(EINVAL);
}

cerrno join_block(IpcContext& ipc, const qel_ipc_attr& attr) {
    IpcHeader& header = *ipc.hdr;
    if (read_shared(header.magic) != HeaderMagic::ready)
        if (cerrno error = complete_block(ipc); error != 0) return error;
    if (cerrno error = revive_lock(header.shm_mutex, "revive shm_mutex"); error != 0) return error;
    if (cerrno error = revive_lock(header.fc_lock, "revive fc_lock"); error != 0) return error;
    // The names of all segments are built from it.
    if (std::strncmp(header.name, ipc.name, kNameInUse) != 0 || header.name[kNameInUse] != '\0')
        return ipc_error(kOpen, "invalid IPC header", fatal(EINVAL));
    return refuse_other_count(header, attr);
}

template <class... Values>
SegmentName build_name(const char* format, Values... values) {
    SegmentName name;
    std::snprintf(name.text, sizeof name.text, format, values...);
    return name;
}

constexpr bool is_heap_size(std::uint32_t size) {
    return size == 0 || (size > kHeapExtra && size <= kMaxLargeData + kHeapExtra);
}

constexpr bool is_shape(const ChannelShape& shape) {
    return shape.total_msg >= kLeastMessages && shape.msg_size <= kMostMessageSize &&
           is_heap_size(shape.heap_size) && shape.max_eps >= 2 && shape.max_eps <= kMaxEndPoints;
}

}  // namespace

SegmentName ring_name(const char* channel, std::uint32_t ep) {
    return build_name("%.31s.%u", channel, ep % 100);
}

SegmentName heap_name(const char* channel) {
    return build_name("%.31s.heap", channel);
}

void unlink_rings_and_heap(const char* channel) {
    // Names that aren't there are as good as removed.
    static_cast<void>(qel_mem_vchunk_destroy(heap_name(channel).text));
    for (std::uint32_t ep = kMaxEndPoints; ep-- > 0;)
        static_cast<void>(qel_shm_unlink(ring_name(channel, ep).text));
}

cerrno attach_control_block(IpcContext& ipc, const qel_ipc_attr& attr, bool& created) {
    std::uint8_t existed = 0;
    int error = qel_shm_open(ipc.name, sizeof(IpcHeader), ipc.shm.out(), &existed);
    if (error != 0)
        return ipc_error(kOpen, "qel_shm_open failed", error == EAGAIN ? try_again(error) : fatal(error));
    ipc.hdr = reinterpret_cast<IpcHeader*>(ipc.shm.bytes().data());
    Part part = settle_magic(*ipc.hdr);
    created = part == Part::creator;
    if (part == Part::none) return ipc_error(kOpen, "invalid IPC header", fatal(EINVAL));
    return created ? create_block(ipc, attr) : join_block(ipc, attr);
}

cerrno read_shape(const IpcHeader& header, ChannelShape& out) {
    ChannelShape shape{read_shared(header.total_msg), read_shared(header.msg_size),
                       read_shared(header.heap_size), read_shared(header.max_eps),
                       read_shared(header.ext_cs) != 0};
    if (!is_shape(shape)) return fatal(EINVAL);
    out = shape;
    return 0;
}

cerrno take_shape(IpcContext& ipc) {
    if (ipc.shape.total_msg != 0) return 0;
    cerrno error = read_shape(*ipc.hdr, ipc.shape);
    return error == 0 ? 0 : ipc_error(kOpen, "invalid IPC header", error);
}

cerrno open_heap(IpcContext& ipc) {
    if (ipc.shape.heap_size == 0 || ipc.heap != 0) return 0;
    int error = vchunk_attach(heap_name(ipc.name).text, ipc.heap);
    return error == 0 ? 0 : fatal(error);
}

cerrno make_heap(IpcContext& ipc) {
    if (ipc.shape.heap_size == 0 || ipc.heap != 0) return 0;
    int error = qel_ipc_init_large_data_heap(ipc.name, ipc.shape.msg_size, ipc.shape.heap_size, &ipc.heap);
    return error == 0 ? 0 : fatal(error);
}

}  // namespace qel

using namespace qel;

int qel_ipc_init_large_data_heap(const char* name, uint32_t msg_size, uint32_t size,
                                 qel_mem_vchunk_pool* heap) {
    if (name == nullptr || heap == nullptr || msg_size > kMostMessageSize) return EINVAL;
    auto least = static_cast<std::uint16_t>(msg_size + 1);
    int error = vchunk_shm_open(heap_name(name).text, least, size, *heap);
    if (error != 0)
        static_cast<void>(
            ipc_error("qel_ipc_init_large_data_heap", "large data heap init failed", fatal(error)));
    return error;
}
