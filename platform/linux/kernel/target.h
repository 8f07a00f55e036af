/**
 * The numbers by which the packet program knows the places that policies are programmed at.
 */
#ifndef ZYNLINUX_TARGET_H
#define ZYNLINUX_TARGET_H

#include <cstdint>

#include "bpf/cpudefend_shared.h"

namespace zynlinux
{

constexpr uint32_t systemTarget = 0;
constexpr uint32_t noTarget = CPD_TARGETS;

/** The target of a slot, or of the system for 0 and 0; noTarget when it has none. */
inline uint32_t targetOf(const cpd_info &info, uint32_t sys, uint32_t slot)
{
    for (uint32_t target = 0; target < CPD_TARGETS; target++) {
        const cpd_place &place = info.targets[target];
        if (place.used && place.sys == sys && place.slot == slot)
            return target;
    }
    return noTarget;
}

/** The same, giving it a free one if need be. noTarget when there is none. */
inline uint32_t claimTarget(cpd_info &info, uint32_t sys, uint32_t slot)
{
    uint32_t target = targetOf(info, sys, slot);
    for (uint32_t free = 0; target == noTarget && free < CPD_TARGETS; free++) {
        if (info.targets[free].used)
            continue;
        info.targets[free] = {1, sys, slot, 0, {}};
        target = free;
    }
    return target;
}

} // namespace zynlinux

#endif
