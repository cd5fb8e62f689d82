// Rings as their users see them: opening, the order of messages, freezing, reclaim, handles, dumps.
#include "support/support.hpp"

#include <qel/cerrno.h>
#include <qel/ring.h>
#include <qel/shm.h>

#include <cerrno>
#include <cstring>
#include <thread>

using namespace qel_test;

namespace {

constexpr cerrno kBad = QEL_CERRNO_FATAL | EINVAL;
constexpr cerrno kNothing = QEL_CERRNO_TRY_AGAIN | EAGAIN;
constexpr cerrno kExists = QEL_CERRNO_FATAL | EEXIST;

// Ring 0 with five messages of 8 bytes, and ring 1 of four slots.
class Ring : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(qel_ring_open("r.0", 0, 5, 8, nullptr, &pool_), 0u);
        ASSERT_EQ(qel_ring_open("r.1", 1, 4, 8, pool_, &ring_), 0u);
    }
    void TearDown() override {
        EXPECT_EQ(qel_ring_close(&ring_), 0u);
        EXPECT_EQ(qel_ring_close(&pool_), 0u);
        EXPECT_EQ(qel_ring_destroy("r.0"), 0u);
        EXPECT_EQ(qel_ring_destroy("r.1"), 0u);
        EXPECT_EQ(mapping_count("r.1"), 0);
    }
    qel_ring_msg* alloc(qel_ring* ring) {
        qel_ring_msg* message = nullptr;
        EXPECT_EQ(qel_ring_msg_alloc(ring, &message), 0u);
        return message;
    }
    qel_ring_msg* consume(qel_ring* ring) {
        qel_ring_msg* message = nullptr;
        qel_ring_msg_consume(ring, &message);
        return message;
    }
    std::vector<qel_ring_msg*> produce(qel_ring* ring, int count) {
        std::vector<qel_ring_msg*> messages;
        for (int i = 0; i < count; ++i) messages.push_back(alloc(ring_));
        for (qel_ring_msg* message : messages) EXPECT_EQ(qel_ring_msg_produce(ring, message), 0u);
        return messages;
    }

    qel_ring* pool_ = nullptr;
    qel_ring* ring_ = nullptr;
};

std::string contents(const std::string& name) {
    qel_shm_info info;
    std::uint8_t existed = 0;
    EXPECT_EQ(qel_shm_open(name.c_str(), 0, &info, &existed), 0);
    std::string bytes(static_cast<const char*>(info.addr), info.size);
    qel_shm_close(&info);
    return bytes;
}

}  // namespace

TEST_F(Ring, open_refuses_what_does_not_fit_and_changes_no_byte) {
    qel_ring* out = nullptr;
    std::string before = contents("r.0") + contents("r.1");
    EXPECT_EQ(qel_ring_open("r.0", 0, 4, 8, nullptr, &out), kBad);
    EXPECT_EQ(qel_ring_open("r.1", 1, 4, 9, pool_, &out), kExists);
    EXPECT_EQ(qel_ring_open("r.1", 2, 4, 8, pool_, &out), kExists);
    EXPECT_EQ(qel_ring_open("r.1", 1, 0, 8, pool_, &out), kBad);
    EXPECT_EQ(qel_ring_open("r.1", 1, 4, 8, nullptr, &out), kBad);
    EXPECT_EQ(qel_ring_open("r.2", 2, 4, 8, ring_, &out), kBad);
    EXPECT_EQ(qel_ring_open("r.big", 0, 65535, 65535, nullptr, &out), kBad);
    EXPECT_EQ(qel_ring_open(nullptr, 1, 4, 8, pool_, &out), kBad);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(contents("r.0") + contents("r.1"), before);
    EXPECT_EQ(qel_ring_destroy("r.none"), QEL_CERRNO_FATAL | ENOENT);
    EXPECT_EQ(qel_ring_close(&out), kBad);
    EXPECT_EQ(before.size(), 128u + 16 + 5 * 56 + 128 + 8);
}

TEST_F(Ring, unformatted_segment_is_waited_for_and_then_refused) {
    qel_shm_info made;
    std::uint8_t existed = 0;
    ASSERT_EQ(qel_shm_open("r.late", 128 + 8, &made, &existed), 0);
    qel_ring* out = nullptr;
    EXPECT_EQ(qel_ring_open("r.late", 1, 4, 8, pool_, &out), kExists);

    std::thread maker{[&] {
        std::string formatted = contents("r.1");
        std::this_thread::sleep_for(50ms);  // Into the opener's wait; either order must work.
        std::memcpy(static_cast<char*>(made.addr) + 6, formatted.data() + 6, formatted.size() - 6);
        std::memcpy(made.addr, formatted.data(), 4);
        __atomic_store_n(static_cast<std::uint16_t*>(made.addr) + 2, std::uint16_t{4}, __ATOMIC_RELEASE);
    }};
    EXPECT_EQ(qel_ring_open("r.late", 1, 4, 8, pool_, &out), 0u);
    maker.join();
    EXPECT_EQ(qel_ring_close(&out), 0u);
    qel_shm_close(&made);
    EXPECT_EQ(qel_ring_destroy("r.late"), 0u);
}

TEST_F(Ring, message_is_refused_in_the_wrong_state_and_stays_usable) {
    qel_ring_msg* message = alloc(ring_);
    std::uint32_t handle = message->handle;
    auto* inside = reinterpret_cast<qel_ring_msg*>(reinterpret_cast<char*>(message) + 8);
    qel_ring_msg foreign{};
    for (qel_ring_msg* wrong : {inside, message + 1000, &foreign, static_cast<qel_ring_msg*>(nullptr)}) {
        EXPECT_EQ(qel_ring_msg_produce(ring_, wrong), kBad);
        EXPECT_EQ(qel_ring_msg_free(ring_, wrong), kBad);
    }
    EXPECT_EQ(qel_ring_msg_realloc(ring_, message), kBad);
    EXPECT_EQ(qel_ring_msg_add_to_free_pool(ring_, message), kBad);
    EXPECT_EQ(qel_ring_msg_produce(ring_, message), 0u);
    EXPECT_EQ(qel_ring_msg_produce(pool_, message), kBad);
    EXPECT_EQ(qel_ring_msg_free(ring_, message), kBad);
    EXPECT_EQ(qel_ring_msg_add_to_free_pool(pool_, message), kBad);
    EXPECT_EQ(consume(ring_), message);
    EXPECT_EQ(qel_ring_msg_free(pool_, message), kBad);

    qel_ring_msg* found = nullptr;
    EXPECT_EQ(qel_ring_msg_handle_to_addr(pool_, handle, &found), 0u);
    EXPECT_EQ(found, message);
    EXPECT_EQ(qel_ring_msg_realloc(ring_, message), 0u);
    EXPECT_EQ(qel_ring_msg_free(ring_, message), 0u);
    EXPECT_EQ(qel_ring_msg_free(ring_, message), kBad);
    EXPECT_EQ(qel_ring_msg_add_to_free_pool(pool_, message), kBad);
    EXPECT_EQ(qel_ring_msg_handle_to_addr(pool_, handle, &found), kBad);
    EXPECT_EQ(alloc(ring_), message);
    EXPECT_EQ(message->handle & 0xffff, handle & 0xffff);
    EXPECT_EQ(qel_ring_msg_handle_to_addr(pool_, handle, &found), kBad);
    EXPECT_EQ(qel_ring_msg_handle_to_addr(pool_, 0x10005, &found), kBad);
}

TEST_F(Ring, frozen_ring_gives_everything_back_in_its_order) {
    std::vector<qel_ring_msg*> sent = produce(ring_, 3);
    EXPECT_EQ(consume(ring_), sent[0]);
    EXPECT_EQ(consume(ring_), sent[1]);
    qel_ring_msg* late = alloc(ring_);
    EXPECT_EQ(qel_ring_msg_produce_at_head(ring_, late), 0u);
    EXPECT_EQ(qel_ring_freeze(ring_), 0u);
    EXPECT_EQ(qel_ring_get_produced_count(ring_), 4u);
    EXPECT_EQ(qel_ring_get_consumed_count(ring_), 0u);
    EXPECT_EQ(sent[0]->state, QEL_RING_MSG_PRODUCED);
    qel_ring_msg* refused = alloc(ring_);
    EXPECT_EQ(qel_ring_msg_produce(ring_, refused), QEL_CERRNO_FATAL | EPIPE);
    for (qel_ring_msg* expected : {sent[0], sent[1], late, sent[2]}) EXPECT_EQ(consume(ring_), expected);
}

TEST_F(Ring, reclaim_finds_what_the_ring_held_and_nothing_else) {
    qel_ring_msg* found = nullptr;
    EXPECT_EQ(qel_ring_msg_reclaim_alloc(ring_, &found), kNothing);
    EXPECT_EQ(qel_ring_msg_reclaim_consumed(ring_, &found), kNothing);
    std::vector<qel_ring_msg*> sent = produce(ring_, 2);
    qel_ring_msg *others = alloc(pool_), *held = alloc(ring_);
    EXPECT_EQ(consume(ring_), sent[0]);
    EXPECT_EQ(qel_ring_msg_reclaim_alloc(ring_, &found), 0u);
    EXPECT_EQ(found, held);
    // What is held again below the last find is found too.
    EXPECT_EQ(qel_ring_msg_reclaim_consumed(ring_, &found), 0u);
    EXPECT_EQ(found, sent[0]);
    EXPECT_EQ(qel_ring_msg_realloc(ring_, found), 0u);
    EXPECT_EQ(qel_ring_msg_free(ring_, held), 0u);
    EXPECT_EQ(qel_ring_msg_reclaim_alloc(ring_, &found), 0u);
    EXPECT_EQ(found, sent[0]);
    EXPECT_EQ(qel_ring_msg_free(ring_, found), 0u);
    EXPECT_EQ(qel_ring_msg_reclaim_alloc(ring_, &found), kNothing);
    EXPECT_EQ(others->state, QEL_RING_MSG_ALLOCATED);
    EXPECT_EQ(consume(ring_), sent[1]);
}

TEST_F(Ring, dump_shows_slots_and_marks_what_is_out_of_range) {
    std::vector<qel_ring_msg*> sent = produce(pool_, 3);
    std::memcpy(sent[0] + 1, "\x01\xab", 2);
    sent[1]->type = 7;
    EXPECT_EQ(consume(pool_), sent[0]);
    auto data = [](qel_ring*, qel_ring_msg* message, void*, void** address, std::uint32_t* length) {
        *address = message->handle == 0x10000 ? message + 1 : nullptr;
        *length = 2;
    };
    sent[2]->state = 9;
    testing::internal::CaptureStdout();
    qel_ring_dump(pool_, 3, data, nullptr);
    qel_ring_dump(ring_, 1, nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "     ring in-process context size=64\n     ring shm context size=128\n"
              "     ring msg shm control block size=48\n"
              "     F=3 (2), P=3 (2), C=1 (1), R=0\n"
              "---- CONSUMED and PRODUCED messages (oldest to newest)\n"
              "000: owner=1, H=10000 S=Consumed T=AsyncReq L=0 01 ab \n"
              "*** invalid type=7\n001: owner=1, H=20001 S=Produced T=??? L=0 \n"
              "*** invalid state=9\n002: owner=1, H=30002 S=??? T=AsyncReq L=0 \n"
              "---- FREE messages (oldest to newest)\n"
              "003: owner=0, H=0 S=Free T=AsyncReq L=0 \n004: owner=0, H=0 S=Free T=AsyncReq L=0 \n"
              "     F=0 (0), P=0 (0), C=0 (0), R=0\n"
              "---- CONSUMED and PRODUCED messages (oldest to newest)\n");
}
