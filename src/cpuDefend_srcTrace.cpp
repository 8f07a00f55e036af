/**
 * The table of traced sources, and the window in which a policy counts packets.
 */
#include <string.h>

#include "cpuDefend.h"

static int order(int64_t difference)
{
    return (difference > 0) - (difference < 0);
}

int cpuDefendSrcTraceCmp(const void *a, const void *b)
{
    const auto *pSrcTrace1 = static_cast<const tCpuDefendSrcTraceEntry *>(a);
    const auto *pSrcTrace2 = static_cast<const tCpuDefendSrcTraceEntry *>(b);
    // Wanted: units 2^31 or more apart compare in the opposite sense.
    int result = order(static_cast<int32_t>(pSrcTrace1->ifUnit - pSrcTrace2->ifUnit));
    if (result == 0)
        result = order(memcmp(pSrcTrace1->srcIp, pSrcTrace2->srcIp, sizeof pSrcTrace1->srcIp));
    if (result == 0)
        result = order(pSrcTrace1->pktType - pSrcTrace2->pktType);
    if (result == 0)
        result = order(memcmp(pSrcTrace1->srcMac, pSrcTrace2->srcMac, sizeof pSrcTrace1->srcMac));
    return result;
}

tCpuDefendSrcTraceEntry cpuDefendSrcTraceKey(uint32_t ifUnit, const uint8_t *srcIp,
                                             uint32_t pktType, const uint8_t *srcMac)
{
    tCpuDefendSrcTraceEntry key{};
    key.ifUnit = ifUnit;
    memcpy(key.srcIp, srcIp, sizeof key.srcIp);
    key.pktType = static_cast<uint8_t>(pktType);
    memcpy(key.srcMac, srcMac, sizeof key.srcMac);
    return key;
}

static tCpuDefendSrcTraceEntry *find(const tCpuDefendSrcTraceEntry &key)
{
    return static_cast<tCpuDefendSrcTraceEntry *>(
        avl_find(&gCpuDefend.srcTraceList, &key, nullptr));
}

tCpuDefendSrcTraceEntry *cpuDefendSrcTraceEntryGet(uint32_t ifUnit, const uint8_t *srcIp,
                                                   uint32_t pktType, const uint8_t *srcMac)
{
    return find(cpuDefendSrcTraceKey(ifUnit, srcIp, pktType, srcMac));
}

tCpuDefendSrcTraceEntry *cpuDefendSrcTraceEntryAdd(uint32_t ifUnit, const uint8_t *srcIp,
                                                   uint32_t pktType, const uint8_t *srcMac)
{
    const tCpuDefendSrcTraceEntry key = cpuDefendSrcTraceKey(ifUnit, srcIp, pktType, srcMac);
    tCpuDefendSrcTraceEntry *entry = find(key);
    if (entry)
        return entry;
    if (list_empty(&gCpuDefend.srcTraceFreeList)) {
        // Wanted: the message of the CAR table serves here, too.
        CPUDEFEND_DEBUG("[cpuDefend] no memery to add carPkt!\r\n");
        return nullptr;
    }
    entry = list_entry(gCpuDefend.srcTraceFreeList.next, tCpuDefendSrcTraceEntry, freeNode);
    list_del_init(&entry->freeNode);
    *entry = key; // a free record is zero but for its link
    avl_add(&gCpuDefend.srcTraceList, entry);
    gCpuDefend.useSrcTraceNum++;
    return entry;
}

int32_t cpuDefendSrcTraceEntryDel(tCpuDefendSrcTraceEntry *pSrcTrace)
{
    avl_remove(&gCpuDefend.srcTraceList, pSrcTrace);
    memset(pSrcTrace, 0, sizeof *pSrcTrace);
    list_add(&pSrcTrace->freeNode, &gCpuDefend.srcTraceFreeList);
    gCpuDefend.useSrcTraceNum--;
    return 0;
}

static int32_t windowDue(void *pPolicy, uintptr_t, uintptr_t)
{
    return cpuDefendsrcTraceTimeOut(static_cast<tCpuDefendPolicyEntry *>(pPolicy));
}

void cpuDefendSrcTraceTimerStart(tCpuDefendPolicyEntry *pPolicy)
{
    timerStart(&gCpuDefend.timerList, &pPolicy->srcTraceTimer, CPUDEFEND_SRCTRACE_PERIOD, windowDue,
               pPolicy, 0, 0);
}

int32_t cpuDefendsrcTraceTimeOut(tCpuDefendPolicyEntry *pPolicy)
{
    list_for_each_entry(tCpuDefendCarPktEntry, entry, &pPolicy->carPktList, policyNode)
    {
        entry->pktSrcTraceNum = 0;
        entry->pktSrcTraceAlarmNum = 0;
    }
    cpuDefendSrcTraceTimerStart(pPolicy);
    return 0;
}
