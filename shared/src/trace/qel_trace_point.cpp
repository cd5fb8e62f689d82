// The shared list of trace points: each distinct format has one index in the whole machine.
//
// The list only grows. A place is claimed by moving its length from 0 with a compare-and-swap; then the
// record is copied in, the first byte of the text last. Who meets a matching length without a text waits a
// moment for it; if the claimer has died the place is lost and the format gets another one.
//
// Invariant: an argument plan, once kept for an index, never changes in this process. If the list was removed
// and made anew, a format that gets the index of another one from before is refused, since sites of both
// could be alive. Locks: the list lock guards mapping and holds. Registering takes none; its caller holds the
// list. Restart: places and indices stay.
#include "trace/qel_trace_point.hpp"

#include <qel/shm.h>
#include <sched.h>

#include <cerrno>
#include <cstring>

#include "core/qel_lock.hpp"

namespace qel {

namespace {

constexpr const char* kListName = "qel_trace.tpl";
// For one registration in all: a hostile list may owe a text at every place.
constexpr int kTextYields = 256;

constinit Mutex list_lock;
constinit qel_shm_info list_info QEL_GUARDED_BY(list_lock){};
constinit std::uint32_t buffer_holds QEL_GUARDED_BY(list_lock) = 0;
constinit std::uint32_t application_holds QEL_GUARDED_BY(list_lock) = 0;
constinit std::atomic<qel_dt_tp_list*> mapped_list{nullptr};

int write_empty_list(qel_shm_info* info, void*) {
    auto* list = static_cast<qel_dt_tp_list*>(info->addr);
    list->version = kPointListVersion;
    list->capacity = QEL_DT_TP_CAPACITY;
    return 0;
}

int map_list_locked() QEL_REQUIRES(list_lock) {
    qel_shm_info info{};
    int error = qel_shm_safe_open(kListName, QEL_SHM_CREATE | QEL_SHM_EXACT_SIZE, sizeof(qel_dt_tp_list),
                                  kPointListSegmentMagic, write_empty_list, nullptr, 0, &info);
    if (error != 0) return error;
    auto* list = static_cast<qel_dt_tp_list*>(info.addr);
    if (list->version != kPointListVersion) {
        qel_shm_close(&info);
        return EBADF;
    }
    list_info = info;
    mapped_list.store(list, std::memory_order_release);
    return 0;
}

int hold_locked(std::uint32_t& holds) QEL_REQUIRES(list_lock) {
    if (mapped_list.load(std::memory_order_relaxed) == nullptr)
        if (int error = map_list_locked(); error != 0) return error;
    ++holds;
    return 0;
}

int release_locked(std::uint32_t& holds) QEL_REQUIRES(list_lock) {
    if (holds == 0) return EINVAL;
    --holds;
    if (buffer_holds + application_holds != 0) return 0;
    mapped_list.store(nullptr, std::memory_order_release);
    qel_shm_close(&list_info);
    return 0;
}

// The first byte of an entry's text, once its claimer has written the text; 0 if 'yields' run out before.
char await_text(qel_dt_tp_entry& entry, int& yields) {
    std::atomic_ref<char> first{entry.format[0]};
    for (;; --yields) {
        char seen = first.load(std::memory_order_acquire);  // A1: with R1 the text and its types are there.
        if (seen != '\0' || yields == 0) return seen;
        sched_yield();
    }
}

bool same_format(qel_dt_tp_entry& entry, const qel_dt_tp_entry& wanted, int& yields) {
    return await_text(entry, yields) == wanted.format[0] &&
           std::memcmp(entry.format, wanted.format, wanted.length + 1) == 0;
}

void fill_entry(qel_dt_tp_list& list, qel_dt_tp_entry& entry, const qel_dt_tp_entry& record) {
    entry.fixed_size = record.fixed_size;
    entry.argument_count = record.argument_count;
    entry.reserved = 0;
    entry.extended = record.extended;
    std::memcpy(entry.types, record.types, sizeof entry.types);
    std::memcpy(entry.format + 1, record.format + 1, sizeof entry.format - 1);
    std::atomic_ref<char>{entry.format[0]}.store(record.format[0], std::memory_order_release);  // R1
    std::atomic_ref<std::uint32_t>{list.count}.fetch_add(1, std::memory_order_relaxed);
}

// True if 'entry' holds the record's format now, whether it did before or was free.
bool find_or_claim(qel_dt_tp_list& list, qel_dt_tp_entry& entry, const qel_dt_tp_entry& record, int& yields) {
    std::atomic_ref<std::uint32_t> length{entry.length};
    std::uint32_t seen = length.load(std::memory_order_acquire);
    if (seen == 0 && length.compare_exchange_strong(seen, record.length)) {
        fill_entry(list, entry, record);
        return true;
    }
    return seen == record.length && same_format(entry, record, yields);
}

// False if this process knows another format by that index.
bool plan_fits(std::uint32_t index, ArgumentPlan plan) {
    ArgumentPlan kept = argument_plan(index);
    return !kept || kept == plan;
}

bool keep_plan(std::uint32_t index, ArgumentPlan plan) {
    ArgumentPlan kept{};
    return argument_plans[index].compare_exchange_strong(kept, plan) || kept == plan;
}

}  // namespace

int point_register(const char* format, std::uint32_t least_args, std::uint32_t& index) {
    qel_dt_tp_entry record;
    if (int error = qel_dt_init_tp(format, least_args, &record, 0); error != 0) return error;
    qel_dt_tp_list* list = mapped_list.load(std::memory_order_acquire);
    if (list == nullptr) return ENOENT;
    const ArgumentPlan plan{record.types};
    int yields = kTextYields;
    for (index = 0; index < QEL_DT_TP_CAPACITY; ++index)
        if (plan_fits(index, plan) && find_or_claim(*list, list->entries[index], record, yields) &&
            keep_plan(index, plan))
            return 0;
    return ENOSPC;
}

int point_list_hold() {
    Locked lock{list_lock};
    return hold_locked(buffer_holds);
}

void point_list_release() {
    Locked lock{list_lock};
    static_cast<void>(release_locked(buffer_holds));  // Paired with point_list_hold().
}

void point_list_reset_lock() {
    list_lock = Mutex{};
}

}  // namespace qel

int qel_dt_tp_list_open(void) {
    qel::Locked lock{qel::list_lock};
    return qel::hold_locked(qel::application_holds);
}

int qel_dt_tp_list_close(void) {
    qel::Locked lock{qel::list_lock};
    return qel::release_locked(qel::application_holds);
}

const qel_dt_tp_list* qel_dt_tp_list_get(void) {
    return qel::mapped_list.load(std::memory_order_acquire);
}
