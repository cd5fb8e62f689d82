// libqb's IPC of the shared-memory type: the server's handler runs on qb_loop and answers from there, the
// client calls qb_ipcc_sendv_recv(). A request is read in place; an answer and what is sent are copied by the
// library.
#pragma once

#include <qb/qbipcc.h>
#include <qb/qbipcs.h>
#include <qb/qbloop.h>

#include <vector>

#include "ipc/transport.hpp"

namespace qel_bench {

struct Libqb {
    static constexpr const char* kName = "libqb";
    static bool takes_part(const Site& site) { return !site.polls(); }
    using Ground = NoGround;

    struct Header {
        alignas(8) std::int32_t id;
        alignas(8) std::int32_t size;
    };
    static_assert(sizeof(Header) == sizeof(qb_ipc_request_header));
    static constexpr std::int32_t kFirstUserId = QB_IPC_MSG_USER_START;

    // A header and its data, in one block as libqb wants it.
    class Message {
      public:
        explicit Message(const Site& site) : buffer_((sizeof(Header) + site.size) / 8 + 1), size_(site.size) {
            auto* header = reinterpret_cast<qb_ipc_request_header*>(buffer_.data());
            header->id = kFirstUserId;
            header->size = static_cast<std::int32_t>(length());
        }
        void* block() { return buffer_.data(); }
        void* data() { return static_cast<char*>(block()) + sizeof(Header); }
        std::size_t length() const { return sizeof(Header) + size_; }

      private:
        std::vector<std::uint64_t> buffer_;
        std::size_t size_;
    };
    static std::size_t largest(const Site& site) {
        return site.depth_bytes() > 1'048'576 ? site.depth_bytes() : 1'048'576;
    }

    class Server {
      public:
        Server(Ground&, const Site& site) : site_(site), reply_(site), loop_(qb_loop_create()) {
            current_ = this;
            qb_ipcs_service_handlers handlers{
                .connection_accept = [](qb_ipcs_connection_t*, uid_t, gid_t) { return 0; },
                .connection_created = [](qb_ipcs_connection_t*) { current_->one_done(); },
                .msg_process = [](qb_ipcs_connection_t* of, void* data,
                                  size_t) { return current_->process(of, data); },
                .connection_closed = [](qb_ipcs_connection_t*) { return 0; },
                .connection_destroyed = [](qb_ipcs_connection_t*) {}};
            qb_ipcs_poll_handlers poll{
                .job_add =
                    [](qb_loop_priority priority, void* data, qb_loop_job_dispatch_fn job) {
                        return qb_loop_job_add(current_->loop_, priority, data, job);
                    },
                .dispatch_add =
                    [](qb_loop_priority priority, int fd, int events, void* data, qb_ipcs_dispatch_fn_t run) {
                        return qb_loop_poll_add(current_->loop_, priority, fd, events, data, run);
                    },
                .dispatch_mod =
                    [](qb_loop_priority priority, int fd, int events, void* data, qb_ipcs_dispatch_fn_t run) {
                        return qb_loop_poll_mod(current_->loop_, priority, fd, events, data, run);
                    },
                .dispatch_del = [](int fd) { return qb_loop_poll_del(current_->loop_, fd); }};
            service_ = qb_ipcs_create(site.name.c_str(), 0, QB_IPC_SHM, &handlers);
            qb_ipcs_poll_handlers_set(service_, &poll);
            qb_ipcs_request_rate_limit(service_, QB_IPCS_RATE_FAST);
            require(qb_ipcs_run(service_) == 0, "qb_ipcs_run");
        }
        Server(const Server&) = delete;
        ~Server() { qb_ipcs_destroy(service_); }
        void accept() { serve(site_.clients); }
        void serve(std::uint64_t count) {
            left_ += static_cast<std::int64_t>(count);
            if (left_ > 0) qb_loop_run(loop_);
        }

      private:
        void one_done() {
            if (--left_ == 0) qb_loop_stop(loop_);
        }
        std::int32_t process(qb_ipcs_connection_t* connection, void* data) {
            Payload::read(static_cast<char*>(data) + sizeof(Header), site_.size);
            if (site_.replies()) {
                payload_.write(reply_.data(), site_.size);
                qb_ipcs_response_send(connection, reply_.block(), reply_.length());
            }
            one_done();
            return 0;
        }
        static inline Server* current_;
        const Site& site_;
        Message reply_;
        qb_loop_t* loop_;
        qb_ipcs_service_t* service_;
        std::int64_t left_ = 0;
        Payload payload_;
    };

    class Client {
      public:
        Client(Ground&, const Site& site, unsigned)
            : site_(site), request_(site), reply_(site),
              connection_(qb_ipcc_connect(site.name.c_str(), largest(site))) {
            require(connection_ != nullptr, "qb_ipcc_connect");
        }
        Client(const Client&) = delete;
        ~Client() { qb_ipcc_disconnect(connection_); }
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                payload_.write(request_.data(), site_.size);
                iovec part{request_.block(), request_.length()};
                ssize_t got = qb_ipcc_sendv_recv(connection_, &part, 1, reply_.block(), reply_.length(), -1);
                require(got == static_cast<ssize_t>(reply_.length()), "qb_ipcc_sendv_recv");
                Payload::read(reply_.data(), site_.size);
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) {
                payload_.write(request_.data(), site_.size);
                ssize_t sent = 0;
                while ((sent = qb_ipcc_send(connection_, request_.block(), request_.length())) == -EAGAIN)
                    sched_yield();
                require(sent > 0, "qb_ipcc_send");
            }
        }

      private:
        const Site& site_;
        Message request_;
        Message reply_;
        qb_ipcc_connection_t* connection_;
        Payload payload_;
    };
};
static_assert(Transport<Libqb>);

}  // namespace qel_bench
