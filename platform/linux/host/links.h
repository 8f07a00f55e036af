/**
 * The host's interfaces, by one look at all of them.
 */
#ifndef ZYNLINUX_LINKS_H
#define ZYNLINUX_LINKS_H

#include <array>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "host/netlink.h"

namespace zynlinux
{

struct Link {
    uint32_t ifindex = 0;
    std::vector<std::string_view> names;   /**< the name and the alternative ones */
    std::array<uint32_t, 3> programs = {}; /**< XDP programs on it by the kernel's number; or 0 */
};

class Links
{
public:
    /** @param visit gets each link for the time of the call
     *  @return whether these are all: none came or went meanwhile. @throw Failure */
    bool list(const std::function<void(const Link &)> &visit);

private:
    Netlink netlink_{"the links"};
};

} // namespace zynlinux

#endif
