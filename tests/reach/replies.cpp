#include "replies.h"

#include <algorithm>
#include <netinet/in.h>

#include "item.h"
#include "plan.h"
#include "verdicts.h"

namespace
{

enum { Arp, Echo4, Echo6, Neighbour, NamedTcp, GuardedTcp, OtherTcp };

constexpr size_t network = 14;
constexpr uint8_t synAck = 0x12;

// How many hops the host gives what it sends. What it only forwards has one less of something else.
constexpr uint8_t ownHops = 64, neighbourHops = 255;

unsigned word(std::span<const uint8_t> octets, size_t at)
{
    return static_cast<unsigned>(octets[at] << 8 | octets[at + 1]);
}

size_t tcpConsumer(std::span<const uint8_t> segment)
{
    const unsigned port = word(segment, 0);
    if (port == namedTcpPort)
        return NamedTcp;
    return port == guardedTcpPort && (segment[13] & synAck) == synAck ? GuardedTcp : OtherTcp;
}

/** What is acknowledged is the number and the one octet that a SYN counts for. */
std::optional<Reply> tcpReply(std::span<const uint8_t> segment)
{
    if (segment.size() < 20)
        return std::nullopt;
    const uint32_t acknowledged = word(segment, 8) << 16 | word(segment, 10);
    std::optional<uint32_t> id;
    if ((segment[13] & synAck) == synAck)
        id = acknowledged - 1;
    return Reply{tcpConsumer(segment), id};
}

std::optional<Reply> transportReply(uint8_t protocol, std::span<const uint8_t> octets)
{
    if (octets.empty())
        return std::nullopt;
    const auto id = idOfPayload(octets.data(), octets.size());
    if (protocol == IPPROTO_TCP)
        return tcpReply(octets);
    if (protocol == IPPROTO_ICMP && octets[0] == 0)
        return Reply{Echo4, id};
    if (protocol == IPPROTO_ICMPV6 && octets[0] == 129)
        return Reply{Echo6, id};
    if (protocol == IPPROTO_ICMPV6 && octets[0] == 136)
        return Reply{Neighbour, std::nullopt};
    return std::nullopt;
}

std::optional<Reply> arpReply(std::span<const uint8_t> packet)
{
    if (packet.size() < 28 || word(packet, 6) != 2)
        return std::nullopt;
    return Reply{Arp, idOfMac(packet.data() + 18)};
}

} // namespace

const std::vector<ReplyConsumer> &replyConsumers()
{
    static const std::vector<ReplyConsumer> all = {
        {"ARP: replies", never},
        {"IPv4: echo replies", never},
        {"IPv6: echo replies", never},
        {"IPv6: advertisements of a neighbour", never},
        {"TCP: answers of the port that rules name", never},
        {"TCP: connections to the port that a rule guards", never},
        {"TCP: answers of other ports", typedProtocol},
    };
    return all;
}

std::optional<Reply> replyIn(std::span<const uint8_t> frame)
{
    if (frame.size() < network + 40)
        return frame.size() >= network && word(frame, 12) == 0x0806
                   ? arpReply(frame.subspan(network))
                   : std::nullopt;
    switch (word(frame, 12)) {
    case 0x0806: return arpReply(frame.subspan(network));
    case 0x0800: {
        if (frame[network + 8] != ownHops)
            return std::nullopt;
        const size_t header = (frame[network] & 0xf) * size_t{4};
        return transportReply(frame[network + 9],
                              frame.subspan(std::min(network + header, frame.size())));
    }
    case 0x86dd:
        if (frame[network + 7] != ownHops && frame[network + 7] != neighbourHops)
            return std::nullopt;
        return transportReply(frame[network + 6], frame.subspan(network + 40));
    default: return std::nullopt;
    }
}
