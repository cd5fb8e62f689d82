// Chaos: one server and eight clients under load, killed at random moments and started again.
//
// The driver forks the participants (chaos_participant.hpp), which share a book of what was sent, got,
// answered and heard.
//
// After each kill the driver looks at what the dead one held: a message consumed and not yet entered in the
// book went with it, which the channel tells by freeing it. Every other message that was sent must be got,
// once, and every reply that was given heard, unless its client closed or stopped waiting. A kill may land
// inside one of the channel's locks, which stay held then: the driver finds that by the owner's thread ID,
// counts it apart, and makes the channel anew.
//
//     QEL_CHAOS_KILLS (default 300), QEL_CHAOS_SEED (default 1)
#include <qel/ppm.h>
#include <qel/shm.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ipc/chaos_participant.hpp"
#include "ipc/qel_ipc.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"
#include "support/support.hpp"

namespace {

using namespace qel_chaos;
using qel_test::eventually;
using Clock = std::chrono::steady_clock;

// ---- The driver. ----

struct Tally {
    std::uint32_t kills = 0, server_kills = 0, in_a_lock = 0, went = 0;
};

class Driver {
  public:
    explicit Driver(std::uint32_t seed) : random_(seed) {
        for (std::uint32_t who = 0; who < kParticipants; ++who) start(who);
    }
    ~Driver() {
        for (std::uint32_t who = 0; who < kParticipants; ++who) end(who);
        remove_channel();
    }

    void run(std::uint32_t kills);
    void settle();
    const Tally& tally() const { return tally_; }

  private:
    void start(std::uint32_t who) {
        pids_[who] = fork();
        if (pids_[who] == 0) live(who);
    }
    void end(std::uint32_t who) {
        if (pids_[who] <= 0) return;
        ::kill(pids_[who], SIGKILL);
        waitpid(pids_[who], nullptr, 0);
        pids_[who] = -1;
    }
    void remove_channel() { qel_ipc_cleanup(kChannel); }
    void make_anew();
    bool look();
    bool any_lock_of_the_dead();
    std::uint32_t end_point_of(std::uint32_t who);
    void enter_what_went(std::uint32_t who);
    bool all_go_on();

    std::mt19937 random_;
    std::array<pid_t, kParticipants> pids_{};
    Tally tally_;
};

// The channel's segments as they lie there, mapped for a look by a process that never opened the channel.
class View {
  public:
    explicit View(const std::string& name) {
        std::uint8_t existed;
        if (qel_shm_open(name.c_str(), 0, info_.out(), &existed) != 0) info_.reset();
    }
    template <class T>
    T* as() const {
        return static_cast<T*>(info_.info().addr);
    }
    explicit operator bool() const { return static_cast<bool>(info_); }

  private:
    qel::Mapping info_;
};

// Held, and by nobody that lives. A thread that lives may be seen between taking the lock and leaving its
// name, so a lock without an owner is looked at for a while.
bool held_by_the_dead(const pthread_mutex_t& mutex) {
    for (int look = 0; look < 200; ++look) {
        if (__atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED) == 0) return false;
        std::uint32_t owner = qel::shm_platform::holder_of(mutex);
        if (owner != 0) return !qel::shm_platform::thread_exists(owner);
        usleep(100);
    }
    return true;
}

bool Driver::any_lock_of_the_dead() {
    View main{kChannel};
    if (!main) return false;
    auto* header = main.as<qel_ipc_hdr>();
    bool dead = held_by_the_dead(*header->shm_mutex.native()) || held_by_the_dead(*header->fc_lock.native());
    for (std::uint32_t ep = 0; ep <= kPlaces && !dead; ++ep) {
        dead = held_by_the_dead(header->eps[ep].sep.sep_mutex);
        View ring{std::string{kChannel} + "." + std::to_string(ep)};
        if (!ring || dead) continue;
        auto* words = ring.as<qel::RingHeader>();
        dead = held_by_the_dead(*words->ring_prod.native()) || held_by_the_dead(*words->ring_free.native());
    }
    if (View heap{std::string{kChannel} + ".heap"}; heap && !dead) {
        pthread_mutex_t lock;  // 12 bytes of safe header, 16 of the heap's before its lock
        std::memcpy(&lock, heap.as<std::byte>() + 28, sizeof lock);
        for (int look = 0; look < 200 && lock.__data.__lock != 0; ++look) {
            if (lock.__data.__owner != 0 &&
                qel::shm_platform::thread_exists(static_cast<std::uint32_t>(lock.__data.__owner)))
                break;
            usleep(100);
            dead = look == 199;
            std::memcpy(&lock, heap.as<std::byte>() + 28, sizeof lock);
        }
    }
    return dead;
}

// kMaxEndPoints for one that was at none.
std::uint32_t Driver::end_point_of(std::uint32_t who) {
    View main{kChannel};
    if (who == 0 || !main) return 0;
    for (std::uint32_t ep = 1; ep <= kPlaces; ++ep) {
        const qel::EndPointRecord& record = main.as<qel_ipc_hdr>()->eps[ep];
        bool open =
            record.ep_state == qel::EndPointState::open || record.ep_state == qel::EndPointState::restarted;
        if (open && record.app_id[1] == app_id_of(who)) return ep;
    }
    return qel::kMaxEndPoints;
}

// What lies consumed on the ring of one who has just died: entered as gone with it, unless the book has it
// already.
void Driver::enter_what_went(std::uint32_t who) {
    View ring{std::string{kChannel} + "." + std::to_string(end_point_of(who))};
    View pool{std::string{kChannel} + ".0"};
    View heap{std::string{kChannel} + ".heap"};
    if (!ring || !pool) return;
    auto* header = ring.as<qel::RingHeader>();
    std::uint32_t size = header->ring_size;
    if (size != kMessages) return;
    auto* index = reinterpret_cast<std::uint16_t*>(ring.as<std::byte>() + sizeof(qel::RingHeader));
    std::byte* area = pool.as<std::byte>() + sizeof(qel::RingHeader) + ((2 * size + 7) & ~7u);
    std::uint32_t stride = (48 + kInline + 7) & ~7u;
    std::uint32_t held = (header->cons_idx + size - header->rel_idx) % size;
    if (held == 0 && header->cons_count >= size - 1) held = size;
    for (std::uint32_t i = 0, slot = header->rel_idx; i < held; ++i, slot = (slot + 1) % size) {
        auto* message = reinterpret_cast<qel_ring_msg*>(area + index[slot] * stride);
        bool reply = message->type == QEL_RING_MSG_REPLY;
        std::uint32_t chunk = reply ? static_cast<std::uint32_t>(message->reply_buf) : message->data_handle;
        std::uint32_t length = reply ? message->reply_len : message->data_len;
        const std::byte* data = reinterpret_cast<std::byte*>(message) + sizeof *message;
        if (length > kInline) data = chunk != 0 && heap ? heap.as<std::byte>() + 12 + chunk : nullptr;
        Body body;
        if (data == nullptr || length < sizeof body) continue;
        std::memcpy(&body, data, sizeof body);
        if (body.sender >= kSenders || body.number >= kNumbers) continue;
        note(body.sender, body.number, kWentWithTheDead);
        ++tally_.went;
    }
}

// All segments go, and all participants begin again; what was on its way is written off.
void Driver::make_anew() {
    for (std::uint32_t who = 0; who < kParticipants; ++who) end(who);
    remove_channel();
    for (std::uint32_t sender = 0; sender < kSenders; ++sender)
        for (std::uint32_t number = 0; number < book->next[sender].load(); ++number)
            note(sender, number, kWentWithTheDead);
    for (std::uint32_t who = 0; who < kParticipants; ++who) start(who);
}

// The ledger adds up; asked under its lock, as all others are at work, and under the one that orders who
// comes and goes.
bool Driver::look() {
    View main{kChannel};
    if (!main) return true;
    auto* header = main.as<qel_ipc_hdr>();
    qel::SharedLocked coming_and_going{header->shm_mutex};
    qel::SharedLocked lock{header->fc_lock};
    const char* broken = qel::ledger_check(*header);
    if (broken != nullptr) std::fprintf(stderr, "ledger: %s\n", broken);
    return broken == nullptr;
}

void print_lock(const char* name, std::uint32_t ep, const pthread_mutex_t& mutex) {
    std::uint32_t owner = qel::shm_platform::holder_of(mutex);
    if (mutex.__data.__lock != 0)
        std::fprintf(stderr, "  %s of %u: %d, held by %u, which %s\n", name, ep, mutex.__data.__lock, owner,
                     qel::shm_platform::thread_exists(owner) ? "lives" : "is dead");
}

// For whoever has to find out why somebody hangs.
void print_state() {
    View main{kChannel};
    if (!main) return;
    auto* header = main.as<qel_ipc_hdr>();
    std::fprintf(stderr, "  state %u\n", static_cast<unsigned>(header->state));
    print_lock("shm_mutex", 0, *header->shm_mutex.native());
    print_lock("fc_lock", 0, *header->fc_lock.native());
    for (std::uint32_t ep = 0; ep <= kPlaces; ++ep) {
        const qel::EndPointRecord& record = header->eps[ep];
        View ring{std::string{kChannel} + "." + std::to_string(ep)};
        auto* words = ring ? ring.as<qel::RingHeader>() : nullptr;
        std::fprintf(stderr,
                     "  %u: app %lu pid %u state 0x%x restarts %u alloc %u reserved %u restricted %u sep "
                     "0x%x flags 0x%x "
                     "produced %u consumed %u\n",
                     ep, record.app_id[1], record.pid, static_cast<unsigned>(record.ep_state),
                     record.restarts, record.alloc, record.reserved_credits, record.restricted,
                     record.sep.sep_state, record.sep.sep_flags, words != nullptr ? words->prod_count : 0,
                     words != nullptr ? words->cons_count : 0);
        print_lock("sep_mutex", ep, record.sep.sep_mutex);
        if (words == nullptr) continue;
        print_lock("ring_prod", ep, *words->ring_prod.native());
        print_lock("ring_free", ep, *words->ring_free.native());
    }
}

bool Driver::all_go_on() {
    std::array<std::uint64_t, kParticipants> before{};
    for (std::uint32_t who = 0; who < kParticipants; ++who) before[who] = book->got[who].load();
    bool all = eventually([&] {
        for (std::uint32_t who = 0; who < kParticipants; ++who)
            if (book->got[who].load() == before[who]) return false;
        return true;
    });
    if (!all) print_state();
    return all;
}

void Driver::run(std::uint32_t kills) {
    std::uniform_int_distribution<std::uint32_t> any(0, kParticipants - 1), moment_us(0, 6000);
    for (tally_.kills = 0; tally_.kills < kills; ++tally_.kills) {
        usleep(moment_us(random_));
        std::uint32_t who = any(random_);
        end(who);
        tally_.server_kills += who == 0;
        enter_what_went(who);
        if (any_lock_of_the_dead()) {
            ++tally_.in_a_lock;
            make_anew();
        } else {
            start(who);
        }
        if (tally_.kills % 16 == 15) {
            ASSERT_TRUE(all_go_on()) << "after kill " << tally_.kills << ": somebody hangs";
        }
        ASSERT_TRUE(look()) << "after kill " << tally_.kills << " of " << who;
        ASSERT_EQ(book->broken.load(), 0u) << "after kill " << tally_.kills << ": bytes of another message";
    }
}

// No more requests: all that is on its way arrives, and all messages are back in the pool.
void Driver::settle() {
    book->stop.store(1);
    View main{kChannel}, pool{std::string{kChannel} + ".0"};
    ASSERT_TRUE(main && pool);
    auto idle = [&] {
        std::uint32_t charged = 0;
        for (auto& ep : main.as<qel_ipc_hdr>()->eps) charged += __atomic_load_n(&ep.alloc, __ATOMIC_RELAXED);
        return charged == 0 &&
               __atomic_load_n(&pool.as<qel::RingHeader>()->free_count, __ATOMIC_RELAXED) == kMessages;
    };
    ASSERT_TRUE(eventually(idle)) << "messages are still out";
    EXPECT_TRUE(look());
}

// Every message that was sent has been got, once; every reply that was given has been heard, once.
struct Verdict {
    std::uint64_t sent = 0, heard = 0, lost = 0, lost_replies = 0, twice = 0;
};
Verdict judge() {
    Verdict found;
    for (std::uint32_t sender = 0; sender < kSenders; ++sender) {
        for (std::uint32_t number = 0; number < book->next[sender].load(); ++number) {
            std::uint8_t row = book->rows[sender][number].load();
            auto is = [row](std::uint8_t bit) { return (row & bit) != 0; };
            found.sent += is(kSent);
            found.heard += is(kHeard);
            const bool lost = is(kSent) && !is(kGot) && !is(kWentWithTheDead);
            const bool lost_reply = is(kAnswered) && !is(kHeard) && !is(kWentWithTheDead) && !is(kGaveUp);
            if (lost || lost_reply)
                std::fprintf(stderr, "lost: message %u of %u by sender %u, known of it: 0x%x\n", number,
                             book->next[sender].load(), sender, row);
            found.lost += lost;
            found.lost_replies += lost_reply;
            found.twice += is(kTwice);
        }
    }
    return found;
}

std::uint32_t number_from(const char* variable, std::uint32_t otherwise) {
    const char* text = std::getenv(variable);
    return text != nullptr ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)) : otherwise;
}

TEST(Chaos, no_message_is_lost_or_doubled_by_kills_at_any_moment) {
    void* memory = mmap(nullptr, sizeof(Book), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    book = static_cast<Book*>(memory);
    std::uint32_t kills = number_from("QEL_CHAOS_KILLS", 300);
    auto start = Clock::now();
    Driver driver{number_from("QEL_CHAOS_SEED", 1)};
    driver.run(kills);
    if (!HasFatalFailure()) driver.settle();
    if (HasFatalFailure()) return;
    Verdict verdict = judge();
    const Tally& tally = driver.tally();
    std::printf("chaos: %u kills (%u of the server) in %.1f s; %u inside a lock of the channel (%.1f %%); "
                "%lu requests sent, "
                "%lu replies heard, %u messages went with the dead, %u closes; lost %lu + %lu, twice %lu\n",
                tally.kills, tally.server_kills, std::chrono::duration<double>(Clock::now() - start).count(),
                tally.in_a_lock, 100.0 * tally.in_a_lock / std::max(1u, tally.kills), verdict.sent,
                verdict.heard, tally.went, book->closes.load(), verdict.lost, verdict.lost_replies,
                verdict.twice);
    EXPECT_EQ(verdict.lost, 0u);
    EXPECT_EQ(verdict.lost_replies, 0u);
    EXPECT_EQ(verdict.twice, 0u);
    EXPECT_GT(verdict.sent, kills);
}

}  // namespace
