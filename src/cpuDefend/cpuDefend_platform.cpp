/**
 * What a platform may leave out of the contract. A definition of its own takes the place of the one
 * here.
 */
#include <errno.h>

#include "cpuDefend.h"

#define OPTIONAL __attribute__((weak))

OPTIONAL int32_t zynPlatformStart()
{
    return 0;
}

OPTIONAL int32_t zynPlatformFd()
{
    return -1;
}

OPTIONAL int32_t zynPlatformRun()
{
    return 0;
}

OPTIONAL void zynHwChangeBegin() {}

OPTIONAL int32_t zynHwChangeEnd()
{
    return 0;
}

OPTIONAL int32_t zynHwDropped(uint32_t, tHwDropped *)
{
    return ENOENT;
}

OPTIONAL int32_t zynHwCarCount(const tSlotIndex *, tHwCpuDefendPktCarEntry *)
{
    return ENOSYS;
}

OPTIONAL int32_t zynPktOpen()
{
    return 0;
}

OPTIONAL int32_t zynPktRecv(packet_rxpktinfo *, uint16_t *, unsigned char *, uint32_t)
{
    return 0;
}

OPTIONAL void zynPktTraced(uint32_t, uint32_t) {}
