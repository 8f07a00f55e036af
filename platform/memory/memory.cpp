#include "memory.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "cpuusage.h"
#include "journal.h"
#include "zynif.h"

namespace
{

constexpr uint32_t pktTypeMax = 58;
constexpr int32_t flagApply = 3; // to the running hardware

// What a slot synchronisation id stands for, where the flag does not tell.
constexpr uint32_t syncGlobalReset = 8011;
constexpr uint32_t syncSlotReset = 8002;
constexpr uint32_t syncSlotLevelNames[] = {8005, 8007, 8009};

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
bool isSlave = false;
const char *statPath = kernelStat;
tCpuMeter meters[2]; // by selector
const uint32_t meterScales[2] = {100, 10000};

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

/** System 0 with slot 0 is the system itself and can't be addressed as a slot. */
bool isSlot(const tSlotIndex *slot)
{
    return slot != nullptr && slot->type == 0 && (slot->sys != 0 || slot->slot != 0);
}

bool isTarget(const tSlotIndex *slot)
{
    return slot == nullptr || isSlot(slot);
}

tSlotIndex targetOf(const tSlotIndex *slot)
{
    return slot != nullptr ? *slot : tSlotIndex{0, 0, 0};
}

bool sameTarget(const tSlotIndex &a, const tSlotIndex &b)
{
    return a.sys == b.sys && a.slot == b.slot;
}

/* ---- CAR entries ---------------------------------------------------------------------- */

bool isCar(const tHwCpuDefendPktCarEntry *entry)
{
    return entry != nullptr && entry->pktType <= pktTypeMax &&
           (entry->op == ZYN_HW_OP_PERMIT || entry->op == ZYN_HW_OP_DENY);
}

/** Whether all settings agree; the counters are none. */
bool sameCar(const tHwCpuDefendPktCarEntry &a, const tHwCpuDefendPktCarEntry &b)
{
    return a.pktType == b.pktType && a.cir == b.cir && a.cbs == b.cbs && a.pps == b.pps &&
           a.queue == b.queue && a.priority == b.priority && a.op == b.op && a.res == b.res;
}

int32_t carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry *entry)
{
    if (!isCar(entry))
        return EINVAL;
    tCar *car = static_cast<tCar *>(calloc(1, sizeof *car));
    if (car == nullptr)
        return ENOMEM;
    car->target = targetOf(slot);
    car->entry = *entry;
    list_add(&car->node, &cars);
    return 0;
}

int32_t carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry *entry)
{
    if (!isCar(entry))
        return EINVAL;
    tSlotIndex target = targetOf(slot);
    list_for_each_entry(tCar, car, &cars, node)
    {
        if (sameTarget(car->target, target) && sameCar(car->entry, *entry)) {
            list_del_init(&car->node);
            free(car);
            return 0;
        }
    }
    return ENOENT;
}

bool isSlotCommand(uint32_t cmd)
{
    return cmd == HW_SLOT_CPUDEFENDPKTCARADD || cmd == HW_SLOT_CPUDEFENDPKTCARDEL;
}

bool isSystemCommand(uint32_t cmd)
{
    return cmd == HW_SYS_CPUDEFENDPKTCARADD || cmd == HW_SYS_CPUDEFENDPKTCARDEL;
}

int32_t slotSet(const tSlotIndex *slot, uint32_t cmd, const void *arg, int32_t flag)
{
    if (!isSlot(slot) || !isSlotCommand(cmd) || flag != flagApply)
        return EINVAL;
    auto *entry = static_cast<const tHwCpuDefendPktCarEntry *>(arg);
    return cmd == HW_SLOT_CPUDEFENDPKTCARADD ? carAdd(slot, entry) : carDel(slot, entry);
}

int32_t systemSet(uint32_t index, uint32_t cmd, const tHwApiFunc *func)
{
    if (index != 0 || cmd != 0 || func == nullptr || !isSystemCommand(func->hwCmd))
        return EINVAL;
    if (func->action != 0 || func->res != 0 || func->argLen != 0 || func->flag != 0)
        return EINVAL;
    auto *entry = static_cast<const tHwCpuDefendPktCarEntry *>(func->arg);
    return func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD ? carAdd(nullptr, entry)
                                                    : carDel(nullptr, entry);
}

/* ---- ACLs ----------------------------------------------------------------------------- */

bool isAcl(const tZynMemoryAcl &acl)
{
    if (acl.acl == 0)
        return false;
    if (acl.action == ZYN_HW_OP_DENY)
        return acl.cir == 0 && acl.cbs == 0 && acl.ebs == 0;
    return acl.action == ZYN_HW_OP_PERMIT;
}

bool sameAcl(const tZynMemoryAcl &a, const tZynMemoryAcl &b)
{
    return a.acl == b.acl && a.action == b.action && a.cir == b.cir && a.cbs == b.cbs &&
           a.ebs == b.ebs;
}

int32_t aclAdd(const tSlotIndex *slot, const tZynMemoryAcl &acl)
{
    if (!isTarget(slot) || !isAcl(acl))
        return EINVAL;
    tAcl *attached = static_cast<tAcl *>(calloc(1, sizeof *attached));
    if (attached == nullptr)
        return ENOMEM;
    attached->target = targetOf(slot);
    attached->acl = acl;
    list_add_tail(&attached->node, &acls);
    return 0;
}

int32_t aclDel(const tSlotIndex *slot, const tZynMemoryAcl &acl)
{
    if (!isTarget(slot) || !isAcl(acl))
        return EINVAL;
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

/* ---- Conditions and ports ------------------------------------------------------------- */

int32_t roleGet(uint32_t index, uint32_t id)
{
    if (index != 0)
        return EINVAL;
    switch (id) {
    case HW_SYS_SWRUNNINGROLEISMASTER: return isSlave ? 1 : 0;
    case HW_SYS_SWRUNNINGROLEISSLAVE: return isSlave ? 0 : 1;
    default: return EINVAL;
    }
}

int32_t cpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    if (selector > 1 || id != HW_CPU_USED || value == nullptr)
        return EINVAL;
    return cpuMeterRead(&meters[selector], statPath, meterScales[selector], value);
}

/** No ports are known here: every unit belongs to the system itself. */
int32_t indexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    if (mode != SYS_INDEX_TRANS_PHY || info == nullptr)
        return EINVAL;
    *info = {};
    info->port = ifUnit;
    return 0;
}

/* ---- Journal -------------------------------------------------------------------------- */

void journalAcl(const char *call, const tSlotIndex *slot, const tZynMemoryAcl &acl, int32_t result)
{
    if (!journalBegin(call))
        return;
    journalSlot("slot", slot);
    journalNumber("acl", acl.acl);
    journalNumber("action", acl.action);
    journalNumber("cir", acl.cir);
    journalNumber("cbs", acl.cbs);
    journalNumber("ebs", acl.ebs);
    journalEnd(result);
}

void journalFunc(const tHwApiFunc *func)
{
    if (func == nullptr) {
        journalNull("func");
        return;
    }
    journalObject("func");
    journalId("hwCmd", func->hwCmd);
    journalNumber("action", func->action);
    journalNumber("res", func->res);
    journalNumber("argLen", func->argLen);
    journalNumber("flag", func->flag);
    journalObjectEnd();
}

void journalPlace(const tPhyIfInfo *info)
{
    if (info == nullptr) {
        journalNull("info");
        return;
    }
    journalObject("info");
    journalNumber("unit", info->unit);
    journalNumber("slot", info->slot);
    journalNumber("port", info->port);
    journalNumber("channel", info->channel);
    journalNumber("virtualnum", info->virtualnum);
    journalNumber("endType", info->endType);
    journalNumber("card", info->card);
    journalObjectEnd();
}

bool isLevelName(uint32_t scalarId)
{
    for (uint32_t id : syncSlotLevelNames)
        if (id == scalarId)
            return true;
    return false;
}

/** The members of a synchronisation. What a reset carries means nothing and is not looked at. */
void journalSync(uint32_t scalarId, const void *value, uint32_t flag, bool octets, bool reset)
{
    journalNumber("scalarId", scalarId);
    if (value == nullptr || reset) {
        journalNull("value");
    } else if (octets) {
        journalOctets("value", static_cast<const octetstring *>(value));
    } else {
        uint32_t number;
        memcpy(&number, value, sizeof number);
        journalNumber("value", number);
    }
    journalNumber("flag", flag);
}

} // namespace

/* ---- The contract: act, then tell the journal ------------------------------------------ */

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    int32_t result = slotSet(slot, cmd, arg, flag);
    if (journalBegin("zynHwSlotSet")) {
        journalSlot("slot", slot);
        journalId("cmd", cmd);
        journalNumber("flag", flag);
        void *entry = isSlotCommand(cmd) ? arg : nullptr;
        journalCar("entry", static_cast<const tHwCpuDefendPktCarEntry *>(entry));
        journalEnd(result);
    }
    return result;
}

int32_t zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func)
{
    int32_t result = systemSet(index, cmd, func);
    if (journalBegin("zynScalarSetApi")) {
        journalNull("slot");
        journalNumber("index", index);
        journalNumber("cmd", cmd);
        journalFunc(func);
        void *entry = func != nullptr && isSystemCommand(func->hwCmd) ? func->arg : nullptr;
        journalCar("entry", static_cast<const tHwCpuDefendPktCarEntry *>(entry));
        journalEnd(result);
    }
    return result;
}

int32_t zynHwScalarGet(uint32_t index, uint32_t id, void * /*value*/)
{
    int32_t result = roleGet(index, id);
    if (journalBegin("zynHwScalarGet")) {
        journalNumber("index", index);
        journalId("id", id);
        journalEnd(result);
    }
    return result;
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    int32_t result = cpuGet(selector, id, value);
    if (journalBegin("zynHwCpuGet")) {
        journalNumber("selector", selector);
        journalId("id", id);
        if (result == 0)
            journalNumber("value", *value);
        else
            journalNull("value");
        journalEnd(result);
    }
    return result;
}

int32_t zynHwScalarSync(uint32_t index, uint32_t scalarId, const void *value, uint32_t flag)
{
    int32_t result = 0; // there is no standby card
    if (journalBegin("zynHwScalarSync")) {
        journalNumber("index", index);
        journalSync(scalarId, value, flag, (flag & ZYN_SYNC_OCTETS) != 0,
                    scalarId == syncGlobalReset);
        journalEnd(result);
    }
    return result;
}

int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag)
{
    int32_t result = isSlot(slot) ? 0 : EINVAL;
    if (journalBegin("zynHwSlotSync")) {
        journalSlot("slot", slot);
        journalSync(scalarId, value, flag, (flag & ZYN_SYNC_OCTETS) != 0 || isLevelName(scalarId),
                    scalarId == syncSlotReset);
        journalEnd(result);
    }
    return result;
}

int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    tZynMemoryAcl wanted = {acl, action, cir, cbs, ebs};
    int32_t result = aclAdd(slot, wanted);
    journalAcl("acl_cpudefend_add", slot, wanted, result);
    return result;
}

int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    tZynMemoryAcl wanted = {acl, action, cir, cbs, ebs};
    int32_t result = aclDel(slot, wanted);
    journalAcl("acl_cpudefend_del", slot, wanted, result);
    return result;
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    int32_t result = indexTrans(ifUnit, mode, info);
    if (journalBegin("sysIndexTrans")) {
        journalNumber("ifUnit", ifUnit);
        journalNumber("mode", mode);
        journalPlace(result == 0 ? info : nullptr);
        journalEnd(result);
    }
    return result;
}

/* ---- The look inside ------------------------------------------------------------------ */

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

void zynMemoryRoleSet(int32_t slave)
{
    isSlave = slave != 0;
}

void zynMemoryCpuStatSet(const char *path)
{
    statPath = path != nullptr ? path : kernelStat;
}

void zynMemoryReset(void)
{
    freeAll(&cars);
    freeAll(&acls);
    zynMemoryRoleSet(0);
    zynMemoryCpuStatSet(nullptr);
    memset(meters, 0, sizeof meters);
}
