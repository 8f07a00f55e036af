/**
 * What IP carries: UDP, TCP, the control protocols, and packets in packets.
 */
#include "draft.h"

#include <netinet/in.h>

namespace
{

constexpr uint8_t gre = 47, vrrp = 112, ospf = 89, unassigned = 253;
constexpr uint16_t vxlanPort = 4789;

/** The sum of the header that a checksum pretends to cover (RFC 9293, 3.1; RFC 8200, 8.1). */
uint32_t pretended(const Ends &ends, uint8_t protocol, size_t length)
{
    return sumOf(ends.source, sumOf(ends.destination)) + protocol + static_cast<uint32_t>(length);
}

/** Put the checksum in place, or another one. */
void seal(Draft &d, const Ends &ends, Transport *t, size_t at)
{
    const uint32_t sum = pretended(ends, t->protocol, t->octets.size());
    if (d.offload.kind != Offload::None) {
        d.offload.checksumOffset = static_cast<uint16_t>(at);
        put16(t->octets, at, folded(sum));
        return;
    }
    const uint16_t right = checksum(t->octets, sum);
    put16(t->octets, at, right == 0 ? 0xffff : right);
    if (!d.liesOnceIn(20))
        return;
    d.note("a wrong checksum");
    put16(t->octets, at, right ^ 0x5555);
}

/** The frame's number, and something behind it. */
Octets payload(Draft &d)
{
    static constexpr uint16_t sizes[] = {24, 8, 100, 600, 1400, 4000, 8000};
    const uint16_t size = d.usually(sizes, 4);
    return OctetWriter().bytes(markOf(d.id)).padded(size);
}

/** The same many times: a super-frame that is cut up behind the port. */
Octets payloads(Draft &d, Offload::Kind kind, uint16_t headers)
{
    static constexpr uint16_t sizes[] = {64, 300, 1400};
    d.offload = {kind, d.choose.of(sizes), headers, 0, 0};
    const unsigned count = 2 + d.choose.below(40);
    d.note("a super-frame of packets", count);
    OctetWriter all;
    for (unsigned i = 0; i < count; i++)
        all.bytes(OctetWriter().bytes(markOf(d.id)).padded(d.offload.segment));
    return all.octets();
}

bool isSuper(Draft &d)
{
    return d.superFrames && d.depth == 0 && d.choose.rarely(4);
}

uint16_t toPort(Draft &d, const char *what, uint16_t port)
{
    d.note(what, port);
    return port;
}

uint16_t udpDestination(Draft &d, const Ends &ends)
{
    if (d.choose.rarely(20))
        return toPort(d, "UDP to a port", static_cast<uint16_t>(d.choose.below(65536)));
    if (d.choose.rarely(4))
        return toPort(d, "UDP to port", ends.isSix() ? 547 : 67);
    return toPort(d, "UDP to port",
                  ends.isSix() ? d.choose.of(udpListeners6) : d.choose.of(udpListeners4));
}

uint16_t udpSource(Draft &d)
{
    static constexpr uint16_t ports[] = {40000, 67, 68, 123, 546, 547, 0, 65535};
    const uint16_t port = d.usually(ports, 3);
    if (port != ports[0])
        d.note("from port", port);
    return port;
}

/** What the length field says. */
uint16_t udpLength(Draft &d, size_t right)
{
    switch (d.lie({8, 1, 1, 1, 1})) {
    case 1: d.note("UDP length 0"); return 0;
    case 2:
        d.note("UDP length within its header");
        return static_cast<uint16_t>(1 + d.choose.below(7));
    case 3: d.note("UDP length short"); return static_cast<uint16_t>(8 + d.choose.below(8));
    case 4:
        d.note("UDP length beyond");
        return static_cast<uint16_t>(right + 1 + d.choose.below(99));
    default: return static_cast<uint16_t>(right);
    }
}

Transport udp(Draft &d, const Ends &ends)
{
    constexpr uint16_t header = 8;
    OctetWriter writer;
    writer.u16(udpSource(d)).u16(udpDestination(d, ends));
    const Octets data = isSuper(d) ? payloads(d, Offload::Udp, header) : payload(d);
    const size_t right = header + data.size();
    writer.u16(d.offload.kind == Offload::None ? udpLength(d, right) : right).u16(0).bytes(data);
    Transport t{IPPROTO_UDP, writer.octets()};
    if (d.offload.kind == Offload::None && !ends.isSix() && d.choose.rarely(10))
        d.note("no checksum");
    else
        seal(d, ends, &t, 6);
    return t;
}

uint8_t tcpFlags(Draft &d)
{
    static constexpr uint8_t others[] = {0x10, 0x12, 0x00, 0xc2, 0x04, 0x11, 0xff, 0x18};
    if (!d.choose.rarely(3))
        return 0x02; // SYN
    const uint8_t flags = d.choose.of(others);
    d.note("with flags", flags);
    return flags;
}

/** The header's length, in words of 32 bits. */
uint8_t tcpWords(Draft &d)
{
    if (!d.liesOnceIn(10))
        return 5;
    const auto words = static_cast<uint8_t>(d.choose.below(16));
    d.note("a TCP header of words", words);
    return words;
}

Transport tcp(Draft &d, const Ends &ends)
{
    static constexpr uint16_t tcpPorts[] = {22, guardedTcpPort, namedTcpPort, guardedTcpPort,
                                            80, namedTcpPort,   21,           646};
    constexpr uint16_t header = 20;
    OctetWriter writer;
    writer.u16(40000).u16(toPort(d, "TCP to port", d.choose.of(tcpPorts))).u32(d.id).u32(0);
    const uint8_t words = tcpWords(d);
    writer.u8({static_cast<uint8_t>(words << 4), tcpFlags(d)}).u16(8192).u16(0).u16(0);
    if (isSuper(d))
        writer.bytes(payloads(d, ends.isSix() ? Offload::Tcp6 : Offload::Tcp4, header));
    else if (d.choose.rarely(4))
        writer.bytes(payload(d));
    Transport t{IPPROTO_TCP, writer.octets()};
    seal(d, ends, &t, 16);
    return t;
}

/** A message that begins with its type, as those of ICMP and IGMP do. */
Octets message(Draft &d, uint8_t type, uint8_t code, size_t before)
{
    OctetWriter writer;
    writer.u8({type, code}).u16(0).zeros(before).bytes(payload(d));
    return writer.octets();
}

Transport icmp(Draft &d, const Ends &)
{
    static constexpr uint8_t types[] = {8, 0, 13, 17, 3, 5, 11, 10, 40};
    const uint8_t type = d.usually(types, 3);
    d.note("ICMP of type", type);
    Transport t{IPPROTO_ICMP, message(d, type, 0, 4)};
    put16(t.octets, 2, checksum(t.octets));
    return t;
}

Transport igmp(Draft &d, const Ends &)
{
    static constexpr uint8_t types[] = {0x16, 0x11, 0x12, 0x17, 0x22, 0x13, 0x00};
    const uint8_t type = d.choose.of(types);
    d.note("IGMP of type", type);
    Transport t{IPPROTO_IGMP, message(d, type, 0, 4), 1};
    put16(t.octets, 2, checksum(t.octets));
    return t;
}

/** Neighbour solicitation, with the address that is looked for, and the sender's (RFC 4861). */
Transport solicitation(Draft &d, const Ends &ends)
{
    d.note("neighbour solicitation");
    OctetWriter writer;
    writer.u8({135, 0}).u16(0).u32(0).bytes(destinations6()[0].octets);
    writer.u8({1, 1}).bytes(gatewayMac);
    Transport t{IPPROTO_ICMPV6, writer.octets(), 255};
    seal(d, ends, &t, 2);
    return t;
}

Transport icmp6(Draft &d, const Ends &ends)
{
    static constexpr uint8_t types[] = {128, 129, 130, 131, 133, 134, 136, 137, 143, 3, 200};
    if (d.choose.rarely(3))
        return solicitation(d, ends);
    const uint8_t type = d.usually(types, 3);
    d.note("ICMPv6 of type", type);
    const bool isLocal = type >= 130 && type <= 137;
    Transport t{IPPROTO_ICMPV6, message(d, type, 0, type == 130 ? 20 : 4),
                static_cast<uint8_t>(isLocal ? type <= 132 ? 1 : 255 : 64)};
    seal(d, ends, &t, 2);
    return t;
}

/** A protocol that a socket takes whole. */
Transport raw(Draft &d, const Ends &)
{
    static constexpr uint8_t protocols[] = {ospf,       IPPROTO_PIM, vrrp,         IPPROTO_ESP,
                                            unassigned, IPPROTO_AH,  IPPROTO_SCTP, gre};
    const uint8_t protocol = d.choose.of(protocols);
    d.note("protocol", protocol);
    return {protocol, payload(d), static_cast<uint8_t>(protocol == vrrp ? 255 : 64)};
}

/** What packets in other packets begin with. */
struct Shell {
    const char *what;
    uint8_t protocol;
    bool isSix;
    Octets head;
};

const std::vector<Shell> &shells()
{
    const Octets vxlan = OctetWriter()
                             .u16(40000)
                             .u16(vxlanPort)
                             .u16(0)
                             .u16(0)
                             .u32(0x08000000)
                             .u32(0x300)
                             .bytes(ownMac)
                             .bytes(gatewayMac)
                             .u16(0x0800)
                             .octets();
    static const std::vector<Shell> all = {
        {"IPv4 inside", IPPROTO_IPIP, false, {}},
        {"IPv6 inside", IPPROTO_IPV6, true, {}},
        {"GRE with IPv4 inside", gre, false, {0, 0, 0x08, 0x00}},
        {"GRE with IPv6 inside", gre, true, {0, 0, 0x86, 0xdd}},
        {"VXLAN with IPv4 inside", IPPROTO_UDP, false, vxlan},
    };
    return all;
}

Transport encapsulated(Draft &d, const Ends &ends)
{
    if (d.depth > 0)
        return raw(d, ends);
    const Shell &shell = d.choose.of(shells());
    d.note(shell.what);
    d.depth++;
    const Content content = shell.isSix ? ipv6(d) : ipv4(d);
    d.depth--;
    OctetWriter writer;
    writer.bytes(shell.head).bytes(content.packets.front());
    Transport t{shell.protocol, writer.octets()};
    if (shell.protocol == IPPROTO_UDP)
        put16(t.octets, 4, static_cast<unsigned>(t.octets.size()));
    return t;
}

} // namespace

Transport transport(Draft &d, const Ends &ends)
{
    switch (d.choose.weighted({6, 4, 3, 2, 3, 1})) {
    case 1: return tcp(d, ends);
    case 2: return ends.isSix() ? icmp6(d, ends) : icmp(d, ends);
    case 3: return ends.isSix() ? icmp6(d, ends) : igmp(d, ends);
    case 4: return raw(d, ends);
    case 5: return encapsulated(d, ends);
    default: return udp(d, ends);
    }
}
