/* linkwatch: watches the network links of this machine.
 *
 * usage: linkwatch [--watch] [--root PREFIX]
 *
 * Prints a table of the links, then each change; ends after 3 seconds or, with --watch, when interrupted.
 * Each link and change also goes into the trace buffer "linkwatch" in shared memory (below PREFIX), which
 * outlives the program: see traceread.c.
 *
 * The kernel tells of its links over a socket: of all when asked (a dump), then of each change.
 *
 *     socket ---- descriptor event ----> on_netlink    parses, hands each link over as a job
 *                                            v
 *                                        on_link       keeps the table, counts, prints, logs
 *     timer ------ timer event --------> on_tick       prints the tallies
 *
 * One dispatcher takes all these events and two threads serve it: a link is often parsed by one thread and
 * entered by the other. A descriptor's event goes to one thread, so what on_netlink alone uses has no lock.
 *
 * When the kernel drops news because we are slow, or its list changes during a dump, we ask for another. All
 * news carries the number of the dump asked for last, by which the end of a dump finds rows that are gone.
 */
#include <errno.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qel/qel.h>

#define THREADS 2
#define DATAGRAMS_A_TURN 64
#define DATAGRAM_SIZE 32768 /* bytes; the kernel sends no longer ones */
#define TRACE_SIZE 262144   /* bytes */

static const struct timespec kTick = {1, 0}, kShow = {3, 0};

/* What is known of a link. Without padding, so that two compare as memory. */
struct facts {
    char name[IFNAMSIZ];
    char type[16];
    uint32_t mtu; /* bytes */
    uint8_t mac[6];
    uint8_t state; /* IF_OPER_* */
    uint8_t spare;
};
_Static_assert(sizeof(struct facts) == 44, "no padding");

enum news { LINK_SEEN, LINK_GONE, DUMP_DONE };

/* A piece of news on its way to the table, and a row of the table. */
struct link {
    void* next; /* the first word of a queue's element is its link */
    enum news news;
    int32_t index;
    uint32_t dump; /* number of the dump that was asked for last */
    struct facts facts;
};

/* What happens to a row, and what is counted: links of the first dump are found, later ones added. */
enum event { FOUND, ADDED, CHANGED, DELETED, EVENTS };
static const char* const kEventNames[EVENTS] = {"found", "added", "changed", "deleted"};

struct watch {
    qel_dm_handle dispatcher;
    qel_mem_chunk* links; /* where all 'struct link' come from */
    qel_dt_buffer_handle trace;
    qel_dm_timer tick;
    pthread_t threads[THREADS];
    bool endless;

    /* Of on_netlink alone. */
    int socket;
    uint32_t dump;
    bool dumping;
    bool must_dump_again;

    /* Under 'lock'. */
    pthread_mutex_t lock;
    qel_queue news;  /* parsed, one job queued for each */
    qel_queue table; /* in ascending order of index */
    bool complete;   /* the first dump has ended */
    unsigned tallies[EVENTS];
    unsigned shown[EVENTS]; /* the tallies as last printed */
};

static void must(int error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "linkwatch: %s: %s\n", what, cerr_strerror((uint32_t)error));
    exit(1);
}

/* ---- The table: jobs. ---- */

static const char* state_name(uint8_t state) {
    static const char* const names[] = {"unknown", "not present", "down", "lower down",
                                        "testing", "dormant",     "up"};
    return state < sizeof names / sizeof *names ? names[state] : "?";
}

static void print_link(const char* head, const struct link* link) {
    const struct facts* f = &link->facts;
    printf("%-8s%5d  %-16s%-12s%-12s%6u  %02x:%02x:%02x:%02x:%02x:%02x\n", head, link->index, f->name,
           f->type, state_name(f->state), f->mtu, f->mac[0], f->mac[1], f->mac[2], f->mac[3], f->mac[4],
           f->mac[5]);
}

static void print_table(const struct watch* w) {
    printf("%-8s%5s  %-16s%-12s%-12s%6s  %s\n", "", "index", "name", "type", "state", "mtu", "mac");
    for (const struct link* at = qel_queue_peek_head(&w->table); at != NULL; at = qel_queue_get_next(at))
        print_link("", at);
}

static void print_tallies(struct watch* w, const char* head) {
    printf("%s: %zu links", head, qel_queue_size(&w->table));
    for (int i = 0; i < EVENTS; ++i) printf(", %u %s", w->tallies[i], kEventNames[i]);
    printf("\n");
    memcpy(w->shown, w->tallies, sizeof w->shown);
}

/* Counts what happened, prints it (what the first dump finds is printed as a table), and logs it. */
static void tell(struct watch* w, enum event event, const struct link* link) {
    static uint32_t this_tp = QEL_DT_TP_UNREGISTERED; /* each place that logs has its own */
    const struct facts* f = &link->facts;
    ++w->tallies[event];
    if (event != FOUND) print_link(kEventNames[event], link);
    /* An entry that can't be written must not stop the work, so the result is dropped. */
    (void)_qel_dt_log_filter_adv(NULL, w->trace, 0, 0, 0, 0, &this_tp,
                                 "link %d %s: %s, %s, %s, mtu %u, mac %p{mac}", link->index,
                                 kEventNames[event], f->name, f->type, state_name(f->state), f->mtu, f->mac);
}

/* The row with 'index', or null; 'before' is the last row below it. */
static struct link* find_row(const struct watch* w, int32_t index, struct link** before) {
    struct link* at = qel_queue_peek_head(&w->table);
    for (*before = NULL; at != NULL && at->index < index; at = qel_queue_get_next(at)) *before = at;
    return at != NULL && at->index == index ? at : NULL;
}

static void delete_row(struct watch* w, struct link* row) {
    qel_queue_unqueue(&w->table, row);
    tell(w, DELETED, row);
    qel_mem_chunk_free(w->links, row);
}

static void enter_link(struct watch* w, struct link* link) {
    struct link* before;
    struct link* row = find_row(w, link->index, &before);
    if (row == NULL) {
        qel_queue_insert(&w->table, link, before);
        tell(w, w->complete ? ADDED : FOUND, link);
        return;
    }
    qel_queue_swapqueue(&w->table, link, row);
    if (memcmp(&row->facts, &link->facts, sizeof row->facts) != 0) tell(w, CHANGED, link);
    qel_mem_chunk_free(w->links, row);
}

static void drop_link(struct watch* w, struct link* link) {
    struct link* before;
    struct link* row = find_row(w, link->index, &before);
    if (row != NULL) delete_row(w, row);
    qel_mem_chunk_free(w->links, link);
}

/* A whole dump has come in: a row that nothing has named since it was asked for is gone. */
static void end_dump(struct watch* w, struct link* end) {
    struct link* next;
    for (struct link* row = qel_queue_peek_head(&w->table); row != NULL; row = next) {
        next = qel_queue_get_next(row);
        if (row->dump != end->dump) delete_row(w, row);
    }
    if (!w->complete) print_table(w);
    w->complete = true;
    qel_mem_chunk_free(w->links, end);
}

/* Job: takes the oldest news. Jobs may run side by side; the lock is held from taking to entering, so that
 * news of one link is entered in its order. */
static void on_link(qel_dm_handle dm, uint64_t context, uint64_t modifier) {
    static void (*const enter[])(struct watch*, struct link*) = {enter_link, drop_link, end_dump};
    struct watch* w = (struct watch*)(uintptr_t)context;
    (void)dm, (void)modifier;
    pthread_mutex_lock(&w->lock);
    struct link* link = qel_queue_dequeue(&w->news);
    if (link != NULL) enter[link->news](w, link);
    pthread_mutex_unlock(&w->lock);
}

/* Puts one piece of news behind the others and queues the job that takes it. */
static void hand_over(struct watch* w, enum news news, int32_t index, const struct facts* facts) {
    struct link* link = qel_mem_chunk_malloc(w->links);
    if (link == NULL) w->must_dump_again = true;
    if (link == NULL) return;
    link->news = news;
    link->index = index;
    link->dump = w->dump;
    if (facts != NULL) link->facts = *facts;
    pthread_mutex_lock(&w->lock);
    qel_queue_enqueue(&w->news, link);
    pthread_mutex_unlock(&w->lock);
    /* Without memory for a job, or at the end of the dispatcher, this thread does the work. */
    if (qel_dm_execute(w->dispatcher, on_link, (uintptr_t)w, 0) != 0) on_link(w->dispatcher, (uintptr_t)w, 0);
}

/* ---- The socket: descriptor events. Each length is checked before it is followed. ---- */

static void copy_text(char* to, size_t size, const struct rtattr* from) {
    snprintf(to, size, "%.*s", (int)RTA_PAYLOAD(from), (const char*)RTA_DATA(from));
}

static void copy_bytes(void* to, size_t size, const struct rtattr* from) {
    if (RTA_PAYLOAD(from) == size) memcpy(to, RTA_DATA(from), size);
}

/* The kernel pads what it sends. A size that isn't whole is cut, for a step over padding that isn't there
 * would take it below 0. */
static size_t whole(size_t size) {
    return size - size % NLMSG_ALIGNTO;
}

static void each_attribute(const struct rtattr* at, size_t size, struct facts* f,
                           void (*take)(struct facts*, const struct rtattr*)) {
    for (size = whole(size); RTA_OK(at, size); at = RTA_NEXT(at, size)) take(f, at);
}

static void take_link_info(struct facts* f, const struct rtattr* at) {
    if (at->rta_type == IFLA_INFO_KIND) copy_text(f->type, sizeof f->type, at);
}

static void take_fact(struct facts* f, const struct rtattr* at) {
    const int type = at->rta_type & NLA_TYPE_MASK;
    if (type == IFLA_IFNAME) copy_text(f->name, sizeof f->name, at);
    if (type == IFLA_MTU) copy_bytes(&f->mtu, sizeof f->mtu, at);
    if (type == IFLA_ADDRESS) copy_bytes(f->mac, sizeof f->mac, at);
    if (type == IFLA_OPERSTATE) copy_bytes(&f->state, sizeof f->state, at);
    if (type == IFLA_LINKINFO) each_attribute(RTA_DATA(at), RTA_PAYLOAD(at), f, take_link_info);
}

/* Hands one link over. Messages of other families (a bridge about its ports), or without a name (a radio
 * about its stations), are not about links as such. */
static void take_link(struct watch* w, const struct nlmsghdr* message) {
    const struct ifinfomsg* info = NLMSG_DATA(message);
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof *info) || info->ifi_family != AF_UNSPEC) return;
    struct facts facts = {.type = "other"};
    if (info->ifi_type == ARPHRD_ETHER) strcpy(facts.type, "ether");
    if (info->ifi_type == ARPHRD_LOOPBACK) strcpy(facts.type, "loopback");
    each_attribute(IFLA_RTA(info), IFLA_PAYLOAD(message), &facts, take_fact);
    if (facts.name[0] == '\0') return;
    hand_over(w, message->nlmsg_type == RTM_DELLINK ? LINK_GONE : LINK_SEEN, info->ifi_index, &facts);
}

/* The end of a dump carries 0 or a negative errno number, as an error message does. */
static void take_end_of_dump(struct watch* w, const struct nlmsghdr* message) {
    int error = 0;
    if (message->nlmsg_seq != w->dump) return;
    if (message->nlmsg_len >= NLMSG_LENGTH(sizeof error)) memcpy(&error, NLMSG_DATA(message), sizeof error);
    must(-error, "dump");
    w->dumping = false;
    if (!w->must_dump_again) hand_over(w, DUMP_DONE, 0, NULL);
}

static void take_message(struct watch* w, const struct nlmsghdr* message) {
    const int type = message->nlmsg_type;
    if (message->nlmsg_flags & NLM_F_DUMP_INTR) w->must_dump_again = true;
    if (type == RTM_NEWLINK || type == RTM_DELLINK) take_link(w, message);
    if (type == NLMSG_DONE || type == NLMSG_ERROR) take_end_of_dump(w, message);
}

/* Takes one datagram; false when there is none. */
static bool receive(struct watch* w) {
    union {
        struct nlmsghdr first;
        char bytes[DATAGRAM_SIZE];
    } datagram;
    struct sockaddr_nl from = {0};
    socklen_t from_size = sizeof from;
    ssize_t size = recvfrom(w->socket, &datagram, sizeof datagram, MSG_DONTWAIT | MSG_TRUNC,
                            (struct sockaddr*)&from, &from_size);
    if (size < 0 && errno != ENOBUFS) return errno == EINTR;
    const bool lost = size < 0 || size > DATAGRAM_SIZE; /* the kernel, or our buffer, had no room */
    if (lost) w->must_dump_again = true;
    if (lost || from.nl_pid != 0) return true; /* the kernel's number is 0 */
    size_t left = whole((size_t)size);
    const struct nlmsghdr* at = &datagram.first;
    for (; NLMSG_OK(at, left); at = NLMSG_NEXT(at, left)) take_message(w, at);
    return true;
}

static void ask_for_dump(struct watch* w) {
    struct {
        struct nlmsghdr header;
        struct ifinfomsg info;
    } request = {.header = {.nlmsg_len = sizeof request,
                            .nlmsg_type = RTM_GETLINK,
                            .nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP,
                            .nlmsg_seq = ++w->dump}};
    w->dumping = send(w->socket, &request, sizeof request, 0) == (ssize_t)sizeof request;
    w->must_dump_again = !w->dumping;
}

/* Descriptor event: news on the socket. */
static void on_netlink(qel_dm_handle dm, uint32_t fd, uint32_t conditions, void* context) {
    struct watch* w = context;
    (void)conditions;
    for (int turn = 0; turn < DATAGRAMS_A_TURN && receive(w); ++turn) continue;
    if (w->must_dump_again && !w->dumping) ask_for_dump(w);
    /* A registration is good for one event. At the end of the dispatcher it is refused, and that is well. */
    (void)qel_dm_fd_register(dm, fd, QEL_DM_READABLE, on_netlink, w);
}

/* Timer event: prints the tallies; with --watch, if they have changed. */
static void on_tick(qel_dm_handle dm, qel_dm_timer timer, void* context) {
    struct watch* w = context;
    pthread_mutex_lock(&w->lock);
    if (!w->endless || memcmp(w->shown, w->tallies, sizeof w->shown) != 0) print_tallies(w, "tick");
    pthread_mutex_unlock(&w->lock);
    (void)qel_dm_timer_settime(dm, timer, &kTick); /* a timer fires once */
}

static int open_netlink(void) {
    struct sockaddr_nl address = {.nl_family = AF_NETLINK, .nl_groups = RTMGRP_LINK};
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    must(fd < 0 ? errno : 0, "socket");
    /* Room for bursts, if we have the right to it. */
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &(int){4 << 20}, sizeof(int));
    must(bind(fd, (struct sockaddr*)&address, sizeof address) == 0 ? 0 : errno, "bind");
    return fd;
}

/* Thread: serves the dispatcher until it is destroyed. */
static void* serve(void* context) {
    const struct watch* w = context;
    while (qel_dm_wait(w->dispatcher) == 0) qel_dm_dispatch(w->dispatcher);
    return NULL;
}

static void start(struct watch* w) {
    const uint32_t pool_flags = QEL_MEM_CHUNK_DYNAMIC | QEL_MEM_CHUNK_ZERO;
    pthread_mutex_init(&w->lock, NULL);
    w->links = qel_mem_chunk_create(sizeof(struct link), 64, pool_flags, 0, 0, "links");
    must(w->links == NULL ? ENOMEM : 0, "pool");
    must(qel_dt_buffer_init(&w->trace, "linkwatch", 0, TRACE_SIZE), "trace buffer");
    must(qel_dm_create(&w->dispatcher, "linkwatch", 0), "dispatcher");
    w->socket = open_netlink();
    ask_for_dump(w);
    must(qel_dm_fd_register(w->dispatcher, (uint32_t)w->socket, QEL_DM_READABLE, on_netlink, w), "socket");
    must(qel_dm_timer_register(w->dispatcher, &w->tick, on_tick, w), "timer");
    must(qel_dm_timer_settime(w->dispatcher, w->tick, &kTick), "timer");
    for (int i = 0; i < THREADS; ++i)
        must(qel_thread_create(&w->threads[i], NULL, serve, w, "linkwatch", 0), "thread");
}

static void free_all(struct watch* w, qel_queue* queue) {
    for (struct link* link; (link = qel_queue_dequeue(queue)) != NULL;) qel_mem_chunk_free(w->links, link);
}

static void stop(struct watch* w) {
    qel_dm_handle dispatcher = w->dispatcher;
    must(qel_dm_destroy(&dispatcher), "destroy"); /* the threads' calls give EINVAL from here on */
    for (int i = 0; i < THREADS; ++i) pthread_join(w->threads[i], NULL);
    print_tallies(w, "end");
    close(w->socket);
    free_all(w, &w->news);
    free_all(w, &w->table);
    qel_mem_chunk_destroy(w->links);
    qel_dt_buffer_close(&w->trace); /* the buffer stays, with all its entries */
}

int main(int argc, char** argv) {
    struct watch w = {.socket = -1};
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--watch") == 0)
            w.endless = true;
        else if (strcmp(argv[i], "--root") == 0 && i + 1 < argc)
            must(qel_ppm_set_string("qel.shm.root", argv[++i]), "root");
        else
            return fprintf(stderr, "usage: linkwatch [--watch] [--root PREFIX]\n"), 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL); /* the threads inherit it; main alone takes the signals */

    start(&w);
    while (sigtimedwait(&signals, NULL, w.endless ? NULL : &kShow) < 0 && errno == EINTR) continue;
    stop(&w);
    return 0;
}
