/**
 * Management of slots. Their records are made elsewhere; here they are found, bound, switched and
 * walked.
 */
#include <string.h>

#include "cpuDefend/cpuDefend_change.h"
#include "cpuDefend_level.h"
#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

struct tChange;

struct tSlotAttr : tNmAttr {
    uint8_t level; /**< 1 to 3; 0 for what is of none */
    int32_t (*set)(const tChange &);
};

/** A set of one attribute of one slot. */
struct tChange {
    tCpuDefendSlotEntry *entry;
    const tcpuDefendSlotIdx *idx;
    const tSlotAttr &attr;
    octetstring *value;
    uint32_t flag;
    Change *programming; /**< what is programmed for it */
};

tCpuDefendSlotEntry *find(const tcpuDefendSlotIdx *idx)
{
    return cpuDefendSlotEntryGet(idx->sysId, idx->slotId);
}

/** What the platform calls an attribute. */
constexpr uint32_t syncId(uint32_t attrId)
{
    return ZYN_SYNC_SLOT + attrId;
}

int32_t sync(const tChange &change, uint32_t extraFlag = 0)
{
    const tSlotIndex slot{change.idx->sysId, change.idx->slotId, 0};
    return zynHwSlotSync(&slot, syncId(change.attr.id), change.value, change.flag | extraFlag);
}

/** A slot's fixed policy. */
struct tBinding {
    tCpuDefendPolicyEntry *policy;
    uint8_t name[CPUDEFEND_NAME_MAXLEN];
    uint8_t nameLen;
};

tBinding bindingOf(const tCpuDefendSlotEntry *entry)
{
    tBinding binding{entry->policyEntry, {}, entry->policyNameLen};
    memcpy(binding.name, entry->policyName, sizeof binding.name);
    return binding;
}

void bind(tCpuDefendSlotEntry *entry, const tBinding &binding)
{
    entry->policyEntry = binding.policy;
    entry->policyNameLen = binding.nameLen;
    memcpy(entry->policyName, binding.name, sizeof entry->policyName);
}

/** Take the fixed policy out of the hardware; it stays bound when that fails. */
int32_t unbind(tCpuDefendSlotEntry *entry, tSlotIndex *index)
{
    if (entry->policyNameLen == 0)
        return 0;
    const int32_t result = cpuDefendHwDel(index, entry->policyName, entry->policyNameLen);
    if (result == 0)
        bind(entry, tBinding{});
    return result;
}

/** Program another fixed policy, or none. What can't be programmed is not bound. */
int32_t replace(tCpuDefendSlotEntry *entry, tCpuDefendPolicyEntry *policy, const octetstring *name)
{
    tSlotIndex index = cpuDefendSlotIndex(entry);
    int32_t result = unbind(entry, &index);
    if (!policy)
        return result;
    result = cpuDefendHwAdd(&index, policy);
    if (result != 0)
        return result;
    entry->policyEntry = policy;
    nmStoreName(entry->policyName, &entry->policyNameLen, name);
    return CPUDEFEND_OK;
}

int32_t setPolicy(const tChange &change)
{
    tCpuDefendSlotEntry *entry = change.entry;
    tCpuDefendPolicyEntry *policy;
    if (nmIsName(change.value, entry->policyName, entry->policyNameLen))
        return CPUDEFEND_OK;
    int32_t result = nmFindPolicy(change.value, &policy);
    if (result == CPUDEFEND_OK)
        result = sync(change, ZYN_SYNC_OCTETS);
    if (result != CPUDEFEND_OK)
        return result;
    const tBinding before = bindingOf(entry);
    result = replace(entry, policy, change.value);
    const int32_t ended = change.programming->end(result);
    if (ended != result) { // it only turned out now, and is as though a call had failed
        Change withoutIt;
        bind(entry, policy ? tBinding{} : before);
    }
    return ended;
}

int32_t resetSrcTrace(const tChange &change)
{
    const tCpuDefendSlotEntry *slot = change.entry;
    const int32_t result = sync(change);
    if (result != 0)
        return result;
    if (slot->policyEntry && slot->policyEntry->srcTraceEnable == CPUDEFEND_ENABLE)
        nmDeleteSrcTraces([slot](const tCpuDefendSrcTraceEntry *trace) {
            return trace->sysId == slot->sysId && trace->slotId == slot->slotId;
        });
    return CPUDEFEND_OK;
}

/** Into CPU-rate mode also unbinds the system's policy; the slot's own stays programmed. */
int32_t setPolicyMode(const tChange &change)
{
    tCpuDefendSlotEntry *entry = change.entry;
    const uint32_t mode = nmNumber(change.value);
    if (mode == entry->policyMode)
        return CPUDEFEND_OK;
    const int32_t result = sync(change);
    if (result != 0)
        return result;
    entry->policyMode = static_cast<uint8_t>(mode);
    if (entry->policyMode != CPUDEFEND_CPURAT_CONTROL)
        return CPUDEFEND_OK;
    entry->selectedPosition = 0;
    unsigned char none = 0;
    octetstring empty{&none, 0};
    return cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_POLICY, &empty);
}

int32_t setThreshold(const tChange &change)
{
    uint8_t &threshold = change.entry->cpuRatControl[change.attr.level - 1].cpuRat;
    if (nmNumber(change.value) == threshold)
        return CPUDEFEND_OK;
    const int32_t result = sync(change);
    if (result == 0)
        threshold = static_cast<uint8_t>(nmNumber(change.value));
    return result;
}

/** The level's policy leaves the hardware if it is in force; the next samples program the new. */
int32_t setLevelName(const tChange &change)
{
    const uint32_t position = change.attr.level;
    tCpuDefendSlotEntry *entry = change.entry;
    tCpuDefendCpuRatControl &level = entry->cpuRatControl[position - 1];
    tCpuDefendPolicyEntry *policy;
    if (nmIsName(change.value, level.policyName, level.policyNameLen))
        return CPUDEFEND_OK;
    int32_t result = nmFindPolicy(change.value, &policy);
    if (result == CPUDEFEND_OK)
        result = sync(change);
    if (result != CPUDEFEND_OK)
        return result;
    if (entry->selectedPosition == position) {
        tSlotIndex index = cpuDefendSlotIndex(entry);
        result = cpuDefendLevelRemove(&index, entry->cpuRatControl, position);
        entry->selectedPosition = 0;
    }
    nmStoreName(level.policyName, &level.policyNameLen, change.value);
    return result;
}

#define NUMBER(id, field, level, set)                                                              \
    {                                                                                              \
        NM_ATTR_NUMBER(id, tCpuDefendSlotEntry, field, 0), level, set                              \
    }
#define OCTETS(id, field, level, set)                                                              \
    {                                                                                              \
        NM_ATTR_OCTETS(id, tCpuDefendSlotEntry, field, field##Len, 0), level, set                  \
    }

constexpr tSlotAttr attrs[] = {
    OCTETS(CPUDEFEND_SLOT_POLICY, policyName, 0, setPolicy),
    {NM_ATTR_NO_FIELD(CPUDEFEND_SLOT_RESETSRCTRACE, NM_ANY, NM_SET_ONLY), 0, resetSrcTrace},
    NUMBER(CPUDEFEND_SLOT_POLICYMODE, policyMode, 0, setPolicyMode),
    NUMBER(CPUDEFEND_SLOT_L1CPURAT, cpuRatControl[0].cpuRat, 1, setThreshold),
    OCTETS(CPUDEFEND_SLOT_L1POLICYNAME, cpuRatControl[0].policyName, 1, setLevelName),
    NUMBER(CPUDEFEND_SLOT_L2CPURAT, cpuRatControl[1].cpuRat, 2, setThreshold),
    OCTETS(CPUDEFEND_SLOT_L2POLICYNAME, cpuRatControl[1].policyName, 2, setLevelName),
    NUMBER(CPUDEFEND_SLOT_L3CPURAT, cpuRatControl[2].cpuRat, 3, setThreshold),
    OCTETS(CPUDEFEND_SLOT_L3POLICYNAME, cpuRatControl[2].policyName, 3, setLevelName),
};
static_assert(nmAttrsInOrder(attrs) && nmSettersMatch(attrs));

// Those that platforms know.
static_assert(syncId(CPUDEFEND_SLOT_RESETSRCTRACE) == ZYN_SYNC_SLOT_RESET);
static_assert(syncId(CPUDEFEND_SLOT_L1POLICYNAME) == ZYN_SYNC_SLOT_L1NAME);
static_assert(syncId(CPUDEFEND_SLOT_L2POLICYNAME) == ZYN_SYNC_SLOT_L2NAME);
static_assert(syncId(CPUDEFEND_SLOT_L3POLICYNAME) == ZYN_SYNC_SLOT_L3NAME);

#undef NUMBER
#undef OCTETS

bool isAfter(const tCpuDefendSlotEntry *entry, const tcpuDefendSlotIdx *idx)
{
    return entry->sysId > idx->sysId || (entry->sysId == idx->sysId && entry->slotId > idx->slotId);
}

int32_t answerWalk(const tCpuDefendSlotEntry *entry, tcpuDefendSlotIdx *idx)
{
    idx->sysId = entry->sysId;
    idx->slotId = entry->slotId;
    return CPUDEFEND_OK;
}

} // namespace

tNmKind cpuDefendSlotAttrKind(uint32_t attrId)
{
    return nmAttrKind(attrs, attrId);
}

int32_t cpuDefendSlotGetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value)
{
    NmLock lock;
    const tCpuDefendSlotEntry *entry = find(idx);
    if (!entry)
        return CPUDEFEND_ENOSLOT;
    if (const tSlotAttr *attr = nmAttrToGet(attrs, attrId))
        nmAttrGet(*attr, entry, value);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendSlotSetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value,
                             uint32_t flag)
{
    Change change;
    tCpuDefendSlotEntry *entry = find(idx);
    if (!entry)
        return CPUDEFEND_ENOSLOT;
    const tSlotAttr *attr = nmAttrToSet(attrs, attrId);
    return change.end(attr ? attr->set({entry, idx, *attr, value, flag, &change}) : CPUDEFEND_FAIL);
}

int32_t cpuDefendSlotSetApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value)
{
    return _cpuDefendSlotSetApi(idx, attrId, value, ZYN_FLAG_LOCAL);
}

int32_t cpuDefendSlotSyncApi(tcpuDefendSlotIdx *idx, uint32_t attrId, octetstring *value)
{
    return _cpuDefendSlotSetApi(idx, attrId, value, ZYN_FLAG_PEER);
}

int32_t cpuDefendSlotGetFirst(tcpuDefendSlotIdx *idx)
{
    NmLock lock;
    if (list_empty(&gCpuDefend.slotList))
        return CPUDEFEND_FAIL;
    return answerWalk(list_entry(gCpuDefend.slotList.next, tCpuDefendSlotEntry, node), idx);
}

/** The list is in the order of creation. A slot behind a greater one is never visited: front ends
 *  know that of docs/protocol.md, and name such a slot themselves. */
int32_t cpuDefendSlotGetNext(tcpuDefendSlotIdx *slotIdx, tcpuDefendSlotIdx *nextSlotId)
{
    NmLock lock;
    list_for_each_entry(tCpuDefendSlotEntry, entry, &gCpuDefend.slotList, node)
    {
        if (isAfter(entry, slotIdx))
            return answerWalk(entry, nextSlotId);
    }
    return CPUDEFEND_FAIL;
}
