// What messaging needs of a shared heap beyond its public calls.
#pragma once

#include <qel/mem_vchunk.h>

#include <cstdint>
#include <span>

namespace qel {

// Takes a chunk of 'size' bytes and stores its handle at 'place' before the heap's lock is released, so that
// a death leaves the chunk either on the free lists or reachable from 'place', which may lie in another
// segment. Gives the chunk's bytes, unzeroed, or null; 'place' is written on success only.
void* vchunk_take(qel_mem_vchunk_pool pool, std::uint32_t size, std::uint32_t& place);

// The way back: clears 'place' and frees the chunk that it named, both under the heap's lock. A handle that
// names no chunk in use is cleared and otherwise ignored: EINVAL.
int vchunk_drop(qel_mem_vchunk_pool pool, std::uint32_t& place);

// The first 'size' bytes of a chunk that is in use and has as many, checked against the sizes kept by this
// process; empty for any other number. Takes no lock, so a dump may ask when the dead hold it.
std::span<std::byte> vchunk_bytes(qel_mem_vchunk_pool pool, qel_mem_vchunk_handle chunk, std::uint32_t size);

// qel_mem_vchunk_shm_create() for a heap that goes by its whole name, and may go and come: an open pool is
// joined only if its heap is the one that has the name now.
int vchunk_shm_open(const char* name, std::uint16_t min_size, std::uint32_t heap_size,
                    qel_mem_vchunk_pool& pool);

// The same for those who only look: an existing heap, whatever its unit and size. ENOENT without one;
// ETIMEDOUT if its maker hasn't finished it within a second.
int vchunk_attach(const char* name, qel_mem_vchunk_pool& pool);

// Drops one open and clears 'pool'; at the last one the heap is unmapped, chunks out or not, while its lock
// and its name stay.
void vchunk_detach(qel_mem_vchunk_pool& pool);

// Checks the heap's invariant under its lock: null, or what is broken.
const char* vchunk_check(qel_mem_vchunk_pool pool);

}  // namespace qel
