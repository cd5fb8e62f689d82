// The control block of a channel, a persistent format in the segment that bears the channel's name.
#pragma once

#include <qel/ipc_ctx.h>
#include <qel/sep.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "shm/qel_shared_lock.hpp"

namespace qel {

// A word of the control block that other processes write at any time: read once, checked, then used.
template <class Word>
Word read_shared(const Word& word) {
    return std::atomic_ref{const_cast<Word&>(word)}.load(std::memory_order_acquire);
}
template <class Word>
void write_shared(Word& word, std::type_identity_t<Word> value) {
    std::atomic_ref{word}.store(value, std::memory_order_release);
}

inline constexpr std::uint32_t kMaxEndPoints = 32;
inline constexpr std::uint32_t kMaxContexts = 48;
inline constexpr std::size_t kNameSize = 33;     // as the header has it
inline constexpr std::uint32_t kNameInUse = 31;  // characters of it that the header keeps
inline constexpr std::uint32_t kLeastMessages = 8;
inline constexpr std::uint32_t kMostMessages = 65535;
inline constexpr std::uint32_t kMostMessageSize = 4096;
inline constexpr std::uint32_t kMaxLargeData = 0x4000000;
inline constexpr std::uint32_t kHeapExtra = 2048;

enum class HeaderMagic : std::uint32_t { fresh = 0, claimed = 0xdecade00, ready = 0xdecade08 };
enum class ChannelState : std::uint32_t { fresh, client_waits, active, destroy_pending };
enum class EndPointState : std::uint32_t {
    free = 0,
    open = 1,
    owner_down = 2,
    restarted = 3,
    closed = 0x8000
};

struct EndPointRecord {
    EndPointState ep_state;
    std::uint8_t closing;
    std::uint8_t restricted;
    std::uint8_t reserved_6[2];
    qel_sep_record sep;
    std::uint64_t app_id[2];
    std::uint32_t pid;
    std::uint32_t restarts;
    std::uint32_t alloc;
    std::uint32_t reserved_credits;
    std::uint32_t hw_count;
    std::uint32_t lw_count;
    std::uint64_t sent;
    std::uint64_t received;
    std::uint64_t msg_input;
};
static_assert(sizeof(EndPointRecord) == 168 && offsetof(EndPointRecord, closing) == 4 &&
              offsetof(EndPointRecord, restricted) == 5 && offsetof(EndPointRecord, sep) == 8 &&
              offsetof(EndPointRecord, app_id) == 104 && offsetof(EndPointRecord, pid) == 120 &&
              offsetof(EndPointRecord, restarts) == 124 && offsetof(EndPointRecord, alloc) == 128 &&
              offsetof(EndPointRecord, reserved_credits) == 132 &&
              offsetof(EndPointRecord, hw_count) == 136 && offsetof(EndPointRecord, lw_count) == 140 &&
              offsetof(EndPointRecord, sent) == 144 && offsetof(EndPointRecord, received) == 152 &&
              offsetof(EndPointRecord, msg_input) == 160);

}  // namespace qel

struct qel_ipc_hdr {
    qel::HeaderMagic magic;
    std::uint32_t reserved_4;
    qel::SharedMutex shm_mutex;
    qel::ChannelState state;
    std::uint32_t reserved_52;
    std::uint32_t reserved_56;  // 1
    std::uint32_t reserved_60;
    std::uint32_t max_msg_count;
    std::uint32_t reserved_68[3];
    std::uint32_t msg_size;
    std::uint32_t heap_size;
    std::uint8_t ext_cs;
    std::uint8_t reserved_89;
    std::uint16_t max_eps;
    std::uint16_t total_msg;
    std::uint16_t ofp_pool;
    std::uint16_t spare_count;
    std::uint8_t reserved_98;
    std::uint8_t hw_percent;
    std::uint8_t lw_percent;
    std::uint8_t reserved_101[3];
    qel::SharedMutex fc_lock;
    std::uint16_t prod_count;
    std::uint16_t quota;
    std::uint16_t ofp_quota;
    std::uint16_t reserved_150;
    std::uint32_t ofp_used;
    std::uint16_t hw;
    std::uint16_t lw;
    std::uint8_t trace_level;
    std::uint8_t audit_level;
    std::uint8_t core_dump;
    char name[qel::kNameSize];
    std::uint32_t trace_id;
    std::array<qel::EndPointRecord, qel::kMaxEndPoints> eps;
};

namespace qel {

static_assert(sizeof(qel_ipc_hdr) == 5576 && std::is_standard_layout_v<qel_ipc_hdr>);
static_assert(offsetof(qel_ipc_hdr, shm_mutex) == 8 && offsetof(qel_ipc_hdr, state) == 48 &&
              offsetof(qel_ipc_hdr, reserved_56) == 56 && offsetof(qel_ipc_hdr, max_msg_count) == 64 &&
              offsetof(qel_ipc_hdr, msg_size) == 80 && offsetof(qel_ipc_hdr, heap_size) == 84 &&
              offsetof(qel_ipc_hdr, ext_cs) == 88 && offsetof(qel_ipc_hdr, max_eps) == 90 &&
              offsetof(qel_ipc_hdr, total_msg) == 92 && offsetof(qel_ipc_hdr, ofp_pool) == 94 &&
              offsetof(qel_ipc_hdr, spare_count) == 96 && offsetof(qel_ipc_hdr, hw_percent) == 99 &&
              offsetof(qel_ipc_hdr, lw_percent) == 100 && offsetof(qel_ipc_hdr, fc_lock) == 104 &&
              offsetof(qel_ipc_hdr, prod_count) == 144 && offsetof(qel_ipc_hdr, quota) == 146 &&
              offsetof(qel_ipc_hdr, ofp_quota) == 148 && offsetof(qel_ipc_hdr, ofp_used) == 152 &&
              offsetof(qel_ipc_hdr, hw) == 156 && offsetof(qel_ipc_hdr, lw) == 158 &&
              offsetof(qel_ipc_hdr, trace_level) == 160 && offsetof(qel_ipc_hdr, audit_level) == 161 &&
              offsetof(qel_ipc_hdr, core_dump) == 162 && offsetof(qel_ipc_hdr, name) == 163 &&
              offsetof(qel_ipc_hdr, trace_id) == 196 && offsetof(qel_ipc_hdr, eps) == 200);

}  // namespace qel
