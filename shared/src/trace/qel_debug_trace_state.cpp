// The state of a flag as text, for a person at a terminal.
//
// Of a record without its magic only the flag's own words are shown; its pointers are not followed.
//
// Locks: debug_lock while a live flag is read. Threads: any.
#include <qel/base.h>

#include <cerrno>

#include "trace/qel_debug_trace.hpp"

namespace qel {
namespace {

void print_value(const Filter& filter) {
    if (is_text(filter.type))
        qel_cli_printf(" Value: %.128s", reinterpret_cast<const char*>(filter.value));
    else if (filter.type == QEL_DT_FILTER_UINT32)
        qel_cli_printf(" Value: %u", static_cast<std::uint32_t>(filter.value));
    else
        qel_cli_printf(" Value: %llu", static_cast<unsigned long long>(filter.value));
}

void print_requests_locked(const Tty& tty) QEL_REQUIRES(debug_lock) {
    const int count = static_cast<int>(tty.requests.count);
    int index = 0;
    for (auto* request = first_of<Request>(tty.requests); request != nullptr; request = next_of(request)) {
        qel_cli_printf("      ~ Req [%d/%d] Uncond: %d Type: 0x%x", ++index, count,
                       static_cast<int>(request->unconditional), request->filter.type);
        if (!request->unconditional) print_value(request->filter);
        qel_cli_printf("\n");
    }
}

void print_ttys_locked(const qel_dt_flag& flag) QEL_REQUIRES(debug_lock) {
    const int count = static_cast<int>(flag.ttys.count);
    qel_cli_printf("  - Active TTY Count: %d\n", count);
    int index = 0;
    for (auto* tty = first_of<Tty>(flag.ttys); tty != nullptr; tty = next_of(tty)) {
        qel_cli_printf("    * TTY [%d/%d] Name: %s, Requests: %d\n", ++index, count, tty->name,
                       static_cast<int>(tty->requests.count));
        print_requests_locked(*tty);
    }
}

void print_words_locked(const qel_dt_flag& flag) QEL_REQUIRES(debug_lock) {
    qel_cli_printf("Flag: %p\n", static_cast<const void*>(&flag));
    qel_cli_printf("  - Name: %.64s, Magic: 0x%x (", flag.name, flag.magic);
    qel_cli_printf(alive(&flag) ? "good)" : "BAD!)");
    qel_cli_printf("  - Parent: %p, Child Count: %d, Options: 0x%x, Supported Filters: 0x%x\n",
                   static_cast<const void*>(flag.parent), static_cast<int>(flag.children.count), flag.options,
                   flag.supported_filters);
}

}  // namespace
}  // namespace qel

using namespace qel;

int qel_dt_flag_print_state(const qel_dt_flag* flag) {
    qel_check_not_interrupt_path();
    if (flag == nullptr) return EINVAL;
    if (inside_callback()) return EDEADLK;
    DebugLocked lock{debug_lock};
    print_words_locked(*flag);
    if (alive(flag)) print_ttys_locked(*flag);
    return 0;
}
