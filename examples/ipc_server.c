/* ipc_server: a key-value service over one channel.
 *
 * usage: ipc_server [PREFIX]
 *
 * Serves until SIGTERM or SIGINT; PREFIX is put before the names in shared memory. Values lie in a shared
 * segment of their own, so a server that was killed goes on where it ended: the library hands it the requests
 * that waited, and clients send again what was being handled. See ipc_client.c. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qel/qel.h>

#include "ipc_kv.h"

struct value {
    uint32_t length; /* bytes */
    char bytes[KV_LONGEST];
};

struct client {
    uint64_t app_id; /* 0 for a free place */
    uint32_t taken;  /* the number of the last put taken, written after its value */
    uint32_t repeated;
    struct value values[KV_KEYS];
};

static struct client* clients; /* KV_CLIENTS of them, in shared memory */
static unsigned served, restarts_seen;

static void must(uint32_t error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "ipc_server: %s: %s\n", what, cerr_strerror(error));
    exit(1);
}

/* The sender's place, found by the identity that it opened the channel with; null if all are taken. */
static struct client* client_of(qel_ipc_handle ipc, qel_ipc_msg msg) {
    qel_ipc_ep_handle sender;
    uint64_t id[2];
    if (qel_ipc_msg_get_sender_ep(msg, &sender) != 0 || qel_ipc_ep_get_app_id(ipc, sender, id) != 0)
        return NULL;
    for (struct client* c = clients; c < clients + KV_CLIENTS; ++c) {
        if (c->app_id == 0) c->app_id = id[1];
        if (c->app_id == id[1]) return c;
    }
    return NULL;
}

static int is_sound(const struct kv_request* request, uint32_t size) {
    return size >= sizeof *request && request->key < KV_KEYS && request->length <= KV_LONGEST &&
           request->length <= size - sizeof *request;
}

static void put(struct client* c, const struct kv_request* request) {
    struct value* value = &c->values[request->key];
    if (request->number != c->taken + 1) { /* sent again, or sent before one that is still missing */
        ++c->repeated;
        return;
    }
    value->length = request->length;
    memcpy(value->bytes, request->value, request->length);
    c->taken = request->number;
}

static void get(const struct client* c, const struct kv_request* request, qel_ipc_msg msg) {
    const struct value* value = &c->values[request->key];
    void* reply;
    if (qel_ipc_msg_alloc_reply_buffer(msg, value->length, &reply) == 0 && value->length != 0)
        memcpy(reply, value->bytes, value->length);
}

static void serve(qel_ipc_handle ipc, qel_ipc_msg msg) {
    void* data = NULL;
    uint32_t size = 0;
    struct client* c = client_of(ipc, msg);
    if (c == NULL || qel_ipc_msg_get_buffer(msg, &data, &size) != 0 || !is_sound(data, size)) {
        qel_ipc_msg_free(&msg);
        return;
    }
    const struct kv_request* request = data;
    if (request->operation == KV_PUT) put(c, request);
    if (request->operation == KV_GET) get(c, request, msg);
    ++served;
    if (qel_ipc_reply(ipc, NULL, msg, c->taken) != 0) qel_ipc_msg_free(&msg); /* the client has gone */
}

static void on_event(qel_ipc_handle ipc, uint32_t events, void* context) {
    qel_ipc_msg msg;
    qel_ipc_ep_handle ep;
    uint32_t what;
    (void)context;
    if (events & QEL_IPC_EVENT_EP_UPDATE)
        while (qel_ipc_get_connection_event(ipc, &what, &ep) == 0) restarts_seen += what == QEL_IPC_EP_BACK;
    if (events & QEL_IPC_EVENT_INPUT)
        while (qel_ipc_receive(ipc, NULL, &msg, NULL) == 0) serve(ipc, msg);
}

int main(int argc, char** argv) {
    const qel_dm_threadpool_attr one_thread = {1, 1, 1, NULL, NULL};
    qel_dm_handle dm = 0;
    qel_ipc_handle ipc = 0;
    qel_ipc_attr attr;
    qel_shm_info store;
    sigset_t ends;
    int signal;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, NULL); /* also for the threads to come */

    if (argc > 1) must((uint32_t)qel_ppm_set_string("qel.shm.root", argv[1]), "root");
    must((uint32_t)qel_shm_safe_open("kv.store", QEL_SHM_CREATE, KV_CLIENTS * sizeof *clients, 1, NULL, NULL,
                                     0, &store),
         "store");
    clients = store.addr;
    must((uint32_t)qel_dm_create(&dm, "ipc_server", 0), "dispatcher");
    must((uint32_t)qel_dm_threadpool_create(dm, 0, &one_thread, NULL), "thread");
    must(qel_ipc_attr_init(&attr, QEL_IPC_ROLE_SERVER), "attributes");
    attr.msg_mode = 2; /* clients make synchronous calls */
    attr.max_clients = KV_CLIENTS;
    attr.max_msg_count = KV_MESSAGES;
    attr.max_msg_size = KV_INLINE;
    attr.large_data_size = KV_HEAP;
    must(qel_ipc_open(&ipc, KV_CHANNEL, &attr, dm, on_event, NULL), "channel");
    puts("ipc_server: serving");
    fflush(stdout);

    sigwait(&ends, &signal);
    qel_ipc_close(&ipc);
    qel_dm_destroy(&dm);
    for (struct client* c = clients; c < clients + KV_CLIENTS && c->app_id != 0; ++c)
        printf("ipc_server: client %u: %u puts taken, %u came again\n", (unsigned)c->app_id, c->taken,
               c->repeated);
    printf("ipc_server: %u requests served, %u restarts of clients seen\n", served, restarts_seen);
    return 0;
}
