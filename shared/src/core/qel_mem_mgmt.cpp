// Named memory: the one way to the heap.
//
// The allocator adds no header and keeps no statistics, so an address from it is an address of the C
// library's heap. The tag travels with every call for the sake of tools that watch the calls; it is not
// stored.
//
// Built for the tests, the file asks a hook before each allocation, by which a test makes the n-th one fail.
#include <qel/mem.h>

#include <array>
#include <cstdlib>

#include "core/qel_mem_mgmt.hpp"

namespace {

constexpr std::array<const char*, 16> kTagNames{
    "QEL_MEM_BASE", "QEL_MEM_UTILS", "QEL_MEM_QDM",   "QEL_MEM_QDT",  "QEL_MEM_TIMER",  "QEL_MEM_IPC",
    "QEL_MEM_INTF", "QEL_MEM_PAK",   "QEL_MEM_VRF",   "QEL_MEM_ADDR", "QEL_MEM_THREAD", "QEL_MEM_HA",
    "QEL_MEM_TEST", "QEL_MEM_RTG",   "QEL_MEM_ASYNC", "QEL_MEM_PLC"};
static_assert(kTagNames.size() == QEL_MEM_PLC + 1);

}  // namespace

#if defined(QEL_ALLOCATION_HOOK)
namespace qel {
constinit std::atomic<AllocationHook> allocation_hook{nullptr};
}

static bool allowed() {
    qel::AllocationHook hook = qel::allocation_hook.load();
    return hook == nullptr || hook();
}
#else
static constexpr bool allowed() {
    return true;
}
#endif

void* qel_named_malloc_(uint64_t size, const char*, uint32_t) {
    return allowed() ? std::malloc(size) : nullptr;
}

void* qel_named_calloc_(uint64_t count, uint64_t size, const char*, uint32_t) {
    return allowed() ? std::calloc(count, size) : nullptr;
}

void* qel_named_realloc(void* memory, uint64_t size) {
    if (size == 0) {
        std::free(memory);
        return nullptr;
    }
    return allowed() ? std::realloc(memory, size) : nullptr;
}

void qel_named_free(void* memory) {
    std::free(memory);
}

int _qel_named_init(void) {
    return 0;
}

int _qel_named_uninit(void) {
    return 0;
}

const char* qel_tag_e_get_string(uint32_t tag) {
    return tag < kTagNames.size() ? kTagNames[tag] : nullptr;
}
