#include "frames.h"

#include <algorithm>

namespace
{

constexpr Ip4 allHosts = {224, 0, 0, 1};
constexpr Ip4 allRouters = {224, 0, 0, 2};

class Writer
{
public:
    template <class Range> Writer &bytes(const Range &range)
    {
        octets_.insert(octets_.end(), range.begin(), range.end());
        return *this;
    }

    Writer &u8(std::initializer_list<uint8_t> values) { return bytes(values); }

    Writer &u16(uint16_t value)
    {
        return u8({static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
    }

    /** All up to the ethertype's data. */
    Writer &header(const Mac &to, const Host &from, uint16_t ethertype)
    {
        bytes(to).bytes(from.mac);
        for (const Tag &tag : from.tags)
            u16(tag.protocol).u16(tag.control);
        return u16(ethertype);
    }

    Octets padded(size_t length)
    {
        octets_.resize(std::max(octets_.size(), length));
        return octets_;
    }

private:
    Octets octets_;
};

/** The Internet checksum (RFC 1071). */
uint16_t checksum(const Octets &header)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < header.size(); i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

/** With the checksum put into a field of it. */
Octets summed(Octets header, size_t field)
{
    const uint16_t sum = checksum(header);
    header[field] = static_cast<uint8_t>(sum >> 8);
    header[field + 1] = static_cast<uint8_t>(sum);
    return header;
}

Octets igmp(const Host &from, const Ip4 &to, uint8_t type, const Ip4 &group)
{
    const Mac mac = {0x01, 0, 0x5e, to[1], to[2], to[3]}; // RFC 1112, 6.4; these have bit 23 clear
    const Octets message = summed(Writer().u8({type, 100, 0, 0}).bytes(group).padded(8), 2);
    // The header has the router alert option (RFC 2113), as RFC 2236 asks for.
    Writer ip;
    ip.u8({0x46, 0}).u16(32).u8({0, 0, 0, 0, 1, 2, 0, 0}).bytes(from.ip).bytes(to);
    const Octets header = summed(ip.u8({0x94, 4, 0, 0}).padded(24), 10);
    return Writer().header(mac, from, etherIp4).bytes(header).bytes(message).padded(shortestFrame);
}

} // namespace

Octets frame(const Mac &to, uint16_t ethertype, size_t length)
{
    return Writer().header(to, {{0x02, 0, 0, 0, 0, 0xee}, {}}, ethertype).padded(length);
}

Octets arpRequest(const Host &from, const Ip4 &wanted, size_t length)
{
    Writer writer;
    writer.header(everybody, from, etherArp).u8({0, 1, 8, 0, 6, 4, 0, 1});
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
