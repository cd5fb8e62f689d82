// Merged dumps: the entries of several buffers in the order of time, all of them and then what is new.
//
// Each buffer is copied, its entries enter one AVL tree by time, and the tree is walked. A later read copies
// and takes only the blocks between where the last one ended and the live cursor. All cursors are read before
// the first buffer is copied, so the reads of all buffers end at the same moment. Each entering of a gate may
// map a segment that replaced the one before; the copy of that one is dropped then, before anything is read.
//
// A read ends in front of a block that a writer has reserved: its entry isn't lost but comes with the next
// read. If the block is reserved still after a while, its writer is dead, or might as well be, and is passed
// over.
//
// Locks: none; inside each buffer's gate while it is copied. Threads: a handle belongs to one at a time.
// Restart: see qel_dump.cpp.
#include <qel/avl.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <tuple>
#include <utility>

#include "dump/qel_dump.hpp"
#include "time/qel_time.hpp"
#include "trace/qel_trace_gate.hpp"

namespace qel::dump {
namespace {

// An entry in the tree. 'node' comes first: the tree's functions get its address.
struct Place {
    qel_avl_node node;
    std::uint32_t seconds;
    std::uint32_t nanoseconds;
    std::uint32_t sequence;
    std::uint32_t source;
    std::uint32_t block;
};

// Two buffers may hold equal times and numbers, but no block lies in both.
auto order_of(const Place& place) {
    return std::tie(place.seconds, place.nanoseconds, place.sequence, place.source, place.block);
}

int by_time(const qel_avl_node* left, const qel_avl_node* right) {
    const auto& a = *reinterpret_cast<const Place*>(left);
    const auto& b = *reinterpret_cast<const Place*>(right);
    const auto order = order_of(a) <=> order_of(b);
    return order == 0 ? QEL_AVL_EQUAL : order < 0 ? QEL_AVL_BEFORE : QEL_AVL_AFTER;
}

// A buffer of a merged dump, and how far it has been read.
struct Source {
    qel_dt_dump* dump;
    const BufferHeader* mapping;  // the segment that the copy was made of
    Cursor next;                  // where the coming read begins
    Cursor end;                   // where it ends
    bool overtaken;               // writers came around while it was copied: counts in it lead anywhere
    Range fresh;                  // blocks of the copy that the running read takes
    std::uint32_t stopper;        // block in front of which the last read ended, or kNone
    ControlEntry stopper_control;
    timespec give_up;  // when the stopper is passed over, by the monotonic clock
};
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
constexpr timespec kPatience{0, 50 * kNanosecondsPerMillisecond};

Cursor cursor_after(const View& view, Range range) {
    const std::uint32_t end = range.start + range.length;
    if (end < view.blocks) return {end, range.stamp};
    return {end - view.blocks, (range.stamp + 1) % Cursor::kStamps};
}

// The blocks written between two readings of the cursor; a whole lap, and 'lost', if some were overwritten.
Range range_between(const View& live, Cursor from, Cursor to, bool& lost) {
    const std::uint32_t laps = (to.stamp - from.stamp) % Cursor::kStamps;
    lost = laps > 1 || (laps == 1 && to.index > from.index) || (laps == 0 && to.index < from.index);
    if (lost) return {to.index, live.blocks, (to.stamp - 1) % Cursor::kStamps};
    return {from.index, laps * live.blocks + to.index - from.index, from.stamp};
}

// Shortens 'range' so that it ends in front of a block that is reserved and hasn't been for long.
void stop_at_reserved(const View& live, Range& range, Source& source) {
    const std::uint32_t known = std::exchange(source.stopper, kNone);
    const timespec now = monotonic_now();
    std::uint32_t passed = 0;
    static_cast<void>(walk_blocks(live, range, [&](std::uint32_t block, ControlEntry control, std::uint32_t) {
        if (source.stopper != kNone) return;
        const bool waited_for = block == known && same(control, source.stopper_control);
        if (control.state == BlockState::reserved && !(waited_for && order(now, source.give_up) >= 0)) {
            if (!waited_for) source.give_up = add(now, kPatience);
            source.stopper = block;
            source.stopper_control = control;
            return;
        }
        passed += std::min(blocks_at(control), live.blocks - block);
    }));
    range.length = std::min(range.length, passed);
}

}  // namespace
}  // namespace qel::dump

struct qel_dt_mst {
    qel_dt_dump_limits limits;
    qel_dt_dump_config config;
    void* context;
    std::uint32_t count;
    qel::dump::Source* sources;
    qel_avl tree;
};

namespace qel::dump {
namespace {

// Takes up a segment that replaced the one of the last read: all of it is new, and what the old one held
// since then is lost.
int copy_replacement(Source& source, bool& lost) {
    const View live = view_of(source.dump->handle->segment);
    if (int error = source.dump->copy.take(live); error != 0) return error;
    lost = true;
    source.fresh = whole_lap(source.dump->copy.view());
    source.next = source.end = cursor_of(source.dump->copy.view());
    source.stopper = kNone;
    return 0;
}

// Copies what came since the last read, up to 'end'.
void copy_news(Source& source, bool& lost) {
    const View live = view_of(source.dump->handle->segment);
    source.fresh = range_between(live, source.next, source.end, lost);
    // What is reserved in a whole lap may belong to the next one, which overtakes the reader.
    if (lost)
        source.stopper = kNone;
    else
        stop_at_reserved(live, source.fresh, source);
    source.dump->copy.refresh(live, source.fresh);
    static_cast<void>(
        range_between(live, {source.fresh.start, source.fresh.stamp}, cursor_of(live), source.overtaken));
    source.next = cursor_after(live, source.fresh);
    lost |= source.overtaken || source.dump->copy.disturbed();
}

// Calls visit() inside the buffer's gate, with the copy dropped if it isn't of the segment that is mapped
// now. A buffer that is being replaced, or that went for good at an earlier try, is left out.
template <class Visit>
int visit_inside(Source& source, Visit visit) {
    Inside inside{*source.dump->handle};
    if (inside.error() == kGateBusy) return 0;
    if (inside.error() != 0) return inside.error();
    const BufferHeader* mapping = source.dump->handle->segment.header;
    if (std::exchange(source.mapping, mapping) != mapping) source.dump->copy.drop();
    return visit();
}

int read_cursor(Source& source) {
    source.fresh.length = 0;
    source.overtaken = false;
    return visit_inside(source, [&] {
        source.end = cursor_of(view_of(source.dump->handle->segment));
        return 0;
    });
}

int refresh(Source& source, bool report_lost) {
    return visit_inside(source, [&] {
        bool lost = false;
        int error = 0;
        if (!source.dump->copy.exists())
            error = copy_replacement(source, lost);
        else if (source.end.pack() != source.next.pack())
            copy_news(source, lost);
        source.dump->lost |= lost && report_lost;
        return error;
    });
}

// The most entries that can begin in the fresh blocks.
std::size_t used_blocks(const Source& source) {
    std::size_t used = 0;
    static_cast<void>(walk_blocks(source.dump->copy.view(), source.fresh,
                                  [&](std::uint32_t, ControlEntry control, std::uint32_t) {
                                      used += control.state == BlockState::used;
                                  }));
    return used;
}

// Enters the fresh entries of the source 'index' in the tree, with 'places' for as many as there can be.
bool collect(qel_dt_mst& merged, std::uint32_t index, Place*& places) {
    Source& source = merged.sources[index];
    const Copy& copy = source.dump->copy;
    const bool whole = walk_entries(copy.view(), source.fresh, [&](std::uint32_t block, const Entry& entry) {
        Place* place = new (places++)
            Place{{}, entry.header.seconds, entry.header.nanoseconds, entry.header.sequence, index, block};
        static_cast<void>(qel_avl_insert(&merged.tree, &place->node));  // no two places are equal
    });
    return whole || copy.disturbed() || source.overtaken;
}

struct Giving {
    qel_dt_mst& merged;
    std::uint32_t skip;
};

int give_place(qel_avl_node* node, void* context) {
    auto& giving = *static_cast<Giving*>(context);
    if (giving.skip > 0) return --giving.skip, 0;
    const auto& place = *reinterpret_cast<const Place*>(node);
    qel_dt_dump& dump = *giving.merged.sources[place.source].dump;
    const View& view = dump.copy.view();
    Entry entry;
    if (copy_entry(view, place.block, control_at(view, place.block), entry))
        give_entry(dump, giving.merged.config, entry, giving.merged.context);
    return 0;
}

void give_all(qel_dt_mst& merged) {
    if (merged.config.function == nullptr) return;
    const std::uint32_t most = merged.limits.max_entries;
    Giving giving{merged, most != 0 && most < merged.tree.size ? merged.tree.size - most : 0};
    static_cast<void>(qel_avl_tree_walk(&merged.tree, give_place, &giving));
}

// Enters the fresh entries of all sources in the tree, which lies in 'places'. EBADMSG if one is corrupt; the
// others' are in the tree nevertheless.
int collect_all(qel_dt_mst& merged, Owned<Place>& places) {
    std::size_t most = 0;
    for (std::uint32_t i = 0; i < merged.count; ++i) most += used_blocks(merged.sources[i]);
    places = allocate_zeroed<Place>(QEL_MEM_QDT, std::max<std::size_t>(most, 1));
    if (!places) return ENOMEM;
    merged.tree = {nullptr, by_time, 0, 0};  // qel_avl_tree_init() would make buffers; a reader makes none
    Place* free_place = places.get();
    int result = 0;
    for (std::uint32_t i = 0; i < merged.count; ++i)
        if (!collect(merged, i, free_place)) result = EBADMSG;
    return result;
}

// The first read: all or nothing.
int give_first(qel_dt_mst& merged) {
    Owned<Place> places;
    const int error = collect_all(merged, places);
    if (error == 0) give_all(merged);
    return error;
}

// A later read. Without memory its entries are left for the next one.
int give_news(qel_dt_mst& merged) {
    Owned<Place> places;
    const int error = collect_all(merged, places);
    if (error == 0 || error == EBADMSG) {
        give_all(merged);
        return error;
    }
    for (Source& source : std::span{merged.sources, merged.count})
        if (source.fresh.length > 0) source.next = {source.fresh.start, source.fresh.stamp};
    return error;
}

bool valid_name(const char* name) {
    return name != nullptr && strnlen(name, QEL_DT_NAME_SIZE + 1) <= QEL_DT_NAME_SIZE &&
           std::strchr(name, '/') == nullptr;
}

int open_source(const char* name, const qel_dt_dump_config& config, Source& source) {
    if (int error = qel_dt_init_buffer_dump_handle(name, true, config, &source.dump); error != 0)
        return error;
    const View& copy = source.dump->copy.view();
    source.mapping = source.dump->handle->segment.header;
    source.fresh = whole_lap(copy);
    source.next = cursor_of(copy);
    source.stopper = kNone;
    return 0;
}

void destroy(qel_dt_mst* merged) {
    for (std::uint32_t i = 0; i < merged->count; ++i)
        qel_dt_destroy_buffer_dump_handle(merged->sources[i].dump);
    qel_named_free(merged->sources);
    qel_named_free(merged);
}
using Merged = Unique<qel_dt_mst*, destroy>;

int open_merged(const char* const* names, std::uint32_t count, Merged& out) {
    Owned<qel_dt_mst> merged = allocate_zeroed<qel_dt_mst>(QEL_MEM_QDT);
    Owned<Source> sources = allocate_zeroed<Source>(QEL_MEM_QDT, count);
    if (!merged || !sources) return ENOMEM;
    merged->sources = sources.release();
    out.reset(merged.release());
    for (std::uint32_t i = 0; i < count; ++i) {
        if (int error = open_source(names[i], out.get()->config, out.get()->sources[i]); error != 0)
            return error;
        out.get()->count = i + 1;
    }
    return 0;
}

int init(const char* const* names, int count, const qel_dt_dump_limits* limits,
         const qel_dt_dump_config& config, void* context, qel_dt_mst_handle* out) {
    if (names == nullptr || count < 1 || !std::all_of(names, names + count, valid_name)) return EINVAL;
    Merged merged;
    if (int error = open_merged(names, static_cast<std::uint32_t>(count), merged); error != 0) return error;
    if (limits != nullptr) merged.get()->limits = *limits;
    merged.get()->config = config;
    merged.get()->context = context;
    if (int error = give_first(*merged.get()); error != 0) return error;
    if (out != nullptr) *out = merged.release();
    return 0;
}

}  // namespace
}  // namespace qel::dump

using namespace qel;
using namespace qel::dump;

int qel_dt_buffer_mst_init(const char* const* names, int count, const qel_dt_dump_limits* limits,
                           qel_dt_dump_text callback, void* context, qel_dt_mst_handle* out) {
    return init(names, count, limits, {QEL_DT_DUMP_TEXT, reinterpret_cast<void (*)()>(callback)}, context,
                out);
}

int qel_dt_buffer_mst_init_pfx(const char* const* names, int count, const qel_dt_dump_limits* limits,
                               qel_dt_dump_entry callback, void* context, qel_dt_mst_handle* out) {
    return init(names, count, limits, {QEL_DT_DUMP_ENTRY, reinterpret_cast<void (*)()>(callback)}, context,
                out);
}

int qel_dt_buffer_mst_next(qel_dt_mst_handle merged) {
    if (merged == nullptr) return EINVAL;
    const std::span sources{merged->sources, merged->count};
    int result = 0;
    const auto note = [&](int error) { result = result != 0 ? result : error; };
    for (Source& source : sources) note(read_cursor(source));
    for (Source& source : sources) note(refresh(source, merged->limits.report_lost != 0));
    note(give_news(*merged));
    return result;
}

int qel_dt_buffer_mst_destroy(qel_dt_mst_handle merged) {
    if (merged == nullptr) return EINVAL;
    destroy(merged);
    return 0;
}
