/**
 * Management of the system-wide attributes.
 */
#include <stdio.h>

#include "cpuDefend/cpuDefend_change.h"
#include "cpuDefend_level.h"
#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

struct tChange;

struct tGlobalAttr : tNmAttr {
    uint8_t level; /**< 1 to 3; 0 for what is of none */
    int32_t (*set)(const tChange &);
};

/** A set of one attribute. */
struct tChange {
    const tGlobalAttr &attr;
    octetstring *value;
    uint32_t flag;
};

/** What the platform calls an attribute. */
constexpr uint32_t syncId(uint32_t attrId)
{
    return ZYN_SYNC_GLOBAL + attrId;
}

int32_t sync(const tChange &change, uint32_t extraFlag = 0)
{
    return zynHwScalarSync(0, syncId(change.attr.id), change.value, change.flag | extraFlag);
}

/**
 * Program something wherever it is in force for the system: on the system itself while there is
 * no slot, else on each slot that @a concerns. @return the last call's result, 0 without one
 */
template <typename Concerns, typename Program>
int32_t everywhere(Concerns concerns, Program program)
{
    if (list_empty(&gCpuDefend.slotList))
        return program(nullptr, nullptr);
    int32_t result = 0;
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        tSlotIndex index = cpuDefendSlotIndex(slot);
        if (concerns(slot))
            result = program(&index, slot);
    }
    return result;
}

/** Slots with a fixed policy of their own keep it. */
bool followsSystem(const tCpuDefendSlotEntry *slot)
{
    return slot->policyNameLen == 0;
}

/** Slots in CPU-rate mode have levels of their own. */
bool followsSystemLevel(const tCpuDefendSlotEntry *slot)
{
    return slot->policyMode == CPUDEFEND_FIXED;
}

/** Take the system-wide policy, if there is one, out of the hardware and forget its name. */
int32_t unbind()
{
    if (gCpuDefend.policyNameLen == 0)
        return 0;
    const int32_t result =
        everywhere(followsSystem, [](tSlotIndex *index, const tCpuDefendSlotEntry *) {
            return cpuDefendHwDel(index, gCpuDefend.policyName, gCpuDefend.policyNameLen);
        });
    nmStoreName(gCpuDefend.policyName, &gCpuDefend.policyNameLen, nullptr);
    return result;
}

int32_t setPolicy(const tChange &change)
{
    tCpuDefendPolicyEntry *policy;
    if (nmIsName(change.value, gCpuDefend.policyName, gCpuDefend.policyNameLen))
        return CPUDEFEND_OK;
    int32_t result = nmFindPolicy(change.value, &policy);
    if (result == CPUDEFEND_OK)
        result = sync(change, ZYN_SYNC_OCTETS);
    if (result != CPUDEFEND_OK)
        return result;
    result = unbind();
    if (!policy)
        return result;
    nmStoreName(gCpuDefend.policyName, &gCpuDefend.policyNameLen, change.value);
    return everywhere(followsSystem, [policy](tSlotIndex *index, const tCpuDefendSlotEntry *) {
        return cpuDefendHwAdd(index, policy);
    });
}

int32_t resetSrcTrace(const tChange &change)
{
    const int32_t result = sync(change);
    if (result == 0)
        nmDeleteSrcTraces([](const tCpuDefendSrcTraceEntry *) { return true; });
    return result;
}

int32_t setDebug(const tChange &change)
{
    gCpuDefend.cpuDefendDebug = static_cast<uint8_t>(nmNumber(change.value));
    return CPUDEFEND_OK;
}

/** Into CPU-rate mode unbinds the policy; the next sample selects a level. Back binds nothing. */
int32_t setPolicyMode(const tChange &change)
{
    const uint32_t mode = nmNumber(change.value);
    if (mode == gCpuDefend.policyMode)
        return CPUDEFEND_OK;
    const int32_t result = sync(change);
    if (result != 0)
        return result;
    gCpuDefend.policyMode = static_cast<uint8_t>(mode);
    if (gCpuDefend.policyMode != CPUDEFEND_CPURAT_CONTROL)
        return CPUDEFEND_OK;
    gCpuDefend.selectedPosition = 0;
    return unbind();
}

int32_t setThreshold(const tChange &change)
{
    const uint32_t value = nmNumber(change.value);
    uint8_t &threshold = gCpuDefend.cpuRatControl[change.attr.level - 1].cpuRat;
    if (value == threshold)
        return CPUDEFEND_OK;
    const int32_t result = sync(change);
    if (cpuDefendTest != 0)
        printf("cpuRat=%d,ret=%d,\r\n", static_cast<int>(value), result);
    if (result == 0)
        threshold = static_cast<uint8_t>(value);
    return result;
}

/** Take the policy of a level that is in force out of the hardware. */
int32_t removeLevel(uint32_t position)
{
    return everywhere(followsSystemLevel,
                      [position](tSlotIndex *index, const tCpuDefendSlotEntry *slot) {
                          // On slots the removal of L2 names L1's policy. The calls are part of
                          // the interface to the hardware; cpuDefendFollow mends what they leave.
                          const uint32_t named = slot && position == 2 ? 1 : position;
                          return cpuDefendLevelRemove(index, gCpuDefend.cpuRatControl, named);
                      });
}

int32_t setLevelName(const tChange &change)
{
    const uint32_t position = change.attr.level;
    tCpuDefendCpuRatControl &level = gCpuDefend.cpuRatControl[position - 1];
    tCpuDefendPolicyEntry *policy;
    if (nmIsName(change.value, level.policyName, level.policyNameLen))
        return CPUDEFEND_OK;
    int32_t result = nmFindPolicy(change.value, &policy);
    if (result == CPUDEFEND_OK)
        result = sync(change, ZYN_SYNC_OCTETS);
    if (result != CPUDEFEND_OK)
        return result;
    if (gCpuDefend.selectedPosition == position) {
        result = removeLevel(position);
        gCpuDefend.selectedPosition = 0;
    }
    nmStoreName(level.policyName, &level.policyNameLen, change.value);
    return result;
}

int32_t applySyncState(const tChange &change)
{
    cpuDefendSyncRcv(change.value->pBuf, static_cast<int32_t>(change.value->len));
    return CPUDEFEND_OK;
}

#define READ_ONLY(id, field)                                                                       \
    {                                                                                              \
        NM_ATTR_NUMBER(id, tCpuDefendSystem, field, NM_READ_ONLY), 0, nullptr                      \
    }
#define NUMBER(id, field, level, set)                                                              \
    {                                                                                              \
        NM_ATTR_NUMBER(id, tCpuDefendSystem, field, 0), level, set                                 \
    }
#define OCTETS(id, field, level, set)                                                              \
    {                                                                                              \
        NM_ATTR_OCTETS(id, tCpuDefendSystem, field, field##Len, 0), level, set                     \
    }

constexpr tGlobalAttr attrs[] = {
    OCTETS(CPUDEFEND_GLOBAL_POLICY, policyName, 0, setPolicy),
    READ_ONLY(CPUDEFEND_GLOBAL_MAXPOLICYNUM, maxPolicyNum),
    READ_ONLY(CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM, maxUserDefinedNum),
    READ_ONLY(CPUDEFEND_GLOBAL_MAXCARPKTNUM, maxCarPktNum),
    READ_ONLY(CPUDEFEND_GLOBAL_MAXSRCTRACENUM, maxSrcTraceNum),
    READ_ONLY(CPUDEFEND_GLOBAL_MAXSLOTNUM, maxSlotNum),
    READ_ONLY(CPUDEFEND_GLOBAL_USEPOLICYNUM, usePolicyNum),
    READ_ONLY(CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, useUserDefinedNum),
    READ_ONLY(CPUDEFEND_GLOBAL_USECARPKTNUM, useCarPktNum),
    READ_ONLY(CPUDEFEND_GLOBAL_USESRCTRACENUM, useSrcTraceNum),
    READ_ONLY(CPUDEFEND_GLOBAL_USESLOTNUM, useSlotNum),
    {NM_ATTR_NO_FIELD(CPUDEFEND_GLOBAL_RESETSRCTRACE, NM_ANY, NM_SET_ONLY), 0, resetSrcTrace},
    NUMBER(CPUDEFEND_GLOBAL_DEBUG, cpuDefendDebug, 0, setDebug),
    NUMBER(CPUDEFEND_GLOBAL_POLICYMODE, policyMode, 0, setPolicyMode),
    NUMBER(CPUDEFEND_GLOBAL_L1CPURAT, cpuRatControl[0].cpuRat, 1, setThreshold),
    OCTETS(CPUDEFEND_GLOBAL_L1POLICYNAME, cpuRatControl[0].policyName, 1, setLevelName),
    NUMBER(CPUDEFEND_GLOBAL_L2CPURAT, cpuRatControl[1].cpuRat, 2, setThreshold),
    OCTETS(CPUDEFEND_GLOBAL_L2POLICYNAME, cpuRatControl[1].policyName, 2, setLevelName),
    NUMBER(CPUDEFEND_GLOBAL_L3CPURAT, cpuRatControl[2].cpuRat, 3, setThreshold),
    OCTETS(CPUDEFEND_GLOBAL_L3POLICYNAME, cpuRatControl[2].policyName, 3, setLevelName),
    {NM_ATTR_NO_FIELD(CPUDEFEND_GLOBAL_SYNCSTATE, NM_OCTETS, NM_SET_ONLY), 0, applySyncState},
};
static_assert(nmAttrsInOrder(attrs) && nmSettersMatch(attrs));

// Those that platforms know.
static_assert(syncId(CPUDEFEND_GLOBAL_RESETSRCTRACE) == ZYN_SYNC_GLOBAL_RESET);
static_assert(syncId(CPUDEFEND_GLOBAL_SYNCSTATE) == ZYN_SYNC_SELECTED);

#undef READ_ONLY
#undef NUMBER
#undef OCTETS

} // namespace

tNmKind cpuDefendGlobalAttrKind(uint32_t attrId)
{
    return nmAttrKind(attrs, attrId);
}

int32_t cpuDefendGlobalGetApi(uint32_t, uint32_t attrId, octetstring *value)
{
    NmLock lock;
    const tGlobalAttr *attr = nmAttrToGet(attrs, attrId);
    if (!attr)
        return CPUDEFEND_FAIL;
    nmAttrGet(*attr, &gCpuDefend, value);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendGlobalSetApi(uint32_t, uint32_t attrId, octetstring *value, uint32_t flag)
{
    Change change;
    const tGlobalAttr *attr = nmAttrToSet(attrs, attrId);
    return change.end(attr ? attr->set({*attr, value, flag}) : CPUDEFEND_FAIL);
}

int32_t cpuDefendGlobalSetApi(uint32_t index, uint32_t attrId, octetstring *value)
{
    return _cpuDefendGlobalSetApi(index, attrId, value, ZYN_FLAG_LOCAL);
}

int32_t cpuDefendGlobalSyncApi(uint32_t index, uint32_t attrId, octetstring *value)
{
    return _cpuDefendGlobalSetApi(index, attrId, value, ZYN_FLAG_PEER);
}
