// The floor: one ring of slots in shared memory for each direction of each client, no library, nothing
// checked. Whoever finds nothing to do sleeps on a futex of his own (a bell), or looks again in the polled
// contests.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "ipc/transport.hpp"

namespace qel_bench {

struct BareRing {
    static constexpr const char* kName = "bare ring";
    static bool takes_part(const Site&) { return true; }

    // One waits at a bell, any other may ring it.
    struct Bell {
        alignas(64) std::atomic<std::uint32_t> rung{0};
        std::atomic<std::uint32_t> asleep{0};
        template <class Ready>
        void wait(const Site& site, Ready ready) {
            while (!ready()) {
                if (site.polls()) {
                    relax(site);
                    continue;
                }
                asleep.store(1, std::memory_order_seq_cst);
                std::uint32_t seen = rung.load(std::memory_order_seq_cst);
                if (!ready()) syscall(SYS_futex, &rung, FUTEX_WAIT, seen, nullptr, nullptr, 0);
                asleep.store(0, std::memory_order_relaxed);
            }
        }
        // After a change that the other side may wait for.
        void ring() {
            std::atomic_thread_fence(std::memory_order_seq_cst);
            if (asleep.load(std::memory_order_relaxed) == 0) return;
            asleep.store(0, std::memory_order_relaxed);
            rung.fetch_add(1, std::memory_order_seq_cst);
            syscall(SYS_futex, &rung, FUTEX_WAKE, 1, nullptr, nullptr, 0);
        }
    };
    struct Indices {
        alignas(64) std::atomic<std::uint32_t> produced{0};
        alignas(64) std::atomic<std::uint32_t> consumed{0};
    };
    struct Ring {
        Indices* indices;
        unsigned char* slots;
        std::uint32_t depth;
        std::size_t size;
        bool empty() const {
            return indices->produced.load(std::memory_order_acquire) ==
                   indices->consumed.load(std::memory_order_relaxed);
        }
        bool full() const {
            return indices->produced.load(std::memory_order_relaxed) -
                       indices->consumed.load(std::memory_order_acquire) ==
                   depth;
        }
        // A producer that sleeps is woken once there is room for many.
        bool half_empty() const {
            return indices->produced.load(std::memory_order_relaxed) -
                       indices->consumed.load(std::memory_order_relaxed) <=
                   depth / 2;
        }
        void put(Payload& payload) {
            std::uint32_t at = indices->produced.load(std::memory_order_relaxed);
            payload.write(slots + at % depth * size, size);
            indices->produced.store(at + 1, std::memory_order_release);
        }
        void take() {
            std::uint32_t at = indices->consumed.load(std::memory_order_relaxed);
            Payload::read(slots + at % depth * size, size);
            indices->consumed.store(at + 1, std::memory_order_release);
        }
    };
    struct Ground {
        Inherited<Bell> bells;  // the clients', then the server's
        Inherited<Indices> indices;
        Inherited<unsigned char> slots;
        explicit Ground(const Site& site)
            : bells(site.clients + 1), indices(site.clients * 2),
              slots(site.clients * 2 * site.depth() * site.size) {}
        Ring ring(const Site& site, unsigned client, bool of_replies) const {
            unsigned number = client * 2 + (of_replies ? 1 : 0);
            return {&indices[number], &slots[number * site.depth() * site.size],
                    static_cast<std::uint32_t>(site.depth()), site.size};
        }
    };

    class Server {
      public:
        Server(Ground& ground, const Site& site) : ground_(ground), site_(site) {}
        void accept() {}
        void serve(std::uint64_t count) {
            while (count > 0) {
                unsigned client = 0;
                ground_.bells[site_.clients].wait(site_, [&] { return find(client); });
                count -= site_.replies() ? answer(client) : drain(client);
            }
        }

      private:
        // Leaves in 'client' one who has sent something.
        bool find(unsigned& client) {
            for (unsigned tried = 0; tried < site_.clients; ++tried) {
                client = next_++ % site_.clients;
                if (!ground_.ring(site_, client, false).empty()) return true;
            }
            return false;
        }
        std::uint64_t answer(unsigned client) {
            ground_.ring(site_, client, false).take();
            ground_.ring(site_, client, true).put(payload_);
            ground_.bells[client].ring();
            return 1;
        }
        std::uint64_t drain(unsigned client) {
            std::uint64_t taken = 0;
            Ring ring = ground_.ring(site_, client, false);
            for (; !ring.empty(); ++taken) {
                ring.take();
                if (ring.half_empty()) ground_.bells[client].ring();
            }
            return taken;
        }
        Ground& ground_;
        const Site& site_;
        Payload payload_;
        unsigned next_ = 0;
    };

    class Client {
      public:
        Client(Ground& ground, const Site& site, unsigned number)
            : site_(site), own_(ground.bells[number]), servers_(ground.bells[site.clients]),
              requests_(ground.ring(site, number, false)), replies_(ground.ring(site, number, true)) {}
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                requests_.put(payload_);
                servers_.ring();
                own_.wait(site_, [&] { return !replies_.empty(); });
                replies_.take();
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) {
                own_.wait(site_, [&] { return !requests_.full(); });
                requests_.put(payload_);
                servers_.ring();
            }
        }

      private:
        const Site& site_;
        Bell& own_;
        Bell& servers_;
        Ring requests_;
        Ring replies_;
        Payload payload_;
    };
};
static_assert(Transport<BareRing>);

}  // namespace qel_bench
