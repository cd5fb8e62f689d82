// A buffer of entries with bytes of it overwritten, as a hostile process could at any moment: every dump
// ends, gives no more than the buffer holds, and touches nothing else.
#include "fuzz/fuzz_support.hpp"
#include "trace/qel_trace_buffer.hpp"

#include <qel/dt.h>
#include <qel/dt_dump.h>

#include <cerrno>
#include <vector>

using namespace qel_fuzz;

namespace {

constexpr std::uint32_t kBlocks = 128;
constexpr const char* kName = "hostile";

// A buffer that has wrapped, its entries of one block and of several.
struct Target {
    Target() {
        require(qel_dt_buffer_init(&buffer, kName, 0, kBlocks * 64) == 0);
        std::uint32_t point = QEL_DT_TP_UNREGISTERED;
        for (int i = 0; i < 150; ++i) {
            const std::string text(static_cast<std::size_t>(i) % 99, 's');
            require(_qel_dt_log_filter_adv(nullptr, buffer, 0, 0, 0, 0, &point, "%d %s %lu", i, text.c_str(),
                                           1UL) == 0);
        }
        auto* start = reinterpret_cast<std::byte*>(segment().header);
        sound.assign(start, segment().payload + std::size_t{kBlocks} * 64);
    }
    const qel::BufferSegment& segment() const { return buffer->segment; }

    qel_dt_buffer_handle buffer = nullptr;
    std::vector<std::byte> sound;  // its bytes before anyone wrote into it
};
Target* target;

// A byte of the header, of a control word, of the head of an entry, or of what lies behind it.
std::byte& pick_byte(FuzzedDataProvider& input) {
    const qel::BufferSegment& segment = target->segment();
    auto of = [](auto* start, std::size_t at) -> std::byte& {
        return reinterpret_cast<std::byte*>(start)[at];
    };
    const auto choice = input.ConsumeIntegral<std::uint8_t>();
    const auto block = input.ConsumeIntegralInRange<std::size_t>(0, kBlocks - 1);
    switch (choice % 4) {
    case 0:
        return of(segment.header, input.ConsumeIntegralInRange<std::size_t>(0, sizeof *segment.header - 1));
    case 1:
        return of(segment.control, block * sizeof *segment.control + choice / 4 % 4);
    case 2:
        return of(segment.payload, block * 64 + choice / 4 % sizeof(qel::PayloadHeader));
    default:
        return of(segment.payload, block * 64 + choice / 4);
    }
}

void overwrite(FuzzedDataProvider& input, std::size_t count) {
    while (count-- > 0 && input.remaining_bytes() > 0)
        pick_byte(input) = static_cast<std::byte>(input.ConsumeIntegral<std::uint8_t>());
}

void count_text(const char* text, std::size_t length, void* context) {
    require(length <= 1074 && std::memchr(text, 0, length) == nullptr);
    ++*static_cast<std::uint32_t*>(context);
}

void count_entry(const qel_dt_entry_info* info, const char* text, std::size_t length, void* context) {
    require(std::memchr(info->buffer_name, 0, sizeof info->buffer_name) != nullptr);
    count_text(text, length, context);
}

void count_piece(const char* text, std::size_t length, void* context) {
    *static_cast<std::size_t*>(context) += strnlen(text, length);
}

void dump_alone(bool copy) {
    std::uint32_t given = 0;
    qel_dt_dump_handle dump = nullptr;
    if (qel_dt_init_buffer_dump_handle(kName, copy, {}, &dump) != 0) return;
    const int result = qel_dt_dump_buffer(dump, count_text, &given);
    require(result == static_cast<int>(given) || result == -EBADMSG);
    require(given <= kBlocks);
    qel_dt_destroy_buffer_dump_handle(dump);
}

void dump_blocks(bool copy) {
    std::size_t printed = 0;
    static_cast<void>(qel_dt_dump_file(kName, count_piece, &printed, copy));
    require(printed < 1'000'000);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
    use_own_shm();
    target = new Target;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input{data, size};
    std::memcpy(target->segment().header, target->sound.data(), target->sound.size());
    const auto before = input.ConsumeIntegralInRange<std::size_t>(0, 64);
    overwrite(input, before);
    dump_alone(false);
    dump_alone(true);
    if (const auto choice = input.ConsumeIntegral<std::uint8_t>(); choice >= 240)
        dump_blocks(choice % 2 != 0);
    const char* names[] = {kName, kName};
    const qel_dt_dump_limits limits{input.ConsumeIntegral<std::uint8_t>(), 1};
    std::uint32_t given = 0;
    qel_dt_mst_handle merged = nullptr;
    if (qel_dt_buffer_mst_init_pfx(names, 2, &limits, count_entry, &given, &merged) != 0) return 0;
    require(given <= 2 * kBlocks);
    overwrite(input, 64);
    given = 0;
    static_cast<void>(qel_dt_buffer_mst_next(merged));
    require(given <= 2 * kBlocks + 2);
    require(qel_dt_buffer_mst_destroy(merged) == 0);
    return 0;
}
