/**
 * What rules and CAR entries have in common: a numbered child of a policy, on a global list in
 * the order of (policy name length, policy name, number), which the management walk uses, and on
 * its policy's own list in the order of the number, which hardware programming walks.
 */
#ifndef CPUDEFEND_CHILD_H
#define CPUDEFEND_CHILD_H

#include <string.h>

#include "cpuDefend.h"

inline uint32_t cpuDefendChildNumber(const tCpuDefendUserDefinedEntry *entry)
{
    return entry->index;
}

inline uint32_t cpuDefendChildNumber(const tCpuDefendCarPktEntry *entry)
{
    return entry->pktType;
}

/** Order of an entry against a key: negative, 0 or positive. */
template <typename T>
int cpuDefendChildCmp(const T *entry, const uint8_t *name, uint32_t nameLen, uint32_t number)
{
    const tCpuDefendPolicyEntry *policy = entry->policyEntry;
    if (policy->policyNameLen != nameLen)
        return policy->policyNameLen > nameLen ? 1 : -1;
    const int order = memcmp(policy->policyName, name, nameLen);
    if (order != 0)
        return order;
    const uint32_t own = cpuDefendChildNumber(entry);
    return (own > number) - (own < number);
}

/** The first entry of @a list with that key, or null. */
template <typename T>
T *cpuDefendChildFind(list_head *list, const uint8_t *name, uint32_t nameLen, uint32_t number)
{
    list_for_each_entry(T, entry, list, node)
    {
        if (cpuDefendChildCmp(entry, name, nameLen, number) == 0)
            return entry;
    }
    return nullptr;
}

/** The first entry of @a list with a greater key, or null. */
template <typename T>
T *cpuDefendChildFindAfter(list_head *list, const uint8_t *name, uint32_t nameLen, uint32_t number)
{
    list_for_each_entry(T, entry, list, node)
    {
        if (cpuDefendChildCmp(entry, name, nameLen, number) > 0)
            return entry;
    }
    return nullptr;
}

/** The first entry of @a list, or null. */
template <typename T> T *cpuDefendChildFirst(list_head *list)
{
    return list_empty(list) ? nullptr : list_entry(list->next, T, node);
}

/** Put @a added on the global list and on its policy's, each time behind all equal entries. */
template <typename T> void cpuDefendChildLink(list_head *global, list_head *own, T *added)
{
    const tCpuDefendPolicyEntry *policy = added->policyEntry;
    const uint32_t number = cpuDefendChildNumber(added);
    T *next = cpuDefendChildFindAfter<T>(global, policy->policyName, policy->policyNameLen, number);
    list_add_tail(&added->node, next ? &next->node : global);

    list_head *place = own->next;
    while (place != own && cpuDefendChildNumber(list_entry(place, T, policyNode)) <= number)
        place = place->next;
    list_add_tail(&added->policyNode, place);
}

/** Put the name of the entry's policy into a management index. */
template <typename T, typename Idx> void cpuDefendChildName(const T *entry, Idx *idx)
{
    const tCpuDefendPolicyEntry *policy = entry->policyEntry;
    idx->policyNameLen = policy->policyNameLen;
    memcpy(idx->policyName, policy->policyName, policy->policyNameLen);
}

/**
 * Take @a entry off both lists.
 * @return whether it was on its policy's: an entry that outlived its policy is not, and the
 *         record it points to may belong to another policy by now
 */
template <typename T> bool cpuDefendChildUnlink(T *entry)
{
    list_del_init(&entry->node);
    const bool owned = !list_empty(&entry->policyNode);
    list_del_init(&entry->policyNode);
    return owned;
}

/**
 * Take the first record of @a freeList for the policy so named; it is on no list then.
 * @param whatIsFull the debug message when there is none
 * @return the record with its policyEntry set, or null with the reason in @a ret
 */
template <typename T>
T *cpuDefendChildTake(list_head *freeList, const uint8_t *name, uint32_t nameLen,
                      const char *whatIsFull, int32_t *ret)
{
    tCpuDefendPolicyEntry *policy = cpuDefendPolicyEntryGet(name, nameLen);
    if (!policy) {
        CPUDEFEND_DEBUG("[cpuDefend] The instance pPolicy does not exist !\r\n");
        *ret = CPUDEFEND_ENOPOLICY;
        return nullptr;
    }
    if (list_empty(freeList)) {
        CPUDEFEND_DEBUG("%s", whatIsFull);
        *ret = CPUDEFEND_ENOMEM;
        return nullptr;
    }
    T *entry = list_entry(freeList->next, T, node);
    list_del_init(&entry->node);
    entry->policyEntry = policy;
    return entry;
}

#endif
