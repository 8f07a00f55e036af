/**
 * Where a synchronisation of each table to the standby card goes.
 */
#include "cpuDefend_nm_api.h"

int32_t zynHwPolicySync(tCpuDefendPolicyIdx *, uint32_t, void *, uint32_t)
{
    return 0;
}

int32_t zynHwUserDefinedSync(tcpuDefendUserDefinedIdx *, uint32_t, void *, uint32_t)
{
    return 0;
}

int32_t zynHwCarPktSync(tcpuDefendCarPktIdx *, uint32_t, void *, uint32_t)
{
    return 0;
}

int32_t zynHwCpuRatControlSync(void *, uint32_t, void *, uint32_t)
{
    return 0;
}
