/**
 * What is programmed follows the cards.
 *
 * What is programmed has two mechanisms. The handlers and controllers program, step by step, what
 * a change of theirs asks for, by the slots that are there at that moment. Which calls these are,
 * in which order, and which result a request is answered with, is part of the interface to the
 * hardware: a maker's layer may rely on it, also where the steps leave something over or take too
 * much away. And so they are not derived from what is wanted in the end.
 *
 * Here, behind them, the whole is looked at: what binding all that is bound afresh would program,
 * and where the hardware holds something else, it is made to hold that. Where no card ever got a
 * slot's record this does nothing, and the steps are all that the hardware sees.
 */
#include "cpuDefend_hw.h"
#include "cpuDefend_level.h"

using namespace cpudefend;

/** A policy that is to be in force at a place. Later ones cover earlier ones there. */
struct tCpuDefendBinding {
    tHwTarget target;
    tCpuDefendPolicyEntry *policy;

    bool operator==(const tCpuDefendBinding &) const = default;
};

namespace
{

/** @return false when there is no memory */
bool bind(const tHwTarget &target, tCpuDefendPolicyEntry *policy)
{
    return !policy || gCpuDefend.bindings.append({target, policy});
}

/** The policy bound by that name; null without a name, or without such a policy. */
tCpuDefendPolicyEntry *bound(const uint8_t *name, uint8_t len)
{
    return len != 0 ? cpuDefendPolicyEntryGet(name, len) : nullptr;
}

/** What is in force for the system as a whole. */
struct tSystemPolicies {
    tCpuDefendPolicyEntry *fixed;
    tCpuDefendPolicyEntry *level;
};

/** A slot without a policy of its own has the system's; one in fixed mode also its level. */
bool bindSlot(tCpuDefendSlotEntry *slot, const tSystemPolicies &system)
{
    const tSlotIndex index = cpuDefendSlotIndex(slot);
    const tHwTarget target = cpuDefendHwTarget(&index);
    slot->policyEntry = bound(slot->policyName, slot->policyNameLen);
    return bind(target, slot->policyNameLen != 0 ? slot->policyEntry : system.fixed) &&
           bind(target, slot->policyMode == CPUDEFEND_FIXED ? system.level : nullptr) &&
           bind(target, cpuDefendLevelPolicy(slot->cpuRatControl, slot->selectedPosition));
}

/** Fill gCpuDefend.bindings. @return false when there is no memory */
bool bindAll()
{
    const tSystemPolicies system{
        bound(gCpuDefend.policyName, gCpuDefend.policyNameLen),
        cpuDefendLevelPolicy(gCpuDefend.cpuRatControl, gCpuDefend.selectedPosition)};
    const tHwTarget whole = cpuDefendHwTarget(nullptr);
    gCpuDefend.bindings.clear();
    if (list_empty(&gCpuDefend.slotList))
        return bind(whole, system.fixed) && bind(whole, system.level);
    bool complete = true;
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node) complete =
        bindSlot(slot, system) && complete;
    return complete;
}

/** Whether all is as it was left: the same bindings, and nothing programmed since. */
bool isFollowed()
{
    if (gCpuDefend.followedChangeNum != gCpuDefend.hwChangeNum ||
        gCpuDefend.followed.count() != gCpuDefend.bindings.count())
        return false;
    for (uint32_t i = 0; i < gCpuDefend.bindings.count(); i++)
        if (!(gCpuDefend.bindings[i] == gCpuDefend.followed[i]))
            return false;
    return true;
}

/** What is refused now is asked for again by cpuDefendRetry, not before. */
void remember()
{
    gCpuDefend.followed.clear();
    for (const tCpuDefendBinding &binding : gCpuDefend.bindings)
        if (!gCpuDefend.followed.append(binding))
            return; // and so it all counts as changed next time
    gCpuDefend.followedChangeNum = gCpuDefend.hwChangeNum;
}

/** Spell out what the bindings stand for. @return false when there is no memory */
bool spellOut()
{
    bool complete = true;
    gCpuDefend.wanted.clear();
    const auto append = [&complete](const tHwItem &item) {
        complete = gCpuDefend.wanted.append(item) && complete;
    };
    for (const tCpuDefendBinding &binding : gCpuDefend.bindings)
        cpuDefendHwPass(binding.target, append).run(binding.policy);
    return complete;
}

bool isBound(const tHwTarget &target)
{
    for (const tCpuDefendBinding &binding : gCpuDefend.bindings)
        if (binding.target == target)
            return true;
    return false;
}

/** Take out the items that @a concerns says, the newest first. */
template <typename Concerns> void empty(uint32_t from, Concerns concerns)
{
    for (uint32_t i = gCpuDefend.held.count(); i-- > from;) {
        tHwItem &item = gCpuDefend.held[i];
        if (!concerns(item))
            continue;
        if (item.isRefused)
            gCpuDefend.held.remove(&item);
        else
            cpuDefendHwItemDel(item);
    }
}

/** The first item for a place at @a from or behind it; the count when there is none. */
uint32_t itemAt(cpuDefendArray<tHwItem> &items, uint32_t from, const tHwTarget &target)
{
    while (from < items.count() && !(items[from].target == target))
        from++;
    return from;
}

/** Make one place hold what is wanted there. What is right so far, from the oldest on, stays. */
void mend(const tHwTarget &target)
{
    auto &held = gCpuDefend.held;
    auto &wanted = gCpuDefend.wanted;
    uint32_t has = itemAt(held, 0, target);
    uint32_t wants = itemAt(wanted, 0, target);
    while (has < held.count() && wants < wanted.count() && held[has] == wanted[wants]) {
        has = itemAt(held, has + 1, target);
        wants = itemAt(wanted, wants + 1, target);
    }
    empty(has, [&target](const tHwItem &item) { return item.target == target; });
    for (; wants < wanted.count(); wants = itemAt(wanted, wants + 1, target))
        cpuDefendHwItemWant(wanted[wants]);
}

/** A policy counts the places where it is bound, whatever was added and removed unpaired. */
void countPlaces()
{
    for (void *at = avl_first(&gCpuDefend.policyList); at;
         at = avl_next(&gCpuDefend.policyList, at))
        static_cast<tCpuDefendPolicyEntry *>(at)->refCount = 0;
    for (const tCpuDefendBinding &binding : gCpuDefend.bindings)
        binding.policy->refCount++;
}

/** Make every place hold what is wanted there. */
void program()
{
    zynHwChangeBegin();
    empty(0, [](const tHwItem &item) { return !isBound(item.target); });
    for (const tCpuDefendBinding &binding : gCpuDefend.bindings)
        mend(binding.target); // at a place bound again there is nothing left to do
    zynHwChangeEnd();
    countPlaces();
    remember();
}

void complain()
{
    CPUDEFEND_DEBUG("[cpuDefend] no memory to follow the cards!\r\n");
}

bool isAnyRefused()
{
    for (const tHwItem &item : gCpuDefend.held)
        if (item.isRefused)
            return true;
    return false;
}

} // namespace

void cpuDefendFollow()
{
    if (!gCpuDefend.followsCards)
        return;
    const bool complete = bindAll();
    if (complete && (isFollowed() || cpuDefendIsSlave()))
        return;
    if (!complete || !spellOut())
        return complain();
    program();
    gCpuDefend.retryDue = 1;
}

void cpuDefendRetry()
{
    if (!isAnyRefused()) {
        gCpuDefend.retryDue = 0;
        return;
    }
    if (cpuDefendIsSlave())
        return;
    if (!bindAll() || !spellOut())
        return complain();
    gCpuDefend.retryDue = 0;
    empty(0, [](const tHwItem &item) { return item.isRefused; }); // and so they are missing
    program();
}
