// Parents and leaves: the exported calls.
//
// Each takes the tree's mutex by its node (Held), which refuses nodes that aren't initialised. A start reads
// the clock once: for the expiry, and for the dispatcher timer if it has to be set.
//
// Invariant: a node that runs is initialised. Locks: the tree's mutex. Threads: any. Restart: nothing stays.
#include <qel/mem.h>
#include <qel/time.h>

#include <algorithm>
#include <cerrno>

#include "core/qel_owned.hpp"
#include "dispatch/qel_dm_report.hpp"
#include "timers/qel_mgd_timer.hpp"

namespace qel::mgd {

void stop_all_locked(Parent& parent) {
    while (is_running(parent.node.exptime)) {
        Leaf* leaf = first_leaf_locked(parent);
        if (leaf == nullptr) {
            report<"MTMR10", "QEL-MTMR-ERROR: parent (%p) running with no child">(&parent);
            return;
        }
        delink_locked(leaf->node);
    }
}

namespace {

// ---- Initialising

int check_init_locked(const Tree& tree, const Parent& parent, const Node& node) {
    if (!is_initialised(parent.node))
        return failed<"MTMR11", "QEL-MTMR-ERROR: init attempted for node with uninitialized parent (%p)">(
            EINVAL, &parent);
    if (is_leaf(parent.node))
        return failed<"MTMR12", "QEL-MTMR-ERROR: init attempted for leaf under a non-parent timer (%p)">(
            EINVAL, &parent);
    if (parent.tree != &tree)
        return failed<"MTMR13", "QEL-MTMR-ERROR: init attempted under parent (%p) of another tree">(EINVAL,
                                                                                                    &parent);
    if (is_initialised(node) && is_running(node.exptime))
        return failed<"MTMR14", "QEL-MTMR-ERROR: init attempted for running node (%p)">(EINVAL, &node);
    return 0;
}

// Makes 'object' a stopped node below 'parent'; what is its kind's own stays zero.
template <class Kind>
int init_node(Tree* tree, Parent* parent, Kind* object, std::uint8_t flags) {
    make_debug_resources();
    Held held{tree};
    if (!held || object == nullptr) return EINVAL;
    if (parent == nullptr) parent = &tree->root;
    if (int error = check_init_locked(*tree, *parent, object->node); error != 0) return error;
    *object = {};
    object->tree = tree;
    object->node.parent = parent;
    object->node.flags = flags;
    object->node.init_mark = QEL_MGD_TIMER_INITIALIZED;
    return 0;
}

// ---- Questions that any node is asked

int answer_running(Node* node) {
    Held held{node};
    return held && is_running(node->exptime);
}

int answer_expired(Node* node) {
    Held held{node};
    return held && is_due(*node, monotonic_now());
}

// ---- Starting

enum class Start : std::uint8_t { from_now, from_old_expiry, at_real_time };

struct Request {
    Start start;
    timespec time;
    std::uint32_t jitter_percent;  // of which 0 leaves the time as it is
};

// What the clocks show as a start begins, both before it may wait for the mutex.
struct Moment {
    timespec monotonic;
    timespec real;  // read for 'at_real_time' only
};

Moment moment_for(Start start) {
    return {monotonic_now(), start == Start::at_real_time ? realtime_now() : timespec{}};
}

timespec expiry_of(const Leaf& leaf, const Request& request, const Moment& moment) {
    timespec time = request.time;
    if (request.jitter_percent != 0)
        qel_time_calculate_jitter(&time, request.jitter_percent, QEL_TIME_JITTER_SUBTRACT);
    if (request.start == Start::at_real_time) time = subtract(time, moment.real);
    const timespec& now = moment.monotonic;
    return kept_running(add(request.start == Start::from_old_expiry ? leaf.node.exptime : now, time));
}

int check_start(const Leaf* leaf, const Request& request) {
    if (leaf == nullptr || !is_initialised(leaf->node))
        return failed<"MTMR15", "QEL-MTMR-ERROR: start attempted on uninitialized node (%p)">(EINVAL, leaf);
    if (!is_leaf(leaf->node))
        return failed<"MTMR16", "QEL-MTMR-ERROR: start attempted on non-leaf timer (%p)">(EINVAL, leaf);
    if (!is_running(request.time))
        return failed<"MTMR17",
                      "QEL-MTMR-ERROR: leaf (%p) start attempted with invalid (not running) expiration time">(
            EINVAL, leaf);
    return 0;
}

// A parent that starts to run must be initialised, or its next init would wipe the links that it is in. One
// that runs is, and so are those above it.
int check_parents_locked(const Leaf& leaf) {
    for (const Parent* at = leaf.node.parent; at != nullptr && !is_running(at->node.exptime);
         at = at->node.parent)
        if (!is_initialised(at->node))
            return failed<"MTMR21",
                          "QEL-MTMR-ERROR: leaf (%p) start attempted under uninitialized parent (%p)">(
                EINVAL, &leaf, at);
    return 0;
}

int start(Leaf* leaf, const Request& request) {
    expect_node(node_at(leaf));
    if (int error = check_start(leaf, request); error != 0) return error;
    // The clock is read before the mutex is taken, so that nobody waits for the reading.
    const Moment now = moment_for(request.start);
    Held held{leaf};
    if (!held) return EINVAL;
    if (int error = check_parents_locked(*leaf); error != 0) return error;
    event<"MTMR18", "QEL-MTMR-INFO: leaf (%p) type %d started">(event_buffer(), QEL_DT_LEVEL_INFO, leaf,
                                                                int{leaf->node.type});
    if (set_expiry_locked(leaf->node, expiry_of(*leaf, request, now)))
        adjust_locked(held.tree(), &now.monotonic);
    return 0;
}

constexpr std::uint64_t at_least_one(std::uint64_t milliseconds) {
    return std::max<std::uint64_t>(milliseconds, 1);
}

// ---- Stopping

int stop_leaf(Leaf* leaf) {
    expect_node(node_at(leaf));
    Held held{leaf};
    if (!held) return EINVAL;
    if (!is_leaf(leaf->node))
        return failed<"MTMR19", "QEL-MTMR-ERROR: leaf stop attempted on non-leaf timer (%p)">(EINVAL, leaf);
    if (!is_running(leaf->node.exptime)) return 0;
    delink_locked(leaf->node);
    adjust_locked(held.tree(), nullptr);
    return 0;
}

int stop_parent(Parent* parent, bool uninit) {
    Held held{parent};
    if (!held) return EINVAL;
    if (is_leaf(parent->node))
        return failed<"MTMR20", "QEL-MTMR-ERROR: parent stop attempted on non-parent timer (%p)">(EINVAL,
                                                                                                  parent);
    stop_all_locked(*parent);
    adjust_locked(held.tree(), nullptr);
    if (uninit) parent->node.init_mark = 0;
    return 0;
}

}  // namespace
}  // namespace qel::mgd

using namespace qel;
using namespace qel::mgd;

// ---- Parents

QEL_API int qel_mgd_timer_parent_init(Tree* tree, Parent* parent, Parent* node) {
    return init_node(tree, parent, node, 0);
}

QEL_API qel_mgd_timer_parent* qel_mgd_timer_parent_alloc(Tree* tree, Parent* parent) {
    Owned<Parent> node = allocate_zeroed<Parent>(QEL_MEM_TIMER);
    return node && init_node(tree, parent, node.get(), 0) == 0 ? node.release() : nullptr;
}

QEL_API int qel_mgd_timer_parent_uninit(Parent* node) {
    return stop_parent(node, true);
}

QEL_API int qel_mgd_timer_parent_free(Parent** node) {
    if (node == nullptr) return EINVAL;
    if (int error = stop_parent(*node, true); error != 0) return error;
    qel_named_free(std::exchange(*node, nullptr));
    return 0;
}

QEL_API int qel_mgd_timer_parent_stop(Parent* node) {
    return stop_parent(node, false);
}

QEL_API int qel_mgd_timer_parent_running(Parent* node) {
    return answer_running(node_at(node));
}

QEL_API int qel_mgd_timer_parent_expired(Parent* node) {
    return answer_expired(node_at(node));
}

QEL_API int qel_mgd_timer_parent_remaining(Parent* node, timespec* out) {
    Held held{node};
    if (!held || out == nullptr || !is_running(node->node.exptime)) return 0;
    *out = time_left(node->node.exptime, monotonic_now());
    return 1;
}

QEL_API qel_mgd_timer_tree* qel_mgd_timer_parent_get_tree(Parent* node) {
    Held held{node};
    return held ? &held.tree() : nullptr;
}

// ---- Leaves

QEL_API int qel_mgd_timer_leaf_init(Tree* tree, Parent* parent, Leaf* leaf, uint16_t type, void* context) {
    if (int error = init_node(tree, parent, leaf, QEL_MGD_TIMER_LEAF); error != 0) return error;
    leaf->node.type = type;
    leaf->context = context;
    return 0;
}

QEL_API qel_mgd_timer_leaf* qel_mgd_timer_leaf_alloc(Tree* tree, Parent* parent, uint16_t type,
                                                     void* context) {
    Owned<Leaf> leaf = allocate_zeroed<Leaf>(QEL_MEM_TIMER);
    return leaf && qel_mgd_timer_leaf_init(tree, parent, leaf.get(), type, context) == 0 ? leaf.release()
                                                                                         : nullptr;
}

QEL_API int qel_mgd_timer_leaf_uninit(Leaf* leaf) {
    return stop_leaf(leaf);
}

QEL_API int qel_mgd_timer_leaf_free(Leaf** leaf) {
    if (leaf == nullptr) return EINVAL;
    if (int error = stop_leaf(*leaf); error != 0) return error;
    qel_named_free(std::exchange(*leaf, nullptr));
    return 0;
}

QEL_API void qel_mgd_timer_leaf_set_type(Leaf* leaf, uint16_t type) {
    Held held{leaf};
    if (held) leaf->node.type = type;
}

QEL_API uint16_t qel_mgd_timer_leaf_get_type(Leaf* leaf) {
    Held held{leaf};
    return held ? leaf->node.type : std::uint16_t{0};
}

QEL_API void qel_mgd_timer_leaf_set_context(Leaf* leaf, void* context) {
    Held held{leaf};
    if (held) leaf->context = context;
}

QEL_API void* qel_mgd_timer_leaf_get_context(Leaf* leaf) {
    Held held{leaf};
    return held ? leaf->context : nullptr;
}

QEL_API int qel_mgd_timer_leaf_start(Leaf* leaf, uint64_t milliseconds) {
    return start(leaf, {Start::from_now, from_milliseconds(at_least_one(milliseconds)), 0});
}

QEL_API int qel_mgd_timer_leaf_start_jittered(Leaf* leaf, uint32_t milliseconds, uint32_t percent) {
    return start(leaf, {Start::from_now, from_milliseconds(at_least_one(milliseconds)), percent});
}

QEL_API int qel_mgd_timer_leaf_update(Leaf* leaf, uint32_t milliseconds) {
    return start(leaf, {Start::from_old_expiry, from_milliseconds(milliseconds), 0});
}

QEL_API int qel_mgd_timer_leaf_update_jittered(Leaf* leaf, uint32_t milliseconds, uint32_t percent) {
    return start(leaf, {Start::from_old_expiry, from_milliseconds(milliseconds), percent});
}

QEL_API int qel_mgd_timer_leaf_set_exptime(Leaf* leaf, const timespec* realtime) {
    if (realtime == nullptr) return EINVAL;
    return start(leaf, {Start::at_real_time, *realtime, 0});
}

QEL_API int qel_mgd_timer_leaf_get_exptime(Leaf* leaf, timespec* realtime) {
    Held held{leaf};
    if (!held || realtime == nullptr) return EINVAL;
    const timespec& expiry = leaf->node.exptime;
    *realtime = is_running(expiry) ? add(realtime_now(), subtract(expiry, monotonic_now())) : timespec{};
    return 0;
}

QEL_API int qel_mgd_timer_leaf_stop(Leaf* leaf) {
    return stop_leaf(leaf);
}

QEL_API int qel_mgd_timer_leaf_running(Leaf* leaf) {
    return answer_running(node_at(leaf));
}

QEL_API int qel_mgd_timer_leaf_running_and_sleeping(Leaf* leaf) {
    Held held{leaf};
    return held && is_running(leaf->node.exptime) && !is_due(leaf->node, monotonic_now());
}

QEL_API int qel_mgd_timer_leaf_expired(Leaf* leaf) {
    return answer_expired(node_at(leaf));
}

QEL_API uint64_t qel_mgd_timer_leaf_remaining(Leaf* leaf) {
    Held held{leaf};
    if (!held || !is_running(leaf->node.exptime)) return 0;
    const timespec left = time_left(leaf->node.exptime, monotonic_now());
    return qel_timespec_to_msec64(&left);
}
