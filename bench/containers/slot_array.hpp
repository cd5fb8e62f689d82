// The least that resolving a handle can be: an array of slots with a generation and a count each.
//
// No lock, no last release, no test for a slot in use, no second table. It lives in a shared object, as ours
// does, so that both are called the same way; get and put both test the handle.
#pragma once

#include <atomic>
#include <cstdint>

namespace qel_bench {

struct Slot {
    void* object;
    std::uint32_t generation;
    std::atomic<std::uint32_t> references;
};

// A handle is a slot's index with its generation above 16 bits.
void slot_array_open(Slot* slots, std::uint32_t count);
void* slot_array_get(std::uint32_t handle);
bool slot_array_put(std::uint32_t handle);

}  // namespace qel_bench
