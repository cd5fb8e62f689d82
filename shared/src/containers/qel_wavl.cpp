// Wrapped AVL trees: one object in several AVL trees, each with an order of its own.
//
// An object begins with one block a thread, and thread i's tree holds the node in block i; so an element and
// its nodes are 32 * i bytes apart, and everything here is plain AVL trees with that arithmetic. A block's
// 'threaded' tells whether its node is in a tree of the handle. Deletion takes the element itself or
// nothing: a foreign element with the same key would otherwise throw out the one that is in the tree.
//
// Invariant: block i of an element is 'threaded' exactly while tree i of its handle holds the block's node.
// Locks and threads: none; the caller of each handle holds its own lock. Restart: nothing stays.
#include <qel/mem.h>
#include <qel/wavl.h>

#include <algorithm>

#include "containers/qel_avl.hpp"
#include "core/qel_owned.hpp"

namespace qel::wavl {
namespace {

using avl::bad_argument;
using avl::Node;
using Block = qel_wavl_block;
using Handle = qel_wavl;

static_assert(sizeof(Block) == 32 && offsetof(Block, threaded) == 24);
static_assert(offsetof(Handle, trees) == 8 && offsetof(Handle, thread_map) == 16 &&
              offsetof(Handle, find_block) == 24 && offsetof(Handle, alloc_fn) == 32 &&
              offsetof(Handle, free_fn) == 40 && offsetof(Handle, initialized) == 48);

bool usable(const Handle* handle) {
    return handle != nullptr && handle->initialized != 0;
}

Block& block_of(void* element, std::uint32_t thread) {
    return static_cast<Block*>(element)[thread];
}

void* itself(void* element) {
    return element;
}

bool has_allocator(const Handle& handle) {
    return handle.alloc_fn != nullptr && handle.free_fn != nullptr;
}

void* allocate(const Handle& handle, std::size_t size) {
    void* memory = has_allocator(handle) ? handle.alloc_fn(size)
                                         : qel_named_malloc_(size, qel_tag_e_get_string(QEL_MEM_UTILS), 0);
    if (memory == nullptr) report<"WAVL5", "%s out of memory">();
    return memory;
}

void release(const Handle& handle, void* memory) {
    if (memory == nullptr) return;
    has_allocator(handle) ? handle.free_fn(memory) : qel_named_free(memory);
}

// Frees the trees that were made, and the arrays.
void free_trees(const Handle& handle) {
    for (std::uint32_t thread = 0; handle.trees != nullptr && thread < handle.num_threads; ++thread)
        release(handle, handle.trees[thread]);
    release(handle, handle.trees);
    release(handle, handle.thread_map);
}

cerrno make_trees(Handle& handle, va_list compares) {
    handle.trees = static_cast<qel_avl**>(allocate(handle, handle.num_threads * sizeof(qel_avl*)));
    if (handle.trees == nullptr) return fatal(ENOMEM);
    std::fill_n(handle.trees, handle.num_threads, nullptr);
    for (std::uint32_t thread = 0; thread < handle.num_threads; ++thread) {
        handle.trees[thread] = static_cast<qel_avl*>(allocate(handle, sizeof(qel_avl)));
        if (handle.trees[thread] == nullptr) return fatal(ENOMEM);
        cerrno error = qel_avl_tree_init(handle.trees[thread], va_arg(compares, qel_avl_compare));
        if (error != 0) return error;
    }
    return 0;
}

bool enter(Handle& handle, std::uint32_t thread, void* element) {
    Block& block = block_of(element, thread);
    if (qel_avl_insert(handle.trees[thread], &block.node) != 0) return false;
    block.threaded = 1;
    return true;
}

bool leave(Handle& handle, std::uint32_t thread, void* element) {
    Block& block = block_of(element, thread);
    if (block.threaded == 0 || !avl::take_out(*handle.trees[thread], block.node)) return false;
    block.threaded = 0;
    return true;
}

// Takes 'element' out of the first 'count' threads; tells whether it left any.
bool leave_all(Handle& handle, std::uint32_t count, void* element) {
    bool left = false;
    for (std::uint32_t thread = 0; thread < count; ++thread) left |= leave(handle, thread, element);
    return left;
}

// What a walk of a thread's tree needs to call the caller's function.
struct ElementWalk {
    qel_wavl_walk function;
    void* context;
    std::uint32_t thread;
};

int visit_node(qel_avl_node* node, void* context) {
    const auto* walk = static_cast<const ElementWalk*>(context);
    return walk->function(qel_avl_to_wavl(node, walk->thread), walk->context);
}

}  // namespace
}  // namespace qel::wavl

using namespace qel;
using namespace qel::wavl;

cerrno qel_wavl_tree_init(qel_wavl* handle, uint32_t num_threads, qel_wavl_find_block find_block, ...) {
    va_list compares;
    va_start(compares, find_block);
    cerrno result = qel_wavl_tree_vinit(handle, num_threads, find_block, compares);
    va_end(compares);
    return result;
}

cerrno qel_wavl_tree_vinit(qel_wavl* handle, uint32_t num_threads, qel_wavl_find_block find_block,
                           va_list compares) {
    if (handle == nullptr) return bad_argument<"WAVL1">("handle");
    if (num_threads == 0) return bad_argument<"WAVL2">("num_threads");
    if (handle->initialized != 0 && handle->num_threads != num_threads)
        return bad_argument<"WAVL3">("num_threads");
    if (handle->initialized != 0)
        return failed<"WAVL4", "%s attempt to re-initialize handle %p">(fatal(EPERM), handle);
    if (find_block == nullptr) find_block = itself;
    Handle made{num_threads, nullptr, nullptr, find_block, handle->alloc_fn, handle->free_fn, 1};
    Undo free_made{[&] { free_trees(made); }};
    if (cerrno error = make_trees(made, compares); error != 0) return error;
    free_made.keep();
    *handle = made;
    return 0;
}

cerrno qel_wavl_tree_finish(qel_wavl* handle) {
    if (!usable(handle)) return bad_argument<"WAVL6">("handle");
    free_trees(*handle);
    *handle = {0, nullptr, nullptr, nullptr, handle->alloc_fn, handle->free_fn, 0};
    return 0;
}

cerrno qel_wavl_init(void* element, uint32_t num_threads) {
    if (element == nullptr) return bad_argument<"WAVL7">("element");
    if (num_threads == 0) return bad_argument<"WAVL8">("num_threads");
    std::fill_n(static_cast<Block*>(element), num_threads, Block{});
    return 0;
}

void* qel_wavl_insert(qel_wavl* handle, void* element) {
    if (!usable(handle)) return bad_argument<"WAVL9">("handle");
    if (element == nullptr) return bad_argument<"WAVL10">("element");
    for (std::uint32_t thread = 0; thread < handle->num_threads; ++thread) {
        if (block_of(element, thread).threaded != 0 || enter(*handle, thread, element)) continue;
        leave_all(*handle, thread, element);
        return nullptr;
    }
    return element;
}

void* qel_wavl_delete(qel_wavl* handle, void* element) {
    if (!usable(handle)) return bad_argument<"WAVL11">("handle");
    if (element == nullptr) return bad_argument<"WAVL12">("element");
    return leave_all(*handle, handle->num_threads, element) ? element : nullptr;
}

void* qel_wavl_insert_thread(qel_wavl* handle, uint32_t thread, void* element) {
    if (!usable(handle)) return bad_argument<"WAVL13">("handle");
    if (thread >= handle->num_threads) return bad_argument<"WAVL14">("thread");
    if (element == nullptr) return bad_argument<"WAVL15">("element");
    const Block& block = block_of(element, thread);
    if (block.threaded != 0)
        return failed<"WAVL16", "%s attempt to insert a duplicate node, tree %p, thread %d, node %p">(
            nullptr, handle->trees[thread], thread, &block.node);
    return enter(*handle, thread, element) ? element : nullptr;
}

void* qel_wavl_delete_thread(qel_wavl* handle, uint32_t thread, void* element) {
    if (!usable(handle)) return bad_argument<"WAVL17">("handle");
    if (thread >= handle->num_threads) return bad_argument<"WAVL18">("thread");
    if (element == nullptr) return bad_argument<"WAVL19">("element");
    if (leave(*handle, thread, element)) return element;
    return failed<"WAVL20", "%s attempt to delete an absent node, tree %p, thread %d, node %p">(
        nullptr, handle->trees[thread], thread, &block_of(element, thread).node);
}

void* qel_wavl_search(qel_wavl* handle, void* goal, uint32_t thread) {
    if (!usable(handle)) return bad_argument<"WAVL21">("handle");
    if (goal == nullptr) return bad_argument<"WAVL22">("goal");
    if (thread >= handle->num_threads) return bad_argument<"WAVL23">("thread");
    Node* found = nullptr;
    // A search without a result leaves null, which stays null.
    static_cast<void>(qel_avl_search(handle->trees[thread], qel_wavl_to_avl(goal, thread), &found));
    return qel_avl_to_wavl(found, thread);
}

void* qel_wavl_get_first(qel_wavl* handle, uint32_t thread) {
    if (!usable(handle)) return bad_argument<"WAVL24">("handle");
    if (thread >= handle->num_threads) return bad_argument<"WAVL25">("thread");
    return qel_avl_to_wavl(qel_avl_get_first(handle->trees[thread]), thread);
}

void* qel_wavl_get_next(qel_wavl* handle, void* current, uint32_t thread) {
    if (!usable(handle)) return bad_argument<"WAVL26">("handle");
    if (current == nullptr) return bad_argument<"WAVL27">("current");
    if (thread >= handle->num_threads) return bad_argument<"WAVL28">("thread");
    return qel_avl_to_wavl(qel_avl_get_next(handle->trees[thread], qel_wavl_to_avl(current, thread)), thread);
}

int qel_wavl_tree_walk(qel_wavl* handle, uint32_t thread, qel_wavl_walk function, void* context) {
    if (!usable(handle)) return bad_argument<"WAVL29">("handle");
    if (thread >= handle->num_threads) return bad_argument<"WAVL30">("thread");
    if (function == nullptr) return bad_argument<"WAVL31">("function");
    ElementWalk walk{function, context, thread};
    return qel_avl_tree_walk(handle->trees[thread], visit_node, &walk);
}

qel_avl_node* qel_wavl_to_avl(void* element, uint32_t thread) {
    return element != nullptr ? &block_of(element, thread).node : nullptr;
}

void* qel_avl_to_wavl(qel_avl_node* node, uint32_t thread) {
    return node != nullptr ? reinterpret_cast<Block*>(node) - thread : nullptr;
}

void* qel_wavl_normalize(qel_avl_node* node, uint32_t thread) {
    return qel_avl_to_wavl(node, thread);
}
