// What the files of the hash set share: the record behind a set, and the way from an element to its bucket.
#pragma once

#include <qel/hash.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qel {

// One running iteration, on the stack of qel_hashset_iterate().
struct HashWalk {
    qel_hash_link* next;  // the link to visit next; moved on by a removal of just that one
    HashWalk* outer;      // the iteration in whose handler this one runs
};

// The record that qel_hashset_create() allocates: the public descriptor and what only the library needs.
struct HashSet : qel_hashset {
    std::uint64_t reciprocal;   // of 'size', see remainder()
    std::uint32_t prime_index;  // 'size' is that entry of the table of primes
    HashWalk* walks;            // the innermost running iteration
    qel_hash_link** nowhere;    // see back_pointer(); never read
};
static_assert(std::is_trivially_copyable_v<HashSet>);
static_assert(offsetof(qel_hashset, size) == 12 && offsetof(qel_hashset, high_water) == 28 &&
              sizeof(qel_hashset) == 56);

inline HashSet* inner(qel_hashset* set) {
    return static_cast<HashSet*>(set);
}

// The remainder costs two multiplications in place of a division: the low half of reciprocal x value is the
// fraction that the division would leave, scaled to 2^64. Exact for all values and divisors of 32 bits.
constexpr std::uint64_t reciprocal_of(std::uint32_t divisor) {
    return UINT64_MAX / divisor + 1;
}
constexpr std::uint32_t remainder(std::uint32_t value, std::uint32_t divisor, std::uint64_t reciprocal) {
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint32_t>(static_cast<Wide>(reciprocal * value) * divisor >> 64);
}

inline qel_hash_link* link_of(const HashSet& set, void* element) {
    return reinterpret_cast<qel_hash_link*>(static_cast<std::byte*>(element) + set.link_offset);
}
inline void* element_of(const HashSet& set, qel_hash_link* link) {
    return reinterpret_cast<std::byte*>(link) - set.link_offset;
}

// The word that heads the chain of whatever has the hash of 'element'.
inline qel_hash_link** bucket_of(const HashSet& set, const void* element) {
    std::uint32_t hash = set.hash(element, set.context);
    return &set.buckets[remainder(hash, set.size, set.reciprocal)];
}

// Asks for a link that is about to be used. Not for null: a fetch from an unmapped page searches the page
// tables in vain.
inline void fetch(const qel_hash_link* link) {
    if (link != nullptr) __builtin_prefetch(link);
}

// The back pointer of 'next', on its way into the cache, as stores that miss it wait for each other; or,
// where a chain ends, a word that nobody reads. Whether a chain goes on is as good as random: a branch would
// be guessed wrong every other time, which shows only when 'next' has arrived from memory. A choice of
// address keeps the calls behind this one under way.
inline qel_hash_link**& back_pointer(HashSet& set, qel_hash_link* next) {
    qel_hash_link**& chosen = *(next != nullptr ? &next->pprev : &set.nowhere);
    __builtin_prefetch(&chosen, 1);
    return chosen;
}

inline void push_link(HashSet& set, qel_hash_link** bucket, qel_hash_link* link) {
    link->pprev = bucket;
    link->next = *bucket;
    back_pointer(set, link->next) = &link->next;
    *bucket = link;
}

// Gives 'set' its first array. False when memory is short.
bool make_first_buckets(HashSet& set);

// Runs the steps of growth or shrinking that 'count' asks for; needs a set that no iteration holds.
void resize(HashSet& set);

// qel_hashset_iterate() without the check of the size at its end: the handler may free elements and leave
// them in.
void visit_all(HashSet& set, qel_hashset_handler handler, void* context);

inline void check_size(HashSet& set) {
    if (set.iterating != 0) return;
    if (set.count < set.low_water || set.count > set.high_water) [[unlikely]]
        resize(set);
}

}  // namespace qel
