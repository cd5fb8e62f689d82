// Handles of dumps, and the dump of one buffer: entries given to a function or printed.
//
// A handle opens the buffer for itself and stays inside its gate while it reads the live mapping, so that a
// replaced segment is taken up between two dumps and never in the middle of one.
//
// Locks: none; inside the buffer's gate. Threads: a handle belongs to one at a time. Restart: a buffer is
// read whether its writers live or not.
#include "dump/qel_dump.hpp"

#include <qel/base.h>
#include <qel/time.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "trace/qel_trace_gate.hpp"

namespace qel::dump {
namespace {

constexpr char kLostText[] = "..some messages lost..";

void give(const qel_dt_dump_config& config, const qel_dt_entry_info& info, const char* text, std::size_t size,
          void* context) {
    if (config.type == QEL_DT_DUMP_TEXT)
        reinterpret_cast<qel_dt_dump_text>(config.function)(text, size, context);
    else
        reinterpret_cast<qel_dt_dump_entry>(config.function)(&info, text, size, context);
}

bool has_output(const qel_dt_dump_config& config) {
    return config.function != nullptr &&
           (config.type == QEL_DT_DUMP_TEXT || config.type == QEL_DT_DUMP_ENTRY);
}

int take_copy(qel_dt_dump& dump) {
    Inside inside{*dump.handle};
    if (inside.error() != 0) return inside.error() == kGateBusy ? EAGAIN : inside.error();
    return dump.copy.take(view_of(dump.handle->segment));
}

int dump_view(qel_dt_dump& dump, const View& view, const qel_dt_dump_config& config, void* context) {
    int given = 0;
    const bool whole = walk_entries(view, whole_lap(view), [&](std::uint32_t, const Entry& entry) {
        give_entry(dump, config, entry, context);
        ++given;
    });
    // The counts of a buffer that is being written lead anywhere; those of a quiet one don't.
    return whole || !dump.copy.exists() || dump.copy.disturbed() ? given : -EBADMSG;
}

int dump_live(qel_dt_dump& dump, const qel_dt_dump_config& config, void* context) {
    Inside inside{*dump.handle};
    if (inside.error() != 0) return inside.error() == kGateBusy ? -EAGAIN : -inside.error();
    if (!segment_sound(dump.handle->segment)) return -EBADMSG;
    return dump_view(dump, view_of(dump.handle->segment), config, context);
}

int dump_entries(qel_dt_dump& dump, const qel_dt_dump_config& config, void* context) {
    return dump.copy.exists() ? dump_view(dump, dump.copy.view(), config, context)
                              : dump_live(dump, config, context);
}

void print_line(const char* text, std::size_t size, void*) {
    if (size > 0 && text[size - 1] == '\n') --size;
    char line[kTextSize];
    std::transform(text, text + size, line, terminal_safe);
    static_cast<void>(qel_cli_printf("%.*s\n", static_cast<int>(size), line));
}

// Opens the buffer 'name' with a copy for the time of one dump through 'function'. Gives as
// qel_dt_dump_buffer(), or the negative errno of opening it.
int dump_once(const char* name, qel_dt_dump_text function, void* context) {
    qel_dt_dump_handle dump = nullptr;
    if (int error = qel_dt_init_buffer_dump_handle(name, true, {}, &dump); error != 0) return -error;
    const int given = qel_dt_dump_buffer(dump, function, context);
    qel_dt_destroy_buffer_dump_handle(dump);
    return given;
}

}  // namespace

std::int64_t Text::write_prefix(char* out, std::size_t size, const qel_dt_entry_info& info) {
    if (size == 0) return 0;
    if (info.seconds != dated_second_) {
        const timespec stamp{static_cast<time_t>(info.seconds), 0};
        // Empty for a time that the calendar can't hold.
        static_cast<void>(qel_time_format_timespec(&stamp, "%D %T", 0, date_, sizeof date_));
        static_cast<void>(qel_time_format_timespec(&stamp, "%Z", 0, zone_, sizeof zone_));
        dated_second_ = info.seconds;
    }
    const int length = std::snprintf(out, std::min(size, kPrefixSize + 1), "[%s.%.3lu %s %x %d] ", date_,
                                     static_cast<unsigned long>(info.nanoseconds / 1'000'000), zone_,
                                     info.sequence, static_cast<int>(info.process_id));
    return std::min<std::int64_t>(length, static_cast<std::int64_t>(std::min(size, kPrefixSize + 1)) - 1);
}

void Text::write(const Entry& entry, const qel_dt_entry_info& info, bool with_prefix) {
    size_ = with_prefix ? static_cast<std::size_t>(write_prefix(text_, kPrefixSize + 1, info)) : 0;
    size_ += write_message(entry, std::span{text_}.subspan(size_));
}

int open_dump(const char* name, bool copy, qel_dt_dump_config config, qel_dt_dump& out) {
    const int opened = buffer_open(name, kCreationLimitMs, &out.handle);
    if (opened != 0) return opened == ENOMEM ? ENOMEM : ENOENT;
    out.config = config;
    const int error = copy ? take_copy(out) : 0;
    if (error != 0) close_dump(out);
    return error;
}

void close_dump(qel_dt_dump& dump) {
    dump.copy.drop();
    if (dump.handle != nullptr) static_cast<void>(qel_dt_buffer_close(&dump.handle));
}

void give_entry(qel_dt_dump& dump, const qel_dt_dump_config& config, const Entry& entry, void* context) {
    if (!has_output(config)) return;
    qel_dt_entry_info info = info_of(entry, dump.handle->name);
    if (dump.lost) {
        dump.lost = false;
        info.lost = 1;
        give(config, info, kLostText, sizeof kLostText - 1, context);
        info.lost = 0;
    }
    dump.text.write(entry, info, config.type == QEL_DT_DUMP_TEXT);
    give(config, info, dump.text.data(), dump.text.size(), context);
}

int print_buffer(const char* name) {
    const int printed = dump_once(name, print_line, nullptr);
    if (printed < 0) return -printed;
    static_cast<void>(qel_cli_printf("%d entries printed\n", printed));
    return 0;
}

}  // namespace qel::dump

using namespace qel;
using namespace qel::dump;

int qel_dt_init_buffer_dump_handle(const char* name, bool copy, qel_dt_dump_config config,
                                   qel_dt_dump_handle* out) {
    if (name == nullptr || *name == '\0' || out == nullptr) return EINVAL;
    void* memory = qel_named_malloc_(sizeof(qel_dt_dump), qel_tag_e_get_string(QEL_MEM_QDT), 0);
    if (memory == nullptr) return ENOMEM;
    Unique<qel_dt_dump*, qel_dt_destroy_buffer_dump_handle> dump{new (memory) qel_dt_dump};
    if (int error = open_dump(name, copy, config, *dump.get()); error != 0) return error;
    *out = dump.release();
    return 0;
}

void qel_dt_destroy_buffer_dump_handle(qel_dt_dump_handle dump) {
    if (dump == nullptr) return;
    close_dump(*dump);
    dump->~qel_dt_dump();
    qel_named_free(dump);
}

int qel_dt_dump_buffer(qel_dt_dump_handle dump, qel_dt_dump_text callback, void* context) {
    if (dump == nullptr) return -EINVAL;
    if (callback == nullptr) return dump_entries(*dump, dump->config, context);
    const qel_dt_dump_config given{QEL_DT_DUMP_TEXT, reinterpret_cast<void (*)()>(callback)};
    return dump_entries(*dump, given, context);
}

void qel_dt_buffer_dump_console(const char* name) {
    if (int error = print_buffer(name); error != 0)
        static_cast<void>(qel_cli_printf("Cannot open trace buffer error=%d\n", error));
}

int qel_dt_buffer_get_by_line(const char* name, uint32_t, qel_dt_dump_text callback, void* context) {
    if (name == nullptr || callback == nullptr) return EINVAL;
    const int given = dump_once(name, callback, context);
    return given < 0 ? -given : 0;
}

int64_t qel_dt_pfx_format_default(char* buffer, size_t size, const qel_dt_entry_info* info) {
    if (buffer == nullptr || info == nullptr) return -EINVAL;
    if (size > INT32_MAX) return -EOVERFLOW;
    return Text{}.write_prefix(buffer, size, *info);
}
