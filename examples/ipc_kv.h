/* What ipc_server and ipc_client share: the messages of the key-value service, and their first steps.
 *
 * A client numbers its puts 1, 2, 3 ...; the server takes them in that order only, and the status of each
 * reply is the number of the last put that it has taken. So whoever is killed, on either side, a client that
 * sends again what isn't acknowledged loses nothing and doubles nothing. */
#ifndef IPC_KV_H
#define IPC_KV_H

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <qel/qel.h>

#define KV_CHANNEL "kv"
#define KV_CLIENTS 8     /* clients that the server remembers */
#define KV_KEYS 16       /* keys of a client: 0 to 15 */
#define KV_INLINE 256    /* bytes of a message that need no chunk of the heap */
#define KV_LONGEST 8192  /* bytes of a value */
#define KV_MESSAGES 128  /* shared by all clients */
#define KV_HEAP 0x400000 /* bytes for long values on their way */

enum kv_operation {
    KV_PUT,     /* stores a value; sent asynchronously */
    KV_GET,     /* the reply's data is the value; synchronous */
    KV_PROGRESS /* the reply's status alone matters; synchronous */
};

/* A message's data; a put's value follows. */
struct kv_request {
    uint32_t operation;
    uint32_t key;
    uint32_t number; /* of a put */
    uint32_t length; /* bytes of the value */
};

static inline void must(cerrno error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "%s: %s\n", what, cerr_strerror(error));
    exit(1);
}

/* Makes a dispatcher that a thread of its own serves. The signals that end the program go to 'ends', for main
 * to wait for; 'prefix', unless null, is put before all names in shared memory. */
static inline qel_dm_handle kv_begin(const char* name, const char* prefix, sigset_t* ends) {
    const qel_dm_threadpool_attr one_thread = {1, 1, 1, NULL, NULL};
    qel_dm_handle dm = 0;
    sigemptyset(ends);
    sigaddset(ends, SIGTERM);
    sigaddset(ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, ends, NULL); /* also for the threads to come */
    if (prefix != NULL) must((cerrno)qel_ppm_set_string("qel.shm.root", prefix), "prefix");
    must((cerrno)qel_dm_create(&dm, name, 0), "dispatcher");
    must((cerrno)qel_dm_threadpool_create(dm, 0, &one_thread, NULL), "thread");
    return dm;
}

#endif
