// Debug flags: a tree of named switches, each of which sends what is logged on it to its ttys.
//
// A change made on a flag reaches the flags below it, parents first. Enabling and filters stop at an
// independent child and at one that doesn't know the filter's type, with all that lies below; disabling
// reaches all. The walks go by links, not by calls, so a tree may be as deep as memory allows.
//
// Invariant: a child is in its parent's queue from its creation to its destruction; a parent outlives it.
// Locks: debug_lock, for every call here. No callback runs from this file.
// Restart: flags are private to the process and start afresh.
#include "trace/qel_debug_trace.hpp"

#include <qel/base.h>

#include <cerrno>
#include <cstring>

#include "core/qel_owned.hpp"
#include "trace/qel_report.hpp"

namespace qel {

constinit Mutex debug_lock;

void DebugLockFailures::lock_failed(int error) {
    report<"QDT1", "%s debug lock failed, rc=%d">(error);
}

void DebugLockFailures::unlock_failed(int error) {
    report<"QDT2", "%s debug unlock failed, rc=%d">(error);
}

int refuse(const qel_dt_flag* flag) {
    if (!alive(flag)) return EINVAL;
    return inside_callback() ? EDEADLK : 0;
}

namespace {

// Types that no flag may support.
constexpr std::uint32_t kRefusedTypes = 0x6c;

bool has_child_locked(const qel_dt_flag& parent, const char* name) QEL_REQUIRES(debug_lock) {
    for (const auto* child = first_of<qel_dt_flag>(parent.children); child != nullptr; child = next_of(child))
        if (std::strncmp(child->name, name, kFlagNameSize) == 0) return true;
    return false;
}

qel_dt_flag* make_flag_locked(const char* name, qel_dt_flag* parent, std::uint32_t filters,
                              std::uint32_t options) QEL_REQUIRES(debug_lock) {
    qel_dt_flag* flag = allocate_zeroed<qel_dt_flag>(QEL_MEM_QDT).release();
    if (flag == nullptr) return nullptr;
    std::memcpy(flag->name, name, strnlen(name, kFlagNameSize));
    flag->options = options;
    flag->supported_filters = filters;
    flag->parent = parent;
    flag->magic = kFlagAlive;
    if (parent != nullptr) qel_queue_enqueue(&parent->children, flag);
    return flag;
}

void destroy_leaf_locked(qel_dt_flag* flag) QEL_REQUIRES(debug_lock) {
    destroy_ttys_locked(*flag);
    if (flag->parent != nullptr) qel_queue_unqueue(&flag->parent->children, flag);
    flag->magic = kFlagDestroyed;
    qel_named_free(flag);
}

// Destroys 'top' and all below it: down to a leaf, up over each flag as its last child goes.
void destroy_tree_locked(qel_dt_flag* top) QEL_REQUIRES(debug_lock) {
    for (qel_dt_flag* flag = top; flag != nullptr;) {
        if (auto* child = first_of<qel_dt_flag>(flag->children); child != nullptr) {
            flag = child;
            continue;
        }
        qel_dt_flag* above = flag == top ? nullptr : flag->parent;
        destroy_leaf_locked(flag);
        flag = above;
    }
}

// The flag after 'flag' in a walk over 'top' and all below it, parents first; null at the end. Leaves out
// what lies below 'flag' unless 'descend'.
qel_dt_flag* next_in_tree_locked(qel_dt_flag* flag, const qel_dt_flag* top, bool descend)
    QEL_REQUIRES(debug_lock) {
    if (descend && flag->children.head != nullptr) return first_of<qel_dt_flag>(flag->children);
    for (; flag != top; flag = flag->parent)
        if (auto* sibling = next_of(flag); sibling != nullptr) return sibling;
    return nullptr;
}

// Runs 'change' on 'top' and on each flag below that 'reaches' lets through; the first failure ends the walk.
template <class Reaches, class Change>
int change_tree_locked(qel_dt_flag* top, Reaches reaches, Change change) QEL_REQUIRES(debug_lock) {
    bool reached = true;
    for (qel_dt_flag* flag = top; flag != nullptr; flag = next_in_tree_locked(flag, top, reached)) {
        reached = flag == top || reaches(*flag);
        if (!reached) continue;
        if (int error = change(*flag); error != 0) return error;
    }
    return 0;
}

bool follows_parent(const qel_dt_flag& flag) {
    return (flag.options & QEL_DT_FLAG_INDEPENDENT) == 0;
}

int refuse_filter(const qel_dt_flag* flag, const Filter& filter) {
    if (int error = refuse(flag); error != 0) return error;
    bool supported = (flag->supported_filters & filter.type) != 0;
    bool readable = !is_text(filter.type) || filter.value != 0;
    return supported && readable ? 0 : EINVAL;
}

// Runs 'change' on the flag, and below it where children follow and know the filter's type.
template <class Change>
int change_filters(qel_dt_flag* flag, const Filter& filter, Change change) {
    if (int error = refuse_filter(flag, filter); error != 0) return error;
    DebugLocked lock{debug_lock};
    auto reaches = [&](const qel_dt_flag& child) {
        return follows_parent(child) && (child.supported_filters & filter.type) != 0;
    };
    return change_tree_locked(flag, reaches, change);
}

}  // namespace
}  // namespace qel

using namespace qel;

int qel_dt_flag_init(qel_dt_flag** out, const char* name, qel_dt_flag* parent,
                     const uint32_t* supported_filters, uint32_t options) {
    qel_check_not_interrupt_path();
    if (out == nullptr || name == nullptr || *name == '\0') return EINVAL;
    if ((options & ~QEL_DT_FLAG_INDEPENDENT) != 0) return EINVAL;
    if (parent != nullptr && !alive(parent)) return EINVAL;
    const std::uint32_t filters = supported_filters != nullptr ? *supported_filters : 0;
    if ((filters & kRefusedTypes) != 0) return EOPNOTSUPP;
    if (inside_callback()) return EDEADLK;

    DebugLocked lock{debug_lock};
    if (parent != nullptr && has_child_locked(*parent, name)) return EEXIST;
    *out = make_flag_locked(name, parent, filters, options);
    return *out != nullptr ? 0 : ENOMEM;
}

int qel_dt_flag_destroy(qel_dt_flag** flag) {
    qel_check_not_interrupt_path();
    if (flag == nullptr) return EINVAL;
    if (int error = refuse(*flag); error != 0) return error;
    DebugLocked lock{debug_lock};
    destroy_tree_locked(*flag);
    *flag = nullptr;
    return 0;
}

int qel_dt_flag_enable(qel_dt_flag* flag, const char* tty) {
    qel_check_not_interrupt_path();
    if (int error = refuse(flag); error != 0) return error;
    DebugLocked lock{debug_lock};
    return change_tree_locked(flag, follows_parent, [&](qel_dt_flag& reached) QEL_REQUIRES(debug_lock) {
        return enable_tty_locked(reached, tty);
    });
}

int qel_dt_flag_disable(qel_dt_flag* flag, const char* tty) {
    qel_check_not_interrupt_path();
    if (int error = refuse(flag); error != 0) return error;
    DebugLocked lock{debug_lock};
    auto all = [](const qel_dt_flag&) { return true; };
    return change_tree_locked(flag, all, [&](qel_dt_flag& reached) QEL_REQUIRES(debug_lock) {
        disable_tty_locked(reached, tty);
        return 0;
    });
}

int qel_dt_flag_enabled(const qel_dt_flag* flag) {
    qel_check_not_interrupt_path();
    return alive(flag) && has_ttys(*flag);
}

int qel_dt_flag_set_filter(qel_dt_flag* flag, int on, uint32_t type, uint64_t value, const char* tty) {
    qel_check_not_interrupt_path();
    const Filter filter{type, value};
    return change_filters(flag, filter, [&](qel_dt_flag& reached) QEL_REQUIRES(debug_lock) {
        if (on) return replace_filter_locked(reached, filter, tty);
        remove_filter_locked(reached, filter, tty);
        return 0;
    });
}

int qel_dt_flag_set_filter_or(qel_dt_flag* flag, uint32_t type, uint64_t value, const char* tty) {
    qel_check_not_interrupt_path();
    const Filter filter{type, value};
    return change_filters(flag, filter, [&](qel_dt_flag& reached) QEL_REQUIRES(debug_lock) {
        return add_filter_locked(reached, filter, tty);
    });
}
