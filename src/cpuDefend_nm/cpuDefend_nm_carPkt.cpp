/**
 * Management of CAR entries.
 *
 * Nothing here programs hardware, and the entries of a bound policy cannot be changed at all.
 */
#include "cpuDefend_child.h"
#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

#define NUMBER(id, field, checks) NM_ATTR_NUMBER(id, tCpuDefendCarPktEntry, field, checks)

constexpr tNmAttr attrs[] = {
    NUMBER(CPUDEFEND_CARPKT_CIR, cir, 0),
    NUMBER(CPUDEFEND_CARPKT_CBS, cbs, 0),
    NUMBER(CPUDEFEND_CARPKT_PPS, pps, 0),
    NUMBER(CPUDEFEND_CARPKT_MODE, mode, 0),
    NUMBER(CPUDEFEND_CARPKT_QUEUE, queue, 0),
    NUMBER(CPUDEFEND_CARPKT_PRIORITY, priority, 0),
    NUMBER(CPUDEFEND_CARPKT_DENY, deny, 0),
    NUMBER(CPUDEFEND_CARPKT_PASSNUM, pktPassNum, NM_READ_ONLY),
    NUMBER(CPUDEFEND_CARPKT_DROPNUM, pktDropNum, NM_READ_ONLY),
    NUMBER(CPUDEFEND_CARPKT_TOTALPKTBPS, totalPktBps, 0),
    NUMBER(CPUDEFEND_CARPKT_TOTALPKTPPS, totalPktPps, 0),
};
static_assert(nmAttrsInOrder(attrs));

#undef NUMBER

constexpr uint8_t MODE_BITS = ZYN_HW_CAR_CIR | ZYN_HW_CAR_CBS | ZYN_HW_CAR_PPS;

tCpuDefendCarPktEntry *find(const tcpuDefendCarPktIdx *idx)
{
    return cpuDefendCarPktEntryGet(idx->policyName, idx->policyNameLen, idx->pktType);
}

uint8_t withBits(uint8_t mask, uint8_t bits, bool on)
{
    return static_cast<uint8_t>(on ? mask | bits : mask & ~bits);
}

/** The mask after a change of mode. Modes add up; only the default mode clears them. */
uint8_t withMode(uint8_t mask, uint32_t mode)
{
    switch (mode) {
    case CPUDEFEND_CARPKTMODE_DEFAULT: return withBits(mask, MODE_BITS, false);
    case CPUDEFEND_CARPKTMODE_PPS: return withBits(mask, ZYN_HW_CAR_PPS, true);
    case CPUDEFEND_CARPKTMODE_CIR: return withBits(mask, ZYN_HW_CAR_CIR | ZYN_HW_CAR_CBS, true);
    default: return mask;
    }
}

/** Keep the mask of configured settings in step with a change. */
void updateBit(tCpuDefendCarPktEntry *entry, uint32_t cmd)
{
    switch (cmd) {
    case CPUDEFEND_CARPKT_MODE: entry->bit = withMode(entry->bit, entry->mode); break;
    case CPUDEFEND_CARPKT_QUEUE:
        entry->bit =
            withBits(entry->bit, ZYN_HW_CAR_QUEUE, entry->queue != CPUDEFEND_DEFAULT_QUEUE);
        break;
    case CPUDEFEND_CARPKT_PRIORITY:
        entry->bit = withBits(entry->bit, ZYN_HW_CAR_PRIORITY,
                              entry->priority != CPUDEFEND_DEFAULT_PRIORITY);
        break;
    default: break;
    }
}

int32_t answerWalk(const tCpuDefendCarPktEntry *entry, tcpuDefendCarPktIdx *idx)
{
    if (!entry)
        return CPUDEFEND_FAIL;
    cpuDefendChildName(entry, idx);
    idx->pktType = entry->pktType;
    return CPUDEFEND_OK;
}

} // namespace

tNmKind cpuDefendCarPktAttrKind(uint32_t cmd)
{
    return nmAttrKind(attrs, cmd);
}

int32_t cpuDefendCarPktGetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var)
{
    NmLock lock;
    const tCpuDefendCarPktEntry *entry = find(carPktIdx);
    if (!entry)
        return CPUDEFEND_ENOENTRY;
    if (cmd == CPUDEFEND_CARPKT_PASSNUM || cmd == CPUDEFEND_CARPKT_DROPNUM)
        cpuDefendHwCarCount(entry);
    if (const tNmAttr *attr = nmAttrToGet(attrs, cmd))
        nmAttrGet(*attr, entry, var);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendCarPktSetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var,
                               uint32_t flag)
{
    NmLock lock;
    tCpuDefendCarPktEntry *entry = find(carPktIdx);
    if (!entry)
        return CPUDEFEND_ENOENTRY;
    if (nmPolicyIsBound(carPktIdx->policyName, carPktIdx->policyNameLen))
        return CPUDEFEND_EBOUND;
    const tNmAttr *attr = nmAttrToSet(attrs, cmd);
    if (!attr)
        return CPUDEFEND_FAIL;
    const uint32_t value = nmNumber(var);
    if (nmAttrNumber(*attr, entry) == value)
        return CPUDEFEND_OK;
    const int32_t result = zynHwCarPktSync(carPktIdx, ZYN_SYNC_CARPKT + cmd, var, flag);
    if (result != 0)
        return result;
    nmAttrStoreNumber(*attr, entry, value);
    updateBit(entry, cmd);
    return CPUDEFEND_OK;
}

int32_t cpuDefendCarPktSetApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var)
{
    return _cpuDefendCarPktSetApi(carPktIdx, cmd, var, ZYN_FLAG_LOCAL);
}

int32_t cpuDefendCarPktSyncApi(tcpuDefendCarPktIdx *carPktIdx, uint32_t cmd, void *var)
{
    return _cpuDefendCarPktSetApi(carPktIdx, cmd, var, ZYN_FLAG_PEER);
}

int32_t cpuDefendCarPktGetFirst(tcpuDefendCarPktIdx *carPktIdx)
{
    NmLock lock;
    return answerWalk(cpuDefendChildFirst<tCpuDefendCarPktEntry>(&gCpuDefend.carPktList),
                      carPktIdx);
}

int32_t cpuDefendCarPktGetNext(tcpuDefendCarPktIdx *carPktIdx, tcpuDefendCarPktIdx *nextCarPktIdx)
{
    NmLock lock;
    return answerWalk(cpuDefendChildFindAfter<tCpuDefendCarPktEntry>(
                          &gCpuDefend.carPktList, carPktIdx->policyName, carPktIdx->policyNameLen,
                          carPktIdx->pktType),
                      nextCarPktIdx);
}
