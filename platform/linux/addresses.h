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

    /** Tell the packet program the addresses of this moment. Says once that there are too many.
     *  @throw Failure with those told before kept */
    void refresh();

private:
    DataPlane &plane_;
    bool saidTooMany_ = false;
};

} // namespace zynlinux

#endif
