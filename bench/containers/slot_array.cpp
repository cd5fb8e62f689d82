#include "containers/slot_array.hpp"

namespace qel_bench {

namespace {

Slot* array = nullptr;
std::uint32_t slots = 0;

Slot* find(std::uint32_t handle) {
    std::uint32_t index = handle & 0xffff;
    return index < slots && array[index].generation == handle >> 16 ? &array[index] : nullptr;
}

}  // namespace

void slot_array_open(Slot* memory, std::uint32_t count) {
    array = memory;
    slots = count;
}

void* slot_array_get(std::uint32_t handle) {
    Slot* slot = find(handle);
    if (slot == nullptr) return nullptr;
    slot->references.fetch_add(1, std::memory_order_acquire);
    return slot->object;
}

bool slot_array_put(std::uint32_t handle) {
    Slot* slot = find(handle);
    if (slot == nullptr) return false;
    slot->references.fetch_sub(1, std::memory_order_acq_rel);
    return true;
}

}  // namespace qel_bench
