/* shim_loop: a small interface shim, whole, and a client that uses it.
 *
 * usage: shim_loop [--root PREFIX]
 *
 * The shim gives three interfaces, "loop0" to "loop2", which exist in this program alone. It has a thread of
 * its own, which is what a real shim has for the device or daemon behind it: there it answers requests for
 * changes, and flips the state of an interface now and then, which it reports. What the library logs goes to
 * shared memory below PREFIX.
 *
 *     client's thread                              shim's thread
 *     qel_if_cfg_async ---> cfg_async: a request   serve: takes the request
 *                           into the mailbox              guard, change, report the result, yield
 *     on_done, on_state <--- client's dispatcher <------- and the change, and flips of states
 *
 * The client waits for the result of a change and for a few flips, and ends. The shim sits in slot 0, where
 * requests for changes go, so it is registered before a bind would put the library's own there.
 */
#include <errno.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <qel/qel.h>

#define LOOPS 3
#define SHIM_ID 0u
#define FIRST_IFH (((uint64_t)SHIM_ID << 61) | 1u)
#define FLIPS 4
#define FLIP_MS 100
#define MAIL 16

static void must(cerrno error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "shim_loop: %s: %s\n", what, cerr_strerror(error));
    exit(1);
}

/* ---- The shim ---- */

struct loop {
    char name[QEL_IF_NAME_SIZE];
    uint32_t mtu;
    uint32_t oper_state;
};

/* Under 'lock', as handlers run on any thread. */
static struct {
    pthread_mutex_t lock;
    pthread_cond_t came;
    struct loop loops[LOOPS];
    struct request {
        uint32_t op_id;
        qel_if_cfg_res_attr* result; /* the operation's: good between guard and yield */
    } mail[MAIL];
    unsigned waiting;
    bool stop;
} shim = {.lock = PTHREAD_MUTEX_INITIALIZER, .came = PTHREAD_COND_INITIALIZER};

/* The interface behind a handle, or null: handles come from clients. */
static struct loop* find(uint64_t ifh) {
    return ifh >= FIRST_IFH && ifh < FIRST_IFH + LOOPS ? &shim.loops[ifh - FIRST_IFH] : NULL;
}

static cerrno bind_client(const qel_if_shim_info* info) {
    printf("shim: client \"%s\" is bound\n", info->name);
    return 0;
}

static cerrno destroy_client(const qel_if_shim_info* info) {
    printf("shim: client \"%s\" has gone\n", info->name);
    return 0;
}

static cerrno put(qel_if_attr_data* data, const void* value, size_t size) {
    if (data->size < size) return QEL_CERRNO_FATAL | EINVAL;
    memcpy(data->value, value, size);
    return 0;
}

static cerrno get_attr_locked(const struct loop* loop, uint32_t attr, qel_if_attr_data* data) {
    static const uint32_t kType = QEL_IF_TYPE_LOOPBACK, kEncap = QEL_IF_ENCAP_LOOP;
    switch (attr - QEL_IF_ATTR_BASE) {
    case QEL_IF_ATTR_IF_TYPE:
        return put(data, &kType, sizeof kType);
    case QEL_IF_ATTR_IF_ENCAP:
        return put(data, &kEncap, sizeof kEncap);
    case QEL_IF_ATTR_IF_NAME:
        return put(data, loop->name, sizeof loop->name);
    case QEL_IF_ATTR_MTU:
        return put(data, &loop->mtu, sizeof loop->mtu);
    case QEL_IF_ATTR_OPER_STATE:
        return put(data, &loop->oper_state, sizeof loop->oper_state);
    default:
        return QEL_CERRNO_FATAL | EOPNOTSUPP;
    }
}

static cerrno get_attr(const qel_if_shim_info* info, uint64_t ifh, uint32_t attr, qel_if_attr_data* data) {
    (void)info;
    const struct loop* loop = find(ifh);
    if (loop == NULL) return QEL_CERRNO_FATAL | ENOENT;
    pthread_mutex_lock(&shim.lock);
    cerrno error = get_attr_locked(loop, attr, data);
    pthread_mutex_unlock(&shim.lock);
    return error;
}

static cerrno get_handle(const qel_if_shim_info* info, const char* name, uint64_t* ifh) {
    (void)info;
    for (unsigned i = 0; i < LOOPS; ++i) {
        if (strcmp(shim.loops[i].name, name) != 0) continue;
        *ifh = FIRST_IFH + i;
        return 0;
    }
    return QEL_CERRNO_FATAL | ENODEV;
}

/* This shim reports to everybody, so it needs to remember no registration. */
static cerrno ignore_registration(const qel_if_shim_info* info, const qel_if_shim_reg* reg) {
    (void)info, (void)reg;
    return 0;
}

/* Hands the request over; a refusal here fails the client's call. */
static cerrno cfg_async(const qel_if_shim_client* client, qel_if_cfg_res_attr* result, uint32_t op_id) {
    (void)client;
    cerrno error = QEL_CERRNO_FATAL | EBUSY;
    pthread_mutex_lock(&shim.lock);
    if (shim.waiting < MAIL) {
        shim.mail[shim.waiting++] = (struct request){op_id, result};
        pthread_cond_signal(&shim.came);
        error = 0;
    }
    pthread_mutex_unlock(&shim.lock);
    return error;
}

/* A request says: the interface, one attribute, the MTU wanted. */
static cerrno set_mtu(uint64_t ifh, uint32_t mtu) {
    struct loop* loop = find(ifh);
    if (loop == NULL) return QEL_CERRNO_FATAL | ENOENT;
    pthread_mutex_lock(&shim.lock);
    loop->mtu = mtu;
    pthread_mutex_unlock(&shim.lock);
    return qel_if_shim_report_attr_change(
        ifh, &(qel_if_shim_attr_change){QEL_IF_ATTR_BASE + QEL_IF_ATTR_MTU, sizeof mtu, &mtu});
}

/* The guard is refused when the client has gone meanwhile: then the result has, too. */
static void answer(struct request request) {
    qel_async_ctx* operation;
    if (qel_if_shim_op_guard(request.op_id, &operation) != 0) return;
    cerrno status = 0;
    for (uint64_t i = 0; i < request.result->num_requests && status == 0; ++i) {
        const qel_if_cfg_req* wanted = &request.result->requests[i];
        status = set_mtu(wanted->word, (uint32_t)wanted->last);
        if (status == 0 && wanted->num_attrs > 0) request.result->results[i][0].word[0] = wanted->last;
    }
    qel_if_shim_report_cfg_result(operation, status);
    qel_if_shim_op_yield(operation);
}

static void flip(unsigned number) {
    struct loop* loop = &shim.loops[number % LOOPS];
    pthread_mutex_lock(&shim.lock);
    uint32_t state = loop->oper_state =
        loop->oper_state == QEL_IF_OPER_UP ? QEL_IF_OPER_DOWN : QEL_IF_OPER_UP;
    pthread_mutex_unlock(&shim.lock);
    const qel_if_shim_attr_change change = {QEL_IF_ATTR_BASE + QEL_IF_ATTR_OPER_STATE, sizeof state, &state};
    qel_if_shim_report_attr_change(FIRST_IFH + number % LOOPS, &change);
}

/* Takes a request, or says after a while that there is none. */
static bool take(struct request* request, bool* stop) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_nsec += FLIP_MS * 1000000L;
    until.tv_sec += until.tv_nsec / 1000000000L;
    until.tv_nsec %= 1000000000L;
    pthread_mutex_lock(&shim.lock);
    int error = 0;
    while (shim.waiting == 0 && !shim.stop && error == 0)
        error = pthread_cond_timedwait(&shim.came, &shim.lock, &until);
    bool found = shim.waiting > 0;
    if (found) {
        *request = shim.mail[0];
        memmove(shim.mail, shim.mail + 1, --shim.waiting * sizeof *shim.mail);
    }
    *stop = shim.stop;
    pthread_mutex_unlock(&shim.lock);
    return found;
}

/* No lock of the shim is held while it reports: what is reported may call it. */
static void* serve(void* unused) {
    (void)unused;
    bool stop = false;
    for (unsigned flips = 0; !stop;) {
        struct request request;
        if (take(&request, &stop))
            answer(request);
        else if (!stop)
            flip(flips++);
    }
    return NULL;
}

static void start_shim(pthread_t* thread) {
    qel_if_shim_registration registration;
    for (unsigned i = 0; i < LOOPS; ++i) {
        snprintf(shim.loops[i].name, sizeof shim.loops[i].name, "loop%u", i);
        shim.loops[i].mtu = 1500;
    }
    must(qel_if_shim_registration_init(&registration), "registration");
    registration.id = SHIM_ID;
    registration.name = "loops";
    registration.handlers.bind = bind_client;
    registration.handlers.destroy = destroy_client;
    registration.handlers.get_attr = get_attr;
    registration.handlers.get_handle = get_handle;
    registration.handlers.register_callbacks = ignore_registration;
    registration.handlers.deregister_callbacks = ignore_registration;
    registration.handlers.cfg_async = cfg_async;
    must(qel_if_shim_register(&registration), "qel_if_shim_register");
    must((cerrno)pthread_create(thread, NULL, serve, NULL), "pthread_create");
}

/* When no client is bound any more. */
static void stop_shim(pthread_t thread) {
    pthread_mutex_lock(&shim.lock);
    shim.stop = true;
    pthread_cond_signal(&shim.came);
    pthread_mutex_unlock(&shim.lock);
    pthread_join(thread, NULL);
}

/* ---- The client: all on its dispatcher's thread ---- */

static struct {
    uint32_t app;
    unsigned states;
    bool done;
} client;

static void on_mtu(uint64_t ifh, uint32_t mtu, uint64_t cookie) {
    (void)cookie;
    printf("client: interface %llu has MTU %u\n", (unsigned long long)ifh, mtu);
}

static void on_state(uint64_t ifh, uint32_t state, uint64_t cookie) {
    (void)cookie;
    char name[QEL_IF_NAME_SIZE];
    if (qel_if_get_name(client.app, ifh, name, sizeof name) != 0) return;
    printf("client: %s is %s\n", name, qel_if_get_printable_oper_state(state));
    ++client.states;
}

/* The place for the result has the shape of the request: one interface, one attribute. */
static void on_done(const qel_async_future* future) {
    qel_if_cfg_attr_result attrs[1], *results[1] = {attrs};
    qel_if_cfg_res_attr result = {.results = results};
    cerrno status;
    must(qel_if_cfg_get_result(future, &status, &result), "qel_if_cfg_get_result");
    must(status, "the change");
    printf("client: the change is made: %llu\n", (unsigned long long)attrs[0].word[0]);
    client.done = true;
}

static void ask_for_mtu(uint64_t ifh, uint32_t mtu) {
    static qel_if_cfg_req wanted; /* must stay until the result is fetched */
    qel_if_cfg_req_attr set;
    qel_async_req request;
    qel_async_future future;
    must(qel_if_cfg_req_init(&wanted), "request");
    wanted.word = (uintptr_t)ifh;
    wanted.num_attrs = 1;
    wanted.last = mtu;
    must(qel_if_cfg_req_attr_init(&set), "set of requests");
    set.num_requests = 1;
    set.requests = &wanted;
    must(qel_async_req_init(&request), "qel_async_req_init");
    request.callback = on_done;
    must(qel_if_cfg_async(client.app, &set, &request, &future), "qel_if_cfg_async");
}

static void run_client(void) {
    const qel_if_event_cb_vector callbacks = {.mtu = on_mtu, .oper_state = on_state};
    qel_dm_handle dm;
    qel_if_bind_attr attr;
    uint32_t scope = 0, reg;
    uint64_t ifh;
    must((cerrno)qel_dm_create(&dm, "client", 0), "qel_dm_create");
    must(qel_if_bind_attr_init(&attr), "qel_if_bind_attr_init");
    attr.scope = &scope;
    attr.qdm = dm;
    attr.options |= QEL_IF_OPTION_BIND_CFG;
    must(qel_if_bind(&client.app, "watcher", &attr), "qel_if_bind");
    must(qel_if_register_callbacks(client.app, &callbacks, NULL, 0, &reg), "qel_if_register_callbacks");
    must(qel_if_get_handle(client.app, "loop1", &ifh), "loop1");
    ask_for_mtu(ifh, 9000);
    while ((!client.done || client.states < FLIPS) && qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    must(qel_if_destroy(&client.app), "qel_if_destroy");
    qel_dm_destroy(&dm);
}

int main(int argc, char** argv) {
    pthread_t thread;
    if (argc == 3 && strcmp(argv[1], "--root") == 0)
        must((cerrno)qel_ppm_set_string("qel.shm.root", argv[2]), "--root");
    else if (argc != 1)
        return fprintf(stderr, "usage: shim_loop [--root PREFIX]\n"), 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    start_shim(&thread);
    must(qel_netinfra_init(0), "qel_netinfra_init");
    run_client();
    stop_shim(thread);
    must(qel_netinfra_fini(), "qel_netinfra_fini");
    return 0;
}
