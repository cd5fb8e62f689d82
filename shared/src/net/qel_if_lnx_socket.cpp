// Sockets to the kernel's list of links, by netlink(7). No state and no locks.
#include "net/qel_if_lnx_socket.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "core/qel_codes.hpp"
#include "net/qel_if_netlink.hpp"

namespace qel::netlink {
namespace {

constexpr std::uint32_t kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
static_assert(kGroups == 0x111);
// Room for the news of some three thousand links; what a process without rights gets is less.
constexpr int kEventRoom = 4 << 20;
constexpr timeval kPatience{5, 0};
constexpr int kMostForeign = 1000;  // datagrams in a row that aren't the kernel's

cerrno open_socket(Socket& socket, std::uint32_t port, std::uint32_t groups, bool& is_bound) {
    socket.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket) return fatal(errno);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = port;
    address.nl_groups = groups;
    is_bound = bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    return 0;
}

}  // namespace

void close_socket(int fd) {
    close(fd);
}

// An address that is taken is no harm: the kernel gives the socket another with its first message.
cerrno attr_socket_create(Socket& socket) {
    bool is_bound = false;
    Socket made;
    if (cerrno error = open_socket(made, static_cast<std::uint32_t>(getpid()), 0, is_bound); error != 0)
        return error;
    // A kernel that stays silent fails the dump, later.
    static_cast<void>(setsockopt(made.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience)));
    socket = std::move(made);
    return 0;
}

// The address is the kernel's choice: the socket for dumps has the process's own.
cerrno event_socket_create(Socket& socket) {
    bool is_bound = false;
    Socket made;
    if (cerrno error = open_socket(made, 0, kGroups, is_bound); error != 0) return error;
    if (!is_bound) return fatal(errno);
    if (setsockopt(made.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kEventRoom, sizeof(kEventRoom)) != 0)
        static_cast<void>(setsockopt(made.get(), SOL_SOCKET, SO_RCVBUF, &kEventRoom, sizeof(kEventRoom)));
    socket = std::move(made);
    return 0;
}

cerrno attr_socket_send_listreq(int fd) {
    auto request = list_request(static_cast<std::uint32_t>(getpid()));
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec piece{request.data(), request.size()};
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof(kernel);
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    return sendmsg(fd, &message, 0) >= 0 ? 0 : fatal(errno);
}

Arrival receive(int fd, bool wait, std::span<std::byte> room, std::span<const std::byte>& datagram) {
    for (int foreign = 0; foreign < kMostForeign;) {
        sockaddr_nl sender{};
        iovec piece{room.data(), room.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof(sender);
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        const ssize_t size = recvmsg(fd, &message, wait ? 0 : MSG_DONTWAIT);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0) return errno == ENOBUFS ? Arrival::lost : Arrival::nothing;
        if (size == 0) return Arrival::nothing;
        if (sender.nl_pid != 0) {  // any process with the right to may write to the socket
            ++foreign;
            continue;
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) return Arrival::lost;
        datagram = std::span<const std::byte>{room.data(), static_cast<std::size_t>(size)};
        return Arrival::datagram;
    }
    return Arrival::nothing;
}

}  // namespace qel::netlink
