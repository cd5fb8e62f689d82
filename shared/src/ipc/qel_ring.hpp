// The message ring for the rest of messaging: its format in shared memory, its context, and the steps that
// span two rings.
#pragma once

#include <qel/ring.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "shm/qel_mem_safe_shm.hpp"
#include "shm/qel_shared_lock.hpp"

namespace qel {

enum class MessageState : std::uint32_t { free, allocated, produced, consumed };

// The first bytes of a ring's segment. Each index is a slot below ring_size. What a death leaves in it is
// told in qel_ring.cpp.
struct RingHeader {
    std::uint16_t frozen;     // 1: nothing is produced any more; set under ring_prod, for good
    std::uint16_t ring_num;   // the opener's, like ring_size and msg_size
    std::uint16_t ring_size;  // written last by the maker: 0 until the ring can be used
    std::uint16_t reserved_6;
    std::uint32_t prod_idx;    // next slot to produce into; producers, under ring_prod
    std::uint32_t cons_idx;    // next slot to consume; the one consumer, and freezing
    std::uint32_t rel_idx;     // oldest consumed slot; the consumer's process, under ring_free
    std::uint32_t prod_count;  // atomic; producers up, the consumer down: it hands messages over
    SharedMutex ring_prod;
    std::uint32_t cons_count;  // atomic; the consumer up, releasing down
    std::uint32_t free_idx;    // ring 0: next free slot to allocate from; all processes, under ring_free
    std::uint32_t free_count;  // ring 0: messages in the pool; as free_idx
    std::uint32_t reserved_76;
    SharedMutex ring_free;
    std::uint32_t serial;  // ring 0: allocations so far; under ring_free
    std::uint16_t msg_size;
    std::uint16_t reserved_126;
};
static_assert(sizeof(RingHeader) == 128 && offsetof(RingHeader, frozen) == 0 &&
              offsetof(RingHeader, ring_num) == 2 && offsetof(RingHeader, ring_size) == 4 &&
              offsetof(RingHeader, prod_idx) == 8 && offsetof(RingHeader, cons_idx) == 12 &&
              offsetof(RingHeader, rel_idx) == 16 && offsetof(RingHeader, prod_count) == 20 &&
              offsetof(RingHeader, ring_prod) == 24 && offsetof(RingHeader, cons_count) == 64 &&
              offsetof(RingHeader, free_idx) == 68 && offsetof(RingHeader, free_count) == 72 &&
              offsetof(RingHeader, ring_free) == 80 && offsetof(RingHeader, serial) == 120 &&
              offsetof(RingHeader, msg_size) == 124 && std::is_standard_layout_v<RingHeader>);
static_assert(sizeof(qel_ring_msg) == 48 && offsetof(qel_ring_msg, state) == 0 &&
              offsetof(qel_ring_msg, handle) == 4 && offsetof(qel_ring_msg, ring) == 8 &&
              offsetof(qel_ring_msg, ring_index) == 10 && offsetof(qel_ring_msg, alloc_ring) == 12 &&
              offsetof(qel_ring_msg, type) == 14 && offsetof(qel_ring_msg, context) == 16 &&
              offsetof(qel_ring_msg, data_handle) == 24 && offsetof(qel_ring_msg, data_len) == 28 &&
              offsetof(qel_ring_msg, reply_buf) == 32 && offsetof(qel_ring_msg, reply_len) == 40 &&
              offsetof(qel_ring_msg, status) == 44);

}  // namespace qel

// An open ring. The sizes are the opener's own, checked against the segment's once: nothing here is read from
// shared memory again.
struct qel_ring {
    qel_ring* alloc_ring;
    qel::RingHeader* hdr;
    std::uint16_t* index;
    std::byte* msgs;  // of ring 0; null in others
    qel::Mapping shm;
    std::uint32_t stride;
    std::uint16_t num;
    std::uint16_t size;
    std::uint16_t msg_size;
    std::uint32_t reclaim_from;  // message number at which the search for own messages goes on
};

namespace qel {

// qel_ring_open() for a ring that must be there: fatal(ENOENT) without its segment.
cerrno ring_attach(const char* name, std::uint16_t ring_num, std::uint16_t ring_size, std::uint16_t msg_size,
                   qel_ring* alloc_ring, qel_ring** out);

// The payload of a message, 'msg_size' bytes.
std::span<std::byte> ring_payload(const qel_ring& ring, qel_ring_msg& message);

// The message's number if it lies in this ring's message area; its own words are not believed. size for none.
std::uint32_t ring_message_number(const qel_ring& ring, const qel_ring_msg& message);

// Consumed on 'own', produced on 'destination', in one step that neither a death nor a reclaim of the
// destination can see half done: both ring_prod of the destination and ring_free of 'own' are held over it. A
// failure (frozen, full) leaves the message Consumed.
cerrno ring_move(qel_ring& own, qel_ring& destination, qel_ring_msg& message);

// Consumed on 'own', or Allocated, to the free pool.
cerrno ring_give_back(qel_ring& own, qel_ring_msg& message);

// By a ring's owner that has come back, before it consumes or reclaims: puts right what a death between two
// steps left half done, so that each message is Free in the pool, Allocated, Produced or Consumed.
void ring_recover(qel_ring& ring);

// How many messages of the pool are charged to 'ring_num': Allocated through it and not Free. The caller
// holds what keeps them from moving.
std::uint32_t ring_count_charged(const qel_ring& alloc_ring, std::uint32_t ring_num);

// The ring's invariant (stated in the file), over indices, counts and the states of the messages. Null, or
// what is broken. 'quiet' says that nobody works on the channel, so that counts and states must agree to the
// last.
const char* ring_check(const qel_ring& ring, bool quiet);

}  // namespace qel
