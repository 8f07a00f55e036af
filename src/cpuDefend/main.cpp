/**
 * The daemon: [maxPolicyNumber [maxSlotNumber]], or --version.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cpuDefend.h"

/**
 * Descriptors 0 to 2 must be taken, or the first sockets would get them: a socket numbered 0
 * counts as a failure, and messages for standard error would go to whoever holds number 2.
 */
static bool takeStandardDescriptors()
{
    for (int fd = 0; fd <= 2; fd++)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) {
            perror("couldn't open /dev/null");
            return false;
        }
    return true;
}

/** The argument's number; anything that is none gives 0, which stands for the default. */
static uint32_t number(const char *text)
{
    return static_cast<uint32_t>(strtol(text, nullptr, 10));
}

/** @return the exit status */
static int tellVersion()
{
    puts("cpuDefend " CPUDEFEND_VERSION);
    return fflush(stdout) == 0 ? 0 : 1;
}

int main(int argc, char *argv[])
{
    if (argc == 2 && strcmp(argv[1], "--version") == 0)
        return tellVersion();
    zynCatchSegFault();
    signal(SIGPIPE, SIG_IGN); // nobody who reads our messages may end us by going away
    atexit(cpuDefendRelease);
    if (!takeStandardDescriptors() || cpuDefendSocketClaim() != 0)
        return -1;
    if (const int32_t status = zynPlatformInit(argv); status != 0)
        return status;
    const uint32_t maxPolicyNumber = argc >= 2 ? number(argv[1]) : CPUDEFEND_DEFAULT_POLICYNUM;
    const uint32_t maxSlotNumber = argc >= 3 ? number(argv[2]) : CPUDEFEND_DEFAULT_SLOTNUM;
    if (cpuDefendInit(maxPolicyNumber, maxSlotNumber) != 0) {
        perror("couldn't start the daemon");
        return -1;
    }
    if (zynPlatformStart() != 0)
        return -1;
    cpuDefenTask();
}
