// The layouts of the trace: buffer segments, the list of buffer names. Persistent formats, shared by
// processes and tools.
//
//   buffer segment "<name>.qdt", version 6             list of names "qdt_buffers"
//     0    BufferHeader                                   0   NameListHeader
//   224    ControlEntry[blocks]                          16   NameSlot[900]
//   224 +  4 * blocks   Block[blocks], 64 bytes each
//   224 + 68 * blocks   red zone
//
// The list of trace points, "qel_trace.tpl", is qel_dt_tp_list of <qel/dt_buffer.h>. Offsets count from
// behind the 12-byte header of a safe segment, so a field at an odd multiple of 4 lies on 8 bytes in memory:
// `count` and the pair of `level` and `flags` are read and changed as one 64-bit word.
//
// A control entry is owned by whoever moves it, by compare-and-swap:
//
//            reserve (a writer)            commit (the same writer)
//     free ---------------------> reserved -------------------------> used
//      ^                          |                                    |  reserve (a writer, one lap later)
//      +--------------------------+ <----------------------------------+
//            roll back (the same writer)
//
// Only the entry's first block is ever reserved or used; its other blocks are free with a count of 1. A block
// whose writer died between the two stays reserved for ever; writers and readers pass it over.
#pragma once

#include <qel/dt_buffer.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qel {

inline constexpr std::uint32_t kBufferSegmentMagic = 0xba5eba11;
inline constexpr std::uint32_t kNameListSegmentMagic = 0xfedcba98;
inline constexpr std::uint32_t kPointListSegmentMagic = 0xa1beef00;

inline constexpr std::uint32_t kBufferMagic = 0xc004cafe;
inline constexpr std::uint32_t kBufferVersion = 6;
inline constexpr std::uint32_t kRedZone = 0x0cab005e;
inline constexpr std::uint32_t kPointListVersion = 2;

inline constexpr std::uint32_t kBlockSize = 64;
inline constexpr std::uint32_t kMinBlocks = 128;
inline constexpr std::uint32_t kMaxBlocks = 0x100000;
inline constexpr std::uint32_t kMaxEntryBlocks = 16;
inline constexpr std::uint32_t kMaxNames = 900;

// Bits of BufferHeader::flags.
inline constexpr std::uint32_t kFlagControl = 1;       // a control operation is in progress
inline constexpr std::uint32_t kFlagStale = 2;         // replaced: every process has to map the new segment
inline constexpr std::uint32_t kFlagPaused = 4;        // writers drop entries
inline constexpr std::uint32_t kFlagOneShot = 8;       // stop before the one-shot mark is overwritten
inline constexpr std::uint32_t kFlagOneShotFull = 16;  // the one-shot run has ended: writers drop entries

// Written by every process that has the buffer open: fields marked 'a' by atomic operations of any writer,
// 'c' by the holder of the control flag, the others by the creator only. None is trusted: see
// checked_blocks().
struct BufferHeader {
    std::uint32_t magic;
    std::uint32_t version;
    char name[QEL_DT_NAME_SIZE];
    std::uint32_t blocks;
    std::uint32_t original_size;  // bytes asked for at first creation
    std::uint32_t size;           // bytes asked for at the last creation or resize
    std::uint32_t reserved[2];
    std::uint32_t next;                       // a: the write cursor, see Cursor
    std::uint32_t wraps;                      // a, c: since the last clear
    std::uint32_t count[2];                   // a, c: entries since the last clear, low word first
    std::uint32_t dropped;                    // a, c: entries lost to failures
    std::uint32_t sequence;                   // a: the next sequence number
    std::uint32_t reserve_retries;            // a: slots passed over because another writer held them
    std::uint32_t lock_free_retries_high;     // a: the most passes that one reservation took
    std::uint32_t reserve_cas_failures_high;  // a: the most lost control swaps of one reservation
    std::uint32_t excessive_retries;          // a: reservations given up
    std::uint32_t commit_cas_failures;        // a: commits whose swap failed
    std::uint32_t rollbacks;                  // a: reservations rolled back
    std::uint32_t level;                      // a
    std::uint32_t flags;                      // a
    std::uint32_t one_shot_mark;              // c: 'next' when the one-shot run began
    std::uint32_t clear_seconds;              // c
    std::uint32_t clear_nanoseconds;          // c
};
static_assert(sizeof(BufferHeader) == 224 && std::is_trivially_copyable_v<BufferHeader>);
static_assert(offsetof(BufferHeader, version) == 4 && offsetof(BufferHeader, name) == 8);
static_assert(offsetof(BufferHeader, blocks) == 136 && offsetof(BufferHeader, original_size) == 140);
static_assert(offsetof(BufferHeader, size) == 144 && offsetof(BufferHeader, reserved) == 148);
static_assert(offsetof(BufferHeader, next) == 156 && offsetof(BufferHeader, wraps) == 160);
static_assert(offsetof(BufferHeader, count) == 164 && offsetof(BufferHeader, dropped) == 172);
static_assert(offsetof(BufferHeader, sequence) == 176 && offsetof(BufferHeader, reserve_retries) == 180);
static_assert(offsetof(BufferHeader, lock_free_retries_high) == 184);
static_assert(offsetof(BufferHeader, reserve_cas_failures_high) == 188);
static_assert(offsetof(BufferHeader, excessive_retries) == 192);
static_assert(offsetof(BufferHeader, commit_cas_failures) == 196 && offsetof(BufferHeader, rollbacks) == 200);
static_assert(offsetof(BufferHeader, level) == 204 && offsetof(BufferHeader, flags) == 208);
static_assert(offsetof(BufferHeader, one_shot_mark) == 212 && offsetof(BufferHeader, clear_seconds) == 216);
static_assert(offsetof(BufferHeader, clear_nanoseconds) == 220);

// Two adjacent words of a segment as one that is read and changed in one go.
struct [[gnu::may_alias]] WordPair {
    std::uint64_t value;
};
static_assert(std::endian::native == std::endian::little, "the low word of 'count' comes first");
static_assert((12 + offsetof(BufferHeader, count)) % 8 == 0 && (12 + offsetof(BufferHeader, level)) % 8 == 0);

inline WordPair* word_pair(std::uint32_t* first_word) {
    return reinterpret_cast<WordPair*>(first_word);
}

struct LevelAndFlags {
    std::uint32_t level;
    std::uint32_t flags;
};

// The write cursor: the block where the next entry starts, and the number of the lap.
struct Cursor {
    std::uint32_t index;
    std::uint32_t stamp;  // modulo 4096

    static constexpr std::uint32_t kStamps = 0x1000;
    static constexpr Cursor unpack(std::uint32_t word) { return {word >> 12, word % kStamps}; }
    constexpr std::uint32_t pack() const { return index << 12 | stamp; }
    constexpr Cursor next_lap() const { return {0, (stamp + 1) % kStamps}; }
    // True if this lap comes after that of 'mark'; laps are counted modulo 4096.
    constexpr bool in_later_lap_than(Cursor mark) const {
        std::uint32_t laps = (stamp - mark.stamp) % kStamps;
        return laps != 0 && laps < kStamps / 2;
    }
};

enum class BlockState : std::uint8_t { free = 0, reserved = 1, used = 2 };

struct alignas(4) ControlEntry {
    std::uint16_t sequence;  // incremented at every change
    BlockState state;
    std::uint8_t blocks;  // of the entry that starts here; 1 for a free block
};
static_assert(sizeof(ControlEntry) == 4 && offsetof(ControlEntry, state) == 2);
static_assert(offsetof(ControlEntry, blocks) == 3 && std::is_trivially_copyable_v<ControlEntry>);

struct PayloadHeader {
    std::uint16_t length;  // of the argument data behind this header
    std::uint16_t stamp;   // the cursor's when the blocks were reserved
    std::uint32_t sequence;
    std::uint32_t process_id;
    std::uint32_t trace_point;
    std::uint32_t seconds;
    std::uint32_t nanoseconds;
};
static_assert(sizeof(PayloadHeader) == 24 && offsetof(PayloadHeader, stamp) == 2);
static_assert(offsetof(PayloadHeader, sequence) == 4 && offsetof(PayloadHeader, process_id) == 8);
static_assert(offsetof(PayloadHeader, trace_point) == 12 && offsetof(PayloadHeader, seconds) == 16);
static_assert(offsetof(PayloadHeader, nanoseconds) == 20);

inline constexpr std::uint32_t kMaxArgumentBytes = kMaxEntryBlocks * kBlockSize - sizeof(PayloadHeader);
static_assert(kMaxArgumentBytes == 1000);

constexpr std::uint32_t blocks_of_entry(std::uint32_t length) {
    return static_cast<std::uint32_t>((length + sizeof(PayloadHeader) + kBlockSize - 1) / kBlockSize);
}

// What an argument is and how it is stored: the 4-bit codes of a trace point.
enum class ArgumentType : std::uint8_t {
    none = 0,
    word32 = 1,        // 4 bytes
    word64 = 2,        // 8 bytes, also a pointer's value
    string = 3,        // text and NUL, in the variable part
    ipv4_pointer = 4,  // 4 bytes that the argument points at, in the variable part
    ipv6_pointer = 5,  // 16 bytes, likewise
    mac_pointer = 6,   // 6 bytes, likewise
    ipv4_value = 7,    // 4 bytes
};

static_assert(sizeof(qel_dt_tp_entry) == 144 && offsetof(qel_dt_tp_entry, fixed_size) == 4);
static_assert(offsetof(qel_dt_tp_entry, argument_count) == 5 && offsetof(qel_dt_tp_entry, reserved) == 6);
static_assert(offsetof(qel_dt_tp_entry, extended) == 7 && offsetof(qel_dt_tp_entry, types) == 8);
static_assert(offsetof(qel_dt_tp_entry, format) == 16 && sizeof(qel_dt_tp_list) == 720012);
static_assert(offsetof(qel_dt_tp_list, count) == 4 && offsetof(qel_dt_tp_list, capacity) == 8);
static_assert(offsetof(qel_dt_tp_list, entries) == 12);

enum class NameState : std::uint32_t { free = 0, writing = 1, in_use = 16 };

struct NameSlot {
    NameState state;  // free to writing by compare-and-swap; then the one who moved it owns the slot
    char name[QEL_DT_NAME_SIZE];
};
struct NameList {
    char magic[4];             // "wwww"
    std::uint32_t slot_count;  // kMaxNames
    std::uint32_t capacity;    // kMaxNames
    std::uint32_t reserved;
    NameSlot slots[kMaxNames];
};
static_assert(sizeof(NameSlot) == 132 && offsetof(NameSlot, name) == 4);
static_assert(sizeof(NameList) == 118816 && offsetof(NameList, slots) == 16);
static_assert(offsetof(NameList, slot_count) == 4 && offsetof(NameList, capacity) == 8);
static_assert(offsetof(NameList, reserved) == 12 && std::is_trivially_copyable_v<NameList>);

static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free &&
              std::atomic_ref<NameState>::is_always_lock_free &&
              std::atomic_ref<ControlEntry>::is_always_lock_free &&
              std::atomic_ref<std::uint64_t>::is_always_lock_free);

// Bytes of a buffer of 'blocks' blocks, the red zone included.
constexpr std::uint32_t buffer_size(std::uint32_t blocks) {
    return static_cast<std::uint32_t>(sizeof(BufferHeader) + (sizeof(ControlEntry) + kBlockSize) * blocks +
                                      sizeof kRedZone);
}

}  // namespace qel
