/**
 * What every piece of work has around it that may change what is programmed.
 */
#ifndef CPUDEFEND_CHANGE_H
#define CPUDEFEND_CHANGE_H

#include "cpuDefend.h"

namespace cpudefend
{

/**
 * As long as it lives the semaphore is held, and what is programmed gathers. At its end that is
 * completed by what follows from it, and put in force together. Changes nest; the outermost one
 * counts.
 */
class Change
{
public:
    Change()
    {
        OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
        if (gCpuDefend.changeDepth++ == 0)
            zynHwChangeBegin();
    }
    ~Change() { end(); }

    /**
     * End it now.
     * @param result of the work
     * @return that; or, if it is 0 and the work programmed something, why that is not in force
     */
    int32_t end(int32_t result = CPUDEFEND_OK)
    {
        if (ended_)
            return result;
        ended_ = true;
        const bool programmed = gCpuDefend.hwCallNum != callNum_;
        const int32_t failure = --gCpuDefend.changeDepth == 0 ? putInForce() : 0;
        OsixGiveSem(gCpuDefend.cpuDefendSem);
        return result == CPUDEFEND_OK && programmed ? failure : result;
    }
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

private:
    static int32_t putInForce()
    {
        cpuDefendFollow();
        return cpuDefendHwChangeEnd();
    }

    uint32_t callNum_ = gCpuDefend.hwCallNum;
    bool ended_ = false;
};

} // namespace cpudefend

#endif
