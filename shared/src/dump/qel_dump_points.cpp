// The list of trace points as text, with how long its formats are and how many arguments they have.
//
// Other processes write the list: a length is checked before a text is read by it. Locks: none; the list is
// held while it is read. Threads: any. Restart: the list outlives its writers.
#include <qel/base.h>

#include <array>
#include <cstdio>

#include "dump/qel_dump.hpp"
#include "trace/qel_trace_point.hpp"

namespace qel::dump {
namespace {

// Values from 0 to 'range' in four equal buckets.
class Histogram {
  public:
    explicit Histogram(std::uint32_t range) : range_(range) {}
    void add(std::uint32_t value) {
        ++counts_[value == 0 ? 0 : std::min<std::uint32_t>((value - 1) * kBuckets / range_, kBuckets - 1)];
        ++total_;
    }
    void print(const char* title) const {
        static_cast<void>(qel_cli_printf("%s\n", title));
        for (std::uint32_t bucket = 0; bucket < kBuckets; ++bucket) print_bucket(bucket);
    }

  private:
    static constexpr std::uint32_t kBuckets = 4;
    static constexpr std::uint32_t kLongestBar = 50;
    static constexpr char kBar[] = "##################################################";
    static_assert(sizeof kBar - 1 == kLongestBar);

    void print_bucket(std::uint32_t bucket) const {
        const std::uint32_t width = range_ / kBuckets;
        const std::uint32_t count = counts_[bucket];
        static_cast<void>(qel_cli_printf("%3u-%3u %.*s %d (%d%%)\n", bucket == 0 ? 0 : bucket * width + 1,
                                         (bucket + 1) * width, static_cast<int>(count * kLongestBar / total_),
                                         kBar, static_cast<int>(count),
                                         static_cast<int>(count * 100 / total_)));
    }

    std::uint32_t range_;
    std::uint32_t total_ = 0;
    std::array<std::uint32_t, kBuckets> counts_{};
};

// Prints the place 'index'; false if its length can't be. A free place has a length of 0.
bool print_place(std::uint32_t index, const qel_dt_tp_entry& point) {
    static_cast<void>(qel_cli_printf("%04d ", static_cast<int>(index)));
    if (point.length == 0) {
        static_cast<void>(qel_cli_printf(" (empty)\n"));
        return true;
    }
    if (point.length > sizeof point.format) {
        static_cast<void>(qel_cli_printf(" impossible format length! got %u expected %d\n", point.length,
                                         static_cast<int>(sizeof point.format)));
        return false;
    }
    char format[sizeof point.format + 1];
    std::transform(point.format, point.format + point.length, format, terminal_safe);
    static_cast<void>(qel_cli_printf("%3d %2d %08X%08X %.*s\n", static_cast<int>(point.length),
                                     point.argument_count, point.types[1], point.types[0],
                                     static_cast<int>(point.length), format));
    return true;
}

void print_list(const qel_dt_tp_list& list) {
    Histogram lengths{QEL_DT_TP_FORMAT_SIZE};
    Histogram arguments{QEL_DT_TP_MAX_ARGUMENTS};
    std::uint32_t used = 0;
    static_cast<void>(qel_cli_printf("TPID LEN A#       MASK*      Format-string\n"));
    for (std::uint32_t index = 0; index < QEL_DT_TP_CAPACITY; ++index) {
        const qel_dt_tp_entry point = point_at(list, index);
        if (!print_place(index, point)) break;
        if (point.length == 0) continue;
        ++used;
        lengths.add(point.length);
        arguments.add(point.argument_count);
    }
    static_cast<void>(qel_cli_printf(
        "--- End dump ---\n"
        "*: the mask output is backward, so the first argument is at the far right.\n"
        "Max tracepoint definitions capacity: %d\n"
        "Used tracepoint definitions: %d (%d%%)\n",
        QEL_DT_TP_CAPACITY, static_cast<int>(used), static_cast<int>(used * 100 / QEL_DT_TP_CAPACITY)));
    if (used == 0) return;
    lengths.print("Format string length distribution");
    arguments.print("Argument count distribution");
}

}  // namespace
}  // namespace qel::dump

using namespace qel;
using namespace qel::dump;

void qel_dt_tp_list_dump(void) {
    if (int error = point_list_hold(); error != 0) {
        static_cast<void>(qel_cli_printf("Cannot open tplist file error=%d\n", error));
        return;
    }
    Undo release{point_list_release};
    print_list(*qel_dt_tp_list_get());
}
