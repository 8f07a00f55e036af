/**
 * The walk through a datagram of netlink messages.
 */
#ifndef CPUDEFEND_NETLINK_H
#define CPUDEFEND_NETLINK_H

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <stddef.h>
#include <string.h>

#include "cpuDefend.h"

/** What is looked at of a message about a link. Its rest may be cut off. */
struct tCpuDefendLinkMessage {
    nlmsghdr header;
    uint8_t family; /**< as the next, part of ifinfomsg */
    uint8_t pad;
    uint16_t type;
    int32_t index;
};
constexpr uint32_t CPUDEFEND_NETLINK_HEADER_LEN = 16;
static_assert(sizeof(nlmsghdr) == CPUDEFEND_NETLINK_HEADER_LEN);
static_assert(sizeof(tCpuDefendLinkMessage) ==
              CPUDEFEND_NETLINK_HEADER_LEN + offsetof(ifinfomsg, ifi_flags));

/**
 * Hand the messages in a buffer to @a visit(message, its readable bytes), the last one perhaps in
 * part.
 */
template <typename Visit>
void cpuDefendNetlinkEach(const unsigned char *buf, size_t left, Visit visit)
{
    while (left >= CPUDEFEND_NETLINK_HEADER_LEN) {
        tCpuDefendLinkMessage message{};
        memcpy(&message, buf, left < sizeof message ? left : sizeof message);
        const uint32_t len = message.header.nlmsg_len;
        if (len < CPUDEFEND_NETLINK_HEADER_LEN)
            return;
        visit(message, left < len ? left : len);
        if (len > left || ((len + 3) & ~3u) >= left)
            return;
        buf += (len + 3) & ~3u;
        left -= (len + 3) & ~3u;
    }
}

#endif
