/* sessions: very many protocol sessions on one dispatcher, and how punctual their timers are.
 *
 * usage: sessions [--timers tree|wheel] [--sessions N] [--seconds N] [--plot FILE.svg] [--root PREFIX]
 *        sessions --compare [--sessions N] [--seconds N] [--root PREFIX]
 *
 * Two neighbours keep a session each. They greet one another with hellos, which say whether their sender
 * hears the other one. One hello in ten is lost, so some neighbours give up.
 *
 *     +------+  retry timer, or a hello  +----------+  is heard by the other  +----+
 *     | DOWN | ------------------------> | GREETING | ----------------------> | UP |
 *     +------+                           +----------+ <---------------------- +----+
 *        ^  ^          hold timer             |         is not heard any more    |
 *        |  +---------------------------------+                                  |
 *        +------------------------------ hold timer -----------------------------+
 *
 * The retry timer runs in DOWN, the hello and hold timers in the other two; the tables below say the rest.
 * Both neighbours live here, so a hello that isn't lost is simply an event of the other one's machine. The
 * program ends with status 0 only if timers, states and counts fit each other at the end. --plot has gnuplot
 * draw how late timers came; --compare runs the timers alone, on other libraries too (sessions/compare.c).
 *
 * Threads: a pool serves the dispatcher, and state machines have no lock. So the sessions are dealt into a
 * few shards, both neighbours into the same one, and a shard has a tree (or wheel) of its own, which calls
 * the handlers of its timers one after another, on whatever thread. All that happens in a shard therefore
 * happens in sequence and needs no lock, while shards run side by side. With a lock for each session, a hello
 * would take two at a time.
 */
#include <errno.h>
#include <getopt.h>
#include <inttypes.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel/qel.h>

#include "sessions/compare.h"
#include "sessions/lateness.h"

#define SHARDS 4
#define RETRY_MS 400 /* at random up to this */

/* A timer that runs out is an event of its session's machine: events and timers share their numbers. */
enum event { HELLO_TIMER, HOLD_TIMER, RETRY_TIMER, TIMERS, HELLO = TIMERS, HELLO_HEARD, EVENTS };
enum state { DOWN, GREETING, UP, STATES };

struct timer {
    union {
        qel_mgd_timer_leaf leaf;
        qel_tw_timer wheel;
    } of;
    int64_t due_ns;
};

struct session {
    struct timer timers[TIMERS];
    struct shard* shard;
    struct session* peer;
    qel_sm machine;
    bool hears; /* the other one, since this one left DOWN */
};

enum count { SENT, LOST, RECEIVED, CAME_UP, WENT_DOWN, REFUSED, COUNTS };

/* Touched by one thread at a time: by main, then by the handlers of its timers, at the end by main again. */
struct shard {
    const struct timer_calls* calls;
    qel_tw wheel;
    qel_mgd_timer_tree tree;
    qel_mgd_timer_parent parents[TIMERS]; /* leaves of one delay: a start goes behind all others at once */
    uint32_t random;
    uint64_t counts[COUNTS];
    struct lateness lateness;
};

struct run {
    qel_dm_handle dispatcher;
    unsigned sessions;
    unsigned seconds;
    const struct timer_calls* calls;
    const char* plot;
    bool compare;
    struct session* all;
    struct shard shards[SHARDS];
};

/* Takes errno numbers and composite codes. */
static void must(int64_t error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "sessions: %s: %s\n", what, cerr_strerror((uint32_t)error));
    exit(1);
}

/* ---- Timers: a tree or a wheel. ---- */

struct timer_calls {
    const char* name;
    void (*open)(struct shard* shard, qel_dm_handle dispatcher);
    void (*init)(struct session* session, enum event timer);
    void (*start)(struct session* session, enum event timer, uint32_t delay_ms);
    void (*stop)(struct session* session, enum event timer);
    bool (*running)(const struct session* session, enum event timer);
    void (*close)(struct shard* shard);
};

/* Every handler of the program ends here. */
static void run_out(struct session* s, enum event timer) {
    lateness_add(&s->shard->lateness, now_ns(CLOCK_MONOTONIC) - s->timers[timer].due_ns);
    if (qel_sm_post_event(s->machine, timer) != 0) ++s->shard->counts[REFUSED];
}

static void on_leaf(qel_mgd_timer_tree* tree, qel_mgd_timer_leaf* leaf, void* session) {
    (void)tree;
    run_out(session, (enum event)qel_mgd_timer_leaf_get_type(leaf));
}

static void tree_open(struct shard* shard, qel_dm_handle dispatcher) {
    must(qel_mgd_timer_tree_init(&shard->tree), "tree");
    for (int i = 0; i < TIMERS; ++i)
        must(qel_mgd_timer_parent_init(&shard->tree, NULL, &shard->parents[i]), "parent");
    must(qel_mgd_timer_attach_qdm(&shard->tree, dispatcher, on_leaf), "attach");
}

static void tree_init(struct session* s, enum event timer) {
    qel_mgd_timer_leaf* leaf = &s->timers[timer].of.leaf;
    must(qel_mgd_timer_leaf_init(&s->shard->tree, &s->shard->parents[timer], leaf, (uint16_t)timer, s),
         "leaf");
}

static void tree_start(struct session* s, enum event timer, uint32_t delay_ms) {
    must(qel_mgd_timer_leaf_start(&s->timers[timer].of.leaf, delay_ms), "start");
}

static void tree_stop(struct session* s, enum event timer) {
    must(qel_mgd_timer_leaf_stop(&s->timers[timer].of.leaf), "stop");
}

static bool tree_running(const struct session* s, enum event timer) {
    return qel_mgd_timer_leaf_running((qel_mgd_timer_leaf*)&s->timers[timer].of.leaf) != 0;
}

static void tree_close(struct shard* shard) {
    must(qel_mgd_timer_tree_uninit(&shard->tree), "end of a tree"); /* stops the leaves */
}

static void on_wheel(qel_tw wheel, qel_tw_timer* timer, void* session) {
    (void)wheel;
    run_out(session, (enum event)((struct timer*)timer - ((struct session*)session)->timers));
}

static void wheel_open(struct shard* shard, qel_dm_handle dispatcher) {
    must(qel_tw_init_wheel(&shard->wheel, WHEEL_TICK_MS, HOLD_MS, 0, QEL_TW_MODE_CALLBACK, NULL, 1), "wheel");
    must(qel_tw_attach_qdm(shard->wheel, dispatcher), "attach");
}

static void wheel_init(struct session* s, enum event timer) {
    (void)s; /* a zeroed timer is a stopped one */
    (void)timer;
}

static void wheel_start(struct session* s, enum event timer, uint32_t delay_ms) {
    must(qel_tw_timer_start(s->shard->wheel, &s->timers[timer].of.wheel, delay_ms, on_wheel, s), "start");
}

static void wheel_stop(struct session* s, enum event timer) {
    must(qel_tw_timer_stop_r(s->shard->wheel, &s->timers[timer].of.wheel), "stop");
}

static bool wheel_running(const struct session* s, enum event timer) {
    return qel_tw_timer_running(&s->timers[timer].of.wheel) != 0;
}

static void wheel_close(struct shard* shard) {
    must(qel_tw_destroy_wheel(&shard->wheel), "end of a wheel");
}

static const struct timer_calls kTimerCalls[] = {
    {"tree", tree_open, tree_init, tree_start, tree_stop, tree_running, tree_close},
    {"wheel", wheel_open, wheel_init, wheel_start, wheel_stop, wheel_running, wheel_close}};

static void start_timer(struct session* s, enum event timer, uint32_t delay_ms) {
    s->timers[timer].due_ns = now_ns(CLOCK_MONOTONIC) + (int64_t)delay_ms * 1000000;
    s->shard->calls->start(s, timer, delay_ms);
}

static void stop_timer(struct session* s, enum event timer) {
    s->shard->calls->stop(s, timer);
}

/* ---- The protocol: actions, then tables. ---- */

static uint32_t random_below(struct shard* shard, uint32_t limit) {
    shard->random = shard->random * 1664525 + 1013904223;
    return (uint32_t)((uint64_t)shard->random * limit >> 32);
}

static void greet(qel_sm machine, void* session) {
    struct session* s = session;
    (void)machine;
    start_timer(s, HELLO_TIMER, HELLO_MS);
    ++s->shard->counts[SENT];
    if (random_below(s->shard, 100) < LOST_IN_100) {
        ++s->shard->counts[LOST];
        return;
    }
    /* One that is down answers at once: an event of our own machine, which settles in here. */
    if (qel_sm_post_event(s->peer->machine, s->hears ? HELLO_HEARD : HELLO) != 0) ++s->shard->counts[REFUSED];
}

static void hear(qel_sm machine, void* session) {
    struct session* s = session;
    (void)machine;
    ++s->shard->counts[RECEIVED];
    s->hears = true;
    start_timer(s, HOLD_TIMER, HOLD_MS);
}

static void answer(qel_sm machine, void* session) {
    hear(machine, session);
    greet(machine, session);
}

static void give_up(qel_sm machine, void* session) {
    struct session* s = session;
    (void)machine;
    s->hears = false;
}

static void enter_down(qel_sm machine, void* session) {
    struct session* s = session;
    (void)machine;
    stop_timer(s, HELLO_TIMER);
    stop_timer(s, HOLD_TIMER);
    start_timer(s, RETRY_TIMER, 1 + random_below(s->shard, RETRY_MS));
}

static void exit_down(qel_sm machine, void* session) {
    (void)machine;
    stop_timer(session, RETRY_TIMER);
    start_timer(session, HOLD_TIMER, HOLD_MS);
}

static void enter_up(qel_sm machine, void* session) {
    (void)machine;
    ++((struct session*)session)->shard->counts[CAME_UP];
}

static void exit_up(qel_sm machine, void* session) {
    (void)machine;
    ++((struct session*)session)->shard->counts[WENT_DOWN];
}

static const qel_sm_event kEvents[EVENTS] = {[HELLO_TIMER] = {"hello timer", 0},
                                             [HOLD_TIMER] = {"hold timer", 0},
                                             [RETRY_TIMER] = {"retry timer", 0},
                                             [HELLO] = {"hello", 0},
                                             [HELLO_HEARD] = {"hello of one that hears us", 0}};

static qel_sm_state down, greeting, up;

/* clang-format off */
static const qel_sm_transition kWhenDown[] = {{&greeting, RETRY_TIMER, greet},
                                              {&greeting, HELLO, answer},
                                              {&greeting, HELLO_HEARD, answer},
                                              {NULL, QEL_SM_EVENT_ENTER, enter_down},
                                              {NULL, QEL_SM_EVENT_EXIT, exit_down},
                                              {0}};
static const qel_sm_transition kWhenGreeting[] = {{&greeting, HELLO_TIMER, greet},
                                                  {&greeting, HELLO, hear},
                                                  {&up, HELLO_HEARD, hear},
                                                  {&down, HOLD_TIMER, give_up},
                                                  {0}};
static const qel_sm_transition kWhenUp[] = {{&up, HELLO_TIMER, greet},
                                            {&up, HELLO_HEARD, hear},
                                            {&greeting, HELLO, hear},
                                            {&down, HOLD_TIMER, give_up},
                                            {NULL, QEL_SM_EVENT_ENTER, enter_up},
                                            {NULL, QEL_SM_EVENT_EXIT, exit_up},
                                            {0}};
/* clang-format on */

static qel_sm_state down = {.id = DOWN,
                            .name = "down",
                            .transitions = kWhenDown,
                            .flags = QEL_SM_STATE_HAS_ENTER | QEL_SM_STATE_HAS_EXIT};
static qel_sm_state greeting = {.id = GREETING, .name = "greeting", .transitions = kWhenGreeting};
static qel_sm_state up = {
    .id = UP, .name = "up", .transitions = kWhenUp, .flags = QEL_SM_STATE_HAS_ENTER | QEL_SM_STATE_HAS_EXIT};
static qel_sm_state* const kStates[] = {&down, &greeting, &up, NULL};

static qel_sm_definition protocol = {
    .name = "session", .event_count = EVENTS, .events = kEvents, .state_count = STATES, .states = kStates};

/* ---- The run. ---- */

static void start_session(struct run* run, unsigned number) {
    struct session* s = &run->all[number];
    s->shard = &run->shards[number / 2 % SHARDS];
    s->peer = &run->all[number ^ 1];
    for (int timer = 0; timer < TIMERS; ++timer) run->calls->init(s, (enum event)timer);
    must(qel_sm_create(&protocol, s, NULL, &s->machine), "machine");
    must(qel_sm_run(s->machine), "run"); /* enters DOWN, which starts the retry timer */
}

/* All is started before the first thread serves, so nothing of it runs yet. */
static void start(struct run* run) {
    must(qel_dm_create(&run->dispatcher, "sessions", 0), "dispatcher");
    for (uint32_t i = 0; i < SHARDS; ++i) {
        run->shards[i].calls = run->calls;
        run->shards[i].random = i + 1; /* the same sequence in each run */
        run->calls->open(&run->shards[i], run->dispatcher);
    }
    run->all = calloc(run->sessions, sizeof *run->all);
    must(run->all == NULL ? ENOMEM : 0, "sessions");
    for (unsigned i = 0; i < run->sessions; ++i) start_session(run, i);
    must(qel_dm_threadpool_create(run->dispatcher, 0, NULL, NULL), "pool");
}

static void free_all(struct run* run) {
    for (int i = 0; i < SHARDS; ++i) run->calls->close(&run->shards[i]);
    for (unsigned i = 0; i < run->sessions; ++i)
        must(qel_sm_destroy(&run->all[i].machine), "end of a machine");
    free(run->all);
}

static void add_up(const struct run* run, struct shard* total) {
    for (int i = 0; i < SHARDS; ++i) {
        for (int count = 0; count < COUNTS; ++count) total->counts[count] += run->shards[i].counts[count];
        lateness_merge(&total->lateness, &run->shards[i].lateness);
    }
}

/* Whether the timers that run are those of the state. */
static bool is_consistent(const struct run* run, const struct session* s) {
    bool is_down = qel_sm_get_state(s->machine) == DOWN;
    return run->calls->running(s, RETRY_TIMER) == is_down &&
           run->calls->running(s, HELLO_TIMER) == !is_down &&
           run->calls->running(s, HOLD_TIMER) == !is_down && !(is_down && s->hears);
}

static bool holds(bool condition, const char* what) {
    if (!condition) fprintf(stderr, "sessions: broken: %s\n", what);
    return condition;
}

static bool check(const struct run* run, const struct shard* total) {
    const uint64_t* counts = total->counts;
    uint64_t are_up = 0, inconsistent = 0;
    for (unsigned i = 0; i < run->sessions; ++i) {
        are_up += qel_sm_get_state(run->all[i].machine) == UP;
        inconsistent += !is_consistent(run, &run->all[i]);
    }
    printf("%s: %" PRIu64 " of %u sessions up, %" PRIu64 " flaps, %" PRIu64 " hellos, %" PRIu64 " lost\n",
           run->calls->name, are_up, run->sessions, counts[WENT_DOWN], counts[SENT], counts[LOST]);
    bool sound = holds(inconsistent == 0, "timers are those of the state of their session");
    sound &= holds(counts[CAME_UP] - counts[WENT_DOWN] == are_up, "who came up is up or went down");
    sound &= holds(counts[SENT] == counts[LOST] + counts[RECEIVED], "a hello is lost or received");
    sound &= holds(counts[REFUSED] == 0, "every event has a row in every state that it can meet");
    return sound & holds(total->lateness.count != 0 && are_up != 0, "timers run out and sessions come up");
}

static void print_timing(const struct run* run, const struct lateness* l, double seconds, double cpu) {
    printf("%s: %.0f expiries/s, late by %.2f ms (median), %.2f ms (p99), %.2f ms (most); %.2f s of CPU in "
           "%.2f s\n",
           run->calls->name, (double)l->count / seconds, lateness_ms(l, 0.5), lateness_ms(l, 0.99),
           (double)l->latest_ns * 1e-6, cpu, seconds);
}

static int run_sessions(struct run* run) {
    static struct shard total;
    start(run);
    int64_t cpu = now_ns(CLOCK_PROCESS_CPUTIME_ID), begun = now_ns(CLOCK_MONOTONIC);
    struct timespec left = {.tv_sec = run->seconds};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) continue;
    /* Returns when the last handler has: from then on nothing changes. */
    must(qel_dm_destroy(&run->dispatcher), "end of the dispatcher");
    cpu = now_ns(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    double seconds = (double)(now_ns(CLOCK_MONOTONIC) - begun) * 1e-9;

    add_up(run, &total);
    bool sound = check(run, &total);
    print_timing(run, &total.lateness, seconds, (double)cpu * 1e-9);
    if (run->plot != NULL)
        sound &= holds(lateness_plot(&total.lateness, run->plot, run->calls->name), "gnuplot draws");
    free_all(run);
    return sound ? 0 : 1;
}

/* ---- Options. ---- */

static int usage(void) {
    fprintf(stderr, "usage: sessions [--timers tree|wheel] [--sessions N] [--seconds N] [--plot FILE.svg]\n"
                    "       [--root PREFIX] [--compare]\n");
    return 2;
}

static const struct timer_calls* calls_named(const char* name) {
    for (int i = 0; i < 2; ++i)
        if (strcmp(name, kTimerCalls[i].name) == 0) return &kTimerCalls[i];
    return NULL;
}

static unsigned number_in(const char* text) {
    char* end;
    unsigned long value = strtoul(text, &end, 10);
    return *end != '\0' || value > 1000000 ? 0 : (unsigned)value;
}

static void take_option(struct run* run, int option, const char* value) {
    if (option == 't') run->calls = calls_named(value);
    if (option == 'n') run->sessions = number_in(value) / 2 * 2; /* neighbours come in pairs */
    if (option == 's') run->seconds = number_in(value);
    if (option == 'p') run->plot = value;
    if (option == 'r') must(qel_ppm_set_string("qel.shm.root", value), "root");
    if (option == 'c') run->compare = true;
}

int main(int argc, char** argv) {
    static const struct option options[] = {{"timers", required_argument, NULL, 't'},
                                            {"sessions", required_argument, NULL, 'n'},
                                            {"seconds", required_argument, NULL, 's'},
                                            {"plot", required_argument, NULL, 'p'},
                                            {"root", required_argument, NULL, 'r'},
                                            {"compare", no_argument, NULL, 'c'},
                                            {0}};
    static struct run run = {.sessions = 20000, .seconds = 10, .calls = &kTimerCalls[0]};
    for (int option; (option = getopt_long(argc, argv, "", options, NULL)) != -1;) {
        if (option == '?') return usage();
        take_option(&run, option, optarg);
    }
    if (run.calls == NULL || run.sessions == 0 || run.seconds == 0 || optind != argc) return usage();
    return run.compare ? compare_libraries(run.sessions, run.seconds) : run_sessions(&run);
}
