// What containers need of chunk pools beyond the public calls: elements that outlive their pool's owner.
//
// An indirect list owns a pool, yet its elements may move to another list and so outlive it. An element then
// goes back to the pool that it came from, whoever frees it, and a pool that its owner gave up lives until
// its last element is back.
#pragma once

#include <qel/mem.h>

namespace qel {

// Frees 'element' into the pool that it came from, which it tells itself: it must come from a pool with fast
// free (every pool without QEL_MEM_CHUNK_NO_FAST_FREE). If that pool was given up and this was its last
// element, the pool goes too. Results as of qel_mem_chunk_free().
int chunk_free_to_owner(void* element);

// Gives up 'pool': it is destroyed now if no element is out, or else by the chunk_free_to_owner() that brings
// the last one back. The caller must not use the pool afterwards. A null pool is allowed.
void chunk_retire(qel_mem_chunk* pool);

}  // namespace qel
