// Unix sockets of type SOCK_SEQPACKET, a pair for each client. A server of many waits with epoll.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "ipc/transport.hpp"

namespace qel_bench {

struct Seqpacket {
    static constexpr const char* kName = "SOCK_SEQPACKET";
    static bool takes_part(const Site&) { return true; }

    struct Ground {
        std::vector<std::array<int, 2>> pairs;
        explicit Ground(const Site& site) : pairs(site.clients) {
            int flags = site.polls() ? SOCK_NONBLOCK : 0;
            for (auto& pair : pairs)
                require(socketpair(AF_UNIX, SOCK_SEQPACKET | flags, 0, pair.data()) == 0, "socketpair");
        }
        Ground(const Ground&) = delete;
        ~Ground() {
            for (auto& pair : pairs)
                for (int end : pair) close(end);
        }
    };
    // One end of a pair, with room for a message.
    class End {
      public:
        End(int socket, const Site& site) : socket_(socket), site_(site), buffer_(site.size) {}
        void put() {
            payload_.write(buffer_.data(), buffer_.size());
            transfer([&] { return ::send(socket_, buffer_.data(), buffer_.size(), MSG_NOSIGNAL); });
        }
        void take() {
            transfer([&] { return ::recv(socket_, buffer_.data(), buffer_.size(), 0); });
            Payload::read(buffer_.data(), buffer_.size());
        }
        int socket() const { return socket_; }

      private:
        template <class Once>
        void transfer(Once once) {
            ssize_t done = 0;
            while ((done = once()) < 0 && errno == EAGAIN) relax(site_);
            require(done == static_cast<ssize_t>(buffer_.size()), "a socket");
        }
        int socket_;
        const Site& site_;
        std::vector<unsigned char> buffer_;
        Payload payload_;
    };

    class Server {
      public:
        Server(Ground& ground, const Site& site) : site_(site), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
            for (auto& pair : ground.pairs) ends_.emplace_back(pair[0], site);
            for (End& end : ends_) {
                epoll_event wanted{EPOLLIN, {&end}};
                require(epoll_ctl(epoll_, EPOLL_CTL_ADD, end.socket(), &wanted) == 0, "epoll_ctl");
            }
        }
        void accept() {}
        void serve(std::uint64_t count) {
            while (count > 0) count -= ends_.size() == 1 ? one(ends_[0]) : ready();
        }

      private:
        std::uint64_t one(End& end) {
            end.take();
            if (site_.replies()) end.put();
            return 1;
        }
        std::uint64_t ready() {
            std::array<epoll_event, 8> events;
            int found = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < found; ++i)
                one(*static_cast<End*>(events[static_cast<std::size_t>(i)].data.ptr));
            return found > 0 ? static_cast<std::uint64_t>(found) : 0;
        }
        const Site& site_;
        int epoll_;
        std::vector<End> ends_;
    };

    class Client {
      public:
        Client(Ground& ground, const Site& site, unsigned number) : end_(ground.pairs[number][1], site) {}
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                end_.put();
                end_.take();
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) end_.put();
        }

      private:
        End end_;
    };
};
static_assert(Transport<Seqpacket>);

}  // namespace qel_bench
