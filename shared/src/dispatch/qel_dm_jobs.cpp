// Local jobs, and the wake-up of threads that wait.
//
// Posters and runners meet in 'mutex' once a batch only. A poster puts its job into 'jobs'; a runner takes
// jobs from 'batch', one at a time, and when that is spent moves over all of 'jobs'. The batch is open to
// every serving thread, so a job that blocks holds up no other. Taking a job only reads its element: the
// batch's end moves on to the next, which is fetched ahead, since a poster on another core wrote it. The
// elements of a spent batch come back to the posters as spares, all at once.
//
// A thread looks for jobs when it enters the wait step, so a wake-up is needed only for threads that are in
// it already: when a job comes to an empty queue, and before a runner starts a job while more are left. They
// are told through the pipe. Its read end is registered one-shot. The first wake-up writes the byte "H". The
// byte then stays in the pipe: picking the event silences the descriptor, and the next wake-up is to arm it
// again, one call to the kernel on this side and none on the other.
//
//         claim (waiters > 0)                        picked: a thread returns from the kernel with it
//   quiet --------------------> wake in flight ---------------------------------------------> quiet
//
// Invariant, whenever 'mutex' is free: if there are jobs in either queue and threads in the wait step, then a
// wake-up is in flight, or a thread has the jobs in hand: it takes them next, or wakes another thread before
// a job of its own can block. tests/dispatch/model/ searches all interleavings for this. Locks:
// 'batch_mutex', then 'mutex'. A wake-up is delivered without them where that is possible, so that the woken
// thread does not run into them. Threads: any. Restart: nothing stays.
#include "dispatch/qel_dm.hpp"

#include <qel/base.h>

#include <utility>

namespace qel::dm {
namespace {

// So many jobs run before the kernel is asked again, so that jobs which queue jobs don't starve the rest.
constexpr std::uint32_t kJobLimit = 1024;
// Elements of jobs that ran are kept for the next ones: as many as the load needs, up to the first number.
// Each time that a runner finds nothing to do, a few of those above the second go back to the pool.
constexpr std::uint32_t kMaxSpares = 16384;
constexpr std::uint32_t kIdleSpares = 256;
constexpr int kSparesFreedAtOnce = 8;

struct Job {
    qel_dqueue link;
    qel_dm_job handler;
    std::uint64_t data;
    std::uint64_t modifier;
    std::uint64_t ticket;  // unique in the dispatcher; the address alone may be another job's by now
};

Job* take_spare_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    Job* spare = oldest<Job>(dispatcher.spare_jobs);
    if (spare == nullptr) return nullptr;
    dqueue_remove(spare->link);
    --dispatcher.spare_count;
    return spare;
}

Job* enqueue_locked(Dispatcher& dispatcher, qel_dm_job handler, std::uint64_t data, std::uint64_t modifier)
    QEL_REQUIRES(dispatcher.mutex) {
    Job* job = take_spare_locked(dispatcher);
    if (job == nullptr) job = allocate<Job>(dispatcher);
    if (job == nullptr) return nullptr;
    job->handler = handler;
    job->data = data;
    job->modifier = modifier;
    job->ticket = dispatcher.jobs_queued++;
    ++dispatcher.job_count;
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
        --dispatcher.job_count;
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

void set_batch_holds_jobs(Dispatcher& dispatcher, bool holds) QEL_REQUIRES(dispatcher.batch_mutex) {
    std::atomic_ref{dispatcher.batch_holds_jobs}.store(holds, std::memory_order_relaxed);
}

// The oldest job of the batch that was not taken yet, or null.
Job* next_in_batch(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.batch_mutex) {
    qel_dqueue* link = dispatcher.batch_end->prev;
    return link == &dispatcher.batch ? nullptr : reinterpret_cast<Job*>(link);
}

// The elements of the spent batch go to the posters, unless those have enough.
void hand_spares_over_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.batch_mutex, dispatcher.mutex) {
    dqueue_move_all(dispatcher.batch, dispatcher.done_jobs);
    dispatcher.batch_end = &dispatcher.batch;
    if (dispatcher.spare_count + dispatcher.done_count > kMaxSpares) return;
    dqueue_move_all(dispatcher.done_jobs, dispatcher.spare_jobs);
    dispatcher.spare_count += std::exchange(dispatcher.done_count, 0);
}

// Gives the element of the job taken last to the pool when there are more than the posters will get.
void drop_surplus(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.batch_mutex) {
    qel_dqueue* spent = dispatcher.batch_end;
    if (dispatcher.done_count <= kMaxSpares || spent == &dispatcher.batch) return;
    dispatcher.batch_end = spent->next;
    dqueue_remove(*spent);
    --dispatcher.done_count;
    give_back(dispatcher, spent);
}

void trim_spares_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    for (int i = 0; i < kSparesFreedAtOnce && dispatcher.spare_count > kIdleSpares; ++i)
        give_back(dispatcher, take_spare_locked(dispatcher));
}

// Fills the spent batch with all that is queued. False when there is nothing to run.
bool refill(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.batch_mutex) {
    Locked lock{dispatcher.mutex};
    hand_spares_over_locked(dispatcher);
    if (dispatcher.destroy_pending()) return false;
    if (dqueue_is_initial(dispatcher.jobs)) trim_spares_locked(dispatcher);
    dqueue_move_all(dispatcher.jobs, dispatcher.batch);
    dispatcher.done_count += std::exchange(dispatcher.job_count, 0);  // As the batch will have, once spent.
    const bool filled = next_in_batch(dispatcher) != nullptr;
    set_batch_holds_jobs(dispatcher, filled);
    return filled;
}

// Takes the oldest job. 'more' says whether the batch holds others.
bool take_oldest(Dispatcher& dispatcher, Job& out, bool& more) {
    Locked lock{dispatcher.batch_mutex};
    if (next_in_batch(dispatcher) == nullptr && !refill(dispatcher)) return false;
    drop_surplus(dispatcher);
    Job* job = next_in_batch(dispatcher);
    dispatcher.batch_end = &job->link;
    out = *job;
    Job* next = next_in_batch(dispatcher);
    __builtin_prefetch(next);
    more = next != nullptr;
    if (!more) set_batch_holds_jobs(dispatcher, false);
    return true;
}

// Gives the rest of the batch to a thread that waits, if one does. Such a thread came into the wait step
// before the batch was filled, so its count is visible here; one that comes later looks at the batch itself.
void share_batch(Dispatcher& dispatcher) {
    if (!dispatcher.someone_waits()) return;
    Wake wake = Wake::none;
    {
        Locked lock{dispatcher.mutex};
        wake = claim_wake_locked(dispatcher);
    }
    if (deliver_wake(dispatcher, wake) == 0) return;
    // This thread looks at the batch again in any case.
    Locked lock{dispatcher.mutex};
    wake_failed_locked(dispatcher, wake);
}

// On a thread that runs jobs: unless it found none left, others take over when it leaves, by return or by the
// end of the thread.
class JobRun {
  public:
    explicit JobRun(Dispatcher& dispatcher) : dispatcher_(dispatcher) {}
    ~JobRun() noexcept(false) {
        if (finished_) return;
        Locked lock{dispatcher_.mutex};
        if (dispatcher_.destroy_pending() || has_jobs_locked(dispatcher_)) wake_locked(dispatcher_);
    }
    void finish() { finished_ = true; }

  private:
    Dispatcher& dispatcher_;
    bool finished_ = false;
};

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

int try_wake_locked(Dispatcher& dispatcher) {
    Wake wake = claim_wake_locked(dispatcher);
    int error = deliver_wake(dispatcher, wake);
    if (error != 0) wake_failed_locked(dispatcher, wake);
    return error;
}

int execute_locked(Dispatcher& dispatcher, qel_dm_job job, std::uint64_t data, std::uint64_t modifier) {
    Posted posted = post_locked(dispatcher, job, data, modifier);
    if (posted.wake == Wake::none) return posted.error;
    int error = deliver_wake(dispatcher, posted.wake);
    return error == 0 ? 0 : give_up_locked(dispatcher, posted.ticket, posted.wake, error);
}

bool has_jobs_locked(Dispatcher& dispatcher) {
    return !dqueue_is_initial(dispatcher.jobs) ||
           std::atomic_ref{dispatcher.batch_holds_jobs}.load(std::memory_order_relaxed);
}

bool both_queues_hold_jobs_locked(Dispatcher& dispatcher) {
    return !dqueue_is_initial(dispatcher.jobs) &&
           std::atomic_ref{dispatcher.batch_holds_jobs}.load(std::memory_order_relaxed);
}

bool job_limit_reached(Dispatcher& dispatcher) {
    return std::atomic_ref{dispatcher.jobs_since_poll}.load(std::memory_order_relaxed) >= kJobLimit;
}

void run_jobs(Dispatcher& dispatcher, Context& context) {
    JobRun run{dispatcher};
    Job job;
    bool more = false;
    while (!job_limit_reached(dispatcher) && !dispatcher.destroy_pending()) {
        if (!take_oldest(dispatcher, job, more)) return run.finish();
        std::atomic_ref taken{dispatcher.jobs_since_poll};
        taken.store(taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (more) share_batch(dispatcher);
        job.handler(dispatcher.handle, job.data, job.modifier);
        if (context.xd_event != 0) return;
    }
}

void free_jobs(Dispatcher& dispatcher) {
    for (qel_dqueue* queue :
         {&dispatcher.jobs, &dispatcher.spare_jobs, &dispatcher.batch, &dispatcher.done_jobs})
        give_back_all(dispatcher, *queue);
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
