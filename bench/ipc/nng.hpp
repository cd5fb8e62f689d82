// nng over ipc://: REQ and REP for round trips, PUSH and PULL for one way. A message's data are written into
// and read out of the library's own buffers; a server answers in the message that it got.
#pragma once

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "ipc/transport.hpp"

namespace qel_bench {

struct Nng {
    static constexpr const char* kName = "nng";
    static bool takes_part(const Site& site) { return !site.polls(); }
    using Ground = NoGround;

    static void check(int error, const char* what) {
        if (error != 0) give_up(what, nng_strerror(error));
    }
    class Side {
      public:
        Side(const Site& site, int (*open)(nng_socket*)) : size_(site.size) {
            check(open(&socket), "nng open");
            nng_socket_set_ms(socket, NNG_OPT_RECONNMINT, 10);
            nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0);
            nng_socket_set_int(socket, NNG_OPT_SENDBUF, static_cast<int>(site.depth()));
            nng_socket_set_int(socket, NNG_OPT_RECVBUF, static_cast<int>(site.depth()));
        }
        Side(const Side&) = delete;
        ~Side() { nng_close(socket); }
        nng_msg* make() {
            nng_msg* message = nullptr;
            check(nng_msg_alloc(&message, size_), "nng_msg_alloc");
            return message;
        }
        void put(nng_msg* message) {
            payload_.write(nng_msg_body(message), size_);
            check(nng_sendmsg(socket, message, 0), "nng_sendmsg");
        }
        nng_msg* take() {
            nng_msg* message = nullptr;
            check(nng_recvmsg(socket, &message, 0), "nng_recvmsg");
            if (nng_msg_len(message) != size_) give_up("nng", "wrong length");
            Payload::read(nng_msg_body(message), size_);
            return message;
        }
        nng_socket socket{};

      private:
        std::size_t size_;
        Payload payload_;
    };

    class Server {
      public:
        Server(Ground&, const Site& site)
            : side_(site, site.replies() ? nng_rep0_open : nng_pull0_open), replies_(site.replies()) {
            check(nng_listen(side_.socket, ("ipc://" + site.socket_path()).c_str(), nullptr, 0),
                  "nng_listen");
        }
        void accept() {}
        void serve(std::uint64_t count) {
            for (; count > 0; --count) {
                nng_msg* message = side_.take();
                if (replies_) {
                    side_.put(message);
                } else {
                    nng_msg_free(message);
                }
            }
        }

      private:
        Side side_;
        bool replies_;
    };

    class Client {
      public:
        Client(Ground&, const Site& site, unsigned)
            : side_(site, site.replies() ? nng_req0_open : nng_push0_open) {
            check(nng_dial(side_.socket, ("ipc://" + site.socket_path()).c_str(), nullptr, 0), "nng_dial");
        }
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                side_.put(side_.make());
                nng_msg_free(side_.take());
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) side_.put(side_.make());
        }

      private:
        Side side_;
    };
};
static_assert(Transport<Nng>);

}  // namespace qel_bench
