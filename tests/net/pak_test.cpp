// Packets: a random life beside a model, and what a model can't show: sums of all sizes, contexts, queues,
// text, memory of the application's own.
#include "net/pak_model.hpp"
#include "support/support.hpp"

#include <qel/dt_dump.h>
#include <qel/pak_ctx.h>

#include <memory>
#include <random>
#include <thread>

using namespace qel_test;

namespace {

constexpr cerrno kBusy = 0xa0000010, kNotThere = 0xa0000002;

struct Return {
    void operator()(qel_pak* pak) const { EXPECT_EQ(qel_pak_return_buffer(&pak), 0u); }
};
using Pak = std::unique_ptr<qel_pak, Return>;

Pak make(std::size_t size) {
    qel_pak* pak = nullptr;
    EXPECT_EQ(qel_pak_alloc(size, &pak), 0u);
    return Pak{pak};
}

TEST(Pak, lives_a_random_life_as_its_model_does) {
    for (unsigned seed = 1; seed <= 10; ++seed) {
        std::minstd_rand random{seed};
        auto dice = [&random](std::size_t n) { return std::size_t{random()} % n; };
        PakModel model{dice};
        for (int i = 0; i < 100000; ++i) ASSERT_TRUE(model.step()) << "seed " << seed << " step " << i;
    }
}

TEST(Pak, null_is_refused_by_each_call) {
    const Pak owner = make(10);
    qel_pak *pak = owner.get(), *none = nullptr;
    std::size_t size = 0;
    std::uint16_t sum = 0;
    iovec pair{&size, 4};
    char byte = 0;
    const cerrno results[] = {
        qel_pak_alloc(0, &none),
        qel_pak_alloc(1, nullptr),
        qel_pak_from_buf_lnx(nullptr, 1, &none),
        qel_pak_from_buf_lnx(&byte, 65536, &none),
        qel_pak_duplicate(nullptr, &none),
        qel_pak_clone(pak, nullptr),
        qel_pak_return_buffer(nullptr),
        qel_pak_return_buffer(&none),
        qel_pak_add_head(nullptr, 1),
        qel_pak_trim_tail(nullptr, 1),
        qel_pak_write(pak, 0, 0, nullptr, 1, &size),
        qel_pak_write(pak, 0, 0, &byte, 1, nullptr),
        qel_pak_read(pak, 0, 0, nullptr, 1, &size),
        qel_pak_writev(pak, 0, 0, nullptr, 1, &size),
        qel_pak_writev(pak, 0, 0, &pair, 0, &size),
        qel_pak_readv(pak, 0, 0, &pair, 1024, &size),
        qel_pak_readv(pak, 0, 0, &pair, 1, nullptr),
        qel_pak_writev_and_checksum(pak, 0, 0, &pair, 1024, &sum, &size),
        qel_pak_writev_and_checksum(pak, 0, 0, &pair, 1, nullptr, &size),
        qel_pak_get_offset(pak, 0, nullptr),
        qel_pak_uint32_get(pak, 0, 0, nullptr),
        qel_pak_uint32_put(nullptr, 0, 0, 1),
        qel_pak_checksum(pak, 0, 0, 4, nullptr),
        qel_pak_get_priority(pak, nullptr),
        qel_pak_set_if_input(nullptr, 1),
        qel_pak_get_data_ptr_lnx(pak, nullptr, &size),
        qel_pak_params_register_lnx(nullptr),
        qel_pak_dump(pak, &byte, 1, nullptr, &size),
    };
    for (std::size_t i = 0; i < std::size(results); ++i) EXPECT_EQ(results[i], kPakInvalid) << i;
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(size, 0u);
}

TEST(Pak, size_never_wraps) {
    const Pak large = make(65535), huge = make(70000);
    EXPECT_EQ(qel_pak_add_head(large.get(), 1), kPakNoRoom);
    EXPECT_EQ(qel_pak_trim_tail(large.get(), 50), 0u);
    EXPECT_EQ(qel_pak_add_head(large.get(), 50), 0u);
    EXPECT_EQ(qel_pak_add_tail(large.get(), 1), kPakNoRoom);
    std::size_t size = 0;
    EXPECT_EQ(qel_pak_get_datagram_size(huge.get(), &size), 0u);
    EXPECT_EQ(size, 70000u - 65536u);
    EXPECT_EQ(qel_pak_add_tail(huge.get(), 65535 - size + 1), kPakNoRoom);
    EXPECT_EQ(qel_pak_add_tail(huge.get(), 65535 - size), 0u);
    EXPECT_EQ(qel_pak_uint8_put(huge.get(), 0, 65534, 1), 0u);
    qel_pak* none = nullptr;
    EXPECT_EQ(qel_pak_alloc(SIZE_MAX - 100, &none), kPakNoRoom);
}

TEST(Pak, a_copy_keeps_what_is_the_datagram_s) {
    const Pak pak = make(20);
    EXPECT_EQ(qel_pak_set_proto_id(pak.get(), 7), 0u);
    EXPECT_EQ(qel_pak_set_priority(pak.get(), 8), 0u);
    EXPECT_EQ(qel_pak_set_if_input(pak.get(), UINT64_C(9) << 61), 0u);
    EXPECT_EQ(qel_pak_set_if_output(pak.get(), 10), 0u);
    std::uint32_t type = 0;
    ASSERT_EQ(qel_pak_ctx_register("copied?", 4, &type), 0u);
    EXPECT_EQ(qel_pak_ctx_set(type, pak.get(), "abc", 4), 0u);
    qel_pak* copy = nullptr;
    ASSERT_EQ(qel_pak_clone(pak.get(), &copy), 0u);
    const Pak owner{copy};
    std::uint32_t proto = 0, priority = 99;
    std::uint64_t input = 0, output = 0;
    EXPECT_EQ(qel_pak_get_proto_id(copy, &proto), 0u);
    EXPECT_EQ(qel_pak_get_priority(copy, &priority), 0u);
    EXPECT_EQ(qel_pak_get_if_input(copy, &input), 0u);
    EXPECT_EQ(qel_pak_get_if_output(copy, &output), 0u);
    EXPECT_EQ(proto, 7u);
    EXPECT_EQ(priority, 0u);
    EXPECT_EQ(input, UINT64_C(9) << 61);
    EXPECT_EQ(output, 10u);
    EXPECT_FALSE(qel_pak_ctx_exist(type, copy));
    EXPECT_EQ(qel_pak_ctx_unregister(type), 0u);
}

TEST(Pak, sums_come_out_as_by_the_book) {
    EXPECT_EQ(qel_pak_crc("\x01\x02\x03", 3),
              sum_by_the_book(reinterpret_cast<const std::uint8_t*>("\1\2\3"), 3));
    EXPECT_EQ(qel_pak_crc(nullptr, 5), 0u);
    std::minstd_rand random{1};
    std::vector<std::uint8_t> bytes(70000);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random() >> 8);
    for (std::size_t length = 0; length < 700; ++length)
        for (std::size_t start : {0, 1, 7})
            ASSERT_EQ(qel_pak_crc(bytes.data() + start, length),
                      sum_by_the_book(bytes.data() + start, length))
                << length << " at " << start;
    EXPECT_EQ(qel_pak_crc(bytes.data(), bytes.size()), sum_by_the_book(bytes.data(), bytes.size()));
    bytes.assign(5 << 20 | 3, 0xff);  // what would overflow does here
    EXPECT_EQ(qel_pak_crc(bytes.data(), bytes.size()), sum_by_the_book(bytes.data(), bytes.size()));
    bytes.assign(1000, 0);
    EXPECT_EQ(qel_pak_crc(bytes.data(), bytes.size()), 0u);
}

TEST(Pak, contexts_are_told_apart_by_their_serial_numbers) {
    const Pak pak = make(4);
    std::uint32_t ids[QEL_PAK_MAX_CTX], one_more = 0;
    for (std::uint32_t& id : ids) ASSERT_EQ(qel_pak_ctx_register("type", 8, &id), 0u);
    EXPECT_EQ(qel_pak_ctx_register("too many", 8, &one_more), kPakNoRoom);
    EXPECT_EQ(one_more, QEL_PAK_NO_CTX);
    EXPECT_EQ(qel_pak_ctx_is_valid_ctx_id(ids[31]), 31);
    EXPECT_EQ(qel_pak_ctx_id_to_index(ids[31]) & 0xffff, 31u);

    char value[8] = "";
    std::size_t length = 3;
    EXPECT_EQ(qel_pak_ctx_get(ids[5], pak.get(), value, &length), kNotThere);
    EXPECT_EQ(qel_pak_ctx_set(ids[5], pak.get(), "sevenXY", 8), 0u);
    EXPECT_EQ(qel_pak_ctx_set(ids[5], pak.get(), "four", 5), 0u) << "a shorter one in its place";
    EXPECT_EQ(qel_pak_ctx_set(ids[5], pak.get(), "ninechars", 9), kPakInvalid);
    EXPECT_EQ(qel_pak_ctx_set(ids[6], pak.get(), "other", 6), 0u);
    EXPECT_EQ(qel_pak_ctx_get(ids[5], pak.get(), value, &length), kPakInvalid);
    length = sizeof(value);
    EXPECT_EQ(qel_pak_ctx_get(ids[5], pak.get(), value, &length), 0u);
    EXPECT_EQ(length, 5u);
    EXPECT_STREQ(value, "four");
    EXPECT_TRUE(qel_pak_ctx_exist(ids[6], pak.get()));
    EXPECT_EQ(qel_pak_ctx_destroy(ids[6], pak.get()), 0u);
    EXPECT_EQ(qel_pak_ctx_destroy(ids[6], pak.get()), kPakInvalid);

    EXPECT_EQ(qel_pak_ctx_unregister(ids[5]), 0u);
    EXPECT_EQ(qel_pak_ctx_unregister(ids[5]), kPakInvalid);
    std::uint32_t heir = 0;
    ASSERT_EQ(qel_pak_ctx_register("heir", 8, &heir), 0u);
    EXPECT_EQ(heir & 0xffff, 5u);
    for (std::uint32_t stale : {ids[5], UINT32_C(0), UINT32_C(0xffff), ids[5] | 0x20, ids[5] & 0xffff}) {
        EXPECT_EQ(qel_pak_ctx_is_valid_ctx_id(stale), -1) << stale;
        EXPECT_EQ(qel_pak_ctx_set(stale, pak.get(), "x", 1), kPakInvalid);
        EXPECT_EQ(qel_pak_ctx_get(stale, pak.get(), value, &length), kPakInvalid);
        EXPECT_EQ(qel_pak_ctx_unregister(stale), kPakInvalid);
    }
    EXPECT_TRUE(qel_pak_ctx_exist(ids[5], pak.get())) << "it goes with its packet";
    ids[5] = heir;
    for (std::uint32_t id : ids) EXPECT_EQ(qel_pak_ctx_unregister(id), 0u);
}

TEST(Pak, serial_numbers_pass_over_0) {
    std::uint32_t first = 0, id = 0;
    ASSERT_EQ(qel_pak_ctx_register("first", 1, &first), 0u);
    EXPECT_EQ(qel_pak_ctx_unregister(first), 0u);
    for (int i = 0; i < 65535; ++i) {
        ASSERT_EQ(qel_pak_ctx_register("next", 1, &id), 0u);
        ASSERT_NE(id >> 16, 0u);
        ASSERT_EQ(qel_pak_ctx_unregister(id), 0u);
    }
    EXPECT_EQ(id, first) << "65,535 later";
}

TEST(Pak, types_come_and_go_while_others_look) {
    std::atomic<bool> stop = false;
    std::atomic<std::uint32_t> current = 0;
    std::thread looker([&] {
        while (!stop) {
            const std::uint32_t id = current;
            const int index = qel_pak_ctx_is_valid_ctx_id(id);
            EXPECT_TRUE(index == -1 || index == static_cast<int>(id & 0xffff));
        }
    });
    auto churn = [&current] {
        for (int i = 0; i < 20000; ++i) {
            std::uint32_t id = 0;
            ASSERT_EQ(qel_pak_ctx_register("churn", 4, &id), 0u);
            current = id;
            ASSERT_NE(qel_pak_ctx_is_valid_ctx_id(id), -1);
            ASSERT_EQ(qel_pak_ctx_unregister(id), 0u);
        }
    };
    std::thread one(churn), two(churn);
    one.join();
    two.join();
    stop = true;
    looker.join();
}

TEST(Pak, a_packet_is_on_one_queue_or_free) {
    qel_queue queue{}, other{};
    const Pak owners[3] = {make(1), make(2), make(3)};
    qel_pak *a = owners[0].get(), *b = owners[1].get(), *c = owners[2].get(), *held = b;
    EXPECT_EQ(qel_pak_queue_insert(&queue, b, a), kPakInvalid) << "behind one on no queue";
    EXPECT_EQ(qel_pak_queue_enqueue(&queue, b), 0u);
    EXPECT_EQ(qel_pak_queue_enqueue_head(&queue, a), 0u);
    EXPECT_EQ(qel_pak_queue_insert(&queue, c, b), 0u);
    for (qel_pak* pak : {a, b, c}) {
        EXPECT_EQ(qel_pak_queue_enqueue(&other, pak), kPakInvalid) << "the last one has no link, and is on";
        EXPECT_EQ(qel_pak_queue_enqueue_head(&queue, pak), kPakInvalid);
        EXPECT_EQ(qel_pak_queue_insert(&queue, pak, a), kPakInvalid);
        held = pak;
        EXPECT_EQ(qel_pak_return_buffer(&held), kBusy);
        EXPECT_EQ(held, pak);
    }
    EXPECT_EQ(qel_pak_queue_get_next(a), b);
    EXPECT_EQ(qel_pak_queue_get_next(c), nullptr);
    EXPECT_EQ(qel_pak_queue_get_next(nullptr), nullptr);
    for (qel_pak* pak : {a, b, c}) EXPECT_EQ(qel_pak_queue_dequeue(&queue), pak);
    EXPECT_EQ(qel_pak_queue_dequeue(&queue), nullptr);
    EXPECT_EQ(qel_pak_queue_enqueue(nullptr, a), kPakInvalid);
    EXPECT_EQ(qel_pak_queue_insert(&queue, a, nullptr), kPakInvalid);
    EXPECT_EQ(qel_pak_queue_enqueue(&queue, nullptr), kPakInvalid);
    EXPECT_EQ(qel_queue_size(&other), 0u);
}

TEST(Pak, text_is_these_lines) {
    const Pak pak = make(40);
    for (std::uint8_t i = 0; i < 40; ++i) EXPECT_EQ(qel_pak_uint8_put(pak.get(), 0, i, i), 0u);
    EXPECT_EQ(qel_pak_set_offset(pak.get(), QEL_PAK_TRANSPORT, 20), 0u);
    EXPECT_EQ(qel_pak_set_if_output(pak.get(), 0xabc), 0u);
    EXPECT_EQ(qel_pak_set_priority(pak.get(), 255), 0u);
    char address[32], text[1000];
    std::snprintf(address, sizeof(address), "%p", static_cast<void*>(pak.get()));
    std::size_t length = 0;
    qel_pak_dump_req request{QEL_PAK_DUMP_DATA, QEL_PAK_TRANSPORT, 0, 17};
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 93, &request, &length), 0xa000001cu);
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 94, &request, &length), 0u);
    const std::string data = "Packet Data Portion:\n 1415161718191a1b1c1d1e1f20212223\n 24";
    EXPECT_EQ(text, data);
    EXPECT_EQ(length, data.size() + 1);

    request = {QEL_PAK_DUMP_DATA | QEL_PAK_DUMP_HEADER | QEL_PAK_DUMP_CTX, QEL_PAK_TRANSPORT, 18, 256};
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 572 + 312 + 512 - 1, &request, &length), 0xa000001cu);
    std::vector<char> room(572 + 312 + 512);
    EXPECT_EQ(qel_pak_dump(pak.get(), room.data(), room.size(), &request, &length), 0u);
    EXPECT_EQ(room.data(),
              "Packet Header:\n pak:0x" + std::string{address} +
                  ", datagram size:40\n Datagram offset:0, Network offset:0\n Trasport offset:20, "
                  "Application offset:0\n Input if handle 0x0, Output if handle:0xabc\n Proto ID:0x0, "
                  "Priority:0xff\nPacket Data Portion:\n 2627")
        << "what is there and no more";
    EXPECT_EQ(length, std::strlen(room.data()) + 1);

    request = {QEL_PAK_DUMP_CTX, 0, 0, 0};
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 511, &request, &length), 0xa000001cu);
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 512, &request, &length), 0u);
    EXPECT_EQ(length, 1u);
    EXPECT_STREQ(text, "");
    request.flags = 0;
    text[0] = 'x';
    EXPECT_EQ(qel_pak_dump(pak.get(), text, 0, &request, &length), 0u);
    EXPECT_EQ(text[0], 'x');
    request.flags = QEL_PAK_DUMP_DATA;
    for (std::uint64_t refused : {0, 257}) {
        request.length = refused;
        EXPECT_EQ(qel_pak_dump(pak.get(), text, sizeof(text), &request, &length), kPakInvalid);
    }
    request = {QEL_PAK_DUMP_DATA, 0, 40, 1};
    EXPECT_EQ(qel_pak_dump(pak.get(), text, sizeof(text), &request, &length), kPakInvalid);
    request = {QEL_PAK_DUMP_DATA, 4, 0, 1};
    EXPECT_EQ(qel_pak_dump(pak.get(), text, sizeof(text), &request, &length), kPakInvalid);
}

TEST(Pak, traces_what_the_level_asks_for) {
    auto lines = [](const char* buffer) {
        std::string text;
        auto collect = [](const char* line, std::size_t size, void* all) {
            static_cast<std::string*>(all)->append(line, size) += '\n';
        };
        qel_dt_buffer_get_by_line(buffer, 0, collect, &text);
        return text;
    };
    std::uint32_t proto = 0;
    qel_pak* pak = make(3).release();
    EXPECT_THAT(lines("qel.pak.buffer.events"), testing::Not(testing::HasSubstr("QEL-PAK-EVENT")));
    qel_pak_trace_level = 1;
    EXPECT_EQ(qel_pak_get_proto_id(pak, &proto), 0u);
    EXPECT_EQ(qel_pak_trim_head(pak, 1), 0u);
    EXPECT_THAT(lines("qel.pak.buffer.events"), testing::HasSubstr("QEL-PAK-EVENT: trim head ok, pak=0x"));
    EXPECT_THAT(lines("qel.pak.buffer.events"), testing::Not(testing::HasSubstr("proto")));
    qel_pak_trace_level = 2;
    EXPECT_EQ(qel_pak_get_proto_id(pak, &proto), 0u);
    EXPECT_THAT(lines("qel.pak.buffer.events"), testing::HasSubstr("QEL-PAK-EVENT: proto id get ok, pak=0x"));
    qel_pak_trace_level = 0;
    EXPECT_EQ(qel_pak_set_offset(pak, 0, 0), kPakInvalid);
    EXPECT_THAT(lines("qel.gen.buffer.errors"),
                testing::HasSubstr("QEL-PAK-ERROR: invalid argumentsoffset set"));
    EXPECT_EQ(qel_pak_return_buffer(&pak), 0u);
}

// --- Memory of the application's own

std::size_t last_size;
int allocated, freed;

// In a process of its own, since parameters stay.
QEL_ROLE(own_memory) {
    qel_pak_params params{};
    params.encap = 513;
    if (qel_pak_params_register_lnx(&params) != kPakInvalid) return 1;
    params = {[](std::size_t) -> void* { return nullptr; }, nullptr, 16};
    if (qel_pak_params_register_lnx(&params) != kPakInvalid) return 2;
    qel_pak *before = nullptr, *after = nullptr;
    if (qel_pak_alloc(8, &before) != 0) return 3;
    params.alloc_cb = [](std::size_t size) {
        last_size = size;
        return ++allocated == 2 ? nullptr : std::calloc(1, size);
    };
    params.free_cb = [](void* memory) {
        ++freed;
        std::free(memory);
    };
    if (qel_pak_params_register_lnx(&params) != 0) return 4;
    params.alloc_cb = nullptr;  // the record was copied
    if (qel_pak_params_register_lnx(&params) != kBusy) return 5;
    if (qel_pak_alloc(100, &after) != 0 || last_size != 16 + 100 + 120) return 6;
    if (qel_pak_add_head(after, 17) != kPakNoRoom || qel_pak_add_head(after, 16) != 0) return 7;
    if (qel_pak_return_buffer(&before) != 0 || freed != 0) return 8;
    if (qel_pak_alloc(100, &before) != kPakNoRoom || before != nullptr) return 9;
    if (qel_pak_return_buffer(&after) != 0 || freed != 1 || after != nullptr) return 10;
    return 0;
}

TEST(Pak, memory_goes_back_to_where_it_came_from) {
    Child child{"own_memory"};
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
