/**
 * Hardware programming: a policy's ACLs, rules and CAR entries, into a slot or the system, and
 * what they have counted there.
 */
#include "cpuDefend_hw.h"

#include <errno.h>

using namespace cpudefend;

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

tHwCpuDefendPktCarEntry recordOf(const tHwSetting &car)
{
    tHwCpuDefendPktCarEntry record{};
    record.pktType = car.number;
    record.cir = car.cir;
    record.cbs = car.cbs;
    record.pps = car.pps;
    record.queue = car.queue;
    record.priority = car.priority;
    record.op = car.op;
    record.res = car.bit;
    return record;
}

int32_t setSystem(uint32_t cmd, tHwCpuDefendPktCarEntry *record)
{
    tHwApiFunc func{};
    func.hwCmd = cmd;
    func.arg = record;
    return zynScalarSetApi(0, 0, &func);
}

int32_t call(const tHwCalls &calls, tHwItem &item)
{
    gCpuDefend.hwCallNum++;
    const tHwSetting &setting = item.setting;
    tSlotIndex *slot = item.target.slot();
    if (setting.isAcl) // the burst is given as the excess burst too
        return calls.acl(slot, static_cast<uint16_t>(setting.number), setting.op, setting.cir,
                         setting.cbs, setting.cbs);
    tHwCpuDefendPktCarEntry record = recordOf(setting);
    return slot ? zynHwSlotSet(slot, calls.slotCmd, &record, ZYN_FLAG_LOCAL)
                : setSystem(calls.sysCmd, &record);
}

/** Whether the hardware can't tell one from the other. */
bool areAlike(const tHwItem &a, const tHwItem &b)
{
    return a.setting == b.setting && a.target == b.target;
}

/** The newest item like @a item that the hardware holds, or null. */
tHwItem *newest(const tHwItem &item)
{
    for (tHwItem *held = gCpuDefend.held.end(); held != gCpuDefend.held.begin();) {
        held--;
        if (!held->isRefused && areAlike(*held, item))
            return held;
    }
    return nullptr;
}

void note(const tHwItem &item)
{
    if (!gCpuDefend.held.append(item))
        CPUDEFEND_DEBUG("[cpuDefend] no memory to note what is programmed!\r\n");
}

/** Add what a newest item has counted to the CAR entry that it stands for. */
void takeCounts(tHwItem *held)
{
    if (!held || !held->car)
        return;
    tHwCpuDefendPktCarEntry record = recordOf(held->setting);
    if (zynHwCarCount(held->target.slot(), &record) != 0)
        return;
    held->car->pktPassNum += record.PassPkt.low; // both count modulo 2^32
    held->car->pktDropNum += record.DropPkt.low;
}

/**
 * The hardware gave back its newest one of what it can't tell apart. When that stood for another
 * entry than the one whose removal was asked for, the one that is left stands for it now.
 */
void forget(tHwItem *gone, const tCpuDefendCarPktEntry *wanted)
{
    for (tHwItem *held = gone; gone->car != wanted && held-- != gCpuDefend.held.begin();)
        if (held->car == wanted && areAlike(*held, *gone)) {
            held->car = gone->car;
            break;
        }
    gCpuDefend.held.remove(gone);
}

/** Visit what @a policy stands for at a place. @return the last visit's result, 0 without one */
int32_t forEachItem(const tSlotIndex *pSlotIndex, tCpuDefendPolicyEntry *policy,
                    int32_t (*visit)(tHwItem))
{
    int32_t result = 0;
    const auto keep = [&result, visit](const tHwItem &item) { result = visit(item); };
    cpuDefendHwPass(cpuDefendHwTarget(pSlotIndex), keep).run(policy);
    return result;
}

/** Add an item that is part of what a policy was bound for. */
int32_t ask(tHwItem item)
{
    const int32_t result = cpuDefendHwItemAdd(item);
    if (result == 0)
        gCpuDefend.asked.append(item); // without memory, nobody hears of it if it is dropped
    return result;
}

/** What was dropped, as it is noted. */
tHwItem itemOf(const tHwDropped &dropped)
{
    const tHwTarget target = cpuDefendHwTarget(dropped.isSlot ? &dropped.slot : nullptr);
    const tHwCpuDefendPktCarEntry &car = dropped.car;
    if (dropped.isAcl)
        return {target,
                {true, static_cast<uint8_t>(dropped.action), 0, 0, 0, dropped.acl, dropped.cir,
                 dropped.cbs, 0},
                nullptr};
    return {
        target,
        {false, car.op, car.queue, car.priority, car.res, car.pktType, car.cir, car.cbs, car.pps},
        nullptr};
}

bool wasAsked(const tHwItem &item)
{
    for (const tHwItem &each : gCpuDefend.asked)
        if (areAlike(each, item))
            return true;
    return false;
}

/** @return why something is not in force that was asked for; 0 when all that was is */
int32_t noteDropped()
{
    int32_t result = 0;
    tHwDropped dropped;
    for (uint32_t n = 0; zynHwDropped(n, &dropped) == 0; n++) {
        const tHwItem item = itemOf(dropped);
        if (tHwItem *held = newest(item))
            held->isRefused = true;
        if (result == 0 && wasAsked(item))
            result = dropped.result;
    }
    return result;
}

} // namespace

int32_t cpudefend::cpuDefendHwItemAdd(tHwItem item)
{
    if (item.car)
        takeCounts(newest(item)); // it can't be asked for them while an equal one covers it
    const int32_t result = call(hwAdd, item);
    if (result == 0)
        note(item);
    return result;
}

void cpudefend::cpuDefendHwItemWant(tHwItem item)
{
    item.isRefused = cpuDefendHwItemAdd(item) != 0;
    if (item.isRefused)
        note(item);
}

int32_t cpudefend::cpuDefendHwItemDel(tHwItem item)
{
    tHwItem *held = newest(item);
    takeCounts(held);
    const int32_t result = call(hwDel, item);
    if (held && (result == 0 || result == ENOENT))
        forget(held, item.car);
    return result;
}

int32_t cpuDefendHwChangeEnd()
{
    const int32_t failure = zynHwChangeEnd();
    const int32_t dropped = noteDropped();
    gCpuDefend.asked.clear();
    return failure != 0 ? failure : dropped;
}

bool cpuDefendIsSlave()
{
    return zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr) == 0;
}

int32_t cpuDefendHwAdd(tSlotIndex *pSlotIndex, tCpuDefendPolicyEntry *pPolicy)
{
    if (cpuDefendIsSlave())
        return 0;
    const int32_t result = forEachItem(pSlotIndex, pPolicy, ask);
    pPolicy->refCount++; // whatever the calls returned
    gCpuDefend.hwChangeNum++;
    gCpuDefend.retryDue = 1;
    return result;
}

int32_t cpuDefendHwDel(tSlotIndex *pSlotIndex, const uint8_t *name, uint32_t nameLen)
{
    if (cpuDefendIsSlave())
        return 0;
    tCpuDefendPolicyEntry *pPolicy = cpuDefendPolicyEntryGet(name, nameLen);
    if (!pPolicy)
        return CPUDEFEND_ENONAME;
    const int32_t result = forEachItem(pSlotIndex, pPolicy, cpuDefendHwItemDel);
    pPolicy->refCount--; // no floor: additions and removals are paired by the callers, or not
    gCpuDefend.hwChangeNum++;
    gCpuDefend.retryDue = 1;
    return result;
}

void cpuDefendHwCarCount(const tCpuDefendCarPktEntry *pCarPkt)
{
    for (tHwItem &held : gCpuDefend.held)
        if (held.car == pCarPkt && newest(held) == &held)
            takeCounts(&held);
}
