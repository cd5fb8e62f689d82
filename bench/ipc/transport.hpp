// A transport is one way of carrying messages between processes, as its own users would use it:
//
//     struct Transport {
//         static constexpr const char* kName = "...";
//         static bool takes_part(const Site&);                  // in this contest?
//         struct Ground { Ground(const Site&); };               // made before the fork, inherited by all
//         struct Server {
//             Server(Ground&, const Site&);                     // then clients may come
//             void accept();                                    // until all clients are there
//             void serve(std::uint64_t count);                  // takes, and answers if Site::replies()
//         };
//         struct Client {
//             Client(Ground&, const Site&, unsigned number);    // number: 0 to Site::clients - 1
//             void call(Laps&);                                 // round trips while there are more
//             void send(std::uint64_t count);                   // one way
//         };
//     };
//
// Server and client are made in processes of their own, which do nothing but what is told here and sleep in
// between. A batch has a known number of messages, so that nobody has to be told that it's over.
#pragma once

#include <concepts>

#include "ipc/site.hpp"

namespace qel_bench {

template <class T>
concept Transport = requires(typename T::Ground& ground, typename T::Server& server,
                             typename T::Client& client, const Site& site, Laps& laps, std::uint64_t count) {
    { T::kName } -> std::convertible_to<const char*>;
    { T::takes_part(site) } -> std::same_as<bool>;
    typename T::Ground;
    requires std::constructible_from<typename T::Ground, const Site&>;
    requires std::constructible_from<typename T::Server, decltype(ground), const Site&>;
    requires std::constructible_from<typename T::Client, decltype(ground), const Site&, unsigned>;
    server.accept();
    server.serve(count);
    client.call(laps);
    client.send(count);
};

}  // namespace qel_bench
