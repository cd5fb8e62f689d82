/** @file
 * AVL trees: ordered sets of nodes that lie inside the caller's structures.
 *
 * A tree allocates nothing and owns nothing. A structure embeds a node; the tree's compare function orders
 * the structures; no two that it calls equal are in one tree. Insertion, deletion and lookups take time
 * logarithmic in the size, and a tree of a million nodes is at most 28 levels high.
 *
 *      struct route { qel_avl_node node; uint32_t prefix; };
 *      static int by_prefix(const qel_avl_node* a, const qel_avl_node* b) {
 *          uint32_t left = ((const struct route*)a)->prefix, right = ((const struct route*)b)->prefix;
 *          return left == right ? QEL_AVL_EQUAL : left < right;  // 1 is QEL_AVL_BEFORE, 0 QEL_AVL_AFTER
 *      }
 *
 *      qel_avl routes;
 *      qel_avl_tree_init(&routes, by_prefix);
 *      if (qel_avl_insert(&routes, &route->node) != 0) ...   // the prefix is taken
 *      struct route goal = { .prefix = wanted };
 *      qel_avl_node* found;
 *      if (qel_avl_search(&routes, &goal, &found) == 0) ...
 *      for (found = qel_avl_get_first(&routes); found != NULL; found = qel_avl_get_next(&routes, found)) ...
 *
 * A compare function in that form has no jump that the processor could guess wrong, which makes lookups
 * faster by a fifth.
 *
 * Deleting while going through a tree is fine with get_next, which needs the key and not the node; a function
 * that a walk calls leaves the tree as it is.
 *
 * A null argument is reported to the error buffer; the call then returns 0xa0000016 or null. An argument
 * where it may be null says so.
 *
 * Threads: there are no locks in here. The caller makes sure that one thread at a time changes a tree while
 * no other uses it; lookups and walks may run side by side. Compare functions run inside the calls and must
 * return; functions of walks and of qel_avl_tree_destroy() may end their thread.
 */
#ifndef QEL_AVL_H
#define QEL_AVL_H

#include <stdbool.h>

#include <qel/types.h>

QEL_BEGIN_DECLS

/** Result of a compare function: the first argument sorts before the second. */
#define QEL_AVL_BEFORE 1
/** Result of a compare function: the first argument sorts after the second. */
#define QEL_AVL_AFTER 0
/** Result of a compare function: both are equal. Any value but the other two says the same. */
#define QEL_AVL_EQUAL 2

/** Bit of a node's 'flags': the node is in a tree. */
#define QEL_AVL_THREADED 1

/** A node, inside a structure of the caller's. Insertion clears it, so it needs no initialiser; to ask
 * qel_avl_is_threaded() before that it does. All fields are for reading. */
typedef struct qel_avl_node {
    struct qel_avl_node* left;  /**< the subtree of what sorts before */
    struct qel_avl_node* right; /**< the subtree of what sorts after */
    int16_t balance;            /**< -1: the left subtree is higher; 0: even; 1: the right one is */
    uint16_t flags;             /**< #QEL_AVL_THREADED or 0 */
} qel_avl_node;

/** Tells how 'a' and 'b' sort: #QEL_AVL_BEFORE, #QEL_AVL_AFTER, or #QEL_AVL_EQUAL. 'a' is a node of the tree
 * and 'b' the other node, or the goal of a lookup. It must agree with itself for all nodes of a tree. */
typedef int (*qel_avl_compare)(const qel_avl_node* a, const qel_avl_node* b);

/** As #qel_avl_compare, for a goal of any kind and perhaps for a part of the key. Nodes that it calls equal
 * must lie side by side in the tree's order. */
typedef int (*qel_avl_goal_compare)(const qel_avl_node* node, const void* goal);

/** Sees one node of a walk, with the walk's context. A result that isn't 0 ends the walk. */
typedef int (*qel_avl_walk)(qel_avl_node* node, void* context);

/** Takes over a node from a tree that ends, with the context given there. It may free the node. */
typedef void (*qel_avl_destroy)(qel_avl_node* node, void* context);

/** A tree, in the caller's memory. All fields are for reading. */
typedef struct qel_avl {
    qel_avl_node* root;      /**< null for an empty tree */
    qel_avl_compare compare; /**< as given at initialisation */
    uint8_t height_changed;  /**< 1 if the last insertion or deletion changed the tree's height, else 0 */
    uint32_t size;           /**< nodes in the tree */
} qel_avl;

/** Makes 'tree' an empty one that 'compare' orders; nodes that it may have had are not touched. Makes the
 * buffers "qel.gen.buffer.errors" and "qel.gen.buffer.events" if they aren't there yet.
 * Returns 0; 0xa0000016 for a null argument. */
QEL_API cerrno qel_avl_tree_init(qel_avl* tree, qel_avl_compare compare);

/** Zeroes 'node', which must not be in a tree. Returns 0; 0xa0000016 for a null node. */
QEL_API cerrno qel_avl_init(qel_avl_node* node);

/** Empties 'tree': calls function(node, context) for each node, children before their parent, and then nulls
 * the link that led to the node. The tree may be filled again. 'flags' of the nodes stay as they are.
 * Returns 0; 0xa0000016 for a null 'tree' or 'function'. 'context' may be null. */
QEL_API cerrno qel_avl_tree_destroy(qel_avl* tree, qel_avl_destroy function, void* context);

/** Calls function(node, context) for each node in ascending order until one call's result isn't 0. 'context'
 * may be null.
 * Returns that result; 0 after the last node and for an empty tree; (int)0xa0000016 for a null 'tree' or
 * 'function'. */
QEL_API int qel_avl_tree_walk(qel_avl* tree, qel_avl_walk function, void* context);

/** As qel_avl_tree_walk(), for 'node' of 'tree' and all below it. A null node is refused, too. */
QEL_API int qel_avl_subtree_walk(qel_avl* tree, qel_avl_node* node, qel_avl_walk function, void* context);

/** Puts 'node', which isn't in any tree, into 'tree'. The caller keeps it in place, and its key as it is,
 * until it is out again.
 * Returns 0; 0xa0000011 when an equal node is there, and then neither changes; 0xa0000016 for a null argument
 * or a tree without compare function. */
QEL_API cerrno qel_avl_insert(qel_avl* tree, qel_avl_node* node);

/** Takes the node that is equal to 'target' out of 'tree', zeroes it and stores it in 'deleted', which may be
 * null. 'target' may be that node itself.
 * Returns 0; 0x40000011 when there is none, and stores null; 0xa0000016 for a null 'tree' or 'target'. */
QEL_API cerrno qel_avl_delete(qel_avl* tree, const qel_avl_node* target, qel_avl_node** deleted);

/** Stores the node that is equal to 'goal' in 'found'. The tree's compare function gets 'goal' as its second
 * argument, so that is a node, or whatever else the function understands.
 * Returns 0; 0x40000011 when there is none, and stores null; 0xa0000016 for a null argument. */
QEL_API cerrno qel_avl_search(qel_avl* tree, const void* goal, qel_avl_node** found);

/** As qel_avl_search() with 'compare' in place of the tree's compare function. When it calls several nodes
 * equal, the one nearest the root is found. */
QEL_API cerrno qel_avl_search_custom(qel_avl* tree, const void* goal, qel_avl_node** found,
                                     qel_avl_goal_compare compare);

/** Returns the lowest node; null for a null tree, and for an empty one, which is reported as well. */
QEL_API qel_avl_node* qel_avl_get_first(qel_avl* tree);

/** Returns the lowest node above 'current' by key; null when there is none, for a null argument, and for an
 * empty tree, which is reported as well. 'current' need not be in the tree. */
QEL_API qel_avl_node* qel_avl_get_next(qel_avl* tree, const qel_avl_node* current);

/** Returns the highest node below 'element' by key; otherwise as qel_avl_get_next(). */
QEL_API qel_avl_node* qel_avl_get_prev(qel_avl* tree, const qel_avl_node* element);

/** As qel_avl_get_next(), but compares nothing for a node of this tree that has a right child. 'current' must
 * be initialised, and be in this tree or in none. */
QEL_API qel_avl_node* qel_avl_get_next_from_node(qel_avl* tree, const qel_avl_node* current);

/** As qel_avl_get_prev(), but compares nothing for a node of this tree that has a left child. 'element' must
 * be initialised, and be in this tree or in none. */
QEL_API qel_avl_node* qel_avl_get_prev_from_node(qel_avl* tree, const qel_avl_node* element);

/** Stores the number of nodes in 'size'. Returns 0; 0xa0000016 for a null argument. */
QEL_API cerrno qel_avl_tree_get_size(const qel_avl* tree, uint32_t* size);

/** Returns the root; null for an empty tree and, without a report, for a null one. */
QEL_API qel_avl_node* qel_avl_tree_get_root(const qel_avl* tree);

/** Tells whether 'node', which must be initialised, is in a tree: bit 0 of its 'flags'. False for null, which
 * isn't reported. */
QEL_API bool qel_avl_is_threaded(const qel_avl_node* node);

QEL_END_DECLS

#endif
