/* ipc_server: a key-value service over one channel, until SIGTERM or SIGINT. Its client is ipc_client.c.
 *
 * usage: ipc_server [PREFIX]
 *
 * PREFIX is put before the names in shared memory. Values lie in a segment of their own, so a server that was
 * killed goes on where it ended: the channel hands it the requests that waited, and clients send again those
 * that it held when it died. */
#include <errno.h>
#include <string.h>

#include "ipc_kv.h"

struct value {
    uint32_t length;
    char bytes[KV_LONGEST];
};

/* Lies in a safe segment, behind 12 bytes of header: so nothing in it may need an alignment of 8. */
struct client {
    uint32_t app_id; /* 0 for a free place */
    uint32_t taken;  /* the number of the last put taken, written after its value */
    uint32_t again;  /* puts that came again, or before one that is still missing */
    struct value values[KV_KEYS];
};

static struct client* clients; /* KV_CLIENTS of them, in shared memory */

/* The sender's place, by the identity that it opened the channel with; null if all are taken. */
static struct client* client_of(qel_ipc_handle ipc, qel_ipc_msg msg) {
    qel_ipc_ep_handle sender;
    uint64_t id[2];
    if (qel_ipc_msg_get_sender_ep(msg, &sender) != 0 || qel_ipc_ep_get_app_id(ipc, sender, id) != 0)
        return NULL;
    for (struct client* c = clients; c < clients + KV_CLIENTS; ++c) {
        if (c->app_id == 0) c->app_id = (uint32_t)id[1];
        if (c->app_id == id[1]) return c;
    }
    return NULL;
}

/* Copies a request's fixed part, which its sender can still write to, and gives the value behind it; null if
 * it isn't sound. */
static const char* read_request(qel_ipc_msg msg, struct kv_request* request) {
    void* data;
    uint32_t size;
    if (qel_ipc_msg_get_buffer(msg, &data, &size) != 0 || size < sizeof *request) return NULL;
    memcpy(request, data, sizeof *request);
    if (request->key >= KV_KEYS || request->length > KV_LONGEST) return NULL;
    return request->length <= size - sizeof *request ? (const char*)data + sizeof *request : NULL;
}

static void put(struct client* c, const struct kv_request* request, const char* bytes) {
    struct value* value = &c->values[request->key];
    if (request->number != c->taken + 1) {
        ++c->again;
        return;
    }
    value->length = request->length;
    memcpy(value->bytes, bytes, request->length);
    c->taken = request->number;
}

static cerrno get(const struct value* value, qel_ipc_msg msg) {
    void* reply;
    cerrno error = qel_ipc_msg_alloc_reply_buffer(msg, value->length, &reply);
    if (error == 0 && value->length != 0) memcpy(reply, value->bytes, value->length);
    return error;
}

static cerrno serve(qel_ipc_handle ipc, qel_ipc_msg msg) {
    struct kv_request request;
    struct client* c = client_of(ipc, msg);
    const char* bytes = read_request(msg, &request);
    cerrno error = 0;
    if (c == NULL || bytes == NULL) return EINVAL;
    if (request.operation == KV_PUT) put(c, &request, bytes);
    if (request.operation == KV_GET) error = get(&c->values[request.key], msg);
    return error != 0 ? error : qel_ipc_reply(ipc, NULL, msg, c->taken);
}

static void on_event(qel_ipc_handle ipc, uint32_t events, void* context) {
    qel_ipc_msg msg;
    (void)events; /* that a client has come, gone or come back changes nothing here */
    (void)context;
    while (qel_ipc_receive(ipc, NULL, &msg, NULL) == 0)
        if (serve(ipc, msg) != 0) qel_ipc_msg_free(&msg); /* who still needs an answer asks again */
}

int main(int argc, char** argv) {
    qel_ipc_handle ipc;
    qel_ipc_attr attr;
    qel_ipc_stats stats;
    qel_shm_info store;
    sigset_t ends;
    int signal;
    qel_dm_handle dm = kv_begin("ipc_server", argc > 1 ? argv[1] : NULL, &ends);
    uint32_t size = (uint32_t)(KV_CLIENTS * sizeof *clients);
    must((cerrno)qel_shm_safe_open("kv.store", QEL_SHM_CREATE, size, 1, NULL, NULL, 0, &store), "store");
    clients = store.addr;

    must(qel_ipc_attr_init(&attr, QEL_IPC_ROLE_SERVER), "attributes");
    attr.max_clients = KV_CLIENTS;
    attr.max_msg_count = KV_MESSAGES;
    attr.max_msg_size = KV_INLINE;
    attr.large_data_size = KV_HEAP;
    must(qel_ipc_open(&ipc, KV_CHANNEL, &attr, dm, on_event, NULL), "channel");
    puts("ipc_server: serving");
    fflush(stdout);

    sigwait(&ends, &signal);
    must(qel_ipc_get_stats(ipc, &stats), "statistics");
    qel_ipc_close(&ipc);
    qel_dm_destroy(&dm);
    for (struct client* c = clients; c < clients + KV_CLIENTS && c->app_id != 0; ++c)
        printf("ipc_server: client %u: %u puts taken, %u came again\n", c->app_id, c->taken, c->again);
    printf("ipc_server: %llu messages received, %llu sent\n", (unsigned long long)stats.received,
           (unsigned long long)stats.sent);
    return 0;
}
