// The list of buffer names: 900 slots in a segment that is mapped for the length of each call.
//
// A slot is owned by who moves its state from free, or back from in use, to writing; in use is stored when
// the name is complete. A creator that died behind its entry leaves a name, so the next creator of that
// buffer looks for it first. One that died while writing leaves a slot that is lost.
//
// Threads: any, in any process; no locks.
#include "trace/qel_trace_names.hpp"

#include <qel/dt_buffer.h>
#include <qel/shm.h>

#include <cerrno>
#include <cstring>
#include <span>

#include "core/qel_owned.hpp"
#include "trace/qel_trace_format.hpp"

namespace qel {

namespace {

constexpr const char* kListName = "qdt_buffers";

int write_empty_names(qel_shm_info* info, void*) {
    auto* list = static_cast<NameList*>(info->addr);
    std::memcpy(list->magic, "wwww", sizeof list->magic);
    list->slot_count = kMaxNames;
    list->capacity = kMaxNames;
    return 0;
}

class MappedNames {
  public:
    MappedNames() = default;
    MappedNames(const MappedNames&) = delete;
    MappedNames& operator=(const MappedNames&) = delete;
    ~MappedNames() { qel_shm_close(&info_); }

    int open_or_create() {
        return qel_shm_safe_open(kListName, QEL_SHM_CREATE | QEL_SHM_EXACT_SIZE, sizeof(NameList),
                                 kNameListSegmentMagic, write_empty_names, nullptr, 0, &info_);
    }
    // ENOENT without a list.
    int open() {
        int error = qel_shm_safe_open(kListName, 0, 0, kNameListSegmentMagic, nullptr, nullptr, 0, &info_);
        if (error != 0) return error;
        return info_.size >= sizeof(NameList) ? 0 : EINVAL;
    }
    std::span<NameSlot, kMaxNames> slots() { return static_cast<NameList*>(info_.addr)->slots; }

  private:
    qel_shm_info info_{};
};

bool move_state(NameSlot& slot, NameState from, NameState to) {
    return std::atomic_ref<NameState>{slot.state}.compare_exchange_strong(from, to);
}

bool in_use(NameSlot& slot) {
    return std::atomic_ref<NameState>{slot.state}.load(std::memory_order_acquire) == NameState::in_use;
}

bool holds_name(NameSlot& slot, const char* name) {
    return in_use(slot) && std::strncmp(slot.name, name, sizeof slot.name) == 0;
}

// For the owner of a slot that is being written.
void write_name(NameSlot& slot, const char* name, NameState state) {
    std::memset(slot.name, 0, sizeof slot.name);
    std::memcpy(slot.name, name, strnlen(name, sizeof slot.name - 1));
    std::atomic_ref<NameState>{slot.state}.store(state, std::memory_order_release);
}

using NameText = char[QEL_DT_NAME_SIZE];

std::size_t copy_names(std::span<NameSlot, kMaxNames> slots, NameText* out) {
    std::size_t count = 0;
    for (NameSlot& slot : slots) {
        if (!in_use(slot)) continue;
        std::memcpy(out[count], slot.name, sizeof slot.name);
        out[count++][QEL_DT_NAME_SIZE - 1] = '\0';
    }
    return count;
}

// One copy of all names, so that the callback runs while nothing of the list is mapped.
int snapshot_names(Owned<NameText>& names, std::size_t& count) {
    MappedNames list;
    if (int error = list.open(); error != 0) return error;
    names = allocate_zeroed<NameText>(QEL_MEM_QDT, kMaxNames);
    if (!names) return ENOMEM;
    count = copy_names(list.slots(), names.get());
    return 0;
}

}  // namespace

int name_list_enter(const char* name) {
    MappedNames list;
    if (int error = list.open_or_create(); error != 0) return error;
    for (NameSlot& slot : list.slots())
        if (holds_name(slot, name)) return 0;
    for (NameSlot& slot : list.slots()) {
        if (!move_state(slot, NameState::free, NameState::writing)) continue;
        write_name(slot, name, NameState::in_use);
        return 0;
    }
    return ENOSPC;
}

void name_list_remove(const char* name) {
    MappedNames list;
    if (list.open() != 0) return;
    for (NameSlot& slot : list.slots())
        if (holds_name(slot, name) && move_state(slot, NameState::in_use, NameState::writing))
            write_name(slot, "", NameState::free);
}

}  // namespace qel

int qel_dt_buffer_get_names(qel_dt_buffer_names_callback callback, void* context) {
    if (callback == nullptr) return EINVAL;
    qel::Owned<qel::NameText> names;
    std::size_t count = 0;
    if (int error = qel::snapshot_names(names, count); error != 0) return error;
    return callback(names.get(), count, context);
}
