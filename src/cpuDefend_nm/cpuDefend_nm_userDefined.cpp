/**
 * Management of user-defined rules.
 *
 * Nothing here programs hardware, and no rule of a bound policy can be made, changed or removed.
 */
#include "cpuDefend_child.h"
#include "cpuDefend_nm_attr.h"

using namespace cpudefend;

namespace
{

#define NUMBER(id, field) NM_ATTR_NUMBER(id, tCpuDefendUserDefinedEntry, field, 0)

constexpr tNmAttr attrs[] = {
    NUMBER(CPUDEFEND_USERDEFINED_ENTRYSTATUS, status),
    NUMBER(CPUDEFEND_USERDEFINED_DENY, deny),
    NUMBER(CPUDEFEND_USERDEFINED_IP4ACL, ip4Acl),
    NUMBER(CPUDEFEND_USERDEFINED_IP6ACL, ip6Acl),
    NUMBER(CPUDEFEND_USERDEFINED_CIR, cir),
    NUMBER(CPUDEFEND_USERDEFINEDT_CBS, cbs),
};
static_assert(nmAttrsInOrder(attrs));

#undef NUMBER

tCpuDefendUserDefinedEntry *find(const tcpuDefendUserDefinedIdx *idx)
{
    return cpuDefendUserDefinedEntryGet(idx->policyName, idx->policyNameLen, idx->index);
}

int32_t create(const tcpuDefendUserDefinedIdx *idx)
{
    int32_t result = CPUDEFEND_OK;
    cpuDefendUserDefinedEntryAdd(idx->policyName, idx->policyNameLen, idx->index, &result);
    return result;
}

int32_t setRowStatus(const tcpuDefendUserDefinedIdx *idx, tCpuDefendUserDefinedEntry *entry,
                     uint32_t status)
{
    if (!entry)
        return status == CPUDEFEND_ROW_CREATE ? create(idx) : CPUDEFEND_OK;
    if (status == CPUDEFEND_ROW_DESTROY)
        return cpuDefendUserDefinedEntryDel(entry);
    if (status == CPUDEFEND_ROW_ACTIVATE)
        entry->status = CPUDEFEND_STATUS_ACTIVE;
    return CPUDEFEND_OK;
}

int32_t answerWalk(const tCpuDefendUserDefinedEntry *entry, tcpuDefendUserDefinedIdx *idx)
{
    if (!entry)
        return CPUDEFEND_FAIL;
    cpuDefendChildName(entry, idx);
    idx->index = entry->index;
    return CPUDEFEND_OK;
}

} // namespace

tNmKind cpuDefendUserDefinedAttrKind(uint32_t cmd)
{
    return nmAttrKind(attrs, cmd);
}

int32_t cpuDefendUserDefinedGetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                   void *var)
{
    NmLock lock;
    const tCpuDefendUserDefinedEntry *entry = find(userDefinedIdx);
    if (!entry)
        return CPUDEFEND_ENOENTRY;
    if (const tNmAttr *attr = nmAttrToGet(attrs, cmd))
        nmAttrGet(*attr, entry, var);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendUserDefinedSetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                    void *var, uint32_t flag)
{
    const bool isStatus = cmd == CPUDEFEND_USERDEFINED_ENTRYSTATUS;
    NmLock lock;
    tCpuDefendUserDefinedEntry *entry = find(userDefinedIdx);
    if (!entry && !isStatus)
        return CPUDEFEND_ENOENTRY;
    if (nmPolicyIsBound(userDefinedIdx->policyName, userDefinedIdx->policyNameLen))
        return CPUDEFEND_EBOUND;
    const tNmAttr *attr = nmAttrToSet(attrs, cmd);
    if (!attr)
        return CPUDEFEND_FAIL;
    const uint32_t value = nmNumber(var);
    if (!isStatus && nmAttrNumber(*attr, entry) == value)
        return CPUDEFEND_OK;
    const int32_t result =
        zynHwUserDefinedSync(userDefinedIdx, ZYN_SYNC_USERDEFINED + cmd, var, flag);
    if (result != 0)
        return result;
    if (isStatus)
        return setRowStatus(userDefinedIdx, entry, value);
    nmAttrStoreNumber(*attr, entry, value);
    return CPUDEFEND_OK;
}

int32_t cpuDefendUserDefinedSetApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                   void *var)
{
    return _cpuDefendUserDefinedSetApi(userDefinedIdx, cmd, var, ZYN_FLAG_LOCAL);
}

int32_t cpuDefendUserDefinedSyncApi(tcpuDefendUserDefinedIdx *userDefinedIdx, uint32_t cmd,
                                    void *var)
{
    return _cpuDefendUserDefinedSetApi(userDefinedIdx, cmd, var, ZYN_FLAG_PEER);
}

int32_t cpuDefendUserDefinedGetFirst(tcpuDefendUserDefinedIdx *userDefinedIdx)
{
    NmLock lock;
    return answerWalk(cpuDefendChildFirst<tCpuDefendUserDefinedEntry>(&gCpuDefend.userDefinedList),
                      userDefinedIdx);
}

int32_t cpuDefendUserDefinedGetNext(tcpuDefendUserDefinedIdx *userDefinedIdx,
                                    tcpuDefendUserDefinedIdx *nextUserDefinedIdx)
{
    NmLock lock;
    return answerWalk(cpuDefendChildFindAfter<tCpuDefendUserDefinedEntry>(
                          &gCpuDefend.userDefinedList, userDefinedIdx->policyName,
                          userDefinedIdx->policyNameLen, userDefinedIdx->index),
                      nextUserDefinedIdx);
}
