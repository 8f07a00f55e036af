/**
 * The memory layer with nothing programmed, and short forms of its calls.
 */
#ifndef MEMORY_FIXTURE_H
#define MEMORY_FIXTURE_H

#include <gtest/gtest.h>

#include "memory/memory.h"
#include "zynif.h"

struct Memory : testing::Test {
    Memory() { zynMemoryReset(); }
    ~Memory() override { zynMemoryReset(); }

    const tSlotIndex slotA = {1, 0, 0};
    const tSlotIndex slotB = {1, 1, 0};
    const tSlotIndex slotC = {0, 1, 0};
    const tSlotIndex *const system = nullptr;
};

/** A CAR entry that permits @a pps packets of a type. */
inline tHwCpuDefendPktCarEntry car(uint32_t pktType, uint32_t pps)
{
    tHwCpuDefendPktCarEntry entry = {};
    entry.pktType = pktType;
    entry.cir = 16;
    entry.cbs = 6400;
    entry.pps = pps;
    entry.op = ZYN_HW_OP_PERMIT;
    entry.res = ZYN_HW_CAR_PPS;
    return entry;
}

/** Add or remove a CAR entry on the path that fits the target: null is the system. */
inline int32_t carSet(const tSlotIndex *slot, bool add, tHwCpuDefendPktCarEntry entry)
{
    if (slot != nullptr) {
        uint32_t cmd = add ? HW_SLOT_CPUDEFENDPKTCARADD : HW_SLOT_CPUDEFENDPKTCARDEL;
        return zynHwSlotSet(slot, cmd, &entry, 3);
    }
    tHwApiFunc func = {};
    func.hwCmd = add ? HW_SYS_CPUDEFENDPKTCARADD : HW_SYS_CPUDEFENDPKTCARDEL;
    func.arg = &entry;
    return zynScalarSetApi(0, 0, &func);
}

inline int32_t carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    return carSet(slot, true, entry);
}

inline int32_t carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    return carSet(slot, false, entry);
}

/** The packet rate in force for a type, or -1 without an entry. */
inline int64_t ppsInForce(const tSlotIndex *slot, uint32_t pktType)
{
    const tHwCpuDefendPktCarEntry *entry = zynMemoryCarInForce(slot, pktType);
    return entry != nullptr ? int64_t{entry->pps} : -1;
}

/** How many of the next allocations with calloc fail. */
extern int callocFailures;

#endif
