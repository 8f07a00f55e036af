/**
 * CPU-rate policy switching of the system as a whole, and of each slot.
 *
 * The system goes by the highest threshold below the usage, a slot by the highest one above it;
 * they also read the usage in different units. Both are wanted so.
 */
#include <stdio.h>

#include "cpuDefend.h"
#include "cpuDefend_level.h"

/* ---- The system ------------------------------------------------------------------------- */

namespace
{

constexpr uint32_t SYS_SELECTOR = 1; // in hundredths of a percent
constexpr uint32_t PER_PERCENT = 100;

int32_t sysSampleDue(void *, uintptr_t, uintptr_t)
{
    return cpuDefendCpuRatControlSysTimeOut();
}

/** Replace the level's policy in one place, a slot or the system. */
void replace(tSlotIndex *pSlotIndex, tCpuDefendPolicyEntry *newPolicy)
{
    cpuDefendLevelRemove(pSlotIndex, gCpuDefend.cpuRatControl, gCpuDefend.selectedPosition);
    if (newPolicy)
        cpuDefendHwAdd(pSlotIndex, newPolicy);
}

/** Replace it wherever the system's level is in force; slots in CPU-rate mode have their own. */
void replaceAll(tCpuDefendPolicyEntry *newPolicy)
{
    if (list_empty(&gCpuDefend.slotList)) {
        replace(nullptr, newPolicy);
        return;
    }
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        tSlotIndex index = cpuDefendSlotIndex(slot);
        if (slot->policyMode == CPUDEFEND_FIXED)
            replace(&index, newPolicy);
    }
}

void report(uint32_t usage, const tCpuDefendPolicyEntry *policy, uint8_t match)
{
    if (cpuDefendTest == 0)
        return;
    printf("\r\n [cpuDefend]policy is change!cpuRat=%d,now policyName is %.*s,match=%d..",
           static_cast<int>(usage), policy->policyNameLen,
           reinterpret_cast<const char *>(policy->policyName), match);
}

void switchTo(uint8_t match, uint32_t usage)
{
    tCpuDefendPolicyEntry *newPolicy = cpuDefendLevelPolicy(gCpuDefend.cpuRatControl, match);
    if (match != 0 && !newPolicy)
        return; // nothing to switch to: the next sample tries again
    replaceAll(newPolicy);
    if (newPolicy)
        report(usage, newPolicy, match);
    gCpuDefend.selectedPosition = match;
}

} // namespace

void cpuDefendCpuRatControlSysTimerStart()
{
    timerStart(&gCpuDefend.timerList, &gCpuDefend.cpuRatControlTimer, CPUDEFEND_CPURAT_PERIOD,
               sysSampleDue, nullptr, 0, 0);
}

int32_t cpuDefendCpuRatControlSysTimeOut()
{
    cpuDefendCpuRatControlSysTimerStart(); // first: the sampling goes on whatever the mode
    if (gCpuDefend.policyMode != CPUDEFEND_CPURAT_CONTROL || cpuDefendIsSlave())
        return 0;
    uint32_t reading;
    if (zynHwCpuGet(SYS_SELECTOR, HW_CPU_USED, &reading) != 0)
        return 0;
    const uint32_t usage = reading / PER_PERCENT;
    const uint8_t match = cpuDefendLevelSelect(
        gCpuDefend.cpuRatControl, [usage](uint8_t threshold) { return threshold < usage; });
    if (match != gCpuDefend.selectedPosition)
        switchTo(match, usage);
    return 0;
}

/* ---- A slot ----------------------------------------------------------------------------- */

namespace
{

constexpr uint32_t SLOT_SELECTOR = 0; // in percent

int32_t slotSampleDue(void *pSlotEntry, uintptr_t, uintptr_t)
{
    return cpuDefendCpuRatControlSlotTimeOut(static_cast<tCpuDefendSlotEntry *>(pSlotEntry));
}

/** Replace the slot's level by the one at @a match, which may be none. */
int32_t switchTo(tCpuDefendSlotEntry *pSlotEntry, uint8_t match)
{
    tSlotIndex index = cpuDefendSlotIndex(pSlotEntry);
    tCpuDefendPolicyEntry *policy = cpuDefendLevelPolicy(pSlotEntry->cpuRatControl, match);
    cpuDefendLevelRemove(&index, pSlotEntry->cpuRatControl, pSlotEntry->selectedPosition);
    const int32_t result = policy ? cpuDefendHwAdd(&index, policy) : 0;
    pSlotEntry->selectedPosition = match;
    cpuDefendSlotSyncSend(pSlotEntry);
    return result;
}

} // namespace

void cpuDefendCpuRatControlSlotTimerStart(tCpuDefendSlotEntry *pSlotEntry)
{
    timerStart(&gCpuDefend.timerList, &pSlotEntry->cpuRatControlTimer, CPUDEFEND_CPURAT_PERIOD,
               slotSampleDue, pSlotEntry, 0, 0);
}

int32_t cpuDefendCpuRatControlSlotTimeOut(tCpuDefendSlotEntry *pSlotEntry)
{
    cpuDefendCpuRatControlSlotTimerStart(
        pSlotEntry); // first: the sampling goes on whatever the mode
    if (pSlotEntry->policyMode != CPUDEFEND_CPURAT_CONTROL || cpuDefendIsSlave())
        return 0;
    uint32_t usage;
    if (zynHwCpuGet(SLOT_SELECTOR, HW_CPU_USED, &usage) != 0)
        return 0;
    const uint8_t match = cpuDefendLevelSelect(
        pSlotEntry->cpuRatControl, [usage](uint8_t threshold) { return usage < threshold; });
    return match == pSlotEntry->selectedPosition ? 0 : switchTo(pSlotEntry, match);
}
