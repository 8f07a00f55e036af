/**
 * Brings the platform up as the daemon does, asks for the role, and tells what came of it.
 */
#include <stdio.h>

#include "zynhwal.h"

int main(int, char *argv[])
{
    int32_t result = zynPlatformInit(argv);
    printf("init %d\n", static_cast<int>(result));
    if (result == 0)
        result = zynPlatformStart();
    if (result != 0)
        return 1;
    bool master = zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr) == 0;
    printf("%s\n", master ? "master" : "slave");
    return 0;
}
