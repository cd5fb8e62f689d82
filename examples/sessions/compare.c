/* The timers of 'sessions' sessions on this library's tree and wheel, on libuv and on libevent.
 *
 * Each session has a hello timer, which its handler starts afresh, and a hold timer, which the neighbour's
 * hello starts afresh. One hello in ten is lost, so some hold timers run out; they are started afresh as
 * well. One library after the other does that on one thread, with the same delays. A timer is due its delay
 * after the clock reading at its start; libuv counts from the last time that its loop read the clock, and may
 * so be early.
 */
#include "compare.h"

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>

#ifdef HAVE_LIBEVENT
#include <event2/event.h>
#endif
#ifdef HAVE_LIBUV
#include <uv.h>
#endif

#include <qel/qel.h>

#include "lateness.h"

enum kind { HELLO, HOLD, KINDS };
static const uint32_t kDelaysMs[KINDS] = {HELLO_MS, HOLD_MS};

struct timer {
    union {
        qel_mgd_timer_leaf leaf;
        qel_tw_timer wheel;
#ifdef HAVE_LIBUV
        uv_timer_t uv;
#endif
#ifdef HAVE_LIBEVENT
        struct event* event;
#endif
    } of;
    struct load* load;
    int64_t due_ns;
    enum kind kind;
};

struct session {
    struct timer timers[KINDS];
};

struct load {
    const struct library* library;
    struct session* all;
    unsigned sessions;
    uint32_t random;
    int64_t end_ns;
    bool over;
    struct lateness lateness;
    double cpu_ns; /* an expiry */

    /* The loop, one of these. */
    qel_dm_handle dispatcher;
    qel_mgd_timer_tree tree;
    qel_mgd_timer_parent parents[KINDS];
    qel_tw wheel;
#ifdef HAVE_LIBUV
    uv_loop_t uv;
#endif
#ifdef HAVE_LIBEVENT
    struct event_base* base;
#endif
};

struct library {
    const char* name;
    int (*open)(struct load* load); /* 0, or it can't be used */
    void (*init)(struct load* load, struct timer* timer);
    void (*start)(struct load* load, struct timer* timer, uint32_t delay_ms);
    void (*turn)(struct load* load); /* waits for an expiry, and runs what is due */
    void (*close)(struct load* load);
};

/* ---- The load. ---- */

static void start(struct load* l, struct timer* timer, uint32_t delay_ms) {
    timer->due_ns = now_ns(CLOCK_MONOTONIC) + (int64_t)delay_ms * 1000000;
    l->library->start(l, timer, delay_ms);
}

static struct timer* hold_of_neighbour(const struct timer* hello) {
    const struct load* l = hello->load;
    size_t number = (size_t)((const struct session*)(const void*)hello - l->all); /* its first timer */
    return &l->all[number ^ 1].timers[HOLD];
}

/* Every handler ends here. */
static void run_out(struct timer* timer) {
    struct load* l = timer->load;
    int64_t now = now_ns(CLOCK_MONOTONIC);
    lateness_add(&l->lateness, now - timer->due_ns);
    l->over |= now >= l->end_ns;
    if (l->over) return;
    start(l, timer, kDelaysMs[timer->kind]);
    l->random = l->random * 1664525 + 1013904223;
    bool lost = (l->random >> 16) % 100 < LOST_IN_100;
    if (timer->kind == HELLO && !lost) start(l, hold_of_neighbour(timer), HOLD_MS);
}

/* ---- The libraries. ---- */

static int dispatcher_open(struct load* l) {
    return qel_dm_create(&l->dispatcher, "compare", QEL_DM_PRIVATE);
}

static void dispatcher_turn(struct load* l) {
    if (qel_dm_wait(l->dispatcher) == 0) qel_dm_dispatch(l->dispatcher);
}

static void on_leaf(qel_mgd_timer_tree* tree, qel_mgd_timer_leaf* leaf, void* timer) {
    (void)tree;
    (void)leaf;
    run_out(timer);
}

static int tree_open(struct load* l) {
    int error = dispatcher_open(l);
    if (error == 0) error = qel_mgd_timer_tree_init(&l->tree);
    for (int i = 0; i < KINDS && error == 0; ++i)
        error = qel_mgd_timer_parent_init(&l->tree, NULL, &l->parents[i]);
    return error == 0 ? qel_mgd_timer_attach_qdm(&l->tree, l->dispatcher, on_leaf) : error;
}

static void tree_init(struct load* l, struct timer* timer) {
    qel_mgd_timer_leaf_init(&l->tree, &l->parents[timer->kind], &timer->of.leaf, 0, timer);
}

static void tree_start(struct load* l, struct timer* timer, uint32_t delay_ms) {
    (void)l;
    qel_mgd_timer_leaf_start(&timer->of.leaf, delay_ms);
}

static void tree_close(struct load* l) {
    qel_mgd_timer_tree_uninit(&l->tree);
    qel_dm_destroy(&l->dispatcher);
}

static void on_wheel(qel_tw wheel, qel_tw_timer* native, void* timer) {
    (void)wheel;
    (void)native;
    run_out(timer);
}

static int wheel_open(struct load* l) {
    int error = dispatcher_open(l);
    if (error == 0)
        error = qel_tw_init_wheel(&l->wheel, WHEEL_TICK_MS, HOLD_MS, 0, QEL_TW_MODE_CALLBACK, NULL, 1);
    return error == 0 ? qel_tw_attach_qdm(l->wheel, l->dispatcher) : error;
}

static void wheel_init(struct load* l, struct timer* timer) {
    (void)l; /* a zeroed timer is a stopped one */
    (void)timer;
}

static void wheel_start(struct load* l, struct timer* timer, uint32_t delay_ms) {
    qel_tw_timer_start(l->wheel, &timer->of.wheel, delay_ms, on_wheel, timer);
}

static void wheel_close(struct load* l) {
    qel_tw_destroy_wheel(&l->wheel);
    qel_dm_destroy(&l->dispatcher);
}

#ifdef HAVE_LIBUV
static void on_uv(uv_timer_t* native) {
    run_out(native->data);
}

static int open_uv(struct load* l) {
    return uv_loop_init(&l->uv);
}

static void init_uv(struct load* l, struct timer* timer) {
    uv_timer_init(&l->uv, &timer->of.uv);
    timer->of.uv.data = timer;
}

static void start_uv(struct load* l, struct timer* timer, uint32_t delay_ms) {
    (void)l;
    uv_timer_start(&timer->of.uv, on_uv, delay_ms, 0);
}

static void turn_uv(struct load* l) {
    uv_run(&l->uv, UV_RUN_ONCE);
}

static void close_uv(struct load* l) {
    for (unsigned i = 0; i < l->sessions * KINDS; ++i)
        uv_close((uv_handle_t*)&l->all[i / KINDS].timers[i % KINDS].of.uv, NULL);
    uv_run(&l->uv, UV_RUN_DEFAULT);
    uv_loop_close(&l->uv);
}
#endif

#ifdef HAVE_LIBEVENT
static void on_event(evutil_socket_t descriptor, short what, void* timer) {
    (void)descriptor;
    (void)what;
    run_out(timer);
}

static int open_event(struct load* l) {
    l->base = event_base_new();
    return l->base == NULL;
}

static void init_event(struct load* l, struct timer* timer) {
    timer->of.event = evtimer_new(l->base, on_event, timer);
}

static void start_event(struct load* l, struct timer* timer, uint32_t delay_ms) {
    (void)l;
    struct timeval delay = {delay_ms / 1000, (suseconds_t)(delay_ms % 1000) * 1000};
    evtimer_add(timer->of.event, &delay);
}

static void turn_event(struct load* l) {
    event_base_loop(l->base, EVLOOP_ONCE);
}

static void close_event(struct load* l) {
    for (unsigned i = 0; i < l->sessions * KINDS; ++i)
        event_free(l->all[i / KINDS].timers[i % KINDS].of.event);
    event_base_free(l->base);
}
#endif

/* Ours first, then what they are held against. */
#define OURS 2
static const struct library kLibraries[] = {
    {"tree", tree_open, tree_init, tree_start, dispatcher_turn, tree_close},
    {"wheel", wheel_open, wheel_init, wheel_start, dispatcher_turn, wheel_close},
#ifdef HAVE_LIBUV
    {"libuv", open_uv, init_uv, start_uv, turn_uv, close_uv},
#endif
#ifdef HAVE_LIBEVENT
    {"libevent", open_event, init_event, start_event, turn_event, close_event},
#endif
};
enum { LIBRARIES = sizeof kLibraries / sizeof *kLibraries };

/* ---- The comparison. ---- */

static bool prepare(struct load* l) {
    l->all = calloc(l->sessions, sizeof *l->all);
    if (l->all == NULL || l->library->open(l) != 0) return false;
    for (unsigned i = 0; i < l->sessions * KINDS; ++i) {
        struct timer* timer = &l->all[i / KINDS].timers[i % KINDS];
        timer->load = l;
        timer->kind = (enum kind)(i % KINDS);
        l->library->init(l, timer);
    }
    return true;
}

/* The first hellos are spread over the length of a hello's delay, and the later ones stay so. */
static void start_all(struct load* l) {
    for (unsigned i = 0; i < l->sessions; ++i) {
        start(l, &l->all[i].timers[HELLO], 1 + i * HELLO_MS / l->sessions);
        start(l, &l->all[i].timers[HOLD], HOLD_MS);
    }
}

static bool measure(struct load* l, unsigned seconds) {
    if (!prepare(l)) return fprintf(stderr, "sessions: %s can't be used\n", l->library->name), false;
    int64_t cpu = now_ns(CLOCK_PROCESS_CPUTIME_ID), begun = now_ns(CLOCK_MONOTONIC);
    l->end_ns = begun + (int64_t)seconds * 1000000000;
    for (start_all(l); !l->over;) l->library->turn(l);
    cpu = now_ns(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    int64_t took = now_ns(CLOCK_MONOTONIC) - begun; /* a stall makes it more than was asked for */
    l->library->close(l);
    free(l->all);
    l->cpu_ns = (double)cpu / (double)l->lateness.count;
    printf("%-9s %7.0f expiries/s, %5.0f ns of CPU each; late by %6.2f ms (median), %6.2f ms (p99)\n",
           l->library->name, (double)l->lateness.count * 1e9 / (double)took, l->cpu_ns,
           lateness_ms(&l->lateness, 0.5), lateness_ms(&l->lateness, 0.99));
    return true;
}

/* How often 'theirs' goes into 'ours'; a peer that was early on the whole has no such number. */
static const char* ratio_text(char text[16], double ours, double theirs) {
    if (theirs <= 0) return "none";
    snprintf(text, 16, "%.2f", ours / theirs);
    return text;
}

static void print_ratios(const struct load* ours, const struct load* peer) {
    char cpu[16], p99[16];
    printf("%-5s : %-8s  CPU %s, p99 of lateness %s\n", ours->library->name, peer->library->name,
           ratio_text(cpu, ours->cpu_ns, peer->cpu_ns),
           ratio_text(p99, lateness_ms(&ours->lateness, 0.99), lateness_ms(&peer->lateness, 0.99)));
}

int compare_libraries(unsigned sessions, unsigned seconds) {
    static struct load loads[LIBRARIES];
    for (int i = 0; i < LIBRARIES; ++i) {
        loads[i].library = &kLibraries[i];
        loads[i].sessions = sessions;
        if (!measure(&loads[i], seconds)) return 1;
    }
#ifndef HAVE_LIBUV
    printf("libuv was not there when this program was built\n");
#endif
#ifndef HAVE_LIBEVENT
    printf("libevent was not there when this program was built\n");
#endif
    for (int ours = 0; ours < OURS; ++ours)
        for (int peer = OURS; peer < LIBRARIES; ++peer) print_ratios(&loads[ours], &loads[peer]);
    return 0;
}
