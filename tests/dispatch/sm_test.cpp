// State machines: the order of actions, what settles and what is refused, actions that turn on their machine.
#include "support/support.hpp"

#include <qel/dt_buffer.h>
#include <qel/sm.h>

#include <functional>
#include <string>

using namespace qel_test;

namespace {

constexpr cerrno kEperm = 0xa0000001, kExists = 0xa0000011, kInvalid = 0xa0000016;
constexpr const char* kNoText = "**error** Invalid request";

std::string record;            // letters of the actions that ran
std::function<void()> inside;  // what the action 'x' does

template <char Letter>
void note(qel_sm, void*) {
    record += Letter;
}
void run_inside(qel_sm, void*) {
    record += 'x';
    inside();
}

enum : uint32_t { kGo, kStay, kMaybe, kPush, kAct, kEventCount };
constexpr qel_sm_event kEvents[] = {
    {"go", 0}, {"stay", 0}, {"maybe", QEL_SM_EVENT_IGNORABLE}, {"push", QEL_SM_EVENT_PERSISTENT}, {"act", 0}};

// a -go-> b -go-> c, where c's idle row leads to d and d's back to a. "push" runs a -> b -> a2, and then
// idle.
extern qel_sm_state a, b, c, d;
const qel_sm_transition kRowsA[] = {{&b, kGo, note<'1'>},
                                    {&a, kStay, note<'2'>},
                                    {&b, kPush, note<'3'>},
                                    {&b, kAct, run_inside},
                                    {nullptr, QEL_SM_EVENT_EXIT, note<'A'>},
                                    {nullptr, QEL_SM_EVENT_ENTER, note<'a'>},
                                    {}};
const qel_sm_transition kRowsB[] = {{&c, kGo, note<'4'>},
                                    {&b, kStay, note<'5'>},
                                    {&c, kPush, note<'6'>},
                                    {nullptr, QEL_SM_EVENT_ENTER, note<'b'>},
                                    {nullptr, QEL_SM_EVENT_EXIT, note<'B'>},
                                    {}};
const qel_sm_transition kRowsC[] = {{&d, QEL_SM_EVENT_IDLE, note<'7'>}, {}};
const qel_sm_transition kRowsD[] = {{&a, QEL_SM_EVENT_IDLE, note<'8'>}, {&d, kPush, note<'9'>}, {}};
qel_sm_state a{10, "A", kRowsA, QEL_SM_STATE_HAS_ENTER | QEL_SM_STATE_HAS_EXIT, {}, {}, {}};
qel_sm_state b{20, "B", kRowsB, QEL_SM_STATE_HAS_ENTER | QEL_SM_STATE_HAS_EXIT, {}, {}, {}};
qel_sm_state c{30, "C", kRowsC, QEL_SM_STATE_HAS_IDLE, {}, {}, {}};
qel_sm_state d{40, "D", kRowsD, QEL_SM_STATE_HAS_IDLE, {}, {}, {}};
qel_sm_state* const kStates[] = {&a, &b, &c, &d, nullptr};
qel_sm_definition letters{"letters", kEventCount, kEvents, 4, kStates, nullptr, 0};

struct StateMachine : testing::Test {
    qel_sm machine = nullptr;
    StateMachine() {
        EXPECT_EQ(qel_sm_create(&letters, this, nullptr, &machine), 0);
        record.clear();
    }
    ~StateMachine() override {
        if (machine != nullptr) {
            EXPECT_EQ(qel_sm_destroy(&machine), 0);
        }
    }
    // The actions that 'event' runs, from the state at 'index'.
    std::string post_in(uint32_t index, uint32_t event, cerrno expected = 0) {
        EXPECT_EQ(qel_sm_set_state(machine, index), 0);
        record.clear();
        EXPECT_EQ(qel_sm_post_event(machine, event), expected);
        return record;
    }
};

uint64_t entries(const char* name) {
    qel_dt_buffer_handle buffer = nullptr;
    qel_dt_buffer_attr attr{};
    EXPECT_EQ(qel_dt_buffer_open(&buffer, name), 0);
    EXPECT_EQ(qel_dt_buffer_get_attr(buffer, &attr), 0);
    EXPECT_EQ(qel_dt_buffer_close(&buffer), 0);
    return attr.count;
}

}  // namespace

TEST_F(StateMachine, runs_exit_enter_and_action_then_idle_rows_until_it_settles) {
    EXPECT_EQ(qel_sm_run(machine), 0);
    EXPECT_EQ(record, "a");
    EXPECT_EQ(qel_sm_is_running(machine), 1);
    EXPECT_EQ(post_in(0, kGo), "Ab1");
    EXPECT_EQ(qel_sm_get_state(machine), 20u);
    EXPECT_EQ(post_in(0, kStay), "2");
    EXPECT_EQ(post_in(1, kGo), "B47a8");
    EXPECT_EQ(qel_sm_get_state(machine), 10u);
    EXPECT_EQ(post_in(2, QEL_SM_EVENT_IDLE), "7a8");
    EXPECT_EQ(qel_sm_reinit(machine), 0);
    EXPECT_EQ(qel_sm_set_state(machine, 2), 0);
    record.clear();
    EXPECT_EQ(qel_sm_run(machine), 0);
    EXPECT_EQ(record, "7a8") << "starting in an idle state";
}

TEST_F(StateMachine, applies_a_persistent_event_while_states_have_a_row_for_it) {
    EXPECT_EQ(qel_sm_run(machine), 0);
    EXPECT_EQ(post_in(0, kPush), "Ab3B67a8") << "idle follows once, and isn't persistent";
    EXPECT_EQ(post_in(3, kPush, kExists), "") << "leads back to its own state";
    EXPECT_EQ(qel_sm_get_state(machine), 40u);
}

TEST_F(StateMachine, refuses_what_no_row_takes) {
    EXPECT_EQ(post_in(0, kGo, kEperm), "") << "stopped";
    EXPECT_EQ(qel_sm_get_state(machine), 10u);
    EXPECT_EQ(qel_sm_run(machine), 0);
    EXPECT_EQ(post_in(1, kAct, kEperm), "");
    EXPECT_EQ(post_in(1, kMaybe), "");
    EXPECT_EQ(post_in(1, QEL_SM_EVENT_IDLE, kEperm), "");
    for (uint32_t event : {uint32_t{kEventCount}, QEL_SM_EVENT_ENTER, QEL_SM_EVENT_EXIT, 16384u})
        EXPECT_EQ(post_in(1, event, kInvalid), "") << event;
    EXPECT_EQ(qel_sm_set_state(machine, 4), kInvalid);
    EXPECT_EQ(qel_sm_get_state(machine), 20u);
}

TEST_F(StateMachine, an_event_posted_by_an_action_settles_first) {
    EXPECT_EQ(qel_sm_run(machine), 0);
    inside = [this] {
        EXPECT_EQ(qel_sm_get_state(machine), 20u);
        EXPECT_EQ(qel_sm_post_event(machine, kGo), 0);
        record += '.';
    };
    EXPECT_EQ(post_in(0, kAct), "AbxB47a8.");
}

TEST_F(StateMachine, an_action_may_end_its_machine) {
    EXPECT_EQ(qel_sm_run(machine), 0);
    inside = [this] {
        EXPECT_EQ(qel_sm_reinit(machine), 0);
        EXPECT_EQ(qel_sm_set_state(machine, 2), 0);  // would be idle, if the post went on
    };
    EXPECT_EQ(post_in(0, kAct), "Abx");
    EXPECT_EQ(qel_sm_get_state(machine), 30u);
    EXPECT_EQ(qel_sm_is_running(machine), 0);

    EXPECT_EQ(qel_sm_run(machine), 0);
    inside = [this] {
        inside = [this] { EXPECT_EQ(qel_sm_destroy(&machine), 0); };
        EXPECT_EQ(qel_sm_set_state(machine, 0), 0);
        EXPECT_EQ(qel_sm_post_event(machine, kAct), 0);
    };
    qel_sm gone = machine;
    record.clear();
    EXPECT_EQ(qel_sm_post_event(gone, kAct), 0);
    EXPECT_EQ(record, "AbxAbx");
    EXPECT_EQ(machine, nullptr);
}

TEST(StateMachines, an_unsound_definition_makes_no_machine) {
    static qel_sm_state stranger{1, "stranger", kRowsB, 0, {}, {}, {}};
    static const qel_sm_transition astray[] = {{&stranger, kGo, note<'s'>}, {}};
    static const qel_sm_transition empty[] = {{}};
    static const qel_sm_event nameless[] = {{nullptr, 0}};
    qel_sm_state state{1, "state", empty, 0, {}, {}, {}};
    qel_sm_state* const one[] = {&state, nullptr};
    const qel_sm_definition sound{"sound", 1, kEvents, 1, one, nullptr, 0};
    qel_sm machine = nullptr;
    auto create = [&](auto change) {
        qel_sm_definition definition = sound;
        state = {1, "state", empty, 0, {}, {}, {}};
        change(definition);
        cerrno error = qel_sm_create(&definition, nullptr, nullptr, &machine);
        EXPECT_EQ(definition.flags, error == 0 ? QEL_SM_PREPARED : 0);
        return error == 0 ? qel_sm_destroy(&machine) : error;
    };
    EXPECT_EQ(create([](auto&) {}), 0);
    EXPECT_EQ(create([](auto& it) { it.name = nullptr; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.events = nullptr; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.events = nameless; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.event_count = QEL_SM_EVENT_EXIT + 1; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.states = nullptr; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.state_count = 0; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.state_count = 2; }), kEperm);
    EXPECT_EQ(create([](auto& it) { it.initial = &stranger; }), kEperm);
    EXPECT_EQ(create([&](auto&) { state.name = nullptr; }), kEperm);
    EXPECT_EQ(create([&](auto&) { state.transitions = nullptr; }), kEperm);
    EXPECT_EQ(create([&](auto&) { state.transitions = astray; }), kEperm);
    for (uint32_t flag : {QEL_SM_STATE_HAS_IDLE, QEL_SM_STATE_HAS_ENTER, QEL_SM_STATE_HAS_EXIT}) {
        EXPECT_EQ(create([&](auto&) { state.flags = flag; }), kEperm);
        EXPECT_EQ(state.flags, 0u);
    }
    EXPECT_EQ(machine, nullptr);
}

TEST(StateMachines, arguments_attributes_and_texts) {
    int context = 0;
    qel_sm machine = nullptr;
    qel_sm_attr attr{[](void*, qel_sm) { return "number 7"; }, QEL_SM_TRACE + 1};
    EXPECT_EQ(qel_sm_create(&letters, &context, &attr, &machine), kInvalid);
    EXPECT_EQ(qel_sm_create(nullptr, &context, nullptr, &machine), kInvalid);
    EXPECT_EQ(qel_sm_create(&letters, &context, nullptr, nullptr), kInvalid);
    attr.flags = QEL_SM_TRACE;
    qel_sm_definition starts_at_b = letters;
    starts_at_b.initial = &b;
    ASSERT_EQ(qel_sm_create(&starts_at_b, &context, &attr, &machine), 0);
    void* got = nullptr;
    EXPECT_EQ(qel_sm_get_context(machine, &got), 0);
    EXPECT_EQ(got, &context);
    EXPECT_EQ(qel_sm_get_state(machine), 20u);
    EXPECT_STREQ(qel_sm_get_info(machine), "number 7");
    EXPECT_STREQ(qel_sm_get_name(&letters), "letters");
    EXPECT_STREQ(qel_sm_get_event_name(&letters, kAct), "act");
    EXPECT_STREQ(qel_sm_get_event_name(&letters, QEL_SM_EVENT_IDLE), "idle");
    EXPECT_STREQ(qel_sm_get_event_name(&letters, kEventCount), kNoText);
    EXPECT_STREQ(qel_sm_get_state_name(&letters, 3), "D");
    EXPECT_STREQ(qel_sm_get_state_name(&letters, 4), kNoText);
    EXPECT_EQ(qel_sm_destroy(&machine), 0);
    EXPECT_EQ(machine, nullptr);

    EXPECT_EQ(qel_sm_attr_init(&attr), 0);
    EXPECT_EQ(attr.info, nullptr);
    EXPECT_EQ(attr.flags, 0u);
    for (cerrno result : {qel_sm_destroy(&machine), qel_sm_destroy(nullptr), qel_sm_run(machine),
                          qel_sm_post_event(machine, 0), qel_sm_reinit(machine), qel_sm_set_state(machine, 0),
                          qel_sm_get_context(machine, &got), qel_sm_attr_init(nullptr)})
        EXPECT_EQ(result, kInvalid);
    EXPECT_EQ(qel_sm_is_running(nullptr), 0);
    EXPECT_EQ(qel_sm_get_state(nullptr), QEL_SM_NO_STATE);
    for (const char* text : {qel_sm_get_name(nullptr), qel_sm_get_info(nullptr),
                             qel_sm_get_event_name(nullptr, 0), qel_sm_get_state_name(nullptr, 0)})
        EXPECT_STREQ(text, kNoText);
}

TEST(StateMachines, log_each_step_when_traced_and_report_each_refusal) {
    qel_sm machine = nullptr;
    qel_sm_attr attr{[](void*, qel_sm) -> const char* { return nullptr; }, QEL_SM_TRACE};
    ASSERT_EQ(qel_sm_create(&letters, nullptr, &attr, &machine), 0);
    uint64_t steps = entries("qel.gen.buffer.events"), reports = entries("qel.gen.buffer.errors");
    auto post_in = [&](uint32_t index, uint32_t event) {
        qel_sm_set_state(machine, index);
        qel_sm_post_event(machine, event);
        uint64_t more = entries("qel.gen.buffer.events") - steps;
        steps += more;
        return more;
    };
    EXPECT_EQ(post_in(0, kGo), 0u) << "stopped";
    qel_sm_run(machine);
    EXPECT_EQ(post_in(0, kGo), 2u) << "event and change";
    EXPECT_EQ(post_in(1, kGo), 6u) << "and twice idle and change";
    EXPECT_EQ(post_in(1, kMaybe), 2u) << "event and ignored";
    EXPECT_EQ(post_in(1, kAct), 1u);
    EXPECT_EQ(post_in(3, kPush), 2u);
    EXPECT_EQ(entries("qel.gen.buffer.errors") - reports, 3u);
    EXPECT_EQ(qel_sm_destroy(&machine), 0);
}
