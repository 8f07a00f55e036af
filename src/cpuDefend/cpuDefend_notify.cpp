/**
 * Netlink notifications of links.
 */
#include "cpuDefend_netlink.h"

namespace
{

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

} // namespace

int32_t cpudefendNotifyRecv(unsigned char *buf, int32_t len)
{
    cpuDefendNetlinkEach(buf, len > 0 ? static_cast<size_t>(len) : 0,
                         [](const tCpuDefendLinkMessage &message, size_t messageLen) {
                             if (messageLen == message.header.nlmsg_len) // not cut
                                 report(message.header.nlmsg_type);
                         });
    return 0;
}
