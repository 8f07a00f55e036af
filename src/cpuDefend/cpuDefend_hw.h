/**
 * What a policy stands for in the hardware, piece by piece, and what the hardware holds.
 */
#ifndef CPUDEFEND_HW_H
#define CPUDEFEND_HW_H

#include "cpuDefend.h"

namespace cpudefend
{

/** Where something is programmed: a slot, or the system as a whole. */
struct tHwTarget {
    tSlotIndex index;
    bool isSlot;

    /** As the platform takes it: null for the system. */
    tSlotIndex *slot() { return isSlot ? &index : nullptr; }

    bool operator==(const tHwTarget &other) const
    {
        return isSlot == other.isSlot && index.sys == other.index.sys &&
               index.slot == other.index.slot;
    }
};

inline tHwTarget cpuDefendHwTarget(const tSlotIndex *pSlotIndex)
{
    return pSlotIndex ? tHwTarget{*pSlotIndex, true} : tHwTarget{{0, 0, 0}, false};
}

/** The settings of a CAR entry, or of an ACL. The hardware can't tell equal ones apart. */
struct tHwSetting {
    bool isAcl;
    uint8_t op; /**< ZYN_HW_OP_* */
    uint8_t queue;
    uint8_t priority;
    uint8_t bit;
    uint32_t number; /**< packet type, or number of the ACL */
    uint32_t cir;
    uint32_t cbs;
    uint32_t pps;

    bool operator==(const tHwSetting &) const = default;
};

/** One thing that is programmed, or to be. */
struct tHwItem {
    tHwTarget target;
    tHwSetting setting;
    tCpuDefendCarPktEntry
        *car; /**< which it stands for, and which its counts go to; null: an ACL */
    bool isRefused =
        false; /**< the hardware does not hold it, though it stands among what it does */

    /** Whether they are the same, each held or refused. */
    bool operator==(const tHwItem &other) const
    {
        return target == other.target && setting == other.setting && car == other.car;
    }
};

/** Have the hardware take an item, or give one back. @return the call's result */
int32_t cpuDefendHwItemAdd(tHwItem item);
int32_t cpuDefendHwItemDel(tHwItem item);

/** Have the hardware take an item, which stands among what it holds also when it is refused. */
void cpuDefendHwItemWant(tHwItem item);

/** One pass over a policy: hands the items that it stands for at a target to @a visit, in order. */
template <typename Visit> class cpuDefendHwPass
{
public:
    cpuDefendHwPass(const tHwTarget &target, Visit visit) : target_(target), visit_(visit) {}

    void run(tCpuDefendPolicyEntry *policy)
    {
        whiteList(policy);
        blackList(policy);
        userDefined(policy);
        list_for_each_entry(tCpuDefendCarPktEntry, car, &policy->carPktList, policyNode)
            carEntry(car);
    }

private:
    void permit(uint16_t acl, uint32_t cir, uint32_t cbs)
    {
        if (acl)
            visit_(tHwItem{target_, {true, ZYN_HW_OP_PERMIT, 0, 0, 0, acl, cir, cbs, 0}, nullptr});
    }

    void deny(uint16_t acl)
    {
        if (acl)
            visit_(tHwItem{target_, {true, ZYN_HW_OP_DENY, 0, 0, 0, acl, 0, 0, 0}, nullptr});
    }

    void whiteList(const tCpuDefendPolicyEntry *policy)
    {
        if (policy->whiteListEnable != CPUDEFEND_ENABLE)
            return;
        permit(policy->whiteListIp4Acl, policy->whiteListIp4Cir, policy->whiteListIp4Cbs);
        permit(policy->whiteListIp6Acl, policy->whiteListIp6Cir, policy->whiteListIp6Cbs);
    }

    void blackList(const tCpuDefendPolicyEntry *policy)
    {
        if (policy->blackListEnable != CPUDEFEND_ENABLE)
            return;
        deny(policy->blackListIp4Acl);
        deny(policy->blackListIp6Acl);
    }

    void userDefined(tCpuDefendPolicyEntry *policy)
    {
        if (policy->userDefinedNum == 0)
            return;
        list_for_each_entry(tCpuDefendUserDefinedEntry, entry, &policy->userDefinedList, policyNode)
        {
            if (entry->index == 0) // a rule numbered 0 is kept, but never programmed
                continue;
            rule(entry);
        }
    }

    void rule(const tCpuDefendUserDefinedEntry *entry)
    {
        if (entry->deny) {
            deny(entry->ip4Acl);
            deny(entry->ip6Acl);
        } else {
            permit(entry->ip4Acl, entry->cir, entry->cbs);
            permit(entry->ip6Acl, entry->cir, entry->cbs);
        }
    }

    void carEntry(tCpuDefendCarPktEntry *car)
    {
        const auto op =
            static_cast<uint8_t>(car->deny == CPUDEFEND_ENABLE ? ZYN_HW_OP_DENY : ZYN_HW_OP_PERMIT);
        visit_(tHwItem{target_,
                       {false, op, car->queue, car->priority, car->bit, car->pktType, car->cir,
                        car->cbs, car->pps},
                       car});
    }

    tHwTarget target_;
    Visit visit_;
};

} // namespace cpudefend

#endif
