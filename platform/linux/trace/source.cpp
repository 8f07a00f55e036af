#include "trace/source.h"

#include <algorithm>

#include <net/ethernet.h>
#include <netinet/in.h>

namespace zynlinux
{

namespace
{

constexpr uint32_t traced = 80; // bytes of a frame that tracing reads; what lies behind them is 0
constexpr uint16_t telnetPort = 23, dhcpServerPort = 67, dhcpClientPort = 68;

static_assert(traced <= CPD_SAMPLE_DATA);

uint8_t byteOf(const cpd_sample &sample, uint32_t at)
{
    return at < traced ? sample.data[at] : 0;
}

uint16_t wordOf(const cpd_sample &sample, uint32_t at)
{
    return static_cast<uint16_t>(byteOf(sample, at) << 8 | byteOf(sample, at + 1));
}

template <size_t N> std::array<uint8_t, N> bytesOf(const cpd_sample &sample, uint32_t at)
{
    std::array<uint8_t, N> bytes;
    for (uint8_t &byte : bytes)
        byte = byteOf(sample, at++);
    return bytes;
}

std::optional<Kind> udpKind(uint16_t sourcePort)
{
    if (sourcePort == dhcpClientPort)
        return Kind::DhcpClient;
    if (sourcePort == dhcpServerPort)
        return Kind::DhcpServer;
    return std::nullopt;
}

std::optional<Kind> ip4Kind(const cpd_sample &sample)
{
    const uint32_t network = sample.network_offset;
    const uint32_t transport = network + 4u * (byteOf(sample, network) & 0x0f);
    switch (byteOf(sample, network + 9)) {
    case IPPROTO_ICMP: return Kind::Icmp;
    case IPPROTO_IGMP: return Kind::Igmp;
    case IPPROTO_TCP: return wordOf(sample, transport + 2) == telnetPort ? Kind::Telnet : Kind::Tcp;
    case IPPROTO_UDP: return udpKind(wordOf(sample, transport));
    default: return std::nullopt;
    }
}

std::optional<Kind> kindOf(const cpd_sample &sample)
{
    if (sample.network_offset >= traced)
        return std::nullopt;
    switch (sample.ethertype) {
    case ETHERTYPE_ARP: return Kind::Arp;
    case ETHERTYPE_IP: return ip4Kind(sample);
    default: return std::nullopt;
    }
}

} // namespace

std::optional<Source> sourceOf(const cpd_sample &sample, const PortConfig &port)
{
    const std::optional<Kind> kind = kindOf(sample);
    if (!kind)
        return std::nullopt;
    const uint32_t address = sample.network_offset + (*kind == Kind::Arp ? 14 : 12);
    return Source{{port.sys, port.slot, *kind},
                  sample.ifindex,
                  bytesOf<4>(sample, address),
                  bytesOf<6>(sample, offsetof(ether_header, ether_shost))};
}

} // namespace zynlinux
