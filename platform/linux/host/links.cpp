#include "host/links.h"

#include <linux/if_link.h>

namespace zynlinux
{

namespace
{

struct LinkRequest {
    ifinfomsg info;
    rtattr attribute;
    uint32_t mask;
};

/** The number of the program that an attribute within IFLA_XDP tells of, by its mode. */
void takeProgram(Link &link, int type, NetlinkBytes value)
{
    switch (type) {
    case IFLA_XDP_DRV_PROG_ID: link.programs[0] = numberIn(value); break;
    case IFLA_XDP_SKB_PROG_ID: link.programs[1] = numberIn(value); break;
    case IFLA_XDP_HW_PROG_ID: link.programs[2] = numberIn(value); break;
    default: break;
    }
}

void takeAttribute(Link &link, int type, NetlinkBytes value)
{
    if (type == IFLA_IFNAME)
        link.names.push_back(textIn(value));
    else if (type == IFLA_PROP_LIST)
        eachAttribute(value, [&](int inner, NetlinkBytes each) {
            if (inner == IFLA_ALT_IFNAME)
                link.names.push_back(textIn(each));
        });
    else if (type == IFLA_XDP)
        eachAttribute(value, [&](int inner, NetlinkBytes each) { takeProgram(link, inner, each); });
}

} // namespace

bool Links::list(const std::function<void(const Link &)> &visit)
{
    LinkRequest request{};
    request.attribute = {sizeof request.attribute + sizeof request.mask, IFLA_EXT_MASK};
    request.mask = RTEXT_FILTER_SKIP_STATS;
    Link link;
    return netlink_.list(RTM_GETLINK, request, [&](uint16_t type, NetlinkBytes body) {
        ifinfomsg info{};
        if (type != RTM_NEWLINK || !takeFront(body, info))
            return;
        link.ifindex = static_cast<uint32_t>(info.ifi_index);
        link.names.clear();
        link.programs = {};
        eachAttribute(body,
                      [&](int inner, NetlinkBytes value) { takeAttribute(link, inner, value); });
        visit(link);
    });
}

} // namespace zynlinux
