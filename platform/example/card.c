/**
 * What the daemon asks of the card that it runs on.
 */
#include <errno.h>

#include "refusal.h"
#include "zynhwal.h"
#include "zynif.h"

/** There is no configuration to look at. The layer that serves says that it is no real one. */
int32_t zynPlatformInit(char *const argv[])
{
    NM_DEBUG_OUTPUT("cpuDefend: the example layer serves: it refuses whatever is programmed\n");
    return 0;
}

/** Neither condition holds, as while the cards make out who is the master. */
int32_t zynHwScalarGet(uint32_t index, uint32_t id, void *value)
{
    static tRefusal refusal = {"tell the role of this card", ENOTSUP, 0};
    return refuse(&refusal);
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    static tRefusal refusal = {"measure the use of the CPU", ENOTSUP, 0};
    return refuse(&refusal);
}

// A code other than 0 would make the daemon abandon the change. There is no standby card that
// misses it.

int32_t zynHwScalarSync(uint32_t index, uint32_t scalarId, const void *value, uint32_t flag)
{
    return 0;
}

int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag)
{
    return 0;
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    static tRefusal refusal = {"tell where an interface sits", ENODEV, 0};
    return refuse(&refusal);
}
