/** @file
 * Red-black trees: `qel_rbtree`, an ordered tree that also serves as an interval tree.
 *
 * The tree is intrusive: a node is the caller's memory, usually the first member of a larger record. Beside
 * the links of the textbook each node lies on a list in order, so that the next node costs one load, and
 * knows size and key summary of its subtree. Equal keys are allowed and stay in the order of insertion.
 *
 *     struct session { qel_rbtree_node node; char name[32]; };   // from malloc(3)
 *     qel_rbtree* tree = qel_rbtree_create("access", "session", "by-id", NULL);
 *     qel_rbtree_insert(17, tree, &session->node);
 *     struct session* found = (struct session*)qel_rbtree_search(tree, 17);
 *     for (qel_rbtree_node* n = qel_rbtree_first_node(tree); n != NULL; n = qel_rbtree_next_node(n)) ...
 *     qel_rbtree_delete(tree, &session->node);                    // on the free list now
 *     tree = qel_rbtree_destroy(tree);                            // frees all nodes, deleted ones too
 *
 * A tree of 16-bit ranges, such as ports or VLANs, is filled by qel_rbtree_int_insert() alone and asked by
 * qel_rbtree_int_search() which range overlaps a range.
 *
 * Keys are unsigned 64-bit values of which the low 32 bits count, until qel_rbtree_non_32bit() says
 * otherwise.
 *
 * Deleted nodes: a deletion doesn't free the node but puts it on the tree's free list. It stays there until
 * qel_rbtree_get_free_node() takes it for reuse, or qel_rbtree_trim_free_list() or qel_rbtree_destroy() gives
 * it back with free(3). A protected node (qel_rbtree_node_protect()) is left alone by all three, so whoever
 * protects a node may go on reading it after its deletion. A node from the free list enters a tree again only
 * by way of qel_rbtree_get_free_node(). Nodes that don't come from malloc(3) must stay protected.
 *
 * A tree holds at most 65,535 nodes; of deleted ones any number.
 *
 * Threads: there are no locks in here, and trees share nothing that changes. The caller makes sure that one
 * thread at a time uses a tree, searches included, since they count; different trees are independent.
 *
 * Unless a call says otherwise, a null tree or node makes it do nothing and give 0. */
#ifndef QEL_RBTREE_H
#define QEL_RBTREE_H

#include <qel/types.h>
#include <stdbool.h>

QEL_BEGIN_DECLS

/** Bytes that a ::qel_rbtree_print_key function may fill, the closing 0 included. */
#define QEL_RBTREE_KEY_TEXT_SIZE 64

/** A node. The caller allocates it with malloc(3); all fields are the tree's to write. */
typedef struct qel_rbtree_node {
    struct qel_rbtree_node* parent; /**< the node above, or the sentinel */
    struct qel_rbtree_node* left;   /**< the subtree of lower keys, or the sentinel */
    struct qel_rbtree_node* right;  /**< the subtree of keys not lower, or the sentinel */
    struct qel_rbtree_node*
        free_next;                /**< next on the free list; the sentinel at its end and in an active node */
    struct qel_rbtree_node* next; /**< next in order; null for the last and for a deleted node */
    struct qel_rbtree_node* prev; /**< previous in order; null for the first and for a deleted node */
    uint64_t key;                 /**< the key, or bits 31..16 low end and 15..0 high end of an interval;
                                       stays when the node is deleted */
    uint64_t summary;             /**< the largest key of the subtree, or bits 31..16 the smallest low end
                                       and 15..0 the largest high end; 0 when deleted */
    uint32_t size;                /**< nodes of the subtree, this one included; 0 when deleted */
    uint32_t color;               /**< 0 red, 1 black */
    uint16_t refs;                /**< how often the node is protected */
} qel_rbtree_node;

/** Writes the larger of the keys 'a' and 'b' to 'out'. */
typedef void (*qel_rbtree_key_max)(uint64_t* out, uint64_t a, uint64_t b);
/** Gives -1, 0 or 1 for a key 'a' below, equal to or above 'b'. */
typedef int (*qel_rbtree_key_compare)(uint64_t a, uint64_t b);
/** Writes 'key' as text to 'buffer' of #QEL_RBTREE_KEY_TEXT_SIZE bytes and returns the text. */
typedef char* (*qel_rbtree_print_key)(char* buffer, uint64_t key);
/** Visits a node of a walk with the context that the walk was given. */
typedef bool (*qel_rbtree_visit)(qel_rbtree_node* node, void* context);

/** A tree, made by qel_rbtree_create(). Fields are for reading, but for 'debug'. Counters wrap around. */
typedef struct qel_rbtree {
    qel_rbtree_node* root;              /**< the sentinel when empty */
    qel_rbtree_node* free_list;         /**< the deleted nodes, the latest first; the sentinel when empty */
    const char* last_error;             /**< static text of the last failed check, or null */
    uint16_t active;                    /**< nodes in the tree */
    uint16_t free;                      /**< nodes on the free list, 65,535 also for more */
    uint16_t inserted;                  /**< insertions */
    uint16_t deleted;                   /**< deletions */
    uint16_t rotations;                 /**< rotations */
    uint16_t splices;                   /**< deletions of a node with two children */
    uint16_t released;                  /**< nodes given back to the allocator by trimming */
    uint16_t max_depth;                 /**< the most nodes visited by a search of either kind */
    uint32_t key_searches;              /**< calls of qel_rbtree_search() */
    uint32_t key_nodes;                 /**< nodes visited by them */
    uint32_t key_max_nodes;             /**< the most nodes visited by one of them */
    uint32_t int_searches;              /**< calls of qel_rbtree_int_search() */
    uint32_t int_nodes;                 /**< nodes visited by them */
    uint32_t int_max;                   /**< the most nodes visited by one of them */
    qel_rbtree_print_key print_key;     /**< formats a key */
    uint8_t interval;                   /**< 1 after the insertion of an interval, 0 after one of a key */
    uint8_t key32;                      /**< 1 while the low 32 bits of a key count */
    qel_rbtree_key_max key_max;         /**< for keys of another kind */
    qel_rbtree_key_compare key_compare; /**< for keys of another kind */
    const char* owner;                  /**< as given at creation, held by pointer */
    const char* name;                   /**< as given at creation, held by pointer */
    const char* sub_name;               /**< as given at creation, held by pointer */
    char* full_name;                    /**< "%s %s RBTree" of name and sub_name; the tree's own */
    uint8_t* debug; /**< a byte that, when not 0, has the whole tree checked before and after each change; the
                         tree's own unless the application points it elsewhere */
} qel_rbtree;

/** Makes an empty tree. The names, all needed, are held by pointer and must outlive it. A null 'print_key'
 * stands for qel_rbtree_key_print_ulong(). Returns the tree, which the caller ends with qel_rbtree_destroy();
 * null for a null name or when memory is short. */
QEL_API qel_rbtree* qel_rbtree_create(const char* owner, const char* name, const char* sub_name,
                                      qel_rbtree_print_key print_key);

/** Switches 'tree', which should be empty, to keys of all 64 bits or of the caller's own kind. For plain
 * 64-bit keys take qel_rbtree_key_max_ulonglong() and qel_rbtree_key_compare_ulonglong(). The functions run
 * inside other calls on the tree: they must return, and not use it. Does nothing for a null argument. */
QEL_API void qel_rbtree_non_32bit(qel_rbtree* tree, qel_rbtree_key_max key_max,
                                  qel_rbtree_key_compare key_compare);

/** Deletes all nodes, frees those that aren't protected, and frees the tree. Protected ones are left to
 * whoever protects them. Not to be called from a walk of this tree. Returns null. */
QEL_API qel_rbtree* qel_rbtree_destroy(qel_rbtree* tree);

/** Inserts 'node' with 'key' behind all equal keys. The node is the tree's from now on, unprotected, and must
 * be in no tree and on no free list; but to insert it a second time with its key changes nothing. Returns the
 * node; null for a null argument and at 65,535 nodes. */
QEL_API qel_rbtree_node* qel_rbtree_insert(uint64_t key, qel_rbtree* tree, qel_rbtree_node* node);

/** Inserts 'node' as the interval from 'low' to 'high', both included; a 'high' of 0 means 'low'. Intervals
 * are ordered by their low ends. A tree should have only intervals or only keys. Otherwise like
 * qel_rbtree_insert(). */
QEL_API qel_rbtree_node* qel_rbtree_int_insert(uint16_t low, uint16_t high, qel_rbtree* tree,
                                               qel_rbtree_node* node);

/** Takes 'node' out of 'tree' and puts it on the free list. Its key and its protection stay.
 * Returns the node; null for a null argument and a node that was deleted before or is another tree's, all of
 * which change nothing. */
QEL_API qel_rbtree_node* qel_rbtree_delete(qel_rbtree* tree, qel_rbtree_node* node);

/** The repair of a deletion: restores the balance where one black node too few lies on the ways through
 * 'node', or, for a red one, makes it black. qel_rbtree_delete() does this itself; on a sound tree nobody
 * else needs to. */
QEL_API void qel_rbtree_deleteFixup(qel_rbtree* tree, qel_rbtree_node* node);

/** Finds a node with 'key', or null. In an interval tree the key is low end << 16 | high end, and where
 * several intervals share a low end the search can miss one: take qel_rbtree_int_search(). Counts itself in
 * 'key_searches', 'key_nodes', 'key_max_nodes' and 'max_depth'. */
QEL_API qel_rbtree_node* qel_rbtree_search(qel_rbtree* tree, uint64_t key);

/** Finds a node whose interval overlaps 'interval', low end << 16 | high end, both included; or null. Counts
 * itself in 'int_searches', 'int_nodes', 'int_max' and 'max_depth'. */
QEL_API qel_rbtree_node* qel_rbtree_int_search(qel_rbtree* tree, uint64_t interval);

/** Finds the first node with 'key' or, without one, the first above it. Null when all are below. */
QEL_API qel_rbtree_node* qel_rbtree_lexi_node(qel_rbtree* tree, uint64_t key);

/** Finds the last node with 'key' or, without one, the last below it. Null when all are above. */
QEL_API qel_rbtree_node* qel_rbtree_best_node(qel_rbtree* tree, uint64_t key);

/** Returns the lowest node, or null when the tree is empty. */
QEL_API qel_rbtree_node* qel_rbtree_first_node(qel_rbtree* tree);

/** Returns the node behind 'node' in order; null behind the last and for a deleted node. */
QEL_API qel_rbtree_node* qel_rbtree_next_node(qel_rbtree_node* node);

/** Calls 'function' with each node in order; what it returns doesn't matter.
 *
 * The function may insert, and delete the node that it visits, but not the one behind. With 'protect' these
 * two are protected during the call, and it may delete any node and trim the free list, too: deleted nodes
 * aren't visited. It may end its thread, but not destroy the tree. Protected walks of one tree end in the
 * reverse of the order in which they began; others write nothing to the tree.
 *
 * Returns 1; 0 for a null tree or function. */
QEL_API int qel_rbtree_for_each_node(qel_rbtree_visit function, void* context, qel_rbtree* tree,
                                     bool protect);

/** Like qel_rbtree_for_each_node(), but a function that returns false ends the walk, and the result is then
 * 0. 'reserved' is ignored. */
QEL_API int qel_rbtree_for_each_node_til_false(qel_rbtree_visit function, void* context, qel_rbtree* tree,
                                               uint32_t reserved, bool protect);

/** Protects 'node' once more, up to 65,535 times, or with 'on' false once less. Returns whether the node is
 * protected now. */
QEL_API bool qel_rbtree_node_protect(qel_rbtree_node* node, bool on);

/** Returns whether 'node' is protected. */
QEL_API bool qel_rbtree_node_protected(const qel_rbtree_node* node);

/** Takes the first unprotected node off the free list. It is the caller's then. Returns it, or null. */
QEL_API qel_rbtree_node* qel_rbtree_get_free_node(qel_rbtree* tree);

/** Frees all unprotected nodes of the free list and counts them in 'released'. */
QEL_API void qel_rbtree_trim_free_list(qel_rbtree* tree);

/** Returns the number of nodes on the free list. */
QEL_API uint32_t qel_rbtree_free_node_count(const qel_rbtree* tree);

/** Returns the number of unprotected nodes on the free list: what a trim would free now. */
QEL_API uint32_t qel_rbtree_released_node_count(const qel_rbtree* tree);

/** Returns whether 'node' is on the free list of 'tree', of which it searches 'free' nodes. */
QEL_API bool qel_rbtree_node_deleted(const qel_rbtree* tree, const qel_rbtree_node* node);

/** Returns the number of nodes in the tree; 0xffffffff for a null tree. */
QEL_API uint32_t qel_rbtree_get_size(const qel_rbtree* tree);

/** Checks sentinel, root, every node and the free list. The check ends also where links form circles, but
 * can't see through a link to memory that is gone.
 *
 * Returns 1 if all is right; else 0, with the first fault's text in 'last_error'. With a 'level' other than 0
 * a fault is also printed, with the text 'caller', which may be null, in front. */
QEL_API int qel_rbtree_valid(qel_rbtree* tree, uint32_t level, const char* caller);

/** Prints the counters below 'title', which may be null. */
QEL_API void qel_rbtree_stats(const qel_rbtree* tree, const char* title);

/** Prints 'node' and all below it, each node in front of its children and indented by its depth, of which
 * 'depth' is the first. Nodes that can't be where they are found are named. */
QEL_API void qel_rbtree_print(const qel_rbtree_node* node, uint32_t depth, const qel_rbtree* tree);

/** Turns the check around each change on or off. It costs a walk of the whole tree, before and after; its
 * result is in 'last_error'. */
QEL_API void qel_rbtree_set_debug_flag(qel_rbtree* tree, bool on);

/** Formats the low 32 bits of 'key' as "#%u, %08x". Returns 'buffer'. */
QEL_API char* qel_rbtree_key_print_ulong(char* buffer, uint64_t key);

/** Formats the halves of 'key' as "#%llu#%llu, %08llx%08llx". Returns 'buffer'. */
QEL_API char* qel_rbtree_key_print_ulonglong(char* buffer, uint64_t key);

/** A ::qel_rbtree_key_max of 64-bit keys. */
QEL_API void qel_rbtree_key_max_ulonglong(uint64_t* out, uint64_t a, uint64_t b);

/** A ::qel_rbtree_key_compare of 64-bit keys. */
QEL_API int qel_rbtree_key_compare_ulonglong(uint64_t a, uint64_t b);

QEL_END_DECLS

#endif
