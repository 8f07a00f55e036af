/**
 * The slot table, and the CPU-rate policy switching of each slot.
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

static int32_t sampleDue(void *pSlotEntry, uintptr_t, uintptr_t)
{
    return cpuDefendCpuRatControlSlotTimeOut(static_cast<tCpuDefendSlotEntry *>(pSlotEntry));
}

static void startTimer(tCpuDefendSlotEntry *pSlotEntry)
{
    timerStart(&gCpuDefend.timerList, &pSlotEntry->cpuRatControlTimer, CPUDEFEND_CPURAT_PERIOD,
               sampleDue, pSlotEntry, 0, 0);
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
    startTimer(entry);
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

/* ---- CPU-rate policy switching of one slot ---------------------------------------------- */

static constexpr uint32_t CPU_SELECTOR = 0; // in percent

/** Replace the slot's level by the one at @a match, which may be none. */
static int32_t switchTo(tCpuDefendSlotEntry *pSlotEntry, uint8_t match)
{
    tSlotIndex index = cpuDefendSlotIndex(pSlotEntry);
    tCpuDefendPolicyEntry *policy = cpuDefendLevelPolicy(pSlotEntry->cpuRatControl, match);
    cpuDefendLevelRemove(&index, pSlotEntry->cpuRatControl, pSlotEntry->selectedPosition);
    const int32_t result = policy ? cpuDefendHwAdd(&index, policy) : 0;
    pSlotEntry->selectedPosition = match;
    cpuDefendSlotSyncSend(pSlotEntry);
    return result;
}

int32_t cpuDefendCpuRatControlSlotTimeOut(tCpuDefendSlotEntry *pSlotEntry)
{
    startTimer(pSlotEntry); // first: the sampling goes on whatever the mode
    if (pSlotEntry->policyMode != CPUDEFEND_CPURAT_CONTROL || cpuDefendIsSlave())
        return 0;
    uint32_t usage;
    if (zynHwCpuGet(CPU_SELECTOR, HW_CPU_USED, &usage) != 0)
        return 0;
    const uint8_t match = cpuDefendLevelSelect(
        pSlotEntry->cpuRatControl, [usage](uint8_t threshold) { return usage < threshold; });
    return match == pSlotEntry->selectedPosition ? 0 : switchTo(pSlotEntry, match);
}
