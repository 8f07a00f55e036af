/**
 * The slot table.
 */
#include <string.h>

#include "cpuDefend.h"
#include "cpuDefend_level.h"

tSlotIndex cpuDefendSlotIndex(const tCpuDefendSlotEntry *pSlotEntry)
{
    return tSlotIndex{pSlotEntry->sysId, pSlotEntry->slotId, 0};
}

tCpuDefendSlotEntry *cpuDefendSlotEntryGet(uint32_t sysId, uint32_t slotId)
{
    // Wanted: the stored bytes are compared with all 32 bits, so that a slot whose numbers were
    // cut to fit is not found again.
    list_for_each_entry(tCpuDefendSlotEntry, entry, &gCpuDefend.slotList, node)
    {
        if (entry->sysId == sysId && entry->slotId == slotId)
            return entry;
    }
    return nullptr;
}

tCpuDefendSlotEntry *cpuDefendSlotEntryAdd(uint32_t sysId, uint32_t slotId)
{
    if (list_empty(&gCpuDefend.slotFreeList)) {
        CPUDEFEND_DEBUG("[cpuDefend] no memery to add slot!\r\n");
        return nullptr;
    }
    auto *entry = list_entry(gCpuDefend.slotFreeList.next, tCpuDefendSlotEntry, node);
    list_del_init(&entry->node);
    entry->sysId = static_cast<uint8_t>(sysId);
    entry->slotId = static_cast<uint8_t>(slotId);
    // Wanted: in the order of creation, with the mode and the levels the record last had.
    list_add_tail(&entry->node, &gCpuDefend.slotList);
    cpuDefendCpuRatControlSlotTimerStart(entry);
    gCpuDefend.useSlotNum++;
    return entry;
}

/** Take the policy that is in force, fixed or by level, out of the slot's hardware. */
static int32_t removeFromHardware(const tCpuDefendSlotEntry *pSlotEntry)
{
    tSlotIndex index = cpuDefendSlotIndex(pSlotEntry);
    if (pSlotEntry->policyMode == CPUDEFEND_CPURAT_CONTROL)
        return cpuDefendLevelRemove(&index, pSlotEntry->cpuRatControl,
                                    pSlotEntry->selectedPosition);
    if (pSlotEntry->policyNameLen == 0)
        return 0;
    return cpuDefendHwDel(&index, pSlotEntry->policyName, pSlotEntry->policyNameLen);
}

int32_t cpuDefendSlotEntryDel(tCpuDefendSlotEntry *pSlotEntry)
{
    const int32_t result = removeFromHardware(pSlotEntry);
    if (result == 0) {
        pSlotEntry->policyEntry = nullptr;
        pSlotEntry->policyNameLen = 0;
        memset(pSlotEntry->policyName, 0, sizeof pSlotEntry->policyName);
    }
    // Wanted: the timer runs on; it does nothing unless the record is in CPU-rate mode.
    list_del_init(&pSlotEntry->node);
    list_add(&pSlotEntry->node, &gCpuDefend.slotFreeList);
    gCpuDefend.useSlotNum--;
    return result;
}
