/** @file
 * Radix tree: entries under keys with a prefix length, as a route table has them.
 *
 * A key has up to 128 bits, the most significant bit of its first byte first. An entry is a key, the number
 * of leading bits that count, and a pointer of the caller. The tree finds the exact entry or the longest one
 * that covers a key, and gives entries in order: by key, the shorter of two prefixes first.
 *
 *     qel_rdx_tree* routes;
 *     qel_rdx_tree_create(&routes, NULL);                       // keys of 32 bits
 *     uint8_t net[4] = {10, 1, 0, 0}, host[4] = {10, 1, 2, 3};
 *     qel_rdx_insert(routes, net, 16, route);
 *     ...
 *     const uint8_t* key;
 *     uint32_t length;
 *     void* found;
 *     if (qel_rdx_search(routes, host, 32, &key, &length, &found) == 0) forward(found);
 *
 * A 'key' argument refers to key_bytes bytes, which the tree copies where it keeps them. Bits behind the
 * prefix length are kept and never looked at. A key that a call gives out is the tree's own copy: it is valid
 * until that entry is deleted or updated. What user data refers to stays the caller's.
 *
 * A walk lets its function delete, insert and update entries, the visited one too. Calls give 0xa0000016 for
 * a null argument and for a prefix length above the tree's key length, unless they say otherwise.
 *
 * Threads: there are no locks in here. Searches and neighbours may run side by side; each other call, the
 * walks too, must have the tree alone. A walk's function may call everything but qel_rdx_tree_destroy().
 */
#ifndef QEL_RDX_H
#define QEL_RDX_H

#include <qel/types.h>

QEL_BEGIN_DECLS

struct qel_rdx_tree;
struct qel_rdx_node;
struct qel_rdx_aux;

/** Flag of a node: it has an entry of its own. */
#define QEL_RDX_NODE_ENTRY 0x1u
/** Flag of a node: it goes when the last walk leaves it. */
#define QEL_RDX_NODE_DELETE_PENDING 0x2u
/** Flag of a node: it is the tree's root. */
#define QEL_RDX_NODE_ROOT 0x100u

/** Characters of a pool's name. */
#define QEL_RDX_CHUNK_NAME_SIZE 32

/** What an entry is found by. All fields are for reading. */
typedef struct qel_rdx_info {
    struct qel_rdx_info* next; /**< chain of entries on a node */
    struct qel_rdx_node* node; /**< the entry's node; null once deleted */
    uint32_t refcount;         /**< nodes and running walks that refer to this record */
    uint8_t* key;              /**< the tree's copy, key_bytes long */
    uint32_t prefix_len;       /**< bits of the key that count */
} qel_rdx_info;

/** Is called with an entry's record when nothing refers to it any more, before the record's memory goes; its
 * 'node' is null then. 'aux' is the tree's allocation record. The function must not change the tree. */
typedef void (*qel_rdx_aux_destructor)(qel_rdx_info* info, struct qel_rdx_aux* aux);

/** Attributes of a tree, for qel_rdx_tree_create(). */
typedef struct qel_rdx_attr {
    uint32_t keylen;                          /**< key length in bits: a multiple of 8, 8 to 128 */
    qel_rdx_aux_destructor aux_destructor;    /**< called for each record that goes */
    uint32_t chunk_size;                      /**< nodes in each chunk of the node pool, at least 64 */
    char chunk_name[QEL_RDX_CHUNK_NAME_SIZE]; /**< name of the node pool; no NUL when all are used */
    uint8_t key_bytes;                        /**< keylen / 8 */
} qel_rdx_attr;

/** A place in the tree. All fields are for reading. */
typedef struct qel_rdx_node {
    struct qel_rdx_node* left;   /**< keys with a 0 behind this node's bits, or null */
    struct qel_rdx_node* right;  /**< keys with a 1 behind this node's bits, or null */
    struct qel_rdx_node* parent; /**< null for the root */
    qel_rdx_info* info;      /**< the own entry's record, or a descendant's; null in an empty tree's root */
    struct qel_rdx_aux* aux; /**< the tree's allocation record */
    uint32_t flags;          /**< QEL_RDX_NODE_* */
    uint32_t bit;            /**< key bits that the node stands for */
    uint32_t walkers;        /**< walks that are at this node */
    uint32_t first_key_bits; /**< the first 32 bits of a key at or below this node, bit 0 on top */
    void* user_data;         /**< the caller's value; null without an own entry */
} qel_rdx_node;

/** A tree. All fields are for reading. */
typedef struct qel_rdx_tree {
    qel_rdx_node* root;                       /**< never null */
    uint32_t keylen;                          /**< key length in bits */
    qel_rdx_aux_destructor aux_destructor;    /**< called for each record that goes */
    uint32_t chunk_size;                      /**< nodes in each chunk of the node pool */
    char chunk_name[QEL_RDX_CHUNK_NAME_SIZE]; /**< name of the node pool */
    uint8_t key_bytes;                        /**< key length in bytes */
    struct qel_rdx_aux* aux;                  /**< the allocation record */
} qel_rdx_tree;

/** Visits one entry. 'key' stays valid during the call, even if the entry goes; 'context' is the walk's.
 * Returns 0 to go on; any other value ends the walk. */
typedef int (*qel_rdx_visit)(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data,
                             void* context);
/** Decides on the way down whether a walk goes below a node. 'prefix_len' is what the node stands for, 'key'
 * a key with these leading bits, 'user_data' null for a node without an own entry, 'flag_word' and 'context'
 * the walk's. Returns 0 to pass over everything below the node. */
typedef int (*qel_rdx_condition)(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data,
                                 uint32_t flag_word, void* context);

/** Sets the defaults: keys of 32 bits, 64 nodes a chunk, pool "QEL_RTREE", a destructor that does nothing.
 * Returns 0; 0xa0000016 for null. */
QEL_API cerrno qel_rdx_tree_attr_init(qel_rdx_attr* attr);

/** Sets all attributes at once, under the rules of the single setters; 'keylen' 0 stands for 32 and a null
 * 'aux_destructor' for the default. Returns 0; 0xa0000016 if any is refused, with 'attr' as it was. */
QEL_API cerrno qel_rdx_tree_attr_user_init(qel_rdx_attr* attr, uint32_t keylen,
                                           qel_rdx_aux_destructor aux_destructor, uint32_t chunk_size,
                                           const char* chunk_name, uint32_t name_length);

/** Sets the key length in bits, a multiple of 8; lengths of 0 and above 128 are refused only at creation.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_set_keylen(qel_rdx_attr* attr, uint32_t keylen);

/** Gives the key length in bits. Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_get_keylen(const qel_rdx_attr* attr, uint32_t* keylen);

/** Sets the function that is called for each record that goes; not null. Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_set_aux_destructor(qel_rdx_attr* attr,
                                                    qel_rdx_aux_destructor aux_destructor);

/** Sets the nodes in each chunk of the pool, at least 64. Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_set_chunk_size(qel_rdx_attr* attr, uint32_t chunk_size);

/** Gives the nodes in each chunk of the pool. Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_get_chunk_size(const qel_rdx_attr* attr, uint32_t* chunk_size);

/** Sets the pool's name: up to 'length' characters of 'name', which ends early at a NUL. 'length' is 1 to 32.
 * Returns 0; 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_set_chunk_name(qel_rdx_attr* attr, const char* name, uint32_t length);

/** Fills the 'length' bytes of 'name', 1 to 32, with the pool's name, cut or filled up with NUL. Returns 0;
 * 0xa0000016. */
QEL_API cerrno qel_rdx_tree_attr_get_chunk_name(const qel_rdx_attr* attr, char* name, uint32_t length);

/** Makes an empty tree and stores it in 'tree' on success. 'attr' is copied; null stands for the defaults
 * with the pool name "QEL RTREE". Returns 0; 0xa0000016 for a null 'tree', a key length of 0, above 128 or no
 * multiple of 8, and for chunks of under 64 nodes; 0xa000000c without memory. */
QEL_API cerrno qel_rdx_tree_create(qel_rdx_tree** tree, const qel_rdx_attr* attr);

/** Ends an empty tree in which no walk runs. Returns 0; 0xa0000016 for null and for any other tree, which
 * stays as it was. */
QEL_API cerrno qel_rdx_tree_destroy(qel_rdx_tree* tree);

/** Enters 'user_data', which is not null, under the first 'prefix_len' bits of 'key'; 0 bits are the default
 * that covers every key. Returns 0; 0xa0000011 if that very entry exists; 0xa0000016; 0xa000000c without
 * memory. A call that fails changes nothing. */
QEL_API cerrno qel_rdx_insert(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data);

/** Replaces the entry by a new one with 'user_data', not null, and stores the old user data; where there is
 * none, 'old_user_data' becomes null and 'flag' 1 lets the call insert. Returns 0; 0xa0000016 for a missing
 * entry without the flag; 0xa000000c without memory, with the old entry as it was. */
QEL_API cerrno qel_rdx_update(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len, void* user_data,
                              uint32_t flag, void** old_user_data);

/** Takes the entry out and stores its user data. Returns 0; 0xa0000016 if it is absent, with 'old_user_data'
 * null. */
QEL_API cerrno qel_rdx_delete(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                              void** old_user_data);

/** Finds the entry of exactly this prefix. Returns 0; 0xa0000016 if it is absent. */
QEL_API cerrno qel_rdx_search_exact(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                    void** user_data);

/** Finds the longest entry that covers the prefix, itself included. Returns 0; 0xa0000016 if there is none.
 */
QEL_API cerrno qel_rdx_search(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                              const uint8_t** out_key, uint32_t* out_length, void** user_data);

/** Asks whether the exact entry exists. Returns 0; 0xa0000016 if it is absent. */
QEL_API cerrno qel_rdx_get_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len);

/** Gives the first entry in order. Returns 0; 0xa0000016 also for an empty tree. */
QEL_API cerrno qel_rdx_first_node(qel_rdx_tree* tree, const uint8_t** out_key, uint32_t* out_length,
                                  void** user_data);

/** Gives the last entry in order. Returns 0; 0xa0000020 for null arguments; 0xa0000011 for an empty tree. */
QEL_API cerrno qel_rdx_last_node(qel_rdx_tree* tree, const uint8_t** out_key, uint32_t* out_length,
                                 void** user_data);

/** Gives the first entry behind the prefix in order, whether or not the tree has the prefix itself. Returns
 * 0; 0xa0000016 also when none is behind it. */
QEL_API cerrno qel_rdx_key_next_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                     const uint8_t** out_key, uint32_t* out_length, void** user_data);

/** The same as qel_rdx_key_next_node(). */
QEL_API cerrno qel_rdx_next_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                 const uint8_t** out_key, uint32_t* out_length, void** user_data);

/** Gives the last entry ahead of the prefix in order, whether or not the tree has the prefix itself. Returns
 * 0; 0xa0000016 also when none is ahead of it. */
QEL_API cerrno qel_rdx_key_previous_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                         const uint8_t** out_key, uint32_t* out_length, void** user_data);

/** The same as qel_rdx_key_previous_node(). */
QEL_API cerrno qel_rdx_previous_node(qel_rdx_tree* tree, const uint8_t* key, uint32_t prefix_len,
                                     const uint8_t** out_key, uint32_t* out_length, void** user_data);

/** Visits all entries on this thread, each behind the longer ones that it covers, the default last. 'flags' 1
 * or 2 let the thread be suspended after each visit (qel_thread_check_and_suspend()). Returns 0; what the
 * function ended the walk with; 0xa0000016 for null. */
QEL_API int qel_rdx_tree_walk(qel_rdx_tree* tree, uint32_t flags, qel_rdx_visit function, void* context);

/** The same, with 'condition' asked at each node whether to go below it. */
QEL_API int qel_rdx_tree_walk_cond(qel_rdx_tree* tree, uint32_t flags, qel_rdx_visit function,
                                   uint32_t flag_word, qel_rdx_condition condition, void* context);

/** Visits the entries that the prefix covers, itself included, in the order of qel_rdx_tree_walk(). Returns
 * 0; 0xa0000016 also when the function ended the walk; 0xa0000002 if there is nothing at or below the prefix.
 */
QEL_API cerrno qel_rdx_subtree_walk(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key,
                                    uint32_t prefix_len, qel_rdx_visit function, void* context);

/** The same, with 'condition' asked at each node from the last one above the prefix on whether to go below
 * it. */
QEL_API cerrno qel_rdx_subtree_walk_cond(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key,
                                         uint32_t prefix_len, qel_rdx_visit function, uint32_t flag_word,
                                         qel_rdx_condition condition, void* context);

/** Visits every entry that covers the prefix, itself included, the longest first and the default last.
 * 'flags' and results as of qel_rdx_tree_walk(). */
QEL_API int qel_rdx_tree_walk_reverse(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key,
                                      uint32_t prefix_len, qel_rdx_visit function, void* context);

/** Gives the record's key, or null for null. */
QEL_API const uint8_t* rdx_get_key(const qel_rdx_info* info);

/** Gives the record's key and stores its prefix length; null for null arguments. */
QEL_API const uint8_t* rdx_get_key_prefixlen(const qel_rdx_info* info, uint32_t* length);

/** Gives the user data of the record's node; null for null and for a deleted entry. */
QEL_API void* rdx_get_user_data(const qel_rdx_info* info);

QEL_END_DECLS

#endif
