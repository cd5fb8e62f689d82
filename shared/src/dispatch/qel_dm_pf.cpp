// The exported platform layer: the steps of the loop on an instance record, for loops that are built on them.
//
// Each is a step of the files beside this one under its exported name. The caller retains the instance and,
// where the header says so, holds its mutex.
//
// Invariant, threads, restart: those of the steps. Locks: none of its own.
#include "dispatch/qel_dm.hpp"

#include "core/qel_fd.hpp"

namespace qel::dm {
namespace {

void close_platform(Dispatcher& dispatcher) {
    for (int* fd : {&dispatcher.epoll_fd, &dispatcher.pipe_read_fd, &dispatcher.pipe_write_fd})
        if (int open = std::exchange(*fd, -1); open >= 0) close_fd(open);
}

int open_platform(Dispatcher& dispatcher) {
    dispatcher.epoll_fd = dispatcher.pipe_read_fd = dispatcher.pipe_write_fd = -1;
    Undo close{[&] { close_platform(dispatcher); }};
    if (int error = platform::open_event_queue(dispatcher.epoll_fd); error != 0)
        return failed<"QDM60", "%s epoll rc=%d">(error, error);
    if (int error = platform::open_pipe(dispatcher.pipe_read_fd, dispatcher.pipe_write_fd); error != 0)
        return failed<"QDM61", "%s pipe rc=%d">(error, error);
    if (int error =
            platform::arm_pipe(dispatcher.epoll_fd, dispatcher.pipe_read_fd, platform::Operation::add);
        error != 0)
        return failed<"QDM62", "%s epoll_ctl rc=%d">(error, error);
    close.keep();
    return 0;
}

}  // namespace
}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_pf_init(qel_dm_instance* instance, void* native) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (instance == nullptr) return EINVAL;
    dqueue_init(instance->idle_timers, nullptr);
    dqueue_init(instance->expired_timers, nullptr);
    instance->running_timers = {};
    if (native != nullptr) return EOPNOTSUPP;
    return open_platform(*instance);
}

QEL_API int qel_dm_pf_wait(qel_dm_instance* instance, qel_dm_thread_context* tc) {
    return qel_dm_pf_wait_blocking(instance, tc, 1);
}

QEL_API int qel_dm_pf_wait_blocking(qel_dm_instance* instance, qel_dm_thread_context* tc,
                                    int blocking) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (instance == nullptr || tc == nullptr) return EINVAL;
    return wait_step_locked(*instance, *tc, blocking != 0);
}

QEL_API int qel_dm_pf_dispatch(qel_dm_instance* instance, qel_dm_thread_context* tc) {
    if (instance == nullptr || tc == nullptr) return EINVAL;
    dispatch_step(*instance, *tc);
    return 0;
}

QEL_API int qel_dm_pf_event_available(const qel_dm_thread_context* tc) {
    return tc != nullptr && tc->event != kNothing ? 1 : 0;
}

QEL_API int qel_dm_pf_sched_handler(qel_dm_instance* instance, int needed) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (instance == nullptr) return EINVAL;
    return needed != 0 ? try_wake_locked(*instance) : 0;
}

QEL_API int qel_dm_pf_stop_threads(qel_dm_instance* instance) {
    return qel_dm_pf_sched_handler(instance, 1);
}

QEL_API void qel_dm_pf_wait_destroy_postamble(qel_dm_instance* instance,
                                              qel_dm_thread_context* tc) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (instance == nullptr || tc == nullptr) return;
    pass_wake_on_locked(*instance);
}

QEL_API void qel_dm_pf_cleanup(qel_dm_instance* instance) {
    if (instance == nullptr) return;
    free_timers(*instance);
    close_platform(*instance);
}
