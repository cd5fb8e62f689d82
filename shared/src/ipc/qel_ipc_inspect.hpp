// A channel seen from outside, for tools: private copies, made with no lock, no mapping and no change.
#pragma once

#include <array>
#include <cstddef>

#include "core/qel_fd.hpp"
#include "core/qel_owned.hpp"
#include "ipc/qel_ipc.hpp"

namespace qel {

// A header's bytes at one moment: what others write meanwhile doesn't change them.
class HeaderCopy {
  public:
    const IpcHeader& operator*() const { return *reinterpret_cast<const IpcHeader*>(bytes_); }
    const IpcHeader* operator->() const { return &**this; }
    bool operator==(const HeaderCopy& other) const;
    // Copies the header of channel 'name', mapped or read like a file: 0 or why it can't be. The copy has
    // that name, in full, whatever the header says: the channel's other segments go by it.
    void take(const IpcHeader& live, const char* name);
    int read(const Fd& object, const char* name);

  private:
    void put_name(const char* name);

    alignas(IpcHeader) std::byte bytes_[sizeof(IpcHeader)]{};
};

// A mutex of a channel that somebody holds.
struct HeldLock {
    const char* name;
    std::uint32_t ep;      // of a ring or signal record; 0 for the channel's own
    std::uint32_t holder;  // thread ID; 0 in between taking the mutex and leaving one's name
    bool lives;
};

// What is wrong with a channel: the part, and what its checking function says.
struct Finding {
    const char* part;  // "ledger", "end points", "ring", "lock"
    std::uint32_t ep;  // of the ring or lock
    const char* text;
    std::uint32_t holder;  // of a lock, if it is known, else 0
};

struct RingSizes;

class ChannelLook {
  public:
    ChannelLook() = default;
    ChannelLook(const ChannelLook&) = delete;
    ChannelLook& operator=(const ChannelLook&) = delete;

    // Copies the header alone, or the rings too. 0; ENOENT and what else opening gives; EBADF for an object
    // that is no channel; ENOMEM.
    int read_header(const char* name);
    int read(const char* name);

    const IpcHeader& header() const { return *header_; }
    const HeaderCopy& header_copy() const { return header_; }
    // Nothing moved while the copies were made, so that counts, states and accounts must agree.
    bool settled() const { return settled_; }
    // A ring's copy, of whose messages there are the control blocks only; null with the errno at 'error' if
    // it is absent, can't be read or doesn't fit the header.
    const qel_ring* ring(std::uint32_t ep, int& error) const;

    // Calls visit(const HeldLock&) for each mutex that is held.
    template <class Visit>
    void for_each_held(Visit visit) const;
    // Calls visit(const Finding&) for whatever a checking function finds, and each lock that the dead hold.
    template <class Visit>
    void check(Visit visit) const;

  private:
    struct RingCopy {
        Owned<std::byte> memory;
        qel_ring ring{};
        int error = ENOENT;
    };

    void read_heap_lock();
    int read_ring(std::uint32_t ep);
    int copy_ring(std::uint32_t ep, RingCopy& copy);
    void describe_ring(std::byte* start, std::uint32_t ep, const RingSizes& sizes, qel_ring& ring);
    // Whether header and ring headers still are what was copied.
    bool unchanged(const char* name) const;
    const char* check_ring(std::uint32_t ep) const;

    HeaderCopy header_;
    alignas(SharedMutex) std::byte heap_lock_[sizeof(SharedMutex)]{};
    std::array<RingCopy, kMaxEndPoints> rings_;
    bool header_settled_ = false;
    bool settled_ = false;
};

// Whether the kernel knows the process or thread.
bool is_alive(std::uint32_t pid);
bool is_held(const SharedMutex& mutex);
// The thread that holds the mutex, 0 for none.
std::uint32_t lock_holder(const SharedMutex& mutex);

template <class Visit>
void ChannelLook::for_each_held(Visit visit) const {
    auto look = [&](const char* name, std::uint32_t ep, const SharedMutex& mutex) {
        std::uint32_t holder = lock_holder(mutex);
        if (holder != 0 || is_held(mutex)) visit(HeldLock{name, ep, holder, is_alive(holder)});
    };
    look("shm_mutex", 0, header_->shm_mutex);
    look("fc_lock", 0, header_->fc_lock);
    look("heap lock", 0, reinterpret_cast<const SharedMutex&>(heap_lock_));
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep) {
        if (header_->eps[ep].ep_state == EndPointState::free) continue;
        look("sep_mutex", ep, reinterpret_cast<const SharedMutex&>(header_->eps[ep].sep.sep_mutex));
        if (rings_[ep].error != 0) continue;
        look("ring_free", ep, rings_[ep].ring.hdr->ring_free);
        look("ring_prod", ep, rings_[ep].ring.hdr->ring_prod);
    }
}

template <class Visit>
void ChannelLook::check(Visit visit) const {
    auto tell = [&](const char* part, std::uint32_t ep, const char* text) {
        if (text != nullptr) visit(Finding{part, ep, text, 0});
    };
    for_each_held([&](const HeldLock& lock) {
        if (!lock.lives) visit(Finding{"lock", lock.ep, lock.name, lock.holder});
    });
    if (header_settled_) tell("ledger", 0, ledger_check(*header_));
    if (header_settled_) tell("end points", 0, end_points_check(*header_));
    for (std::uint32_t ep = 0; ep < kMaxEndPoints; ++ep)
        if (header_->eps[ep].ep_state != EndPointState::free) tell("ring", ep, check_ring(ep));
}

}  // namespace qel
