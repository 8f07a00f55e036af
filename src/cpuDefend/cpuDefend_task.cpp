/**
 * The event loop.
 */
#include <errno.h>
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "cpuDefend_change.h"

using namespace cpudefend;

namespace
{

constexpr uint32_t NOTIFY_BUFFER_LEN = 1400;

/** What tracing may take of our time, however many packets there are. */
constexpr uint32_t PACKETS_PER_TURN = 512; // so that the channel never waits long
constexpr uint32_t PACKETS_PER_SECOND = 10000;

uint64_t secondNow()
{
    return osClockNow() / 1000;
}

/** @return whether the work is to be done now */
bool take(tCpuDefendOnceASecond &work)
{
    if (!work.due || work.second == secondNow())
        return false;
    work = {secondNow(), false};
    return true;
}

/** How many packets may still be taken in this second. */
uint32_t packetsLeft()
{
    if (gCpuDefend.tracedSecond != secondNow()) {
        gCpuDefend.tracedSecond = secondNow();
        gCpuDefend.tracedNum = 0;
    }
    return PACKETS_PER_SECOND - gCpuDefend.tracedNum;
}

void lookForCards()
{
    if (take(gCpuDefend.cardLook))
        cpuDefendCardStart();
}

void retryRefused()
{
    if (take(gCpuDefend.platformRetry) || gCpuDefend.retryDue)
        cpuDefendRetry();
}

/** Descriptors to wait for, and those that became readable. */
class Descriptors
{
public:
    Descriptors() { FD_ZERO(&set_); }

    /** Wait for @a fd too, unless it is none, or beyond what select can wait for. */
    void add(int fd)
    {
        if (fd < 0 || fd >= FD_SETSIZE)
            return;
        FD_SET(fd, &set_);
        if (fd > max_)
            max_ = fd;
    }

    /** One second at most, whatever the timers say: what falls due meanwhile runs next turn. */
    void wait()
    {
        timeval time{1, 0};
        if (select(max_ + 1, &set_, nullptr, nullptr, &time) <= 0)
            FD_ZERO(&set_);
    }

    bool has(int fd) const { return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &set_); }

private:
    fd_set set_;
    int max_ = -1;
};

void runTimers()
{
    Change change;
    timerListCheck(&gCpuDefend.timerList);
    lookForCards();
    retryRefused();
}

/** Receive one netlink datagram. Only the kernel (port 0) is listened to. */
void receiveNotification()
{
    unsigned char buf[NOTIFY_BUFFER_LEN];
    sockaddr_nl sender{};
    socklen_t senderLen = sizeof sender;
    const ssize_t received = recvfrom(gCpuDefend.rtSock, buf, sizeof buf, 0,
                                      reinterpret_cast<sockaddr *>(&sender), &senderLen);
    const bool lost = received < 0 && errno == ENOBUFS; // messages that found no room
    if (!lost && (received <= 0 || sender.nl_pid != 0))
        return;
    Change change;
    if (lost) {
        gCpuDefend.cardLook.due = true;
        lookForCards();
        return;
    }
    const auto len = static_cast<int32_t>(received);
    cpudefendNotifyRecv(buf, len);
    cpuDefendCardNotify(buf, len);
}

/** Whoever asks reads what there is to say about it, however much happens besides. */
void serveRequest()
{
    osMessagesAbout(OS_MESSAGES_OF_REQUESTS);
    cpudefendCmdServer();
    osMessagesAbout(OS_MESSAGES_OF_EVENTS);
}

/** The platform's own work. */
void runPlatform()
{
    Change change;
    if (zynPlatformRun() != 0)
        gCpuDefend.cardLook.due = gCpuDefend.platformRetry.due = true;
    lookForCards();
    retryRefused();
}

/** Tell the platform how full the table of traced sources is. */
void tellRoom()
{
    zynPktTraced(gCpuDefend.useSrcTraceNum, gCpuDefend.maxSrcTraceNum);
}

/** Hand the next packet to source tracing. @return whether there was one */
bool tracePacket()
{
    packet_rxpktinfo info;
    uint16_t protocol;
    unsigned char buf[CPUDEFEND_PKTDATA_LEN];
    const int32_t length = zynPktRecv(&info, &protocol, buf, sizeof buf);
    if (length <= 0)
        return false;
    const auto room = static_cast<int32_t>(sizeof buf);
    cpuDefendSrcTracePkt(info.pkt_inport, protocol, &info, buf, length < room ? length : room);
    tellRoom();
    return true;
}

/** Trace packets as far as the turn's and the second's share go. */
void tracePackets()
{
    if (gCpuDefend.pktSock <= 0)
        return;
    uint32_t left = packetsLeft();
    if (left > PACKETS_PER_TURN)
        left = PACKETS_PER_TURN;
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    for (; left > 0 && tracePacket(); left--)
        gCpuDefend.tracedNum++;
    OsixGiveSem(gCpuDefend.cpuDefendSem);
}

} // namespace

void cpuDefenTaskStart()
{
    cpuDefendCpuRatControlSysTimerStart();
    gCpuDefend.tracedNum = 0;
    gCpuDefend.cardLook = {UINT64_MAX, true};
    gCpuDefend.platformRetry = {UINT64_MAX, false};
    gCpuDefend.pktSock = zynPktOpen();
    tellRoom();
    Change change;
    lookForCards();
}

void cpuDefenTaskTurn()
{
    osMessagesAbout(OS_MESSAGES_OF_EVENTS);
    runTimers();
    Descriptors readable;
    const int platformFd = zynPlatformFd();
    readable.add(gCpuDefend.rtSock);
    readable.add(gCpuDefend.cmdSock);
    readable.add(platformFd);
    if (gCpuDefend.pktSock > 0 && packetsLeft() > 0)
        readable.add(gCpuDefend.pktSock);
    readable.wait();
    if (readable.has(gCpuDefend.cmdSock))
        serveRequest();
    if (readable.has(platformFd))
        runPlatform(); // before what tells of a link: the platform knows its place then
    if (readable.has(gCpuDefend.rtSock))
        receiveNotification();
    tracePackets(); // also without a sign of them: a source need not wake us for each
}

void cpuDefenTask()
{
    cpuDefenTaskStart();
    for (;;)
        cpuDefenTaskTurn();
}
