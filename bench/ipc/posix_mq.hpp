// POSIX message queues: one for all requests, one for each client's replies. They are opened before the fork
// and unlinked at once, so that no name is left. Without privilege a queue holds 10 messages of at most 8
// KiB.
#pragma once

#include <mqueue.h>
#include <unistd.h>

#include <vector>

#include "ipc/transport.hpp"

namespace qel_bench {

struct PosixMq {
    static constexpr const char* kName = "POSIX mq";
    static bool takes_part(const Site& site) { return site.size <= 8'192 && !site.polls(); }

    // The queues of the requests (0) and of each client's replies (1 + number).
    struct Ground {
        std::vector<mqd_t> queues;
        explicit Ground(const Site& site) {
            for (unsigned i = 0; i <= site.clients; ++i) queues.push_back(open_unnamed(site, i));
        }
        Ground(const Ground&) = delete;
        ~Ground() {
            for (mqd_t queue : queues) mq_close(queue);
        }
        static mqd_t open_unnamed(const Site& site, unsigned number) {
            constexpr long kMostMessages = 10;
            mq_attr attributes{};
            attributes.mq_maxmsg = number == 0 ? kMostMessages : 1;
            attributes.mq_msgsize = static_cast<long>(site.size + sizeof(unsigned));
            const std::string name = "/" + site.name + "." + std::to_string(number);
            mqd_t queue = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600, &attributes);
            require(queue != -1, "mq_open");
            mq_unlink(name.c_str());
            return queue;
        }
    };
    // A message is the number of its client, then the data.
    class Side {
      public:
        Side(Ground& ground, const Site& site)
            : ground_(ground), buffer_(site.size + sizeof(unsigned)), size_(site.size) {}
        void put(std::size_t queue, unsigned client) {
            std::memcpy(buffer_.data(), &client, sizeof client);
            payload_.write(data(), size_);
            require(mq_send(ground_.queues[queue], buffer_.data(), buffer_.size(), 0) == 0, "mq_send");
        }
        unsigned take(std::size_t queue) {
            ssize_t taken = mq_receive(ground_.queues[queue], buffer_.data(), buffer_.size(), nullptr);
            require(taken == static_cast<ssize_t>(buffer_.size()), "mq_receive");
            Payload::read(data(), size_);
            unsigned client = 0;
            std::memcpy(&client, buffer_.data(), sizeof client);
            return client;
        }

      private:
        char* data() { return buffer_.data() + sizeof(unsigned); }
        Ground& ground_;
        std::vector<char> buffer_;
        std::size_t size_;
        Payload payload_;
    };

    class Server {
      public:
        Server(Ground& ground, const Site& site) : side_(ground, site), replies_(site.replies()) {}
        void accept() {}
        void serve(std::uint64_t count) {
            for (; count > 0; --count) {
                unsigned client = side_.take(0);
                if (replies_) side_.put(1 + client, client);
            }
        }

      private:
        Side side_;
        bool replies_;
    };

    class Client {
      public:
        Client(Ground& ground, const Site& site, unsigned number) : side_(ground, site), number_(number) {}
        void call(Laps& laps) {
            for (; laps.more(); laps.done()) {
                side_.put(0, number_);
                side_.take(1 + number_);
            }
        }
        void send(std::uint64_t count) {
            for (; count > 0; --count) side_.put(0, number_);
        }

      private:
        Side side_;
        unsigned number_;
    };
};
static_assert(Transport<PosixMq>);

}  // namespace qel_bench
