// A hostile list of trace points, and the formats that a program registers: an entry's message stays within
// its room, and what the parser takes the dump reads back.
#include "dump/qel_dump.hpp"
#include "fuzz/fuzz_support.hpp"

using namespace qel_fuzz;

namespace {

// The list's first place.
qel_dt_tp_entry* point;

std::string message_of(const qel::dump::Entry& entry) {
    char text[qel::dump::kMessageSize];
    std::memset(text, 'x', sizeof text);
    const std::size_t size = qel::dump::write_message(entry, text);
    require(size < sizeof text && text[size] == '\0');
    return {text, size};
}

qel::dump::Entry entry_of(FuzzedDataProvider& input) {
    qel::dump::Entry entry{};
    const std::string arguments = input.ConsumeRemainingBytesAsString();
    entry.header.length =
        static_cast<std::uint16_t>(std::min<std::size_t>(arguments.size(), sizeof entry.arguments));
    std::memcpy(entry.arguments, arguments.data(), entry.header.length);
    return entry;
}

// Any bytes as a record.
void read_hostile_point(FuzzedDataProvider& input) {
    const std::string record = input.ConsumeBytesAsString(sizeof(qel_dt_tp_entry));
    std::memcpy(point, record.data(), record.size());
    static_cast<void>(message_of(entry_of(input)));
    if (record.size() > 4 && record[4] == 0) qel_dt_tp_list_dump();
}

// A format that the parser takes, with arguments that fit or don't.
void read_parsed_point(FuzzedDataProvider& input) {
    qel_dt_tp_entry record;
    const bool extended = input.ConsumeBool();
    const std::string format = input.ConsumeRandomLengthString(QEL_DT_TP_FORMAT_SIZE);
    if (qel_dt_init_tp(format.c_str(), 0, &record, extended) != 0) return;
    require(record.argument_count <= QEL_DT_TP_MAX_ARGUMENTS && record.length < QEL_DT_TP_FORMAT_SIZE);
    *point = record;
    static_cast<void>(message_of(entry_of(input)));

    // With room for all its numbers and an end for each of its strings every format can be read.
    qel::dump::Entry full{};
    full.header.length = sizeof full.arguments;
    const bool lost = message_of(full).find("Message lost: ") != std::string::npos;
    require(!lost || format.find("Message lost: ") != std::string::npos);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
    use_own_shm();
    require(qel_dt_tp_list_open() == 0);
    point = const_cast<qel_dt_tp_entry*>(qel_dt_tp_list_get()->entries);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input{data, size};
    *point = {};
    if (input.ConsumeBool())
        read_hostile_point(input);
    else
        read_parsed_point(input);
    return 0;
}
