// Iterators over the links of the library's shim, and over the interfaces of a context database.
//
// An iterator over links has the handles that there were when it began, so links may come and go: one that
// went is passed over. One over a database asks it for the handle above the last. What an iterator holds is
// its own.
//
// Locks: the table's and the databases', one at a time. Threads: an iterator is one thread's at a time.
#include <qel/base.h>
#include <qel/if.h>
#include <qel/if_event.h>

#include <cerrno>
#include <cstdlib>

#include "net/qel_if.hpp"
#include "net/qel_if_lnx_links.hpp"

struct qel_if_iterator {
    std::uint32_t app;
    qel_if_iteration_filter filter;
    std::uint64_t* handles;  // of an iterator over links
    std::size_t count;
    std::size_t next;
    std::uint64_t last;  // of one over a database
};

namespace qel::interfaces {
namespace {

using Iterator = qel_if_iterator;
using Filter = qel_if_iteration_filter;

constexpr std::uint32_t kOtherWords =
    QEL_IF_PHYS_LOC_WORD_1 | QEL_IF_PHYS_LOC_WORD_2 | QEL_IF_PHYS_LOC_WORD_3 | QEL_IF_PHYS_LOC_WORD_4;

constexpr bool is_valid_location(const qel_if_phys_loc& location) {
    return (location.flags & QEL_IF_PHYS_LOC_LAST) == 0 || (location.flags & kOtherWords) == 0;
}

bool is_valid_filter(const Filter* filter) {
    return filter != nullptr && filter->type >= QEL_IF_TYPE_ANY && filter->type <= QEL_IF_TYPE_VFI &&
           filter->encap <= QEL_IF_ENCAP_MPLS && filter->base_if != 0 && is_valid_location(filter->phys_loc);
}

bool if_matches_iterator(const lnx::Entry& entry, const Filter& filter) {
    return (filter.type == QEL_IF_TYPE_ANY || filter.type == entry.type) &&
           (filter.encap == QEL_IF_ENCAP_ANY || filter.encap == entry.encap) &&
           (filter.base_if == QEL_IF_HANDLE_ANY || filter.base_if == entry.base_if);
}

bool matches(std::uint64_t ifh, const Filter& filter) {
    bool result = false;
    lnx::with_entries(&ifh, 1, [&](std::size_t, const lnx::Entry* entry) {
        result = entry != nullptr && if_matches_iterator(*entry, filter);
    });
    return result;
}

// Moves on: 0 at the end.
std::uint64_t next_handle(Iterator& it) {
    if (it.filter.ctx_db == nullptr) return it.next < it.count ? it.handles[it.next++] : 0;
    std::uint64_t ifh = 0;
    const cerrno error = it.last == 0 ? qel_if_ctx_db_get_first(it.filter.ctx_db, &ifh)
                                      : qel_if_ctx_db_get_next(it.filter.ctx_db, it.last, &ifh);
    if (error != 0 || ifh == 0) return 0;
    return it.last = ifh;
}

cerrno next_match(Iterator& it, std::uint64_t* ifh) {
    while (const std::uint64_t candidate = next_handle(it)) {
        if (!matches(candidate, it.filter)) continue;
        *ifh = candidate;
        return 0;
    }
    return fatal(ENOENT);
}

void end(Iterator* it) {
    Owned<std::uint64_t> handles{it->handles};
    Owned<Iterator> owned{it};
}

cerrno start(std::uint32_t app, const Filter& filter, Iterator** out) {
    Owned<Iterator> it = allocate_zeroed<Iterator>(QEL_MEM_INTF);
    if (!it) return no_memory<"IFERROR330">();
    it->app = app;
    it->filter = filter;
    bool no_room = false;
    if (filter.ctx_db == nullptr) it->handles = lnx::snapshot(it->count, no_room).release();
    if (no_room) return no_memory<"IFERROR331">();
    *out = it.release();
    return 0;
}

// --- All at once

// Goes through all matches of a fresh iterator: visit(ifh) ends it with anything but 0.
template <class Visit>
cerrno go_through(std::uint32_t app, const Filter* filter, Visit visit) {
    Iterator* it = nullptr;
    if (cerrno error = qel_if_iterator_start(app, filter, &it); error != 0)
        return failed<"IFERROR332", "ERROR: %s: Failed to initialize iterator">(error);
    cerrno error = 0;
    for (std::uint64_t ifh = 0; error == 0 && next_match(*it, &ifh) == 0;) error = visit(ifh);
    end(it);
    return error;
}

cerrno fill(std::uint32_t app, const Filter* filter, std::uint64_t* handles, std::size_t count) {
    std::size_t idx = 0;
    return go_through(app, filter, [&](std::uint64_t ifh) {
        if (idx >= count)
            return failed<"IFERROR333",
                          "ERROR: %s: idx should never be greater than or equal to num_entries">(
                fatal(EINVAL));
        handles[idx++] = ifh;
        return cerrno{0};
    });
}

// The array is the caller's to free(), so it doesn't come from named memory.
cerrno glob(std::uint32_t app, const Filter* filter, std::uint64_t** handles, std::size_t* count) {
    std::size_t found = 0;
    auto counted = [&found](std::uint64_t) {
        ++found;
        return cerrno{0};
    };
    if (cerrno error = go_through(app, filter, counted); error != 0) return error;
    auto* array = static_cast<std::uint64_t*>(std::calloc(found + 1, sizeof(std::uint64_t)));
    if (array == nullptr) return fatal(ENOMEM);
    Undo free_array{[array] { std::free(array); }};
    if (cerrno error = fill(app, filter, array, found); error != 0) return error;
    free_array.keep();
    *handles = array;
    *count = found;
    return 0;
}

}  // namespace
}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

void qel_if_iteration_filter_init(qel_if_iteration_filter* filter) {
    qel_check_not_interrupt_path();
    if (filter == nullptr) return;
    *filter = {};
    filter->magic = QEL_IF_MAGIC;
    filter->type = QEL_IF_TYPE_ANY;
    filter->encap = QEL_IF_ENCAP_ANY;
    filter->base_if = QEL_IF_HANDLE_ANY;
    for (auto& pair : filter->words) pair[0] = -1;
}

bool qel_if_iterator_physical_loc_match(const qel_if_phys_loc* filter, const qel_if_phys_loc* location) {
    constexpr std::size_t kWords = std::extent_v<decltype(qel_if_phys_loc::word)>;
    qel_check_not_interrupt_path();
    if (filter == nullptr || location == nullptr) return false;
    if ((filter->flags & QEL_IF_PHYS_LOC_LAST) != 0) {
        const std::size_t last = (filter->flags & QEL_IF_PHYS_LOC_WORD_5) != 0 ? kWords - 1 : kWords - 2;
        return filter->word[last] == location->word[last];
    }
    for (std::size_t i = 0; i < kWords; ++i)
        if ((filter->flags & QEL_IF_PHYS_LOC_WORD_1 << i) != 0 && filter->word[i] != location->word[i])
            return false;
    return true;
}

cerrno qel_if_iterator_start(uint32_t app, const qel_if_iteration_filter* filter, qel_if_iterator** it) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR334">(app);
    if (!client) return fatal(EINVAL);
    if (!is_valid_filter(filter) || it == nullptr) return invalid_arguments<"IFERROR335">();
    return start(app, *filter, it);
}

cerrno qel_if_iterator_get_next(uint32_t app, qel_if_iterator* it, uint64_t* ifh) {
    qel_check_not_interrupt_path();
    Retained<Client> client = retain_client<"IFERROR336">(app);
    if (!client) return fatal(EINVAL);
    if (it == nullptr || ifh == nullptr || it->app != app) return invalid_arguments<"IFERROR337">();
    return next_match(*it, ifh);
}

cerrno qel_if_iterator_end(uint32_t app, qel_if_iterator* it) {
    qel_check_not_interrupt_path();
    if (it == nullptr || app == 0 || it->app != app) return invalid_arguments<"IFERROR338">();
    end(it);
    if_event<"IFEVENT330", "%s: done, apph=0x%x, it=%p">(app, it);
    return 0;
}

cerrno qel_if_iterator_glob(uint32_t app, const qel_if_iteration_filter* filter, uint64_t** handles,
                            size_t* count) {
    qel_check_not_interrupt_path();
    if (filter == nullptr || handles == nullptr || count == nullptr) return fatal(EINVAL);
    Retained<Client> client = app_id_pool.retain<Client>(app);
    if (!client) return failed<"IFERROR339", "ERROR: %s: Failed to retain app_ctx">(fatal(EINVAL));
    return glob(app, filter, handles, count);
}
