/* The timers of 'sessions' sessions without the sessions, on each of the libraries in turn. */
#ifndef COMPARE_H
#define COMPARE_H

#define HELLO_MS 200
#define HOLD_MS 700
#define LOST_IN_100 10
#define WHEEL_TICK_MS 4

/* Prints processor time and lateness of each library, 'seconds' each, and their ratios. Returns an exit
 * status. */
int compare_libraries(unsigned sessions, unsigned seconds);

#endif
