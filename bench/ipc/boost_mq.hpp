// Boost.Interprocess message_queue: one for all requests, one for each client's replies.
#pragma once

#include <boost/interprocess/ipc/message_queue.hpp>

#include <deque>
#include <vector>

#include "ipc/transport.hpp"

namespace qel_bench {

struct BoostMq {
    static constexpr const char* kName = "Boost message_queue";
    static bool takes_part(const Site&) { return true; }
    using Queue = boost::interprocess::message_queue;

    static std::string queue_name(const Site& site, std::size_t number) {
        return site.name + "." + std::to_string(number);
    }
    // The queues of the requests (0) and of each client's replies (1 + number), made and removed by the
    // driver.
    struct Ground {
        const Site& site;
        explicit Ground(const Site& of) : site(of) {
            for (std::size_t i = 0; i <= site.clients; ++i)
                Queue made{boost::interprocess::create_only, queue_name(site, i).c_str(),
                           i == 0 ? site.depth() * site.clients : 1, site.size + sizeof(unsigned)};
        }
        Ground(const Ground&) = delete;
        ~Ground() {
            for (std::size_t i = 0; i <= site.clients; ++i) Queue::remove(queue_name(site, i).c_str());
        }
    };
    // A message is the number of its client, then the data.
    class Side {
      public:
        explicit Side(const Site& site) : site_(site), buffer_(site.size + sizeof(unsigned)) {
            for (std::size_t i = 0; i <= site.clients; ++i)
                queues_.emplace_back(boost::interprocess::open_only, queue_name(site, i).c_str());
        }
        void put(std::size_t queue, unsigned client) {
            std::memcpy(buffer_.data(), &client, sizeof client);
            payload_.write(data(), site_.size);
            if (!site_.polls()) return queues_[queue].send(buffer_.data(), buffer_.size(), 0);
            while (!queues_[queue].try_send(buffer_.data(), buffer_.size(), 0)) relax(site_);
        }
        unsigned take(std::size_t queue) {
            receive(queues_[queue]);
            Payload::read(data(), site_.size);
            unsigned client = 0;
            std::memcpy(&client, buffer_.data(), sizeof client);
            return client;
        }

      private:
        void receive(Queue& queue) {
            Queue::size_type taken = 0;
            unsigned priority = 0;
            if (!site_.polls()) return queue.receive(buffer_.data(), buffer_.size(), taken, priority);
            while (!queue.try_receive(buffer_.data(), buffer_.size(), taken, priority)) relax(site_);
        }
        unsigned char* data() { return buffer_.data() + sizeof(unsigned); }
        const Site& site_;
        std::deque<Queue> queues_;
        std::vector<unsigned char> buffer_;
        Payload payload_;
    };

    class Server {
      public:
        Server(Ground&, const Site& site) : side_(site), replies_(site.replies()) {}
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
        Client(Ground&, const Site& site, unsigned number) : side_(site), number_(number) {}
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
static_assert(Transport<BoostMq>);

}  // namespace qel_bench
