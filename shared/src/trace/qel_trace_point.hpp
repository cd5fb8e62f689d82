// Trace points: formats parsed into argument types, and their shared list.
#pragma once

#include <qel/dt_buffer.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "trace/qel_trace_format.hpp"

namespace qel {

// The argument types of a format: 4 bits an argument, the first one lowest. As a type takes 3 bits, the
// topmost bit is free to tell a format without arguments from no format at all.
class ArgumentPlan {
  public:
    constexpr ArgumentPlan() = default;
    explicit constexpr ArgumentPlan(const std::uint32_t (&types)[2])
        : word_(kKnown | std::uint64_t{types[1]} << 32 | types[0]) {}

    explicit constexpr operator bool() const { return word_ != 0; }
    constexpr bool operator==(const ArgumentPlan&) const = default;
    // Takes the next type off; none at the end.
    constexpr ArgumentType take() {
        auto type = static_cast<ArgumentType>(word_ & 7);
        word_ >>= 4;
        return type;
    }

  private:
    static constexpr std::uint64_t kKnown = std::uint64_t{1} << 63;
    std::uint64_t word_ = 0;
};

// The plans of the formats that this process has registered, by index. They come from the process's own
// format texts, never from the shared list: what another process writes there must not make a number read as
// an address.
inline constinit std::array<std::atomic<ArgumentPlan>, QEL_DT_TP_CAPACITY> argument_plans{};
static_assert(std::atomic<ArgumentPlan>::is_always_lock_free);

// No plan for an index that this process did not register.
inline ArgumentPlan argument_plan(std::uint32_t index) {
    return index < argument_plans.size() ? argument_plans[index].load(std::memory_order_acquire)
                                         : ArgumentPlan{};
}

// Gives the index of 'format' in the shared list, entering it if it is new there, and keeps its plan. The
// list has to be mapped. EINVAL for a bad format, E2BIG for a wrong number of arguments, ENOSPC with a full
// list.
int point_register(const char* format, std::uint32_t least_args, std::uint32_t& index);

// Each open buffer holds the list, apart from the holds that an application takes and gives back.
int point_list_hold();
void point_list_release();

// For the child of a fork, where another thread's hold on the lock has no end.
void point_list_reset_lock();

}  // namespace qel
