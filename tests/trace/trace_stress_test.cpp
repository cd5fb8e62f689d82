// Many writers in many processes on one small buffer, with control operations and deaths in the middle.
#include "trace/trace_support.hpp"

#include <thread>

using namespace qel_test;

namespace {

constexpr const char* kFormat = "%u %lx %s %u";
#ifdef __SANITIZE_THREAD__
// The sanitizer does not see what another process orders between two threads of this one.
constexpr uint32_t kThreads = 1;
#else
constexpr uint32_t kThreads = 4;
#endif
constexpr int kEntries = 1500;

uint32_t checksum(uint32_t writer, uint64_t number, const char* text) {
    uint64_t sum = writer * 0x9e3779b9u + number;
    for (; *text != '\0'; ++text) sum = (sum ^ static_cast<uint8_t>(*text)) * 0x100000001b3u;
    return static_cast<uint32_t>(sum ^ sum >> 32);
}

void write_entries(qel_dt_buffer_handle buffer, uint32_t writer) {
    uint32_t site = kUnregistered;
    for (uint64_t number = 1; number <= kEntries; ++number) {
        std::string text(number * writer % 150, static_cast<char>('a' + number % 26));
        log_at(site, buffer, kFormat, writer, number, text.c_str(), checksum(writer, number, text.c_str()));
    }
}

void write_entries_in_threads(qel_dt_buffer_handle buffer, uint32_t count) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < count; ++i)
        threads.emplace_back(write_entries, buffer, static_cast<uint32_t>(getpid()) * 8 + i);
    for (std::thread& thread : threads) thread.join();
}

// The number of sound entries of a buffer that nobody writes to now, walked as a reader does; a torn one is a
// failure.
uint32_t count_sound_entries(const RawBuffer& raw) {
    uint32_t sound = 0;
    for (uint32_t walked = 0, at = raw.index(); walked < raw.blocks;) {
        const uint32_t step = std::max<uint32_t>(1, raw.load<uint8_t>(raw.control(at) + 3));
        if (raw.state(at) == 2) {
            const size_t entry = raw.payload(at);
            const uint32_t length = raw.load<uint16_t>(entry);
            const std::string text = raw.text(entry + 24 + 16);
            EXPECT_EQ((length + 24 + 63) / 64, step);
            EXPECT_EQ(length, 16 + text.size() + 1);
            EXPECT_EQ(raw.word(entry + 24 + 12),
                      checksum(raw.word(entry + 24), raw.load<uint64_t>(entry + 24 + 4), text.c_str()));
            ++sound;
        }
        walked += step;
        at = at + step < raw.blocks ? at + step : 0;
    }
    return sound;
}

}  // namespace

QEL_ROLE(stress_writer) {
    qel_dt_buffer_handle buffer = nullptr;
    if (qel_dt_buffer_open(&buffer, "stress") != 0) return 1;
    for (say("ready"); !hear().empty(); say("done")) write_entries_in_threads(buffer, kThreads);
    return qel_dt_buffer_close(&buffer);
}

TEST(TraceStress, threads_of_one_process_write_every_entry_once) {
    Buffer buffer{"threads", 16 << 20};
    write_entries_in_threads(buffer, 4);
    EXPECT_EQ(attributes(buffer).count, 4u * kEntries);
    EXPECT_EQ(count_sound_entries(buffer.raw()), 4u * kEntries);
    EXPECT_EQ(buffer.raw().word(kSequence), 4u * kEntries + 1);
    Buffer small{"small"};
    write_entries_in_threads(small, 4);
    EXPECT_GT(count_sound_entries(small.raw()), 20u);
}

TEST(TraceStress, no_entry_is_torn_while_others_clear_and_resize_and_die) {
    Buffer buffer{"stress"};
    std::vector<Child> writers;
    for (int i = 0; i < 4; ++i) writers.emplace_back("stress_writer");
    for (Child& writer : writers) ASSERT_EQ(writer.read_line(), "ready");
    for (uint32_t round = 0; round < 12; ++round) {
        for (Child& writer : writers) writer.write_line("go");
        for (uint32_t i = 0; i < 20; ++i) {
            ASSERT_EQ(qel_dt_buffer_clear(buffer), 0);
            ASSERT_EQ(round % 3 == 2 ? qel_dt_buffer_resize(buffer, 0, (128 + i) * 64) : 0, 0);
            sched_yield();
        }
        if (round == 11) writers.front().kill();
        for (Child& writer : writers) ASSERT_EQ(writer.pid() > 0 ? writer.read_line() : "done", "done");
        // A resize behind the last entry leaves none.
        EXPECT_GE(count_sound_entries(buffer.raw()), round % 3 == 2 ? 0u : 20u) << round;
    }
    for (Child& writer : writers) {
        if (writer.pid() < 0) continue;
        writer.write_line("");
        EXPECT_EQ(writer.wait(), 0);
    }
    EXPECT_EQ(attributes(buffer).dropped, 0u);
}

// Two processes remake and resize one name against each other: handles stay usable, whoever wins.
QEL_ROLE(remaker) {
    for (int i = 0; i < 200; ++i) {
        qel_dt_buffer_handle buffer = nullptr;
        if (qel_dt_buffer_init(&buffer, "contested", 0, 8192) != 0) return 1;
        uint32_t site = kUnregistered;
        log_at(site, buffer, "remade %d", i);
        if ((i % 2 == 0 ? qel_dt_buffer_close(&buffer) : qel_dt_buffer_destroy(&buffer)) != 0) return 2;
    }
    return 0;
}

TEST(TraceStress, resizes_and_remakes_of_one_name_leave_every_handle_usable) {
    Child remaker{"remaker"};
    for (uint32_t i = 0; i < 300; ++i) {
        Buffer buffer{"contested"};
        const int resized = qel_dt_buffer_resize(buffer, 0, 9000 + i);
        EXPECT_THAT(resized, testing::AnyOf(0, 2, 11, 17)) << resized;
        EXPECT_EQ(log_once(buffer, "resized %d", 1), 0);
        EXPECT_EQ(qel_dt_buffer_pause(buffer), 0);
    }
    EXPECT_EQ(remaker.wait(), 0);
    EXPECT_EQ(mapping_count("contested"), 0);
}
