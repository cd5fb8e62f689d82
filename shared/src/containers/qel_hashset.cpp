// Hash set: an intrusive chained table whose size follows the element count.
//
// An element embeds its link; the set finds it by 'link_offset' and knows nothing else of the element than
// what the caller's hash and match functions tell. A new element heads its chain. A link points back to the
// word that points to it, so removal needs neither a search nor the hash.
//
// Invariant: *link.pprev is the link, for each element in the set; 'buckets' has 'size' words.
// Locks and threads: none; the caller of each set holds its own lock. While a handler of
// qel_hashset_iterate() runs, the array stays. The handler may end its thread: the guard then takes the
// iteration off the set.
#include "containers/qel_hashset.hpp"

#include <cerrno>

#include "core/qel_owned.hpp"

namespace qel {
namespace {

// Holds the array still and the place of the walk on the set, for the time of one iteration.
class HeldWalk {
  public:
    explicit HeldWalk(HashSet& set) : set_(set), walk_{nullptr, set.walks} {
        set_.walks = &walk_;
        ++set_.iterating;
    }
    HeldWalk(const HeldWalk&) = delete;
    HeldWalk& operator=(const HeldWalk&) = delete;
    ~HeldWalk() {
        set_.walks = walk_.outer;
        --set_.iterating;
    }

    // The link to visit now; the one after it is noted before any handler can take this one away.
    qel_hash_link* step() {
        qel_hash_link* link = walk_.next;
        if (link != nullptr) walk_.next = link->next;
        return link;
    }
    void start_chain(qel_hash_link* first) { walk_.next = first; }

  private:
    HashSet& set_;
    HashWalk walk_;
};

// The first element down the chain from 'link' that 'probe' matches, or null. Across the calls of 'match'
// only the link is kept: the element's address is made of it anew, which spares a register to save and
// restore.
[[gnu::always_inline]] inline void* find_in_chain(const HashSet& set, qel_hash_link* link,
                                                  const void* probe) {
    for (; link != nullptr; link = link->next)
        if (set.match(probe, element_of(set, link), set.context)) [[likely]]
            return element_of(set, link);
    return nullptr;
}

// The first element in the buckets from 'bucket' on, or null.
void* first_from(const HashSet& set, qel_hash_link** bucket) {
    for (; bucket != set.buckets + set.size; ++bucket)
        if (*bucket != nullptr) return element_of(set, *bucket);
    return nullptr;
}

}  // namespace

void visit_all(HashSet& set, qel_hashset_handler handler, void* context) {
    HeldWalk walk{set};
    for (std::uint32_t bucket = 0; bucket < set.size; ++bucket) {
        walk.start_chain(set.buckets[bucket]);
        while (qel_hash_link* link = walk.step()) (void)handler(&set, element_of(set, link), context);
    }
}

}  // namespace qel

int qel_hashset_create(qel_hashset** out, const qel_hash_attr*, int32_t link_offset, qel_hashset_hash hash,
                       qel_hashset_match match, void* context) {
    if (out == nullptr || hash == nullptr || match == nullptr) return EINVAL;
    qel::Owned<qel::HashSet> set = qel::allocate_zeroed<qel::HashSet>(QEL_MEM_UTILS);
    if (!set || !qel::make_first_buckets(*set)) return ENOMEM;
    set->link_offset = link_offset;
    set->hash = hash;
    set->match = match;
    set->context = context;
    *out = set.release();
    return 0;
}

void qel_hashset_free(qel_hashset** set) {
    if (set == nullptr || *set == nullptr) return;
    qel_named_free((*set)->buckets);
    qel_named_free(*set);
    *set = nullptr;
}

void qel_hashset_insert(qel_hashset* set, void* element) {
    if (set == nullptr || element == nullptr) return;
    qel::HashSet& table = *qel::inner(set);
    qel::push_link(table, qel::bucket_of(table, element), qel::link_of(table, element));
    ++table.count;
    qel::check_size(table);
}

void qel_hashset_remove(qel_hashset* set, void* element) {
    if (set == nullptr || element == nullptr) return;
    qel::HashSet& table = *qel::inner(set);
    qel_hash_link* link = qel::link_of(table, element);
    // Refuses what left the set, where that still shows. The load also brings the word in early: stores that
    // miss the cache wait for each other.
    if (link->pprev == nullptr || *link->pprev != link) return;
    for (qel::HashWalk* walk = table.walks; walk != nullptr; walk = walk->outer)
        if (walk->next == link) walk->next = link->next;
    *link->pprev = link->next;
    qel::back_pointer(table, link->next) = link->pprev;
    --table.count;
    qel::check_size(table);
}

void* qel_hashset_get(qel_hashset* set, const void* probe) {
    if (set == nullptr || probe == nullptr) return nullptr;
    const qel::HashSet& table = *qel::inner(set);
    return qel::find_in_chain(table, *qel::bucket_of(table, probe), probe);
}

void* qel_hashset_get_next(qel_hashset* set, void* element) {
    if (set == nullptr || element == nullptr) return nullptr;
    const qel::HashSet& table = *qel::inner(set);
    return qel::find_in_chain(table, qel::link_of(table, element)->next, element);
}

void* qel_hashset_first(qel_hashset* set) {
    return set == nullptr ? nullptr : qel::first_from(*qel::inner(set), set->buckets);
}

void* qel_hashset_next(qel_hashset* set, void* element) {
    if (set == nullptr || element == nullptr) return nullptr;
    const qel::HashSet& table = *qel::inner(set);
    qel_hash_link* next = qel::link_of(table, element)->next;
    if (next != nullptr) return qel::element_of(table, next);
    return qel::first_from(table, qel::bucket_of(table, element) + 1);
}

size_t qel_hashset_size(const qel_hashset* set) {
    return set == nullptr ? 0 : static_cast<size_t>(set->count);
}

void qel_hashset_iterate(qel_hashset* set, qel_hashset_handler handler, void* context) {
    if (set == nullptr || handler == nullptr) return;
    qel::HashSet& table = *qel::inner(set);
    qel::visit_all(table, handler, context);
    qel::check_size(table);
}
