/**
 * The daemon's state within a test process: brought up by its own start-up, and taken down again,
 * which the daemon itself never does.
 */
#ifndef CHANNEL_STATE_H
#define CHANNEL_STATE_H

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cpuDefend.h"

namespace channel
{

inline void takeDown()
{
    for (void *table :
         {static_cast<void *>(gCpuDefend.policyTable),
          static_cast<void *>(gCpuDefend.userDefinedTable),
          static_cast<void *>(gCpuDefend.carPktTable),
          static_cast<void *>(gCpuDefend.srcTraceTable), static_cast<void *>(gCpuDefend.slotTable)})
        free(table);
    OsixDeleteSem(gCpuDefend.cpuDefendSem);
    for (int socket : {gCpuDefend.cmdSock, gCpuDefend.rtSock})
        if (socket > 0)
            close(socket);
    unlink(CPUDEFEND_CMD_SOCKET);
    memset(static_cast<void *>(&gCpuDefend), 0, sizeof gCpuDefend);
}

} // namespace channel

#endif
