/* Reads a capture file and prints its frames, the urgent ones first, with what their checksums are worth.
 *
 *     pakdump FILE [ROOT]       ROOT: prefix of the library's names in shared memory, /pakdump. if left out
 *
 * Each frame becomes a packet. Its headers are found by reading through the packet, so a short or lying one
 * can't lead outside: a read that would is refused, and the frame is told as cut short. What was found goes
 * with the packet, as a context of this module; the packet waits in the queue of its priority. */
#include <qel/pak.h>
#include <qel/pak_ctx.h>
#include <qel/ppm.h>

#include <arpa/inet.h>
#include <inttypes.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <stdio.h>

enum { ETHER_HEADER = 14, VLAN_TAG = 4, UDP_HEADER = 8, TCP_HEADER = 20, PRIORITIES = 8 };
enum { TYPE_IPV4 = 0x0800, TYPE_VLAN = 0x8100, TYPE_IPV6 = 0x86dd, TYPE_SERVICE_VLAN = 0x88a8 };

/* What is known of a checksum. */
typedef enum { NONE, GOOD, BAD } verdict;
static const char* const verdicts[] = {"none", "ok", "BAD"};

/* The context of this module on each packet. */
struct finding {
    unsigned frame;
    unsigned vlan; /* 0 without a tag */
    unsigned type; /* of Ethernet */
    unsigned protocol;
    unsigned source, destination; /* ports */
    uint8_t cut_short, has_transport;
    verdict ip, transport;
};

static uint32_t finding_type;
static qel_queue queues[PRIORITIES];

/* Adds one's-complement sums as they come from the packet. */
static uint16_t add_sums(uint32_t a, uint32_t b) {
    const uint32_t sum = a + b;
    return (uint16_t)((sum & 0xffff) + (sum >> 16));
}

/* Adds the sum of a range of the packet; false when the datagram ends in it. */
static int add_range(const qel_pak* pak, uint32_t from, size_t position, size_t length, uint16_t* sum) {
    uint16_t part = 0;
    uint8_t last = 0;
    if (length == 0) return 1;
    if (qel_pak_uint8_get(pak, from, position + length - 1, &last) != 0) return 0;
    if (qel_pak_checksum(pak, from, position, length, &part) != 0) return 0;
    *sum = add_sums(*sum, part);
    return 1;
}

static int get8(const qel_pak* pak, uint32_t from, size_t position, unsigned* value) {
    uint8_t byte = 0;
    const int there = qel_pak_uint8_get(pak, from, position, &byte) == 0;
    *value = byte;
    return there;
}

static int get16(const qel_pak* pak, uint32_t from, size_t position, unsigned* value) {
    uint16_t word = 0;
    const int there = qel_pak_uint16_get(pak, from, position, &word) == 0;
    *value = word;
    return there;
}

/* Verifies UDP and TCP, whose sum covers addresses, protocol and length, too. */
static int read_transport(qel_pak* pak, struct finding* found, size_t addresses, size_t addresses_size,
                          size_t length) {
    const int is_udp = found->protocol == IPPROTO_UDP;
    unsigned stored = 0;
    uint16_t sum = add_sums(htons((uint16_t)found->protocol), htons((uint16_t)length));
    if (!is_udp && found->protocol != IPPROTO_TCP) return 1;
    if (length < (is_udp ? UDP_HEADER : TCP_HEADER)) return 0;
    if (!get16(pak, QEL_PAK_TRANSPORT, 0, &found->source) ||
        !get16(pak, QEL_PAK_TRANSPORT, 2, &found->destination) ||
        !get16(pak, QEL_PAK_TRANSPORT, is_udp ? 6 : 16, &stored))
        return 0;
    found->has_transport = 1;
    if (is_udp && stored == 0 && found->type == TYPE_IPV4) return 1; /* its sender made none */
    if (!add_range(pak, QEL_PAK_NETWORK, addresses, addresses_size, &sum) ||
        !add_range(pak, QEL_PAK_TRANSPORT, 0, length, &sum))
        return 0;
    found->transport = sum == 0xffff ? GOOD : BAD;
    return 1;
}

static int read_ipv4(qel_pak* pak, struct finding* found) {
    unsigned first = 0, service = 0, length = 0, fragment = 0;
    uint16_t sum = 0;
    if (!get8(pak, QEL_PAK_NETWORK, 0, &first) || !get8(pak, QEL_PAK_NETWORK, 1, &service) ||
        !get16(pak, QEL_PAK_NETWORK, 2, &length) || !get16(pak, QEL_PAK_NETWORK, 6, &fragment) ||
        !get8(pak, QEL_PAK_NETWORK, 9, &found->protocol))
        return 0;
    const size_t header = (first & 0xf) * (size_t)4;
    if (header < 20 || length < header || !add_range(pak, QEL_PAK_NETWORK, 0, header, &sum)) return 0;
    found->ip = sum == 0xffff ? GOOD : BAD;
    if (found->vlan == 0) qel_pak_set_priority(pak, service >> 5); /* the class of RFC 2474 */
    if ((fragment & 0x3fff) != 0 || length == header) return 1;    /* a part of a datagram only */
    size_t network = 0;
    qel_pak_get_offset(pak, QEL_PAK_NETWORK, &network);
    if (qel_pak_set_offset(pak, QEL_PAK_TRANSPORT, network + header) != 0) return 0;
    return read_transport(pak, found, 12, 8, length - header);
}

static int read_ipv6(qel_pak* pak, struct finding* found) {
    unsigned first = 0, length = 0;
    size_t network = 0;
    if (!get16(pak, QEL_PAK_NETWORK, 0, &first) || !get16(pak, QEL_PAK_NETWORK, 4, &length) ||
        !get8(pak, QEL_PAK_NETWORK, 6, &found->protocol))
        return 0;
    if (found->vlan == 0) qel_pak_set_priority(pak, first >> 9 & 7);
    qel_pak_get_offset(pak, QEL_PAK_NETWORK, &network);
    if (qel_pak_set_offset(pak, QEL_PAK_TRANSPORT, network + 40) != 0) return length == 0;
    return read_transport(pak, found, 8, 32, length);
}

/* Finds the headers. 0 when the frame ends before they do. */
static int read_frame(qel_pak* pak, struct finding* found) {
    size_t network = ETHER_HEADER;
    if (!get16(pak, QEL_PAK_DATAGRAM, 12, &found->type)) return 0;
    for (; found->type == TYPE_VLAN || found->type == TYPE_SERVICE_VLAN; network += VLAN_TAG) {
        unsigned tag = 0;
        if (!get16(pak, QEL_PAK_DATAGRAM, network, &tag) ||
            !get16(pak, QEL_PAK_DATAGRAM, network + 2, &found->type))
            return 0;
        found->vlan = tag & 0xfff;
        qel_pak_set_priority(pak, tag >> 13);
    }
    if (qel_pak_set_offset(pak, QEL_PAK_NETWORK, network) != 0) return 0;
    qel_pak_set_proto_id(pak, found->type);
    if (found->type == TYPE_IPV4) return read_ipv4(pak, found);
    if (found->type == TYPE_IPV6) return read_ipv6(pak, found);
    return 1;
}

/* Makes a packet of a frame and queues it. 0 when there is no memory. */
static int take_frame(unsigned number, const unsigned char* bytes, size_t length) {
    qel_pak* pak = NULL;
    struct finding found = {0};
    uint32_t priority = 0;
    if (qel_pak_from_buf_lnx(bytes, length, &pak) != 0) return 0;
    found.frame = number;
    found.cut_short = !read_frame(pak, &found);
    qel_pak_get_priority(pak, &priority);
    if (qel_pak_ctx_set(finding_type, pak, &found, sizeof found) == 0 &&
        qel_pak_queue_enqueue(&queues[priority % PRIORITIES], pak) == 0)
        return 1;
    qel_pak_return_buffer(&pak);
    return 0;
}

static void print_finding(const struct finding* found, uint32_t priority) {
    printf("frame %u, priority %u, type 0x%04x", found->frame, priority, found->type);
    if (found->vlan != 0) printf(", vlan %u", found->vlan);
    if (found->type == TYPE_IPV4) printf(", header checksum %s", verdicts[found->ip]);
    if (found->has_transport)
        printf(", %s %u > %u, checksum %s", found->protocol == IPPROTO_UDP ? "udp" : "tcp", found->source,
               found->destination, verdicts[found->transport]);
    printf("%s\n", found->cut_short ? ", CUT SHORT" : "");
}

static void print_and_return(qel_pak* pak) {
    const qel_pak_dump_req request = {QEL_PAK_DUMP_HEADER | QEL_PAK_DUMP_DATA, QEL_PAK_DATAGRAM, 0, 64};
    struct finding found = {0};
    size_t length = sizeof found;
    uint32_t priority = 0;
    char text[512];
    qel_pak_get_priority(pak, &priority);
    if (qel_pak_ctx_get(finding_type, pak, &found, &length) == 0) print_finding(&found, priority);
    if (qel_pak_dump(pak, text, sizeof text, &request, &length) == 0) printf("%s\n", text);
    qel_pak_return_buffer(&pak);
}

int main(int argc, char** argv) {
    char why[PCAP_ERRBUF_SIZE] = "usage: pakdump FILE [ROOT]";
    qel_ppm_set_string("qel.shm.root", argc == 3 ? argv[2] : "/pakdump.");
    pcap_t* capture = argc == 2 || argc == 3 ? pcap_open_offline(argv[1], why) : NULL;
    if (capture == NULL) {
        fprintf(stderr, "pakdump: %s\n", why);
        return 1;
    }
    struct pcap_pkthdr* header = NULL;
    const unsigned char* bytes = NULL;
    unsigned taken = 0, lost = 0;
    int more = qel_pak_ctx_register("finding", sizeof(struct finding), &finding_type) == 0;
    while (more && (more = pcap_next_ex(capture, &header, &bytes)) == 1)
        if (!take_frame(taken + lost + 1, bytes, header->caplen))
            ++lost;
        else
            ++taken;
    for (int priority = PRIORITIES; priority-- > 0;)
        for (qel_pak* pak = NULL; (pak = qel_pak_queue_dequeue(&queues[priority])) != NULL;)
            print_and_return(pak);
    printf("%u frames, %u lost\n", taken, lost);
    pcap_close(capture);
    return more == PCAP_ERROR || lost != 0;
}
