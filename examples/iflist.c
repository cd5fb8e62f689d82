/* iflist: lists the interfaces of this machine through the interface service, then follows them.
 *
 * usage: iflist [--watch] [--root PREFIX]
 *
 * Prints a table of the interfaces, then each that comes or goes; ends after 3 seconds or, with --watch, when
 * interrupted. What the library logs goes to shared memory below PREFIX.
 *
 * The program knows nothing of rtnetlink: the service's shim does that, see linkwatch.c for what it spares.
 * One thread does all: it reads the attributes, and then serves the dispatcher, where the service calls.
 *
 *     bind ---> list: one handle an interface, one read in bulk an attribute
 *        \--> register ---> on_created, on_deleted, as jobs of the dispatcher
 */
#include <errno.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <qel/qel.h>

static const struct timespec kShow = {3, 0};

static uint32_t app;
static qel_if_ctx_db* names; /* the name of each interface: one that has gone can't be asked */
static bool ended;

static void must(cerrno error, const char* what) {
    if (error == 0) return;
    fprintf(stderr, "iflist: %s: %s\n", what, cerr_strerror(error));
    exit(1);
}

static void* checked(void* memory) {
    must(memory == NULL ? QEL_CERRNO_FATAL | ENOMEM : 0, "memory");
    return memory;
}

/* Runs when the interface has left, after on_deleted, or when the database goes. */
static void free_name(uint64_t ifh, qel_if_ctx_db* db, void* name, qel_if_ctx_db* same) {
    (void)ifh, (void)db, (void)same;
    free(name);
}

static void remember(uint64_t ifh, const char* name) {
    char* copy = checked(strdup(name));
    if (qel_if_ctx_set(names, ifh, copy) != 0) free(copy); /* it is there already */
}

/* ---- The list ---- */

static void print_header(void) {
    printf("%6s  %-16s%-14s%-6s%-12s%8s%8s  %s\n", "ifh", "name", "type", "oper", "admin", "mtu", "speed",
           "mac");
}

/* What an interface doesn't have is "-"; the codes say why. */
static void print_number(int width, uint32_t value, cerrno error) {
    if (error == 0)
        printf("%*u", width, value);
    else
        printf("%*s", width, "-");
}

static void print_mac(uint64_t ifh) {
    uint8_t mac[6];
    if (qel_if_get_ether_mac_address(app, ifh, mac) == 0)
        printf("  %02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    else
        printf("  -\n");
}

/* One by one: as good as any way for one interface. */
static void print_interface(uint64_t ifh, const char* name) {
    uint32_t type = 0, oper = 0, admin = 0, mtu = 0, speed = 0;
    if (qel_if_get_type(app, ifh, &type) != 0 || qel_if_get_oper_state(app, ifh, &oper) != 0 ||
        qel_if_get_admin_state(app, ifh, &admin) != 0)
        return; /* it has gone meanwhile */
    cerrno no_mtu = qel_if_get_mtu(app, ifh, &mtu), no_speed = qel_if_get_speed(app, ifh, &speed);
    printf("%6llu  %-16s%-14s%-6s%-12s", (unsigned long long)ifh, name,
           qel_if_get_printable_type(type) + strlen("QEL_IF_TYPE_"), qel_if_get_printable_oper_state(oper),
           qel_if_get_printable_admin_state(admin));
    print_number(8, mtu, no_mtu);
    print_number(8, speed, no_speed);
    print_mac(ifh);
}

/* In bulk: one call reads the names of all. */
static void print_all(const uint64_t* handles, size_t count) {
    char(*texts)[QEL_IF_NAME_SIZE] = checked(calloc(count, sizeof *texts));
    char** buffers = checked(calloc(count, sizeof *buffers));
    cerrno* results = checked(calloc(count, sizeof *results));
    for (size_t i = 0; i < count; ++i) buffers[i] = texts[i];
    must(qel_if_bulk_get_name(app, handles, buffers, results, QEL_IF_NAME_SIZE, count),
         "qel_if_bulk_get_name");
    print_header();
    for (size_t i = 0; i < count; ++i) {
        if (results[i] != 0) continue;
        remember(handles[i], texts[i]);
        print_interface(handles[i], texts[i]);
    }
    free(results);
    free(buffers);
    free(texts);
}

static void list(void) {
    qel_if_iteration_filter all;
    uint64_t* handles;
    size_t count;
    qel_if_iteration_filter_init(&all);
    must(qel_if_iterator_glob(app, &all, &handles, &count), "qel_if_iterator_glob");
    if (count > 0) print_all(handles, count);
    printf("%zu interfaces\n", count);
    free(handles);
}

/* ---- What happens ---- */

static void on_created(uint64_t ifh, uint32_t value, uint64_t cookie) {
    (void)value, (void)cookie;
    char name[QEL_IF_NAME_SIZE] = "?";
    if (qel_if_get_name(app, ifh, name, sizeof name) == 0) remember(ifh, name);
    printf("created %6llu  %s\n", (unsigned long long)ifh, name);
}

static void on_deleted(uint64_t ifh, uint32_t value, uint64_t cookie) {
    (void)value, (void)cookie;
    void* name;
    if (qel_if_ctx_get(names, ifh, &name) != 0) name = "?";
    printf("deleted %6llu  %s\n", (unsigned long long)ifh, (const char*)name);
}

static void on_time(qel_dm_handle dm, qel_dm_timer timer, void* context) {
    (void)dm, (void)timer, (void)context;
    ended = true;
}

static void on_signal(qel_dm_handle dm, uint32_t fd, uint32_t conditions, void* context) {
    (void)dm, (void)fd, (void)conditions, (void)context;
    ended = true;
}

/* SIGINT and SIGTERM as events of the dispatcher, instead of in the middle of anything. */
static int catch_signals(qel_dm_handle dm) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    int fd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (fd < 0) must((cerrno)errno, "signalfd");
    must((cerrno)qel_dm_fd_register(dm, (uint32_t)fd, QEL_DM_READABLE, on_signal, NULL),
         "qel_dm_fd_register");
    return fd;
}

static void end_after(qel_dm_handle dm, const struct timespec* time) {
    qel_dm_timer timer;
    must((cerrno)qel_dm_timer_register(dm, &timer, on_time, NULL), "qel_dm_timer_register");
    must((cerrno)qel_dm_timer_settime(dm, timer, time), "qel_dm_timer_settime");
}

static qel_dm_handle start(void) {
    qel_dm_handle dm;
    qel_if_bind_attr attr;
    uint32_t scope = 0;
    must((cerrno)qel_dm_create(&dm, "iflist", 0), "qel_dm_create");
    must(qel_if_bind_attr_init(&attr), "qel_if_bind_attr_init");
    attr.scope = &scope;
    attr.qdm = dm;
    must(qel_if_bind(&app, "iflist", &attr), "qel_if_bind");
    must(qel_if_ctx_create_db("names", free_name, &names), "qel_if_ctx_create_db");
    return dm;
}

int main(int argc, char** argv) {
    bool watch = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--watch") == 0)
            watch = true;
        else if (strcmp(argv[i], "--root") == 0 && i + 1 < argc)
            must((cerrno)qel_ppm_set_string("qel.shm.root", argv[++i]), "--root");
        else
            return fprintf(stderr, "usage: iflist [--watch] [--root PREFIX]\n"), 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);

    qel_dm_handle dm = start();
    int signals = catch_signals(dm);
    list();
    const qel_if_event_cb_vector callbacks = {.created = on_created, .deleted = on_deleted};
    uint32_t reg;
    must(qel_if_register_callbacks(app, &callbacks, NULL, 0, &reg), "qel_if_register_callbacks");
    if (!watch) end_after(dm, &kShow);
    while (!ended && qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    must(qel_if_destroy(&app), "qel_if_destroy");
    must(qel_if_ctx_destroy_db(names), "qel_if_ctx_destroy_db");
    qel_dm_destroy(&dm);
    close(signals);
    return 0;
}
