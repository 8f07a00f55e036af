/**
 * What every piece of work has around it that may change what is programmed.
 */
#ifndef CPUDEFEND_CHANGE_H
#define CPUDEFEND_CHANGE_H

#include "cpuDefend.h"

/**
 * As long as it lives the semaphore is held, and what is programmed gathers. At its end that is
 * completed by what follows from it, and put in force together.
 */
class Change
{
public:
    Change()
    {
        OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
        zynHwChangeBegin();
    }
    ~Change()
    {
        cpuDefendFollow();
        zynHwChangeEnd();
        OsixGiveSem(gCpuDefend.cpuDefendSem);
    }
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;
};

#endif
