#include "rules.h"

#include "frames.h"

#include <fmt/format.h>

namespace
{

std::string prefix(uint32_t address, unsigned length)
{
    const uint32_t bits = address & ~0u << (32 - length);
    return fmt::format("{}.{}.{}.{}/{}", bits >> 24, bits >> 16 & 255, bits >> 8 & 255, bits & 255,
                       length);
}

/** The nth address of the documentation's networks (RFC 5737), where the servers are. */
std::string server(unsigned n)
{
    constexpr uint32_t networks[] = {address(192, 0, 2, 0), address(198, 51, 100, 0),
                                     address(203, 0, 113, 0)};
    return prefix(networks[n % 3] + n / 3 % 256, 32);
}

std::string customer(unsigned n, unsigned length)
{
    return prefix(address(10, 0, 0, 0) + (n << (32 - length)), length);
}

// The nth rule of each shape.

AccessRule peering(unsigned n)
{
    return {.permit = true, .protocol = "tcp", .source = customer(n, 24), .ports = {179, 179}};
}

AccessRule manager(unsigned n)
{
    const std::string host = prefix(address(172, 16, 0, 0) + 37 * n, 32);
    return {.permit = true, .protocol = "udp", .source = host, .ports = {161, 162}};
}

AccessRule highPorts(unsigned n)
{
    return {.protocol = "udp",
            .sourcePorts = {1024, 65535},
            .destination = server(n),
            .ports = {500 + n % 16, 500 + n % 16}};
}

AccessRule ping(unsigned n)
{
    return {.permit = true, .protocol = "icmp", .source = customer(n, 20), .ping = true};
}

AccessRule opening(unsigned n)
{
    return {.permit = true,
            .protocol = "tcp",
            .destination = server(n),
            .ports = {22, 22},
            .opening = true};
}

AccessRule network(unsigned n)
{
    return {.permit = true, .source = prefix(address(100, 64, 0, 0) + (n << 14), 18 + n % 12)};
}

AccessRule fragments(unsigned n)
{
    return {.source = prefix(address(192, 168, 0, 0) + (n << 9), 23), .fragments = true};
}

AccessRule router(unsigned n)
{
    return {.permit = true,
            .protocol = "89",
            .source = prefix(address(172, 31, 0, 0) + 5 * n, 32),
            .destination = prefix(address(224, 0, 0, 5), 32)};
}

std::string inText(const PortRange &ports, char between)
{
    return ports.first == ports.last ? fmt::format("{}", ports.first)
                                     : fmt::format("{}{}{}", ports.first, between, ports.last);
}

} // namespace

std::vector<AccessRule> accessRules(unsigned count)
{
    constexpr AccessRule (*shapes[])(unsigned) = {peering, manager, highPorts, ping,
                                                  opening, network, fragments, router};
    std::vector<AccessRule> rules;
    for (unsigned i = 0; i < count; i++)
        rules.push_back(shapes[i % std::size(shapes)](i / std::size(shapes)));
    return rules;
}

std::string inPlatformFile(const AccessRule &rule)
{
    std::string text = rule.permit ? "permit " : "deny ";
    text += rule.protocol.empty() ? "ip" : rule.protocol;
    text += " " + (rule.source.empty() ? "any" : rule.source);
    if (rule.sourcePorts.last)
        text += " port " + inText(rule.sourcePorts, '-');
    text += " " + (rule.destination.empty() ? "any" : rule.destination);
    if (rule.ports.last)
        text += " port " + inText(rule.ports, '-');
    text += rule.ping ? " type 8" : "";
    text += rule.opening ? " flags syn,!ack" : "";
    text += rule.fragments ? " fragments" : "";
    return text;
}

std::string inNft(const AccessRule &rule)
{
    std::string text;
    if (!rule.source.empty())
        text += "ip saddr " + rule.source + " ";
    if (!rule.destination.empty())
        text += "ip daddr " + rule.destination + " ";
    if (rule.sourcePorts.last)
        text += rule.protocol + " sport " + inText(rule.sourcePorts, '-') + " ";
    if (rule.ports.last)
        text += rule.protocol + " dport " + inText(rule.ports, '-') + " ";
    else if (rule.ping)
        text += "icmp type 8 ";
    else if (!rule.protocol.empty())
        text += "ip protocol " + rule.protocol + " ";
    text += rule.opening ? "tcp flags & (syn|ack) == syn " : "";
    text += rule.fragments ? "ip frag-off & 0x1fff != 0 " : "";
    return text + (rule.permit ? "accept" : "drop");
}

std::string inIptables(const AccessRule &rule)
{
    std::string text = "-A INPUT";
    if (!rule.source.empty())
        text += " -s " + rule.source;
    if (!rule.destination.empty())
        text += " -d " + rule.destination;
    if (!rule.protocol.empty())
        text += " -p " + rule.protocol;
    if (rule.sourcePorts.last)
        text += " --sport " + inText(rule.sourcePorts, ':');
    if (rule.ports.last)
        text += " --dport " + inText(rule.ports, ':');
    text += rule.ping ? " --icmp-type 8" : "";
    text += rule.opening ? " --tcp-flags SYN,ACK SYN" : "";
    text += rule.fragments ? " -f" : "";
    return text + (rule.permit ? " -j ACCEPT" : " -j DROP");
}
