/**
 * The frames of the benchmark. Addresses of the wire are those set aside for measuring network
 * devices (RFC 2544, C.2.2); whoever listens at the box is 198.18.0.2.
 */
#ifndef BENCH_PACKETS_FRAMES_H
#define BENCH_PACKETS_FRAMES_H

#include <cstdint>
#include <vector>

using FrameBytes = std::vector<uint8_t>;

constexpr uint32_t address(unsigned a, unsigned b, unsigned c, unsigned d)
{
    return a << 24 | b << 16 | c << 8 | d;
}

constexpr char BOX_MAC[] = "02:00:00:00:00:02";
constexpr uint32_t BOX_ADDRESS = address(198, 18, 0, 2);
constexpr uint32_t PEER_ADDRESS = address(198, 18, 0, 1);
constexpr uint8_t TCP = 6;
constexpr uint8_t UDP = 17;
constexpr uint8_t GRE = 47;
constexpr uint16_t DHCP_SERVER_PORT = 67;
constexpr uint16_t NTP_PORT = 123;

/**
 * An IPv4 packet to the box, in a frame of 60 bytes. Behind its header stand ports, for protocols
 * that have them.
 */
FrameBytes toBox(uint32_t source, uint8_t protocol, uint16_t sourcePort, uint16_t port);

/** UDP in IPv6, behind hop-by-hop and destination options (RFC 8200, 4.3 and 4.6). */
FrameBytes behindExtensions(uint16_t port);

/** An ARP request (RFC 826) for the box's address. */
FrameBytes arpRequest();

/**
 * What every variant is flooded with: UDP to the box's DHCP server. Of the protocols that a policy
 * has an entry for it is the one that all the others can be told to limit, too.
 */
FrameBytes floodFrame();

#endif
