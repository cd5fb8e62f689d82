/* The trace points of the LTTng-UST peer, with the same arguments as ours. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER qel_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "trace/lttng_points.h"

#if !defined(QEL_BENCH_LTTNG_POINTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define QEL_BENCH_LTTNG_POINTS_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(qel_bench, three_integers, LTTNG_UST_TP_ARGS(int, a, int, b, int, c),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, a, a)
                                                   lttng_ust_field_integer(int, b, b)
                                                       lttng_ust_field_integer(int, c, c)))
LTTNG_UST_TRACEPOINT_EVENT(qel_bench, integers_and_text, LTTNG_UST_TP_ARGS(int, a, int, b, const char*, text),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, a, a)
                                                   lttng_ust_field_integer(int, b, b)
                                                       lttng_ust_field_string(text, text)))
LTTNG_UST_TRACEPOINT_EVENT(qel_bench, disabled, LTTNG_UST_TP_ARGS(int, a),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(int, a, a)))
#endif

#include <lttng/tracepoint-event.h>
