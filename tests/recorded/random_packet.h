/** What reaches the core from below: packets for tracing, and messages about links. */
#ifndef RECORDED_RANDOM_PACKET_H
#define RECORDED_RANDOM_PACKET_H

#include <string>
#include <vector>

#include "recorded/dice.h"
#include "zynif.h"

namespace recorded
{

struct Packet {
    packet_rxpktinfo info{};
    uint16_t protocol = 0;
    std::vector<uint8_t> frame;
};

/** A packet of one of few senders, of a type that is traced mostly, whole or short. */
Packet randomPacket(Dice &dice);

/** A datagram of messages about links, as the kernel sends them or not quite. */
std::string randomNotification(Dice &dice);

/** The kernel's answer to who asks for the links: those of interface units 1 to @a links. */
std::string linkList(uint32_t links, uint32_t sequence, uint16_t flags);

} // namespace recorded

#endif
