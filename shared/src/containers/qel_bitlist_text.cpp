// Bit lists as text: 1,3-5,9 written and read, and the dump in hexadecimal.
//
// The set is taken run by run. What is written piece by piece ends at a run, or between a run's low and high
// value, and leaves the cursor so that the next search finds the first value not written. What is read is set
// entry by entry, so that an entry that is refused leaves those before it.
//
// Locks and threads: none; the caller of each list holds its own lock.
#include <qel/base.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "containers/qel_bitlist.hpp"
#include "core/qel_codes.hpp"

namespace qel {
namespace {

// Consecutive values as offsets, both included.
struct Run {
    std::uint32_t low;
    std::uint32_t high;
};

// The first run of set bits at or behind 'offset'. Bits past the list's size belong to none.
std::optional<Run> next_run(const qel_bitlist& list, std::uint64_t offset) {
    const std::uint64_t low = bitlist_search<Bit::set>(list, offset);
    if (low >= list.size) return std::nullopt;
    const std::uint64_t end = std::min<std::uint64_t>(bitlist_search<Bit::clear>(list, low), list.size);
    return Run{static_cast<std::uint32_t>(low), static_cast<std::uint32_t>(end - 1)};
}

// A text that is always closed and grows by whole numbers or not at all.
class Text {
  public:
    Text(char* buffer, std::size_t size) : end_(buffer), room_(size - 1) {}

    // Appends 'mark', unless it is 0, and 'value' when both fit.
    bool append(char mark, std::uint32_t value) {
        char entry[11];
        entry[0] = mark;
        char* start = mark == '\0' ? entry + 1 : entry;
        char* stop = std::to_chars(entry + 1, std::end(entry), value).ptr;
        const auto length = static_cast<std::size_t>(stop - start);
        if (length > room_) return false;
        end_ = std::copy(start, stop, end_);
        *end_ = '\0';
        room_ -= length;
        return true;
    }

  private:
    char* end_;
    std::size_t room_;  // bytes without the closing 0
};

void put_cursor_on(qel_bitlist& list, std::uint32_t offset) {
    list.cursor_word = offset / kWordBits;
    list.cursor_bit = offset % kWordBits;
}

// So that a search goes on with the bit at 'offset' itself.
void put_cursor_before(qel_bitlist& list, std::uint32_t offset) {
    list.cursor_word = offset / kWordBits - (offset % kWordBits == 0);
    list.cursor_bit = (offset - 1) % kWordBits;
}

void write_runs(qel_bitlist& list, std::optional<Run> run, Text text) {
    for (char mark = '\0'; run; mark = ',', run = next_run(list, std::uint64_t{run->high} + 1)) {
        if (!text.append(mark, list.base + run->low)) return put_cursor_before(list, run->low);
        put_cursor_on(list, run->low);
        if (run->high == run->low) continue;
        if (!text.append('-', list.base + run->high)) return;
        put_cursor_on(list, run->high);
    }
}

bool take(std::string_view& text, char mark) {
    if (!text.starts_with(mark)) return false;
    text.remove_prefix(1);
    return true;
}

// Takes a number off the front of 'text', as an offset of 'list'.
std::optional<std::uint32_t> take_offset(const qel_bitlist& list, std::string_view& text) {
    std::uint32_t value;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || value - list.base >= list.size) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value - list.base;
}

// Takes a number or a range.
std::optional<Run> take_run(const qel_bitlist& list, std::string_view& text) {
    const auto low = take_offset(list, text);
    if (!low || !take(text, '-')) return low ? std::optional{Run{*low, *low}} : std::nullopt;
    const auto high = take_offset(list, text);
    return high && *high > *low ? std::optional{Run{*low, *high}} : std::nullopt;
}

void set_run(qel_bitlist& list, Run run) {
    const std::span words = bitlist_words(list);
    const std::uint32_t first = run.low / kWordBits, last = run.high / kWordBits;
    const std::uint32_t from_low = ~0u << run.low % kWordBits;
    const std::uint32_t to_high = ~0u >> (kWordBits - 1 - run.high % kWordBits);
    if (first == last) {
        words[first] |= from_low & to_high;
        return;
    }
    words[first] |= from_low;
    std::ranges::fill(words.subspan(first + 1, last - first - 1), ~0u);
    words[last] |= to_high;
}

}  // namespace
}  // namespace qel

using namespace qel;

uint32_t qel_bitlist_to_string(qel_bitlist* list, uint32_t size, uint32_t start, char* buffer) {
    if (list == nullptr || buffer == nullptr || size == 0) return fatal(EINVAL);
    *buffer = '\0';
    const std::uint32_t offset = start - list->base;
    if (offset > list->size) return fatal(EINVAL);
    if (offset == list->size) return QEL_BITLIST_NONE;
    const std::optional<Run> first = next_run(*list, offset);
    if (!first) return fatal(EINVAL);
    write_runs(*list, first, Text{buffer, std::max(size, 2u)});
    return 0;
}

cerrno qel_bitlist_from_string(qel_bitlist* list, const char* text) {
    if (list == nullptr || text == nullptr) return fatal(EINVAL);
    std::string_view rest{text};
    if (rest.empty()) return 0;
    do {
        const std::optional<Run> run = take_run(*list, rest);
        if (!run) return fatal(EINVAL);
        set_run(*list, *run);
    } while (take(rest, ','));
    return rest.empty() ? 0 : fatal(EINVAL);
}

void qel_bitlist_dump(qel_bitlist* list) {
    if (list == nullptr) return;
    const char* mark = "";
    for (auto run = next_run(*list, 1); run;
         mark = ",", run = next_run(*list, std::uint64_t{run->high} + 1)) {
        const std::uint32_t low = list->base + run->low, high = list->base + run->high;
        if (low == high)
            static_cast<void>(qel_cli_printf("%s0x%x", mark, low));
        else
            static_cast<void>(qel_cli_printf("%s0x%x-0x%x", mark, low, high));
    }
}
