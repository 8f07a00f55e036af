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
    ~Change() { end(); }

    /** End it now. @return 0, or why it is not in force */
    int32_t end()
    {
        if (ended_)
            return 0;
        ended_ = true;
        cpuDefendFollow();
        const int32_t result = zynHwChangeEnd();
        OsixGiveSem(gCpuDefend.cpuDefendSem);
        return result;
    }
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

private:
    bool ended_ = false;
};

#endif
