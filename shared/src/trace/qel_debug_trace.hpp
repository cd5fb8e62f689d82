// The records of the debug flags, and what the flag tree, the ttys and the log path need of each other.
//
// A flag holds a queue of ttys (named outputs), a tty a queue of requests: one unconditional request, or
// filters of which one must match. All of it is heap memory of this process.
//
// Locks: debug_lock guards every queue here. A flag's magic, name, options, filters and parent don't change
// while it lives, so they are read without it; so is 'active_ttys', the count by which a log call on a silent
// flag gets by without the lock.
#pragma once

#include <qel/dt.h>
#include <qel/queue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/qel_lock.hpp"

namespace qel {

inline constexpr std::uint32_t kFlagAlive = 0xabababab;
inline constexpr std::uint32_t kFlagDestroyed = 0xdeadbeef;
inline constexpr std::size_t kFlagNameSize = 64;     // a name of 64 characters has no NUL
inline constexpr std::size_t kTtyNameSize = 128;     // with its NUL
inline constexpr std::size_t kFilterTextSize = 128;  // a text of 128 characters has no NUL

// What a log call carries, and what a request asks for: for a string, 'value' is its address.
struct Filter {
    std::uint32_t type;
    std::uint64_t value;
};

// One wish for output: everything, or what equals 'filter'.
struct Request {
    void* link;
    std::uint32_t unconditional;
    Filter filter;  // a string's address is that of the request's own copy
};

struct Tty {
    void* link;
    char name[kTtyNameSize];  // empty for the default output
    qel_queue requests;
};

// The first record of a queue, and the one after 'record'.
template <class Record>
Record* first_of(const qel_queue& queue) {
    return static_cast<Record*>(queue.head);
}
template <class Record>
Record* next_of(const Record* record) {
    return static_cast<Record*>(record->link);
}

}  // namespace qel

struct qel_dt_flag {
    void* link;
    std::uint32_t magic;
    char name[qel::kFlagNameSize];
    std::uint32_t options;
    std::uint32_t supported_filters;
    qel_queue ttys;
    qel_dt_flag* parent;
    qel_queue children;
    std::uint32_t active_ttys;  // length of 'ttys', for readers without the lock
};

namespace qel {

extern Mutex debug_lock;

struct DebugLockFailures {
    static void lock_failed(int error);
    static void unlock_failed(int error);
};
using DebugLocked = BasicLocked<DebugLockFailures>;

inline bool alive(const qel_dt_flag* flag) {
    return flag != nullptr && flag->magic == kFlagAlive;
}

inline bool has_ttys(const qel_dt_flag& flag) {
    // Only a hint: who finds a tty takes the lock and looks again.
    return std::atomic_ref{const_cast<qel_dt_flag&>(flag).active_ttys}.load(std::memory_order_relaxed) != 0;
}

// True for a type whose value is the address of a string.
constexpr bool is_text(std::uint32_t type) {
    return type == QEL_DT_FILTER_STRING;
}

// 0, or why this thread may not work on 'flag' now: EINVAL for one that isn't alive, EDEADLK from inside the
// log callback, which runs with the debug lock held.
int refuse(const qel_dt_flag* flag);
bool inside_callback();

// The ttys of one flag. A null or empty name stands for the flag's first tty, or for a new default output.
// Those that can run out of memory give ENOMEM and leave the flag as it was.
int enable_tty_locked(qel_dt_flag& flag, const char* tty) QEL_REQUIRES(debug_lock);
void disable_tty_locked(qel_dt_flag& flag, const char* tty) QEL_REQUIRES(debug_lock);
int replace_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* tty) QEL_REQUIRES(debug_lock);
int add_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* tty) QEL_REQUIRES(debug_lock);
void remove_filter_locked(qel_dt_flag& flag, const Filter& filter, const char* tty) QEL_REQUIRES(debug_lock);
void destroy_ttys_locked(qel_dt_flag& flag) QEL_REQUIRES(debug_lock);
bool passes_locked(const Tty& tty, const Filter& logged) QEL_REQUIRES(debug_lock);

// The log callback in force until an application registers its own: a line in the system log.
int print_to_system_log(void* context, const char* tty, const char* format, va_list args);

}  // namespace qel
