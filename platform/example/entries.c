/**
 * What is programmed: CAR entries and access lists.
 */
#include <errno.h>

#include "refusal.h"
#include "zynacl.h"

/** @param slot null for the system as a whole */
static int32_t carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry *entry)
{
    static tRefusal refusal = {"add a CAR entry", ENODEV, 0};
    return refuse(&refusal);
}

static int32_t carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry *entry)
{
    return ENOENT; // nothing was ever added
}

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    switch (cmd) {
    case HW_SLOT_CPUDEFENDPKTCARADD: return carAdd(slot, arg);
    case HW_SLOT_CPUDEFENDPKTCARDEL: return carDel(slot, arg);
    default: return EINVAL;
    }
}

int32_t zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func)
{
    switch (func->hwCmd) {
    case HW_SYS_CPUDEFENDPKTCARADD: return carAdd(NULL, func->arg);
    case HW_SYS_CPUDEFENDPKTCARDEL: return carDel(NULL, func->arg);
    default: return EINVAL;
    }
}

int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    static tRefusal refusal = {"attach an access list", ENOTSUP, 0};
    return refuse(&refusal);
}

int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return ENOENT; // nothing was ever attached
}
