// Start and stop of the network services together.
//
// Each service is a row of a table: how it starts, and how it is stopped when one behind it fails to start. A
// stop waits for the operations first, and goes through a table of its own.
//
// Locks: 'netinfra_init_mutex' over all of start and stop, outermost. Threads: any; not one of a service's
// own, since the stop waits for those. Restart: nothing stays but the application's dispatcher.
#include <qel/async.h>
#include <qel/base.h>
#include <qel/netinfra.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <span>

#include "core/qel_codes.hpp"
#include "core/qel_lock.hpp"
#include "net/qel_async.hpp"
#include "net/qel_if.hpp"

namespace qel {
namespace {

struct Service {
    cerrno (*start)(std::uint32_t word);
    void (*undo)();
};

cerrno register_interface_shims(std::uint32_t) {
    return interfaces::register_shims();
}
void keep() {}

constexpr std::array kServices{Service{register_interface_shims, keep},
                               Service{qel_async_impl_init, qel_async_impl_fini}};
constexpr std::array kStops{qel_async_impl_fini, interfaces::deregister_shims};

constinit Mutex netinfra_init_mutex;
constinit std::atomic<bool> netinfra_init_done{false};
constinit std::atomic<qel_dm_handle> netinfra_qdm{0};

cerrno start_all(std::uint32_t word) {
    for (std::size_t i = 0; i < kServices.size(); ++i) {
        const cerrno error = kServices[i].start(word);
        if (error == 0) continue;
        for (const Service& started : std::span{kServices}.first(i)) started.undo();
        return error;
    }
    return 0;
}

}  // namespace
}  // namespace qel

using namespace qel;

cerrno qel_netinfra_register_qdm(qel_dm_handle dispatcher) {
    if (qel_dm_is_handle(dispatcher) == 0) return fatal(EINVAL);
    qel_dm_handle none = 0;
    return netinfra_qdm.compare_exchange_strong(none, dispatcher) ? 0 : fatal(EBUSY);
}

qel_dm_handle qel_netinfra_get_qdm(void) {
    return netinfra_qdm.load();
}

int qel_netinfra_is_init(void) {
    return netinfra_init_done.load() ? 1 : 0;
}

cerrno qel_netinfra_init(uint32_t word) {
    qel_check_not_interrupt_path();
    Locked lock{netinfra_init_mutex};
    if (netinfra_init_done.load()) return fatal(EBUSY);
    const cerrno error = start_all(word);
    netinfra_init_done.store(error == 0);
    return error;
}

cerrno qel_netinfra_fini(void) {
    qel_check_not_interrupt_path();
    if (async::is_sync_thread()) return fatal(EDEADLK);
    Locked lock{netinfra_init_mutex};
    if (!netinfra_init_done.load()) return fatal(ENOENT);
    qel_async_impl_drain_ops();
    for (auto stop : kStops) stop();
    netinfra_init_done.store(false);
    return 0;
}

bool qel_is_both_set_or_both_unset(const void* first, const void* second) {
    return (first == nullptr) == (second == nullptr);
}

int qel_is_either_or_neither_set(const void* first, const void* second) {
    if (first == nullptr && second == nullptr) return 0;
    return first != nullptr && second != nullptr ? -1 : 1;
}
