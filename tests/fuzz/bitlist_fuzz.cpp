// Any text read into a list: bits lie within it, and what the list writes, in pieces of any size, reads back
// as the same set.
#include "fuzz/fuzz_support.hpp"

#include <qel/bitlist.h>

#include <memory>

using namespace qel_fuzz;

namespace {

using List = std::unique_ptr<qel_bitlist, decltype(&qel_bitlist_free)>;

List make_list(std::uint32_t size, std::uint32_t base) {
    return {qel_bitlist_alloc(size, base, 0), qel_bitlist_free};
}

// Writes 'list' in pieces of 'size' bytes and reads each into 'copy'.
void copy_by_text(qel_bitlist* list, qel_bitlist* copy, std::uint32_t size) {
    const std::unique_ptr<char[]> piece{new char[size]};
    for (std::uint32_t value = qel_bitlist_find_first(list); value != QEL_BITLIST_NONE;
         value = qel_bitlist_find_bit(list, false)) {
        require(qel_bitlist_to_string(list, size, value, piece.get()) == 0);
        require(*piece.get() != '\0' && qel_bitlist_from_string(copy, piece.get()) == 0);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input{data, size};
    const auto count = input.ConsumeIntegralInRange<std::uint32_t>(1, 5000);
    const auto base = input.ConsumeBool() ? 0 : input.ConsumeIntegralInRange<std::uint32_t>(0, ~0u - count);
    const auto room = input.ConsumeIntegralInRange<std::uint32_t>(11, 64);  // for the longest value
    const std::string text = input.ConsumeRemainingBytesAsString();
    const List list = make_list(count, base), copy = make_list(count, base);
    static_cast<void>(qel_bitlist_from_string(list.get(), text.c_str()));
    require(qel_bitlist_count(list.get()) <= count);
    copy_by_text(list.get(), copy.get(), room);
    require(qel_bitlist_equal(list.get(), copy.get()) == 1);
    return 0;
}
