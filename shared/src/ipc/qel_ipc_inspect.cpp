// A channel seen from outside: how the copies are made and when they may be believed.
//
// A channel's objects are read like files. So a look takes no lock that the dead may hold, can't be hurt by
// an object that shrinks, and needs no right to write. What others write meanwhile may tear a copy: the
// header is read until two looks at it are the same and nobody is at the ledger, and the rings count as
// settled if no header has moved since. A busy channel may never settle; then only bounds are checked.
//
// Invariant: sizes come from the header once, held against those of the objects; the checking functions work
// on the copies alone. Locks: none. Threads: one for each object. Restart: a channel can be looked at when
// all of it is dead.
#include "ipc/qel_ipc_inspect.hpp"

#include <qel/base.h>
#include <qel/shm.h>

#include <cstring>

#include "ipc/qel_ipc_channel.hpp"
#include "ipc/qel_ring_words.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"
#include "shm/qel_mem_safe_shm_object.hpp"
#include "shm/qel_mem_vchunk_heap.hpp"

namespace qel {

// The sizes that a ring of this channel has: in the object, and in a copy, which has no payloads.
struct RingSizes {
    RingSizes(const IpcHeader& header, std::uint32_t ep)
        : messages(ep == 0 ? header.total_msg : 0),
          stride((sizeof(qel_ring_msg) + std::size_t{header.msg_size} + 7) & ~std::size_t{7}),
          area((sizeof(RingHeader) + sizeof(std::uint16_t) * header.total_msg + 7) & ~std::size_t{7}) {}
    std::size_t in_object() const { return area + messages * stride; }
    std::size_t in_copy() const { return area + messages * sizeof(qel_ring_msg); }

    std::size_t messages;
    std::size_t stride;
    std::size_t area;
};

namespace {

constexpr int kHeaderLooks = 100;

bool is_channel(const IpcHeader& header) {
    return header.magic == HeaderMagic::ready || header.magic == HeaderMagic::claimed;
}

// A holder who lives is at work on the ledger; one who is dead will never be.
bool at_work(const SharedMutex& mutex) {
    std::uint32_t holder = lock_holder(mutex);
    return holder != 0 && is_alive(holder);
}

// Header and index as they are, and of each message its control block.
int read_parts(const ObjectToRead& object, const RingSizes& sizes, std::byte* out) {
    if (int error = shm_platform::read_object(object.object, 0, {out, sizes.area}); error != 0) return error;
    out += sizes.area;
    for (std::size_t i = 0; i < sizes.messages; ++i, out += sizeof(qel_ring_msg)) {
        std::uint64_t at = sizes.area + i * sizes.stride;
        if (int error = shm_platform::read_object(object.object, at, {out, sizeof(qel_ring_msg)}); error != 0)
            return error;
    }
    return 0;
}

bool unchanged_ring(const IpcHeader& header, const qel_ring& ring) {
    ObjectToRead object;
    std::byte now[sizeof(RingHeader)];
    return open_to_read(ring_name(header.name, ring.num).text, object) == 0 &&
           shm_platform::read_object(object.object, 0, now) == 0 &&
           std::memcmp(now, ring.hdr, sizeof now) == 0;
}

}  // namespace

void HeaderCopy::put_name(const char* name) {
    auto* place = reinterpret_cast<char*>(bytes_ + offsetof(IpcHeader, name));
    static_cast<void>(sstrncpy(place, name, sizeof(IpcHeader::name)));
}

void HeaderCopy::take(const IpcHeader& live, const char* name) {
    static_assert(sizeof bytes_ % sizeof(std::uint32_t) == 0);
    auto* words = reinterpret_cast<const std::uint32_t*>(&live);
    for (std::size_t at = 0; at < sizeof bytes_; at += sizeof(std::uint32_t)) {
        std::uint32_t word = peek(*words++);
        std::memcpy(bytes_ + at, &word, sizeof word);
    }
    put_name(name);
}

int HeaderCopy::read(const Fd& object, const char* name) {
    int error = shm_platform::read_object(object, 0, bytes_);
    put_name(name);
    return error;
}

bool HeaderCopy::operator==(const HeaderCopy& other) const {
    return std::memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
}

bool is_alive(std::uint32_t pid) {
    return pid != 0 && shm_platform::thread_exists(pid);
}

bool is_held(const SharedMutex& mutex) {
    return !shm_platform::is_free(reinterpret_cast<const shm_platform::PlacedMutex&>(mutex));
}

std::uint32_t lock_holder(const SharedMutex& mutex) {
    return shm_platform::holder_of(reinterpret_cast<const pthread_mutex_t&>(mutex));
}

int ChannelLook::read_header(const char* name) {
    ObjectToRead channel;
    if (int error = open_to_read(name, channel); error != 0) return error;
    if (channel.size != sizeof(IpcHeader)) return EBADF;
    header_settled_ = false;
    if (int error = header_.read(channel.object, name); error != 0) return error;
    for (int look = 0; look < kHeaderLooks && !header_settled_; ++look) {
        HeaderCopy before = header_;
        if (int error = header_.read(channel.object, name); error != 0) return error;
        header_settled_ = before == header_ && !at_work(header_->fc_lock);
    }
    return is_channel(*header_) ? 0 : EBADF;
}

int ChannelLook::read(const char* name) {
    if (int error = read_header(name); error != 0) return error;
    read_heap_lock();
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (int error = read_ring(ep); error == ENOMEM) return error;
    settled_ = header_settled_ && unchanged(name);
    return 0;
}

// Of the heap only its lock, at which all participants wait when its holder has died.
void ChannelLook::read_heap_lock() {
    ObjectToRead heap;
    std::memset(heap_lock_, 0, sizeof heap_lock_);
    if (header_->heap_size == 0 || open_to_read(heap_name(header_->name).text, heap) != 0) return;
    std::uint64_t at = QEL_SHM_SAFE_HEADER_SIZE + offsetof(VchunkHeapHeader, lock);
    static_cast<void>(shm_platform::read_object(heap.object, at, heap_lock_));  // Too short: no lock is held.
}

int ChannelLook::read_ring(std::uint32_t ep) {
    RingCopy& copy = rings_[ep];
    bool in_use = ep == 0 || header_->eps[ep].ep_state != EndPointState::free;
    copy.error = in_use ? copy_ring(ep, copy) : ENOENT;
    return copy.error;
}

int ChannelLook::copy_ring(std::uint32_t ep, RingCopy& copy) {
    ObjectToRead object;
    if (int error = open_to_read(ring_name(header_->name, ep).text, object); error != 0) return error;
    RingSizes sizes{*header_, ep};
    if (header_->total_msg == 0 || header_->msg_size > 0xffff || object.size != sizes.in_object())
        return EBADF;
    copy.memory = allocate_zeroed<std::byte>(QEL_MEM_IPC, sizes.in_copy());
    if (!copy.memory) return ENOMEM;
    if (int error = read_parts(object, sizes, copy.memory.get()); error != 0) return error;
    describe_ring(copy.memory.get(), ep, sizes, copy.ring);
    return 0;
}

void ChannelLook::describe_ring(std::byte* start, std::uint32_t ep, const RingSizes& sizes, qel_ring& ring) {
    ring.alloc_ring = &rings_[0].ring;
    ring.hdr = reinterpret_cast<RingHeader*>(start);
    ring.index = reinterpret_cast<std::uint16_t*>(start + sizeof(RingHeader));
    ring.msgs = ep == 0 ? start + sizes.area : nullptr;
    ring.stride = sizeof(qel_ring_msg);
    ring.num = static_cast<std::uint16_t>(ep);
    ring.size = header_->total_msg;
    ring.msg_size = static_cast<std::uint16_t>(header_->msg_size);
}

bool ChannelLook::unchanged(const char* name) const {
    ObjectToRead channel;
    HeaderCopy now;
    if (open_to_read(name, channel) != 0 || now.read(channel.object, name) != 0 || !(now == header_))
        return false;
    for (const RingCopy& copy : rings_)
        if (copy.error == 0 && !unchanged_ring(*header_, copy.ring)) return false;
    return true;
}

const qel_ring* ChannelLook::ring(std::uint32_t ep, int& error) const {
    error = ep < kMaxEndPoints ? rings_[ep].error : EINVAL;
    return error == 0 ? &rings_[ep].ring : nullptr;
}

// Before the server there are no rings.
const char* ChannelLook::check_ring(std::uint32_t ep) const {
    const RingCopy& copy = rings_[ep];
    if (header_->state != ChannelState::active) return nullptr;
    if (copy.error == EBADF) return "its segment doesn't fit the channel's sizes";
    // One that has closed takes its ring with it, and leaves its record until its messages are back.
    if (copy.error == ENOENT && header_->eps[ep].ep_state == EndPointState::closed) return nullptr;
    if (copy.error != 0) return "its segment is absent or can't be read";
    if (rings_[0].error != 0) return nullptr;  // Told of ring 0.
    return ring_check(copy.ring, settled_);
}

}  // namespace qel
