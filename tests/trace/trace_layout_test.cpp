// The bytes of segments, entries and trace points, read from the outside.
#include "trace/trace_support.hpp"

#include <arpa/inet.h>

#include <ctime>
#include <map>

using namespace qel_test;

TEST(TraceLayout, a_new_buffer_has_every_told_byte) {
    const timespec before{time(nullptr) - 1, 0};
    Buffer buffer{"fresh", 1};
    RawBuffer raw = buffer.raw();
    EXPECT_EQ(raw.size(), 12u + 224 + 68 * 128 + 4);
    EXPECT_EQ(raw.load<uint32_t>(size_t(-12)), 0xace01234u);
    EXPECT_EQ(raw.load<uint32_t>(size_t(-8)), 0xba5eba11u);
    EXPECT_EQ(raw.word(0), 0xc004cafeu);
    EXPECT_EQ(raw.word(4), 6u);
    EXPECT_EQ(raw.text(8), "fresh");
    const std::map<size_t, uint32_t> expected{{kBlocks, 128}, {kOriginalSize, 1}, {kSize, 1}, {kLevel, 4}};
    for (size_t offset = 136; offset < kClearSeconds; offset += 4)
        EXPECT_EQ(raw.word(offset), expected.contains(offset) ? expected.at(offset) : 0) << offset;
    EXPECT_GE(raw.word(kClearSeconds), before.tv_sec);
    EXPECT_LT(raw.word(kClearSeconds + 4), 1000000000u);
    for (uint32_t block = 0; block < 128; ++block) EXPECT_EQ(raw.word(raw.control(block)), 0x01000000u);
    EXPECT_EQ(raw.word(224 + 68 * 128), 0x0cab005eu);
}

TEST(TraceLayout, a_known_call_writes_every_told_byte) {
    Buffer buffer{"known"};
    uint32_t site = kUnregistered;
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    in_addr address{};
    inet_pton(AF_INET, "10.0.0.1", &address);
    ASSERT_EQ(log_at(site, buffer, "%d %s %lx %p{mac} %u{ipv4} %s %p{ipv4}", -2, "abc", 0x1122334455667788ul,
                     mac, address.s_addr, static_cast<char*>(nullptr), &address),
              0);
    RawBuffer raw = buffer.raw();
    const size_t entry = raw.payload(0);
    EXPECT_EQ(raw.word(raw.control(0)), 0x01020002u);  // two changes, used, one block
    EXPECT_EQ(raw.load<uint16_t>(entry), 4 + 8 + 4 + 4 + 6 + 1 + 4);
    EXPECT_EQ(raw.load<uint16_t>(entry + 2), 0);
    EXPECT_EQ(raw.word(entry + 4), 1u);
    EXPECT_EQ(raw.word(entry + 8), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(raw.word(entry + 12), site);
    EXPECT_LE(static_cast<uint32_t>(time(nullptr)) - raw.word(entry + 16), 2u);
    EXPECT_LT(raw.word(entry + 20), 1000000000u);
    const uint8_t data[] = {0xfe, 0xff, 0xff, 0xff, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22,
                            0x11, 10,   0,    0,    1,    'a',  'b',  'c',  0,    1,    2,
                            3,    4,    5,    6,    0,    10,   0,    0,    1};
    static_assert(sizeof data == 31);
    EXPECT_EQ(std::memcmp(raw.at(entry + 24), data, sizeof data), 0);
    EXPECT_EQ(raw.load<uint8_t>(entry + 24 + sizeof data), 0);  // nothing behind the entry
    EXPECT_EQ(raw.word(kNext), 1u << 12);
    EXPECT_EQ(raw.word(kCount), 1u);
    EXPECT_EQ(raw.word(kSequence), 2u);
    EXPECT_EQ(raw.word(kPassesHigh), 1u);
    EXPECT_EQ(raw.word(kDropped) | raw.word(kRollbacks) | raw.word(kReserveRetries), 0u);
}

TEST(TraceLayout, an_entry_takes_the_blocks_that_its_data_needs) {
    Buffer buffer{"sizes", 1 << 20};
    uint32_t site = kUnregistered;
    uint32_t index = 0;
    for (auto [bytes, blocks] : {std::pair{40u, 1u}, {41, 2}, {104, 2}, {1000, 16}}) {
        EXPECT_EQ(log_at(site, buffer, "%s", std::string(bytes - 1, 'x').c_str()), 0);
        RawBuffer raw = buffer.raw();
        EXPECT_EQ(raw.load<uint16_t>(raw.payload(index)), bytes);
        EXPECT_EQ(raw.word(raw.control(index)) >> 16, blocks << 8 | 2);
        for (uint32_t i = 1; i < blocks; ++i) EXPECT_EQ(raw.word(raw.control(index + i)), 0x01000001u);
        index += blocks;
        EXPECT_EQ(raw.index(), index);
    }
    EXPECT_EQ(log_at(site, buffer, "%s", std::string(1000, 'x').c_str()), 7);
    EXPECT_EQ(log_once(buffer, "%s%s", std::string(500, 'x').c_str(), std::string(499, 'y').c_str()), 7);
    EXPECT_EQ(log_once(buffer, "%p{ipv6}", static_cast<void*>(nullptr)), 22);
    EXPECT_EQ(attributes(buffer).dropped, 3u);
    EXPECT_EQ(attributes(buffer).count, 4u);
}

TEST(TraceLayout, formats_become_types_or_are_refused) {
    struct Row {
        const char* format;
        int result;
        uint32_t types;
        uint8_t fixed_size;
        uint32_t extended;
    };
    for (const Row& row :
         std::initializer_list<Row>{{"no argument", 0, 0, 0, 0},
                                    {"%d %5.3i %-#x %+o %'X %u", 0, 0x111111, 24, 0},
                                    {"%ld %lld %lu %hd %hhd %zu %jd %td", 0, 0x11111222, 44, 0},
                                    {"%% %s %ls %p", 0, 0x233, 8, 0},
                                    {"%p{ipv4} %p{ipv6} %p{mac} %p{other}", 0, 0x2654, 8, 0},
                                    {"%u{ipv4} %i{ipv4} %u{mac} %d{ipv4}", 0, 0x1177, 16, 0},
                                    {"%P %e %i %d", 0, 0x1765, 8, 1},
                                    {"%P", 22, 0, 0, 0},
                                    {"%e", 22, 0, 0, 0},
                                    {"%*d", 22, 0, 0, 0},
                                    {"%1$d", 22, 0, 0, 0},
                                    {"%Lf", 22, 0, 0, 0},
                                    {"%f", 22, 0, 0, 0},
                                    {"%n", 22, 0, 0, 0},
                                    {"%c", 22, 0, 0, 0},
                                    {"%", 22, 0, 0, 0},
                                    {"%5", 22, 0, 0, 0},
                                    {"", 22, 0, 0, 0}}) {
        qel_dt_tp_entry entry{};
        EXPECT_EQ(qel_dt_init_tp(row.format, 0, &entry, row.extended), row.result) << row.format;
        if (row.result != 0) continue;
        EXPECT_EQ(entry.types[0], row.types) << row.format;
        EXPECT_EQ(entry.fixed_size, row.fixed_size) << row.format;
        EXPECT_EQ(entry.length, std::strlen(row.format));
        EXPECT_STREQ(entry.format, row.format);
    }
    qel_dt_tp_entry entry{};
    EXPECT_EQ(qel_dt_init_tp("%d%d", 3, &entry, 0), 7);
    EXPECT_EQ(qel_dt_init_tp("%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 0, &entry, 0), 7);
    EXPECT_EQ(qel_dt_init_tp("%d%d%d%d%d%d%d%d%d%d%d%d%d%d%ld%s", 16, &entry, 0), 0);
    EXPECT_EQ(entry.types[1], 0x32111111u);
    EXPECT_EQ(qel_dt_init_tp((std::string(116, 'a') + "%d" + std::string(10, 'b')).c_str(), 0, &entry, 0), 0);
    EXPECT_EQ(entry.length, 127u);
    EXPECT_EQ(entry.argument_count, 0);
    EXPECT_EQ(entry.format, std::string(116, 'a') + "<truncated>");
}

TEST(TraceLayout, the_list_gives_each_format_one_place_in_the_machine) {
    Buffer buffer{"points"};
    uint32_t a = kUnregistered;
    uint32_t b = kUnregistered;
    EXPECT_EQ(log_at(a, buffer, "one place %d %s", 1, "x"), 0);
    EXPECT_EQ(log_at(b, buffer, "one place %d %s", 2, "y"), 0);
    EXPECT_EQ(a, b);
    RawSegment raw{"qel_trace.tpl"};
    EXPECT_EQ(raw.size(), 720012u + 12);
    EXPECT_EQ(raw.word(0), 2u);
    EXPECT_EQ(raw.word(8), 5000u);
    const size_t entry = 12 + 144 * a;
    EXPECT_EQ(raw.word(entry), 15u);
    EXPECT_EQ(raw.word(entry + 4), 0x00000204u);
    EXPECT_EQ(raw.load<uint64_t>(entry + 8), 0x31u);
    EXPECT_EQ(raw.text(entry + 16), "one place %d %s");

    const qel_dt_tp_list* list = qel_dt_tp_list_get();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(std::memcmp(list, raw.at(0), 720012), 0);

    // A claimer that died before it wrote its text must not hold anybody up; a full list refuses.
    const uint32_t used = raw.word(4);
    raw.store<uint32_t>(12 + 144 * used, 12);
    uint32_t c = kUnregistered;
    EXPECT_EQ(log_at(c, buffer, "a twelve %ld", 3l), 0);
    EXPECT_EQ(c, used + 1);
    for (uint32_t i = c + 1; i < 5000; ++i) raw.store<uint32_t>(12 + 144 * i, 1);
    uint32_t d = kUnregistered;
    EXPECT_EQ(log_at(d, buffer, "no place is left"), 28);
    EXPECT_EQ(d, QEL_DT_TP_UNUSABLE);
    EXPECT_EQ(attributes(buffer).dropped, 1u);
    for (uint32_t i = c + 1; i < 5000; ++i) raw.store<uint32_t>(12 + 144 * i, 0);
}

TEST(TraceLayout, a_hostile_list_never_turns_numbers_into_addresses) {
    Buffer buffer{"hostile"};
    uint32_t site = kUnregistered;
    EXPECT_EQ(log_at(site, buffer, "hostile %d", 1), 0);
    RawSegment raw{"qel_trace.tpl"};
    raw.store<uint32_t>(12 + 144 * site + 8, 0x33333333);
    EXPECT_EQ(log_at(site, buffer, "hostile %d", 2), 0);
    EXPECT_EQ(log_once(buffer, "hostile %d", 3), 0);
    for (uint32_t odd : {4999u, 5000u, 0x7fffffffu}) EXPECT_EQ(log_at(odd, buffer, "hostile %d", 4), 22);
}

TEST(TraceLayout, names_are_listed_once_while_their_buffer_lives) {
    using Names = std::vector<std::string>;
    auto collect = [](const char(*names)[QEL_DT_NAME_SIZE], size_t count, void* context) {
        static_cast<Names*>(context)->assign(names, names + count);
        return 77;
    };
    Names names;
    EXPECT_EQ(qel_dt_buffer_get_names(nullptr, nullptr), 22);
    {
        Buffer a{"name.a"};
        Buffer b{"name.b"};
        RawSegment raw{"qdt_buffers"};
        EXPECT_EQ(raw.size(), 118816u + 12);
        EXPECT_EQ(std::memcmp(raw.at(0), "wwww", 4), 0);
        EXPECT_EQ(raw.word(4), 900u);
        EXPECT_EQ(raw.word(8), 900u);
        EXPECT_EQ(qel_dt_buffer_get_names(collect, &names), 77);
        EXPECT_EQ(names, (Names{"name.a", "name.b"}));
        // The creator of "name.a" died behind its entry; the next one finds the name there.
        unlink(shm_file("name.a.qdt").c_str());
        Buffer again{"name.a"};
        EXPECT_EQ(qel_dt_buffer_get_names(collect, &names), 77);
        EXPECT_EQ(names.size(), 2u);
        for (size_t slot = 2; slot < 900; ++slot) raw.store<uint32_t>(16 + 132 * slot, 16);
        qel_dt_buffer_handle full = nullptr;
        EXPECT_EQ(qel_dt_buffer_init(&full, "name.c", 0, 1), 28);
        EXPECT_FALSE(shm_exists("name.c.qdt"));
        for (size_t slot = 2; slot < 900; ++slot) raw.store<uint32_t>(16 + 132 * slot, 0);
    }
    EXPECT_EQ(qel_dt_buffer_get_names(collect, &names), 77);
    EXPECT_TRUE(names.empty());
    unlink(shm_file("qdt_buffers").c_str());
    EXPECT_EQ(qel_dt_buffer_get_names(collect, &names), 2);
}
