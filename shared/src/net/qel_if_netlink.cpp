// Reading and writing rtnetlink messages, see the header. No state, no locks, no system call.
#include "net/qel_if_netlink.hpp"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace qel::netlink {
namespace {

using Bytes = std::span<const std::byte>;

constexpr std::size_t kAlign = 4;
static_assert(sizeof(nlmsghdr) == 16 && sizeof(ifinfomsg) == 16 && sizeof(rtattr) == 4);

template <class Record>
Record load(Bytes from) {
    Record record;
    std::memcpy(&record, from.data(), sizeof(record));
    return record;
}

// What lies behind a piece of 'length' bytes.
Bytes behind(Bytes bytes, std::size_t length) {
    return bytes.subspan(std::min(bytes.size(), (length + kAlign - 1) & ~(kAlign - 1)));
}

Kind kind_of(std::uint16_t type) {
    switch (type) {
    case NLMSG_ERROR:
        return Kind::error;
    case NLMSG_DONE:
        return Kind::done;
    case RTM_NEWLINK:
        return Kind::new_link;
    case RTM_DELLINK:
        return Kind::deleted_link;
    default:
        return Kind::other;
    }
}

void take_number(Bytes value, bool& has, std::uint32_t& number) {
    if (value.size() < sizeof(number)) return;
    has = true;
    number = load<std::uint32_t>(value);
}

void take_attribute(Link& link, std::uint16_t type, Bytes value) {
    switch (type) {
    case IFLA_ADDRESS:
        link.address_length = static_cast<std::uint8_t>(std::min(value.size(), link.address.size()));
        std::memcpy(link.address.data(), value.data(), link.address_length);
        break;
    case IFLA_IFNAME: {
        const auto* text = reinterpret_cast<const char*>(value.data());
        const std::size_t length = strnlen(text, std::min(value.size(), Link::kNameSize - 1));
        link.name = {};
        std::memcpy(link.name.data(), text, length);
        break;
    }
    case IFLA_MTU:
        return take_number(value, link.has_mtu, link.mtu);
    case IFLA_LINK:
        return take_number(value, link.has_base, link.base);
    default:
        break;
    }
}

// False for what isn't about a link itself: a bridge speaks of its ports in the same words.
bool take_link(Bytes body, Link& link) {
    if (body.size() < sizeof(ifinfomsg)) return false;
    const auto info = load<ifinfomsg>(body);
    if (info.ifi_index <= 0 || (info.ifi_family != AF_UNSPEC && info.ifi_family != AF_PACKET)) return false;
    link = {};
    link.index = static_cast<std::uint32_t>(info.ifi_index);
    link.type = info.ifi_type;
    link.flags = info.ifi_flags;
    for (Bytes rest = behind(body, sizeof(info)); rest.size() >= sizeof(rtattr);) {
        const auto attribute = load<rtattr>(rest);
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > rest.size()) break;
        take_attribute(link, attribute.rta_type, rest.first(attribute.rta_len).subspan(sizeof(rtattr)));
        rest = behind(rest, attribute.rta_len);
    }
    return true;
}

}  // namespace

bool Reader::next(Message& message) {
    if (rest_.size() < sizeof(nlmsghdr)) return false;
    const auto header = load<nlmsghdr>(rest_);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > rest_.size()) return false;
    const Bytes body = rest_.first(header.nlmsg_len).subspan(sizeof(nlmsghdr));
    rest_ = behind(rest_, header.nlmsg_len);
    message.kind = kind_of(header.nlmsg_type);
    message.is_interrupted = (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    const bool is_of_link = message.kind == Kind::new_link || message.kind == Kind::deleted_link;
    if (is_of_link && !take_link(body, message.link)) message.kind = Kind::other;
    return true;
}

std::array<std::byte, kListRequestSize> list_request(std::uint32_t port) {
    struct Request {
        nlmsghdr header;
        rtgenmsg body;
    };
    static_assert(offsetof(Request, body) == 16 && offsetof(nlmsghdr, nlmsg_pid) == 12);
    constexpr std::uint16_t kFlags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
    static_assert(RTM_GETLINK == 18 && kFlags == 0x0301);
    const Request request{{kListRequestSize, RTM_GETLINK, kFlags, 1, port}, {AF_PACKET}};
    std::array<std::byte, kListRequestSize> bytes;
    std::memcpy(bytes.data(), &request, bytes.size());
    return bytes;
}

}  // namespace qel::netlink
