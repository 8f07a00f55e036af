#include "memory.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "contract.h"
#include "cpuusage.h"
#include "layer.h"
#include "refusals.h"

namespace
{

const char kernelStat[] = "/proc/stat";

struct tCar {
    list_head node;
    tSlotIndex target;
    tHwCpuDefendPktCarEntry entry;
};

struct tAcl {
    list_head node;
    tSlotIndex target;
    tZynMemoryAcl acl;
};

list_head cars = {&cars, &cars}; // of all targets, the newest first
list_head acls = {&acls, &acls}; // of all targets, in the order of attachment
bool slave = false;              // the role of this card
const char *statPath = kernelStat;
tCpuMeters meters;

/** Readings that a test gives: the next one, and how many there are from it on. */
struct tSeries {
    const uint32_t *next; /**< null: the kernel is asked */
    uint32_t left;
};
tSeries series[2]; // by selector

/** Empty a list of allocated records, whose links stand first in them. */
void freeAll(list_head *list)
{
    static_assert(offsetof(tCar, node) == 0 && offsetof(tAcl, node) == 0);
    list_head *node = list->next;
    while (node != list) {
        list_head *next = node->next;
        free(node);
        node = next;
    }
    INIT_LIST_HEAD(list);
}

/* ---- Targets -------------------------------------------------------------------------- */

tSlotIndex targetOf(const tSlotIndex *slot)
{
    return slot != nullptr ? *slot : tSlotIndex{0, 0, 0};
}

bool sameTarget(const tSlotIndex &a, const tSlotIndex &b)
{
    return a.sys == b.sys && a.slot == b.slot;
}

/* ---- CAR entries ---------------------------------------------------------------------- */

/** Whether all settings agree; the counters are none. */
bool sameCar(const tHwCpuDefendPktCarEntry &a, const tHwCpuDefendPktCarEntry &b)
{
    return a.pktType == b.pktType && a.cir == b.cir && a.cbs == b.cbs && a.pps == b.pps &&
           a.queue == b.queue && a.priority == b.priority && a.op == b.op && a.res == b.res;
}

/** The newest entry with these settings, or null. */
tCar *newestCar(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    tSlotIndex target = targetOf(slot);
    list_for_each_entry(tCar, car, &cars, node)
    {
        if (sameTarget(car->target, target) && sameCar(car->entry, entry))
            return car;
    }
    return nullptr;
}

/* ---- ACLs ----------------------------------------------------------------------------- */

bool sameAcl(const tZynMemoryAcl &a, const layer::tAclSetting &b)
{
    return a.acl == b.acl && a.action == b.action && a.cir == b.cir && a.cbs == b.cbs &&
           a.ebs == b.ebs;
}

} // namespace

/* ---- The layer ------------------------------------------------------------------------ */

int32_t layer::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
{
    tCar *car = static_cast<tCar *>(calloc(1, sizeof *car));
    if (car == nullptr)
        return ENOMEM;
    car->target = targetOf(slot);
    car->entry = entry;
    list_add(&car->node, &cars);
    return 0;
}

int32_t layer::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
{
    tCar *car = newestCar(slot, entry);
    if (car == nullptr)
        return ENOENT;
    list_del_init(&car->node);
    free(car);
    return 0;
}

/** No packet comes by here. */
int32_t layer::carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                        tCarCounts *counts) noexcept
{
    if (newestCar(slot, entry) == nullptr)
        return ENOENT;
    *counts = {};
    return 0;
}

// Nothing is judged by what is kept here, so each call may be in force at once.

void layer::changeBegin() noexcept {}

int32_t layer::changeEnd() noexcept
{
    return 0;
}

const layer::tDropped *layer::dropped(uint32_t) noexcept
{
    return nullptr;
}

const char *layer::reason() noexcept
{
    return nullptr;
}

int32_t layer::aclAdd(const tSlotIndex *slot, const tAclSetting &acl) noexcept
{
    tAcl *attached = static_cast<tAcl *>(calloc(1, sizeof *attached));
    if (attached == nullptr)
        return ENOMEM;
    attached->target = targetOf(slot);
    attached->acl = {acl.acl, acl.action, acl.cir, acl.cbs, acl.ebs};
    list_add_tail(&attached->node, &acls);
    return 0;
}

int32_t layer::aclDel(const tSlotIndex *slot, const tAclSetting &acl) noexcept
{
    tSlotIndex target = targetOf(slot);
    tAcl *newest = nullptr;
    list_for_each_entry(tAcl, attached, &acls, node)
    {
        if (sameTarget(attached->target, target) && sameAcl(attached->acl, acl))
            newest = attached;
    }
    if (newest == nullptr)
        return ENOENT;
    list_del_init(&newest->node);
    free(newest);
    return 0;
}

bool layer::isSlave() noexcept
{
    return slave;
}

int32_t layer::cpuUsage(uint32_t selector, uint32_t *value) noexcept
{
    tSeries &given = series[selector];
    if (given.next == nullptr)
        return cpuMetersRead(&meters, statPath, selector, value);
    *value = *given.next;
    if (given.left > 1) {
        given.next++;
        given.left--;
    }
    return 0;
}

/** No ports are known here: every unit belongs to the system itself. */
int32_t layer::place(uint32_t ifUnit, tPhyIfInfo *info) noexcept
{
    info->port = ifUnit;
    return 0;
}

/* ---- The look inside, and scripting --------------------------------------------------- */

const tHwCpuDefendPktCarEntry *zynMemoryCarInForce(const tSlotIndex *slot, uint32_t pktType)
{
    tSlotIndex target = targetOf(slot);
    list_for_each_entry(tCar, car, &cars, node)
    {
        if (sameTarget(car->target, target) && car->entry.pktType == pktType)
            return &car->entry;
    }
    return nullptr;
}

uint32_t zynMemoryCarCount(const tSlotIndex *slot)
{
    tSlotIndex target = targetOf(slot);
    uint32_t count = 0;
    list_for_each_entry(tCar, car, &cars, node) count += sameTarget(car->target, target);
    return count;
}

const tZynMemoryAcl *zynMemoryAclNext(const tSlotIndex *slot, const tZynMemoryAcl *previous)
{
    tSlotIndex target = targetOf(slot);
    list_head *node = previous != nullptr ? &list_entry(previous, tAcl, acl)->node : &acls;
    for (node = node->next; node != &acls; node = node->next) {
        tAcl *attached = list_entry(node, tAcl, node);
        if (sameTarget(attached->target, target))
            return &attached->acl;
    }
    return nullptr;
}

uint32_t zynMemoryAclCount(const tSlotIndex *slot)
{
    uint32_t count = 0;
    for (auto *acl = zynMemoryAclNext(slot, nullptr); acl != nullptr;
         acl = zynMemoryAclNext(slot, acl))
        count++;
    return count;
}

void zynMemoryRoleSet(int32_t isSlave)
{
    slave = isSlave != 0;
}

void zynMemoryCpuStatSet(const char *path)
{
    statPath = path != nullptr ? path : kernelStat;
}

int32_t zynMemoryUsageSet(uint32_t selector, const uint32_t *values, uint32_t count)
{
    if (selector > 1 || (values != nullptr && count == 0))
        return EINVAL;
    series[selector] = {values, count};
    return 0;
}

int32_t zynMemoryFailAt(uint32_t n, int32_t code)
{
    return contractFailAt(n, code);
}

void zynMemoryReset(void)
{
    freeAll(&cars);
    freeAll(&acls);
    zynMemoryRoleSet(0);
    zynMemoryCpuStatSet(nullptr);
    memset(&meters, 0, sizeof meters);
    memset(series, 0, sizeof series);
    contractFailNone();
    refusals::forget();
}
