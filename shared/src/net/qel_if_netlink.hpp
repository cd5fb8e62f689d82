// The kernel's language about links, rtnetlink: messages taken apart and a request put together, over bytes
// alone. See rtnetlink(7).
//
//     datagram: message, message, ...       each at a multiple of 4
//     message:  nlmsghdr (16 bytes)  ifinfomsg (16)  attribute, attribute, ...
//     attribute: rtattr (4 bytes: length, type)  value
//
// Nothing that a message says of lengths is believed before it is held against what is there.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qel::netlink {

// What a message says of a link.
struct Link {
    static constexpr std::size_t kNameSize = 64;  // with the final zero

    std::uint32_t index;
    std::uint32_t flags;          // IFF_*
    std::uint16_t type;           // ARPHRD_*
    std::uint8_t address_length;  // bytes of 'address' that the message has
    bool has_mtu, has_base;
    std::uint32_t mtu;   // bytes
    std::uint32_t base;  // the index of the link below
    std::array<std::uint8_t, 6> address;
    std::array<char, kNameSize> name;
};

enum class Kind : std::uint8_t { new_link, deleted_link, error, done, other };

struct Message {
    Kind kind;
    bool is_interrupted;  // the kernel's list changed during the dump that this is of
    Link link;            // of the first two kinds
};

// Goes through the messages of a datagram.
class Reader {
  public:
    explicit Reader(std::span<const std::byte> datagram) : rest_(datagram) {}
    // Takes the next message apart; false at the end, which a message that is no whole one is, too.
    bool next(Message& message);

  private:
    std::span<const std::byte> rest_;
};

// A request for all links.
inline constexpr std::size_t kListRequestSize = 17;
std::array<std::byte, kListRequestSize> list_request(std::uint32_t port);

}  // namespace qel::netlink
