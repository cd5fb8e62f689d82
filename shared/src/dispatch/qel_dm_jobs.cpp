// Local jobs, and the wake-up of threads that wait.
//
// A job is queued under the instance's mutex and run by whichever serving thread gets to it, oldest first. A
// thread looks at the queue when it enters the wait step, so a wake-up is needed only for threads that are in
// it already, and only when the queue was empty: then they are told through the pipe.
//
// The pipe's read end is registered one-shot. The first wake-up writes the byte "H". The byte then stays in
// the pipe: picking the event silences the descriptor, and the next wake-up is to arm it again, one call to
// the kernel on this side and none on the other.
//
//         claim (waiters > 0)                        picked: a thread returns from the kernel with it
//   quiet --------------------> wake in flight ---------------------------------------------> quiet
//
// Invariant, whenever 'mutex' is free: if jobs are queued and threads are in the wait step, then a wake-up is
// in flight or a thread runs jobs and looks again when its job ends, however it ends.
// Locks: 'mutex' guards queue and state; a wake-up is delivered without it where that is possible, so that
// the woken thread does not run into it. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

namespace qel::dm {
namespace {

// So many jobs run before the kernel is asked again, so that jobs which queue jobs don't starve the rest.
constexpr std::uint32_t kJobLimit = 1024;

struct Job {
    qel_dqueue link;
    qel_dm_job handler;
    std::uint64_t data;
    std::uint64_t modifier;
    std::uint64_t ticket;  // unique in the dispatcher; the address alone may be another job's by now
};

Job* enqueue_locked(Dispatcher& dispatcher, qel_dm_job handler, std::uint64_t data, std::uint64_t modifier)
    QEL_REQUIRES(dispatcher.mutex) {
    Job* job = allocate<Job>(dispatcher);
    if (job == nullptr) return nullptr;
    job->handler = handler;
    job->data = data;
    job->modifier = modifier;
    job->ticket = dispatcher.jobs_queued++;
    dqueue_insert(job->link, dispatcher.jobs);
    return job;
}

void wake_failed_locked(Dispatcher& dispatcher, Wake wake) QEL_REQUIRES(dispatcher.mutex) {
    dispatcher.wake_in_flight = false;
    if (wake == Wake::write) dispatcher.pipe_holds_byte = false;
}

// Takes a job back; false if a thread took it in the meantime.
bool withdraw_locked(Dispatcher& dispatcher, std::uint64_t ticket) QEL_REQUIRES(dispatcher.mutex) {
    for (qel_dqueue* link = dispatcher.jobs.next; link != &dispatcher.jobs; link = link->next) {
        if (reinterpret_cast<Job*>(link)->ticket != ticket) continue;
        dqueue_remove(*link);
        give_back(dispatcher, link);
        return true;
    }
    return false;
}

// The end of a post whose wake-up failed.
int give_up_locked(Dispatcher& dispatcher, std::uint64_t ticket, Wake wake, int error)
    QEL_REQUIRES(dispatcher.mutex) {
    wake_failed_locked(dispatcher, wake);
    if (!withdraw_locked(dispatcher, ticket)) return 0;
    return dispatcher.destroy_pending() ? EINVAL : error;
}

// A queued job, and the wake-up that its poster has to deliver.
struct Posted {
    int error;
    Wake wake;
    std::uint64_t ticket;
};

Posted post_locked(Dispatcher& dispatcher, qel_dm_job handler, std::uint64_t data, std::uint64_t modifier)
    QEL_REQUIRES(dispatcher.mutex) {
    if (dispatcher.destroy_pending()) return {EINVAL, Wake::none, 0};
    bool was_empty = dqueue_is_initial(dispatcher.jobs);
    Job* job = enqueue_locked(dispatcher, handler, data, modifier);
    if (job == nullptr) return {no_memory<"QDM41">(), Wake::none, 0};
    return {0, was_empty ? claim_wake_locked(dispatcher) : Wake::none, job->ticket};
}

int post(Dispatcher& dispatcher, qel_dm_job handler, std::uint64_t data, std::uint64_t modifier) {
    Posted posted{};
    {
        Locked lock{dispatcher.mutex};
        posted = post_locked(dispatcher, handler, data, modifier);
    }
    if (posted.wake == Wake::none) return posted.error;
    int error = deliver_wake(dispatcher, posted.wake);
    if (error == 0) return 0;
    Locked lock{dispatcher.mutex};
    return give_up_locked(dispatcher, posted.ticket, posted.wake, error);
}

Wake wake_for_jobs_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    return dqueue_is_initial(dispatcher.jobs) ? Wake::none : claim_wake_locked(dispatcher);
}

// On a thread that leaves the queue, by return or by the end of the thread: others take over what is left.
class JobRun {
  public:
    explicit JobRun(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) : dispatcher_(dispatcher) {}
    ~JobRun() noexcept(false) QEL_NO_THREAD_SAFETY_ANALYSIS {
        if (dispatcher_.destroy_pending() || !dqueue_is_initial(dispatcher_.jobs)) wake_locked(dispatcher_);
    }

  private:
    Dispatcher& dispatcher_;
};

// Runs the oldest job with the lock let go; false if there is none to run.
bool run_oldest_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    Job* job = dispatcher.destroy_pending() ? nullptr : oldest<Job>(dispatcher.jobs);
    if (job == nullptr) return false;
    const Job taken = *job;
    dqueue_remove(job->link);
    give_back(dispatcher, job);
    ++dispatcher.jobs_since_poll;
    Wake wake = wake_for_jobs_locked(dispatcher);
    while_unlocked(dispatcher, [&] {
        // A failure is reported there; this job runs in any case, and its thread looks at the queue again.
        static_cast<void>(deliver_wake(dispatcher, wake));
        taken.handler(dispatcher.handle, taken.data, taken.modifier);
    });
    return true;
}

}  // namespace

Wake claim_wake_locked(Dispatcher& dispatcher) {
    if (dispatcher.waiters == 0 || dispatcher.wake_in_flight) return Wake::none;
    dispatcher.wake_in_flight = true;
    if (dispatcher.pipe_holds_byte) return Wake::arm;
    dispatcher.pipe_holds_byte = true;
    return Wake::write;
}

int deliver_wake(Dispatcher& dispatcher, Wake wake) {
    if (wake == Wake::none) return 0;
    int error = wake == Wake::write ? platform::write_wake_byte(dispatcher.pipe_write_fd)
                                    : platform::arm_pipe(dispatcher.epoll_fd, dispatcher.pipe_read_fd,
                                                         platform::Operation::modify);
    if (error != 0) report<"QDM40", "%s wake-up rc=%d">(error);
    return error;
}

void wake_locked(Dispatcher& dispatcher) {
    Wake wake = claim_wake_locked(dispatcher);
    if (deliver_wake(dispatcher, wake) != 0) wake_failed_locked(dispatcher, wake);
}

int execute_locked(Dispatcher& dispatcher, qel_dm_job job, std::uint64_t data, std::uint64_t modifier) {
    Posted posted = post_locked(dispatcher, job, data, modifier);
    if (posted.wake == Wake::none) return posted.error;
    int error = deliver_wake(dispatcher, posted.wake);
    return error == 0 ? 0 : give_up_locked(dispatcher, posted.ticket, posted.wake, error);
}

bool job_limit_reached_locked(Dispatcher& dispatcher) {
    return dispatcher.jobs_since_poll >= kJobLimit;
}

void run_jobs(Dispatcher& dispatcher, Context& context) {
    Locked lock{dispatcher.mutex};
    JobRun run{dispatcher};
    while (!job_limit_reached_locked(dispatcher))
        if (!run_oldest_locked(dispatcher) || context.xd_event != 0) return;
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_execute(qel_dm_handle handle, qel_dm_job job, std::uint64_t data, std::uint64_t modifier) {
    qel_check_not_interrupt_path();
    if (job == nullptr) return bad_argument<"QDM30">("handler");
    dm::Retained dispatcher = retain(handle);
    if (!dispatcher) return bad_argument<"QDM31">("qdm");
    return post(*dispatcher, job, data, modifier);
}
