/**
 * Netlink notifications of links.
 */
#include <linux/netlink.h>
#include <string.h>

#include "cpuDefend.h"

namespace
{

constexpr uint32_t HEADER_LEN = 16;

enum { LINK_NEW = 16, LINK_DELETED = 17, IGNORED_87 = 87, IGNORED_90 = 90 };

void report(uint16_t type)
{
    switch (type) {
    case LINK_NEW: CPUDEFEND_DEBUG("\r\n cpudefendNotifyRecv: RTM_NEWLINK!"); break;
    case LINK_DELETED: CPUDEFEND_DEBUG("\r\n cpudefendNotifyRecv: RTM_DELLINK!"); break;
    case IGNORED_87:
    case IGNORED_90: break;
    default: CPUDEFEND_DEBUG("\r\n unknown rtm type %d!", type);
    }
}

/** Read the header at @a at. @return false when no whole message fits into @a left bytes */
bool headerAt(const unsigned char *at, uint32_t left, nlmsghdr *header)
{
    if (left < HEADER_LEN)
        return false;
    memcpy(header, at, HEADER_LEN);
    return header->nlmsg_len >= HEADER_LEN && header->nlmsg_len <= left;
}

} // namespace

static_assert(sizeof(nlmsghdr) == HEADER_LEN);

int32_t cpudefendNotifyRecv(unsigned char *buf, int32_t len)
{
    uint32_t left = len > 0 ? static_cast<uint32_t>(len) : 0;
    nlmsghdr header;
    while (headerAt(buf, left, &header)) {
        report(header.nlmsg_type);
        const uint32_t padded = (header.nlmsg_len + 3) & ~3u;
        if (padded > left)
            break;
        buf += padded;
        left -= padded;
    }
    return 0;
}
