/**
 * The policy table: named policies in an AVL tree, ordered byte-wise by name.
 */
#include <string.h>

#include "cpuDefend.h"

namespace
{

constexpr uint32_t DESCRIPTION_CLEARED = 32; // of 64: the rest is zero in a free record

void setDefaults(tCpuDefendPolicyEntry *pPolicy)
{
    memset(pPolicy->policyDescription, 0, DESCRIPTION_CLEARED);
    pPolicy->policyDescriptionLen = 0;
    memset(pPolicy->priority, 0, sizeof pPolicy->priority);
    pPolicy->whiteListEnable = CPUDEFEND_ENABLE;
    pPolicy->whiteListIp4Cir = CPUDEFEND_DEFAULT_CIR;
    pPolicy->whiteListIp4Cbs = CPUDEFEND_DEFAULT_CBS;
    pPolicy->whiteListIp6Cir = CPUDEFEND_DEFAULT_CIR;
    pPolicy->whiteListIp6Cbs = CPUDEFEND_DEFAULT_CBS;
    pPolicy->blackListEnable = CPUDEFEND_ENABLE;
    pPolicy->srcTraceAlarmEnable = CPUDEFEND_DISABLE;
    pPolicy->srcTracePktDataEnable = CPUDEFEND_DISABLE;
    pPolicy->srcTraceEnable = CPUDEFEND_DISABLE;
    pPolicy->srcTraceThreshold = CPUDEFEND_DEFAULT_THRESHOLD;
    pPolicy->srcTraceAlarmThreshold = CPUDEFEND_DEFAULT_THRESHOLD;
    INIT_LIST_HEAD(&pPolicy->userDefinedList);
    INIT_LIST_HEAD(&pPolicy->carPktList);
}

/** One CAR entry for each type 0 to 9; when the CAR pool runs out there are fewer. */
void addCarEntries(tCpuDefendPolicyEntry *pPolicy)
{
    int32_t ignored;
    for (uint32_t type = CPUDEFEND_PKTTYPE_DOT1X; type <= CPUDEFEND_PKTTYPE_DHCPSNOOPIP; type++)
        cpuDefendCarPktEntryAdd(pPolicy->policyName, pPolicy->policyNameLen, type, &ignored);
}

/** A slot may name a policy before it exists. */
void resolveSlots(tCpuDefendPolicyEntry *pPolicy)
{
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        if (slot->policyNameLen == pPolicy->policyNameLen &&
            memcmp(slot->policyName, pPolicy->policyName, pPolicy->policyNameLen) == 0)
            slot->policyEntry = pPolicy;
    }
}

/** Take every link off a list whose head is about to be cleared. */
void unhookAll(list_head *head)
{
    while (!list_empty(head))
        list_del_init(head->next);
}

} // namespace

int cpuDefendPolicyCmp(const void *a, const void *b)
{
    const auto *pPolicy1 = static_cast<const tCpuDefendPolicyEntry *>(a);
    const auto *pPolicy2 = static_cast<const tCpuDefendPolicyEntry *>(b);
    const uint8_t len1 = pPolicy1->policyNameLen;
    const uint8_t len2 = pPolicy2->policyNameLen;
    const int order = memcmp(pPolicy1->policyName, pPolicy2->policyName, len1 < len2 ? len1 : len2);
    if (order != 0)
        return order > 0 ? 1 : -1;
    return (len1 > len2) - (len1 < len2);
}

tCpuDefendPolicyEntry *cpuDefendPolicyEntryGet(const uint8_t *name, uint32_t nameLen)
{
    if (nameLen > CPUDEFEND_NAME_MAXLEN)
        return nullptr;
    tCpuDefendPolicyEntry key{};
    key.policyNameLen = static_cast<uint8_t>(nameLen);
    memcpy(key.policyName, name, nameLen);
    return static_cast<tCpuDefendPolicyEntry *>(avl_find(&gCpuDefend.policyList, &key, nullptr));
}

tCpuDefendPolicyEntry *cpuDefendPolicyEntryAdd(const uint8_t *name, uint32_t nameLen)
{
    if (nameLen > CPUDEFEND_NAME_MAXLEN)
        return nullptr;
    if (list_empty(&gCpuDefend.policyFreeList)) {
        CPUDEFEND_DEBUG(" [cpuDefend] no memery to add PolicyEntry!\r\n");
        return nullptr;
    }
    auto *pPolicy = list_entry(gCpuDefend.policyFreeList.next, tCpuDefendPolicyEntry, freeNode);
    list_del_init(&pPolicy->freeNode);
    pPolicy->policyNameLen = static_cast<uint8_t>(nameLen);
    memcpy(pPolicy->policyName, name, nameLen);
    pPolicy->policyStatus = CPUDEFEND_STATUS_ACTIVE;
    if (avl_add(&gCpuDefend.policyList, pPolicy) != 0) {
        memset(pPolicy, 0, sizeof *pPolicy);
        list_add(&pPolicy->freeNode, &gCpuDefend.policyFreeList);
        return nullptr;
    }
    setDefaults(pPolicy);
    addCarEntries(pPolicy);
    gCpuDefend.usePolicyNum++;
    resolveSlots(pPolicy);
    return pPolicy;
}

int32_t cpuDefendPolicyEntryDel(tCpuDefendPolicyEntry *pPolicy)
{
    if (pPolicy->refCount != 0)
        return CPUDEFEND_EBOUND;
    avl_remove(&gCpuDefend.policyList, pPolicy);
    // The CAR entries and rules outlive their policy: still allocated, listed globally and
    // counted. Only what would point into the cleared record is taken off.
    timerStop(&gCpuDefend.timerList, &pPolicy->srcTraceTimer);
    unhookAll(&pPolicy->userDefinedList);
    unhookAll(&pPolicy->carPktList);
    memset(pPolicy, 0, sizeof *pPolicy);
    list_add(&pPolicy->freeNode, &gCpuDefend.policyFreeList);
    gCpuDefend.usePolicyNum--;
    return 0;
}
