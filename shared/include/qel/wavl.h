/** @file
 * Wrapped AVL trees: one object in several AVL trees at once, each with an order of its own.
 *
 * The trees of a handle are called threads here, which has nothing to do with threads of execution. An object
 * begins with an array of blocks, one a thread, and is found by any of its keys. Objects stay the caller's;
 * a handle allocates its trees when it is initialised, and nothing after that.
 *
 *      enum { BY_NAME, BY_INDEX, THREADS };
 *      struct port { qel_wavl_block blocks[THREADS]; char name[16]; uint32_t index; };
 *      static int by_name(const qel_avl_node* a, const qel_avl_node* b) {
 *          const struct port* left = qel_avl_to_wavl((qel_avl_node*)a, BY_NAME);
 *          const struct port* right = qel_avl_to_wavl((qel_avl_node*)b, BY_NAME);
 *          int order = strcmp(left->name, right->name);
 *          return order < 0 ? QEL_AVL_BEFORE : order > 0 ? QEL_AVL_AFTER : QEL_AVL_EQUAL;
 *      }
 *
 *      static qel_wavl ports;                                // all zeros
 *      qel_wavl_tree_init(&ports, THREADS, NULL, by_name, by_index);
 *      qel_wavl_init(port, THREADS);
 *      if (qel_wavl_insert(&ports, port) == NULL) ...        // one of the keys is taken
 *      struct port goal = { .index = wanted };
 *      struct port* found = qel_wavl_search(&ports, &goal, BY_INDEX);
 *
 * An object is in one handle at a time, and keeps the keys of the threads that it is in. A null argument, a
 * handle that isn't initialised and a thread that isn't below 'num_threads' are reported to the error buffer;
 * the call then returns 0xa0000016 or null.
 *
 * Threads of execution: there are no locks in here. The caller makes sure that one at a time changes a handle
 * while no other uses it; lookups and walks may run side by side. Compare functions run inside the calls and
 * must return; the function of a walk may end its thread.
 */
#ifndef QEL_WAVL_H
#define QEL_WAVL_H

#include <stdarg.h>

#include <qel/avl.h>

QEL_BEGIN_DECLS

/** What an object has for each thread: 'num_threads' of these stand at its beginning. For reading. */
typedef struct qel_wavl_block {
    qel_avl_node node;   /**< the object's node in the thread's tree */
    uint8_t threaded;    /**< 1 while the object is in the thread */
    uint8_t reserved[7]; /**< 0 */
} qel_wavl_block;

/** A function from elements to their blocks. It is kept and has no effect: blocks begin an element. */
typedef void* (*qel_wavl_find_block)(void* element);

/** Allocates 'size' bytes, or gives null. */
typedef void* (*qel_wavl_alloc)(size_t size);

/** Frees what the #qel_wavl_alloc beside it gave. */
typedef void (*qel_wavl_free)(void* memory);

/** Sees one element of a walk, with the walk's context. A result that isn't 0 ends the walk. */
typedef int (*qel_wavl_walk)(void* element, void* context);

/** A handle, in the caller's memory, which is zeroed before it is first initialised. Only 'alloc_fn' and
 * 'free_fn' are the caller's to write, and only while the handle isn't initialised. */
typedef struct qel_wavl {
    uint32_t num_threads;           /**< trees */
    qel_avl** trees;                /**< one for each thread, each allocated by itself */
    uint32_t* thread_map;           /**< null */
    qel_wavl_find_block find_block; /**< as given at initialisation, else the identity */
    qel_wavl_alloc alloc_fn;        /**< the allocator, if 'free_fn' is set as well; else named memory with
                                         #QEL_MEM_UTILS serves */
    qel_wavl_free free_fn;          /**< see 'alloc_fn' */
    uint8_t initialized;            /**< 1 between initialisation and finish */
} qel_wavl;

/** Initialises 'handle' with 'num_threads' empty trees. 'find_block' may be null. For each thread one compare
 * function of type #qel_avl_compare follows, which gets nodes: those of thread i lie 32 * i bytes inside
 * their elements.
 * Returns 0; 0xa0000016 for a null handle, a 'num_threads' of 0, a null compare function, and a handle that
 * is initialised with another number; 0xa0000001 for one that is initialised with the same number;
 * 0xa000000c. A handle that is refused stays as it was. */
QEL_API cerrno qel_wavl_tree_init(qel_wavl* handle, uint32_t num_threads, qel_wavl_find_block find_block,
                                  ...);

/** As qel_wavl_tree_init(), with the compare functions in a list. */
QEL_API cerrno qel_wavl_tree_vinit(qel_wavl* handle, uint32_t num_threads, qel_wavl_find_block find_block,
                                   va_list compares);

/** Frees the trees and arrays; elements in them are not touched. The handle may be initialised again.
 * Returns 0; 0xa0000016 for a handle that is null or not initialised. */
QEL_API cerrno qel_wavl_tree_finish(qel_wavl* handle);

/** Zeroes the first 'num_threads' blocks of 'element', which must not be in a thread. An element is
 * initialised once before its first insertion. Returns 0; 0xa0000016 for a null element or a number of 0. */
QEL_API cerrno qel_wavl_init(void* element, uint32_t num_threads);

/** Inserts 'element' into every thread that it isn't in already, from thread 0 up. If a key is taken in one
 * thread, the element leaves all threads below that one, also those that it was in before, and stays in those
 * above it that it was in.
 * Returns the element; null when a key is taken, and for a bad argument. */
QEL_API void* qel_wavl_insert(qel_wavl* handle, void* element);

/** Deletes 'element' from every thread that it is in. An element whose key no longer leads to it, as one of
 * another handle, stays where it is.
 * Returns the element if it left any thread, else null. */
QEL_API void* qel_wavl_delete(qel_wavl* handle, void* element);

/** Inserts 'element' into 'thread' only.
 * Returns the element; null when it is in there already, which is reported, when its key is taken, and for a
 * bad argument. */
QEL_API void* qel_wavl_insert_thread(qel_wavl* handle, uint32_t thread, void* element);

/** Deletes 'element' from 'thread' only.
 * Returns the element; null when it isn't in there, which is reported, and for a bad argument. */
QEL_API void* qel_wavl_delete_thread(qel_wavl* handle, uint32_t thread, void* element);

/** Returns the element that has the key of 'goal' in 'thread'; null when there is none and for a bad
 * argument. 'goal' is an element as the thread's compare function needs it. */
QEL_API void* qel_wavl_search(qel_wavl* handle, void* goal, uint32_t thread);

/** Returns the lowest element of 'thread'; null for a bad argument, and for an empty thread, which is
 * reported as by qel_avl_get_first(). */
QEL_API void* qel_wavl_get_first(qel_wavl* handle, uint32_t thread);

/** Returns the lowest element of 'thread' above 'current' by key; null when there is none, for a bad
 * argument, and for an empty thread, which is reported. 'current' need not be in the thread. */
QEL_API void* qel_wavl_get_next(qel_wavl* handle, void* current, uint32_t thread);

/** Calls function(element, context) for each element of 'thread' in ascending order until one call's result
 * isn't 0. The function leaves the thread as it is. 'context' may be null.
 * Returns that result; 0 after the last element and for an empty thread; (int)0xa0000016 for a bad argument.
 */
QEL_API int qel_wavl_tree_walk(qel_wavl* handle, uint32_t thread, qel_wavl_walk function, void* context);

/** Returns the node of 'element' for 'thread', 32 * 'thread' bytes further; null stays null. */
QEL_API qel_avl_node* qel_wavl_to_avl(void* element, uint32_t thread);

/** Returns the element whose node for 'thread' is 'node', 32 * 'thread' bytes before; null stays null. */
QEL_API void* qel_avl_to_wavl(qel_avl_node* node, uint32_t thread);

/** The same as qel_avl_to_wavl(). */
QEL_API void* qel_wavl_normalize(qel_avl_node* node, uint32_t thread);

QEL_END_DECLS

#endif
