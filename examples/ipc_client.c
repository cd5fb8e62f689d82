/* ipc_client: puts numbered values into the key-value service, then reads them all back.
 *
 * usage: ipc_client ID PUTS [PREFIX]
 *
 * ID (1 ...) is who it is: a client that was killed and is started again with the same ID takes its end point
 * back, asks the server how far it came, and goes on from there. PREFIX is put before the names in shared
 * memory.
 *
 *     handler   on_event: acknowledges, sends more while the flow is on and the window open
 *     timer     on_tick: sends again when a while has passed without progress
 *     main      waits; makes the synchronous calls, which the handler's thread must not */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <qel/qel.h>

#include "ipc_kv.h"

#define WINDOW 32 /* puts on their way at most */

static const struct timespec kTick = {0, 200 * 1000 * 1000};

static struct {
    pthread_mutex_t lock; /* guards what follows */
    pthread_cond_t changed;
    int ready, flowing;
    uint32_t next, taken, wanted; /* numbers of puts: to send, acknowledged, to reach */
    uint32_t taken_at_tick;
    unsigned sent, received, replayed, sent_again;
} c = {
    .lock = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER, .flowing = 1, .next = UINT32_MAX};

static qel_ipc_handle ipc;

static void must(uint32_t error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "ipc_client: %s: %s\n", what, cerr_strerror(error));
    exit(1);
}

/* Every eighth value is a long one, which travels through the heap. */
static uint32_t length_of(uint32_t number) {
    return number % 8 == 0 ? KV_LONGEST - number % 100 : number % 200;
}

static struct kv_request* allocate(enum kv_operation operation, uint32_t number, qel_ipc_msg* msg) {
    void* data;
    uint32_t length = operation == KV_PUT ? length_of(number) : 0;
    if (qel_ipc_msg_alloc(ipc, (uint32_t)sizeof(struct kv_request) + length, msg, &data) != 0) return NULL;
    struct kv_request* request = data;
    *request = (struct kv_request){operation, number % KV_KEYS, number, length};
    return request;
}

static int send_put(uint32_t number) {
    qel_ipc_msg msg;
    struct kv_request* request = allocate(KV_PUT, number, &msg);
    if (request == NULL) return 0; /* no credit or no memory now: a reply or the tick comes back here */
    memset(request->value, (int)('a' + number % 26), request->length);
    qel_ipc_msg_set_context(msg, (uint64_t)getpid()); /* comes back with the reply */
    if (qel_ipc_async_send(ipc, NULL, msg) == 0) return ++c.sent, 1;
    qel_ipc_msg_free(&msg);
    return 0;
}

static void send_more(void) {
    while (c.flowing && c.next <= c.wanted && c.next <= c.taken + WINDOW && send_put(c.next)) ++c.next;
    if (c.taken == c.wanted) pthread_cond_broadcast(&c.changed);
}

static void send_again(void) {
    if (c.next > c.taken + 1 && c.next != UINT32_MAX)
        c.sent_again += c.next - c.taken - 1, c.next = c.taken + 1;
}

static void on_reply(qel_ipc_msg msg) {
    uint64_t sender = 0;
    uint32_t taken = 0;
    ++c.received;
    if (qel_ipc_msg_get_context(msg, &sender) == 0) c.replayed += sender != (uint64_t)getpid();
    if (qel_ipc_msg_get_status(msg, &taken) == 0 && taken > c.taken) c.taken = taken;
    qel_ipc_msg_free(&msg);
}

static void on_event(qel_ipc_handle handle, uint32_t events, void* context) {
    qel_ipc_msg msg;
    qel_ipc_ep_handle ep;
    uint32_t what;
    (void)context;
    pthread_mutex_lock(&c.lock);
    if (events & QEL_IPC_EVENT_READY) c.ready = 1, pthread_cond_broadcast(&c.changed);
    if (events & QEL_IPC_EVENT_FLOW_OFF) c.flowing = 0;
    if (events & QEL_IPC_EVENT_FLOW_ON) c.flowing = 1;
    if (events & QEL_IPC_EVENT_EP_UPDATE)
        while (qel_ipc_get_connection_event(handle, &what, &ep) == 0)
            if (what == QEL_IPC_EP_BACK) send_again(); /* the server took some with it */
    while (qel_ipc_receive(handle, NULL, &msg, NULL) == 0) on_reply(msg);
    send_more();
    pthread_mutex_unlock(&c.lock);
}

static void on_tick(qel_dm_handle dm, qel_dm_timer timer, void* context) {
    (void)context;
    pthread_mutex_lock(&c.lock);
    if (c.taken == c.taken_at_tick) send_again();
    c.taken_at_tick = c.taken;
    send_more();
    pthread_mutex_unlock(&c.lock);
    qel_dm_timer_settime(dm, timer, &kTick);
}

/* A synchronous call, made again until it is answered: the server may be killed meanwhile. */
static qel_ipc_msg ask(enum kv_operation operation, uint32_t number, uint32_t* status) {
    const qel_ipc_send_attr second = {.timeout_ms = 1000};
    for (qel_ipc_msg msg, reply;; usleep(10000)) {
        if (allocate(operation, number, &msg) == NULL) continue;
        if (qel_ipc_sync_send(ipc, &second, msg, &reply, status) == 0) return reply;
        qel_ipc_msg_free(&msg); /* refused once the server has it: then it is the server's to free */
    }
}

/* Reads the keys back; the last KV_KEYS puts must be there, letter by letter. */
static unsigned count_lost(void) {
    unsigned lost = 0;
    for (uint32_t number = c.wanted; number + KV_KEYS > c.wanted && number > 0; --number) {
        void* value = NULL;
        uint32_t length = 0;
        qel_ipc_msg reply = ask(KV_GET, number, NULL);
        qel_ipc_msg_get_reply_buffer(reply, &value, &length);
        const char* letters = value;
        uint32_t right = 0;
        while (right < length && letters[right] == (char)('a' + number % 26)) ++right;
        lost += length != length_of(number) || right != length;
        qel_ipc_msg_free(&reply);
    }
    return lost;
}

int main(int argc, char** argv) {
    const qel_dm_threadpool_attr one_thread = {1, 1, 1, NULL, NULL};
    qel_dm_handle dm = 0;
    qel_dm_timer timer = NULL;
    qel_ipc_attr attr;
    qel_ipc_stats stats;
    if (argc < 3) return fprintf(stderr, "usage: ipc_client ID PUTS [PREFIX]\n"), 2;
    if (argc > 3) must((uint32_t)qel_ppm_set_string("qel.shm.root", argv[3]), "root");
    c.wanted = (uint32_t)strtoul(argv[2], NULL, 10);
    must((uint32_t)qel_dm_create(&dm, "ipc_client", 0), "dispatcher");
    must((uint32_t)qel_dm_threadpool_create(dm, 0, &one_thread, NULL), "thread");
    must(qel_ipc_attr_init(&attr, QEL_IPC_ROLE_CLIENT), "attributes");
    attr.msg_mode = 2;
    attr.app_id = strtoull(argv[1], NULL, 10);
    must(qel_ipc_open(&ipc, KV_CHANNEL, &attr, dm, on_event, NULL), "channel");

    pthread_mutex_lock(&c.lock);
    while (!c.ready) pthread_cond_wait(&c.changed, &c.lock);
    pthread_mutex_unlock(&c.lock);
    uint32_t taken = 0;
    qel_ipc_msg progress = ask(KV_PROGRESS, 0, &taken);
    qel_ipc_msg_free(&progress);

    must((uint32_t)qel_dm_timer_register(dm, &timer, on_tick, NULL), "timer");
    must((uint32_t)qel_dm_timer_settime(dm, timer, &kTick), "timer");
    pthread_mutex_lock(&c.lock);
    c.taken = taken;
    c.next = taken + 1;
    send_more();
    while (c.taken < c.wanted) pthread_cond_wait(&c.changed, &c.lock);
    pthread_mutex_unlock(&c.lock);

    unsigned lost = count_lost();
    must(qel_ipc_get_stats(ipc, &stats), "statistics");
    printf("ipc_client %s: %u puts taken, %u sent, %u received, %u replayed, %u sent again, %u lost, credits "
           "%u of %u\n",
           argv[1], c.taken, c.sent, c.received, c.replayed, c.sent_again, lost, stats.reserved_credits,
           stats.quota);
    qel_ipc_close(&ipc);
    qel_dm_destroy(&dm);
    return lost == 0 ? 0 : 1;
}
