/**
 * Hardware programming: a policy's ACLs, rules and CAR entries, into a slot or the system.
 */
#include "cpuDefend.h"

namespace
{

/** The calls that add, and those that remove. */
struct tHwCalls {
    int32_t (*acl)(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t);
    uint32_t slotCmd;
    uint32_t sysCmd;
};

constexpr tHwCalls hwAdd{acl_cpudefend_add, HW_SLOT_CPUDEFENDPKTCARADD, HW_SYS_CPUDEFENDPKTCARADD};
constexpr tHwCalls hwDel{acl_cpudefend_del, HW_SLOT_CPUDEFENDPKTCARDEL, HW_SYS_CPUDEFENDPKTCARDEL};

/** One pass over a policy. Failures do not end it; the last call's result is its own. */
class Pass
{
public:
    Pass(const tHwCalls &calls, tSlotIndex *slot) : calls_(calls), slot_(slot) {}

    int32_t run(tCpuDefendPolicyEntry *policy)
    {
        whiteList(policy);
        blackList(policy);
        userDefined(policy);
        list_for_each_entry(tCpuDefendCarPktEntry, car, &policy->carPktList, policyNode)
            carEntry(car);
        return result_;
    }

private:
    /** The burst is given as the excess burst too. */
    void permit(uint16_t acl, uint32_t cir, uint32_t cbs)
    {
        if (acl)
            result_ = calls_.acl(slot_, acl, ZYN_HW_OP_PERMIT, cir, cbs, cbs);
    }

    void deny(uint16_t acl)
    {
        if (acl)
            result_ = calls_.acl(slot_, acl, ZYN_HW_OP_DENY, 0, 0, 0);
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

    void carEntry(const tCpuDefendCarPktEntry *car)
    {
        tHwCpuDefendPktCarEntry record{};
        record.pktType = car->pktType;
        record.cir = car->cir;
        record.cbs = car->cbs;
        record.pps = car->pps;
        record.queue = car->queue;
        record.priority = car->priority;
        record.op = car->deny == CPUDEFEND_ENABLE ? ZYN_HW_OP_DENY : ZYN_HW_OP_PERMIT;
        record.res = car->bit;
        result_ = slot_ ? zynHwSlotSet(slot_, calls_.slotCmd, &record, 3) : setSystem(&record);
    }

    int32_t setSystem(tHwCpuDefendPktCarEntry *record)
    {
        tHwApiFunc func{};
        func.hwCmd = calls_.sysCmd;
        func.arg = record;
        return zynScalarSetApi(0, 0, &func);
    }

    const tHwCalls &calls_;
    tSlotIndex *slot_;
    int32_t result_ = 0;
};

} // namespace

bool cpuDefendIsSlave()
{
    return zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr) == 0;
}

int32_t cpuDefendHwAdd(tSlotIndex *pSlotIndex, tCpuDefendPolicyEntry *pPolicy)
{
    if (cpuDefendIsSlave())
        return 0;
    const int32_t result = Pass(hwAdd, pSlotIndex).run(pPolicy);
    pPolicy->refCount++; // whatever the calls returned
    return result;
}

int32_t cpuDefendHwDel(tSlotIndex *pSlotIndex, const uint8_t *name, uint32_t nameLen)
{
    if (cpuDefendIsSlave())
        return 0;
    tCpuDefendPolicyEntry *pPolicy = cpuDefendPolicyEntryGet(name, nameLen);
    if (!pPolicy)
        return CPUDEFEND_ENONAME;
    const int32_t result = Pass(hwDel, pSlotIndex).run(pPolicy);
    pPolicy->refCount--; // no floor: additions and removals are paired by the callers, or not
    return result;
}
