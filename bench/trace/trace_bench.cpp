// What does one trace entry cost the thread that writes it?
//
// Ours, LTTng-UST (in a snapshot session, which scripts make: see lttng_session.sh) and libqb's blackbox,
// with three integers, with two integers and a text of 20 bytes, with a disabled level, and by one and two
// threads into one buffer. Run it as: bench/trace/lttng_session.sh build/bench/bench/trace_bench
#include <benchmark/benchmark.h>

#include <qel/qel.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#if __has_include(<qb/qblog.h>)
#include <qb/qblog.h>
#define QEL_BENCH_LIBQB 1
#endif
#if __has_include(<lttng/tracepoint.h>)
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "trace/lttng_points.h"
#define QEL_BENCH_LTTNG 1
#endif

namespace {

constexpr const char* kText = "twenty bytes of text";
qel_dt_buffer_handle buffer = nullptr;

void ours_three_integers(benchmark::State& state) {
    static uint32_t this_tp = QEL_DT_TP_UNREGISTERED;
    int i = 0;
    for (auto _ : state) _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &this_tp, "%d %d %d", ++i, 2, 3);
}
void ours_integers_and_text(benchmark::State& state) {
    static uint32_t this_tp = QEL_DT_TP_UNREGISTERED;
    int i = 0;
    for (auto _ : state)
        _qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &this_tp, "%d %d %s", ++i, 2, kText);
}
void ours_disabled(benchmark::State& state) {
    for (auto _ : state) {
        const int enabled = qel_dt_trace_enabled(buffer, QEL_DT_LEVEL_DEBUG);
        benchmark::DoNotOptimize(enabled);
    }
}
BENCHMARK(ours_three_integers)->UseRealTime()->Threads(1)->Threads(2);
BENCHMARK(ours_integers_and_text)->UseRealTime();
BENCHMARK(ours_disabled);

#ifdef QEL_BENCH_LTTNG
void lttng_three_integers(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) lttng_ust_tracepoint(qel_bench, three_integers, ++i, 2, 3);
    if (!lttng_ust_tracepoint_enabled(qel_bench, three_integers)) state.SkipWithError("no session records");
}
void lttng_integers_and_text(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) lttng_ust_tracepoint(qel_bench, integers_and_text, ++i, 2, kText);
    if (!lttng_ust_tracepoint_enabled(qel_bench, integers_and_text))
        state.SkipWithError("no session records");
}
void lttng_disabled(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) lttng_ust_tracepoint(qel_bench, disabled, ++i);
}
BENCHMARK(lttng_three_integers)->UseRealTime()->Threads(1)->Threads(2);
BENCHMARK(lttng_integers_and_text)->UseRealTime();
BENCHMARK(lttng_disabled);
#endif

#ifdef QEL_BENCH_LIBQB
void libqb_three_integers(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) qb_log(LOG_INFO, "%d %d %d", ++i, 2, 3);
}
void libqb_integers_and_text(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) qb_log(LOG_INFO, "%d %d %s", ++i, 2, kText);
}
void libqb_disabled(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) qb_log(LOG_TRACE, "%d", ++i);
}
BENCHMARK(libqb_three_integers)->UseRealTime()->Threads(1)->Threads(2);
BENCHMARK(libqb_integers_and_text)->UseRealTime();
BENCHMARK(libqb_disabled);

void start_libqb() {
    qb_log_init("qel_bench", LOG_USER, LOG_EMERG);
    qb_log_ctl(QB_LOG_SYSLOG, QB_LOG_CONF_ENABLED, QB_FALSE);
    qb_log_filter_ctl(QB_LOG_BLACKBOX, QB_LOG_FILTER_ADD, QB_LOG_FILTER_FILE, "*", LOG_INFO);
    qb_log_ctl(QB_LOG_BLACKBOX, QB_LOG_CONF_SIZE, 1 << 20);
    qb_log_ctl(QB_LOG_BLACKBOX, QB_LOG_CONF_ENABLED, QB_TRUE);
}
#endif

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    qel_ppm_set_string("qel.shm.root", ("/qb" + std::to_string(getpid()) + ".").c_str());
    if (qel_dt_buffer_init(&buffer, "bench", 0, 1 << 20) != 0) return 1;
#ifdef QEL_BENCH_LIBQB
    start_libqb();
#endif
    benchmark::RunSpecifiedBenchmarks();
    qel_dt_buffer_destroy(&buffer);
    static_cast<void>(qel_shm_unlink("qel_trace.tpl"));
    static_cast<void>(qel_shm_unlink("qdt_buffers"));
#ifdef QEL_BENCH_LIBQB
    qb_log_fini();
#endif
    return 0;
}
