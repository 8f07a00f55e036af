/**
 * CPU-rate policy switching of the system as a whole.
 */
#include "cpuDefend.h"

static int32_t sampleDue(void *, uintptr_t, uintptr_t)
{
    return cpuDefendCpuRatControlSysTimeOut();
}

void cpuDefendCpuRatControlSysTimerStart()
{
    timerStart(&gCpuDefend.timerList, &gCpuDefend.cpuRatControlTimer, CPUDEFEND_CPURAT_PERIOD,
               sampleDue, nullptr, 0, 0);
}

int32_t cpuDefendCpuRatControlSysTimeOut()
{
    cpuDefendCpuRatControlSysTimerStart(); // first: the sampling goes on whatever the mode
    return 0;
}
