/**
 * What is addressed to the host itself: kept up to date for the packet program.
 */
#ifndef ZYNLINUX_ADDRESSES_H
#define ZYNLINUX_ADDRESSES_H

#include "dataplane.h"

namespace zynlinux
{

class Addresses
{
public:
    /** @param plane must outlast this object */
    explicit Addresses(DataPlane &plane) : plane_(plane) {}

    /** Tell the packet program what the kernel's routing tables deliver to the host at this moment.
     *  Says once that it is too much. @throw Failure with what was told before kept */
    void refresh();

private:
    DataPlane &plane_;
    bool saidTooMany_ = false;
};

} // namespace zynlinux

#endif
