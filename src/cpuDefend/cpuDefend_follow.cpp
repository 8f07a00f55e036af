/**
 * What is programmed follows the cards.
 *
 * The handlers and controllers program what a change of theirs asks for, by the slots that are
 * there at that moment. Here the whole is looked at: what binding all that is bound afresh would
 * program, and where the hardware holds something else, it is made to hold that.
 */
#include "cpuDefend_hw.h"
#include "cpuDefend_level.h"

namespace
{

/** A policy that is to be in force at a place. Later ones cover earlier ones there. */
struct tBinding {
    tHwTarget target;
    tCpuDefendPolicyEntry *policy;

    bool operator==(const tBinding &) const = default;
};

cpuDefendArray<tBinding> bindings(&tCpuDefendSystem::useBindingNum);
cpuDefendArray<tBinding> followed(&tCpuDefendSystem::useFollowedNum); // what they were last time
cpuDefendArray<tHwItem> wanted(&tCpuDefendSystem::useWantedNum);

/** @return false when there is no memory */
bool bind(const tHwTarget &target, tCpuDefendPolicyEntry *policy)
{
    return !policy || bindings.append({target, policy});
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

/** Fill bindings. @return false when there is no memory */
bool bindAll()
{
    const tSystemPolicies system{
        bound(gCpuDefend.policyName, gCpuDefend.policyNameLen),
        cpuDefendLevelPolicy(gCpuDefend.cpuRatControl, gCpuDefend.selectedPosition)};
    const tHwTarget whole = cpuDefendHwTarget(nullptr);
    bindings.clear();
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
        followed.count() != bindings.count())
        return false;
    for (uint32_t i = 0; i < bindings.count(); i++)
        if (!(bindings[i] == followed[i]))
            return false;
    return true;
}

/** What is refused now is asked for again by cpuDefendRetry, not before. */
void remember()
{
    followed.clear();
    for (const tBinding &binding : bindings)
        if (!followed.append(binding))
            return; // and so it all counts as changed next time
    gCpuDefend.followedChangeNum = gCpuDefend.hwChangeNum;
}

/** Spell out what the bindings stand for. @return false when there is no memory */
bool spellOut()
{
    bool complete = true;
    wanted.clear();
    const auto append = [&complete](const tHwItem &item) {
        complete = wanted.append(item) && complete;
    };
    for (const tBinding &binding : bindings)
        cpuDefendHwPass(binding.target, append).run(binding.policy);
    return complete;
}

bool isBound(const tHwTarget &target)
{
    for (const tBinding &binding : bindings)
        if (binding.target == target)
            return true;
    return false;
}

/** Take out the items that @a concerns says, the newest first. */
template <typename Concerns> void empty(uint32_t from, Concerns concerns)
{
    for (uint32_t i = cpuDefendHwHeld.count(); i-- > from;) {
        tHwItem &item = cpuDefendHwHeld[i];
        if (!concerns(item))
            continue;
        if (item.isRefused)
            cpuDefendHwHeld.remove(&item);
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
    uint32_t has = itemAt(cpuDefendHwHeld, 0, target);
    uint32_t wants = itemAt(wanted, 0, target);
    while (has < cpuDefendHwHeld.count() && wants < wanted.count() &&
           cpuDefendHwHeld[has] == wanted[wants]) {
        has = itemAt(cpuDefendHwHeld, has + 1, target);
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
    for (const tBinding &binding : bindings)
        binding.policy->refCount++;
}

/** Make every place hold what is wanted there. */
void program()
{
    zynHwChangeBegin();
    empty(0, [](const tHwItem &item) { return !isBound(item.target); });
    for (const tBinding &binding : bindings)
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
    for (const tHwItem &item : cpuDefendHwHeld)
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
