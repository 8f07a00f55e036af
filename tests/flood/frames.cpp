#include "frames.h"

namespace
{

constexpr Ip4 allHosts = {224, 0, 0, 1};
constexpr Ip4 allRouters = {224, 0, 0, 2};

/** All up to the ethertype's data. */
OctetWriter header(const Mac &to, const Host &from, uint16_t ethertype)
{
    OctetWriter writer;
    writer.bytes(to).bytes(from.mac);
    for (const Tag &tag : from.tags)
        writer.u16(tag.protocol).u16(tag.control);
    return writer.u16(ethertype);
}

/** With the checksum put into a field of it. */
Octets summed(Octets header, size_t field)
{
    put16(header, field, checksum(header));
    return header;
}

Octets igmp(const Host &from, const Ip4 &to, uint8_t type, const Ip4 &group)
{
    const Mac mac = {0x01, 0, 0x5e, to[1], to[2], to[3]}; // RFC 1112, 6.4; these have bit 23 clear
    const Octets message = summed(OctetWriter().u8({type, 100, 0, 0}).bytes(group).padded(8), 2);
    // The header has the router alert option (RFC 2113), as RFC 2236 asks for.
    OctetWriter ip;
    ip.u8({0x46, 0}).u16(32).u8({0, 0, 0, 0, 1, 2, 0, 0}).bytes(from.ip).bytes(to);
    const Octets ipHeader = summed(ip.u8({0x94, 4, 0, 0}).padded(24), 10);
    return header(mac, from, etherIp4).bytes(ipHeader).bytes(message).padded(shortestFrame);
}

} // namespace

Octets frame(const Mac &to, uint16_t ethertype, size_t length)
{
    return header(to, {{0x02, 0, 0, 0, 0, 0xee}, {}}, ethertype).padded(length);
}

Octets arpRequest(const Host &from, const Ip4 &wanted, size_t length)
{
    OctetWriter writer = header(everybody, from, etherArp);
    writer.u8({0, 1, 8, 0, 6, 4, 0, 1});
    writer.bytes(from.mac).bytes(from.ip).bytes(Mac{}).bytes(wanted);
    return writer.padded(length);
}

Octets igmpQuery(const Host &from)
{
    return igmp(from, allHosts, 0x11, {});
}

Octets igmpLeave(const Host &from, const Ip4 &group)
{
    return igmp(from, allRouters, 0x17, group);
}
