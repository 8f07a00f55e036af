/**
 * Cards: a slot's record is there as long as one of its ports is.
 */
#include <string.h>

#include "cpuDefend_link.h"

namespace
{

bool isOccupied(const tCpuDefendPlace &place)
{
    for (const tCpuDefendLink &link : gCpuDefend.links)
        if (link.now == place)
            return true;
    return false;
}

/** Release a slot's record, and what of it would stay behind. */
void release(const tCpuDefendPlace &place)
{
    tCpuDefendSlotEntry *entry = cpuDefendSlotEntryGet(place.sys, place.slot);
    if (!entry)
        return;
    cpuDefendSlotEntryDel(entry);
    timerStop(&gCpuDefend.timerList, &entry->cpuRatControlTimer);
    entry->policyEntry = nullptr; // also when the hardware did not let go: cpuDefendFollow sees to
    entry->policyNameLen = 0;     // that
    memset(entry->policyName, 0, sizeof entry->policyName);
}

/** Release the records of slots whose last port has gone. @return whether there were any */
bool releaseLeft()
{
    bool any = false;
    for (const tCpuDefendLink &link : gCpuDefend.links)
        if (link.was.isSlot() && !isOccupied(link.was)) {
            release(link.was);
            any = true;
        }
    return any;
}

/** Have a record for a slot that has a port; there is none when the pool is exhausted. */
void provide(const tCpuDefendPlace &place)
{
    tCpuDefendSlotEntry *entry = cpuDefendSlotEntryGet(place.sys, place.slot);
    if (!entry) {
        entry = cpuDefendSlotEntryAdd(place.sys, place.slot);
        if (!entry) {
            NM_DEBUG_OUTPUT("[cpuDefend] slot %u/%u is not protected: all %u slot records are "
                            "taken\r\n",
                            place.sys, place.slot, gCpuDefend.maxSlotNum);
            return;
        }
        entry->selectedPosition = 0; // whatever the record was before: nothing is programmed there
    }
    gCpuDefend.followsCards = 1;
}

/** The records are as the links are. Links that are gone are remembered no more. */
void takeAsIs()
{
    for (uint32_t i = gCpuDefend.links.count(); i-- > 0;) {
        gCpuDefend.links[i].was = gCpuDefend.links[i].now;
        if (!gCpuDefend.links[i].now.isSlot())
            gCpuDefend.links.remove(&gCpuDefend.links[i]);
    }
}

bool isSettled()
{
    for (const tCpuDefendLink &link : gCpuDefend.links)
        if (!(link.now == link.was))
            return false;
    return true;
}

/** Bring the records in line with the links, and what is programmed with the records. */
void settle()
{
    if (isSettled())
        return;
    zynHwChangeBegin();
    const bool hasRoom = releaseLeft(); // so that slots may get a record now that had found none
    for (const tCpuDefendLink &link : gCpuDefend.links)
        if (link.now.isSlot() && (hasRoom || !(link.now == link.was)))
            provide(link.now);
    takeAsIs();
    cpuDefendFollow();
    zynHwChangeEnd();
}

} // namespace

void cpuDefendCardStart()
{
    if (!cpuDefendLinkListAll())
        CPUDEFEND_DEBUG("[cpuDefend] the links are not all known!\r\n");
    settle();
}

void cpuDefendCardNotify(const unsigned char *buf, int32_t len)
{
    cpuDefendNetlinkEach(buf, len > 0 ? static_cast<size_t>(len) : 0,
                         [](const tCpuDefendLinkMessage &message, size_t messageLen) {
                             cpuDefendLinkTake(message, messageLen);
                             settle();
                         });
}
