// What is printed of buffers and of the list of trace points, and what hostile ones make of it.
#include "dump/dump_support.hpp"

#include <random>

using namespace qel_test;
using testing::HasSubstr;
using testing::Not;

namespace {

template <class Print>
std::string printed(Print print) {
    testing::internal::CaptureStdout();
    print();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string file_of(const char* name, uint32_t& entries, bool copy = true) {
    Texts pieces;
    entries = qel_dt_dump_file(name, collect, &pieces, copy);
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
}

}  // namespace

TEST(Print, of_entries_keeps_the_terminal_safe) {
    Buffer buffer{"console"};
    log_once(buffer, "%s", "fine");
    log_once(buffer, "%s", "\33[2J");
    const std::string text = printed([] { qel_dt_buffer_dump_console("console"); });
    EXPECT_THAT(text, HasSubstr("] fine\n["));
    EXPECT_THAT(text, HasSubstr("] ?[2J\n2 entries printed\n"));
}

TEST(Print, of_bytes_has_sixteen_a_line) {
    const char bytes[] = "0123456789abcdef\1\2z";
    EXPECT_EQ(printed([&] { qel_dt_byte_dump(true, bytes, 19); }),
              "0000 30313233 34353637 38396162 63646566  01234567 89abcdef\n"
              "0010 01027a                               ..z\n");
    EXPECT_EQ(printed([&] { qel_dt_byte_dump(false, bytes, 1); }),
              "30                                   0\n");
    EXPECT_EQ(printed([&] { qel_dt_byte_dump(true, nullptr, 19); }), "");
}

TEST(Print, of_a_header_tells_all_counters) {
    Buffer buffer{"stats"};
    for (int i = 0; i < 130; ++i) log_once(buffer, "%d", i);
    RawBuffer raw = buffer.raw();
    raw.store<uint8_t>(raw.control(9) + 2, 1);
    EXPECT_EQ(qel_dt_buffer_pause(buffer), 0);
    const std::string text = printed([] { qel_dt_dump_stats("stats"); });
    EXPECT_THAT(text, HasSubstr("Trace buffer name: stats\nQDT Version: "));
    EXPECT_THAT(text, HasSubstr("Size (blocks): 128 \t Wraps: 1 \t Count: 130 \t Dropped: 0\n"
                                "Size (bytes): 8192 \t Original size (bytes): 8192\n"
                                "Memory usage by block type, in bytes:  Used: 8128\tReserved: 64\tFree: 0\t"
                                "Total: 8192\n"
                                "Paused: true \t Oneshot: false \t Oneshot full: false\n"
                                "Buffer was last cleared at "));
    EXPECT_THAT(text, HasSubstr("\nNext offset: 0x2 (Seq: 0x"));
    EXPECT_THAT(text, HasSubstr("\nExcessive retries: 0 \t Reserve retries: 0\n"
                                "CAS failures: R->U=0 U/F->F=0\n"
                                "High Watermarks: Lock-free retries: 1 \t Reserve CAS failures: 0\n"
                                "Current level: "));
    for (auto [level, name] : {std::pair{3, "error\n"}, {4, "warning\n"}, {6, "info\n"}, {7, "debug\n"}}) {
        EXPECT_EQ(qel_dt_buffer_set_level(buffer, static_cast<uint32_t>(level)), 0);
        EXPECT_THAT(printed([] { qel_dt_dump_stats("stats"); }), testing::EndsWith(name));
    }
    raw.store<uint32_t>(kLevel, 99);
    EXPECT_THAT(printed([] { qel_dt_dump_stats("stats"); }), testing::EndsWith("unknown or corrupted: 99\n"));
}

TEST(Print, of_blocks_tells_what_is_wrong_with_them) {
    Buffer buffer{"blocks"};
    uint32_t site = kUnregistered, entries = 0;
    for (int i = 0; i < 200; ++i) log_at(site, buffer, "%d", i);
    EXPECT_THAT(file_of("blocks", entries), HasSubstr("[ofs=x0000 st=U blocks=1 seq=x"));
    EXPECT_THAT(file_of("blocks", entries), Not(HasSubstr("rror")));
    EXPECT_EQ(entries, 128u);

    RawBuffer raw = buffer.raw();
    raw.store<uint8_t>(raw.control(1) + 3, 0);    // no length
    raw.store<uint8_t>(raw.control(2) + 2, 0);    // free ...
    raw.store<uint8_t>(raw.control(2) + 3, 2);    // ... with a length
    raw.store<uint8_t>(raw.control(5) + 2, 1);    // reserved
    raw.store<uint16_t>(raw.payload(6), 900);     // a length that doesn't fit
    raw.store<uint16_t>(raw.payload(7) + 2, 77);  // another lap
    raw.store<uint8_t>(raw.control(127) + 3, 9);  // past the end
    for (bool copy : {false, true}) {
        const std::string text = file_of("blocks", entries, copy);
        for (const char* found :
             {"===> Error: Invalid zero-block length!", "===> Error: Free entry invalid length 2",
              "===> Error: Used block check mismatch", "===> Invalid length 9 moves past end of buffer!",
              "st=R blocks=1", "********** STALE ENTRY ***********\n", "\nReserved entries=1\n"})
            EXPECT_THAT(text, HasSubstr(found));
        EXPECT_THAT(text, HasSubstr("\nErrors=6\n"));
        EXPECT_EQ(entries, 121u);
    }
    // A buffer without its end mark can't be opened; here it goes while the dump runs.
    auto overrun = [](const char* text, size_t length, void* context) {
        RawBuffer{"blocks"}.store<uint32_t>(RawBuffer{"blocks"}.payload(128), 1);
        collect(text, length, context);
    };
    Texts pieces;
    EXPECT_EQ(qel_dt_dump_file("blocks", overrun, &pieces, true), 121u);
    EXPECT_THAT(pieces, testing::Contains(testing::StartsWith("Invalid redzone=x1 (expecting x")));
}

TEST(Print, of_trace_points_shows_formats_and_their_spread) {
    Buffer buffer{"points"};
    log_once(buffer, "short %d", 1);
    log_once(buffer, (std::string(100, 'f') + "%lu%s").c_str(), 1UL, "");
    std::string text = printed(qel_dt_tp_list_dump);
    EXPECT_THAT(text, testing::StartsWith("TPID LEN A#       MASK*      Format-string\n0000 "));
    EXPECT_THAT(text, HasSubstr("  8  1 0000000000000001 short %d\n"));
    EXPECT_THAT(text, HasSubstr("105  2 0000000000000032 fff"));
    EXPECT_THAT(text, HasSubstr("4999  (empty)\n--- End dump ---\n"
                                "*: the mask output is backward, so the first argument is at the far right.\n"
                                "Max tracepoint definitions capacity: 5000\n"
                                "Used tracepoint definitions: "));
    EXPECT_THAT(text, HasSubstr("\nFormat string length distribution\n"));
    EXPECT_THAT(text, HasSubstr("\nArgument count distribution\n"));
    EXPECT_THAT(text, HasSubstr("##"));
    RawSegment list{"qel_trace.tpl"};
    const uint32_t length = list.load<uint32_t>(12);
    list.store<uint32_t>(12, 129);
    EXPECT_THAT(printed(qel_dt_tp_list_dump),
                HasSubstr("0000  impossible format length! got 129 expected 128\n"));
    list.store<uint32_t>(12, length);
}

TEST(Hostile, trace_points_give_a_message_in_place_of_the_text) {
    Buffer buffer{"reworded"};
    RawSegment list{"qel_trace.tpl"};
    auto reword = [&](uint32_t point, const char* format, uint8_t extended) {
        const size_t place = 12 + size_t{144} * point;
        list.store<uint32_t>(place, static_cast<uint32_t>(std::strlen(format)));
        list.store<uint8_t>(place + 7, extended);
        std::strcpy(reinterpret_cast<char*>(list.at(place + 16)), format);
    };
    uint32_t number = kUnregistered, text = kUnregistered, mac = kUnregistered;
    const uint8_t address[] = {1, 2, 3, 4, 5, 6};
    log_at(number, buffer, "%d reworded", 7);
    log_at(text, buffer, "%s reworded", "text");
    log_at(mac, buffer, "%p{mac} reworded", address);
    reword(mac, "<%16e> by letter", 1);
    EXPECT_THAT(messages("reworded"),
                testing::ElementsAre("7 reworded", "text reworded", "<  0102.0304.0506> by letter"));
    reword(number, "%n", 0);
    reword(text, "%9999999999d", 0);
    reword(mac, "%", 0);
    const std::string lost = "Message lost: Bad address tp_id: ";
    EXPECT_THAT(messages("reworded"),
                testing::ElementsAre(lost + std::to_string(number), lost + std::to_string(text),
                                     lost + std::to_string(mac)));
    reword(number, "%99999999999999999999d", 0);
    EXPECT_EQ(messages("reworded")[0].size(), 1023u);
    reword(number, "", 0);
    EXPECT_EQ(messages("reworded")[0], "Message lost: Bad message tp_id: " + std::to_string(number));
}

// Whatever another process writes into buffer and list, dumps end and touch nothing else.
TEST(Hostile, bytes_anywhere_are_survived) {
    Buffer buffer{"scribbled"};
    uint32_t site = kUnregistered;
    for (int i = 0; i < 150; ++i) log_at(site, buffer, "%d %s", i, std::string(i % 99, 's').c_str());
    RawBuffer raw = buffer.raw();
    RawSegment list{"qel_trace.tpl"};
    Merged merged{{"scribbled"}};
    std::mt19937 engine{7};
    auto random = [&] { return static_cast<uint32_t>(engine()); };
    Texts texts;
    for (int round = 0; round < 600; ++round) {
        for (int change = 0; change < 4; ++change) {
            const auto byte = static_cast<uint8_t>(random());
            // Name, counters and clear time; control words; entries; a format.
            raw.store(kNext + random() % 4, byte);
            raw.store(raw.control(random() % raw.blocks) + random() % 4, byte);
            raw.store(raw.payload(random() % raw.blocks) + random() % 24, byte);
            list.store(12 + size_t{144} * site + random() % 40, byte);
        }
        uint32_t entries = 0;
        for (bool copy : {false, true}) {
            qel_dt_dump_handle dump = nullptr;
            ASSERT_EQ(qel_dt_init_buffer_dump_handle("scribbled", copy, {}, &dump), 0);
            EXPECT_LE(qel_dt_dump_buffer(dump, collect, &texts), 128);
            qel_dt_destroy_buffer_dump_handle(dump);
            EXPECT_FALSE(file_of("scribbled", entries, copy).empty());
        }
        EXPECT_THAT(merged.next().size(), testing::Le(129u));
        texts.clear();
    }
}
