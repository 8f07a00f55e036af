/**
 * CPU-rate levels: a threshold and a policy each, three for the system and three for each slot. A
 * position is a level's number from 1 on; any other number is no level.
 */
#ifndef CPUDEFEND_LEVEL_H
#define CPUDEFEND_LEVEL_H

#include "cpuDefend.h"

/** The level at @a position, or null when that is no level. */
inline const tCpuDefendCpuRatControl *cpuDefendLevelAt(const tCpuDefendCpuRatControl *levels,
                                                       uint32_t position)
{
    return position >= 1 && position <= CPUDEFEND_CPURAT_LEVELS ? &levels[position - 1] : nullptr;
}

/**
 * The position with the highest threshold among those that @a qualifies admits, the lowest
 * position among equal ones; 0 when there is none.
 */
template <typename Qualifies>
uint8_t cpuDefendLevelSelect(const tCpuDefendCpuRatControl *levels, Qualifies qualifies)
{
    uint8_t match = 0;
    for (uint8_t position = 1; position <= CPUDEFEND_CPURAT_LEVELS; position++) {
        const uint8_t threshold = levels[position - 1].cpuRat;
        if (qualifies(threshold) && (match == 0 || levels[match - 1].cpuRat < threshold))
            match = position;
    }
    return match;
}

/** The policy of the level at @a position, or null without a level or such a policy. */
inline tCpuDefendPolicyEntry *cpuDefendLevelPolicy(const tCpuDefendCpuRatControl *levels,
                                                   uint32_t position)
{
    const tCpuDefendCpuRatControl *level = cpuDefendLevelAt(levels, position);
    return level ? cpuDefendPolicyEntryGet(level->policyName, level->policyNameLen) : nullptr;
}

/** Take the policy of the level at @a position out of the hardware; no level, nothing to do. */
inline int32_t cpuDefendLevelRemove(tSlotIndex *pSlotIndex, const tCpuDefendCpuRatControl *levels,
                                    uint32_t position)
{
    const tCpuDefendCpuRatControl *level = cpuDefendLevelAt(levels, position);
    return level ? cpuDefendHwDel(pSlotIndex, level->policyName, level->policyNameLen) : 0;
}

#endif
