/**
 * Frames through the packet program in the kernel, without a port: verdict, frame, counters.
 */
#include <gtest/gtest.h>
#include <memory>
#include <set>

#include <bpf/bpf.h>

#include "bpf_probe.h"
#include "frame.h"
#include "policy/policer_settings.h"
#include "program.h"

namespace
{

constexpr Mac paeGroup = bridgeGroup(0x03);
constexpr Mac snapGroup = {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcc};
constexpr Mac igmpGroup = {0x01, 0x00, 0x5e, 0x00, 0x00, 0x01};
constexpr uint8_t igmp = 2, tcp = 6, udp = 17;
constexpr uint16_t moreFragments = 0x2000, dontFragment = 0x4000;

struct Fixture {
    const char *name;
    int type; /**< what the frame is taken for */
    Frame frame;
};

Frame arp(const Mac &to = broadcast)
{
    Frame f(to);
    f.u16(0x0806).decided().u16(1).u16(0x0800).u8({6, 4}).u16(1);
    return f.u8({2, 0, 0, 0, 0, 2, 192, 0, 2, 2}).zeros(6).u8({192, 0, 2, 1}).padded();
}

/** A bridge protocol frame: 802.3 length, LLC, some payload. */
Frame llc(const Mac &to, std::initializer_list<unsigned> header, unsigned length = 38)
{
    return Frame(to).u16(length).u8(header).decided().zeros(35).padded();
}

Frame snap(std::initializer_list<unsigned> oui, unsigned pid, const Mac &to = snapGroup,
           unsigned length = 46)
{
    return Frame(to).u16(length).u8({0xaa, 0xaa, 0x03}).u8(oui).u16(pid).decided().zeros(38);
}

Frame igmpMessage(unsigned messageType)
{
    return Frame(igmpGroup)
        .ipv4({.protocol = igmp, .versionIhl = 0x46, .optionBytes = 4})
        .u8({messageType})
        .decided()
        .zeros(7)
        .padded();
}

Frame udpFrame(unsigned source, unsigned destination, Ipv4 ip = {.protocol = udp})
{
    return Frame(broadcast).ipv4(ip).udp(source, destination).zeros(300);
}

Frame tagged(std::initializer_list<unsigned> tpids)
{
    Frame f(broadcast);
    for (unsigned tpid : tpids)
        f.tag(tpid, 0x0064);
    return f;
}

/** The ARP ethertype behind some tags. */
Frame taggedArp(std::initializer_list<unsigned> tpids)
{
    return tagged(tpids).u16(0x0806).decided().zeros(46);
}

std::vector<Fixture> linkFixtures()
{
    return {
        {"DOT1X to the PAE group", CPD_DOT1X, Frame(paeGroup).u16(0x888e).decided().zeros(46)},
        {"DOT1X to a station", CPD_DOT1X, Frame(host).u16(0x888e).decided().u8({2, 1, 0, 0})},
        {"DOT1X, nothing behind the ethertype", CPD_DOT1X, Frame(paeGroup).u16(0x888e).decided()},
        {"DOT1X in a priority tag", CPD_DOT1X,
         Frame(paeGroup).tag(0x8100, 0xe000).u16(0x888e).decided().zeros(46)},
        {"ethertype before DOT1X", CPD_NO_TYPE, Frame(paeGroup).u16(0x888d).zeros(46)},
        {"ethertype behind DOT1X", CPD_NO_TYPE, Frame(paeGroup).u16(0x888f).zeros(46)},
        {"pre-authentication of 802.11", CPD_NO_TYPE, Frame(host).u16(0x88c7).zeros(46)},
        {"PAE group, but LLDP", CPD_LLDP, Frame(paeGroup).u16(0x88cc).decided().zeros(46)},
        {"PAE group, but LLC", CPD_NO_TYPE, llc(paeGroup, {0x42, 0x42, 0x03})},

        {"ARP request", CPD_ARP, arp()},
        {"ARP to a station", CPD_ARP, arp(host)},
        {"ARP, nothing behind the ethertype", CPD_ARP, Frame(broadcast).u16(0x0806).decided()},
        {"RARP", CPD_NO_TYPE, Frame(broadcast).u16(0x8035).zeros(46)},
        {"ethertype before ARP", CPD_NO_TYPE, Frame(broadcast).u16(0x0805).zeros(46)},
        {"ethertype behind ARP", CPD_NO_TYPE, Frame(broadcast).u16(0x0807).zeros(46)},
        {"ARP in SNAP", CPD_NO_TYPE, snap({0, 0, 0}, 0x0806, broadcast)},
        {"ARP's number where the address stands", CPD_NO_TYPE,
         Frame(Mac{8, 6, 8, 6, 8, 6}, Mac{8, 6, 8, 6, 8, 6}).u16(0x0800).zeros(46)},

        {"ARP, 802.1Q", CPD_ARP, taggedArp({0x8100})},
        {"ARP, 802.1ad", CPD_ARP, taggedArp({0x88a8})},
        {"ARP, old stacking tag", CPD_ARP, taggedArp({0x9100})},
        {"ARP, 802.1ad and 802.1Q", CPD_ARP, taggedArp({0x88a8, 0x8100})},
        {"ARP, 802.1Q twice", CPD_ARP, taggedArp({0x8100, 0x8100})},
        {"ARP, old stacking tag and 802.1Q", CPD_ARP, taggedArp({0x9100, 0x8100})},
        {"ARP behind three tags", CPD_ARP, taggedArp({0x88a8, 0x8100, 0x8100})},
        {"ARP behind eight tags", CPD_ARP,
         taggedArp({0x8100, 0x88a8, 0x8100, 0x9100, 0x8100, 0x8100, 0x88a8, 0x8100})},
        {"ARP behind nine tags", CPD_UNREAD,
         taggedArp({0x8100, 0x88a8, 0x8100, 0x9100, 0x8100, 0x8100, 0x88a8, 0x8100, 0x8100})},
        {"STP behind four tags", CPD_STPCUSTOMER,
         Frame(bridgeGroup(0))
             .tag(0x8100, 0)
             .tag(0x8100, 0)
             .tag(0x88a8, 0)
             .tag(0x8100, 0)
             .u16(38)
             .u8({0x42, 0x42, 3})
             .decided()
             .zeros(35)},
        {"DHCP behind eight tags", CPD_DHCPCLIENT,
         tagged({0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100})
             .ipv4({.protocol = udp})
             .udp(68, 67)
             .zeros(20)},
        {"DHCPv6 behind options behind eight tags", CPD_DHCP6REQUEST,
         tagged({0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100})
             .ipv6({.next = 60})
             .extension(udp, 0)
             .udp(546, 547)},
        {"ARP behind another tag", CPD_NO_TYPE, taggedArp({0x9200})},
        {"tag without an ethertype", CPD_UNREAD, tagged({0x8100})},
        {"second tag without an ethertype", CPD_UNREAD, tagged({0x88a8, 0x8100})},
        {"tag, ethertype one byte short", CPD_UNREAD, tagged({0x8100}).u8({0x08})},
        {"two tags, ethertype one byte short", CPD_UNREAD, tagged({0x88a8, 0x8100}).u8({0x08})},
        {"VLAN id that looks like ARP", CPD_UNREAD,
         Frame(broadcast).tag(0x8100, 0x0806).u16(0x86dd).zeros(46)},

        {"ALB learning packet", CPD_ALB, Frame(peer, peer).u16(0x9000).decided().zeros(46)},
        {"ALB learning packet, old ethertype", CPD_ALB,
         Frame(peer, peer).u16(0x0060).decided().zeros(46)},
        {"ALB learning packet that looks like IS-IS", CPD_ALB,
         Frame(peer, peer).u16(0x0060).decided().u8({0xfe, 0xfe, 3, 0x83}).zeros(42)},
        {"to a group, from itself, of that length: a BPDU", CPD_STPCUSTOMER,
         Frame(bridgeGroup(0), bridgeGroup(0)).u16(0x0060).u8({0x42, 0x42, 3}).decided().zeros(43)},
        {"ALB learning packet in a VLAN", CPD_ALB,
         Frame(peer, peer).tag(0x8100, 7).u16(0x9000).decided().zeros(46)},
        {"loopback test between two stations", CPD_LOOPBACK,
         Frame(host, peer).u16(0x9000).decided().zeros(46)},
        {"loopback, addresses differ in the first byte", CPD_LOOPBACK,
         Frame(Mac{2, 0, 0, 0, 0, 2}, Mac{6, 0, 0, 0, 0, 2}).u16(0x9000).decided().zeros(46)},
        {"loopback, addresses differ in the third byte", CPD_LOOPBACK,
         Frame(Mac{2, 0, 1, 0, 0, 2}, Mac{2, 0, 0, 0, 0, 2}).u16(0x9000).decided().zeros(46)},
        {"loopback, addresses differ in the last byte", CPD_LOOPBACK,
         Frame(Mac{2, 0, 0, 0, 0, 2}, Mac{2, 0, 0, 0, 0, 3}).u16(0x9000).decided().zeros(46)},
        {"to itself, but ethertype behind loopback", CPD_NO_TYPE,
         Frame(peer, peer).u16(0x9001).zeros(46)},
        {"to itself, but length 97", CPD_NO_TYPE, Frame(peer, peer).u16(0x0061).zeros(97)},
    };
}

std::vector<Fixture> llcFixtures()
{
    const Mac stp = bridgeGroup(0x00), gvrp = bridgeGroup(0x21);
    return {
        {"STP", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03})},
        {"STP in a VLAN", CPD_STPCUSTOMER,
         Frame(stp).tag(0x8100, 1).u16(38).u8({0x42, 0x42, 0x03}).decided().zeros(35)},
        {"STP, LLC header alone", CPD_STPCUSTOMER,
         Frame(stp).u16(3).u8({0x42, 0x42, 0x03}).decided()},
        {"STP of the longest length", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03}, 1500)},
        {"STP of an undefined length", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03}, 1501)},
        {"STP, length one byte short", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03}, 2)},
        {"STP of the longest length of Linux", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03}, 1535)},
        {"STP behind the least ethertype", CPD_NO_TYPE, llc(stp, {0x42, 0x42, 0x03}, 1536)},
        {"STP, frame one byte short", CPD_UNREAD, Frame(stp).u16(38).u8({0x42, 0x42})},
        {"STP, length 0", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x03}, 0)},
        {"STP of a provider", CPD_STPPROVIDER, llc(bridgeGroup(0x08), {0x42, 0x42, 0x03})},
        {"STP to the next address", CPD_NO_TYPE, llc(bridgeGroup(0x01), {0x42, 0x42, 0x03})},
        {"STP to a station", CPD_NO_TYPE, llc(host, {0x42, 0x42, 0x03})},
        {"STP, wrong first byte of the group", CPD_NO_TYPE,
         llc({0x03, 0x80, 0xc2, 0, 0, 0}, {0x42, 0x42, 0x03})},
        {"STP, wrong fourth byte of the group", CPD_NO_TYPE,
         llc({0x01, 0x80, 0xc2, 1, 0, 0}, {0x42, 0x42, 0x03})},
        {"STP, wrong DSAP", CPD_NO_TYPE, llc(stp, {0x43, 0x42, 0x03})},
        {"STP, other SSAP", CPD_STPCUSTOMER, llc(stp, {0x42, 0x43, 0x03})},
        {"STP, other control", CPD_STPCUSTOMER, llc(stp, {0x42, 0x42, 0x13})},
        {"STP group, but SNAP", CPD_NO_TYPE, snap({0, 0, 0x0c}, 0x0111, stp)},
        {"STP group, but an ethertype", CPD_NO_TYPE, Frame(stp).u16(0x4242).u8({3}).zeros(45)},

        {"GVRP", CPD_GVRP, llc(gvrp, {0x42, 0x42, 0x03})},
        {"GVRP in a VLAN", CPD_GVRP,
         Frame(gvrp).tag(0x88a8, 1).u16(20).u8({0x42, 0x42, 0x03}).decided().zeros(20)},
        {"GMRP", CPD_NO_TYPE, llc(bridgeGroup(0x20), {0x42, 0x42, 0x03})},
        {"GARP of the next application", CPD_NO_TYPE, llc(bridgeGroup(0x22), {0x42, 0x42, 0x03})},
        {"MVRP", CPD_NO_TYPE, Frame(gvrp).u16(0x88f5).zeros(46)},
        {"GVRP, wrong DSAP", CPD_NO_TYPE, llc(gvrp, {0x40, 0x42, 0x03})},
        {"GVRP, other SSAP", CPD_GVRP, llc(gvrp, {0x42, 0x40, 0x03})},
        {"GVRP, other control", CPD_GVRP, llc(gvrp, {0x42, 0x42, 0x00})},
        {"GVRP, length one byte short", CPD_GVRP, llc(gvrp, {0x42, 0x42, 0x03}, 2)},
        {"GVRP, frame one byte short", CPD_UNREAD, Frame(gvrp).u16(20).u8({0x42, 0x42})},

        {"UDLD", CPD_UDLD, snap({0x00, 0x00, 0x0c}, 0x0111)},
        {"UDLD in a VLAN", CPD_UDLD,
         Frame(snapGroup)
             .tag(0x8100, 1)
             .u16(46)
             .u8({0xaa, 0xaa, 0x03, 0x00, 0x00, 0x0c, 0x01, 0x11})
             .decided()
             .zeros(38)},
        {"UDLD, SNAP header alone", CPD_UDLD,
         Frame(snapGroup).u16(8).u8({0xaa, 0xaa, 3, 0, 0, 0x0c, 1, 0x11}).decided()},
        {"UDLD, length one byte short", CPD_UDLD, snap({0x00, 0x00, 0x0c}, 0x0111, snapGroup, 7)},
        {"UDLD, frame one byte short", CPD_UNREAD,
         Frame(snapGroup).u16(46).u8({0xaa, 0xaa, 3, 0, 0, 0x0c, 1})},
        {"UDLD, LLC header one byte short", CPD_UNREAD, Frame(snapGroup).u16(46).u8({0xaa, 0xaa})},
        {"UDLD to a station", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x0111, host)},
        {"UDLD to the next address", CPD_NO_TYPE,
         snap({0x00, 0x00, 0x0c}, 0x0111, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcd})},
        {"UDLD, wrong OUI", CPD_NO_TYPE, snap({0x00, 0x00, 0x0d}, 0x0111)},
        {"UDLD, OUI of Ethernet", CPD_NO_TYPE, snap({0x00, 0x00, 0x00}, 0x0111)},
        {"UDLD, wrong first byte of the OUI", CPD_NO_TYPE, snap({0x01, 0x00, 0x0c}, 0x0111)},
        {"UDLD, wrong second byte of the OUI", CPD_NO_TYPE, snap({0x00, 0x01, 0x0c}, 0x0111)},
        {"UDLD, wrong DSAP", CPD_NO_TYPE,
         Frame(snapGroup).u16(46).u8({0xab, 0xaa, 3, 0, 0, 0x0c, 1, 0x11}).zeros(38)},
        {"UDLD, other SSAP", CPD_UDLD,
         Frame(snapGroup).u16(46).u8({0xaa, 0xab, 3, 0, 0, 0x0c, 1, 0x11}).decided().zeros(38)},
        {"UDLD, other control", CPD_UDLD,
         Frame(snapGroup).u16(46).u8({0xaa, 0xaa, 7, 0, 0, 0x0c, 1, 0x11}).decided().zeros(38)},
        {"UDLD's PID as an ethertype", CPD_NO_TYPE, Frame(snapGroup).u16(0x0111).zeros(300)},

        {"VTP", CPD_VTP, snap({0x00, 0x00, 0x0c}, 0x2003)},
        {"VTP in a VLAN", CPD_VTP,
         Frame(snapGroup)
             .tag(0x8100, 1)
             .u16(46)
             .u8({0xaa, 0xaa, 0x03, 0x00, 0x00, 0x0c, 0x20, 0x03})
             .decided()
             .zeros(38)},
        {"VTP, wrong OUI", CPD_NO_TYPE, snap({0x00, 0x00, 0x0e}, 0x2003)},
        {"VTP to a station", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x2003, host)},
        {"VTP, frame one byte short", CPD_UNREAD,
         Frame(snapGroup).u16(46).u8({0xaa, 0xaa, 3, 0, 0, 0x0c, 0x20})},
        {"neighbour discovery beside VTP", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x2000)},
        {"trunk negotiation beside VTP", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x2004)},
        {"PID bytes swapped", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x0320)},
    };
}

std::vector<Fixture> igmpFixtures()
{
    auto bare = [](Ipv4 ip) { return Frame(igmpGroup).ipv4(ip).decided(); };
    return {
        {"IGMPv1 report", CPD_IGMPSNOOP, igmpMessage(0x12)},
        {"IGMPv2 report", CPD_IGMPSNOOP, igmpMessage(0x16)},
        {"IGMPv2 leave", CPD_IGMPSNOOP, igmpMessage(0x17)},
        {"IGMPv3 report", CPD_IGMPSNOOP, igmpMessage(0x22)},
        {"IGMP report without IP options", CPD_IGMPSNOOP,
         bare({.protocol = igmp}).u8({0x16}).decided().zeros(7)},
        {"IGMP report with the longest options", CPD_IGMPSNOOP,
         bare({.protocol = igmp, .versionIhl = 0x4f, .optionBytes = 40})
             .u8({0x16})
             .decided()
             .zeros(7)},
        {"IGMP report in two tags", CPD_IGMPSNOOP,
         tagged({0x88a8, 0x8100}).ipv4({.protocol = igmp}).u8({0x22}).decided().zeros(15)},
        {"IGMP report, first fragment", CPD_IGMPSNOOP,
         bare({.protocol = igmp, .fragment = moreFragments}).u8({0x16}).decided().zeros(7)},

        {"IGMP query", CPD_IGMP, igmpMessage(0x11)},
        {"DVMRP", CPD_IGMP, igmpMessage(0x13)},
        {"PIM version 1", CPD_IGMP, igmpMessage(0x14)},
        {"multicast traceroute", CPD_IGMP, igmpMessage(0x1f)},
        {"multicast router advertisement", CPD_IGMP, igmpMessage(0x30)},
        {"unknown IGMP message", CPD_IGMP, igmpMessage(0xff)},
        {"IGMP message type before a report", CPD_IGMP, igmpMessage(0x15)},
        {"IGMP message type behind a leave", CPD_IGMP, igmpMessage(0x18)},
        {"IGMP message type before a v3 report", CPD_IGMP, igmpMessage(0x21)},
        {"IGMP, later fragment that looks like a report", CPD_IGMP,
         bare({.protocol = igmp, .fragment = 1}).u8({0x16}).zeros(7)},
        {"IGMP, last fragment", CPD_IGMP,
         bare({.protocol = igmp, .fragment = 0x1fff}).u8({0x16}).zeros(7)},
        {"IGMP without a message", CPD_IGMP, bare({.protocol = igmp, .payloadBytes = 0})},
        {"IGMP without a message, padding like a report", CPD_IGMPSNOOP,
         bare({.protocol = igmp, .payloadBytes = 0}).u8({0x16}).decided().zeros(25)},
        {"IGMP, message cut off", CPD_IGMP, bare({.protocol = igmp})},
        {"IGMP, options beyond the frame", CPD_IGMP,
         bare({.protocol = igmp, .versionIhl = 0x46, .payloadBytes = 8}).u8({1, 1, 1})},
        {"IGMP, header longer than the packet", CPD_IGMP,
         bare({.protocol = igmp, .versionIhl = 0x4f, .payloadBytes = 8}).zeros(60)},
        {"IGMP, header length 4 words", CPD_IGMP,
         bare({.protocol = igmp, .versionIhl = 0x44}).u8({0x16}).zeros(30)},
        {"IGMP, header length 0", CPD_IGMP,
         bare({.protocol = igmp, .versionIhl = 0x40}).u8({0x16}).zeros(30)},
        {"IGMP, version 6", CPD_IGMPSNOOP,
         bare({.protocol = igmp, .versionIhl = 0x65}).u8({0x16}).decided().zeros(30)},
        {"protocol before IGMP: ICMP", CPD_ICMP, bare({.protocol = 1}).u8({0x16}).zeros(7)},
        {"protocol behind IGMP", CPD_NO_TYPE, bare({.protocol = 3}).u8({0x16}).zeros(7)},
        {"IGMP's bytes under the ethertype of IPv6", CPD_UNREAD,
         Frame(igmpGroup).u16(0x86dd).u8({0x45, 0}).u16(28).zeros(5).u8({2}).zeros(40)},
    };
}

std::vector<Fixture> dhcpFixtures()
{
    auto options = [](unsigned words) {
        return Ipv4{.protocol = udp,
                    .versionIhl = static_cast<uint8_t>(0x45 + words),
                    .optionBytes = static_cast<uint16_t>(4 * words)};
    };
    return {
        {"DHCP from a client", CPD_DHCPCLIENT, udpFrame(68, 67)},
        {"DHCP from a server", CPD_DHCPSERVER, udpFrame(67, 68)},
        {"DHCP between relays", CPD_DHCPSERVER, udpFrame(67, 67)},
        {"to port 67 from anywhere", CPD_DHCPSNOOPIP, udpFrame(40000, 67)},
        {"to port 68 from anywhere", CPD_DHCPSNOOPIP, udpFrame(40000, 68)},
        {"from port 67 to anywhere", CPD_DHCPSERVER, udpFrame(67, 40000)},
        {"from port 68 to anywhere", CPD_DHCPCLIENT, udpFrame(68, 40000)},
        {"DHCP with an IP option", CPD_DHCPCLIENT, udpFrame(68, 67, options(1))},
        {"DHCP with the longest IP options", CPD_DHCPCLIENT, udpFrame(68, 67, options(10))},
        {"DHCP that must not be fragmented", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .fragment = dontFragment})},
        {"DHCP, first fragment", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .fragment = moreFragments})},
        {"DHCP in a VLAN", CPD_DHCPCLIENT,
         tagged({0x8100}).ipv4({.protocol = udp}).udp(68, 67).zeros(300)},
        {"DHCP in two VLAN tags", CPD_DHCPCLIENT,
         tagged({0x88a8, 0x8100}).ipv4({.protocol = udp}).udp(68, 67).zeros(300)},
        {"DHCP, ports alone in the packet", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 4})},

        {"to port 68 from a service that is not DHCP", CPD_DHCPSNOOPIP, udpFrame(161, 68)},
        {"from port 68 to another service", CPD_SNMP, udpFrame(68, 161)},

        {"ports 66 and 69", CPD_NO_TYPE, udpFrame(66, 69)},
        {"ports with the bytes swapped", CPD_NO_TYPE, udpFrame(67 << 8, 68 << 8)},
        {"DHCP's ports on TCP", CPD_TCP, udpFrame(68, 67, {.protocol = tcp})},
        {"DHCPv6 ports on IPv4", CPD_NO_TYPE, udpFrame(546, 547)},
        {"DHCP, later fragment that looks like ports", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .fragment = 1})},
        {"DHCP, later fragment with more to come", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .fragment = moreFragments | 185})},
        {"DHCP, packet one byte short of the ports", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 3})},
        {"DHCP, empty packet with padding like ports", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 0})},
        {"DHCP, frame one byte short of the ports", CPD_UNREAD,
         Frame(broadcast).ipv4({.protocol = udp}).u16(68).u8({0})},
        {"DHCP, IP header one byte short", CPD_UNREAD,
         Frame(broadcast).u16(0x0800).u8({0x45, 0}).u16(328).zeros(5).u8({udp}).zeros(9)},
        {"DHCP, header length 4 words", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .versionIhl = 0x44})},
        {"DHCP, header length without the options", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .optionBytes = 4})},
        {"DHCP, version 5", CPD_DHCPCLIENT,
         udpFrame(68, 67, {.protocol = udp, .versionIhl = 0x55})},
        {"DHCP's ports where the IP options stand", CPD_NO_TYPE,
         Frame(broadcast)
             .ipv4({.protocol = udp, .versionIhl = 0x46, .payloadBytes = 12})
             .u16(68)
             .u16(67)
             .u16(1000)
             .u16(2000)
             .zeros(30)},
        {"no Ethernet payload", CPD_UNREAD, Frame(broadcast).u16(0x0800)},
        {"IPv6", CPD_UNREAD, Frame(broadcast).u16(0x86dd).u8({0x60}).zeros(60)},
        {"local experimental ethertype", CPD_NO_TYPE, Frame(broadcast).u16(0x88b5).zeros(46)},
    };
}

std::vector<Fixture> ethertypeFixtures()
{
    const Mac cfm = {0x01, 0x80, 0xc2, 0, 0, 0x34}, ring = {0x01, 0x19, 0xa7, 0, 0, 0x01};
    auto type = [](unsigned ethertype, const Mac &to = host) {
        return Frame(to).u16(ethertype).decided().zeros(46);
    };
    auto code = [](const Mac &to, unsigned opcode) {
        return Frame(to).u16(0x8902).general(CPD_Y1731).u8({0xa0, opcode}).decided().zeros(44);
    };
    auto slow = [](unsigned subtype) {
        return Frame(bridgeGroup(0x02)).u16(0x8809).u8({subtype}).decided().zeros(45);
    };
    return {
        {"CCM", CPD_OAM, code(cfm, 1)},
        {"loopback reply of CFM", CPD_OAM, code(host, 2)},
        {"linktrace message", CPD_OAM, code(cfm, 5)},
        {"CFM code 0", CPD_Y1731, code(cfm, 0)},
        {"CFM code behind linktrace", CPD_Y1731, code(cfm, 6)},
        {"AIS", CPD_Y1731, code(cfm, 33)},
        {"delay measurement", CPD_Y1731, code(host, 47)},
        {"CFM in a VLAN", CPD_Y1731,
         Frame(cfm).tag(0x8100, 5).u16(0x8902).general(CPD_Y1731).u8({0, 35}).decided().zeros(9)},
        {"R-APS", CPD_ERP, code(ring, 40)},
        {"R-APS of the last ring", CPD_ERP, code({0x01, 0x19, 0xa7, 0, 0, 0xef}, 40)},
        {"R-APS to a station", CPD_Y1731, code(host, 40)},
        {"R-APS to another group", CPD_Y1731, code({0x01, 0x19, 0xa7, 0, 1, 1}, 40)},
        {"APS to a ring", CPD_Y1731, code(ring, 39)},
        {"CCM to a ring", CPD_OAM, code(ring, 1)},
        {"ethertype before CFM", CPD_NO_TYPE, type(0x8901, cfm)},
        {"ethertype behind CFM", CPD_NO_TYPE, type(0x8903, cfm)},

        {"OAMPDU", CPD_EFM, slow(3)},
        {"OAMPDU in a VLAN", CPD_EFM, Frame(host).tag(0x8100, 1).u16(0x8809).u8({3}).decided()},
        {"LACP", CPD_NO_TYPE, slow(1)},
        {"marker", CPD_NO_TYPE, slow(2)},
        {"slow protocol behind OAM", CPD_NO_TYPE, slow(4)},
        {"slow protocol of an organisation", CPD_NO_TYPE, slow(10)},
        {"slow protocol without a subtype", CPD_UNREAD, Frame(bridgeGroup(2)).u16(0x8809)},
        {"ethertype before the slow protocols", CPD_NO_TYPE, Frame(host).u16(0x8808).u8({3})},

        {"MPLS", CPD_MPLS, type(0x8847)},
        {"MPLS, upstream assigned", CPD_MPLS, type(0x8848, {0x01, 0x00, 0x5e, 0x80, 0, 1})},
        {"ethertype before MPLS", CPD_NO_TYPE, type(0x8846)},
        {"ethertype behind MPLS", CPD_NO_TYPE, type(0x8849)},
        {"PPPoE discovery", CPD_PPPOE, type(0x8863, broadcast)},
        {"PPPoE discovery in two tags", CPD_PPPOE,
         tagged({0x88a8, 0x8100}).u16(0x8863).decided().zeros(40)},
        {"PPPoE session", CPD_NO_TYPE, type(0x8864)},
        {"ethertype before PPPoE", CPD_NO_TYPE, type(0x8862)},
        {"LLDP", CPD_LLDP, type(0x88cc, bridgeGroup(0x0e))},
        {"LLDP to a station", CPD_LLDP, type(0x88cc)},
        {"ethertype before LLDP", CPD_NO_TYPE, type(0x88cb)},
        {"ethertype behind LLDP", CPD_NO_TYPE, type(0x88cd)},
        {"LLDP's ethertype one byte short", CPD_UNREAD, tagged({0x8100}).u8({0x88})},
        {"loopback", CPD_LOOPBACK, type(0x9000)},
        {"loopback to a group", CPD_LOOPBACK, type(0x9000, {0xcf, 0, 0, 0, 0, 0})},
    };
}

std::vector<Fixture> controlFixtures()
{
    const Mac provider = bridgeGroup(0x08), tunnel = {0x01, 0x00, 0x0c, 0xcd, 0xcd, 0xd0};
    const Mac eaps = {0x00, 0xe0, 0x2b, 0, 0, 0x04}, isis = bridgeGroup(0x14);
    auto osi = [&](std::initializer_list<unsigned> header, unsigned length = 38) {
        return Frame(isis).u16(length).u8(header).decided().zeros(35).padded();
    };
    auto fixtures = ethertypeFixtures();
    std::vector<Fixture> more = {
        {"STP of a provider, longest", CPD_STPPROVIDER, llc(provider, {0x42, 0x42, 0x03}, 1500)},
        {"STP of a provider, tagged", CPD_STPPROVIDER,
         Frame(provider).tag(0x88a8, 1).u16(38).u8({0x42, 0x42, 0x03}).decided().zeros(35)},
        {"STP of a provider, other LLC", CPD_STPPROVIDER, llc(provider, {0x42, 0x42, 0x13})},
        {"STP of a provider, length short", CPD_STPPROVIDER, llc(provider, {0x42, 0x42, 0x03}, 2)},
        {"STP to the address before", CPD_NO_TYPE, llc(bridgeGroup(0x07), {0x42, 0x42, 0x03})},
        {"STP to the address behind", CPD_NO_TYPE, llc(bridgeGroup(0x09), {0x42, 0x42, 0x03})},
        {"STP of length 96", CPD_STPCUSTOMER, llc(bridgeGroup(0), {0x42, 0x42, 0x03}, 96)},

        {"tunnelled STP", CPD_BPDUTUNNEL, Frame(tunnel).u16(38).u8({0x42, 0x42, 3}).decided()},
        {"tunnelled VTP", CPD_BPDUTUNNEL, snap({0x00, 0x00, 0x0c}, 0x2003, tunnel)},
        {"tunnelled LACP", CPD_BPDUTUNNEL, Frame(tunnel).u16(0x8809).u8({1}).decided().zeros(45)},
        {"tunnelled in a VLAN", CPD_BPDUTUNNEL,
         Frame(tunnel).tag(0x8100, 1).u16(46).zeros(3).decided().zeros(43)},
        {"LLDP to the tunnel", CPD_LLDP, Frame(tunnel).u16(0x88cc).decided().zeros(46)},
        {"ARP to the tunnel", CPD_ARP, arp(tunnel)},
        {"DHCP to the tunnel", CPD_DHCPCLIENT,
         Frame(tunnel).ipv4({.protocol = udp}).udp(68, 67).zeros(300)},
        {"unread, to the tunnel", CPD_UNREAD, Frame(tunnel).u16(0x0800)},
        {"address before the tunnel", CPD_NO_TYPE,
         llc({0x01, 0x00, 0x0c, 0xcd, 0xcd, 0xcf}, {0x42, 0x42, 0x03})},
        {"address behind the tunnel", CPD_NO_TYPE,
         llc({0x01, 0x00, 0x0c, 0xcd, 0xcd, 0xd1}, {0x42, 0x42, 0x03})},
        {"tunnel without the group bit", CPD_NO_TYPE,
         llc({0x00, 0x00, 0x0c, 0xcd, 0xcd, 0xd0}, {0x42, 0x42, 0x03})},

        {"EAPS", CPD_EAPS, snap({0x00, 0xe0, 0x2b}, 0x00bb, eaps)},
        {"EAPS, tagged", CPD_EAPS,
         Frame(eaps)
             .tag(0x8100, 0xe001)
             .u16(84)
             .u8({0xaa, 0xaa, 3, 0, 0xe0, 0x2b, 0, 0xbb})
             .decided()
             .zeros(76)},
        {"EAPS, wrong PID", CPD_NO_TYPE, snap({0x00, 0xe0, 0x2b}, 0x00ba, eaps)},
        {"EAPS, wrong OUI", CPD_NO_TYPE, snap({0x00, 0xe0, 0x2c}, 0x00bb, eaps)},
        {"EAPS, wrong address", CPD_NO_TYPE, snap({0x00, 0xe0, 0x2b}, 0x00bb, host)},
        {"EAPS to the group of UDLD", CPD_NO_TYPE, snap({0x00, 0xe0, 0x2b}, 0x00bb)},
        {"EAPS, length short", CPD_EAPS, snap({0x00, 0xe0, 0x2b}, 0x00bb, eaps, 7)},
        {"EAPS, one byte short", CPD_UNREAD,
         Frame(eaps).u16(84).u8({0xaa, 0xaa, 3, 0, 0xe0, 0x2b, 0})},
        {"UDLD to the address of EAPS", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x0111, eaps)},

        {"IS-IS", CPD_ISIS, osi({0xfe, 0xfe, 0x03, 0x83})},
        {"IS-IS of length 96", CPD_ISIS, osi({0xfe, 0xfe, 0x03, 0x83}, 96)},
        {"IS-IS, shortest length", CPD_ISIS, osi({0xfe, 0xfe, 0x03, 0x83}, 4)},
        {"ES-IS", CPD_NO_TYPE, osi({0xfe, 0xfe, 0x03, 0x82})},
        {"CLNP", CPD_NO_TYPE, osi({0xfe, 0xfe, 0x03, 0x81})},
        {"IS-IS, length short", CPD_ISIS, osi({0xfe, 0xfe, 0x03, 0x83}, 3)},
        {"IS-IS, one byte short", CPD_UNREAD, Frame(isis).u16(38).u8({0xfe, 0xfe, 3})},
        {"IS-IS, wrong DSAP", CPD_NO_TYPE, osi({0xff, 0xfe, 0x03, 0x83})},
        {"IS-IS, other SSAP", CPD_ISIS, osi({0xfe, 0xff, 0x03, 0x83})},
        {"IS-IS, other control", CPD_ISIS, osi({0xfe, 0xfe, 0x13, 0x83})},
    };
    fixtures.insert(fixtures.end(), more.begin(), more.end());
    return fixtures;
}

std::vector<Fixture> protocolFixtures()
{
    auto v4 = [](uint8_t protocol, uint16_t fragment = 0) {
        return Frame(host).ipv4({.protocol = protocol, .fragment = fragment}).decided().zeros(8);
    };
    auto v6 = [](uint8_t protocol) {
        return Frame(host).ipv6({.next = protocol}).decided().zeros(8);
    };
    return {
        {"ICMP", CPD_ICMP, v4(1)},
        {"ICMP, later fragment", CPD_ICMP, v4(1, 7)},
        {"ICMP with options", CPD_ICMP,
         Frame(host).ipv4({.protocol = 1, .versionIhl = 0x48}).decided().zeros(12)},
        {"ICMP, options cut off", CPD_ICMP,
         Frame(host).ipv4({.protocol = 1, .versionIhl = 0x48}).decided().zeros(11)},
        {"TCP", CPD_TCP, Frame(host).ipv4({.protocol = tcp}).tcp(40000, 80)},
        {"TCP, later fragment that looks like telnet", CPD_TCP,
         Frame(host).ipv4({.protocol = tcp, .fragment = 9}).decided().u16(23).u16(23)},
        {"TCP, padding that looks like telnet", CPD_TELNET,
         Frame(host).ipv4({.protocol = tcp, .payloadBytes = 3}).u16(23).u16(23).decided()},
        {"OSPF", CPD_OSPF, v4(89)},
        {"OSPF, later fragment", CPD_OSPF, v4(89, 185)},
        {"PIM", CPD_PIM, v4(103)},
        {"PIM in a VLAN", CPD_PIM, tagged({0x8100}).ipv4({.protocol = 103}).decided().zeros(8)},
        {"VRRP", CPD_VRRP, v4(112)},
        {"VRRP in two tags", CPD_VRRP,
         tagged({0x88a8, 0x8100}).ipv4({.protocol = 112}).decided().zeros(8)},
        {"VRRP, version 6 under IPv4", CPD_VRRP,
         Frame(host).ipv4({.protocol = 112, .versionIhl = 0x65}).decided().zeros(40)},
        {"ICMPv6 on IPv4", CPD_NO_TYPE, v4(58)},
        {"IPv6 in IPv4", CPD_NO_TYPE, v4(41)},
        {"GRE", CPD_NO_TYPE, v4(47)},
        {"protocol before OSPF", CPD_NO_TYPE, v4(88)},
        {"protocol behind OSPF", CPD_NO_TYPE, v4(90)},
        {"protocol before PIM", CPD_NO_TYPE, v4(102)},
        {"protocol behind PIM", CPD_NO_TYPE, v4(104)},
        {"protocol before VRRP", CPD_NO_TYPE, v4(111)},
        {"protocol behind VRRP", CPD_NO_TYPE, v4(113)},

        {"ICMPv6", CPD_ICMPV6, v6(58)},
        {"ICMPv6 without a message", CPD_ICMPV6,
         Frame(host).ipv6({.next = 58, .payloadBytes = 0}).decided()},
        {"OSPFv3", CPD_OSPF6, v6(89)},
        {"OSPFv3 in a VLAN", CPD_OSPF6, tagged({0x8100}).ipv6({.next = 89}).decided()},
        {"PIM on IPv6", CPD_PIM6, v6(103)},
        {"PIM on IPv6 in a VLAN", CPD_PIM6, tagged({0x8100}).ipv6({.next = 103}).decided()},
        {"VRRP on IPv6", CPD_VRRP6, v6(112)},
        {"VRRP on IPv6 in two tags", CPD_VRRP6,
         tagged({0x88a8, 0x8100}).ipv6({.next = 112}).decided()},
        {"TCP on IPv6", CPD_TCP, Frame(host).ipv6({.next = tcp}).tcp(40000, 80)},
        {"ICMP on IPv6", CPD_NO_TYPE, v6(1)},
        {"IGMP on IPv6", CPD_NO_TYPE, v6(2)},
        {"no next header", CPD_NO_TYPE, v6(59)},
        {"mobility header", CPD_NO_TYPE, v6(135)},
        {"next header behind ICMPv6's neighbours", CPD_NO_TYPE, v6(57)},
        {"OSPFv3, version 4", CPD_OSPF6,
         Frame(host).ipv6({.next = 89, .version = 4}).decided().zeros(8)},
        {"OSPFv3 under the ethertype of IPv4", CPD_NO_TYPE,
         Frame(host).u16(0x0800).u8({0x60, 0, 0, 0}).u16(20).u8({89, 1}).zeros(60)},
    };
}

/** A service at the port that it has: what frames are of on IPv4 and on IPv6. */
struct Service {
    const char *name;
    uint8_t protocol;
    unsigned port;
    int to4, from4; /**< the port is the destination, the source */
    int to6, from6;
};

constexpr int none = CPD_NO_TYPE;
constexpr Service services[] = {
    {"FTP data", tcp, 20, CPD_FTP, CPD_FTP, CPD_FTP, CPD_FTP},
    {"FTP", tcp, 21, CPD_FTP, CPD_FTP, CPD_FTP, CPD_FTP},
    {"telnet", tcp, 23, CPD_TELNET, CPD_TELNET, CPD_TELNET, CPD_TELNET},
    {"BGP", tcp, 179, CPD_BGP, CPD_BGP, CPD_BGP, CPD_BGP},
    {"LDP session", tcp, 646, CPD_LDP, CPD_LDP, CPD_LDP, CPD_LDP},
    {"port before FTP", tcp, 19, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"SSH", tcp, 22, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"SMTP", tcp, 25, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"port before BGP", tcp, 178, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"port behind LDP", tcp, 647, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"SNMP's port on TCP", tcp, 161, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"BFD's port on TCP", tcp, 3784, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},
    {"telnet's bytes swapped", tcp, 23 << 8, CPD_TCP, CPD_TCP, CPD_TCP, CPD_TCP},

    {"SNMP", udp, 161, CPD_SNMP, CPD_SNMP, CPD_SNMP, CPD_SNMP},
    {"SNMP notification", udp, 162, CPD_SNMP, CPD_SNMP, CPD_SNMP, CPD_SNMP},
    {"NTP", udp, 123, CPD_NTP, CPD_NTP, CPD_SNTP6, CPD_SNTP6},
    {"RIP", udp, 520, CPD_RIP, CPD_RIP, none, none},
    {"RIPng", udp, 521, none, none, CPD_RIP6, CPD_RIP6},
    {"LDP hello", udp, 646, CPD_LDP, CPD_LDP, CPD_LDP, CPD_LDP},
    {"BFD", udp, 3784, CPD_BFD, none, CPD_BFD6, none},
    {"BFD echo", udp, 3785, CPD_BFD, none, CPD_BFD6, none},
    {"BFD over several hops", udp, 4784, CPD_BFD, none, CPD_BFD6, none},
    {"BFD on a link of an aggregate", udp, 6784, CPD_BFDETHER, none, CPD_BFDETHER, none},
    {"DHCP server", udp, 67, CPD_DHCPSNOOPIP, CPD_DHCPSERVER, none, none},
    {"DHCP client", udp, 68, CPD_DHCPSNOOPIP, CPD_DHCPCLIENT, none, none},
    {"DHCPv6 client", udp, 546, none, none, CPD_DHCP6REPLY, CPD_DHCPSNOOPIP6},
    {"DHCPv6 server", udp, 547, none, none, CPD_DHCP6REQUEST, CPD_DHCPSNOOPIP6},
    {"BGP's port on UDP", udp, 179, none, none, none, none},
    {"telnet's port on UDP", udp, 23, none, none, none, none},
    {"port before NTP", udp, 122, none, none, none, none},
    {"port behind NTP", udp, 124, none, none, none, none},
    {"port before SNMP", udp, 160, none, none, none, none},
    {"port behind SNMP", udp, 163, none, none, none, none},
    {"port before RIP", udp, 519, none, none, none, none},
    {"port behind RIPng", udp, 522, none, none, none, none},
    {"port before DHCPv6", udp, 545, none, none, none, none},
    {"port behind DHCPv6", udp, 548, none, none, none, none},
    {"port before BFD", udp, 3783, none, none, none, none},
    {"port behind BFD echo", udp, 3786, none, none, none, none},
    {"port before BFD over several hops", udp, 4783, none, none, none, none},
    {"port behind BFD over several hops", udp, 4785, none, none, none, none},
    {"port before BFD on a link", udp, 6783, none, none, none, none},
    {"port behind BFD on a link", udp, 6785, none, none, none, none},
};

std::vector<Fixture> serviceFixtures()
{
    constexpr unsigned other = 40000;
    std::vector<Fixture> fixtures;
    auto add = [&](const Service &service, Frame frame, unsigned from, unsigned to, int type) {
        if (service.protocol == tcp)
            frame.tcp(from, to);
        else
            frame.udp(from, to).zeros(20);
        fixtures.push_back({service.name, type, frame});
    };
    for (const Service &each : services) {
        const Frame v4 = Frame(host).ipv4({.protocol = each.protocol});
        const Frame v6 = Frame(host).ipv6({.next = each.protocol});
        add(each, v4, other, each.port, each.to4);
        add(each, v4, each.port, other, each.from4);
        add(each, v6, other, each.port, each.to6);
        add(each, v6, each.port, other, each.from6);
    }
    return fixtures;
}

std::vector<Fixture> extensionFixtures()
{
    constexpr uint8_t hop = 0, routing = 43, fragment = 44, ah = 51, options = 60, icmp6 = 58;
    auto v6 = [](uint8_t next, uint16_t payload = 200) {
        return Frame(host).ipv6({.next = next, .payloadBytes = payload});
    };
    auto chain = [&](int count, uint8_t last) {
        Frame f = v6(options);
        for (int i = 1; i < count; i++)
            f.extension(options, 0);
        return f.extension(last, 0);
    };
    return {
        {"MLD behind hop-by-hop", CPD_ICMPV6, v6(hop).extension(icmp6, 0).decided().zeros(24)},
        {"behind a routing header", CPD_TELNET, v6(routing).extension(tcp, 2, 24).tcp(9999, 23)},
        {"behind destination options", CPD_BGP, v6(options).extension(tcp, 0).tcp(9999, 179)},
        {"behind the longest options", CPD_RIP6,
         v6(options, 2100).extension(udp, 255, 2048).udp(9999, 521)},
        {"OSPFv3 behind AH", CPD_OSPF6, v6(ah).extension(89, 4).decided().zeros(32)},
        {"first fragment", CPD_DHCP6REQUEST, v6(fragment).fragment(udp, 0, 1).udp(546, 547)},
        {"fragment that is the whole", CPD_SNTP6, v6(fragment).fragment(udp, 0, 0).udp(9999, 123)},
        {"later fragment of UDP", CPD_NO_TYPE, v6(fragment).fragment(udp, 1, 1).udp(546, 547)},
        {"later fragment of TCP", CPD_TCP,
         v6(fragment).fragment(tcp, 1, 0).decided().u16(23).u16(23)},
        {"later fragment of ICMPv6", CPD_ICMPV6, v6(fragment).fragment(icmp6, 99, 1).decided()},
        {"later fragment of options", CPD_UNREAD,
         v6(fragment).fragment(options, 1, 0).extension(tcp, 0).zeros(20)},
        {"one of each", CPD_LDP,
         v6(hop)
             .extension(options, 0)
             .extension(routing, 1, 16)
             .extension(fragment, 0)
             .fragment(ah, 0, 1)
             .extension(udp, 1, 12)
             .udp(646, 646)},
        {"six headers", CPD_SNMP, chain(6, udp).udp(9999, 161)},
        {"seven headers", CPD_UNREAD, chain(7, udp).udp(9999, 161)},
        {"six headers in two tags", CPD_PIM6,
         tagged({0x88a8, 0x8100})
             .ipv6({.next = hop})
             .extension(options, 0)
             .extension(options, 0)
             .extension(options, 0)
             .extension(options, 0)
             .extension(options, 0)
             .extension(103, 0)
             .decided()},
        {"header longer than the packet", CPD_ICMPV6,
         v6(hop, 15).extension(icmp6, 1).decided().zeros(32)},
        {"header longer than the frame", CPD_ICMPV6,
         v6(hop).extension(icmp6, 1).decided().zeros(7)},
        {"header cut off", CPD_UNREAD, v6(hop).u8({icmp6, 0, 0, 0, 0, 0, 0})},
        {"packet one byte short of the header", CPD_ICMPV6,
         v6(hop, 7).extension(icmp6, 0).decided().zeros(24)},
        {"packet that ends with the header", CPD_ICMPV6,
         v6(hop, 8).extension(icmp6, 0).decided().zeros(24)},
        {"longest header that is not there", CPD_UNREAD,
         v6(routing).extension(udp, 255).udp(546, 547).zeros(60)},
        {"payload of no length", CPD_ICMPV6, v6(hop, 0).extension(icmp6, 0).decided().zeros(24)},
        {"ports behind the packet's end", CPD_DHCP6REQUEST,
         v6(options, 11).extension(udp, 0).udp(546, 547)},
        {"three headers far behind each other", CPD_SNMP,
         v6(options, 0)
             .extension(options, 255, 2048)
             .extension(options, 255, 2048)
             .extension(udp, 255, 2048)
             .udp(9999, 161)},
        {"first fragment without the upper header", CPD_UNREAD,
         v6(fragment, 16).fragment(options, 0, 1).extension(udp, 1, 16).udp(546, 547)},
        {"fragment within a first fragment", CPD_UNREAD,
         v6(fragment).fragment(fragment, 0, 1).fragment(udp, 0, 0).udp(546, 547)},
        {"first fragment that ends with the options", CPD_DHCP6REQUEST,
         v6(fragment, 24).fragment(options, 0, 1).extension(udp, 1, 16).udp(546, 547)},
        {"ports at the packet's end", CPD_DHCP6REQUEST,
         v6(options, 12).extension(udp, 0).udp(546, 547)},
        {"TCP, ports behind the packet's end", CPD_TELNET, v6(tcp, 3).u16(23).u16(23).decided()},
        {"AH of the least length", CPD_VRRP6, v6(ah).extension(112, 0).decided()},
        {"AH longer than the frame", CPD_VRRP6, v6(ah).extension(112, 2).decided().zeros(7)},
        {"encrypted", CPD_NO_TYPE, v6(50).zeros(40)},
        {"encrypted behind options", CPD_NO_TYPE, v6(options).extension(50, 0).zeros(40)},
        {"DHCPv6 from a server", CPD_DHCP6REPLY, v6(udp).udp(547, 546)},
        {"DHCPv6 between relays", CPD_DHCP6REQUEST, v6(udp).udp(547, 547)},
    };
}

std::vector<std::vector<Fixture>> allFixtures()
{
    return {linkFixtures(),    llcFixtures(),      igmpFixtures(),    dhcpFixtures(),
            controlFixtures(), protocolFixtures(), serviceFixtures(), extensionFixtures()};
}

class Classifier : public testing::Test
{
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        program = std::make_unique<Program>();
        last = program->everywhere();
    }

    /** The verdict on a frame, which must come out as it went in. */
    uint32_t run(const std::vector<uint8_t> &frame)
    {
        Outcome result = program->run(frame);
        EXPECT_EQ(result.frame, frame);
        EXPECT_FALSE(result.mark);
        return result.verdict;
    }

    /** What the counters of all targets say since the last call: the one type that was counted. */
    int counted(uint64_t octets, bool passed)
    {
        return difference(program->everywhere(), octets, passed);
    }

    /** The same, looking at the system's alone, which is quicker. */
    int countedAtSystem(uint64_t octets, bool passed)
    {
        auto now = program->counters();
        now.insert(now.end(), last.begin() + CPD_STATS_EACH, last.end());
        return difference(now, octets, passed);
    }

    int difference(const std::vector<cpd_counters> &now, uint64_t octets, bool passed)
    {
        int type = CPD_NO_TYPE;
        for (size_t i = 0; i < now.size(); i++) {
            const cpd_counters &a = last[i], &b = now[i];
            uint64_t in = b.passed_packets - a.passed_packets,
                     inBytes = b.passed_octets - a.passed_octets;
            uint64_t out = b.dropped_packets - a.dropped_packets,
                     outBytes = b.dropped_octets - a.dropped_octets;
            if (in + out + inBytes + outBytes == 0)
                continue;
            EXPECT_EQ(type, CPD_NO_TYPE) << "two counters moved";
            EXPECT_EQ(passed ? in : out, 1u);
            EXPECT_EQ(passed ? inBytes : outBytes, octets);
            EXPECT_EQ(passed ? out + outBytes : in + inBytes, 0u);
            type = static_cast<int>(i);
        }
        last = now;
        return type;
    }

    void check(const std::vector<Fixture> &fixtures)
    {
        for (const Fixture &fixture : fixtures) {
            SCOPED_TRACE(fixture.name);
            const auto &bytes = fixture.frame.bytes();
            EXPECT_EQ(run(bytes), XDP_PASS);
            EXPECT_EQ(counted(bytes.size(), true), fixture.type);
        }
        program->enforce(denyAll());
        for (const Fixture &fixture : fixtures) {
            SCOPED_TRACE(fixture.name);
            const auto &bytes = fixture.frame.bytes();
            EXPECT_EQ(run(bytes), fixture.type == CPD_NO_TYPE ? XDP_PASS : XDP_DROP);
            EXPECT_EQ(counted(bytes.size(), false), fixture.type);
        }
    }

    /** What is left of a frame that is cut off: it may become less known, but no other type. */
    static std::set<int> typesOfCut(const Fixture &fixture, size_t length)
    {
        const bool typed = fixture.type < CPD_TYPES;
        if (typed && length >= fixture.frame.decidedBy())
            return {fixture.type};
        if (typed)
            return {fixture.frame.cutType(length)};
        return {fixture.type, CPD_UNREAD, fixture.frame.cutType(length)};
    }

    void checkCut(const std::vector<Fixture> &fixtures)
    {
        program->enforce(denyAll());
        for (const Fixture &fixture : fixtures) {
            for (size_t length = 14; length <= fixture.frame.bytes().size(); length++) {
                SCOPED_TRACE(fixture.name + (" cut to " + std::to_string(length)) + " bytes");
                auto cut = fixture.frame.bytes();
                cut.resize(length);
                const uint32_t verdict = run(cut);
                const int type = countedAtSystem(length, false);
                ASSERT_TRUE(typesOfCut(fixture, length).contains(type)) << type;
                ASSERT_EQ(verdict, type == CPD_NO_TYPE ? XDP_PASS : XDP_DROP);
            }
        }
    }

    std::unique_ptr<Program> program;
    std::vector<cpd_counters> last;
};

TEST_F(Classifier, LinkLayerTypesAndTheirNearMisses)
{
    check(linkFixtures());
}

TEST_F(Classifier, LlcAndSnapTypesAndTheirNearMisses)
{
    check(llcFixtures());
}

TEST_F(Classifier, IgmpTypesAndTheirNearMisses)
{
    check(igmpFixtures());
}

TEST_F(Classifier, DhcpAndItsNearMisses)
{
    check(dhcpFixtures());
}

TEST_F(Classifier, MaintenanceLlcAndTunnelTypesAndTheirNearMisses)
{
    check(controlFixtures());
}

TEST_F(Classifier, IpProtocolsAndTheirNearMisses)
{
    check(protocolFixtures());
}

TEST_F(Classifier, EveryServiceInBothFamiliesAndAtEitherEnd)
{
    check(serviceFixtures());
}

TEST_F(Classifier, ExtensionHeadersAndTheirNearMisses)
{
    check(extensionFixtures());
}

TEST_F(Classifier, CutFramesAreOfNoTypeBeforeTheByteThatDecides)
{
    for (const auto &fixtures : allFixtures())
        checkCut(fixtures);
}

/** DHCP from a client and to it, both ways of IPv4 and IPv6, and what they are together. */
struct Snooped {
    int type;
    int snooping;
    Frame frame;
};

std::vector<Snooped> snooped()
{
    auto v6 = [](unsigned from, unsigned to) {
        return Frame(host).ipv6({.next = udp}).udp(from, to).zeros(100);
    };
    return {{CPD_DHCPCLIENT, CPD_DHCPSNOOPIP, udpFrame(68, 67)},
            {CPD_DHCPSERVER, CPD_DHCPSNOOPIP, udpFrame(67, 68)},
            {CPD_DHCP6REQUEST, CPD_DHCPSNOOPIP6, v6(546, 547)},
            {CPD_DHCP6REPLY, CPD_DHCPSNOOPIP6, v6(547, 546)}};
}

TEST_F(Classifier, DhcpWithoutAnEntryOfItsOwnIsUnderTheSnoopingEntry)
{
    for (const Snooped &each : snooped()) {
        const auto &bytes = each.frame.bytes();

        cpd_policy snooping = only(each.snooping, CPD_RULE_DENY);
        cpd_let_stand_in(&snooping);
        program->enforce(snooping);
        EXPECT_EQ(run(bytes), XDP_DROP);
        EXPECT_EQ(counted(bytes.size(), false), each.snooping);

        cpd_policy both = snooping;
        both.types[each.type].flags = CPD_RULE_PACKETS;
        cpd_let_stand_in(&both);
        program->meter(0, zynlinux::packetSettings(UINT32_MAX));
        program->enforce(both);
        EXPECT_EQ(run(bytes), XDP_PASS);
        EXPECT_EQ(counted(bytes.size(), true), each.type);

        program->enforceNothing();
        EXPECT_EQ(run(bytes), XDP_PASS);
        EXPECT_EQ(counted(bytes.size(), true), each.type);
    }
}

TEST_F(Classifier, NoOtherTypeIsUnderTheEntryOfAnother)
{
    for (const auto &fixtures : allFixtures())
        for (const Fixture &fixture : fixtures) {
            if (fixture.type == CPD_NO_TYPE)
                continue;
            SCOPED_TRACE(fixture.name);
            cpd_policy policy = denyAll();
            policy.types[fixture.type].flags = 0;
            cpd_let_stand_in(&policy);
            program->enforce(policy);
            bool dhcp = fixture.type == CPD_DHCPCLIENT || fixture.type == CPD_DHCPSERVER ||
                        fixture.type == CPD_DHCP6REQUEST || fixture.type == CPD_DHCP6REPLY;
            EXPECT_EQ(run(fixture.frame.bytes()), dhcp ? XDP_DROP : XDP_PASS);
        }
}

TEST(ClassifierTable, EveryTypeHasFixtures)
{
    std::vector<int> seen(CPD_TYPES);
    size_t total = 0, misses = 0;
    for (const auto &fixtures : allFixtures()) {
        total += fixtures.size();
        for (const Fixture &fixture : fixtures)
            if (fixture.type < CPD_TYPES)
                seen[static_cast<size_t>(fixture.type)]++;
            else
                misses++;
    }
    for (uint32_t type = 0; type < CPD_TYPES; type++)
        if (zynPktHasFrames(type))
            EXPECT_GE(seen[type], 2) << "type " << type;
        else
            EXPECT_EQ(seen[type], 0) << "type " << type;
    EXPECT_GE(total, 150u);
    EXPECT_GE(misses, 80u);
    RecordProperty("fixtures", static_cast<int>(total));
    RecordProperty("near_misses", static_cast<int>(misses));
    std::printf("%zu fixtures, %zu of them near misses\n", total, misses);
}

} // namespace
