// Entries read back as text: each conversion, one buffer, several merged, and beside writers.
#include "dump/dump_support.hpp"

#include <arpa/inet.h>

#include <atomic>
#include <climits>
#include <thread>

using namespace qel_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

// Logs, and expects to read back what printf makes of the same.
struct Conversions : testing::Test {
    template <class... Values>
    void check(const char* format, Values... values) {
        char expected[2000];
        EXPECT_EQ(log_once(buffer, format, values...), 0) << format;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        std::snprintf(expected, sizeof expected, format, values...);
#pragma GCC diagnostic pop
        EXPECT_EQ(messages("conversions").back(), expected) << format;
    }
    Buffer buffer{"conversions"};
};

}  // namespace

TEST_F(Conversions, read_back_as_printf_writes_them) {
    check("plain text, 100%%");
    check("%d %i %u %x %X %o", -1, INT_MIN, UINT_MAX, 0xbeefu, 0xBEEFu, 0777u);
    check("%hhd %hd %hhu %hx", 300, 70000, 511u, 0x12345u);
    check("%ld %lld %lu %llx %lo", LONG_MIN, LLONG_MAX, ULONG_MAX, 0x123456789abcdefULL, 1UL);
    check("%zu %zd %jx %td", SIZE_MAX, ssize_t{-1}, UINTMAX_MAX - 4, ptrdiff_t{7});
    check("[%5d] [%-5d] [%05d] [%+d] [% d] [%#x] [%.3d] [%8.3lx]", 42, 42, 42, 42, 42, 42u, 42, 42UL);
    check("[%s] [%10s] [%-10s] [%.2s]", "one", "two", "three", "four");
    check("%p [%20p] %p", static_cast<void*>(&buffer), static_cast<void*>(nullptr), static_cast<void*>(this));
    check("%d%s%lu%s%d", 1, "x", 2UL, "", 3);
    check("%s", std::string(900, 'a').c_str());
}

TEST_F(Conversions, of_addresses_drop_the_tag) {
    const in_addr_t ipv4 = htonl(0xc0000201);
    in6_addr ipv6{};
    ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::7", &ipv6), 1);
    const uint8_t mac[] = {0x00, 0x1b, 0x2c, 0x3d, 0x4e, 0xff};
    EXPECT_EQ(log_once(buffer, "%u{ipv4} via %p{ipv4}!", ipv4, &ipv4), 0);
    EXPECT_EQ(log_once(buffer, "%p{ipv6}, [%20p{mac}] %d", &ipv6, mac, 5), 0);
    EXPECT_EQ(log_once(buffer, "%u{mac}", 7u), 0);
    EXPECT_THAT(messages("conversions"),
                ElementsAre("192.0.2.1 via 192.0.2.1!", "2001:db8::7, [      001b.2c3d.4eff] 5", "7{mac}"));
}

TEST(Dump, heads_texts_with_time_zone_number_and_process) {
    Buffer buffer{"headed"};
    log_once(buffer, "%s", "text");
    Texts texts;
    EXPECT_EQ(qel_dt_buffer_get_by_line("headed", 0, collect, &texts), 0);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_THAT(
        texts[0],
        MatchesRegex("\\[[0-9]{2}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} [A-Z+0-9-]+ "
                     "[0-9a-f]+ " +
                     std::to_string(getpid()) + "\\] text"));
    qel_dt_entry_info info{};
    info.seconds = 1'000'000'000;
    info.nanoseconds = 7'654'321;
    info.sequence = 0x1f;
    info.process_id = 42;
    char prefix[64], cut[10];
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(qel_dt_pfx_format_default(prefix, sizeof prefix, &info), 34);
    EXPECT_STREQ(prefix, "[09/09/01 01:46:40.007 UTC 1f 42] ");
    EXPECT_EQ(qel_dt_pfx_format_default(cut, sizeof cut, &info), 9);
    EXPECT_STREQ(cut, "[09/09/01");
    info.seconds = UINT64_MAX;
    info.sequence = UINT32_MAX;
    EXPECT_LE(qel_dt_pfx_format_default(prefix, sizeof prefix, &info), 50);
    EXPECT_EQ(qel_dt_pfx_format_default(nullptr, 1, &info), -22);
    EXPECT_EQ(qel_dt_pfx_format_default(prefix, 1, nullptr), -22);
    EXPECT_EQ(qel_dt_pfx_format_default(prefix, 0x80000000, &info), -75);
}

TEST(Dump, gives_the_last_lap_in_order_and_nothing_after_a_clear) {
    Buffer buffer{"lap"};
    uint32_t site = kUnregistered;
    for (int lap = 0; lap < 3; ++lap) {
        for (uint32_t i = 0; i < 100; ++i) log_at(site, buffer, "%u %s", i, std::string(i, '.').c_str());
        for (bool copy : {false, true}) {
            const Texts given = messages("lap", copy);
            ASSERT_GT(given.size(), 50u);
            for (size_t i = 0; i < given.size(); ++i) {
                const uint32_t number = static_cast<uint32_t>(100 - given.size() + i);
                EXPECT_EQ(given[i], std::to_string(number) + " " + std::string(number, '.'));
            }
        }
        EXPECT_EQ(qel_dt_buffer_clear(buffer), 0);
        EXPECT_THAT(messages("lap"), IsEmpty());
    }
}

TEST(Dump, refuses_what_it_cannot_read) {
    Buffer buffer{"there"};
    qel_dt_dump_handle dump = nullptr;
    EXPECT_EQ(qel_dt_init_buffer_dump_handle(nullptr, false, {}, &dump), 22);
    EXPECT_EQ(qel_dt_init_buffer_dump_handle("", false, {}, &dump), 22);
    EXPECT_EQ(qel_dt_init_buffer_dump_handle("there", false, {}, nullptr), 22);
    EXPECT_EQ(qel_dt_init_buffer_dump_handle("absent", true, {}, &dump), 2);
    EXPECT_EQ(qel_dt_dump_buffer(nullptr, collect, nullptr), -22);
    qel_dt_destroy_buffer_dump_handle(nullptr);
    EXPECT_EQ(qel_dt_buffer_get_by_line(nullptr, 0, collect, nullptr), 22);
    EXPECT_EQ(qel_dt_buffer_get_by_line("there", 0, nullptr, nullptr), 22);
    EXPECT_EQ(qel_dt_buffer_get_by_line("absent", 0, collect, nullptr), 2);
    EXPECT_EQ(qel_dt_dump_file("absent", collect, nullptr, true), 0xffffffffu);

    qel_dt_mst_handle merged = nullptr;
    auto init = [&](std::vector<const char*> names, int count) {
        return qel_dt_buffer_mst_init(names.data(), count, nullptr, collect, nullptr, &merged);
    };
    const std::string longest(128, 'n');
    EXPECT_EQ(qel_dt_buffer_mst_init(nullptr, 1, nullptr, nullptr, nullptr, &merged), 22);
    EXPECT_EQ(init({"there"}, 0), 22);
    EXPECT_EQ(init({"there", nullptr}, 2), 22);
    EXPECT_EQ(init({"a/b"}, 1), 22);
    EXPECT_EQ(init({(longest + "n").c_str()}, 1), 22);
    EXPECT_EQ(init({longest.c_str()}, 1), 2);
    EXPECT_EQ(init({"there", "absent"}, 2), 2);
    EXPECT_EQ(qel_dt_buffer_mst_next(nullptr), 22);
    EXPECT_EQ(qel_dt_buffer_mst_destroy(nullptr), 22);
    EXPECT_EQ(mapping_count("absent"), 0);
}

TEST(MergedDump, gives_two_buffers_in_the_order_of_time_and_then_what_is_new) {
    Buffer left{"left"}, right{"right"};
    for (int i = 0; i < 4; ++i) log_once(i % 2 == 0 ? left : right, "%d", i);
    Texts latest;
    const char* names[] = {"left", "right"};
    const qel_dt_dump_limits two{2, 0};
    EXPECT_EQ(qel_dt_buffer_mst_init(names, 2, &two, collect, &latest, nullptr), 0);
    EXPECT_EQ(latest.size(), 2u);
    EXPECT_THAT(latest.front(), testing::EndsWith("] 2"));

    Merged merged{{"left", "right"}};
    EXPECT_THAT(merged.take(), ElementsAre("left: 0", "right: 1", "left: 2", "right: 3"));
    EXPECT_THAT(merged.next(), IsEmpty());
    log_once(right, "%s", "new");
    EXPECT_THAT(merged.next(), ElementsAre("right: new"));

    // Equal times: the number decides, and the order of the names for equal numbers.
    RawBuffer raw_left = left.raw(), raw_right = right.raw();
    qel_dt_buffer_clear(left);
    qel_dt_buffer_clear(right);
    for (int i = 0; i < 2; ++i) {
        log_once(left, "l%d", i);
        log_once(right, "r%d", i);
    }
    for (RawBuffer* raw : {&raw_left, &raw_right})
        for (uint32_t block : {raw->index() - 2, raw->index() - 1}) {
            raw->store<uint32_t>(raw->payload(block) + 4, raw->index() - block);
            raw->store<uint64_t>(raw->payload(block) + 16, 0x00000007f0000000);
        }
    EXPECT_THAT(merged.next(), ElementsAre("left: l1", "right: r1", "left: l0", "right: r0"));
}

TEST(MergedDump, tells_of_overwritten_entries_once) {
    Buffer buffer{"overrun"};
    Merged told{{"overrun"}}, untold{{"overrun"}, {0, 0}};
    uint32_t site = kUnregistered;
    for (int i = 0; i < 500; ++i) log_at(site, buffer, "%d", i);
    Texts given = told.next();
    ASSERT_EQ(given.size(), 129u);
    EXPECT_EQ(given.front(), "..some messages lost..");
    EXPECT_EQ(given[1], "overrun: 372");
    EXPECT_EQ(given.back(), "overrun: 499");
    EXPECT_EQ(untold.next().front(), "overrun: 372");
    for (int i = 0; i < 100; ++i) log_at(site, buffer, "%d", i);
    given = told.next();
    EXPECT_EQ(given.size(), 100u);
    EXPECT_EQ(given.front(), "overrun: 0");

    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 256 * 64), 0);
    log_once(buffer, "%s", "in the new one");
    EXPECT_THAT(told.next(), ElementsAre("..some messages lost..", "overrun: in the new one"));
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 128 * 64), 0);
    EXPECT_EQ(qel_dt_buffer_destroy(buffer.out()), 0);
    EXPECT_EQ(told.read(), 2);
    EXPECT_THAT(told.next(), IsEmpty());
}

TEST(MergedDump, waits_for_an_unfinished_entry_but_not_for_a_dead_writer) {
    Buffer buffer{"unfinished"};
    RawBuffer raw = buffer.raw();
    Merged merged{{"unfinished"}};
    uint32_t site = kUnregistered;
    for (int i = 0; i < 3; ++i) log_at(site, buffer, "%d", i);
    const uint32_t second = raw.index() - 2;
    raw.store<uint8_t>(raw.control(second) + 2, 1);
    EXPECT_THAT(merged.next(), ElementsAre("unfinished: 0"));
    raw.store<uint8_t>(raw.control(second) + 2, 2);
    log_at(site, buffer, "%d", 3);
    raw.store<uint8_t>(raw.control(raw.index() - 1) + 2, 1);
    EXPECT_THAT(merged.next(), ElementsAre("unfinished: 1", "unfinished: 2"));
    log_at(site, buffer, "%d", 4);
    EXPECT_THAT(merged.next(), IsEmpty());
    std::this_thread::sleep_for(60ms);
    EXPECT_THAT(merged.next(), ElementsAre("unfinished: 4"));
}

// Each entry carries its number three times, and a text of that length: one that is torn shows.
TEST(Dump, under_full_load_ends_and_gives_whole_entries_only) {
    Buffer buffer{"loaded"};
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (uint32_t writer = 0; writer < 2; ++writer)
        writers.emplace_back([&] {
            uint32_t site = kUnregistered;
            for (uint32_t i = 0; !done; ++i)
                log_at(site, buffer, "%u %s %u %u", i, std::string(i % 200, 'x').c_str(), i, i);
        });
    auto check = [](const std::string& text) {
        uint32_t first = 0, second = 0, third = 0;
        const size_t start = text.find(' '), end = text.rfind(' ', text.rfind(' ') - 1);
        ASSERT_EQ(std::sscanf(text.c_str(), "%u", &first), 1) << text;
        ASSERT_EQ(std::sscanf(text.c_str() + end, "%u %u", &second, &third), 2) << text;
        EXPECT_TRUE(first == second && second == third && end - start - 1 == first % 200) << text;
    };
    auto deadline = std::chrono::steady_clock::now() + 1s;
    Merged merged{{"loaded"}};
    uint64_t changes = 0, fruitful = 0, seen = 0;
    do {
        for (const std::string& text : messages("loaded", false)) check(text);
        for (const std::string& text : messages("loaded", true)) check(text);
        const uint64_t count = attributes(buffer).count;
        changes += std::exchange(seen, count) != count;
        const Texts news = merged.next();
        fruitful += !news.empty();
        for (const std::string& text : news)
            if (text.starts_with("loaded: ")) check(text.substr(8));
    } while (std::chrono::steady_clock::now() < deadline);
    done = true;
    for (std::thread& writer : writers) writer.join();
    for (const std::string& text : messages("loaded")) check(text);
    EXPECT_GT(fruitful, changes / 2);
}
