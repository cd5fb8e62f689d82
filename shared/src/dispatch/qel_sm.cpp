// State machines: tables of states, and the loop that follows their rows.
//
// The first machine of a definition prepares it: the tables are looked over once, and each state gets
// pointers to its idle, enter and exit rows. From then on nothing is checked again, and an event costs the
// search of one state's rows and the calls of the actions.
//
// An action is a stranger's code and may destroy or reinit the machine whose event it serves. Both count up
// the machine's 'doings', and each post under way compares the count after every action: where it has
// changed, the post returns at once. A destroyed machine's record stays until the outermost post has seen
// that.
//
// Invariant: a machine's state is one of its definition's, which is prepared and not written any more.
// Locks: none. Threads: the owner serialises the calls on a machine, and the first creation of a definition.
// Restart: nothing outlives the process.
#include <qel/mem.h>
#include <qel/sm.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <utility>

#include "core/qel_codes.hpp"
#include "core/qel_owned.hpp"
#include "trace/qel_report.hpp"

struct qel_sm_instance {
    const qel_sm_definition* definition;
    void* context;
    const qel_sm_state* state;
    qel_sm_info info;
    std::uint64_t doings;  // counts what ends the runs under way: destruction, reinit
    std::uint32_t runs;    // under way, each on the stack of its caller
    std::uint32_t flags;
    std::uint32_t last_event;
    std::uint8_t running;
    bool destroyed;  // the last run frees the record
};

using namespace qel;

namespace {

using Machine = qel_sm_instance;
using Definition = qel_sm_definition;
using State = qel_sm_state;
using Row = qel_sm_transition;

constexpr const char* kInvalidRequest = "**error** Invalid request";

// ---- Texts

const char* text_or_invalid(const char* text) {
    return text == nullptr ? kInvalidRequest : text;
}

const char* no_info(void*, qel_sm) {
    return "";
}

const char* info_of(Machine& machine) {
    const char* text = machine.info(machine.context, &machine);
    return text == nullptr ? "" : text;
}

// Logs one step of a machine that is traced. Most texts begin with the machine's name and info.
template <FixedText Label, FixedText Format, class... Values>
[[gnu::cold, gnu::noinline]] void log_step(Machine& machine, Values... values) {
    ErrnoKept kept;
    write_line<Label, Format>(common_event_buffer(), machine.definition->name, info_of(machine), values...);
}

bool traced(const Machine& machine) {
    return (machine.flags & QEL_SM_TRACE) != 0;
}

// ---- Preparation

std::span<const State* const> states_of(const Definition& definition) {
    return {definition.states, definition.state_count};
}

const Row* find_row(const State& state, std::uint32_t event) {
    for (const Row* row = state.transitions; row->action != nullptr; ++row)
        if (row->event == event) return row;
    return nullptr;
}

bool has_state(const Definition& definition, const State* wanted) {
    for (const State* state : states_of(definition))
        if (state == wanted) return true;
    return false;
}

// The states end neither before nor after 'state_count'.
bool counts_its_states(const Definition& definition) {
    for (const State* state : states_of(definition))
        if (state == nullptr) return false;
    return definition.states[definition.state_count] == nullptr;
}

bool names_its_events(const Definition& definition) {
    for (const qel_sm_event& event : std::span{definition.events, definition.event_count})
        if (event.name == nullptr) return false;
    return true;
}

// What is wrong with the definition apart from its single states, or null.
const char* fault_of(const Definition& definition) {
    if (definition.name == nullptr) return "missing name";
    if (definition.event_count > QEL_SM_EVENT_EXIT) return "too many events";
    if (definition.event_count != 0 && definition.events == nullptr) return "missing events";
    if (!names_its_events(definition)) return "missing event name";
    if (definition.state_count == 0 || definition.states == nullptr) return "missing states";
    if (!counts_its_states(definition)) return "wrong number of states";
    if (definition.initial != nullptr && !has_state(definition, definition.initial))
        return "foreign initial state";
    return nullptr;
}

// The rows that the library itself runs, and where a state notes them.
struct OwnRow {
    std::uint32_t flag;
    std::uint32_t event;
    const Row* State::*place;
    const char* missing;
};
constexpr std::array<OwnRow, 3> kOwnRows{{
    {QEL_SM_STATE_HAS_IDLE, QEL_SM_EVENT_IDLE, &State::idle, "missing idle action"},
    {QEL_SM_STATE_HAS_ENTER, QEL_SM_EVENT_ENTER, &State::enter, "missing enter action"},
    {QEL_SM_STATE_HAS_EXIT, QEL_SM_EVENT_EXIT, &State::exit, "missing exit action"},
}};

// A pointer stays null without the flag, so that running the machine needs to look at the pointers only.
const char* note_own_rows(State& state) {
    for (const OwnRow& own : kOwnRows) {
        bool wanted = (state.flags & own.flag) != 0;
        state.*own.place = wanted ? find_row(state, own.event) : nullptr;
        if (!wanted || state.*own.place != nullptr) continue;
        state.flags &= ~own.flag;
        return own.missing;
    }
    return nullptr;
}

// Enter and exit rows lead nowhere: only their actions are used.
bool is_followed(const Row& row) {
    return row.event != QEL_SM_EVENT_ENTER && row.event != QEL_SM_EVENT_EXIT;
}

// What is wrong with the state, or null.
const char* prepare_state(const Definition& definition, State& state) {
    if (state.name == nullptr) return "missing name";
    if (state.transitions == nullptr) return "missing transitions";
    for (const Row* row = state.transitions; row->action != nullptr; ++row)
        if (is_followed(*row) && !has_state(definition, row->next)) return "foreign next state";
    return note_own_rows(state);
}

cerrno unsound(const Definition& definition, const char* state, const char* fault) {
    return failed<"SM1", "Internal error while initializing state machine '%s', state '%s': %s">(
        fatal(EPERM), text_or_invalid(definition.name), text_or_invalid(state), fault);
}

cerrno prepare(Definition& definition) {
    if ((definition.flags & QEL_SM_PREPARED) != 0) return 0;
    if (const char* fault = fault_of(definition); fault != nullptr) return unsound(definition, "", fault);
    for (State* state : std::span{definition.states, definition.state_count})
        if (const char* fault = prepare_state(definition, *state); fault != nullptr)
            return unsound(definition, state->name, fault);
    definition.flags |= QEL_SM_PREPARED;
    return 0;
}

const State* initial_state(const Definition& definition) {
    return definition.initial == nullptr ? definition.states[0] : definition.initial;
}

// ---- Running

// One post under way. It keeps the machine's memory, whatever the actions do to the machine.
class Run {
  public:
    explicit Run(Machine& machine) : machine_(machine), doings_(machine.doings) { ++machine_.runs; }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    ~Run() {
        if (--machine_.runs == 0 && machine_.destroyed) qel_named_free(&machine_);
    }

    // Runs a row's action, if there is a row. False when that ended what the machine was doing.
    bool act(const Row* row) {
        if (row == nullptr) return true;
        row->action(&machine_, machine_.context);
        return machine_.doings == doings_;
    }

  private:
    Machine& machine_;
    std::uint64_t doings_;
};

// The idle row of the current state, or null when the machine has settled.
const Row* idle_row(Machine& machine) {
    const Row* row = machine.state->idle;
    if (row != nullptr && traced(machine))
        log_step<"SM2", "%s %s: idle during state %s">(machine, machine.state->name);
    return row;
}

[[gnu::cold, gnu::noinline]] void log_change(Machine& machine, const State& next) {
    log_step<"SM3", "%s %s: state: %d(%s) -> %d(%s)">(machine, machine.state->id, machine.state->name,
                                                      next.id, next.name);
}

[[gnu::cold, gnu::noinline]] cerrno stayed(Machine& machine, std::uint32_t event) {
    return failed<"SM4", "Persistent event '%s' did not leave the current state '%s': %s %s">(
        fatal(EEXIST), qel_sm_get_event_name(machine.definition, event), machine.state->name,
        machine.definition->name, info_of(machine));
}

// Moves the machine along 'row' and runs what belongs to that. False when an action ended the run.
[[gnu::always_inline]] inline bool follow(Run& run, Machine& machine, const Row& row) {
    const State& old = *machine.state;
    machine.state = row.next;
    if (row.next != &old && (!run.act(old.exit) || !run.act(row.next->enter))) return false;
    return run.act(&row);
}

// Follows 'row', then idle rows, until the machine settles.
cerrno settle(Machine& machine, const Row* row) {
    Run run{machine};
    do {
        if (traced(machine)) log_change(machine, *row->next);
        if (!follow(run, machine, *row)) return 0;
        row = idle_row(machine);
    } while (row != nullptr);
    return 0;
}

// Applies a persistent event in state after state, then lets the machine settle.
[[gnu::noinline]] cerrno persist(Machine& machine, const Row* row, std::uint32_t event) {
    Run run{machine};
    while (row != nullptr) {
        const State* old = machine.state;
        if (traced(machine)) log_change(machine, *row->next);
        if (row->next == old) return stayed(machine, event);
        if (!follow(run, machine, *row)) return 0;
        row = machine.state == old ? nullptr : find_row(*machine.state, event);
    }
    row = idle_row(machine);
    return row == nullptr ? 0 : settle(machine, row);
}

// ---- Events

std::uint32_t flags_of(const Machine& machine, std::uint32_t event) {
    return event == QEL_SM_EVENT_IDLE ? 0 : machine.definition->events[event].flags;
}

[[gnu::cold, gnu::noinline]] void log_event(Machine& machine, std::uint32_t event) {
    log_step<"SM5", "%s %s: during state %s, got event %d(%s)">(
        machine, machine.state->name, event, qel_sm_get_event_name(machine.definition, event));
}

[[gnu::cold, gnu::noinline]] void log_ignored() {
    ErrnoKept kept;
    write_line<"SM6", " (ignored)">(common_event_buffer());
}

[[gnu::cold, gnu::noinline]] cerrno without_row(Machine& machine, std::uint32_t event) {
    if ((flags_of(machine, event) & QEL_SM_EVENT_IGNORABLE) != 0) {
        if (traced(machine)) log_ignored();
        return 0;
    }
    return failed<"SM7", "Event '%s' is invalid for the current state '%s': %s %s">(
        fatal(EPERM), qel_sm_get_event_name(machine.definition, event), machine.state->name,
        machine.definition->name, info_of(machine));
}

[[gnu::cold, gnu::noinline]] cerrno stopped(Machine& machine, std::uint32_t event) {
    return failed<"SM8", "Event '%s' ignored because the state machine is stopped: %s %s">(
        fatal(EPERM), qel_sm_get_event_name(machine.definition, event), machine.definition->name,
        info_of(machine));
}

}  // namespace

cerrno qel_sm_attr_init(qel_sm_attr* attr) {
    if (attr == nullptr) return fatal(EINVAL);
    *attr = {};
    return 0;
}

cerrno qel_sm_create(qel_sm_definition* definition, void* context, const qel_sm_attr* attr, qel_sm* out) {
    const qel_sm_attr given = attr == nullptr ? qel_sm_attr{} : *attr;
    if (out == nullptr || definition == nullptr || given.flags > QEL_SM_TRACE) return fatal(EINVAL);
    // A machine works without the buffers as well.
    static_cast<void>(common_event_buffer());
    static_cast<void>(error_buffer());
    if (cerrno error = prepare(*definition); error != 0) return error;
    Owned<Machine> machine = allocate_zeroed<Machine>(QEL_MEM_UTILS);
    if (!machine) return fatal(ENOMEM);
    machine->definition = definition;
    machine->context = context;
    machine->state = initial_state(*definition);
    machine->info = given.info == nullptr ? no_info : given.info;
    machine->flags = given.flags;
    *out = machine.release();
    return 0;
}

cerrno qel_sm_destroy(qel_sm* machine) {
    if (machine == nullptr || *machine == nullptr) return fatal(EINVAL);
    Machine* ended = std::exchange(*machine, nullptr);
    ++ended->doings;
    ended->running = 0;
    ended->destroyed = true;
    if (ended->runs == 0) qel_named_free(ended);
    return 0;
}

cerrno qel_sm_run(qel_sm machine) {
    if (machine == nullptr) return fatal(EINVAL);
    machine->running = 1;
    {
        Run run{*machine};
        if (!run.act(machine->state->enter)) return 0;
    }
    return machine->state->idle == nullptr ? 0 : qel_sm_post_event(machine, QEL_SM_EVENT_IDLE);
}

uint8_t qel_sm_is_running(qel_sm machine) {
    return machine == nullptr ? 0 : machine->running;
}

cerrno qel_sm_post_event(qel_sm machine, uint32_t event) {
    if (machine == nullptr || (event >= machine->definition->event_count && event != QEL_SM_EVENT_IDLE))
        return fatal(EINVAL);
    if (machine->running == 0) return stopped(*machine, event);
    machine->last_event = event;
    if (traced(*machine)) log_event(*machine, event);
    const Row* row = find_row(*machine->state, event);
    if (row == nullptr) return without_row(*machine, event);
    bool persistent = (flags_of(*machine, event) & QEL_SM_EVENT_PERSISTENT) != 0;
    return persistent ? persist(*machine, row, event) : settle(*machine, row);
}

cerrno qel_sm_reinit(qel_sm machine) {
    if (machine == nullptr) return fatal(EINVAL);
    ++machine->doings;
    machine->state = initial_state(*machine->definition);
    machine->running = 0;
    return 0;
}

cerrno qel_sm_get_context(qel_sm machine, void** out) {
    if (machine == nullptr || out == nullptr) return fatal(EINVAL);
    *out = machine->context;
    return 0;
}

const char* qel_sm_get_name(const qel_sm_definition* definition) {
    return text_or_invalid(definition == nullptr ? nullptr : definition->name);
}

const char* qel_sm_get_info(qel_sm machine) {
    return machine == nullptr ? kInvalidRequest : info_of(*machine);
}

uint32_t qel_sm_get_state(qel_sm machine) {
    return machine == nullptr ? QEL_SM_NO_STATE : machine->state->id;
}

cerrno qel_sm_set_state(qel_sm machine, uint32_t index) {
    if (machine == nullptr || index >= machine->definition->state_count) return fatal(EINVAL);
    machine->state = machine->definition->states[index];
    return 0;
}

const char* qel_sm_get_event_name(const qel_sm_definition* definition, uint32_t event) {
    if (definition == nullptr) return kInvalidRequest;
    if (event == QEL_SM_EVENT_IDLE) return "idle";
    if (event >= definition->event_count || definition->events == nullptr) return kInvalidRequest;
    return text_or_invalid(definition->events[event].name);
}

const char* qel_sm_get_state_name(const qel_sm_definition* definition, uint32_t index) {
    if (definition == nullptr || definition->states == nullptr || index >= definition->state_count)
        return kInvalidRequest;
    const State* state = definition->states[index];
    return text_or_invalid(state == nullptr ? nullptr : state->name);
}
