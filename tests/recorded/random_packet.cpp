#include "random_packet.h"

#include <bit>

#include "common/octets.h"
#include "core/link_message.h"

namespace recorded
{

constexpr uint16_t IPV4 = 0x0800, ARP = 0x0806;

static OctetWriter ethernet(Dice &dice, uint8_t sender, uint16_t protocol, bool tagged)
{
    OctetWriter writer;
    writer.u8({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}).u8({2, 0, 0, 0, 0, sender});
    if (tagged)
        writer.u16(0x8100).u16(dice.below(0x10000));
    writer.u16(protocol);
    return writer;
}

static void arp(OctetWriter &writer, uint8_t sender)
{
    writer.u16(1).u16(IPV4).u8({6, 4}).u16(1).u8({2, 0, 0, 0, 0, sender}).u8({10, 0, 0, sender});
    writer.zeros(6).u8({10, 0, 0, 254});
}

static void ipv4(Dice &dice, OctetWriter &writer, uint8_t sender)
{
    static const uint8_t protocols[] = {1, 2, 2, 6, 6, 17, 17, 47};
    static const uint16_t ports[] = {23, 67, 68, 53, 4000};
    const uint8_t words = static_cast<uint8_t>(dice.once(5) ? dice.below(16) : 5);
    writer.u8({static_cast<uint8_t>(0x40 | words), 0}).u16(40).zeros(4);
    writer.u8({64, dice.of(protocols)}).u16(0).u8({10, 0, 0, sender}).u8({10, 0, 1, 1});
    writer.zeros(words > 5 ? 4 * (words - 5u) : 0);
    writer.u16(dice.of(ports)).u16(dice.of(ports)).zeros(16);
}

Packet randomPacket(Dice &dice)
{
    static const uint16_t protocols[] = {IPV4, IPV4, ARP, ARP, 0x86DD, 0};
    const auto sender = static_cast<uint8_t>(dice.below(5));
    const bool tagged = dice.once(4);
    Packet packet;
    packet.protocol = dice.of(protocols);
    OctetWriter writer = ethernet(dice, sender, packet.protocol, tagged);
    if (packet.protocol == ARP)
        arp(writer, sender);
    else
        ipv4(dice, writer, sender);
    packet.frame = writer.octets();
    if (dice.once(12))
        packet.frame.resize(1 + dice.below(static_cast<uint32_t>(packet.frame.size())));
    packet.info.pkt_inport = 1 + dice.below(5);
    packet.info.pkt_dataoffset = static_cast<uint8_t>(dice.once(15) ? dice.number()
                                                      : tagged      ? 18
                                                                    : 14);
    packet.info.pkt_outervid = static_cast<uint16_t>(tagged ? dice.number() : 0);
    packet.info.pkt_innervid = static_cast<uint16_t>(dice.once(9) ? dice.number() : 0);
    return packet;
}

/** A message about a link, or of another type. */
static std::string randomMessage(Dice &dice)
{
    static const uint16_t types[] = {RTM_NEWLINK, RTM_NEWLINK, RTM_NEWLINK, RTM_DELLINK,
                                     RTM_DELLINK, 87,          90,          RTM_NEWADDR};
    const uint16_t type = dice.of(types);
    const auto family = static_cast<uint8_t>(dice.once(8) ? AF_BRIDGE : AF_UNSPEC);
    const uint32_t unit = 1 + dice.below(7);
    return linkMessage(type, unit, family, dice.below(4) * 6);
}

/** Where byte @a at of a netlink header stands, each field counted from its low byte on. */
static uint32_t headerByte(uint32_t at)
{
    static const struct {
        uint32_t begin, size;
    } fields[] = {{0, 4}, {4, 2}, {6, 2}, {8, 4}, {12, 4}};
    for (const auto &[begin, size] : fields)
        if (std::endian::native == std::endian::big && at < begin + size)
            return begin + (begin + size - 1 - at);
    return at;
}

std::string randomNotification(Dice &dice)
{
    std::string datagram;
    for (uint32_t n = 1 + dice.below(3); n > 0; n--)
        datagram += randomMessage(dice);
    if (dice.once(8)) {
        const auto byte = static_cast<char>(dice.number());
        datagram[headerByte(dice.below(16))] = byte;
    }
    if (dice.once(8))
        datagram.resize(dice.below(static_cast<uint32_t>(datagram.size()) + 1));
    return datagram;
}

static std::string withHeader(std::string message, uint32_t sequence, uint16_t flags)
{
    nlmsghdr header;
    memcpy(&header, message.data(), sizeof header);
    header.nlmsg_seq = sequence;
    header.nlmsg_flags = flags;
    memcpy(message.data(), &header, sizeof header);
    return message;
}

std::string linkList(uint32_t links, uint32_t sequence, uint16_t flags)
{
    std::string list;
    for (uint32_t unit = 1; unit <= links; unit++)
        list += withHeader(linkIsThere(unit), sequence, flags);
    return list + withHeader(linkMessage(NLMSG_DONE, 0), sequence, flags);
}

} // namespace recorded
