// Resizing of the hash set: which size a count asks for, and the way of all elements into the new array.
//
// A step goes to the neighbouring prime and takes each element along once: the old array in ascending
// buckets, each chain from its head, each element to the head of its new chain. That order is a promise to
// the users, who see it when they iterate; a step reverses elements of equal hash. So a change of several
// primes stays several steps.
//
// In a large set each element and each new bucket is a cache miss. The walk asks for the elements some
// buckets ahead, and gathers a batch of elements whose buckets are on their way before it links them, in the
// order gathered.
//
// Invariant: a set keeps its old array until the new one exists, so a failed allocation changes nothing.
// Locks and threads: as for the set.
#include "containers/qel_hashset.hpp"

#include <array>
#include <utility>

#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr std::array<std::uint32_t, 37> kPrimes{
    13,       29,       59,       107,      263,      599,      1361,    3037,    6719,     19219,
    54941,    120721,   156941,   204047,   265271,   344857,   448321,  582821,  757693,   985003,
    1280519,  1664681,  2164111,  2813353,  3657361,  4754591,  6180989, 8035301, 10445899, 13579681,
    17653589, 22949669, 29834603, 38784989, 50420551, 65546729, 85210757};

// The marks are percentages of the size; the product passes 32 bits at the largest primes.
constexpr std::int32_t low_water_of(std::uint32_t size) {
    return static_cast<std::int32_t>(std::uint64_t{size} * 20 / 100);
}
constexpr std::int32_t high_water_of(std::uint32_t size) {
    return static_cast<std::int32_t>(std::uint64_t{size} * 85 / 100 + 1);
}
static_assert(low_water_of(13) == 2 && high_water_of(13) == 12);
static_assert(high_water_of(85210757) == 72429144);

void install(HashSet& set, std::uint32_t prime_index, qel_hash_link** buckets) {
    set.buckets = buckets;
    set.prime_index = prime_index;
    set.size = kPrimes[prime_index];
    set.reciprocal = reciprocal_of(set.size);
    set.low_water = low_water_of(set.size);
    set.high_water = high_water_of(set.size);
}

Owned<qel_hash_link*> make_buckets(std::uint32_t prime_index) {
    return allocate_zeroed<qel_hash_link*>(QEL_MEM_UTILS, kPrimes[prime_index]);
}

// Elements on their way into a set's new array.
class Transfer {
  public:
    explicit Transfer(HashSet& set) : set_(set) {}

    // Takes over all elements of an array of 'size' buckets.
    void take_all(qel_hash_link** old_buckets, std::uint32_t size) {
        for (std::uint32_t bucket = 0; bucket < size; ++bucket) {
            fetch_ahead(old_buckets, bucket, size);
            take_chain(old_buckets[bucket]);
        }
        link_batch();
    }

  private:
    static constexpr std::uint32_t kBatch = 16;
    static constexpr std::uint32_t kAhead = 16;

    struct Move {
        qel_hash_link* link;
        qel_hash_link** bucket;
    };

    // Asks for the head of a chain to come, and for the second element of one half as far, whose head has
    // arrived.
    static void fetch_ahead(qel_hash_link** buckets, std::uint32_t bucket, std::uint32_t size) {
        if (size - bucket <= 2 * kAhead) return;
        fetch(buckets[bucket + 2 * kAhead]);
        if (qel_hash_link* head = buckets[bucket + kAhead]) fetch(head->next);
    }

    void take_chain(qel_hash_link* link) {
        for (qel_hash_link* next; link != nullptr; link = next) {
            next = link->next;
            qel_hash_link** bucket = bucket_of(set_, element_of(set_, link));
            __builtin_prefetch(bucket, 1);
            batch_[batched_++] = {link, bucket};
            if (batched_ == kBatch) link_batch();
        }
    }

    void link_batch() {
        for (std::uint32_t i = 0; i < batched_; ++i) fetch(*batch_[i].bucket);
        for (std::uint32_t i = 0; i < batched_; ++i) push_link(set_, batch_[i].bucket, batch_[i].link);
        batched_ = 0;
    }

    HashSet& set_;
    std::array<Move, kBatch> batch_;
    std::uint32_t batched_ = 0;
};

// One step to another prime; false when memory is short.
bool move_to(HashSet& set, std::uint32_t prime_index) {
    Owned<qel_hash_link*> fresh = make_buckets(prime_index);
    if (!fresh) return false;
    std::uint32_t old_size = set.size;
    Owned<qel_hash_link*> old{set.buckets};
    install(set, prime_index, fresh.release());
    Transfer{set}.take_all(old.get(), old_size);
    return true;
}

}  // namespace

bool make_first_buckets(HashSet& set) {
    Owned<qel_hash_link*> buckets = make_buckets(0);
    if (!buckets) return false;
    install(set, 0, buckets.release());
    return true;
}

void resize(HashSet& set) {
    for (;;) {
        const bool grow = set.count > set.high_water;
        const bool shrink = set.count < set.low_water;
        if (grow == shrink || (grow ? set.prime_index + 1 == kPrimes.size() : set.prime_index == 0)) return;
        if (!move_to(set, grow ? set.prime_index + 1 : set.prime_index - 1)) return;
    }
}

}  // namespace qel
