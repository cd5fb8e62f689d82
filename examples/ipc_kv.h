/* The protocol of the key-value service: what a client writes into a message, and the server into its reply.
 *
 * A client numbers its puts 1, 2, 3 ...; the server takes them in that order only, and the status of each
 * reply is the number of the last put that it has taken. So whoever is killed, on either side, a client that
 * sends again what isn't acknowledged loses nothing and doubles nothing. */
#ifndef IPC_KV_H
#define IPC_KV_H

#include <stdint.h>

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
    KV_PROGRESS /* the reply's status is the number of the last put taken; synchronous */
};

struct kv_request {
    uint32_t operation;
    uint32_t key;
    uint32_t number; /* of a put */
    uint32_t length; /* bytes of 'value' */
    char value[];
};

#endif
