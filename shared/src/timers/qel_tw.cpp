// Wheels: making and destroying them, and the table of handlers.
//
// A wheel is one block: the record and behind it the heads of all slots of all levels. Its caller holds it by
// pointer; inside, each tick holds a reference by the wheel's number, and so does the expiry of a dispatcher
// timer, which carries the number in place of the pointer. So a handler may destroy its wheel, and a timer
// that was picked as its wheel went finds nothing.
//
// Invariant: the record lives until the last reference has gone, and no longer has a timer on it once it
// isn't alive. Locks: the wheel's mutex; none when the last reference frees it. Threads: any. Restart:
// nothing stays.
#include "timers/qel_tw.hpp"

#include <algorithm>
#include <bit>
#include <utility>

#include "core/qel_owned.hpp"

namespace qel::tw {
namespace {

using dm::bad_argument;
using dm::no_memory;

constexpr std::uint32_t kMaxWheels = 65536;
constexpr std::uint32_t kTickBits = 32;
constexpr std::uint32_t kMinSize = 64;
constexpr std::uint32_t kMaxSize = 2048;
// Types have 8 bits and 0 is none, so that no table needs more rows, whatever 'max_types' is.
constexpr std::uint32_t kMaxRows = 255;

constinit qel_dt_buffer_handle event_buffer = nullptr;
constexpr BufferSource kEventBuffer{"qel.time.buffer.events", "qel.time.buffer.events.size", 32768};

void free_wheel(Wheel& wheel) QEL_NO_THREAD_SAFETY_ANALYSIS {
    qel_named_free(wheel.type_table);
    wheel.mutex.destroy();
    qel_named_free(&wheel);
}

// What the caller of qel_tw_init_wheel() asks for.
struct Wanted {
    std::uint32_t granularity;
    std::uint32_t longest_delay;
    std::uint32_t max_types;
    std::uint32_t mode;
    qel_tw_basic_handler global_handler;
    bool catch_up;
};

int check(const Wanted& wanted) {
    if (!std::has_single_bit(wanted.granularity) || wanted.granularity > wanted.longest_delay)
        return bad_argument<"TW4">("granularity");
    if (wanted.mode > QEL_TW_MODE_BASIC) return bad_argument<"TW5">("mode");
    if (wanted.mode == QEL_TW_MODE_BASIC && (wanted.max_types == 0 || wanted.max_types > wanted.granularity))
        return bad_argument<"TW6">("max types");
    return 0;
}

constexpr std::uint32_t size_for(std::uint32_t ratio) {
    return std::clamp(std::bit_ceil(std::min(ratio, kMaxSize / 2) + 1), kMinSize, kMaxSize);
}
static_assert(size_for(63) == 64 && size_for(64) == 128 && size_for(1023) == 1024 && size_for(1024) == 2048);
static_assert(size_for(1) == 64 && size_for(0xffffffff) == 2048);

void fill_in(Wheel& wheel, const Wanted& wanted) QEL_NO_THREAD_SAFETY_ANALYSIS {
    const bool basic = wanted.mode == QEL_TW_MODE_BASIC;
    wheel.size = size_for(wanted.longest_delay / wanted.granularity);
    wheel.bits = static_cast<std::uint32_t>(std::countr_zero(wheel.size));
    wheel.levels = (kTickBits + wheel.bits - 1) / wheel.bits;
    wheel.slot_mask = wheel.size - 1;
    wheel.granularity = wanted.granularity;
    wheel.granularity_bits = static_cast<std::uint32_t>(std::countr_zero(wanted.granularity));
    wheel.time_shift = wheel.granularity_bits;
    wheel.tick_mask = 0xffffffff;
    wheel.max_types = wanted.max_types;
    wheel.type_mask = basic ? wanted.granularity - 1 : 0;
    wheel.global_handler = basic ? wanted.global_handler : nullptr;
    wheel.flags = Wheel::kInitialised | (basic ? Wheel::kBasic : Wheel::kCallback) |
                  (wanted.catch_up ? Wheel::kCatchUp : 0);
}

Wheel* allocate_like(const Wheel& shape) {
    static_assert(sizeof(Wheel) % alignof(Link) == 0);
    const std::size_t heads = std::size_t{shape.levels} * shape.size;
    void* block =
        qel_named_calloc_(1, sizeof(Wheel) + heads * sizeof(Link), qel_tag_e_get_string(QEL_MEM_TIMER), 0);
    if (block == nullptr) return nullptr;
    auto* wheel = new (block) Wheel{shape};
    wheel->wheels = reinterpret_cast<Link*>(wheel + 1);
    for (std::size_t i = 0; i < heads; ++i) make_empty(wheel->wheels[i]);
    return wheel;
}

int make_wheel(const Wanted& wanted, Wheel*& out) QEL_NO_THREAD_SAFETY_ANALYSIS {
    if (!wheels.make()) return no_memory<"TW7">();
    Wheel shape{};
    fill_in(shape, wanted);
    Owned<Wheel> wheel{allocate_like(shape)};
    if (!wheel) return no_memory<"TW8">();
    make_empty(wheel->due);
    if (int error = wheel->mutex.init(); error != 0) return failed<"TW9", "%s mutex rc=%d">(error, error);
    if (qel_idm_get_id(wheels.handle(), wheel.get(), &wheel->id) != 0) {
        wheel->mutex.destroy();
        return no_memory<"TW10">();
    }
    out = wheel.release();
    return 0;
}

// ---- The table

// A wheel whose timers find their handler in the table.
int check_typed_locked(const Wheel& wheel) QEL_REQUIRES(wheel.mutex) {
    if (int error = check_mode_locked(wheel, Wheel::kBasic); error != 0) return error;
    return wheel.global_handler == nullptr ? 0 : failed<"TW11", "%s global wheel handler is set">(EINVAL);
}

// The row that 'type', which isn't 0, may have; null without a table, and for a type of more than 8 bits.
Row* row_of_locked(const Wheel& wheel, std::uint32_t type) QEL_REQUIRES(wheel.mutex) {
    if (wheel.type_table == nullptr || type > kMaxRows) return nullptr;
    return &wheel.type_table[(type - 1) % wheel.max_types];
}

void fill_table(Row* rows, std::uint32_t max_types, const qel_tw_type_row* table) {
    std::uint32_t stored = 0;
    for (; table->type != 0 && stored < max_types; ++table) {
        if (table->type >= max_types) continue;
        if (table->handler != nullptr) rows[table->type - 1] = {table->handler, table->type};
        ++stored;
    }
}

}  // namespace

constinit FamilyPool wheels{
    {"timer wheels", nullptr, kMaxWheels, [](void* wheel) { free_wheel(*static_cast<Wheel*>(wheel)); }}};

void ReportedLockFailures::lock_failed(int error) {
    report<"TW1", "%s mutex lock rc=%d">(error);
}

void ReportedLockFailures::unlock_failed(int error) {
    report<"TW2", "%s mutex unlock rc=%d">(error);
}

bool is_alive_locked(const Wheel& wheel) {
    return (wheel.flags & Wheel::kInitialised) != 0;
}

int check_mode_locked(const Wheel& wheel, std::uint32_t mode) {
    if (!is_alive_locked(wheel)) return bad_argument<"TW12">("wheel");
    if ((wheel.flags & mode) != 0) return 0;
    return failed<"TW13", "%s wheel in wrong mode for operation">(EINVAL);
}

qel_tw_basic_handler basic_handler_locked(const Wheel& wheel, const qel_tw_timer_basic& timer) {
    if (wheel.global_handler != nullptr) return wheel.global_handler;
    const std::uint32_t type = timer.time & wheel.type_mask;
    const Row* row = type != 0 ? row_of_locked(wheel, type) : nullptr;
    return row != nullptr && row->type == type ? row->handler : nullptr;
}

}  // namespace qel::tw

using namespace qel;
using namespace qel::tw;

QEL_API int qel_tw_init_wheel(qel_tw* out, std::uint32_t granularity, std::uint32_t longest_delay,
                              std::uint32_t max_types, std::uint32_t mode,
                              qel_tw_basic_handler global_handler, int catch_up) {
    if (out == nullptr || *out != nullptr) return bad_argument<"TW3">("wheel");
    const Wanted wanted{granularity, longest_delay, max_types, mode, global_handler, catch_up != 0};
    if (int error = check(wanted); error != 0) return error;
    static_cast<void>(buffer_at(event_buffer, kEventBuffer));  // Without it events are not traced.
    if (int error = make_wheel(wanted, *out); error != 0) return error;
    event<"TW14", "%s wheel=%p of %u levels of %u slots of %u ms">(event_buffer, QEL_DT_LEVEL_INFO, *out,
                                                                   (*out)->levels, (*out)->size, granularity);
    return 0;
}

QEL_API int qel_tw_destroy_wheel(qel_tw* variable) {
    if (variable == nullptr || *variable == nullptr) return bad_argument<"TW15">("wheel");
    Wheel& wheel = **variable;
    {
        tw::Locked lock{wheel.mutex};
        if (!is_alive_locked(wheel)) return bad_argument<"TW16">("wheel");
        wheel.flags &= ~Wheel::kInitialised;
        static_cast<void>(detach_locked(wheel));  // ENOENT: it wasn't attached.
        empty_all_slots_locked(wheel);
    }
    *variable = nullptr;
    static_cast<void>(qel_idm_release_and_withdraw_id(wheels.handle(), wheel.id));
    return 0;
}

QEL_API std::uint32_t qel_tw_granularity(qel_tw wheel) {
    return wheel != nullptr ? wheel->granularity : 0;
}

QEL_API int qel_tw_set_handler(qel_tw wheel, std::uint8_t type, qel_tw_basic_handler handler) {
    if (wheel == nullptr || type == 0) return bad_argument<"TW17">("type");
    tw::Locked lock{wheel->mutex};
    if (int error = check_typed_locked(*wheel); error != 0) return error;
    Row* row = row_of_locked(*wheel, type);
    if (row == nullptr) return bad_argument<"TW18">("table");
    if (row->type != 0 && row->type != type) return failed<"TW19", "%s hash table collision">(EEXIST);
    *row = handler != nullptr ? Row{handler, type} : Row{};
    return 0;
}

QEL_API qel_tw_basic_handler qel_tw_get_handler(qel_tw wheel, std::uint8_t type) {
    constexpr qel_tw_basic_handler kNone = nullptr;
    if (wheel == nullptr) return kNone;
    tw::Locked lock{wheel->mutex};
    if (wheel->global_handler != nullptr) return failed<"TW30", "%s global wheel handler is set">(kNone);
    const Row* row = type != 0 && type < wheel->max_types ? row_of_locked(*wheel, type) : nullptr;
    if (row == nullptr) return failed<"TW31", "TW handler type is not set for the wheel %p">(kNone, wheel);
    if (row->type != type)
        return failed<"TW32", "TW handler for type %u is NULL">(kNone, std::uint32_t{type});
    return row->handler;
}

QEL_API int qel_tw_load_table(qel_tw wheel, const qel_tw_type_row* table) {
    if (wheel == nullptr || table == nullptr) return bad_argument<"TW33">("table");
    Owned<Row> rows;  // Declared first: the old table is given back with the mutex free.
    tw::Locked lock{wheel->mutex};
    if (int error = check_typed_locked(*wheel); error != 0) return error;
    rows = allocate_zeroed<Row>(QEL_MEM_TIMER, std::min(wheel->max_types, kMaxRows));
    if (!rows) return no_memory<"TW34">();
    fill_table(rows.get(), wheel->max_types, table);
    rows = Owned<Row>{std::exchange(wheel->type_table, rows.release())};
    return 0;
}

QEL_API int qel_tw_tick(qel_tw wheel) {
    if (wheel == nullptr) return bad_argument<"TW35">("wheel");
    Retained<Wheel> retained = wheels.retain<Wheel>(wheel->id);
    if (!retained) return bad_argument<"TW36">("wheel");
    run_tick(*retained, Ticker{});
    return 0;
}
