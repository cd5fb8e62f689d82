/** @file
 * Managed timer trees: any number of timers on one dispatcher timer, in groups.
 *
 * Leaves are the timers; parents group leaves and other parents, so that a group is stopped, or asked for its
 * next expiry, in one step. Each node's expiry is that of its earliest child, siblings lie in the order of
 * their expiry, and among equal times first come is first served. Starting or stopping a leaf touches the
 * path to the root as far as the earliest expiry there changes, and the dispatcher only if the tree's does.
 *
 *     static void expired(qel_mgd_timer_tree* tree, qel_mgd_timer_leaf* leaf, void* session) { ... }
 *
 *     qel_mgd_timer_tree tree;
 *     qel_mgd_timer_leaf hold;
 *     qel_mgd_timer_tree_init(&tree);
 *     qel_mgd_timer_attach_qdm(&tree, dm, expired);
 *     qel_mgd_timer_leaf_init(&tree, NULL, &hold, HOLD_TIMER, session);
 *     qel_mgd_timer_leaf_start(&hold, 30000);
 *     ...
 *     qel_mgd_timer_tree_uninit(&tree);
 *
 * Nodes are the caller's memory (init and uninit) or the heap's (alloc and free). An embedded node starts out
 * zeroed. A node must be stopped or uninitialised before its memory goes away, leaves before their parents,
 * and all of them before the tree.
 *
 * Threads: every call may be made from any thread and from inside the handler; the tree's mutex guards all of
 * its nodes. The handler runs without it, with its leaf stopped: it may start, stop and free any leaf, its
 * own included, detach, uninitialise or free the tree, serve the dispatcher, and end its thread. One thread
 * at a time runs a tree's handlers, one after the other, earliest leaf first; leaves that are due while a
 * handler runs wait for it. Once detach, uninit or free has returned, no further handler of that attachment
 * starts; one that another thread runs already may still be running, so what it uses must stay until it is
 * over. Nobody else may be inside a call on a tree or node that is uninitialised or freed.
 *
 * Results are plain errno numbers. EINVAL stands for a null argument and for a node that isn't initialised;
 * the single calls repeat it only where they add to that. Predicates give 1 or 0, and 0 for such nodes.
 * Errors are reported to "qel.gen.buffer.errors"; attaching and, at level 6, starts are traced to
 * "qel.mgd.buffer.events", whose size in bytes is the parameter "qel_mgd_timer_trace_info" (65,536). */
#ifndef QEL_MGD_TIMER_H
#define QEL_MGD_TIMER_H

#include <pthread.h>

#include <qel/dm.h>
#include <qel/ptimer.h>

QEL_BEGIN_DECLS

#define QEL_MGD_TIMER_INITIALIZED 'B' /**< 'init_mark' of an initialised node */
#define QEL_MGD_TIMER_LEAF 0x1u       /**< flag of a leaf */
#define QEL_MGD_TIMER_TREE 0x2u       /**< flag of a tree's root */

/** Values of a tree's 'attach_state'. */
#define QEL_MGD_TIMER_DETACHED 0u          /**< on no dispatcher */
#define QEL_MGD_TIMER_ATTACHED 1u          /**< with a handler */
#define QEL_MGD_TIMER_ATTACHED_EXPLICIT 2u /**< for explicit dispatch */

/** A group of leaves and other groups. */
typedef struct qel_mgd_timer_parent qel_mgd_timer_parent;
/** A tree: a parent that is its own tree. */
typedef struct qel_mgd_timer_tree qel_mgd_timer_tree;
/** A timer. */
typedef struct qel_mgd_timer_leaf qel_mgd_timer_leaf;

/** What all nodes begin with. To be read under the tree's mutex, and written by the library only. */
typedef struct qel_mgd_timer {
    struct qel_mgd_timer* next;   /**< next sibling, in ascending order of expiry; null for the last */
    struct qel_mgd_timer* prev;   /**< previous sibling; of the first child the last; null: not running */
    qel_mgd_timer_parent* parent; /**< null for a root */
    qel_ptimer exptime;           /**< expiry on the monotonic clock */
    uint16_t type;                /**< a leaf's type, the application's */
    uint8_t init_mark;            /**< QEL_MGD_TIMER_INITIALIZED or 0 */
    uint8_t flags;                /**< QEL_MGD_TIMER_LEAF, QEL_MGD_TIMER_TREE */
    uint32_t reserved;            /**< private: where this node is in 'place' */
} qel_mgd_timer;

/** A group of leaves and other groups. */
struct qel_mgd_timer_parent {
    qel_mgd_timer node;         /**< what all nodes begin with */
    qel_mgd_timer* first_child; /**< the running child that expires first */
    qel_mgd_timer_tree* tree;   /**< the tree that it was initialised for */
    void* place;                /**< private: where this node is in its parent's index */
    void* index;                /**< private: the index beside the children */
    uint32_t child_count;       /**< private: running children */
    uint32_t index_from;        /**< private: how many children there must be to try for an index again */
};

/** A timer. */
struct qel_mgd_timer_leaf {
    qel_mgd_timer node;       /**< what all nodes begin with */
    qel_mgd_timer_tree* tree; /**< the tree that it was initialised for */
    void* context;            /**< the application's, handed to the tree's handler */
    void* place;              /**< private: where this node is in its parent's index */
};

/** Called for a leaf that ran out, which is stopped by then. 'context' is the leaf's. */
typedef void (*qel_mgd_timer_handler)(qel_mgd_timer_tree* tree, qel_mgd_timer_leaf* leaf, void* context);

/** A tree: a parent that is its own tree. */
struct qel_mgd_timer_tree {
    qel_mgd_timer_parent root;     /**< the tree as a node; its expiry is the earliest leaf's */
    pthread_mutex_t mutex;         /**< guards all nodes of the tree */
    void* context;                 /**< the tree's context, the application's */
    uint32_t attach_state;         /**< QEL_MGD_TIMER_DETACHED and so on */
    qel_dm_handle dispatcher;      /**< 0 while detached */
    qel_dm_timer dm_timer;         /**< its timer for the whole tree */
    qel_mgd_timer_handler handler; /**< null for explicit dispatch */
    uint32_t xd_event_id;          /**< ID of QEL_DM_XD_TIMER_TREE in explicit dispatch */
    uint8_t in_handler;            /**< set while expired leaves are handled */
    uint32_t attachment;           /**< private: the number that 'dm_timer' carries */
    qel_ptimer armed; /**< private: the expiry that 'dm_timer' was set for; zeros: it is stopped */
};

/* ---- Trees */

/** Makes 'tree' an empty, detached tree, whatever its memory held. Returns 0; EINVAL; an error of
 * pthread_mutex_init(). */
QEL_API int qel_mgd_timer_tree_init(qel_mgd_timer_tree* tree);

/** Stops all leaves and detaches; the tree is not initialised from now on. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_tree_uninit(qel_mgd_timer_tree* tree);

/** A new tree on the heap, or null when memory is short. */
QEL_API qel_mgd_timer_tree* qel_mgd_timer_tree_alloc(void);

/** Uninitialises and frees a tree of qel_mgd_timer_tree_alloc(), and clears the pointer. Returns 0; EINVAL.
 */
QEL_API int qel_mgd_timer_tree_free(qel_mgd_timer_tree** tree);

/** Stops all leaves. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_tree_stop(qel_mgd_timer_tree* tree);

/** Tells whether any leaf runs. */
QEL_API int qel_mgd_timer_tree_running(qel_mgd_timer_tree* tree);

/** Tells whether any leaf has expired and isn't stopped yet. */
QEL_API int qel_mgd_timer_tree_expired(qel_mgd_timer_tree* tree);

/** Gives the time until the earliest leaf expires, zero once it has. Returns 1; 0, with 'out' untouched, if
 * no leaf runs. */
QEL_API int qel_mgd_timer_tree_remaining(qel_mgd_timer_tree* tree, struct timespec* out);

/** Gives the earliest leaf. Returns 0; ENOENT if none runs; EINVAL. */
QEL_API int qel_mgd_timer_tree_first_running(qel_mgd_timer_tree* tree, qel_mgd_timer_leaf** out);

/** Gives the next sibling of 'node', a leaf in 'leaf' or a parent in 'parent'; the other one of the two
 * becomes null and may be a null pointer. Returns 0; ENOENT after the last sibling; EINVAL, also if the
 * output that is needed is null. */
QEL_API int qel_mgd_timer_tree_next_running(qel_mgd_timer* node, qel_mgd_timer_leaf** leaf,
                                            qel_mgd_timer_parent** parent);

/** The earliest leaf if it has expired, else null. */
QEL_API qel_mgd_timer_leaf* qel_mgd_timer_tree_first_expired(qel_mgd_timer_tree* tree);

/** Sets the tree's context; nothing happens for a tree that isn't initialised. */
QEL_API void qel_mgd_timer_tree_set_context(qel_mgd_timer_tree* tree, void* context);

/** The tree's context, or null. */
QEL_API void* qel_mgd_timer_tree_get_context(qel_mgd_timer_tree* tree);

/* ---- Attaching to a dispatcher */

/**
 * Calls 'handler' on the dispatcher's threads for each leaf that runs out. With neither dispatcher (0) nor
 * handler (null) it detaches.
 *
 * A leaf fires at its expiry or later, never before it; a dispatcher adds up to a millisecond.
 *
 * Returns 0; EBUSY for a tree that is attached, also if its dispatcher is gone; EINVAL, also for a bad
 * dispatcher handle; ENOMEM for want of memory.
 */
QEL_API int qel_mgd_timer_attach_qdm(qel_mgd_timer_tree* tree, qel_dm_handle dm,
                                     qel_mgd_timer_handler handler);

/**
 * The same for explicit dispatch: qel_dm_xdispatch() gives QEL_DM_XD_TIMER_TREE and 'event_id' once leaves
 * have expired. The application takes them with qel_mgd_timer_tree_first_expired() and stops them, which arms
 * the dispatcher for those that are left.
 */
QEL_API int qel_mgd_timer_xd_attach_qdm(qel_mgd_timer_tree* tree, qel_dm_handle dm, uint32_t event_id);

/** Detaches the tree; its leaves run on and can be asked. Returns 0, also for a detached tree; EINVAL. */
QEL_API int qel_mgd_timer_detach_qdm(qel_mgd_timer_tree* tree);

/** Event managers of other kinds are not supported: EINVAL. */
QEL_API int qel_mgd_timer_attach_other_dm(qel_mgd_timer_tree* tree, void* dm, qel_mgd_timer_handler handler);

/** Does nothing. */
QEL_API void qel_mgd_timer_detach_other_dm(qel_mgd_timer_tree* tree);

/** Sets the dispatcher timer by the tree's expiry, as every start and stop does where that is needed. The
 * caller holds the tree's mutex. */
QEL_API void qel_mgd_timer_adjust_dm(qel_mgd_timer_tree* tree);

/* ---- Parents. A null 'parent' is the tree's root. */

/** Makes 'node' a parent without children. Returns 0; EINVAL, also for a node that runs, and for a 'parent'
 * that is a leaf or of another tree. */
QEL_API int qel_mgd_timer_parent_init(qel_mgd_timer_tree* tree, qel_mgd_timer_parent* parent,
                                      qel_mgd_timer_parent* node);

/** The same on the heap; null when memory is short and for what qel_mgd_timer_parent_init() refuses. */
QEL_API qel_mgd_timer_parent* qel_mgd_timer_parent_alloc(qel_mgd_timer_tree* tree,
                                                         qel_mgd_timer_parent* parent);

/** Stops all leaves below; the parent is not initialised from now on, and leaves below it can't be started.
 * Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_parent_uninit(qel_mgd_timer_parent* node);

/** Uninitialises and frees a parent of qel_mgd_timer_parent_alloc(), and clears the pointer. Its children are
 * freed before. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_parent_free(qel_mgd_timer_parent** node);

/** Stops all leaves below. Returns 0; EINVAL, also for a leaf. */
QEL_API int qel_mgd_timer_parent_stop(qel_mgd_timer_parent* node);

/** Tells whether any leaf below runs. */
QEL_API int qel_mgd_timer_parent_running(qel_mgd_timer_parent* node);

/** Tells whether any leaf below has expired and isn't stopped yet. */
QEL_API int qel_mgd_timer_parent_expired(qel_mgd_timer_parent* node);

/** As qel_mgd_timer_tree_remaining(), for the leaves below. */
QEL_API int qel_mgd_timer_parent_remaining(qel_mgd_timer_parent* node, struct timespec* out);

/** The tree that the parent is in, or null. */
QEL_API qel_mgd_timer_tree* qel_mgd_timer_parent_get_tree(qel_mgd_timer_parent* node);

/* ---- Leaves. A null 'parent' is the tree's root. */

/** Makes 'leaf' a stopped timer. Returns 0; EINVAL as qel_mgd_timer_parent_init(). */
QEL_API int qel_mgd_timer_leaf_init(qel_mgd_timer_tree* tree, qel_mgd_timer_parent* parent,
                                    qel_mgd_timer_leaf* leaf, uint16_t type, void* context);

/** The same on the heap; null when memory is short and for what qel_mgd_timer_leaf_init() refuses. */
QEL_API qel_mgd_timer_leaf* qel_mgd_timer_leaf_alloc(qel_mgd_timer_tree* tree, qel_mgd_timer_parent* parent,
                                                     uint16_t type, void* context);

/** Stops the leaf, which stays initialised. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_leaf_uninit(qel_mgd_timer_leaf* leaf);

/** Stops and frees a leaf of qel_mgd_timer_leaf_alloc(), and clears the pointer. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_leaf_free(qel_mgd_timer_leaf** leaf);

/** Sets the leaf's type. */
QEL_API void qel_mgd_timer_leaf_set_type(qel_mgd_timer_leaf* leaf, uint16_t type);
/** The leaf's type, or 0. */
QEL_API uint16_t qel_mgd_timer_leaf_get_type(qel_mgd_timer_leaf* leaf);
/** Sets the leaf's context. */
QEL_API void qel_mgd_timer_leaf_set_context(qel_mgd_timer_leaf* leaf, void* context);
/** The leaf's context, or null. */
QEL_API void* qel_mgd_timer_leaf_get_context(qel_mgd_timer_leaf* leaf);

/** Starts or restarts the leaf to expire 'milliseconds' from now; 0 counts as 1. Returns 0; EINVAL, as the
 * other starts, also if a parent above it isn't initialised. */
QEL_API int qel_mgd_timer_leaf_start(qel_mgd_timer_leaf* leaf, uint64_t milliseconds);

/** The same with the delay shortened at random by up to 'percent' of it; see qel_time_calculate_jitter(),
 * type QEL_TIME_JITTER_SUBTRACT. Returns 0; EINVAL. */
QEL_API int qel_mgd_timer_leaf_start_jittered(qel_mgd_timer_leaf* leaf, uint32_t milliseconds,
                                              uint32_t percent);

/** Moves the leaf's expiry on by 'milliseconds', whatever the clock says: the next period of a timer that
 * doesn't drift. A leaf that is stopped, as in its handler, goes on from zero of the monotonic clock: it is
 * due at once, unless the system has been up for less than 'milliseconds'. Returns 0; EINVAL, also for 0
 * milliseconds. */
QEL_API int qel_mgd_timer_leaf_update(qel_mgd_timer_leaf* leaf, uint32_t milliseconds);

/** The same with a delay shortened at random. */
QEL_API int qel_mgd_timer_leaf_update_jittered(qel_mgd_timer_leaf* leaf, uint32_t milliseconds,
                                               uint32_t percent);

/** Starts or restarts the leaf to expire at a time of the real-time clock, converted to the monotonic clock
 * by what the two show now; one in the past is due at once. Returns 0; EINVAL, also for all zeros. */
QEL_API int qel_mgd_timer_leaf_set_exptime(qel_mgd_timer_leaf* leaf, const struct timespec* realtime);

/** Gives the leaf's expiry as a time of the real-time clock, all zeros for a stopped one. Returns 0; EINVAL.
 */
QEL_API int qel_mgd_timer_leaf_get_exptime(qel_mgd_timer_leaf* leaf, struct timespec* realtime);

/** Stops the leaf; nothing happens to one that is stopped. Returns 0; EINVAL, also for a parent. */
QEL_API int qel_mgd_timer_leaf_stop(qel_mgd_timer_leaf* leaf);

/** Tells whether the leaf runs, expired or not. */
QEL_API int qel_mgd_timer_leaf_running(qel_mgd_timer_leaf* leaf);
/** Tells whether the leaf runs and has not expired. */
QEL_API int qel_mgd_timer_leaf_running_and_sleeping(qel_mgd_timer_leaf* leaf);
/** Tells whether the leaf runs and has expired. */
QEL_API int qel_mgd_timer_leaf_expired(qel_mgd_timer_leaf* leaf);
/** The milliseconds until the leaf expires, rounded to the nearest; 0 if it has or doesn't run. */
QEL_API uint64_t qel_mgd_timer_leaf_remaining(qel_mgd_timer_leaf* leaf);

QEL_END_DECLS

#endif
