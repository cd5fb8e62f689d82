// The dispatcher's pool: threads that run its wait and dispatch steps and keep their own number right.
//
//                     starts another, if too few wait
//     start --> waiting ------------------------------> dispatching --> back to waiting, or
//                  | the wait failed                         |          end, if enough wait
//                  v                                         v
//                 end                       end, when the handler ends its thread; another if too few wait
//
// A thread leaves the wait with its event in hand and comes back to be counted with none, so one that ends by
// the count has nothing to pass on; who ends in between is seen to by the guards of the loop.
//
// Invariant, whenever 'mutex' is free: 0 <= waiting <= threads <= max_threads and waiting <= max_wait. Both
// are counted before a thread exists and count it until it can't touch the pool's fields any more; PoolThread
// takes it out on every way that its stack can end.
// Locks: 'mutex', let go around the two handlers and the start of further threads. It is held while the first
// threads are started: they wait for it before they do anything, and so know whether all could be started.
// Threads: any may create; a pool thread may destroy. Restart: nothing stays.
#include <qel/base.h>
#include <qel/cerrno.h>
#include <qel/dm_threadpool.h>
#include <qel/ppm.h>

#include <algorithm>
#include <array>

#include "core/qel_owned.hpp"
#include "dispatch/qel_dm.hpp"
#include "dispatch/qel_thread_attr.hpp"

namespace qel::dm {
namespace {

// ---- Limits

constexpr std::uint32_t kGreatestLimit = INT16_MAX;  // as the instance stores them

struct LimitParameter {
    const char* key;
    std::uint32_t fallback;
    std::uint16_t qel_dm_threadpool_attr::*limit;
};
constexpr std::array<LimitParameter, 3> kLimitParameters{{
    {"qel.dm.threads.min_wait", 2, &qel_dm_threadpool_attr::min_wait},
    {"qel.dm.threads.max_wait", 4, &qel_dm_threadpool_attr::max_wait},
    {"qel.dm.threads.max", 10, &qel_dm_threadpool_attr::max_threads},
}};

// The parameter's value, or 'greatest' if that is less.
std::uint16_t parameter(const char* key, std::uint32_t fallback, std::uint32_t greatest = kGreatestLimit) {
    std::uint32_t value = fallback;
    static_cast<void>(qel_ppm_get_integer(key, fallback, &value));  // refuses null pointers only
    return static_cast<std::uint16_t>(std::min(value, greatest));
}

// What a pool runs by when 'asked' was asked for.
qel_dm_threadpool_attr effective(const qel_dm_threadpool_attr& asked) {
    qel_dm_threadpool_attr used = asked;
    std::uint32_t greatest = parameter("qel.dm.threads.enforce.max", 0);
    if (greatest == 0) greatest = kGreatestLimit;
    for (const LimitParameter& row : kLimitParameters) {
        std::uint16_t& limit = used.*row.limit;
        if (limit == 0) limit = parameter(row.key, row.fallback);
        limit = static_cast<std::uint16_t>(std::min<std::uint32_t>(limit, greatest));
    }
    used.min_wait = std::max<std::uint16_t>(used.min_wait, 1);
    used.max_wait = std::max(used.max_wait, used.min_wait);
    used.max_threads = std::max(used.max_threads, used.max_wait);
    if (used.wait_handler == nullptr) used.wait_handler = qel_dm_wait;
    if (used.dispatch_handler == nullptr) used.dispatch_handler = qel_dm_dispatch;
    return used;
}

// ---- The loop of a thread

void* qdm_tp_execute(void* handle);

void* as_argument(qel_dm_handle handle) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(handle));
}
qel_dm_handle as_handle(void* argument) {
    return static_cast<qel_dm_handle>(reinterpret_cast<std::uintptr_t>(argument));
}

void count_out_locked(Dispatcher& dispatcher) QEL_REQUIRES(dispatcher.mutex) {
    --dispatcher.threads;
    if (!dispatcher.destroy_pending()) return;
    event<"QDM650", "signaling thread of pending destruction =%p">(event_buffer, QEL_DT_LEVEL_ERROR,
                                                                   &dispatcher);
    pthread_cond_broadcast(&dispatcher.cond);
}

// Starts one more thread, if fewer wait than should and there is room. The lock is let go meanwhile.
void start_if_needed_locked(Dispatcher& dispatcher, Locked& lock) QEL_REQUIRES(dispatcher.mutex) {
    if (dispatcher.waiting >= dispatcher.min_wait || dispatcher.threads >= dispatcher.max_threads) return;
    ++dispatcher.waiting;
    ++dispatcher.threads;
    Undo take_back{[&]() QEL_NO_THREAD_SAFETY_ANALYSIS {
        --dispatcher.waiting;
        count_out_locked(dispatcher);
    }};
    const qel_thread_attr* attr = dispatcher.thread_attr;
    int error = lock.while_unlocked([&] {
        pthread_t started;
        return qel_thread_create(&started, attr, qdm_tp_execute, as_argument(dispatcher.handle),
                                 dispatcher.name, 0);
    });
    if (error == 0) return take_back.keep();
    report<"QDM651", "%s qel_thread_create rc=%d">(error);
}

// The calling thread's place in a pool, which counted it in before. Its thread holds a reference to the
// dispatcher, so that the two handlers need none.
class PoolThread {
  public:
    explicit PoolThread(Dispatcher& dispatcher);
    PoolThread(const PoolThread&) = delete;
    PoolThread& operator=(const PoolThread&) = delete;
    ~PoolThread() noexcept(false) {
        innermost = outer_;
        Locked lock{dispatcher_.mutex};
        leave_locked();
        if (dispatching_ && !dispatcher_.destroy_pending()) start_if_needed_locked(dispatcher_, lock);
    }

    // The two halves of a round; false ends the thread.
    bool wait();
    bool dispatch();
    // Counts the thread out; nothing if it is out.
    void leave_locked() QEL_REQUIRES(dispatcher_.mutex) {
        leave_wait_locked();
        if (std::exchange(counted_, false)) count_out_locked(dispatcher_);
    }

    // From the innermost pool outwards: a handler may have lent its thread to another dispatcher's pool.
    static inline constinit thread_local PoolThread* innermost = nullptr;
    PoolThread* outer() const { return outer_; }
    bool serves(const Dispatcher& dispatcher) const { return &dispatcher_ == &dispatcher; }

  private:
    void leave_wait_locked() QEL_REQUIRES(dispatcher_.mutex) {
        if (std::exchange(waiting_, false)) --dispatcher_.waiting;
    }

    Dispatcher& dispatcher_;
    ServedHere served_;
    PoolThread* outer_;
    int (*wait_handler_)(qel_dm_handle);
    int (*dispatch_handler_)(qel_dm_handle);
    bool counted_ = true;       // in 'threads'
    bool waiting_ = true;       // in 'waiting'
    bool dispatching_ = false;  // stays true if the handler ends the thread
};

PoolThread::PoolThread(Dispatcher& dispatcher)
    : dispatcher_(dispatcher), served_(dispatcher), outer_(std::exchange(innermost, this)) {
    Locked lock{dispatcher.mutex};
    wait_handler_ = dispatcher.wait_handler;
    dispatch_handler_ = dispatcher.dispatch_handler;
}

bool PoolThread::wait() {
    int error = wait_handler_(dispatcher_.handle);
    Locked lock{dispatcher_.mutex};
    leave_wait_locked();
    if (dispatcher_.destroy_pending()) return false;
    if (error != 0) return failed<"QDM652", "%s thread pool wait handler rc=%d">(false, error);
    start_if_needed_locked(dispatcher_, lock);
    return !dispatcher_.destroy_pending();
}

bool PoolThread::dispatch() {
    dispatching_ = true;
    static_cast<void>(dispatch_handler_(dispatcher_.handle));  // The wait will tell what lasts.
    dispatching_ = false;
    Locked lock{dispatcher_.mutex};
    if (dispatcher_.destroy_pending() || dispatcher_.waiting >= dispatcher_.max_wait) return false;
    ++dispatcher_.waiting;
    waiting_ = true;
    return true;
}

void serve(qel_dm_handle handle) {
    Retained dispatcher = retain(handle);
    // Gone only if a thread that destroyed it was cancelled while it waited for this one.
    if (!dispatcher) return;
    PoolThread here{*dispatcher};
    while (here.wait() && here.dispatch()) {
    }
}

// Serves the dispatcher that counted the calling thread in, and ends the thread.
void* qdm_tp_execute(void* handle) {
    static_cast<void>(qel_thread_detach(pthread_self()));  // A caller that joined may be detached already.
    serve(as_handle(handle));
    qel_thread_exit(nullptr);
    return nullptr;
}

// ---- The start of a pool

// One of the first threads gets the mutex when it is known whether all could be started. If not, it counts
// itself out, and its creator joins it.
bool creation_aborted(qel_dm_handle handle) {
    Retained retained = retain(handle);
    if (!retained) return true;
    Dispatcher& dispatcher = *retained;
    Locked lock{dispatcher.mutex};
    if (dispatcher.min_wait != 0) return false;
    --dispatcher.waiting;
    count_out_locked(dispatcher);
    return true;
}

void* first_run(void* handle) {
    return creation_aborted(as_handle(handle)) ? nullptr : qdm_tp_execute(handle);
}

// A creation under way.
struct Launch {
    const qel_dm_threadpool_attr limits;
    const bool joins;  // the creator is one of the threads
    Owned<pthread_t> ids{};
    int started = 0;  // of 'ids'

    int thread_count() const { return limits.min_wait + (limits.max_wait > limits.min_wait ? 1 : 0); }
};

int copy_attributes(const qel_thread_attr* attr, OwnedThreadAttr& copy) {
    if (attr == nullptr) return 0;
    if (int error = copy_thread_attr(*attr, copy); error != 0)
        return failed<"QDM653", "%s thread attributes rc=%d">(error, error);
    std::size_t stack_size = 0;
    int error = qel_thread_attr_getstacksize(copy.get(), &stack_size);
    return error == 0 && stack_size == 0 ? qel_thread_attr_setstacksize(copy.get(), 1) : error;
}

// Makes the dispatcher one with a pool, which has no thread yet but the creator if that joins.
int install_locked(Dispatcher& dispatcher, Launch& launch, const qel_thread_attr* attr)
    QEL_REQUIRES(dispatcher.mutex) {
    if (dispatcher.destroy_pending()) return EINVAL;
    if (dispatcher.min_wait != 0 || dispatcher.pool_aborting)
        return failed<"QDM654", "QDM QDM thread pool create - already created">(EBUSY);
    launch.ids = allocate_zeroed<pthread_t>(QEL_MEM_QDM, static_cast<std::size_t>(launch.thread_count()));
    if (!launch.ids) return no_memory<"QDM655">();
    OwnedThreadAttr copy;
    if (int error = copy_attributes(attr, copy); error != 0) return error;
    dispatcher.thread_attr = copy.release();
    dispatcher.min_wait = static_cast<std::int16_t>(launch.limits.min_wait);
    dispatcher.max_wait = static_cast<std::int16_t>(launch.limits.max_wait);
    dispatcher.max_threads = static_cast<std::int16_t>(launch.limits.max_threads);
    dispatcher.wait_handler = launch.limits.wait_handler;
    dispatcher.dispatch_handler = launch.limits.dispatch_handler;
    dispatcher.waiting = dispatcher.threads = launch.joins ? 1 : 0;
    return 0;
}

// Takes the pool back, so that the threads started already end by themselves. They use no attributes.
void withdraw_locked(Dispatcher& dispatcher, const Launch& launch) QEL_REQUIRES(dispatcher.mutex) {
    dispatcher.min_wait = dispatcher.max_wait = dispatcher.max_threads = 0;
    dispatcher.wait_handler = dispatcher.dispatch_handler = nullptr;
    OwnedThreadAttr attr{std::exchange(dispatcher.thread_attr, nullptr)};
    if (!launch.joins) return;
    --dispatcher.waiting;
    count_out_locked(dispatcher);
}

// Starts the threads, or those up to the first failure, and then the pool is gone.
bool start_threads_locked(Dispatcher& dispatcher, Launch& launch) QEL_REQUIRES(dispatcher.mutex) {
    const int wanted = launch.thread_count();
    event<"QDM656", "threadpool init: calculated thread count=%d maxwait=%d">(
        event_buffer, QEL_DT_LEVEL_ERROR, wanted, dispatcher.max_wait);
    Undo withdraw{[&]() QEL_NO_THREAD_SAFETY_ANALYSIS { withdraw_locked(dispatcher, launch); }};
    for (; launch.started < wanted - (launch.joins ? 1 : 0); ++launch.started) {
        if (int error = qel_thread_create(launch.ids.get() + launch.started, dispatcher.thread_attr,
                                          first_run, as_argument(dispatcher.handle), dispatcher.name, 0);
            error != 0)
            return failed<"QDM657", "%s first threads qel_thread_create rc=%d">(false, error);
        ++dispatcher.threads;
        ++dispatcher.waiting;
    }
    withdraw.keep();
    return true;
}

void join_started(const Launch& launch) {
    report<"QDM658", "QDM threadpool aborting, joining %d threads">(launch.started);
    for (int i = 0; i < launch.started; ++i)
        if (int error = pthread_join(launch.ids.get()[i], nullptr); error != 0)
            report<"QDM659", "QDM threadpool[%d]: %s">(i, cerr_strerror(static_cast<std::uint32_t>(error)));
}

// Waits for the threads of a pool that was withdrawn. Nobody makes another meanwhile: a thread that has yet
// to look would take it for its own, and detach itself while it is joined.
void finish_abort_locked(Dispatcher& dispatcher, const Launch& launch, Locked& lock)
    QEL_REQUIRES(dispatcher.mutex) {
    dispatcher.pool_aborting = true;
    Undo over{[&]() QEL_NO_THREAD_SAFETY_ANALYSIS { dispatcher.pool_aborting = false; }};
    lock.while_unlocked([&] { join_started(launch); });
    if (dispatcher.threads != 0 || dispatcher.waiting != 0)
        report<"QDM660", "QDM threadpool unexpected: threads %d, waiting %d">(dispatcher.threads,
                                                                              dispatcher.waiting);
}

int start_pool(Dispatcher& dispatcher, Launch& launch, const qel_thread_attr* attr) {
    Locked lock{dispatcher.mutex};
    if (int error = install_locked(dispatcher, launch, attr); error != 0) return error;
    if (start_threads_locked(dispatcher, launch)) return 0;
    finish_abort_locked(dispatcher, launch, lock);
    return failed<"QDM661", "threadpool creation aborted">(EAGAIN);
}

int create_pool(qel_dm_handle handle, bool joins, const qel_dm_threadpool_attr* attr,
                const qel_thread_attr* thread_attr) {
    Retained dispatcher = retain(handle);
    if (!dispatcher) return bad_argument<"QDM662">("qdm");
    Launch launch{effective(attr != nullptr ? *attr : qel_dm_threadpool_attr{}), joins};
    return start_pool(*dispatcher, launch, thread_attr);
}

}  // namespace

// The analysis can't tell that 'here' serves this dispatcher.
void leave_pool_locked(Dispatcher& dispatcher) QEL_NO_THREAD_SAFETY_ANALYSIS {
    for (PoolThread* here = PoolThread::innermost; here != nullptr; here = here->outer())
        if (here->serves(dispatcher)) here->leave_locked();
}

}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_threadpool_attr_init(qel_dm_threadpool_attr* attr) {
    if (attr == nullptr) return bad_argument<"QDM663">("attr");
    *attr = {};
    for (const LimitParameter& row : kLimitParameters) attr->*row.limit = parameter(row.key, row.fallback);
    return 0;
}

QEL_API int qel_dm_threadpool_create(qel_dm_handle handle, std::uint32_t flags,
                                     const qel_dm_threadpool_attr* attr, const qel_thread_attr* thread_attr) {
    qel_check_not_interrupt_path();
    const bool joins = (flags & QEL_DM_THREADPOOL_JOIN) != 0;
    if (int error = create_pool(handle, joins, attr, thread_attr); error != 0 || !joins) return error;
    event<"QDM664", "start qdm execution">(event_buffer, QEL_DT_LEVEL_ERROR);
    qdm_tp_execute(as_argument(handle));
    return 0;
}
