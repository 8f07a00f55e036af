/**
 * Frames through the packet program in the kernel, without a port: verdict, frame, counters.
 */
#include <gtest/gtest.h>
#include <memory>

#include <bpf/bpf.h>

#include "bpf_probe.h"
#include "counters.h"
#include "dataplane.h"
#include "frame.h"

using namespace zynlinux;

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
        {"PAE group, but LLDP", CPD_NO_TYPE, Frame(paeGroup).u16(0x88cc).zeros(46)},
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
        {"ARP behind three tags", CPD_NO_TYPE, taggedArp({0x88a8, 0x8100, 0x8100})},
        {"ARP behind another tag", CPD_NO_TYPE, taggedArp({0x9200})},
        {"tag without an ethertype", CPD_NO_TYPE, tagged({0x8100})},
        {"second tag without an ethertype", CPD_NO_TYPE, tagged({0x88a8, 0x8100})},
        {"tag, ethertype one byte short", CPD_NO_TYPE, tagged({0x8100}).u8({0x08})},
        {"two tags, ethertype one byte short", CPD_NO_TYPE, tagged({0x88a8, 0x8100}).u8({0x08})},
        {"VLAN id that looks like ARP", CPD_NO_TYPE,
         Frame(broadcast).tag(0x8100, 0x0806).u16(0x86dd).zeros(46)},

        {"ALB learning packet", CPD_ALB, Frame(peer, peer).u16(0x9000).decided().zeros(46)},
        {"ALB learning packet, old ethertype", CPD_ALB,
         Frame(peer, peer).u16(0x0060).decided().zeros(46)},
        {"ALB learning packet in a VLAN", CPD_ALB,
         Frame(peer, peer).tag(0x8100, 7).u16(0x9000).decided().zeros(46)},
        {"loopback test between two stations", CPD_NO_TYPE,
         Frame(host, peer).u16(0x9000).zeros(46)},
        {"loopback, addresses differ in the first byte", CPD_NO_TYPE,
         Frame(Mac{2, 0, 0, 0, 0, 2}, Mac{6, 0, 0, 0, 0, 2}).u16(0x9000).zeros(46)},
        {"loopback, addresses differ in the third byte", CPD_NO_TYPE,
         Frame(Mac{2, 0, 1, 0, 0, 2}, Mac{2, 0, 0, 0, 0, 2}).u16(0x9000).zeros(46)},
        {"loopback, addresses differ in the last byte", CPD_NO_TYPE,
         Frame(Mac{2, 0, 0, 0, 0, 2}, Mac{2, 0, 0, 0, 0, 3}).u16(0x9000).zeros(46)},
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
        {"STP of an undefined length", CPD_NO_TYPE, llc(stp, {0x42, 0x42, 0x03}, 1501)},
        {"STP, length one byte short", CPD_NO_TYPE, llc(stp, {0x42, 0x42, 0x03}, 2)},
        {"STP, frame one byte short", CPD_NO_TYPE, Frame(stp).u16(38).u8({0x42, 0x42})},
        {"STP, length 0", CPD_NO_TYPE, llc(stp, {0x42, 0x42, 0x03}, 0)},
        {"STP of a provider", CPD_NO_TYPE, llc(bridgeGroup(0x08), {0x42, 0x42, 0x03})},
        {"STP to the next address", CPD_NO_TYPE, llc(bridgeGroup(0x01), {0x42, 0x42, 0x03})},
        {"STP to a station", CPD_NO_TYPE, llc(host, {0x42, 0x42, 0x03})},
        {"STP, wrong first byte of the group", CPD_NO_TYPE,
         llc({0x03, 0x80, 0xc2, 0, 0, 0}, {0x42, 0x42, 0x03})},
        {"STP, wrong fourth byte of the group", CPD_NO_TYPE,
         llc({0x01, 0x80, 0xc2, 1, 0, 0}, {0x42, 0x42, 0x03})},
        {"STP, wrong DSAP", CPD_NO_TYPE, llc(stp, {0x43, 0x42, 0x03})},
        {"STP, wrong SSAP", CPD_NO_TYPE, llc(stp, {0x42, 0x43, 0x03})},
        {"STP, wrong control", CPD_NO_TYPE, llc(stp, {0x42, 0x42, 0x13})},
        {"STP group, but SNAP", CPD_NO_TYPE, snap({0, 0, 0x0c}, 0x0111, stp)},
        {"STP group, but an ethertype", CPD_NO_TYPE, Frame(stp).u16(0x4242).u8({3}).zeros(45)},

        {"GVRP", CPD_GVRP, llc(gvrp, {0x42, 0x42, 0x03})},
        {"GVRP in a VLAN", CPD_GVRP,
         Frame(gvrp).tag(0x88a8, 1).u16(20).u8({0x42, 0x42, 0x03}).decided().zeros(20)},
        {"GMRP", CPD_NO_TYPE, llc(bridgeGroup(0x20), {0x42, 0x42, 0x03})},
        {"GARP of the next application", CPD_NO_TYPE, llc(bridgeGroup(0x22), {0x42, 0x42, 0x03})},
        {"MVRP", CPD_NO_TYPE, Frame(gvrp).u16(0x88f5).zeros(46)},
        {"GVRP, wrong DSAP", CPD_NO_TYPE, llc(gvrp, {0x40, 0x42, 0x03})},
        {"GVRP, wrong SSAP", CPD_NO_TYPE, llc(gvrp, {0x42, 0x40, 0x03})},
        {"GVRP, wrong control", CPD_NO_TYPE, llc(gvrp, {0x42, 0x42, 0x00})},
        {"GVRP, length one byte short", CPD_NO_TYPE, llc(gvrp, {0x42, 0x42, 0x03}, 2)},
        {"GVRP, frame one byte short", CPD_NO_TYPE, Frame(gvrp).u16(20).u8({0x42, 0x42})},

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
        {"UDLD, length one byte short", CPD_NO_TYPE,
         snap({0x00, 0x00, 0x0c}, 0x0111, snapGroup, 7)},
        {"UDLD, frame one byte short", CPD_NO_TYPE,
         Frame(snapGroup).u16(46).u8({0xaa, 0xaa, 3, 0, 0, 0x0c, 1})},
        {"UDLD, LLC header one byte short", CPD_NO_TYPE, Frame(snapGroup).u16(46).u8({0xaa, 0xaa})},
        {"UDLD to a station", CPD_NO_TYPE, snap({0x00, 0x00, 0x0c}, 0x0111, host)},
        {"UDLD to the next address", CPD_NO_TYPE,
         snap({0x00, 0x00, 0x0c}, 0x0111, {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcd})},
        {"UDLD, wrong OUI", CPD_NO_TYPE, snap({0x00, 0x00, 0x0d}, 0x0111)},
        {"UDLD, OUI of Ethernet", CPD_NO_TYPE, snap({0x00, 0x00, 0x00}, 0x0111)},
        {"UDLD, wrong first byte of the OUI", CPD_NO_TYPE, snap({0x01, 0x00, 0x0c}, 0x0111)},
        {"UDLD, wrong second byte of the OUI", CPD_NO_TYPE, snap({0x00, 0x01, 0x0c}, 0x0111)},
        {"UDLD, wrong DSAP", CPD_NO_TYPE,
         Frame(snapGroup).u16(46).u8({0xab, 0xaa, 3, 0, 0, 0x0c, 1, 0x11}).zeros(38)},
        {"UDLD, wrong SSAP", CPD_NO_TYPE,
         Frame(snapGroup).u16(46).u8({0xaa, 0xab, 3, 0, 0, 0x0c, 1, 0x11}).zeros(38)},
        {"UDLD, wrong control", CPD_NO_TYPE,
         Frame(snapGroup).u16(46).u8({0xaa, 0xaa, 7, 0, 0, 0x0c, 1, 0x11}).zeros(38)},
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
        {"VTP, frame one byte short", CPD_NO_TYPE,
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
        {"IGMP without a message, padding like a report", CPD_IGMP,
         bare({.protocol = igmp, .payloadBytes = 0}).u8({0x16}).zeros(25)},
        {"IGMP, message cut off", CPD_IGMP, bare({.protocol = igmp})},
        {"IGMP, options beyond the frame", CPD_NO_TYPE,
         bare({.protocol = igmp, .versionIhl = 0x46, .payloadBytes = 8}).u8({1, 1, 1})},
        {"IGMP, header longer than the packet", CPD_NO_TYPE,
         bare({.protocol = igmp, .versionIhl = 0x4f, .payloadBytes = 8}).zeros(60)},
        {"IGMP, header length 4 words", CPD_NO_TYPE,
         bare({.protocol = igmp, .versionIhl = 0x44}).u8({0x16}).zeros(30)},
        {"IGMP, header length 0", CPD_NO_TYPE,
         bare({.protocol = igmp, .versionIhl = 0x40}).u8({0x16}).zeros(30)},
        {"IGMP, version 6", CPD_NO_TYPE,
         bare({.protocol = igmp, .versionIhl = 0x65}).u8({0x16}).zeros(30)},
        {"protocol before IGMP", CPD_NO_TYPE, bare({.protocol = 1}).u8({0x16}).zeros(7)},
        {"protocol behind IGMP", CPD_NO_TYPE, bare({.protocol = 3}).u8({0x16}).zeros(7)},
        {"IGMP's bytes under the ethertype of IPv6", CPD_NO_TYPE,
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
        {"DHCP from a client", CPD_DHCPSNOOPIP, udpFrame(68, 67)},
        {"DHCP from a server", CPD_DHCPSNOOPIP, udpFrame(67, 68)},
        {"DHCP between relays", CPD_DHCPSNOOPIP, udpFrame(67, 67)},
        {"to port 67 from anywhere", CPD_DHCPSNOOPIP, udpFrame(40000, 67)},
        {"to port 68 from anywhere", CPD_DHCPSNOOPIP, udpFrame(40000, 68)},
        {"from port 67 to anywhere", CPD_DHCPSNOOPIP, udpFrame(67, 40000)},
        {"from port 68 to anywhere", CPD_DHCPSNOOPIP, udpFrame(68, 40000)},
        {"DHCP with an IP option", CPD_DHCPSNOOPIP, udpFrame(68, 67, options(1))},
        {"DHCP with the longest IP options", CPD_DHCPSNOOPIP, udpFrame(68, 67, options(10))},
        {"DHCP that must not be fragmented", CPD_DHCPSNOOPIP,
         udpFrame(68, 67, {.protocol = udp, .fragment = dontFragment})},
        {"DHCP, first fragment", CPD_DHCPSNOOPIP,
         udpFrame(68, 67, {.protocol = udp, .fragment = moreFragments})},
        {"DHCP in a VLAN", CPD_DHCPSNOOPIP,
         tagged({0x8100}).ipv4({.protocol = udp}).udp(68, 67).zeros(300)},
        {"DHCP in two VLAN tags", CPD_DHCPSNOOPIP,
         tagged({0x88a8, 0x8100}).ipv4({.protocol = udp}).udp(68, 67).zeros(300)},
        {"DHCP, ports alone in the packet", CPD_DHCPSNOOPIP,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 4})},

        {"ports 66 and 69", CPD_NO_TYPE, udpFrame(66, 69)},
        {"ports with the bytes swapped", CPD_NO_TYPE, udpFrame(67 << 8, 68 << 8)},
        {"DHCP's ports on TCP", CPD_NO_TYPE, udpFrame(68, 67, {.protocol = tcp})},
        {"DHCPv6 ports on IPv4", CPD_NO_TYPE, udpFrame(546, 547)},
        {"DHCP, later fragment that looks like ports", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .fragment = 1})},
        {"DHCP, later fragment with more to come", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .fragment = moreFragments | 185})},
        {"DHCP, packet one byte short of the ports", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 3})},
        {"DHCP, empty packet with padding like ports", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .payloadBytes = 0})},
        {"DHCP, frame one byte short of the ports", CPD_NO_TYPE,
         Frame(broadcast).ipv4({.protocol = udp}).u16(68).u8({0})},
        {"DHCP, IP header one byte short", CPD_NO_TYPE,
         Frame(broadcast).u16(0x0800).u8({0x45, 0}).u16(328).zeros(5).u8({udp}).zeros(9)},
        {"DHCP, header length 4 words", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .versionIhl = 0x44})},
        {"DHCP, header length without the options", CPD_NO_TYPE,
         udpFrame(68, 67, {.protocol = udp, .optionBytes = 4})},
        {"DHCP, version 5", CPD_NO_TYPE, udpFrame(68, 67, {.protocol = udp, .versionIhl = 0x55})},
        {"DHCP's ports where the IP options stand", CPD_NO_TYPE,
         Frame(broadcast)
             .ipv4({.protocol = udp, .versionIhl = 0x46, .payloadBytes = 12})
             .u16(68)
             .u16(67)
             .u16(1000)
             .u16(2000)
             .zeros(30)},
        {"no Ethernet payload", CPD_NO_TYPE, Frame(broadcast).u16(0x0800)},
        {"IPv6", CPD_NO_TYPE, Frame(broadcast).u16(0x86dd).u8({0x60}).zeros(60)},
        {"local experimental ethertype", CPD_NO_TYPE, Frame(broadcast).u16(0x88b5).zeros(46)},
    };
}

tHwCpuDefendPktCarEntry denyEntry(uint32_t type)
{
    tHwCpuDefendPktCarEntry entry{};
    entry.pktType = type;
    entry.op = ZYN_HW_OP_DENY;
    return entry;
}

class Classifier : public testing::Test
{
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        plane = std::make_unique<DataPlane>();
    }

    void denyAll()
    {
        for (uint32_t type = 0; type < CPD_TYPES; type++) {
            auto entry = denyEntry(type);
            plane->enforce(type, &entry);
        }
    }

    /** The verdict on a frame, which must come out as it went in. */
    uint32_t run(const std::vector<uint8_t> &frame)
    {
        std::vector<uint8_t> out(frame.size() + 64);
        LIBBPF_OPTS(bpf_test_run_opts, options);
        options.data_in = frame.data();
        options.data_size_in = static_cast<uint32_t>(frame.size());
        options.data_out = out.data();
        options.data_size_out = static_cast<uint32_t>(out.size());
        EXPECT_EQ(bpf_prog_test_run_opts(plane->program(), &options), 0);
        out.resize(options.data_size_out);
        EXPECT_EQ(out, frame);
        return options.retval;
    }

    /** What the counters say since the last call: the one type that was counted, if any. */
    int counted(uint64_t octets, bool passed)
    {
        auto now = readCounters(plane->counters());
        int type = CPD_NO_TYPE;
        for (int i = 0; i < CPD_TYPES; i++) {
            const cpd_counters &a = last[i], &b = now[i];
            uint64_t in = b.passed_packets - a.passed_packets,
                     inBytes = b.passed_octets - a.passed_octets;
            uint64_t out = b.dropped_packets - a.dropped_packets,
                     outBytes = b.dropped_octets - a.dropped_octets;
            if (in + out + inBytes + outBytes == 0)
                continue;
            EXPECT_EQ(type, CPD_NO_TYPE) << "two types counted";
            EXPECT_EQ(passed ? in : out, 1u);
            EXPECT_EQ(passed ? inBytes : outBytes, octets);
            EXPECT_EQ(passed ? out + outBytes : in + inBytes, 0u);
            type = i;
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
        denyAll();
        for (const Fixture &fixture : fixtures) {
            SCOPED_TRACE(fixture.name);
            const auto &bytes = fixture.frame.bytes();
            EXPECT_EQ(run(bytes), fixture.type == CPD_NO_TYPE ? XDP_PASS : XDP_DROP);
            EXPECT_EQ(counted(bytes.size(), false), fixture.type);
        }
    }

    /** What is left of a frame that is cut off. */
    static int typeOfCut(const Fixture &fixture, size_t length)
    {
        if (length >= fixture.frame.decidedBy())
            return fixture.type;
        // An IPv4 header that says IGMP is enough for the one type, the message tells the other.
        bool isIgmp = fixture.type == CPD_IGMP || fixture.type == CPD_IGMPSNOOP;
        return isIgmp && length >= fixture.frame.ipv4End() ? CPD_IGMP : CPD_NO_TYPE;
    }

    void checkCut(const std::vector<Fixture> &fixtures)
    {
        denyAll();
        for (const Fixture &fixture : fixtures) {
            for (size_t length = 14; length <= fixture.frame.bytes().size(); length++) {
                auto cut = fixture.frame.bytes();
                cut.resize(length);
                int type = typeOfCut(fixture, length);
                ASSERT_EQ(run(cut), type == CPD_NO_TYPE ? XDP_PASS : XDP_DROP)
                    << fixture.name << " cut to " << length << " bytes";
                ASSERT_EQ(counted(length, false), type)
                    << fixture.name << " cut to " << length << " bytes";
            }
        }
    }

    std::unique_ptr<DataPlane> plane;
    std::vector<cpd_counters> last = std::vector<cpd_counters>(CPD_TYPES);
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

TEST_F(Classifier, CutFramesAreOfNoTypeBeforeTheByteThatDecides)
{
    checkCut(linkFixtures());
    checkCut(llcFixtures());
    checkCut(igmpFixtures());
    checkCut(dhcpFixtures());
}

TEST_F(Classifier, EveryTypeHasFixtures)
{
    std::vector<int> seen(CPD_TYPES);
    size_t total = 0;
    for (const auto &fixtures : {linkFixtures(), llcFixtures(), igmpFixtures(), dhcpFixtures()}) {
        total += fixtures.size();
        for (const Fixture &fixture : fixtures)
            if (fixture.type != CPD_NO_TYPE)
                seen[static_cast<size_t>(fixture.type)]++;
    }
    for (int type = 0; type < CPD_TYPES; type++)
        EXPECT_GE(seen[static_cast<size_t>(type)], 2) << "type " << type;
    EXPECT_GE(total, 100u);
}

} // namespace
