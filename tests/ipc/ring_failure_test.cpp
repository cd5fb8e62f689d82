// Rings from inside: against a model, under deaths between any two instructions, scribbled upon, and raced
// for.
#include "support/failing.hpp"
#include "support/support.hpp"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <random>
#include <thread>

#include "core/qel_codes.hpp"
#include "ipc/qel_ring_words.hpp"

using namespace qel_test;
using namespace qel;

namespace {

constexpr std::uint16_t kMessages = 5;

class Random {
  public:
    explicit Random(unsigned seed) : engine_(seed) {}
    std::uint32_t operator()() { return static_cast<std::uint32_t>(engine_()); }

  private:
    std::mt19937 engine_;
};
using Sizes = std::initializer_list<std::uint16_t>;

// A pool of five messages and a ring of 'size' slots, removed at the end.
struct Rings {
    explicit Rings(std::uint16_t size) {
        EXPECT_EQ(qel_ring_open("m.0", 0, kMessages, 8, nullptr, &pool), 0u);
        EXPECT_EQ(qel_ring_open("m.1", 1, size, 8, pool, &ring), 0u);
    }
    ~Rings() {
        EXPECT_EQ(qel_ring_close(&ring), 0u);
        EXPECT_EQ(qel_ring_close(&pool), 0u);
        EXPECT_EQ(qel_ring_destroy("m.0") | qel_ring_destroy("m.1"), 0u);
    }
    qel_ring& at(unsigned num) const { return num == 0 ? *pool : *ring; }
    qel_ring* pool = nullptr;
    qel_ring* ring = nullptr;
};

// Where each message is thought to be. Consumed ones have no order.
struct Model {
    using Messages = std::deque<qel_ring_msg*>;
    Messages allocated, produced[2], consumed[2];

    std::size_t out() const {
        return allocated.size() + produced[0].size() + produced[1].size() + consumed[0].size() +
               consumed[1].size();
    }
};

class ModelRun {
  public:
    ModelRun(unsigned seed, std::uint16_t size) : random_(seed), rings_(size) {}
    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            step(random_() % 2, random_() % 8);
            check();
        }
    }

  private:
    qel_ring_msg* take_one(Model::Messages& from) {
        if (from.empty()) return nullptr;
        std::size_t which = random_() % from.size();
        qel_ring_msg* message = from[which];
        from.erase(from.begin() + static_cast<std::ptrdiff_t>(which));
        return message;
    }
    bool has_room(unsigned num) const {
        return num == 0 || model_.produced[1].size() + model_.consumed[1].size() < rings_.ring->size;
    }
    void allocate(qel_ring& ring) {
        qel_ring_msg* message = nullptr;
        cerrno expected = model_.out() < kMessages ? 0 : fatal(ENOSPC);
        ASSERT_EQ(qel_ring_msg_alloc(&ring, &message), expected);
        if (message != nullptr) model_.allocated.push_back(message);
    }
    void produce(unsigned num, qel_ring_msg* message, bool at_head) {
        if (message == nullptr) return;
        cerrno expected = has_room(num) ? 0 : fatal(ENOSPC);
        auto call = at_head ? qel_ring_msg_produce_at_head : qel_ring_msg_produce;
        ASSERT_EQ(call(&rings_.at(num), message), expected);
        Model::Messages& to = expected != 0 ? model_.allocated : model_.produced[num];
        to.insert(at_head && expected == 0 ? to.begin() : to.end(), message);
    }
    void consume(unsigned num) {
        Model::Messages& waiting = model_.produced[num];
        qel_ring_msg* message = nullptr;
        ASSERT_EQ(qel_ring_msg_consume(&rings_.at(num), &message), waiting.empty() ? try_again(EAGAIN) : 0);
        if (message == nullptr) return;
        ASSERT_EQ(message, waiting.front());
        waiting.pop_front();
        model_.consumed[num].push_back(message);
    }
    void move(unsigned num, qel_ring_msg* message) {
        if (message == nullptr) return;
        cerrno expected = has_room(1 - num) ? 0 : fatal(ENOSPC);
        ASSERT_EQ(ring_move(rings_.at(num), rings_.at(1 - num), *message), expected);
        (expected == 0 ? model_.produced[1 - num] : model_.consumed[num]).push_back(message);
    }
    void give_back(unsigned num, qel_ring_msg* message, bool in_two_steps) {
        if (message == nullptr) return;
        qel_ring& ring = rings_.at(num);
        ASSERT_EQ(in_two_steps ? qel_ring_msg_free(&ring, message) : ring_give_back(ring, *message), 0u);
        if (in_two_steps && num != 0) ring_recover(ring);  // It isn't in the pool yet, and gets there.
    }
    void step(unsigned num, unsigned operation) {
        switch (operation) {
        case 0:
            return allocate(rings_.at(num));
        case 1:
            return produce(num, take_one(model_.allocated), false);
        case 2:
            return produce(num, take_one(model_.allocated), true);
        case 3:
            return consume(num);
        case 4:
            return move(num, take_one(model_.consumed[num]));
        case 5:
            return give_back(num, take_one(model_.consumed[num]), random_() % 2 == 0);
        case 6:
            return give_back(num, take_one(model_.allocated), false);
        default:
            if (qel_ring_msg* message = take_one(model_.consumed[num]); message != nullptr) {
                ASSERT_EQ(qel_ring_msg_realloc(&rings_.at(num), message), 0u);
                model_.allocated.push_back(message);
            }
        }
    }
    void check() {
        ASSERT_EQ(qel_ring_get_free_count(rings_.pool), kMessages - model_.out());
        for (unsigned num : {0u, 1u}) {
            ASSERT_EQ(qel_ring_get_produced_count(&rings_.at(num)), model_.produced[num].size());
            ASSERT_EQ(qel_ring_get_consumed_count(&rings_.at(num)), model_.consumed[num].size());
            const char* broken = ring_check(rings_.at(num), true);
            ASSERT_EQ(broken, nullptr) << broken;
        }
        std::uint32_t charged = ring_count_charged(*rings_.pool, 0) + ring_count_charged(*rings_.pool, 1);
        ASSERT_EQ(charged, model_.out());
    }

    Random random_;
    Rings rings_;
    Model model_;
};

}  // namespace

TEST(RingModel, random_operations_keep_every_message_in_one_place) {
    for (std::uint16_t size : Sizes{1, 2, 3, 5})
        for (unsigned seed = 1; seed <= 4; ++seed) ModelRun{seed, size}.run(4000);
}

TEST(RingOpen, failing_allocations_leave_nothing) {
    int failures = fail_each_allocation([] {
        qel_ring* ring = nullptr;
        cerrno error = qel_ring_open("f.0", 0, 8, 8, nullptr, &ring);
        if (error == 0) {
            EXPECT_EQ(qel_ring_close(&ring), 0u);
            EXPECT_EQ(qel_ring_destroy("f.0"), 0u);
        } else {
            EXPECT_EQ(error, fatal(ENOMEM));
        }
        EXPECT_FALSE(shm_exists("f.0"));
    });
    EXPECT_GE(failures, 1);
}

namespace {

// A copy of a ring's segment, with a context of its own.
class RingCopy {
  public:
    RingCopy(const qel_ring& ring, qel_ring* pool) : bytes_((ring.shm.bytes().size() + 7) / 8) {
        std::memcpy(bytes_.data(), ring.shm.bytes().data(), ring.shm.bytes().size());
        auto* start = reinterpret_cast<std::byte*>(bytes_.data());
        auto* old = ring.shm.bytes().data();
        context_.alloc_ring = pool != nullptr ? pool : &context_;
        context_.hdr = reinterpret_cast<RingHeader*>(start);
        context_.index = reinterpret_cast<std::uint16_t*>(start + 128);
        context_.msgs = ring.msgs != nullptr ? start + (ring.msgs - old) : nullptr;
        context_.stride = ring.stride;
        context_.num = ring.num;
        context_.size = ring.size;
        context_.msg_size = ring.msg_size;
    }
    RingCopy(const RingCopy&) = delete;
    qel_ring& operator*() { return context_; }

  private:
    std::vector<std::uint64_t> bytes_;
    qel_ring context_{};
};

std::string bytes_of(const qel_ring& ring) {
    return {reinterpret_cast<const char*>(ring.hdr), ring.shm.bytes().size()};
}

bool is_locked(RingHeader& header) {
    return header.ring_prod.native()->__data.__lock != 0 || header.ring_free.native()->__data.__lock != 0;
}

// After both owners have come back: the regions hold, and all other messages are Allocated, which a scan
// finds.
void expect_all_accounted(const Rings& rings) {
    RingCopy pool{*rings.pool, nullptr};
    RingCopy ring{*rings.ring, &*pool};
    ring_recover(*pool);
    ring_recover(*ring);
    for (qel_ring* copy : {&*pool, &*ring}) {
        const char* broken = ring_check(*copy, true);
        ASSERT_EQ(broken, nullptr) << copy->num << ": " << broken;
    }
    std::uint32_t placed = qel_ring_get_free_count(&*pool);
    for (qel_ring* copy : {&*pool, &*ring})
        placed += qel_ring_get_produced_count(copy) + qel_ring_get_consumed_count(copy);
    std::uint32_t allocated = 0;
    for (std::uint32_t number = 0; number < kMessages; ++number)
        allocated += state_of(*message_at(*pool, number)) == MessageState::allocated;
    ASSERT_EQ(placed + allocated, kMessages);
}

// Each operation, in a run that begins and ends with all messages free.
void run_all_operations(const Rings& rings) {
    qel_ring_msg *first = nullptr, *second = nullptr, *taken = nullptr;
    qel_ring_msg_alloc(rings.ring, &first);
    qel_ring_msg_alloc(rings.ring, &second);
    qel_ring_msg_produce(rings.pool, first);
    qel_ring_msg_produce_at_head(rings.pool, second);
    qel_ring_msg_consume(rings.pool, &taken);
    qel_ring_msg_consume(rings.pool, &taken);
    ring_move(*rings.pool, *rings.ring, *first);
    ring_give_back(*rings.pool, *second);
    qel_ring_msg_consume(rings.ring, &taken);
    qel_ring_msg_realloc(rings.ring, first);
    qel_ring_msg_produce(rings.ring, first);
    qel_ring_msg_consume(rings.ring, &taken);
    qel_ring_msg_free(rings.ring, first);
    qel_ring_msg_add_to_free_pool(rings.pool, first);
    qel_ring_msg_alloc(rings.pool, &first);
    qel_ring_msg_free(rings.pool, first);
    qel_ring_msg_alloc(rings.ring, &first);
    qel_ring_msg_produce(rings.ring, first);
    qel_ring_msg_consume(rings.ring, &taken);
    ring_give_back(*rings.ring, *first);
}

}  // namespace

TEST(RingDeath, leaves_each_message_in_one_account_at_any_instruction) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own instructions are too many to step through";
#endif
    for (std::uint16_t size : Sizes{1, 2}) {
        Rings rings{size};
        run_all_operations(rings);  // So that the child resolves no symbols.
        pid_t child = fork();
        if (child == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            run_all_operations(rings);
            _exit(0);
        }
        int status = 0, steps = 0, outside = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        for (; WIFSTOPPED(status) && steps < 50'000 && !HasFailure(); ++steps) {
            if (!is_locked(*rings.pool->hdr) && !is_locked(*rings.ring->hdr)) {
                ++outside;
                expect_all_accounted(rings);
            }
            ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr), 0);
            ASSERT_EQ(waitpid(child, &status, 0), child);
        }
        if (!WIFEXITED(status)) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_GT(outside, 500);
        EXPECT_GT(steps, outside);
        EXPECT_EQ(qel_ring_get_free_count(rings.pool), kMessages);
        RecordProperty("steps", steps);
    }
}

TEST(RingHostile, scribbled_words_neither_fault_nor_hang) {
    Rings rings{3};
    Random random{7};
    std::FILE* kept = stdout;
    stdout = std::fopen("/dev/null", "w");
    const std::uint32_t nasty[] = {0, 1, 3, 4, 5, 0xffff, 0x7fffffff, 0xffffffff};
    std::string sound[2];
    for (unsigned num : {0u, 1u}) sound[num] = bytes_of(rings.at(num));
    for (int round = 0; round < 60'000; ++round) {
        for (unsigned num : {0u, 1u})
            if (round % 30 == 0)
                sound[num].copy(reinterpret_cast<char*>(rings.at(num).hdr), sound[num].size());
        qel_ring& ring = rings.at(random() % 2);
        auto* words = reinterpret_cast<std::uint32_t*>(ring.shm.bytes().data());
        std::uint32_t count = static_cast<std::uint32_t>(ring.shm.bytes().size() / 4);
        std::uint32_t at = random() % 4 == 0 ? 32 + random() % (count - 32) : 2 + random() % 4;
        if (random() % 8 == 0) at = 16 + random() % 3;
        if (random() % 3 == 0) words[at] = nasty[random() % 8] | (random() % 4 == 0 ? random() : 0);

        qel_ring_msg* message = message_at(*rings.pool, random() % kMessages);
        qel_ring_msg* out = nullptr;
        switch (random() % 12) {
        case 0:
            qel_ring_msg_alloc(&ring, &out);
            break;
        case 1:
            qel_ring_msg_produce(&ring, message);
            break;
        case 2:
            qel_ring_msg_produce_at_head(&ring, message);
            break;
        case 3:
            qel_ring_msg_consume(&ring, &out);
            break;
        case 4:
            qel_ring_msg_realloc(&ring, message);
            break;
        case 5:
            qel_ring_msg_free(&ring, message);
            break;
        case 6:
            ring_move(*rings.pool, *rings.ring, *message);
            break;
        case 7:
            ring_give_back(ring, *message);
            break;
        case 8:
            qel_ring_freeze(&ring);
            ring.hdr->frozen = 0;
            break;
        case 9:
            qel_ring_msg_reclaim_consumed(&ring, &out);
            break;
        case 10:
            ring_recover(ring);
            break;
        default:
            qel_ring_dump(&ring, 3, nullptr, nullptr);
            ring_check(ring, true);
        }
        if (out != nullptr) {
            ASSERT_LT(ring_message_number(ring, *out), kMessages);
        }
    }
    std::fclose(std::exchange(stdout, kept));
}

TEST(RingHostile, a_scribbled_slot_costs_its_own_message_and_no_other) {
    Rings rings{3};
    qel_ring_msg *sent[2] = {}, *out = nullptr;
    for (qel_ring_msg*& message : sent) {
        ASSERT_EQ(qel_ring_msg_alloc(rings.pool, &message), 0u);
        ASSERT_EQ(qel_ring_msg_produce(rings.pool, message), 0u);
    }
    for (qel_ring_msg* message : sent) {
        ASSERT_EQ(qel_ring_msg_consume(rings.pool, &out), 0u);
        EXPECT_EQ(out, message);
    }
    rings.pool->index[0] = 0xffff;
    EXPECT_EQ(qel_ring_msg_reclaim_consumed(rings.pool, &out), 0u);
    EXPECT_EQ(out, sent[1]);
    EXPECT_EQ(ring_give_back(*rings.pool, *out), 0u);
    for (int left = kMessages - 1; left > 0; --left) EXPECT_EQ(qel_ring_msg_alloc(rings.ring, &out), 0u);
    EXPECT_EQ(qel_ring_msg_alloc(rings.ring, &out), fatal(ENOSPC));
}

TEST(RingDump, goes_on_without_a_lock_that_a_dead_process_holds) {
    Rings rings{3};
    pid_t child = fork();
    if (child == 0) _exit(pthread_mutex_lock(rings.ring->hdr->ring_prod.native()));
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    testing::internal::CaptureStdout();
    qel_ring_dump(rings.ring, 1, nullptr, nullptr);
    std::string text = testing::internal::GetCapturedStdout();
    std::string missed = "*** ring_prod not got within 2 s, held by thread " + std::to_string(child);
    EXPECT_EQ(text.rfind(missed + " (gone)\n     F=0 (0), P=0 (0)", 0), 0u) << text;
}

// Three producers and a consumer: nothing lost, doubled or out of order, also where each message fills the
// ring.
TEST(RingRace, messages_pass_whole_and_in_order) {
    constexpr std::uint64_t kEach = 20'000;
    for (std::uint16_t size : Sizes{1, 4}) {
        Rings rings{size};
        std::vector<std::thread> producers;
        for (std::uint16_t who = 0; who < 3; ++who)
            producers.emplace_back([&, who] {
                for (std::uint64_t i = 0; i < kEach;) {
                    qel_ring_msg* message = nullptr;
                    if (qel_ring_msg_alloc(rings.pool, &message) != 0) continue;
                    message->type = who;
                    message->context = i;
                    if (qel_ring_msg_produce(rings.ring, message) == 0)
                        ++i;
                    else
                        EXPECT_EQ(ring_give_back(*rings.pool, *message), 0u);
                }
            });
        std::uint64_t next[3] = {};
        for (std::uint64_t received = 0; received < 3 * kEach && !testing::Test::HasFailure();) {
            qel_ring_msg* message = nullptr;
            if (qel_ring_msg_consume(rings.ring, &message) != 0) continue;
            ++received;
            EXPECT_EQ(message->context, next[message->type]++);
            EXPECT_EQ(ring_give_back(*rings.ring, *message), 0u);
        }
        for (std::thread& producer : producers) producer.join();
        EXPECT_EQ(ring_check(*rings.pool, true), nullptr);
        EXPECT_EQ(ring_check(*rings.ring, true), nullptr);
    }
}
