// Ours: one channel. In the sleeping form each side has a dispatcher with a pool of one thread, whose handler
// takes what has come; the server answers there, and a client's handler sends its next request. In the polled
// form nobody serves the dispatcher, so that no handler is in the path, and both sides call
// qel_ipc_receive(). One way, a client sends from its dispatcher too: it sends what its credits allow, and
// goes on when its flow is on again. Data are written and read in place.
#pragma once

#include <qel/cerrno.h>
#include <qel/dm_threadpool.h>
#include <qel/ipc.h>
#include <qel/ppm.h>

#include <atomic>

#include "ipc/transport.hpp"

namespace qel_bench {

struct Channel {
    static constexpr const char* kName = "channel";
    static bool takes_part(const Site&) { return true; }
    using Ground = NoGround;

    // A large message lies in a chunk of the heap, which rounds its size up to the next power of two.
    static constexpr std::uint32_t kLargestInline = 1'024;

    static void check(cerrno error, const char* what) {
        if (error != 0) give_up(what, cerr_strerror(error));
    }

    // No credit, or the server isn't there yet.
    static bool may_come_later(cerrno result) {
        return result == (QEL_CERRNO_FATAL | ENOMEM) || result == (QEL_CERRNO_TRY_AGAIN | EAGAIN);
    }

    // A side's process: its dispatcher, the channel, and what its events wake.
    class Side {
      public:
        Side(const Site& site, std::uint32_t role, std::uint64_t app_id) : site_(site) {
            qel_ppm_set_string("qel.shm.root", ("/" + site.name + ".").c_str());
            check(static_cast<cerrno>(qel_dm_create(&dm, "ipc_bench", QEL_DM_PRIVATE)), "qel_dm_create");
            if (!site.polls()) serve_dispatcher();
            qel_ipc_attr attributes;
            qel_ipc_attr_init(&attributes, role);
            attributes.app_id = app_id;
            attributes.max_clients = site.clients;
            attributes.max_msg_count = static_cast<std::uint32_t>(site.depth() * site.clients);
            attributes.max_msg_size =
                static_cast<std::uint32_t>(site.size < kLargestInline ? site.size : kLargestInline);
            attributes.large_data_size = heap_size();
            attributes.low_water_percent = 75;
            attributes.high_water_percent = 90;
            check(qel_ipc_open(&ipc, "bench", &attributes, dm, on_events, this), "qel_ipc_open");
        }
        Side(const Side&) = delete;
        virtual ~Side() {
            qel_ipc_close(&ipc);
            qel_dm_destroy(&dm);
        }

      protected:
        virtual void on_input() = 0;
        virtual void on_flow() {}
        // Takes the next message if there is one, and reads its request or its reply.
        bool take(qel_ipc_msg& message) {
            std::uint32_t type = 0;
            if (qel_ipc_receive(ipc, nullptr, &message, &type) != 0) return false;
            void* data = nullptr;
            std::uint32_t length = 0;
            auto get = type == QEL_IPC_MSG_REPLY ? qel_ipc_msg_get_reply_buffer : qel_ipc_msg_get_buffer;
            if (get(message, &data, &length) != 0 || length != site_.size)
                give_up("a message", "wrong length");
            Payload::read(data, length);
            return true;
        }
        void write(void* data) { payload_.write(data, site_.size); }
        std::uint32_t size() const { return static_cast<std::uint32_t>(site_.size); }
        // A batch is so many messages, the first of which may come before they are expected. Who waits for
        // its end is woken once, and sees nothing change before.
        void expect(std::uint64_t count) { change_left(static_cast<std::int64_t>(count)); }
        void one_done() { change_left(-1); }
        void wait_until_done() { ended_.wait(seen_ended_++, std::memory_order_acquire); }
        std::int64_t left() const { return left_.load(std::memory_order_relaxed); }

        const Site& site_;
        qel_ipc_handle ipc = 0;
        qel_dm_handle dm = 0;

      private:
        void change_left(std::int64_t by) {
            if (left_.fetch_add(by, std::memory_order_acq_rel) + by != 0) return;
            ended_.fetch_add(1, std::memory_order_release);
            ended_.notify_one();
        }
        std::uint32_t heap_size() const {
            return site_.size <= kLargestInline
                       ? 0
                       : static_cast<std::uint32_t>(site_.clients * site_.depth() * site_.size * 4);
        }
        void serve_dispatcher() const {
            qel_dm_threadpool_attr pool{};
            qel_dm_threadpool_attr_init(&pool);
            pool.min_wait = pool.max_wait = pool.max_threads = 1;
            check(static_cast<cerrno>(qel_dm_threadpool_create(dm, 0, &pool, nullptr)),
                  "qel_dm_threadpool_create");
        }
        static void on_events(qel_ipc_handle, std::uint32_t events, void* self) {
            auto& side = *static_cast<Side*>(self);
            if ((events & QEL_IPC_EVENT_FLOW_ON) != 0) side.on_flow();
            if ((events & QEL_IPC_EVENT_INPUT) != 0) side.on_input();
        }
        std::atomic<std::int64_t> left_{0};
        std::atomic<std::uint32_t> ended_{0};
        std::uint32_t seen_ended_ = 0;
        Payload payload_;
    };

    class Server : public Side {
      public:
        Server(Ground&, const Site& site) : Side(site, QEL_IPC_ROLE_SERVER, 1) {}
        void accept() {}
        void serve(std::uint64_t count) {
            expect(count);
            if (!site_.polls()) return wait_until_done();
            while (left() > 0) {
                on_input();
                relax(site_);
            }
        }

      private:
        void on_input() override {
            qel_ipc_msg message = 0;
            while (take(message)) {
                if (site_.replies()) {
                    answer(message);
                } else {
                    check(qel_ipc_msg_free(&message), "qel_ipc_msg_free");
                }
                one_done();
            }
        }
        void answer(qel_ipc_msg message) {
            void* data = nullptr;
            check(qel_ipc_msg_alloc_reply_buffer(message, size(), &data), "qel_ipc_msg_alloc_reply_buffer");
            write(data);
            check(qel_ipc_reply(ipc, nullptr, message, 0), "qel_ipc_reply");
        }
    };

    class Client : public Side {
      public:
        Client(Ground&, const Site& site, unsigned number) : Side(site, QEL_IPC_ROLE_CLIENT, number + 2) {}
        void call(Laps& laps) {
            expect(1);
            laps_ = &laps;
            send_one();
            if (!site_.polls()) return wait_until_done();
            while (left() > 0) {
                on_input();
                relax(site_);
            }
        }
        void send(std::uint64_t count) {
            expect(1);
            to_send_ = count;
            auto go_on = [](qel_dm_handle, std::uint64_t self, std::uint64_t) {
                reinterpret_cast<Client*>(self)->on_flow();
            };
            check(static_cast<cerrno>(qel_dm_execute(dm, go_on, reinterpret_cast<std::uintptr_t>(this), 0)),
                  "qel_dm_execute");
            wait_until_done();
        }

      private:
        void on_input() override {
            qel_ipc_msg message = 0;
            while (take(message)) {
                check(qel_ipc_msg_free(&message), "qel_ipc_msg_free");
                laps_->done();
                if (!laps_->more()) return one_done();
                send_one();
            }
        }
        // As many as there are credits for. The dispatcher's one thread runs this, so no two do at once.
        void on_flow() override {
            if (to_send_ == 0) return;
            while (to_send_ > 0 && try_send()) --to_send_;
            if (to_send_ == 0) one_done();
        }
        void send_one() {
            while (!try_send()) relax(site_);
        }
        bool try_send() {
            qel_ipc_msg message = 0;
            void* data = nullptr;
            cerrno result = qel_ipc_msg_alloc(ipc, size(), &message, &data);
            if (may_come_later(result)) return false;
            check(result, "qel_ipc_msg_alloc");
            write(data);
            check(qel_ipc_async_send(ipc, nullptr, message), "qel_ipc_async_send");
            return true;
        }
        std::uint64_t to_send_ = 0;
        Laps* laps_ = nullptr;
    };
};
static_assert(Transport<Channel>);

}  // namespace qel_bench
