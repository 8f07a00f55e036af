/**
 * Who sent a sample, as source tracing tells sources apart. No input or output.
 */
#ifndef ZYNLINUX_SOURCE_H
#define ZYNLINUX_SOURCE_H

#include <array>
#include <compare>
#include <cstdint>
#include <optional>

#include "bpf/cpudefend_shared.h"
#include "host/config.h"

namespace zynlinux
{

/** What tracing has a count of its own for. One of telnet counts as TCP, too. */
enum class Kind : uint8_t { Arp, Icmp, Igmp, Tcp, Telnet, DhcpClient, DhcpServer };

/** Samples that are counted together: those of a kind, at a place. */
struct Group {
    uint32_t sys;
    uint32_t slot;
    Kind kind;

    auto operator<=>(const Group &) const = default;
};

struct Source {
    Group group;
    uint32_t ifindex;
    std::array<uint8_t, 4> ip; /**< of the sender; of ARP the sender protocol address */
    std::array<uint8_t, 6> mac;

    auto operator<=>(const Source &) const = default;
};

/** @param port where it came in @return nothing for a packet of no kind that is traced */
std::optional<Source> sourceOf(const cpd_sample &sample, const PortConfig &port);

} // namespace zynlinux

#endif
