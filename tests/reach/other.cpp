/**
 * What is not IP: ARP, the protocols between neighbours, and what has an LLC header.
 */
#include "draft.h"

namespace
{

constexpr Mac bridgeGroup(uint8_t last)
{
    return {0x01, 0x80, 0xc2, 0, 0, last};
}

constexpr Mac toSender = {}; // stands for the address that the frame is sent from
constexpr Mac neighbours = {0x01, 0, 0x0c, 0xcc, 0xcc, 0xcc};

/** What is known by its ethertype, or by the LLC header that stands in place of one. */
struct Protocol {
    const char *what;
    uint16_t ethertype;
    Mac to;
    Octets head;
};

const std::vector<Protocol> &byEthertype()
{
    static const std::vector<Protocol> all = {
        {"EAPOL", 0x888e, bridgeGroup(3), {1, 1, 0, 0}},
        {"LLDP", 0x88cc, bridgeGroup(0xe), {2, 7, 4, 2, 0, 0, 0, 0, 2}},
        {"LACP", 0x8809, bridgeGroup(2), {1, 1, 1, 20}},
        {"link OAM", 0x8809, bridgeGroup(2), {3, 0, 0x50, 0}},
        {"another slow protocol", 0x8809, bridgeGroup(2), {10, 0}},
        {"PPPoE discovery", 0x8863, everybodyMac, {0x11, 9, 0, 0, 0, 4}},
        {"PPPoE session", 0x8864, ownMac, {0x11, 0, 0, 1, 0, 30, 0, 0x21}},
        {"loopback test", 0x9000, ownMac, {0, 0, 1, 0}},
        {"learning packet", 0x9000, toSender, {}},
        {"old learning packet", 0x0060, toSender, {}},
        {"continuity check", 0x8902, bridgeGroup(0x30), {0x60, 1, 0, 70}},
        {"CFM loopback", 0x8902, ownMac, {0x60, 3, 0, 4}},
        {"ring protection", 0x8902, {0x01, 0x19, 0xa7, 0, 0, 1}, {0x60, 40, 0, 32}},
        {"delay measurement", 0x8902, ownMac, {0x60, 47, 0, 32}},
        {"MPLS", 0x8847, ownMac, {0, 1, 0x01, 64, 0x45, 0}},
        {"MPLS for a group", 0x8848, ownMac, {0, 1, 0x01, 64, 0x45, 0}},
        {"MVRP", 0x88f5, bridgeGroup(0x21), {0}},
        {"an experiment", 0x88b6, ownMac, {}},
    };
    return all;
}

/** A BPDU from a bridge that would be the root, or not (IEEE 802.1D-2004, 9.3). */
Octets bpdu(uint8_t version, uint8_t type)
{
    OctetWriter writer;
    writer.u8({0x42, 0x42, 3}).u16(0).u8({version, type, 0});
    writer.u16(0x8000).bytes(gatewayMac).u32(0).u16(0x8000).bytes(gatewayMac);
    writer.u16(0x8001).u16(0).u16(20 << 8).u16(2 << 8).u16(15 << 8);
    return writer.octets();
}

const std::vector<Protocol> &byLlc()
{
    static const std::vector<Protocol> all = {
        {"BPDU", 0, bridgeGroup(0), bpdu(0, 0)},
        {"BPDU of RSTP", 0, bridgeGroup(0), bpdu(2, 2)},
        {"BPDU of a topology change", 0, bridgeGroup(0), {0x42, 0x42, 3, 0, 0, 0, 0x80}},
        {"BPDU of a provider", 0, bridgeGroup(8), bpdu(0, 0)},
        {"GVRP", 0, bridgeGroup(0x21), {0x42, 0x42, 3, 0, 1, 1, 2, 0, 0}},
        {"UDLD", 0, neighbours, {0xaa, 0xaa, 3, 0, 0, 0x0c, 0x01, 0x11, 0x21}},
        {"VTP", 0, neighbours, {0xaa, 0xaa, 3, 0, 0, 0x0c, 0x20, 0x03, 1}},
        {"CDP", 0, neighbours, {0xaa, 0xaa, 3, 0, 0, 0x0c, 0x20, 0x00, 2}},
        {"EAPS", 0, {0, 0xe0, 0x2b, 0, 0, 4}, {0xaa, 0xaa, 3, 0, 0xe0, 0x2b, 0x00, 0xbb, 0x99}},
        {"EDP", 0, {0, 0xe0, 0x2b, 0, 0, 0}, {0xaa, 0xaa, 3, 0, 0xe0, 0x2b, 0x00, 0xbb, 1}},
        {"FDP",
         0,
         {0x01, 0xe0, 0x52, 0xcc, 0xcc, 0xcc},
         {0xaa, 0xaa, 3, 0, 0xe0, 0x52, 0x20, 0x00}},
        {"SONMP", 0, {0x01, 0, 0x81, 0, 0x01, 0}, {0xaa, 0xaa, 3, 0, 0, 0x81, 0x01, 0xa2}},
        {"IS-IS", 0, bridgeGroup(0x14), {0xfe, 0xfe, 3, 0x83, 27, 1}},
        {"NetBIOS", 0, everybodyMac, {0xf0, 0xf0, 3}},
        {"raw IPX", 0, everybodyMac, {0xff, 0xff, 0, 30}},
        {"tunnelled BPDU", 0, {0x01, 0, 0x0c, 0xcd, 0xcd, 0xd0}, bpdu(0, 0)},
    };
    return all;
}

Octets carried(Draft &d, const Octets &head)
{
    static constexpr uint16_t sizes[] = {46, 8, 0, 100, 1000, 1490};
    OctetWriter writer;
    writer.bytes(head).bytes(markOf(d.id));
    return writer.padded(d.usually(sizes, 4));
}

} // namespace

Content arp(Draft &d)
{
    static constexpr uint16_t operations[] = {1, 2, 3, 8, 0};
    static const std::vector<Octets> heads = {
        {0, 1, 8, 0, 6, 4}, {0, 6, 8, 0, 6, 4}, {0, 1, 8, 6, 6, 4}, {0, 1, 8, 0, 8, 4}};
    const uint16_t operation = d.usually(operations, 4);
    d.note("ARP of operation", operation);
    OctetWriter writer;
    writer.bytes(d.usually(heads, 20)).u16(operation).bytes(sourceMac(d.id));
    const Octets from = d.usually(sources4(), 5).octets;
    writer.bytes(from == sources4()[0].octets ? sources4()[1].octets : from);
    writer.bytes(Mac{}).bytes(destination(d, destinations4()));
    return {0x0806, false, everybodyMac, {writer.octets()}};
}

Content otherEthertype(Draft &d)
{
    const Protocol &protocol = d.choose.of(byEthertype());
    d.note(protocol.what);
    const Mac to = protocol.to == toSender ? sourceMac(d.id) : protocol.to;
    return {protocol.ethertype, false, to, {carried(d, protocol.head)}};
}

Content llc(Draft &d)
{
    const Protocol &protocol = d.choose.of(byLlc());
    d.note(protocol.what);
    return {0, true, protocol.to, {carried(d, protocol.head)}};
}
