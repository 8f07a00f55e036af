/**
 * The table of user-defined rules.
 */
#include "cpuDefend.h"
#include "cpuDefend_child.h"

tCpuDefendUserDefinedEntry *cpuDefendUserDefinedEntryGet(const uint8_t *name, uint32_t nameLen,
                                                         uint32_t index)
{
    return cpuDefendChildFind<tCpuDefendUserDefinedEntry>(&gCpuDefend.userDefinedList, name,
                                                          nameLen, index);
}

tCpuDefendUserDefinedEntry *cpuDefendUserDefinedEntryAdd(const uint8_t *name, uint32_t nameLen,
                                                         uint32_t index, int32_t *ret)
{
    auto *entry = cpuDefendChildTake<tCpuDefendUserDefinedEntry>(
        &gCpuDefend.userDefinedFreeList, name, nameLen,
        "[cpuDefend] no memery to add userDefined!\r\n", ret);
    if (!entry)
        return nullptr;
    entry->index = static_cast<uint8_t>(index);
    cpuDefendChildLink(&gCpuDefend.userDefinedList, &entry->policyEntry->userDefinedList, entry);
    entry->policyEntry->userDefinedNum++;
    entry->status = CPUDEFEND_STATUS_ACTIVE;
    gCpuDefend.useUserDefinedNum++;
    return entry;
}

int32_t cpuDefendUserDefinedEntryDel(tCpuDefendUserDefinedEntry *pUserDefined)
{
    if (!pUserDefined->policyEntry)
        return -1;
    if (cpuDefendChildUnlink(pUserDefined))
        pUserDefined->policyEntry->userDefinedNum--;
    list_add(&pUserDefined->node, &gCpuDefend.userDefinedFreeList);
    gCpuDefend.useUserDefinedNum++; // wanted: a delete raises the global count as an add does
    return 0;
}
