// The example "pakdump" on a capture made here: frames of all kinds that it knows, right, wrong and cut
// short.
#include "net/pak_model.hpp"
#include "support/support.hpp"

#include <pcap/pcap.h>

#include <cstdio>
#include <filesystem>

using namespace qel_test;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes word(std::size_t value) {
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}
// Stores the checksum of 'covered' at 'at'.
void seal(Bytes& bytes, std::size_t at, const Bytes& covered) {
    const auto sum = static_cast<std::uint16_t>(~sum_by_the_book(covered.data(), covered.size()));
    std::memcpy(bytes.data() + at, &sum, sizeof(sum));
}

const Bytes kText = {'o', 'd', 'd'}, kAddresses4 = {10, 0, 0, 1, 10, 0, 0, 2};

Bytes udp(const Bytes& pseudo_addresses) {
    Bytes datagram = word(1000) + word(53) + word(8 + kText.size()) + word(0) + kText;
    seal(datagram, 6, pseudo_addresses + word(17) + word(datagram.size()) + datagram);
    return datagram;
}
Bytes tcp(const Bytes& pseudo_addresses) {
    Bytes segment = word(4000) + word(179) + Bytes(16, 0x50) + kText;
    segment[16] = segment[17] = 0;
    seal(segment, 16, pseudo_addresses + word(6) + word(segment.size()) + segment);
    return segment;
}
Bytes ipv4(std::uint8_t protocol, const Bytes& payload, std::size_t fragment = 0, std::uint8_t service = 0) {
    Bytes header = Bytes{0x46, service} + word(24 + payload.size()) + word(7) + word(fragment) +
                   Bytes{64, protocol, 0, 0} + kAddresses4 + Bytes{1, 1, 1, 0};
    seal(header, 10, header);
    return header + payload;
}
Bytes ipv6(std::uint8_t protocol, const Bytes& addresses, const Bytes& payload) {
    return Bytes{0x6e, 0, 0, 0} + word(payload.size()) + Bytes{protocol, 64} + addresses + payload;
}
Bytes ethernet(const Bytes& tags, std::size_t type, const Bytes& payload) {
    return Bytes(12, 2) + tags + word(type) + payload;
}

struct Result {
    int code;
    std::string text;
};
Result dump(const std::string& file) {
    FILE* output = popen((QEL_PAKDUMP " " + file + " " + shm_root()).c_str(), "r");
    Result result{-1, ""};
    char part[512];
    while (std::fgets(part, sizeof(part), output) != nullptr) result.text += part;
    result.code = pclose(output);
    return result;
}

TEST(Pakdump, verifies_what_was_transmitted_and_orders_by_priority) {
    const Bytes addresses6 = Bytes(16, 0x20) + Bytes(16, 0x21), vlan5 = Bytes{0x81, 0, 0xa0, 100};
    Bytes bad_udp = udp(kAddresses4), no_udp = bad_udp, bad_header = ipv4(17, bad_udp);
    ++bad_udp[9];
    no_udp[6] = no_udp[7] = 0;
    ++bad_header[8];
    Bytes cut = ethernet({}, 0x0800, ipv4(6, tcp(kAddresses4)));
    cut.resize(cut.size() - 1);
    const Bytes frames[] = {
        ethernet({}, 0x0800, ipv4(17, udp(kAddresses4))),
        ethernet(vlan5, 0x0800, ipv4(6, tcp(kAddresses4))),
        ethernet({}, 0x86dd, ipv6(17, addresses6, udp(addresses6))),
        ethernet(Bytes{0x88, 0xa8, 0, 1} + vlan5, 0x86dd, ipv6(6, addresses6, tcp(addresses6))),
        ethernet({}, 0x0800, ipv4(17, bad_udp)),
        ethernet({}, 0x0800, ipv4(17, no_udp, 0, 0xe0)),
        ethernet({}, 0x0800, bad_header) + Bytes(10, 0),  // padded
        ethernet({}, 0x0800, ipv4(17, udp(kAddresses4), 100)),
        ethernet({}, 0x0806, Bytes(28, 1)),
        cut,
        Bytes(5, 1),
        ethernet(vlan5, 0x8100, {0}),
    };
    const std::string file = testing::TempDir() + "pakdump" + std::to_string(getpid()) + ".pcap";
    pcap_t* link = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* capture = pcap_dump_open(link, file.c_str());
    ASSERT_NE(capture, nullptr);
    for (const Bytes& frame : frames) {
        const auto length = static_cast<bpf_u_int32>(frame.size());
        const pcap_pkthdr header{{}, length, length};
        pcap_dump(reinterpret_cast<u_char*>(capture), &header, frame.data());
    }
    pcap_dump_close(capture);
    pcap_close(link);

    const Result result = dump(file);
    EXPECT_EQ(result.code, 0);
    const char* lines[] = {
        "frame 1, priority 0, type 0x0800, header checksum ok, udp 1000 > 53, checksum ok\n",
        "frame 2, priority 5, type 0x0800, vlan 100, header checksum ok, tcp 4000 > 179, checksum ok\n",
        "frame 3, priority 7, type 0x86dd, udp 1000 > 53, checksum ok\n",
        "frame 4, priority 5, type 0x86dd, vlan 100, tcp 4000 > 179, checksum ok\n",
        "frame 5, priority 0, type 0x0800, header checksum ok, udp 1000 > 53, checksum BAD\n",
        "frame 6, priority 7, type 0x0800, header checksum ok, udp 1000 > 53, checksum none\n",
        "frame 7, priority 0, type 0x0800, header checksum BAD, udp 1000 > 53, checksum ok\n",
        "frame 8, priority 0, type 0x0800, header checksum ok\n",
        "frame 9, priority 0, type 0x0806\n",
        "frame 10, priority 0, type 0x0800, header checksum ok, tcp 4000 > 179, checksum none, CUT SHORT\n",
        "frame 11, priority 0, type 0x0000, CUT SHORT\n",
        "frame 12, priority 5, type 0x8100, vlan 100, CUT SHORT\n",
        "12 frames, 0 lost\n",
    };
    for (const char* line : lines) EXPECT_THAT(result.text, testing::HasSubstr(line));
    std::size_t at = 0;
    for (int frame : {3, 6, 2, 4, 12, 1, 5, 7, 8, 9, 10, 11}) {
        const std::size_t found = result.text.find("frame " + std::to_string(frame) + ",");
        EXPECT_TRUE(found != std::string::npos && found >= at) << frame;
        at = found;
    }
    EXPECT_THAT(result.text, testing::HasSubstr("Network offset:14\n Trasport offset:38,"));
    EXPECT_THAT(result.text, testing::HasSubstr("Packet Data Portion:\n 0101010101\n"));
    std::filesystem::remove(file);
    EXPECT_EQ(dump(file).code, 1 << 8) << "there is no such file";
}

}  // namespace
