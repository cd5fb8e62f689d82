/* How late timers came: a histogram with bins of 20 microseconds, from 20 ms early to 180 ms late; what lies
 * beyond is counted at the ends. */
#ifndef LATENESS_H
#define LATENESS_H

#include <stdbool.h>
#include <stdint.h>
#include <time.h>

#define LATENESS_BINS 10000

struct lateness {
    uint64_t count;
    int64_t latest_ns;
    uint32_t bins[LATENESS_BINS];
};

int64_t now_ns(clockid_t clock);
void lateness_add(struct lateness* l, int64_t late_ns);
void lateness_merge(struct lateness* into, const struct lateness* from);

/* What 'share' of the timers didn't exceed. */
double lateness_ms(const struct lateness* l, double share);

/* Draws the histogram as an SVG file, through gnuplot; false if that fails. */
bool lateness_plot(const struct lateness* l, const char* file, const char* title);

#endif
