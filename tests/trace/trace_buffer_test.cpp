// Buffers over their life: names, levels, control operations, replaced and corrupt segments, forks.
#include "trace/trace_support.hpp"

#include <sys/wait.h>

#include <latch>
#include <thread>

#include <qel/ppm.h>

using namespace qel_test;

TEST(TraceBuffer, names_and_sizes_are_checked) {
    qel_dt_buffer_handle handle = nullptr;
    EXPECT_EQ(qel_dt_buffer_init(nullptr, "a", 0, 1), 22);
    EXPECT_EQ(qel_dt_buffer_init(&handle, nullptr, 0, 1), 22);
    EXPECT_EQ(qel_dt_buffer_init(&handle, "a/b", 0, 1), 22);
    EXPECT_EQ(qel_dt_buffer_init(&handle, "a", 0, 0), 22);
    EXPECT_EQ(qel_dt_buffer_init(&handle, "a", 0, 0x100000 * 64 + 1), 22);
    EXPECT_EQ(qel_dt_buffer_open(&handle, "absent"), 2);
    const size_t longest = 127 - 4 - shm_root().size();  // of the path and of the suffix
    for (auto [length, result] :
         {std::pair{longest, 0}, {longest + 1, 36}, {size_t{128}, 36}, {size_t{129}, 22}}) {
        EXPECT_EQ(qel_dt_buffer_init(&handle, std::string(length, 'n').c_str(), 0, 1), result) << length;
        EXPECT_EQ(qel_dt_buffer_destroy(&handle), result == 0 ? 0 : 22);
        EXPECT_EQ(handle, nullptr);
    }
    EXPECT_EQ(qel_dt_buffer_close(nullptr), 22);
    EXPECT_EQ(qel_dt_buffer_close(&handle), 22);
    EXPECT_EQ(qel_dt_buffer_destroy(&handle), 22);
    EXPECT_EQ(qel_dt_tp_list_get(), nullptr);
    EXPECT_EQ(mapping_count(shm_root()), 0);
}

TEST(TraceBuffer, parameters_set_size_and_level_at_creation) {
    qel_ppm_set_integer("qel.trace.kbytes.tuned", 16);
    qel_ppm_set_integer("qel.trace.level.tuned", 7);
    qel_ppm_set_integer("qel.trace.level.odd", 8);
    Buffer tuned{"tuned", 100};
    Buffer odd{"odd", 100};
    EXPECT_EQ(tuned.raw().blocks, 256u);
    EXPECT_EQ(attributes(tuned).size, 16384u);
    EXPECT_TRUE(qel_dt_trace_enabled(tuned, 7));
    EXPECT_FALSE(qel_dt_trace_enabled(odd, 5));
    EXPECT_TRUE(qel_dt_trace_enabled(odd, 4));
    EXPECT_EQ(qel_dt_buffer_set_level(odd, 2), 1);
    EXPECT_EQ(qel_dt_buffer_set_level(odd, 8), 1);
    EXPECT_EQ(qel_dt_buffer_set_level(nullptr, 3), 22);
    EXPECT_EQ(qel_dt_buffer_set_level(odd, 6), 0);
    uint32_t level = 0;
    EXPECT_EQ(qel_dt_buffer_get_level(odd, &level), 0);
    EXPECT_EQ(level, 6u);
}

TEST(TraceBuffer, pause_and_clear_stop_and_forget_entries) {
    Buffer buffer{"paused"};
    EXPECT_EQ(log_once(buffer, "entry %d", 1), 0);
    EXPECT_EQ(qel_dt_buffer_pause(buffer), 0);
    EXPECT_EQ(log_once(buffer, "entry %d", 2), 0);
    EXPECT_EQ(attributes(buffer).count, 1u);
    EXPECT_TRUE(attributes(buffer).paused);
    EXPECT_EQ(qel_dt_buffer_unpause(buffer), 0);
    EXPECT_EQ(log_once(buffer, "entry %d", 3), 0);
    EXPECT_EQ(attributes(buffer).count, 2u);
    EXPECT_EQ(qel_dt_buffer_clear(buffer), 0);
    EXPECT_EQ(attributes(buffer).count, 0u);
    EXPECT_EQ(buffer.raw().state(0), 2);
    EXPECT_EQ(buffer.raw().word(kFlags), 0u);
}

TEST(TraceBuffer, the_cursor_wraps_where_an_entry_does_not_fit) {
    Buffer buffer{"wrap"};
    uint32_t one = kUnregistered;
    for (int i = 0; i < 126; ++i) EXPECT_EQ(log_at(one, buffer, "%d", i), 0);
    const std::string three(120, 'x');
    EXPECT_EQ(log_once(buffer, "%s", three.c_str()), 0);
    RawBuffer raw = buffer.raw();
    EXPECT_EQ(raw.index(), 3u);
    EXPECT_EQ(raw.stamp(), 1u);
    EXPECT_EQ(raw.word(kWraps), 1u);
    EXPECT_EQ(raw.word(raw.control(126)), 0x01000000u);
    EXPECT_EQ(raw.load<uint16_t>(raw.payload(0) + 2), 1);
    EXPECT_EQ(raw.word(raw.control(1)), 0x01000003u);
}

TEST(TraceBuffer, one_shot_stops_at_its_mark_also_when_the_stamp_wraps) {
    for (uint32_t stamp : {0u, 4095u}) {
        Buffer buffer{"oneshot"};
        RawBuffer raw = buffer.raw();
        raw.store<uint32_t>(kNext, 40u << 12 | stamp);
        uint32_t site = kUnregistered;
        auto fill = [&] {
            for (int i = 0; i < 200; ++i) EXPECT_EQ(log_at(site, buffer, "%d", i), 0);
        };
        EXPECT_EQ(qel_dt_buffer_set_one_shot_mode(buffer), 0);
        fill();
        EXPECT_EQ(attributes(buffer).count, 128u);
        EXPECT_EQ(raw.index(), 40u);
        EXPECT_TRUE(attributes(buffer).one_shot_full);
        EXPECT_EQ(qel_dt_buffer_clear(buffer), 0);
        EXPECT_FALSE(attributes(buffer).one_shot_full);
        fill();
        EXPECT_EQ(attributes(buffer).count, 128u);
        EXPECT_EQ(qel_dt_buffer_unset_one_shot_mode(buffer), 0);
        fill();
        EXPECT_EQ(attributes(buffer).count, 328u);
        EXPECT_EQ(attributes(buffer).dropped, 0u);
    }
}

TEST(TraceBuffer, a_control_flag_left_behind_refuses_until_it_is_gone) {
    Buffer buffer{"held"};
    RawBuffer raw = buffer.raw();
    raw.store<uint32_t>(kFlags, kFlagControl);
    qel_dt_buffer_attr attr{};
    EXPECT_EQ(qel_dt_buffer_clear(buffer), 11);
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 99999), 11);
    EXPECT_EQ(qel_dt_buffer_get_attr(buffer, &attr), 11);
    EXPECT_EQ(log_once(buffer, "goes on"), 0);
    EXPECT_EQ(raw.word(kFlags), kFlagControl);
    raw.store<uint32_t>(kFlags, 0);
    EXPECT_EQ(qel_dt_buffer_clear(buffer), 0);
}

TEST(TraceBuffer, blocks_left_reserved_are_passed_over_and_a_full_lap_of_them_gives_up) {
    Buffer buffer{"dead"};
    RawBuffer raw = buffer.raw();
    raw.store<uint32_t>(raw.control(1), 0x03010007);  // three blocks from block 1
    raw.store<uint32_t>(raw.control(4), 0x00010007);  // a count of 0 is 1
    uint32_t site = kUnregistered;
    for (uint32_t expected : {0u, 5u, 6u}) {
        EXPECT_EQ(log_at(site, buffer, "%d", 1), 0);
        EXPECT_EQ(raw.index(), expected + 1);
    }
    EXPECT_EQ(raw.word(kReserveRetries), 2u);
    EXPECT_EQ(raw.word(raw.control(1)), 0x03010007u);
    // A mark that overlaps the beginning of another entry must not lead the cursor into that one.
    raw.store<uint32_t>(raw.control(7), 0x03010001);
    raw.store<uint32_t>(raw.control(9), 0x04010001);
    EXPECT_EQ(log_at(site, buffer, "%d", 1), 0);
    EXPECT_EQ(raw.index(), 14u);

    for (uint32_t block = 0; block < 128; ++block) raw.store<uint32_t>(raw.control(block), 0x01010001);
    EXPECT_EQ(log_at(site, buffer, "%d", 1), 14);
    EXPECT_EQ(raw.word(kExcessive), 1u);
    EXPECT_EQ(attributes(buffer).dropped, 1u);
    EXPECT_LT(raw.word(kPassesHigh), 300u);
}

TEST(TraceBuffer, corrupt_segments_are_refused_and_never_followed) {
    for (auto [offset, value, result] : {std::tuple{0u, 1u, 9},
                                         {4, 5, 9},
                                         {136, 127, 9},
                                         {136, 0x100001, 9},
                                         {136, 129, 9},
                                         {136, 0xffffffff, 9},
                                         {224 + 68 * 128, 0, 9}}) {
        Buffer buffer{"corrupt"};
        RawBuffer raw = buffer.raw();
        const uint32_t good = raw.word(offset);
        raw.store<uint32_t>(offset, value);
        qel_dt_buffer_handle second = nullptr;
        EXPECT_EQ(qel_dt_buffer_open(&second, "corrupt"), result) << offset << ' ' << value;
        EXPECT_EQ(qel_dt_buffer_init(&second, "corrupt", 0, 1), result);
        EXPECT_EQ(qel_dt_buffer_pause(buffer), 14);
        qel_dt_buffer_attr attr{};
        EXPECT_EQ(qel_dt_buffer_get_attr(buffer, &attr), 14);
        raw.store<uint32_t>(kNext, 0xfffff000);  // a cursor behind the end
        EXPECT_EQ(log_once(buffer, "corrupt %d", 1), 0);
        raw.store<uint32_t>(offset, good);
        EXPECT_EQ(qel_dt_buffer_pause(buffer), 0);
    }
    // Cut while nobody had them mapped.
    {
        Buffer buffer{"short"};
        ASSERT_EQ(qel_dt_buffer_close(buffer.out()), 0);
    }
    qel_dt_buffer_handle handle = nullptr;
    for (auto [object, size, result] :
         {std::tuple{"short.qdt", 12 + 224 + 68 * 128, 9}, {"qel_trace.tpl", 100, 22}}) {
        ASSERT_EQ(truncate(shm_file(object).c_str(), size), 0);
        EXPECT_EQ(qel_dt_buffer_open(&handle, "short"), result);
    }
    for (const char* object : {"short.qdt", "qel_trace.tpl"}) unlink(shm_file(object).c_str());
}

QEL_ROLE(writer) {
    qel_dt_buffer_handle buffer = nullptr;
    if (qel_dt_buffer_open(&buffer, args[0].c_str()) != 0) return 1;
    uint32_t site = kUnregistered;
    for (say("ready"); !hear().empty();)
        say(std::to_string(log_at(site, buffer, "from the writer %d", getpid())));
    return qel_dt_buffer_close(&buffer);
}

TEST(TraceBuffer, a_resize_takes_every_process_along) {
    Buffer buffer{"resized"};
    Buffer attached{"resized", 999999};
    EXPECT_EQ(attached.raw().blocks, 128u);
    Child writer{"writer", {"resized"}};
    ASSERT_EQ(writer.read_line(), "ready");
    RawBuffer old = buffer.raw();
    EXPECT_EQ(qel_dt_buffer_set_level(buffer, 6), 0);
    EXPECT_EQ(qel_dt_buffer_pause(buffer), 0);
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 128 * 64), 0);
    EXPECT_EQ(old.word(kFlags), kFlagPaused);
    EXPECT_EQ(qel_dt_buffer_resize(nullptr, 0, 1), 22);
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 0), 22);
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 0x100000 * 64 + 1), 22);
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 200 * 64), 0);
    EXPECT_EQ(old.word(kFlags) & kFlagStale, kFlagStale);
    RawBuffer fresh = buffer.raw();
    EXPECT_EQ(fresh.blocks, 200u);
    EXPECT_EQ(fresh.word(kOriginalSize), 128u * 64);
    EXPECT_EQ(fresh.word(kFlags), kFlagPaused);
    EXPECT_EQ(fresh.word(kLevel), 6u);
    EXPECT_EQ(qel_dt_buffer_unpause(buffer), 0);
    writer.write_line("go");
    EXPECT_EQ(writer.read_line(), "0");
    EXPECT_EQ(fresh.word(fresh.payload(0) + 8), static_cast<uint32_t>(writer.pid()));
    EXPECT_EQ(old.word(kCount), 0u);

    // The level test of a handle whose segment went stale reads the new level, before any entry.
    EXPECT_EQ(qel_dt_buffer_set_level(buffer, 7), 0);
    EXPECT_TRUE(qel_dt_trace_enabled(attached, 7));
    // Somebody removes the name: a resize can't unlink it, and changes nothing.
    unlink(shm_file("resized.qdt").c_str());
    EXPECT_EQ(qel_dt_buffer_resize(buffer, 0, 300 * 64), 2);
    EXPECT_EQ(attributes(buffer).size, 200u * 64);
}

TEST(TraceBuffer, a_failed_remap_drops_entries_and_lets_the_handle_go) {
    Buffer buffer{"lost"};
    Buffer tested{"lost"};
    Buffer waiting{"lost"};
    RawBuffer raw = buffer.raw();
    raw.store<uint32_t>(kFlags, kFlagStale);
    // The creator of the segment that replaces it has died over it.
    raw.store<uint32_t>(size_t(-12), 0xace00000);
    EXPECT_EQ(log_once(waiting, "lost %d", 0), 110);
    unlink(shm_file("lost.qdt").c_str());
    EXPECT_FALSE(qel_dt_trace_enabled(tested, 3));
    EXPECT_TRUE(qel_dt_trace_enabled(tested, 7));
    uint32_t site = kUnregistered;
    EXPECT_EQ(log_at(site, buffer, "lost %d", 1), 2);
    EXPECT_EQ(log_at(site, buffer, "lost %d", 2), 0);
    EXPECT_EQ(qel_dt_buffer_pause(buffer), 11);
    EXPECT_EQ(qel_dt_buffer_set_level(buffer, 3), 0);
    EXPECT_TRUE(qel_dt_trace_enabled(buffer, 7));
    EXPECT_EQ(qel_dt_buffer_destroy(buffer.out()), 0);
}

TEST(TraceBuffer, a_fork_among_writers_leaves_the_child_a_working_buffer) {
    Buffer buffer{"forked", 1 << 20};
    Buffer quiet{"quiet"};
    std::atomic<bool> stop{false};
    std::latch started{3};
    auto write = [&] {
        uint32_t site = kUnregistered;
        for (started.count_down(); !stop;) log_at(site, buffer, "parent %d", 1);
    };
    std::thread first{write};
    std::thread second{write};
    started.arrive_and_wait();
    for (int round = 0; round < 50; ++round) {
        pid_t child = fork();
        if (child == 0) {
            // Shutting the gate in a resize would wait for ever for threads that only the parent has.
            if (qel_dt_buffer_resize(buffer, 0, (1 << 20) + 64 * unsigned(round + 1)) != 0) _exit(1);
            if (log_once(buffer, "child %d", 1) != 0 || log_once(quiet, "child %d", 2) != 0) _exit(2);
            RawBuffer raw = quiet.raw();
            _exit(raw.word(raw.payload(raw.index() - 1) + 8) == static_cast<uint32_t>(getpid()) ? 0 : 3);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << round;
    }
    stop = true;
    first.join();
    second.join();
}
