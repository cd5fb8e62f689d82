/** @file
 * Messaging between processes: a named channel in shared memory between one server and up to 31 clients.
 *
 * Each participant has an end point. Clients send requests to the server, which may reply in the same
 * message; in extended mode (Ext C/S) the server sends requests too. Nothing is copied: a message is filled,
 * sent, read and freed where it lies. The channel outlives its processes. One that was killed opens the
 * channel again under the same name and 'app_id', gets its end point back, and finds the messages that were
 * waiting for it; those that it held are given back to the pool.
 *
 *     static void on_events(qel_ipc_handle ipc, uint32_t events, void* context) {
 *         qel_ipc_msg msg;
 *         while (qel_ipc_receive(ipc, NULL, &msg, NULL) == 0) {
 *             void* data;
 *             uint32_t length;
 *             qel_ipc_msg_get_buffer(msg, &data, &length);
 *             ...
 *             qel_ipc_msg_free(&msg);
 *         }
 *     }
 *     ...
 *     qel_ipc_attr attr;
 *     qel_ipc_handle ipc;
 *     qel_ipc_attr_init(&attr, QEL_IPC_ROLE_SERVER);
 *     attr.app_id = 1;
 *     cerrno error = qel_ipc_open(&ipc, "element.routes", &attr, dm, on_events, NULL);
 *
 * Events. The application's handler runs on the dispatcher, with no lock held, and is told what has happened
 * since it was last called: bits, not counts, so it receives until the ring is empty. Nothing can be
 * allocated or sent before QEL_IPC_EVENT_READY. A call of the handler with QEL_IPC_EVENT_EP_UPDATE has
 * connection events, which it takes with qel_ipc_get_connection_event() before it returns.
 *
 * Identity. 'app_id' is all that a client is known by: give each client of a channel its own. Two clients
 * with one 'app_id', and be it the default 0, are one client: the second is taken for a restart of the first,
 * takes its end point and its messages over, and the first works no more. In one process the second is
 * refused.
 *
 * Deaths are not watched for. A dead client's messages and credits stay with it until it opens again; what
 * is sent to it waits. A process that dies inside one of the channel's locks leaves that held, and the others
 * wait for it, which is reported after 2 s: qel_ipc_cleanup() is the way out of a channel that is beyond
 * repair.
 *
 * Threads. All calls may be made on any thread, handlers included; those on one handle are serial. Results
 * are composite codes (qel/cerrno.h) unless told otherwise; failures go to the library's error buffer.
 */
#ifndef QEL_IPC_H
#define QEL_IPC_H

#include <qel/dm.h>
#include <qel/dt.h>

QEL_BEGIN_DECLS

typedef uint32_t qel_ipc_handle;    /**< a channel as this process has opened it; 0 is none */
typedef uint32_t qel_ipc_ep_handle; /**< an end point as this process knows it; 0 is none */
typedef uint64_t qel_ipc_msg;       /**< a message; 0 is none */

/* What a handler is told; several bits may come at once. */
#define QEL_IPC_EVENT_INPUT 0x0001u     /**< messages are waiting */
#define QEL_IPC_EVENT_READY 0x0800u     /**< the channel is up; comes once for each open */
#define QEL_IPC_EVENT_FLOW_ON 0x1000u   /**< this end point may send again */
#define QEL_IPC_EVENT_FLOW_OFF 0x2000u  /**< this end point has passed high water and should slow down */
#define QEL_IPC_EVENT_EP_UPDATE 0x4000u /**< connection events are on the thread's list */
#define QEL_IPC_EVENT_DOWN 0x8000u      /**< the channel was destroyed, or can't be joined: close it */

#define QEL_IPC_ROLE_CLIENT 0u /**< one of up to 31 */
#define QEL_IPC_ROLE_SERVER 1u /**< the one that owns the channel and its sizes */

/* Connection events, of qel_ipc_get_connection_event(). */
#define QEL_IPC_EP_BACK 0x0400u  /**< end point came back after a restart */
#define QEL_IPC_EP_ENDED 0x0800u /**< end point's old incarnation ended */
#define QEL_IPC_EP_UP 0x4000u    /**< end point up */
#define QEL_IPC_EP_GONE 0x8000u  /**< end point gone */

/* Types of a message as qel_ipc_receive() gives them. */
#define QEL_IPC_MSG_ASYNC_REQUEST 0u /**< a request whose sender goes on */
#define QEL_IPC_MSG_SYNC_REQUEST 1u  /**< a request whose sender waits for the reply */
#define QEL_IPC_MSG_REPLY 2u         /**< a reply to an asynchronous request */

/** What a participant opens a channel with; qel_ipc_attr_init() gives the defaults in parentheses. The sizes
 * and percentages are the server's to set when it makes the channel, and are ignored of a client, and of a
 * server that finds its channel up, but for max_msg_count, which must then be the channel's. */
typedef struct qel_ipc_attr {
    uint32_t msg_mode;          /**< 1: asynchronous only; 2 and 3: synchronous sends too (1) */
    uint32_t attr_kind;         /**< 0, 1 or 2, without effect (1) */
    uint32_t role;              /**< QEL_IPC_ROLE_CLIENT or QEL_IPC_ROLE_SERVER */
    uint8_t ext_cs;             /**< Ext C/S mode: the server allocates and sends too (0) */
    uint32_t max_clients;       /**< clients at one time, 0 to 31; 0 means 31 (1) */
    uint32_t max_msg_count;     /**< messages in the pool, 8 to 65,535 (128) */
    uint32_t overflow_count;    /**< messages for those past their share: 0, or 8 to max_msg_count - 8 (0) */
    uint32_t spare_count;       /**< stored, without effect (0) */
    uint8_t no_water_check;     /**< 1 takes the two percentages unchecked (0) */
    uint8_t low_water_percent;  /**< of a share; below high_water_percent (30) */
    uint8_t high_water_percent; /**< of a share; at most 100 (70) */
    uint32_t max_msg_size;      /**< bytes of inline data, at most 4,096 (128) */
    uint32_t large_data_size;   /**< bytes of the heap for longer data, at most 0x4000000; 0 for none (0) */
    uint32_t attr_spare;        /**< without effect (8) */
    uint32_t attr_spare2;       /**< without effect (0) */
    uint64_t app_id;            /**< who this is, over restarts; of each client its own (0) */
    uint32_t close_flags;       /**< 0 or 1; 1: no close while the application holds messages (0) */
} qel_ipc_attr;

/** How a message is sent; qel_ipc_send_attr_init() clears it. */
typedef struct qel_ipc_send_attr {
    uint32_t dest_ep;    /**< of a server: the end point to send to; without effect in a client */
    uint32_t reserved;   /**< without effect */
    uint32_t timeout_ms; /**< of a synchronous send: how long to wait; 0 waits without end */
    uint32_t priority;   /**< 0: there are no others */
} qel_ipc_send_attr;

/** The application's handler: 'events' are QEL_IPC_EVENT_ bits, 'context' is what the open was given.
 *
 * Runs on a thread of the dispatcher, with no lock held; it may call all of messaging, close the channel, or
 * end its thread. With several threads on the dispatcher, calls may overlap. */
typedef void (*qel_ipc_handler)(qel_ipc_handle ipc, uint32_t events, void* context);

extern QEL_API qel_dt_flag*
    qel_ipc_root_df; /**< flag "qel-ipc", parent of the two below; null before the first open */
extern QEL_API qel_dt_flag* qel_ipc_err_df;   /**< flag "errors": prints what goes to the error buffer */
extern QEL_API qel_dt_flag* qel_ipc_trace_df; /**< flag "traces": prints what goes to "qel_ipc_traces" */
/** The trace buffer "qel_ipc_traces", one for all channels of the machine; its size in bytes is the parameter
 * "qel.ipc.trace.size" (131,072). Null before the first open. */
extern QEL_API qel_dt_buffer_handle qel_ipc_trace_buffer;
/** The application may set this to its name, a text that stays; opens are traced with it. */
extern QEL_API const char* qel_ipc_proc_name;

/* Channels and end points. */

/** Fills 'attr' with the defaults for 'role'. Returns 0; 0xa0000016 for null. */
QEL_API cerrno qel_ipc_attr_init(qel_ipc_attr* attr, uint32_t role);

/** Checks msg_mode, attr_kind, role and close_flags, and nothing else. Returns 0; 0xa0000016 for one out of
 * range, and for null. */
QEL_API cerrno qel_ipc_attr_is_valid(const qel_ipc_attr* attr);

/** Clears 'attr'. Returns 0; 0xa0000016 for null. */
QEL_API cerrno qel_ipc_send_attr_init(qel_ipc_send_attr* attr);

/**
 * Opens the channel 'name' (1 to 32 characters, of which the first 31 name its inner segments), making it if
 * need be, or opens it again after a death.
 *
 * 'dm' runs the handler; 0 takes the default dispatcher. The handle is at 'ipc' before the handler can run.
 * A server makes the channel usable, or, finding it so, takes up where its former incarnation died. A client
 * takes a free place, or the one whose client has its 'app_id'; without a server it waits, in silence, for
 * QEL_IPC_EVENT_READY. Who comes back is told of messages that wait for it with QEL_IPC_EVENT_INPUT, and each
 * peer of its return with the connection events QEL_IPC_EP_ENDED and QEL_IPC_EP_BACK. An existing channel
 * keeps its sizes, whatever a returning server asks for.
 *
 * A process may have 48 channels open. Each has a thread, "QEL IPC Condvar Thread", until it is closed.
 *
 * Returns 0; 0xa0000016 for null handle, attributes or handler, no dispatcher, attributes or a name out of
 * range, a segment of that name that is no channel or has sizes out of range, a server whose max_msg_count
 * isn't the channel's, or a lost race to make the channel, to be tried again; 0xa000000c without memory;
 * 0xa000001c when all 48 or all places of the channel are taken; 0xa0000001 for a client whose 'app_id' this
 * process has open on the channel; 0x8000000b for a channel that is being destroyed, to be tried again; or
 * the errno of a segment, heap or thread that could not be made, under fatal severity, of which 0xa000006e is
 * an end point whose former owner died inside its doorbell. '*ipc' is 0 then.
 */
QEL_API cerrno qel_ipc_open(qel_ipc_handle* ipc, const char* name, const qel_ipc_attr* attr, qel_dm_handle dm,
                            qel_ipc_handler handler, void* handler_ctx);
/**
 * Closes the channel and clears '*ipc'; the handler isn't called any more, but may still be running.
 *
 * What the application holds is given back. A client's waiting messages go to the pool, its place becomes
 * free when the server has freed the last of its messages. A server destroys the channel: each client gets
 * QEL_IPC_EVENT_DOWN and every name is removed; a server that should be able to come back ends without a
 * close. Threads that wait in a synchronous send are released with 0xa0000020.
 *
 * Returns 0, also while another thread closes it; 22 (EINVAL) for null; 0xa0000016 for a handle that is none;
 * 0x40000010, and nothing has happened, with close_flags 1 while the application holds messages.
 */
QEL_API cerrno qel_ipc_close(qel_ipc_handle* ipc);

/**
 * Removes all segments of a channel by name. For channels that nobody lives in any more, or that a death
 * inside a lock has blocked: who has it open keeps what it has mapped, and meets nobody who opens it later.
 *
 * Returns 0; or a plain errno: EINVAL for a null or empty name, ENOENT if there was no such channel.
 */
QEL_API int qel_ipc_cleanup(const char* name);

/** Lists the open end points of a server's clients, at most 'size' of them; their number goes to 'count'.
 * Returns 0; 0xa0000016 for null or a handle that is none; 0xa0000001 in a client. */
QEL_API cerrno qel_ipc_ep_get_list(qel_ipc_handle ipc, qel_ipc_ep_handle* list, uint32_t size,
                                   uint32_t* count);

/** Gives the 'app_id' of an end point: two words, of which the first is 0. A handler may also ask for those
 * in the connection events that it was called with, when they have gone. Returns 0; 0xa0000016 for null, a
 * handle that is none or an end point beyond the channel's; 0xa0000002 for one that is neither open nor in a
 * connection event. */
QEL_API cerrno qel_ipc_ep_get_app_id(qel_ipc_handle ipc, qel_ipc_ep_handle ep, uint64_t app_id[2]);

/**
 * Takes the next connection event of the calling thread: what has become of which end point, as
 * QEL_IPC_EP_UP, QEL_IPC_EP_GONE, QEL_IPC_EP_ENDED or QEL_IPC_EP_BACK. An end point that comes back keeps its
 * handle. For handlers: the list is freed when the handler returns. Clients that waited for the server are
 * not told as events, nor is one whose end point the server has opened before, by an answer to its first
 * message; qel_ipc_ep_get_list() has them.
 *
 * Returns 0; 0x8000000b when there is none left; 0xa0000016 for null or a handle that is none.
 */
QEL_API cerrno qel_ipc_get_connection_event(qel_ipc_handle ipc, uint32_t* event, qel_ipc_ep_handle* ep);

/* Messages.
 *
 * A message lies in shared memory from its allocation to its free and is never copied on the way. Its handle
 * is good in the process that got it from qel_ipc_msg_alloc() or qel_ipc_receive(), until the message is
 * sent, replied to or freed; a handle that has outlived its message is refused. An address that a call gives
 * is good as long as the message is held.
 *
 * All calls may be made on any thread; those on one channel are serial. Every call gives 0xa0000016 for a
 * null output that it needs, for a channel handle or message handle that is none, and so on for each error
 * that it names; failures but the empty ring go to the error buffer. Outputs are written on success only
 * unless a call says otherwise. A call that fails leaves the message as it was, and the caller's.
 *
 * Result codes are those of qel/cerrno.h: 0x8000000b (try again) for what is not ready yet, 0xa0000001 for
 * what the role or the holder may not do, 0xa000000c for no credit, message or memory, 0xa0000016 for a bad
 * argument, 0xa0000020 for a channel or destination that is gone. */

/**
 * Takes a message with 'size' bytes of zeroed data, and one credit of the own end point.
 *
 * Data up to the channel's message size is inline; more takes a chunk of the channel's heap. The data's
 * address goes to 'buffer', which may be null; a message of size 0 has no data, and room for none. The
 * outputs are cleared first unless the handle is bad. Type, context and status of the message are 0. Passing
 * high water posts QEL_IPC_EVENT_FLOW_OFF: a warning, allocation goes on until the credits are gone.
 *
 * Returns 0 with the handle at 'msg'; 0x8000000b before the server has come up; 0xa0000020 once the channel
 * is being destroyed, or what opening the own end point gave; 0xa0000001 for a server outside Ext C/S mode;
 * 0xa000000c when the credits and the overflow pool are used up, when no message is free, and without a heap
 * or room in it for long data.
 */
QEL_API cerrno qel_ipc_msg_alloc(qel_ipc_handle ipc, uint32_t size, qel_ipc_msg* msg, void** buffer);

/**
 * Reserves 'size' bytes, zeroed, for the reply to a received request. Their address goes to 'buffer', which
 * may be null; it is null for a size of 0, which reserves nothing.
 *
 * A short reply to a request with inline data is staged and copied once, when it is sent; every other reply
 * is written where its receiver reads it. For a request without data, or with a chunk, or whose data was
 * dropped, the area is the message's own payload.
 *
 * Returns 0; 0xa0000016 for a message that isn't a received one, or is a reply; 0xa0000001 if an area is
 * reserved already; 0xa000000c.
 */
QEL_API cerrno qel_ipc_msg_alloc_reply_buffer(qel_ipc_msg msg, uint32_t size, void** buffer);

/**
 * Sends a message: it is the receiver's from then on, until it comes back as a reply or is freed there.
 *
 * A client sends to the server and needs no attributes. A server, in Ext C/S mode only, names the destination
 * by 'dest_ep'. 'priority' must be 0; 'timeout_ms' isn't looked at.
 *
 * Returns 0; 0x8000000b before the channel or the destination is up, and for a message that the caller
 * doesn't hold allocated; 0xa0000001 for a server outside Ext C/S mode or naming itself; 0xa0000016, also for
 * a server without attributes or with an end point out of range; 0xa0000020 when the channel is being
 * destroyed, when the end point has gone or is another one now, and when it is closing.
 */
QEL_API cerrno qel_ipc_async_send(qel_ipc_handle ipc, const qel_ipc_send_attr* attr, qel_ipc_msg msg);

/**
 * Sends a message and waits for its reply, for 'timeout_ms' milliseconds at most, or without end for 0 or
 * null attributes.
 *
 * Another thread must go on calling qel_ipc_receive() meanwhile (normally the handler, on the channel's
 * dispatcher): it is there that the reply is recognised and handed to the waiter. So a dispatcher with one
 * thread can't wait for replies in its own handlers. The reply is the request's message: the handle at
 * 'reply' equals 'msg' and is the caller's to free; its status goes to 'status', which may be null.
 *
 * Returns 0 as soon as the reply is there, even if the time has run out; 0xa000006e after the time-out, with
 * '*reply' 0; 0xa0000020 when the destination or the channel goes away meanwhile; 0xa0000016, also for a null
 * 'reply', message mode 1 and a server without 'dest_ep'; 0xa000000c; and what qel_ipc_async_send() gives.
 * After a time-out the message is no longer the caller's: a late reply is disposed of by qel_ipc_receive().
 */
QEL_API cerrno qel_ipc_sync_send(qel_ipc_handle ipc, const qel_ipc_send_attr* attr, qel_ipc_msg msg,
                                 qel_ipc_msg* reply, uint32_t* status);

/**
 * Takes the next message that waits for the own end point, and its type, QEL_IPC_MSG_*, unless 'type' is
 * null. 'reserved' is null. Answers to synchronous sends are handed to their waiters on the way.
 *
 * One QEL_IPC_EVENT_INPUT may stand for many messages, so a handler calls until there is none. The message is
 * then the caller's, to be replied to or freed.
 *
 * Returns 0; 0x8000000b when none waits, and before the server has come up; 0xa0000020 when the channel is
 * being destroyed; 0xa0000016, also when the ring's words are damaged; or what opening the own end point
 * gave.
 */
QEL_API cerrno qel_ipc_receive(qel_ipc_handle ipc, const void* reserved, qel_ipc_msg* msg, uint32_t* type);

/**
 * Sends a received request back to the end point that allocated it, with 'status' and with the data reserved
 * by qel_ipc_msg_alloc_reply_buffer(), if any. The request's data goes. 'reserved' is null.
 *
 * Returns 0, also when that end point has gone for good: the message is freed then; 0xa0000001 before the
 * channel is up and for a client outside Ext C/S mode; 0xa0000016 for a message that isn't a received
 * request; 0xa0000020 when the channel is being destroyed or the end point is closing, and then the message
 * is still the caller's to free.
 */
QEL_API cerrno qel_ipc_reply(qel_ipc_handle ipc, const void* reserved, qel_ipc_msg msg, uint32_t status);

/**
 * Gives a message back, allocated or received, with all its data, and its credit to whom it was charged. The
 * handle at 'msg' is cleared.
 *
 * Returns 0; 0xa0000016; 0xa0000001 for a message that the caller doesn't hold. For a synchronous request
 * that was sent and not received yet it is 0 too, but nothing happens: the receiver will free it.
 */
QEL_API cerrno qel_ipc_msg_free(qel_ipc_msg* msg);

/**
 * Frees a received request's data before the message itself, so that long data doesn't stay while the reply
 * is prepared.
 *
 * Returns 0; 0xa0000016; 0xa0000001 for a message that isn't a received request.
 */
QEL_API cerrno qel_ipc_msg_free_incoming_buffer(qel_ipc_msg msg);

/**
 * Gives the address and length of a request's data, or for a reply of the reply's; null and 0 if it has none.
 *
 * Returns 0; 0xa0000016, also with null and 0 for a message whose heap chunk isn't one.
 */
QEL_API cerrno qel_ipc_msg_get_buffer(qel_ipc_msg msg, void** address, uint32_t* length);

/** As qel_ipc_msg_get_buffer(), for replies only: 0xa0000016, with null and 0, for any other message. */
QEL_API cerrno qel_ipc_msg_get_reply_buffer(qel_ipc_msg msg, void** address, uint32_t* length);

/** Gives the status that a reply was sent with. Returns 0; 0xa0000016, with 0 at 'status', for a message that
 * isn't a reply. */
QEL_API cerrno qel_ipc_msg_get_status(qel_ipc_msg msg, uint32_t* status);

/** Stores a word that travels with the message and comes back in its reply. Returns 0, or 0xa0000016. */
QEL_API cerrno qel_ipc_msg_set_context(qel_ipc_msg msg, uint64_t context);

/** Gives the word stored last; 0 in a new message. Returns 0, or 0xa0000016. */
QEL_API cerrno qel_ipc_msg_get_context(qel_ipc_msg msg, uint64_t* context);

/**
 * Gives the handle of the end point that allocated the message: for a received request the sender's, in a
 * form that 'dest_ep' and qel_ipc_ep_get_app_id() take.
 *
 * Returns 0; 0xa0000016; 0xa0000020 if the end point can't be opened any more; 0xa000000c if there was no
 * memory for its handle.
 */
QEL_API cerrno qel_ipc_msg_get_sender_ep(qel_ipc_msg msg, qel_ipc_ep_handle* ep);

QEL_END_DECLS

#endif
