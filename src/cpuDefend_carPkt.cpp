/**
 * The table of CAR entries.
 */
#include "cpuDefend.h"
#include "cpuDefend_child.h"

/** A new entry's rates. Its counters and its mask of settings stay what the record held. */
static void setDefaults(tCpuDefendCarPktEntry *entry)
{
    entry->cbs = CPUDEFEND_DEFAULT_CBS;
    entry->cir = CPUDEFEND_DEFAULT_CIR;
    entry->pps = CPUDEFEND_DEFAULT_PPS;
    entry->mode = CPUDEFEND_CARPKTMODE_DEFAULT;
    entry->totalPktPps = 6000;
    entry->queue = CPUDEFEND_DEFAULT_QUEUE;
    entry->priority = CPUDEFEND_DEFAULT_PRIORITY;
    entry->deny = CPUDEFEND_DISABLE;
}

tCpuDefendCarPktEntry *cpuDefendCarPktEntryGet(const uint8_t *name, uint32_t nameLen,
                                               uint32_t pktType)
{
    return cpuDefendChildFind<tCpuDefendCarPktEntry>(&gCpuDefend.carPktList, name, nameLen,
                                                     pktType);
}

tCpuDefendCarPktEntry *cpuDefendCarPktEntryAdd(const uint8_t *name, uint32_t nameLen,
                                               uint32_t pktType, int32_t *ret)
{
    auto *entry = cpuDefendChildTake<tCpuDefendCarPktEntry>(
        &gCpuDefend.carPktFreeList, name, nameLen, "[cpuDefend] no memery to add carPkt!\r\n", ret);
    if (!entry)
        return nullptr;
    entry->pktType = static_cast<uint8_t>(pktType);
    cpuDefendChildLink(&gCpuDefend.carPktList, &entry->policyEntry->carPktList, entry);
    setDefaults(entry);
    gCpuDefend.useCarPktNum++;
    return entry;
}

int32_t cpuDefendCarPktEntryDel(tCpuDefendCarPktEntry *pCarPkt)
{
    if (!pCarPkt->policyEntry)
        return -1;
    cpuDefendChildUnlink(pCarPkt);
    list_add(&pCarPkt->node, &gCpuDefend.carPktFreeList);
    gCpuDefend.useCarPktNum--;
    return 0;
}
