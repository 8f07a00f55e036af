/**
 * What is addressed to the host itself: kept up to date for the packet program.
 */
#ifndef ZYNLINUX_ADDRESSES_H
#define ZYNLINUX_ADDRESSES_H

#include "host/netlink.h"
#include "kernel/dataplane.h"

namespace zynlinux
{

class Addresses
{
public:
    /** @param plane must outlast this object */
    explicit Addresses(DataPlane &plane) : plane_(plane) {}

    /** Tell the packet program what is delivered to the host at this moment. Says once that it is
     *  too much. @throw Failure with what was told before kept */
    void refresh();

private:
    bool listAddresses(Prefixes &own);
    bool listRoutes(int family, Prefixes &own);

    DataPlane &plane_;
    Netlink netlink_{"the host's addresses"};
    Prefixes told_;
    bool saidTooMany_ = false;
};

} // namespace zynlinux

#endif
