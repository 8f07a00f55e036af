/**
 * The daemon's state, its start-up and its end.
 */
#include <errno.h>
#include <linux/netlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cpuDefend.h"

tCpuDefendSystem gCpuDefend;
int32_t cpuDefendTest;

namespace
{

constexpr uint32_t SEM_OPTIONS = 13;       // option word for the target's kernel
constexpr uint32_t NETLINK_GROUP_LINK = 1; // RTNLGRP_LINK
constexpr int CMD_BACKLOG = 10;

void sizePools(uint32_t maxPolicyNumber, uint32_t maxSlotNumber)
{
    gCpuDefend.maxPolicyNum = maxPolicyNumber ? maxPolicyNumber : CPUDEFEND_DEFAULT_POLICYNUM;
    gCpuDefend.maxUserDefinedNum = CPUDEFEND_USERDEFINED_PER_POLICY * gCpuDefend.maxPolicyNum;
    gCpuDefend.maxCarPktNum = CPUDEFEND_CARPKT_PER_POLICY * gCpuDefend.maxPolicyNum;
    gCpuDefend.maxSrcTraceNum = gCpuDefend.maxPolicyNum;
    gCpuDefend.maxSlotNum = maxSlotNumber ? maxSlotNumber : CPUDEFEND_DEFAULT_SLOTNUM;
}

/** Print a line about a step that failed. errno stays what the step made it. */
void say(const char *text, const char *end = "")
{
    const int reason = errno;
    fputs(text, stdout);
    fputs(end, stdout);
    errno = reason;
}

/** Allocate a pool of @a count zeroed records; a failure prints @a failure. */
template <typename T> bool allocate(T **table, uint32_t count, const char *failure)
{
    *table = static_cast<T *>(calloc(count, sizeof(T)));
    if (!*table)
        say(failure, "\n");
    return *table != nullptr;
}

bool allocatePools()
{
    tCpuDefendSystem &g = gCpuDefend;
    return allocate(&g.policyTable, g.maxPolicyNum, "[cpuDefend] Malloc policyTable error !\r") &&
           allocate(&g.userDefinedTable, g.maxUserDefinedNum,
                    "[cpuDefend] Malloc userDefinedTable error !\r") &&
           allocate(&g.carPktTable, g.maxCarPktNum, "[cpuDefend] Malloc carPktTable error !\r") &&
           allocate(&g.srcTraceTable, g.maxSrcTraceNum,
                    "[cpuDefend] Malloc srcTraceTable error !\r") &&
           allocate(&g.slotTable, g.maxSlotNum, "[cpuDefend] Malloc slotTable error !\r");
}

/**
 * Chain all records of a pool through @a link. Each goes to the head, so that the record with
 * the highest index is handed out first.
 */
template <typename T>
void fillFreeList(list_head *freeList, T *table, uint32_t count, list_head T::*link)
{
    INIT_LIST_HEAD(freeList);
    for (uint32_t i = 0; i < count; i++)
        list_add(&(table[i].*link), freeList);
}

void linkPools()
{
    tCpuDefendSystem &g = gCpuDefend;
    avl_create(&g.policyList, cpuDefendPolicyCmp, sizeof(tCpuDefendPolicyEntry), 0);
    fillFreeList(&g.policyFreeList, g.policyTable, g.maxPolicyNum,
                 &tCpuDefendPolicyEntry::freeNode);
    INIT_LIST_HEAD(&g.userDefinedList);
    fillFreeList(&g.userDefinedFreeList, g.userDefinedTable, g.maxUserDefinedNum,
                 &tCpuDefendUserDefinedEntry::node);
    INIT_LIST_HEAD(&g.carPktList);
    fillFreeList(&g.carPktFreeList, g.carPktTable, g.maxCarPktNum, &tCpuDefendCarPktEntry::node);
    avl_create(&g.srcTraceList, cpuDefendSrcTraceCmp, sizeof(tCpuDefendSrcTraceEntry), 0);
    fillFreeList(&g.srcTraceFreeList, g.srcTraceTable, g.maxSrcTraceNum,
                 &tCpuDefendSrcTraceEntry::freeNode);
    INIT_LIST_HEAD(&g.slotList);
    fillFreeList(&g.slotFreeList, g.slotTable, g.maxSlotNum, &tCpuDefendSlotEntry::node);
}

bool createSem()
{
    gCpuDefend.cpuDefendSem = OsixCreateMSem(SEM_OPTIONS);
    if (!gCpuDefend.cpuDefendSem)
        say("\n\r cpuDefend module create sem error.");
    return gCpuDefend.cpuDefendSem != nullptr;
}

bool createDefaultPolicy()
{
    static const uint8_t name[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    errno = ENOMEM; // when it fails, there is no record for it
    return cpuDefendPolicyEntryAdd(name, sizeof name) != nullptr;
}

/** Debug message of a failing start-up step. */
bool failed(const char *format, int line)
{
    CPUDEFEND_DEBUG(format, line, "cpuDefendInit");
    return false;
}

/** Whether select can wait for a socket. One numbered 0 counts as a failure. */
bool isUsable(int fd)
{
    if (fd == 0 || fd >= FD_SETSIZE)
        errno = fd == 0 ? EBADF : EMFILE;
    return fd > 0 && fd < FD_SETSIZE;
}

/** The netlink socket that reports links. */
bool openNetlink()
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    gCpuDefend.rtSock = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (!isUsable(gCpuDefend.rtSock))
        return failed("rtSock failed in line %d in func %s", __LINE__);
    if (bind(gCpuDefend.rtSock, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0)
        return failed("rtSock bind failed in line %d in func %s", __LINE__);
    const uint32_t group = NETLINK_GROUP_LINK;
    if (setsockopt(gCpuDefend.rtSock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group))
        return failed("rtSock setsockopt failed in line %d in func %s", __LINE__);
    return true;
}

/** The management channel. */
bool openChannel()
{
    unlink(CPUDEFEND_CMD_SOCKET);
    gCpuDefend.cmdSock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!isUsable(gCpuDefend.cmdSock))
        return failed("cmdSock failed in line %d in func %s", __LINE__);
    if (cpuDefendSocketBind(gCpuDefend.cmdSock) < 0) {
        CPUDEFEND_DEBUG("[cpudefend] bind failed!\r\n");
        return false;
    }
    if (listen(gCpuDefend.cmdSock, CMD_BACKLOG) < 0) {
        CPUDEFEND_DEBUG("[cpudefend] listen failed!\r\n");
        return false;
    }
    return true;
}

bool startUp()
{
    if (!allocatePools())
        return false;
    linkPools();
    timerListInit(&gCpuDefend.timerList);
    return createSem() && createDefaultPolicy() && openNetlink() && openChannel();
}

void closeSocket(int fd)
{
    if (fd > 0)
        close(fd);
}

/** Zero the record, but for the claim. */
void clear()
{
    const tCpuDefendClaim claim = gCpuDefend.claim;
    memset(&gCpuDefend, 0, sizeof gCpuDefend);
    gCpuDefend.claim = claim;
}

/** Release all but the claim and open sockets. */
void release()
{
    cpuDefendSocketRemove();
    free(gCpuDefend.policyTable);
    free(gCpuDefend.userDefinedTable);
    free(gCpuDefend.carPktTable);
    free(gCpuDefend.srcTraceTable);
    free(gCpuDefend.slotTable);
    gCpuDefend.links.release();
    gCpuDefend.held.release();
    gCpuDefend.asked.release();
    gCpuDefend.bindings.release();
    gCpuDefend.followed.release();
    gCpuDefend.wanted.release();
    if (gCpuDefend.cpuDefendSem)
        OsixDeleteSem(gCpuDefend.cpuDefendSem);
    clear();
}

} // namespace

int32_t cpuDefendInit(uint32_t maxPolicyNumber, uint32_t maxSlotNumber)
{
    clear();
    sizePools(maxPolicyNumber, maxSlotNumber);
    if (startUp())
        return 0;
    const int reason = errno;
    release();
    errno = reason;
    return -1;
}

void cpuDefendRelease()
{
    closeSocket(gCpuDefend.cmdSock);
    closeSocket(gCpuDefend.rtSock);
    release();
    cpuDefendSocketUnclaim();
}
