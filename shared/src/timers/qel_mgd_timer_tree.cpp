// Trees: making, ending and asking them, and the family's trace resources.
//
// A tree ends in the order: detached, so that no expiry reaches it any more, then stopped, then unmarked, so
// that calls on nodes that are left are refused.
//
// Invariant: the mutex of a tree exists as long as its mark. Locks: the tree's mutex. Threads: any.
// Restart: nothing stays.
#include <qel/mem.h>

#include <atomic>
#include <cerrno>

#include "core/qel_owned.hpp"
#include "timers/qel_mgd_timer.hpp"

namespace qel::mgd {
namespace {

constexpr BufferSource kEventBuffer{"qel.mgd.buffer.events", "qel_mgd_timer_trace_info", 65536};
constexpr const char* kFlagName = "qel_mgd_timers";

constinit qel_dt_buffer_handle events = nullptr;
constinit std::atomic<bool> debug_flags_made{false};

// A root only groups; the flag below it is the one that a user asks for by name. They stay for the process.
constinit qel_dt_flag* root_flag = nullptr;
constinit qel_dt_flag* timer_flag = nullptr;

bool make_debug_flags() {
    if (qel_dt_flag_init(&root_flag, kFlagName, nullptr, nullptr, 0) != 0) return false;
    Undo destroy{[] { qel_dt_flag_destroy(&root_flag); }};
    if (qel_dt_flag_init(&timer_flag, kFlagName, root_flag, nullptr, 0) != 0) return false;
    if (qel_dt_flag_enable(timer_flag, nullptr) != 0) return false;
    destroy.keep();
    return true;
}

int end_tree(Tree* tree) {
    if (tree == nullptr || detach(*tree) != 0) return EINVAL;
    {
        Held held{tree};
        if (!held) return EINVAL;
        stop_all_locked(tree->root);
        tree->root.node.init_mark = 0;
    }
    mutex_of(*tree).destroy();
    return 0;
}

}  // namespace

void ReportedLockFailures::lock_failed(int error) {
    report<"MTMR30", "QEL-MTMR-ERROR: failed to lock the timer tree, rc=%d">(error);
}

void ReportedLockFailures::unlock_failed(int error) {
    report<"MTMR31", "QEL-MTMR-ERROR: failed to unlock the timer tree, rc=%d">(error);
}

qel_dt_buffer_handle event_buffer() {
    return buffer_at(events, kEventBuffer);
}

void make_debug_resources() {
    if (debug_flags_made.load(std::memory_order_relaxed)) return;
    static_cast<void>(event_buffer());
    if (debug_flags_made.exchange(true, std::memory_order_relaxed)) return;
    // Whoever comes next tries again: want of memory passes.
    if (!make_debug_flags()) debug_flags_made.store(false, std::memory_order_relaxed);
}

}  // namespace qel::mgd

using namespace qel;
using namespace qel::mgd;

QEL_API int qel_mgd_timer_tree_init(Tree* tree) {
    if (tree == nullptr) return EINVAL;
    *tree = {};
    if (int error = mutex_of(*tree).init(); error != 0) return error;
    tree->root.tree = tree;
    tree->root.node.flags = QEL_MGD_TIMER_TREE;
    tree->root.node.init_mark = QEL_MGD_TIMER_INITIALIZED;
    return 0;
}

QEL_API int qel_mgd_timer_tree_uninit(Tree* tree) {
    return end_tree(tree);
}

QEL_API qel_mgd_timer_tree* qel_mgd_timer_tree_alloc(void) {
    Owned<Tree> tree = allocate_zeroed<Tree>(QEL_MEM_TIMER);
    return tree && qel_mgd_timer_tree_init(tree.get()) == 0 ? tree.release() : nullptr;
}

QEL_API int qel_mgd_timer_tree_free(Tree** tree) {
    if (tree == nullptr) return EINVAL;
    if (int error = end_tree(*tree); error != 0) return error;
    qel_named_free(std::exchange(*tree, nullptr));
    return 0;
}

QEL_API int qel_mgd_timer_tree_stop(Tree* tree) {
    return tree != nullptr ? qel_mgd_timer_parent_stop(&tree->root) : EINVAL;
}

QEL_API int qel_mgd_timer_tree_running(Tree* tree) {
    return tree != nullptr ? qel_mgd_timer_parent_running(&tree->root) : 0;
}

QEL_API int qel_mgd_timer_tree_expired(Tree* tree) {
    return tree != nullptr ? qel_mgd_timer_parent_expired(&tree->root) : 0;
}

QEL_API int qel_mgd_timer_tree_remaining(Tree* tree, timespec* out) {
    return tree != nullptr ? qel_mgd_timer_parent_remaining(&tree->root, out) : 0;
}

QEL_API int qel_mgd_timer_tree_first_running(Tree* tree, Leaf** out) {
    Held held{tree};
    if (!held || out == nullptr) return EINVAL;
    Leaf* leaf = first_leaf_locked(tree->root);
    if (leaf == nullptr) return ENOENT;
    *out = leaf;
    return 0;
}

QEL_API int qel_mgd_timer_tree_next_running(Node* node, Leaf** leaf, Parent** parent) {
    Held held{node};
    if (!held) return EINVAL;
    Node* next = node->next;
    if (next == nullptr) return ENOENT;
    if (is_leaf(*next) ? leaf == nullptr : parent == nullptr) return EINVAL;
    if (leaf != nullptr) *leaf = is_leaf(*next) ? &leaf_of(*next) : nullptr;
    if (parent != nullptr) *parent = is_leaf(*next) ? nullptr : &parent_of(*next);
    return 0;
}

QEL_API qel_mgd_timer_leaf* qel_mgd_timer_tree_first_expired(Tree* tree) {
    Held held{tree};
    if (!held || !is_due(tree->root.node, monotonic_now())) return nullptr;
    return first_leaf_locked(tree->root);
}

QEL_API void qel_mgd_timer_tree_set_context(Tree* tree, void* context) {
    Held held{tree};
    if (held) tree->context = context;
}

QEL_API void* qel_mgd_timer_tree_get_context(Tree* tree) {
    Held held{tree};
    return held ? tree->context : nullptr;
}
