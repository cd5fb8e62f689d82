// Sockets to the kernel's list of links, for the shim of the library.
//
// The calls expect an open descriptor and a buffer of kDatagramSize bytes. The kernel sends no longer
// datagrams; one that is longer all the same counts as lost.
#pragma once

#include <qel/cerrno.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "core/qel_owned.hpp"

namespace qel::netlink {

inline constexpr std::size_t kDatagramSize = 32768;

void close_socket(int fd);
using Socket = Unique<int, close_socket, -1>;

// A socket that a static holds: nobody closes it when the process ends, as threads may be in it still.
class StaticSocket {
  public:
    explicit operator bool() const { return fd_ != -1; }
    int get() const { return fd_; }
    Socket take() { return Socket{std::exchange(fd_, -1)}; }
    void reset(Socket socket = {}) { Socket old{std::exchange(fd_, socket.release())}; }

  private:
    int fd_ = -1;
};

// Opens the socket that dumps are asked for on.
cerrno attr_socket_create(Socket& socket);
// Opens the socket that tells of changes of links and addresses.
cerrno event_socket_create(Socket& socket);
// Asks for a dump.
cerrno attr_socket_send_listreq(int fd);

enum class Arrival : std::uint8_t {
    datagram,
    nothing,  // none waits, or the socket failed
    lost,     // the kernel dropped some because they weren't taken in time
};

// Takes the kernel's next datagram; on a socket for dumps it waits, some seconds at most.
Arrival receive(int fd, bool wait, std::span<std::byte> room, std::span<const std::byte>& datagram);

}  // namespace qel::netlink
