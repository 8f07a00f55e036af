/**
 * Management of the system-wide attributes.
 */
#include <string.h>

#include "cpuDefend_nm_attr.h"

namespace
{

constexpr uint32_t SYNC_BASE = 8000;

#define NUMBER(id, field) NM_ATTR_NUMBER(id, tCpuDefendSystem, field, 0)
#define OCTETS(id, field) NM_ATTR_OCTETS(id, tCpuDefendSystem, field, field##Len, 0)

constexpr tNmAttr attrs[] = {
    OCTETS(CPUDEFEND_GLOBAL_POLICY, policyName),
    NUMBER(CPUDEFEND_GLOBAL_MAXPOLICYNUM, maxPolicyNum),
    NUMBER(CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM, maxUserDefinedNum),
    NUMBER(CPUDEFEND_GLOBAL_MAXCARPKTNUM, maxCarPktNum),
    NUMBER(CPUDEFEND_GLOBAL_MAXSRCTRACENUM, maxSrcTraceNum),
    NUMBER(CPUDEFEND_GLOBAL_MAXSLOTNUM, maxSlotNum),
    NUMBER(CPUDEFEND_GLOBAL_USEPOLICYNUM, usePolicyNum),
    NUMBER(CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, useUserDefinedNum),
    NUMBER(CPUDEFEND_GLOBAL_USECARPKTNUM, useCarPktNum),
    NUMBER(CPUDEFEND_GLOBAL_USESRCTRACENUM, useSrcTraceNum),
    NUMBER(CPUDEFEND_GLOBAL_USESLOTNUM, useSlotNum),
    NM_ATTR_NO_FIELD(CPUDEFEND_GLOBAL_RESETSRCTRACE, NM_ANY, 0),
    NUMBER(CPUDEFEND_GLOBAL_DEBUG, cpuDefendDebug),
    NUMBER(CPUDEFEND_GLOBAL_POLICYMODE, policyMode),
    NUMBER(CPUDEFEND_GLOBAL_L1CPURAT, cpuRatControl[0].cpuRat),
    OCTETS(CPUDEFEND_GLOBAL_L1POLICYNAME, cpuRatControl[0].policyName),
    NUMBER(CPUDEFEND_GLOBAL_L2CPURAT, cpuRatControl[1].cpuRat),
    OCTETS(CPUDEFEND_GLOBAL_L2POLICYNAME, cpuRatControl[1].policyName),
    NUMBER(CPUDEFEND_GLOBAL_L3CPURAT, cpuRatControl[2].cpuRat),
    OCTETS(CPUDEFEND_GLOBAL_L3POLICYNAME, cpuRatControl[2].policyName),
    NM_ATTR_NO_FIELD(CPUDEFEND_GLOBAL_SYNCSTATE, NM_OCTETS, 0),
};
static_assert(nmAttrsInOrder(attrs));

#undef NUMBER
#undef OCTETS

/** Whether the attribute can be read: it stands for something that is stored. */
bool isReadable(uint32_t attrId)
{
    return attrId <= CPUDEFEND_GLOBAL_SYNCSTATE && attrId != CPUDEFEND_GLOBAL_RESETSRCTRACE &&
           attrId != CPUDEFEND_GLOBAL_SYNCSTATE;
}

/** Take the system-wide policy out of the hardware and forget its name. */
int32_t unbind()
{
    int32_t result = 0;
    if (gCpuDefend.policyNameLen != 0)
        result = cpuDefendHwDel(nullptr, gCpuDefend.policyName, gCpuDefend.policyNameLen);
    gCpuDefend.policyNameLen = 0;
    memset(gCpuDefend.policyName, 0, sizeof gCpuDefend.policyName);
    return result;
}

int32_t bind(tCpuDefendPolicyEntry *pPolicy)
{
    gCpuDefend.policyNameLen = pPolicy->policyNameLen;
    memcpy(gCpuDefend.policyName, pPolicy->policyName, pPolicy->policyNameLen);
    return cpuDefendHwAdd(nullptr, pPolicy);
}

int32_t setPolicy(const octetstring *value, uint32_t flag)
{
    if (value->len == gCpuDefend.policyNameLen &&
        memcmp(value->pBuf, gCpuDefend.policyName, value->len) == 0)
        return CPUDEFEND_OK;
    tCpuDefendPolicyEntry *pPolicy = nullptr;
    if (value->len != 0) {
        pPolicy = cpuDefendPolicyEntryGet(value->pBuf, value->len);
        if (!pPolicy)
            return CPUDEFEND_ENONAME;
    }
    int32_t result =
        zynHwScalarSync(0, SYNC_BASE + CPUDEFEND_GLOBAL_POLICY, value, flag | ZYN_SYNC_OCTETS);
    if (result != 0)
        return result;
    result = unbind();
    return pPolicy ? bind(pPolicy) : result;
}

} // namespace

tNmKind cpuDefendGlobalAttrKind(uint32_t attrId)
{
    return nmAttrKind(attrs, attrId);
}

int32_t cpuDefendGlobalGetApi(uint32_t, uint32_t attrId, octetstring *value)
{
    NmLock lock;
    if (!isReadable(attrId))
        return CPUDEFEND_FAIL;
    nmAttrGet(attrs[attrId], &gCpuDefend, value);
    return CPUDEFEND_OK;
}

int32_t _cpuDefendGlobalSetApi(uint32_t, uint32_t attrId, octetstring *value, uint32_t flag)
{
    NmLock lock;
    switch (attrId) {
    case CPUDEFEND_GLOBAL_POLICY: return setPolicy(value, flag);
    case CPUDEFEND_GLOBAL_DEBUG:
        nmAttrStoreNumber(attrs[attrId], &gCpuDefend, nmNumber(value));
        return CPUDEFEND_OK;
    default: return CPUDEFEND_FAIL;
    }
}

int32_t cpuDefendGlobalSetApi(uint32_t index, uint32_t attrId, octetstring *value)
{
    return _cpuDefendGlobalSetApi(index, attrId, value, NM_FLAG_SET);
}

int32_t cpuDefendGlobalSyncApi(uint32_t index, uint32_t attrId, octetstring *value)
{
    return _cpuDefendGlobalSetApi(index, attrId, value, NM_FLAG_SYNC);
}
