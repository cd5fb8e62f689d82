#include "lateness.h"

#include <signal.h>
#include <stdio.h>

#define BIN_NS 20000
#define EARLY_BINS 1000

int64_t now_ns(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

void lateness_add(struct lateness* l, int64_t late_ns) {
    int64_t bin = late_ns / BIN_NS + EARLY_BINS;
    if (bin < 0) bin = 0;
    if (bin >= LATENESS_BINS) bin = LATENESS_BINS - 1;
    ++l->bins[bin];
    if (l->count++ == 0 || late_ns > l->latest_ns) l->latest_ns = late_ns;
}

void lateness_merge(struct lateness* into, const struct lateness* from) {
    if (from->count != 0 && (into->count == 0 || from->latest_ns > into->latest_ns))
        into->latest_ns = from->latest_ns;
    into->count += from->count;
    for (int bin = 0; bin < LATENESS_BINS; ++bin) into->bins[bin] += from->bins[bin];
}

static double lower_end_ms(int bin) {
    return (double)(bin - EARLY_BINS) * BIN_NS * 1e-6;
}

double lateness_ms(const struct lateness* l, double share) {
    uint64_t wanted = (uint64_t)(share * (double)l->count), seen = 0;
    int bin = 0;
    while (bin < LATENESS_BINS - 1 && (seen += l->bins[bin]) < wanted) ++bin;
    return lower_end_ms(bin + 1);
}

bool lateness_plot(const struct lateness* l, const char* file, const char* title) {
    signal(SIGPIPE, SIG_IGN); /* a gnuplot that isn't there is told by pclose() */
    FILE* gnuplot = popen("gnuplot", "w");
    if (gnuplot == NULL) return false;
    fprintf(gnuplot,
            "set terminal svg size 800,400 background 'white'\nset output '%s'\nset title '%s'\n"
            "set xlabel 'ms late'\nset ylabel 'expiries'\nset logscale y\nset style fill solid\n"
            "unset key\nplot '-' with boxes\n",
            file, title);
    for (int bin = 0; bin < LATENESS_BINS; ++bin)
        if (l->bins[bin] != 0) fprintf(gnuplot, "%f %u\n", lower_end_ms(bin) + BIN_NS * 0.5e-6, l->bins[bin]);
    fprintf(gnuplot, "e\n");
    return pclose(gnuplot) == 0;
}
