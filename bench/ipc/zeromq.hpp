// ZeroMQ over ipc://: REQ and REP for round trips, PUSH and PULL (which batch) for one way. A message's data
// are written into and read out of the library's own buffers.
#pragma once

#include <zmq.h>

#include "ipc/transport.hpp"

namespace qel_bench {

struct ZeroMq {
    static constexpr const char* kName = "ZeroMQ";
    static bool takes_part(const Site& site) { return !site.polls(); }
    using Ground = NoGround;

    class Side {
      public:
        Side(const Site& site, int type)
            : size_(site.size), context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {
            int depth = static_cast<int>(site.depth());
            zmq_setsockopt(socket_, ZMQ_SNDHWM, &depth, sizeof depth);
            zmq_setsockopt(socket_, ZMQ_RCVHWM, &depth, sizeof depth);
            int linger_ms = 0;
            zmq_setsockopt(socket_, ZMQ_LINGER, &linger_ms, sizeof linger_ms);
        }
        Side(const Side&) = delete;
        ~Side() {
            zmq_close(socket_);
            zmq_ctx_term(context_);
        }
        void* socket() const { return socket_; }
        void put() {
            zmq_msg_t message;
            require(zmq_msg_init_size(&message, size_) == 0, "zmq_msg_init_size");
            payload_.write(zmq_msg_data(&message), size_);
            require(zmq_msg_send(&message, socket_, 0) >= 0, "zmq_msg_send");
        }
        void take() {
            zmq_msg_t message;
            zmq_msg_init(&message);
            require(zmq_msg_recv(&message, socket_, 0) == static_cast<int>(size_), "zmq_msg_recv");
            Payload::read(zmq_msg_data(&message), size_);
            zmq_msg_close(&message);
        }

      private:
        std::size_t size_;
        void* context_;
        void* socket_;
        Payload payload_;
    };

    class Server {
      public:
        Server(Ground&, const Site& site)
            : side_(site, site.replies() ? ZMQ_REP : ZMQ_PULL), replies_(site.replies()) {
            require(zmq_bind(side_.socket(), ("ipc://" + site.socket_path()).c_str()) == 0, "zmq_bind");
        }
        void accept() {}
        void serve(std::uint64_t count) {
            for (; count > 0; --count) {
                side_.take();
                if (replies_) side_.put();
            }
        }

      private:
        Side side_;
        bool replies_;
    };

    class Client {
      public:
        Client(Ground&, const Site& site, unsigned) : side_(site, site.replies() ? ZMQ_REQ : ZMQ_PUSH) {
            require(zmq_connect(side_.socket(), ("ipc://" + site.socket_path()).c_str()) == 0, "zmq_connect");
        }
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                side_.put();
                side_.take();
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) side_.put();
        }

      private:
        Side side_;
    };
};
static_assert(Transport<ZeroMq>);

}  // namespace qel_bench
