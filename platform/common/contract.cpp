/**
 * The contract with the daemon: refuse, ask the layer, tell the journal.
 */
#include "contract.h"

#include <errno.h>
#include <string.h>

#include "journal.h"
#include "layer.h"
#include "refusals.h"
#include "zynacl.h"

namespace
{

/* ---- Failures to order ---------------------------------------------------------------- */

struct tFailure {
    uint32_t wait; /**< calls until it is due, itself included; 0: a free place */
    int32_t code;
};

tFailure failures[16];

/** Count a call. @return 0, or the result that was ordered for it */
int32_t orderedResult()
{
    int32_t result = 0;
    for (tFailure &failure : failures) {
        if (failure.wait != 0 && --failure.wait == 0)
            result = failure.code;
    }
    return result;
}

const char *reason; // of the last call's failure, in words; null where its result says all

/** The result of a call: what was ordered, or else what acting gives. */
template <class Act> int32_t perform(Act act)
{
    reason = nullptr;
    int32_t result = orderedResult();
    return result != 0 ? result : act();
}

/** What the layer answered. */
int32_t answered(int32_t result)
{
    if (result != 0)
        reason = layer::reason();
    return result;
}

/* ---- Changes -------------------------------------------------------------------------- */

uint32_t changeDepth; // changes that have begun and not ended

/* ---- What is said --------------------------------------------------------------------- */

/** What was asked for an entry, and what came of it. */
void sayAddition(const refusals::tEntry &entry, int32_t result)
{
    if (result != 0) {
        refusals::refused(entry, result, reason);
        return;
    }
    refusals::taken(entry);
    if (changeDepth == 0)
        refusals::changeEnded();
}

void sayRemoval(const refusals::tEntry &entry, int32_t result)
{
    refusals::withdrawn(entry);
    if (result != 0 && result != ENOENT)
        refusals::removalRefused(entry, result, reason);
}

void say(const refusals::tEntry &entry, bool add, int32_t result)
{
    add ? sayAddition(entry, result) : sayRemoval(entry, result);
}

/* ---- What no hardware could do -------------------------------------------------------- */

/** System 0 with slot 0 is the system itself and can't be addressed as a slot. */
bool isSlot(const tSlotIndex *slot)
{
    return slot != nullptr && slot->type == 0 && (slot->sys != 0 || slot->slot != 0);
}

bool isTarget(const tSlotIndex *slot)
{
    return slot == nullptr || isSlot(slot);
}

bool isCar(const tHwCpuDefendPktCarEntry *entry)
{
    return entry != nullptr && entry->pktType < ZYN_PKT_MAX &&
           (entry->op == ZYN_HW_OP_PERMIT || entry->op == ZYN_HW_OP_DENY);
}

bool isAcl(const layer::tAclSetting &acl)
{
    if (acl.acl == 0)
        return false;
    if (acl.action == ZYN_HW_OP_DENY)
        return acl.cir == 0 && acl.cbs == 0 && acl.ebs == 0;
    return acl.action == ZYN_HW_OP_PERMIT;
}

bool isSlotCommand(uint32_t cmd)
{
    return cmd == HW_SLOT_CPUDEFENDPKTCARADD || cmd == HW_SLOT_CPUDEFENDPKTCARDEL;
}

bool isSystemCommand(uint32_t cmd)
{
    return cmd == HW_SYS_CPUDEFENDPKTCARADD || cmd == HW_SYS_CPUDEFENDPKTCARDEL;
}

int32_t carSet(const tSlotIndex *slot, bool add, const void *arg)
{
    auto *entry = static_cast<const tHwCpuDefendPktCarEntry *>(arg);
    if (!isCar(entry))
        return EINVAL;
    return answered(add ? layer::carAdd(slot, *entry) : layer::carDel(slot, *entry));
}

int32_t slotSet(const tSlotIndex *slot, uint32_t cmd, const void *arg, int32_t flag)
{
    if (!isSlot(slot) || !isSlotCommand(cmd) || flag != ZYN_FLAG_LOCAL)
        return EINVAL;
    return carSet(slot, cmd == HW_SLOT_CPUDEFENDPKTCARADD, arg);
}

int32_t systemSet(uint32_t index, uint32_t cmd, const tHwApiFunc *func)
{
    if (index != 0 || cmd != 0 || func == nullptr || !isSystemCommand(func->hwCmd))
        return EINVAL;
    if (func->action != 0 || func->res != 0 || func->argLen != 0 || func->flag != 0)
        return EINVAL;
    return carSet(nullptr, func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD, func->arg);
}

int32_t aclSet(const tSlotIndex *slot, bool add, const layer::tAclSetting &acl)
{
    if (!isTarget(slot) || !isAcl(acl))
        return EINVAL;
    return answered(add ? layer::aclAdd(slot, acl) : layer::aclDel(slot, acl));
}

int32_t carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry *entry,
                 layer::tCarCounts *counts)
{
    if (!isTarget(slot) || !isCar(entry))
        return EINVAL;
    return layer::carCount(slot, *entry, counts);
}

U_INT8 halves(uint64_t count)
{
    return {static_cast<uint32_t>(count >> 32), static_cast<uint32_t>(count)};
}

int32_t roleGet(uint32_t index, uint32_t id)
{
    if (index != 0)
        return EINVAL;
    switch (id) {
    case HW_SYS_SWRUNNINGROLEISMASTER: return layer::isSlave() ? 1 : 0;
    case HW_SYS_SWRUNNINGROLEISSLAVE: return layer::isSlave() ? 0 : 1;
    default: return EINVAL;
    }
}

int32_t cpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    if (selector > 1 || id != HW_CPU_USED || value == nullptr)
        return EINVAL;
    return layer::cpuUsage(selector, value);
}

int32_t indexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    if (mode != SYS_INDEX_TRANS_PHY || info == nullptr)
        return EINVAL;
    tPhyIfInfo found = {};
    int32_t result = layer::place(ifUnit, &found);
    if (result == 0)
        *info = found;
    return result;
}

/* ---- Members of a line ---------------------------------------------------------------- */

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

/** The members of what was counted; null without. */
void journalCounts(const layer::tCarCounts *counts)
{
    static const struct {
        const char *key;
        uint64_t layer::tCarCounts::*count;
    } members[] = {{"passPkt", &layer::tCarCounts::passPkt},
                   {"dropPkt", &layer::tCarCounts::dropPkt},
                   {"passOct", &layer::tCarCounts::passOct},
                   {"dropOct", &layer::tCarCounts::dropOct}};
    for (const auto &member : members) {
        if (counts != nullptr)
            journalCount(member.key, counts->*member.count);
        else
            journalNull(member.key);
    }
}

/** Whether the value of a slot's synchronisation is a name, although the flag does not say so. */
bool isLevelName(uint32_t scalarId)
{
    return scalarId == ZYN_SYNC_SLOT_L1NAME || scalarId == ZYN_SYNC_SLOT_L2NAME ||
           scalarId == ZYN_SYNC_SLOT_L3NAME;
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

/** The same of a CAR entry, if it is one. */
void sayCar(const tSlotIndex *slot, bool add, const void *arg, int32_t result)
{
    auto *entry = static_cast<const tHwCpuDefendPktCarEntry *>(arg);
    if (isCar(entry))
        say(refusals::entryOf(slot, *entry), add, result);
}

/** Either of the ACL calls. */
int32_t aclCall(const char *call, const tSlotIndex *slot, bool add, const layer::tAclSetting &acl)
{
    int32_t result = perform([&] { return aclSet(slot, add, acl); });
    if (isTarget(slot) && isAcl(acl))
        say(refusals::entryOf(slot, acl), add, result);
    if (journalBegin(call)) {
        journalSlot("slot", slot);
        journalNumber("acl", acl.acl);
        journalNumber("action", acl.action);
        journalNumber("cir", acl.cir);
        journalNumber("cbs", acl.cbs);
        journalNumber("ebs", acl.ebs);
        journalEnd(result);
    }
    return result;
}

} // namespace

/* ---- Scripting ------------------------------------------------------------------------ */

int32_t contractFailAt(uint32_t n, int32_t code)
{
    if (n == 0 || code == 0)
        return EINVAL;
    for (tFailure &failure : failures) {
        if (failure.wait == 0) {
            failure = {n, code};
            return 0;
        }
    }
    return ENOSPC;
}

void contractFailNone()
{
    memset(failures, 0, sizeof failures);
}

/* ---- The contract --------------------------------------------------------------------- */

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    int32_t result = perform([&] { return slotSet(slot, cmd, arg, flag); });
    if (isSlot(slot) && isSlotCommand(cmd))
        sayCar(slot, cmd == HW_SLOT_CPUDEFENDPKTCARADD, arg, result);
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
    int32_t result = perform([&] { return systemSet(index, cmd, func); });
    if (func != nullptr && isSystemCommand(func->hwCmd))
        sayCar(nullptr, func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD, func->arg, result);
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

void zynHwChangeBegin(void)
{
    if (changeDepth++ == 0)
        layer::changeBegin();
}

int32_t zynHwChangeEnd(void)
{
    if (changeDepth == 0 || --changeDepth != 0)
        return 0;
    const int32_t result = layer::changeEnd();
    for (uint32_t n = 0; const layer::tDropped *dropped = layer::dropped(n); n++)
        refusals::refused(refusals::entryOf(dropped->entry), dropped->entry.result,
                          dropped->reason);
    if (result == 0)
        refusals::changeEnded();
    return result;
}

int32_t zynHwDropped(uint32_t n, tHwDropped *dropped)
{
    const layer::tDropped *found = layer::dropped(n);
    if (found == nullptr)
        return ENOENT;
    *dropped = found->entry;
    return 0;
}

int32_t zynHwCarCount(const tSlotIndex *slot, tHwCpuDefendPktCarEntry *entry)
{
    layer::tCarCounts counts = {};
    int32_t result = perform([&] { return carCount(slot, entry, &counts); });
    if (result == 0) {
        entry->PassPkt = halves(counts.passPkt);
        entry->DropPkt = halves(counts.dropPkt);
        entry->PassOct = halves(counts.passOct);
        entry->DropOct = halves(counts.dropOct);
    }
    if (journalBegin("zynHwCarCount")) {
        journalSlot("slot", slot);
        journalCar("entry", entry);
        journalCounts(result == 0 ? &counts : nullptr);
        journalEnd(result);
    }
    return result;
}

int32_t zynHwScalarGet(uint32_t index, uint32_t id, void * /*value*/)
{
    int32_t result = perform([&] { return roleGet(index, id); });
    if (journalBegin("zynHwScalarGet")) {
        journalNumber("index", index);
        journalId("id", id);
        journalEnd(result);
    }
    return result;
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    int32_t result = perform([&] { return cpuGet(selector, id, value); });
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

// There is no standby card: synchronisation is accepted and goes nowhere but into the journal.

int32_t zynHwScalarSync(uint32_t index, uint32_t scalarId, const void *value, uint32_t flag)
{
    int32_t result = perform([] { return 0; });
    if (journalBegin("zynHwScalarSync")) {
        journalNumber("index", index);
        journalSync(scalarId, value, flag, (flag & ZYN_SYNC_OCTETS) != 0,
                    scalarId == ZYN_SYNC_GLOBAL_RESET);
        journalEnd(result);
    }
    return result;
}

int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag)
{
    int32_t result = perform([&] { return isSlot(slot) ? 0 : EINVAL; });
    if (journalBegin("zynHwSlotSync")) {
        journalSlot("slot", slot);
        journalSync(scalarId, value, flag, (flag & ZYN_SYNC_OCTETS) != 0 || isLevelName(scalarId),
                    scalarId == ZYN_SYNC_SLOT_RESET);
        journalEnd(result);
    }
    return result;
}

int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return aclCall("acl_cpudefend_add", slot, true, {acl, action, cir, cbs, ebs});
}

int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return aclCall("acl_cpudefend_del", slot, false, {acl, action, cir, cbs, ebs});
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    int32_t result = perform([&] { return indexTrans(ifUnit, mode, info); });
    if (journalBegin("sysIndexTrans")) {
        journalNumber("ifUnit", ifUnit);
        journalNumber("mode", mode);
        journalPlace(result == 0 ? info : nullptr);
        journalEnd(result);
    }
    return result;
}
