/* ipc_client: puts numbered values into the key-value service of ipc_server until SIGTERM or SIGINT, then
 * reads the last ones back.
 *
 * usage: ipc_client ID [PREFIX]
 *
 * ID (1 ...) says who it is: killed and started again with the same ID, it takes its end point back, asks the
 * server how far it came, and goes on from there. PREFIX is put before the names in shared memory.
 *
 * The handler acknowledges, and sends more while the flow is on and the window open. Synchronous calls are
 * made by main: the dispatcher's one thread can't wait for replies, as it is the one that brings them. */
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "ipc_kv.h"

#define WINDOW 32 /* puts on their way at most */

static qel_ipc_handle ipc;

static struct {
    pthread_mutex_t lock; /* guards all here */
    pthread_cond_t acknowledged;
    uint32_t taken, next, last; /* numbers of puts: last acknowledged, next to send, last to send */
    int stopped;                /* the flow is off */
    uint64_t lives;             /* this process, and the server's returns; goes with each put */
    unsigned replayed;
} c = {.lock = PTHREAD_MUTEX_INITIALIZER, .acknowledged = PTHREAD_COND_INITIALIZER, .next = 1};

/* Every eighth value is a long one, which travels through the heap. */
static uint32_t length_of(uint32_t number) {
    return number % 8 == 0 ? KV_LONGEST - number % 100 : number % 200;
}

/* A message with its request and room for the value; null before there is a server, and without credit. */
static void* allocate(enum kv_operation operation, uint32_t number, uint32_t length, qel_ipc_msg* msg) {
    const struct kv_request request = {operation, number % KV_KEYS, number, length};
    void* data;
    if (qel_ipc_msg_alloc(ipc, (uint32_t)sizeof request + length, msg, &data) != 0) return NULL;
    return (char*)memcpy(data, &request, sizeof request) + sizeof request;
}

static int send_put(uint32_t number) {
    qel_ipc_msg msg;
    char* value = allocate(KV_PUT, number, length_of(number), &msg);
    if (value == NULL) return 0;
    memset(value, (int)('a' + number % 26), length_of(number));
    qel_ipc_msg_set_context(msg, c.lives); /* comes back with the reply */
    if (qel_ipc_async_send(ipc, NULL, msg) == 0) return 1;
    qel_ipc_msg_free(&msg);
    return 0;
}

static void send_more(void) {
    while (!c.stopped && c.next <= c.last && c.next <= c.taken + WINDOW && send_put(c.next)) ++c.next;
}

static void acknowledge(uint32_t taken) {
    if (taken > c.taken) c.taken = taken;
    if (c.next <= c.taken) c.next = c.taken + 1;
}

static void on_reply(qel_ipc_msg msg) {
    uint64_t lives;
    uint32_t taken;
    if (qel_ipc_msg_get_context(msg, &lives) == 0) c.replayed += lives != c.lives;
    if (qel_ipc_msg_get_status(msg, &taken) == 0) acknowledge(taken);
    qel_ipc_msg_free(&msg);
}

/* The server has come back. What its dead self held is gone, so all that is not acknowledged goes again. */
static void on_server_back(void) {
    ++c.lives;
    c.next = c.taken + 1;
}

static void on_event(qel_ipc_handle handle, uint32_t events, void* context) {
    qel_ipc_msg msg;
    qel_ipc_ep_handle ep;
    uint32_t what;
    (void)context;
    pthread_mutex_lock(&c.lock);
    if (events & QEL_IPC_EVENT_DOWN) must(ENOTCONN, "the server has ended");
    if (events & QEL_IPC_EVENT_FLOW_OFF) c.stopped = 1;
    if (events & QEL_IPC_EVENT_FLOW_ON) c.stopped = 0;
    if (events & QEL_IPC_EVENT_EP_UPDATE)
        while (qel_ipc_get_connection_event(handle, &what, &ep) == 0)
            if (what == QEL_IPC_EP_BACK) on_server_back();
    while (qel_ipc_receive(handle, NULL, &msg, NULL) == 0) on_reply(msg);
    send_more();
    if (c.taken == c.last) pthread_cond_signal(&c.acknowledged);
    pthread_mutex_unlock(&c.lock);
}

/* A synchronous call, made again until it is answered: the server may be absent, or killed meanwhile. */
static qel_ipc_msg ask(enum kv_operation operation, uint32_t number, uint32_t* status) {
    const qel_ipc_send_attr one_second = {.timeout_ms = 1000};
    for (qel_ipc_msg msg, reply;; usleep(10000)) {
        if (allocate(operation, number, 0, &msg) == NULL) continue;
        if (qel_ipc_sync_send(ipc, &one_second, msg, &reply, status) == 0) return reply;
        qel_ipc_msg_free(&msg); /* refused once the server has it: then it is the server's to free */
    }
}

/* What the server took up to now is not sent again, whoever of us was killed meanwhile. */
static void begin(void) {
    uint32_t taken;
    qel_ipc_msg reply = ask(KV_PROGRESS, 0, &taken);
    qel_ipc_msg_free(&reply);
    printf("ipc_client: goes on after put %u\n", taken);
    fflush(stdout);
    pthread_mutex_lock(&c.lock);
    acknowledge(taken);
    c.last = UINT32_MAX;
    send_more();
    pthread_mutex_unlock(&c.lock);
}

/* Fills the window a last time, as a put sent twice may be on its way yet, and waits for all answers. */
static void end(void) {
    pthread_mutex_lock(&c.lock);
    c.last = c.taken + WINDOW;
    while (c.taken < c.last) pthread_cond_wait(&c.acknowledged, &c.lock);
    pthread_mutex_unlock(&c.lock);
}

/* Whether the put of that number is there, letter by letter. */
static int is_kept(uint32_t number) {
    void* value;
    uint32_t length, right = 0;
    qel_ipc_msg reply = ask(KV_GET, number, NULL);
    qel_ipc_msg_get_reply_buffer(reply, &value, &length);
    while (right < length && ((const char*)value)[right] == (char)('a' + number % 26)) ++right;
    qel_ipc_msg_free(&reply);
    return right == length && length == length_of(number);
}

int main(int argc, char** argv) {
    qel_ipc_attr attr;
    qel_ipc_stats stats;
    sigset_t ends;
    int signal;
    unsigned lost = 0;
    if (argc < 2) return fprintf(stderr, "usage: ipc_client ID [PREFIX]\n"), 2;
    qel_dm_handle dm = kv_begin("ipc_client", argc > 2 ? argv[2] : NULL, &ends);
    must(qel_ipc_attr_init(&attr, QEL_IPC_ROLE_CLIENT), "attributes");
    attr.msg_mode = 2; /* synchronous calls too */
    attr.app_id = strtoul(argv[1], NULL, 10);
    c.lives = (uint64_t)getpid() << 32;
    must(qel_ipc_open(&ipc, KV_CHANNEL, &attr, dm, on_event, NULL), "channel");

    begin();
    sigwait(&ends, &signal);
    end();
    for (uint32_t number = c.last; number + KV_KEYS > c.last; --number) lost += !is_kept(number);
    must(qel_ipc_get_stats(ipc, &stats), "statistics"); /* of all lives of this end point */
    printf(
        "ipc_client %s: %u puts taken, %u lost; messages: %llu sent, %llu received, %u replayed; credits: %u "
        "of %u\n",
        argv[1], c.taken, lost, (unsigned long long)stats.sent, (unsigned long long)stats.received,
        c.replayed, stats.reserved_credits, stats.quota);
    qel_ipc_close(&ipc);
    qel_dm_destroy(&dm);
    return lost == 0 ? 0 : 1;
}
