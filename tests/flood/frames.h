/**
 * What the senders send.
 */
#ifndef FLOOD_FRAMES_H
#define FLOOD_FRAMES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "octets.h"

using Ip4 = std::array<uint8_t, 4>;

constexpr uint16_t etherArp = 0x0806;
constexpr uint16_t etherIp4 = 0x0800;
constexpr uint16_t etherEapol = 0x888e;
constexpr uint16_t etherLldp = 0x88cc;
constexpr uint16_t customerTag = 0x8100;
constexpr uint16_t serviceTag = 0x88a8;

constexpr Mac everybody = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr Mac accessEntities = {0x01, 0x80, 0xc2, 0, 0, 0x03}; /**< IEEE 802.1X, 11.1.1 */
constexpr Mac nearestBridge = {0x01, 0x80, 0xc2, 0, 0, 0x0e};  /**< IEEE 802.1AB, 7.1 */

struct Tag {
    uint16_t protocol;
    uint16_t control; /**< priority, drop eligibility and VLAN id */
};

/** Who sends, and through which VLANs. */
struct Host {
    Mac mac;
    Ip4 ip;
    std::vector<Tag> tags = {};
};

constexpr size_t shortestFrame = 60; /**< without the FCS */

/** Any frame, its payload all zero. */
Octets frame(const Mac &to, uint16_t ethertype, size_t length = shortestFrame);

/** Who has the address? (RFC 826) */
Octets arpRequest(const Host &from, const Ip4 &wanted, size_t length = shortestFrame);

/** IGMP (RFC 2236) to all hosts, or to all routers. */
Octets igmpQuery(const Host &from);
Octets igmpLeave(const Host &from, const Ip4 &group);

#endif
