/**
 * The least that a daemon does before its event loop.
 */
#include <signal.h>

#include "cpuDefend.h"

int main(int, char *argv[])
{
    signal(SIGPIPE, SIG_IGN); // nobody who reads our messages may end us by going away
    if (cpuDefendSocketClaim() != 0 || zynPlatformInit(argv) != 0 ||
        cpuDefendInit(CPUDEFEND_DEFAULT_POLICYNUM, CPUDEFEND_DEFAULT_SLOTNUM) != 0 ||
        zynPlatformStart() != 0)
        return 1;
    cpuDefenTask();
}
