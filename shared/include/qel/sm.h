/** @file
 * State machines driven by tables.
 *
 * A definition says what exists: events, states, and for each state the rows of its transitions. It is static
 * data, shared by any number of machines; a machine is little more than a pointer to its state. There is no
 * queue and no thread: qel_sm_post_event() runs the machine, in the caller's thread, until it settles.
 *
 *     enum { OPEN, CLOSE };
 *     static const qel_sm_event events[] = {{"open", 0}, {"close", QEL_SM_EVENT_IGNORABLE}};
 *     static qel_sm_state shut, wide;
 *     static const qel_sm_transition when_shut[] = {{&wide, OPEN, lift_latch}, {0}};
 *     static const qel_sm_transition when_wide[] = {{&shut, CLOSE, drop_latch},
 *                                                   {NULL, QEL_SM_EVENT_ENTER, ring_bell}, {0}};
 *     static qel_sm_state shut = {.id = 1, .name = "shut", .transitions = when_shut};
 *     static qel_sm_state wide = {.id = 2, .name = "wide", .transitions = when_wide,
 *                                 .flags = QEL_SM_STATE_HAS_ENTER};
 *     static qel_sm_state* const states[] = {&shut, &wide, NULL};
 *     static qel_sm_definition door = {.name = "door", .event_count = 2, .events = events,
 *                                      .state_count = 2, .states = states};
 *
 *     qel_sm machine;
 *     qel_sm_create(&door, context, NULL, &machine);
 *     qel_sm_run(machine);
 *     qel_sm_post_event(machine, OPEN);   // runs ring_bell, then lift_latch
 *
 * What an event does. The current state's first row for it is looked up; then, in this order, the old state's
 * exit action runs, the new state's enter action, and the row's own action. A row that leads back to its own
 * state runs only its own action. If the state has an idle row now, that is followed in the same way, and so
 * on until a state has none: a table whose idle rows lead in a circle never settles.
 *
 * Inside an action the machine is in its new state already, and may be used freely: an event posted there
 * settles before the post returns, and the outer event then goes on from the state that it finds. An action
 * may destroy its own machine or set it back with qel_sm_reinit(); either ends all that the machine was
 * about to do, so that the posts under way run no further action and give 0.
 *
 * Threads: a machine has no lock; its owner serialises the calls on it. The first qel_sm_create() of a
 * definition writes into it and must not race with another one; from then on it is only read.
 *
 * Results are composite codes (qel/cerrno.h): QEL_CERRNO_FATAL with the errno that is named. What goes wrong
 * while an event is handled is also reported to "qel.gen.buffer.errors"; QEL_SM_TRACE logs each step to
 * "qel.gen.buffer.events", whose size in bytes the parameter "qel.gen.buffer.events.size" sets (65,536). */
#ifndef QEL_SM_H
#define QEL_SM_H

#include <qel/types.h>

QEL_BEGIN_DECLS

/* The library's own events. An application's are numbered from 0 and stay below them. */
#define QEL_SM_EVENT_IDLE 16383u  /**< the machine has nothing else to do; "idle" in texts */
#define QEL_SM_EVENT_ENTER 16382u /**< a state is entered; the row's 'next' isn't read */
#define QEL_SM_EVENT_EXIT 16381u  /**< a state is left; the row's 'next' isn't read */

/* Flags of an event. */
/** A state that has no row for the event lets it pass. */
#define QEL_SM_EVENT_IGNORABLE 0x4000u
/** The event is applied again in each state that it leads to, for as long as that has a row for it; a row of
 * such an event must leave its state. */
#define QEL_SM_EVENT_PERSISTENT 0x8000u

/* Flags of a state: which of the library's events its table has a row for. */
#define QEL_SM_STATE_HAS_IDLE 0x1u  /**< QEL_SM_EVENT_IDLE */
#define QEL_SM_STATE_HAS_ENTER 0x2u /**< QEL_SM_EVENT_ENTER */
#define QEL_SM_STATE_HAS_EXIT 0x4u  /**< QEL_SM_EVENT_EXIT */

#define QEL_SM_PREPARED 0x1u /**< flag of a definition; the library sets it */
#define QEL_SM_TRACE 0x1u    /**< flag of a machine: log each step */

#define QEL_SM_NO_STATE 0xffffffffu /**< the 'id' that qel_sm_get_state() gives without a machine */

/** A machine. */
typedef struct qel_sm_instance* qel_sm;
/** What a transition does. Runs on the thread that posted the event, with no lock held. */
typedef void (*qel_sm_action)(qel_sm machine, void* context);
/** Gives a text that tells this machine from others in logs; it is read before the next call on the machine.
 * Null counts as "". Only called to make such a text; it must not change the machine. */
typedef const char* (*qel_sm_info)(void* context, qel_sm machine);
/** A state. */
typedef struct qel_sm_state qel_sm_state;

/** An event; its number is its row in the definition's table. */
typedef struct qel_sm_event {
    const char* name; /**< for the logs */
    uint32_t flags;   /**< QEL_SM_EVENT_IGNORABLE, QEL_SM_EVENT_PERSISTENT */
} qel_sm_event;

/** A row of a state's table: on 'event', go to 'next' and run 'action'. */
typedef struct qel_sm_transition {
    const qel_sm_state* next; /**< the state to go to, which may be the present one */
    uint32_t event;       /**< a number below 'event_count', or one of QEL_SM_EVENT_IDLE, _ENTER and _EXIT */
    qel_sm_action action; /**< never null, save in the row that ends the table */
} qel_sm_transition;

/** A state. */
struct qel_sm_state {
    uint32_t id;                          /**< any number of the application's */
    const char* name;                     /**< for the logs */
    const qel_sm_transition* transitions; /**< ended by a row with a null action */
    uint32_t flags;                       /**< QEL_SM_STATE_HAS_* */
    const qel_sm_transition* idle;        /**< the library's */
    const qel_sm_transition* enter;       /**< the library's */
    const qel_sm_transition* exit;        /**< the library's */
};

/** All that machines of one kind share. It and what it points at must outlive them. */
typedef struct qel_sm_definition {
    const char* name;            /**< for the logs */
    uint32_t event_count;        /**< at most QEL_SM_EVENT_EXIT */
    const qel_sm_event* events;  /**< 'event_count' rows; may be null for none */
    uint32_t state_count;        /**< at least 1 */
    qel_sm_state* const* states; /**< 'state_count' states, then null */
    const qel_sm_state* initial; /**< one of 'states'; null for the first */
    uint32_t flags;              /**< 0; QEL_SM_PREPARED is the library's */
} qel_sm_definition;

/** What qel_sm_create() can be told. */
typedef struct qel_sm_attr {
    qel_sm_info info; /**< null for "" */
    uint32_t flags;   /**< 0 or QEL_SM_TRACE */
} qel_sm_attr;

/** Clears the attributes: no 'info', no flags. Returns 0; EINVAL for null. */
QEL_API cerrno qel_sm_attr_init(qel_sm_attr* attr);

/** Makes a machine in the initial state, stopped. 'context' is handed to its actions and stays the caller's.
 * 'attr' may be null and is copied. The caller ends the machine with qel_sm_destroy().
 *
 * The first machine prepares the definition: looks it over and notes the rows of the library's events.
 *
 * Returns 0; EINVAL for a null 'out' or 'definition' and for flags beyond QEL_SM_TRACE; ENOMEM; EPERM, with a
 * report, for a definition that isn't sound. That is: a name or table is missing; there is no state, there
 * are more or fewer than 'state_count', or too many events; 'initial', or the 'next' of a row that can be
 * followed, is none of 'states'; a state has a flag without the row, which also takes the flag off. */
QEL_API cerrno qel_sm_create(qel_sm_definition* definition, void* context, const qel_sm_attr* attr,
                             qel_sm* out);

/** Ends a machine, in whatever state, with no action, and clears '*machine'. May be called by the machine's
 * own action. Returns 0; EINVAL for a null pointer or machine. */
QEL_API cerrno qel_sm_destroy(qel_sm* machine);

/** Starts a machine: runs the enter action of its state, if there is one, and follows its idle row, if there
 * is one. Until then it takes no events. Returns 0; EINVAL for null. */
QEL_API cerrno qel_sm_run(qel_sm machine);

/** Returns 1 for a started machine, 0 for a stopped one and for null. */
QEL_API uint8_t qel_sm_is_running(qel_sm machine);

/** Lets 'event', one of the definition's or QEL_SM_EVENT_IDLE, happen, and returns when the machine has
 * settled.
 *
 * Returns 0, also for an ignorable event that the state has no row for; EINVAL for a null machine or another
 * event; EPERM if the machine is stopped, or the state has no row and must have one (idle included); EEXIST
 * when a persistent event didn't leave its state, whose action is then not run. */
QEL_API cerrno qel_sm_post_event(qel_sm machine, uint32_t event);

/** Sets a machine back to the initial state, stopped, with no action. May be called by the machine's own
 * action. Returns 0; EINVAL for null. */
QEL_API cerrno qel_sm_reinit(qel_sm machine);

/** Gives the context of qel_sm_create(). Returns 0; EINVAL for a null machine or 'out'. */
QEL_API cerrno qel_sm_get_context(qel_sm machine, void** out);

/** Gives the definition's name, or "**error** Invalid request" for null. */
QEL_API const char* qel_sm_get_name(const qel_sm_definition* definition);

/** Gives the text of the machine's 'info', or "**error** Invalid request" for null. */
QEL_API const char* qel_sm_get_info(qel_sm machine);

/** Gives the 'id' of the current state; QEL_SM_NO_STATE for null. */
QEL_API uint32_t qel_sm_get_state(qel_sm machine);

/** Puts a machine into the state at 'index' in the definition's 'states', with no action. Returns 0; EINVAL
 * for null and for an index of 'state_count' or more. */
QEL_API cerrno qel_sm_set_state(qel_sm machine, uint32_t index);

/** Gives the name of an event, "idle" for QEL_SM_EVENT_IDLE, or "**error** Invalid request" for null or any
 * other number. */
QEL_API const char* qel_sm_get_event_name(const qel_sm_definition* definition, uint32_t event);

/** Gives the name of the state at 'index' in 'states', or "**error** Invalid request" for null or an index of
 * 'state_count' or more. */
QEL_API const char* qel_sm_get_state_name(const qel_sm_definition* definition, uint32_t index);

QEL_END_DECLS

#endif
