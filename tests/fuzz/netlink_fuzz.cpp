// Datagrams about links: whatever they hold, reading them ends, stays within them, and gives sound links.
#include "fuzz/fuzz_support.hpp"
#include "net/qel_if_netlink.hpp"

using namespace qel_fuzz;
using qel::netlink::Kind;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLeastMessage = 16;
    qel::netlink::Reader reader{{reinterpret_cast<const std::byte*>(data), size}};
    std::size_t messages = 0;
    for (qel::netlink::Message message; reader.next(message); ++messages) {
        if (message.kind != Kind::new_link && message.kind != Kind::deleted_link) continue;
        const qel::netlink::Link& link = message.link;
        require(link.index > 0 && link.index <= INT32_MAX);
        require(link.address_length <= link.address.size());
        require(std::memchr(link.name.data(), 0, link.name.size()) != nullptr);
    }
    require(messages <= size / kLeastMessage);
    return 0;
}
