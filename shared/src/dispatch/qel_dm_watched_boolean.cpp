// Watched booleans: a value that signals a dispatcher when it becomes true.
//
// The application holds a pointer, a queued job only the boolean's number in a pool, which it retains while
// it runs: the last of both frees the record. All that changes together lies in one word, the state, so that
// each transition is one compare-and-swap: who makes the value true learns in that same step whether someone
// watches, and who registers learns whether the value is true. So exactly one of the two signals.
//
//             register            a job of a one-shot: its handler runs
//     none ------------> active ---------------------------------------> spent
//      ^                    |                                              |
//      +--------------------+------------ deregister; handler done --------+
//
// A registration has a serial, which its jobs carry: a job does nothing unless its registration is the active
// one. Invariant: dispatcher, handler and context are written only between registrations, before the state
// that makes them valid (R1); who reads them first and finds its serial in the state after (A1) has read
// those of its registration. Locks: none. Threads: any for 'set' and the job; the application serialises the
// rest. Restart: nothing stays.
#include <qel/base.h>
#include <qel/dm_watched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "containers/qel_idm_family.hpp"
#include "core/qel_owned.hpp"
#include "dispatch/qel_dm_watched.hpp"

namespace qel::dm {
namespace {

constexpr std::uint32_t kMaxBooleans = 1u << 20;
constexpr std::uint32_t kMagic = 0xe45193a1;

enum class Watch : std::uint8_t { none, active, spent };

struct BooleanState {
    std::uint8_t value;  // as the application gave it
    Watch watch;
    std::uint8_t oneshot;
    std::uint8_t signal_due;  // the last signal could not be queued
    std::uint32_t serial;     // of the current registration, or the last one
};
static_assert(sizeof(BooleanState) == sizeof(std::uint64_t));
static_assert(std::atomic<BooleanState>::is_always_lock_free);

}  // namespace
}  // namespace qel::dm

struct qel_dm_watched_boolean_record {
    std::atomic<qel::dm::BooleanState> state;
    std::atomic<qel_dm_handle> dispatcher;
    std::atomic<qel_dm_watched_boolean_handler> handler;  // null for explicit dispatch
    std::atomic<void*> context;
    std::atomic<std::uint32_t> event_id;
    const char* name;
    std::uint32_t number;
    std::uint32_t magic;  // kMagic while alive, 0 once destroyed
};

namespace qel::dm {
namespace {

using Boolean = qel_dm_watched_boolean_record;

constinit FamilyPool booleans{{"QDM watched booleans", nullptr, kMaxBooleans, qel_named_free}};

bool is_valid(const Boolean* boolean) {
    return boolean != nullptr && boolean->magic == kMagic;
}

// Makes of the state what 'change' makes of its copy; gives the state before.
template <class Change>
BooleanState update(Boolean& boolean, Change change) {
    BooleanState before = boolean.state.load(std::memory_order_relaxed);
    BooleanState after;
    do {
        after = before;
        change(after);
    } while (!boolean.state.compare_exchange_weak(before, after, std::memory_order_acq_rel,  // R1, A1
                                                  std::memory_order_relaxed));
    return before;
}

bool is_active(const BooleanState& state, std::uint32_t serial) {
    return state.watch == Watch::active && state.serial == serial;
}

// False if it had ended already.
bool end_registration(Boolean& boolean, std::uint32_t serial) {
    BooleanState before = update(boolean, [serial](BooleanState& state) {
        if (state.serial != serial) return;
        state.watch = Watch::none;
        state.signal_due = 0;
    });
    return before.serial == serial && before.watch != Watch::none;
}

// ---- The signal

// Ends a one-shot registration behind its handler, also if that ended its thread.
class OneshotEnd {
  public:
    OneshotEnd(Boolean& boolean, const BooleanState& signalled) : boolean_(boolean), signalled_(signalled) {}
    ~OneshotEnd() {
        if (signalled_.oneshot != 0) end_registration(boolean_, signalled_.serial);
    }

  private:
    Boolean& boolean_;
    BooleanState signalled_;
};

// The dispatch job. Of two jobs of a one-shot registration the second does nothing.
void run_signal(qel_dm_handle, std::uint64_t number, std::uint64_t modifier) {
    qel::Retained<Boolean> boolean = booleans.retain<Boolean>(number);
    if (!boolean) return;
    const auto serial = static_cast<std::uint32_t>(modifier);
    qel_dm_watched_boolean_handler handler = boolean->handler.load(std::memory_order_acquire);
    void* context = boolean->context.load(std::memory_order_acquire);
    BooleanState before = update(*boolean, [serial](BooleanState& state) {
        if (is_active(state, serial) && state.oneshot != 0) state.watch = Watch::spent;
    });
    if (!is_active(before, serial)) return;
    OneshotEnd end{*boolean, before};
    if (handler != nullptr)
        handler(boolean.get(), context);
    else
        qel_dm_xd_set(QEL_DM_XD_WATCHED_BOOLEAN, boolean->event_id.load(std::memory_order_relaxed));
}

// Queues the job of registration 'serial'. If another registration has followed it meanwhile, the job may
// land on that one's dispatcher and does nothing there.
int signal(Boolean& boolean, std::uint32_t serial) {
    qel_dm_handle dispatcher = boolean.dispatcher.load(std::memory_order_acquire);
    int error = qel_dm_execute(dispatcher, run_signal, boolean.number, serial);
    if (error == 0) return 0;
    update(boolean, [serial](BooleanState& state) {
        if (is_active(state, serial) && state.value != 0) state.signal_due = 1;
    });
    return failed<"\"qel_dm_execute failed\"", "%s rc=%d">(EINVAL, error);
}

// ---- Registration

int register_watch(qel_dm_handle dm, Boolean* boolean, qel_dm_watched_boolean_handler handler, void* context,
                   std::uint8_t oneshot) {
    if (!is_valid(boolean)) return bad_argument<"QDM700">("watched boolean");
    if (qel_dm_is_handle(dm) == 0) return bad_argument<"QDM701">("qdm");
    if (boolean->state.load(std::memory_order_relaxed).watch != Watch::none)
        return already_watched<"QDM702", "QDM QDM wb reg: same qdm already registered",  //
                               "QDM703", "QDM QDM wb reg: other qdm already registered">(
            boolean->dispatcher.load(std::memory_order_relaxed), dm);
    // A job of the last registration may be reading these: in release order it finds that one ended.
    boolean->dispatcher.store(dm, std::memory_order_release);
    boolean->handler.store(handler, std::memory_order_release);
    boolean->context.store(context, std::memory_order_release);
    BooleanState before = update(*boolean, [oneshot](BooleanState& state) {
        state.watch = Watch::active;
        state.oneshot = oneshot;
        state.signal_due = 0;
        ++state.serial;
    });
    if (before.value == 0) return 0;
    int error = signal(*boolean, before.serial + 1);
    if (error != 0) end_registration(*boolean, before.serial + 1);
    return error;
}

}  // namespace
}  // namespace qel::dm

using namespace qel;
using namespace qel::dm;

QEL_API int qel_dm_watched_boolean_create(const char* name, std::uint32_t event_id,
                                          qel_dm_watched_boolean* out) {
    qel_check_not_interrupt_path();
    if (out == nullptr) return bad_argument<"QDM704">("out");
    if (!booleans.make()) return no_memory<"QDM705">();
    Owned<Boolean> boolean = allocate_zeroed<Boolean>(QEL_MEM_QDM);
    if (!boolean) return no_memory<"QDM706">();
    boolean->name = name;
    boolean->event_id.store(event_id, std::memory_order_relaxed);
    boolean->magic = kMagic;
    if (qel_idm_get_id(booleans.handle(), boolean.get(), &boolean->number) != 0) return no_memory<"QDM707">();
    *out = boolean.release();
    return 0;
}

QEL_API int qel_dm_watched_boolean_destroy(qel_dm_watched_boolean* boolean) {
    qel_check_not_interrupt_path();
    if (boolean == nullptr || !is_valid(*boolean)) return bad_argument<"QDM708">("watched boolean");
    Boolean& ending = **boolean;
    *boolean = nullptr;
    ending.magic = 0;
    end_registration(ending, ending.state.load(std::memory_order_relaxed).serial);
    booleans.release(ending.number);
    return 0;
}

QEL_API int qel_dm_watched_boolean_set(qel_dm_watched_boolean boolean, std::uint8_t value) {
    qel_check_not_interrupt_path();
    if (!is_valid(boolean)) return bad_argument<"QDM709">("watched boolean");
    BooleanState before = update(*boolean, [value](BooleanState& state) {
        state.value = value;
        state.signal_due = 0;
    });
    const bool rises = value != 0 && (before.value == 0 || before.signal_due != 0);
    return rises && before.watch == Watch::active ? signal(*boolean, before.serial) : 0;
}

QEL_API int qel_dm_watched_boolean_get(qel_dm_watched_boolean boolean, std::uint8_t* out) {
    qel_check_not_interrupt_path();
    if (!is_valid(boolean)) return bad_argument<"QDM710">("watched boolean");
    if (out != nullptr) *out = boolean->state.load(std::memory_order_acquire).value;
    return 0;
}

QEL_API int qel_dm_watched_boolean_register(qel_dm_handle dm, qel_dm_watched_boolean boolean,
                                            qel_dm_watched_boolean_handler handler, void* context) {
    qel_check_not_interrupt_path();
    if (handler == nullptr) return bad_argument<"QDM711">("handler");
    return register_watch(dm, boolean, handler, context, 0);
}

QEL_API int qel_dm_watched_boolean_xd_register(qel_dm_handle dm, qel_dm_watched_boolean boolean) {
    qel_check_not_interrupt_path();
    return register_watch(dm, boolean, nullptr, nullptr, 0);
}

QEL_API int qel_dm_watched_boolean_register_oneshot(qel_dm_handle dm, qel_dm_watched_boolean boolean,
                                                    qel_dm_watched_boolean_handler handler, void* context) {
    qel_check_not_interrupt_path();
    if (handler == nullptr) return bad_argument<"QDM712">("handler");
    return register_watch(dm, boolean, handler, context, 1);
}

QEL_API int qel_dm_watched_boolean_xd_register_oneshot(qel_dm_handle dm, qel_dm_watched_boolean boolean) {
    qel_check_not_interrupt_path();
    return register_watch(dm, boolean, nullptr, nullptr, 1);
}

QEL_API int qel_dm_watched_boolean_deregister(qel_dm_handle dm, qel_dm_watched_boolean boolean) {
    qel_check_not_interrupt_path();
    if (!is_valid(boolean)) return bad_argument<"QDM713">("watched boolean");
    if (boolean->dispatcher.load(std::memory_order_relaxed) == dm &&
        end_registration(*boolean, boolean->state.load(std::memory_order_relaxed).serial))
        return 0;
    return failed<"QDM714", "%s watched boolean is not registered with qdm=%lx">(EINVAL, dm);
}

QEL_API const char* qel_dm_watched_boolean_get_name(qel_dm_watched_boolean boolean) {
    qel_check_not_interrupt_path();
    return is_valid(boolean) ? boolean->name : nullptr;
}

QEL_API int qel_dm_watched_boolean_get_id(qel_dm_watched_boolean boolean, std::uint32_t* out) {
    qel_check_not_interrupt_path();
    if (!is_valid(boolean)) return bad_argument<"QDM715">("watched boolean");
    if (out == nullptr) return bad_argument<"QDM716">("out");
    *out = boolean->event_id.load(std::memory_order_relaxed);
    return 0;
}

QEL_API int qel_dm_watched_boolean_set_id(qel_dm_watched_boolean boolean, std::uint32_t event_id) {
    qel_check_not_interrupt_path();
    if (!is_valid(boolean)) return bad_argument<"QDM717">("watched boolean");
    boolean->event_id.store(event_id, std::memory_order_relaxed);
    return 0;
}
