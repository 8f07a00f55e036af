#include "refusals.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zynosal.h"

namespace refusals
{

namespace
{

constexpr uint64_t quietTime = 60000; // ms

struct tRefusal {
    tEntry entry;
    int32_t result;
    uint64_t at;     /**< when it was refused last, in ms */
    bool isAskedFor; /**< ever since */
    bool isTaken;    /**< in the change that has not ended */
};

/** What was refused and has not been taken since, but for what was withdrawn long ago. */
struct {
    tRefusal *at;
    size_t count;
    size_t room;
} all;

tRefusal *find(const tEntry &entry)
{
    for (size_t i = 0; i < all.count; i++)
        if (all.at[i].entry == entry)
            return &all.at[i];
    return nullptr;
}

bool isWorthKnowing(const tRefusal &refusal)
{
    return refusal.isAskedFor || osClockNow() - refusal.at < quietTime;
}

template <typename IsKept> void keepOnly(IsKept isKept)
{
    size_t kept = 0;
    for (size_t i = 0; i < all.count; i++)
        if (isKept(all.at[i]))
            all.at[kept++] = all.at[i];
    all.count = kept;
}

bool makeRoom()
{
    if (all.count < all.room)
        return true;
    keepOnly(isWorthKnowing);
    if (all.count < all.room / 2)
        return true;
    const size_t room = all.room != 0 ? all.room * 2 : 16;
    void *at = realloc(all.at, room * sizeof *all.at);
    if (at == nullptr)
        return false;
    all.at = static_cast<tRefusal *>(at);
    all.room = room;
    return true;
}

/** Take note of a refusal. @return whether it is news */
bool note(const tEntry &entry, int32_t result)
{
    const tRefusal now{entry, result, osClockNow(), !entry.isRemoval, false};
    tRefusal *before = find(entry);
    if (before == nullptr) {
        if (makeRoom()) // without, it is said again the next time
            all.at[all.count++] = now;
        return true;
    }
    const bool isNews = before->result != result || !isWorthKnowing(*before);
    *before = now;
    return isNews;
}

void say(const tEntry &entry, const char *what, int32_t result, const char *reason)
{
    char place[sizeof "slot 4294967295/4294967295"] = "the system";
    if (entry.isSlot)
        snprintf(place, sizeof place, "slot %u/%u", entry.sys, entry.slot);
    NM_DEBUG_OUTPUT("[platform] %s %u (%s) %s on %s: %s\n",
                    entry.isAcl ? "ACL" : "CAR entry for packet type", entry.number,
                    entry.op == ZYN_HW_OP_DENY ? "deny" : "permit", what, place,
                    reason != nullptr ? reason : strerror(result));
}

tEntry entryAt(const tSlotIndex *slot)
{
    tEntry entry{};
    entry.isSlot = slot != nullptr;
    if (slot != nullptr) {
        entry.sys = slot->sys;
        entry.slot = slot->slot;
    }
    return entry;
}

} // namespace

tEntry entryOf(const tSlotIndex *slot, const layer::tAclSetting &acl)
{
    tEntry entry = entryAt(slot);
    entry.isAcl = true;
    entry.number = acl.acl;
    entry.op = acl.action;
    entry.rates[0] = acl.cir;
    entry.rates[1] = acl.cbs;
    entry.rates[2] = acl.ebs;
    return entry;
}

tEntry entryOf(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &car)
{
    tEntry entry = entryAt(slot);
    entry.number = car.pktType;
    entry.op = car.op;
    entry.rates[0] = car.cir;
    entry.rates[1] = car.cbs;
    entry.rates[2] = car.pps;
    entry.queue = car.queue;
    entry.priority = car.priority;
    entry.bits = car.res;
    return entry;
}

tEntry entryOf(const tHwDropped &dropped)
{
    const tSlotIndex *slot = dropped.isSlot ? &dropped.slot : nullptr;
    if (!dropped.isAcl)
        return entryOf(slot, dropped.car);
    return entryOf(slot, layer::tAclSetting{dropped.acl, dropped.action, dropped.cir, dropped.cbs,
                                            dropped.ebs});
}

void refused(const tEntry &entry, int32_t result, const char *reason)
{
    if (note(entry, result))
        say(entry, "is not put in force", result, reason);
}

void removalRefused(const tEntry &entry, int32_t result, const char *reason)
{
    tEntry removal = entry;
    removal.isRemoval = true;
    if (note(removal, result))
        say(entry, "is not removed", result, reason);
}

void taken(const tEntry &entry)
{
    tRefusal *refusal = find(entry);
    if (refusal != nullptr)
        refusal->isTaken = true;
}

void changeEnded()
{
    keepOnly([](const tRefusal &refusal) { return !refusal.isTaken; });
}

void withdrawn(const tEntry &entry)
{
    tRefusal *refusal = find(entry);
    if (refusal != nullptr)
        refusal->isAskedFor = false;
}

void forget()
{
    free(all.at);
    all = {};
}

size_t count()
{
    return all.count;
}

} // namespace refusals
