/**
 * The event loop.
 */
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "cpuDefend.h"

static constexpr uint32_t NOTIFY_BUFFER_LEN = 1400;

void cpuDefenTaskStart()
{
    cpuDefendCpuRatControlSysTimerStart();
}

static void runTimers()
{
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    timerListCheck(&gCpuDefend.timerList);
    OsixGiveSem(gCpuDefend.cpuDefendSem);
}

/** Receive one netlink datagram. Only the kernel (port 0) is listened to. */
static void receiveNotification()
{
    unsigned char buf[NOTIFY_BUFFER_LEN];
    sockaddr_nl sender{};
    socklen_t senderLen = sizeof sender;
    const ssize_t len = recvfrom(gCpuDefend.rtSock, buf, sizeof buf, 0,
                                 reinterpret_cast<sockaddr *>(&sender), &senderLen);
    if (len <= 0 || sender.nl_pid != 0)
        return;
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    cpudefendNotifyRecv(buf, static_cast<int32_t>(len));
    OsixGiveSem(gCpuDefend.cpuDefendSem);
}

void cpuDefenTaskTurn()
{
    runTimers();
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(gCpuDefend.rtSock, &readable);
    FD_SET(gCpuDefend.cmdSock, &readable);
    const int maxSock =
        gCpuDefend.rtSock > gCpuDefend.cmdSock ? gCpuDefend.rtSock : gCpuDefend.cmdSock;
    // One second whatever the timers say: what falls due meanwhile runs in the next turn.
    timeval wait{1, 0};
    if (select(maxSock + 1, &readable, nullptr, nullptr, &wait) <= 0)
        return;
    if (FD_ISSET(gCpuDefend.cmdSock, &readable))
        cpudefendCmdServer();
    if (FD_ISSET(gCpuDefend.rtSock, &readable))
        receiveNotification();
}

void cpuDefenTask()
{
    cpuDefenTaskStart();
    for (;;)
        cpuDefenTaskTurn();
}
